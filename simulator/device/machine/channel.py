"""The channel to the agent in a booted camera; agent.c has its frames."""

from __future__ import annotations

import contextlib
import itertools
import socket
import struct
import threading
import time
from collections.abc import Callable
from dataclasses import dataclass
from pathlib import Path

from simulator.errors import CameraError

_LONGEST_WAIT = 600.0


@dataclass
class Ended:
    """What a command in the camera wrote, on both of its outputs, and ended with."""

    code: int
    output: bytes

    @property
    def text(self) -> str:
        return self.output.decode("utf-8", "backslashreplace")


class _Command:
    """A command that runs in the camera."""

    def __init__(self) -> None:
        self.output: list[bytes] = []
        self.code: int | None = None
        self.done = threading.Event()


def connected(path: Path, deadline: float, alive: Callable[[], bool]) -> socket.socket:
    """A connection to a socket that a program that was just started makes. Raises CameraError."""
    while True:
        one = socket.socket(socket.AF_UNIX)
        try:
            one.connect(str(path))
            return one
        except OSError as error:
            one.close()
            if not alive() or time.monotonic() > deadline:
                raise CameraError(f"the emulated machine does not listen on {path}: {error}") from error
        time.sleep(0.01)  # pause: the program tells nobody that it has made its socket


class Channel:
    """Sends frames to the agent, and hands those that come to `handler(kind, first word, data)` on its own thread.

    Commands of run() are dealt with here. The agent's first frame, which says that it is there, is handed on, too.
    """

    def __init__(self, connection: socket.socket, handler: Callable[[str, str, bytes], None]) -> None:
        self._connection = connection
        self._handler = handler
        self._sending = threading.Lock()
        self._tags = itertools.count(1)
        self._waiting: dict[str, _Command] = {}
        self._running: dict[str, _Command] = {}
        self._thread = threading.Thread(target=self._read, name="machine", daemon=True)
        self._thread.start()

    def send(self, kind: str, *words: str, data: bytes = b"") -> None:
        """Sends one frame; nothing happens when the machine has ended."""
        body = kind.encode() + b"".join(word.encode() + b"\0" for word in words) + data
        with self._sending, contextlib.suppress(OSError):
            self._connection.sendall(struct.pack("<I", len(body)) + body)

    def start(self, command: str) -> _Command:
        """Starts a command with the camera's shell, as root."""
        tag = str(next(self._tags))
        self._waiting[tag] = one = _Command()
        self.send("x", tag, command)
        return one

    def run(self, command: str, timeout: float = _LONGEST_WAIT) -> Ended:
        """Runs a command to its end. Raises TimeoutError, and CameraError when the machine ends before."""
        one = self.start(command)
        if not one.done.wait(timeout):
            raise TimeoutError(f"in the camera, no end of: {command}\n{b''.join(one.output).decode(errors='replace')}")
        if one.code is None:
            raise CameraError(f"the emulated machine ended during: {command}")
        return Ended(one.code, b"".join(one.output))

    def close(self) -> None:
        with contextlib.suppress(OSError):
            self._connection.shutdown(socket.SHUT_RDWR)
        self._thread.join()
        self._connection.close()

    def _read(self) -> None:
        with self._connection.makefile("rb") as stream, contextlib.suppress(OSError):
            while len(head := stream.read(4)) == 4:
                body = stream.read(struct.unpack("<I", head)[0])
                word, _, data = body[1:].partition(b"\0")
                self._take(chr(body[0]), word.decode(), data)
        self._forget_commands()

    def _forget_commands(self) -> None:
        for one in [*self._waiting.values(), *self._running.values()]:
            one.done.set()
        self._waiting.clear()
        self._running.clear()

    def _take(self, kind: str, word: str, data: bytes) -> None:
        if kind == "h":
            self._forget_commands()
        if kind == "o" and data.startswith(b"run "):
            self._running[word] = self._waiting.pop(data[4:].decode())
        elif kind == "a" and word in self._running:
            self._running[word].output.append(data)
        elif kind == "c" and word in self._running:
            one = self._running.pop(word)
            one.code = int(data)
            one.done.set()
        else:
            self._handler(kind, word, data)
