"""The ports inside the sandbox that lead to a real platform: closed while nobody is there.

A listening socket takes every connection, whoever is behind it. The service is to see a refused connection where a
camera would: so the sockets stop to listen while the platform refuses, and listen again when it is back. Whether it is
there is looked up when the camera starts, before a command is sent, and, while it is not, all the time. A platform that
goes away in the middle of a download shows as one connection that is reset, and refused ones from then on.
"""

from __future__ import annotations

import contextlib
import os
import socket
import threading
from collections.abc import Callable, Sequence
from typing import Any

from simulator.journal import Journal
from simulator.messages.sockets import Acceptor
from simulator.owned_thread import OwnedThread
from simulator.peers.real.address import Address, address_of

_LOOK_SECONDS = 1.0
_BETWEEN_LOOKS = 0.25
_WAITING = 64  # connections that the kernel keeps until they are taken


class Door:
    """Hands each connection to `accepted`, while the platform at `address` is there.

    Journal: "absent" with `error` when the platform refuses, "present" when it is back.
    """

    def __init__(self, journal: Journal, address: Address, accepted: Callable[[socket.socket], None]) -> None:
        self._journal = journal
        self._address = address
        self._accepted = accepted
        self._lock = threading.RLock()
        self._listeners: list[socket.socket] = []
        self._acceptor: Acceptor | None = None
        self._ended = threading.Event()
        self._watch: OwnedThread | None = None

    def start(self, listeners: Sequence[socket.socket]) -> None:
        """Owns the sockets, which listen, until stop."""
        with self._lock:
            self._ended.clear()
            self._listeners = list(listeners)
            self._open()
        self.look()

    def stop(self) -> None:
        """Closes the ports; nothing happens if there are none."""
        self._ended.set()
        if self._watch is not None:
            self._watch.join()
        with self._lock:
            self._watch = None
            self._close()
            for listener in self._listeners:
                listener.close()
            self._listeners.clear()

    def look(self) -> None:
        """Closes the ports if the platform refuses a connection. Nothing happens while they are closed."""
        if self._acceptor is None:
            return
        try:
            self._address.connect(_LOOK_SECONDS).close()
        except TimeoutError:
            pass  # the service is to time out itself
        except OSError as error:
            self.refused(error)

    def refused(self, error: OSError) -> None:
        """Closes the ports until the platform is back."""
        with self._lock:
            if self._acceptor is None or self._ended.is_set():
                return
            self._close()
            self._watch = OwnedThread(self._wait_back, "watch for the platform")
            self._watch.start()
        self._journal.add("platform", "absent", error=error.strerror or str(error))

    def _wait_back(self) -> None:
        while not self._ended.wait(_BETWEEN_LOOKS):
            with contextlib.suppress(OSError):
                self._address.connect(_LOOK_SECONDS).close()
                with self._lock:
                    for listener in self._listeners:
                        listener.listen(_WAITING)
                    self._open()
                self._journal.add("platform", "present")
                return

    def _open(self) -> None:
        self._acceptor = Acceptor("door", self._accepted)
        self._acceptor.start([listener.dup() for listener in self._listeners])  # it closes the ones it was given

    def _close(self) -> None:
        if self._acceptor is not None:
            self._acceptor.stop()
            self._acceptor = None
            for listener in self._listeners:
                listener.shutdown(socket.SHUT_RDWR)  # keeps its port, and refuses


class BehindDoor:
    """A real platform in the place of the simulated one, as far as it does not matter how it is reached."""

    def __init__(self, journal: Journal, url: str, result_path: str | None,
                 accepted: Callable[[socket.socket], None]) -> None:
        self.address = address_of(url, result_path)
        self.port, self.host = self.address.asked_port, self.address.asked_host
        self._door = Door(journal, self.address, accepted)
        self._stopping = -1

    @property
    def ports(self) -> tuple[int, ...]:
        return (self.port,)

    def task(self, faces: int | None = None, **changes: Any) -> dict[str, Any]:
        """The "taskInfo" of a whiteListDown for the real platform; see Platform.task."""
        self._door.look()
        return self.address.task(faces, changes)

    def start(self, listeners: Sequence[socket.socket], kept: Sequence[socket.socket] = ()) -> None:
        """Serves the listening sockets. Owns all of them until stop."""
        self._stopping = os.eventfd(0)
        self._door.start([*listeners, *kept])

    def stop(self) -> None:
        """Closes the ports and every connection."""
        if self._stopping < 0:
            return
        self._door.stop()
        os.eventfd_write(self._stopping, 1)  # never read: every thread sees it
        self._end_connections()
        os.close(self._stopping)
        self._stopping = -1

    def _end_connections(self) -> None:
        raise NotImplementedError
