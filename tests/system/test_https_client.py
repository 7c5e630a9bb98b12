"""The two requests on the wire, and the connections they go over."""

from __future__ import annotations

import pytest

from simulator import Camera, Response, trickle
from support import (DOWNLOAD, HTTP, PAGE, StartCamera, at_most, at_request, download, expect_log, start_download,
                     wait_end, written)


def test_page_request_byte_for_byte(camera: Camera) -> None:
    download(camera, 1)
    assert camera.platform.requests[0].raw == (
        b"POST /platform/whiteList HTTP/1.1\r\n"
        b"Connection: Keep-Alive\r\n"
        b"Content-Type: application/json;charset=UTF-8\r\n"
        b"Accept: application/json;charset=UTF-8\r\n"
        b"Content-Length: 120\r\n"
        b"Host: 127.0.0.1:8443\r\n"
        b"\r\n"
        b'{\n "cameraCode" : "C1",\n "taskID" : "T1",\n "startIndex" : 0,\n "offset" : 1,\n "datatime" : "D1",\n'
        b' "securityCode" : "K1"\n}')


def test_report_request_byte_for_byte(camera: Camera) -> None:
    download(camera, 1)
    body = (b'{"ImportInfo":[{"credentialNumber":"110101196001010000","importStatus":0}],"cameraCode":"C1",'
            b'"datatime":"2024-05-17 08:30:00","offset":1,"securityCode":"K1","startIndex":0,"taskID":"T1"}')
    assert camera.platform.requests[1].raw == (
        b"POST /platform/whiteListResult HTTP/1.1\r\n"
        b"Content-Type: application/json;charset=UTF-8\r\n"
        b"Accept: application/json;charset=UTF-8\r\n"
        b"Content-Length: %d\r\n"
        b"Connection: Close\r\n"
        b"Host: 127.0.0.1:8443\r\n"
        b"\r\n" % len(body)) + body


def test_content_length_counts_bytes(camera: Camera) -> None:
    download(camera, 1, cameraCode="面" * 100)
    for request in camera.platform.requests:
        assert request.header("Content-Length") == str(len(request.body))
        assert request.json()["cameraCode"] == "面" * 100


def test_no_connection_is_used_twice(camera: Camera) -> None:
    download(camera, 31)
    assert [request.connection for request in camera.platform.requests] == [1, 2, 3, 4]
    camera.wait_until(lambda: all(connection.closed for connection in camera.platform.connections))
    assert [connection.requests for connection in camera.platform.connections] == [1, 1, 1, 1]


@pytest.mark.parametrize("highest", ["1.2", "1.3"])
def test_tls_12_is_used_whatever_else_is_on_offer(camera: Camera, highest: str) -> None:
    camera.platform.use_tls("1.2", highest)
    download(camera, 1)
    assert [request.tls_version for request in camera.platform.requests] == ["TLSv1.2"] * 2


def test_platform_with_tls_13_only_is_refused(camera: Camera) -> None:
    camera.platform.use_tls("1.3", "1.3")
    download(camera, 1)
    assert camera.platform.requests == []
    assert [connection.tls_version for connection in camera.platform.connections] == [""]
    record = camera.wait_for_log("SendMsgAndRecvResponse err:")
    assert (record.level, record.path) == ("ERROR", HTTP)
    expect_log(camera, "INFO", DOWNLOAD, "DownloadPictureProcess Status:400")
    camera.platform.use_tls("1.2", "1.3")
    download(camera, 1)
    assert len(camera.platform.reports) == 1


def test_excluded_ciphers_are_not_used(camera: Camera) -> None:
    download(camera, 1)
    for request in camera.platform.requests:
        assert request.cipher not in ("AES256-SHA", "AES128-SHA", "DES-CBC3-SHA")
        assert not request.cipher.startswith(("DHE", "ADH", "RC4", "NULL"))


@pytest.mark.parametrize("host, name", [("127.0.0.1", ""), ("[::1]", ""), ("localhost", "localhost")])
def test_server_name_is_sent_for_names_only(camera: Camera, host: str, name: str) -> None:
    """Some servers refuse a handshake that names an address."""
    download(camera, 1, taskURL=f"https://{host}:{camera.platform.port}/platform/whiteList")
    assert len(camera.platform.reports) == 1
    assert [connection.server_name for connection in camera.platform.connections] == [name, name]
    assert {request.header("Host") for request in camera.platform.requests} == {f"{host}:{camera.platform.port}"}


def test_dot_behind_a_whole_name_is_no_part_of_the_server_name(start_camera: StartCamera) -> None:
    camera = start_camera(start=False)
    (camera.sandbox.folder / "etc/hosts").write_text("127.0.0.1 localhost platform.test.\n")
    camera.start_service()
    download(camera, 1, taskURL=f"https://platform.test.:{camera.platform.port}/platform/whiteList")
    assert [connection.server_name for connection in camera.platform.connections] == ["platform.test"] * 2


