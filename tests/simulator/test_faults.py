"""The table of faults, and switching them in a running camera."""

from __future__ import annotations

from collections import Counter
from typing import Any

import pytest

from camsim_runs import Camsim, StartUp
from simulator import faults
from simulator.faults import FaultError


def test_every_peer_has_at_least_five() -> None:
    counts = Counter(fault.peer for fault in faults.FAULTS.values())
    assert set(counts) == set(faults.PEERS)
    assert min(counts.values()) >= 5


@pytest.mark.parametrize("text, name, values", [
    ("itgt.silent", "itgt.silent", {"command": "0", "times": 0}),
    ("platform.status=503", "platform.status", {"code": 503, "at": "all", "times": 0}),
    ("itgt.late=3,command=7021", "itgt.late", {"seconds": 3.0, "command": "7021", "times": 0}),
    ("platform.status=at=results,times=2", "platform.status", {"code": 503, "at": "results", "times": 2}),
    ("platform.certificate=wrong-name", "platform.certificate", {"kind": "wrong-name"})])
def test_a_fault_is_written_as_text(text: str, name: str, values: dict[str, Any]) -> None:
    order = faults.parse(text)
    assert order.fault.name == name
    assert vars(order.values) == values
    assert vars(faults.parse(str(order)).values) == values


@pytest.mark.parametrize("text, complaint", [
    ("igt.silent", "there is no peer 'igt'"), ("igt.silent", "did you mean 'itgt'?"),
    ("silent", "a fault is written PEER.FAULT"), ("itgt.slent", "did you mean 'silent'?"),
    ("platform.status=x", "code is a whole number, not 'x'"), ("platform.status=99", "from 100 to"),
    ("platform.status=503,503", "'503' in"), ("platform.status=cod=503", "did you mean 'code'?"),
    ("platform.tls=1.4", "one of 1.1, 1.2, 1.3"), ("itgt.absent=3", "has no name"),
    ("itgt.absent=a=3", "it takes none"), ("itgt.late=-1", "not '-1'"), ("itgt.late=nan", "not 'nan'")])
def test_a_wrong_text_is_explained(text: str, complaint: str) -> None:
    with pytest.raises(FaultError) as error:
        faults.parse(text)
    assert complaint in str(error.value)


def test_faults_are_switched_while_a_camera_runs(camsim: Camsim, up: StartUp) -> None:
    up("--picture-bytes", 800, 900)
    assert camsim.run("fault", "platform", "status", "on", "code=500", "times=1").stdout == (
        "switched on now: platform.status=code=500,times=1\n")
    assert camsim.run("send", "whiteListDown", "--faces", 1, "--wait").returncode == 7
    assert camsim.run("send", "whiteListDown", "--faces", 1, "--wait").returncode == 0  # it was to happen once
    assert camsim.run("fault", "client.garbage").returncode == 0
    assert camsim.run("send", "faceNotHitDown").returncode == 3
    assert camsim.json("fault", "client.garbage", "off") == [{"active": ["platform.status=code=500,times=1"]}]
    assert camsim.run("send", "faceNotHitDown").returncode == 0
    assert camsim.run("fault", "all", "off").stdout == "switched on now: nothing\n"


def test_the_list_marks_what_is_on(camsim: Camsim, up: StartUp) -> None:
    assert "Nothing is switched on." in camsim.run("fault", "list").stdout
    up("--fault", "events.silent")
    listed = {document["fault"]: document["on"] for document in camsim.json("fault", "list")}
    assert set(listed) == set(faults.FAULTS)
    assert [name for name, on in listed.items() if on] == ["events.silent"]
    lines = camsim.run("fault", "list", "events").stdout.splitlines()
    assert [line.split()[1] for line in lines if line.startswith("* ")][0] == "events.silent"
    assert not any("itgt" in line for line in lines)


@pytest.mark.parametrize("words, text", [
    (["itgt.slent", "on"], "did you mean 'silent'?"), (["itgt.silent", "onn"], "write on"),
    (["all", "on"], "can only be switched off"), (["list", "igt"], "did you mean 'itgt'?"),
    (["itgt.late", "on", "second=3"], "did you mean 'seconds'?")])
def test_wrong_words_are_explained(camsim: Camsim, words: list[str], text: str) -> None:
    done = camsim.run("fault", *words)
    assert (done.returncode, text in done.stderr) == (2, True)


def test_what_is_not_on_cannot_be_switched_off(camsim: Camsim, up: StartUp) -> None:
    up()
    done = camsim.run("fault", "itgt.silent", "off")
    assert (done.returncode, "itgt.silent is not switched on" in done.stderr) == (1, True)
