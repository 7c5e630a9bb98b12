"""What passed in a recorded run as packets: one for each message, and for HTTPS the connections, decrypted."""

from __future__ import annotations

import struct
from collections.abc import Callable, Iterator
from datetime import datetime
from pathlib import Path

from simulator.capture.conversation import PLATFORM_ADDRESS, SERVICE_ADDRESS, Conversation, Packet
from simulator.capture.pcapng import LONGEST, RAW_IP, UPPER_PDU, Writer
from simulator.errors import CameraError
from simulator.messages.text import LeftOut, length
from simulator.trace.recording import Entry, Recording

_LOCAL, _PLATFORM = 0, 1
_INTERFACES = (("camera", "what passes inside the camera, for camgate.lua", UPPER_PDU),
               ("platform", "HTTPS with the platform, decrypted", RAW_IP))
_END_OF_TAGS, _DISSECTOR_NAME = 0, 12
_DISSECTOR = "camgate"
# Longer files are pages, which HTTP has, too, and no dissector would take them.
_LONGEST_FILE = LONGEST // 2


def write(recording: Recording, path: Path) -> int:
    """Writes a recorded run as a pcapng file; returns the number of packets. Raises CameraError if it cannot."""
    try:
        began = datetime.fromisoformat(recording.began).timestamp()
    except ValueError as error:
        raise CameraError(f"the recording does not say when it began: {error}") from error
    try:
        with path.open("wb") as stream:
            writer = Writer(stream, _INTERFACES, {SERVICE_ADDRESS: "service", PLATFORM_ADDRESS: "platform"})
            connections: dict[int, Conversation] = {}
            for entry in recording.entries:
                if (make := _INSIDE.get(entry.type)) is not None:
                    for data, size in make(entry):
                        writer.packet(_LOCAL, began + entry.time, data, size)
                elif (say := _OUTSIDE.get(entry.type)) is not None:
                    talk = connections.setdefault(entry.connection, Conversation(entry.connection))
                    comment = _comment(entry)
                    for data, size in say(entry, talk):
                        writer.packet(_PLATFORM, began + entry.time, data, size, comment)
                        comment = ""
            return writer.packets
    except OSError as error:
        raise CameraError(f"the capture cannot be written: {error}") from error


def _passed(kind: str, sender: str, receiver: str, place: str, data: bytes) -> Iterator[Packet]:
    """Data from one process to another one, with a head that camgate.lua reads: four texts, a NUL behind each."""
    name = _DISSECTOR.encode() + bytes(-len(_DISSECTOR) % 4)
    head = struct.pack(">HH", _DISSECTOR_NAME, len(name)) + name + struct.pack(">HH", _END_OF_TAGS, 0)
    head += b"".join(_encoded(text).replace(b"\0", b"") + b"\0" for text in (kind, sender, receiver, place))
    yield head + data, len(head) + length(data)


def _encoded(text: str) -> bytes:
    return text.encode("utf-8", "backslashreplace")


def _datagram(entry: Entry) -> Iterator[Packet]:
    return _passed("datagram", entry.fields["from"], entry.to, entry.socket, entry.data)


def _file(entry: Entry) -> Iterator[Packet]:
    if length(entry.data) > _LONGEST_FILE:
        return iter(())
    return _passed("file", entry.process, "", entry.path, entry.data)


def _log(entry: Entry) -> Iterator[Packet]:
    return _passed("log", "service", entry.level, f"{entry.path}:{entry.line}", _encoded(entry.text))


_INSIDE: dict[str, Callable[[Entry], Iterator[Packet]]] = {
    "datagram": _datagram,
    "buffer": lambda entry: _passed("buffer", "events", "service", f"buffer {entry.buffer_id}", entry.data),
    "ring_record": lambda entry: _passed("record", "service", "", "ring buffer", _encoded(entry.text)),
    "file": _file,
    "log": _log,
}


def _said(entry: Entry, talk: Conversation) -> Iterator[Packet]:
    """A request or a response."""
    by_service = entry.type == "request"
    yield from talk.say(by_service, entry.head + b"\r\n\r\n" + entry.body)
    if isinstance(entry.body, LeftOut):
        yield from talk.say(by_service, entry.body)


def _step(entry: Entry, talk: Conversation) -> Iterator[Packet]:
    if entry.step == "send":
        return talk.say(False, entry.data)
    return {"close": talk.end(), "reset": talk.reset(False)}.get(entry.step, iter(()))


def _life(entry: Entry, talk: Conversation) -> Iterator[Packet]:
    if entry.event == "incomplete":
        return talk.say(True, entry.raw)
    return {"accepted": talk.begin(), "broken": talk.reset(True), "closed": talk.end()}.get(entry.event, iter(()))


_OUTSIDE: dict[str, Callable[[Entry, Conversation], Iterator[Packet]]] = {
    "request": _said, "response": _said, "step": _step, "connection": _life}


def _comment(entry: Entry) -> str:
    """What the packets cannot say."""
    if entry.type == "request":
        return f"came to port {entry.port} with {entry.tls_version}, {entry.cipher}"
    if entry.type == "response" and entry.delay:
        return f"sent {entry.delay:g} s later"
    if entry.type == "connection" and entry.event == "broken":
        return str(entry.error)
    return ""
