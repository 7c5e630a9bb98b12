"""contracts/camgate_messages.h compiles in the languages and for the processors that it is for."""

from __future__ import annotations

import subprocess
from pathlib import Path

import pytest

ROOT = Path(__file__).resolve().parents[2]
HEADER = ROOT / "contracts/camgate_messages.h"
# Without a system's headers, which need not be there for 32 bit.
BITS_32 = ("-m32", "-ffreestanding")
WAYS = {"C99": ("c", "c99"), "C++17": ("c++", "c++17"), "C99, 32 bit": ("c", "c99", *BITS_32),
        "C++17, 32 bit": ("c++", "c++17", *BITS_32)}


def complaints(text: str, language: str, standard: str, *options: str) -> str:
    return subprocess.run(["gcc", "-x", language, f"-std={standard}", *options, "-Wall", "-Wextra", "-Wpedantic",
                           "-Wpadded", "-Werror", "-fsyntax-only", "-"], input=text, text=True, check=False,
                          stderr=subprocess.PIPE).stderr


@pytest.mark.parametrize("way", WAYS)
def test_it_compiles_without_a_warning_and_without_padding(way: str) -> None:
    assert complaints(HEADER.read_text(), *WAYS[way]) == ""


@pytest.mark.parametrize("way", WAYS)
@pytest.mark.parametrize("right, wrong", [
    ("int64_t ProgressTotal;", "int64_t ProgressTotal, more;"), ("char PageTime[21104];", "char PageTime[21096];"),
    ("uint8_t unused[52];", "uint8_t unused[48];"), ("uint32_t tag;", "uint16_t tag[2], more[2];")])
def test_another_layout_does_not_compile(way: str, right: str, wrong: str) -> None:
    text = HEADER.read_text()
    assert text.count(right) == 1
    assert "size of array" in complaints(text.replace(right, wrong), *WAYS[way])
