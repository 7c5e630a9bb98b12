"""The comparison of two recorded runs: what counts as a difference, what does not, and how it is told."""

from __future__ import annotations

import hashlib
import random
from typing import Any

import pytest

from simulator.messages.text import LeftOut
from simulator.trace.comparison import compare, counts
from simulator.trace.recording import Entry, Recording

STORY: list[tuple[str, dict[str, Any]]] = [
    ("note", {"source": "service", "kind": "started", "data": {"pid": 7}}),
    ("datagram", {"from": "client", "to": "service", "socket": "/tmp/HK", "data": b"head"}),
    ("datagram", {"from": "client", "to": "service", "socket": "/tmp/HK", "data": b"body"}),
    ("datagram", {"from": "service", "to": "itgt", "socket": "/tmp/II", "data": bytes(300)}),
    ("connection", {"connection": 1, "port": 8443, "event": "closed", "requests": 1}),
    ("request", {"connection": 1, "port": 8443, "tls_version": "TLSv1.2", "cipher": "C", "head": b"POST",
                 "body": b"{}"}),
    ("response", {"connection": 1, "delay": 0.0, "head": b"HTTP/1.1 200 OK", "body": b"page"}),
    ("step", {"connection": 1, "step": "send", "data": b"x"}),
    ("file", {"process": "itgt", "path": "/tmp/state", "data": b"[]"}),
    ("buffer", {"buffer_id": 1, "data": b"block"}),
    ("ring_record", {"text": "record"}),
    ("log", {"level": "INFO", "path": "a", "line": 10, "text": "one", "written": "2026-01-01T00:00:00.000"}),
    ("log", {"level": "INFO", "path": "b", "line": 20, "text": "two", "written": "2026-01-01T00:00:00.000"}),
    ("note", {"source": "service", "kind": "ended", "data": {"exit_code": 0}}),
]


def run(story: list[tuple[str, dict[str, Any]]], seconds: float = 0.1) -> Recording:
    return Recording("", {}, [Entry(number, number * seconds, kind, fields)
                              for number, (kind, fields) in enumerate(story, 2)])


def changed(position: int, **fields: Any) -> Recording:
    story = list(STORY)
    story[position] = (story[position][0], {**story[position][1], **fields})
    return run(story)


def test_same_story_at_another_time_is_the_same() -> None:
    assert compare(run(STORY), run(STORY, seconds=0.2)) == []
    assert compare(run(STORY), changed(11, written="2027-02-02T00:00:00.000")) == []
    assert compare(run(STORY), changed(0, data={"pid": 8})) == []
    assert compare(run(STORY), changed(4, seconds=0.1)) == []


def test_order_counts_within_a_channel_only() -> None:
    between = [*STORY[:3][::-1], *STORY[3:]]
    assert compare(run(STORY), run(between)) == [
        "datagrams client to service /tmp/HK: number 1: 4 and 4 bytes, different from offset 0 on: b'head' and b'body'"]
    story = list(STORY)
    random.Random(1).shuffle(story)
    story.sort(key=lambda step: step[1].get("data") == b"body")
    assert compare(run(STORY), run(story)) == []


