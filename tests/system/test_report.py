"""The report of a page's import: state file in, document out."""

from __future__ import annotations

import json
import struct
from typing import Any

import pytest

from simulator import Camera, Response, wire
from support import (DOWNLOAD, at_most, at_request, download, expect_log, expect_unsent, start_download, texts,
                     wait_end, written)


def with_state(camera: Camera, content: bytes | Any, faces: int = 1) -> None:
    """A download whose state file holds these bytes, or this JSON value."""
    data = content if isinstance(content, bytes) else json.dumps(content).encode()
    camera.itgt.on_state_file = lambda document: data
    download(camera, faces)


def with_results(camera: Camera, *results: Any) -> None:
    with_state(camera, {"TaskResultArry": list(results)})


def test_document_is_compact_and_sorted_by_key(camera: Camera) -> None:
    with_results(camera, {"ID": "a", "RESULT_TYPE_E": 0}, {"ID": "b", "RESULT_TYPE_E": -3})
    assert camera.platform.reports[0].body == (
        b'{"ImportInfo":[{"credentialNumber":"a","importStatus":0},{"credentialNumber":"b","importStatus":-3}],'
        b'"cameraCode":"C1","datatime":"2024-05-17 08:30:00","offset":1,"securityCode":"K1","startIndex":0,'
        b'"taskID":"T1"}')


def test_every_page_is_reported_with_its_own_index_and_count(camera: Camera) -> None:
    download(camera, 75)
    documents = [request.json() for request in camera.platform.reports]
    assert [(document["startIndex"], document["offset"], len(document["ImportInfo"])) for document in documents] == [
        (0, 30, 30), (30, 30, 30), (60, 15, 15)]


def test_time_is_asked_with_7031_byte_for_byte(camera: Camera) -> None:
    download(camera, 1)
    header = b"/tmp/II\0/tmp/CP\0" + bytes(144) + struct.pack("<II", 0, 7031) + bytes(32) + struct.pack("<q", 101)
    assert camera.itgt.requests(7031) == [header.ljust(21408, b"\0")]


def test_fixed_log_lines(camera: Camera) -> None:
    download(camera, 31)
    body = camera.platform.reports[1].body.decode()
    expect_log(camera, "INFO", DOWNLOAD, "picTaskResult Update TIME IS 2024-05-17 08:30:00", 182)
    expect_log(camera, "INFO", DOWNLOAD, "Finish Task  startIndex 30  offset 1", 190)
    expect_log(camera, "INFO", DOWNLOAD, "@@@picTaskResult Update  " + body, 198)
    expect_log(camera, "INFO", DOWNLOAD, "response status 200 ,picTaskResult OK responselen 15", 217)


@pytest.mark.parametrize("time_text", ["", "x", "12:00 / 面", '"quoted"\\', "t" * 5000])
def test_time_is_passed_through_unchanged(camera: Camera, time_text: str) -> None:
    camera.itgt.time_text = time_text
    download(camera, 1)
    assert camera.platform.reports[0].json()["datatime"] == time_text


def test_another_answer_leaves_the_time_out_and_the_report_is_still_posted(camera: Camera) -> None:
    camera.itgt.script(7031, lambda request: wire.encode_reply(request, command=7030))
    download(camera, 1)
    assert camera.platform.reports[0].body == (
        b'{"ImportInfo":[{"credentialNumber":"110101196001010000","importStatus":0}],"cameraCode":"C1","offset":1,'
        b'"securityCode":"K1","startIndex":0,"taskID":"T1"}')
    assert not [text for text in texts(camera) if text.startswith("picTaskResult Update TIME")]


def test_itgt_that_is_away_for_the_time_is_asked_again_until_the_report_has_it(camera: Camera) -> None:
    """Played by its socket, which nobody may write to while the time is asked."""
    at_request(camera.itgt, 7021, lambda _: camera.path("/tmp/II").chmod(0))
    start_download(camera)
    expect_unsent(camera)
    assert camera.platform.reports == []
    camera.path("/tmp/II").chmod(0o666)
    wait_end(camera)
    assert [request.json()["datatime"] for request in camera.platform.reports] == ["2024-05-17 08:30:00"]
    expect_unsent(camera)


