"""How camsim and ./demo end when they are stopped, when nobody reads them, and when nothing can be written."""

from __future__ import annotations

import os
import signal
import subprocess
from typing import IO

import pytest

from camsim_runs import CAMSIM, ROOT, Camsim, StartUp
from simulator import Camera
from simulator.cli import running
from simulator.cli.outcome import unreachable
from simulator.cli.running import RunningCamera
from simulator.cli.scenarios.play import switches_of
from simulator.faults import parse
from simulator.journal import Journal
from support import DEADLINE

ALL_WELL = ROOT / "tests/scenarios/all-well.json"
DEMO = ["/usr/bin/python3", "-m", "simulator.cli.demo"]
# What a second camsim can be asked while a camera runs, and what needs none.
ASKING = ("watch", "watch --json", "watch --verbose", "send whiteListDown --faces 1 --wait", "send whiteListClear",
          "status", "status --json", "fault list", "fault itgt.late on", "")
ALONE = ("--help", "up --help", "fault list", "completion bash", "up", "up --json", "up --quiet", "platform --port 0",
         "platform --port 0 --json", f"run {ALL_WELL} {ALL_WELL}", f"run --watch {ALL_WELL}", f"run --json {ALL_WELL}",
         "fleet 1 --spread 0 --faces 1")


def words_of(words: str) -> list[str]:
    return DEMO + words.split()[1:] if words.startswith("demo") else [str(CAMSIM), *words.split()]


def begun(camsim: Camsim, words: str, stdout: int | IO[bytes] = subprocess.PIPE) -> subprocess.Popen[bytes]:
    return subprocess.Popen(words_of(words), stdin=subprocess.DEVNULL, stdout=stdout, stderr=subprocess.PIPE,
                            env={**camsim.environment, "PYTHONPATH": str(ROOT)}, cwd=camsim.runtime)


def ended(process: subprocess.Popen[bytes]) -> tuple[int, str]:
    """Its exit code and its standard error."""
    assert process.stderr
    with process.stderr as stream:
        errors = stream.read().decode()
    return process.wait(DEADLINE), errors


def closed_after_a_line(camsim: Camsim, words: str) -> tuple[int, str]:
    process = begun(camsim, words)
    assert process.stdout and process.stdout.readline()
    process.stdout.close()
    return ended(process)


@pytest.mark.parametrize("words", [*ALONE, "demo", "demo --verbose", "demo whiteListClear"])
def test_a_closed_pipe_ends_it_quietly(words: str, camsim: Camsim) -> None:
    code, errors = closed_after_a_line(camsim, words)
    assert (code in (0, 141), errors) == (True, ""), code
    assert list(camsim.runtime.glob("camsim/*")) == []


def test_a_closed_pipe_ends_those_that_ask(camsim: Camsim, up: StartUp) -> None:
    up("--picture-bytes", 800, 900)
    seen = {words: closed_after_a_line(camsim, words) for words in ASKING}
    assert {words: errors for words, (code, errors) in seen.items() if errors or code not in (0, 141)} == {}


@pytest.mark.parametrize("words", ["up", "up --json", "platform --port 0", "demo"])
def test_what_runs_on_ends_with_its_reader_even_if_it_says_nothing_more(words: str, camsim: Camsim) -> None:
    assert closed_after_a_line(camsim, words) == (141, "")


def test_a_watcher_without_a_reader_ends_at_once(camsim: Camsim, up: StartUp) -> None:
    up()
    assert closed_after_a_line(camsim, "watch") == (141, "")


@pytest.mark.parametrize("words", ["--help", "up", "up --json", "fault list", f"run --watch {ALL_WELL}", "demo"])
def test_a_full_disk_is_told(words: str, camsim: Camsim) -> None:
    with open("/dev/full", "wb") as full:
        code, errors = ended(begun(camsim, words, full))
    assert (code, errors.count("No space left on device"), len(errors.splitlines())) == (1, 1, 1), errors


