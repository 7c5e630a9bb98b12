"""What camsim says of a download that failed, its exit codes, and a build that is missing."""

from __future__ import annotations

import socket
import subprocess
from collections.abc import Callable
from pathlib import Path

import pytest

from camsim_runs import CAMSIM, Camsim, Up
from simulator import Camera, Event, faults
from simulator.cli.outcome import in_words, outcome
from simulator.cli.scenarios.play import switches_of

StartUp = Callable[..., Up]
BEGIN = "page 1 could not be fetched: "


@pytest.mark.parametrize("fault, why", [
    ("platform.status=404", "the platform answered 404"),
    ("platform.redirect", "the platform answered 302"),
    ("platform.silent", "time-out, no answer, or no more of it, for 5 s"),
    ("platform.no-handshake", "time-out, the TLS handshake did not end in 5 s"),
    ("platform.truncated", "what came is no whole HTTP response: response ends before its end"),
    ("platform.refuses", "the platform reset or closed the connection"),
    ("platform.plain", "TLS failed: wrong version number"),
    ("platform.tls=1.3", "TLS failed: tlsv1 alert protocol version")])
def test_a_failed_download_says_why(fault: str, why: str, camsim: Camsim, up: StartUp) -> None:
    up("--picture-bytes", 800, 900, "--fault", fault)
    answer = camsim.json("send", "whiteListDown", "--faces", 1, "--wait")[0]
    assert (answer["exit_code"], answer["download"]["complete"]) == (7, False)
    assert answer["download"]["why"].startswith(BEGIN + why)
    done = camsim.run("send", "whiteListDown", "--faces", 1, "--wait")
    assert (done.returncode, f"download NOT complete, {BEGIN}{why}" in done.stdout) == (7, True)


def test_a_later_page_is_named_by_its_number() -> None:
    with Camera() as camera:
        camera.platform.picture_sizes = (800, 900)
        switches = switches_of(camera)

        def fail_after_report(event: Event) -> None:
            if event.matches("platform", "report"):
                switches.on(faults.parse("platform.status=code=500,at=pages"))
        camera.journal.listen(fail_after_report)
        assert camera.client.command("whiteListDown", camera.platform.task(61)).status == 200
        end = camera.wait_download(20)
        assert outcome(camera.journal.events, end) == {
            "pages": 1, "pictures": 30, "refused": 0, "complete": False,
            "why": "page 2 could not be fetched: the platform answered 500"}


@pytest.mark.parametrize("transparent", [[], ["--transparent"]])
def test_a_platform_that_is_not_there(transparent: list[str], camsim: Camsim, up: StartUp) -> None:
    with socket.create_server(("127.0.0.1", 0)) as taken:
        port = taken.getsockname()[1]
    up("--platform", f"https://127.0.0.1:{port}/x", *transparent)
    done = camsim.run("send", "whiteListDown", "--wait")
    assert done.returncode == 7
    assert f"NOT complete, {BEGIN}the platform refused the connection (127.0.0.1:{port}): 0 pages" in done.stdout


@pytest.mark.parametrize("fault, said, code", [
    ("itgt.bad-pictures", "NOT complete, ITGT refused every picture: 2 pages, 0 pictures imported, 31 refused, ", 7),
    ("itgt.bad-pictures=times=1", "complete: 2 pages, 1 pictures imported, 30 refused, ", 0),
    ("platform.status=code=503,at=results", "complete: 2 pages, 31 pictures imported, 2 reports not taken, ", 0),
    ("platform.garbage=at=results", "complete: 2 pages, 31 pictures imported, 2 reports not taken, ", 0),
    ("itgt.refuses", "NOT complete, ITGT imported no picture: 2 pages, 0 pictures imported, ", 7)])
def test_pages_without_a_picture_are_no_success(fault: str, said: str, code: int, camsim: Camsim, up: StartUp) -> None:
    up("--picture-bytes", 800, 900, "--fault", fault)
    done = camsim.run("send", "whiteListDown", "--faces", 31, "--wait")
    assert (done.returncode, done.stdout.splitlines()[1].startswith(f"download {said}")) == (code, True), done.stdout


@pytest.mark.parametrize("failure, words", [
    ("Connection refused: [::1]:9", "the platform refused the connection ([::1]:9)"),
    ("Timeout: connect timed out: 192.0.2.1:443", "time-out, stage"),
    ("SSL connection unexpectedly closed", "TLS failed: SSL connection unexpectedly closed"),
    ("Host not found: gate", "Host not found: gate")])
def test_failures_in_words(failure: str, words: str) -> None:
    assert in_words(failure, "stage") == words


@pytest.mark.parametrize("words", [("up",), ("run", Path(__file__).parents[1] / "scenarios/all-well.json"),
                                   ("fleet", 1)])
def test_a_missing_build_names_what_makes_it(words: tuple[object, ...], camsim: Camsim, tmp_path: Path) -> None:
    done = subprocess.run([str(CAMSIM), *map(str, words)], env={**camsim.environment, "CAMGATE_BUILD": str(tmp_path)},
                          capture_output=True, text=True, timeout=60, check=False)
    assert done.returncode == 1
    assert done.stderr == (f"camsim {words[0]}: {tmp_path}/bin/protocol_process is missing; ./demo builds it "
                           "when CAMGATE_BUILD is not set\n")


@pytest.mark.parametrize("words, text", [
    (["send", "whiteListClear", "--tag", "-1"], "--tag is 0 to 4294967295"),
    (["send", "whiteListClear", "--tag", "4294967296"], "--tag is 0 to 4294967295"),
    (["send", "whiteListClear", "--seconds", "-1"], "--seconds 0 to"),
    (["send", "whiteListClear", "--seconds", "nan"], "--seconds 0 to"),
    (["platform", "--port", "70000"], "--port is 0 to 65535"),
    (["platform", "--pictures", "/no/such/folder"], "name a folder with .jpg files")])
def test_wrong_arguments_have_their_exit_code(words: list[str], text: str, camsim: Camsim) -> None:
    done = camsim.run(*words)
    assert (done.returncode, text in done.stderr) == (2, True), done.stderr
