"""How the subcommands of camsim talk to a camera that runs: a socket of its own in the user's runtime folder.

A request is one line of JSON, {"do": ...}; the answer is one line, or, for a watcher, one for each thing that
happens.
"""

from __future__ import annotations

import contextlib
import json
import os
import queue
import re
import socket
import stat
import threading
from collections.abc import Callable, Iterator, Mapping
from dataclasses import replace
from pathlib import Path
from typing import Any

from simulator.cli.command_line import NO_CAMERA, WRONG_ARGUMENTS, CodedError, print_json
from simulator.errors import CameraError
from simulator.journal import Event, Journal
from simulator.trace.explanation import LiveItem, LiveTrace
from simulator.trace.terminal.output import Failure

_LONGEST_REQUEST = 64 * 1024 * 1024
_ENDING = ".socket"
_WAITING = 100_000  # lines for one watcher that does not read; what comes beyond is left out
_LONGEST_PATH = 107

# What a running camera can be asked, by the name in "do".
Handlers = Mapping[str, Callable[[dict[str, Any]], dict[str, Any]]]


def runtime_folder() -> Path:
    """The user's folder for sockets; made if it is not there."""
    base = os.environ.get("XDG_RUNTIME_DIR")
    folder = Path(base) / "camsim" if base and Path(base).is_dir() else Path(f"/tmp/camsim-{os.getuid()}")
    folder.mkdir(mode=0o700, exist_ok=True)
    status = folder.lstat()
    if status.st_uid != os.getuid() or not stat.S_ISDIR(status.st_mode) or status.st_mode & 0o077:
        raise CameraError(f"{folder} is not this user's alone; remove it, or set XDG_RUNTIME_DIR to a folder that is")
    return folder


def _socket_path(name: str) -> Path:
    if not re.fullmatch(r"[A-Za-z0-9_.-]{1,40}", name):
        raise CodedError(f"{name!r} is not a valid camera name; use letters, digits, - and _", WRONG_ARGUMENTS)
    path = runtime_folder() / f"{name}{_ENDING}"
    if len(str(path)) > _LONGEST_PATH:
        raise CameraError(f"{path} is too long for a socket; set XDG_RUNTIME_DIR to a shorter folder")
    return path


def running() -> list[str]:
    """The names of this user's cameras that run."""
    return [path.name.removesuffix(_ENDING) for path in sorted(runtime_folder().glob(f"*{_ENDING}")) if _listens(path)]


def _listens(path: Path) -> bool:
    with socket.socket(socket.AF_UNIX) as probe:
        return probe.connect_ex(str(path)) == 0


def ask(name: str, request: dict[str, Any]) -> dict[str, Any]:
    """The answer of a running camera. Raises CodedError if there is none, CameraError with its complaint."""
    for answer in asking(name, request):
        return answer
    raise CodedError(f"the camera {name!r} ended before it answered", NO_CAMERA)


def asking(name: str, request: dict[str, Any]) -> Iterator[dict[str, Any]]:
    """Every line of the answer, until the camera ends."""
    with socket.socket(socket.AF_UNIX) as connection:
        try:
            connection.connect(str(_socket_path(name)))
        except OSError as error:
            others = running()
            there = f"there is {', '.join(others)}; choose with --name" if others else "start one with: camsim up"
            raise CodedError(f"no camera {name!r} is running; {there}", NO_CAMERA) from error
        with connection.makefile("rwb") as lines, contextlib.suppress(ConnectionError):  # it ends: so do the answers
            lines.write(json.dumps(request).encode() + b"\n")
            lines.flush()
            while line := lines.readline():
                answer: dict[str, Any] = json.loads(line)
                if "error" in answer:
                    raise CodedError(answer["error"], answer.get("code", 1))
                yield answer


class Control:
    """Answers on the socket of a name while the block runs; "watch" is answered here, everything else by `handlers`."""

    def __init__(self, name: str, journal: Journal, handlers: Handlers) -> None:
        self.path = _socket_path(name)
        self._journal = journal
        self._handlers = handlers
        if _listens(self.path):
            raise CameraError(f"a camera {name!r} is already running; stop it, or choose another name with --name")
        self.path.unlink(missing_ok=True)  # left by one that was killed
        self._listener = socket.socket(socket.AF_UNIX)
        self._listener.bind(str(self.path))
        self._connections: set[socket.socket] = set()

    def __enter__(self) -> Control:
        self._listener.listen()
        threading.Thread(target=self._accept, name="control", daemon=True).start()
        return self

    def __exit__(self, *_: object) -> None:
        self.path.unlink(missing_ok=True)
        for connection in (self._listener, *tuple(self._connections)):
            with contextlib.suppress(OSError):
                connection.shutdown(socket.SHUT_RDWR)
        self._listener.close()

    def _accept(self) -> None:
        while True:
            try:
                connection, _ = self._listener.accept()
            except OSError:  # the end
                return
            self._connections.add(connection)
            threading.Thread(target=self._serve, args=(connection,), name="control connection", daemon=True).start()

    def _serve(self, connection: socket.socket) -> None:
        with connection, contextlib.suppress(OSError), connection.makefile("rwb") as stream:
            line = stream.readline(_LONGEST_REQUEST)
            for answer in self._answers(json.loads(line)) if line else ():  # without one it only looked who is there
                stream.write(json.dumps(answer, default=str).encode() + b"\n")
                stream.flush()
        self._connections.discard(connection)

    def _answers(self, request: dict[str, Any]) -> Iterator[dict[str, Any]]:
        if request["do"] == "watch":
            yield from self._watch()
            return
        handler = self._handlers.get(request["do"])
        if handler is None:
            yield {"error": "this is the platform alone; it takes no commands", "code": NO_CAMERA}
            return
        try:
            yield handler(request)
        except (CameraError, TimeoutError, OSError) as error:
            yield {"error": str(error), "code": error.code if isinstance(error, CodedError) else 1}

    def _watch(self) -> Iterator[dict[str, Any]]:
        waiting: queue.Queue[LiveItem] = queue.Queue(_WAITING)
        trace = LiveTrace()

        def note(event: Event) -> None:
            for live in trace.take(event):
                with contextlib.suppress(queue.Full):
                    waiting.put_nowait(since_begin(live, self._journal))

        end = self._journal.listen(note)
        try:
            yield {"watching": True}
            while True:
                yield waiting.get().document()
        finally:
            end()


def print_events(journal: Journal) -> None:
    """Prints what happens from here on as JSON, one object a line, as a watcher gets it."""
    trace = LiveTrace()

    def note(event: Event) -> None:
        for live in trace.take(event):
            try:
                print_json(since_begin(live, journal).public())
            except OSError as error:
                end()
                Failure.note(error)
                return

    end = journal.listen(note)


def since_begin(live: LiveItem, journal: Journal) -> LiveItem:
    """The same in the one time that is told: seconds since the journal's beginning."""
    return replace(live, time=round(live.time - journal.began, 6))
