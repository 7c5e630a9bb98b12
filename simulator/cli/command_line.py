"""camsim: finds the subcommands, reads the command line, and turns what goes wrong into a text and an exit code."""

from __future__ import annotations

import argparse
import importlib
import json
import os
import pkgutil
import signal
import sys
from collections.abc import Iterator, Sequence
from contextlib import contextmanager
from pathlib import Path
from types import FrameType, ModuleType
from typing import Any

from simulator.errors import CameraError

# Exit codes of every subcommand. 2 is argparse's own.
DONE, FAILED, WRONG_ARGUMENTS, REFUSED, BUSY, NO_REPLY, NO_CAMERA, INCOMPLETE = range(8)
STOPPED = 130  # as a shell says it of a program that Ctrl-C has ended
EXIT_CODES = """exit codes: 0 done; 1 failed, or not as expected; 2 wrong arguments; 3 the command was refused (400);
4 a download is already running (409); 5 no reply in time; 6 no such camera is running;
7 the download did not bring every page, or no picture of it was imported; 130 stopped before its end"""


class CodedError(CameraError):
    """A failure with an exit code of its own."""

    def __init__(self, text: str, code: int) -> None:
        super().__init__(text)
        self.code = code


class Stopped(BaseException):
    """A signal asked for the end. No Exception, so that nothing but the subcommand takes it."""


def modules(wanted: str = "") -> dict[str, ModuleType]:
    """The subcommands by name; only the wanted one, if there is such a one: that is quicker than all."""
    names = {info.name: f"{__package__}.{folder}.{info.name}" for folder in ("commands", "about", "machine")
             for info in pkgutil.iter_modules([str(Path(__file__).with_name(folder))])}
    return {name: importlib.import_module(names[name]) for name in ([wanted] if wanted in names else sorted(names))}


def make_parser(wanted: str = "") -> argparse.ArgumentParser:
    """Reads the words of every subcommand, or of the wanted one."""
    parser = argparse.ArgumentParser(
        prog="camsim", formatter_class=argparse.RawDescriptionHelpFormatter, epilog=EXIT_CODES,
        description="A camera on this machine, for those without one: the unchanged service in its own sandbox,\n"
                    "and every process around it simulated. `camsim COMMAND --help` explains each command.")
    subparsers = parser.add_subparsers(dest="subcommand", metavar="COMMAND", required=True)
    for name, module in modules(wanted).items():
        examples = "".join(f"\n  {line}" for line in getattr(module, "EXAMPLES", ()))
        sub = subparsers.add_parser(
            name, help=module.HELP, formatter_class=argparse.RawDescriptionHelpFormatter,
            description=getattr(module, "DESCRIPTION", module.HELP),
            epilog=(f"examples:{examples}\n\n" if examples else "") + EXIT_CODES)
        module.add_arguments(sub)
        sub.set_defaults(run=module.run)
    return parser


def main(words: Sequence[str]) -> int:
    if "_ARGCOMPLETE" in os.environ:
        complete()
    arguments = make_parser(words[0]).parse_args(words) if words else _ALONE
    signal.signal(signal.SIGINT, signal.default_int_handler)
    try:
        code: int = arguments.run(arguments)
        sys.stdout.flush()
        return code
    except BrokenPipeError:
        os.dup2(os.open(os.devnull, os.O_WRONLY), sys.stdout.fileno())  # or the interpreter complains at its end
        return FAILED
    except (CameraError, TimeoutError, OSError) as error:
        if getattr(arguments, "json", False):
            print_json({"error": str(error)})
        else:
            print(f"{f'camsim {arguments.subcommand}'.strip()}: {error}", file=sys.stderr)
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


def completing(action: argparse.Action, *words: str) -> None:
    """Names the words that an argument is likely to be, for shells to complete; it may be another."""
    action.completer = lambda **_: words  # type: ignore[attr-defined] # what argcomplete asks for


def print_json(document: Any) -> None:
    """One line on standard output, at once and in one piece, whichever thread writes beside it."""
    sys.stdout.write(json.dumps(document, ensure_ascii=False) + "\n")
    sys.stdout.flush()


@contextmanager
def stoppable() -> Iterator[None]:
    """While the block runs, Ctrl-C, SIGTERM and SIGHUP raise Stopped in it, once: the end is not to be interrupted."""
    numbers = (signal.SIGINT, signal.SIGTERM, signal.SIGHUP)

    def stop(_number: int, _frame: FrameType | None) -> None:
        for number in numbers:
            signal.signal(number, signal.SIG_IGN)
        raise Stopped

    before = {number: signal.signal(number, stop) for number in numbers}
    try:
        yield
    finally:
        for number, handler in before.items():
            signal.signal(number, handler)
