"""Exchanges 7020 and 7021 with ITGT: the page file, and how far its import is."""

from __future__ import annotations

import stat
import struct
from collections.abc import Callable

import pytest

from simulator import Camera, wire
from support import (DOWNLOAD, at_most, count_text, download, emulated, expect_log, received, start_download, texts,
                     wait_end, written)

FOLDER = b"/tmp/mmcblk0/face_basic/faceLib/"
FIRST_ID = 4_300_000_001


def request_header(subtype: int, command: int) -> bytes:
    commands = struct.pack("<II", subtype, command)
    return b"/tmp/II\0/tmp/CP\0" + bytes(144) + commands + bytes(32) + struct.pack("<q", 101)


def patched_reply(offset: int, replacement: bytes, **fields: object) -> Callable[[wire.Message], bytes]:
    """An answer with some bytes at an offset that no field describes."""
    return lambda request: wire.patched(wire.encode_reply(request, **fields), offset, replacement)


def test_7020_request_byte_for_byte(camera: Camera) -> None:
    download(camera, 31)
    expected = []
    for name in (b"white0", b"white30"):
        message = request_header(1, 7020) + struct.pack("<I", 3) + bytes(104)
        expected.append((message + FOLDER.ljust(132, b"\0") + name.ljust(132, b"\0")).ljust(21408, b"\0"))
    assert camera.itgt.requests(7020) == expected


def test_first_7021_request_byte_for_byte(camera: Camera) -> None:
    download(camera, 31)
    assert camera.itgt.requests(7021) == [
        (request_header(0, 7021) + bytes(96) + struct.pack("<q", task_id)).ljust(21408, b"\0")
        for task_id in (FIRST_ID, FIRST_ID + 1)]


@pytest.mark.parametrize("task_id", [0, 1, -1, 2**63 - 1, -2**63, 2**32])
def test_progress_is_asked_with_the_id_that_the_page_got(camera: Camera, task_id: int) -> None:
    camera.itgt.script(7020, lambda request: wire.encode_reply(request, ImportFileTaskId=task_id))
    camera.itgt.script(7021, lambda request: wire.encode_reply(request, ProgressStatus=1))
    download(camera, 1)
    assert [message.request["ProgressTaskId"] for message in camera.itgt.requests(7021)] == [task_id]
    expect_log(camera, "INFO", DOWNLOAD, f"taskID is {task_id}")
    expect_log(camera, "INFO", DOWNLOAD, f"Task ID is {task_id}")


def test_another_answer_to_7020_keeps_the_id_of_the_page_before(camera: Camera) -> None:
    default = camera.itgt.default
    camera.itgt.script(7020, default, lambda request: wire.encode_reply(request, command=7777, same_header=True))
    download(camera, 31)
    assert [message.request["ProgressTaskId"] for message in camera.itgt.requests(7021)] == [FIRST_ID, FIRST_ID]
    assert len(camera.platform.reports) == 2
    assert count_text(camera, f"taskID is {FIRST_ID}") == 1
    assert count_text(camera, " Notify ITGT result:0") == 2


def test_another_answer_to_the_first_7020_leaves_the_id_0(camera: Camera) -> None:
    camera.itgt.script(7020, lambda request: wire.encode_reply(request, command=0))
    camera.itgt.script(7021, lambda request: wire.encode_reply(request, ProgressStatus=1))
    download(camera, 1)
    assert [message.request["ProgressTaskId"] for message in camera.itgt.requests(7021)] == [0]


def test_id_is_not_carried_into_the_next_task(camera: Camera) -> None:
    download(camera, 1)
    camera.itgt.script(7020, lambda request: wire.encode_reply(request, command=7777))
    camera.itgt.script(7021, lambda request: wire.encode_reply(request, ProgressStatus=1))
    download(camera, 1)
    assert [message.request["ProgressTaskId"] for message in camera.itgt.requests(7021)] == [FIRST_ID, 0]


def test_exchange_socket_has_mode_0660_while_it_is_used(camera: Camera) -> None:
    modes = []

    def look(message: wire.Message, default: Callable[[], object]) -> object:
        if message.source == "/tmp/CP":
            modes.append(camera.path("/tmp/CP").stat().st_mode)
        return default()

    camera.itgt.on_message = look
    download(camera, 1)
    assert modes == [stat.S_IFSOCK | 0o660] * 3


def test_stale_file_at_the_exchange_socket_does_not_block_it(camera: Camera) -> None:
    camera.path("/tmp/CP").write_text("stale")
    camera.path("/tmp/CP").chmod(0o444)
    download(camera, 1)
    assert len(camera.platform.reports) == 1


def test_exchange_socket_is_made_anew_for_each_exchange(camera: Camera) -> None:
    numbers = []

    def look(message: wire.Message, default: Callable[[], object]) -> object:
        if message.source == "/tmp/CP":
            camera.path("/tmp/CP").rename(camera.path(f"/tmp/CP.{len(numbers)}"))  # keeps its number from being reused
            numbers.append(camera.path(f"/tmp/CP.{len(numbers)}").stat().st_ino)
            camera.path("/tmp/CP").symlink_to(f"CP.{len(numbers) - 1}")
        return default()

    camera.itgt.on_message = look
    download(camera, 1)
    assert len(set(numbers)) == len(numbers) == 3


@pytest.mark.seconds(4)
def test_not_ready_is_asked_again_a_second_later(camera: Camera) -> None:
    camera.itgt.not_ready_answers = 3
    download(camera, 1)
    times = [written(record) for record in camera.service.log if record.text == "Wait for ITGT message "]
    assert len(times) == 4
    assert all(0.95 <= later - earlier <= at_most(2.0) for earlier, later in zip(times, times[1:]))
    assert count_text(camera, "Not Ready, try ") == 3
    assert count_text(camera, "Wait for ITGT message ") == 4
    assert not [text for text in texts(camera) if text.startswith("Tried ")]


