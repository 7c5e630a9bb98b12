"""whiteListClear: the face-library process hands out its configuration and gets its face lists set."""

from __future__ import annotations

import json
import struct
from collections.abc import Callable
from typing import Any

import pytest

from simulator import Camera, wire
from simulator.peers.face_library import face_list
from support import LOOP, count_text, expect_log, expect_unsent, expect_working, received, records, texts

CONFIGURATION = "/tmp/mmcblk0/face_basic/facelists.json"


def clear(camera: Camera, status: int = 200, code: Any = "C1") -> None:
    assert camera.client.command("whiteListClear", {"cameraCode": code}).status == status


def with_configuration(camera: Camera, content: bytes | Any, status: int = 200) -> None:
    camera.faces.configuration = content if isinstance(content, bytes) else json.dumps(content).encode()
    clear(camera, status)


def request(subtype: int, command: int, payload: bytes = b"") -> bytes:
    header = b"/tmp/A\0\0/tmp/CP\0" + bytes(144) + struct.pack("<II", subtype, command) + bytes(32)
    return (header + struct.pack("<q", 101) + payload).ljust(21408, b"\0")


def expect_failure_after_the_reply(camera: Camera, text: str, line: int) -> None:
    """The error record with its line, and after the record of the reply."""
    error = expect_log(camera, "ERROR", LOOP, text, line)
    lines = records(camera, LOOP)
    assert lines[lines.index(error) - 1].text == "SendJsonMsg head: 280 body :24."
    expect_working(camera)


def test_clear_request_byte_for_byte(camera: Camera) -> None:
    clear(camera)
    assert camera.faces.requests(7019) == [request(0, 7019)]


def test_one_set_request_for_each_list_byte_for_byte(camera: Camera) -> None:
    camera.faces.lists = [face_list(1, "Staff"),
                          face_list(2**64 - 1, "面", list_type=-2, on_control=-1, threshold=-2**63)]
    clear(camera)
    payloads = [struct.pack("<IIQiiq", 3, 0, 1, 1, 1, 80) + b"Staff",
                struct.pack("<IIQiiq", 3, 0, 2**64 - 1, -2, -1, -2**63) + "面".encode()]
    assert camera.faces.requests(7018) == [request(1, 7018, payload) for payload in payloads]


def test_command_is_logged_with_its_lines(camera: Camera) -> None:
    clear(camera)
    lines = [(record.level, record.line, record.text) for record in records(camera, LOOP)]
    assert lines[2:6] == [
        ("INFO", 290, "cameraCode:C1"), ("INFO", 306, f" [Custom] download picture file {CONFIGURATION}."),
        ("INFO", 407, "CMD_ALARM_FACE_LIB_SET TaskID:1 FaceListName Staff"),
        ("INFO", 407, "CMD_ALARM_FACE_LIB_SET TaskID:2 FaceListName Visitors")]


def test_reply_comes_after_the_last_list(camera: Camera) -> None:
    clear(camera)
    events = [(event.source, event.kind) for event in camera.journal.events]
    assert events.index(("client", "reply")) > max(index for index, event in enumerate(events)
                                                   if event == ("faces", "list"))
    assert [face["ListName"] for face in camera.faces.applied] == ["Staff", "Visitors", "Watched"]


def test_configuration_is_only_read(camera: Camera) -> None:
    clear(camera)
    content = json.loads(camera.path(CONFIGURATION).read_bytes())
    assert content == {"FaceListsArry": camera.faces.lists}


@pytest.mark.parametrize("code, text", [(7, "7"), (True, "true"), ("", ""), (1.5, "1.5")])
def test_camera_code_of_another_type_is_converted_for_the_log(camera: Camera, code: Any, text: str) -> None:
    clear(camera, code=code)
    expect_log(camera, "INFO", LOOP, f"cameraCode:{text}", 290)


