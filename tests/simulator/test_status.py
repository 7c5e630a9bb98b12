"""camsim status, and what camsim alone says."""

from __future__ import annotations

import re

import pytest

from camsim_runs import ROOT, Camsim, StartUp

from simulator.cli.outcome import download_state
from simulator.journal import Journal
from simulator.messages.log import LogRecord


def test_nothing_runs(camsim: Camsim) -> None:
    done = camsim.run("status")
    assert (done.returncode, done.stdout) == (6, "")
    assert done.stderr == "camsim status: no camera is running; start one with: camsim up\n"


def test_alone_it_says_what_to_do_next(camsim: Camsim, up: StartUp) -> None:
    done = camsim.run()
    assert (done.returncode, done.stderr) == (0, "")
    assert done.stdout.startswith("No camera is running. Next:\n  camsim up ")
    up("--name", "gate")
    said = camsim.run().stdout
    assert said.startswith("camera gate, process ")
    assert "\n  camsim send whiteListDown --wait --name gate " in said and "camsim up" not in said


def test_alone_without_a_build_it_names_what_builds(camsim: Camsim) -> None:
    camsim.environment["CAMGATE_BUILD"] = "/nowhere"
    said = camsim.run()
    assert said.returncode == 0
    assert said.stdout.startswith("The service is not built. Next:\n  ./demo ")


def test_everything_that_runs_is_told(camsim: Camsim, up: StartUp) -> None:
    up("--picture-bytes", 800, 900, "--fault", "platform.status=code=404,times=1", "--fault", "faces.refuses")
    up("--name", "gate")
    version = re.search(r"^project\(camgate VERSION (\S+)", (ROOT / "CMakeLists.txt").read_text(), re.MULTILINE)
    assert version
    first, other = camsim.json("status")
    assert (first["name"], other["name"]) == ("camera", "gate")
    assert first["version"] == other["version"] == version[1]
    assert first["faults"] == ["platform.status=code=404,times=1", "faces.refuses"] and first["spent"] == []
    assert first["download"] == other["download"] == {"state": "none"}
    assert camsim.run("send", "whiteListDown", "--wait").returncode == 7
    first, other = camsim.json("status")
    assert first["spent"] == ["platform.status=code=404,times=1"]
    assert (first["download"]["state"], first["download"]["complete"]) == ("over", False)
    assert other["download"] == {"state": "none"} and other["faults"] == []
    said = camsim.run("status").stdout
    assert f"the service, version {version[1]}, process {first['service']}\n" in said
    assert ("  download: none now; the last one: NOT complete, page 1 could not be fetched: the platform answered 404: "
            "0 pages, 0 pictures imported\n") in said
    assert "  faults: platform.status=code=404,times=1 (spent), faces.refuses\n" in said


def test_download_that_runs(camsim: Camsim, up: StartUp) -> None:
    up("--fault", "platform.silent")
    assert camsim.run("send", "whiteListDown").returncode == 0
    assert "  download: page 1 is on its way, 0 pictures imported so far\n" in camsim.run("status").stdout


def test_platform_alone(camsim: Camsim) -> None:
    platform = camsim.start("platform", "--port", 0, "--json", "--fault", "platform.plain")
    try:
        assert platform.stdout is not None
        platform.stdout.readline()
        status, = camsim.json("status")
        assert (status["name"], status["faults"]) == ("platform", ["platform.plain"])
        assert camsim.run("status").stdout.startswith(f"platform platform, alone, process {platform.pid}, at https://")
        assert "camsim up" in camsim.run().stdout
    finally:
        platform.terminate()
        platform.communicate()


def log(text: str) -> dict[str, LogRecord]:
    return {"record": LogRecord("", "INFO", "a", 1, text)}


@pytest.mark.parametrize("end", ["CustomJsonPicDownloadTask End ", "CustomJsonPicDownloadTask Exception x", ""])
def test_state_follows_the_download(end: str) -> None:
    journal = Journal()

    def state() -> dict[str, object]:
        return download_state(journal.events)
    assert state() == {"state": "none"}
    for page in (1, 2):
        journal.add("service", "log", **log("Http Param:"))
        assert (state()["state"], state()["page"]) == ("running", page)
    if end:
        journal.add("service", "log", **log(end))
    else:
        journal.add("service", "ended", exit_code=9)
    assert state()["state"] == "over"
    journal.add("service", "ended", exit_code=0)
    assert state()["state"] == "over" and state().get("why") == (None if end else "the service ended with code 9")
    journal.add("service", "log", **log("Http Param:"))
    assert state() == {"state": "running", "page": 1, "pictures": 0}