@pytest.mark.parametrize("closed", [(0,), (1,), (2,), (0, 1, 2)])
@pytest.mark.parametrize("words", [f"run {ALL_WELL}", "demo whiteListClear", "status"])
def test_closed_streams_do_no_harm(words: str, closed: tuple[int, ...], camsim: Camsim) -> None:
    redirections = " ".join(f"{number}>&-" for number in closed)
    done = subprocess.run(["bash", "-c", f'exec "$@" {redirections}', "bash", *words_of(words)], timeout=DEADLINE,
                          env={**camsim.environment, "PYTHONPATH": str(ROOT)}, capture_output=True, check=False)
    assert done.returncode == (6 if words == "status" else 0)
    assert b"Traceback" not in done.stderr and b"Exception" not in done.stderr


@pytest.mark.parametrize("number", [signal.SIGINT, signal.SIGTERM, signal.SIGHUP])
@pytest.mark.parametrize("words", ["up --fault itgt.no-marker --json", f"run --watch {ALL_WELL}", "demo",
                                   "platform --port 0"])
def test_a_signal_ends_it_without_a_word(words: str, number: int, camsim: Camsim) -> None:
    process = begun(camsim, words)
    assert process.stdout and process.stdout.readline()
    process.send_signal(number)
    process.stdout.read()
    runs_until_stopped = words.startswith("platform") or "--json" in words
    code, errors = ended(process)
    assert (code in ((0, 130) if runs_until_stopped else (130,)), errors) == (True, ""), code
    assert list(camsim.runtime.glob("camsim/*")) == []


def test_nohup_is_respected(camsim: Camsim) -> None:
    process = subprocess.Popen(["nohup", *words_of("platform --port 0")], stdin=subprocess.DEVNULL,
                               stdout=subprocess.PIPE, stderr=subprocess.PIPE, env=camsim.environment)
    assert process.stdout and process.stdout.readline()
    process.send_signal(signal.SIGHUP)
    assert camsim.run("status").returncode == 0
    process.send_signal(signal.SIGTERM)
    process.stdout.read()
    assert ended(process)[0] == 0


def test_an_answer_is_missed_when_the_camera_ends(camsim: Camsim, up: StartUp) -> None:
    one = up("--fault", "itgt.silent")
    send = begun(camsim, "send whiteListDown --faces 1 --wait")
    for _ in iter(lambda: any(line.get("title", "").startswith("7020") for line in one.lines), True):
        os.sched_yield()
    one.stop()
    code, errors = ended(send)
    assert (code, errors) == (7, "") or (code, errors) == (6, "camsim send: the camera 'camera' ended before it "
                                                              "answered\n"), (code, errors)


def test_a_download_that_stands_still_is_told(monkeypatch: pytest.MonkeyPatch) -> None:
    monkeypatch.setattr(running, "STILL_SECONDS", 0.5)
    with Camera() as camera:
        camera.platform.picture_sizes = (800, 900)
        switches = switches_of(camera)
        switches.on(parse("itgt.silent"))
        answer = RunningCamera("camera", camera, switches).handlers()["send"](
            {"command": "whiteListDown", "info": {}, "faces": 1, "tag": None, "seconds": DEADLINE, "wait": True})
    assert answer["code"] == 5
    assert answer["download"]["why"] == ("it stands still: ITGT has not given the answer to its request 7020 that the "
                                         "service waits for")


def test_the_way_to_a_platform_is_named_while_it_is_closed() -> None:
    journal = Journal()
    assert unreachable(journal.events) == ""
    journal.add("platform", "absent", error="gate:443: Name or service not known")
    assert unreachable(journal.events) == " (the way to it: gate:443: Name or service not known)"
    journal.add("platform", "present")
    assert unreachable(journal.events) == ""
    journal.add("platform", "absent", error="gate:443: Connection refused")
    assert unreachable(journal.events) == ""