@pytest.mark.parametrize("information", [{}, {"cameraCode": None}])
def test_missing_camera_code_is_an_error_of_the_command(camera: Camera, information: dict[str, Any]) -> None:
    assert camera.client.command("whiteListClear", information).status == 400
    record = camera.wait_for_log("PUBLIC_JSON Err ")
    assert (record.level, record.path) == ("ERROR", LOOP)
    assert record.text.endswith("Can not convert empty value. ")
    assert camera.faces.received == []
    clear(camera)


@pytest.mark.parametrize("status", [1, 2, 256, 2**31, 2**32 - 1])
def test_refusal_is_not_answered_at_all_and_leaves_no_record(camera: Camera, status: int) -> None:
    camera.faces.script(7019, lambda message: wire.encode_reply(
        message, same_header=True, ClearStatus=status, ClearConfigPath=CONFIGURATION))
    tag = camera.client.send("whiteListClear", {"cameraCode": "C1"})
    expect_working(camera)
    assert tag not in [reply.tag for reply in camera.client.replies]
    expect_log(camera, "INFO", LOOP, "Process cmd:faceNotHitDown.")
    lines = texts(camera, LOOP)
    assert lines[2:4] == ["cameraCode:C1", "Process cmd:faceNotHitDown."]
    assert camera.faces.requests(7018) == []


def test_another_answer_to_the_clear_request_is_a_refusal(camera: Camera) -> None:
    camera.faces.script(7019, lambda message: wire.encode_reply(message, same_header=True, command=7018, ClearStatus=0))
    tag = camera.client.send("whiteListClear", {"cameraCode": "C1"})
    expect_working(camera)
    assert tag not in [reply.tag for reply in camera.client.replies]
    assert camera.faces.requests(7018) == []


@pytest.mark.parametrize("path", ["/no/such/file", "", "relative", "/tmp/%s%n", "/tmp/secret"])
def test_configuration_that_cannot_be_opened(camera: Camera, path: str) -> None:
    camera.path("/tmp/secret").touch(mode=0)
    camera.faces.script(7019, lambda message: wire.encode_reply(message, same_header=True, ClearConfigPath=path))
    clear(camera, 400)
    expect_log(camera, "INFO", LOOP, f" [Custom] download picture file {path}.", 306)
    expect_failure_after_the_reply(camera, f" [Custom] download picture, open file {path} error.", 311)


def test_path_without_its_nul_ends_with_the_message(camera: Camera) -> None:
    camera.faces.script(7019, lambda message: wire.patched(
        wire.encode_reply(message, same_header=True), 216, b"p" * (wire.MESSAGE_SIZE - 216)))
    clear(camera, 400)
    path = "p" * (wire.MESSAGE_SIZE - 216)
    expect_failure_after_the_reply(camera, f" [Custom] download picture, open file {path} error.", 311)


def test_configuration_that_cannot_be_read(camera: Camera) -> None:
    camera.faces.script(7019, lambda message: wire.encode_reply(
        message, same_header=True, ClearConfigPath="/tmp/mmcblk0"))
    clear(camera, 400)
    expect_failure_after_the_reply(camera, " fread pJsonConfig error.", 337)


@pytest.mark.parametrize("content", [b"{", b"hello", b'{"FaceListsArry":[}', b"[" * 10_000, b"{}{}"])
def test_syntax_error(camera: Camera, content: bytes) -> None:
    with_configuration(camera, content, 400)
    record = camera.wait_for_log(lambda record: record.path == LOOP and record.level == "ERROR")
    assert record.text.startswith("parser Err ") and record.text.endswith(" ")
    expect_failure_after_the_reply(camera, record.text, 357)
    assert camera.faces.requests(7018) == []


@pytest.mark.parametrize("content", [b"", b"  \n", b"null", b"\0{"])
def test_empty_configuration_counts_as_done_or_as_a_syntax_error(camera: Camera, content: bytes) -> None:
    camera.faces.configuration = content
    reply = camera.client.command("whiteListClear", {"cameraCode": "C1"})
    if reply.status == 400:
        record = camera.wait_for_log(lambda record: record.path == LOOP and record.level == "ERROR")
        assert record.line == 357
    else:
        assert reply.status == 200
        assert not [record for record in camera.service.log if record.path == LOOP and record.level == "ERROR"]
    assert camera.faces.requests(7018) == []


