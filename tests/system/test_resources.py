"""Descriptors, threads and memory: what running out of them does, and that nothing is kept."""

from __future__ import annotations

import os
import subprocess
from collections.abc import Callable, Iterator
from contextlib import contextmanager
from pathlib import Path
from typing import Any

import pytest

from simulator import Camera, Close, Response, Send
from support import (DOWNLOAD, END, count_text, descriptors, download, expect_log, expect_working, kilobytes,
                     memory_limit, poll_until, received, start_download, start_polling, status_field, texts, threads,
                     wait_end)

# Seconds for an answer that waits for nothing.
PROMPT = 4.0
# Threads are pooled: a download that begins while the one before it has not quite ended takes another one.
SPARE_THREADS = 2


@contextmanager
def limited(camera: Camera, option: str, limit: int) -> Iterator[None]:
    """The running service with a lower soft limit, set as its own user, who needs no privilege for that."""
    def set_limit(value: str) -> None:
        user = int(status_field(camera, "Uid").split()[0])
        switch: dict[str, Any] = {"user": user, "group": user, "extra_groups": []} if user != os.getuid() else {}
        subprocess.run(["prlimit", "--pid", str(camera.service.pid), f"--{option}={value}:"], check=True, **switch)

    title = {"nofile": "Max open files", "fsize": "Max file size"}[option]
    limits = Path(f"/proc/{camera.service.pid}/limits").read_text().splitlines()
    before = next(line for line in limits if line.startswith(title)).removeprefix(title).split()[0]
    set_limit(str(limit))
    try:
        yield
    finally:
        set_limit(before)


def settles(camera: Camera, measure: Callable[[Camera], int], most: int) -> None:
    """Waits until a measure is at most so much: a connection or thread ends a moment after its record."""
    poll_until(lambda: measure(camera) <= most)


def test_30_downloads_leave_descriptors_threads_and_memory_as_they_were(camera: Camera) -> None:
    for _ in range(5):
        download(camera, 31)
    before = descriptors(camera), threads(camera), kilobytes(camera, "RssAnon")
    for _ in range(30):
        download(camera, 31)
    settles(camera, descriptors, before[0])
    settles(camera, threads, before[1] + SPARE_THREADS)
    # A kept page is about 40 KB, a kept message 21 KB.
    assert kilobytes(camera, "RssAnon") - before[2] < memory_limit(700, with_sanitizers=200_000)


def test_failed_downloads_leave_descriptors_and_threads_as_they_were(camera: Camera) -> None:
    def fail(number: int) -> None:
        port = (camera.platform.port, 9)[number % 2]
        camera.platform.script(camera.platform.task_path, [Send(b"no http"), Close()])
        download(camera, 1, taskURL=f"https://127.0.0.1:{port}{camera.platform.task_path}")

    for number in range(6):
        fail(number)
    before = descriptors(camera), threads(camera)
    for number in range(20):
        fail(number)
    settles(camera, descriptors, before[0])
    settles(camera, threads, before[1] + SPARE_THREADS)
    assert camera.platform.reports == []


def test_clear_commands_leave_descriptors_and_memory_as_they_were(camera: Camera) -> None:
    def clear() -> None:
        assert camera.client.command("whiteListClear", {"cameraCode": "C1"}).status == 200

    for _ in range(20):
        clear()
    before = descriptors(camera), kilobytes(camera, "RssAnon")
    for _ in range(100):
        clear()
    settles(camera, descriptors, before[0])
    assert kilobytes(camera, "RssAnon") - before[1] < memory_limit(700, with_sanitizers=100_000)


def test_large_pages_are_not_kept(camera: Camera) -> None:
    camera.platform.on_request = lambda request, default: (
        Response(body=b"x" * 2_000_000) if request.target == camera.platform.task_path else default())
    download(camera, 300, timeout=30)
    before = kilobytes(camera, "VmHWM")
    download(camera, 900, timeout=60)
    assert kilobytes(camera, "VmHWM") - before < memory_limit(3_000, with_sanitizers=400_000)


