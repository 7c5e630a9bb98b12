"""What can be set about the peers besides their faults: on the command line and in a scenario."""

from __future__ import annotations

from collections.abc import Callable
from dataclasses import dataclass
from pathlib import Path
from typing import Any

from simulator.camera import Camera
from simulator.peers.pictures import read_pictures


@dataclass(frozen=True)
class Setting:
    """`check` returns the value as `apply` wants it, or raises ValueError with what is expected."""

    name: str
    help: str
    example: str
    check: Callable[[Any], Any]
    apply: Callable[[Any, Any], None]


def _seconds(value: Any) -> float:
    if isinstance(value, bool) or not isinstance(value, (int, float)) or not 0 <= value <= 3600:
        raise ValueError("a number of seconds from 0 to 3600")
    return float(value)


def _text(value: Any) -> str:
    if not isinstance(value, str):
        raise ValueError("a text")
    return value


def _sizes(value: Any) -> tuple[int, int]:
    whole = isinstance(value, list) and len(value) == 2 and all(type(one) is int for one in value)
    if not whole or not 700 <= value[0] <= value[1] <= 10_000_000:
        raise ValueError("two whole numbers, the smallest and the largest size, from 700 to 10000000")
    return value[0], value[1]


def _set_picture_seconds(camera: Camera, value: float) -> None:
    camera.itgt.picture_seconds = value


def _set_time_text(camera: Camera, value: str) -> None:
    camera.itgt.time_text = value


def _set_picture_bytes(camera: Camera, value: tuple[int, int]) -> None:
    camera.platform.picture_sizes = value


def _set_pictures(camera: Camera, value: str) -> None:
    camera.platform.pictures = read_pictures(Path(value))


SETTINGS = {setting.name: setting for setting in (
    Setting("picture_seconds", "seconds that ITGT takes to import a picture", "0.02", _seconds, _set_picture_seconds),
    Setting("time_text", "the time that ITGT tells", '"2024-05-17 08:30:00"', _text, _set_time_text),
    Setting("picture_bytes", "smallest and largest made-up picture", "[800, 1000]", _sizes, _set_picture_bytes),
    Setting("pictures", "folder of your own .jpg files to serve as pages, seen from the scenario's folder",
            '"my-faces"', _text, _set_pictures))}
