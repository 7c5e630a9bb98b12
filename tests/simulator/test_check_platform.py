"""camsim check-platform: a good platform passes, and each mistake is found and named."""

from __future__ import annotations

import contextlib
import functools
import gzip
import json
import socket
import ssl
import subprocess
import tempfile
import threading
from collections.abc import Callable, Collection, Iterator
from dataclasses import replace
from typing import Any

import pytest

from served import free_port, served
from simulator.messages.http import NEVER, Close, Request, Response, Send, Wait
from simulator.peers.pictures import picture
from simulator.peers.platform import Platform
from simulator.peers.real import asking
from simulator.peers.real.asking import page_request
from simulator.platform_check.check import FAILED, NOT_JUDGED, PASSED, WARNING, Subject
from simulator.platform_check.kit import CHECKS, Result, examine

FACES = 75
MANY = ("in-a-row", "at-once")
Twist = Callable[[Platform], None]


@functools.lru_cache
def pictures() -> list[tuple[str, bytes]]:
    return [(f"Face {index}", picture(index, 400, 500)) for index in range(FACES)]


@contextlib.contextmanager
def holding_75() -> Iterator[Platform]:
    """A good platform, with 75 records and no more."""
    with served() as platform:
        platform.pictures = pictures()
        yield platform


def checked(platform: Platform, only: Collection[str] = (), **changes: Any) -> dict[str, Result]:
    subject = Subject(f"https://localhost:{platform.port}{platform.task_path}", **changes)
    return {result.check.name: result for result in examine(subject, only)}


def verdicts(results: dict[str, Result], verdict: str) -> dict[str, str]:
    return {name: result.finding.seen for name, result in results.items() if result.finding.verdict == verdict}


def test_good_platform_passes_every_check() -> None:
    with holding_75() as platform:
        results = checked(platform)
    assert list(results) == list(CHECKS)
    assert verdicts(results, PASSED).keys() == CHECKS.keys()
    assert results["beyond-the-end"].finding.seen == "at 75, 105 and 1,000,000: 0, 0, 0 records"


@pytest.mark.parametrize("faces", [1, 29, 30, 31, 60])
def test_any_number_of_records_will_do(faces: int) -> None:
    with holding_75() as platform:
        platform.pictures = pictures()[:faces]
        results = checked(platform, set(CHECKS) - set(MANY), faces=faces)
    assert verdicts(results, PASSED).keys() == results.keys()


def test_the_kit_asks_as_the_service_does() -> None:
    with holding_75() as platform:
        checked(platform, ["status", "download"], info={"taskID": "T7"})
        subject = Subject(f"https://localhost:{platform.port}{platform.task_path}", info={"taskID": "T7"})
        first, same = (request.raw for request in platform.requests[:2])
        assert first == same == page_request(subject.address, subject.task, 0, 30)


# The mistakes: what is wrong with a platform, and which check is to say so.

def answering(make: Callable[[Request, Response], Any], target: str = Platform.task_path) -> Twist:
    """Answers what `make` makes of the request and of what would have been right."""
    def twist(platform: Platform) -> None:
        platform.on_request = lambda request, default: (
            make(request, default()) if request.target == target else default())
    return twist


def sending(make: Callable[[bytes], bytes], end: Any = Close()) -> Twist:
    """Sends what `make` makes of a page, and ends the connection."""
    return answering(lambda _, right: [Send(make(right.body)), end])


def with_records(change: Callable[[int, int], tuple[int, int]]) -> Twist:
    """Takes startIndex and offset for others."""
    def twist(platform: Platform) -> None:
        platform.on_request = lambda request, default: default() if request.target != platform.task_path else Response(
            body=platform.page(*change(request.json()["startIndex"], request.json()["offset"])))
    return twist


def headed(line: str, body: bytes) -> bytes:
    return b"HTTP/1.1 200 OK\r\n" + f"{line}\r\n\r\n".encode() + body


def only_new_tls(platform: Platform) -> None:
    platform.use_tls("1.3", "1.3")


def old_suite(platform: Platform) -> None:
    made = subprocess.run(["openssl", "req", "-x509", "-newkey", "rsa:2048", "-nodes", "-days", "2", "-subj", "/CN=old",
                           "-keyout", "-", "-out", "-"], capture_output=True, check=True)
    context = ssl.SSLContext(ssl.PROTOCOL_TLS_SERVER)
    with tempfile.NamedTemporaryFile() as file:
        file.write(made.stdout)
        file.flush()
        context.load_cert_chain(file.name)
    context.maximum_version = ssl.TLSVersion.TLSv1_2
    context.set_ciphers("AES128-SHA:@SECLEVEL=0")
    platform._server.context = context


