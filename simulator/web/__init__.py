"""A running camera as a page in a browser of this machine."""
