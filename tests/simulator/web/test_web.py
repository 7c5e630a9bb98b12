"""The page of a running camera, as its server hands it out: `camsim up --web`."""

from __future__ import annotations

import contextlib
import http.client
import json
import signal
import socket
import time
import tracemalloc
from pathlib import Path
from typing import Any
from urllib.parse import urlsplit

import pytest

from camsim_runs import Camsim, StartUp
from simulator.journal import Journal
from simulator.web.server import PageServer
from support import DEADLINE, at_most


def ask(url: str, path: str = "/", method: str = "GET", host: str = "") -> tuple[int, bytes, http.client.HTTPMessage]:
    """Status, body and head of an answer."""
    address = urlsplit(url)
    connection = http.client.HTTPConnection(address.hostname or "", address.port, timeout=DEADLINE)
    with contextlib.closing(connection):
        connection.request(method, path, headers={"Host": host or address.netloc})
        answer = connection.getresponse()
        return answer.status, answer.read(), answer.headers


def told(url: str, offset: int = 0) -> tuple[list[dict[str, Any]], int]:
    """Everything from an offset on, and where it ends."""
    batches: list[dict[str, Any]] = []
    more = True
    while more:
        status, body, _ = ask(url, f"/run?from={offset}")
        assert status == 200
        answer = json.loads(body)
        batches += answer["batches"]
        offset, more = answer["next"], answer["more"]
    return batches, offset


def wait_told(url: str, wanted: str, offset: int = 0) -> list[dict[str, Any]]:
    """What is told until an item with this title has been."""
    deadline = time.monotonic() + DEADLINE
    while time.monotonic() < deadline:
        batches, _ = told(url, offset)
        if any(item["title"] == wanted for batch in batches for item in batch["items"]):
            return batches
    raise AssertionError(f"no {wanted!r} in {batches}")


@pytest.fixture
def server(tmp_path: Path) -> Any:
    with PageServer(journal := Journal(), lambda path: tmp_path / path.lstrip("/"), {"build": "host"}) as started:
        started.journal = journal
        yield started


def test_page_grows_with_the_run(camsim: Camsim, up: StartUp) -> None:
    one = up("--web", "--picture-bytes", 800, 900, "--fault", "platform.status=503,times=1")
    url = one.first["web"]
    assert urlsplit(url).hostname == "127.0.0.1"
    before, offset = told(url)
    assert {chapter["title"] for batch in before for chapter in batch["chapters"]} == {"Start"}
    camsim.run("send", "whiteListDown", "--wait")
    wait_told(url, "503 Service Unavailable", offset)
    batches, _ = told(url, offset)
    failure = [failure for batch in batches for failure in batch["failures"]][-1]
    assert failure["fault"] == "platform.status" and failure["failed"]
    assert "page 0 to 29" in {chapter["title"] for batch in batches for chapter in batch["chapters"]}
    items = [item for batch in before + batches for item in batch["items"]]
    assert [item["number"] for item in items] == list(range(1, len(items) + 1))


def test_port_can_be_chosen(camsim: Camsim, up: StartUp) -> None:
    with socket.socket() as free:
        free.bind(("127.0.0.1", 0))
        port = free.getsockname()[1]
    assert up("--web", port).first["web"] == f"http://127.0.0.1:{port}/"
    second = camsim.run("up", "--name", "second", "--web", port)
    assert second.returncode == 1 and f"port {port} cannot be served on 127.0.0.1" in second.stderr


@pytest.mark.parametrize("port", ["65536", "-1", "x"])
def test_wrong_port(camsim: Camsim, port: str) -> None:
    done = camsim.run("up", f"--web={port}")
    assert done.returncode == 2 and "is not a port, 0 to 65535" in done.stderr


def test_without_web_nothing_is_served(up: StartUp) -> None:
    assert "web" not in up().first


def test_page_can_only_ask_its_own_server(server: Any) -> None:
    status, body, head = ask(server.url)
    assert status == 200 and head["Content-Type"] == "text/html; charset=utf-8"
    policy = body.decode().partition('Content-Security-Policy" content="')[2].partition('"')[0]
    assert policy.startswith("default-src 'none';") and " connect-src 'self';" in policy
    assert (head["X-Frame-Options"], head["Cross-Origin-Resource-Policy"]) == ("DENY", "same-origin")


