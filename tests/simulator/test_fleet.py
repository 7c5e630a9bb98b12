"""camsim fleet: three cameras against one platform, and what it counts."""

from __future__ import annotations


import pytest

from camsim_runs import Camsim, StartUp
from simulator.cli.fleet import platform_view, spread_of
from simulator.journal import Event


def test_three_cameras_against_the_played_platform(camsim: Camsim) -> None:
    result = camsim.json("fleet", 3, "--faces", 31, "--spread", 0.5, "--picture-bytes", 800, 900)[0]
    assert (result["cameras"], result["faces"], result["complete"]) == (3, 31, 3)
    view = result["platform"]
    assert (view["requests"], view["connections"], view["handshakes"]) == (12, 12, 12)
    assert view["bytes_sent"] > 3 * 31 * 800 * 4 / 3
    assert view["bytes_received"] > 12 * 200
    # The platform may notice the end of a camera's connection only after its next one.
    assert 1 <= view["concurrent"]["peak"] <= 2 * 3
    assert max(view["concurrent"]["each_second"]) == view["concurrent"]["peak"]
    spread = result["completion_seconds"]
    assert 0 < spread["least"] <= spread["median"] <= spread["nine_tenths"] <= spread["most"] < 30
    assert 500_000 < result["memory_bytes"]["least"] < result["memory_peak_bytes"]["most"]


def test_the_summary_is_drawn(camsim: Camsim) -> None:
    done = camsim.run("fleet", 2, "--faces", 1, "--spread", 0, "--picture-bytes", 800, 900)
    assert (done.returncode, done.stderr) == (0, "")
    assert "downloads complete  │ 2 of 2" in done.stdout
    assert "at once, by second" in done.stdout and "█" in done.stdout


def test_two_cameras_against_a_platform_outside(camsim: Camsim, up: StartUp) -> None:
    platform = up("--port", 0, "--picture-bytes", 800, 900, subcommand="platform")
    result = camsim.json("fleet", 2, "--faces", 31, "--spread", 0, "--platform", platform.first["taskURL"])[0]
    assert (result["complete"], result["platform"]["connections"]) == (2, 8)
    assert result["platform"]["encrypted_bytes_sent"] > 2 * 31 * 800
    platform.stop()
    assert sum(line.get("title", "").startswith("POST ") for line in platform.lines) == 8


def test_downloads_that_fail_are_not_complete(camsim: Camsim) -> None:
    done = camsim.run("fleet", 1, "--faces", 1, "--spread", 0, "--platform", "https://localhost:9/x")
    assert done.returncode == 1
    assert "0 of 1" in done.stdout


@pytest.mark.parametrize("words", [("0",), ("501",), ("3", "--spread", "-1")])
def test_wrong_numbers_are_refused(camsim: Camsim, words: tuple[str, ...]) -> None:
    done = camsim.run("fleet", *words)
    assert (done.returncode, "N is 1 to 500" in done.stderr) == (2, True)


def test_concurrency_is_counted_second_by_second() -> None:
    times = {"accepted": (0.1, 0.2, 1.5), "closed": (0.3, 2.5, 1.6)}
    events = [Event(moment, "platform", kind, {}) for kind, moments in times.items() for moment in moments]
    view = platform_view(events, 0.0, 2.6, played=True)
    assert view["concurrent"] == {"peak": 2, "each_second": [2, 2, 1]}
    assert view["connection_seconds"] == pytest.approx((0.2 + 2.3 + 0.1) / 3, abs=1e-4)


def test_spread() -> None:
    assert spread_of([]) is None
    assert spread_of([3, 1, 2, 4]) == {"least": 1, "median": 2.5, "nine_tenths": 4, "most": 4, "mean": 2.5}
