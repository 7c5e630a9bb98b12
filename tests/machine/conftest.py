"""A camera that has booted, for each test that asks for one."""

from __future__ import annotations

from collections.abc import Callable

import pytest

from booted import machine
from simulator import Camera


@pytest.fixture
def booted(start_camera: Callable[..., Camera]) -> Camera:
    """It went on from its kept memory, and its service takes commands."""
    return start_camera(machine=machine())
