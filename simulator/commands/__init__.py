"""The subcommands of camsim, a module each: HELP, add_arguments(parser), run(arguments) -> exit code."""
