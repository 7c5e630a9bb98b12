"""Platforms that somebody might have built, on ports of this machine."""

from __future__ import annotations

import contextlib
import socket
from collections.abc import Iterator

from simulator.journal import Journal
from simulator.peers.platform import Platform


def free_port(host: str = "127.0.0.1") -> int:
    with socket.create_server((host, 0), family=socket.AF_INET6 if ":" in host else socket.AF_INET) as one:
        port: int = one.getsockname()[1]
        return port


@contextlib.contextmanager
def served(host: str = "127.0.0.1", port: int = 0) -> Iterator[Platform]:
    """A platform on this machine that somebody might have built; `port` is where it listens."""
    family = socket.AF_INET6 if ":" in host else socket.AF_INET
    platform = Platform(Journal())
    platform.picture_sizes = (800, 900)
    listener = socket.create_server((host, port), family=family, backlog=16)
    platform.port = listener.getsockname()[1]
    platform.start([listener])
    try:
        yield platform
    finally:
        platform.stop()
