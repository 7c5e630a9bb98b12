"""camsim check-platform as a platform's engineer and a CI call it: lines, JSON, JUnit, exit codes."""

from __future__ import annotations

import re
import signal
from collections.abc import Iterator
from pathlib import Path
from xml.etree import ElementTree

import pytest

from camsim_runs import ROOT, Camsim
from served import free_port, served
from simulator.messages.http import Close, Send
from simulator.peers.platform import Platform
from simulator.platform_check.kit import CHECKS
from support import DEADLINE

DOCUMENT = (ROOT / "docs" / "platform-engineer.md").read_text(encoding="utf-8")
CHEAP = ("--only", "status", "--only", "length")


@pytest.fixture
def platform() -> Iterator[Platform]:
    with served() as one:
        yield one


def url_of(platform: Platform) -> str:
    return f"https://localhost:{platform.port}{platform.task_path}"


def refuse(platform: Platform) -> None:
    """With a reason that no XML may hold."""
    platform.on_request = lambda request, default: [
        Send(b"HTTP/1.1 500 Out of \x07 <order>\r\nContent-Length: 0\r\n\r\n"), Close()]


def test_lines_say_what_was_seen(camsim: Camsim, platform: Platform) -> None:
    done = camsim.run("check-platform", url_of(platform), *CHEAP)
    first, *lines, last = done.stdout.splitlines()
    assert first.startswith(f"{url_of(platform)}, reports to /platform/whiteListResult, 75 records; the service has ")
    assert lines[0].split() == ["passed", "status", "status", "200"]
    assert re.fullmatch(r"passed      length          Content-Length: \d+, and as many bytes came", lines[1])
    assert last == "2 passed: cameras can fetch from this platform"
    assert done.returncode == 0


def test_lines_say_what_to_do(camsim: Camsim, platform: Platform) -> None:
    refuse(platform)
    done = camsim.run("check-platform", url_of(platform), *CHEAP)
    _, status, length, last = done.stdout.splitlines()
    assert re.fullmatch(r"FAILED      status          status 500 Out of \\x07 <order> -> answer a page request with "
                        r'200 \(docs/platform-engineer.md, "What the camera does with a response"\)', status)
    assert length == "not judged  length          status comes first"
    assert last == "1 failed, 1 not judged"
    assert done.returncode == 1


def test_json_has_an_object_for_each_check_and_one_for_all(camsim: Camsim, platform: Platform) -> None:
    refuse(platform)
    status, length, last = camsim.json("check-platform", url_of(platform), *CHEAP)
    assert {name: status[name] for name in ("check", "verdict", "do", "section")} == {
        "check": "status", "verdict": "failed", "do": "answer a page request with 200",
        "section": "What the camera does with a response"}
    assert (length["check"], length["verdict"], "do" in length) == ("length", "not judged", False)
    assert last == {"url": url_of(platform), "good": False, "passed": 0, "warning": 0, "failed": 1, "not judged": 1}


def test_junit_is_what_a_ci_reads(camsim: Camsim, platform: Platform, tmp_path: Path) -> None:
    refuse(platform)
    done = camsim.run("check-platform", url_of(platform), "--only", "http", *CHEAP, "--junit", tmp_path / "out.xml")
    assert done.returncode == 1
    root = ElementTree.parse(tmp_path / "out.xml").getroot()
    [suite] = root
    assert (root.tag, suite.tag) == ("testsuites", "testsuite")
    assert [suite.get(name) for name in ("tests", "failures", "errors", "skipped")] == ["3", "1", "0", "1"]
    assert [(case.tag, case.get("classname"), case.get("name", "").partition(":")[0], [child.tag for child in case])
            for case in suite] == [("testcase", "platform", "http", ["system-out"]),
                                   ("testcase", "platform", "status", ["failure"]),
                                   ("testcase", "platform", "length", ["skipped"])]
    assert suite[1][0].get("message") == r"status 500 Out of \x07 <order>"


