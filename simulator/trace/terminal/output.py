"""What is said without a display: in lines of the terminal's width, or as it is into a pipe or file."""

from __future__ import annotations

import os
import signal
import sys
import threading
from typing import TextIO

_INDENT = 4


def say(text: str, stream: TextIO | None = None) -> None:
    """Writes a text and a line break; on a terminal no word is broken, and what a line has too much is indented."""
    stream = stream or sys.stdout
    stream.write("\n".join(_lines(text, stream)) + "\n")
    stream.flush()


def _lines(text: str, stream: TextIO) -> list[str]:
    try:
        width = os.get_terminal_size(stream.fileno()).columns
    except (OSError, ValueError):
        return [text]
    from rich.text import Text  # late: it takes a while, and often the output is no terminal

    from simulator.trace.terminal.lines import in_lines

    lines: list[str] = []
    for line in text.split("\n"):
        indent = len(line) - len(line.lstrip()) + _INDENT
        first, *rest = in_lines(Text(line), max(1, width), max(1, width - indent))
        lines += [first.plain.rstrip(), *(" " * indent + one.plain.rstrip() for one in rest)]
    return lines


class Failure:
    """The first failure to write to standard output. The main thread ends with it, whichever one met it."""

    first: OSError | None = None

    @classmethod
    def note(cls, error: OSError) -> None:
        cls.first = cls.first or error
        if threading.current_thread() is not threading.main_thread():
            end_main_thread()


def end_main_thread() -> None:
    """Has the main thread end, as SIGTERM does."""
    identity = threading.main_thread().ident
    assert identity is not None
    signal.pthread_kill(identity, signal.SIGTERM)
