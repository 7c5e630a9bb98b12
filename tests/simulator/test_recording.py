"""Recorded runs: what a file holds, and what reading a damaged one says."""

from __future__ import annotations

import base64
import json
import re
from collections.abc import Callable
from pathlib import Path
from typing import Any

import jsonschema
import pytest

from simulator import CameraError, Journal, Reset, Response, Send, Wait, wire
from simulator.trace.recording import SCHEMA, Entry, Recorder, read
from support import PAGE, StartCamera, wait_end

ROOT = Path(__file__).resolve().parents[2]
HEAD = b'{"format": "camgate-recording", "version": 1, "began": "2026-01-01T00:00:00+00:00", "about": {"build": "x"}}\n'
LOG = b'{"time": 0.5, "type": "log", "level": "INFO", "path": "a", "line": 3, "text": "t", "written": ""}\n'


def recorded(folder: Path, act: Callable[[Journal], Any], **arguments: Any) -> list[Entry]:
    path = folder / "run"
    journal = Journal()
    with Recorder(journal, path, **arguments):
        act(journal)
    return read(path).entries


def test_whole_run(start_camera: StartCamera, tmp_path: Path) -> None:
    path = tmp_path / "run"
    camera = start_camera(recording=path)
    camera.platform.script(camera.platform.task_path, camera.platform.default, Response(503, b"\xff<b>"))
    assert camera.client.command("whiteListDown", camera.platform.task(31)).status == 200
    wait_end(camera)
    assert camera.client.command("whiteListClear", {"cameraCode": "C1"}).status == 200
    assert camera.client.command("faceNotHitDown", {"FaceID": 7}).status == 200
    camera.wait_until(lambda: camera.events.subscriptions)
    camera.events.publish(b"record")
    camera.close()
    validator = jsonschema.Draft4Validator(SCHEMA)
    for line in path.read_text().splitlines():
        validator.validate(json.loads(line))
    recording = read(path)
    version = re.search(r"^project\(camgate VERSION (\S+)", (ROOT / "CMakeLists.txt").read_text(), re.MULTILINE)
    assert version and recording.about["version"] == version[1]
    assert not recording.cut
    of = {kind: [entry for entry in recording.entries if entry.type == kind] for kind in
          ("datagram", "request", "response", "file", "buffer", "ring_record", "log", "fault")}
    passed = {(entry.fields["from"], entry.to, entry.socket) for entry in of["datagram"]}
    assert passed == {
        ("client", "service", "/tmp/HK"), ("service", "client", "/tmp/KH"), ("service", "itgt", "/tmp/II"),
        ("itgt", "service", "/tmp/CP"), ("service", "faces", "/tmp/A"), ("faces", "service", "/tmp/CP"),
        ("service", "events", "/mnt/srvfs/event.paas.olv"), ("events", "service", "/mnt/srvfs/event.paas.olv")}
    assert [entry.data for entry in of["datagram"] if entry.to == "itgt"] == camera.itgt.received
    assert [entry.head + b"\r\n\r\n" + entry.body for entry in of["request"]] == [
        request.raw for request in camera.platform.requests]
    page = camera.platform.page(0, 30)
    assert [entry.body for entry in of["response"]] == [page, b'{"result":"ok"}', b"\xff<b>"]
    assert of["response"][2].head.startswith(b"HTTP/1.1 503 Service Unavailable\r\n")
    assert [(entry.process, entry.path, entry.data == page) for entry in of["file"]] == [
        ("service", PAGE, True),
        ("itgt", "/tmp/mmcblk0/face_basic/white0.state.json", False),
        ("faces", "/tmp/mmcblk0/face_basic/facelists.json", False)]
    assert [entry.data for entry in of["buffer"]] == [wire.encode_block(b"record")]
    assert [entry.text for entry in of["ring_record"]] == ['{"FaceID":7}']
    assert [entry.text for entry in of["log"]] == [record.text for record in camera.service.log]
    assert [(entry.source, entry.name, entry.connection) for entry in of["fault"]] == [
        ("platform", "script", 1), ("platform", "script", 3)]
    assert [entry.time for entry in recording.entries] == sorted(entry.time for entry in recording.entries)


def test_steps_of_a_broken_answer(start_camera: StartCamera, tmp_path: Path) -> None:
    path = tmp_path / "run"
    camera = start_camera(recording=path)
    camera.platform.script(camera.platform.task_path, [Send(b"HTTP/1.1 \0"), Wait(0.01), Reset()])
    camera.client.command("whiteListDown", camera.platform.task(1))
    wait_end(camera)
    camera.close()
    steps = [entry.fields for entry in read(path).entries if entry.type == "step"]
    assert steps == [{"connection": 1, "step": "send", "data": b"HTTP/1.1 \0"},
                     {"connection": 1, "step": "wait", "seconds": 0.01}, {"connection": 1, "step": "reset"}]


def test_file_is_readable_while_it_grows_and_when_cut(tmp_path: Path) -> None:
    path = tmp_path / "run"
    journal = Journal()
    with Recorder(journal, path):
        journal.add("client", "sent", data=b"one")
        assert [entry.data for entry in read(path).entries] == [b"one"]
        journal.add("client", "sent", data=b"two")
        whole = path.read_bytes()
    for cut in range(1, len(whole.splitlines()[-1]) + 1):
        path.write_bytes(whole[:-cut])
        recording = read(path)
        assert [entry.data for entry in recording.entries] == [b"one"]
        assert recording.cut == (cut <= len(whole.splitlines()[-1]))


