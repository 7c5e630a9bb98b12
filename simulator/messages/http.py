"""Requests as they came, and responses of every kind: whole, slow, cut off or broken on purpose."""

from __future__ import annotations

import json
from collections.abc import Sequence
from dataclasses import dataclass
from typing import Any, Union


@dataclass(frozen=True)
class Send:
    """Sends bytes."""

    data: bytes


@dataclass(frozen=True)
class Wait:
    """Does nothing for a time; without one, until the camera ends or the connection is dropped from outside."""

    seconds: float | None = None


@dataclass(frozen=True)
class Close:
    """Ends the connection, with TLS's close_notify or, cut off, without."""

    alert: bool = True


@dataclass(frozen=True)
class Reset:
    """Ends the connection with a TCP reset."""


Step = Union[Send, Wait, Close, Reset]

NEVER: tuple[Step, ...] = (Wait(),)


@dataclass(frozen=True)
class Response:
    """An ordinary HTTP/1.1 response. `headers` come after the ones made here."""

    status: int = 200
    body: bytes = b""
    reason: str = ""
    headers: Sequence[tuple[str, str]] = ()
    content_type: str = "application/json;charset=UTF-8"
    chunk_size: int = 0  # 0: with a Content-Length; else chunked in pieces of this size
    delay: float = 0.0  # seconds before the first byte

    def encode(self) -> bytes:
        """The bytes on the wire."""
        framing = ("Transfer-Encoding", "chunked") if self.chunk_size else ("Content-Length", str(len(self.body)))
        lines = [f"HTTP/1.1 {self.status} {self.reason or _REASONS.get(self.status, 'Status')}"]
        lines += [f"{name}: {value}" for name, value in
                  (("Content-Type", self.content_type), framing, *self.headers)]
        return "\r\n".join([*lines, "", ""]).encode() + (self._chunks() if self.chunk_size else self.body)

    def steps(self) -> list[Step]:
        return [*([Wait(self.delay)] if self.delay else []), Send(self.encode())]

    def _chunks(self) -> bytes:
        pieces = [self.body[start:start + self.chunk_size] for start in range(0, len(self.body), self.chunk_size)]
        return b"".join(b"%x\r\n%s\r\n" % (len(piece), piece) for piece in [*pieces, b""])


_REASONS = {200: "OK", 301: "Moved Permanently", 400: "Bad Request", 404: "Not Found", 500: "Internal Server Error",
            503: "Service Unavailable"}


def trickle(data: bytes, piece: int, seconds: float) -> list[Step]:
    """Sends `data` in pieces with a pause after each."""
    steps: list[Step] = []
    for start in range(0, len(data), piece):
        steps += [Send(data[start:start + piece]), Wait(seconds)]
    return steps


@dataclass(frozen=True)
class Request:
    """One request, exactly as received.

    raw         request line, headers and body
    headers     names and values in order, as written
    connection  number of the connection it came on; port, tls_version and cipher are that connection's
    time        monotonic time at which it was complete
    """

    raw: bytes
    connection: int
    port: int
    tls_version: str
    cipher: str
    time: float

    @property
    def head(self) -> bytes:
        """Request line and headers, without the empty line."""
        return self.raw.partition(b"\r\n\r\n")[0]

    @property
    def body(self) -> bytes:
        return self.raw.partition(b"\r\n\r\n")[2]

    @property
    def request_line(self) -> str:
        return self.head.split(b"\r\n", 1)[0].decode("latin-1")

    @property
    def target(self) -> str:
        """The request line between method and version."""
        return self.request_line.partition(" ")[2].rpartition(" ")[0]

    @property
    def headers(self) -> list[tuple[str, str]]:
        lines = self.head.decode("latin-1").split("\r\n")[1:]
        return [(name, value.strip()) for name, _, value in (line.partition(":") for line in lines)]

    def header(self, name: str) -> str | None:
        """The first header of this name, in any letter case."""
        return next((value for key, value in self.headers if key.lower() == name.lower()), None)

    def json(self) -> Any:
        return json.loads(self.body)
