"""camsim completion: lets a shell complete camsim's words."""

from __future__ import annotations

import argparse
from pathlib import Path

from simulator.cli.command_line import DONE

HELP = "print a script that makes bash, zsh or fish complete camsim's commands, options and faults"
DESCRIPTION = """\
Prints a script for a shell; the package has installed all three. For one shell: source <(camsim completion bash),
the same for zsh, and camsim completion fish | source. For every shell of a user write it to
~/.local/share/bash-completion/completions/camsim (bash), to _camsim in a folder of $fpath (zsh), or to
~/.config/fish/completions/camsim.fish (fish)."""
EXAMPLES = ("source <(camsim completion bash)", "source <(camsim completion zsh)", "camsim completion fish | source")
_FOLDER = Path(__file__).resolve().parents[1] / "completions"
_SCRIPTS = {"bash": "camsim.bash", "zsh": "_camsim", "fish": "camsim.fish"}


def add_arguments(parser: argparse.ArgumentParser) -> None:
    parser.add_argument("shell", choices=tuple(_SCRIPTS), help="the shell")


def run(arguments: argparse.Namespace) -> int:
    print((_FOLDER / _SCRIPTS[arguments.shell]).read_text(encoding="utf-8"), end="")
    return DONE
