"""The fault matrix has every cell, and every cell a test that exists."""

from __future__ import annotations

import re
from pathlib import Path
from typing import NamedTuple

import pytest

from known_tests import system_tests, unit_tests

ROOT = Path(__file__).resolve().parents[2]
DOCUMENT = ROOT / "docs/faults.md"

INTERACTIONS = [
    "Command socket", "Reply to the command client", "Readiness marker", "Start message 1037", "Page file notice 7020",
    "Import progress 7021", "Time 7031", "Face list clear 7019", "Face list set 7018", "Page: connect", "Page: TLS",
    "Page: send", "Page: receive", "Report: connect", "Report: TLS", "Report: send", "Report: receive", "Page file",
    "State file", "Configuration file", "Event node", "Cache mapping", "Ring buffer", "User switch", "Memory"]
FAULTS = ["absent", "refuses", "silent", "slow", "short", "oversized", "garbage", "dies midway", "comes back",
          "disk full", "no permission", "descriptor limit"]

# The section of pairs: each peer disturbed, beside each other one, in each of these states.
PAIRS = "Two peers at once"
PEERS = {"ITGT": "itgt", "face library": "faces", "client": "client", "platform": "platform", "event cache": "events"}
STATES = ["slow", "silent", "away", "restarts"]

IMPOSSIBLE = "cannot happen: "
UNLIMITED = "without limit"
# What shows that a wait without limit ends with a stop all the same.
STOP = re.compile(r"test_stop\.py::|no_stop|holds_up|stop_signal|half_a_command|TaskThatDoesNotEnd|InterruptEnds")


class Cell(NamedTuple):
    interaction: str
    fault: str
    outcome: str
    tests: list[str]


def read_matrix(text: str) -> list[Cell]:
    """The cells of the document in order; a row without three columns is an error."""
    cells, interaction = [], ""
    for line in text.splitlines():
        if line.startswith("## "):
            interaction = line.removeprefix("## ")
        elif interaction in INTERACTIONS and line.startswith("| ") and not line.startswith(("| Fault |", "| --- |")):
            columns = [column.strip() for column in line.strip("|").split(" | ")]
            assert len(columns) == 3, f"not three columns: {line}"
            cells.append(Cell(interaction, columns[0], columns[1], re.findall(r"`([^`]+)`", columns[2])))
    return cells


def problems(cells: list[Cell], known: frozenset[str]) -> list[str]:
    """What is wrong with the cells, given the names of all tests."""
    wanted = [(interaction, fault) for interaction in INTERACTIONS for fault in FAULTS]
    found = [(cell.interaction, cell.fault) for cell in cells]
    result = [f"{interaction}, {fault}: no cell" for interaction, fault in wanted if (interaction, fault) not in found]
    result += [f"{interaction}, {fault}: not wanted, or there twice" for interaction, fault in dict.fromkeys(found)
               if (interaction, fault) not in wanted or found.count((interaction, fault)) > 1]
    for cell in cells:
        name = f"{cell.interaction}, {cell.fault}"
        if cell.outcome.startswith(IMPOSSIBLE):
            if len(cell.outcome) < len(IMPOSSIBLE) + 15:
                result.append(f"{name}: does not say why it cannot happen")
            if cell.tests:
                result.append(f"{name}: a test of what cannot happen")
        elif not cell.tests:
            result.append(f"{name}: no test")
        elif UNLIMITED in cell.outcome and not any(STOP.search(test) for test in cell.tests):
            result.append(f"{name}: a wait without limit, and no test that a stop ends it")
        if len(cell.outcome) < 10:
            result.append(f"{name}: no outcome")
        result += [f"{name}: there is no test {test}" for test in cell.tests if test not in known]
    return result


def test_every_cell_has_an_outcome_and_a_test_that_exists() -> None:
    found = problems(read_matrix(DOCUMENT.read_text(encoding="utf-8")), system_tests() | unit_tests())
    assert not found, "\n" + "\n".join(found)


def pair_problems(text: str, known: frozenset[str]) -> list[str]:
    """What is wrong with the section of pairs."""
    section = text.partition(f"\n## {PAIRS}\n")[2].partition("\n## ")[0]
    rows = {(columns[0], columns[1]): re.findall(r"`(test_two_peers[^`]+)`", columns[3])
            for line in section.splitlines()
            if len(columns := [column.strip() for column in line.strip("|").split(" | ")]) == 4}
    wanted = {(one, other): [f"test_two_peers.py::test_business_with_one_goes_on_while_another_is_disturbed"
                             f"[{PEERS[one]}-{state}-{PEERS[other]}]" for state in STATES]
              for one in PEERS for other in PEERS if one != other}
    found = [f"{one} beside {other}: {rows.get((one, other))} in place of {tests}"
             for (one, other), tests in wanted.items() if rows.get((one, other)) != tests]
    return found + [f"there is no test {test}" for tests in wanted.values() for test in tests if test not in known]


def test_every_pair_of_peers_has_a_row_with_its_four_tests() -> None:
    found = pair_problems(DOCUMENT.read_text(encoding="utf-8"), system_tests())
    assert not found, "\n" + "\n".join(found)


def test_pair_without_its_row_or_its_tests_is_told() -> None:
    text = DOCUMENT.read_text(encoding="utf-8")
    assert pair_problems(text.replace("| ITGT | client |", "| ITGT | nobody |"), system_tests())
    assert pair_problems(text.replace("itgt-slow-client", "itgt-slow-platform"), system_tests())
    assert pair_problems(text, frozenset())


def test_lists_of_tests_are_not_empty() -> None:
    assert len(system_tests()) > 500
    assert len(unit_tests()) > 400
    assert "test_stop.py::test_stop_within_about_a_second_in_every_state[idle]" in system_tests()
    assert "WholeFile.MissingFileCannotBeOpened" in unit_tests()


GOOD = Cell("Memory", "slow", "Waited for without limit, and then answered.", ["test_stop.py::test_x"])


@pytest.mark.parametrize("cell, problem", [
    (GOOD._replace(tests=[]), "no test"),
    (GOOD._replace(tests=["Suite.Gone"]), "there is no test Suite.Gone"),
    (GOOD._replace(tests=["Suite.Name"]), "no test that a stop ends it"),
    (GOOD._replace(outcome="ok"), "no outcome"),
    (GOOD._replace(outcome=IMPOSSIBLE + "so", tests=[]), "does not say why"),
    (GOOD._replace(outcome=IMPOSSIBLE + "nothing is ever read there"), "a test of what cannot happen"),
    (GOOD._replace(fault="sleepy"), "not wanted")])
def test_wrong_cell_is_found(cell: Cell, problem: str) -> None:
    whole = [Cell(interaction, fault, IMPOSSIBLE + "nothing of the kind exists here", [])
             for interaction in INTERACTIONS for fault in FAULTS]
    known = frozenset(["test_stop.py::test_x", "Suite.Name"])
    assert problems(whole, known) == []
    position = [(other.interaction, other.fault) for other in whole].index(("Memory", "slow"))
    assert problems([*whole[:position], GOOD, *whole[position + 1:]], known) == []
    assert any(problem in text for text in problems([*whole[:position], cell, *whole[position + 1:]], known))
    assert "Memory, slow: no cell" in problems(whole[:position] + whole[position + 1:], known)
    assert "Memory, slow: not wanted, or there twice" in problems([*whole, GOOD], known)
