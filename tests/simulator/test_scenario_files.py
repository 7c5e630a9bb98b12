"""Scenario files: what is wrong with one is named with its line, and camsim run tells what came out."""

from __future__ import annotations

import json
from pathlib import Path
from typing import Any

import pytest

from camsim_runs import ROOT, Camsim
from simulator.cli.scenarios.scenario import load
from simulator.errors import CameraError

SCENARIOS = ROOT / "tests" / "scenarios"

GOOD = """{
  "about": "a scenario",
  "settings": {"picture_seconds": 0.01},
  "faults": ["itgt.late=1"],
  "steps": [
    {"send": "whiteListDown", "faces": 3},
    {"on": {"fault": "platform.status", "code": 500}},
    {"off": "platform.status"}
  ],
  "expect": {"reports": 1}
}
"""

# Text to put in the place of another, the line that is to be named, and words of the complaint.
WRONG = [
    ('"about": "a scenario",', '"about": "a scenario"', 3, "this is not JSON: Expecting ',' delimiter"),
    ('"about"', '"abuot"', 2, "abuot: there is no 'abuot' here; there are about"),
    ('"about"', '"abuot"', 2, "did you mean 'about'?"),
    ('"about": "a scenario",', "", 1, "'about' is missing"),
    ('"a scenario"', "7", 2, "about: this must be a text, not 7"),
    ('"settings": {', '"steps": [], "settings": {', 5, "'steps' is here twice"),
    ("picture_seconds", "picture_second", 3, "did you mean 'picture_seconds'?"),
    ("0.01", '"x"', 3, "settings.picture_seconds: this must be a number of seconds"),
    ("itgt.late=1", "itgt.lat=1", 4, "faults[0]: itgt has no fault 'lat'"),
    ("itgt.late=1", "igt.late=1", 4, "did you mean 'itgt'?"),
    ("itgt.late=1", "itgt.late=x", 4, "seconds is a number, not 'x'"),
    ('["itgt.late=1"]', "[7]", 4, "faults[0]: a fault is a text"),
    ('"whiteListDown"', '"whiteListDwn"', 6, "did you mean 'whiteListDown'?"),
    ('"faces": 3', '"faces": -3', 6, "steps[0].faces: this must be a whole number from 0, not -3"),
    ('"faces": 3', '"face": 3', 6, "did you mean 'faces'?"),
    ('"faces": 3', '"wait": 1', 6, "this must be true or false"),
    ('"whiteListDown"', '"whiteListClear"', 6, 'only whiteListDown has "faces"'),
    ('"send"', '"snd"', 6, "did you mean 'send'?"),
    ('"faces": 3', '"end": true', 6, "a step has exactly one of"),
    ('{"send": "whiteListDown", "faces": 3}', "5", 6, "a step is an object"),
    ('"code": 500', '"cod": 500', 7, "steps[1].on.cod: platform.status has no parameter 'cod'"),
    ('"code": 500', '"code": "x"', 7, "steps[1].on.code: code is a whole number"),
    ('"off": "platform.status"', '"off": "platform.stats"', 8, "did you mean 'status'?"),
    ('"reports": 1', '"report": 1', 10, "did you mean 'reports'?"),
    ('{"reports": 1}', "[]", 10, "expect: this must be an object")]


@pytest.mark.parametrize("old, new, line, complaint", WRONG)
def test_what_is_wrong_is_named_with_its_line(tmp_path: Path, old: str, new: str, line: int, complaint: str) -> None:
    path = tmp_path / "s.json"
    path.write_text(GOOD)
    load(path)
    assert GOOD.count(old) >= 1
    path.write_text(GOOD.replace(old, new, 1))
    with pytest.raises(CameraError) as error:
        load(path)
    assert str(error.value).startswith(f"{path}, line {line}")
    assert complaint in str(error.value)


