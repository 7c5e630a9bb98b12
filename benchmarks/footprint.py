"""What a program costs a camera while it stands by: its file, its start, and what it takes when idle."""

from __future__ import annotations

import contextlib
import subprocess
import tempfile
import time
from collections.abc import Iterator, Sequence
from pathlib import Path

from simulator.camera import Camera
from simulator.device import emulator, process_status
from simulator.errors import CameraError

COMMAND_SOCKET = "/tmp/HK"
IDLE_SECONDS = 5.0

Figures = dict[str, float]


def sizes(binary: Path, name: str) -> Figures:
    """The size of the binary without symbols for debugging."""
    strip = Path(emulator.compiler(binary)).with_name("strip") if emulator.is_foreign(binary) else "strip"
    with tempfile.TemporaryDirectory() as folder:
        stripped = Path(folder) / "stripped"
        subprocess.run([strip, "-o", stripped, binary], check=True)
        return {f"stripped binary, {name}": stripped.stat().st_size / 1024}


def start_times(*binaries: Path, starts: int = 12, preload: Sequence[Path] | None = None) -> list[list[float]]:
    """Milliseconds from the start of each program to its command socket, of several starts.

    The programs take turns, so that load meets all.
    """
    def once(binary: Path) -> float:
        with started(binary, preload) as camera:
            there = time.monotonic()
            return 1000 * (there - camera.journal.find("service", "starting")[0].time)
    rounds = [[once(binary) for binary in binaries] for _ in range(starts)]
    return [list(times) for times in zip(*rounds)]


def idle(binary: Path) -> Figures:
    """Once started, with nothing to do."""
    with started(binary) as camera:
        pid = camera.service.pid
        time.sleep(1)  # pause: what follows the socket
        before = process_status.wake_ups(pid)
        time.sleep(IDLE_SECONDS)  # pause: the idleness that is measured
        return {"wake-ups when idle": (process_status.wake_ups(pid) - before) / IDLE_SECONDS,
                "memory when idle": process_status.private_kilobytes(pid),
                "threads when idle": process_status.threads(pid),
                "descriptors when idle": process_status.descriptors(pid)}


@contextlib.contextmanager
def started(binary: Path, preload: Sequence[Path] | None = None) -> Iterator[Camera]:
    """A camera whose service has just made the command socket."""
    with Camera(service=binary, preload=preload, wait=False) as camera:
        deadline = time.monotonic() + 10
        while not camera.path(COMMAND_SOCKET).exists():
            if time.monotonic() > deadline:
                raise CameraError(f"{binary} did not make {COMMAND_SOCKET}")
            time.sleep(0.0002)  # pause: nothing tells of a new file
        yield camera
