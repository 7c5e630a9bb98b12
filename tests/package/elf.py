"""What an ELF file says about itself, as readelf prints it. Readelf reads those of other processors, too."""

from __future__ import annotations

import os
import re
import subprocess
from pathlib import Path


def _readelf(path: Path, *options: str) -> str:
    return subprocess.run(["readelf", "-W", *options, str(path)], env={**os.environ, "LC_ALL": "C"},
                          stdout=subprocess.PIPE, text=True, check=True).stdout


def kind(path: Path) -> str:
    """The type of file: DYN for a shared library or a program that may lie anywhere, EXEC for one that may not."""
    found = re.search(r"Type:\s+(\w+)", _readelf(path, "-h"))
    assert found
    return found[1]


def segments(path: Path) -> list[tuple[str, str]]:
    """Kind and flags of each segment, for example ("GNU_STACK", "RW")."""
    return [(found[1], found[2].replace(" ", "")) for found in
            re.finditer(r"^\s+([A-Z_]+)\s+(?:0x\w+\s+){5}([R ][W ][E ])\s", _readelf(path, "-l"), re.MULTILINE)]


def dynamic(path: Path, tag: str) -> list[str]:
    """The values of a tag of the dynamic section, for example NEEDED; a library's name without its brackets."""
    return [re.sub(r"^.*\[(.*)\]$", r"\1", value.strip()) for value in
            re.findall(rf"^ 0x\w+ \({tag}\)\s+(.*)$", _readelf(path, "-d"), re.MULTILINE)]


def imports(path: Path) -> set[str]:
    """The names that other libraries must have, without their versions."""
    return set(re.findall(r" UND ([^@\s]+)", _readelf(path, "--dyn-syms")))


def symbols(path: Path) -> set[str]:
    """All names of an object file that another one must have."""
    return set(re.findall(r" UND (\S+)", _readelf(path, "-s")))


def sections(path: Path) -> set[str]:
    return set(re.findall(r"\]\s(\.\S+)", _readelf(path, "-S")))


def metadata(path: Path) -> str:
    """What the note of package metadata says; every one of the file's notes has to be well-formed."""
    listed = subprocess.run(["readelf", "-W", "-n", str(path)], env={**os.environ, "LC_ALL": "C"}, capture_output=True,
                            text=True, check=True)
    assert not listed.stderr, listed.stderr
    found = re.search(r"FDO_PACKAGING_METADATA\s+Packaging Metadata: (.*)", listed.stdout)
    assert found, listed.stdout
    return found[1]


def is_elf(path: Path) -> bool:
    with path.open("rb") as stream:
        return stream.read(4) == b"\x7fELF"
