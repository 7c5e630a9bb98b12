"""Scenario files: reading them and playing them."""
