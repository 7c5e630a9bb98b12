"""camsim check-platform against real web servers: a good one passes, and its limits are found."""

from __future__ import annotations

from collections.abc import Iterator
from dataclasses import replace
from pathlib import Path

import pytest
from behind import Behind
from web_servers import SERVERS, Running

from simulator.journal import Journal
from simulator.peers.platform import Platform
from simulator.platform_check.check import FAILED, PASSED, Subject
from simulator.platform_check.kit import CHECKS, examine


@pytest.fixture
def behind() -> Iterator[Behind]:
    platform = Platform(Journal())
    platform.picture_sizes = (2_000, 20_000)
    one = Behind(platform.page)
    yield one
    one.close()


def found(server: Running, path: str, *only: str) -> dict[str, tuple[str, str]]:
    subject = Subject(f"https://localhost:{server.port}{path}")
    return {result.check.name: (result.finding.verdict, result.finding.seen) for result in examine(subject, only)}


@pytest.mark.parametrize("path, check, seen", [("/length", "length", "Content-Length: "), ("/chunked", "chunks", "")])
def test_nginx_before_an_application_passes(behind: Behind, tmp_path: Path, path: str, check: str, seen: str) -> None:
    server = Running(SERVERS["nginx"], tmp_path, behind.port)
    server.start()
    try:
        results = found(server, path)
    finally:
        server.stop()
    assert {name: said for name, said in results.items() if said[0] != PASSED} == {}
    assert results.keys() == CHECKS.keys()
    assert results[check][1].startswith(seen) and not results[check][1].startswith("no")


def test_nginx_whose_application_is_gone(behind: Behind, tmp_path: Path) -> None:
    server = Running(SERVERS["nginx"], tmp_path, behind.port)
    server.start()
    try:
        behind.close()
        results = found(server, "/length", "status", "download")
    finally:
        server.stop()
    assert results["status"] == (FAILED, "status 502 Bad Gateway")


def test_nginx_with_too_new_a_tls(behind: Behind, tmp_path: Path) -> None:
    kind = SERVERS["nginx"]
    files = {name: text.replace("TLSv1.2", "TLSv1.3") for name, text in kind.files.items()}
    server = Running(replace(kind, files=files), tmp_path, behind.port)
    server.start()
    try:
        verdict, seen = found(server, "/length", "tls")["tls"]
    finally:
        server.stop()
    assert verdict == FAILED
    assert "For others the server has TLSv1.3 with TLS_AES_256_GCM_SHA384, which no camera has" in seen
