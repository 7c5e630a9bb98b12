"""A recording explained: each entry with who spoke to whom, what it means, and which bytes hold which field."""

from __future__ import annotations

import functools
import json
from collections.abc import Callable, Iterator
from dataclasses import dataclass, replace
from typing import Any

from simulator.errors import CameraError
from simulator.messages import wire
from simulator.messages.describe import Description, describe, describe_block, describe_message, describe_notification
from simulator.trace.recording import Entry, Recording

# Faults that only say that something in the place of a peer answered.
_HOOKS = {"on_message": "a hook changed the answer", "on_request": "a hook changed the answer",
          "on_connect": "a hook takes the connection"}
# What the messages themselves say.
_HIDDEN_NOTES = {("itgt", "picture"), ("client", "reply"), ("platform", "report"), ("platform", "page"),
                 ("faces", "list")}
_MESSAGE_HEADER_END = 168  # bytes of a MSG_DATA up to its command
_TEXT_LIMIT = 4_000  # characters
_VALUE_LIMIT = 200
_JSON_LIMIT = 16_000_000  # bytes of a document that is taken apart to show it
_DEPTH_LIMIT = 40
# Fields that are the same in nearly every message.
_LITTLE_SAID = {"destination", "source", "subtype", "module", "constant", "zero", "zero_244", "zero_260", "zero_264",
                "magic", "header_length", "unused"}


@dataclass(frozen=True)
class PlacedField:
    """A field of a message: `width` bytes from `offset` on."""

    name: str
    offset: int
    width: int
    value: str


@dataclass(frozen=True)
class Item:
    """An entry of a recording, explained.

    line            of the recording
    kind            the entry's type
    source, target  the processes; no target: it concerns the source alone
    title, detail   what it is, in a few words; what it says
    data            its bytes
    fields          where they are known
    text            the data as text for people; "" if it is not text
    fault           names the fault that changed it, "" for none
    connection      number of the TCP connection it belongs to, 0 for none
    """

    line: int
    time: float
    kind: str
    source: str
    target: str
    title: str
    detail: str = ""
    data: bytes = b""
    fields: tuple[PlacedField, ...] = ()
    text: str = ""
    fault: str = ""
    connection: int = 0


def visible(text: str) -> str:
    """`text` with everything escaped that would steer a terminal or change the direction of writing."""
    return "".join(character if character.isprintable() or character == "\n" else _escaped(character)
                   for character in text)


def _escaped(character: str) -> str:
    code = ord(character)
    return f"\\x{code:02x}" if code < 256 else f"\\u{code:04x}" if code < 0x10000 else f"\\U{code:08x}"


def one_line(text: str, limit: int = _VALUE_LIMIT) -> str:
    """`text` on one line, cut where it is long."""
    text = visible(" ".join(text[:4 * limit].split()))
    return text if len(text) <= limit else text[:limit - 1] + "…"


def explain(recording: Recording) -> list[Item]:
    """Every entry that says something to a reader, explained, in order."""
    items: list[Item] = []
    faults: dict[str, str] = {}
    for entry in recording.entries:
        if entry.type == "note" and (entry.source, entry.kind) in _HIDDEN_NOTES:
            continue
        item = _explained(entry)
        if entry.type == "fault":
            if entry.name in _HOOKS and faults.get(entry.source, entry.name) not in _HOOKS:
                continue  # the hook that makes the fault that was named just before
            faults[entry.source] = entry.name
        elif item.source in faults and item.kind in ("datagram", "response", "step"):
            item = replace(item, fault=faults.pop(item.source))
        items.append(item)
    return items


def _explained(entry: Entry) -> Item:
    try:
        return _EXPLAINED[entry.type](entry)
    except (TypeError, ValueError, AttributeError) as error:
        raise CameraError(f"line {entry.number} of the recording, a {entry.type}, is damaged: {error}") from error


def _item(entry: Entry, source: str, target: str, title: str, **details: Any) -> Item:
    return Item(entry.number, entry.time, entry.type, source, target, visible(title),
                connection=entry.fields.get("connection") or 0, **details)


