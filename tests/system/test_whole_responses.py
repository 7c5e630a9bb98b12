"""What counts as a whole response: every byte of it, and nothing that only looks like its end."""

from __future__ import annotations

from collections.abc import Sequence
from typing import Any

import pytest

from simulator import Camera, Close, Send, Wait
from support import DOWNLOAD, HTTP, PAGE, download, expect_log, kilobytes, memory_limit, sanitized, texts

OK = b"HTTP/1.1 200 OK\r\n"
CHUNKED = OK + b"Transfer-Encoding: chunked\r\n\r\n"


def told(camera: Camera) -> int:
    """How often ITGT was told of a page."""
    return len(camera.itgt.requests(7020))


def is_taken(camera: Camera, steps: Sequence[Any]) -> bool:
    """Downloads one page that is answered so. @return whether it was handed on; if not, all there is is one record"""
    before, errors = told(camera), count_errors(camera)
    camera.platform.script(camera.platform.task_path, steps)
    download(camera, 1)
    taken = told(camera) == before + 1
    assert count_errors(camera) - errors == (0 if taken else 1)
    return taken


def count_errors(camera: Camera) -> int:
    return sum(text.startswith("SendMsgAndRecvResponse err:") for text in texts(camera, HTTP))


def expect_page(camera: Camera, steps: Sequence[Any], body: bytes) -> None:
    assert is_taken(camera, steps)
    assert camera.path(PAGE).read_bytes() == body


def expect_no_page(camera: Camera, steps: Sequence[Any]) -> None:
    """Status 400, nothing stored, nobody told."""
    assert not is_taken(camera, steps)
    expect_log(camera, "INFO", DOWNLOAD, "DownloadPictureProcess Status:400")
    assert not camera.path(PAGE).exists()
    assert camera.platform.reports == []


# Each with what it says, and the byte from which on it is whole where the end is announced, and where it is not.
SHAPES: dict[str, tuple[bytes, bytes, int | None, int | None]] = {
    "length": (OK + b"Content-Length: 4\r\n\r\nbody", b"body", 42, 42),
    "empty": (OK + b"Content-Length: 0\r\n\r\n", b"", 38, 38),
    "chunked": (CHUNKED + b"4\r\nbody\r\n0\r\n\r\n", b"body", 61, 61),
    "trailers": (CHUNKED + b"4\r\nbody\r\n0\r\nA: b\r\nC: d\r\n\r\n", b"body", 73, 73),
    "interim": (b"HTTP/1.1 103 E\r\nA: b\r\n\r\n" + OK + b"Content-Length: 4\r\n\r\nbody", b"body", 66, 66),
    "to the end": (OK + b"A: b\r\n\r\nbody", b"body", 25, None)}


@pytest.mark.seconds(15)
@pytest.mark.parametrize("alert", [True, False], ids=["announced", "unannounced"])
@pytest.mark.parametrize("name", SHAPES)
def test_response_cut_at_any_byte_is_taken_only_when_it_is_whole(camera: Camera, name: str, alert: bool) -> None:
    response, _, whole_announced, whole_unannounced = SHAPES[name]
    whole = whole_announced if alert else whole_unannounced
    for end in range(len(response) + 1):
        taken = is_taken(camera, [Send(response[:end]), Close(alert=alert)])
        assert taken == (whole is not None and end >= whole), response[:end]
        if taken:
            head = response.index(b"\r\n\r\n", 26 if name == "interim" else 0) + 4
            expected = response[head:end] if name == "to the end" else b"body"[:end - head]
            assert camera.path(PAGE).read_bytes() == expected


LENGTHS = [b"Content-Length: " + value for value in (
    b"-5", b"-1", b"+4", b"many", b"", b"4x", b"0x4", b"1e3", b"1,0", b"99999999999999999999",
    b"4\r\nContent-Length: 3")]


@pytest.mark.parametrize("framing", [*LENGTHS, b"Transfer-Encoding: gzip", b"Transfer-Encoding: chunked",
                                     b"Transfer-Encoding: chunked\r\nContent-Length: 4"])
def test_framing_that_does_not_fit_the_body_fails_the_page(camera: Camera, framing: bytes) -> None:
    expect_no_page(camera, [Send(OK + framing + b"\r\n\r\nbody"), Close()])


@pytest.mark.parametrize("piece", [b"z", b"\0", b"-", b"-0\r\n\r\n", b"+0\r\n\r\n", b"0x0\r\n\r\n", b"\r\n", b"5 5\r\n",
                                   b"no\r\n\r\n", b"10000000000000000\r\n\r\n"])
@pytest.mark.parametrize("alert", [True, False], ids=["announced", "unannounced"])
def test_chunk_size_that_is_none_fails_the_page(camera: Camera, piece: bytes, alert: bool) -> None:
    """Each a TLS record of its own."""
    expect_no_page(camera, [Send(CHUNKED + b"4\r\nbody\r\n"), Send(piece), Close(alert=alert)])


@pytest.mark.parametrize("data", [b"bodies\r\n", b"bo\r\n", b"bodyx\r\n"])
def test_chunk_of_another_length_than_its_size_fails_the_page(camera: Camera, data: bytes) -> None:
    expect_no_page(camera, [Send(CHUNKED + b"4\r\n" + data + b"0\r\n\r\n"), Close()])


ENDS = {"folded trailer": b"0\r\nA: b\r\n c\r\n\td\r\n\r\n",
        "bytes behind the end": b"0\r\n\r\nHTTP/1.1 500 No\r\n\r\n",
        "trailer without a colon": b"0\r\nabc\r\n\r\n", "extension": b"0;a=b\r\n\r\n", "zeros": b"0000\r\n\r\n",
        "space after the size": b"0 \r\n\r\n", "line ends of LF": b"0\n\n"}


