"""Any message on the camera's local sockets as text for people."""

from __future__ import annotations

from dataclasses import dataclass
from typing import Any

from simulator import wire


@dataclass(frozen=True)
class Description:
    """What a datagram is, and its fields by name."""

    title: str
    fields: dict[str, Any]

    def __str__(self) -> str:
        return " ".join([self.title, *(f"{name}={value!r}" for name, value in self.fields.items())])


def describe(data: bytes, reply: bool = False) -> Description:
    """Recognises a datagram by its size and first bytes; `reply` tells which payload a MSG_DATA carries."""
    if len(data) == wire.MESSAGE_SIZE:
        return _message(wire.Message(data), reply)
    if len(data) == wire.HEAD_SIZE:
        return Description("command head", wire.decode(wire.HEAD, data))
    if len(data) == wire.SUBSCRIPTION_SIZE and data[:2] == b"\x31\x53":
        return Description("subscription record", wire.decode(wire.SUBSCRIPTION, data))
    if data[:1] == b"{":
        return Description("JSON", {"text": _shortened(data)})
    return Description("raw", {"bytes": len(data), "start": data[:32].hex(" ")})


def describe_notification(data: bytes) -> Description:
    """A notification of the event cache, with its descriptor when that lies inside the packet."""
    fields = wire.decode(wire.NOTIFICATION, data)
    offset = fields.get("descriptor_offset", len(data))
    return Description("notification", {**fields, **wire.decode(wire.DESCRIPTOR, data[offset:])})


def _message(message: wire.Message, reply: bool) -> Description:
    command = wire.COMMANDS.get(message.command)
    name = f"{message.command} {command.name}" if command else f"{message.command} (unknown command)"
    payload = message.reply if reply else message.request
    return Description(f"{name} {'reply' if reply else 'request'}",
                       {key: value for key, value in {**message.header, **payload}.items() if key != "command"})


def _shortened(data: bytes) -> str:
    text = " ".join(data[:2000].decode("utf-8", "backslashreplace").split())
    return text if len(text) <= 300 and len(data) <= 2000 else f"{text[:300]}... ({len(data)} bytes)"
