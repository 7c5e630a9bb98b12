"""Subcommands of camsim for a camera that has booted."""
