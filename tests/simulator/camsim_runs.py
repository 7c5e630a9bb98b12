"""Runs camsim as a user does: to its end, until it is stopped, and on a terminal."""

from __future__ import annotations

import fcntl
import json
import os
import pty
import select
import signal
import struct
import subprocess
import termios
import threading
import time
from collections.abc import Callable
from pathlib import Path
from typing import Any

from support import DEADLINE

ROOT = Path(__file__).resolve().parents[2]
CAMSIM = ROOT / "simulator" / "camsim"


class Camsim:
    """Runs camsim with a runtime folder of its own, from a folder that is not the repository's."""

    def __init__(self, runtime: Path) -> None:
        self.environment = {**os.environ, "XDG_RUNTIME_DIR": str(runtime), "LC_ALL": "C.UTF-8",
                            "TERM": "xterm-256color"}
        for name in ("NO_COLOR", "COLUMNS", "CAMSIM_NAME"):
            self.environment.pop(name, None)
        self.runtime = runtime

    def run(self, *words: object, program: Path = CAMSIM) -> subprocess.CompletedProcess[str]:
        """Runs to the end; nothing of Python's innards may show."""
        done = subprocess.run([str(program), *map(str, words)], cwd=self.runtime, env=self.environment, text=True,
                              stdin=subprocess.DEVNULL, capture_output=True, timeout=DEADLINE, check=False)
        assert "Traceback" not in done.stderr + done.stdout, done.stderr
        return done

    def json(self, *words: object) -> list[Any]:
        """The objects that it prints with --json."""
        return [json.loads(line) for line in self.run(*words, "--json").stdout.splitlines()]

    def start(self, *words: object, **arguments: Any) -> subprocess.Popen[str]:
        return subprocess.Popen([str(CAMSIM), *map(str, words)], cwd=self.runtime, env=self.environment, text=True,
                                stdin=subprocess.DEVNULL, stdout=subprocess.PIPE, stderr=subprocess.PIPE, **arguments)

    def drawn(self, *words: object, columns: int = 120, **environment: str) -> Drawn:
        """Starts it on a terminal of so many columns."""
        return Drawn([str(CAMSIM), *map(str, words)], {**self.environment, **environment}, columns)


def read_terminal(master: int, seconds: float) -> bytes:
    """What a program has drawn, or draws within so many seconds; empty when it drew nothing, or has ended."""
    if not select.select([master], [], [], max(0.0, seconds))[0]:
        return b""
    try:
        return os.read(master, 65536)
    except OSError:  # the other end is closed
        return b""


class Drawn:
    """A program on a pseudo terminal. `text` is what it wrote so far."""

    def __init__(self, command: list[str], environment: dict[str, str], columns: int) -> None:
        master, terminal = pty.openpty()
        fcntl.ioctl(terminal, termios.TIOCSWINSZ, struct.pack("HHHH", 50, columns, 0, 0))
        self.process = subprocess.Popen(command, env=environment, stdin=terminal, stdout=terminal, stderr=terminal,
                                        start_new_session=True)
        os.close(terminal)
        self._master = master
        self.text = ""

    def type(self, keys: str) -> None:
        os.write(self._master, keys.encode())

    def wait_for(self, wanted: str, seconds: float = DEADLINE) -> str:
        """Reads until the text is there; returns everything so far."""
        deadline = time.monotonic() + seconds
        while wanted not in self.text:
            assert self._read(deadline - time.monotonic()), f"{wanted!r} is not in\n{self.text}"
        return self.text

    def end(self) -> str:
        """Waits for the end; returns everything."""
        while self._read(DEADLINE):
            pass
        assert self.process.wait(DEADLINE) is not None
        os.close(self._master)
        return self.text

    def _read(self, seconds: float) -> bool:
        data = read_terminal(self._master, seconds)
        self.text += data.decode("utf-8", "replace")
        return bool(data)


class Up:
    """A subcommand that runs until it is stopped, begun with --json.

    first  the object that says that it is up
    lines  every object so far
    """

    def __init__(self, process: subprocess.Popen[str]) -> None:
        self.process = process
        self.lines: list[dict[str, Any]] = []
        self.first: dict[str, Any] = {}
        self._is_up = threading.Event()
        self._reader = threading.Thread(target=self._read, daemon=True)
        self._reader.start()
        assert self._is_up.wait(DEADLINE)
        assert self.first and process.stderr, "it ended before it was up"

    def stop(self, number: int = signal.SIGTERM) -> int:
        """Ends it with a signal; returns its exit code."""
        self.process.send_signal(number)
        code = self.process.wait(DEADLINE)
        self._reader.join()
        assert self.process.stderr is not None
        assert (errors := self.process.stderr.read()) == "", errors
        return code

    def _read(self) -> None:
        """Reads all the time: a full pipe would hold the camera up."""
        assert self.process.stdout is not None
        for line in self.process.stdout:
            self.lines.append(json.loads(line))
            if self.lines[-1].get("up"):
                self.first = self.lines[-1]
                self._is_up.set()
        self._is_up.set()


# The fixture up.
StartUp = Callable[..., Up]
