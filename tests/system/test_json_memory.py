"""What JSON costs: a document takes little memory while it is there, and none afterwards."""

from __future__ import annotations

import json
from collections.abc import Callable

import pytest

from simulator import Camera
from simulator.device import process_status
from simulator.peers.face_library import face_list
from support import DOWNLOAD, LOOP, download, expect_log, expect_working, kilobytes, memory_limit, poll_until, sanitized

MOST_KILOBYTES = 24 * 1024
KEPT_KILOBYTES = 1024
DEEP = b'{"":' * 100 + b"0" + b"}" * 100


def filled(value: bytes, size: int) -> bytes:
    """An array of the value, again and again, of this size."""
    return b"[" + b",".join([value] * (size // (len(value) + 1))) + b"]"


def counted(value: bytes, marks: int = 9_950) -> bytes:
    """An array of the value with so many brackets and commas."""
    return b"[" + b",".join([value] * (marks // (value.count(b"{") + value.count(b"[") + 1))) + b"]"


def expect_memory(camera: Camera, work: Callable[[], None]) -> None:
    """The work, done for the second time, takes at most 24 MB, and keeps next to nothing of it."""
    expect_working(camera)
    camera.client.command("whiteListClear", {"cameraCode": "C1"})
    pid = camera.service.pid
    process_status.reset_peak(pid)
    before = kilobytes(camera, "VmRSS")
    work()
    if not sanitized():
        assert kilobytes(camera, "VmHWM") - before < memory_limit(MOST_KILOBYTES, 0)
        poll_until(lambda: kilobytes(camera, "VmRSS") - before < memory_limit(KEPT_KILOBYTES, 0))
    expect_working(camera)


BODIES = {"objects": filled(b"{}", 185_000), "arrays": filled(b"[]", 185_000), "members": filled(b'{"":0}', 185_000),
          "deep objects": filled(DEEP, 185_000), "a string": b'"' + b"x" * 185_000 + b'"',
          "numbers in depth": b"[" * 100 + filled(b"1", 185_000) + b"]" * 100,
          "as many objects as may be": counted(b"{}"), "as many members as may be": counted(b'{"":0}'),
          "as many deep objects as may be": counted(DEEP)}


@pytest.mark.parametrize("name", ["faceNotHitDown", "whiteListClear", "whiteListDown"])
@pytest.mark.parametrize("value", BODIES.values(), ids=BODIES.keys())
def test_body_of_a_command_takes_at_most_24_megabytes(camera: Camera, name: str, value: bytes) -> None:
    body = b'{"taskName":"%s","taskInfo":{"cameraCode":%s}}' % (name.encode(), value)
    assert len(body) < 200_000
    expect_memory(camera, lambda: camera.client.wait_reply(camera.client.send_body(body)))


MEGABYTE = 1_000_000
CONFIGURATIONS = {"1 MB of objects": filled(b"{}", MEGABYTE), "10 MB of objects": filled(b"{}", 10 * MEGABYTE),
                  "10 MB of numbers": filled(b"1", 10 * MEGABYTE), "10 MB of spaces": b" " * 10 * MEGABYTE + b"[]",
                  "10 MB of a string": b'"' + b"x" * 10 * MEGABYTE + b'"',
                  "100 MB of a string": b'"' + b"x" * 100 * MEGABYTE + b'"',
                  "as many deep objects as may be": counted(DEEP),
                  "the same beside a long name": b'[{"ID":1,"FaceListName":' + counted(DEEP)[:-1] + b',"'
                                                 + b"x" * 1_400_000 + b'"]}]'}


@pytest.mark.parametrize("lists", CONFIGURATIONS.values(), ids=CONFIGURATIONS.keys())
def test_face_list_configuration_takes_at_most_24_megabytes(camera: Camera, lists: bytes) -> None:
    def clear() -> None:
        camera.faces.configuration = b'{"FaceListsArry":' + lists + b"}"
        assert camera.client.command("whiteListClear", {"cameraCode": "C1"}).status == 400
        camera.faces.configuration = None

    expect_memory(camera, clear)


@pytest.mark.parametrize("size", [MEGABYTE, 10 * MEGABYTE])
def test_state_file_takes_at_most_24_megabytes(camera: Camera, size: int) -> None:
    def import_page() -> None:
        camera.itgt.on_state_file = lambda document: b'{"TaskResultArry":' + filled(b"{}", size) + b"}"
        download(camera, 1)

    download(camera, 1)
    expect_memory(camera, import_page)
    expect_log(camera, "ERROR", DOWNLOAD, "parser Err JSON Exception: Maximum size exceeded ", 118)


def test_thousand_face_lists_are_set(camera: Camera) -> None:
    camera.faces.lists = [face_list(number, f"List {number}") for number in range(1000)]
    assert camera.client.command("whiteListClear", {"cameraCode": "C1"}, timeout=30).status == 200
    assert [applied["ListId"] for applied in camera.faces.applied] == list(range(1000))


@pytest.mark.parametrize("count, status", [(9_996, 200), (9_997, 400)])
def test_brackets_and_commas_are_counted(camera: Camera, count: int, status: int) -> None:
    """Three brackets and a comma are around the array's own commas; those in strings do not count."""
    body = json.dumps({"taskName": "faceNotHitDown", "taskInfo": {"a,[{": ["{,["] + [0] * count}})
    assert camera.client.wait_reply(camera.client.send_body(body.encode())).status == status
    if status == 400:
        expect_log(camera, "ERROR", LOOP, "PUBLIC_JSON Err JSON Exception: Maximum size exceeded ")
