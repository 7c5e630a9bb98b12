"""One request to somebody's own platform, asked as a camera asks it, and watched: what came when, and how it ended."""

from __future__ import annotations

import functools
import json
import select
import ssl
import time
from collections.abc import Callable
from dataclasses import dataclass, field
from typing import Any, Optional

from simulator.peers.real.address import Address
from simulator.peers.real.response_reader import ResponseReader
from simulator.peers.real.upstream import Gone, Upstream

GRANTED = 5.0  # seconds that a camera grants each step
PATIENCE = 10.0  # seconds that are granted here, to tell late from never
LONGEST_ANSWER = 600.0  # seconds after which an answer that trickles is not waited for any more
LARGEST_BODY = 128 << 20  # bytes that a camera takes
_LARGEST = LARGEST_BODY + (2 << 20)  # bytes after which nobody has to wait for the end

# How an exchange ended: the answer was whole; the platform said farewell (close_notify), cut the connection without,
# or reset it; nothing more came; more came than a camera takes, or came for longer than anybody waits; there was no
# connection or no TLS.
WHOLE, FAREWELL, CUT, RESET, SILENT, TOO_LARGE, ENDLESS, UNCONNECTED = (
    "whole", "farewell", "cut", "reset", "silent", "too large", "endless", "unconnected")
Session = Optional[ssl.SSLSession]


@dataclass
class Exchange:
    """What came for one request.

    first    seconds from the request to the first byte, None without one
    longest  the longest pause of the answer in seconds, the wait for its first byte included
    raw      all bytes
    end      how it ended, of the words above
    error    why there was no connection, or no TLS
    """

    first: float | None = None
    longest: float = 0.0
    raw: bytearray = field(default_factory=bytearray)
    end: str = UNCONNECTED
    error: str = ""


def page_request(address: Address, task: dict[str, Any], start: int, count: int) -> bytes:
    """The bytes of a camera's page request; `task` is its taskInfo."""
    members = {"cameraCode": task["cameraCode"], "taskID": task["taskID"], "startIndex": start, "offset": count,
               "datatime": task["datatime"], "securityCode": task["securityCode"]}
    body = json.dumps(members, indent=1, separators=(",", " : "), ensure_ascii=False).encode()
    kind = "application/json;charset=UTF-8"
    head = (f"POST {address.task_path} HTTP/1.1\r\nConnection: Keep-Alive\r\nContent-Type: {kind}\r\nAccept: {kind}\r\n"
            f"Content-Length: {len(body)}\r\nHost: {address.real}\r\n\r\n")
    return head.encode() + body


def connect(address: Address, session: Session = None) -> Upstream:
    """A connection with a camera's TLS. Raises OSError, of which reason() has the words for people."""
    plain = address.connect(PATIENCE)
    deadline = time.monotonic() + PATIENCE
    try:
        return Upstream(plain, address, lambda descriptor, events: _ready(descriptor, events, deadline), session)
    except Gone as error:
        raise TimeoutError(f"the TLS handshake did not end in {PATIENCE:g} s") from error


def reason(error: OSError) -> str:
    """OpenSSL's reason without Python's source lines around it, or what the system says."""
    code = getattr(error, "reason", None)
    return code.lower().replace("_", " ") if code else error.strerror or str(error)


def ask(address: Address, request: bytes, linger: float = 0.0) -> Exchange:
    """Sends a request on a connection of its own and takes the answer, however late.

    linger  seconds to look for more behind a whole answer; it is then in `raw`, too
    """
    exchange = Exchange()
    try:
        upstream = connect(address)
    except OSError as error:
        exchange.error = reason(error)
        return exchange
    with upstream:
        _take(upstream, request, exchange, linger)
    return exchange


def _take(upstream: Upstream, request: bytes, exchange: Exchange, linger: float) -> None:
    reader = ResponseReader()
    begin = last = time.monotonic()
    upstream.wait = _patient(PATIENCE)
    try:
        upstream.send(request)
        begin = last = time.monotonic()
        while data := upstream.receive():
            now = time.monotonic()
            if not reader.whole:
                exchange.longest = max(exchange.longest, now - last)
            exchange.first = now - begin if exchange.first is None else exchange.first
            last = now
            exchange.raw += data
            reader.feed(data)
            if (reader.length or 0) > LARGEST_BODY or len(exchange.raw) > _LARGEST:
                exchange.end = TOO_LARGE
                return
            if not reader.whole and now - begin > LONGEST_ANSWER:
                exchange.end = ENDLESS
                return
            if reader.whole:
                exchange.end = WHOLE
                upstream.wait = _patient(linger)
        exchange.end = WHOLE if reader.whole else FAREWELL
    except Gone:
        if not reader.whole:
            exchange.end = SILENT
            exchange.longest = time.monotonic() - last
    except OSError as error:
        if not reader.whole:
            cut = getattr(error, "reason", None) == "UNEXPECTED_EOF_WHILE_READING"
            exchange.end = CUT if cut else RESET


def _patient(seconds: float) -> Callable[[int, int], bool]:
    return functools.partial(_wait, seconds)


def _wait(seconds: float, descriptor: int, events: int) -> bool:
    return _ready(descriptor, events, time.monotonic() + seconds)


def _ready(descriptor: int, events: int, deadline: float) -> bool:
    poll = select.poll()
    poll.register(descriptor, events)
    return bool(poll.poll(max(0.0, deadline - time.monotonic()) * 1000))
