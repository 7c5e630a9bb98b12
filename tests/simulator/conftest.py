"""What every test of camsim uses."""

from __future__ import annotations

import contextlib
import shutil
import sys
import tempfile
from collections.abc import Callable, Iterator
from pathlib import Path

import pytest

sys.path.insert(0, str(Path(__file__).resolve().parents[2]))

from camsim_runs import Camsim, Up  # noqa: E402 importable only with the path above
from simulator.peers.pictures import picture  # noqa: E402 importable only with the path above


@pytest.fixture
def camsim() -> Iterator[Camsim]:
    """camsim with a runtime folder of its own; short, because paths of sockets are."""
    folder = Path(tempfile.mkdtemp(prefix="run", dir="/tmp"))
    yield Camsim(folder)
    shutil.rmtree(folder)


@pytest.fixture
def up(camsim: Camsim) -> Iterator[Callable[..., Up]]:
    """up(*words) starts `camsim up --json` with further words, or another subcommand, and waits until it is up."""
    started: list[Up] = []

    def start(*words: object, subcommand: str = "up") -> Up:
        started.append(Up(camsim.start(subcommand, "--json", *words)))
        return started[-1]

    yield start
    for one in started:
        if one.process.poll() is None:
            with contextlib.suppress(ProcessLookupError):
                one.stop()


@pytest.fixture
def faces(tmp_path: Path) -> Path:
    """A folder with three pictures, one file that is none, and one that only is called so."""
    folder = tmp_path / "faces"
    folder.mkdir()
    for number, name in enumerate(("anna.jpg", "bert.JPG", "carl.jpeg")):
        (folder / name).write_bytes(picture(number, 800, 900))
    (folder / "dora.jpg").write_bytes(b"no picture at all")
    (folder / "readme.txt").write_text("not served")
    return folder