@pytest.mark.seconds(13)
def test_ten_answers_not_ready_give_up_and_other_answers_do_not_count(camera: Camera) -> None:
    other = [lambda request: wire.encode_reply(request, command=7777, ProgressStatus=1)] * 3
    camera.itgt.script(7021, *other, *[lambda request: wire.encode_reply(
        request, ProgressStatus=0, ProgressTotal=30, ProgressCurrent=7,
        ProgressStatePath="/tmp/mmcblk0/face_basic/white0.state.json")] * 10)
    begin = len(camera.journal)
    start_download(camera, 31)
    camera.wait_for_log("Tried ", timeout=30)
    expect_log(camera, "INFO", DOWNLOAD, "Tried 10 times, Fail!", since=begin)
    wait_end(camera, begin)
    times = [written(record) for record in camera.service.log if record.text == "Wait for ITGT message "]
    assert len(times) == 13 + 1
    assert all(0.95 <= later - earlier <= at_most(2.0) for earlier, later in zip(times, times[1:13]))
    assert count_text(camera, "Not Ready, try ") == 10
    assert count_text(camera, "Current process is 7 / 30 ") == 10
    assert [request.json()["startIndex"] for request in camera.platform.reports] == [0, 30]


@pytest.mark.seconds(10)
def test_page_that_was_never_ready_is_reported_with_the_file_of_the_last_answer(camera: Camera) -> None:
    camera.path("/tmp/last.json").write_text('{"TaskResultArry":[{"ID":"x","RESULT_TYPE_E":9}]}')
    first, last = ({"ProgressStatus": status, "ProgressStatePath": path}
                   for status, path in ((0, "/tmp/first.json"), (2, "/tmp/last.json")))
    camera.itgt.script(7021, *[lambda request: wire.encode_reply(request, **first)] * 9,
                       lambda request: wire.encode_reply(request, **last))
    download(camera, 1, timeout=30)
    assert camera.platform.reports[0].json()["ImportInfo"] == [{"credentialNumber": "x", "importStatus": 9}]
    lines = texts(camera, DOWNLOAD)
    assert lines[-1] == "Tried 10 times, Fail!"
    assert lines[-2].startswith("response status 200 ")


@pytest.mark.parametrize("status", [0, 2, 256, 2**32 - 1])
def test_only_status_1_means_imported(camera: Camera, status: int) -> None:
    camera.itgt.script(7021, lambda request: wire.encode_reply(request, ProgressStatus=status))
    download(camera, 1)
    assert len(camera.itgt.requests(7021)) == 2
    assert count_text(camera, "Not Ready, try ") == 1


@pytest.mark.parametrize("current, total", [(0, 0), (-1, 2**63 - 1), (2**40, 2**40)])
def test_progress_is_logged_as_signed_numbers_of_the_processor(camera: Camera, current: int, total: int) -> None:
    camera.itgt.script(7021, lambda request: wire.encode_reply(
        request, ProgressStatus=1, ProgressCurrent=current, ProgressTotal=total, ProgressStatePath="/tmp/none"))
    download(camera, 1)
    if emulated():  # the 32-bit camera logs the low half
        current, total = (struct.unpack("<i", struct.pack("<q", number)[:4])[0] for number in (current, total))
    expect_log(camera, "INFO", DOWNLOAD, f"Current process is {current} / {total} ")


def test_what_an_answer_left_in_the_message_goes_out_with_the_next_try(camera: Camera) -> None:
    """One message for all tries: only header and import task id are written anew."""
    camera.itgt.script(7021, patched_reply(1000, b"left behind", ProgressStatus=0, destPath="/tmp/XX",
                                           srcPath="/tmp/YY", subType=9, module=7, ProgressStatePath="/tmp/old"))
    download(camera, 1)
    again = camera.itgt.requests(7021)[1]
    assert again[:16] == b"/tmp/II\0/tmp/CP\0"
    assert struct.unpack_from("<II", again, 160) == (0, 7021)
    assert struct.unpack_from("<q", again, 200) == (101,)
    assert struct.unpack_from("<q", again, 304) == (FIRST_ID,)
    assert again[336:345] == b"/tmp/old\0"
    assert again[1000:1011] == b"left behind"


@pytest.mark.seconds(6)
def test_answer_after_6_seconds_is_waited_for(camera: Camera) -> None:
    """No time-out of the other exchanges applies: a page can take ITGT long."""
    def slow(request: wire.Message) -> object:
        camera.itgt.delay = 6.0
        return camera.itgt.default(request)

    def quick(request: wire.Message) -> object:
        camera.itgt.delay = 0.0
        return camera.itgt.default(request)

    camera.itgt.script(7020, slow)
    camera.itgt.script(7021, quick)
    download(camera, 1, timeout=20)
    assert len(camera.platform.reports) == 1
    assert [len(camera.itgt.requests(command)) for command in (7020, 7021, 7031)] == [1, 1, 1]


def test_exchanges_of_download_and_clear_do_not_overlap(camera: Camera) -> None:
    camera.itgt.delay = 0.4
    start_download(camera)
    received(camera, "itgt", 7020)
    assert camera.client.command("whiteListClear", {"cameraCode": "C1"}).status == 200
    wait_end(camera)
    open_exchanges = 0
    for event in camera.journal.events:
        if event.source in ("itgt", "faces") and event.kind in ("received", "sent") and event.message.command != 1037:
            open_exchanges += 1 if event.kind == "received" else -1
            assert 0 <= open_exchanges <= 1
    assert len(camera.faces.applied) == 3
    assert len(camera.platform.reports) == 1