def test_page_is_not_kept_while_itgt_takes_its_time(camera: Camera) -> None:
    download(camera, 1)
    before = kilobytes(camera, "VmRSS")
    camera.platform.on_request = lambda request, default: (
        Response(body=b"x" * 20_000_000) if request.target == camera.platform.task_path else default())
    camera.itgt.script(7020, None)
    start_download(camera)
    camera.wait_until(lambda: len(camera.itgt.requests(7020)) == 2)
    assert kilobytes(camera, "VmRSS") - before < memory_limit(3_000, with_sanitizers=400_000)


def test_without_descriptors_a_download_fails_and_the_next_works_when_there_are_some_again(camera: Camera) -> None:
    download(camera, 1)
    with limited(camera, "nofile", 3):
        begin = len(camera.journal)
        reply = camera.client.command("whiteListDown", camera.platform.task(31))
        assert reply.status in (200, 400)
        if reply.status == 200:
            wait_end(camera, begin)
        camera.wait_for_log(lambda record: record.level == "ERROR", since=begin)
        assert len(camera.platform.reports) == 1
    download(camera, 31)
    assert len(camera.platform.reports) == 3


def test_without_descriptors_the_other_commands_are_answered_as_well(camera: Camera) -> None:
    with limited(camera, "nofile", 3):
        begin = len(camera.journal)
        assert camera.client.command("faceNotHitDown", {"a": 1}).status in (200, 400)
        assert camera.client.command("whiteListClear", {"cameraCode": "C1"}, PROMPT).status == 400
        camera.wait_for_log(lambda record: record.level == "ERROR", since=begin)
        assert camera.client.command("nothing", {}).status == 400
        assert camera.client.wait_reply(camera.client.send_body(b"{")).status == 400
    assert camera.client.command("whiteListClear", {"cameraCode": "C1"}, PROMPT).status == 200
    expect_working(camera)


def test_descriptors_that_run_out_between_exchanges_are_a_failure_like_any_other(camera: Camera) -> None:
    """During the pause after the first try; from then on no exchange gets its socket."""
    start_polling(camera, 31)
    with limited(camera, "nofile", 3):
        begin = len(camera.journal)
        camera.wait_download(20, begin)
        camera.wait_for_log(lambda record: record.level == "ERROR", since=begin)
        expect_working(camera)
    camera.itgt.not_ready_answers = 0
    before = len(camera.platform.reports)
    download(camera, 1)
    assert len(camera.platform.reports) == before + 1


@pytest.mark.parametrize("spare", range(1, 5))
def test_few_descriptors_fail_somewhere_and_nothing_is_kept(camera: Camera, spare: int) -> None:
    """Wherever in a page they run out, the service comes back."""
    download(camera, 1)
    before = descriptors(camera)
    highest = max(int(path.name) for path in Path(f"/proc/{camera.service.pid}/fd").iterdir())
    with limited(camera, "nofile", highest + 1 + spare):
        begin = len(camera.journal)
        reply = camera.client.command("whiteListDown", camera.platform.task(2))
        if reply.status == 200:
            camera.wait_download(20, begin)
    download(camera, 3)
    assert camera.platform.reports[-1].json()["offset"] == 3
    settles(camera, descriptors, before)


def test_page_that_cannot_be_written_whole_is_not_handed_on(camera: Camera) -> None:
    """A limit on the size of files, whose signal would end the process, is like a full disk."""
    with limited(camera, "fsize", 100):
        start_download(camera, 31)
        wait_end(camera)
    assert camera.itgt.requests(7020) == []
    assert len(camera.platform.requests) == 1
    assert "DownloadPictureProcess fail." in texts(camera)
    download(camera, 1)
    assert len(camera.platform.reports) == 1


def test_thread_names_tell_the_command_loop(camera: Camera) -> None:
    def names() -> list[str]:
        return [path.read_text().strip() for path in Path(f"/proc/{camera.service.pid}/task").glob("*/comm")]
    # A thread names itself a moment after it began.
    poll_until(lambda: "Json Msg Loop" in names())


def test_a_download_takes_one_thread(camera: Camera) -> None:
    download(camera, 1)
    before = threads(camera)
    camera.itgt.script(7020, None)
    start_download(camera)
    received(camera, "itgt", 7020)
    assert threads(camera) <= before + 1
    assert count_text(camera, END) == 1
    expect_log(camera, "INFO", DOWNLOAD, "Before recive msg from itgt")
