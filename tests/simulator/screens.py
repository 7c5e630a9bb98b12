"""A display on a terminal whose screen tests can read, and whose width they change."""

from __future__ import annotations

import fcntl
import json
import os
import pty
import re
import struct
import subprocess
import termios
import time
from typing import Any

import pyte

from camsim_runs import ROOT, read_terminal
from support import DEADLINE

ESCAPES = re.compile(r"\x1b\[[0-9;?]*[A-Za-z]")
_ROWS = 40
# Shows what it reads, a line of JSON each, and says so with a byte on standard error.
_PROGRAM = """
import json, sys
from simulator.trace.display import Display
from simulator.trace.explanation import LiveItem
show = Display(sys.argv[1] == "verbose")
with show:
    show.pin()
    for line in sys.stdin:
        order = json.loads(line)
        words = [LiveItem(**order["live"])] if "live" in order else order["words"]
        if order["do"] == "dump":
            words[2] = bytes.fromhex(words[2])
        getattr(show, order["do"])(*words)
        sys.stderr.write(".")
        sys.stderr.flush()
"""


def live(source: str, text: str, target: str = "", time: float = 1.5, **more: Any) -> dict[str, Any]:
    """Something that happened, as the display takes it."""
    return {"do": "show", "live": {
        "time": time, "source": source, "target": target, "kind": "message" if target else "note", "title": text,
        "text": text, "fields": {}, "shown": ["drawn", "as line"], **more}}


class Screen:
    """A Display in a process of its own. `text` is what it wrote, `lines()` what a reader sees."""

    def __init__(self, columns: int, *, verbose: bool = False, **environment: str) -> None:
        master, terminal = pty.openpty()
        self._master = master
        self.columns = columns
        self._screen = pyte.HistoryScreen(columns, _ROWS, history=10_000)
        self._stream = pyte.ByteStream(self._screen)
        self.resize(columns)
        inherited = {name: value for name, value in os.environ.items() if name not in ("NO_COLOR", "COLUMNS")}
        self._process = subprocess.Popen(
            ["/usr/bin/python3", "-c", _PROGRAM, "verbose" if verbose else ""], cwd=ROOT, stdin=subprocess.PIPE,
            stdout=terminal, stderr=subprocess.PIPE, text=True,
            env={**inherited, "TERM": "xterm-256color", "LC_ALL": "C.UTF-8", **environment})
        os.close(terminal)
        self.text = ""

    def resize(self, columns: int) -> None:
        fcntl.ioctl(self._master, termios.TIOCSWINSZ, struct.pack("HHHH", _ROWS, columns, 0, 0))
        self._screen.resize(_ROWS, columns)
        self.columns = columns

    def order(self, *orders: dict[str, Any]) -> None:
        """Has it show these, and reads what it draws."""
        assert self._process.stdin and self._process.stderr
        for order in orders:
            self._process.stdin.write(json.dumps(order) + "\n")
            self._process.stdin.flush()
            assert self._process.stderr.read(1) == "."
            while self._read(0):
                pass

    def wait_for(self, wanted: str) -> None:
        """Reads until a row of the screen has this text: some is drawn only when the display looks at the width."""
        deadline = time.monotonic() + DEADLINE
        while not any(wanted in line for line in self.lines()):
            assert self._read(deadline - time.monotonic()), "\n".join(self.lines())

    def end(self) -> list[str]:
        """Closes its input; returns all that can be read then."""
        assert self._process.stdin
        self._process.stdin.close()
        while self._read(DEADLINE):
            pass
        assert self._process.wait(DEADLINE) == 0
        os.close(self._master)
        return self.lines()

    def lines(self) -> list[str]:
        """Every row, those that have left the screen, too, without those below the last one."""
        history = ["".join(row[column].data for column in range(self.columns)) for row in self._screen.history.top]
        return "\n".join(line.rstrip() for line in [*history, *self._screen.display]).rstrip().split("\n")

    def _read(self, seconds: float) -> bool:
        data = read_terminal(self._master, seconds)
        self.text += data.decode("utf-8", "replace")
        self._stream.feed(data)
        return bool(data)
