"""Every message of the camera's local sockets, by byte offset.

The one place of the simulator that knows where a field lies. All integers are little-endian.
"""

from __future__ import annotations

import struct
from dataclasses import dataclass
from typing import Any

MESSAGE_SIZE = 21408
HEAD_SIZE = 280
SUBSCRIPTION_SIZE = 16 + 288
DESCRIPTOR_SIZE = 16
BLOCK_HEADER_SIZE = 56

# Commands of MSG_DATA.
READY, SET_LIST, CLEAR_LISTS, IMPORT_FILE, IMPORT_PROGRESS, IMPORT_TIME = 1037, 7018, 7019, 7020, 7021, 7031
# Of the documents that pass: records of a page at most, and what became of a picture.
PAGE_SIZE = 30
IMPORTED, BAD_PICTURE = 0, 1

COMMAND_SOCKET = "/tmp/HK"
CLIENT_SOCKET = "/tmp/KH"
EXCHANGE_SOCKET = "/tmp/CP"
ITGT_SOCKET = "/tmp/II"
FACE_LIBRARY_SOCKET = "/tmp/A"
EVENT_NODE = "/mnt/srvfs/event.paas.olv"
# What ITGT makes when it is ready.
MARKER = "/tmp/intelligent_ok"

_INTEGERS = {"u8": "<B", "u16": "<H", "u32": "<I", "i32": "<i", "u64": "<Q", "i64": "<q"}


@dataclass(frozen=True)
class Field:
    """A field at a byte offset. `kind` is u8, u16, u32, i32, u64, i64 or text; `width` counts bytes of a text.

    A text is NUL-padded on writing and ends at its first NUL, or at the end of its field, on reading.
    """

    name: str
    offset: int
    kind: str
    width: int = 0

    def read(self, data: bytes) -> Any:
        if self.kind == "text":
            return data[self.offset:self.offset + self.width].split(b"\0", 1)[0].decode("utf-8", "backslashreplace")
        return struct.unpack_from(_INTEGERS[self.kind], data, self.offset)[0]

    def write(self, data: bytearray, value: Any) -> None:
        if self.kind == "text":
            raw = value if isinstance(value, bytes) else str(value).encode()
            if len(raw) > self.width:
                raise ValueError(f"{self.name} takes {self.width} bytes, not {len(raw)}")
            data[self.offset:self.offset + self.width] = raw.ljust(self.width, b"\0")
        else:
            struct.pack_into(_INTEGERS[self.kind], data, self.offset, value)

    @property
    def end(self) -> int:
        return self.offset + (self.width or struct.calcsize(_INTEGERS[self.kind]))


Table = tuple[Field, ...]


def _to_end(offset: int) -> int:
    return MESSAGE_SIZE - offset


# MSG_DATA: the header that every message has, and the payload of each command's request and reply.
HEADER: Table = (
    Field("destPath", 0, "text", 8),
    Field("srcPath", 8, "text", 8),
    Field("subType", 160, "u32"),
    Field("command", 164, "u32"),
    Field("module", 200, "i64"),
)


@dataclass(frozen=True)
class Command:
    code: int
    name: str
    subtype: int
    module: int
    request: Table = ()
    reply: Table = ()


COMMANDS: dict[int, Command] = {command.code: command for command in (
    Command(READY, "CMD_CUSTOM_PROTOCOL_READY", 4, 0),
    Command(SET_LIST, "CMD_ALARM_FACE_LIB_SET", 1, 101, request=(
        Field("Count", 208, "u32"),
        Field("ListId", 216, "u64"),
        Field("ListType", 224, "i32"),
        Field("ListOnControl", 228, "i32"),
        Field("ListThreshold", 232, "i64"),
        Field("ListName", 240, "text", 65),
    )),
    Command(CLEAR_LISTS, "CMD_FACE_LIB_CLEAR", 0, 101, reply=(
        Field("ClearStatus", 176, "u32"),
        Field("ClearConfigPath", 216, "text", _to_end(216)),
    )),
    Command(IMPORT_FILE, "CMD_FACE_IMPORT_FILE", 1, 101, request=(
        Field("Count", 208, "u32"),
        Field("ImportFileFlag", 312, "u32"),
        Field("ImportFileDirectory", 316, "text", 132),
        Field("ImportFileName", 448, "text", 132),
    ), reply=(
        Field("ImportFileTaskId", 584, "i64"),
    )),
    Command(IMPORT_PROGRESS, "CMD_FACE_IMPORT_PROGRESS", 0, 101, request=(
        Field("ProgressTaskId", 304, "i64"),
    ), reply=(
        Field("ProgressStatus", 312, "u32"),
        Field("ProgressTotal", 320, "i64"),
        Field("ProgressCurrent", 328, "i64"),
        Field("ProgressStatePath", 336, "text", _to_end(336)),
    )),
    Command(IMPORT_TIME, "CMD_FACE_IMPORT_PAGE", 0, 101, reply=(
        Field("PageTime", 304, "text", _to_end(304)),
    )),
)}

# The two datagrams of a command or reply: this head, then the body.
HEAD: Table = (
    Field("destPath", 0, "text", 8),
    Field("srcPath", 8, "text", 8),
    Field("tag", 240, "u32"),
    Field("reserved2", 244, "u32"),
    Field("bodyLength", 256, "u32"),
    Field("reserved4", 260, "u32"),
    Field("reserved5", 264, "u32"),
)