def test_a_good_file_is_read_whole(tmp_path: Path) -> None:
    (tmp_path / "s.json").write_text(GOOD)
    scenario = load(tmp_path / "s.json")
    assert (scenario.name, scenario.about, scenario.expect) == ("s", "a scenario", {"reports": 1})
    assert scenario.settings["picture_seconds"] == 0.01
    assert [str(order) for order in scenario.faults] == ["itgt.late=seconds=1.0"]
    assert [step.do for step in scenario.steps] == ["send", "on", "off"]
    assert str(scenario.steps[1].values["on"]) == "platform.status=code=500"


def write(path: Path, steps: list[Any], expect: dict[str, Any], faults: list[str] = []) -> Path:  # noqa: B006 only read
    path.write_text(json.dumps({"about": "made by a test", "faults": faults, "steps": steps, "expect": expect}))
    return path


def test_what_came_out_as_expected(camsim: Camsim) -> None:
    done = camsim.run("run", SCENARIOS / "faces-refuses.json", SCENARIOS / "client-garbage.json")
    assert done.returncode == 0
    lines = done.stdout.splitlines()
    assert [line.split(": ")[:2] for line in lines[:2]] == [["as expected", "faces-refuses"],
                                                            ["as expected", "client-garbage"]]
    assert lines[2] == "2 of 2 scenarios came out as expected"


@pytest.mark.parametrize("steps, expect, difference", [
    ([{"send": "whiteListClear", "status": 400}], {}, "line 1: status of whiteListClear: 200, expected 400"),
    ([{"send": "whiteListClear"}], {"lists": 4}, "lists: 3, expected 4"),
    ([{"send": "whiteListClear"}], {"log": ["never said"]}, "log with 'never said': False, expected True"),
    ([{"send": "whiteListClear"}], {"no_log": ["cameraCode:C1"]}, "log with 'cameraCode:C1': True, expected False"),
    ([{"send": "whiteListClear", "status": "none"}], {}, "line 1: reply: 'one came', expected 'none'"),
    ([{"log": "never said", "seconds": 0.2}], {}, "line 1: the log has 'never said': 'not seen in 0.2 s'"),
    ([{"send": "whiteListClear"}], {"exit_code": 70}, "expected 70")])
def test_what_did_not(camsim: Camsim, tmp_path: Path, steps: list[Any], expect: dict[str, Any],
                      difference: str) -> None:
    done = camsim.run("run", write(tmp_path / "s.json", steps, expect))
    assert done.returncode == 1
    assert done.stdout.startswith("NOT AS EXPECTED: s: made by a test\n")
    assert difference in done.stdout


def test_a_fault_that_never_took_hold_is_not_as_expected(camsim: Camsim, tmp_path: Path) -> None:
    path = write(tmp_path / "s.json", [{"send": "whiteListClear"}], {}, ["platform.silent"])
    result = camsim.json("run", path)[0]
    assert result["as_expected"] is False
    assert [check["what"] for check in result["checks"] if not check["ok"]] == ["platform.silent took hold"]


def test_a_wrong_file_is_no_failed_scenario(camsim: Camsim, tmp_path: Path) -> None:
    (tmp_path / "s.json").write_text("{\n]")
    done = camsim.run("run", tmp_path / "s.json")
    assert (done.returncode, done.stdout) == (2, "")
    assert done.stderr.startswith(f"camsim run: {tmp_path}/s.json, line 2: this is not JSON: ")
    assert camsim.run("run", tmp_path / "missing.json").returncode == 2


def test_those_that_come_with_camsim_are_played_by_name(camsim: Camsim) -> None:
    named = [(line["scenario"], line["about"]) for line in camsim.json("run", "--list")]
    assert named == sorted((path.stem, load(path).about) for path in SCENARIOS.glob("*.json"))
    assert camsim.run("run", "--list").stdout.count("\n") == len(named)
    done = camsim.run("run", "platform-tls-1.1")
    assert (done.returncode, done.stdout.partition(": ")[2].partition(":")[0]) == (0, "platform-tls-1.1"), done.stderr
    for words, complaint in (((), "name a scenario to play"), (("client-lat",), "did you mean 'client-late'?")):
        done = camsim.run("run", *words)
        assert (done.returncode, done.stdout) == (2, "")
        assert complaint in done.stderr
