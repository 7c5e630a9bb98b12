"""The page of a recorded run: what makes it, and what it is made of."""
