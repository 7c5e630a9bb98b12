"""What is drawn on a terminal, whatever its width, and written as plain lines elsewhere."""
