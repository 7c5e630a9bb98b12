"""What scripts/mutate is made of: places, the tests that try them, trials, results."""
