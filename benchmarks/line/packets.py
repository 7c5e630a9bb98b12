"""What recorded packets of a line tell of the connections that they belong to."""

from __future__ import annotations

import struct
from collections.abc import Iterable
from dataclasses import dataclass

_FIN, _SYN = 1, 2


@dataclass(frozen=True)
class Packet:
    """A TCP packet as the camera's end of the line saw it.

    seconds  when it was sent, or came
    out      whether the camera sent it
    port     the camera's port, which tells one connection from another
    size     bytes, with its headers
    payload  how many of them are the connection's own
    opens    whether it opens the connection (SYN)
    ends     whether it ends one direction of it (FIN)
    """

    seconds: float
    out: bool
    port: int
    size: int
    payload: int
    opens: bool
    ends: bool


@dataclass(frozen=True)
class Cost:
    """What a connection, or several one after the other, cost the line.

    round_trips  how often the camera got what it had to wait for: bytes that came after bytes that it had sent. What is
                 only acknowledged, and what comes when the camera has ended the connection, do not count
    seconds      from the first packet of each connection to the last bytes that came until then
    """

    round_trips: int
    seconds: float
    packets_out: int
    packets_in: int
    bytes_out: int
    bytes_in: int

    def __add__(self, other: Cost) -> Cost:
        return Cost(self.round_trips + other.round_trips, self.seconds + other.seconds,
                    self.packets_out + other.packets_out, self.packets_in + other.packets_in,
                    self.bytes_out + other.bytes_out, self.bytes_in + other.bytes_in)


def parse(text: str) -> list[Packet]:
    """The TCP packets in what relay.py prints; others, as the system sends them by itself, are left out."""
    packets = []
    for line in text.splitlines():
        seconds, direction, size, head = line.split()
        packet = _tcp(float(seconds), direction == "out", int(size), bytes.fromhex(head))
        if packet is not None:
            packets.append(packet)
    return packets


def _tcp(seconds: float, out: bool, size: int, head: bytes) -> Packet | None:
    if head[0] >> 4 != 4 or head[9] != 6:
        return None
    start = 4 * (head[0] & 15)
    ports = struct.unpack_from(">HH", head, start)
    payload = size - start - 4 * (head[start + 12] >> 4)
    flags = head[start + 13]
    return Packet(seconds, out, ports[0 if out else 1], size, payload, bool(flags & _SYN), bool(flags & _FIN))


def connections(packets: Iterable[Packet]) -> list[Cost]:
    """The cost of each connection, in the order of their beginnings."""
    found: dict[int, list[Packet]] = {}
    for packet in packets:
        if packet.opens and packet.out:
            # A port that is used again begins another connection.
            found[packet.port] = [packet] if packet.port not in found else found[packet.port] + [packet]
        elif packet.port in found:
            found[packet.port].append(packet)
    return [_cost(of_one) for of_one in found.values()]


def _cost(packets: list[Packet]) -> Cost:
    round_trips, asked, end = 0, False, packets[0].seconds
    for packet in packets:
        if packet.out and packet.ends:
            break
        if not packet.payload and not packet.opens:
            continue
        if packet.out:
            asked = True
        else:
            round_trips += asked
            asked = False
            end = packet.seconds
    out = [packet.size for packet in packets if packet.out]
    into = [packet.size for packet in packets if not packet.out]
    return Cost(round_trips, end - packets[0].seconds, len(out), len(into), sum(out), sum(into))
