"""A stop signal ends the service with 0 within about a second, whatever it is doing."""

from __future__ import annotations

import contextlib
import json
import signal
import threading
from collections.abc import Callable
from pathlib import Path

import pytest

from simulator import NEVER, Camera, Event, trickle, wire
from support import (BEGIN, PAGE, STOP_SECONDS, TASK, WRITE_LOG, StartCamera, expect_log, expect_working, poll_until,
                     received, start_download, wait_stopped)

SIGNALS = [signal.SIGTERM, signal.SIGINT, signal.SIGQUIT]


def idle(camera: Camera) -> None:
    expect_working(camera)


def between_head_and_body(camera: Camera) -> None:
    camera.client.send_raw(wire.encode_head(1, 10))
    camera.client.send_raw(b"")
    camera.client.wait_reply(1)
    camera.client.send_raw(wire.encode_head(2, 10))


def page_coming_slowly(camera: Camera) -> None:
    camera.platform.picture_sizes = (20_000, 200_000)
    camera.platform.script(camera.platform.task_path,
                           lambda request: trickle(camera.platform.default(request).encode(), 10_000, 0.05))
    start_download(camera, 31)
    camera.wait_for(lambda event: event.matches("platform", "request"))


def between_many_pages(camera: Camera) -> None:
    start_download(camera, 30_000)
    camera.wait_until(lambda: len(camera.platform.reports) >= 3)


def silent(peer: str, command: int) -> Callable[[Camera], None]:
    """The peer does not answer this command."""
    def bring_about(camera: Camera) -> None:
        getattr(camera, peer).script(command, None)
        if peer == "itgt":
            start_download(camera, 31)
        else:
            camera.client.send("whiteListClear", {"cameraCode": "C1"})
        received(camera, peer, command)
    return bring_about


def absent_itgt(camera: Camera) -> None:
    camera.itgt.stop()
    start_download(camera, 31)
    camera.wait_for_log("sendTo fail:")


def absent_faces(camera: Camera) -> None:
    camera.faces.stop()
    camera.client.send("whiteListClear", {"cameraCode": "C1"})
    camera.wait_for_log("sendTo fail:")


def pause_between_tries(camera: Camera) -> None:
    camera.itgt.not_ready_answers = 5
    start_download(camera, 31)
    camera.wait_for_log("Not Ready, try ")


def pause_after_another_answer(camera: Camera) -> None:
    camera.itgt.script(7021, lambda request: wire.encode_reply(request, command=7777))
    start_download(camera, 31)
    camera.wait_for(lambda event: event.matches("itgt", "sent") and event.message.command == 7777)


def hanging_connect(camera: Camera) -> None:
    start_download(camera, 31, taskURL=f"https://127.0.0.1:{camera.platform.full_port}/x")
    camera.wait_for_log("Http URI:/x ")


def hanging_handshake(camera: Camera) -> None:
    camera.platform.on_connect = lambda connection: NEVER
    start_download(camera, 31)
    camera.wait_for(lambda event: event.matches("platform", "accepted"))


def silent_platform_at_page(camera: Camera) -> None:
    camera.platform.script(camera.platform.task_path, None)
    start_download(camera, 31)
    camera.wait_for(lambda event: event.matches("platform", "request"))


def silent_platform_at_report(camera: Camera) -> None:
    camera.platform.script(camera.platform.result_path, None)
    start_download(camera, 31)
    camera.wait_for(lambda event: event.matches("platform", "report"))


def clear_waiting_for_its_turn(camera: Camera) -> None:
    silent("itgt", 7021)(camera)
    camera.client.send("whiteListClear", {"cameraCode": "C1"})
    camera.wait_for_log("cameraCode:C1", since=len(camera.journal) - 1)


STATES = {state.__name__: state for state in (
    idle, between_head_and_body, page_coming_slowly, between_many_pages, absent_itgt, absent_faces, pause_between_tries,
    pause_after_another_answer, hanging_connect, hanging_handshake, silent_platform_at_page, silent_platform_at_report,
    clear_waiting_for_its_turn)}
STATES |= {"silent_itgt_after_page": silent("itgt", 7020), "silent_itgt_at_progress": silent("itgt", 7021),
           "silent_itgt_at_time": silent("itgt", 7031), "silent_faces_at_clear": silent("faces", 7019),
           "silent_faces_at_set": silent("faces", 7018)}


@pytest.mark.parametrize("state", STATES)
def test_stop_within_about_a_second_in_every_state(camera: Camera, state: str) -> None:
    STATES[state](camera)
    assert wait_stopped(camera, signal.SIGTERM) == 0


@pytest.mark.parametrize("number", SIGNALS, ids=lambda number: number.name)
@pytest.mark.parametrize("state", ["idle", "silent_itgt_at_progress"])
def test_each_stop_signal_ends_with_0(camera: Camera, number: signal.Signals, state: str) -> None:
    STATES[state](camera)
    assert wait_stopped(camera, number) == 0


