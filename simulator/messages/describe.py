"""Any message on the camera's local sockets as text for people."""

from __future__ import annotations

import dataclasses
from dataclasses import dataclass
from typing import Any

from simulator.messages import wire


@dataclass(frozen=True)
class Description:
    """What a datagram is, its fields by name, and where those lie that have an offset."""

    title: str
    fields: dict[str, Any]
    table: wire.Table = ()

    def __str__(self) -> str:
        return " ".join([self.title, *(f"{name}={value!r}" for name, value in self.fields.items())])


def describe(data: bytes, reply: bool = False) -> Description:
    """Recognises a datagram by its size and first bytes; `reply` tells which payload a MSG_DATA carries."""
    if len(data) == wire.MESSAGE_SIZE:
        return describe_message(wire.Message(data), reply)
    if len(data) == wire.HEAD_SIZE:
        return _decoded("command head", wire.HEAD, data)
    if len(data) == wire.SUBSCRIPTION_SIZE and data[:2] == b"\x31\x53":
        return _decoded("subscription record", wire.SUBSCRIPTION, data)
    if data[:1] == b"{":
        return Description("JSON", {"text": _shortened(data)})
    return Description("raw", {"bytes": len(data), "start": data[:32].hex(" ")})


def describe_notification(data: bytes) -> Description:
    """A notification of the event cache, with its descriptor when that lies inside the packet."""
    offset = wire.decode(wire.NOTIFICATION, data).get("descriptorOffset", len(data))
    moved = tuple(dataclasses.replace(field, offset=offset + field.offset) for field in wire.DESCRIPTOR)
    return _decoded("notification", wire.NOTIFICATION + moved, data)


def describe_block(data: bytes) -> Description:
    """A buffer of the event cache."""
    return _decoded("buffer", wire.BLOCK_HEADER, data)


def _decoded(title: str, table: wire.Table, data: bytes) -> Description:
    return Description(title, wire.decode(table, data), table)


def describe_message(message: wire.Message, reply: bool) -> Description:
    """A MSG_DATA, cut short or not."""
    command = wire.COMMANDS.get(message.command)
    name = f"{message.command} {command.name}" if command else f"{message.command} (unknown command)"
    payload = (command.reply if reply else command.request) if command else ()
    table = wire.HEADER + payload
    return Description(f"{name} {'reply' if reply else 'request'}",
                       {key: value for key, value in wire.decode(table, message).items() if key != "command"}, table)


def _shortened(data: bytes) -> str:
    text = " ".join(data[:2000].decode("utf-8", "backslashreplace").split())
    return text if len(text) <= 300 and len(data) <= 2000 else f"{text[:300]}... ({len(data)} bytes)"
