"""The subcommands of camsim, a module each.

A module has HELP (one line for the list of subcommands), add_arguments(parser), and run(arguments), which returns the
exit code. What goes wrong is raised as CameraError, with a text that says why and what to do. A description, and
examples that a test runs, come from the module's DESCRIPTION and EXAMPLES.
"""
