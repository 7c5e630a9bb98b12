"""How a program comes to its end before it is done: signals, and an output that nobody reads any more."""

from __future__ import annotations

import contextlib
import errno
import os
import select
import signal
import sys
import threading
from collections.abc import Iterator
from types import FrameType

from simulator.trace.terminal.output import Failure, end_main_thread, say

# Exit codes as a shell says them of a program that SIGINT or SIGPIPE has ended.
STOPPED, OUTPUT_CLOSED = 130, 141


class Stopped(BaseException):
    """A signal asked for the end. No Exception, so that nothing but the subcommand takes it."""


class _Output:
    closed = False  # nobody reads it any more


@contextlib.contextmanager
def stoppable() -> Iterator[None]:
    """While the block runs, Ctrl-C, SIGTERM, SIGHUP and a closed output raise Stopped in it, once: the end is not to
    be interrupted."""
    numbers = [number for number in (signal.SIGINT, signal.SIGTERM, signal.SIGHUP)
               if signal.getsignal(number) != signal.SIG_IGN]  # nohup ignores SIGHUP

    def stop(_number: int, _frame: FrameType | None) -> None:
        for number in numbers:
            signal.signal(number, signal.SIG_IGN)
        raise Stopped

    before = {number: signal.signal(number, stop) for number in numbers}
    over = threading.Event()
    threading.Thread(target=_watch_output, args=(over,), name="output", daemon=True).start()
    try:
        yield
    finally:
        over.set()
        for number, handler in before.items():
            signal.signal(number, handler)


def _watch_output(over: threading.Event) -> None:
    """Ends the block when nobody reads standard output any more, even if there is nothing to write just now."""
    poll = select.poll()
    poll.register(1, 0)
    poll.poll()
    if not over.is_set():
        _Output.closed = True
        end_main_thread()


def flushed(code: int, program: str) -> int:
    """The exit code, when everything that was written has left: another one, if it could not leave."""
    try:
        sys.stdout.flush()
        if Failure.first:
            raise Failure.first
    except OSError as error:
        os.dup2(os.open(os.devnull, os.O_WRONLY), 1)  # or the interpreter complains at its end
        if error.errno not in (errno.EPIPE, errno.EIO):  # a pipe, or a terminal that was closed
            complain(f"{program}: what it says cannot be written: {error.strerror}")
            return 1
        _Output.closed = True
    return OUTPUT_CLOSED if _Output.closed else code


def complain(text: str) -> None:
    """Says it on standard error, unless that is closed, too."""
    with contextlib.suppress(OSError):
        say(text, sys.stderr)


def complete_streams() -> None:
    """Gives a program that was started without one of its three streams an empty one: others are not to take its
    place; and signs that the output's encoding does not have are written by their number."""
    for number in range(3):
        try:
            os.fstat(number)
        except OSError:
            os.open(os.devnull, os.O_RDWR)  # the lowest free number
    sys.stdin = sys.stdin or open(0, encoding="utf-8", closefd=False)
    sys.stdout = sys.stdout or open(1, "w", encoding="utf-8", closefd=False)
    sys.stderr = sys.stderr or open(2, "w", encoding="utf-8", closefd=False)
    for stream in (sys.stdout, sys.stderr):
        stream.reconfigure(errors="backslashreplace")  # type: ignore[union-attr] # a file has it, too
