"""One story, told by the service on this machine and by the service on the camera's processor: the same bytes.

The two have other versions of POCO, OpenSSL and the C library, and other sizes of pointers.
"""

from __future__ import annotations

from collections.abc import Callable, Iterator

import pytest

from simulator import Camera, CameraError, Response, build_folder
from simulator.trace.comparison import compare, counts
from simulator.trace.recording import Recording, read
from support import wait_end

BUILDS = ("host", "armhf")


def tell_story(camera: Camera) -> None:
    """Every command, a record of the event cache, and errors on the way."""
    camera.wait_until(lambda: camera.events.subscriptions and camera.itgt.requests(1037))
    camera.platform.picture_sizes = (20_000, 200_000)
    camera.itgt.not_ready_answers = 1
    begin = len(camera.journal)
    expect_status(camera, "whiteListDown", camera.platform.task(75), 200)
    wait_end(camera, begin, timeout=60)
    expect_status(camera, "whiteListClear", {"cameraCode": "C1"}, 200)
    expect_status(camera, "faceNotHitDown", {"FaceID": 7, "score": 0.1, "large": 2**63, "note": "未命中 \" / \x1b"}, 200)
    camera.events.publish({"Timestamp": 1715934600})
    expect_status(camera, "whiteListDown", camera.platform.task(1, taskURL="https://"), 400)
    expect_status(camera, "no such command", {}, 400)
    assert camera.client.wait_reply(camera.client.send_body(b'{"taskName": ')).status == 400
    camera.platform.script(camera.platform.task_path, Response(500, b"broken"))
    begin = len(camera.journal)
    expect_status(camera, "whiteListDown", camera.platform.task(2), 200)
    wait_end(camera, begin)
    camera.faces.configuration = b'{"FaceListsArry": [{"ID": "x"}]}'
    expect_status(camera, "whiteListClear", {"cameraCode": "C1"}, 400)


def expect_status(camera: Camera, name: str, info: object, status: int) -> None:
    assert camera.client.command(name, info, timeout=20).status == status


@pytest.fixture(scope="module")
def runs(tmp_path_factory: pytest.TempPathFactory) -> Iterator[dict[str, Recording]]:
    """The story, recorded on both builds."""
    recordings = {}
    folder = build_folder().parent
    with pytest.MonkeyPatch.context() as patch:
        for build in BUILDS:
            if not (folder / build / "bin" / "protocol_process").exists():
                raise CameraError(f"{folder / build} has no service; build both: cmake --preset {build} && "
                                  f"cmake --build --preset {build}")
            patch.setenv("CAMGATE_BUILD", str(folder / build))
            path = tmp_path_factory.mktemp(build) / "run"
            with Camera(recording=path) as camera:
                tell_story(camera)
            recordings[build] = read(path)
    yield recordings


def test_both_builds_tell_the_same_story(runs: dict[str, Recording]) -> None:
    assert compare(runs["host"], runs["armhf"]) == []


def test_the_story_is_a_whole_one(runs: dict[str, Recording]) -> None:
    """That nothing differs says something only if there is something."""
    assert [runs[build].about["build"] for build in BUILDS] == list(BUILDS)
    number = counts(runs["armhf"])
    assert number["requests"] == 7, "3 pages, 3 reports, 1 refused page"
    assert number["files"] == 8, "3 page files, 3 state files, 2 configurations"
    assert number["ring buffer"] == number["buffers"] == number["end of the service"] == 1
    assert number["datagrams"] == 69, "client 32, ITGT 25, face library 10, event cache 2"
    assert number["log"] > 150
    pages = [entry.data for entry in runs["armhf"].entries if entry.type == "file" and entry.process == "service"]
    assert [len(page) > 2_000_000 for page in pages] == [True] * 3


FLIPS: dict[str, Callable[[dict[str, object]], bool]] = {
    "datagram": lambda fields: fields["from"] == "service", "request": lambda fields: True,
    "file": lambda fields: fields["process"] == "service", "log": lambda fields: True}


@pytest.mark.parametrize("kind", FLIPS)
def test_one_changed_byte_would_be_seen(runs: dict[str, Recording], kind: str) -> None:
    """In the last of its kind that the service made."""
    entries = list(runs["armhf"].entries)
    position = max(number for number, entry in enumerate(entries) if entry.type == kind and FLIPS[kind](entry.fields))
    entry = entries[position]
    name = {"request": "body", "log": "text"}.get(kind, "data")
    value = entry.fields[name]
    flipped = value[:-1] + (chr(ord(value[-1]) ^ 1) if isinstance(value, str) else bytes([value[-1] ^ 1]))
    entries[position] = type(entry)(entry.number, entry.time, entry.type, {**entry.fields, name: flipped})
    changed = Recording("", {}, entries)
    assert len(compare(runs["armhf"], changed)) == 1
