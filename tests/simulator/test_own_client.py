"""A command client of one's own: what it sends is passed on and shown, with what is wrong in it."""

from __future__ import annotations

import contextlib
import socket
import struct
import threading
import time
from collections.abc import Callable, Iterator
from pathlib import Path

import pytest

from camsim_runs import Camsim, Up
from simulator import Camera
from simulator.journal import Journal
from simulator.messages import wire
from simulator.peers.client import Client
from simulator.peers.own_client import OwnClient, wrong_in_body, wrong_in_head

BODY = b'{"taskName":"faceNotHitDown","taskInfo":{"FaceID":7}}'


def head_of(tag: int, length: int, destination: bytes = b"/tmp/HK", source: bytes = b"/tmp/KH") -> bytes:
    return struct.pack("<8s8s224xI12xI20x", destination, source, tag, length)


class Program:
    """A client as somebody writes it, in a folder that stands for /tmp."""

    def __init__(self, folder: Path) -> None:
        self._folder = folder
        self._socket = socket.socket(socket.AF_UNIX, socket.SOCK_DGRAM)
        self._socket.settimeout(10)
        (folder / "KH").unlink(missing_ok=True)
        self._socket.bind(str(folder / "KH"))
        self._socket.connect(str(folder / "HK"))  # from now on it takes datagrams from there alone

    def send(self, *datagrams: bytes) -> None:
        for data in datagrams:
            self._socket.send(data)

    def reply(self) -> tuple[int, bytes]:
        head = self._socket.recv(1000)
        return struct.unpack_from("<I", head, 240)[0], self._socket.recv(1000)

    def close(self) -> None:
        self._socket.close()
        (self._folder / "KH").unlink()


@contextlib.contextmanager
def between(camera: Camera) -> Iterator[OwnClient]:
    with OwnClient(camera.journal, camera.client, camera.sandbox.folder) as own:
        assert own.there.wait(10)
        yield own


@pytest.fixture
def camera() -> Iterator[Camera]:
    with Camera() as one:
        yield one


def test_commands_and_replies_pass_and_are_noted(camera: Camera) -> None:
    with between(camera) as own:
        program = Program(own.folder)
        program.send(head_of(77, len(BODY)), BODY)
        assert program.reply() == (77, b'{\n  "StatusCode" : 200\n}')
        camera.wait_for(lambda event: event.kind == "own_reply")
        found = camera.journal.find("client")
        assert [event.kind for event in found] == ["own_command", "sent", "sent", "received", "received", "own_reply"]
        assert [event.data["data"] for event in found[1:3]] == [head_of(77, len(BODY)), BODY]
        assert (found[0].tag, found[0].wrong) == (77, [])
        assert camera.client.replies == []


def test_each_client_gets_its_own_replies(camera: Camera) -> None:
    with between(camera) as own:
        program = Program(own.folder)
        for tag in (1, 1, 5):
            program.send(head_of(tag, len(BODY)), BODY)
            assert program.reply()[0] == tag
            assert camera.client.command("faceNotHitDown", {"FaceID": 8}).status == 200
        assert len(camera.client.replies) == 3


def test_a_reply_belongs_to_whose_command_had_its_tag(tmp_path: Path) -> None:
    """Also while a command of the other is not answered."""
    client = Client(Journal(), tmp_path)
    own = OwnClient(Journal(), client, tmp_path)
    client.tags.add(1001)
    assert own._reply(head_of(5, 0), b"{}") is False  # nobody asked, so it is none of the own client's
    own._take(head_of(5, 2))
    assert own._reply(head_of(1001, 0), b"{}") is False
    assert own._reply(head_of(5, 0), b"{}") is True
    assert own._reply(head_of(5, 0), b"{}") is False


def test_a_head_that_is_too_short_is_answered_to_who_sent_it(camera: Camera) -> None:
    with between(camera) as own:
        program = Program(own.folder)
        program.send(b"short", BODY)
        assert program.reply()[1] == b'{\n  "StatusCode" : 400\n}'
        assert camera.journal.find("client", "own_command")[0].wrong == ["it has 5 bytes, not 280"]


def test_a_reply_that_finds_nobody_is_told(camera: Camera) -> None:
    with between(camera) as own:
        program = Program(own.folder)
        program.close()
        late = socket.socket(socket.AF_UNIX, socket.SOCK_DGRAM)
        for data in (head_of(9, len(BODY)), BODY):
            late.sendto(data, str(own.folder / "HK"))
        event = camera.wait_for(lambda event: event.kind == "own_lost")
        assert (event.tag, event.error) == (9, "No such file or directory")
        late.close()


def test_the_socket_is_there_while_the_service_takes_commands(camera: Camera) -> None:
    with between(camera) as own:
        camera.service.stop()
        deadline = time.monotonic() + 10
        while (own.folder / "HK").exists():
            assert time.monotonic() < deadline
            threading.Event().wait(0.01)  # pause: nothing tells of it, so it is looked at again
        camera.start_service()
        assert own.there.wait(10)
        assert (own.folder / "HK").exists()


@pytest.mark.parametrize("head, wrong", [
    (head_of(1, 5), []),
    (head_of(1, 5, b"/tmp/KH", b"/tmp/HK"), ["destPath is '/tmp/KH', not '/tmp/HK'",
                                             "srcPath is '/tmp/HK', not '/tmp/KH'"]),
    (head_of(1, 0), ["bodyLength is 0"]),
    (head_of(1, 0x35000000), ["bodyLength is 889192448; big-endian it would be 53, and numbers are little-endian"]),
    (head_of(1, 5)[:30] + b"\7" + head_of(1, 5)[31:], ["byte 30 is 7, not 0"]),
    (head_of(1, 5) + b"\0", ["it has 281 bytes, not 280"])])
def test_what_is_wrong_in_a_head(head: bytes, wrong: list[str]) -> None:
    assert wrong_in_head(head) == wrong


@pytest.mark.parametrize("length, body, wrong", [
    (len(BODY), BODY, []),
    (len(BODY) + 1, BODY, ["it has 53 bytes, and its head announced 54"]),
    (2, b"{]", ["it is no JSON: Expecting property name enclosed in double quotes: line 1 column 2 (char 1)"]),
    (2, b"[]", ['it is no object with a text "taskName"']),
    (16, b'{"taskName":"x"}', ['it has no object "taskInfo"'])])
def test_what_is_wrong_in_a_body(length: int, body: bytes, wrong: list[str]) -> None:
    assert wrong_in_body(wire.encode_head(1, length), body) == wrong


def test_it_is_shown_and_recorded(camsim: Camsim, up: Callable[..., Up], tmp_path: Path) -> None:
    one = up("--record", tmp_path / "run")
    folder = Path(one.first["client_folder"])
    program = Program(folder)
    program.send(head_of(3, len(BODY), b"/tmp/XX"), BODY)
    program.reply()
    assert camsim.run("send", "faceNotHitDown").returncode == 0
    assert one.stop() == 0
    texts = [line["text"] for line in one.lines if "text" in line]
    assert "your own client sends a command, tag 3; wrong in its head: destPath is '/tmp/XX', not '/tmp/HK'" in texts
    assert 'your own client\'s command 3 is answered: {"StatusCode": 200}' in texts
    trace = camsim.run("trace", tmp_path / "run").stdout
    assert "your own client sends a command, tag 3;" in trace
    assert trace.count("command faceNotHitDown") >= 2
