#!/usr/bin/python3
"""Keeps README.md's table of versions: what camgate was built with and passed its tests with, and nothing beyond.

usage: tested_versions.py record SYSTEM
       tested_versions.py write

"record" notes the versions of this system, for check to call when all tests have passed: SYSTEM is the name of a Debian
release, or "armhf" for the libraries and the compiler of the 32-bit ARM build. "write" puts what was noted, in
build/tested, into the table; columns of systems that were not tested here stay as they are.
"""

from __future__ import annotations

import json
import re
import shutil
import subprocess
import sys
from pathlib import Path

ROOT = Path(__file__).resolve().parents[1]
README = ROOT / "README.md"
NOTES = ROOT / "build" / "tested"
SYSTEMS = {"bookworm": "Debian 12", "trixie": "Debian 13", "armhf": "32-bit ARM, Debian 11"}
ROWS = ("POCO", "OpenSSL", "GCC", "clang", "CMake", "Python")
BEGIN = "| tested with |"
ABSENT = "as the building machine"
NOT_USED = "not used"

Versions = dict[str, str]


def said(*command: str) -> str:
    return subprocess.run(command, capture_output=True, text=True, check=True).stdout


def number(text: str, parts: int) -> str:
    """The first version in a text, cut to so many parts."""
    found = re.search(r"\d+(\.\d+)+", text)
    assert found, f"no version in {text!r}"
    return ".".join(found[0].split(".")[:parts])


def of_this_system() -> Versions:
    defined = re.search(r"#define POCO_VERSION 0x(..)(..)(..)", Path("/usr/include/Poco/Version.h").read_text())
    assert defined, "the header of POCO tells its version"
    return {"POCO": ".".join(str(int(part, 16)) for part in defined.groups()),
            "OpenSSL": number(said("openssl", "version"), 2),
            "GCC": number(said("g++", "-dumpfullversion"), 2),
            "clang": number(said("clang-tidy", "--version"), 2) if shutil.which("clang-tidy") else NOT_USED,
            "CMake": number(said("cmake", "--version"), 2),
            "Python": number(said("/usr/bin/python3", "--version"), 2)}


def of_armhf() -> Versions:
    """Of the packages that scripts/armhf-root takes, and no others."""
    lock = (ROOT / "scripts" / "armhf-packages.lock").read_text()

    def locked(package: str, parts: int) -> str:
        found = re.search(rf"/{re.escape(package)}_([^_]*)_", lock)
        assert found, package
        return number(found[1], parts)

    return {"POCO": locked("libpoco-dev", 3), "OpenSSL": locked("libssl-dev", 2),
            "GCC": locked("gcc-10-arm-linux-gnueabihf", 2), "clang": NOT_USED,
            "CMake": ABSENT, "Python": ABSENT}


def table() -> dict[str, Versions]:
    """README.md's columns, by the system's name."""
    lines = README.read_text(encoding="utf-8").splitlines()
    first = next(index for index, line in enumerate(lines) if line.startswith(BEGIN))
    names = {title: name for name, title in SYSTEMS.items()}
    columns = [names[cell.strip()] for cell in lines[first].split("|")[2:-1]]
    found: dict[str, Versions] = {name: {} for name in columns}
    for line in lines[first + 2:first + 2 + len(ROWS)]:
        cells = [cell.strip() for cell in line.split("|")[1:-1]]
        for name, cell in zip(columns, cells[1:]):
            found[name][cells[0]] = cell
    return found


def text_of(columns: dict[str, Versions]) -> list[str]:
    rows = [[BEGIN.strip("| "), *(SYSTEMS[name] for name in SYSTEMS)], ["---"] * (1 + len(SYSTEMS))]
    rows += [[row, *(columns[name][row] for name in SYSTEMS)] for row in ROWS]
    return ["| " + " | ".join(row) + " |" for row in rows]


def write() -> None:
    columns = table()
    for name in SYSTEMS:
        note = NOTES / f"{name}.json"
        if note.exists():
            columns[name] = json.loads(note.read_text())
    lines = README.read_text(encoding="utf-8").splitlines()
    first = next(index for index, line in enumerate(lines) if line.startswith(BEGIN))
    lines[first:first + 2 + len(ROWS)] = text_of(columns)
    README.write_text("\n".join(lines) + "\n", encoding="utf-8")


def main() -> int:
    arguments = sys.argv[1:]
    if arguments == ["write"]:
        write()
    elif len(arguments) == 2 and arguments[0] == "record":
        if arguments[1] in SYSTEMS:
            NOTES.mkdir(parents=True, exist_ok=True)
            versions = of_armhf() if arguments[1] == "armhf" else of_this_system()
            (NOTES / f"{arguments[1]}.json").write_text(json.dumps(versions, indent=2) + "\n")
    else:
        print(__doc__, file=sys.stderr)
        return 2
    return 0


if __name__ == "__main__":
    sys.exit(main())
