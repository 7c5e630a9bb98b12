"""What the kernel tells of a running process, from /proc."""

from __future__ import annotations

import os
import time
from pathlib import Path


def status_field(pid: int, name: str) -> str:
    """A field of /proc/PID/status."""
    return _field(Path(f"/proc/{pid}/status"), name)


def kilobytes(pid: int, name: str) -> int:
    """A memory field of /proc/PID/status: VmHWM is the most that ever was in memory, VmRSS what is."""
    return int(status_field(pid, name).split()[0])


def private_kilobytes(pid: int) -> int:
    """The memory that the process has written for itself alone.

    Without pages of its files that only happen to be used by no other process at the moment.
    """
    return int(_field(Path(f"/proc/{pid}/smaps_rollup"), "Private_Dirty").split()[0])


def reset_peak(pid: int) -> None:
    """Lets VmHWM begin anew at what is in memory now."""
    Path(f"/proc/{pid}/clear_refs").write_text("5")


def threads(pid: int) -> int:
    return len(os.listdir(f"/proc/{pid}/task"))


def descriptors(pid: int) -> int:
    return len(os.listdir(f"/proc/{pid}/fd"))


def wake_ups(pid: int) -> int:
    """How often its threads have waited for something so far."""
    return sum(int(_field(task / "status", "voluntary_ctxt_switches"))
               for task in Path(f"/proc/{pid}/task").iterdir())


def page_faults(pid: int) -> int:
    """How often its threads, ended ones too, met memory that the kernel had yet to supply."""
    # Behind the name, which may have spaces and brackets itself.
    return int(Path(f"/proc/{pid}/stat").read_text().rpartition(")")[2].split()[7])


def bytes_moved(pid: int) -> tuple[int, int]:
    """Bytes that its system calls have read and written so far, of files and connections."""
    file = Path(f"/proc/{pid}/io")
    return int(_field(file, "rchar")), int(_field(file, "wchar"))


def processor_seconds(pid: int) -> float:
    """User and system time of all its threads, ended ones too, to the nanosecond."""
    # The number that clock_getcpuclockid(3) gives for a process.
    return time.clock_gettime((~pid << 3) | 2)


def _field(path: Path, name: str) -> str:
    for line in path.read_text().splitlines():
        if line.startswith(f"{name}:"):
            return line.partition(":")[2].strip()
    raise ValueError(f"{path} has no {name}")
