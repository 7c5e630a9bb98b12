"""Files in the format pcapng, as far as captures of recorded runs need it."""

from __future__ import annotations

import struct
from collections.abc import Mapping, Sequence
from typing import BinaryIO

# Kinds of packets: IPv4 without a frame around it; data for a named dissector (Wireshark's exported PDUs).
RAW_IP, UPPER_PDU = 101, 252
# Most bytes that Wireshark takes of a packet.
LONGEST = 262_144

_SECTION, _INTERFACE, _NAMES, _PACKET = 0x0A0D0D0A, 1, 4, 6
_COMMENT, _NAME, _DESCRIPTION = 1, 2, 3


class Writer:
    """Writes packets, one at a time.

    interfaces  name, description and kind of packets of each
    names       of addresses, which are shown in their place
    """

    def __init__(self, stream: BinaryIO, interfaces: Sequence[tuple[str, str, int]],
                 names: Mapping[bytes, str]) -> None:
        self._stream = stream
        self.packets = 0
        self._block(_SECTION, struct.pack("<IHHq", 0x1A2B3C4D, 1, 0, -1))
        for name, description, kind in interfaces:
            self._block(_INTERFACE, struct.pack("<HHI", kind, 0, LONGEST)
                        + _options({_NAME: name, _DESCRIPTION: description}))
        records = [struct.pack("<HH", 1, len(value)) + _padded(value)
                   for value in (address + name.encode() + b"\0" for address, name in names.items())]
        self._block(_NAMES, b"".join([*records, bytes(4)]))

    def packet(self, interface: int, seconds: float, data: bytes, length: int = 0, comment: str = "") -> None:
        """One packet, of whose `length` bytes only the data are there.

        seconds  since 1970
        """
        microseconds = round(seconds * 1e6)
        data = data[:LONGEST]
        head = struct.pack("<IIIII", interface, microseconds >> 32, microseconds & 0xFFFFFFFF, len(data),
                           max(length, len(data)))
        self._block(_PACKET, head + _padded(data) + (_options({_COMMENT: comment}) if comment else b""))
        self.packets += 1

    def _block(self, kind: int, content: bytes) -> None:
        length = 12 + len(content)
        self._stream.write(struct.pack("<II", kind, length) + content + struct.pack("<I", length))


def _padded(data: bytes) -> bytes:
    return data + bytes(-len(data) % 4)


def _options(values: Mapping[int, str]) -> bytes:
    encoded = ((code, text.encode()) for code, text in values.items())
    return b"".join(struct.pack("<HH", code, len(text)) + _padded(text) for code, text in encoded) + bytes(4)
