"""Carries packets between the two ends of a line, each after a delay: run as a program of its own.

usage: relay.py NEAR FAR MILLISECONDS

NEAR and FAR are descriptors of the ends. A packet leaves half of the MILLISECONDS after it came, in its order: so a
round trip takes all of them. Ends with its standard input, and then prints a line for each packet: the seconds at which
the near end sent or was given it, "out" or "in", and its bytes in hexadecimal, no more than its headers take.
"""

from __future__ import annotations

import contextlib
import os
import select
import sys
import time
from collections import deque

LARGEST = 2048
HEADERS = 120  # bytes: those of IP and TCP at their longest


class Direction:
    """One direction of the line."""

    def __init__(self, source: int, target: int, name: str, delay: float, records: list[str]) -> None:
        self.source = source
        self.due = float("inf")
        self._target = target
        self._name = name
        self._delay = delay
        self._records = records
        self._waiting: deque[tuple[float, bytes]] = deque()

    def take(self) -> None:
        """Takes all packets that have come."""
        with contextlib.suppress(BlockingIOError):
            while packet := os.read(self.source, LARGEST):
                now = time.monotonic()
                self._waiting.append((now + self._delay, packet))
                if self._name == "out":
                    self._record(now, packet)
        self._look()

    def give(self, now: float) -> None:
        """Passes on the packets whose time has come."""
        while self._waiting and self._waiting[0][0] <= now:
            packet = self._waiting.popleft()[1]
            os.write(self._target, packet)
            if self._name == "in":
                self._record(time.monotonic(), packet)
        self._look()

    def _look(self) -> None:
        self.due = self._waiting[0][0] if self._waiting else float("inf")

    def _record(self, now: float, packet: bytes) -> None:
        self._records.append(f"{now:.6f} {self._name} {len(packet)} {packet[:HEADERS].hex()}")


def main() -> None:
    near, far = int(sys.argv[1]), int(sys.argv[2])
    delay = float(sys.argv[3]) / 2000
    records: list[str] = []
    directions = [Direction(near, far, "out", delay, records), Direction(far, near, "in", delay, records)]
    poll = select.poll()
    for descriptor in (near, far, 0):
        poll.register(descriptor, select.POLLIN)
    while True:
        wait = min(direction.due for direction in directions) - time.monotonic()
        ready = {descriptor for descriptor, _ in poll.poll(None if wait == float("inf") else max(0.0, wait * 1000))}
        if 0 in ready:
            break
        for direction in directions:
            if direction.source in ready:
                direction.take()
            direction.give(time.monotonic())
    print("\n".join(records))


if __name__ == "__main__":
    main()