# The event node: what a subscriber writes, what it reads, and the buffer that it maps.
SUBSCRIPTION: Table = (
    Field("magic", 0, "u16"),
    Field("type", 3, "u8"),
    Field("headerLength", 8, "u16"),
    Field("bodyLength", 12, "u32"),
    Field("publisherName", 32, "text", 16),
    Field("subscriberTag", 48, "text", 16),
)
NOTIFICATION: Table = (
    Field("noBuffer", 4, "u16"),
    Field("status", 6, "u16"),
    Field("descriptorOffset", 8, "u16"),
)
DESCRIPTOR: Table = (
    Field("identifier", 0, "u32"),
    Field("unused", 4, "u32"),
    Field("length", 8, "u32"),
    Field("attribute", 12, "u32"),
)
BLOCK_HEADER: Table = (Field("dataLength", 52, "u32"),)


def encode(table: Table, size: int, base: bytes = b"", **values: Any) -> bytes:
    """`size` bytes: `base`, padded with zeros, with the named fields of `table` written into it."""
    data = bytearray(base[:size].ljust(size, b"\0"))
    fields = {field.name: field for field in table}
    for name, value in values.items():
        if name not in fields:
            raise ValueError(f"no field {name}; there are {', '.join(fields)}")
        fields[name].write(data, value)
    return bytes(data)


def decode(table: Table, data: bytes) -> dict[str, Any]:
    """The fields of `table` that lie whole inside `data`; a text may be cut by the end of `data`."""
    return {field.name: field.read(data) for field in table
            if (field.offset < len(data) if field.kind == "text" else field.end <= len(data))}


def patched(data: bytes, offset: int, replacement: bytes) -> bytes:
    """`data` with the bytes from `offset` on replaced; for messages that no table describes."""
    return data[:offset] + replacement + data[offset + len(replacement):]


class Message(bytes):
    """The bytes of one MSG_DATA, with its fields. A short datagram has only the fields that lie inside it."""

    @property
    def header(self) -> dict[str, Any]:
        return decode(HEADER, self)

    @property
    def destination(self) -> str:
        return str(self.header.get("destPath", ""))

    @property
    def source(self) -> str:
        return str(self.header.get("srcPath", ""))

    @property
    def command(self) -> int:
        return int(self.header.get("command", 0))

    @property
    def request(self) -> dict[str, Any]:
        """The payload read as a request of the message's command."""
        return decode(COMMANDS[self.command].request, self) if self.command in COMMANDS else {}

    @property
    def reply(self) -> dict[str, Any]:
        """The payload read as a reply of the message's command."""
        return decode(COMMANDS[self.command].reply, self) if self.command in COMMANDS else {}

    def __repr__(self) -> str:
        name = COMMANDS[self.command].name if self.command in COMMANDS else str(self.command)
        return f"<Message {name} {self.source} -> {self.destination}, {len(self)} bytes>"


def encode_request(destination: str, source: str, code: int, **payload: Any) -> Message:
    """A request as the service would send it."""
    command = COMMANDS[code]
    return Message(encode(HEADER + command.request, MESSAGE_SIZE, destPath=destination, srcPath=source, command=code,
                          subType=command.subtype, module=command.module, **payload))


def encode_reply(request: bytes, same_header: bool = False, **values: Any) -> Message:
    """The reply to `request`: header and payload fields of its command's reply by name.

    The header's paths are swapped and everything else of the request is left out, unless `same_header`: then the
    reply is the request's bytes with the named fields written over them.
    """
    asked = Message(request)
    table = HEADER + (COMMANDS[asked.command].reply if asked.command in COMMANDS else ())
    if same_header:
        return Message(encode(table, MESSAGE_SIZE, base=request, **values))
    header = {**asked.header, "destPath": asked.source, "srcPath": asked.destination}
    return Message(encode(table, MESSAGE_SIZE, **{**header, **values}))


def encode_head(tag: int, body_length: int, destination: str = COMMAND_SOCKET, source: str = CLIENT_SOCKET) -> bytes:
    """The head of a command."""
    return encode(HEAD, HEAD_SIZE, destPath=destination, srcPath=source, tag=tag, bodyLength=body_length)


def encode_notification(buffer_id: int, length: int, attribute: int = 0, *, status: int = 200, no_buffer: int = 0,
                        descriptor_offset: int = 16) -> bytes:
    """A notification with its buffer descriptor behind it, at `descriptor_offset`."""
    head = encode(NOTIFICATION, max(descriptor_offset, 10), noBuffer=no_buffer, status=status,
                  descriptorOffset=descriptor_offset)
    return head + encode(DESCRIPTOR, DESCRIPTOR_SIZE, identifier=buffer_id, length=length, attribute=attribute)


def encode_block(data: bytes, old_producer: bool = False) -> bytes:
    """A buffer of the event cache: block header and data. Producers before 8.0.1 put 8 more bytes between them."""
    gap = b"\0" * 8 if old_producer else b""
    return encode(BLOCK_HEADER, BLOCK_HEADER_SIZE, dataLength=len(data)) + gap + data
