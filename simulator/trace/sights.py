"""What a viewer sees of an event: who spoke to whom, or what became of something, in words and decoded."""

from __future__ import annotations

import json
from collections.abc import Callable
from dataclasses import asdict, dataclass, field
from typing import Any

from simulator.journal import Event
from simulator.messages import wire
from simulator.messages.describe import Description, describe, describe_notification
from simulator.messages.http import Close, Reset, Send, Wait
from simulator.peers.itgt import IMPORTED

NAMES = {"client": "client", "itgt": "ITGT", "faces": "face library", "platform": "platform", "events": "event cache",
         "service": "service", "demo": ""}
SERVICE = "service"
_PAGE_SIZE = 30


@dataclass(frozen=True)
class Sight:
    """One line for people, one object for programs.

    time      monotonic seconds
    source    who sent it, or whom it is about
    target    who got it; "" for a note about the source
    kind      "message", "note", "log" or "fault"
    title     a few words, to stand beside an arrow
    text      everything, decoded
    fields    the same by name
    plain     whether it is shown as a line when the viewer wants no details
    drawn     whether it is drawn when the viewer wants no details
    style     how it is coloured
    progress  what it says about a running download: "pages", "reported", "page" with "records", "picture", "ended"
    """

    time: float
    source: str
    target: str = ""
    kind: str = "note"
    title: str = ""
    text: str = ""
    fields: dict[str, Any] = field(default_factory=dict)
    plain: bool = True
    drawn: bool = True
    style: str = ""
    progress: dict[str, Any] = field(default_factory=dict)

    def document(self) -> dict[str, Any]:
        """As JSON has it; Sight(**document) is the same again."""
        return asdict(self)

    def public(self) -> dict[str, Any]:
        """What programs may rely on, without what only steers the display."""
        return {name: getattr(self, name) for name in ("time", "source", "target", "kind", "title", "text", "fields")}


def sights(event: Event) -> list[Sight]:
    """What there is to see of an event, the message before the note."""
    makers = [_MESSAGES.get((event.source, event.kind)) or _MESSAGES.get(("", event.kind)),
              _NOTES.get((event.source, event.kind)) or _NOTES.get(("", event.kind))]
    return [sight for make in makers if make is not None and (sight := make(event)) is not None]


def cut(text: str, limit: int = 900) -> str:
    """On one line, the middle left out when it is long."""
    text = text.replace("\r\n", " | ").replace("\n", " ")
    return text if len(text) <= limit else f"{text[:limit - 160]} ... {text[-150:]}"


def _message(event: Event, outward: bool, title: str, described: Description, **more: Any) -> Sight:
    """A message of a peer's, to the service or (outward) from it."""
    source, target = (SERVICE, event.source) if outward else (event.source, SERVICE)
    fields = {name: value if isinstance(value, (int, str)) else str(value)
              for name, value in described.fields.items()}
    return Sight(event.time, source, target, "message", title, cut(str(described)), fields,
                 **{"plain": False, "style": "dim", **more})


