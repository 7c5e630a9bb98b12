#!/usr/bin/python3
"""Compares the log lines that the service can write with their catalogue, in both directions.

usage: log_catalogue.py [FOLDER DOCUMENT]

FOLDER holds the sources and DOCUMENT the catalogue: src and docs/log.md of this repository when they are not named.
A line of the catalogue is found by its path in the log, its level, its format, and where it stands: the source file,
and the line number when LOG_AT fixes it, or what is added to the line of the call when several files share a path. No
line of a path may lead to two calls. Prints what does not agree and exits with 1.
"""

from __future__ import annotations

import re
import sys
from collections.abc import Iterator
from pathlib import Path
from typing import NamedTuple

ROOT = Path(__file__).resolve().parents[1]

CALL = re.compile(r"\b(LOG|LOG_AT|UTILS_LOG|QL_WriteLog)\(")
# Positions of level, fixed line (LOG_AT only) and format among the arguments.
ARGUMENTS = {"LOG": (0, None, 1), "LOG_AT": (0, 1, 2), "UTILS_LOG": (0, None, 1)}
LITERAL = r'"(?:[^"\\]|\\.)*"'
LITERALS = re.compile(rf"\s*{LITERAL}(?:\s*{LITERAL})*\s*")
CONSTANT = re.compile(rf"constexpr char (\w+)\[\] = ({LITERAL});")
# A file's path in the log and what is added to the lines of its calls.
SOURCE = re.compile(r'constexpr (?:char|LogSource) LOG_SOURCE(?:\[\] = |\{)"([^"]*)"(?:,\s+(\d+))?')
# What the formats of utility modules begin with.
UTILITY_PREFIX = '"[%s]:'
# Matches comments and preprocessor lines to blank out; what is in quotes is not a comment.
NO_CODE = re.compile(rf"({LITERAL})|//[^\n]*|/\*.*?\*/|^[ \t]*#(?:[^\n\\]|\\.)*", re.DOTALL | re.MULTILINE)

SECTION = re.compile(r"## `([\w/]+)`")
ROW = re.compile(rf"\| `({LITERAL})` \| (\w+) \| `(\w+\.cpp)`(?:, (line \d+|\d+ \+ line))? \|(.*)\|")


class LogLine(NamedTuple):
    """A line that can be written; its format as a C literal. Its number when that is not the line of the call."""

    path: str
    file: str
    level: str
    number: str
    format: str

    def __str__(self) -> str:
        where = f"`{self.file}`, {self.number}" if self.number else f"`{self.file}`"
        return f"| `{self.format}` | {self.level} | {where} |"


def blank_out(text: str) -> str:
    """The text without comments and preprocessor lines, every line where it was."""
    return NO_CODE.sub(lambda match: match[1] or re.sub(r"[^\n]", " ", match[0]), text)


def arguments(text: str, begin: int) -> list[str]:
    """The arguments of a call, from behind its bracket on."""
    found, depth, start = [], 0, begin
    for match in re.compile(rf"{LITERAL}|[(),]").finditer(text, begin):
        if match[0] == "(":
            depth += 1
        elif match[0] == ")" and depth > 0:
            depth -= 1
        elif match[0] in ",)" and depth == 0:
            found.append(text[start:match.start()].strip())
            start = match.end()
            if match[0] == ")":
                return found
    return found


def joined(literals: str) -> str:
    """One literal out of neighbours, which the compiler joins."""
    return '"' + "".join(literal[1:-1] for literal in re.findall(LITERAL, literals)) + '"'


def formats(text: str, argument: str) -> list[str]:
    """The formats that an argument can be: itself, a constant's value, or every format that the file has aside."""
    if LITERALS.fullmatch(argument):
        return [joined(argument)]
    constants = dict(CONSTANT.findall(text))
    if argument in constants:
        return [constants[argument]]
    inside = {match[0] for call in CALL.finditer(text) for match in re.finditer(LITERAL, " ".join(
        arguments(text, call.end())))}
    return [literal for literal in re.findall(LITERAL, text)
            if literal.startswith(UTILITY_PREFIX) and literal not in inside]


def written_lines(folder: Path) -> Iterator[tuple[LogLine, str, int]]:
    """Each line that the sources can write, with the place of its call and the number in its record."""
    for path in sorted([*folder.rglob("*.cpp"), *folder.rglob("*.h")]):
        text = blank_out(path.read_text(encoding="utf-8"))
        named = SOURCE.search(text)
        source, before = named.groups() if named else ("no LOG_SOURCE", None)
        for call in CALL.finditer(text):
            own = text.count("\n", 0, call.start()) + 1
            place = f"{path.relative_to(folder.parent)}:{own}"
            if call[1] not in ARGUMENTS:
                yield LogLine(source, path.name, call[1], "", '"called past the macros"'), place, own
                continue
            level, fixed, format_position = ARGUMENTS[call[1]]
            found = arguments(text, call.end())
            name = found[level].removeprefix("UTILS_LOG_").capitalize()
            number = int(found[fixed]) if fixed is not None else int(before or 0) + own
            shown = f"line {number}" if fixed is not None else f"{before} + line" if before else ""
            for literal in formats(text, found[format_position]) or [f'"{found[format_position]}"']:
                yield LogLine(source, path.name, name, shown, literal), place, number


def listed_lines(document: Path) -> Iterator[tuple[LogLine, str]]:
    """Each entry of the catalogue, with its place."""
    section = ""
    for number, text in enumerate(document.read_text(encoding="utf-8").splitlines(), 1):
        if heading := SECTION.fullmatch(text):
            section = heading[1]
        elif text.startswith('| `"'):
            row = ROW.fullmatch(text)
            if row is None or not all(cell.strip() for cell in row[5].split("|")) or row[5].count("|") != 2:
                raise SystemExit(f"{document}:{number}: not a row of six filled cells: format as a C literal, level, "
                                 "source file and fixed line, meaning, likely causes, what to check")
            yield LogLine(section, row[3], row[2], row[4] or "", row[1]), f"{document}:{number}"


def findings(folder: Path, document: Path) -> Iterator[str]:
    listed: dict[LogLine, str] = {}
    for line, place in listed_lines(document):
        if line in listed:
            yield f"{place}: the same entry as {listed[line]}; remove one"
        listed.setdefault(line, place)
    written: dict[LogLine, str] = {}
    numbered: dict[tuple[str, int], str] = {}
    for line, place, number in written_lines(folder):
        written.setdefault(line, place)
        if numbered.setdefault((line.path, number), place) != place:
            yield f"{place}: line {number} of {line.path} is also that of {numbered[line.path, number]}; move one"
    for line, place in written.items():
        if line not in listed:
            yield f"{place}: no entry in {document}; below '## `{line.path}`' add\n    {line} MEANS | CAUSES | CHECK |"
    for line, place in listed.items():
        if line not in written:
            yield f"{place}: nothing in {folder} writes this line; correct the entry or remove it:\n    {line}"


def main() -> int:
    if len(sys.argv) not in (1, 3):
        print(__doc__, file=sys.stderr)
        return 2
    folder, document = map(Path, sys.argv[1:] or (ROOT / "src", ROOT / "docs/log.md"))
    found = list(findings(folder, document))
    print("\n".join(found) or f"{document}: every line that the service can write, and no other")
    return 1 if found else 0


if __name__ == "__main__":
    sys.exit(main())
