"""What can be set about the peers besides their faults: on the command line and in a scenario."""

from __future__ import annotations

import json
from collections.abc import Callable
from dataclasses import dataclass
from pathlib import Path
from typing import Any

from simulator.camera import Camera
from simulator.peers.pictures import read_pictures

# The form of a scenario, settings included.
SCHEMA = json.loads(Path(__file__).with_name("scenario.schema.json").read_text(encoding="utf-8"))


@dataclass(frozen=True)
class Setting:
    """`apply` sets a value of the form that the schema has for it."""

    name: str
    help: str
    example: str
    apply: Callable[[Any, Any], None]

    def check(self, value: Any) -> None:
        """Raises ValueError with what is expected."""
        import jsonschema  # late: most calls of camsim set nothing, and it takes longer to load than all else

        form = {**SCHEMA["properties"]["settings"]["properties"][self.name], "definitions": SCHEMA["definitions"]}
        if not jsonschema.Draft4Validator(form).is_valid(value):
            raise ValueError(form["title"] if "title" in form else "a text")


def _set_picture_seconds(camera: Camera, value: float) -> None:
    camera.itgt.picture_seconds = value


def _set_time_text(camera: Camera, value: str) -> None:
    camera.itgt.time_text = value


def _set_picture_bytes(camera: Camera, value: tuple[int, int]) -> None:
    camera.platform.picture_sizes = value


def _set_pictures(camera: Camera, value: str) -> None:
    camera.platform.pictures = read_pictures(Path(value))


SETTINGS = {setting.name: setting for setting in (
    Setting("picture_seconds", "seconds that ITGT takes to import a picture", "0.02", _set_picture_seconds),
    Setting("time_text", "the time that ITGT reports", '"2024-05-17 08:30:00"', _set_time_text),
    Setting("picture_bytes", "size of the smallest and largest generated picture", "[800, 1000]", _set_picture_bytes),
    Setting("pictures", "folder of your own .jpg files to serve as pages, seen from the scenario's folder",
            '"my-faces"', _set_pictures))}
