"""Every scenario file comes out as it says, and every fault that a peer has is in one."""

from __future__ import annotations

from collections.abc import Callable
from pathlib import Path

import pytest

from simulator import Camera, faults
from simulator.cli.scenarios.play import Player
from simulator.cli.scenarios.scenario import Scenario, load

FOLDER = Path(__file__).parents[1] / "scenarios"
SCENARIOS = [load(path) for path in sorted(FOLDER.glob("*.json"))]
# Those in which the service waits; the longest are to go first.
SECONDS = {"itgt-refuses": 10, "itgt-never-ready": 10, "platform-late": 5, "platform-silent": 5,
           "platform-no-handshake": 5, "platform-slow-handshake": 5}


@pytest.mark.parametrize("scenario", [
    pytest.param(scenario, id=scenario.name, marks=pytest.mark.seconds(SECONDS.get(scenario.name, 1)))
    for scenario in SCENARIOS])
def test_scenario_comes_out_as_it_says(scenario: Scenario, make_camera: Callable[..., Camera]) -> None:
    player = Player(scenario, make_camera(start=False, ends_with=(scenario.expect.get("exit_code", 0),)))
    player.play()
    assert [check for check in player.checks if not check.ok] == []


def test_every_fault_is_in_a_scenario() -> None:
    ordered = [order for scenario in SCENARIOS for order in scenario.faults]
    ordered += [step.values["on"] for scenario in SCENARIOS for step in scenario.steps if step.do == "on"]
    assert sorted({order.fault.name for order in ordered}) == sorted(faults.FAULTS)
