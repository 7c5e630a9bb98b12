"""The binaries of a build, as they lie in its folder, are hard to abuse. CAMGATE_BUILD names the build folder."""

from __future__ import annotations

import json
import re
import shlex
import subprocess
from pathlib import Path

import elf
import pytest

from simulator import build_folder

BUILD = build_folder()
PROGRAMS = ("bin/protocol_process", "bin/ringbuf_cat")
LIBRARIES = ("lib/libcamera_platform.so", "lib/libcamera_devices.so")
# Functions that fortification replaces in every call, whatever it knows of the buffers.
ALWAYS_FORTIFIED = {"printf", "fprintf", "sprintf", "snprintf", "vprintf", "vfprintf", "vsprintf", "vsnprintf",
                    "dprintf", "vdprintf", "asprintf", "vasprintf", "gets", "syslog"}


@pytest.mark.parametrize("name", PROGRAMS)
def test_a_program_may_lie_anywhere(name: str) -> None:
    assert elf.kind(BUILD / name) == "DYN"
    assert any("PIE" in value for value in elf.dynamic(BUILD / name, "FLAGS_1"))


@pytest.mark.parametrize("name", PROGRAMS + LIBRARIES)
def test_relocations_are_done_at_once_and_then_read_only(name: str) -> None:
    assert ("GNU_RELRO", "R") in elf.segments(BUILD / name)
    assert any("BIND_NOW" in value for value in elf.dynamic(BUILD / name, "FLAGS"))
    assert any("NOW" in value for value in elf.dynamic(BUILD / name, "FLAGS_1"))
    # Lazy binding would need a table of its own that stays writable.
    assert ".got.plt" not in elf.sections(BUILD / name)


@pytest.mark.parametrize("name", PROGRAMS + LIBRARIES)
def test_the_stack_holds_no_code_and_no_code_can_be_written(name: str) -> None:
    segments = elf.segments(BUILD / name)
    assert ("GNU_STACK", "RW") in segments
    assert len([flags for kind, flags in segments if kind == "LOAD" and "E" in flags]) == 1
    assert not [flags for _, flags in segments if "W" in flags and "E" in flags]
    assert not elf.dynamic(BUILD / name, "TEXTREL")


@pytest.mark.parametrize("name", PROGRAMS + LIBRARIES)
def test_an_overwritten_return_address_is_noticed(name: str) -> None:
    assert "__stack_chk_fail" in elf.imports(BUILD / name)


@pytest.mark.parametrize("name", PROGRAMS + LIBRARIES)
def test_calls_of_the_c_library_are_fortified(name: str) -> None:
    assert not elf.imports(BUILD / name) & ALWAYS_FORTIFIED


def test_the_platform_library_has_a_fortified_call() -> None:
    """Its log formats text: the call shows that fortification is not only absent for want of calls."""
    assert "__vsnprintf_chk" in elf.imports(BUILD / "lib/libcamera_platform.so")


def test_no_binary_looks_for_libraries_in_a_fixed_folder() -> None:
    for name in PROGRAMS + LIBRARIES:
        folders = elf.dynamic(BUILD / name, "RUNPATH") + elf.dynamic(BUILD / name, "RPATH")
        assert all(folder.startswith("$ORIGIN/") for folder in folders), name


# What the compiler makes of this with the options of the service's sources tells which of them take effect.
_TRIAL = """
#include <cstring>
extern "C" void use(char*);
extern "C" void fortified(const char* text) { char room[8]; std::strcpy(room, text); use(room); }
extern "C" void large_frame() { char room[100000]; use(room); }
"""


def _sources() -> dict[str, list[str]]:
    """The compile command of each source of ours that ends in a binary."""
    entries = json.loads((BUILD / "compile_commands.json").read_text())
    return {entry["file"]: shlex.split(entry["command"]) for entry in entries
            if re.search(r"/(src|platform/host)/[^/]", entry["file"])}


def _without_files(command: list[str]) -> tuple[str, ...]:
    """The compiler and its options, but for those that name the source and the object file."""
    end = command.index("-o")
    return tuple(command[:end])


def test_every_source_is_compiled_with_options_that_take_effect(tmp_path: Path) -> None:
    sources = _sources()
    assert len(sources) > 30
    (tmp_path / "trial.cpp").write_text(_TRIAL)
    own_options = ("-D", "-I")
    for options in {tuple(word for word in _without_files(command) if not word.startswith(own_options)
                          or "FORTIFY" in word) for command in sources.values()}:
        made = tmp_path / "trial.o"
        quiet = [word for word in options if not word.startswith(("-W", "-isystem"))]
        subprocess.run([*quiet, "-o", str(made), "-c", str(tmp_path / "trial.cpp")], check=True, cwd=BUILD)
        assert {"__stack_chk_fail", "__strcpy_chk"} <= elf.symbols(made), options
        _expect_probes(made)


def _expect_probes(made: Path) -> None:
    """A frame of many pages is touched page by page before it is used, so that it cannot leap over the guard page."""
    compiler = json.loads((BUILD / "compile_commands.json").read_text())[0]["command"].split()[0]
    objdump = Path(compiler).with_name("objdump") if "armhf" in compiler else "objdump"
    code = subprocess.run([str(objdump), "-d", "--no-show-raw-insn", str(made)], stdout=subprocess.PIPE, text=True,
                          check=True).stdout
    body = code.partition("<large_frame>:")[2].partition("\n\n")[0]
    before_the_call = re.split(r"\b(?:call|bl)\b", body)[0]
    probe = r"orq\s+\$0x0,|orl\s+\$0x0,|str(?:\.w)?\s+r0, \[ip"
    assert re.search(probe, before_the_call), body
    assert "4096" in before_the_call or "0x1000" in before_the_call, body
