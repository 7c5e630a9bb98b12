"""Network, clock and processor of a booted camera while it downloads."""

from __future__ import annotations

import pytest

from booted import LONG, SOON, complete, inside
from simulator import Camera
from steps import STEPS, download_up_to

YEAR = 365 * 86400


@pytest.mark.parametrize("step", STEPS)
def test_link_that_goes_down_and_comes_up(booted: Camera, step: str) -> None:
    """Whatever becomes of that download, it ends, and the next one is complete."""
    begin = download_up_to(booted, step)
    booted.sandbox.monitor("set_link", name="net", up=False)
    booted.wait_download(LONG, begin)
    booted.sandbox.monitor("set_link", name="net", up=True)
    complete(booted)


@pytest.mark.parametrize("years", [-10, 8])
def test_clock_that_is_set_during_a_download(booted: Camera, years: int) -> None:
    """Nothing that the service waits for hangs on the time of day."""
    begin = download_up_to(booted, "import asked")
    inside(booted, f"date -s @$(($(date +%s) + {years * YEAR}))")
    booted.wait_download(LONG, begin)
    booted.wait_until(lambda: len(booted.platform.reports) == 2, SOON)
    complete(booted)


def test_a_hundred_commands_while_every_processor_is_busy(booted: Camera) -> None:
    inside(booted, "for one in 1 2 3 4; do (while :; do :; done) >/dev/null 2>&1 & done")
    for _ in range(100):
        assert booted.client.command("faceNotHitDown", {"a": 1}, LONG).status == 200
    assert booted.service.exit_code is None
