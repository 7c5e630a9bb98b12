"""Two threads meet where one of them is held: a download at its first record and at its last, and the command loop."""

from __future__ import annotations

from collections.abc import Callable

import pytest

from simulator import Camera
from support import BEGIN, END, WRITE_LOG, StartCamera, poll_until, wait_end

# A download's thread is held where it logs this, until it may go on; only the first that comes there.
HELD_AT = WRITE_LOG + r"""
    if (strcmp(format, "%s") == 0 && access("/tmp/held", F_OK) != 0) {
        close(open("/tmp/held", O_CREAT | O_WRONLY, 0666));
        while (access("/tmp/may_go", F_OK) != 0) usleep(1000);  // pause: nothing tells of the file
    }
    NEXT(QL_WriteLog)(module, level, debugFlag, reserved, path, line, "%%s", text);
}
"""


@pytest.fixture
def start_held(with_library: StartCamera) -> Callable[[str], Camera]:
    """start_held(text): a camera with a download of two faces whose thread is held at this record."""
    def start(text: str) -> Camera:
        camera = with_library(HELD_AT % text)
        assert camera.client.command("whiteListDown", camera.platform.task(2)).status == 200
        poll_until(camera.path("/tmp/held").exists)
        return camera
    return start


def pages(camera: Camera) -> list[tuple[int, int]]:
    """The first record and the number of records of each page so far."""
    return [(event.start, event.records) for event in camera.journal.find("platform", "page")]


def test_command_between_a_download_and_its_last_record_starts_the_next(start_held: Callable[[str], Camera]) -> None:
    camera = start_held(END)
    begin = len(camera.journal)
    assert camera.client.command("whiteListDown", camera.platform.task(3)).status == 200
    wait_end(camera, begin)
    assert pages(camera) == [(0, 2), (0, 3)]
    begin = len(camera.journal)
    camera.path("/tmp/may_go").touch()
    wait_end(camera, begin)
    assert camera.client.command("whiteListDown", camera.platform.task(0)).status == 200


def test_command_between_a_download_s_start_and_its_first_step_is_refused_and_changes_nothing(
        start_held: Callable[[str], Camera]) -> None:
    camera = start_held(BEGIN)
    assert camera.client.command("whiteListDown", camera.platform.task(3)).status == 409
    camera.path("/tmp/may_go").touch()
    wait_end(camera)
    assert pages(camera) == [(0, 2)]
