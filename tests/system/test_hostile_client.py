"""Bad input on the command socket: answered, named in the log, and forgotten."""

from __future__ import annotations

import json
import random
import socket
import struct
from typing import Any

import pytest

from simulator import Camera, wire
from support import (BEGIN, LOOP, TASK, count_text, download, expect_log, expect_working, kilobytes, memory_limit,
                     received, start_download, wait_end)

GOOD = b'{"taskName":"faceNotHitDown","taskInfo":{}}'
# A datagram and its command's information text, JSON values and log text may take some memory; a claim must not.
ROOM_KILOBYTES = 60_000


def refused(camera: Camera, body: bytes, **frame: Any) -> None:
    """The body is answered 400, with an error record, and the next command works."""
    begin = len(camera.journal)
    assert camera.client.wait_reply(camera.client.send_body(body, **frame)).status == 400
    camera.wait_for_log(lambda record: record.level == "ERROR" and record.path == LOOP, since=begin)
    expect_working(camera)


@pytest.mark.parametrize("claim", [len(GOOD) + 1000, 2**16, 2**20, 2**31 - 1, 2**31, 2**32 - 2, 2**32 - 1])
def test_claimed_length_takes_no_memory_and_the_body_counts(camera: Camera, claim: int) -> None:
    expect_working(camera)
    before = kilobytes(camera, "VmHWM")
    tag = camera.client.send_body(GOOD, claimed_length=claim)
    assert camera.client.wait_reply(tag).status == 200
    expect_working(camera)
    assert kilobytes(camera, "VmHWM") - before < ROOM_KILOBYTES


@pytest.mark.parametrize("body, claim", [(GOOD, 0), (b"", 0), (b"x" * 1000, 0), (GOOD, 1)])
def test_claim_that_is_too_short_cuts_the_body_and_its_datagram_is_consumed(camera: Camera, body: bytes,
                                                                            claim: int) -> None:
    refused(camera, body, claimed_length=claim)


GARBAGE_HEADS = {
    "empty": b"", "one byte": b"\xff", "short": b"/tmp/HK\0/tmp/KH\0", "279 bytes": b"\xff" * 279,
    "280 bytes": b"\xff" * 280, "281 bytes": b"\0" * 281, "zeros": b"\0" * 280, "text": GOOD,
    "long": random.Random(1).randbytes(100_000)}


@pytest.mark.parametrize("head", GARBAGE_HEADS.values(), ids=GARBAGE_HEADS.keys())
def test_garbage_in_place_of_a_head_and_a_body(camera: Camera, head: bytes) -> None:
    camera.client.send_raw(head)
    camera.client.send_raw(b"garbage")
    camera.wait_until(lambda: [reply for reply in camera.client.replies if reply.status == 400])
    expect_working(camera)


@pytest.mark.parametrize("head", GARBAGE_HEADS.values(), ids=GARBAGE_HEADS.keys())
def test_single_garbage_datagram_does_not_put_the_loop_out_of_step(camera: Camera, head: bytes) -> None:
    camera.client.send_raw(head)
    expect_working(camera)
    expect_working(camera)


def test_head_without_a_body_does_not_swallow_the_next_command(camera: Camera) -> None:
    """As when a client dies between the two datagrams."""
    camera.client.send_raw(wire.encode_head(5, len(GOOD)))
    expect_working(camera)
    assert camera.client.wait_reply(5).status == 400
    expect_working(camera)


@pytest.mark.parametrize("paths", [bytes(16), b"\xff" * 16, b"/run/HK\0/run/KH\0", b"x" * 16], ids=repr)
@pytest.mark.parametrize("lost", [b"", b"x", wire.encode_head(5, len(GOOD))], ids=["nothing", "a byte", "a body"])
def test_what_is_lost_costs_its_own_command_only_whatever_the_next_heads_have_in_their_paths(
        camera: Camera, paths: bytes, lost: bytes) -> None:
    camera.client.send_raw(lost)
    for tag in (7, 8, 9):
        camera.client.send_raw(paths + wire.encode_head(tag, len(GOOD))[16:])
        camera.client.send_raw(GOOD)
    assert [camera.client.wait_reply(tag).status for tag in (7, 8, 9)] == [200, 200, 200]


