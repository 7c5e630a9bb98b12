"""Two conversations at once: a download with ITGT and a clear with the face library share one socket."""

from __future__ import annotations

import signal
from typing import Any

import pytest

from simulator import Camera, wire
from simulator.peers.face_library import face_list
from support import (END, PAGE, at_most, count_text, expect_unsent, expect_working, page_starts, received,
                     start_download, texts, wait_end, wait_stopped, written)

CLEAR = {"cameraCode": "C1"}
# Seconds after which an exchange whose peer is silent no longer holds the others up.
TURN = 5.0


def slow_once(camera: Camera, peer: Any, command: int, seconds: float) -> None:
    """The peer takes so long for its next answer to this command only."""
    def slow(request: wire.Message) -> Any:
        peer.pause(seconds)
        return peer.default(request)
    peer.script(command, slow)


def expect_all_done(camera: Camera, faces: int, lists: int) -> None:
    """Every page imported and reported, every list set once and in order, every later command answered."""
    starts = page_starts(faces)
    assert [len(camera.itgt.requests(command)) for command in (7020, 7031)] == [len(starts)] * 2
    assert [report.json()["startIndex"] for report in camera.platform.reports] == starts
    assert all(report.json()["datatime"] for report in camera.platform.reports)
    assert [face["ListName"] for face in camera.faces.applied] == [face["FaceListName"] for face in camera.faces.lists]
    assert len(camera.faces.applied) == lists
    expect_working(camera)


@pytest.mark.seconds(14)
@pytest.mark.parametrize("lists, seconds", [(40, 0.3), (5, 1.5)])
def test_long_clear_and_a_polling_download_both_come_to_their_end(camera: Camera, lists: int, seconds: float) -> None:
    camera.faces.lists = [face_list(number, f"list {number}") for number in range(lists)]
    camera.faces.delay = seconds
    camera.itgt.not_ready_answers = 6
    start_download(camera)
    received(camera, "itgt", 7021)
    tag = camera.client.send("whiteListClear", CLEAR)
    assert camera.client.wait_reply(tag, timeout=40).status == 200
    wait_end(camera, timeout=40)
    expect_all_done(camera, 1, lists)


@pytest.mark.seconds(8)
def test_download_goes_on_beside_a_clear_request_that_is_answered_after_8_seconds(camera: Camera) -> None:
    """The download was there first; its next request waits 5 seconds at most."""
    slow_once(camera, camera.faces, 7019, 8)
    camera.itgt.not_ready_answers = 1
    start_download(camera)
    received(camera, "itgt", 7021)
    tag = camera.client.send("whiteListClear", CLEAR)
    asked = camera.wait_for_log(lambda record: record.line == 290)
    wait_end(camera, timeout=20)
    assert camera.client.wait_reply(tag).status == 200
    second = [record for record in camera.service.log if record.text.startswith("Current process is ")][1]
    assert TURN - 0.5 <= written(second) - written(asked) <= at_most(TURN + 2.0)
    expect_all_done(camera, 1, 3)


@pytest.mark.seconds(12)
def test_clear_gets_its_turns_between_the_requests_of_a_download_with_a_slow_itgt(camera: Camera) -> None:
    camera.itgt.delay = 3.0
    start_download(camera)
    received(camera, "itgt", 7020)
    assert camera.client.command("whiteListClear", CLEAR, timeout=20).status == 200
    wait_end(camera, timeout=30)
    order = [(event.source, event.message.command) for event in camera.journal.find(kind="received")
             if event.source in ("itgt", "faces") and event.message.command != 1037]
    assert order[:2] == [("itgt", 7020), ("faces", 7019)], "who came first goes first"
    expect_all_done(camera, 1, 3)


@pytest.mark.seconds(8)
def test_answer_after_7_seconds_reaches_the_download_beside_which_a_clear_has_run(camera: Camera) -> None:
    slow_once(camera, camera.itgt, 7020, 7)
    start_download(camera)
    asked = camera.wait_for_log("Before recive msg from itgt")
    begin = len(camera.journal)
    assert camera.client.command("whiteListClear", CLEAR, timeout=10).status == 200
    replied = camera.wait_for_log("SendJsonMsg head", since=begin)
    waited = written(replied) - written(asked)
    assert TURN - 0.5 <= waited < at_most(7.0), "the clear waited for the silent exchange's turn, not for its reply"
    wait_end(camera)
    assert count_text(camera, "taskID is 4300000001") == 1
    expect_all_done(camera, 1, 3)


