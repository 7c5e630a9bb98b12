"""What belongs together in a run: requests and their answers, work and what failed in it."""
