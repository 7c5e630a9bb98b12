"""Network, clock and processor of a booted camera while it downloads."""

from __future__ import annotations

import pytest

from booted import LONG, SOON, complete, download, inside
from simulator import Camera, Event
from simulator.messages import wire

YEAR = 365 * 86400
# What is seen outside when a download has come so far.
STEPS = {
    "page asked for": lambda event: event.matches("platform", "page"),
    "page told of": lambda event: event.matches("itgt", "received", command=wire.IMPORT_FILE),
    "result reported": lambda event: event.matches("platform", "report"),
}


def so_far(booted: Camera, step: str) -> int:
    """Starts a download of two pages and waits until it has come to this step."""
    begin = download(booted, 60)
    found: Event = booted.wait_for(STEPS[step], LONG, begin)
    assert found
    return begin


@pytest.mark.parametrize("step", STEPS)
def test_link_that_goes_down_and_comes_up(booted: Camera, step: str) -> None:
    """Whatever becomes of that download, it ends, and the next one is complete."""
    begin = so_far(booted, step)
    booted.sandbox.monitor("set_link", name="net", up=False)
    booted.wait_download(LONG, begin)
    booted.sandbox.monitor("set_link", name="net", up=True)
    complete(booted)


@pytest.mark.parametrize("years", [-10, 8])
def test_clock_that_is_set_during_a_download(booted: Camera, years: int) -> None:
    """Nothing that the service waits for hangs on the time of day."""
    begin = so_far(booted, "page told of")
    inside(booted, f"date -s @$(($(date +%s) + {years * YEAR}))")
    booted.wait_download(LONG, begin)
    booted.wait_until(lambda: len(booted.platform.reports) == 2, SOON)
    complete(booted)


def test_a_hundred_commands_while_every_processor_is_busy(booted: Camera) -> None:
    inside(booted, "for one in 1 2 3 4; do (while :; do :; done) >/dev/null 2>&1 & done")
    for _ in range(100):
        assert booted.client.command("faceNotHitDown", {"a": 1}, LONG).status == 200
    assert booted.service.exit_code is None