def _client(event: Event) -> Sight:
    data: bytes = event.data["data"]
    described = describe(data)
    outward = event.kind == "received"
    if len(data) == wire.HEAD_SIZE:
        title = f"head, tag {described.fields['tag']}, {described.fields['body_length']} bytes follow"
        return _message(event, outward, title, described, drawn=False)
    try:
        document = json.loads(data)
        status, name, information = (document.get(key) for key in ("StatusCode", "taskName", "taskInfo"))
    except (ValueError, AttributeError):
        return _message(event, outward, described.title, described)
    if outward:
        return _message(event, outward, f"status {status}", described)
    if name != "whiteListDown" or not isinstance(information, dict):
        return _message(event, outward, str(name), described)
    total = information.get("totalNum")
    progress = {"pages": -(-total // _PAGE_SIZE)} if isinstance(total, int) else {}
    return _message(event, outward, f"{name}, {total} faces", described, progress=progress)


def _ready(fields: dict[str, Any]) -> str:
    return f"{fields.get('current')} of {fields.get('total')}, {'ready' if fields.get('status') == 1 else 'not ready'}"


# By command: the few words of request and reply.
_TITLES: dict[int, tuple[Callable[[dict[str, Any]], str], Callable[[dict[str, Any]], str]]] = {
    1037: (lambda fields: "the service is up", lambda fields: ""),
    7018: (lambda fields: f"set list {fields.get('list_name')}", lambda fields: "set"),
    7019: (lambda fields: "clear the lists", lambda fields: f"status {fields.get('status')}"),
    7020: (lambda fields: f"page file {fields.get('file_name')}",
           lambda fields: f"import task {fields.get('import_task_id')}"),
    7021: (lambda fields: f"how far is {fields.get('import_task_id')}?", _ready),
    7031: (lambda fields: "what time?", lambda fields: str(fields.get("time_text")))}


def _exchange(event: Event) -> Sight:
    message = event.message
    outward = event.kind == "received"
    described = describe(message, reply=not outward)
    title = described.title
    if message.command in _TITLES and len(message) == wire.MESSAGE_SIZE:
        ask, answer = _TITLES[message.command]
        title = f"{message.command} {ask(message.request) if outward else answer(message.reply)}"
    return _message(event, outward, title, described)


def _request(event: Event) -> Sight:
    request = event.request
    raw = cut(request.raw.decode("utf-8", "backslashreplace"))
    fields = {"request_line": request.request_line, "body": request.body.decode("utf-8", "backslashreplace"),
              "tls_version": request.tls_version, "connection": request.connection}
    return Sight(event.time, SERVICE, event.source, "message", f"POST {request.target}, {len(request.body)} bytes",
                 raw, fields, plain=False, style="dim")


def _response(event: Event) -> Sight:
    response = event.response
    head = response.encode().partition(b"\r\n\r\n")[0].decode()
    return Sight(event.time, event.source, SERVICE, "message",
                 f"{response.status}, {_size(len(response.body))}",
                 head.replace("\r\n", " | ") + f" ({len(response.body)} bytes)",
                 {"status": response.status, "bytes": len(response.body)}, plain=False, style="dim")


def _step(event: Event) -> Sight:
    step = event.step
    titles = {Send: lambda: f"{len(step.data)} bytes as they are", Reset: lambda: "resets the connection",
              Close: lambda: "closes the connection", Wait: lambda: "waits"}
    title = titles[type(step)]()
    return Sight(event.time, event.source, SERVICE, "message", title, title, {"connection": event.connection},
                 plain=False, style="dim")


def _size(count: int) -> str:
    return f"{count / 1e6:.1f} MB" if count >= 100_000 else f"{count} bytes"


def _subscribed(event: Event) -> Sight:
    return _message(event, True, "subscribes", describe(event.data["data"]))


def _notified(event: Event) -> Sight:
    return _message(event, False, "notification", describe_notification(event.data["data"]))


def _handshake(event: Event) -> Sight:
    text = f"connection {event.connection}: {event.tls_version}, {event.cipher}"
    return Sight(event.time, event.source, SERVICE, "message", text, text,
                 {"connection": event.connection, "tls_version": event.tls_version, "cipher": event.cipher},
                 plain=False, drawn=False, style="dim")


def _log(event: Event) -> Sight:
    record = event.record
    progress = {"ended": True} if record.text.startswith("CustomJsonPicDownloadTask E") else {}
    text = f"{record.level:<5} {record.path}:{record.line} {cut(record.text)}"
    return Sight(event.time, SERVICE, "", "log", cut(record.text, 200), text,
                 {"level": record.level, "path": record.path, "line": record.line, "text": record.text},
                 plain=False, drawn=False, style={"ERROR": "red", "DEBUG": "dim"}.get(record.level, ""),
                 progress=progress)


_MESSAGES: dict[tuple[str, str], Callable[[Event], Sight]] = {
    ("client", "sent"): _client, ("client", "received"): _client,
    ("itgt", "sent"): _exchange, ("itgt", "received"): _exchange,
    ("faces", "sent"): _exchange, ("faces", "received"): _exchange,
    ("events", "subscribed"): _subscribed, ("events", "notified"): _notified,
    ("platform", "request"): _request, ("platform", "response"): _response, ("platform", "step"): _step,
    ("platform", "handshake"): _handshake, ("service", "log"): _log}


def _note(event: Event, text: str, **more: Any) -> Sight:
    return Sight(event.time, event.source, title=text, text=text, **more)


def _page(event: Event) -> Sight:
    last = event.start + event.records - 1
    return _note(event, f"serves records {event.start} to {last}, {event.bytes / 1e6:.1f} MB with their pictures")


def _report(event: Event) -> Sight:
    text = cut(event.request.body.decode("utf-8", "backslashreplace"), 260)
    return _note(event, f"got the report of {len(event.request.body)} bytes: {text}", progress={"reported": True})


def _page_file(event: Event) -> Sight:
    page = event.page
    return _note(event, f"got page file {page.file_name}, {len(page.records)} records, import task {page.task_id}",
                 drawn=False, progress={"page": page.file_name, "records": len(page.records)})


def _picture(event: Event) -> Sight:
    outcome = "imported" if event.result == IMPORTED else f"refused, result {event.result}"
    return _note(event, f"picture {event.done:>2} of {event.total}: {event.record_id} {outcome}",
                 drawn=event.result != IMPORTED, progress={"picture": event.record_id})


def _list(event: Event) -> Sight:
    fields = event.face_list
    return _note(event, f"got face list {fields['list_id']} \"{fields['list_name']}\", type {fields['list_type']}, "
                        f"on control {fields['on_control']}, threshold {fields['threshold']}", drawn=False)


def _faces_file(event: Event) -> Sight:
    return _note(event, f"hands out {event.path}: {event.content.decode('utf-8', 'backslashreplace')}")


def _up(event: Event) -> Sight | None:
    return _note(event, "got message 1037: the service is up", drawn=False) if event.command == 1037 else None


def _fault(text: str) -> Callable[[Event], Sight]:
    return lambda event: _note(event, text.format(event.data.get("text", event.data.get("name"))), kind="fault",
                               style="bold red", fields=dict(event.data))


def _relayed(event: Event) -> Sight:
    return _note(event, f"connection {event.connection}: {_size(event.data['sent'])} to the platform, "
                        f"{_size(event.data['received'])} back")


_NOTES: dict[tuple[str, str], Callable[[Event], Sight | None]] = {
    ("platform", "page"): _page, ("platform", "report"): _report, ("platform", "relayed"): _relayed,
    ("platform", "broken"): lambda event: _note(event, f"connection {event.connection} broke: {event.error}"),
    ("itgt", "page"): _page_file, ("itgt", "picture"): _picture, ("itgt", "received"): _up,
    ("itgt", "file"): lambda event: _note(event, f"wrote the import state file {event.path}"),
    ("faces", "cleared"): lambda event: _note(event, f"clears its lists on request, status {event.status}",
                                              drawn=False),
    ("faces", "file"): _faces_file, ("faces", "list"): _list,
    ("client", "reply"): lambda event: _note(
        event, f"got the reply to its command {event.tag}: status {event.reply.status}", drawn=False),
    ("events", "subscribed"): lambda event: _note(event, str(describe(event.data["data"])), drawn=False),
    ("service", "started"): lambda event: _note(event, f"started, process {event.pid}"),
    ("service", "ended"): lambda event: _note(event, f"ended with code {event.exit_code}"),
    ("", "fault"): _fault("fault {} takes hold"), ("", "fault_on"): _fault("fault {} is switched on"),
    ("", "fault_off"): _fault("fault {} is switched off"),
    ("", "hook_failed"): lambda event: _note(event, f"a hook failed: {event.error}", style="bold red")}
