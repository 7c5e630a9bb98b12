"""Connections to the platform that cannot be made or break, for the page as for its report."""

from __future__ import annotations

import signal
import threading
from collections.abc import Callable, Sequence
from typing import Any

import pytest

from simulator import NEVER, Camera, Close, Reset, Response, Send
from support import DOWNLOAD, HTTP, StartCamera, count_text, download, expect_log, expect_working, wait_stopped

# The n-th call of the process for a connection over IPv4 fails: pages and reports take turns. Sockets of other kinds do
# not count: the library asks one for the machine's address where /sys has no eth0.
FAILING = r"""
static int connections, sockets;
int connect(int file, const struct sockaddr* address, socklen_t length) {
    if (address->sa_family == AF_INET && ++connections == %(connection)d) {
        if (%(cause)s == 0) {
            struct sockaddr_in other = *(const struct sockaddr_in*)address;
            other.sin_port = htons(%(port)d);
            return NEXT(connect)(file, (const struct sockaddr*)&other, sizeof other);
        }
        errno = %(cause)s;
        return -1;
    }
    return NEXT(connect)(file, address, length);
}
int socket(int family, int type, int protocol) {
    if (family == AF_INET && (type & SOCK_STREAM) && ++sockets == %(socket)d) {
        errno = EMFILE;
        return -1;
    }
    return NEXT(socket)(family, type, protocol);
}
"""


def failing(with_library: StartCamera, connection: int = 0, cause: str = "0", port: int = 9,
            without_descriptor: int = 0) -> Camera:
    source = FAILING % {"connection": connection, "cause": cause, "port": port, "socket": without_descriptor}
    return with_library(source)


def expect_failed_page(camera: Camera) -> None:
    record = camera.wait_for_log("SendMsgAndRecvResponse err:")
    assert (record.level, record.path) == ("ERROR", HTTP)
    expect_log(camera, "INFO", DOWNLOAD, "DownloadPictureProcess Status:400")
    camera.wait_for_log("DownloadPictureProcess fail.")
    assert camera.platform.reports == []
    download(camera, 1)
    assert len(camera.platform.reports) == 1


def expect_failed_report(camera: Camera) -> None:
    """Logged, and the next page is fetched and reported."""
    record = camera.wait_for_log(lambda record: record.text.startswith("metadata "))
    assert (record.level, record.path, record.line) == ("INFO", DOWNLOAD, 221)
    assert len(record.text) > len("metadata ")
    assert camera.platform.reports[-1].json()["startIndex"] == 30
    assert count_text(camera, "DownloadPictureProcess fail.") == 0


CAUSES = ["ECONNREFUSED", "ENETUNREACH", "EPERM", "EADDRNOTAVAIL", "ENOBUFS"]


# The connection of each, and what comes of it when that fails.
page_and_report = pytest.mark.parametrize(
    "number, expect_failure", [(1, expect_failed_page), (2, expect_failed_report)], ids=["page", "report"])


@page_and_report
@pytest.mark.parametrize("cause", CAUSES)
def test_connection_that_the_system_refuses(with_library: StartCamera, cause: str, number: int,
                                            expect_failure: Callable[[Camera], None]) -> None:
    camera = failing(with_library, number, cause)
    download(camera, 31)
    expect_failure(camera)


@page_and_report
def test_connection_without_a_free_descriptor(with_library: StartCamera, number: int,
                                              expect_failure: Callable[[Camera], None]) -> None:
    camera = failing(with_library, without_descriptor=number)
    download(camera, 31)
    expect_failure(camera)


@pytest.mark.seconds(6)
def test_report_connection_that_hangs_ends_after_5_seconds(with_library: StartCamera) -> None:
    camera = failing(with_library, 2, port=8445)
    download(camera, 31)
    expect_failed_report(camera)


def at_connection(camera: Camera, number: int, steps: Sequence[Any]) -> None:
    camera.platform.on_connect = lambda connection: steps if connection.number == number else None


HANDSHAKES: dict[str, Sequence[Any]] = {
    "closed": [Close()], "reset": [Reset()], "plain http": [Send(b"HTTP/1.1 200 OK\r\n\r\n"), Close()],
    "bad record": [Send(b"\x16\x03\x03\xff\xff" + b"x" * 70_000), Close()],
    "refused": [Send(b"\x15\x03\x03\0\x02\x02\x28"), Close()]}


@page_and_report
@pytest.mark.parametrize("steps", HANDSHAKES.values(), ids=HANDSHAKES.keys())
def test_broken_handshake(camera: Camera, steps: Sequence[Any], number: int,
                          expect_failure: Callable[[Camera], None]) -> None:
    at_connection(camera, number, steps)
    download(camera, 31)
    assert camera.platform.connections[number - 1].requests == 0
    expect_failure(camera)


