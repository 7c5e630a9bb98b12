"""What an answer says, read as strictly as the service reads it, and where it goes wrong: the first place only."""

from __future__ import annotations

import re
from dataclasses import dataclass, field

from simulator.peers.real.asking import (CUT, ENDLESS, FAREWELL, LARGEST_BODY, LONGEST_ANSWER, RESET, SILENT, TOO_LARGE,
                                           UNCONNECTED, Exchange)

# The limits of the camera's HTTP library, and of the service.
MOST_FIELDS, LONGEST_NAME, LONGEST_VALUE, LONGEST_REASON = 100, 256, 8192, 512
MOST_INTERIM = 100
_LARGEST_HEAD = 1 << 20
_ENDS = {FAREWELL: "the platform closed the connection", CUT: "the platform closed the connection without close_notify",
         RESET: "the platform reset the connection", SILENT: "nothing more came for 10 s",
         TOO_LARGE: "more came than a camera takes",
         ENDLESS: f"it still trickled after {LONGEST_ANSWER:g} s"}


class Wrong(Exception):
    """The answer breaks a rule.

    check  the name of the check that demands it
    """

    def __init__(self, check: str, text: str) -> None:
        super().__init__(text)
        self.check = check


@dataclass
class Answer:
    """An answer as far as it can be read.

    interim    statuses of the interim answers before it
    status     0 while no head could be read
    fields     names, in lower case, and values
    framing    what tells its length: "length", "chunks", "close", or "" for none
    announced  what Content-Length says
    chunks     how many there were
    wrong      the first rule that it breaks, if it does
    """

    interim: list[int] = field(default_factory=list)
    status: int = 0
    reason: str = ""
    fields: list[tuple[str, str]] = field(default_factory=list)
    framing: str = ""
    announced: int = 0
    chunks: int = 0
    body: bytes = b""
    wrong: Wrong | None = None

    def values(self, name: str) -> list[str]:
        return [value for key, value in self.fields if key == name]


def read(exchange: Exchange) -> Answer:
    """Reads what came. Never raises."""
    answer = Answer()
    try:
        _read(bytes(exchange.raw), exchange, answer)
    except Wrong as wrong:
        answer.wrong = wrong
    return answer


def _read(data: bytes, exchange: Exchange, answer: Answer) -> None:
    if exchange.end == UNCONNECTED:
        raise Wrong("tls", exchange.error)
    if not data:
        late = exchange.end == SILENT
        raise Wrong("answer-time" if late else "http",
                    "no answer within 10 s" if late else f"{_ENDS[exchange.end]}, and no answer had come")
    rest = _read_head(data, exchange, answer)
    while 100 <= answer.status < 200 and answer.status != 101:
        answer.interim.append(answer.status)
        if len(answer.interim) > MOST_INTERIM:
            raise Wrong("interim", f"more than {MOST_INTERIM} interim answers")
        if not rest:
            raise Wrong("interim", f"after the interim answer {answer.status} no answer came: {_ENDS[exchange.end]}")
        answer.status, answer.fields = 0, []
        rest = _read_head(rest, exchange, answer)
    if answer.status in (101, 204, 304):
        return
    codings = answer.values("transfer-encoding")
    if codings:
        answer.framing = "chunks"
        if [coding.lower() for coding in codings] != ["chunked"]:
            raise Wrong("chunks", f"Transfer-Encoding: {', '.join(codings)}, and a camera knows \"chunked\" only")
        rest = _read_chunks(rest, exchange, answer)
    elif answer.values("content-length"):
        answer.framing = "length"
        rest = _read_length(rest, exchange, answer)
    else:
        answer.framing, answer.body = "close", rest
        if len(rest) > LARGEST_BODY:
            raise Wrong("page-size", f"more than {LARGEST_BODY:,} bytes")
        if exchange.end != FAREWELL:
            raise Wrong("close", f"neither Content-Length nor chunks, and after {len(rest):,} bytes "
                        f"{_ENDS[exchange.end]}")
        rest = b""
    if rest:
        raise Wrong("chunks" if codings else "length", f"{len(rest):,} bytes came behind the end that "
                    f"{'the last chunk' if codings else f'Content-Length: {answer.announced}'} tells: {shown(rest)}")