def test_service_whose_reply_path_leads_to_its_command_socket_does_not_talk_to_itself(camera: Camera) -> None:
    camera.client.stop()
    camera.path("/tmp/KH").unlink(missing_ok=True)
    camera.path("/tmp/KH").symlink_to("HK")
    with socket.socket(socket.AF_UNIX, socket.SOCK_DGRAM) as sender:
        for data in (wire.encode_head(1, len(GOOD)), GOOD, wire.encode_head(2, len(GOOD)), GOOD):
            sender.sendto(data, str(camera.path("/tmp/HK")))
    camera.wait_until(lambda: len(camera.read_ring_buffer()) > 0)
    camera.wait_until(lambda: count_text(camera, "SendJsonMsg head: 280 body :24.") == 2)
    camera.path("/tmp/KH").unlink()
    camera.client.start()
    expect_working(camera)
    assert count_text(camera, "GetJsonMsgInfo err:.") == 0


def test_body_of_the_length_of_a_head_is_a_body(camera: Camera) -> None:
    body = b'{"taskName":"faceNotHitDown","taskInfo":{"a":"%s"}}'
    body = body % (b"x" * (280 - len(body) + 2))
    assert len(body) == 280
    assert camera.client.wait_reply(camera.client.send_body(body)).status == 200
    expect_working(camera)


DEEP = {
    "arrays": b"[" * 10_000, "closed arrays": b"[" * 10_000 + b"]" * 10_000, "objects": b'{"a":' * 10_000,
    "closed objects": b'{"a":' * 10_000 + b"1" + b"}" * 10_000,
    "information": b'{"taskName":"faceNotHitDown","taskInfo":{"a":' + b"[" * 10_000 + b"]" * 10_000 + b"}}",
    "objects in information": b'{"taskName":"faceNotHitDown","taskInfo":' + b'{"a":' * 10_000 + b"1" + b"}" * 10_001}


@pytest.mark.parametrize("body", DEEP.values(), ids=DEEP.keys())
def test_json_10000_levels_deep_is_refused(camera: Camera, body: bytes) -> None:
    refused(camera, body)


def test_json_some_levels_deep_is_taken(camera: Camera) -> None:
    information: Any = {}
    for _ in range(50):
        information = {"a": [information]}
    assert camera.client.command("faceNotHitDown", information).status == 200


BROKEN_TEXT = {
    "lone continuation": b"\x80", "cut sequence": b"\xe4\xb8", "overlong": b"\xc0\xaf", "surrogate": b"\xed\xa0\x80",
    "beyond unicode": b"\xf7\xbf\xbf\xbf", "latin-1": b"M\xfcller", "0xff": b"\xff\xfe"}


@pytest.mark.parametrize("text", BROKEN_TEXT.values(), ids=BROKEN_TEXT.keys())
def test_invalid_utf8_is_answered_and_forgotten(camera: Camera, text: bytes) -> None:
    for body, statuses in ((b'{"taskName":"%s","taskInfo":{}}', (400,)),
                           (b'{"taskName":"faceNotHitDown","taskInfo":{"%s":1}}', (200, 400)),
                           (b'{"taskName":"faceNotHitDown","taskInfo":{"a":"%s"}}', (200, 400))):
        assert camera.client.wait_reply(camera.client.send_body(body % text)).status in statuses
        expect_working(camera)


ODD_TEXT = {
    "control characters": b'{"taskName":"\\u0001\\u001b[31m","taskInfo":{}}',
    "format": b'{"taskName":"%s%n%x%99999999d","taskInfo":{"%s%n":"%s%n%s%n"}}',
    "escaped nul": b'{"taskName":"face\\u0000NotHitDown","taskInfo":{}}',
    "lone surrogate": b'{"taskName":"\\ud800","taskInfo":{}}', "bad escape": b'{"taskName":"\\x","taskInfo":{}}',
    "duplicate name": b'{"taskName":"a","taskName":"b","taskInfo":{}}',
    "huge number": b'{"taskName":' + b"9" * 400 + b',"taskInfo":{}}',
    "exponent": b'{"taskName":1e999999,"taskInfo":{}}', "byte order mark": b"\xef\xbb\xbf{}",
    "two documents": GOOD[:-1] + b'} {"x"', "comment": b"/* " * 5000}


