"""The camera starts anew while a download is in one of its steps."""

from __future__ import annotations

import pytest

from booted import complete, inside, wait_back
from simulator import Camera
from steps import STEPS, download_up_to


@pytest.mark.parametrize("step", STEPS)
def test_after_a_reboot_the_next_download_is_complete(booted: Camera, step: str) -> None:
    begin = download_up_to(booted, step)
    inside(booted, "systemctl reboot")
    wait_back(booted, begin)
    complete(booted)
