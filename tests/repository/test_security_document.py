"""The list of untrusted inputs: what it names exists, and no fuzz target is left out."""

from __future__ import annotations

import re
from pathlib import Path

import pytest

from known_tests import system_tests, unit_tests

ROOT = Path(__file__).resolve().parents[2]
DOCUMENT = ROOT / "docs/security.md"
ROW = re.compile(r"\| ([^|]+) \| `(src/[^`]+)`, `(\w+)` \| ([^|]+) \| `(fuzz_\w+)` \| ([^|]+) \|")


def read_inputs(text: str) -> list[tuple[str, ...]]:
    """Name, file, function, bound, fuzz target and tests of each input."""
    table = text.partition("| Input | Comes in at |")[2].partition("\n\n")[0].splitlines()[2:]
    found = []
    for line in table:
        row = ROW.fullmatch(line)
        assert row, f"not input, `file`, `function`, bound, `fuzz target`, tests: {line}"
        found.append(row.groups())
    return found


def problems(inputs: list[tuple[str, ...]], root: Path, known: frozenset[str]) -> list[str]:
    result = []
    for name, file, function, _, target, tests in inputs:
        if not (root / file).is_file():
            result.append(f"{name}: there is no file {file}")
        elif not re.search(rf"\b{function}\(", (root / file).read_text(encoding="utf-8")):
            result.append(f"{name}: there is no function {function} in {file}")
        named = re.findall(r"`([^`]+)`", tests)
        result += [f"{name}: there is no test {test}" for test in named if test not in known]
        if not named:
            result.append(f"{name}: no regression test")
    listed = {row[4] for row in inputs}
    # Inputs may be listed before there are targets for them; from then on the two lists are the same.
    if (root / "fuzz").is_dir():
        built = set(re.findall(r"^add_fuzz_target\((\w+)", (root / "fuzz/CMakeLists.txt").read_text(), re.MULTILINE))
        result += [f"there is no fuzz target {target}" for target in sorted(listed - built)]
        result += [f"fuzz target {target} is not listed" for target in sorted(built - listed)]
    return result


def test_everything_that_the_list_names_exists() -> None:
    inputs = read_inputs(DOCUMENT.read_text(encoding="utf-8"))
    assert len(inputs) >= 15
    found = problems(inputs, ROOT, system_tests() | unit_tests())
    assert not found, "\n" + "\n".join(found)


INPUT = ("Body", "src/a.cpp", "receive", "size", "fuzz_body", "`Suite.Name`")


@pytest.mark.parametrize("changed, problem", [
    ({1: "src/b.cpp"}, "no file src/b.cpp"), ({2: "take"}, "no function take"),
    ({5: "`Suite.Gone`"}, "no test Suite.Gone"), ({5: "none"}, "no regression test"),
    ({4: "fuzz_tail"}, "no fuzz target fuzz_tail")])
def test_what_does_not_exist_is_found(tmp_path: Path, changed: dict[int, str], problem: str) -> None:
    (tmp_path / "src").mkdir()
    (tmp_path / "src/a.cpp").write_text("int receive(int);\n")
    (tmp_path / "fuzz").mkdir()
    targets = tmp_path / "fuzz/CMakeLists.txt"
    targets.write_text("add_fuzz_target(fuzz_body)\n")
    known = frozenset(["Suite.Name"])
    assert problems([INPUT], tmp_path, known) == []
    wrong = tuple(changed.get(position, value) for position, value in enumerate(INPUT))
    assert any(problem in text for text in problems([wrong], tmp_path, known))
    targets.write_text("add_fuzz_target(fuzz_body)\nadd_fuzz_target(fuzz_more)\n")
    assert problems([INPUT], tmp_path, known) == ["fuzz target fuzz_more is not listed"]
