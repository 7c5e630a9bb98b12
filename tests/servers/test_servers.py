"""Downloads from real web servers; docs/platform-engineer.md has the table of those that are known to work.

CAMGATE_WRITE_TABLE=1 has the table rewritten from what the tests have seen.
"""

from __future__ import annotations

import hashlib
import os
import re
from collections.abc import Callable, Iterator
from pathlib import Path
from typing import Any

import pytest
from behind import Behind
from web_servers import SERVERS, Running, version

from simulator import Camera
from simulator.journal import Journal
from simulator.peers.platform import Platform
from simulator.peers.real.gateway import Gateway
from simulator.peers.real.relay import Relay
from support import FOLDER, at_request, wait_end

DOCUMENT = Path(__file__).resolve().parents[2] / "docs" / "platform-engineer.md"
BEGIN, END = "<!-- servers -->\n", "<!-- end of servers -->\n"
PAGES = {0: 30, 30: 30, 60: 1}
COLUMNS = {"/length": "with length", "/chunked": "chunked", "/interim": "interim answers", "restart": "restart"}
# What the tests have seen: server and column.
PASSED: set[tuple[str, str]] = set()


@pytest.fixture
def platform() -> Platform:
    """Makes the pages; nobody connects to it."""
    played = Platform(Journal())
    played.picture_sizes = (2_000, 20_000)
    return played


@pytest.fixture
def behind(platform: Platform) -> Iterator[Behind]:
    one = Behind(platform.page)
    yield one
    one.close()


def download(make_camera: Callable[..., Camera], behind: Behind, platform: Platform, server: Running, path: str,
             restart: bool = False, way: type[Relay | Gateway] = Relay) -> None:
    """Three pages, compared by their hashes, and their reports. With a restart before ITGT has taken the first."""
    camera = make_camera(platform=lambda journal: way(journal, f"https://localhost:{server.port}{path}"))
    camera.__enter__()
    restarts = [server.restart] if restart else []
    at_request(camera.itgt, 7020, lambda _: restarts.pop()() if restarts else None)
    assert camera.client.command("whiteListDown", camera.platform.task(61)).status == 200
    wait_end(camera, timeout=90)
    for start, count in PAGES.items():
        came = camera.path(f"{FOLDER}/white{start}").read_bytes()
        assert hashlib.sha256(came).digest() == hashlib.sha256(platform.page(start, count)).digest()
    assert [(report["startIndex"], len(report["ImportInfo"])) for report in behind.reports] == list(PAGES.items())
    answers = [record.text for record in camera.service.log if record.line == 217]
    assert len(answers) == len(PAGES)
    assert all(text.startswith("response status 200 ") and text.endswith(" responselen 15") for text in answers)


CASES = [(name, path) for name, kind in SERVERS.items() for path in ("/length", "/chunked", "/interim")
         if kind.interim or path != "/interim"]


@pytest.mark.parametrize("name, path", CASES)
def test_pages_and_reports_pass(make_camera: Callable[..., Camera], behind: Behind, platform: Platform,
                                tmp_path: Path, name: str, path: str) -> None:
    server = Running(SERVERS[name], tmp_path, behind.port)
    server.start()
    try:
        assert server.first_status(path) in ((102, 103) if path == "/interim" else (200,))
        download(make_camera, behind, platform, server, path)
        PASSED.add((name, path))
    finally:
        server.stop()


@pytest.mark.parametrize("name", SERVERS)
def test_server_that_restarts_between_pages(make_camera: Callable[..., Camera], behind: Behind, platform: Platform,
                                            tmp_path: Path, name: str) -> None:
    server = Running(SERVERS[name], tmp_path, behind.port)
    server.start()
    try:
        download(make_camera, behind, platform, server, "/length", restart=True)
        PASSED.add((name, "restart"))
    finally:
        server.stop()


@pytest.mark.parametrize("name, path", CASES)
def test_camsim_understands_what_passes(make_camera: Callable[..., Camera], behind: Behind, platform: Platform,
                                        tmp_path: Path, name: str, path: str) -> None:
    """Without a byte of it becoming another."""
    cameras: list[Camera] = []

    def keep(**arguments: Any) -> Camera:
        cameras.append(make_camera(**arguments))
        return cameras[-1]
    server = Running(SERVERS[name], tmp_path, behind.port)
    server.start()
    try:
        download(keep, behind, platform, server, path, way=Gateway)
    finally:
        server.stop()
    journal = cameras[0].journal
    assert [(event.start, event.records) for event in journal.find("platform", "page")] == list(PAGES.items())
    statuses = [event.response.status for event in journal.find("platform", "response")]
    assert [status for status in statuses if status >= 200] == [200] * 2 * len(PAGES)
    assert (min(statuses) < 200) == (path == "/interim")
    assert [event.kind for event in journal.events if event.kind in ("broken", "cut", "unanswered", "unsecured")] == []


def without_versions(table: str) -> str:
    """Another machine may have others."""
    return re.sub(r"^(\| \S+) [\d.]+ ", r"\1 ", table, flags=re.M)


def cell(name: str, column: str) -> str:
    if column == "/interim" and not SERVERS[name].interim:
        return "not tried"
    return "yes" if (name, column) in PASSED else "no"


def test_table_tells_what_the_tests_before_it_have_seen() -> None:
    assert PASSED, "run the whole file: the table is made of what its other tests have seen"
    rows = [f"| {name} {version(kind)} | {' | '.join(cell(name, column) for column in COLUMNS)} |"
            for name, kind in SERVERS.items()]
    table = "\n".join(["", f"| server, as proxy before a platform | {' | '.join(COLUMNS.values())} |",
                       "| --- | --- | --- | --- | --- |", *rows, "", ""])
    before, rest = DOCUMENT.read_text().split(BEGIN)
    written, after = rest.split(END)
    if os.environ.get("CAMGATE_WRITE_TABLE"):
        DOCUMENT.write_text(before + BEGIN + table + END + after)
    else:
        assert without_versions(written) == without_versions(table)
