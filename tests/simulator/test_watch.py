"""camsim watch and ./demo: drawn on a terminal, plain without one."""

from __future__ import annotations

import json
import os
import re
import signal
import subprocess
from datetime import datetime, timedelta, timezone
from pathlib import Path
from typing import Any

import pytest

from camsim_runs import ROOT, Camsim, Drawn, StartUp
from support import DEADLINE

ESCAPES = re.compile(r"\x1b\[[0-9;?]*[A-Za-z]")


def plain(text: str) -> str:
    return ESCAPES.sub("", text)


def test_a_terminal_gets_arrows_between_columns_and_bars(camsim: Camsim, up: StartUp) -> None:
    one = up("--picture-bytes", 800, 900, "--picture-seconds", 0.01)
    watch = camsim.drawn("watch")
    watch.wait_for("platform")
    assert camsim.run("send", "whiteListDown", "--faces", 31, "--wait").returncode == 0
    one.stop()
    text = plain(watch.end())
    assert watch.process.returncode == 0
    assert re.search(r" client +platform +service +ITGT +faces +events", text)
    command = next(line for line in text.splitlines() if "whiteListDown, 31 faces" in line)
    assert re.search(r"│─{9}┼─{9}▶ {9}│ {9}│ {9}│ +whiteListDown, 31 faces", command)
    answer = next(line for line in text.splitlines() if "7020 import task" in line)
    assert re.search(r"│ {9}│ {9}◀─{9}│ {9}│ {9}│ +7020 import task 4300000001", answer)
    assert re.search(r"pages +[━─]+ [01]/2 reported", text)
    assert re.search(r"pictures of white0 +[━─]+ \d+/30 imported", text)
    assert "Camera camera has ended." in text


@pytest.mark.parametrize("environment, columns", [
    ({"TERM": "dumb"}, 120), ({"PYTHONIOENCODING": "latin-1"}, 120), ({}, 60)])
def test_a_terminal_that_cannot_draw_gets_lines(
        camsim: Camsim, up: StartUp, environment: dict[str, str], columns: int) -> None:
    one = up()
    watch = camsim.drawn("watch", columns=columns, **environment)
    watch.wait_for("Watching camera camera")
    assert camsim.run("send", "faceNotHitDown").returncode == 0
    watch.wait_for("got the reply to its command")
    one.stop()
    text = watch.end()
    assert "▶" not in text and "│" not in text
    if "TERM" in environment:
        assert ESCAPES.search(text) is None


def test_without_a_terminal_there_are_lines_with_all_details_if_wanted(camsim: Camsim, up: StartUp) -> None:
    up()
    watch = camsim.start("watch", "--verbose")
    assert watch.stdout is not None
    assert watch.stdout.readline() == "Watching camera camera; Ctrl-C ends.\n"
    assert camsim.run("send", "whiteListClear").returncode == 0
    lines = []
    while "got the reply" not in (line := watch.stdout.readline()):
        lines.append(line)
    assert any(re.fullmatch(r" +\d+\.\d{3} s  face library <-- 7019 CMD_FACE_LIB_CLEAR request .*\n", line)
               for line in lines)
    assert any(re.search(r"service +INFO .*:407 CMD_ALARM_FACE_LIB_SET TaskID:1 FaceListName Staff", line)
               for line in lines)
    watch.send_signal(signal.SIGINT)
    assert watch.wait(DEADLINE) == 0
    assert watch.stderr is not None and watch.stderr.read() == ""


def test_json_has_each_message_decoded_and_the_faults(camsim: Camsim, up: StartUp) -> None:
    one = up()
    watch = camsim.start("watch", "--json")
    assert watch.stdout is not None
    assert json.loads(watch.stdout.readline()) == {"watching": "camera"}
    assert camsim.run("fault", "faces.refuses", "on").returncode == 0
    assert camsim.run("send", "whiteListClear", "--seconds", 0.2).returncode == 5
    one.stop()
    documents = [json.loads(line) for line in watch.stdout]
    assert watch.wait(DEADLINE) == 0
    assert {frozenset(document) for document in documents} == {
        frozenset(("time", "source", "target", "kind", "title", "text", "fields"))}
    clear = next(document for document in documents if document["title"] == "7019 status 1")
    assert (clear["source"], clear["target"], clear["kind"]) == ("faces", "service", "message")
    assert clear["fields"]["ClearConfigPath"] == "/tmp/mmcblk0/face_basic/facelists.json"
    assert [document["text"] for document in documents if document["kind"] == "fault"] == [
        "fault faces.refuses is switched on", "fault faces.refuses takes hold"]


def test_there_is_one_time(camsim: Camsim, up: StartUp, tmp_path: Path) -> None:
    """Of one thing it is the same for whoever brought the camera up, for a watcher, and in the recording."""
    one = up("--record", tmp_path / "run")
    watch = camsim.start("watch", "--json")
    assert watch.stdout is not None
    watch.stdout.readline()
    assert camsim.run("send", "whiteListClear").returncode == 0
    one.stop()

    def seconds(documents: list[dict[str, Any]]) -> float:
        return next(one["time"] for one in documents if one.get("title") == "7019 status 0")
    watched = seconds([json.loads(line) for line in watch.stdout])
    assert watch.wait(DEADLINE) == 0
    assert watched == seconds(one.lines)
    text = camsim.run("trace", tmp_path / "run").stdout
    reply = re.search(r"^ +(\d+\.\d{3}) s  (\d\d:\d\d:\d\d\.\d{3})  face library → service +7019 ", text, re.MULTILINE)
    assert reply and abs(float(reply[1]) - watched) < 0.002
    document = json.loads(camsim.run("trace", tmp_path / "run", "--json").stdout)
    moment = datetime.fromisoformat(document["began"]) + timedelta(seconds=watched)
    assert abs((datetime.combine(moment.date(), datetime.strptime(reply[2], "%H:%M:%S.%f").time(), timezone.utc)
                - moment).total_seconds()) < 0.002


def test_the_demonstration_draws_on_a_terminal() -> None:
    environment = {name: value for name, value in os.environ.items() if name not in ("NO_COLOR", "COLUMNS")}
    demo = Drawn(["/usr/bin/python3", "-m", "simulator.cli.demo", "whiteListClear"],
                 {**environment, "TERM": "xterm-256color", "PYTHONPATH": str(ROOT)}, 120)
    text = plain(demo.end())
    assert demo.process.returncode == 0, text
    assert re.search(r"│─{9}▶ {9}│ +7018 set list Staff|│─{9}┼─{9}▶ {9}│ +7018 set list Staff", text)
    assert "Everything came out as it should." in text


def test_the_demonstration_writes_lines_without_a_terminal() -> None:
    done = subprocess.run(["/usr/bin/python3", "-m", "simulator.cli.demo", "whiteListClear"], cwd=ROOT, text=True,
                          stdin=subprocess.DEVNULL, capture_output=True, timeout=DEADLINE, check=False)
    assert (done.returncode, done.stderr) == (0, "")
    assert re.search(r"\n +\d+\.\d{3} s  face library got face list 1 \"Staff\", type 1, on control 1, threshold 80\n",
                     done.stdout)
    assert "\x1b" not in done.stdout and "▶" not in done.stdout
