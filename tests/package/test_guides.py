"""What the packages bring to read, to begin with and to complete words: manual pages, guides, examples, scenarios."""

from __future__ import annotations

import os
import re
import shutil
import subprocess
import tempfile
from collections.abc import Iterator
from pathlib import Path

import pytest
from packages import package
from reader_documents import Reader, logged_in, on_free_ports

from simulator import build_folder
from simulator.cli.command_line import make_parser, modules
from simulator.cli.scenarios import shipped
from support import DEADLINE

ROOT = Path(__file__).resolve().parents[2]
DOCUMENTS = "/usr/share/doc/camgate-simulator"
PAGES = ("man1/camsim.1.gz", "man1/ringbuf_cat.1.gz", "man8/protocol_process.8.gz")
COMPLETIONS = {"usr/share/bash-completion/completions/camsim": "camsim.bash",
               "usr/share/zsh/vendor-completions/_camsim": "_camsim",
               "usr/share/fish/vendor_completions.d/camsim.fish": "camsim.fish"}


@pytest.fixture(scope="module")
def tree() -> Iterator[Path]:
    """Both packages, unpacked; directly below /tmp, because paths of sockets are short."""
    folder = Path(tempfile.mkdtemp(prefix="pkg", dir="/tmp"))
    for name in ("camgate", "camgate-simulator"):
        subprocess.run(["dpkg-deb", "--extract", str(package(name)), str(folder)], check=True)
    yield folder
    shutil.rmtree(folder)


def shown(page: Path) -> str:
    """A manual page as `man` shows it; nothing in it may be wrong."""
    done = subprocess.run(["man", "--warnings", "--encoding=UTF-8", "--local-file", str(page)], text=True,
                          env={**os.environ, "LC_ALL": "C.UTF-8", "MANWIDTH": "200", "MANPAGER": "cat"},
                          stdin=subprocess.DEVNULL, capture_output=True, timeout=DEADLINE, check=False)
    assert (done.returncode, done.stderr) == (0, "")
    return re.sub(".\b", "", done.stdout)


@pytest.mark.parametrize("name", PAGES)
def test_manual_pages_are_in_order(tree: Path, name: str) -> None:
    text = shown(tree / "usr/share/man" / name)
    program = name.partition("/")[2].partition(".")[0]
    assert f"NAME\n       {program} - " in text
    for heading in ("SYNOPSIS", "DESCRIPTION", "EXIT STATUS", "SEE ALSO"):
        assert f"\n{heading}\n" in text


def test_manual_page_of_camsim_has_every_word_of_its_command_line(tree: Path) -> None:
    text = shown(tree / "usr/share/man/man1/camsim.1.gz")
    for name, module in modules().items():
        section = re.split(r"\n   (?=\S)|\n(?=[A-Z])", text.partition(f"\n   {name}\n")[2])[0]
        for option in re.findall(r"(?<![\w-])--[a-z][a-z-]+", make_parser(name).format_help() + usage(name)):
            assert option == "--help" or option in section, (name, option)
        for example in module.EXAMPLES:
            assert f"\n         {example}\n" in section + "\n", example


def usage(name: str) -> str:
    return subprocess.run([str(ROOT / "simulator/camsim"), name, "--help"], stdout=subprocess.PIPE, text=True,
                          check=True, timeout=DEADLINE).stdout.partition("\n\nexamples:")[0]


def test_manual_pages_by_hand_say_what_their_programs_do(tree: Path) -> None:
    said = subprocess.run([str(build_folder() / "bin/ringbuf_cat"), "--help"], stdout=subprocess.PIPE, text=True,
                          check=True, timeout=DEADLINE).stdout
    text = shown(tree / "usr/share/man/man1/ringbuf_cat.1.gz")
    for option in re.findall(r"--[a-z]+", said):
        assert option in text
    text = shown(tree / "usr/share/man/man8/protocol_process.8.gz")
    table = (ROOT / "docs/firmware-engineer.md").read_text().partition("## Processes and sockets")[2]
    for path in re.findall(r"`(/(?:tmp|mnt|dev)/[\w./]+)`", table.partition("## The log")[0]):
        assert path in text or path.rstrip("03") in text, path


def test_completion_is_where_the_shells_read_it(tree: Path) -> None:
    for place, name in COMPLETIONS.items():
        assert (tree / place).read_bytes() == (ROOT / "simulator/cli/completions" / name).read_bytes()


def test_scenarios_are_there_and_found_by_name(tree: Path) -> None:
    assert sorted(path.stem for path in (tree / "usr/share/camgate-simulator/scenarios").iterdir()) == shipped.names()
    done = camsim(tree, "run", "--list")
    assert [line.split()[0] for line in done.splitlines()] == shipped.names()
    assert camsim(tree, "run", "faces-refuses").startswith("as expected: faces-refuses: ")


def camsim(tree: Path, *words: str) -> str:
    done = subprocess.run([str(tree / "usr/bin/camsim"), *words], env=installed(tree, tree), cwd="/", text=True,
                          capture_output=True, timeout=DEADLINE, check=False)
    assert done.returncode == 0, done.stderr
    return done.stdout


def installed(tree: Path, home: Path) -> dict[str, str]:
    """Who has it installed. The service is the built one: the packaged one asks the system for its library."""
    environment = logged_in(home)
    return {**environment, "PATH": f"{tree}/usr/bin:{environment['PATH']}", "CAMGATE_BUILD": str(build_folder()),
            "C_INCLUDE_PATH": f"{tree}/usr/include", "PYTHONDONTWRITEBYTECODE": "1"}


def test_what_is_installed_lies_where_the_readme_says(tree: Path) -> None:
    table = (ROOT / "simulator/README.md").read_text().partition("### Installed")[2].partition("\n\nThe guides name")[0]
    places = re.findall(r"\| `(/[\w/-]+)` \|$", table, re.MULTILINE)
    assert len(places) >= 6
    for place in places:
        assert list((tree / place[1:]).iterdir()), place


def test_links_between_the_guides_lead_to_files(tree: Path) -> None:
    guides = list((tree / DOCUMENTS[1:]).rglob("*.md"))
    assert len(guides) > 10
    for guide in guides:
        prose = re.sub(r"^```.*?^```$", "", guide.read_text(encoding="utf-8"), flags=re.MULTILINE | re.DOTALL)
        for target in re.findall(r"\]\(([^)#:]+)(?:#[^)]*)?\)", prose):
            assert (guide.parent / target).exists(), (guide, target)


@pytest.mark.seconds(6)
@pytest.mark.parametrize("guide", ["platform-engineer.md", "client-engineer.md", "firmware-engineer.md"])
def test_guides_run_as_printed_for_who_has_the_packages(tree: Path, guide: str) -> None:
    text = (tree / DOCUMENTS[1:] / "docs" / guide).read_text(encoding="utf-8")
    if guide == "platform-engineer.md":
        text = on_free_ports(text)
    assert DOCUMENTS in text
    home = Path(tempfile.mkdtemp(prefix="doc", dir="/tmp"))
    try:
        Reader(home, installed(tree, home), "sh package").follow(text.replace(DOCUMENTS, f"{tree}{DOCUMENTS}"))
    finally:
        shutil.rmtree(home)
