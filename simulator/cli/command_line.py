"""camsim: finds the subcommands, reads the command line, and turns what goes wrong into a text and an exit code."""

from __future__ import annotations

import argparse
import contextlib
import errno
import importlib
import itertools
import json
import os
import pkgutil
import re
import signal
import sys
import textwrap
from collections.abc import Sequence
from pathlib import Path
from types import ModuleType
from typing import Any

from simulator.cli import ending
from simulator.cli.ending import OUTPUT_CLOSED, STOPPED, Stopped, complain, complete_streams, flushed
from simulator.errors import CameraError
from simulator.trace.terminal.output import Failure

# Exit codes of every subcommand. 2 is argparse's own.
DONE, FAILED, WRONG_ARGUMENTS, REFUSED, BUSY, NO_REPLY, NO_CAMERA, INCOMPLETE = range(8)
EXIT_CODES = """exit codes: 0 done; 1 failed, or not as expected; 2 wrong arguments; 3 the command was refused (400);
4 a download is already running (409); 5 no reply in time, or a download stands still; 6 no such camera is running;
7 the download did not bring every page, or no picture of it was imported;
130 stopped before its end (Ctrl-C, SIGTERM, SIGHUP); 141 nobody reads what it prints"""


class _Help(argparse.HelpFormatter):
    """Help as wide as the terminal, broken between words only; indented lines, the examples, stay as they are."""

    def _split_lines(self, text: str, width: int) -> list[str]:
        kept = re.sub(r"\b(\d) ", "\\1\N{NO-BREAK SPACE}", " ".join(text.split()))
        return [line.replace("\N{NO-BREAK SPACE}", " ") for line in
                textwrap.wrap(kept, width, break_on_hyphens=False, break_long_words=False)]

    def _fill_text(self, text: str, width: int, indent: str) -> str:
        filled: list[str] = []
        for indented, lines in itertools.groupby(text.split("\n"), lambda line: line.startswith(" ") or not line):
            filled += lines if indented else self._split_lines(" ".join(lines), width)
        return "\n".join(filled)


stoppable = ending.stoppable  # subcommands have it from here, with what it raises


class CodedError(CameraError):
    """A failure with an exit code of its own."""

    def __init__(self, text: str, code: int) -> None:
        super().__init__(text)
        self.code = code


def modules(wanted: str = "") -> dict[str, ModuleType]:
    """The subcommands by name; only the wanted one, if there is such a one: that is quicker than all."""
    names = {info.name.replace("_", "-"): f"{__package__}.{folder}.{info.name}"
             for folder in ("commands", "platforms", "recordings", "about", "machine")
             for info in pkgutil.iter_modules([str(Path(__file__).with_name(folder))])}
    return {name: importlib.import_module(names[name]) for name in ([wanted] if wanted in names else sorted(names))}


def make_parser(wanted: str = "") -> argparse.ArgumentParser:
    """Reads the words of every subcommand, or of the wanted one."""
    parser = argparse.ArgumentParser(
        prog="camsim", formatter_class=_Help, epilog=EXIT_CODES,
        description="A camera on this machine, for those without one: the unchanged service in its own sandbox,\n"
                    "and every process around it simulated. `camsim COMMAND --help` explains each command.")
    subparsers = parser.add_subparsers(dest="subcommand", metavar="COMMAND", required=True)
    for name, module in modules(wanted).items():
        examples = "".join(f"\n  {line}" for line in getattr(module, "EXAMPLES", ()))
        sub = subparsers.add_parser(
            name, help=module.HELP, formatter_class=_Help,
            description=getattr(module, "DESCRIPTION", module.HELP),
            epilog=(f"examples:{examples}\n\n" if examples else "") + EXIT_CODES)
        module.add_arguments(sub)
        sub.set_defaults(run=module.run)
    return parser


def main(words: Sequence[str]) -> int:
    if "_ARGCOMPLETE" in os.environ:
        complete()
    complete_streams()
    try:
        arguments = make_parser(words[0]).parse_args(words) if words else _ALONE
    except SystemExit as end:  # after --help, or a complaint about the words
        return flushed(int(end.code or 0), "camsim")
    except OSError as error:  # newer versions of argparse say nothing of a help that cannot be written
        Failure.note(error)
        return flushed(FAILED, "camsim")
    return flushed(_code(arguments), "camsim")


def _code(arguments: argparse.Namespace) -> int:
    """Runs the subcommand; its exit code, also if it failed or was stopped."""
    try:
        signal.signal(signal.SIGINT, signal.default_int_handler)
        code: int = arguments.run(arguments)
        return code
    except BrokenPipeError:
        return OUTPUT_CLOSED
    except (CameraError, TimeoutError, OSError) as error:
        if isinstance(error, OSError) and error.errno == errno.ENOSPC and error.filename is None:
            Failure.note(error)  # a long text's first part could not be written
        if error is Failure.first:
            return FAILED
        if getattr(arguments, "json", False):
            with contextlib.suppress(OSError):  # what cannot be written is told at the end
                print_json({"error": str(error)})
        else:
            complain(f"{f'camsim {arguments.subcommand}'.strip()}: {error}")
        return error.code if isinstance(error, CodedError) else FAILED
    except (KeyboardInterrupt, Stopped):
        return STOPPED


def _next_step(_arguments: argparse.Namespace) -> int:
    code: int = importlib.import_module(f"{__package__}.about.status").next_step()
    return code


# What is done without a subcommand.
_ALONE = argparse.Namespace(subcommand="", run=_next_step)


def complete() -> None:
    """Tells a shell what the word on its line can become, and ends. `camsim completion bash` prints what calls this."""
    import argcomplete  # late, because nothing else of camsim needs it

    argcomplete.autocomplete(make_parser(), always_complete_options="long")


def completing(action: argparse.Action, *words: str, files: bool = False) -> None:
    """Names the words that an argument is likely to be, for shells to complete; it may be another, or a file."""
    def completer(prefix: str, **_: Any) -> Sequence[str]:
        from argcomplete.completers import FilesCompleter  # late, as in complete()

        return [*words, *FilesCompleter()(prefix)] if files else words
    action.completer = completer  # type: ignore[attr-defined] # what argcomplete asks for


def print_json(document: Any) -> None:
    """One line on standard output, at once and in one piece, whichever thread writes beside it."""
    sys.stdout.write(json.dumps(document, ensure_ascii=False) + "\n")
    sys.stdout.flush()