def test_configuration_ends_at_its_first_nul(camera: Camera) -> None:
    with_configuration(camera, json.dumps({"FaceListsArry": [face_list(1, "a")]}).encode() + b"\0 {{{")
    assert [face["ListName"] for face in camera.faces.applied] == ["a"]


def test_no_lists_are_a_success_without_a_message(camera: Camera) -> None:
    with_configuration(camera, {"FaceListsArry": []})
    assert camera.faces.requests(7018) == []


GOOD = face_list(1, "good")
MEMBERS = ["ID", "FaceListName", "OnControl", "Threshold", "FaceListType"]
BAD_ELEMENTS: dict[str, Any] = {
    "number": 1, "null": None, "array": [], "text": "x", "negative ID": {**GOOD, "ID": -1},
    "ID is no number": {**GOOD, "ID": "x"}, "ID is an object": {**GOOD, "ID": {}},
    "ID too large": {**GOOD, "ID": str(2**64 + 5)}, "type too large": {**GOOD, "FaceListType": 2**31},
    "control is no number": {**GOOD, "OnControl": "on"}, "control too small": {**GOOD, "OnControl": -2**31 - 1},
    "threshold is no number": {**GOOD, "Threshold": ""}, "threshold too large": {**GOOD, "Threshold": str(2**63)},
    "name is null": {**GOOD, "FaceListName": None}}
BAD_ELEMENTS |= {f"no {name}": {key: value for key, value in GOOD.items() if key != name} for name in MEMBERS}


def expect_array_failure(camera: Camera) -> str:
    record = camera.wait_for_log("facelist_ary parser Err ")
    assert record.text.endswith(" ")
    expect_failure_after_the_reply(camera, record.text, 416)
    return record.text


@pytest.mark.parametrize("element", BAD_ELEMENTS.values(), ids=BAD_ELEMENTS.keys())
def test_bad_element_ends_the_command_after_the_elements_before_it(camera: Camera, element: Any) -> None:
    with_configuration(camera, {"FaceListsArry": [GOOD, element, GOOD]}, 400)
    expect_array_failure(camera)
    assert [face["ListName"] for face in camera.faces.applied] == ["good"]
    assert count_text(camera, "CMD_ALARM_FACE_LIB_SET TaskID:1 FaceListName good") == 1


@pytest.mark.parametrize("content", [{}, {"FaceListsArry": None}, {"FaceListsArry": "x"}, {"FaceListsArry": {}},
                                     [GOOD]])
def test_missing_or_mistyped_array(camera: Camera, content: Any) -> None:
    with_configuration(camera, content, 400)
    expect_array_failure(camera)
    assert camera.faces.requests(7018) == []


def test_numbers_as_text_are_converted(camera: Camera) -> None:
    with_configuration(camera, {"FaceListsArry": [
        face_list("18446744073709551615", 12, list_type="-3", on_control="0", threshold="80")]})
    assert camera.faces.applied == [{"Count": 3, "ListId": 2**64 - 1, "ListType": -3, "ListOnControl": 0,
                                     "ListThreshold": 80, "ListName": "12"}]


@pytest.mark.parametrize("length, sent", [(0, 0), (1, 1), (64, 64), (65, 0), (66, 0), (100_000, 0)])
def test_name_of_more_than_64_bytes_is_left_empty(camera: Camera, length: int, sent: int) -> None:
    with_configuration(camera, {"FaceListsArry": [face_list(1, "n" * length), face_list(2, "next")]})
    first, second = camera.faces.requests(7018)
    assert first[240:240 + sent + 1] == b"n" * sent + b"\0"
    assert not any(first[240 + sent:])
    assert second.request["ListName"] == "next"
    expect_log(camera, "INFO", LOOP, f"CMD_ALARM_FACE_LIB_SET TaskID:1 FaceListName {'n' * length}", 407)


