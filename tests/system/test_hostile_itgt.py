"""ITGT that answers badly, and datagrams that nobody asked for."""

from __future__ import annotations

import random
import socket
from collections.abc import Callable
from typing import Any

import pytest

from simulator import Camera, wire
from support import DOWNLOAD, count_text, download, expect_log, expect_working, kilobytes, memory_limit

FIRST_ID = 4_300_000_001


def cut(length: int, **fields: Any) -> Callable[[wire.Message], bytes]:
    return lambda request: wire.encode_reply(request, **fields)[:length]


def grown(length: int, **fields: Any) -> Callable[[wire.Message], bytes]:
    return lambda request: bytes(wire.encode_reply(request, **fields)).ljust(length, b"\xff")


@pytest.mark.parametrize("length", [0, 1, 100, 167, 168, 584, 591])
def test_short_answer_to_7020_ends_nothing(camera: Camera, length: int) -> None:
    """What it does not cover is as the request had it."""
    camera.itgt.script(7020, cut(length, ImportFileTaskId=FIRST_ID))
    camera.itgt.script(7021, lambda request: wire.encode_reply(request, ProgressStatus=1))
    download(camera, 1)
    asked = camera.itgt.requests(7021)[0].request["ProgressTaskId"]
    assert asked == (FIRST_ID & (1 << 8 * max(0, length - 584)) - 1)
    download(camera, 1)
    assert len(camera.platform.reports) == 1


def test_short_answer_to_7020_with_another_command(camera: Camera) -> None:
    camera.itgt.script(7020, lambda request: wire.encode_reply(request, command=1)[:168])
    camera.itgt.script(7021, lambda request: wire.encode_reply(request, ProgressStatus=1))
    download(camera, 1)
    assert camera.itgt.requests(7021)[0].request["ProgressTaskId"] == 0
    assert count_text(camera, "taskID is 0") == 0


@pytest.mark.parametrize("length", [0, 1, 164, 168, 312, 315])
def test_short_answer_to_7021_is_not_ready(camera: Camera, length: int) -> None:
    """Its command is the request's, which is still in the message; its status is not there."""
    camera.itgt.script(7021, cut(length, ProgressStatus=0x0101))
    download(camera, 1)
    assert count_text(camera, "Not Ready, try ") == 1
    assert len(camera.platform.reports) == 1


def test_short_answer_to_7021_that_ends_in_the_path(camera: Camera) -> None:
    camera.itgt.script(7021, cut(336 + 9, ProgressStatus=1, ProgressStatePath="/tmp/some/where"))
    download(camera, 1)
    expect_log(camera, "ERROR", DOWNLOAD, " [Custom] download picture, open file /tmp/some error.", 77)


def test_path_without_its_nul_ends_with_the_message(camera: Camera) -> None:
    camera.itgt.script(7021, lambda request: wire.patched(
        wire.encode_reply(request, ProgressStatus=1), 336, b"x" * (wire.MESSAGE_SIZE - 336)))
    download(camera, 31)
    expect_log(camera, "ERROR", DOWNLOAD,
               f" [Custom] download picture, open file {'x' * (wire.MESSAGE_SIZE - 336)} error.", 77)
    assert [request.json()["startIndex"] for request in camera.platform.reports] == [30]


def test_time_without_its_nul_ends_with_the_message(camera: Camera) -> None:
    camera.itgt.script(7031, lambda request: wire.patched(
        wire.encode_reply(request), 304, b"t" * (wire.MESSAGE_SIZE - 304)))
    download(camera, 1)
    assert camera.platform.reports[0].json()["datatime"] == "t" * (wire.MESSAGE_SIZE - 304)


@pytest.mark.parametrize("length", [0, 168, 304, 310])
def test_short_answer_to_7031_gives_what_there_is_of_the_time(camera: Camera, length: int) -> None:
    camera.itgt.script(7031, cut(length, PageTime="2024-05-17"))
    download(camera, 1)
    assert camera.platform.reports[0].json()["datatime"] == "2024-05-17"[:max(0, length - 304)]