@pytest.mark.parametrize("end", ENDS.values(), ids=ENDS.keys())
def test_whole_chunks_are_taken_whatever_their_end_looks_like(camera: Camera, end: bytes) -> None:
    expect_page(camera, [Send(CHUNKED + b"4;x=y\r\nbody\r\n" + end), Close()], b"body")
    expect_page(camera, [Send(CHUNKED + b"4;x=y\r\nbody\r\n"), Send(end), Wait()], b"body")


@pytest.mark.parametrize("interim", [b"HTTP/1.1 100 Continue\r\n\r\n", b"HTTP/1.1 102 Processing\r\n\r\n",
                                     b"HTTP/1.1 103 Early Hints\r\nLink: </a>\r\nContent-Length: 9\r\n\r\n",
                                     b"HTTP/1.1 103 Early Hints\r\n\r\n" * 100],
                         ids=["100", "102", "103", "a hundred"])
def test_interim_answers_are_passed_over(camera: Camera, interim: bytes) -> None:
    expect_page(camera, [Send(interim), Wait(0.05), Send(OK + b"Content-Length: 4\r\n\r\nbody"), Wait()], b"body")


def test_switched_protocols_are_no_page(camera: Camera) -> None:
    """Nobody asked for another protocol, in which the rest would be."""
    camera.platform.script(camera.platform.task_path, [
        Send(b"HTTP/1.1 101 Switching Protocols\r\n\r\n" + OK + b"Content-Length: 4\r\n\r\nbody"), Wait()])
    download(camera, 1)
    expect_log(camera, "INFO", DOWNLOAD, "DownloadPictureProcess Status:101")
    assert told(camera) == 0


ENDLESS = {"interim answers": (b"", b"HTTP/1.1 100 Continue\r\n\r\n" * 1000), "head": (OK, b"A: b\r\n" * 1000),
           "empty lines": (b"", b"\r\n" * 10_000), "chunk extension": (CHUNKED + b"4;", b"x" * 10_000),
           "spaces before a chunk size": (CHUNKED, b" " * 10_000), "trailers": (CHUNKED + b"0\r\n", b"A: b\r\n" * 1000),
           "zeros of a chunk size": (CHUNKED, b"0" * 10_000),
           "lines before a chunk size": (CHUNKED + b"4\r\nbody", b"\r\n" * 10_000)}


@pytest.mark.parametrize("name", ENDLESS)
def test_response_that_never_gets_to_its_end_is_given_up(camera: Camera, name: str) -> None:
    """After 1 MiB that is no body, or earlier: nothing keeps it busy for ever."""
    begin, piece = ENDLESS[name]
    sent = [0]

    def steps() -> Any:
        yield Send(begin)
        while True:
            sent[0] += len(piece)
            yield Send(piece)

    expect_no_page(camera, steps())
    assert sent[0] < 20_000_000, "what the connection's buffers take is on the way, too"
    expect_page(camera, [Send(OK + b"Content-Length: 4\r\n\r\nbody"), Wait()], b"body")


def test_page_in_chunks_of_one_byte_is_taken(camera: Camera) -> None:
    body = b"x" * 500_000
    expect_page(camera, [Send(CHUNKED + b"1\r\nx\r\n" * len(body) + b"0\r\n\r\n"), Wait()], body)


MEGABYTE = b"x" * 1_000_000
LARGE = {"no length": (OK + b"\r\n", MEGABYTE),
         "200 MB announced": (OK + b"Content-Length: 200000000\r\n\r\n", MEGABYTE),
         "chunks": (CHUNKED, b"%x\r\n%s\r\n" % (len(MEGABYTE), MEGABYTE)),
         "a chunk": (CHUNKED + b"fffffff\r\n", MEGABYTE)}


@pytest.mark.seconds(6)
@pytest.mark.parametrize("name", LARGE)
def test_body_that_is_too_large_takes_no_more_memory_than_the_largest(camera: Camera, name: str) -> None:
    download(camera, 1)
    camera.path(PAGE).unlink()
    before = kilobytes(camera, "VmRSS")
    head, piece = LARGE[name]
    camera.platform.script(camera.platform.task_path, [Send(head), *[Send(piece)] * 300])
    download(camera, 1, timeout=60)
    expect_log(camera, "INFO", DOWNLOAD, "DownloadPictureProcess Status:400")
    assert not camera.path(PAGE).exists()
    if not sanitized():
        assert kilobytes(camera, "VmHWM") - before < memory_limit(128 * 1024 + 2_000, 0)
        assert kilobytes(camera, "VmRSS") - before < memory_limit(100_000, 0), "what came of it is no longer held"


def test_length_of_exactly_the_bound_is_no_reason_to_take_memory(camera: Camera) -> None:
    download(camera, 1)
    camera.path(PAGE).unlink()
    before = kilobytes(camera, "VmHWM")
    camera.platform.script(camera.platform.task_path,
                           [Send(OK + b"Content-Length: %d\r\n\r\nbody" % (128 << 20)), Close()])
    download(camera, 1)
    assert not camera.path(PAGE).exists()
    if not sanitized():
        assert kilobytes(camera, "VmHWM") - before < 3_000


def test_encoding_that_nobody_asked_for_is_stored_as_it_came(camera: Camera) -> None:
    expect_page(camera, [Send(OK + b"Content-Encoding: gzip\r\nContent-Length: 4\r\n\r\n\x1f\x8b\x08x"), Close()],
                b"\x1f\x8b\x08x")
