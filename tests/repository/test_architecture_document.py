"""The table of folders: every folder has a row, uses what the row says, and nothing that stands above it."""

from __future__ import annotations

import ast
import re
import subprocess
from collections import defaultdict
from collections.abc import Iterable
from pathlib import Path, PurePosixPath
from typing import NamedTuple

import pytest

from known_tests import system_tests, unit_tests

ROOT = Path(__file__).resolve().parents[2]
DOCUMENT = ROOT / "docs/architecture.md"
MOST_MODULES = 8  # of a folder of the simulator
INCLUDE_FOLDERS = ("src", "platform/include", "contracts", "tests/unit", "tests/unit/support", "fuzz")
IMPORT_FOLDERS = ("", "tests")
INCLUDE = re.compile(r'^#include "([^"]+)"', re.MULTILINE)


class Row(NamedTuple):
    """Folders or files, and the ones they use; a folder stands for everything below it that has no row of its own."""

    places: list[str]
    uses: list[str]


def read_rows(text: str) -> list[Row]:
    table = text.partition("\n| folder | holds | uses |\n")[2].partition("\n\n")[0].splitlines()[1:]
    cells = [line.strip("| ").split(" | ") for line in table]
    assert all(len(row) == 3 for row in cells), "three cells a row: folder, holds, uses"
    return [Row(re.findall(r"`([^`]+)`", place), re.findall(r"`([^`]+)`", uses)) for place, _, uses in cells]


def tracked() -> frozenset[str]:
    listed = subprocess.run(["git", "ls-files", "--cached", "--others", "--exclude-standard"], cwd=ROOT, check=True,
                            capture_output=True, text=True).stdout
    return frozenset(name for name in listed.splitlines() if (ROOT / name).is_file())


def is_python(name: str) -> bool:
    return name.endswith(".py") or (ROOT / name).read_bytes().startswith(b"#!/usr/bin/python3\n")


def included(name: str, text: str, files: frozenset[str]) -> Iterable[str]:
    for header in INCLUDE.findall(text):
        paths = [str(PurePosixPath(folder, header)) for folder in (PurePosixPath(name).parent, *INCLUDE_FOLDERS)]
        yield from [path for path in paths if path in files][:1]


def imported(name: str, text: str, files: frozenset[str]) -> Iterable[str]:
    for node in ast.walk(ast.parse(text)):
        if isinstance(node, ast.ImportFrom) and node.module:
            found = {file_of(f"{node.module}.{alias.name}", name, files) or file_of(node.module, name, files)
                     for alias in node.names}
            yield from found - {""}
        elif isinstance(node, ast.Import):
            yield from filter(None, (file_of(alias.name, name, files) for alias in node.names))


def file_of(module: str, importer: str, files: frozenset[str]) -> str:
    for folder in (PurePosixPath(importer).parent, *IMPORT_FOLDERS):
        path = PurePosixPath(folder, *module.split("."))
        for candidate in (f"{path}.py", f"{path}/__init__.py"):
            if candidate in files:
                return candidate
    return ""


def used_files(files: frozenset[str]) -> dict[str, set[str]]:
    """What each source file uses of the others."""
    used = {}
    for name in files:
        if name.endswith((".cpp", ".h", ".c")):
            used[name] = set(included(name, (ROOT / name).read_text(encoding="utf-8"), files))
        elif name.startswith(("simulator/", "tests/", "scripts/", "benchmarks/")) and is_python(name):
            used[name] = set(imported(name, (ROOT / name).read_text(encoding="utf-8"), files))
    return used


def lies_in(name: str, place: str) -> bool:
    return name == place or name.startswith(f"{place}/")


def row_of(name: str, rows: list[Row]) -> int | None:
    """The row whose place is the nearest around a file."""
    found = [(len(place), number) for number, row in enumerate(rows) for place in row.places if lies_in(name, place)]
    return max(found)[1] if found else None


