"""`camsim export`: what tshark shows of a recorded run, compared with the recording."""

from __future__ import annotations

import json
import struct
import tracemalloc
from collections.abc import Callable
from datetime import datetime
from pathlib import Path
from typing import Any

import pytest

from camsim_runs import ROOT, Camsim
from capture_oracle import COMMANDS, DISSECTOR, FORMATS, NAMES, TABLES, decoded, entries, http_bodies, shown
from simulator import Journal, Reset, Response, Send, wire
from simulator.capture.capture import write
from simulator.messages.http import Request
from simulator.trace.recording import Recorder, read
from support import StartCamera, wait_end

MESSAGE_FIELDS = [f"camgate.{name}" for name in NAMES]
PASSED = ["camgate.from", "camgate.to", "camgate.socket", "camgate.taskName", "camgate.StatusCode", "camgate.name"]


def export(camsim: Camsim, recording: Path) -> Path:
    capture = recording.with_suffix(".pcapng")
    done = camsim.run("export", recording, "--pcapng", capture)
    assert done.returncode == 0, done.stderr
    return capture


def played(start_camera: StartCamera, path: Path, **arguments: Any) -> list[dict[str, Any]]:
    """A run in which every message passes; its entries behind the head."""
    camera = start_camera(recording=path, **arguments)
    assert camera.client.command("whiteListDown", camera.platform.task(31)).status == 200
    wait_end(camera)
    assert camera.client.command("whiteListClear", {"cameraCode": "C1"}).status == 200
    assert camera.client.command("faceNotHitDown", {"FaceID": 7}).status == 200
    assert camera.client.command("nonsense", {}).status == 400
    camera.wait_until(lambda: camera.events.subscriptions)
    camera.events.publish({"Timestamp": 1})
    camera.close()
    return list(entries(path))


def fields_of(entry: dict[str, Any], heads: dict[str, bool]) -> dict[str, str]:
    """What a datagram's packet must have; `heads` knows whether the next datagram of a socket is a head."""
    data, socket = entry["data"], entry["socket"]
    passed = {"from": entry["from"], "to": entry["to"], "socket": socket}
    if socket in ("/tmp/HK", "/tmp/KH"):
        heads[socket] = not heads.get(socket, False)
        if heads[socket]:
            return {**passed, **decoded(data, "Command head")}
        members = json.loads(data)
        return {**passed, **{name: str(members[name]) for name in ("taskName", "StatusCode") if name in members}}
    if socket == "/mnt/srvfs/event.paas.olv" and entry["from"] == "service":
        return {**passed, **decoded(data, "Subscription header"), **decoded(data, "Subscription body", base=16)}
    if socket == "/mnt/srvfs/event.paas.olv":
        head = decoded(data, "Notification")
        return {**passed, **head, **decoded(data, "Buffer descriptor", base=int(head["descriptorOffset"]))}
    head = decoded(data, "MSG_DATA")
    heading = COMMANDS[int(head["command"])]
    direction = "request" if entry["from"] == "service" else "reply"
    name = {"name": heading[5:] or "CMD_CUSTOM_PROTOCOL_READY"}
    return {**passed, **name, **head, **decoded(data, heading, direction)}


def test_every_field_of_every_message(camsim: Camsim, start_camera: StartCamera, tmp_path: Path) -> None:
    head, *run = played(start_camera, tmp_path / "run")
    capture = export(camsim, tmp_path / "run")
    heads: dict[str, bool] = {}
    datagrams = [entry for entry in run if entry["type"] == "datagram"]
    expected = [{f"camgate.{name}": value for name, value in fields_of(entry, heads).items() if value}
                for entry in datagrams]
    seen = shown(capture, *PASSED, *MESSAGE_FIELDS, only='camgate.kind == "datagram"')
    assert seen == expected
    # None was forgotten: each field of each table was in a message; this one is in a buffer.
    assert {name for row in seen for name in row} == {*PASSED, *MESSAGE_FIELDS} - {"camgate.dataLength"}
    assert shown(capture, "camgate.kind", only="camgate.malformed || camgate.strange || _ws.malformed") == []
    times = [float(row["frame.time_epoch"])
             for row in shown(capture, "frame.time_epoch", only='camgate.kind == "datagram"')]
    began = datetime.fromisoformat(head["began"]).timestamp()
    assert times == pytest.approx([began + entry["time"] for entry in datagrams], abs=2e-6, rel=0)


