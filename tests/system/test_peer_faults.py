"""Peers that are not there, say nothing or cannot be reached, at each exchange: what else goes on, and how it ends."""

from __future__ import annotations

import contextlib
import signal
import socket
from collections.abc import Iterator
from pathlib import Path

import pytest

from simulator import Camera
from support import (LOOP, StartCamera, download, expect_log, expect_unsent, expect_working, received, start_download,
                     start_polling, wait_end, wait_stopped)


@contextlib.contextmanager
def at(camera: Camera, path: str, kind: str) -> Iterator[socket.socket]:
    """A peer's socket that is of no use: left behind by a process, forbidden to others, with a full queue, absent."""
    camera.path(path).unlink(missing_ok=True)
    with socket.socket(socket.AF_UNIX, socket.SOCK_DGRAM) as peer:
        peer.bind(str(camera.path(path)))
        camera.path(path).chmod(0 if kind == "forbidden" else 0o666)
        if kind in ("left behind", "absent"):
            peer.close()
        if kind == "absent":
            camera.path(path).unlink()
        if kind == "full":
            with contextlib.suppress(BlockingIOError), socket.socket(socket.AF_UNIX, socket.SOCK_DGRAM) as sender:
                sender.setblocking(False)
                while True:
                    sender.sendto(b"", str(camera.path(path)))
        yield peer
    camera.path(path).unlink(missing_ok=True)


USELESS = ["left behind", "forbidden", "full", "absent"]


@pytest.mark.parametrize("kind", USELESS)
def test_useless_itgt_at_the_start_is_logged_and_commands_are_served(start_camera: StartCamera, kind: str) -> None:
    """The notice 1037 is not repeated: ITGT does without it, however late it comes."""
    camera = start_camera(itgt=False, start=False)
    with at(camera, "/tmp/II", kind):
        camera.start_service()
        expect_unsent(camera)
        expect_working(camera)
    camera.itgt.start()
    download(camera, 1)
    assert len(camera.platform.reports) == 1
    assert camera.itgt.requests(1037) == []


@pytest.mark.parametrize("kind", USELESS)
def test_useless_client_is_logged_and_answered_again_when_it_comes_back(camera: Camera, kind: str) -> None:
    body = b'{"taskName":"nothing","taskInfo":{}}'
    begin = len(camera.journal)
    camera.client.stop()
    with at(camera, "/tmp/KH", kind):
        with socket.socket(socket.AF_UNIX, socket.SOCK_DGRAM) as sender:
            for data in (len(body).to_bytes(4, "little").rjust(260, b"\0").ljust(280, b"\0"), body):
                sender.sendto(data, str(camera.path("/tmp/HK")))
        record = camera.wait_for_log("SendJsonMsg fail:", since=begin)
        assert (record.level, record.path) == ("ERROR", LOOP)
    camera.client.start()
    expect_working(camera)


@pytest.mark.parametrize("kind", USELESS)
def test_useless_face_library_is_waited_for_and_gets_its_lists_when_it_comes_back(camera: Camera, kind: str) -> None:
    camera.faces.stop()
    with at(camera, "/tmp/A", kind):
        tag = camera.client.send("whiteListClear", {"cameraCode": "C"})
        expect_unsent(camera)
        assert camera.client.replies == []
    camera.faces.start()
    assert camera.client.wait_reply(tag).status == 200
    assert len(camera.faces.applied) == 3
    expect_unsent(camera)


@pytest.mark.parametrize("kind", USELESS)
def test_useless_itgt_is_waited_for_and_imports_the_page_when_it_comes_back(camera: Camera, kind: str) -> None:
    camera.itgt.stop()
    with at(camera, "/tmp/II", kind):
        start_download(camera, 31)
        expect_unsent(camera)
        expect_working(camera)
    camera.itgt.start()
    wait_end(camera)
    expect_unsent(camera)
    assert [len(camera.itgt.requests(command)) for command in (7020, 7021, 7031)] == [2, 2, 2]
    assert [request.json()["startIndex"] for request in camera.platform.reports] == [0, 30]


