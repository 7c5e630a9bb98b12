"""The names of all tests, as the documents write them."""

from __future__ import annotations

import re
import subprocess
import sys
from functools import cache
from pathlib import Path

ROOT = Path(__file__).resolve().parents[2]
UNIT_TEST = re.compile(r"^TEST(?:_[FP])?\(\s*(\w+),\s*(\w+)\)", re.MULTILINE)


@cache
def system_tests() -> frozenset[str]:
    """The system tests as pytest names them, below their folder: with their parameters, and without."""
    command = [sys.executable, "-m", "pytest", "-p", "no:xdist", "--collect-only", "-q", "."]
    listed = subprocess.run(command, cwd=ROOT / "tests/system", capture_output=True, text=True, check=False)
    assert listed.returncode == 0, listed.stdout + listed.stderr
    names = {re.sub(r"^(\w+/)*", "", line) for line in listed.stdout.splitlines() if "::" in line}
    return frozenset(names | {name.partition("[")[0] for name in names})


@cache
def unit_tests() -> frozenset[str]:
    """The unit tests as Suite.Name; without the number of a parameter."""
    found = [match for path in (ROOT / "tests/unit").rglob("*.cpp")
             for match in UNIT_TEST.findall(path.read_text(encoding="utf-8"))]
    return frozenset(f"{suite}.{name}" for suite, name in found)