@pytest.mark.parametrize("command", [7020, 7021, 7031])
def test_answer_longer_than_a_message_is_cut(camera: Camera, command: int) -> None:
    page = {"ImportFileTaskId": 5}, {"ProgressStatus": 1, "ProgressStatePath": "/tmp/state"}, {"PageTime": "now"}
    camera.path("/tmp/state").write_text('{"TaskResultArry":[]}')
    fields = dict(zip((7020, 7021, 7031), page))
    for code in fields:
        camera.itgt.script(code, grown(100_000 if code == command else wire.MESSAGE_SIZE, **fields[code]))
    download(camera, 1)
    assert camera.platform.reports[0].json()["datatime"] == "now"


@pytest.mark.parametrize("text", [b"\xff\xfe", b"\xe9\x9d", b"\x80", b"\x01\x1f\x7f", b'"', b"\\", b"%s%n%99999d"])
def test_odd_time_text_is_carried_and_does_no_harm(camera: Camera, text: bytes) -> None:
    camera.itgt.script(7031, lambda request: wire.encode_reply(request, PageTime=text))
    download(camera, 1)
    assert len(camera.platform.reports) == 1
    body = camera.platform.reports[0].body
    assert body.startswith(b'{"ImportInfo":[') and body.endswith(b'"taskID":"T1"}')
    expect_working(camera)


@pytest.mark.parametrize("command", [7020, 7031])
def test_garbage_in_place_of_an_answer(camera: Camera, command: int) -> None:
    camera.itgt.script(command, random.Random(command).randbytes(wire.MESSAGE_SIZE))
    camera.itgt.script(7021, lambda request: wire.encode_reply(
        request, ProgressStatus=1, ProgressStatePath="/tmp/mmcblk0/face_basic/white0.state.json"))
    download(camera, 1)
    download(camera, 1)
    assert camera.platform.reports


def test_garbage_in_place_of_progress_is_asked_again(camera: Camera) -> None:
    camera.itgt.script(7021, random.Random(1).randbytes(wire.MESSAGE_SIZE))
    download(camera, 1)
    assert len(camera.itgt.requests(7021)) == 2
    assert len(camera.platform.reports) == 1


def test_second_answer_does_not_reach_the_next_exchange(camera: Camera) -> None:
    """Each exchange has a socket of its own: what was left in the one before is gone."""
    camera.itgt.script(7020, lambda request: [wire.encode_reply(request, ImportFileTaskId=5),
                                              wire.encode_reply(request, command=7777)])
    camera.itgt.script(7021, lambda request: wire.encode_reply(request, ProgressStatus=1))
    download(camera, 1)
    assert camera.itgt.requests(7021)[0].request["ProgressTaskId"] == 5


def test_datagrams_to_the_notice_socket_do_no_harm(camera: Camera) -> None:
    """Nothing reads it; its queue may fill."""
    with pytest.raises(OSError):
        for _ in range(1000):
            _send_at_once(camera, "/tmp/CU")
    download(camera, 1)
    assert len(camera.platform.reports) == 1


def _send_at_once(camera: Camera, path: str) -> None:
    with socket.socket(socket.AF_UNIX, socket.SOCK_DGRAM | socket.SOCK_NONBLOCK) as sender:
        sender.sendto(b"x" * 1000, str(camera.path(path)))


def test_flood_during_an_import_is_survived(camera: Camera) -> None:
    """Datagrams beyond what the queue takes are the sender's loss."""
    camera.itgt.script(7020, lambda request: [camera.itgt.default(request)] * 8)
    camera.itgt.script(7021, lambda request: [wire.encode_reply(request, ProgressStatus=0)] * 8)
    download(camera, 1, timeout=30)
    assert len(camera.platform.reports) == 1
    expect_working(camera)
    assert kilobytes(camera, "RssAnon") < memory_limit(50_000, with_sanitizers=1_000_000)
