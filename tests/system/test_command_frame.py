"""Head and body of commands and replies, and what the message loop makes of a command."""

from __future__ import annotations

import json
import struct
from typing import Any

import pytest

from simulator import Camera, wire
from support import LOOP, expect_log, expect_working, records, texts


def as_body(task_name: Any, task_info: Any) -> bytes:
    return json.dumps({"taskName": task_name, "taskInfo": task_info}).encode()


@pytest.mark.parametrize("name, status", [("faceNotHitDown", 200), ("nothing", 400)])
def test_reply_is_a_head_of_280_bytes_and_the_indented_status_document(camera: Camera, name: str, status: int) -> None:
    reply = camera.client.wait_reply(camera.client.send(name, {}, tag=0x01020304))
    assert len(reply.head) == 280
    assert reply.body == b'{\n  "StatusCode" : %d\n}' % status
    assert reply.head[:8] == b"/tmp/KH\0"
    assert reply.head[8:16] == b"/tmp/HK\0"
    assert reply.head[240:244] == b"\x04\x03\x02\x01"
    assert reply.head[244:248] == bytes(4)
    assert struct.unpack_from("<III", reply.head, 256) == (len(reply.body), 0, 0)


def test_busy_reply_has_the_same_form(camera: Camera) -> None:
    camera.itgt.script(7020, None)
    camera.client.command("whiteListDown", camera.platform.task(1))
    assert camera.client.command("whiteListDown", camera.platform.task(1)).body == b'{\n  "StatusCode" : 409\n}'


def test_reply_head_carries_no_stray_memory(camera: Camera) -> None:
    """The bytes that mean nothing are zero: no memory of the service goes to another process."""
    reply = camera.client.command("faceNotHitDown", {})
    rest = bytearray(reply.head)
    for begin, end in ((0, 16), (240, 244), (256, 260)):
        rest[begin:end] = bytes(end - begin)
    assert not any(rest)


@pytest.mark.parametrize("tag", [0, 1, 2**31, 2**32 - 1])
def test_tag_of_the_command_comes_back(camera: Camera, tag: int) -> None:
    assert camera.client.wait_reply(camera.client.send("faceNotHitDown", {}, tag=tag)).status == 200


def test_paths_and_reserved_bytes_of_a_command_head_are_ignored(camera: Camera) -> None:
    body = as_body("faceNotHitDown", {})
    head = bytearray(b"\xa5" * 280)
    head[240:244] = struct.pack("<I", 77)
    head[256:260] = struct.pack("<I", len(body))
    camera.client.send_raw(bytes(head))
    camera.client.send_raw(body)
    assert camera.client.wait_reply(77).status == 200


def test_commands_are_answered_in_the_order_of_their_arrival(camera: Camera) -> None:
    """As many at once as the client's socket has room for the replies of: others would be dropped."""
    tags = [camera.client.send("faceNotHitDown" if number % 2 else "other", {"n": number}) for number in range(4)]
    camera.client.wait_reply(tags[-1])
    assert [reply.tag for reply in camera.client.replies] == tags
    assert [reply.status for reply in camera.client.replies] == [400, 200] * 2


def test_sent_bytes_are_logged(camera: Camera) -> None:
    camera.client.command("faceNotHitDown", {})
    expect_log(camera, "INFO", LOOP, "SendJsonMsg head: 280 body :24.")


def test_name_and_compact_information_are_logged(camera: Camera) -> None:
    camera.client.send_body(b'{ "taskInfo" : {"b" : [1, 2.5, null, true],\n "a" : {"c" : "d"}}, "taskName" : "xyz" }')
    expect_log(camera, "INFO", LOOP, "Process cmd:xyz.")
    expect_log(camera, "INFO", LOOP, 'Process info:{"a":{"c":"d"},"b":[1,2.5,null,true]}.')


def test_unknown_command_is_answered_before_it_is_logged(camera: Camera) -> None:
    assert camera.client.command("xyz", {}).status == 400
    expect_log(camera, "INFO", LOOP, "Process cmd:xyz  not supported .")
    lines = texts(camera, LOOP)
    assert lines == ["Process cmd:xyz.", "Process info:{}.", "SendJsonMsg head: 280 body :24.",
                     "Process cmd:xyz  not supported ."]


@pytest.mark.parametrize("name", ["WhiteListDown", "whitelistdown", "FACENOTHITDOWN", "whiteListClear ", ""])
def test_command_names_are_exact(camera: Camera, name: str) -> None:
    assert camera.client.command(name, {}).status == 400
    expect_log(camera, "INFO", LOOP, f"Process cmd:{name}  not supported .")


