"""What the service costs, beside what people would pick instead. scripts/bench runs it."""
