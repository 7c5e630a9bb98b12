"""What README and docs/fleet.md say of camsim is what the code does, and what was measured."""

from __future__ import annotations

import json
import re
import shlex
from pathlib import Path

from camsim_runs import ROOT, Camsim
from simulator import faults
from simulator.cli.command_line import EXIT_CODES, make_parser, modules
from simulator.cli.scenarios.scenario import EXPECTATIONS, STEPS, load
from simulator.cli.scenarios.settings import SETTINGS

README = (ROOT / "simulator" / "README.md").read_text(encoding="utf-8")
FLEET = (ROOT / "docs" / "fleet.md").read_text(encoding="utf-8")


def rows(text: str, heading: str) -> list[str]:
    """The rows of the table whose first line begins so, without that line and the one below it."""
    table = text.partition(f"\n| {heading}")[2].partition("\n\n")[0]
    return table.splitlines()[2:]


def test_every_subcommand_is_listed() -> None:
    assert rows(README, "subcommand |") == [f"| `{name}` | {module.HELP} |" for name, module in modules().items()]


def test_every_fault_is_listed() -> None:
    assert rows(README, "fault |") == [
        f"| `{fault.name}` | {fault.help} | "
        + ", ".join(f"`{parameter.name}={parameter.default}`" for parameter in fault.parameters) + " |"
        for fault in faults.FAULTS.values()]


def test_every_setting_is_listed() -> None:
    assert rows(README, "setting |") == [f"| `{setting.name}` | {setting.help} | `{setting.example}` |"
                                         for setting in SETTINGS.values()]


def test_every_step_and_expectation_is_listed() -> None:
    listed = {re.findall(r"`(\w+)`", row)[0]: re.findall(r"`(\w+)`", row) for row in rows(README, "step |")}
    assert set(listed) == set(STEPS)
    for kind, members in STEPS.items():
        assert set(members) <= set(listed[kind]), kind
    assert {re.findall(r"`(\w+)`", row)[0] for row in rows(README, "expectation |")} == set(EXPECTATIONS)


def test_exit_codes_are_the_ones_of_the_help() -> None:
    assert rows(README, "exit code |") == [
        f"| {code} | {text} |"
        for code, text in re.findall(r"(\d+) (.+?)(?:;|$)", EXIT_CODES.replace("\n", " ").partition(": ")[2])]


def test_example_scenario_is_one_and_comes_out_as_it_says(camsim: Camsim, tmp_path: Path) -> None:
    text = README.partition("```json\n")[2].partition("```")[0]
    (tmp_path / "example.json").write_text(text)
    assert load(tmp_path / "example.json").steps
    assert camsim.run("run", tmp_path / "example.json").returncode == 0


def measured() -> dict[str, float]:
    """The numbers of docs/fleet.md that the rest of it is worked out from."""
    result = json.loads(FLEET.partition("```json\n")[2].partition("```")[0])
    view, cameras = result["platform"], result["cameras"]
    return {"connections": view["connections"] / cameras, "sent": view["bytes_sent"] / cameras,
            "received": view["bytes_received"] / cameras, "seconds": result["completion_seconds"]["median"],
            "processor": view["handshake_processor_seconds"]["mean"]}


def test_fleet_numbers_are_still_the_ones_that_camsim_prints(camsim: Camsim) -> None:
    result = json.loads(FLEET.partition("```json\n")[2].partition("```")[0])
    now = camsim.json("fleet", 1, "--faces", 31, "--spread", 0, "--picture-bytes", 800, 900)[0]
    assert set(result) <= set(now)
    assert set(result["platform"]) <= set(now["platform"])


def test_fleet_of_100000_is_worked_out_from_the_measured_numbers() -> None:
    one, cameras, picture_bytes = measured(), 100_000, 1e6
    table = rows(FLEET, "commands spread over |")
    expected = []
    for name, seconds in (("10 minutes", 600), ("1 hour", 3600), ("6 hours", 21_600), ("24 hours", 86_400)):
        rate = cameras * one["connections"] / seconds
        sent = cameras * one["sent"] / seconds
        # Of the time of a download the pages alone hold a connection: at 10 Mbit/s, the rest is next to nothing.
        at_once = cameras / seconds * one["sent"] * 8 / 10e6
        expected.append(f"| {name} | {rate:,.0f} | {rate * one['processor']:.2f} | {sent / picture_bytes:,.0f} MB, "
                        f"{sent * 8 / 1e9:.1f} Gbit | {cameras * one['seconds'] / seconds:,.0f} | {at_once:,.0f} | "
                        f"{at_once * one['sent'] / 3 / 1e9:.1f} GB |")
    assert table == expected


def test_every_line_that_calls_camsim_is_right() -> None:
    """In README.md, simulator/README.md and docs/fleet.md."""
    texts = [(ROOT / "README.md").read_text(encoding="utf-8"), README, FLEET]
    lines = [line.partition(" #")[0] for text in texts
             for line in re.findall(r"^(?:simulator/)?camsim (.*)$", text, re.MULTILINE)]
    assert len(lines) >= 14
    for line in lines:
        make_parser().parse_args(shlex.split(line))
