"""The subcommands about platforms: the simulated one alone, and whether one of your own will do."""
