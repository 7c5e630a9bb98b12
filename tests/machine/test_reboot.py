"""The camera starts anew while a download is in one of its steps."""

from __future__ import annotations

import pytest

from booted import BUDGET, complete, inside, wait_back
from simulator import Camera
from steps import STEPS, download_up_to
from support import at_most


@pytest.mark.parametrize("step", STEPS)
def test_after_a_reboot_the_next_download_is_complete(booted: Camera, step: str) -> None:
    begin = download_up_to(booted, step)
    inside(booted, "systemctl reboot >/dev/null 2>&1 &")  # whose end the camera's own may come before
    wait_back(booted, begin)
    since_boot = float(inside(booted, "cut -d' ' -f1 /proc/uptime"))
    assert since_boot <= at_most(BUDGET["boot to the command socket, seconds"])
    complete(booted)