def _datagram(entry: Entry) -> Item:
    data, source, target = entry.data, entry.fields["from"], entry.to
    peers = {source, target}
    if peers & {"itgt", "faces"} and len(data) >= _MESSAGE_HEADER_END:
        known = describe_message(wire.Message(data), target == "service")
    elif source == "events":
        known = describe_notification(data)
    else:
        known = describe(data)
    title = known.title
    if known.title == "command head" and source == "service":
        title = "reply head"
    elif known.title == "JSON":
        title = _command_title(data)
    elif known.title == "raw":
        title = f"datagram of {_size(data)}"
    detail = " ".join(f"{name}={value!r}" if isinstance(value, str) else f"{name}={value}"
                      for name, value in known.fields.items() if name not in _LITTLE_SAID)
    return _item(entry, source, target, title, data=data, fields=_placed(known, data), text=as_text(data),
                 detail=one_line(detail if known.table else _compact(data)))


def _command_title(data: bytes) -> str:
    document = document_of(data)
    known = document if isinstance(document, dict) else {}
    if isinstance(status := known.get("StatusCode"), int):
        return f"reply: status {status}"
    return one_line(f"command {name}", 80) if isinstance(name := known.get("taskName"), str) else "JSON"


def _request(entry: Entry) -> Item:
    line = entry.head.split(b"\r\n", 1)[0].decode("latin-1")
    method, _, rest = line.partition(" ")
    target = rest.rpartition(" ")[0]
    return _item(entry, "service", "platform", one_line(f"{method} {target}"), data=_http(entry),
                 fields=_http_fields(entry), text=_http_text(entry),
                 detail=_body_detail(entry))


def _response(entry: Entry) -> Item:
    line = entry.head.split(b"\r\n", 1)[0].decode("latin-1")
    late = f"{entry.delay:g} s late, " if entry.delay else ""
    return _item(entry, "platform", "service", one_line(line.partition(" ")[2]), data=_http(entry),
                 fields=_http_fields(entry), text=_http_text(entry),
                 detail=late + _body_detail(entry))


def _body_detail(entry: Entry) -> str:
    return f"{_size(entry.body)}: {one_line(_compact(entry.body))}" if entry.body else "no body"


def _step(entry: Entry) -> Item:
    data = entry.fields.get("data", b"")
    seconds = entry.fields.get("seconds")
    title = {"send": f"sends {_size(data)} as they are",
             "wait": "waits for ever" if seconds is None else f"waits {seconds:g} s",
             "close": "closes the connection" + ("" if entry.fields.get("alert") else " without the TLS alert"),
             "reset": "resets the connection"}.get(entry.step, entry.step)
    return _item(entry, "platform", "" if entry.step == "wait" else "service", title, data=data, text=as_text(data),
                 detail=one_line(_printable(data)))


def _connection(entry: Entry) -> Item:
    known = entry.fields
    number, event = f"connection {entry.connection}", entry.event
    detail = {"accepted": f"to port {entry.port}", "handshake": f"on {number}, {known.get('cipher')}",
              "incomplete": f"{_size(known.get('raw', b''))} on {number}", "broken": str(known.get("error")),
              "closed": f"after {known.get('requests')} requests"}.get(event, "")
    titles = {"accepted": f"TCP {number}", "handshake": f"{known.get('tls_version')} handshake",
              "incomplete": "request cut off", "broken": f"{number} broken", "closed": f"{number} closed"}
    data = known.get("raw", b"")
    return _item(entry, "service" if event in ("accepted", "incomplete") else "platform",
                 "platform" if event in ("accepted", "incomplete") else "service",
                 titles.get(event, event), detail=one_line(detail), data=data, text=as_text(data))


def _file(entry: Entry) -> Item:
    return _item(entry, entry.process, "", f"wrote {one_line(entry.path)}", data=entry.data, text=as_text(entry.data),
                 detail=f"{_size(entry.data)}: {one_line(_compact(entry.data))}")


def _buffer(entry: Entry) -> Item:
    return _item(entry, "events", "", f"put buffer {entry.buffer_id} into the event cache", data=entry.data,
                 fields=_placed(describe_block(entry.data), entry.data),
                 detail=f"{_size(entry.data)}: {one_line(_printable(entry.data[wire.BLOCK_HEADER_SIZE:]))}")


def _log(entry: Entry) -> Item:
    place = f"{entry.path}:{entry.line}" if entry.path else "standard error"
    return _item(entry, "service", "", f"{entry.level or 'no record'} {place}", detail=visible(entry.text))


def _fault(entry: Entry) -> Item:
    names = {"script": "a script answers the next request", "delay": "answers late", **_HOOKS}
    details = {name: value for name, value in entry.fields.items() if name not in ("source", "name")}
    return _item(entry, entry.source, "", names.get(entry.name, f"fault {entry.name} takes hold"),
                 fault=entry.name,
                 detail=one_line(_pairs(details)))


