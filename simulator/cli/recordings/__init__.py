"""The subcommands that are about recorded runs. ../commands/__init__.py says what such a module has."""