# Of each type a number that no narrower one and none of the other sign can have.
NUMBERS = {"u8": 2**7 + 1, "u16": 2**15 + 2, "u32": 2**31 + 3, "i32": -2**31 + 4, "u64": 2**63 + 5, "i64": -2**63 + 6}


def full(command: int, direction: str) -> bytes:
    """Numbers of their full range, and texts without a NUL, as far as no other field lies in them."""
    message = bytearray(21408)
    for in_, offset, kind, _ in TABLES.get(COMMANDS[command], []) + TABLES["MSG_DATA"]:
        if in_ in (direction, ""):
            data = struct.pack(FORMATS[kind], NUMBERS[kind]) if kind in FORMATS else b"x" * int(kind[5:-1])
            message[offset:offset + len(data)] = data
    message[164:168] = command.to_bytes(4, "little")
    return bytes(message)


def test_fields_have_their_whole_width(camsim: Camsim, tmp_path: Path) -> None:
    messages = [(command, direction, full(command, direction))
                for command in sorted(COMMANDS) for direction in ("request", "reply")]
    recording = recorded(tmp_path / "run", lambda journal: [
        journal.add("itgt", "received" if direction == "request" else "sent", path="/tmp/CP", data=data)
        for _, direction, data in messages])
    expected = [{**decoded(data, "MSG_DATA"), **decoded(data, COMMANDS[command], direction)}
                for command, direction, data in messages]
    assert shown(export(camsim, recording), *MESSAGE_FIELDS) == [
        {f"camgate.{name}": value for name, value in one.items()} for one in expected]


def test_what_else_passes_in_the_camera(camsim: Camsim, start_camera: StartCamera, tmp_path: Path) -> None:
    _, *run = played(start_camera, tmp_path / "run")
    capture = export(camsim, tmp_path / "run")
    of = {kind: [entry for entry in run if entry["type"] == kind] for kind in ("log", "file", "buffer", "ring_record")}
    logs = shown(capture, "camgate.level", "camgate.source", only='camgate.kind == "log"')
    assert [(row.get("camgate.level", ""), row["camgate.source"]) for row in logs] == [
        (entry["level"], f"{entry['path']}:{entry['line']}") for entry in of["log"]]
    texts = shown(capture, "camgate.text", only='camgate.text contains "SendJsonMsg"')
    assert [row["camgate.text"] for row in texts] == [
        entry["text"] for entry in of["log"] if "SendJsonMsg" in entry["text"]]
    files = shown(capture, "camgate.from", "camgate.path", "frame.len", only='camgate.kind == "file"')
    assert [(row["camgate.from"], row["camgate.path"]) for row in files] == [
        (entry["process"], entry["path"]) for entry in of["file"]]
    buffers = shown(capture, "camgate.dataLength", "json.member", only='camgate.kind == "buffer"')
    assert buffers == [{"camgate.dataLength": str(len(entry["data"]) - 56), "json.member": "Timestamp"}
                       for entry in of["buffer"]]
    assert shown(capture, "json.member", only='camgate.kind == "record"') == [{"json.member": "FaceID"}]
    assert len(of["buffer"]) == len(of["ring_record"]) == 1


def test_https_is_http_over_tcp(camsim: Camsim, start_camera: StartCamera, tmp_path: Path) -> None:
    _, *run = played(start_camera, tmp_path / "run")
    capture = export(camsim, tmp_path / "run")
    said = [entry for entry in run if entry["type"] in ("request", "response")]
    lines = [entry["head"].split(b"\r\n")[0].decode() for entry in said]
    # Newer releases show a response the request's URI, too.
    rows = shown(capture, "http.response.code", "http.request.uri", "tcp.stream", only="http")
    assert [row.get("http.response.code") or row["http.request.uri"] for row in rows] == [
        line.split()[1] for line in lines]
    assert [int(row["tcp.stream"]) + 1 for row in rows] == [entry["connection"] for entry in said]
    assert http_bodies(capture, tmp_path / "bodies") == sorted(entry["body"] for entry in said)
    assert shown(capture, "frame.number", only="tcp.analysis.flags || _ws.malformed") == []
    ends = shown(capture, "tcp.stream", only="tcp.flags.fin == 1 && ip.src == 192.0.2.2")
    assert len(ends) == len({entry["connection"] for entry in said})


