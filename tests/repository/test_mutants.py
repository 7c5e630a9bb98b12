"""scripts/mutate: which tests try a file, and the changes that make no difference."""

from __future__ import annotations

from pathlib import Path
from types import ModuleType

import pytest

from scripts.mutants import places, results, tests_of, trial
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
def test_each_source_file_has_tests_that_exist(path: str) -> None:
    system_tests = tests_of.system_tests_of(path)
    assert [name for name in system_tests if not (ROOT / name).is_file()] == []
    if path.endswith("/main.cpp"):  # the process as a whole, which no unit test can try
        assert system_tests
    else:
        assert any("TEST" in file.read_text(encoding="utf-8") for file in tests_of.unit_test_files_of(path))


def test_a_file_of_no_topic_is_refused() -> None:
    with pytest.raises(SystemExit, match="no topic"):
        tests_of.system_tests_of("src/Unheard.cpp")


def test_a_file_without_unit_tests_is_refused(monkeypatch: pytest.MonkeyPatch, tmp_path: Path) -> None:
    monkeypatch.setattr(trial, "unit_tests_of", lambda path: [])
    with pytest.raises(SystemExit, match="src/Unheard.cpp has no unit tests"):
        trial.Trial("src/Unheard.cpp", "", tmp_path).link_unit_tests()


def test_headers_of_a_file_end_before_its_code() -> None:
    text = '#include "a.h"\n\n// why\n#include <b>\n\nnamespace {\n#include "list.inc"\n}\n'
    assert trial.leading_includes(text) == '#include "a.h"\n\n// why\n#include <b>\n\n'


def test_each_listed_change_is_one_of_the_source() -> None:
    assert len(places.equivalent(places.all_mutants())) > 20


@pytest.mark.parametrize(("change", "problem"), [
    ({}, ""),
    ({"before": "if (a < 1) {"}, "no change of the source any more"),
    ({"after": "if (a > 0) {"}, "no change of the source any more"),
    ({"reason": " "}, "without a reason")])
def test_the_list_applies_or_is_refused(tmp_path: Path, change: dict[str, str], problem: str) -> None:
    (tmp_path / "list.yaml").write_text(ENTRY.format(**{
        "reason": "nobody looks", "before": "if (a < 0) {", "after": "if (a <= 0) {"} | change))
    mutants = [places.Mutant(PATH, 7, 3, " <= ", 40, "if (a < 0) {", "if (a <= 0) {")]
    if problem:
        with pytest.raises(SystemExit, match=problem):
            places.equivalent(mutants, tmp_path / "list.yaml")
    else:
        assert places.equivalent(mutants, tmp_path / "list.yaml") == {mutants[0].change()}


FIXTURE = """struct Fixture
{
};

"""
TEXT = FIXTURE + """TEST_F(Some, First)
{
    EXPECT_TRUE(true);
}

TEST_P(Some, Second)
{
    EXPECT_TRUE(false);
}

"""


@pytest.mark.parametrize("text", [TEXT, TEXT + "TEST(Some, Third)\n{\n}\n"])
def test_a_result_depends_on_the_test_that_noticed_the_change(monkeypatch: pytest.MonkeyPatch, tmp_path: Path,
                                                                 text: str) -> None:
    (tmp_path / "a_test.cpp").write_text(text)
    monkeypatch.setattr(tests_of, "unit_test_files_of", lambda path: [tmp_path / "a_test.cpp"])
    first = tests_of.text_of_test(PATH, "Some.First")
    assert "EXPECT_TRUE(true)" in first
    assert first.startswith(FIXTURE)
    assert "EXPECT_TRUE(false)" not in first
    assert tests_of.text_of_test(PATH, "Values/Some.Second/3") == TEXT.replace(first.removeprefix(FIXTURE), "")


def test_results_hold_as_long_as_what_they_depend_on(monkeypatch: pytest.MonkeyPatch, tmp_path: Path) -> None:
    mutant = places.all_mutants()[0]
    monkeypatch.setattr(results, "text_of_test", lambda path, test: f"text of {test}")
    results.Results(tmp_path / "kept").add(mutant, "Some.Test")
    assert results.Results(tmp_path / "kept").of(mutant) == "Some.Test"
    monkeypatch.setattr(results, "text_of_test", lambda path, test: "another text")
    changed = results.Results(tmp_path / "kept")
    assert changed.of(mutant) is None
    assert changed.last(mutant) == "Some.Test"


MUTANTS = [places.Mutant(PATH, 7, 3, " <= ", line, f"a{line} < 0", f"a{line} <= 0") for line in range(100)]


def test_all_but_three_of_a_hundred_must_be_killed(mutate: ModuleType, capsys: pytest.CaptureFixture[str]) -> None:
    found = dict.fromkeys(MUTANTS[:96], "Some.Test") | dict.fromkeys(MUTANTS[96:], "survived")
    assert mutate.judge(found, {MUTANTS[99].change()}) == 1
    assert "1 equivalent; of the others 96 killed, 0 of them by system tests, 3 survived: 97.0 %" in \
        capsys.readouterr().out


def test_what_the_compiler_refuses_and_a_listed_survivor_do_not_count(mutate: ModuleType,
                                                                      capsys: pytest.CaptureFixture[str]) -> None:
    found = {MUTANTS[0]: "Some.Test", MUTANTS[1]: "test_some.py::test_it", MUTANTS[2]: "refused",
             MUTANTS[3]: "passes the unit tests"}
    assert mutate.judge(found, {MUTANTS[3].change()}) == 0
    assert "4 changes, 1 of them refused by the compiler, 1 equivalent; of the others 2 killed, 1 of them by " \
        "system tests, 0 survived: 100.0 %" in capsys.readouterr().out