def plain_http(platform: Platform) -> None:
    platform.on_connect = lambda connection: [Send(b"HTTP/1.1 400 Bad Request\r\n\r\n"), Close(alert=False)]


def once_only(platform: Platform) -> None:
    """A task that was reported is over."""
    platform.on_request = lambda request, default: (
        Response(409) if len(platform.reports) >= 3 and request.target == platform.task_path else default())


def five_at_a_time(platform: Platform) -> None:
    changed, asked = threading.Condition(), [0]

    def hook(request: Request, default: Callable[[], Response]) -> Response:
        if request.target != platform.task_path or request.json()["offset"] < 30:
            return default()
        with changed:
            asked[0] += 1
            changed.notify_all()
            full = changed.wait_for(lambda: asked[0] > 5, 0.5)
            asked[0] -= not full
        return Response(503) if full else default()
    platform.on_request = hook


def padded(request: Request, right: Response) -> Response:
    """The last page is filled up."""
    document = json.loads(right.body)
    missing = 30 - len(document["records"]) if request.json()["startIndex"] == 60 else 0
    return Response(body=json.dumps({"records": document["records"] + [
        {"credentialNumber": f"none {number}"} for number in range(missing)]}).encode())


def more_fields(count: int) -> Twist:
    return answering(lambda _, right: replace(right, headers=[(f"X-{number}", "1") for number in range(count - 2)]))


def long_value(size: int) -> Twist:
    return answering(lambda _, right: replace(right, headers=[("Set-Cookie", "c" * size)]))


