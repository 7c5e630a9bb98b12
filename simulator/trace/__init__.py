"""What happened, in words: live, or read from a recorded run."""