@pytest.mark.parametrize("host", ["evil.example", "evil.example:80", "127.0.0.1", "127.0.0.1:1", "[::1]:80"])
def test_other_names_lead_nowhere(server: Any, host: str) -> None:
    server.journal.add("client", "sent", data=b"secret")
    for path in ("/", "/run?from=0"):
        status, body, _ = ask(server.url, path, host=host)
        assert status == 421 and b"secret" not in body


def test_localhost_is_a_name_of_it(server: Any) -> None:
    assert ask(server.url, host=urlsplit(server.url).netloc.replace("127.0.0.1", "localhost"))[0] == 200


@pytest.mark.parametrize("method", ["POST", "PUT", "DELETE", "OPTIONS", "HEAD"])
def test_browsers_can_only_look(server: Any, method: str) -> None:
    assert ask(server.url, "/run?from=0", method)[0] == 501


@pytest.mark.parametrize("path, status", [
    ("/run", 400), ("/run?from=x", 400), ("/run?from=-1", 400), ("/run?from=99999999999999999999", 400),
    pytest.param("/run?from=" + "9" * 5000, 400, id="a long number"), ("/../../etc/passwd", 404), ("/trace.js", 404)])
def test_odd_requests(server: Any, path: str, status: int) -> None:
    assert ask(server.url, path)[0] == status


def test_only_the_loopback_listens(server: Any) -> None:
    port = urlsplit(server.url).port
    listening = [line.split()[1] for line in Path("/proc/net/tcp").read_text().splitlines()[1:]
                 if line.split()[3] == "0A" and line.split()[1].endswith(f":{port:04X}")]
    assert listening == [f"0100007F:{port:04X}"]


def test_browsers_that_do_not_read_hold_up_nobody(tmp_path: Path, monkeypatch: pytest.MonkeyPatch) -> None:
    """More of them than are served at once, too: those are turned away."""
    monkeypatch.setattr("simulator.web.server._Handler.timeout", DEADLINE)
    journal = Journal()
    with contextlib.ExitStack() as silent, contextlib.ExitStack() as serving:
        server = serving.enter_context(PageServer(journal, lambda path: tmp_path, {}))
        address, browsers = urlsplit(server.url), []
        for number in range(2000):
            journal.add("client", "sent", data=b"%d" % number + b"x" * 4000)
        for number in range(40):
            browser = silent.enter_context(socket.socket())
            browser.setsockopt(socket.SOL_SOCKET, socket.SO_RCVBUF, 4096)
            browser.connect((address.hostname, address.port))
            end = "\r\n" if number % 2 else "not yet all"
            browser.sendall(f"GET /run?from=0 HTTP/1.0\r\nHost: {address.netloc}\r\n{end}".encode())
            browsers.append(browser)
        journal.add("client", "sent", data=b"last one")
        for browser in browsers[:30]:
            browser.close()
        assert wait_told(server.url, "datagram of 8 bytes")
        begin = time.monotonic()
        serving.close()
        assert time.monotonic() - begin < at_most(2.0)


def test_many_readers_get_the_same(server: Any) -> None:
    for number in range(300):
        server.journal.add("client", "sent", data=b"%d" % number)
    wait_told(server.url, "datagram of 3 bytes")
    server.journal.add("client", "sent", data=b"last one")
    first = wait_told(server.url, "datagram of 8 bytes")
    assert told(server.url)[0] == told(server.url)[0] == first
    assert sum(len(batch["items"]) for batch in first) == 301


@pytest.mark.parametrize("number", [signal.SIGINT, signal.SIGTERM])
def test_ends_at_once_with_a_browser_connected(up: StartUp, number: int) -> None:
    one = up("--web", "--quiet")
    address = urlsplit(one.first["web"])
    with socket.create_connection((address.hostname, address.port)) as browser:
        browser.sendall(b"GET / HTTP/1.0\r\n")
        begin = time.monotonic()
        assert one.stop(number) == 0
        assert time.monotonic() - begin < at_most(5.0)


def test_run_is_not_held_in_memory(tmp_path: Path) -> None:
    journal = Journal()
    with PageServer(journal, lambda path: tmp_path, {}) as server:
        tracemalloc.start()
        try:
            for number in range(40):
                journal.add("itgt", "file", path=f"/{number}", content=b"%d" % number * 1_000_000)
                wait_told(server.url, f"wrote /{number}")
                journal.forget()
            assert tracemalloc.get_traced_memory()[0] < 20_000_000, "of 70 million bytes"
        finally:
            tracemalloc.stop()