def test_values_that_json_cannot_hold(tmp_path: Path) -> None:
    odd = {"data": {"text": "\ud800 \u2028 \0", "nested": [b"\xff", {"base64": "no"}], "object": ValueError("x")}}
    entry, = recorded(tmp_path, lambda journal: journal.add("itgt", "strange", data=odd["data"]))
    assert entry.type == "note"
    assert entry.fields["data"]["data"]["text"] == "\ud800 \u2028 \0"
    assert entry.fields["data"]["data"]["nested"] == [{"base64": "/w=="}, {"base64": "no"}]
    assert entry.fields["data"]["data"]["object"] == "ValueError('x')"


@pytest.mark.parametrize("name", ["missing", "../outside", "folder", "x\0y"])
def test_page_file_that_is_not_there(tmp_path: Path, name: str) -> None:
    camera, outside = tmp_path / "camera", tmp_path / "outside"
    (camera / "folder").mkdir(parents=True)
    outside.write_text("not the camera's")
    request = wire.encode_request("/tmp/II", "/tmp/CP", 7020, directory="/", file_name=name)
    entries = recorded(tmp_path, lambda journal: journal.add("itgt", "received", message=request, command=7020),
                       outside=lambda path: camera / path.lstrip("/"))
    assert [entry.type for entry in entries] == ["datagram"]


def test_disk_that_fills_up_is_told_at_the_end(tmp_path: Path) -> None:
    journal = Journal()
    recorder = Recorder(journal, Path("/dev/full"))
    journal.add("client", "sent", data=b"one")
    with pytest.raises(CameraError, match="/dev/full is not complete: .*No space left"):
        recorder.close()


def test_recording_that_cannot_begin(tmp_path: Path) -> None:
    with pytest.raises(CameraError, match="cannot be recorded: .*no-folder"):
        Recorder(Journal(), tmp_path / "no-folder" / "run")


@pytest.mark.parametrize("content, message", [
    (b"", "line 1: the recording is damaged"),
    (b"\x7fELF\n", "line 1: the recording is damaged"),
    (b'{"format": "other"}\n', "line 1: this is not a recording"),
    (b"[]\n", "line 1: the recording is damaged: the line is not a JSON object"),
    (HEAD.replace(b'"version": 1', b'"version": 2'), "line 1: the recording has version 2; .* reads version 1"),
    (HEAD + LOG + b"{\n" + LOG, "line 3: the recording is damaged"),
    (HEAD + LOG + b"\n" + LOG, "line 3: the recording is damaged"),
    (HEAD + b"[" * 100_000 + b"\n", "line 2: the recording is damaged"),
    (HEAD + LOG.replace(b'"time": 0.5', b'"time": "x"'), 'line 2: an entry has a number "time" and a "type"'),
    (HEAD + LOG.replace(b'"time": 0.5', b'"time": NaN'), 'line 2: an entry has a number "time" and a "type"'),
    (HEAD + LOG.replace(b'"log"', b'"other"'), 'line 2: an entry has a number "time" and a "type"'),
    (HEAD + LOG.replace(b'"line": 3, ', b""), 'line 2: a log has "line", a whole number'),
    (HEAD + b'{"time": 0, "type": "datagram", "from": "a", "to": "b", "socket": "c", "data": "x"}\n',
     r'line 2: a datagram has "data", bytes as \{"base64": ...\}'),
    (HEAD + b'{"time": 0, "type": "buffer", "buffer_id": 1, "data": {"base64": "?"}}\n',
     r'line 2: a buffer has bytes as \{"base64": ...\}: '),
    (HEAD + b'{"time": 0, "type": "step", "connection": 1, "step": "jump"}\n',
     'line 2: a step has "step", one of send, wait, close, reset'),
])
def test_damaged_file_names_the_line(tmp_path: Path, content: bytes, message: str) -> None:
    path = tmp_path / "run"
    path.write_bytes(content)
    with pytest.raises(CameraError, match=message):
        read(path)


def test_file_that_is_not_there(tmp_path: Path) -> None:
    with pytest.raises(CameraError, match="cannot be read: .*nothing"):
        read(tmp_path / "nothing")


def test_format_on_disk(tmp_path: Path) -> None:
    """What other programs may rely on."""
    path = tmp_path / "run"
    journal = Journal()
    with Recorder(journal, path, about={"build": "host"}):
        journal.add("events", "notified", data=b"\0\1")
    head, entry = (json.loads(line) for line in path.read_bytes().splitlines())
    assert (head["format"], head["version"], head["about"]) == ("camgate-recording", 1, {"build": "host"})
    assert head["began"].startswith("20") and head["began"].endswith("+00:00")
    assert 0 <= entry.pop("time") < 5
    assert entry == {"type": "datagram", "from": "events", "to": "service", "socket": "/mnt/srvfs/event.paas.olv",
                     "data": {"base64": base64.b64encode(b"\0\1").decode()}}
