"""Recorded runs: one file with everything that passed between the camera's processes, from the journal of a camera.

    with Recorder(camera.journal, path, camera.path): ...
    for entry in read(path).entries: ...

The file has a head, then one entry a line as JSON, written as it happens. Long bytes stand there once, compressed, in a
line of their own before the first entry that has them. README.md has the format.
"""

from __future__ import annotations

import base64
import functools
import hashlib
import json
import math
import threading
import zlib
from collections.abc import Callable, Iterator, Mapping, Sequence
from dataclasses import dataclass, field
from pathlib import Path
from types import TracebackType
from typing import Any, BinaryIO, overload

from simulator.errors import CameraError
from simulator.journal import Event, Journal
from simulator.messages.text import LeftOut
from simulator.trace.entries import SCHEMA, entries_of

FORMAT = "camgate-recording"
VERSION = 2
_READABLE = (1, VERSION)  # the first had all bytes in the entries themselves
# Bytes beyond so many are kept apart, or left out unless they are a message of the camera's processes.
LONG = 4096
_MESSAGES = ("datagram", "buffer")
TYPES = tuple(line["$ref"].rpartition("/")[2] for line in SCHEMA["anyOf"])[2:]  # the first are head and content

_KINDS = {"string": "a text", "integer": "a whole number", "number": "a number", "object": "an object"}
_BYTES = 'bytes as {"base64": ...}'
_CONTENT = b'{"type": "content", '  # how a line with bytes begins


@dataclass(frozen=True)
class Entry:
    """One line of a recording.

    number  its line, the head being line 1
    time    seconds since the recording began
    type    one of TYPES
    fields  the rest, bytes decoded; also readable as attributes
    """

    number: int
    time: float
    type: str
    fields: dict[str, Any] = field(default_factory=dict)

    def __getattr__(self, name: str) -> Any:
        try:
            return self.__dict__["fields"][name]
        except KeyError:
            raise AttributeError(f"line {self.number}, a {self.type}, has no {name}") from None


@dataclass(frozen=True)
class Recording:
    """A recording as read.

    began    wall clock at its beginning
    about    what the recorder was told about the run, for example the service's binary
    entries  in the order of the file
    cut      whether the last line is unfinished, because the run was killed
    bodies   whether it has long bytes; else there is a LeftOut in place of each
    """

    began: str
    about: dict[str, Any]
    entries: Sequence[Entry]
    cut: bool = False
    bodies: bool = True


class Recorder:
    """Writes every event of a journal to a file while the block runs, a line at a time: a killed run stays readable.

    outside  where a path of the camera lies on this machine; without it, page files are not recorded
    about    facts about the run for the head of the file
    bodies   whether pages, and what else of HTTPS and of files is beyond LONG, are kept; else their size and SHA-256
    """

    def __init__(self, journal: Journal, path: Path, outside: Callable[[str], Path] | None = None,
                 about: Mapping[str, Any] | None = None, bodies: bool = True) -> None:
        self.path = Path(path)
        self._outside = outside
        self._bodies = bodies
        self._kept: set[str] = set()  # what stands in the file already
        self._lock = threading.RLock()
        self._failure: OSError | None = None
        self._begin = journal.began
        try:
            self._file = self.path.open("wb")
        except OSError as error:
            raise CameraError(f"the run cannot be recorded: {error}") from error
        self._write({"format": FORMAT, "version": VERSION, "began": journal.began_at.isoformat(),
                     "bodies": bodies, "about": dict(about or {})})
        self._end = journal.listen(self._note)

    def __enter__(self) -> Recorder:
        return self

    def __exit__(self, kind: type[BaseException] | None, error: BaseException | None,
                 trace: TracebackType | None) -> None:
        try:
            self.close()
        except CameraError:
            if kind is None:
                raise

    def close(self) -> None:
        """Ends the recording; may be called twice. Raises CameraError if not all of it could be written."""
        with self._lock:
            if self._file.closed:
                return
            self._end()
            try:
                self._file.close()
            except OSError as error:
                self._failure = self._failure or error
        if self._failure is not None:
            raise CameraError(f"the recording {self.path} is not complete: {self._failure}")

    def _note(self, event: Event) -> None:
        with self._lock:
            for kind, fields in entries_of(event, self._outside):
                self._write({"time": round(max(event.time - self._begin, 0.0), 6), "type": kind,
                             **{name: self._short(value, kind) for name, value in fields.items()}})

    def _short(self, value: Any, kind: str) -> Any:
        """Of long bytes a reference to the line that has them, which is written first; anything else as it is."""
        if not isinstance(value, (bytes, bytearray)) or len(value) <= LONG:
            return value
        reference = {"sha256": hashlib.sha256(value).hexdigest(), "size": len(value)}
        if (self._bodies or kind in _MESSAGES) and reference["sha256"] not in self._kept:
            self._kept.add(reference["sha256"])
            self._write({"type": "content", **reference}, b"\t" + _packed(value))
        return reference

    def _write(self, document: dict[str, Any], behind: bytes = b"") -> None:
        """Keeps the first failure, for the end: whoever caused the event must not suffer from it."""
        text = json.dumps(document, default=_plain).encode() + behind + b"\n"
        with self._lock:
            if self._failure is None and not self._file.closed:
                try:
                    self._file.write(text)
                    self._file.flush()
                except OSError as error:
                    self._failure = error


