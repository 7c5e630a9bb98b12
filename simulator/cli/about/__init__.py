"""The subcommands about camsim itself: what runs, and how a shell completes its words."""