MISTAKES: dict[str, tuple[str, Twist]] = {
    "TLS 1.3 only": ("tls", only_new_tls),
    "a suite that cameras lack": ("tls", old_suite),
    "HTTP without TLS": ("tls", plain_http),
    "an answer after 5.5 s": ("answer-time", answering(lambda _, right: replace(right, delay=5.5))),
    "no answer": ("answer-time", answering(lambda _, right: NEVER)),
    "a pause of 5.5 s": ("answer-time", answering(
        lambda _, right: [Send(right.encode()[:900]), Wait(5.5), Send(right.encode()[900:])])),
    "closes without an answer": ("http", answering(lambda _, right: [Close()])),
    "HTTP/2": ("http", sending(lambda body: b"\0\0\x12\4\0\0\0\0\0" + bytes(18))),
    "a head without an end": ("http", sending(lambda body: b"HTTP/1.1 200 OK\r\nContent-Length: 2\r\n")),
    "a field without a colon": ("http", sending(lambda body: headed("Fine\r\nContent-Length: 2", b"{}"))),
    "103, and then nothing": ("interim", sending(lambda body: b"HTTP/1.1 103 Early Hints\r\nLink: </x>\r\n\r\n")),
    "101 interim answers": ("interim", sending(
        lambda body: b"HTTP/1.1 102 Processing\r\n\r\n" * 101 + Response(body=body).encode())),
    "a header field of 20 kB": ("header-limits", long_value(20_000)),
    "a header field of 8193 bytes": ("header-limits", long_value(8193)),
    "101 header fields": ("header-limits", more_fields(101)),
    "a long reason": ("header-limits", answering(lambda _, right: replace(right, reason="r" * 513))),
    "a redirect": ("redirect", answering(
        lambda _, right: Response(307, headers=[("Location", "https://elsewhere.invalid/")]))),
    "status 201": ("status", answering(lambda _, right: replace(right, status=201))),
    "status 401": ("status", answering(lambda _, right: Response(401))),
    "compressed pages": ("compression", answering(
        lambda _, right: replace(right, body=gzip.compress(right.body), headers=[("Content-Encoding", "gzip")]))),
    "Content-Length too large": ("length", sending(lambda body: headed(f"Content-Length: {len(body) + 9}", body))),
    "Content-Length too large, kept open": ("length", sending(
        lambda body: headed(f"Content-Length: {len(body) + 9}", body), Wait())),
    "Content-Length too small": ("length", sending(lambda body: headed(f"Content-Length: {len(body) - 9}", body))),
    "Content-Length with a sign": ("length", sending(lambda body: headed(f"Content-Length: +{len(body)}", body))),
    "a chunk size that is none": ("chunks", sending(
        lambda body: headed("Transfer-Encoding: chunked", b"xyz\r\n" + body + b"\r\n0\r\n\r\n"))),
    "no last chunk": ("chunks", sending(
        lambda body: headed("Transfer-Encoding: chunked", b"%x\r\n%s\r\n" % (len(body), body)))),
    "chunks that are longer than they say": ("chunks", sending(
        lambda body: headed("Transfer-Encoding: chunked", b"%x\r\n%s\r\n0\r\n\r\n" % (len(body) - 9, body)))),
    "bytes behind the last chunk": ("chunks", sending(
        lambda body: headed("Transfer-Encoding: chunked", b"%x\r\n%s\r\n0\r\n\r\n0\r\n\r\n" % (len(body), body)))),
    "another transfer coding": ("chunks", sending(lambda body: headed("Transfer-Encoding: gzip, chunked", body))),
    "no length, no farewell": ("close", sending(lambda body: headed("X: 1", body), Close(alert=False))),
    "a page of 200 MiB": ("page-size", sending(lambda body: headed(f"Content-Length: {200 << 20}", body))),
    "a NUL byte": ("nul", answering(lambda _, right: replace(right, body=right.body + b"\0"))),
    "a page of HTML": ("records", answering(lambda _, right: replace(right, body=b"<!doctype html><p>Hello"))),
    "29 records on a page of 30": ("records", with_records(lambda start, count: (start, min(count, 29)))),
    "records twice": ("records", answering(lambda _, right: replace(right, body=json.dumps(
        {"records": json.loads(right.body)["records"][:1] * json.loads(right.body)["offset"]}).encode()))),
    "offset does not count": ("offset", with_records(lambda start, count: (start, 30))),
    "startIndex does not count": ("start-index", with_records(lambda start, count: (0, count))),
    "startIndex counts from 1": ("start-index", with_records(lambda start, count: (max(0, start - 1), count))),
    "startIndex counts pages": ("start-index", with_records(lambda start, count: (30 * start, count))),
    "an error on the second page": ("start-index", answering(
        lambda request, right: Response(500) if request.json()["startIndex"] == 30 else right)),
    "the first record is missing": ("last-page", with_records(lambda start, count: (start + 1, count))),
    "the last page is filled up": ("last-page", answering(padded)),
    "an error beyond the end": ("beyond-the-end", answering(
        lambda request, right: Response(404) if request.json()["startIndex"] >= FACES else right)),
    "begins anew beyond the end": ("beyond-the-end", with_records(lambda start, count: (start % FACES, count))),
    "no such result path": ("result-path", answering(lambda _, right: Response(404), Platform.result_path)),
    "reports are redirected": ("result-path", answering(lambda _, right: Response(301), Platform.result_path)),
    "reports are refused": ("report", answering(lambda _, right: Response(500), Platform.result_path)),
    "reports are not answered": ("report", answering(lambda _, right: [Close()], Platform.result_path)),
    "serves a task once only": ("in-a-row", once_only),
    "serves five at a time": ("at-once", five_at_a_time),
}
# Those that the service does not mind.
HARMLESS = ("Content-Length too small", "bytes behind the last chunk", "compressed pages", "a NUL byte",
            "a page of HTML",
            "29 records on a page of 30", "records twice", "offset does not count", "startIndex does not count",
            "startIndex counts from 1", "startIndex counts pages", "the first record is missing",
            "the last page is filled up", "an error beyond the end", "begins anew beyond the end",
            "no such result path", "reports are redirected", "reports are refused", "reports are not answered",
            "serves a task once only", "serves five at a time")


# Those that the kit waits for, 10 s, and the service, 5 s.
SILENT = ("no answer", "Content-Length too large, kept open", "an answer after 5.5 s", "a pause of 5.5 s")


@pytest.mark.parametrize("mistake", [
    pytest.param(name, marks=[pytest.mark.seconds(15)] if name in SILENT else []) for name in MISTAKES])
