"""A platform that answers badly, late, or not at all: status 400, one record, and the next download works."""

from __future__ import annotations

import random
from collections.abc import Sequence
from typing import Any

import pytest

from simulator import NEVER, Camera, Close, Reset, Response, Send, Wait, trickle
from support import (DOWNLOAD, HTTP, PAGE, at_most, count_text, download, expect_log, kilobytes, sanitized,
                     start_download, texts, wait_end, written)


def expect_failed_page(camera: Camera, total: int = 31, timeout: float = 15.0, **changes: Any) -> None:
    """The page fails as status 400, nothing is handed on, and the next download works."""
    reports = len(camera.platform.reports)
    begin = len(camera.journal)
    download(camera, total, timeout, **changes)
    record = camera.wait_for_log("SendMsgAndRecvResponse err:", since=begin)
    assert (record.level, record.path) == ("ERROR", HTTP)
    assert len(record.text) > len("SendMsgAndRecvResponse err:")
    expect_log(camera, "INFO", DOWNLOAD, "DownloadPictureProcess Status:400", since=begin)
    expect_log(camera, "INFO", DOWNLOAD, "[Custom] download picture, response error.", since=begin)
    camera.wait_for_log("DownloadPictureProcess fail.", since=begin)
    assert len(camera.platform.reports) == reports
    assert camera.itgt.requests(7020) == []
    assert not camera.path(PAGE).exists()
    camera.platform.on_connect = None
    download(camera, 1)
    assert len(camera.platform.reports) == reports + 1


WHOLE = Response(body=b'{"records":[]}' * 100).encode()
HEAD = WHOLE.partition(b"\r\n\r\n")[0] + b"\r\n\r\n"
CHUNKED = Response(body=b"x" * 10_000, chunk_size=1000).encode()
HALF = CHUNKED.index(b"\r\n\r\n") + 4 + 5 * 1007  # between two chunks
OK = b"HTTP/1.1 200 OK\r\n"
BROKEN: dict[str, Sequence[Any]] = {
    "nothing": [Close()],
    "nothing and no close_notify": [Close(alert=False)],
    "reset": [Reset()],
    "no http": [Send(b"\x16\x03\x01 hello\r\n\r\n"), Close()],
    "random": [Send(random.Random(3).randbytes(5000)), Close()],
    "status line cut off": [Send(b"HTTP/1.1 2"), Close()],
    "head cut off": [Send(HEAD[:-10]), Close()],
    "no status": [Send(b"HTTP/1.1 \r\n\r\n"), Close()],
    "text for a status": [Send(b"HTTP/1.1 abc OK\r\n\r\n"), Close()],
    "body cut off": [Send(WHOLE[:-1]), Close()],
    "body cut off without close_notify": [Send(WHOLE[:-500]), Close(alert=False)],
    "body then reset": [Send(WHOLE[:-500]), Reset()],
    "chunks cut off": [Send(CHUNKED[:-1500]), Close()],
    "half of the chunks": [Send(CHUNKED[:HALF]), Close()],
    "half of the chunks without close_notify": [Send(CHUNKED[:HALF]), Close(alert=False)],
    "last chunk missing": [Send(CHUNKED[:-5]), Close()],
    "chunks then reset": [Send(CHUNKED[:3000]), Reset()],
    "endless header": [Send(OK + b"X: " + b"x" * 1_000_000), Close()],
    "thousands of headers": [Send(OK + b"X: y\r\n" * 20_000 + b"\r\n{}"), Close()]}


@pytest.mark.parametrize("steps", BROKEN.values(), ids=BROKEN.keys())
def test_broken_answer_fails_the_page(camera: Camera, steps: Sequence[Any]) -> None:
    camera.platform.script(camera.platform.task_path, steps)
    expect_failed_page(camera)


def test_refused_connection_fails_the_page(camera: Camera) -> None:
    expect_failed_page(camera, taskURL="https://127.0.0.1:9/x")


def test_unknown_host_fails_the_page(camera: Camera) -> None:
    expect_failed_page(camera, timeout=30, taskURL="https://no-such-host.invalid/x")


