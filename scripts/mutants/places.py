"""Where an operator, a number or a truth value of the service can be replaced, and where that makes no difference."""

from __future__ import annotations

import re
from dataclasses import dataclass
from functools import cache
from pathlib import Path

import yaml

ROOT = Path(__file__).resolve().parents[2]
EQUIVALENT = ROOT / "tests/mutants/equivalent.yaml"

# Binary operators have spaces around them, which tells them from template brackets, references and pointers.
REPLACEMENTS = {
    " == ": " != ", " != ": " == ", " < ": " <= ", " <= ": " < ", " > ": " >= ", " >= ": " > ", " && ": " || ",
    " || ": " && ", " + ": " - ", " - ": " + ", " * ": " / ", " / ": " * ", " % ": " * ", " += ": " -= ",
    " -= ": " += ", " | ": " & ", " & ": " | ", " |= ": " &= ", " &= ": " |= ", "++": "--", "--": "++", "!": "",
}
OPERATOR = re.compile(r" (?:==|!=|<=|>=|&&|\|\||\+=|-=|\|=|&=|[<>+\-*/%|&]) |\+\+|--|!(?=[\w(:])")
CONSTANT = re.compile(r"(?<![\w.])(?:0[xX][0-9a-fA-F]+|\d+)(?=[uUlL]*\b)|\btrue\b|\bfalse\b")
# What is no code, or checked by the compiler alone.
NO_CODE = re.compile(r'//[^\n]*|/\*.*?\*/|"(?:\\.|[^"\\])*"|\'(?:\\.|[^\'\\])+\'|^ *#[^\n]*|\bstatic_assert\([^;]*;'
                     r'|^template[^\n]*', re.S | re.M)


@cache
def source(path: str) -> str:
    """The text of a file as it was when it was first looked at: an offset is of no use in another one."""
    return (ROOT / path).read_text()


@dataclass(frozen=True)
class Mutant:
    """One replacement: `length` characters at `offset` of the file's text."""

    path: str
    offset: int
    length: int
    new: str
    line: int
    before: str
    after: str

    def change(self) -> tuple[str, str, str]:
        """What it is known by when lines move."""
        return self.path, self.before, self.after

    def text(self) -> str:
        """The file with the change."""
        text = source(self.path)
        return text[:self.offset] + self.new + text[self.offset + self.length:]

    def __str__(self) -> str:
        return f"{self.path}:{self.line}: {self.before}  ->  {self.after}"


def mutants_of(path: Path) -> list[Mutant]:
    name = str(path.relative_to(ROOT))
    text = source(name)
    code = NO_CODE.sub(lambda match: re.sub(r"[^\n]", " ", match[0]), text)
    found = []
    for match in sorted([*OPERATOR.finditer(code), *CONSTANT.finditer(code)], key=lambda match: match.start()):
        old = match[0]
        new = REPLACEMENTS.get(old) if old in REPLACEMENTS else _other_constant(old)
        begin = text.rfind("\n", 0, match.start()) + 1
        end = text.find("\n", match.end())
        after = text[begin:match.start()] + str(new) + text[match.end():end]
        found.append(Mutant(name, match.start(), len(old), str(new),
                            text.count("\n", 0, match.start()) + 1, text[begin:end].strip(), after.strip()))
    return found


def _other_constant(old: str) -> str:
    octal = len(old) > 1 and old.isdigit() and old.startswith("0")
    return {"true": "false", "false": "true"}.get(old) or str(int(old, 8 if octal else 0) + 1)


def all_mutants() -> list[Mutant]:
    return [mutant for path in sorted((ROOT / "src").rglob("*.cpp")) for mutant in mutants_of(path)]


def equivalent(mutants: list[Mutant], path: Path = EQUIVALENT) -> set[tuple[str, str, str]]:
    """The listed changes that make no difference, all of them changes of the source as it is."""
    listed = [(entry["reason"], (change["file"], change["before"], change["after"]))
              for entry in yaml.safe_load(path.read_text()) for change in entry["changes"]]
    changes = {mutant.change() for mutant in mutants}
    stale = [f"{change[0]}: {change[1]}  ->  {change[2]}" for _, change in listed if change not in changes]
    if stale:
        raise SystemExit("\n  ".join([f"mutate: {path} lists what is no change of the source any more:", *stale]))
    if not all(reason.strip() for reason, _ in listed):
        raise SystemExit(f"mutate: {path} lists a change without a reason")
    return {change for _, change in listed}