@pytest.mark.parametrize("name, text", [(12, "12"), (True, "true")])
def test_name_that_is_no_string_is_converted_to_text(camera: Camera, name: Any, text: str) -> None:
    assert camera.client.command(name, {}).status == 400
    expect_log(camera, "INFO", LOOP, f"Process cmd:{text}  not supported .")


@pytest.mark.parametrize("body", [b'{"taskInfo":{}}', b'{"taskInfo":{},"taskName":null}'])
def test_absent_name_is_an_error_of_the_command(camera: Camera, body: bytes) -> None:
    assert camera.client.wait_reply(camera.client.send_body(body)).status == 400
    record = camera.wait_for_log("PUBLIC_JSON Err ")
    assert (record.level, record.path) == ("ERROR", LOOP)
    assert record.text.endswith("Can not extract empty value. ")
    assert "GetJsonMsgInfo err:." not in texts(camera)


UNDECODABLE = {
    "nothing": b"", "spaces": b"   ", "no json": b"hello", "cut off": b'{"taskName":"faceNotHitDown","taskInfo":{',
    "array": b"[1, 2]", "text": b'"faceNotHitDown"', "number": b"12", "null": b"null",
    "no information": b'{"taskName":"faceNotHitDown"}',
    "information is text": b'{"taskName":"faceNotHitDown","taskInfo":"{}"}',
    "information is a number": b'{"taskName":"faceNotHitDown","taskInfo":1}',
    "information is null": b'{"taskName":"faceNotHitDown","taskInfo":null}',
    "information is an array": b'{"taskName":"faceNotHitDown","taskInfo":[{}]}',
}


@pytest.mark.parametrize("body", UNDECODABLE.values(), ids=UNDECODABLE.keys())
def test_undecodable_body_is_logged_and_answered_400(camera: Camera, body: bytes) -> None:
    assert camera.client.wait_reply(camera.client.send_body(body)).status == 400
    camera.wait_for_log("SendJsonMsg head: 280 body :24.")
    error, note, reply = records(camera, LOOP)
    assert (error.level, error.text[:16], error.text[-1]) == ("ERROR", "PUBLIC_JSON Err ", " ")
    assert len(error.text) > 20
    assert (note.level, note.text) == ("INFO", "GetJsonMsgInfo err:.")
    assert reply.text == "SendJsonMsg head: 280 body :24."
    expect_working(camera)


def test_missing_information_says_what_is_wrong(camera: Camera) -> None:
    camera.client.send_body(b'{"taskName":"faceNotHitDown"}')
    assert camera.wait_for_log("PUBLIC_JSON Err ").text.endswith("Can not extract empty value. ")


def test_information_of_another_type_says_what_is_wrong(camera: Camera) -> None:
    camera.client.send_body(b'{"taskName":"faceNotHitDown","taskInfo":"x"}')
    assert "Can not convert " in camera.wait_for_log("PUBLIC_JSON Err ").text


def test_further_members_are_ignored(camera: Camera) -> None:
    body = b'{"a":1,"taskInfo":{},"taskName":"faceNotHitDown","z":[{}]}'
    assert camera.client.wait_reply(camera.client.send_body(body)).status == 200


def test_body_longer_than_the_head_says_is_cut(camera: Camera) -> None:
    body = as_body("faceNotHitDown", {})
    tag = camera.client.send_body(body + b"trailing", claimed_length=len(body))
    assert camera.client.wait_reply(tag).status == 200
    tag = camera.client.send_body(body, claimed_length=len(body) - 1)
    assert camera.client.wait_reply(tag).status == 400


def test_body_ends_at_its_first_nul(camera: Camera) -> None:
    tag = camera.client.send_body(as_body("faceNotHitDown", {}) + b"\0garbage")
    assert camera.client.wait_reply(tag).status == 200


def test_command_without_a_client_to_answer_is_logged_and_the_next_is_answered(camera: Camera) -> None:
    body = as_body("faceNotHitDown", {})
    camera.itgt.send(wire.encode_head(1, len(body)), "/tmp/HK")
    camera.client.stop()
    begin = len(camera.journal)
    camera.itgt.send(body, "/tmp/HK")
    record = camera.wait_for_log("SendJsonMsg fail:", since=begin)
    assert (record.level, record.path, record.text[-1]) == ("ERROR", LOOP, ".")
    camera.client.start()
    expect_working(camera)


def test_replies_go_to_the_client_socket_whoever_sent_the_command(camera: Camera) -> None:
    body = as_body("faceNotHitDown", {})
    camera.itgt.send(wire.encode_head(4711, len(body), source="/tmp/II"), "/tmp/HK")
    camera.itgt.send(body, "/tmp/HK")
    assert camera.client.wait_reply(4711).status == 200
    assert [message for message in camera.itgt.received if message.command != 1037] == []
