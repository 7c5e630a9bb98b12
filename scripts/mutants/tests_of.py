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
BLOCK = re.compile(r"^TEST(?:_[FP])?\((\w+), (\w+)\)\n\{\n.*?^\}\n+", re.M | re.S)


@cache
def text_of(file: Path) -> str:
    """A file of tests as it was when it was first looked at, which is when its program was built."""
    return file.read_text()


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
    wanted = {suite for file in unit_test_files_of(path) for suite in TEST.findall(text_of(file))}
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


def text_of_test(path: str, test: str) -> str:
    """What a result of a test of `path`, by the name that a trial gives it, depends on; "" when it is there no more.

    Of a unit test that is its file without the other tests, of a system test its whole file."""
    words = set(re.split(r"[./]", test))
    if "::" in test:
        file = ROOT / "tests/system" / test.partition("::")[0]
        return text_of(file) if file.is_file() else ""
    return "".join(BLOCK.sub(lambda block: block[0] if {block[1], block[2]} <= words else "", text_of(file))
                   for file in unit_test_files_of(path) if words & set(TEST.findall(text_of(file))))
