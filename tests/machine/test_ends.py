"""However the service ends, systemd has it back within 3 seconds, and it serves."""

from __future__ import annotations

import time
from collections.abc import Callable

from booted import LONG, SOON, complete, inside, machine, wait_back
from simulator import Camera
from support import at_most

# The unit waits for 2 of them.
BACK_SECONDS = 3.0


def test_after_a_signal(booted: Camera) -> None:
    since, begin = len(booted.journal), time.monotonic()
    booted.service.send_signal(9)
    seconds = wait_back(booted, since) - begin
    assert seconds <= at_most(BACK_SECONDS)
    complete(booted)


def test_after_the_kernel_ended_it_because_memory_was_short(booted: Camera) -> None:
    since, begin = len(booted.journal), time.monotonic()
    inside(booted, f"echo 1000 >/proc/{booted.service.pid}/oom_score_adj; echo f >/proc/sysrq-trigger")
    seconds = wait_back(booted, since) - begin
    assert "Out of memory: Killed process" in inside(booted, "dmesg")
    assert seconds <= at_most(BACK_SECONDS)
    complete(booted)


def test_after_starts_that_failed(start_camera: Callable[..., Camera]) -> None:
    """Without the event node it ends with 70, and says why; as soon as there is one, it serves."""
    booted = start_camera(machine=machine(), records_only=False)
    booted.events.stop()
    since = len(booted.journal)
    booted.service.send_signal(9)
    booted.wait_for(lambda event: event.matches("service", "ended", exit_code=70), LONG, since)
    booted.events.start()
    booted.wait_for_log("waitForTerminationRequest sucess!", LONG, since)
    complete(booted)


def test_a_stop_is_no_failure(booted: Camera) -> None:
    inside(booted, "systemctl stop camgate")
    assert booted.service.wait(SOON) == 0
    assert "ActiveState=inactive" in inside(booted, "systemctl show camgate -p ActiveState")
