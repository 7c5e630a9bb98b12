"""`camsim trace`: what it makes of a recorded run, as text, as JSON, as a page and as a comparison."""

from __future__ import annotations

import argparse
import base64
import gzip
import hashlib
import json
import re
from collections.abc import Callable, Iterator
from pathlib import Path
from typing import Any

import pytest

from simulator import CameraError, Journal, Response, Send, wire
from simulator.cli.recordings import trace
from simulator.messages.http import Request
from simulator.messages.log import LogRecord
from simulator.peers.itgt import Import
from simulator.trace.recording import Recorder

HOSTILE = "</script><script>alert(1)</script><img src=x onerror=alert(2)>\x1b[31m\u202e"
PAGE = b'{"records": [{"picture": "' + b"A" * 3_000_000 + b'"}]}'


def request(number: int, body: bytes) -> Request:
    return Request(b"POST /list HTTP/1.1\r\nHost: h\r\n\r\n" + body, number, 8443, "TLSv1.2", "CIPHER", 0.0)


def tell(journal: Journal) -> None:
    """A short run that holds an entry of every type."""
    def log(text: str, level: str = "INFO") -> None:
        journal.add("service", "log", record=LogRecord("2026-01-01T00:00:00.000", level, "a/b", 7, text))
    journal.add("service", "started", pid=1)
    journal.add("events", "subscribed", data=wire.encode(wire.SUBSCRIPTION, 304, magic=0x5331,
                                                         publisherName="gate.saas"))
    journal.add("events", "published", buffer_id=9, data=wire.encode_block(b"{}\0"))
    journal.add("events", "notified", data=wire.encode_notification(9, 58, descriptor_offset=20))
    body = json.dumps({"taskName": "whiteListDown", "taskInfo": {"cameraCode": HOSTILE}}).encode()
    journal.add("client", "sent", data=wire.encode_head(77, len(body)))
    journal.add("client", "sent", data=body)
    journal.add("client", "received", data=wire.encode_head(77, 24, "/tmp/KH", "/tmp/HK"))
    journal.add("client", "received", data=b'{\n  "StatusCode" : 200\n}')
    log(" DownLoad Picture begin D1.")
    log(' RegisterProcObj::SendSysObj, ContentData:{\\n "startIndex" : 30,\\n "offset" : 15,\\n "datatime" : ""\\n}')
    journal.add("platform", "accepted", connection=1, port=8443)
    log(HOSTILE, "ERROR")
    journal.add("platform", "handshake", connection=1, port=8443, tls_version="TLSv1.2", cipher="CIPHER")
    journal.add("platform", "request", request=request(1, b'{"startIndex": 30, "offset": 15}'), target="/list")
    journal.add("platform", "response", response=Response(body=PAGE), connection=1)
    journal.add("platform", "closed", connection=1, port=8443, requests=1)
    told = wire.encode_request("/tmp/II", "/tmp/CP", 7020, Count=3, ImportFileDirectory="/tmp/d/",
                               ImportFileName="white30")
    journal.add("itgt", "received", message=told, command=7020)
    journal.add("itgt", "page", page=Import(4_300_000_001, "white30", [{}] * 15))
    journal.add("itgt", "sent", message=wire.encode_reply(told, ImportFileTaskId=4_300_000_001), path="/tmp/CP")
    journal.add("itgt", "picture", task_id=1, record_id="x", result=0, done=1, total=15)
    journal.add("itgt", "file", path="/tmp/state", content=b'{"a": 1}')
    journal.add("itgt", "hooked", name="script", command=7021)
    journal.add("itgt", "sent", message=wire.Message(HOSTILE.encode()), path="/tmp/CP")
    asked = wire.encode_request("/tmp/II", "/tmp/CP", 7031)
    journal.add("itgt", "received", message=asked, command=7031)
    journal.add("platform", "accepted", connection=2, port=8443)
    journal.add("platform", "request", request=request(2, b'{"ImportInfo": []}'), target="/result")
    journal.add("platform", "step", connection=2, step=Send(b"\0\1"))
    log("CustomJsonPicDownloadTask End ")
    journal.add("client", "sent", data=b"\xff\0")
    journal.add("service", "ring_record", text="{}")
    journal.add("service", "ended", exit_code=0)