def test_bodies_that_were_left_out_are_missing_and_nothing_else(camsim: Camsim, start_camera: StartCamera,
                                                                tmp_path: Path) -> None:
    _, *run = played(start_camera, tmp_path / "run", bodies=False)
    capture = export(camsim, tmp_path / "run")
    left_out = [entry["body"] for entry in run if isinstance(entry.get("body"), int)]
    cut = shown(capture, "tcp.len", only="tcp && frame.cap_len < frame.len")
    assert sum(int(row["tcp.len"]) for row in cut) == sum(left_out) > 4096
    assert shown(capture, "frame.number", only="tcp.analysis.flags") == []
    assert len(shown(capture, "camgate.command", only="camgate.command")) > 10


def recorded(path: Path, act: Callable[[Journal], Any]) -> Path:
    journal = Journal()
    with Recorder(journal, path):
        act(journal)
    return path


def head(tag: int, length: int) -> bytes:
    return wire.encode_head(tag, length)


GOOD = wire.encode_request("/tmp/II", "/tmp/CP", wire.IMPORT_PROGRESS, ProgressTaskId=-7)
NOTIFICATION = struct.pack("<4xHHHxx", 0, 200, 12)
# Who sends, what, and how many of the packets are marked as malformed and as strange.
WRONG: dict[str, tuple[str, list[bytes], int, int]] = {
    "nothing": ("client", [head(1, 2), b"{}"], 0, 0),
    "head too short": ("client", [head(1, 2)[:260], b"{}"], 1, 0),
    "head too long": ("client", [head(1, 2) + b"x", b"{}"], 1, 0),
    "no JSON": ("client", [head(1, 4), b"what"], 1, 0),
    "nothing for a body": ("client", [head(1, 0), b""], 0, 0),
    "another length": ("client", [head(1, 3), b"{}"], 0, 1),
    "head without a body": ("client", [head(1, 30), head(2, 2), b"{}"], 0, 0),
    "message too short": ("itgt", [GOOD[:320]], 1, 0),
    "message too long": ("itgt", [GOOD + b"x"], 1, 0),
    "next to no message": ("itgt", [b"abc"], 1, 1),
    "unknown command": ("itgt", [GOOD[:164] + b"\1\0\0\0" + GOOD[168:]], 0, 1),
    "notification too short": ("events", [NOTIFICATION[:9]], 1, 0),
    "descriptor outside": ("events", [NOTIFICATION + bytes(15)], 1, 0),
    "descriptor inside": ("events", [NOTIFICATION + bytes(16)], 0, 0),
    "no buffer": ("events", [struct.pack("<4xHHH", 1, 200, 12)], 0, 0),
}


@pytest.mark.parametrize("what", WRONG)
def test_what_is_wrong_in_a_message_is_marked(what: str, camsim: Camsim, tmp_path: Path) -> None:
    source, datagrams, malformed, strange = WRONG[what]
    kind = "notified" if source == "events" else "sent"
    path = "/tmp/HK" if source == "client" else "/tmp/CP"
    recording = recorded(tmp_path / "run", lambda journal: [
        journal.add(source, kind, data=data, path=path) for data in datagrams])
    capture = export(camsim, recording)
    names = ("frame.number", "camgate.malformed", "camgate.strange", "_ws.lua.error")
    marks = [name for row in shown(capture, *names) for name in row]
    assert [marks.count(name) for name in names] == [len(datagrams), malformed, strange, 0]


