"""The kept inputs of the fuzz targets: named ones as files, the fuzzer's in an archive a target."""

from __future__ import annotations

import hashlib
import os
import re
import tarfile
from pathlib import Path
from types import ModuleType

import pytest

from support import script

ROOT = Path(__file__).resolve().parents[2]
CORPUS = ROOT / "fuzz/corpus"
TARGETS = sorted(path.stem for path in (ROOT / "fuzz").glob("fuzz_*.cpp"))


@pytest.fixture(scope="module")
def fuzz() -> ModuleType:
    return script("fuzz")


def test_each_target_has_both_and_nothing_else_is_there() -> None:
    assert sorted(path.name for path in CORPUS.iterdir()) == sorted(
        [*TARGETS, *(f"{target}.tar.xz" for target in TARGETS)])


@pytest.mark.parametrize("target", TARGETS)
def test_files_have_names_and_the_archive_has_the_fuzzer_s(target: str) -> None:
    names = [path.name for path in (CORPUS / target).iterdir()]
    assert names and all(re.fullmatch(r"[a-z0-9_]+", name) and len(name) < 40 for name in names)
    with tarfile.open(CORPUS / f"{target}.tar.xz") as archive:
        members = {member.name: archive.extractfile(member).read() for member in archive}
    assert members
    for name, content in members.items():
        assert hashlib.sha1(content).hexdigest() == name


def test_packing_again_gives_the_same_bytes(tmp_path: Path, fuzz: ModuleType) -> None:
    names = [hashlib.sha1(bytes([number])).hexdigest() for number in range(3)]
    for folder, order in (("first", names), ("second", reversed(names))):
        (tmp_path / folder).mkdir()
        for name in order:
            (tmp_path / folder / name).write_text(f"input {name}")
    os.utime(tmp_path / "second" / names[0], (1, 1))
    (tmp_path / "second" / "named").write_text("is packed by nobody")
    assert fuzz.pack(tmp_path / "first", tmp_path / "first.tar.xz") == 3
    assert fuzz.pack(tmp_path / "second", tmp_path / "second.tar.xz") == 3
    assert (tmp_path / "first.tar.xz").read_bytes() == (tmp_path / "second.tar.xz").read_bytes()
    fuzz.unpack(tmp_path / "first.tar.xz", tmp_path / "unpacked")
    assert {path.name: path.read_text() for path in (tmp_path / "unpacked").iterdir()} == {
        name: f"input {name}" for name in names}


def test_a_member_that_is_no_input_is_refused(tmp_path: Path, fuzz: ModuleType) -> None:
    with tarfile.open(tmp_path / "bad.tar.xz", "w:xz") as archive:
        archive.addfile(tarfile.TarInfo("../elsewhere"))
    with pytest.raises(SystemExit, match="no input"):
        fuzz.unpack(tmp_path / "bad.tar.xz", tmp_path / "unpacked")
