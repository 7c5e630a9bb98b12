"""Help, examples and completion of every subcommand."""

from __future__ import annotations

import re
import shlex

import pytest

from camsim_runs import ROOT, Camsim
from simulator.cli.command_line import make_parser, modules

NAMES = sorted(modules())


def test_help_names_every_subcommand_and_exit_code(camsim: Camsim) -> None:
    done = camsim.run("--help")
    assert done.returncode == 0
    for name, module in modules().items():
        assert re.search(rf"\n    {name}\s", done.stdout), done.stdout
        assert " ".join(module.HELP.split()) in " ".join(done.stdout.split())
    explained = done.stdout.partition("exit codes: ")[2]
    assert re.findall(r"(?:^|; |;\n)(\d) \w", explained) == [str(code) for code in range(8)]


@pytest.mark.parametrize("name", NAMES)
def test_help_of_a_subcommand_is_enough_to_use_it(camsim: Camsim, name: str) -> None:
    """It has examples, and those are right."""
    done = camsim.run(name, "--help")
    assert done.returncode == 0
    examples = modules()[name].EXAMPLES
    assert examples
    for example in examples:
        assert f"\n  {example}\n" in done.stdout
        words = shlex.split(example.split(" | ")[0].removeprefix("source <(").removesuffix(")"))
        assert words[0] == "camsim"
        make_parser().parse_args(words[1:])


@pytest.mark.parametrize("words", [["nothing"], ["send", "--no-such"]])
def test_wrong_words_exit_with_2(camsim: Camsim, words: list[str]) -> None:
    done = camsim.run(*words)
    assert (done.returncode, done.stdout) == (2, "")
    assert done.stderr.startswith("usage: camsim")


def test_every_subcommand_that_prints_has_json(camsim: Camsim) -> None:
    for name in NAMES:
        assert name in ("completion", "shell") or "--json" in camsim.run(name, "--help").stdout, name


def test_executable_is_one() -> None:
    assert (ROOT / "simulator" / "camsim").stat().st_mode & 0o111 == 0o111