def test_strings_are_escaped(camera: Camera) -> None:
    camera.itgt.on_state_file = lambda document: b'{"TaskResultArry":[{"ID":"a\\"/\\n","RESULT_TYPE_E":1}]}'
    download(camera, 1, cameraCode='c"\\', taskID="t/\t", securityCode="面\x02")
    assert camera.platform.reports[0].body.decode() == (
        '{"ImportInfo":[{"credentialNumber":"a\\"\\/\\n","importStatus":1}],"cameraCode":"c\\"\\\\",'
        '"datatime":"2024-05-17 08:30:00","offset":1,"securityCode":"面\\u0002","startIndex":0,"taskID":"t\\/\\t"}')


def test_empty_results_are_still_reported(camera: Camera) -> None:
    with_results(camera)
    assert camera.platform.reports[0].body.startswith(b'{"ImportInfo":[],"cameraCode":"C1",')


@pytest.mark.parametrize("value, text", [(7, "7"), (-5, "-5"), (2**62, str(2**62)), ("", ""), (True, "true")])
def test_identifier_of_another_type_is_converted_to_text(camera: Camera, value: Any, text: str) -> None:
    with_results(camera, {"ID": value, "RESULT_TYPE_E": 0})
    assert camera.platform.reports[0].json()["ImportInfo"] == [{"credentialNumber": text, "importStatus": 0}]


@pytest.mark.parametrize("value, number", [("3", 3), ("-4", -4), (2**63 - 1, 2**63 - 1), (-2**63, -2**63), (5.0, 5),
                                           (True, 1)])
def test_result_of_another_type_is_converted_to_a_number(camera: Camera, value: Any, number: int) -> None:
    with_results(camera, {"ID": "a", "RESULT_TYPE_E": value})
    assert camera.platform.reports[0].json()["ImportInfo"] == [{"credentialNumber": "a", "importStatus": number}]


def test_further_members_are_ignored(camera: Camera) -> None:
    with_state(camera, {"a": 1, "TaskResultArry": [{"ID": "a", "RESULT_TYPE_E": 1, "x": {}}], "z": []})
    assert camera.platform.reports[0].json()["ImportInfo"] == [{"credentialNumber": "a", "importStatus": 1}]


GOOD = {"ID": "a", "RESULT_TYPE_E": 0}
BAD_RESULTS: dict[str, Any] = {
    "no array": {}, "array is null": {"TaskResultArry": None}, "array is text": {"TaskResultArry": "x"},
    "array is an object": {"TaskResultArry": {}}, "no object": [GOOD],
    "element is a number": {"TaskResultArry": [GOOD, 1]}, "element is null": {"TaskResultArry": [GOOD, None]},
    "element is an array": {"TaskResultArry": [GOOD, []]},
    "no identifier": {"TaskResultArry": [GOOD, {"RESULT_TYPE_E": 0}]},
    "identifier is null": {"TaskResultArry": [GOOD, {"ID": None, "RESULT_TYPE_E": 0}]},
    "no result": {"TaskResultArry": [GOOD, {"ID": "b"}]},
    "result is text": {"TaskResultArry": [GOOD, {"ID": "b", "RESULT_TYPE_E": "x"}]},
    "result is an object": {"TaskResultArry": [GOOD, {"ID": "b", "RESULT_TYPE_E": {}}]},
    "result too large": {"TaskResultArry": [GOOD, {"ID": "b", "RESULT_TYPE_E": str(2**63)}]}}


@pytest.mark.parametrize("state", BAD_RESULTS.values(), ids=BAD_RESULTS.keys())
def test_bad_element_stops_the_whole_report(camera: Camera, state: Any) -> None:
    with_state(camera, state)
    record = camera.wait_for_log("faceresultlist_ary parser Err ")
    assert (record.level, record.path, record.line, record.text[-1]) == ("ERROR", DOWNLOAD, 157, " ")
    assert camera.itgt.requests(7031) == []
    assert camera.platform.reports == []


def test_bad_element_is_named(camera: Camera) -> None:
    with_results(camera, 1)
    assert "Can not convert " in camera.wait_for_log("faceresultlist_ary parser Err ").text


@pytest.mark.parametrize("content", [b"{", b"hello", b'{"TaskResultArry":[}', b"{}{}", b"[" * 10_000, b"{'a':1}", b"7",
                                     b'"x"'])