def _read_head(data: bytes, exchange: Exchange, answer: Answer) -> bytes:
    """Reads a head into the answer; returns what stands behind it."""
    data = data.lstrip(b"\r\n")
    if not data.startswith(b"HTTP/"[:len(data)]):
        raise Wrong("http", f"what came does not begin as an HTTP/1.1 answer does: {shown(data)}")
    end = re.search(rb"\r?\n\r?\n", data)
    if end is None:
        if len(data) > _LARGEST_HEAD:
            raise Wrong("header-limits", f"more than {_LARGEST_HEAD:,} bytes of head")
        raise Wrong("http", f"the head has no end (an empty line) after {len(data):,} bytes: {_ENDS[exchange.end]}")
    lines = re.split(r"\r?\n", data[:end.start()].decode("latin-1"))
    status = re.fullmatch(r"HTTP/1\.[01] +([1-9]\d\d)(?: (.*))?", lines[0])
    if status is None:
        raise Wrong("http", f"no status line of HTTP/1.1: {shown(lines[0].encode('latin-1'))}")
    answer.status, answer.reason = int(status[1]), status[2] or ""
    if len(answer.reason) > LONGEST_REASON:
        raise Wrong("header-limits", f"a reason phrase of {len(answer.reason):,} bytes, at most {LONGEST_REASON}")
    if end.end() > _LARGEST_HEAD:
        raise Wrong("header-limits", f"a head of {end.end():,} bytes, at most {_LARGEST_HEAD:,}")
    _read_fields(lines[1:], answer)
    return data[end.end():]


def _read_fields(lines: list[str], answer: Answer) -> None:
    for line in lines:
        if line[:1] in (" ", "\t") and answer.fields:  # goes on with the field before
            name, value = answer.fields.pop()
            answer.fields.append((name, f"{value} {line.strip()}"))
            continue
        name, colon, value = line.partition(":")
        if not colon or not name or name != name.rstrip(" \t"):
            raise Wrong("http", f"a header field without a colon, or with a space before it: {shown(line.encode())}")
        answer.fields.append((name.lower(), value.strip()))
    for name, value in answer.fields:
        if len(name) > LONGEST_NAME:
            raise Wrong("header-limits", f"a header field's name of {len(name):,} bytes, at most {LONGEST_NAME}")
        if len(value) > LONGEST_VALUE:
            raise Wrong("header-limits", f"{name}: has {len(value):,} bytes, at most {LONGEST_VALUE:,}")
    if len(answer.fields) > MOST_FIELDS:
        raise Wrong("header-limits", f"{len(answer.fields)} header fields, at most {MOST_FIELDS}")


def _read_length(data: bytes, exchange: Exchange, answer: Answer) -> bytes:
    lengths = set(answer.values("content-length"))
    text = lengths.pop()
    if lengths or not re.fullmatch(r"[0-9]{1,18}", text):
        raise Wrong("length", f"Content-Length: {', '.join([text, *lengths])}, which is not one number of digits only")
    answer.announced = int(text)
    if answer.announced > LARGEST_BODY:
        raise Wrong("page-size", f"Content-Length: {answer.announced}, at most {LARGEST_BODY:,} bytes")
    answer.body = data[:answer.announced]
    if len(data) < answer.announced:
        raise Wrong("length", f"Content-Length: {answer.announced}, and after {len(data):,} bytes of body "
                    f"{_ENDS[exchange.end]}")
    return data[answer.announced:]


def _read_chunks(data: bytes, exchange: Exchange, answer: Answer) -> bytes:
    """Takes the chunks; returns what stands behind the last one and its trailers."""
    pieces: list[bytes] = []
    position = total = 0
    while (end := data.find(b"\n", position)) >= 0:
        line = data[position:end].rstrip(b"\r").partition(b";")[0].strip()
        if not re.fullmatch(rb"[0-9A-Fa-f]{1,15}", line):
            raise Wrong("chunks", f"chunk {len(pieces) + 1} begins with {shown(line)}, which is no size in "
                        "hexadecimal digits")
        size, position = int(line, 16), end + 1
        total += size
        if total > LARGEST_BODY:
            raise Wrong("page-size", f"chunks of more than {LARGEST_BODY:,} bytes")
        if size == 0:
            answer.body, answer.chunks = b"".join(pieces), len(pieces)
            return _behind_trailers(data[position:], exchange)
        pieces.append(data[position:position + size])
        mark = re.compile(rb"\r?\n").match(data, position + size)
        if mark is None and len(data) >= position + size + 2:
            raise Wrong("chunks", f"behind the {size:,} bytes of chunk {len(pieces)} stands no line end, but "
                        f"{shown(data[position + size:position + size + 20])}")
        if mark is None:
            break
        position = mark.end()
    answer.body, answer.chunks = b"".join(pieces), len(pieces)
    raise Wrong("page-size" if exchange.end == TOO_LARGE else "chunks",
                f"no chunk of size 0 after {len(answer.body):,} bytes of body: {_ENDS[exchange.end]}")


def _behind_trailers(data: bytes, exchange: Exchange) -> bytes:
    while data:
        line, end, data = data.partition(b"\n")
        if end and not line.rstrip(b"\r"):
            return data
    raise Wrong("chunks", f"no empty line behind the last chunk: {_ENDS[exchange.end]}")


def shown(data: bytes) -> str:
    """The first bytes, for people."""
    text = ascii(data[:40].decode("latin-1"))
    return text + ("..." if len(data) > 40 else "")
