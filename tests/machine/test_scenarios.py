"""Scenarios come out on a booted camera as they do in the sandbox, unchanged."""

from __future__ import annotations

from collections.abc import Callable
from pathlib import Path

import pytest

from booted import machine
from simulator import Camera
from simulator.cli.scenarios.play import Player
from simulator.cli.scenarios.scenario import load

FOLDER = Path(__file__).parents[1] / "scenarios"
# One for each peer, and for what goes another way than in the sandbox: files, sockets that go and come, event packets.
NAMES = ("all-well", "itgt-state-file-garbage", "itgt-restarts", "faces-configuration-garbage", "faces-absent",
         "platform-status", "platform-truncated", "client-garbage", "events-garbage")


@pytest.mark.parametrize("name", NAMES)
def test_scenario_comes_out_as_it_says(name: str, make_camera: Callable[..., Camera]) -> None:
    player = Player(load(FOLDER / f"{name}.json"), make_camera(start=False, machine=machine()))
    player.play()
    assert [check for check in player.checks if not check.ok] == []
