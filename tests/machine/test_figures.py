"""What the service costs a booted camera, against tests/machine/budget.json."""

from __future__ import annotations

import time

from booted import BUDGET, LONG, download, inside
from simulator import Camera
from support import at_most

# Long enough for several of the receive task's seconds.
SECONDS = 5.0


def kilobytes(booted: Camera, file: str, name: str) -> int:
    return int(inside(booted, f"grep -w {name} /proc/{booted.service.pid}/{file}").split()[1])


def wake_ups(booted: Camera) -> int:
    lines = inside(booted, f"grep -h ^voluntary /proc/{booted.service.pid}/task/*/status").splitlines()
    return sum(int(line.split()[1]) for line in lines)


def test_idle_service_keeps_to_its_budget(booted: Camera) -> None:
    before, begin = wake_ups(booted), time.monotonic()
    time.sleep(SECONDS)  # pause: what an idle service does is counted over a time
    a_second = (wake_ups(booted) - before) / (time.monotonic() - begin)
    assert a_second <= BUDGET["idle: wake-ups a second"]
    assert kilobytes(booted, "smaps_rollup", "Pss:") <= BUDGET["idle: proportional share of memory, KB"]
    assert kilobytes(booted, "smaps_rollup", "Private_Dirty:") <= BUDGET["idle: memory written for itself alone, KB"]
    size = int(inside(booted, "stat -c %s /usr/sbin/protocol_process"))
    assert size <= BUDGET["program on the disk, KB"] * 1024


def test_memory_of_the_largest_page_keeps_to_its_budget(booted: Camera) -> None:
    booted.platform.picture_sizes = (200_000, 200_001)
    booted.wait_download(LONG, download(booted))
    assert len(booted.platform.reports) == 1
    assert kilobytes(booted, "status", "VmHWM:") <= BUDGET["page of 8 MB: most memory ever, KB"]


def test_the_service_takes_commands_soon_after_its_start(booted: Camera) -> None:
    since, begin = len(booted.journal), time.monotonic()
    inside(booted, "systemctl restart camgate")
    booted.wait_for_log("waitForTerminationRequest sucess!", LONG, since)
    allowed = BUDGET["start of the unit to the command socket, seconds of the camera"]
    assert time.monotonic() - begin <= at_most(allowed)
