"""Killed at any moment, even in the middle of a page file: what comes after is whole."""

from __future__ import annotations

import random
import signal
import threading
import time

import pytest

from simulator import Camera, wire
from support import FOLDER, PAGE, StartCamera, at_request, download

KILLED = 128 + signal.SIGKILL
FACES = 75
PAGES = [(0, 30), (30, 30), (60, 15)]
ROUNDS = 25


class Watch:
    """ITGT as ever, and what it found in each page file at the moment it was told of it."""

    def __init__(self, camera: Camera) -> None:
        self.told: list[tuple[str, bytes]] = []
        self._camera = camera
        at_request(camera.itgt, 7020, self._look)

    def _look(self, message: wire.Message) -> None:
        name = message.request["ImportFileName"]
        self.told.append((name, self._camera.path(f"{FOLDER}/{name}").read_bytes()))


def whole_pages(camera: Camera) -> list[tuple[str, bytes]]:
    return [(f"white{start}", camera.platform.page(start, count)) for start, count in PAGES]


def expect_whole_download(camera: Camera, watch: Watch) -> None:
    """A download of all faces gives the right files, and the right report of each page."""
    watch.told.clear()
    before = len(camera.platform.reports)
    download(camera, FACES)
    pages = whole_pages(camera)
    assert watch.told == pages
    assert [(name, camera.path(f"{FOLDER}/{name}").read_bytes()) for name, _ in pages] == pages
    documents = [request.json() for request in camera.platform.reports[before:]]
    assert [(document["startIndex"], document["offset"]) for document in documents] == PAGES
    results = [one for document in documents for one in document["ImportInfo"]]
    assert len({one["credentialNumber"] for one in results}) == FACES
    assert {one["importStatus"] for one in results} == {0}


@pytest.mark.seconds(20)
@pytest.mark.parametrize("seed", range(4))
def test_next_download_is_whole_after_a_kill_at_a_random_moment(start_camera: StartCamera, seed: int) -> None:
    """100 moments in all: 25 for each seed, from the command to a little beyond the end of its download."""
    camera = start_camera(ends_with=(KILLED,))
    watch = Watch(camera)
    begin = time.monotonic()
    expect_whole_download(camera, watch)
    length = time.monotonic() - begin
    moments = random.Random(seed)
    for number in range(1, ROUNDS + 1):
        moment = moments.uniform(0, 1.1 * length)
        print(f"seed {seed}, round {number}: killed after {1000 * moment:.1f} ms")
        watch.told.clear()
        camera.client.send("whiteListDown", camera.platform.task(FACES))
        threading.Event().wait(moment)  # pause: up to the random moment of the kill
        camera.service.send_signal(signal.SIGKILL)
        assert camera.service.wait() == KILLED
        assert watch.told == whole_pages(camera)[:len(watch.told)]
        camera.start_service()
        expect_whole_download(camera, watch)
    camera.service.send_signal(signal.SIGKILL)
    camera.service.wait()


# With the file /tmp/die, the service is killed when half of a page is in its file.
DIES_HALFWAY = """
size_t fwrite(const void* data, size_t size, size_t count, FILE* file) {
    if (access("/tmp/die", F_OK) == 0 && count > 1000) {
        NEXT(fwrite)(data, size, count / 2, file);
        fflush(file);
        kill(getpid(), SIGKILL);
    }
    return NEXT(fwrite)(data, size, count, file);
}
"""


@pytest.mark.parametrize("earlier", [False, True], ids=["new file", "file of an earlier download"])
def test_half_a_page_file_is_named_to_nobody(with_library: StartCamera, earlier: bool) -> None:
    camera = with_library(DIES_HALFWAY, ends_with=(KILLED,))
    watch = Watch(camera)
    if earlier:
        expect_whole_download(camera, watch)
        watch.told.clear()
    camera.path("/tmp/die").touch()
    camera.client.send("whiteListDown", camera.platform.task(FACES))
    assert camera.service.wait() == KILLED
    page = camera.platform.page(0, 30)
    assert camera.path(PAGE).read_bytes() == page[:len(page) // 2]
    camera.path("/tmp/die").unlink()
    camera.start_service()
    assert camera.client.command("whiteListClear", {"cameraCode": "C1"}).status == 200
    assert watch.told == []
    expect_whole_download(camera, watch)
    camera.service.send_signal(signal.SIGKILL)
    camera.service.wait()
