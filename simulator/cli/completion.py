"""camsim completion: lets a shell complete camsim's words."""

from __future__ import annotations

import argparse

from simulator import faults
from simulator.cli.command_line import DONE, make_parser

HELP = "print a script that lets bash complete camsim's words"
DESCRIPTION = """\
Prints a script for bash. For one shell: source <(camsim completion bash). For every shell of a user: write it
to ~/.local/share/bash-completion/completions/camsim."""
EXAMPLES = ("source <(camsim completion bash)",)

_SCRIPT = """# Completion of camsim for bash; made by `camsim completion bash`.
_camsim() {
    local word=${COMP_WORDS[COMP_CWORD]} before=${COMP_WORDS[COMP_CWORD-1]} words=
    if ((COMP_CWORD == 1)); then
        words="%(subcommands)s --help"
    else
        case $before in
            --fault) words="%(faults)s" ;;
            --record | --pictures | --service | --raw) ;;
            *)
                case ${COMP_WORDS[1]} in
%(cases)s
                esac
                ;;
        esac
    fi
    mapfile -t COMPREPLY < <(compgen -W "$words" -- "$word")
}
complete -o default -F _camsim camsim
"""
# Words that stand without an option.
_POSITIONALS = {
    "send": ("whiteListDown", "whiteListClear", "faceNotHitDown"),
    "fault": ("list", "all", "on", "off", *faults.FAULTS, *faults.PEERS),
    "completion": ("bash",)}


def add_arguments(parser: argparse.ArgumentParser) -> None:
    parser.add_argument("shell", choices=("bash",), help="the shell")


def run(_arguments: argparse.Namespace) -> int:
    subparsers = subcommands()
    cases = []
    for name, parser in subparsers.items():
        options = [word for action in parser._actions for word in action.option_strings if word.startswith("--")]
        cases.append(f'                    {name}) words="{" ".join([*_POSITIONALS.get(name, ()), *options])}" ;;')
    print(_SCRIPT % {"subcommands": " ".join(subparsers), "faults": " ".join(faults.FAULTS),
                     "cases": "\n".join(cases)}, end="")
    return DONE


def subcommands() -> dict[str, argparse.ArgumentParser]:
    """The parser of each subcommand."""
    for action in make_parser()._actions:
        if isinstance(action, argparse._SubParsersAction):
            return dict(action.choices)
    raise AssertionError("camsim has subcommands")
