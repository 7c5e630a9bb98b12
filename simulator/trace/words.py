"""What happened, in words: every kind of entry of a recording, for the live view as for the recorded run."""

from __future__ import annotations

from collections.abc import Callable, Iterator
from dataclasses import dataclass, field
from typing import Any

from simulator.messages import wire
from simulator.messages.describe import Description, describe, describe_block, describe_message, describe_notification
from simulator.messages.log import ends_download
from simulator.messages.text import (VALUE_LIMIT, as_text, compact, document_of, length, one_line, printable, size,
                                     visible)
from simulator.trace.recording import Entry

# What the processes are called, from left to right as the page draws them.
NAMES = {"events": "event cache", "client": "client", "service": "service", "itgt": "ITGT", "faces": "face library",
         "platform": "platform"}
# Where there is little room.
SHORT_NAMES = {**NAMES, "events": "events", "faces": "faces"}
# Faults that only say that something in the place of a peer answered.
HOOKS = {"on_message": "a hook changed the answer", "on_request": "a hook changed the answer",
         "on_connect": "a hook takes the connection"}
_MESSAGE_HEADER_END = 168  # bytes of a MSG_DATA up to its command
_WHOLE_LIMIT = 900  # characters of a message with all its details
# Fields that are the same in nearly every message.
_LITTLE_SAID = {"destPath", "srcPath", "subType", "module", "Count", "ImportFileFlag", "reserved2", "reserved4",
                "reserved5", "magic", "headerLength", "unused"}


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
    size            how many they are; those of a long message may not be here
    parts           those worth showing, with their offsets, where `data` is not here
    fields          where they are known
    text            the data as text for people; "" if it is not text
    fault           names the fault that changed it, "" for none
    connection      number of the TCP connection it belongs to, 0 for none
    number          in the order of the items, from 1
    answers, after  number of the item that it answers, 0 for none, and the seconds between
    asks            whether it asks for an answer
    message, socket  what docs/messages.md calls it, and where it goes

    For who watches while it happens:

    short       the fewest words, to stand beside an arrow; "": the title
    whole       with every detail, on one line; "": title and detail
    values      the same by name
    shown       whether it is shown to who wants no details: "as line" without a terminal, "drawn" on one
    progress    what it says about a running download: "pages", "reported", "page" with "records", "picture", "ended"
    """

    line: int
    time: float
    kind: str
    source: str
    target: str
    title: str
    detail: str = ""
    data: bytes = b""
    size: int = 0
    parts: tuple[tuple[int, bytes], ...] = ()
    fields: tuple[PlacedField, ...] = ()
    text: str = ""
    fault: str = ""
    connection: int = 0
    number: int = 0
    answers: int = 0
    after: float = 0.0
    asks: bool = False
    message: str = ""
    socket: str = ""
    short: str = ""
    whole: str = ""
    values: dict[str, Any] = field(default_factory=dict)
    shown: tuple[str, ...] = ()
    progress: dict[str, Any] = field(default_factory=dict)


_LINE, _DRAWN, _BOTH = ("as line",), ("drawn",), ("as line", "drawn")


def explained(entry: Entry) -> Item:
    """An entry in words. Raises TypeError, ValueError or AttributeError for one that is damaged."""
    return _WORDS[entry.type](entry)


def cut(text: str, limit: int = _WHOLE_LIMIT) -> str:
    """On one line, the middle left out when it is long."""
    text = visible(text.replace("\r\n", " | ").replace("\n", " "))
    return text if len(text) <= limit else f"{text[:limit - 160]} ... {text[-150:]}"


def _item(entry: Entry, source: str, target: str, title: str, **details: Any) -> Item:
    details.setdefault("size", length(details.get("data", b"")))
    return Item(entry.number, entry.time, entry.type, source, target, visible(title),
                connection=entry.fields.get("connection") or 0, socket=entry.fields.get("socket", ""), **details)


def _datagram(entry: Entry) -> Item:
    data, source, target = entry.data, entry.fields["from"], entry.to
    if {source, target} & {"itgt", "faces"} and len(data) >= _MESSAGE_HEADER_END:
        known = describe_message(wire.Message(data), target == "service")
    elif source == "events":
        known = describe_notification(data)
    else:
        known = describe(data)
    title, short, progress = known.title, "", {}
    if known.title == "command head":
        title = "reply head" if source == "service" else title
    elif known.title == "JSON":
        title, short, progress = _command(data)
    elif known.title == "raw":
        title = f"datagram of {size(data)}"
    elif len(data) == wire.MESSAGE_SIZE:
        short = _exchange(wire.Message(data), target == "service")
    said = " ".join(f"{name}={value!r}" if isinstance(value, str) else f"{name}={value}"
                    for name, value in known.fields.items() if name not in _LITTLE_SAID)
    detail = one_line(said if known.table else compact(data))
    # A head is followed by its body, which is drawn. What the service says when it starts is worth a line.
    shown = () if len(data) == wire.HEAD_SIZE else _BOTH if "service is up" in short or target == "events" else _DRAWN
    return _item(entry, source, target, title, data=data, fields=_placed(known, data), text=as_text(data),
                 detail=detail, short=short, values=_plain(known.fields), shown=shown, progress=progress,
                 whole=cut(f"{title} " + " ".join(f"{name}={value!r}" for name, value in known.fields.items())))


def _command(data: bytes) -> tuple[str, str, dict[str, Any]]:
    """Title, short title and progress of a command's or reply's body."""
    document = document_of(data)
    known = document if isinstance(document, dict) else {}
    if isinstance(status := known.get("StatusCode"), int):
        return f"reply: status {status}", f"status {status}", {}
    if not isinstance(name := known.get("taskName"), str):
        return "JSON", "", {}
    title, information = one_line(f"command {name}", 80), known.get("taskInfo")
    total = information.get("totalNum") if isinstance(information, dict) else None
    if name != "whiteListDown" or not isinstance(total, int):
        return title, one_line(name, 80), {}
    return title, f"{name}, {total} faces", {"pages": -(-total // wire.PAGE_SIZE)}


def _ready(fields: dict[str, Any]) -> str:
    ready = "ready" if fields.get("ProgressStatus") == 1 else "not ready"
    return f"{fields.get('ProgressCurrent')} of {fields.get('ProgressTotal')}, {ready}"


# By command: the few words of request and reply.
_SHORT: dict[int, tuple[Callable[[dict[str, Any]], str], Callable[[dict[str, Any]], str]]] = {
    wire.READY: (lambda fields: "the service is up", lambda fields: ""),
    wire.SET_LIST: (lambda fields: f"set list {fields.get('ListName')}", lambda fields: "set"),
    wire.CLEAR_LISTS: (lambda fields: "clear the lists", lambda fields: f"status {fields.get('ClearStatus')}"),
    wire.IMPORT_FILE: (lambda fields: f"page file {fields.get('ImportFileName')}",
                       lambda fields: f"import task {fields.get('ImportFileTaskId')}"),
    wire.IMPORT_PROGRESS: (lambda fields: f"how far is {fields.get('ProgressTaskId')}?", _ready),
    wire.IMPORT_TIME: (lambda fields: "what time?", lambda fields: str(fields.get("PageTime")))}


def _exchange(message: wire.Message, reply: bool) -> str:
    if message.command not in _SHORT:
        return ""
    ask, answer = _SHORT[message.command]
    return f"{message.command} {answer(message.reply) if reply else ask(message.request)}"


def _request(entry: Entry) -> Item:
    line = _first_line(entry)
    title = one_line(line.rpartition(" ")[0])
    return _item(entry, "service", "platform", title, **_http(entry),
                 detail=_body_detail(entry), short=f"{title}, {length(entry.body)} bytes",
                 values={"request_line": line, "body": printable(entry.body), "tls_version": entry.tls_version,
                         "connection": entry.connection})


def _response(entry: Entry) -> Item:
    late = f"{entry.delay:g} s late, " if entry.delay else ""
    line = _first_line(entry).partition(" ")[2]
    status = line.partition(" ")[0]
    return _item(entry, "platform", "service", one_line(line), **_http(entry), detail=late + _body_detail(entry),
                 short=f"{status}, {_amount(length(entry.body))}",
                 values={"status": int(status) if status.isdecimal() else status, "bytes": length(entry.body)})


def _step(entry: Entry) -> Item:
    data = entry.fields.get("data", b"")
    seconds = entry.fields.get("seconds")
    title = {"send": f"sends {size(data)} as they are",
             "wait": "waits for ever" if seconds is None else f"waits {seconds:g} s",
             "close": "closes the connection" + ("" if entry.fields.get("alert") else " without close_notify"),
             "reset": "resets the connection"}.get(entry.step, entry.step)
    return _item(entry, "platform", "" if entry.step == "wait" else "service", title, data=data, text=as_text(data),
                 detail=one_line(printable(data)), values={"connection": entry.connection}, shown=_DRAWN)


def _connection(entry: Entry) -> Item:
    known = entry.fields
    number, event = f"connection {entry.connection}", entry.event
    detail = {"accepted": f"to port {entry.port}", "handshake": f"on {number}, {known.get('cipher')}",
              "incomplete": f"{size(known.get('raw', b''))} on {number}", "broken": str(known.get("error")),
              "closed": f"after {known.get('requests')} requests"}.get(event, "")
    titles = {"accepted": f"TCP {number}", "handshake": f"{known.get('tls_version')} handshake",
              "incomplete": "request cut off", "broken": f"{number} broken", "closed": f"{number} closed"}
    data = known.get("raw", b"")
    outward = event in ("accepted", "incomplete")
    return _item(entry, "service" if outward else "platform", "platform" if outward else "service",
                 titles.get(event, event), detail=one_line(detail), data=data, text=as_text(data),
                 values=_plain(known), shown=_BOTH if event == "broken" else ())


def _file(entry: Entry) -> Item:
    return _item(entry, entry.process, "", f"wrote {one_line(entry.path)}", data=entry.data, text=as_text(entry.data),
                 detail=f"{size(entry.data)}: {one_line(compact(entry.data))}", shown=_BOTH)


def _buffer(entry: Entry) -> Item:
    return _item(entry, "events", "", f"put buffer {entry.buffer_id} into the event cache", data=entry.data,
                 values={"identifier": entry.buffer_id}, fields=_placed(describe_block(entry.data), entry.data),
                 detail=f"{size(entry.data)}: {one_line(printable(entry.data[wire.BLOCK_HEADER_SIZE:]))}")


def _log(entry: Entry) -> Item:
    place = f"{entry.path}:{entry.line}" if entry.path else "standard error"
    title = f"{entry.level or 'no record'} {place}"
    return _item(entry, "service", "", title, detail=visible(entry.text), short=cut(entry.text, 200),
                 whole=cut(f"{title} {entry.text}"), progress={"ended": True} if ends_download(entry.text) else {},
                 values={name: entry.fields[name] for name in ("level", "path", "line", "text")})


def _fault(entry: Entry) -> Item:
    names = {"script": "a script answers the next request", "delay": "answers late", **HOOKS}
    details = {name: value for name, value in entry.fields.items() if name not in ("source", "name")}
    return _item(entry, entry.source, "", names.get(entry.name, f"fault {entry.name} takes hold"), fault=entry.name,
                 detail=one_line(_pairs(details)), values={"name": entry.name, **_plain(details)},
                 shown=() if entry.name in names else _BOTH)


def _note(entry: Entry) -> Item:
    data = entry.fields["data"]
    make, shown = _NOTES.get((entry.source, entry.kind)) or _NOTES.get(("", entry.kind)) or (_unknown, ())
    title, detail, *progress = make({"kind": entry.kind, **data})
    fault = str(data.get("name")) if entry.kind in ("fault_on", "fault_off") else ""
    if entry.kind == "picture" and data["result"] != wire.IMPORTED:
        shown = _BOTH
    return _item(entry, entry.source, "", title, detail=one_line(detail), fault=fault, shown=shown,
                 values=_plain(data), progress=progress[0] if progress else {})


def _wrong(part: str, found: list[str]) -> str:
    return f"wrong in its {part}: {'; '.join(found)}" if found else f"its {part} is right"


Words = tuple[str, str] | tuple[str, str, dict[str, Any]]


def _unknown(data: dict[str, Any]) -> Words:
    return data["kind"].replace("_", " "), _pairs({name: value for name, value in data.items() if name != "kind"})


def _said(title: str, *names: str) -> Callable[[dict[str, Any]], Words]:
    """A title with some of the details behind it."""
    return lambda data: (title, _pairs({name: data[name] for name in names or set(data) - {"kind"} if name in data}))


def _page(data: dict[str, Any]) -> Words:
    page = data.get("page", {})
    return ("read the page file", _pairs(page), {"page": page.get("file_name"), "records": page.get("records")})


def _picture(data: dict[str, Any]) -> Words:
    outcome = "imported" if data["result"] == wire.IMPORTED else f"refused, result {data['result']}"
    return (f"picture {data['done']:>2} of {data['total']}: {data['record_id']} {outcome}", "",
            {"picture": data["record_id"]})


def _report(data: dict[str, Any]) -> Words:
    body = data["request"].body
    return f"got the report of {len(body)} bytes:", printable(body), {"reported": True}


def _list(data: dict[str, Any]) -> Words:
    fields = data["face_list"]
    return (f"got face list {fields['ListId']} \"{fields['ListName']}\", type {fields['ListType']}, "
            f"on control {fields['ListOnControl']}, threshold {fields['ListThreshold']}", "")


# Each note in words, and to whom it is shown. Those of HIDDEN say again what messages say: only a viewer sees them.
_NOTES: dict[tuple[str, str], tuple[Callable[[dict[str, Any]], Words], tuple[str, ...]]] = {
    ("platform", "page"): (lambda data: (
        f"serves records {data['start']} to {data['start'] + data['records'] - 1}, {data['bytes'] / 1e6:.1f} MB with "
        "their pictures", ""), _BOTH),
    ("platform", "report"): (_report, _BOTH),
    ("platform", "relayed"): (lambda data: (
        "relayed", f"connection {data['connection']}: {_amount(data['sent'])} to the platform, "
                   f"{_amount(data['received'])} back"), _BOTH),
    ("platform", "presented"): (lambda data: (
        f"the platform {data['platform']} has", f"{data['tls_version']}, {data['cipher']}, and as certificate "
                                                f"{data['certificate']}"), _BOTH),
    ("platform", "unsecured"): (lambda data: (
        f"no TLS for a camera on connection {data['connection']}:", str(data["error"])), _BOTH),
    ("platform", "unanswered"): (lambda data: (
        f"the service did not wait for the end of the answer on connection {data['connection']},",
        f"{data['received']} bytes had come"), _BOTH),
    ("platform", "cut"): (lambda data: (
        f"the platform {'reset' if data['reset'] else 'closed'} connection {data['connection']} before the end of its "
        "answer,", f"{data['received']} bytes had come"), _BOTH),
    ("platform", "absent"): (lambda data: (
        "is not there:", f"{data['error']}; the service is refused, too, until it is back"), _BOTH),
    ("platform", "present"): (lambda data: ("is there again", ""), _BOTH),
    ("client", "own_command"): (lambda data: (
        f"your own client sends a command, tag {data['tag']};", _wrong("head", data["wrong"])), _BOTH),
    ("client", "own_body"): (lambda data: ("your own client:", _wrong("body", data["wrong"])), _BOTH),
    ("client", "own_reply"): (lambda data: (
        f"your own client's command {data['tag']} is answered:", compact(data["body"].encode())), _BOTH),
    ("client", "own_lost"): (lambda data: (
        f"the reply to your own client's command {data['tag']} is lost:", f"KH: {data['error']}"), _BOTH),
    ("client", "own_refused"): (lambda data: (
        "the service does not take your own client's datagram:", str(data["error"])), _BOTH),
    ("itgt", "page"): (_page, _LINE),
    ("itgt", "picture"): (_picture, _LINE),
    ("itgt", "imported"): (lambda data: ("imported the page", _pairs(data.get("page", {}))), ()),
    ("faces", "cleared"): (lambda data: ("clears its lists on request,", f"status {data.get('status')}"), _LINE),
    ("faces", "list"): (_list, _LINE),
    ("client", "reply"): (lambda data: (f"got the reply to its command {data['tag']}:",
                                        f"status {data['reply'].status}"), _LINE),
    ("events", "connected"): (_said("event node opened"), ()),
    ("events", "disconnected"): (_said("event node closed"), ()),
    ("service", "started"): (lambda data: ("started", f"as process {data.get('pid')}"), _BOTH),
    ("service", "ended"): (lambda data: ("ended", f"with code {data.get('exit_code')}"), _BOTH),
    ("", "fault_on"): (lambda data: (f"fault {data.get('text', data.get('name'))} is switched on", ""), _BOTH),
    ("", "fault_off"): (lambda data: (f"fault {data.get('text', data.get('name'))} is switched off", ""), _BOTH),
    ("", "hook_failed"): (_said("a hook failed:", "error"), _BOTH)}
HIDDEN = {("itgt", "picture"), ("client", "reply"), ("platform", "report"), ("platform", "page"), ("faces", "list")}

_WORDS: dict[str, Callable[[Entry], Item]] = {
    "datagram": _datagram, "request": _request, "response": _response, "step": _step, "connection": _connection,
    "file": _file, "buffer": _buffer, "log": _log, "fault": _fault, "note": _note,
    "ring_record": lambda entry: _item(entry, "service", "", "record in the ring buffer", detail=one_line(entry.text),
                                       text=visible(entry.text)),
}


def _pairs(values: dict[str, Any]) -> str:
    return " ".join(_pairs(value) if isinstance(value, dict) else f"{name}={value}" for name, value in values.items())


def _plain(values: dict[str, Any]) -> dict[str, Any]:
    return {name: value if isinstance(value, (int, float, str)) else str(value) for name, value in values.items()}


def _placed(known: Description, data: bytes) -> tuple[PlacedField, ...]:
    return tuple(PlacedField(part.name, part.offset, min(part.end, len(data)) - part.offset,
                             one_line(str(part.read(data)), 2 * VALUE_LIMIT))
                 for part in known.table if part.name in wire.decode((part,), data))


def _amount(count: int) -> str:
    return f"{count / 1e6:.1f} MB" if count >= 100_000 else f"{count} bytes"


def _first_line(entry: Entry) -> str:
    line: str = entry.head.split(b"\r\n", 1)[0].decode("latin-1")
    return line


def _body_detail(entry: Entry) -> str:
    return f"{size(entry.body)}: {one_line(compact(entry.body))}" if entry.body else "no body"


def _http(entry: Entry) -> dict[str, Any]:
    """What requests and responses have in common."""
    head = printable(entry.head).replace("\r\n", "\n")
    text = visible(head) + ("\n\n" + as_text(entry.body) if entry.body else "")
    body = (PlacedField("body", len(entry.head) + 4, length(entry.body), size(entry.body)),) if entry.body else ()
    return {"data": bytes(entry.head + b"\r\n\r\n" + entry.body), "size": len(entry.head) + 4 + length(entry.body),
            "text": text, "shown": _DRAWN, "fields": (*_head_lines(entry.head), *body),
            "whole": cut(head.replace("\n", " | ") + (" | " + compact(entry.body) if entry.body else ""))}


def _head_lines(head: bytes) -> Iterator[PlacedField]:
    offset = 0
    for number, line in enumerate(head.split(b"\r\n")):
        name, _, value = line.partition(b":") if number else (b"first line", b"", line)
        yield PlacedField(one_line(printable(name)), offset, len(line), one_line(printable(value.strip())))
        offset += len(line) + 2
