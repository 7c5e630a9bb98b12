"""The way out of the sandbox to somebody's own platform: bytes go through as they come, TLS stays end to end."""

from __future__ import annotations

import contextlib
import ipaddress
import os
import select
import socket
import threading
from collections.abc import Sequence
from typing import Any
from urllib.parse import SplitResult, urlsplit

from simulator.errors import CameraError
from simulator.journal import Journal
from simulator.messages.http import Request
from simulator.messages.sockets import Acceptor
from simulator.peers.platform import task_info

_PIECE = 65536
_FIRST_FREE_PORT = 1024
_PORT_IN_PLACE = 8443
_CONNECT_SECONDS = 5.0  # what the service itself grants a connect


class Relay:
    """Stands in for the simulated platform, and forwards every connection to a real one.

    port      the port inside the sandbox: that of the real platform, so that the service sees the address it would see
              on a camera; another one where only root may open that
    host      the name under which the service asks for it; the sandbox knows it as its own address
    url       what a command gives as "taskURL"
    reports   always empty: what goes through is encrypted

    Journal, with `connection` and `port`: "accepted", "relayed" with the bytes `sent` to the platform and `received`
    from it, "broken" with `error`.
    """

    name = "platform"
    full_port = 0  # there is no port whose connects hang
    pictures: Sequence[tuple[str, bytes]] = ()

    def __init__(self, journal: Journal, url: str, result_path: str | None = None) -> None:
        parts = _checked(url)
        host = parts.hostname or ""
        target_port = parts.port or 443
        self.port = target_port if target_port >= _FIRST_FREE_PORT or os.geteuid() == 0 else _PORT_IN_PLACE
        self.host = host if _is_name(host) else "127.0.0.1"
        self.task_path = parts.path or "/platform/whiteList"
        self.result_path = result_path or self.task_path + "Result"
        self.reports: list[Request] = []
        self._target = (host, target_port)
        self._journal = journal
        self._acceptor = Acceptor("relay", self._accept)
        self._number = 0
        self._threads: list[threading.Thread] = []
        self._stopping = -1

    @property
    def ports(self) -> tuple[int, ...]:
        return (self.port,)

    @property
    def url(self) -> str:
        return f"https://{self.host}:{self.port}{self.task_path}"

    def task(self, faces: int | None = None, **changes: Any) -> dict[str, Any]:
        """The "taskInfo" of a whiteListDown for the real platform; see Platform.task."""
        return task_info(75 if faces is None else faces, self.url,
                         f"https://{self.host}:{self.port}{self.result_path}", changes)

    def start(self, listeners: Sequence[socket.socket], kept: Sequence[socket.socket] = ()) -> None:
        """Serves the listening sockets. Owns all of them until stop."""
        self._stopping = os.eventfd(0)
        self._acceptor.start([*listeners, *kept])

    def stop(self) -> None:
        """Closes the ports and every connection."""
        if self._stopping < 0:
            return
        self._acceptor.stop()
        os.eventfd_write(self._stopping, 1)  # never read: every thread sees it
        for thread in self._threads:
            thread.join()
        self._threads.clear()
        os.close(self._stopping)
        self._stopping = -1

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
                with socket.create_connection(self._target, _CONNECT_SECONDS) as platform:
                    self._pass_on(camera, platform, counts)
            except OSError as error:
                note("broken", error=f"{self._target[0]}:{self._target[1]}: {error}")
        note("relayed", sent=counts[0], received=counts[1])

    def _pass_on(self, camera: socket.socket, platform: socket.socket, counts: list[int]) -> None:
        """Copies both ways until both have ended; an end is passed on as such."""
        platform.settimeout(None)
        poll = select.poll()
        poll.register(self._stopping, select.POLLIN)
        ways = {camera.fileno(): (camera, platform, 0), platform.fileno(): (platform, camera, 1)}
        for descriptor in ways:
            poll.register(descriptor, select.POLLIN)
        while ways:
            for descriptor, _ in poll.poll():
                if descriptor == self._stopping:
                    return
                source, target, way = ways[descriptor]
                data = source.recv(_PIECE)
                counts[way] += len(data)
                if data:
                    target.sendall(data)
                    continue
                poll.unregister(descriptor)
                del ways[descriptor]
                with contextlib.suppress(OSError):
                    target.shutdown(socket.SHUT_WR)


def _checked(url: str) -> SplitResult:
    try:
        parts = urlsplit(url)
        port = parts.port
    except ValueError as error:
        raise CameraError(f"{url!r} is no address of a platform: {error}") from error
    if parts.scheme != "https" or not parts.hostname or port == 0:
        raise CameraError(f"{url!r} is no address of a platform; write https://HOST:PORT/PATH, for example "
                          "https://localhost:9443/platform/whiteList")
    return parts


def _is_name(host: str) -> bool:
    """Whether the sandbox can call its own address so. An address of another machine it cannot have."""
    try:
        ipaddress.ip_address(host)
    except ValueError:
        return True
    return False
