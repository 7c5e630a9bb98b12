"""The plain way out of the sandbox to somebody's own platform: bytes go through as they come, TLS stays end to end."""

from __future__ import annotations

import contextlib
import select
import socket
import threading
from collections.abc import Sequence

from simulator.journal import Journal
from simulator.messages.http import Request
from simulator.messages.https_server import reset_at_end
from simulator.peers.real.door import BehindDoor

_PIECE = 65536
# The service gives up after 5 s: first, so that it sees a connect that hangs for what it is.
CONNECT_SECONDS = 6.0


class Relay(BehindDoor):
    """Stands in for the simulated platform, and forwards every connection to a real one.

    port      the port inside the sandbox; host the name under which the service asks for it (see Address)
    url       what a command gives as "taskURL"
    reports   always empty: what goes through is encrypted

    Journal, with `connection` and `port`: "accepted", "relayed" with the bytes `sent` to the platform and `received`
    from it, "broken" with `error` when the platform takes no connection; and those of Door.
    """

    name = "platform"
    full_port = 0  # there is no port whose connects hang
    pictures: Sequence[tuple[str, bytes]] = ()

    def __init__(self, journal: Journal, url: str, result_path: str | None = None) -> None:
        super().__init__(journal, url, result_path, self._accept)
        self.reports: list[Request] = []
        self._journal = journal
        self._number = 0
        self._threads: list[threading.Thread] = []

    def _end_connections(self) -> None:
        for thread in self._threads:
            thread.join()
        self._threads.clear()

    def _accept(self, camera: socket.socket) -> None:
        self._number += 1
        self._threads.append(threading.Thread(target=self._serve, args=(self._number, camera),
                                              name=f"relay {self._number}", daemon=True))
        self._threads[-1].start()

    def _serve(self, number: int, camera: socket.socket) -> None:
        def note(kind: str, **data: object) -> None:
            self._journal.add(self.name, kind, connection=number, port=self.port, **data)
        note("accepted")
        counts = [0, 0]
        with camera:
            try:
                with self.address.connect(CONNECT_SECONDS) as platform:
                    pass_on(camera, platform, self._stopping, counts)
            except OSError as error:
                reset_at_end(camera)
                note("broken", error=error.strerror or str(error))
                if not isinstance(error, TimeoutError):
                    self._door.refused(error)
        note("relayed", sent=counts[0], received=counts[1])


def pass_on(camera: socket.socket, platform: socket.socket, stopping: int, counts: list[int]) -> None:
    """Copies both ways until both have ended, or `stopping` can be read; an end is passed on as such.

    A connection that is reset has ended: who has all that it wanted may leave so. `counts` gets the bytes to the
    platform, and back.
    """
    platform.settimeout(None)
    poll = select.poll()
    poll.register(stopping, select.POLLIN)
    ways = {camera.fileno(): (camera, platform, 0), platform.fileno(): (platform, camera, 1)}
    for descriptor in ways:
        poll.register(descriptor, select.POLLIN)
    while ways:
        for descriptor, _ in poll.poll():
            if descriptor == stopping:
                return
            source, target, way = ways[descriptor]
            try:
                data = source.recv(_PIECE)
                counts[way] += len(data)
                target.sendall(data)
            except OSError:
                for one in (camera, platform):
                    reset_at_end(one)
                return
            if data:
                continue
            poll.unregister(descriptor)
            del ways[descriptor]
            with contextlib.suppress(OSError):
                target.shutdown(socket.SHUT_WR)
