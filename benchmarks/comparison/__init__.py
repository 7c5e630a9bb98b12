"""The figures of a run, and what tells them from those of another."""
