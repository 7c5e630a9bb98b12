"""Where a response ends, and what it says: from a copy of bytes that pass by."""

from __future__ import annotations

import re
from dataclasses import dataclass, field

from simulator.messages.http import Response

_HEAD_END = re.compile(rb"\r?\n\r?\n")
_LINE_END = re.compile(rb"\r?\n")
_WITHOUT_BODY = (101, 204, 304)
# Of the headers, those that a Response has a field of its own for.
_FRAMING = ("content-type", "content-length", "transfer-encoding")


@dataclass(frozen=True)
class Received(Response):
    """A response as it came: `raw` are its bytes. A changed copy (dataclasses.replace) has none and is encoded anew."""

    raw: bytes = field(default=b"", init=False)

    def encode(self) -> bytes:
        return self.raw or super().encode()


class ResponseReader:
    """Takes a response piece by piece. It is more patient than the service, which judges the same bytes itself.

    raw     the bytes so far, without interim answers that were whole
    whole   whether the response, behind all interim answers, is there to its end
    length  what a head that is there announces, if it does
    """

    def __init__(self) -> None:
        self.raw = bytearray()
        self.whole = False
        self._begin_head()

    def feed(self, data: bytes) -> list[Received]:
        """The responses that these bytes complete: interim ones, and the one that counts."""
        self.raw += data
        found = []
        while not self.whole and (end := self._end()) is not None:
            found.append(self._response(end))
            self.whole = not 100 <= found[-1].status < 200 or found[-1].status in _WITHOUT_BODY
            if not self.whole:
                del self.raw[:end]
                self._begin_head()
        return found

    def end(self) -> list[Received]:
        """The response that the end of the connection completes, if it is one whose length nothing else tells."""
        if self.whole or not self._body_begin or self.length is not None or self._chunked:
            return []
        self.whole = True
        self._pieces = [bytes(self.raw[self._body_begin:])]
        return [self._response(len(self.raw))]

    def _begin_head(self) -> None:
        self._searched = 0  # up to where nothing that is looked for begins
        self._body_begin = 0
        self._lines: list[str] = []
        self.length: int | None = None
        self._chunked = False
        self._pieces: list[bytes] = []

    def _end(self) -> int | None:
        if not self._body_begin and not self._take_head():
            return None
        if self._chunked:
            return self._end_of_chunks()
        if self.length is None or len(self.raw) < self._body_begin + self.length:
            return None
        end = self._body_begin + self.length
        self._pieces = [bytes(self.raw[self._body_begin:end])]
        return end

    def _take_head(self) -> bool:
        match = _HEAD_END.search(self.raw, self._searched)
        if match is None:
            self._searched = max(0, len(self.raw) - 3)
            return False
        self._body_begin = self._searched = match.end()
        self._lines = re.split(r"\r?\n", self.raw[:match.start()].decode("latin-1"))
        headers = {name.strip().lower(): value.strip() for name, _, value in
                   (line.partition(":") for line in self._lines[1:])}
        status = self._status()
        if 100 <= status < 200 or status in _WITHOUT_BODY:
            self.length = 0
        elif "chunked" in headers.get("transfer-encoding", "").lower():
            self._chunked = True
        elif re.fullmatch(r"[0-9]{1,18}", headers.get("content-length", "")):
            self.length = int(headers["content-length"])
        return True

    def _status(self) -> int:
        match = re.match(r"HTTP/\S+ (\d{3})(?!\d)", self._lines[0])
        return int(match[1]) if match else 0

    def _end_of_chunks(self) -> int | None:
        """`_searched` is where the next chunk begins, or after the last one a line of the trailers."""
        while (match := _LINE_END.search(self.raw, self._searched)) is not None:
            line = bytes(self.raw[self._searched:match.start()])
            if self.length == 0:  # behind the last chunk: trailers, and the empty line
                self._searched = match.end()
                if not line:
                    return match.end()
                continue
            size = re.match(rb"\s*([0-9A-Fa-f]{1,15})", line)
            if size is None:
                return None  # no chunk: nobody knows where this ends
            count = int(size[1], 16)
            if count == 0:
                self.length, self._searched = 0, match.end()
                continue
            if len(self.raw) < match.end() + count + 2:
                return None
            self._pieces.append(bytes(self.raw[match.end():match.end() + count]))
            self._searched = match.end() + count + 2
        return None

    def _response(self, end: int) -> Received:
        headers = [(name.strip(), value.strip()) for name, _, value in
                   (line.partition(":") for line in self._lines[1:])]
        kind = next((value for name, value in headers if name.lower() == "content-type"), "")
        response = Received(self._status(), b"".join(self._pieces), self._lines[0].partition(" ")[2].partition(" ")[2],
                            tuple(header for header in headers if header[0].lower() not in _FRAMING), kind)
        object.__setattr__(response, "raw", bytes(self.raw[:end]))
        return response