def test_connections_that_go_wrong(camsim: Camsim, tmp_path: Path) -> None:
    request = Request(b"POST / HTTP/1.1\r\nContent-Length: 2\r\n\r\n{}", 2, 8443, "TLSv1.2", "C", 0.0)

    def act(journal: Journal) -> None:
        for number in (1, 2, 3):
            journal.add("platform", "accepted", connection=number, port=8443)
        journal.add("platform", "incomplete", connection=1, port=8443, raw=b"POST / HT")
        journal.add("platform", "closed", connection=1, port=8443, requests=0)
        journal.add("platform", "request", request=request, target="/")
        journal.add("platform", "response", response=Response(503, delay=2.5), target="/", connection=2)
        journal.add("platform", "step", connection=2, step=Send(b"more"))
        journal.add("platform", "step", connection=2, step=Reset())
        journal.add("platform", "closed", connection=2, port=8443, requests=1)
        journal.add("platform", "broken", connection=3, port=8443, error="no common version")
        journal.add("platform", "closed", connection=3, port=8443, requests=0)

    capture = export(camsim, recorded(tmp_path / "run", act))
    rows = shown(capture, "tcp.stream", "tcp.len", "tcp.flags", "ip.src", only="tcp && !(tcp.len == 0 && tcp.seq <= 1 "
                 "&& tcp.flags != 0x14)")
    service, platform = "192.0.2.1", "192.0.2.2"
    assert [(row["tcp.stream"], int(row["tcp.len"]), int(row["tcp.flags"], 16), row["ip.src"]) for row in rows][:2] == [
        ("0", 9, 0x18, service), ("0", 0, 0x11, service)]
    assert [(row["ip.src"], row["tcp.stream"]) for row in shown(capture, "ip.src", "tcp.stream",
                                                                only="tcp.flags.reset == 1")] == [
        (platform, "1"), (service, "2")]
    assert [row["frame.comment"] for row in shown(capture, "frame.comment", only="frame.comment")] == [
        "came to port 8443 with TLSv1.2, C", "sent 2.5 s later", "no common version"]


def test_memory_does_not_grow_with_the_run(tmp_path: Path) -> None:
    """40 pages of 1 MB each, of which two are in the memory at a time: compressed or not, in a packet or not."""
    recording = recorded(tmp_path / "run", lambda journal: [
        journal.add("platform", "response", response=Response(body=b"%d" % number * 500_000), connection=number)
        for number in range(10, 50)])
    tracemalloc.start()
    try:
        write(read(recording), tmp_path / "capture")
        assert tracemalloc.get_traced_memory()[1] < 10_000_000
    finally:
        tracemalloc.stop()
    assert (tmp_path / "capture").stat().st_size > 40_000_000


def test_what_cannot_be_read_or_written(camsim: Camsim, tmp_path: Path) -> None:
    recording = recorded(tmp_path / "run", lambda journal: journal.add("client", "sent", data=b"x"))
    for words, said in (((recording, "--pcapng", "/dev/full"), "the capture cannot be written"),
                        ((recording, "--pcapng", tmp_path / "no" / "where"), "the capture cannot be written"),
                        ((tmp_path / "none", "--pcapng", tmp_path / "x"), "the recording cannot be read")):
        done = camsim.run("export", *words)
        assert (done.returncode, said in done.stderr) == (1, True), done.stderr
    recording.write_bytes(recording.read_bytes().replace(b'"began": "20', b'"began": "x'))
    assert "does not say when it began" in camsim.run("export", recording, "--pcapng", tmp_path / "x").stderr


def test_the_dissector_that_is_named_is_there(camsim: Camsim, tmp_path: Path) -> None:
    recording = recorded(tmp_path / "run", lambda journal: journal.add("client", "sent", data=b"x"))
    said = camsim.run("export", recording, "--pcapng", tmp_path / "capture").stdout
    assert camsim.json("export", recording, "--pcapng", tmp_path / "capture") == [
        {"capture": str(tmp_path / "capture"), "packets": 1, "dissector": str(DISSECTOR)}]
    assert f"lua_script:{DISSECTOR} " in said and DISSECTOR.is_file() and DISSECTOR.parent == ROOT / "contracts"
