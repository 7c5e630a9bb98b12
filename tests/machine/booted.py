"""What the tests of booted cameras share."""

from __future__ import annotations

import functools
import json
import os
from pathlib import Path

from simulator import Camera
from simulator.device.machine.machine import Machine

BUDGET = json.loads(Path(__file__).with_name("budget.json").read_text())
FOLDER = "/tmp/mmcblk0/face_basic/faceLib"
# Seconds for what a booted camera does at most; Journal.patience makes more of them.
SOON = 10.0
LONG = 30.0


@functools.lru_cache
def made() -> Path:
    """The folder of the machine, which ./check --machine has made."""
    return Path(os.environ["CAMGATE_MACHINE"])


def machine(**arguments: object) -> functools.partial[Machine]:
    """What a Camera makes its machine with."""
    return functools.partial(Machine, made=made(), **arguments)


def inside(camera: Camera, command: str, code: int = 0) -> str:
    """What a command in the camera writes; it must end with this code."""
    ended = camera.sandbox.shell(command)
    assert ended.code == code, f"{command}: exit code {ended.code}\n{ended.text}"
    return ended.text


def download(camera: Camera, faces: int = 30) -> int:
    """Starts a download; returns the position in the journal at which it began."""
    since = len(camera.journal)
    assert camera.client.command("whiteListDown", camera.platform.task(faces=faces), SOON).status == 200
    return since


def complete(camera: Camera, faces: int = 30) -> None:
    """A download brings every picture, and the platform hears of each page."""
    reports = len(camera.platform.reports)
    imported = sum(len(page.results) for page in camera.itgt.imports.values())
    camera.wait_download(LONG, download(camera, faces))
    assert sum(len(page.results) for page in camera.itgt.imports.values()) == imported + faces
    assert len(camera.platform.reports) == reports + (faces + 29) // 30


def wait_back(camera: Camera, since: int) -> float:
    """Waits until the service, which is about to end or has ended, takes commands again; returns when it started."""
    again = camera.wait_for(lambda event: event.matches("service", "started"), LONG, since)
    camera.wait_for_log("waitForTerminationRequest sucess!", LONG, camera.journal.events.index(again))
    return again.time
