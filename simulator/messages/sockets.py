"""Sockets with a thread of their own: one that reads datagrams, one that accepts connections."""

from __future__ import annotations

import fcntl
import os
import select
import socket
import struct
import termios
from collections.abc import Callable, Sequence
from pathlib import Path

from simulator.owned_thread import OwnedThread

# Room for the largest command body; the kernel takes at most its own limit.
_BUFFER_SIZE = 2 * 1024 * 1024
_SEND_SECONDS = 5


class DatagramEndpoint:
    """Owns the socket at `path` and, once started, hands every datagram to `handler` on one thread of its own.

    A stale file at the path is replaced. The socket file gets mode 0666, so that a service that switched its user may
    write to it. `close` ends the thread and removes the file; it must not be called by the handler.
    """

    def __init__(self, path: Path, handler: Callable[[bytes], None]) -> None:
        self._path = path
        self._handler = handler
        path.unlink(missing_ok=True)
        self._socket = socket.socket(socket.AF_UNIX, socket.SOCK_DGRAM)
        self._socket.setsockopt(socket.SOL_SOCKET, socket.SO_SNDBUF, _BUFFER_SIZE)
        self._socket.setsockopt(socket.SOL_SOCKET, socket.SO_SNDTIMEO, struct.pack("ll", _SEND_SECONDS, 0))
        self._socket.bind(str(path))
        path.chmod(0o666)
        self._wake = os.eventfd(0)
        self._handles = False
        self._thread = OwnedThread(self._read, f"datagrams {path.name}")

    def start(self) -> None:
        """Begins to read: once the owner has kept the endpoint, so that the handler finds it."""
        self._thread.start()

    def is_idle(self) -> bool:
        """Whether the handler is done with everything that has been sent here."""
        waiting = any(fcntl.ioctl(self._socket, termios.FIONREAD, b"\0" * 4))
        return not waiting and not self._handles  # in this order: it is taken only while _handles is set

    def send(self, data: bytes, path: Path) -> None:
        """Sends one datagram; waits up to 5 s while the receiver's queue is full. Raises OSError."""
        self._socket.sendto(data, str(path))

    def close(self) -> None:
        os.eventfd_write(self._wake, 1)
        self._thread.join()
        self._socket.close()
        os.close(self._wake)
        self._path.unlink(missing_ok=True)

    def _read(self) -> None:
        poll = select.poll()
        poll.register(self._socket, select.POLLIN)
        poll.register(self._wake, select.POLLIN)
        while True:
            if self._wake in [descriptor for descriptor, _ in poll.poll()]:
                return
            self._handles = True
            self._handler(self._socket.recv(_BUFFER_SIZE))
            self._handles = False


class Acceptor:
    """Hands each connection to listening sockets, which somebody else made, to `accepted` on a thread of its own."""

    def __init__(self, name: str, accepted: Callable[[socket.socket], None]) -> None:
        self._name = name
        self._accepted = accepted
        self._listeners: list[socket.socket] = []
        self._wake = -1
        self._thread: OwnedThread | None = None

    def start(self, listeners: Sequence[socket.socket]) -> None:
        """Begins to accept; owns the sockets until stop."""
        self._listeners = list(listeners)
        self._wake = os.eventfd(0)
        self._thread = OwnedThread(self._accept, self._name)
        self._thread.start()

    def stop(self) -> None:
        """Closes the listening sockets; nothing happens if there are none."""
        if self._thread is None:
            return
        os.eventfd_write(self._wake, 1)
        self._thread.join()
        self._thread = None
        os.close(self._wake)
        for listener in self._listeners:
            listener.close()

    def _accept(self) -> None:
        listeners = {listener.fileno(): listener for listener in self._listeners}
        poll = select.poll()
        for descriptor in (self._wake, *listeners):
            poll.register(descriptor, select.POLLIN)
        while True:
            ready = [descriptor for descriptor, _ in poll.poll()]
            if self._wake in ready:
                return
            for descriptor in ready:
                self._accepted(listeners[descriptor].accept()[0])