@pytest.fixture
def recorded(tmp_path: Path) -> Path:
    path = tmp_path / "run"
    journal = Journal()
    with Recorder(journal, path, about={"build": "host"}):
        tell(journal)
    return path


@pytest.fixture
def run(capsys: pytest.CaptureFixture[str]) -> Callable[..., str]:
    def traced(*arguments: str | Path, code: int = 0) -> str:
        parser = argparse.ArgumentParser()
        trace.add_arguments(parser)
        assert trace.run(parser.parse_args([str(argument) for argument in arguments])) == code
        return capsys.readouterr().out
    return traced


def chapters(run: Callable[..., str], path: Path) -> list[dict[str, Any]]:
    return list(json.loads(run(path, "--json"))["chapters"])


def items(run: Callable[..., str], path: Path) -> Iterator[dict[str, Any]]:
    return (item for chapter in chapters(run, path) for item in chapter["items"])


def test_chapters(recorded: Path, run: Callable[..., str]) -> None:
    told = chapters(run, recorded)
    assert [chapter["title"] for chapter in told] == ["Start", "whiteListDown", "page 30 to 44", "datagram of 2 bytes",
                                                     "Stop"]
    assert [phase["name"] for phase in told[2]["phases"]] == ["fetch", "import", "report"]
    assert told[2]["items"][2]["title"] == "TCP connection 1"
    assert told[2]["phases"][0]["begin"] == told[2]["items"][2]["time"], "it is fetched as soon as it is connected"
    assert [chapter["pictures"] for chapter in told] == [0, 0, 1, 0, 0]


def test_who_said_what_to_whom(recorded: Path, run: Callable[..., str]) -> None:
    said = [(item["from"], item["to"], item["title"]) for item in items(run, recorded)]
    assert said == [
        ("service", None, "started"), ("service", "events", "subscription record"),
        ("events", None, "put buffer 9 into the event cache"), ("events", "service", "notification"),
        ("client", "service", "command head"), ("client", "service", "command whiteListDown"),
        ("service", "client", "reply head"), ("service", "client", "reply: status 200"),
        ("service", None, "INFO a/b:7"), ("service", None, "INFO a/b:7"),
        ("service", "platform", "TCP connection 1"), ("service", None, "ERROR a/b:7"),
        ("platform", "service", "TLSv1.2 handshake"), ("service", "platform", "POST /list"),
        ("platform", "service", "200 OK"), ("platform", "service", "connection 1 closed"),
        ("service", "itgt", "7020 CMD_FACE_IMPORT_FILE request"), ("itgt", None, "read the page file"),
        ("itgt", "service", "7020 CMD_FACE_IMPORT_FILE reply"), ("itgt", None, "wrote /tmp/state"),
        ("itgt", None, "a script answers the next request"),
        ("itgt", "service", f"datagram of {len(HOSTILE.encode())} bytes"),
        ("service", "itgt", "7031 CMD_FACE_IMPORT_PAGE request"), ("service", "platform", "TCP connection 2"),
        ("service", "platform", "POST /list"), ("platform", "service", "sends 2 bytes as they are"),
        ("service", None, "INFO a/b:7"), ("client", "service", "datagram of 2 bytes"),
        ("service", None, "record in the ring buffer"), ("service", None, "ended")]


@pytest.mark.parametrize("title, field", [
    ("7020 CMD_FACE_IMPORT_FILE request", {"name": "ImportFileName", "offset": 448, "width": 132, "value": "white30"}),
    ("7020 CMD_FACE_IMPORT_FILE reply", {"name": "ImportFileTaskId", "offset": 584, "width": 8, "value": "4300000001"}),
    ("command head", {"name": "tag", "offset": 240, "width": 4, "value": "77"}),
    ("subscription record", {"name": "publisherName", "offset": 32, "width": 16, "value": "gate.saas"}),
    ("notification", {"name": "identifier", "offset": 20, "width": 4, "value": "9"}),
    ("put buffer 9 into the event cache", {"name": "dataLength", "offset": 52, "width": 4, "value": "3"}),
    ("POST /list", {"name": "Host", "offset": 21, "width": 7, "value": "h"}),
    ("POST /list", {"name": "body", "offset": 32, "width": 32, "value": "32 bytes"}),
])
def test_fields_at_their_offsets(recorded: Path, run: Callable[..., str], title: str, field: dict[str, Any]) -> None:
    assert field in next(item for item in items(run, recorded) if item["title"] == title)["fields"]