def test_syntax_error_is_logged_and_nothing_posted(camera: Camera, content: bytes) -> None:
    with_state(camera, content)
    record = camera.wait_for_log("parser Err ")
    assert (record.level, record.path, record.line, record.text[-1]) == ("ERROR", DOWNLOAD, 118, " ")
    assert record.text.startswith("parser Err ")
    assert camera.itgt.requests(7031) == []
    assert camera.platform.reports == []


@pytest.mark.parametrize("content", [b"", b"   \n", b"null", b"\0{}"])
def test_empty_state_file_is_logged_and_nothing_posted(camera: Camera, content: bytes) -> None:
    with_state(camera, content)
    record = camera.wait_for_log(lambda record: record.path == DOWNLOAD and record.level == "ERROR")
    if record.line == 126:
        assert record.text == "json  is Empty "
    else:
        assert record.line == 118
        assert record.text.startswith("parser Err ")
    assert camera.itgt.requests(7031) == []
    assert camera.platform.reports == []


def test_state_file_ends_at_its_first_nul(camera: Camera) -> None:
    with_state(camera, b'{"TaskResultArry":[]}\0 garbage {{{')
    assert len(camera.platform.reports) == 1


def test_large_state_file_is_read_whole(camera: Camera) -> None:
    results = [{"ID": f"{number:0100}", "RESULT_TYPE_E": number} for number in range(3_000)]
    with_results(camera, *results)
    assert len(camera.platform.reports[0].json()["ImportInfo"]) == 3_000


def test_missing_state_file_is_logged_and_the_next_page_is_fetched(camera: Camera) -> None:
    camera.itgt.script(7021, lambda request: wire.encode_reply(
        request, ProgressStatus=1, ProgressStatePath="/tmp/no/such"))
    download(camera, 31)
    expect_log(camera, "ERROR", DOWNLOAD, " [Custom] download picture, open file /tmp/no/such error.", 77)
    assert [request.json()["startIndex"] for request in camera.platform.reports] == [30]


@pytest.mark.parametrize("path", ["", "relative", "/tmp/%s%n%d", "/" + "d/" * 3000, "/tmp/secret"])
def test_state_file_that_cannot_be_opened_is_logged_with_its_path(camera: Camera, path: str) -> None:
    camera.path("/tmp/secret").touch(mode=0)
    camera.itgt.script(7021, lambda request: wire.encode_reply(request, ProgressStatus=1, ProgressStatePath=path))
    download(camera, 1)
    expect_log(camera, "ERROR", DOWNLOAD, f" [Custom] download picture, open file {path} error.", 77)


def test_folder_in_place_of_the_state_file_is_a_read_error(camera: Camera) -> None:
    camera.itgt.script(7021, lambda request: wire.encode_reply(
        request, ProgressStatus=1, ProgressStatePath="/tmp/mmcblk0"))
    download(camera, 1)
    expect_log(camera, "ERROR", DOWNLOAD, "fread error.", 100)
    assert camera.platform.reports == []


@pytest.mark.parametrize("status, reason", [(500, "Internal Server Error"), (404, "Not Found"), (302, "Moved")])
def test_refused_report_is_logged_like_a_taken_one_and_changes_nothing(camera: Camera, status: int,
                                                                       reason: str) -> None:
    camera.platform.script(camera.platform.result_path, Response(status, b"0123456789", reason))
    download(camera, 31)
    expect_log(camera, "INFO", DOWNLOAD, f"response status {status} ,picTaskResult {reason} responselen 10", 217)
    assert len(camera.platform.reports) == 2


def test_report_answer_is_not_looked_into(camera: Camera) -> None:
    camera.platform.script(camera.platform.result_path, Response(body=b"\xff{{{\0no json"))
    download(camera, 1)
    expect_log(camera, "INFO", DOWNLOAD, "response status 200 ,picTaskResult OK responselen 12", 217)


@pytest.mark.seconds(5)
def test_silent_platform_ends_the_report_after_5_seconds(camera: Camera) -> None:
    camera.platform.script(camera.platform.result_path, None)
    begin = len(camera.journal)
    start_download(camera, 31)
    posted = camera.wait_for_log("@@@picTaskResult Update ", since=begin)
    ended = camera.wait_for_log(lambda record: record.text.startswith("metadata "), since=begin)
    assert 4.5 <= written(ended) - written(posted) <= at_most(6.5)
    assert ended.line == 221
    camera.wait_until(lambda: len(camera.platform.reports) == 2)