# Notes for each write to a TCP connection whether the connection sends small pieces at once.
NO_DELAY = r"""
ssize_t write(int file, const void* data, size_t size) {
    int set = 0;
    socklen_t length = sizeof set;
    if (getsockopt(file, IPPROTO_TCP, TCP_NODELAY, &set, &length) == 0) {
        FILE* notes = fopen("/tmp/no_delay", "a");
        fputs(set ? "at once\n" : "delayed\n", notes);
        fclose(notes);
    }
    return NEXT(write)(file, data, size);
}
"""


def test_no_piece_of_a_request_waits_for_an_acknowledgement(with_library: StartCamera) -> None:
    camera = with_library(NO_DELAY)
    download(camera, 1)
    assert set(camera.path("/tmp/no_delay").read_text().splitlines()) == {"at once"}


def test_unknown_certificate_is_accepted_without_a_word(camera: Camera) -> None:
    """No check, but no question on the console either: nothing is printed, no input is waited for."""
    download(camera, 1)
    assert len(camera.platform.reports) == 1
    assert camera.service.stdout == b""
    assert not [record for record in camera.service.log if record.level == ""]


@pytest.mark.parametrize("path", [
    "/a%20b", "/%E9%9D%A2", "/a%2520b", "/a+b;c=d", "/a,b", "/!$&'()*+,;=:@-._~", "/a%0D%0AX-Evil:%201/b", "/a%3Fb",
    "/a%23b"])
def test_escaped_path_stays_one_request_line(camera: Camera, path: str) -> None:
    url = f"https://127.0.0.1:{camera.platform.port}{path}"
    download(camera, 1, taskURL=url, taskResultURL=url)
    for request in camera.platform.requests:
        assert request.request_line == f"POST {path} HTTP/1.1"
        assert len(request.headers) == 5


def test_url_without_a_path_asks_for_the_root(camera: Camera) -> None:
    download(camera, 1, taskURL=f"https://127.0.0.1:{camera.platform.port}")
    assert camera.platform.requests[0].request_line == "POST / HTTP/1.1"


@pytest.mark.parametrize("status", [301, 302, 303, 307, 308])
def test_redirects_are_not_followed(camera: Camera, status: int) -> None:
    platform = camera.platform
    elsewhere = f"https://127.0.0.1:{platform.second_port}/elsewhere"
    platform.script(platform.task_path, Response(status, headers=[("Location", elsewhere)]))
    download(camera, 1)
    assert len(platform.connections) == 1
    expect_log(camera, "INFO", HTTP, f"Http Status ${status}")
    expect_log(camera, "INFO", DOWNLOAD, f"DownloadPictureProcess Status:{status}")


@pytest.mark.parametrize("chunk_size", [1, 1000, 100_000])
def test_chunked_answer_is_put_together(camera: Camera, chunk_size: int) -> None:
    body = camera.platform.page(0, 2)
    camera.platform.script(camera.platform.task_path, Response(body=body, chunk_size=chunk_size))
    download(camera, 2)
    assert camera.path(PAGE).read_bytes() == body


def test_answer_over_http_10_is_taken(camera: Camera) -> None:
    camera.platform.script(camera.platform.task_path, b"HTTP/1.0 200 OK\r\nContent-Length: 2\r\n\r\n{}")
    download(camera, 1)
    assert camera.path(PAGE).read_bytes() == b"{}"


@pytest.mark.seconds(6)
def test_slow_answer_is_taken_as_long_as_something_comes(camera: Camera) -> None:
    """The 5 seconds are those of each wait, not of the whole answer."""
    body = camera.platform.page(0, 1)
    answer = Response(body=body).encode()
    camera.platform.script(camera.platform.task_path, trickle(answer, len(answer) // 4 + 1, 1.6))
    download(camera, 1)
    assert camera.path(PAGE).read_bytes() == body


@pytest.mark.seconds(6)
def test_answer_after_6_seconds_is_too_late(camera: Camera) -> None:
    camera.platform.script(camera.platform.task_path, Response(body=b"{}", delay=6))
    start_download(camera, 31)
    asked = camera.wait_for_log("Http URI:")
    failed = camera.wait_for_log("SendMsgAndRecvResponse err:")
    assert 4.5 <= written(failed) - written(asked) <= at_most(5.9)
    assert (failed.level, failed.path) == ("ERROR", HTTP)
    assert len(failed.text) > len("SendMsgAndRecvResponse err:")
    wait_end(camera)
    expect_log(camera, "INFO", DOWNLOAD, "DownloadPictureProcess Status:400")
    assert len(camera.platform.requests) == 1


def handshakes(camera: Camera) -> list[bool]:
    """For each handshake whether it resumed a session."""
    return [event.resumed for event in camera.journal.find("platform", "handshake")]


def test_connections_of_a_download_resume_its_first_session(camera: Camera) -> None:
    for _ in range(2):
        download(camera, 75)
    assert handshakes(camera) == [False, *[True] * 5] * 2


def test_platform_that_is_replaced_in_the_middle_shakes_hands_in_full(camera: Camera) -> None:
    at_request(camera.itgt, 7020, lambda _: camera.platform.use_tls())
    download(camera, 75)
    # Page, report, page, report: each report comes to a platform that knows no session.
    assert handshakes(camera) == [False, False, True, False, True, False]
    assert len(camera.platform.reports) == 3