def test_fault_is_marked_on_what_it_changed(recorded: Path, run: Callable[..., str]) -> None:
    marked = [item["title"] for item in items(run, recorded) if item["fault"]]
    assert marked == ["a script answers the next request", f"datagram of {len(HOSTILE.encode())} bytes"]


def test_hook_that_makes_a_named_fault_is_no_second_one(tmp_path: Path, run: Callable[..., str]) -> None:
    journal = Journal()
    with Recorder(journal, tmp_path / "run"):
        journal.add("itgt", "fault_on", name="itgt.truncated", text="itgt.truncated=bytes=9")
        journal.add("itgt", "fault", name="itgt.truncated")
        journal.add("itgt", "hooked", name="on_message", command=7021)
        journal.add("itgt", "sent", message=wire.Message(b"short"), path="/tmp/CP")
        journal.add("itgt", "hooked", name="on_message", command=7021)
        journal.add("itgt", "sent", message=wire.Message(b"short"), path="/tmp/CP")
    assert [(item["title"], item["fault"]) for item in items(run, tmp_path / "run")] == [
        ("fault itgt.truncated=bytes=9 is switched on", "itgt.truncated"),
        ("fault itgt.truncated takes hold", "itgt.truncated"), ("datagram of 5 bytes", "itgt.truncated"),
        ("a hook changed the answer", "on_message"), ("datagram of 5 bytes", "on_message")]


def test_text(recorded: Path, run: Callable[..., str]) -> None:
    text = run(recorded)
    assert re.match(r"recorded 20\d\d-\d\d-\d\d \d\d:\d\d:\d\d UTC, build host, \d\.\d s: 11 datagrams, "
                    "2 HTTPS requests, 1 files, 4 log records, 1 faults\n", text)
    assert re.search(r"^ +0\.\d{3} s  \d\d:\d\d:\d\d\.\d{3}  service → ITGT +7020 CMD_FACE_IMPORT_FILE request  "
                     r"ImportFileDirectory='/tmp/d/' "
                     "ImportFileName='white30'$", text, re.MULTILINE)
    assert "[fault: script]" in text


def test_text_never_steers_the_terminal(recorded: Path, run: Callable[..., str]) -> None:
    text = run(recorded)
    assert "\\x1b[31m\\u202e" in text
    assert not re.search(r"[\x00-\x09\x0b-\x1f\x7f-\x9f\u202a-\u202e\u2066-\u2069]", text)


def test_killed_run_is_said(recorded: Path, run: Callable[..., str]) -> None:
    recorded.write_bytes(recorded.read_bytes()[:-5])
    assert "its end is missing" in run(recorded).splitlines()[0]


def test_damaged_entry_is_named(recorded: Path, run: Callable[..., str]) -> None:
    lines = recorded.read_bytes().splitlines(keepends=True)
    number = next(number for number, line in enumerate(lines, 1) if b'"step": "send"' in line)
    lines[number - 1] = lines[number - 1].replace(b'"data": {"base64": "AAE="}', b'"data": 5')
    recorded.write_bytes(b"".join(lines))
    with pytest.raises(CameraError, match=f"line {number} of the recording, a step, is damaged"):
        run(recorded)


def test_empty_run(tmp_path: Path, run: Callable[..., str]) -> None:
    with Recorder(Journal(), tmp_path / "run"):
        pass
    assert "0 datagrams" in run(tmp_path / "run")
    assert run(tmp_path / "run", "--html", tmp_path / "page").startswith(str(tmp_path / "page"))


def test_comparison(recorded: Path, tmp_path: Path, run: Callable[..., str]) -> None:
    assert run(recorded, "--compare", recorded).startswith("the same: ")
    other = tmp_path / "other"
    other.write_bytes(recorded.read_bytes().replace(b'"exit_code": 0', b'"exit_code": 1'))
    assert run(recorded, "--compare", other, code=1).startswith("end of the service: number 1: exit_code: 0 and 1\n")


