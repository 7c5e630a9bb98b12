"""faceNotHitDown: the command's information as one record in the shared ring buffer."""

from __future__ import annotations

import json
import re
from typing import Any

import pytest

from simulator import Camera, build_folder
from support import LOOP, StartCamera, count_text, expect_log

RING = "metadata_servfile26214"


def records(camera: Camera) -> list[bytes]:
    """Every unread record, as a reader in another process prints them."""
    result = camera.sandbox.run([build_folder() / "bin" / "ringbuf_cat", RING])
    assert result.returncode == 0, result.stderr
    return result.stdout.splitlines()


def put(camera: Camera, information: bytes) -> None:
    body = b'{"taskName":"faceNotHitDown","taskInfo":' + information + b"}"
    assert camera.client.wait_reply(camera.client.send_body(body)).status == 200


@pytest.mark.parametrize("information, record", [
    (b"{}", b"{}"), (b'{ "b" : 1,\n "a" : [ 1 , 2.5, true, null, "x" ] }', b'{"a":[1,2.5,true,null,"x"],"b":1}'),
    (b'{"a":{"b":{"c":{}}}}', b'{"a":{"b":{"c":{}}}}'), (b'{"a":[]}', b'{"a":[]}'),
    ('{"name":"面 ü"}'.encode(), '{"name":"面 ü"}'.encode()),
    (b'{"u":"\\u9762"}', '{"u":"面"}'.encode()), (b'{"n":-9223372036854775808}', b'{"n":-9223372036854775808}'),
    (b'{"n":18446744073709551615}', b'{"n":18446744073709551615}')])
def test_compact_text_is_one_record(camera: Camera, information: bytes, record: bytes) -> None:
    put(camera, information)
    assert records(camera) == [record]


def test_escapes_are_written_again(camera: Camera) -> None:
    put(camera, b'{"a":"\\"\\\\\\n\\t\\u0001/"}')
    assert records(camera) == [b'{"a":"\\"\\\\\\n\\t\\u0001\\/"}']


def test_members_are_passed_on_unchanged(camera: Camera) -> None:
    information = {"FacePos": [1, 2, 3, 4], "FaceScore": 0.5, "Name": "x", "nested": {"list": [{"a": None}, [], {}]}}
    assert camera.client.command("faceNotHitDown", information).status == 200
    assert json.loads(records(camera)[0]) == information


def test_records_come_in_order_each_once(camera: Camera) -> None:
    for number in range(5):
        put(camera, b'{"n":%d}' % number)
    assert records(camera) == [b'{"n":%d}' % number for number in range(5)]
    put(camera, b'{"n":5}')
    assert records(camera) == [b'{"n":5}']


@pytest.mark.parametrize("size", [32_760, 32_768, 32_769, 65_536, 200_000])
def test_long_record_is_whole(camera: Camera, size: int) -> None:
    information = b'{"a":"' + b"x" * (size - 8) + b'"}'
    put(camera, information)
    assert records(camera) == [information]


def test_more_than_the_ring_holds_leaves_the_newest(camera: Camera) -> None:
    information = [b'{"n":%d,"x":"%s"}' % (number, b"y" * 150_000) for number in range(40)]
    for one in information:
        put(camera, one)
    found = records(camera)
    assert 10 < len(found) < 40
    assert found == information[-len(found):]


SHOWN = r"""
int client_open(void* handle, const char* name, unsigned int size) { return 0; }
int client_msgsend(void* handle, const void* data, unsigned int length, int flag) {
    const char* text = data;
    dprintf(2, "2024-01-01T00:00:00.000 INFO put:1 length %u flag %d last %d text %.*s\n", length, flag,
            text[length - 1], (int)length - 1, text);
    return 0;
}
"""


@pytest.mark.parametrize("information", [{}, {"a": "x" * 100}])
def test_record_is_nul_terminated_and_put_with_flag_1(with_library: StartCamera, information: dict[str, Any]) -> None:
    camera = with_library(SHOWN)
    assert camera.client.command("faceNotHitDown", information).status == 200
    text = json.dumps(information, separators=(",", ":"))
    assert camera.wait_for_log("flag").text == f"length {len(text) + 1} flag 1 last 0 text {text}"


REFUSING = r"""
static int calls;
int client_open(void* handle, const char* name, unsigned int size) { return -1; }
int client_msgsend(void* handle, const void* data, unsigned int length, int flag) { return calls++ == 0 ? %d : 0; }
"""


@pytest.mark.parametrize("code", [-1, 1, -2147483648])
def test_refused_record_is_logged_and_answered_400_and_the_next_is_taken(with_library: StartCamera, code: int) -> None:
    camera = with_library(REFUSING % code)
    assert camera.client.command("faceNotHitDown", {"a": 1}).status == 400
    error = expect_log(camera, "ERROR", LOOP, "metadata put ring buf fail.")
    reply = camera.wait_for_log("SendJsonMsg head: 280 body :24.")
    assert camera.service.log.index(error) < camera.service.log.index(reply)
    assert camera.client.command("faceNotHitDown", {"a": 1}).status == 200
    assert count_text(camera, "metadata put ring buf fail.") == 1


def test_ring_buffer_is_opened_at_start_and_stays(camera: Camera) -> None:
    ring = camera.path(f"/dev/shm/{RING}")
    assert ring.stat().st_size >= 0x400000
    put(camera, b'{"before":1}')
    camera.service.stop()
    camera.start_service()
    put(camera, b'{"after":1}')
    assert re.fullmatch(rb'.*\{"after":1\}', b"".join(records(camera)))
