"""The preloaded library that has a call or an allocation fail, and what is told to it."""

from __future__ import annotations

import mmap
import os
import platform
import struct
from pathlib import Path

import plan
from plan import Failure
from simulator import Camera
from support import emulated, sanitized

_CONTROL = "/tmp/calls"
_CALLS = 512
# role, call, number, error, lasts, failed; behind them the counts.
_HEAD = struct.Struct("6i")
_COUNTS = struct.Struct(f"{len(plan.ROLES) * _CALLS}i")


def library() -> str:
    """What can be made to fail: the calls not with sanitizers and counters in the service, nor under an emulator, and
    the allocations not with sanitizers, whose own come before. Where nothing can, only the service's way through is
    tested.
    """
    calls = platform.machine() == "x86_64" and not emulated() and "GCOV_PREFIX" not in os.environ
    sources = ["control.c", *["failing_calls.c"] * calls, "failing_allocations.c"] if not sanitized() else []
    return "".join((Path(__file__).parent / name).read_text() for name in sources)


class Control:
    """What the preloaded library is told, and what it tells: see control.c."""

    def __init__(self, camera: Camera) -> None:
        path = camera.path(_CONTROL)
        size = _HEAD.size + _COUNTS.size
        path.write_bytes(bytes(size))
        path.chmod(0o666)
        with path.open("r+b") as file:
            self._memory = mmap.mmap(file.fileno(), size)

    def begin(self, failure: Failure | None = None) -> None:
        """Counts anew from here, and has this one fail."""
        self._memory[:] = bytes(len(self._memory))
        if failure is not None:
            call = plan.call_number(failure.call)
            self._memory[:_HEAD.size] = _HEAD.pack(failure.role, call, 0, failure.error, failure.lasts, 0)
            self._memory[8:12] = struct.pack("i", failure.number)  # last: it is what makes it valid

    def failed(self) -> int:
        """How many calls have failed."""
        return int(struct.unpack("i", self._memory[20:24])[0])

    def counts(self) -> dict[tuple[int, str], int]:
        """How often each call was made since `begin`, by role and name."""
        numbers = _COUNTS.unpack(self._memory[_HEAD.size:])
        return {(index // _CALLS, plan.call_name(index % _CALLS)): count for index, count in enumerate(numbers)
                if count}

    def allocations(self) -> int:
        """How many were tried since `begin`."""
        return sum(count for (_, call), count in self.counts().items() if call == plan.ALLOCATION)
