"""camsim and the demonstration: what is called from a shell."""