@pytest.mark.parametrize("body", ODD_TEXT.values(), ids=ODD_TEXT.keys())
def test_odd_text_is_answered_400_and_forgotten(camera: Camera, body: bytes) -> None:
    assert camera.client.wait_reply(camera.client.send_body(body)).status == 400
    expect_working(camera)


def test_log_stays_one_line_a_record_whatever_the_client_sends(camera: Camera) -> None:
    name = "a\n2024-01-01T00:00:00.000 ERROR forged:1 record\r\x1b[2Jz"
    assert camera.client.command(name, {}).status == 400
    expect_working(camera)
    assert not [record for record in camera.service.log if record.level == "" or record.path == "forged"]


STRINGS = ["cameraCode", "taskID", "sqbh", "datatime", "securityCode", "taskURL", "taskResultURL"]


def expect_refused_download(camera: Camera, **changes: Any) -> str:
    """The download is answered 400, named in the log and never started; then the next works. Returns the log's text."""
    begin = len(camera.journal)
    reply = camera.client.command("whiteListDown", camera.platform.task(1, **changes))
    assert reply.status == 400
    record = camera.wait_for_log("DownWhiteHandler Err ", since=begin)
    assert (record.level, record.path, record.text[-1]) == ("ERROR", LOOP, " ")
    assert camera.platform.requests == []
    download(camera)
    assert len(camera.platform.reports) == 1
    assert count_text(camera, BEGIN) == 1
    return record.text


@pytest.mark.parametrize("name", [*STRINGS, "totalNum"])
def test_missing_argument_is_refused(camera: Camera, name: str) -> None:
    assert expect_refused_download(camera, **{name: ...}).endswith("Can not extract empty value. ")


@pytest.mark.parametrize("name", STRINGS)
def test_text_argument_of_another_type_is_refused(camera: Camera, name: str) -> None:
    for value in (7, True, ["x"], {"x": "y"}, 1.5, None):
        begin = len(camera.journal)
        assert camera.client.command("whiteListDown", camera.platform.task(1, **{name: value})).status == 400
        text = camera.wait_for_log("DownWhiteHandler Err ", since=begin).text
        assert ("Can not extract empty value. " if value is None else "Can not convert ") in text
    assert "Can not convert " in expect_refused_download(camera, **{name: 7})


@pytest.mark.parametrize("value", [None, "", "abc", "12x", -1, "-1", 2**32, 2**63, str(2**64 + 1), ["1"], {"a": 1}],
                         ids=repr)
def test_number_of_records_that_is_no_unsigned_number_is_refused(camera: Camera, value: Any) -> None:
    expect_refused_download(camera, totalNum=value)


@pytest.mark.parametrize("name", STRINGS[:5])
def test_empty_text_argument_is_taken(camera: Camera, name: str) -> None:
    start_download(camera, 1, **{name: ""})
    camera.wait_until(lambda: camera.platform.reports)
    if name in ("cameraCode", "taskID", "securityCode"):
        assert [request.json()[name] for request in camera.platform.requests] == ["", ""]


@pytest.mark.parametrize("name", STRINGS[:5])
def test_text_argument_of_100_kilobytes_is_carried_whole(camera: Camera, name: str) -> None:
    text = "0123456789" * 10_240
    start_download(camera, 1, **{name: text})
    expect_log(camera, "INFO", LOOP, f"{name}:{text}")
    camera.wait_until(lambda: camera.platform.reports)
    if name in ("cameraCode", "taskID", "securityCode"):
        assert [request.json()[name] for request in camera.platform.requests] == [text, text]
    wait_end(camera)
    expect_working(camera)