def test_next_request_has_the_header_of_the_reply_before_it(camera: Camera) -> None:
    """Only the five fields are written anew, and the message goes where that header says."""
    camera.faces.script(7018, lambda message: wire.patched(wire.encode_reply(
        message, same_header=True, destPath="/tmp/II", srcPath="/tmp/XY", subType=77, module=-5), 208, b"\x09\0\0\0"))
    camera.itgt.script(7018, lambda message: None)
    camera.faces.lists = [face_list(1, "one"), face_list(2, "two")]
    camera.client.send("whiteListClear", {"cameraCode": "C1"})
    moved = received(camera, "itgt", 7018).message
    assert (moved.destination, moved.source) == ("/tmp/II", "/tmp/XY")
    assert struct.unpack_from("<II", moved, 160) == (77, 7018)
    assert struct.unpack_from("<qI", moved, 200) == (-5, 9)
    assert moved.request["ListId"] == 2
    assert moved.request["ListName"] == "two"
    camera.itgt.send(wire.encode_reply(moved, same_header=True), "/tmp/CP")
    assert camera.wait_until(lambda: camera.client.replies)[0].status == 200


def test_answers_to_set_requests_are_not_checked(camera: Camera) -> None:
    camera.faces.script(7018, b"", lambda message: wire.encode_reply(message, same_header=True, command=1))
    camera.faces.script(1, b"")  # the third request has the command of the second's answer
    clear(camera)
    assert [struct.unpack_from("<Q", message, 216)[0] for message in camera.faces.received if message.command != 7019] \
        == [1, 2, 3]


@pytest.mark.parametrize("length", [0, 1, 167, 168, 180])
def test_short_answer_to_the_clear_request(camera: Camera, length: int) -> None:
    """What it does not cover is zero: accepted, with no configuration to be found."""
    camera.faces.script(7019, lambda message: wire.encode_reply(message, same_header=True)[:length])
    clear(camera, 400)
    expect_failure_after_the_reply(camera, " [Custom] download picture, open file  error.", 311)


@pytest.mark.parametrize("lists_before", [0, 1, 2])
def test_face_library_that_is_away_for_a_list_gets_it_when_it_is_back(camera: Camera, lists_before: int) -> None:
    """Played by its socket, which nobody may write to. The client is told 200 only when every list is set."""
    def forbid(_message: wire.Message, default: Callable[[], Any]) -> Any:
        if len(camera.faces.requests(7018)) == lists_before:
            camera.path("/tmp/A").chmod(0)
        return default()

    camera.faces.on_message = forbid
    tag = camera.client.send("whiteListClear", {"cameraCode": "C1"})
    camera.wait_for_log("sendTo fail:")
    assert camera.client.replies == []
    assert sum(text.startswith("CMD_ALARM_FACE_LIB_SET ") for text in texts(camera)) == lists_before
    camera.faces.on_message = None
    camera.path("/tmp/A").chmod(0o666)
    assert camera.client.wait_reply(tag).status == 200
    assert [face["ListName"] for face in camera.faces.applied] == ["Staff", "Visitors", "Watched"]
    expect_unsent(camera)


@pytest.mark.parametrize("destination", ["", "/tmp/CP"], ids=["nobody", "the service itself"])
def test_answer_that_sends_the_next_list_to_nobody_ends_the_command(camera: Camera, destination: str) -> None:
    """The header goes out again with the next list; nobody there could ever answer it."""
    camera.faces.script(7018, lambda message: wire.encode_reply(message, same_header=True, destPath=destination))
    clear(camera, 400)
    record = camera.wait_for_log("facelist_ary parser Err ")
    assert (record.level, record.path, record.line) == ("ERROR", LOOP, 416)
    assert len(camera.faces.requests(7018)) == 1
    expect_working(camera)


def test_configuration_that_is_repaired_is_used_by_the_next_command(camera: Camera) -> None:
    with_configuration(camera, b"{", 400)
    with_configuration(camera, {"FaceListsArry": [GOOD]})
    assert [face["ListName"] for face in camera.faces.applied] == ["good"]