def test_mistake_is_found_and_named(mistake: str) -> None:
    name, twist = MISTAKES[mistake]
    with holding_75() as platform:
        twist(platform)
        results = checked(platform, [one for one in CHECKS if one not in MANY or one == name])
    assert verdicts(results, FAILED).keys() == {name}, verdicts(results, FAILED)
    finding = results[name].finding
    assert finding.seen and finding.do
    # What is called a mistake of HTTP the service takes for one, and nothing else.
    if name != "tls":
        assert results["download"].finding.verdict == (PASSED if mistake in HARMLESS else NOT_JUDGED)


@pytest.mark.parametrize("kind, twist", {
    "8192 bytes": long_value(8192), "100 fields": more_fields(100),
    "100 interim answers": sending(
        lambda body: b"HTTP/1.1 102 Processing\r\n\r\n" * 100 + Response(body=body).encode()),
    "a reason of 512 bytes": answering(lambda _, right: replace(right, reason="r" * 512)),
    "chunked": answering(lambda _, right: replace(right, chunk_size=100)),
    "until close_notify": sending(lambda body: headed("X: 1", body)),
    "folded, bare line feeds": sending(lambda body: b"HTTP/1.1 200\nX: a\n b\nContent-Length: %d\n\n%s" % (
        len(body), body)),
    "extensions and trailers": sending(
        lambda body: headed("Transfer-Encoding: chunked", b"%X;a=b\r\n%s\r\n0\r\nX: y\r\n\r\n" % (len(body), body))),
}.items())
def test_what_the_service_takes_is_no_mistake(kind: str, twist: Twist) -> None:
    with holding_75() as platform:
        twist(platform)
        results = checked(platform, set(CHECKS) - set(MANY))
    assert verdicts(results, PASSED).keys() == results.keys(), kind


def test_nobody_there() -> None:
    subject = Subject(f"https://localhost:{free_port()}/x")
    results = {result.check.name: result for result in examine(subject)}
    assert list(verdicts(results, FAILED)) == ["reachable"]
    assert "Connection refused" in results["reachable"].finding.seen
    assert verdicts(results, NOT_JUDGED).keys() == CHECKS.keys() - {"reachable"}


@pytest.mark.seconds(10)
def test_a_handshake_that_hangs() -> None:
    with socket.create_server(("127.0.0.1", 0)) as silent:
        subject = Subject(f"https://localhost:{silent.getsockname()[1]}/x")
        [result] = examine(subject, ["tls"])
    assert (result.finding.verdict, result.finding.seen) == (FAILED, "the TLS handshake did not end in 10 s")


def test_an_answer_that_trickles_for_ever(monkeypatch: pytest.MonkeyPatch) -> None:
    monkeypatch.setattr(asking, "LONGEST_ANSWER", 1.0)
    with holding_75() as platform:
        steps = [Send(headed("Content-Length: 1000", b"")), *[Wait(0.1), Send(b"t")] * 1000]
        answering(lambda _, right: steps)(platform)
        results = checked(platform, ["length"], faces=2)
    assert verdicts(results, FAILED).keys() == {"length"}
    assert "still trickled after" in results["length"].finding.seen


def test_warnings_are_no_failures() -> None:
    """Pictures that nobody can read, slow answers, and no TLS session that is resumed."""
    with holding_75() as platform:
        platform.pictures = [(name, b"no picture") for name, _ in pictures()]
        platform.on_request = lambda request, default: replace(
            default(), delay=2.6 if request.json().get("offset", 2) == 2 else 0.0)
        platform.on_connect = lambda connection: platform.use_tls()  # forgets the sessions
        results = checked(platform, ["resumption", "answer-time", "pictures", "report"], faces=2)
    assert verdicts(results, WARNING).keys() == {"resumption", "answer-time", "pictures", "report"}
    assert results["pictures"].finding.seen == "the simulated ITGT imported 0 pictures and refused 2"
    assert all(result.good for result in results.values())


def test_platform_that_goes_away_meanwhile() -> None:
    """What cannot be asked any more has failed, and nothing falls over."""
    with holding_75() as platform:
        results: dict[str, Result] = {}
        for result in examine(Subject(f"https://localhost:{platform.port}{platform.task_path}")):
            results[result.check.name] = result
            if result.check.name == "tls":
                platform.stop()
    assert list(verdicts(results, FAILED)) == ["resumption", "answer-time"]


def test_one_check_asks_no_more_than_it_needs() -> None:
    with holding_75() as platform:
        [result] = checked(platform, ["length"]).values()
        assert (result.check.name, result.finding.verdict) == ("length", PASSED)
        assert len(platform.requests) == 1
