#!/usr/bin/python3
"""Prints camsim's manual page, made from what reads its command line, so that neither says anything else.

usage: manual_page.py VERSION
"""

from __future__ import annotations

import argparse
import re
import sys
from collections.abc import Iterator
from pathlib import Path

sys.path.insert(0, str(Path(__file__).resolve().parents[1]))

from simulator.cli.command_line import EXIT_CODES, make_parser  # noqa: E402 importable only with the path above

ENVIRONMENT = {
    "CAMSIM_NAME": "The camera that is meant where no --name is given.",
    "CAMGATE_BUILD": "The build folder with the service and the stand-ins, in place of the installed ones.",
    "XDG_RUNTIME_DIR": "Running cameras listen in camsim below it; without it, in /tmp/camsim-UID.",
    "NO_COLOR": "Nothing is coloured."}


def escaped(text: str) -> str:
    """Text as the formatter shows it as it is."""
    for character, written in (("\\", r"\e"), ("-", r"\-"), ("`", r"\(ga"), ("^", r"\(ha"), ("~", r"\(ti")):
        text = text.replace(character, written)
    return re.sub(r"^(?=[.'])", r"\\&", text, flags=re.MULTILINE)


def words_of(action: argparse.Action) -> str:
    """An argument as it is written, for example "--count N"."""
    choices = "{" + ",".join(map(str, action.choices)) + "}" if action.choices else ""
    value = action.metavar or choices or action.dest.upper()
    values = " ".join(value) if isinstance(value, tuple) else str(value)
    if not action.option_strings:
        return values
    return ", ".join(action.option_strings) + ("" if action.nargs == 0 else f" {values}")


def arguments(parser: argparse.ArgumentParser) -> Iterator[str]:
    elsewhere = (argparse._SubParsersAction, argparse._HelpAction)
    for action in parser._actions:  # the only list of them that argparse has
        if action.help != argparse.SUPPRESS and not isinstance(action, elsewhere):
            text = parser._get_formatter()._expand_help(action) if action.help else ""
            yield f".TP\n.B {escaped(words_of(action))}\n{escaped(text)}"


def subcommands(parser: argparse.ArgumentParser) -> Iterator[tuple[str, argparse.ArgumentParser]]:
    for action in parser._actions:
        if isinstance(action, argparse._SubParsersAction):
            yield from action.choices.items()


def section(name: str, parser: argparse.ArgumentParser) -> Iterator[str]:
    """A subcommand, and the ones below it."""
    yield f".SS {escaped(name)}\n{escaped(parser.description or '')}"
    yield from arguments(parser)
    examples = (parser.epilog or "").partition("examples:\n")[2].partition("\n\n")[0]
    if examples:
        yield ".PP\nExamples:\n.PP\n.nf\n" + "\n".join(escaped(line) for line in examples.splitlines()) + "\n.fi"
    for below, inner in subcommands(parser):
        yield from section(f"{name} {below}", inner)


def page(version: str) -> str:
    parser = make_parser()
    parts = [f'.TH CAMSIM 1 "" "camgate {version}" "camgate"', ".SH NAME\ncamsim \\- a simulated camera around camgate",
             ".SH SYNOPSIS\n.B camsim\n[\n.I COMMAND\n[\n.I ARGUMENT...\n]]",
             f".SH DESCRIPTION\n{escaped(parser.description or '')}\n.PP\n"
             + escaped("camsim alone says what runs, and what to do next."),
             ".SH COMMANDS"]
    for name, sub in subcommands(parser):
        parts += section(name, sub)
    parts.append(".SH EXIT STATUS")
    parts += [f".TP\n.B {code}\n{escaped(text)}" for code, text in
              re.findall(r"(\d+) (.+?)(?:;|$)", EXIT_CODES.replace("\n", " ").partition(": ")[2])]
    parts.append(".SH ENVIRONMENT")
    parts += [f".TP\n.B {name}\n{escaped(text)}" for name, text in ENVIRONMENT.items()]
    parts.append(".SH SEE ALSO\n.BR protocol_process (8),\n.BR ringbuf_cat (1)\n.PP\nGuides and examples: "
                 + escaped("/usr/share/doc/camgate-simulator"))
    return "\n".join(parts) + "\n"


if __name__ == "__main__":
    if len(sys.argv) != 2:
        sys.exit(__doc__)
    sys.stdout.write(page(sys.argv[1]))