@pytest.mark.seconds(6)
def test_hanging_handshake_of_a_report_ends_after_5_seconds(camera: Camera) -> None:
    at_connection(camera, 2, NEVER)
    download(camera, 31)
    expect_failed_report(camera)


@pytest.mark.seconds(8)
def test_handshakes_of_2_seconds_are_waited_for(camera: Camera) -> None:
    def wait(connection: Any) -> None:
        threading.Event().wait(2)  # pause: the slow peer that the test is about

    camera.platform.on_connect = wait
    download(camera, 1)
    assert len(camera.platform.reports) == 1


OK = b"HTTP/1.1 200 OK\r\n"
ANSWERS: dict[str, Sequence[Any]] = {
    "nothing": [Close()], "reset": [Reset()], "no http": [Send(b"hello\r\n\r\n"), Close()],
    "head cut off": [Send(OK + b"Content-"), Close()],
    "head cut off without close_notify": [Send(OK + b"A: b\r\n\r"), Close(alert=False)],
    "body cut off": [Send(OK + b"Content-Length: 10\r\n\r\n{}"), Close()],
    "body then reset": [Send(OK + b"Content-Length: 10\r\n\r\n{}"), Reset()],
    "last chunk missing": [Send(Response(body=b"x" * 5000, chunk_size=1000).encode()[:-5]), Close()],
    "endless header": [Send(OK + b"X: " + b"x" * 1_000_000), Close()]}


@pytest.mark.parametrize("steps", ANSWERS.values(), ids=ANSWERS.keys())
def test_broken_answer_to_a_report(camera: Camera, steps: Sequence[Any]) -> None:
    camera.platform.script(camera.platform.result_path, steps)
    download(camera, 31)
    expect_failed_report(camera)


@pytest.mark.seconds(6)
def test_answer_without_an_end_to_a_report(camera: Camera) -> None:
    camera.platform.script(camera.platform.result_path, [Send(OK + b"\r\n"), *[Send(b"x" * 1_000_000)] * 1000])
    download(camera, 31, timeout=60)
    expect_failed_report(camera)


def test_large_answer_to_a_report_is_taken(camera: Camera) -> None:
    camera.platform.script(camera.platform.result_path, Response(body=b"x" * 2_000_000))
    download(camera, 1)
    expect_log(camera, "INFO", DOWNLOAD, "response status 200 ,picTaskResult OK responselen 2000000", 217)


# The lookup of this one name never ends, as with a resolver that is configured without limits.
LOOKUP = r"""
int getaddrinfo(const char* node, const char* service, const struct addrinfo* hints, struct addrinfo** result) {
    while (node != NULL && strcmp(node, "hanging.invalid") == 0) pause();
    return NEXT(getaddrinfo)(node, service, hints, result);
}
"""


def test_name_lookup_that_hangs_holds_up_its_download_only_and_no_stop(with_library: StartCamera) -> None:
    camera = with_library(LOOKUP)
    reply = camera.client.command("whiteListDown", camera.platform.task(1, taskURL="https://hanging.invalid/x"))
    assert reply.status == 200
    camera.wait_for_log("Http URI:/x ")
    expect_working(camera)
    assert camera.client.command("whiteListClear", {"cameraCode": "C"}).status == 200
    assert camera.client.command("whiteListDown", camera.platform.task(1)).status == 409
    assert wait_stopped(camera, signal.SIGTERM) == 0


def large_first_report(camera: Camera) -> None:
    """Makes the first report 3 megabytes long, more than a connection's buffers take: a slash is two bytes in it."""
    results = [b'{"ID":"' + b"/" * 1_500_000 + b'","RESULT_TYPE_E":0}']
    camera.itgt.on_state_file = lambda document: b'{"TaskResultArry":[' + (results.pop() if results else b"") + b"]}"


def read_report_late(camera: Camera, seconds: float, dropped_after: float | None = None) -> None:
    """The first report's connection is read late, and perhaps dropped before."""
    def prepare(connection: Any) -> None:
        if connection.number == 2:
            connection.read_after = seconds
            if dropped_after is not None:
                threading.Timer(dropped_after, connection.drop).start()

    camera.platform.on_connect = prepare


def test_connection_that_breaks_while_a_report_is_sent(camera: Camera) -> None:
    large_first_report(camera)
    read_report_late(camera, 5, dropped_after=0.5)
    download(camera, 31, timeout=60)
    assert [request.json()["startIndex"] for request in camera.platform.reports] == [30]
    expect_failed_report(camera)


@pytest.mark.seconds(5)
def test_platform_that_reads_late_gets_the_whole_report(camera: Camera) -> None:
    """The 5 seconds are those of the whole sending: 2 of them are well within."""
    large_first_report(camera)
    read_report_late(camera, 2)
    download(camera, 1, timeout=60)
    assert camera.platform.reports[0].json()["ImportInfo"][0]["credentialNumber"] == "/" * 1_500_000
