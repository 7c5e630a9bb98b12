"""Completion of camsim's words, in the shells themselves."""

from __future__ import annotations

import os
import re
import shlex
import subprocess
from collections.abc import Iterator
from pathlib import Path

import pytest

from camsim_runs import CAMSIM, ROOT, Camsim, Drawn
from simulator.cli.command_line import modules
from support import DEADLINE

SCRIPTS = ROOT / "simulator" / "cli" / "completions"
NAMES = sorted(modules())
# A line, and the words that its last one can become.
LINES = [("camsim ", ["--help", *NAMES]), ("camsim fl", ["fleet"]),
         ("camsim up --fault platform.st", ["platform.status"]),
         ("camsim send white", ["whiteListClear", "whiteListDown"]), ("camsim run --re", ["--record"]),
         ("camsim run client-l", ["client-late"]), ("camsim completion ", ["--help", "bash", "fish", "zsh"])]
PATH = f"{CAMSIM.parent}:{os.environ['PATH']}"


def said(command: list[str], folder: Path) -> str:
    done = subprocess.run(command, env={**os.environ, "PATH": PATH, "HOME": str(folder)}, cwd=folder, text=True,
                          stdin=subprocess.DEVNULL, capture_output=True, timeout=DEADLINE, check=False)
    assert done.stderr == "", done.stderr
    return done.stdout


@pytest.mark.parametrize("shell, name", [("bash", "camsim.bash"), ("zsh", "_camsim"), ("fish", "camsim.fish")])
def test_camsim_prints_what_the_package_installs(camsim: Camsim, shell: str, name: str) -> None:
    done = camsim.run("completion", shell)
    assert (done.returncode, done.stdout) == (0, (SCRIPTS / name).read_text())


@pytest.mark.parametrize("line, words", LINES)
def test_bash_completes(line: str, words: list[str], tmp_path: Path) -> None:
    script = (f"source <(camsim completion bash)\nCOMP_LINE={shlex.quote(line)} COMP_POINT={len(line)} COMP_TYPE=9\n"
              '_camsim camsim; printf "%s\\n" "${COMPREPLY[@]}"; complete -p camsim')
    *found, registered = said(["bash", "--norc", "-c", script], tmp_path).splitlines()
    assert sorted(found) == words
    assert registered == "complete -o bashdefault -o default -F _camsim camsim"


def test_script_for_bash_has_nothing_that_shellcheck_finds() -> None:
    subprocess.run(["shellcheck", "--shell=bash", str(SCRIPTS / "camsim.bash")], check=True, timeout=DEADLINE)


@pytest.mark.parametrize("line, words", LINES)
def test_fish_completes(line: str, words: list[str], tmp_path: Path) -> None:
    script = f"camsim completion fish | source; complete --do-complete {shlex.quote(line)}"
    found = dict(re.findall(r"^([^\t\n]+)\t?(.*)$", said(["fish", "--no-config", "-c", script], tmp_path), re.M))
    assert sorted(found) == words
    assert found.get("fleet", modules()["fleet"].HELP) == modules()["fleet"].HELP


def test_fish_completes_names_of_files(tmp_path: Path) -> None:
    (tmp_path / "with blank.json").touch()
    script = 'camsim completion fish | source; complete --do-complete "camsim run with"'
    assert said(["fish", "--no-config", "-c", script], tmp_path).rstrip() == "with blank.json"


@pytest.fixture(params=["source", "fpath"])
def zsh(request: pytest.FixtureRequest, tmp_path: Path) -> Iterator[Drawn]:
    """A shell on a terminal, which has the script in one of the two ways."""
    begin = {"source": "autoload -Uz compinit; compinit -u; source <(camsim completion zsh)",
             "fpath": f"fpath=({SCRIPTS} $fpath); autoload -Uz compinit; compinit -u"}[request.param]
    (tmp_path / ".zshrc").write_text(f"{begin}\nPS1='ready> '\nunsetopt beep prompt_cr prompt_sp\n")
    (tmp_path / "with blank.json").touch()
    shell = Drawn(["env", "-C", str(tmp_path), "zsh", "-d", "-i"],
                  {**os.environ, "PATH": PATH, "ZDOTDIR": str(tmp_path), "TERM": "dumb"}, 200)
    shell.wait_for("ready> ")
    yield shell
    shell.type("\x15exit\n")
    shell.end()


def test_zsh_completes(zsh: Drawn) -> None:
    for line, wanted in (("camsim fl\t", "camsim fleet "), ("camsim up --fault platform.st\t", "platform.status "),
                         ("echo 1; camsim send whiteListC\t", "whiteListClear "),
                         ("camsim run with\t", r"with\ blank.json"), ("camsim run --re\t", "--record ")):
        zsh.text = ""
        zsh.type(line)
        zsh.wait_for(wanted)
        zsh.type("\x15")
    zsh.type("camsim \t")
    for name in NAMES:
        zsh.wait_for(f"-- {modules()[name].HELP}"[:60])
