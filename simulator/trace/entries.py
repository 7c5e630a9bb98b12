"""What a recording holds about each event of a journal, and the form of it."""

from __future__ import annotations

import dataclasses
import json
from collections.abc import Callable
from pathlib import Path
from typing import Any

from simulator.journal import Event
from simulator.messages import wire
from simulator.messages.http import Close, Reset, Send, Wait

# The form of every line of a recording.
SCHEMA = json.loads(Path(__file__).with_name("recording.schema.json").read_text(encoding="utf-8"))
_CONNECTION_EVENTS = SCHEMA["definitions"]["connection"]["properties"]["event"]["enum"]


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
    path = f"{message.request.get('ImportFileDirectory', '')}{message.request.get('ImportFileName', '')}"
    place = outside(path)
    try:
        if ".." in place.parts or not place.is_file():
            return []
        return [("file", {"process": "service", "path": path, "data": place.read_bytes()})]
    except (OSError, ValueError):  # not readable, or no path at all
        return []