def _plain(value: Any) -> Any:
    """What JSON cannot hold: bytes as {"base64": text}, anything else as text."""
    if isinstance(value, (bytes, bytearray)):
        return {"base64": base64.b64encode(value).decode()}
    return repr(value)


# What stands in compressed bytes for those that would end a line, for one program or another.
_ESCAPES = ((b"=", b"=e"), (b"\n", b"=n"), (b"\r", b"=r"))


def _packed(data: bytes) -> bytes:
    """Compressed, in one line."""
    # Pages are pictures in Base64, messages mostly zeros: looking for other repetitions finds none and takes longer.
    compressor = zlib.compressobj(strategy=zlib.Z_RLE)
    packed = compressor.compress(data) + compressor.flush()
    for byte, escape in _ESCAPES:
        packed = packed.replace(byte, escape)
    return packed


def _unpacked(packed: bytes) -> bytes:
    for byte, escape in reversed(_ESCAPES):
        packed = packed.replace(escape, byte)
    return zlib.decompress(packed)


def read(path: Path) -> Recording:
    """Reads a recording. Raises CameraError that names the line if it is none, or damaged before its last line."""
    try:
        with Path(path).open("rb") as stream:
            first = stream.readline()
            head = _parsed(path, 1, first)
            if head.get("format") != FORMAT:
                raise CameraError(f"{path}, line 1: this is not a recording: it does not begin with "
                                  f'{{"format": "{FORMAT}", "version": {VERSION}, ...}}')
            if head.get("version") not in _READABLE:
                raise CameraError(f"{path}, line 1: the recording has version {head.get('version')!r}; "
                                  f"this program reads versions {' and '.join(map(str, _READABLE))}")
            bodies = bool(head.get("bodies", True))
            entries = _Entries(Path(path), bodies)
            cut = not first.endswith(b"\n") or entries.index(stream)
    except OSError as error:
        raise CameraError(f"the recording cannot be read: {error}") from error
    return Recording(str(head.get("began", "")), dict(head.get("about") or {}), entries, cut, bodies)


