"""Recorded runs: what a file holds, and what reading a damaged one says."""

from __future__ import annotations

import base64
import hashlib
import json
import re
import tracemalloc
import zlib
from collections.abc import Callable
from pathlib import Path
from typing import Any

import jsonschema
import pytest

from simulator import CameraError, Journal, Reset, Response, Send, Wait, wire
from simulator.peers.pictures import picture
from simulator.trace.explanation import explain
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
    for line in path.read_bytes().splitlines():
        validator.validate(json.loads(line.partition(b"\t")[0]))
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
    request = wire.encode_request("/tmp/II", "/tmp/CP", 7020, ImportFileDirectory="/", ImportFileName=name)
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
    (HEAD.replace(b'"version": 1', b'"version": 3'), "line 1: the recording has version 3; .* reads versions 1 and 2"),
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
    assert (head["format"], head["version"], head["about"]) == ("camgate-recording", 2, {"build": "host"})
    assert head["began"].startswith("20") and head["began"].endswith("+00:00")
    assert 0 <= entry.pop("time") < 5
    assert entry == {"type": "datagram", "from": "events", "to": "service", "socket": "/mnt/srvfs/event.paas.olv",
                     "data": {"base64": base64.b64encode(b"\0\1").decode()}}


LONG_MESSAGE = bytes(21_408)
LONG_BYTES = b"{" + bytes(range(256)) * 40 + b"=n=e\n"


def long_run(journal: Journal) -> None:
    journal.add("itgt", "file", path="/a", content=LONG_BYTES)
    journal.add("itgt", "file", path="/b", content=LONG_BYTES)
    journal.add("itgt", "file", path="/c", content=b"short")
    journal.add("client", "sent", data=LONG_MESSAGE)


def test_long_bytes_are_kept_once_and_come_back_as_they_were(tmp_path: Path) -> None:
    entries = recorded(tmp_path, long_run)
    assert [entry.data for entry in entries] == [LONG_BYTES, LONG_BYTES, b"short", LONG_MESSAGE]
    assert [entry.number for entry in entries] == [3, 4, 5, 7], "the lines of the file"
    head, content, *rest = (tmp_path / "run").read_bytes().splitlines()
    assert json.loads(head)["bodies"] is True
    document, _, packed = content.partition(b"\t")
    digest = hashlib.sha256(LONG_BYTES).hexdigest()
    assert json.loads(document) == {"type": "content", "sha256": digest, "size": len(LONG_BYTES)}
    plain = packed.replace(b"=n", b"\n").replace(b"=r", b"\r").replace(b"=e", b"=")
    assert zlib.decompress(plain) == LONG_BYTES
    assert [json.loads(line)["data"] for line in rest[:3]] == [
        *[{"sha256": digest, "size": len(LONG_BYTES)}] * 2, {"base64": "c2hvcnQ="}]


def test_pages_take_hardly_more_than_their_pictures(start_camera: StartCamera, tmp_path: Path) -> None:
    camera = start_camera(recording=tmp_path / "run")
    camera.platform.picture_sizes = (20_000, 200_000)
    assert camera.client.command("whiteListDown", camera.platform.task(75)).status == 200
    wait_end(camera)
    camera.close()
    pictures = sum(len(picture(number)) for number in range(75))
    assert pictures < (tmp_path / "run").stat().st_size < 1.1 * pictures


def test_recording_without_bodies_has_their_sizes(tmp_path: Path) -> None:
    one, other, short, message = recorded(tmp_path, long_run, bodies=False)
    assert message.data == LONG_MESSAGE, "what the processes say to each other stays"
    assert not read(tmp_path / "run").bodies
    assert (one.data, other.data.size, short.data) == (b"", len(LONG_BYTES), b"short")
    assert other.data.sha256 == hashlib.sha256(LONG_BYTES).hexdigest()
    assert (tmp_path / "run").stat().st_size < 1500


def test_recording_of_the_first_form_is_read(tmp_path: Path) -> None:
    (tmp_path / "run").write_bytes(HEAD + LOG + b'{"time": 1, "type": "file", "process": "itgt", "path": "/a", "data": '
                                   b'{"base64": "' + base64.b64encode(LONG_BYTES) + b'"}}\n')
    recording = read(tmp_path / "run")
    assert recording.bodies and [entry.type for entry in recording.entries] == ["log", "file"]
    assert recording.entries[1].data == LONG_BYTES and recording.entries[-2:][0].line == 3


@pytest.mark.parametrize("change, message", [
    (lambda content: b"", 'line 2: a file has bytes as .*: no line before has those with the SHA-256 [0-9a-f]{64}'),
    (lambda content: content.replace(b"\t", b"\tx"), "line 2: the recording is damaged: Error -3"),
    (lambda content: content.partition(b"\t")[0] + b"\t" + zlib.compress(b"x").replace(b"=", b"=e") + b"\n",
     "line 2: the recording is damaged: the bytes are others"),
    (lambda content: content.partition(b"\t")[0][:-1] + b"\t\n", "line 2: the recording is damaged"),
])
def test_damaged_long_bytes_are_found(tmp_path: Path, change: Callable[[bytes], bytes], message: str) -> None:
    recorded(tmp_path, long_run)
    lines = (tmp_path / "run").read_bytes().splitlines(keepends=True)
    (tmp_path / "run").write_bytes(b"".join([lines[0], change(lines[1]), *lines[2:]]))
    with pytest.raises(CameraError, match=message):
        list(read(tmp_path / "run").entries)


def test_memory_does_not_grow_with_the_bodies(tmp_path: Path) -> None:
    """What a run of many pages is read with."""
    def many(journal: Journal) -> None:
        for number in range(40):
            journal.add("itgt", "file", path="/a", content=b"%d" % number * 1_000_000)
    recorded_here = tmp_path / "run"
    journal = Journal()
    with Recorder(journal, recorded_here):
        many(journal)
    del journal
    tracemalloc.start()
    try:
        items = list(explain(read(recorded_here).entries))
        assert tracemalloc.get_traced_memory()[1] < 20_000_000
    finally:
        tracemalloc.stop()
    assert [item.size for item in items] == [1_000_000] * 10 + [2_000_000] * 30
