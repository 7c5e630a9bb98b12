"""scripts/mutate: which tests try a file, and the changes that make no difference."""

from __future__ import annotations

from pathlib import Path
from types import ModuleType

import pytest

from support import script

ROOT = Path(__file__).resolve().parents[2]
PATH = "src/a.cpp"
ENTRY = """
- reason: '{reason}'
  changes:
    - file: src/a.cpp
      before: '{before}'
      after: '{after}'
"""


@pytest.fixture(scope="module")
def mutate() -> ModuleType:
    return script("mutate")


@pytest.mark.parametrize("path", sorted(str(path.relative_to(ROOT)) for path in (ROOT / "src").rglob("*.cpp")))
def test_each_source_file_has_tests_that_exist(mutate: ModuleType, path: str) -> None:
    system_tests = mutate.system_tests_of(path)
    assert [name for name in system_tests if not (ROOT / name).is_file()] == []
    if path.endswith("/main.cpp"):  # the process as a whole, which no unit test can try
        assert system_tests
    else:
        assert any("TEST" in file.read_text(encoding="utf-8") for file in mutate.unit_test_files_of(path))


def test_a_file_of_no_topic_is_refused(mutate: ModuleType) -> None:
    with pytest.raises(SystemExit, match="no topic"):
        mutate.system_tests_of("src/Unheard.cpp")


def test_a_file_without_unit_tests_is_refused(mutate: ModuleType, monkeypatch: pytest.MonkeyPatch,
                                                  tmp_path: Path) -> None:
    monkeypatch.setattr(mutate, "unit_tests_of", lambda path: [])
    monkeypatch.setattr(mutate.shutil, "copy", lambda *files: None)
    with pytest.raises(SystemExit, match="src/Unheard.cpp has no unit tests"):
        mutate.Trial("src/Unheard.cpp", "", tmp_path).failing_unit_test()


def test_each_listed_change_is_one_of_the_source(mutate: ModuleType) -> None:
    assert len(mutate.equivalent(mutate.chosen())) > 20


@pytest.mark.parametrize(("change", "problem"), [
    ({}, ""),
    ({"before": "if (a < 1) {"}, "no change of the source any more"),
    ({"after": "if (a > 0) {"}, "no change of the source any more"),
    ({"reason": " "}, "without a reason")])
def test_the_list_applies_or_is_refused(mutate: ModuleType, tmp_path: Path, change: dict[str, str],
                                        problem: str) -> None:
    (tmp_path / "list.yaml").write_text(ENTRY.format(**{
        "reason": "nobody looks", "before": "if (a < 0) {", "after": "if (a <= 0) {"} | change))
    mutants = [mutate.Mutant(PATH, 7, 3, " <= ", 40, "if (a < 0) {", "if (a <= 0) {")]
    if problem:
        with pytest.raises(SystemExit, match=problem):
            mutate.equivalent(mutants, tmp_path / "list.yaml")
    else:
        assert mutate.equivalent(mutants, tmp_path / "list.yaml") == {mutants[0].change()}


def test_a_listed_survivor_does_not_count(mutate: ModuleType, capsys: pytest.CaptureFixture[str]) -> None:
    mutants = [mutate.Mutant(PATH, 7, 3, " <= ", line, f"a{line} < 0", f"a{line} <= 0") for line in range(10)]
    results = dict.fromkeys(mutants[:8], "Some.Test") | dict.fromkeys(mutants[8:], "survived")
    assert mutate.judge(results, {mutants[8].change()}) == 0
    assert "10 changes, 1 of them equivalent; of the others 8 killed, 1 survived: 88.9 %" in capsys.readouterr().out
    assert mutate.judge(results, set()) == 1
    assert "8 killed, 2 survived: 80.0 %" in capsys.readouterr().out
