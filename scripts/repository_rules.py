#!/usr/bin/python3
"""Checks the code of the repository against the rules that no other tool enforces.

usage: repository_rules.py < LIST

LIST names the files, one a line. Prints one line a finding and exits with 1 if there are any.
Functions in C++ are left to clang-tidy, lines in C++ to clang-format.
"""

import ast
import re
import sys
from collections.abc import Iterator
from pathlib import Path

FILE_LINES = 400
FUNCTION_LINES = 60
FUNCTION_BRANCHES = 15
COLUMNS = 120

UNFINISHED = re.compile(r"\b(T[O]DO|F[I]XME)\b")
# A silenced finding names the finding, and says why in the same line.
SILENCER = re.compile(r"N[O]LINT\w*|cppcheck[-]suppress|shellcheck[ ]disable|[#] ?noqa|[#] ?type: ?ignore|-W[n]o-")
SILENCER_WITH_REASON = re.compile(r"(N[O]LINT\w*\([\w.,-]+\)|[=: [][\w,-]+\]?|-W[n]o-[\w-]+\W*)[ #:]+\w.{9,}")
# What only lets time pass, under whatever name, says in the same line why nothing tells of what is waited for. In the
# service every wait can be interrupted, which its own tests see to.
PAUSE = re.compile(r"(?<!Interruption::)\bsleep\(\s*[^)\s]|Event\(\)\.wait\(|select\(\[\], \[\], \[\]|"
                   r"sleep_(for|until)\(|\busleep\(\d|nanosleep\(|\bsleep [\d.$\"]")
PAUSE_FOLDERS = ("tests", "simulator", "benchmarks", "scripts", "fuzz", ".ci", "check", "demo")
PAUSE_WITH_REASON = re.compile(r"(#|//) pause: \w.{9,}")
BRANCHES = (ast.If, ast.For, ast.While, ast.Try, ast.match_case)


def language(path: Path, lines: list[str]) -> str | None:
    """The language of a file of code, None for every other file."""
    if path.suffix in (".cpp", ".h", ".c", ".hpp"):
        return "c++"
    first = lines[0] if lines else ""
    if path.suffix == ".py" or re.match(r"#!.*python", first):
        return "python"
    if path.suffix == ".sh" or re.match(r"#!.*sh$", first):
        return "shell"
    if path.suffix == ".js":
        return "javascript"
    return "cmake" if path.name == "CMakeLists.txt" or path.suffix == ".cmake" else None


def line_findings(lines: list[str], columns: int | None) -> Iterator[tuple[int, str]]:
    for number, line in enumerate(lines, 1):
        if UNFINISHED.search(line):
            yield number, "unfinished work; finish it"
        silencer = SILENCER.search(line)
        if silencer and not SILENCER_WITH_REASON.search(line, silencer.start()):
            yield number, "a silenced finding without its name and reason in the same line"
        if columns and len(line) > columns:
            yield number, f"{len(line)} columns, at most {columns}"


def pause_findings(lines: list[str]) -> Iterator[tuple[int, str]]:
    for number, line in enumerate(lines, 1):
        if PAUSE.search(line) and not PAUSE_WITH_REASON.search(line):
            yield number, 'a pause; wait for an event, or say in the same line why not: "pause: ..."'


def python_findings(text: str) -> Iterator[tuple[int, str]]:
    for node in ast.walk(ast.parse(text)):
        if isinstance(node, (ast.FunctionDef, ast.AsyncFunctionDef)):
            lines = (node.end_lineno or node.lineno) - node.lineno + 1
            if lines > FUNCTION_LINES:
                yield node.lineno, f"{node.name} has {lines} lines, at most {FUNCTION_LINES}"
            branches = sum(isinstance(inner, BRANCHES) for inner in ast.walk(node))
            if branches > FUNCTION_BRANCHES:
                yield node.lineno, f"{node.name} has {branches} branches, at most {FUNCTION_BRANCHES}"


# How a function begins that ends with a bracket at the beginning of a line.
FUNCTION = {"shell": re.compile(r"\w+\(\) [{(]$"), "javascript": re.compile(r"(async )?function \w+\(.*\{$")}


def function_findings(lines: list[str], begins: re.Pattern[str]) -> Iterator[tuple[int, str]]:
    begin = 0
    for number, line in enumerate(lines, 1):
        if begins.match(line):
            begin = number
        elif line in ("}", ")") and begin:
            if number - begin + 1 > FUNCTION_LINES:
                yield begin, f"function has {number - begin + 1} lines, at most {FUNCTION_LINES}"
            begin = 0


def findings(path: Path) -> Iterator[tuple[int, str]]:
    text = path.read_text(encoding="utf-8", errors="replace")
    lines = text.splitlines()
    kind = language(path, lines)
    if kind is None:
        return
    if len(lines) > FILE_LINES:
        yield FILE_LINES, f"the file has {len(lines)} lines, at most {FILE_LINES}"
    yield from line_findings(lines, None if kind in ("c++", "javascript") else COLUMNS)
    if path.parts[0] in PAUSE_FOLDERS:
        yield from pause_findings(lines)
    if kind == "python":
        yield from python_findings(text)
    elif kind in FUNCTION:
        yield from function_findings(lines, FUNCTION[kind])


def main() -> int:
    paths = [Path(line.rstrip("\n")) for line in sys.stdin]
    found = [f"{path}:{line}: {text}" for path in paths for line, text in findings(path)]
    print("\n".join(found) or f"{len(paths)} files, nothing found")
    return 1 if found or not paths else 0


if __name__ == "__main__":
    sys.exit(main())