@pytest.mark.parametrize("second", SIGNALS, ids=lambda number: number.name)
@pytest.mark.parametrize("state", ["idle", "silent_platform_at_page"])
def test_second_signal_right_behind_changes_nothing(camera: Camera, second: signal.Signals, state: str) -> None:
    STATES[state](camera)
    camera.service.send_signal(signal.SIGTERM)
    assert wait_stopped(camera, second) == 0


def test_many_signals_at_once_change_nothing(camera: Camera) -> None:
    silent("itgt", 7020)(camera)
    for number in SIGNALS * 30:
        camera.service.send_signal(number)
    assert camera.service.wait(STOP_SECONDS) == 0


@pytest.mark.parametrize("number", SIGNALS, ids=lambda number: number.name)
def test_signal_right_after_the_line_that_announces_the_wait(start_camera: StartCamera, number: signal.Signals) -> None:
    camera = start_camera(start=False)

    def stop(event: Event) -> None:
        if event.matches("service", "log") and "waitForTerminationRequest" in event.record.text:
            camera.service.send_signal(number)

    camera.journal.listen(stop)
    camera.start_service(wait=False)
    assert camera.service.wait() == 0


def test_stop_while_commands_rain_down(camera: Camera) -> None:
    stopped = threading.Event()

    def rain() -> None:
        while not stopped.is_set():
            with contextlib.suppress(OSError):
                camera.client.send("faceNotHitDown", {"a": "b" * 1000})

    thread = threading.Thread(target=rain)
    thread.start()
    try:
        camera.wait_until(lambda: len(camera.client.replies) > 20)
        assert wait_stopped(camera, signal.SIGTERM) == 0
    finally:
        stopped.set()
        thread.join()


def test_stop_without_a_client_that_takes_replies(camera: Camera) -> None:
    camera.client.send_body(b"[]")
    camera.client.stop()
    assert wait_stopped(camera, signal.SIGTERM) == 0


def test_stop_after_the_event_publisher_went_away(camera: Camera) -> None:
    camera.events.stop()
    expect_working(camera)
    assert wait_stopped(camera, signal.SIGTERM) == 0


def test_stop_in_the_middle_of_an_import_leaves_the_page_file(camera: Camera) -> None:
    silent("itgt", 7021)(camera)
    assert wait_stopped(camera, signal.SIGTERM) == 0
    page = camera.path(PAGE).read_bytes()
    assert len(json.loads(page)["records"]) == 30
    assert camera.platform.reports == []


def test_stop_aborts_a_connect_rather_than_failing_it(camera: Camera) -> None:
    """A download that the stop ends leaves no record of a failure that was none."""
    hanging_connect(camera)
    assert wait_stopped(camera, signal.SIGTERM) == 0
    assert not [record.text for record in camera.service.log if record.text.startswith("SendMsgAndRecvResponse err")]


def test_it_serves_again_after_a_stop_in_the_middle_of_a_download(camera: Camera) -> None:
    silent("itgt", 7021)(camera)
    assert wait_stopped(camera, signal.SIGTERM) == 0
    camera.start_service()
    begin = len(camera.journal)
    start_download(camera, 31)
    expect_log(camera, "INFO", TASK, BEGIN, since=begin)
    camera.wait_until(lambda: len(camera.platform.reports) == 2)


def test_stop_does_not_wait_for_a_descriptor_held_elsewhere(camera: Camera) -> None:
    """Nothing of the service outlives it: its process is gone when its exit code is there."""
    page_coming_slowly(camera)
    pid = camera.service.pid
    assert wait_stopped(camera, signal.SIGTERM) == 0
    assert not Path(f"/proc/{pid}").exists()


def test_stop_as_soon_as_the_command_socket_is_there(start_camera: StartCamera) -> None:
    camera = start_camera(wait=False)
    poll_until(camera.path("/tmp/HK").exists)
    assert wait_stopped(camera, signal.SIGTERM) == 0


# The signal comes while the command is being served: from there to its end the tasks have half a second to be told.
STOPPED_IN_A_COMMAND = WRITE_LOG + r"""
    NEXT(QL_WriteLog)(module, level, debugFlag, reserved, path, line, "%s", text);
    if (strncmp(format, "taskResultURL", 13) == 0) {
        kill(getpid(), SIGTERM);
        usleep(500000);  // pause: the command goes on when the tasks were told
    }
}
"""


def test_download_whose_command_is_served_when_the_stop_comes_does_not_start(with_library: StartCamera) -> None:
    camera = with_library(STOPPED_IN_A_COMMAND)
    tag = camera.client.send("whiteListDown", camera.platform.task(31))
    assert camera.service.wait(STOP_SECONDS) == 0
    assert camera.client.wait_reply(tag).status == 400
    logged = [record.text for record in camera.service.log]
    assert BEGIN not in logged
    assert any(text.startswith("DownWhiteHandler Err ") for text in logged)
    assert camera.platform.requests == []