def test_client_that_reads_late_gets_the_replies_that_its_queue_had_room_for(camera: Camera) -> None:
    """The service waits for nobody: what does not fit is lost and logged, a head without its body at most."""
    camera.client.stop()
    body = b'{"taskName":"nothing","taskInfo":{}}'
    head = len(body).to_bytes(4, "little").rjust(260, b"\0").ljust(280, b"\0")
    with at(camera, "/tmp/KH", "slow") as slow, socket.socket(socket.AF_UNIX, socket.SOCK_DGRAM) as sender:
        begin = len(camera.journal)
        room = int(Path("/proc/sys/net/unix/max_dgram_qlen").read_text())
        for _ in range(room):
            sender.sendto(head, str(camera.path("/tmp/HK")))
            sender.sendto(body, str(camera.path("/tmp/HK")))
        camera.wait_until(lambda: sum("not supported" in record.text for record in camera.service.log) == room)
        camera.wait_for_log("SendJsonMsg fail:", since=begin)
        slow.setblocking(False)
        sizes = []
        with contextlib.suppress(BlockingIOError):
            while True:
                sizes.append(len(slow.recv(1000)))
    assert sizes[:room] == [280, 24] * (room // 2)
    camera.client.start()
    expect_working(camera)


def test_half_a_command_is_waited_for_and_completed_late(camera: Camera) -> None:
    """Without limit; a download goes on meanwhile, and a stop is as quick as ever."""
    body = b'{"taskName":"faceNotHitDown","taskInfo":{}}'
    camera.itgt.delay = 0.2
    start_download(camera)
    head = (7).to_bytes(4, "little").rjust(244, b"\0").ljust(256, b"\0") + len(body).to_bytes(4, "little")
    camera.client.send_raw(head.ljust(280, b"\0"))
    wait_end(camera)
    assert len(camera.platform.reports) == 1
    camera.client.send_raw(body)
    assert camera.client.wait_reply(7).status == 200
    camera.client.send_raw(head.ljust(280, b"\0"))
    assert wait_stopped(camera, signal.SIGTERM) == 0


@pytest.mark.seconds(6)
@pytest.mark.parametrize("then", ["is silent", "dies", "restarts"])
@pytest.mark.parametrize("command", [7020, 7021, 7031])
def test_itgt_that_never_answers_holds_up_its_download_only(camera: Camera, command: int, then: str) -> None:
    """The download waits without limit and stays the one that runs; a stop ends it."""
    camera.itgt.script(command, None)
    start_download(camera, 31)
    received(camera, "itgt", command)
    if then != "is silent":
        camera.itgt.stop()
    if then == "restarts":
        camera.itgt.start()
    expect_working(camera)
    assert camera.client.command("whiteListDown", camera.platform.task(1)).status == 409
    assert camera.client.command("whiteListClear", {"cameraCode": "C"}, timeout=15).status == 200
    assert len(camera.faces.applied) == 3
    expect_working(camera)
    assert camera.client.command("whiteListDown", camera.platform.task(1)).status == 409
    assert wait_stopped(camera, signal.SIGTERM) == 0
    camera.itgt.start()
    camera.start_service()
    download(camera)


@pytest.mark.seconds(6)
@pytest.mark.parametrize("then", ["is silent", "dies", "restarts"])
@pytest.mark.parametrize("command", [7019, 7018])
def test_face_library_that_never_answers_holds_up_commands_and_no_download(camera: Camera, command: int,
                                                                           then: str) -> None:
    """The command loop waits without limit; the download beside it goes on, and a stop is as quick as ever."""
    start_polling(camera)
    camera.faces.script(command, None)
    camera.client.send("whiteListClear", {"cameraCode": "C"})
    received(camera, "faces", command)
    if then != "is silent":
        camera.faces.stop()
    if then == "restarts":
        camera.faces.start()
    wait_end(camera, timeout=30)
    assert len(camera.platform.reports) == 1
    assert wait_stopped(camera, signal.SIGTERM) == 0
    camera.faces.start()
    camera.start_service()
    assert camera.client.command("whiteListClear", {"cameraCode": "C"}).status == 200


def test_face_library_that_answers_late_is_waited_for_and_waiting_commands_are_served_in_order(camera: Camera) -> None:
    camera.faces.delay = 0.5
    tags = [camera.client.send("whiteListClear", {"cameraCode": "C"}), camera.client.send("nothing", {})]
    assert camera.client.wait_reply(tags[1]).status == 400
    assert [reply.tag for reply in camera.client.replies] == tags
    assert camera.client.replies[0].status == 200


# The socket of the n-th exchange, counted from the start, cannot be bound.
UNBOUND = r"""
int bind(int file, const struct sockaddr* address, socklen_t length) {
    static int exchanges;
    const char* path = ((const struct sockaddr_un*)address)->sun_path;
    if (address->sa_family == AF_UNIX && strncmp(path, "/tmp/CP", 7) == 0 && ++exchanges == %d) {
        errno = %s;
        return -1;
    }
    return NEXT(bind)(file, address, length);
}
"""
EXCHANGES = {"7020": (1, "SendSysObj err ", 0), "7021": (2, "CustomJsonPicDownloadTask Err ", 0),
             "7031": (3, "ReportPageResult err ", 1)}


@pytest.mark.parametrize("cause", ["ENOSPC", "EACCES"])
@pytest.mark.parametrize("number, logged, reports", EXCHANGES.values(), ids=EXCHANGES.keys())
def test_exchange_with_itgt_that_gets_no_socket_ends_as_logged(with_library: StartCamera, number: int, logged: str,
                                                               reports: int, cause: str) -> None:
    """No inode for the name on a full file system, or no right to make it."""
    camera = with_library(UNBOUND % (number, cause))
    start_download(camera, 31)
    camera.wait_for_log(logged)
    if logged != "CustomJsonPicDownloadTask Err ":
        wait_end(camera)
    assert len(camera.platform.reports) == reports
    download(camera, 1)
    assert len(camera.platform.reports) == reports + 1


@pytest.mark.parametrize("cause", ["ENOSPC", "EACCES"])
def test_clear_that_gets_no_socket_is_answered_400(with_library: StartCamera, cause: str) -> None:
    camera = with_library(UNBOUND % (1, cause))
    assert camera.client.command("whiteListClear", {"cameraCode": "C"}).status == 400
    expect = camera.wait_for_log("PUBLIC_JSON Err ")
    assert (expect.level, expect.path) == ("ERROR", LOOP)
    assert camera.client.command("whiteListClear", {"cameraCode": "C"}).status == 200
    assert expect_log(camera, "INFO", LOOP, "CMD_ALARM_FACE_LIB_SET TaskID:1 FaceListName Staff", 407)