@pytest.mark.parametrize("position, fields, told", [
    (1, {"data": b"heaD"}, "datagrams client to service /tmp/HK: number 1: 4 and 4 bytes, different from offset 3 on: "
                           "b'd' and b'D'"),
    (3, {"data": bytes(299) + b"\1"}, "datagrams service to itgt /tmp/II: number 1: 300 and 300 bytes, "
                                      r"different from offset 299 on: b'\x00' and b'\x01'"),
    (3, {"data": bytes(301)}, "datagrams service to itgt /tmp/II: number 1: 300 and 301 bytes, "
                              r"different from offset 300 on: b'' and b'\x00'"),
    (4, {"requests": 2}, "connection 1: number 1: requests: 1 and 2"),
    (5, {"head": b"PUT"}, "requests: number 1: head: 4 and 3 bytes, different from offset 1 on: b'OST' and b'UT'"),
    (5, {"body": b"[]"}, "requests: number 1: body: 2 and 2 bytes, different from offset 0 on: b'{}' and b'[]'"),
    (5, {"cipher": "D"}, "requests: number 1: cipher: 'C' and 'D'"),
    (6, {"body": b"pagE"}, "responses: number 1: body: 4 and 4 bytes, different from offset 3 on: b'e' and b'E'"),
    (7, {"data": b"y"}, "steps of connection 1: number 1: data: 1 and 1 bytes, different from offset 0 on: "
                        "b'x' and b'y'"),
    (8, {"data": b"{}"}, "files /tmp/state: number 1: data: 2 and 2 bytes, different from offset 0 on: "
                         "b'[]' and b'{}'"),
    (9, {"data": b"blocK"}, "buffers: number 1: 5 and 5 bytes, different from offset 4 on: b'k' and b'K'"),
    (10, {"text": "Record"}, "ring buffer: number 1: 'record' and 'Record'"),
    (11, {"level": "ERROR"}, "log a: number 1: 'INFO line 10: one' and 'ERROR line 10: one'"),
    (11, {"line": 11}, "log a: number 1: 'INFO line 10: one' and 'INFO line 11: one'"),
    (12, {"text": "two "}, "log b: number 1: 'INFO line 20: two' and 'INFO line 20: two '"),
    (13, {"data": {"exit_code": 1}}, "end of the service: number 1: exit_code: 0 and 1"),
])
def test_one_change_is_found(position: int, fields: dict[str, Any], told: str) -> None:
    assert compare(run(STORY), changed(position, **fields)) == [told]


@pytest.mark.parametrize("position", range(1, len(STORY)))
def test_one_step_more_or_less_is_found(position: int) -> None:
    shorter = run(STORY[:position] + STORY[position + 1:])
    assert len(compare(run(STORY), shorter)) == len(compare(shorter, run(STORY))) == 1


def test_missing_step_is_told() -> None:
    assert compare(run(STORY), run(STORY[:-2])) == [
        "end of the service: 1 and 0; only the first run has number 1: {'exit_code': 0}",
        "log b: 1 and 0; only the first run has number 1: 'INFO line 20: two'"]
    assert compare(run(STORY[:-1]), run(STORY)) == [
        "end of the service: 0 and 1; only the second run has number 1: {'exit_code': 0}"]


def test_difference_late_in_a_long_text_is_shown() -> None:
    assert compare(changed(12, text="x" * 500 + "1"), changed(12, text="x" * 500 + "2")) == [
        "log b: number 1: 515 and 515 characters, different from offset 514 on: '1' and '2'"]


def test_counts() -> None:
    assert counts(run(STORY)) == {"datagrams": 3, "connection": 1, "requests": 1, "responses": 1, "files": 1,
                                  "steps of connection": 1, "buffers": 1, "ring buffer": 1, "log": 2,
                                  "end of the service": 1}


@pytest.mark.parametrize("one, other, same", [
    ("Err JSON Exception: unexpected end of text ", "Err JSON Exception: error: 1: unexpected end of data ", True),
    ("Err JSON Exception: unexpected end of text ", "Err JSON Exception: error: 1: unexpected end of data", False),
    ("Err JSON Exception: unexpected end of text ", "err JSON Exception: unexpected end of text ", False),
    ("Err JSON Exception: unexpected end of text ", "Err JSON Exception: Maximum depth exceeded ", False),
    ("Err JSON Exception: Maximum depth exceeded ", "Err JSON Exception: Maximum depth exceeded. ", False),
])
def test_words_of_the_json_library_alone_may_differ(one: str, other: str, same: bool) -> None:
    assert (compare(changed(12, text=one), changed(12, text=other)) == []) == same


def test_bytes_that_were_left_out_are_compared_by_what_they_were() -> None:
    def run(data: bytes) -> Recording:
        return Recording("", {}, [Entry(2, 0.0, "file", {"process": "service", "path": "/p", "data": data})])
    page = b"page" * 2000
    left_out = LeftOut(len(page), hashlib.sha256(page).hexdigest())
    assert compare(run(page), run(left_out)) == compare(run(left_out), run(left_out)) == []
    assert compare(run(b"page" * 2001), run(left_out)) == [
        "files /p: number 1: data: b'pagepagepagepagepagepage'... and (8,000 bytes, left out of the recording)"]