# What hangs: steps in place of a handshake, or in place of an answer; else the connect.
HANGING: dict[str, tuple[Any, Any]] = {
    "connect": (None, None), "handshake": (NEVER, None),
    "handshake byte by byte": (trickle(b"\x16\x03\x03\x40\x00" + b"\x02" * 1000, 1, 0.2), None),
    "silent": (None, NEVER), "in the head": (None, [Send(OK + b"Content-"), Wait()]),
    "after the head": (None, [Send(HEAD), Wait()]), "before the last byte": (None, [Send(WHOLE[:-1]), Wait()]),
    "between chunks": (None, [Send(CHUNKED[:-1500]), Wait()])}


@pytest.mark.seconds(5)
@pytest.mark.parametrize("name", HANGING)
def test_hanging_platform_fails_the_page_after_5_seconds(camera: Camera, name: str) -> None:
    handshake, answer = HANGING[name]
    if handshake is not None:
        camera.platform.on_connect = lambda connection: handshake
    if answer is not None:
        camera.platform.script(camera.platform.task_path, answer)
    changes = {"taskURL": f"https://127.0.0.1:{camera.platform.full_port}/x"} if name == "connect" else {}
    begin = len(camera.journal)
    download(camera, 31, **changes)
    started, failed = (camera.wait_for_log(text, since=begin) for text in ("Http URI:", "SendMsgAndRecvResponse err:"))
    assert 4.5 <= written(failed) - written(started) <= at_most(6.5)
    expect_log(camera, "INFO", DOWNLOAD, "DownloadPictureProcess Status:400")
    camera.platform.on_connect = None
    download(camera, 1)
    assert len(camera.platform.reports) == 1


@pytest.mark.seconds(5)
def test_platform_that_does_not_read_a_large_request_ends_after_5_seconds(camera: Camera) -> None:
    """The request is larger than what the connection's buffers take: a slash is two bytes in it."""
    camera.itgt.on_state_file = lambda document: (
        b'{"TaskResultArry":[{"ID":"' + b"/" * 1_500_000 + b'","RESULT_TYPE_E":0}]}')
    connections = []

    def second_is_silent(connection: Any) -> Any:
        connections.append(connection)
        return NEVER if len(connections) == 2 else None

    camera.platform.on_connect = second_is_silent
    begin = len(camera.journal)
    start_download(camera)
    posted = camera.wait_for_log("@@@picTaskResult Update ", 30, begin)
    failed = camera.wait_for_log(lambda record: record.text.startswith("metadata "), 30, begin)
    assert (failed.level, failed.path, failed.line) == ("INFO", DOWNLOAD, 221)
    assert 4.5 <= written(failed) - written(posted) <= at_most(6.5)
    wait_end(camera, begin)


@pytest.mark.parametrize("chunk_size", [0, 4096])
def test_answer_of_10_megabytes_is_held_once(camera: Camera, chunk_size: int) -> None:
    download(camera, 1)
    before = kilobytes(camera, "VmHWM")
    body = random.Random(5).randbytes(7_000_000).hex().encode()[:10_000_000]
    camera.platform.script(camera.platform.task_path, Response(body=body, chunk_size=chunk_size))
    download(camera, 1, timeout=30)
    assert camera.path(PAGE).read_bytes() == body
    if not sanitized():
        # A growing text is held twice for the moment of its move.
        assert kilobytes(camera, "VmHWM") - before < 35_000


def test_many_failures_then_a_download_that_works(camera: Camera) -> None:
    for steps in list(BROKEN.values())[:10]:
        camera.platform.script(camera.platform.task_path, steps)
        download(camera, 1)
    download(camera, 31)
    assert len(camera.platform.reports) == 2
    assert count_text(camera, "DownloadPictureProcess fail.") == 10
    assert not [text for text in texts(camera) if text.startswith("CustomJsonPicDownloadTask Err")]


def test_answer_sent_before_the_request_was_read_does_no_harm(camera: Camera) -> None:
    camera.platform.script(camera.platform.task_path, [Send(WHOLE + WHOLE + b"trailing bytes"), Close()])
    download(camera, 1)
    assert camera.path(PAGE).read_bytes() == WHOLE.partition(b"\r\n\r\n")[2]