def both_asked(camera: Camera, command: int = 7020) -> tuple[wire.Message, int, wire.Message]:
    """Neither peer answers: the request of a download to ITGT, the tag of a clear, and its request."""
    camera.itgt.script(command, None)
    camera.faces.script(7019, None)
    start_download(camera)
    page = received(camera, "itgt", command).message
    tag = camera.client.send("whiteListClear", CLEAR)
    return page, tag, received(camera, "faces", 7019).message


@pytest.mark.seconds(6)
@pytest.mark.parametrize("first", ["itgt", "faces"])
def test_late_replies_of_both_reach_the_one_who_asked_in_either_order(camera: Camera, first: str) -> None:
    page, tag, clear = both_asked(camera)
    replies = {"itgt": lambda: camera.itgt.send(camera.itgt.default(page)),
               "faces": lambda: camera.faces.send(camera.faces.default(clear))}
    replies.pop(first)()
    replies.popitem()[1]()
    assert camera.client.wait_reply(tag).status == 200
    wait_end(camera)
    expect_all_done(camera, 1, 3)


@pytest.mark.seconds(6)
def test_other_command_counts_for_who_waits_alone_and_for_nobody_when_two_wait(camera: Camera) -> None:
    _, tag, clear = both_asked(camera, 7021)
    camera.itgt.send(wire.encode_reply(clear, command=7777), "/tmp/CP")
    camera.faces.send(camera.faces.default(clear))
    assert camera.client.wait_reply(tag).status == 200
    assert count_text(camera, "Current process is 0 / 0 ") == 0
    assert len(camera.itgt.requests(7021)) == 1
    camera.itgt.send(wire.encode_reply(clear, command=7777), "/tmp/CP")
    received(camera, "itgt", 7021, since=len(camera.journal))
    wait_end(camera)
    expect_all_done(camera, 1, 3)


def test_page_is_imported_when_itgt_comes_after_it_was_written(camera: Camera) -> None:
    camera.itgt.stop()
    start_download(camera, 31)
    camera.wait_for_log("sendTo fail:")
    assert camera.path(PAGE).exists()
    assert not camera.path("/tmp/mmcblk0/face_basic/faceLib/white30").exists()
    expect_working(camera)
    assert camera.client.command("whiteListDown", camera.platform.task(1)).status == 409
    assert camera.client.command("whiteListClear", CLEAR).status == 200
    camera.itgt.start()
    wait_end(camera)
    lines = texts(camera)
    assert "taskID is 0" not in lines
    assert lines.index(" DownLoad Picture Success.") > lines.index("after recive msg from itgt")
    expect_unsent(camera)
    assert camera.itgt.imports and len(camera.platform.reports) == 2


@pytest.mark.parametrize("path, start", [("/tmp/II", "itgt"), ("/tmp/A", "faces")])
def test_request_that_leads_back_to_the_service_is_no_reply(camera: Camera, path: str, start: str) -> None:
    peer = getattr(camera, start)
    peer.stop()
    camera.path(path).unlink(missing_ok=True)
    camera.path(path).symlink_to("CP")
    tag = (camera.client.send("whiteListDown", camera.platform.task(1)) if start == "itgt"
           else camera.client.send("whiteListClear", CLEAR))
    camera.wait_for_log("Before recive msg from itgt" if start == "itgt" else "cameraCode:C1")
    camera.path(path).unlink()
    peer.start()
    assert camera.client.wait_reply(tag).status == 200
    if start == "itgt":
        wait_end(camera)
    assert len(camera.platform.reports) == (start == "itgt")
    assert len(camera.faces.applied) == 3 * (start == "faces")


@pytest.mark.seconds(6)
def test_stop_ends_both_waits(camera: Camera) -> None:
    both_asked(camera)
    assert count_text(camera, END) == 0
    assert wait_stopped(camera, signal.SIGTERM) == 0
