"""The long run (scripts/soak), in short: 400 commands and 40 pages with faults mixed in; and that it can fail."""

from __future__ import annotations

import subprocess
from types import ModuleType

import pytest

from conftest import ROOT
from support import script

SCRIPT = ROOT / "scripts" / "soak"


@pytest.fixture(scope="module")
def soak() -> ModuleType:
    return script("soak")


@pytest.mark.seconds(25)
def test_nothing_grows_and_no_reply_is_lost() -> None:
    done = subprocess.run([SCRIPT, "2"], capture_output=True, text=True, check=False)
    assert done.returncode == 0, done.stdout + done.stderr
    last = done.stdout.splitlines()[-2].split()
    assert last[0] == "10"
    assert (int(last[2]) >= 400, int(last[3]) >= 40, int(last[4]) >= 1) == (True, True, True), last


def test_growth_of_any_figure_is_told(soak: ModuleType) -> None:
    first = {"KB private": 2000.0, "descriptors": 11.0, "threads": 4.0, "files": 42.0}
    assert soak.growth(first, first) == []
    for name, more in (("descriptors", 1), ("threads", 3), ("files", 1)):
        assert soak.growth(first, {**first, name: first[name] + more}) == [
            f"{name} grew from {first[name]:g} to {first[name] + more:g}, by more than {soak.ALLOWED[name]}"]


def test_missing_second_and_wrong_reply_are_told(soak: ModuleType, monkeypatch: pytest.MonkeyPatch) -> None:
    monkeypatch.setattr(soak, "REPLY_SECONDS", 0.2)
    with soak.Camera() as camera:
        work = soak.Soak(camera)
        work._expect("never sent", 1, (200,))
        assert work.failures.pop() == "command 1 (never sent) had no reply in 0.2 s"
        work._expect("nothing", camera.client.send("nothing", {}, tag=2), (200,))
        assert work.failures.pop() == "command 2 (nothing) was answered 400, not one of (200,)"
        work._expect_one_reply_each()
        assert work.failures.pop() == "2 commands that are answered had 1 replies"
        for _ in range(2):
            camera.client.send("nothing", {}, tag=3)
        camera.wait_until(lambda: len(camera.client.replies) == 3)
        work._expect_one_reply_each()
        assert "the command with tag 3 had 2 replies: [400, 400]" in work.failures
