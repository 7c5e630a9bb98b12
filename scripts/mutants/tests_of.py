"""Which tests try a file of the service."""

from __future__ import annotations

import re
import subprocess
from functools import cache
from pathlib import Path

import yaml

from scripts.mutants.places import ROOT

BUILD = ROOT / "build" / "host"
# The system tests of each topic, by a pattern in the names of its files.
TOPICS = yaml.safe_load((ROOT / "tests/mutants/topics.yaml").read_text())
TEST = re.compile(r"^TEST(?:_[FP])?\((\w+),", re.M)


@cache
def unit_test_files_of(path: str) -> list[Path]:
    """The unit tests that carry this file's name; if none does, those of the files that include its header."""
    def named(stem: str) -> list[Path]:
        return sorted((ROOT / "tests/unit").rglob(f"{stem}_*test.cpp"))

    stem = Path(path).stem
    header = re.compile(rf'^#include "(?:\S*/)?{stem}\.h"', re.M)
    users = {file.stem for file in (ROOT / "src").rglob("*.*") if header.search(file.read_text())}
    return named(stem) or [file for user in sorted(users) for file in named(user)]


@cache
def unit_tests_of(path: str) -> list[str]:
    """The full names of the tests in these files."""
    wanted = {suite for file in unit_test_files_of(path) for suite in TEST.findall(file.read_text())}
    listing = subprocess.run([BUILD / "bin/unit_tests", "--gtest_list_tests"], capture_output=True, text=True,
                             check=True)
    names, suite = [], ""
    for line in listing.stdout.splitlines():
        if not line.startswith(" "):
            suite = line.split()[0]
        elif wanted & set(re.split(r"[./]", suite)):
            names.append(suite + line.split()[0])
    return names


def system_tests_of(path: str) -> list[str]:
    topics = [words.split() for pattern, words in TOPICS.items() if re.search(pattern, Path(path).stem)]
    if not topics:
        raise SystemExit(f"mutate: {path} has no topic")
    return [f"tests/system/test_{topic}.py" for topic in dict.fromkeys(sum(topics, []))]


def all_system_tests() -> list[str]:
    return [f"tests/system/test_{topic}.py" for topic in sorted(set(" ".join(TOPICS.values()).split()))]


def files_of_test(path: str, test: str) -> list[Path]:
    """The file that a test of `path` is in, by the name that a trial gives it; none when it is there no more."""
    if "::" in test:
        return [file for file in [ROOT / "tests/system" / test.partition("::")[0]] if file.is_file()]
    suites = set(re.split(r"[./]", test))
    return [file for file in unit_test_files_of(path) if suites & set(TEST.findall(file.read_text()))]