def written_page(recorded: Path, run: Callable[..., str]) -> str:
    path = recorded.with_suffix(".html")
    run(recorded, "--html", path)
    return path.read_text()


def data_of(page: str) -> dict[str, Any]:
    packed = re.search(r'id="run">([^<]*)<', page)
    assert packed
    return dict(json.loads(gzip.decompress(base64.b64decode(packed[1], validate=True))))


def test_page_of_a_run_without_bodies_says_what_is_not_there(tmp_path: Path, run: Callable[..., str]) -> None:
    journal = Journal()
    with Recorder(journal, tmp_path / "run", bodies=False):
        tell(journal)
    assert "it was recorded without long bodies" in run(tmp_path / "run")
    answer, = (item for item in data_of(written_page(tmp_path / "run", run))["batch"]["items"]
               if item["kind"] == "response")
    shown, = answer["bytes"]["parts"]
    assert bytes.fromhex(shown[1]).endswith(b"\r\n\r\n")
    assert answer["bytes"]["cut"] and answer["bytes"]["size"] == len(bytes.fromhex(shown[1])) + len(PAGE)
    assert answer["text"].endswith(f"({len(PAGE):,} bytes, left out of the recording)")
    assert next(item for item in items(run, tmp_path / "run") if item["title"] == "200 OK")["size"] > len(PAGE)


def test_page_stands_alone(recorded: Path, run: Callable[..., str]) -> None:
    page = written_page(recorded, run)
    assert not re.search(r"""(src|href)\s*=|@import|url\(|\bimport\s*\(|fetch\(""", page)
    assert re.findall(r"https?://[^\s\"'<]+", page) == ["http://www.w3.org/2000/svg"], "a name, not an address"
    policy = re.search(r'Content-Security-Policy" content="([^"]*)"', page)
    script = re.search(r'<script type="module">(.*?)</script>', page, re.DOTALL)
    style = re.search(r"<style>(.*?)</style>", page, re.DOTALL)
    assert policy and script and style
    for name, text in (("script-src", script[1]), ("style-src", style[1])):
        value = base64.b64encode(hashlib.sha256(text.encode()).digest()).decode()
        assert f"{name} 'sha256-{value}';" in policy[1]
    assert policy[1].startswith("default-src 'none';")


def test_page_has_nothing_of_a_peer_as_markup(recorded: Path, run: Callable[..., str]) -> None:
    page = written_page(recorded, run)
    assert "alert(" not in page and "onerror" not in page
    assert "alert(1)" in json.dumps(data_of(page))


def test_large_bodies_are_cut_in_the_page(recorded: Path, run: Callable[..., str]) -> None:
    page = written_page(recorded, run)
    assert len(page) < 100_000
    answer = next(item for item in data_of(page)["batch"]["items"] if item["title"] == "200 OK")
    head = len(b"HTTP/1.1 200 OK\r\nContent-Type: application/json;charset=UTF-8\r\nContent-Length: 3000030\r\n\r\n")
    assert answer["bytes"]["size"] == head + len(PAGE)
    assert "3,000,000 characters" in answer["text"]
    first, last = answer["bytes"]["parts"]
    assert first[0] == 0 and bytes.fromhex(first[1]).endswith(b"AAAA")
    assert last[0] + len(last[1]) // 2 == head + len(PAGE) and bytes.fromhex(last[1]).endswith(b'A"}]}')


def test_zeros_of_a_message_are_left_out_of_the_page(recorded: Path, run: Callable[..., str]) -> None:
    told = next(item for item in data_of(written_page(recorded, run))["batch"]["items"]
                if item["title"] == "7020 CMD_FACE_IMPORT_FILE request")
    assert told["bytes"]["size"] == 21408 and not told["bytes"]["cut"]
    assert [offset for offset, _ in told["bytes"]["parts"]] == [0, 160, 192, 304, 448]
    assert told["bytes"]["parts"][4][1] == b"white30".ljust(16, b"\0").hex()


def test_page_that_cannot_be_written(recorded: Path, tmp_path: Path, run: Callable[..., str]) -> None:
    with pytest.raises(CameraError, match="cannot be written: .*no-folder"):
        run(recorded, "--html", tmp_path / "no-folder" / "page.html")