def _note(entry: Entry) -> Item:
    names = {("itgt", "page"): "read the page file", ("itgt", "imported"): "imported the page",
             ("events", "connected"): "event node opened", ("events", "disconnected"): "event node closed"}
    data = entry.fields["data"]
    if entry.kind in ("fault_on", "fault_off"):
        return _item(entry, entry.source, "", entry.kind.replace("_", " switched "), fault=str(data.get("name")),
                     detail=one_line(str(data.get("text", data.get("name")))))
    return _item(entry, entry.source, "", names.get((entry.source, entry.kind), entry.kind.replace("_", " ")),
                 detail=one_line(_pairs(data)))


_EXPLAINED: dict[str, Callable[[Entry], Item]] = {
    "datagram": _datagram, "request": _request, "response": _response, "step": _step, "connection": _connection,
    "file": _file, "buffer": _buffer, "log": _log, "fault": _fault, "note": _note,
    "ring_record": lambda entry: _item(entry, "service", "", "record in the ring buffer", detail=one_line(entry.text),
                                       text=visible(entry.text)),
}


def _pairs(values: dict[str, Any]) -> str:
    return " ".join(_pairs(value) if isinstance(value, dict) else f"{name}={value}" for name, value in values.items())


def _placed(known: Description, data: bytes) -> tuple[PlacedField, ...]:
    return tuple(PlacedField(part.name, part.offset, min(part.end, len(data)) - part.offset,
                             one_line(str(part.read(data)), 2 * _VALUE_LIMIT))
                 for part in known.table if part.name in wire.decode((part,), data))


def _http(entry: Entry) -> bytes:
    return bytes(entry.head + b"\r\n\r\n" + entry.body)


def _http_fields(entry: Entry) -> tuple[PlacedField, ...]:
    return tuple(_head_lines(entry.head)) + ((PlacedField("body", len(entry.head) + 4, len(entry.body),
                                                          _size(entry.body)),) if entry.body else ())


def _head_lines(head: bytes) -> Iterator[PlacedField]:
    offset = 0
    for number, line in enumerate(head.split(b"\r\n")):
        name, _, value = line.partition(b":") if number else (b"first line", b"", line)
        yield PlacedField(one_line(_printable(name)), offset, len(line), one_line(_printable(value.strip())))
        offset += len(line) + 2


def _http_text(entry: Entry) -> str:
    return visible(_printable(entry.head).replace("\r\n", "\n")) + ("\n\n" + as_text(entry.body) if entry.body else "")


def as_text(data: bytes) -> str:
    """JSON in lines, long values cut; other text as it is; "" for what is neither."""
    document = document_of(data)
    text = json.dumps(_shortened(document), indent=2, ensure_ascii=False) if document is not None else None
    if text is None:
        start = data[:_TEXT_LIMIT]
        if any(byte < 32 and byte not in b"\t\r\n" for byte in start):
            return ""
        text = _printable(start).replace("\r\n", "\n").replace("\t", "    ")
    cut = len(text) > _TEXT_LIMIT or document is None and len(data) > len(text)
    more = f"\n… ({_size(data)} in all)" if cut else ""
    return visible(text[:_TEXT_LIMIT]) + more


def _shortened(value: Any, depth: int = 0) -> Any:
    if isinstance(value, str) and len(value) > _VALUE_LIMIT:
        return f"{value[:40]}… ({len(value):,} characters)"
    if depth > _DEPTH_LIMIT and isinstance(value, (list, dict)):
        return "…"
    if isinstance(value, list):
        return [_shortened(element, depth + 1) for element in value]
    return {name: _shortened(element, depth + 1) for name, element in value.items()} if isinstance(value, dict) \
        else value


def _compact(data: bytes) -> str:
    document = document_of(data)
    return _printable(data[:4 * _VALUE_LIMIT]) if document is None \
        else json.dumps(_shortened(document), ensure_ascii=False)


@functools.lru_cache(maxsize=4)
def document_of(data: bytes) -> Any:
    """The JSON object or array that data is; None if it is none."""
    if data[:1] not in (b"{", b"[") or len(data) > _JSON_LIMIT:
        return None
    try:
        return json.loads(data)
    except (ValueError, RecursionError):
        return None


def _printable(data: bytes) -> str:
    return data.decode("utf-8", "backslashreplace")


def _size(data: bytes) -> str:
    return "1 byte" if len(data) == 1 else f"{len(data):,} bytes"