@pytest.mark.parametrize("words, said", [
    (["http://localhost:1/x"], "write https://HOST:PORT/PATH"), (["https://localhost:1/x?a=1"], "leave out"),
    (["https://localhost:1/x", "--result-path", "x"], "--result-path begins with /"),
    (["https://localhost:1/x", "--only", "nothing"], "--only takes one of reachable, tls, "),
    (["https://localhost:1/x", "--set", "totalNum=3"], "--set takes NAME=VALUE with one of cameraCode, taskID, "),
    (["https://localhost:1/x", "--set", "taskID"], "--set takes NAME=VALUE"),
    (["https://localhost:1/x", "--faces", "0"], "--faces is 1 to 10000")])
def test_wrong_words_are_refused_at_once(words: list[str], said: str, camsim: Camsim) -> None:
    done = camsim.run("check-platform", *words)
    assert (done.returncode, done.stdout) == (2, "")
    assert said in done.stderr


def test_junit_file_that_cannot_be_written_is_known_at_once(camsim: Camsim, platform: Platform) -> None:
    done = camsim.run("check-platform", url_of(platform), "--junit", "/nonexistent/out.xml")
    assert (done.returncode, done.stdout, platform.connections) == (1, "", [])
    assert "/nonexistent/out.xml" in done.stderr


def test_service_that_is_not_built_is_known_at_once(camsim: Camsim, platform: Platform, tmp_path: Path) -> None:
    camsim.environment["CAMGATE_BUILD"] = str(tmp_path)
    done = camsim.run("check-platform", url_of(platform))
    assert (done.returncode, done.stdout, platform.connections) == (1, "", [])
    assert "protocol_process is missing; ./demo builds it" in done.stderr


def test_nobody_there_is_a_failure(camsim: Camsim) -> None:
    port = free_port()
    done = camsim.run("check-platform", f"https://localhost:{port}/x")
    assert done.returncode == 1
    assert f"FAILED      reachable       localhost:{port}: Connection refused -> start the server" in done.stdout
    assert done.stdout.endswith(f"\n1 failed, {len(CHECKS) - 1} not judged\n")


def test_what_cameras_say_can_be_set(camsim: Camsim, platform: Platform) -> None:
    camsim.run("check-platform", url_of(platform), "--only", "report", "--result-path", "/r", "--set", "taskID=T=7",
               "--set", "securityCode=ü", "--faces", 1)
    assert {(request.json()["taskID"], request.json()["securityCode"]) for request in platform.requests} == {
        ("T=7", "ü")}
    assert platform.requests[-1].target == "/r"


def test_terminal_shows_each_verdict_when_it_is_there(camsim: Camsim, platform: Platform) -> None:
    platform.on_request = lambda request, default: None
    drawn = camsim.drawn("check-platform", url_of(platform), columns=100)
    text = drawn.wait_for("answer-time: the first byte within 5 s")
    assert "TLSv1.2, ECDHE" in text
    drawn.process.send_signal(signal.SIGINT)
    drawn.end()
    assert drawn.process.returncode == 130


def test_ctrl_c_ends_it_in_the_middle_of_a_download(camsim: Camsim, platform: Platform) -> None:
    platform.on_request = lambda request, default: None
    process = camsim.start("check-platform", url_of(platform), "--only", "download")
    platform._journal.wait_for(lambda event: event.kind == "request", DEADLINE)
    process.send_signal(signal.SIGINT)
    output, errors = process.communicate(timeout=DEADLINE)
    assert (process.returncode, errors) == (130, "")
    assert len(output.splitlines()) == 1


def rows(heading: str) -> list[list[str]]:
    table = DOCUMENT.partition(f"\n| {heading} |")[2].partition("\n\n")[0]
    return [[cell.strip() for cell in row.strip("|").split(" | ")] for row in table.splitlines()[2:]]


def test_document_has_every_check() -> None:
    assert [row[:2] for row in rows("check")] == [[f"`{check.name}`", check.demand] for check in CHECKS.values()]


def test_every_check_names_a_section() -> None:
    headings = re.findall(r"^##+ (.*)$", DOCUMENT, re.MULTILINE)
    assert {check.section for check in CHECKS.values()} <= set(headings)