def problems(rows: list[Row], used: dict[str, set[str]]) -> list[str]:
    result, upward = [], set()
    seen: dict[int, set[str]] = defaultdict(set)
    for name, others in sorted(used.items()):
        own = row_of(name, rows)
        if own is None:
            result.append(f"{name}: no row has its folder")
            continue
        for other in sorted(others):
            row = row_of(other, rows)
            if row is None or row == own:
                continue
            if row < own:
                upward.add((rows[own].places[0], rows[row].places[0]))
                continue
            allowed = {place for place in rows[own].uses if lies_in(other, place)}
            seen[own] |= allowed
            if not allowed:
                result.append(f"{name} uses {other}, and the row of {rows[own].places[0]} does not say so")
    for number, row in enumerate(rows):
        result += [f"{row.places[0]} does not use {place}" for place in row.uses if place not in seen[number]]
    return result + [f"{lower} uses {higher}, which stands above it" for lower, higher in sorted(upward)]


def test_folders_use_what_the_table_says() -> None:
    rows = read_rows(DOCUMENT.read_text(encoding="utf-8"))
    assert len(rows) > 20
    used = used_files(tracked())
    assert sum(map(len, used.values())) > 500
    found = problems(rows, used)
    assert not found, "\n" + "\n".join(found)


def test_folders_of_the_simulator_are_small() -> None:
    modules: dict[str, list[str]] = defaultdict(list)
    for name in tracked():
        if name.startswith("simulator/") and name.endswith(".py") and not name.endswith("__init__.py"):
            modules[str(PurePosixPath(name).parent)].append(name)
    assert len(modules) > 5
    assert {folder: names for folder, names in modules.items() if len(names) > MOST_MODULES} == {}


def test_modules_of_the_simulator_make_no_circle() -> None:
    # A package's list of names is for its users outside.
    left = {name: {other for other in others if other.startswith("simulator/") and other != name}
            for name, others in used_files(tracked()).items()
            if name.startswith("simulator/") and name != "simulator/__init__.py"}
    while free := [name for name, others in left.items() if not others & set(left)]:
        for name in free:
            del left[name]
    assert left == {}


def meeting_problems(text: str, known: frozenset[str]) -> list[str]:
    """What is wrong with the table of places where two threads meet."""
    table = text.partition("\n| where | who comes first, or is there meanwhile | tests |\n")[2].partition("\n\n")[0]
    rows = [line.strip("| ").split(" | ") for line in table.splitlines()[1:]]
    named = {row[0]: re.findall(r"`([^`]+)`", row[-1]) for row in rows}
    found = [f"{place}: no test" for place, tests in named.items() if not tests]
    found += [f"{place}: there is no test {test}" for place, tests in named.items() for test in tests
              if test not in known]
    return found if named else ["no table of places"]


def test_every_place_where_threads_meet_has_tests_that_exist() -> None:
    text = DOCUMENT.read_text(encoding="utf-8")
    assert meeting_problems(text, system_tests() | unit_tests()) == []


def test_place_without_tests_or_with_one_that_is_gone_is_told() -> None:
    text = DOCUMENT.read_text(encoding="utf-8")
    assert "log: no test" in meeting_problems(re.sub(r"`WriteLog\.\w+`", "", text), frozenset())
    assert len(meeting_problems(text, frozenset())) > 20
    assert meeting_problems("", frozenset()) == ["no table of places"]


ROWS = [Row(["a"], ["b", "c"]), Row(["b"], ["c"]), Row(["c"], []), Row(["c/d.py"], [])]
USED = {"a/x.py": {"b/y.py", "c/z.py"}, "b/y.py": {"c/z.py"}, "c/z.py": set()}


@pytest.mark.parametrize("changed, problem", [
    ({"e/x.py": set()}, "e/x.py: no row has its folder"),
    ({"b/y.py": {"c/z.py", "a/x.py"}}, "b uses a, which stands above it"),
    ({"b/y.py": {"c/z.py", "c/d.py"}, "c/z.py": {"c/d.py"}}, "c/z.py uses c/d.py, and the row of c does not say so"),
    ({"a/x.py": {"b/y.py"}}, "a does not use c")])
def test_what_the_table_does_not_say_is_found(changed: dict[str, set[str]], problem: str) -> None:
    assert problems(ROWS, USED) == []
    assert problem in problems(ROWS, {**USED, **changed})