@pytest.mark.parametrize("name", ["taskURL", "taskResultURL"])
def test_url_of_100_kilobytes_does_no_harm(camera: Camera, name: str) -> None:
    url = f"https://127.0.0.1:{camera.platform.port}/" + "a" * 102_400
    start_download(camera, 1, **{name: url})
    wait_end(camera)
    target = camera.platform.requests[-1].target
    assert target == url.partition(str(camera.platform.port))[2]
    expect_working(camera)


@pytest.mark.parametrize("url", ["", "/platform/whiteList", "https://", "https:///path", "https://:8443/path", "https",
                                 "https://127.0.0.1:0/x", "https://127.0.0.1:65536/x",
                                 "https://127.0.0.1:99999999999/x", "https://127.0.0.1:abc/x", "https://[::1/x",
                                 "127.0.0.1:8443/x", "://x/y"])
def test_task_url_that_names_no_server_is_refused(camera: Camera, url: str) -> None:
    expect_refused_download(camera, taskURL=url)


@pytest.mark.parametrize("total", ["1", " 1", "1e0", 1.0, True])
def test_number_in_another_form_is_converted_or_refused(camera: Camera, total: Any) -> None:
    assert camera.client.command("whiteListDown", camera.platform.task(1, totalNum=total)).status in (200, 400)
    expect_working(camera)


def test_flood_of_garbage_is_gone_through_to_the_last_datagram(camera: Camera) -> None:
    """From a client that takes no replies: those that its socket has no room for would be dropped."""
    camera.client.stop()
    source = random.Random(7)
    for _ in range(300):
        camera.itgt.send(source.randbytes(source.choice((0, 1, 16, 279, 280, 281, 5000))), "/tmp/HK")
    last = GOOD.replace(b"faceNotHitDown", b"last")
    for _ in range(2):  # the first may be taken for what the last garbage is short of
        camera.itgt.send(wire.encode_head(1, len(last)), "/tmp/HK")
        camera.itgt.send(last, "/tmp/HK")
    expect_log(camera, "INFO", LOOP, "Process cmd:last  not supported .")
    begin = len(camera.journal)
    camera.itgt.send(wire.encode_head(1, len(GOOD)), "/tmp/HK")
    camera.itgt.send(GOOD, "/tmp/HK")
    expect_log(camera, "INFO", LOOP, "Process cmd:faceNotHitDown.", since=begin)
    camera.wait_for_log("SendJsonMsg fail:", since=begin)
    camera.client.start()
    expect_working(camera)


def test_hundreds_of_commands_leave_memory_as_it_was(camera: Camera) -> None:
    information = {"text": "x" * 4_000}

    def send(count: int) -> None:
        for _ in range(count):
            camera.client.command("faceNotHitDown", information)

    send(100)
    before = kilobytes(camera, "RssAnon")
    send(500)
    # A leak of one body a command would be 2 MB.
    assert kilobytes(camera, "RssAnon") - before < memory_limit(1_000, with_sanitizers=400_000)


@pytest.mark.parametrize("value", [2**64 + 5, 10**30, -2**63 - 1])
def test_number_beyond_64_bits_is_refused(camera: Camera, value: int) -> None:
    assert camera.client.command("whiteListDown", camera.platform.task(1, totalNum=value)).status == 400
    camera.wait_for_log(lambda record: record.level == "ERROR" and record.path == LOOP)
    expect_working(camera)


def test_numbers_beyond_64_bits_do_no_harm(camera: Camera) -> None:
    body = GOOD.replace(b"{}", json.dumps({"a": 2**64, "b": -2**63, "c": 10**40}).encode())
    assert camera.client.wait_reply(camera.client.send_body(body)).status in (200, 400)
    expect_working(camera)


def test_garbage_while_a_download_runs_does_not_disturb_it(camera: Camera) -> None:
    camera.itgt.not_ready_answers = 1
    start_download(camera, 31)
    received(camera, "itgt", 7021)
    for head in GARBAGE_HEADS.values():
        camera.client.send_raw(head)
        camera.client.send_raw(struct.pack("<I", 5))
    wait_end(camera)
    assert len(camera.platform.reports) == 2
    assert count_text(camera, "CustomJsonPicDownloadTask Err ") == 0
    assert [record.level for record in camera.service.log if record.path == TASK] == ["INFO", "INFO"]