class _Entries(Sequence[Entry]):
    """The entries of a file, each read anew when it is looked at: all pages of a run together are large."""

    def __init__(self, path: Path, bodies: bool) -> None:
        self._path = path
        self._bodies = bodies
        self._places: list[tuple[int, int]] = []  # number and offset of each line
        self._contents: dict[str, tuple[int, int]] = {}  # the same of bytes, by their SHA-256
        self._last = ("", b"")  # a page is sent, and then written to a file

    def index(self, stream: BinaryIO) -> bool:
        """Finds and checks what follows the head; returns whether the last line is unfinished. Raises CameraError."""
        offset = stream.tell()
        for number, line in enumerate(stream, 2):
            if not line.endswith(b"\n"):
                return True
            if line.startswith(_CONTENT):
                head = _parsed(self._path, number, line.partition(b"\t")[0])
                self._contents[str(head.get("sha256"))] = number, offset
            else:
                document = _checked(self._path, number, line)
                self._entry(number, document, lambda reference: b"")
                self._places.append((number, offset))
            offset += len(line)
        return False

    def __len__(self) -> int:
        return len(self._places)

    @overload
    def __getitem__(self, index: int) -> Entry: ...
    @overload
    def __getitem__(self, index: slice) -> list[Entry]: ...

    def __getitem__(self, index: int | slice) -> Entry | list[Entry]:
        with self._path.open("rb") as stream:
            if isinstance(index, slice):
                return [self._read(stream, *place) for place in self._places[index]]
            return self._read(stream, *self._places[index])

    def __iter__(self) -> Iterator[Entry]:
        with self._path.open("rb") as stream:
            for place in self._places:
                yield self._read(stream, *place)

    def _read(self, stream: BinaryIO, number: int, offset: int) -> Entry:
        stream.seek(offset)
        document = _parsed(self._path, number, stream.readline())
        return self._entry(number, document, lambda reference: self._content(stream, reference["sha256"]))

    def _entry(self, number: int, document: dict[str, Any], content: Callable[[dict[str, Any]], bytes]) -> Entry:
        def decoded(value: Any) -> Any:
            """A field. What stands deeper, in the data of a note, is left as a peer wrote it."""
            if not isinstance(value, dict):
                return value
            if set(value) == {"base64"}:
                return base64.b64decode(value["base64"], validate=True)
            if set(value) != {"sha256", "size"}:
                return value
            if value["sha256"] in self._contents:
                return content(value)
            if self._bodies:
                raise ValueError(f"no line before has those with the SHA-256 {value['sha256']}")
            return LeftOut(value["size"], value["sha256"])

        kind = document["type"]
        try:
            fields = {name: decoded(value) for name, value in document.items() if name not in ("time", "type")}
        except (TypeError, ValueError) as error:
            raise CameraError(f"{self._path}, line {number}: a {kind} has {_BYTES}: {error}") from error
        return Entry(number, float(document["time"]), kind, fields)

    def _content(self, stream: BinaryIO, digest: str) -> bytes:
        if self._last[0] != digest:
            number, offset = self._contents[digest]
            stream.seek(offset)
            try:
                data = _unpacked(stream.readline().partition(b"\t")[2][:-1])
            except zlib.error as error:
                raise CameraError(f"{self._path}, line {number}: the recording is damaged: {error}") from error
            if hashlib.sha256(data).hexdigest() != digest:
                raise CameraError(f"{self._path}, line {number}: the recording is damaged: the bytes are others")
            self._last = digest, data
        return self._last[1]


def _checked(path: Path, number: int, line: bytes) -> dict[str, Any]:
    """A line that has the form of its type."""
    document = _parsed(path, number, line)
    seconds, kind = document.get("time"), document.get("type")
    if not isinstance(seconds, (int, float)) or not math.isfinite(seconds) or kind not in TYPES:
        raise CameraError(f'{path}, line {number}: an entry has a number "time" and a "type", one of '
                          + ", ".join(TYPES))
    form = SCHEMA["definitions"][kind]["properties"]
    for error in _validator(kind).iter_errors(document):
        name = error.path[0] if error.path else next(name for name in error.validator_value if name not in document)
        wanted = "one of " + ", ".join(form[name]["enum"]) if "enum" in form[name] \
            else _KINDS.get(form[name].get("type"), _BYTES)
        raise CameraError(f'{path}, line {number}: a {kind} has "{name}", {wanted}')
    return document


@functools.lru_cache(maxsize=None)
def _validator(kind: str) -> Any:
    import jsonschema  # late: it takes longer to load than all else, and recording needs none

    return jsonschema.Draft4Validator({**SCHEMA["definitions"][kind], "definitions": SCHEMA["definitions"]})


def _parsed(path: Path, number: int, line: bytes) -> dict[str, Any]:
    try:
        document = json.loads(line)
    except (ValueError, RecursionError) as error:
        raise CameraError(f"{path}, line {number}: the recording is damaged: {error}") from error
    if not isinstance(document, dict):
        raise CameraError(f"{path}, line {number}: the recording is damaged: the line is not a JSON object")
    return document
