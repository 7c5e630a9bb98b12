"""HTTP as packets: a TCP connection made up around what was said in it."""

from __future__ import annotations

import struct
from collections.abc import Iterator
from enum import IntFlag

from simulator.messages.text import length

# Of the block for documents; a capture has names for them.
SERVICE_ADDRESS, PLATFORM_ADDRESS = b"\xc0\x00\x02\x01", b"\xc0\x00\x02\x02"
# Wireshark takes this port's connections for HTTP, whatever the platform's port was.
PORT = 80
_FIRST_OWN_PORT, _OWN_PORTS = 10_000, 50_000
_SEGMENT = 60_000  # bytes of data
_HEADS = 40  # bytes of the heads of IP and TCP


class _Flag(IntFlag):
    FIN, SYN, RST, PSH, ACK = 1, 2, 4, 8, 16


# Bytes of a packet, and how many it would have had if all of it had been recorded.
Packet = tuple[bytes, int]


class Conversation:
    """One connection, from the service to the platform."""

    def __init__(self, number: int) -> None:
        self._own_port = _FIRST_OWN_PORT + number % _OWN_PORTS
        self._next = {True: 0, False: 0}  # number of the next byte from the service, and from the platform
        self._open = False

    def begin(self) -> Iterator[Packet]:
        self._open = True
        yield self._segment(True, _Flag.SYN)
        yield self._segment(False, _Flag.SYN | _Flag.ACK)
        yield self._segment(True, _Flag.ACK)

    def say(self, by_service: bool, data: bytes) -> Iterator[Packet]:
        """What one of the two says, in as many packets as it takes; of a LeftOut their heads alone."""
        for start in range(0, length(data), _SEGMENT):
            yield self._segment(by_service, _Flag.PSH | _Flag.ACK, data[start:start + _SEGMENT],
                                min(_SEGMENT, length(data) - start))

    def end(self, by_service: bool = False) -> Iterator[Packet]:
        """Closes both directions, once."""
        if self._open:
            self._open = False
            yield self._segment(by_service, _Flag.FIN | _Flag.ACK)
            yield self._segment(not by_service, _Flag.FIN | _Flag.ACK)

    def reset(self, by_service: bool) -> Iterator[Packet]:
        if self._open:
            self._open = False
            yield self._segment(by_service, _Flag.RST | _Flag.ACK)

    def _segment(self, by_service: bool, flags: _Flag, data: bytes = b"", size: int = 0) -> Packet:
        ports = (self._own_port, PORT) if by_service else (PORT, self._own_port)
        addresses = (SERVICE_ADDRESS, PLATFORM_ADDRESS) if by_service else (PLATFORM_ADDRESS, SERVICE_ADDRESS)
        acknowledged = self._next[not by_service] if flags & _Flag.ACK else 0
        tcp = struct.pack(">HHIIBBHHH", *ports, self._next[by_service], acknowledged, 5 << 4, flags, 65535, 0, 0)
        ip = struct.pack(">BBHHHBBH4s4s", 0x45, 0, _HEADS + size, 0, 0, 64, 6, 0, *addresses)
        ip = ip[:10] + struct.pack(">H", _checksum(ip)) + ip[12:]
        self._next[by_service] = (self._next[by_service] + size + bool(flags & (_Flag.SYN | _Flag.FIN))) % 2**32
        return ip + tcp + data, _HEADS + size


def _checksum(head: bytes) -> int:
    total = sum(struct.unpack(f">{len(head) // 2}H", head))
    return ~((total & 0xFFFF) + (total >> 16)) & 0xFFFF
