"""Where the service runs: its sandbox and restrictions, its start, log and end."""
