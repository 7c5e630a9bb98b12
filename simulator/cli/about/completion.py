"""camsim completion: lets a shell complete camsim's words."""

from __future__ import annotations

import argparse

import argcomplete

from simulator.cli.command_line import DONE

HELP = "print a script that makes bash complete camsim's commands, options and faults"
DESCRIPTION = """\
Prints a script for bash. For one shell: source <(camsim completion bash). For every shell of a user: write it
to ~/.local/share/bash-completion/completions/camsim."""
EXAMPLES = ("source <(camsim completion bash)",)


def add_arguments(parser: argparse.ArgumentParser) -> None:
    parser.add_argument("shell", choices=("bash",), help="the shell")


def run(_arguments: argparse.Namespace) -> int:
    print(argcomplete.shellcode(["camsim"], shell="bash"), end="")
    return DONE
