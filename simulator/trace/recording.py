"""Recorded runs: one file with everything that passed between the camera's processes, from the journal of a camera.

    with Recorder(camera.journal, path, camera.path): ...
    for entry in read(path).entries: ...

The file is JSON lines: a head, then one entry a line, written as it happens. README.md has the format.
"""

from __future__ import annotations

import base64
import dataclasses
import functools
import json
import math
import threading
import time
from collections.abc import Callable, Mapping
from dataclasses import dataclass, field
from datetime import datetime, timezone
from pathlib import Path
from types import TracebackType
from typing import Any

from simulator.errors import CameraError
from simulator.journal import Event, Journal
from simulator.messages import wire
from simulator.messages.http import Close, Reset, Send, Wait

FORMAT = "camgate-recording"
VERSION = 1
# The form of every line.
SCHEMA = json.loads(Path(__file__).with_name("recording.schema.json").read_text(encoding="utf-8"))
TYPES = tuple(line["$ref"].rpartition("/")[2] for line in SCHEMA["anyOf"])[1:]  # the first is the head

_KINDS = {"string": "a text", "integer": "a whole number", "number": "a number", "object": "an object"}
_BYTES = 'bytes as {"base64": ...}'
_CONNECTION_EVENTS = SCHEMA["definitions"]["connection"]["properties"]["event"]["enum"]


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
    """

    began: str
    about: dict[str, Any]
    entries: list[Entry]
    cut: bool = False


class Recorder:
    """Writes every event of a journal to a file while the block runs, a line at a time: a killed run stays readable.

    outside  where a path of the camera lies on this machine; without it, page files are not recorded
    about    facts about the run for the head of the file
    """

    def __init__(self, journal: Journal, path: Path, outside: Callable[[str], Path] | None = None,
                 about: Mapping[str, Any] | None = None) -> None:
        self.path = Path(path)
        self._outside = outside
        self._lock = threading.Lock()
        self._failure: OSError | None = None
        self._begin = time.monotonic()
        try:
            self._file = self.path.open("wb")
        except OSError as error:
            raise CameraError(f"the run cannot be recorded: {error}") from error
        self._write({"format": FORMAT, "version": VERSION, "began": datetime.now(timezone.utc).isoformat(),
                     "about": dict(about or {})})
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
        for kind, fields in entries_of(event, self._outside):
            self._write({"time": round(max(event.time - self._begin, 0.0), 6), "type": kind, **fields})

    def _write(self, document: dict[str, Any]) -> None:
        """Keeps the first failure, for the end: whoever caused the event must not suffer from it."""
        text = json.dumps(document, default=_plain).encode() + b"\n"
        with self._lock:
            if self._failure is None and not self._file.closed:
                try:
                    self._file.write(text)
                    self._file.flush()
                except OSError as error:
                    self._failure = error


def entries_of(event: Event, outside: Callable[[str], Path] | None = None) -> list[tuple[str, dict[str, Any]]]:
    """What a recording holds about an event: type and fields of each entry."""
    shape = _SHAPES.get((event.source, event.kind)) or _SHAPES.get(("", event.kind))
    if shape is None:
        entries = [("note", {"source": event.source, "kind": event.kind, "data": _details(event)})]
    else:
        entries = [shape(event)]
    if outside is not None and event.matches("itgt", "received", command=wire.IMPORT_FILE):
        entries = _page_file(event.message, outside) + entries  # it was written before ITGT was told
    return entries


def _datagram(event: Event) -> tuple[str, dict[str, Any]]:
    """What a peer sent or received; only the service is at the other end."""
    data = event.data["message"] if "message" in event.data else event.data["data"]
    if event.kind in ("sent", "notified"):
        sender, receiver = event.source, "service"
        socket = event.data.get("path", wire.COMMAND_SOCKET)
    else:
        sender, receiver = "service", event.source
        socket = {"itgt": wire.ITGT_SOCKET, "faces": wire.FACE_LIBRARY_SOCKET}.get(event.source, wire.CLIENT_SOCKET)
    return "datagram", {"from": sender, "to": receiver,
                        "socket": wire.EVENT_NODE if event.source == "events" else socket, "data": bytes(data)}


def _request(event: Event) -> tuple[str, dict[str, Any]]:
    request = event.request
    return "request", {"connection": request.connection, "port": request.port, "tls_version": request.tls_version,
                       "cipher": request.cipher, "head": request.head, "body": request.body}


def _response(event: Event) -> tuple[str, dict[str, Any]]:
    head, _, body = event.response.encode().partition(b"\r\n\r\n")
    return "response", {"connection": event.connection, "delay": event.response.delay, "head": head, "body": body}


def _step(event: Event) -> tuple[str, dict[str, Any]]:
    step = event.step
    name = {Send: "send", Wait: "wait", Close: "close", Reset: "reset"}[type(step)]
    return "step", {"connection": event.connection, "step": name, **dataclasses.asdict(step)}


def _connection(event: Event) -> tuple[str, dict[str, Any]]:
    return "connection", {"event": event.kind, **event.data}


def _log(event: Event) -> tuple[str, dict[str, Any]]:
    record = event.record
    return "log", {"level": record.level, "path": record.path, "line": record.line, "text": record.text,
                   "written": record.time}


def _fault(event: Event) -> tuple[str, dict[str, Any]]:
    return "fault", {"source": event.source, **_details(event)}


_SHAPES: dict[tuple[str, str], Callable[[Event], tuple[str, dict[str, Any]]]] = {
    ("", "sent"): _datagram,
    ("", "received"): _datagram,
    ("", "notified"): _datagram,
    ("", "subscribed"): _datagram,
    ("", "published"): lambda event: ("buffer", dict(event.data)),
    ("", "file"): lambda event: ("file", {"process": event.source, "path": event.path, "data": event.content}),
    ("", "fault"): _fault,
    ("", "hooked"): _fault,
    ("platform", "request"): _request,
    ("platform", "response"): _response,
    ("platform", "step"): _step,
    **{("platform", kind): _connection for kind in _CONNECTION_EVENTS},
    ("service", "log"): _log,
    ("service", "ring_record"): lambda event: ("ring_record", dict(event.data)),
}


def _details(event: Event) -> dict[str, Any]:
    """The data of an event that is no traffic. Pictures and requests are in the recording already."""
    data = {name: value for name, value in event.data.items() if name not in ("request", "reply", "response")}
    if (page := data.get("page")) is not None:
        data["page"] = {"task_id": page.task_id, "file_name": page.file_name, "records": len(page.records)}
    return data


def _page_file(message: wire.Message, outside: Callable[[str], Path]) -> list[tuple[str, dict[str, Any]]]:
    """The file that a request tells ITGT to read, as it is at that moment."""
    path = f"{message.request.get('directory', '')}{message.request.get('file_name', '')}"
    place = outside(path)
    try:
        if ".." in place.parts or not place.is_file():
            return []
        return [("file", {"process": "service", "path": path, "data": place.read_bytes()})]
    except (OSError, ValueError):  # not readable, or no path at all
        return []


def _plain(value: Any) -> Any:
    """What JSON cannot hold: bytes as {"base64": text}, anything else as text."""
    if isinstance(value, (bytes, bytearray)):
        return {"base64": base64.b64encode(value).decode()}
    return repr(value)


def read(path: Path) -> Recording:
    """Reads a recording. Raises CameraError that names the line if it is none, or damaged before its last line."""
    try:
        lines = Path(path).read_bytes().split(b"\n")
    except OSError as error:
        raise CameraError(f"the recording cannot be read: {error}") from error
    last = lines.pop()  # empty, unless the run was killed while it wrote
    head = _parsed(path, 1, lines[0] if lines else last)
    if head.get("format") != FORMAT:
        raise CameraError(f"{path}, line 1: this is not a recording: it does not begin with "
                          f'{{"format": "{FORMAT}", "version": {VERSION}, ...}}')
    if head.get("version") != VERSION:
        raise CameraError(f"{path}, line 1: the recording has version {head.get('version')!r}; "
                          f"this program reads version {VERSION}")
    entries = [_entry(path, number, line) for number, line in enumerate(lines[1:], 2)]
    return Recording(str(head.get("began", "")), dict(head.get("about") or {}), entries, bool(last))


def _entry(path: Path, number: int, line: bytes) -> Entry:
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
    try:
        fields = {name: _decoded(value) for name, value in document.items() if name not in ("time", "type")}
    except (TypeError, ValueError) as error:
        raise CameraError(f"{path}, line {number}: a {kind} has {_BYTES}: {error}") from error
    return Entry(number, float(seconds), kind, fields)


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


def _decoded(value: Any) -> Any:
    """A field of an entry. What stands deeper, in the data of a note, is left as a peer wrote it."""
    if not isinstance(value, dict) or set(value) != {"base64"}:
        return value
    return base64.b64decode(value["base64"], validate=True)
