"""Brings the processes around the service, which are outside, together with the booted camera.

Their sockets and files lie where they lie for the sandbox. A socket of theirs has its like inside while it is there;
the service's sockets have theirs outside while it runs; and a file travels ahead of the datagram that speaks of it.
"""

from __future__ import annotations

import contextlib
import functools
import os
import queue
import select
import shlex
import socket
import threading
from collections.abc import Callable
from pathlib import Path
from typing import Any

from simulator.device.machine.channel import Channel
from simulator.errors import CameraError
from simulator.messages import wire
from simulator.owned_thread import OwnedThread

_PEERS = {wire.ITGT_SOCKET: "+", wire.FACE_LIBRARY_SOCKET: "+", wire.CLIENT_SOCKET: "+", "/tmp/.camera/event": "="}
_OF_SERVICE = (wire.COMMAND_SOCKET, wire.EXCHANGE_SOCKET, "/tmp/CU")
# What the peers write, and may change. They do it without a word, so it is looked at again and again.
_FILES = (wire.MARKER, "/tmp/mmcblk0/face_basic/*", "/tmp/.camera/cache/*")
_LOOK_AGAIN_MILLISECONDS = 50
_ROOM = 2 << 20


class Bridge:
    """Serves one camera, whose folder outside is `folder`, from the agent's first word on.

    service  is called with what becomes of the service: ("started", process id), ("log", bytes), ("ended", b"")
    """

    def __init__(self, folder: Path, service: Callable[[str, bytes], None]) -> None:
        self.channel: Channel
        self.there = threading.Event()
        self._folder = folder
        self._service = service
        self._present: set[str] = set()
        self._pushed: dict[Path, tuple[int, int]] = {}
        self._sockets: dict[int, tuple[str, socket.socket]] = {}
        self._events: dict[str, socket.socket] = {}
        self._logs: set[str] = set()
        self._looking = threading.RLock()
        self._poll = select.poll()
        self._wake = os.eventfd(0)
        self._poll.register(self._wake, select.POLLIN)
        self._ending = False
        self._actions: queue.Queue[Callable[[], None]] = queue.Queue()
        self._threads = [OwnedThread(target, f"machine {target.__name__}")
                         for target in (self._carry_in, self._carry_out)]

    def start(self, connection: socket.socket) -> None:
        self.channel = Channel(connection, self._take)
        for thread in self._threads:
            thread.start()

    def stop(self) -> None:
        self._ending = True
        os.eventfd_write(self._wake, 1)
        self._do(lambda: None)
        self.channel.close()
        for thread in self._threads:
            thread.join()
        for _, one in self._sockets.values():
            one.close()
        os.close(self._wake)

    def look(self) -> None:
        """Has the camera inside be as it is outside: sockets that came or went, files that are new or changed."""
        with self._looking:
            for path in _PEERS:
                there = self._outside(path).exists()
                if there != (path in self._present):
                    (self._present.add if there else self._present.discard)(path)
                    self.channel.send(_PEERS[path] if there else "-", path)
            found = [path for pattern in _FILES for path in self._folder.glob(pattern[1:])]
            for path in found:
                self._push(path)
            for path in set(self._pushed) - set(found):
                del self._pushed[path]
                self.channel.start(f"rm -f {shlex.quote(self._inside(path))}")

    def _push(self, path: Path) -> None:
        with contextlib.suppress(FileNotFoundError):
            status = path.stat()
            state = (status.st_mtime_ns, status.st_size)
            if path.is_file() and self._pushed.get(path) != state:
                self._pushed[path] = state
                self.channel.send("w", self._inside(path), data=path.read_bytes())

    def _inside(self, path: Path) -> str:
        return f"/{path.relative_to(self._folder)}"

    def _outside(self, path: str) -> Path:
        return self._folder / path.lstrip("/")

    def _take(self, kind: str, word: str, data: bytes) -> None:
        """A frame of the agent, on the channel's thread, which must not wait for another one."""
        if kind == "h":
            self._end_logs()
            self._do(self._begin)
        elif kind == "d":
            self._do(self._deliver, word, data)
        elif kind == "o" and data.startswith(b"log "):
            self._logs.add(word)
            self._service("started", data[4:])
            self._do(self._open_sockets)
        elif kind == "o":
            self._do(self._connect_event, word)
        elif kind == "a" and word in self._logs:
            self._service("log", data)
        elif kind == "a":
            self._do(self._tell_event, word, data)
        elif kind == "c" and word in self._logs:
            self._end_logs()
        elif kind == "c":
            self._do(self._end_event, word)

    def _do(self, action: Callable[..., None], *arguments: Any) -> None:
        self._actions.put(functools.partial(action, *arguments))

    def _end_logs(self) -> None:
        for _ in self._logs:
            self._do(self._close_sockets)
            self._service("ended", b"")
        self._logs.clear()

    def _tell_event(self, word: str, data: bytes) -> None:
        if word in self._events:
            with contextlib.suppress(OSError):
                self._events[word].send(data, socket.MSG_NOSIGNAL)

    def _end_event(self, word: str) -> None:
        if word in self._events:
            with contextlib.suppress(OSError):
                self._events[word].shutdown(socket.SHUT_RDWR)

    def _begin(self) -> None:
        """After a boot nothing of what was told is known any more."""
        with self._looking:
            for number, (name, one) in tuple(self._sockets.items()):
                if name not in _OF_SERVICE:
                    self._remove(number)
                    one.close()
            self._events.clear()
            self._present.clear()
            self._pushed.clear()
            self.look()
        self.there.set()

    def _open_sockets(self) -> None:
        for path in _OF_SERVICE:
            one = socket.socket(socket.AF_UNIX, socket.SOCK_DGRAM)
            self._outside(path).unlink(missing_ok=True)
            one.bind(str(self._outside(path)))
            self._add(path, one)

    def _close_sockets(self) -> None:
        """Their files stay, as those of a service that has ended do."""
        with self._looking:
            for number, (path, one) in tuple(self._sockets.items()):
                if path in _OF_SERVICE:
                    self._remove(number)
                    one.close()

    def _connect_event(self, word: str) -> None:
        one = socket.socket(socket.AF_UNIX, socket.SOCK_SEQPACKET)
        try:
            one.connect(str(self._outside("/tmp/.camera/event")))
        except OSError:
            one.close()
            self.channel.send("k", word)
            return
        self._events[word] = one
        self._add(f"event {word}", one)

    def _add(self, name: str, one: socket.socket) -> None:
        with self._looking:
            self._sockets[one.fileno()] = (name, one)
            self._poll.register(one, select.POLLIN)
        os.eventfd_write(self._wake, 1)

    def _remove(self, number: int) -> None:
        self._poll.unregister(number)
        del self._sockets[number]

    def _carry_in(self) -> None:
        """What comes outside for the service goes in."""
        while not self._ending:
            ready = [number for number, _ in self._poll.poll(_LOOK_AGAIN_MILLISECONDS)]
            if self._wake in ready:
                os.eventfd_read(self._wake)
            with self._looking:
                if self.there.is_set() and not self._ending:
                    self.look()
                for number in ready:
                    if number in self._sockets:
                        self._carry(number)

    def _carry(self, number: int) -> None:
        name, one = self._sockets[number]
        data, sender = one.recvfrom(_ROOM)
        if not name.startswith("event "):
            origin = self._inside(Path(sender)) if sender and Path(sender).is_relative_to(self._folder) else ""
            self.channel.send("d", origin, name, data=data)
            return
        word = name.removeprefix("event ")
        if data:
            self.channel.send("p", word, data=data)
            return
        self._remove(number)
        del self._events[word]
        one.close()
        self.channel.send("k", word)

    def _carry_out(self) -> None:
        """What the agent tells is done outside, in order."""
        while not self._ending:
            self._actions.get()()

    def _deliver(self, path: str, data: bytes) -> None:
        """What the service sends goes out, and ahead of it the page file that it speaks of."""
        if path == wire.ITGT_SOCKET and len(data) == wire.MESSAGE_SIZE:
            self._pull(wire.Message(data))
        with socket.socket(socket.AF_UNIX, socket.SOCK_DGRAM) as sender, contextlib.suppress(OSError):
            sender.sendto(data, str(self._outside(path)))  # lost when nobody is there

    def _pull(self, message: wire.Message) -> None:
        if message.command != wire.IMPORT_FILE:
            return
        path = message.request["ImportFileDirectory"] + message.request["ImportFileName"]
        try:
            read = self.channel.run(f"cat {shlex.quote(path)}")
        except CameraError:  # the machine has ended meanwhile
            return
        if read.code == 0:
            self._outside(path).parent.mkdir(parents=True, exist_ok=True)
            self._outside(path).write_bytes(read.output)
