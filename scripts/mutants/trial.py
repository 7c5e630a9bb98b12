"""One change: compiled beside the ordinary build, linked in front of it, tested."""

from __future__ import annotations

import json
import os
import re
import shlex
import shutil
import signal
import subprocess
import time
from collections.abc import Callable, Iterable
from concurrent.futures import ThreadPoolExecutor
from dataclasses import dataclass
from functools import cache
from pathlib import Path

from scripts.mutants.places import ROOT, source
from scripts.mutants.tests_of import BUILD, unit_test_files_of, unit_tests_of

# Tests that run side by side in processes of their own: they mostly wait.
TESTS_AT_ONCE = 6
# Without a change.
LONGEST_SECONDS = 120
# A test that takes longer runs in a process of its own, beside others.
JOINED_MILLISECONDS = 1000
# What a test may take: as long as without a change, so many times, and some more for a machine that was idle then.
TIMES_AS_LONG = 4
MORE_SECONDS = 10
# A mutated loop may ask for all memory of the machine.
LIMITS = ["prlimit", f"--as={8 << 30}", "--core=0"]
# Nobody looks at the debugging information.
LINKER = f"-Wl,--strip-debug -fuse-ld={'lld' if shutil.which('ld.lld') else 'bfd'}"


@dataclass
class Plan:
    """How the unit tests of a file run: most of them in one process, some each in its own; seconds of each."""

    joined: list[str]
    joined_seconds: float
    alone: dict[str, float]


def run(command: Iterable[str | Path], seconds: float, **environment: str) -> tuple[bool, str]:
    """Whether a command succeeds in time, and what it printed."""
    process = subprocess.Popen(list(command), cwd=ROOT, env={**os.environ, **environment}, stdin=subprocess.DEVNULL,
                               stdout=subprocess.PIPE, stderr=subprocess.STDOUT, start_new_session=True)
    try:
        output = process.communicate(timeout=seconds)[0]
    except subprocess.TimeoutExpired:
        os.killpg(process.pid, signal.SIGKILL)
        return False, process.communicate()[0].decode(errors="replace")
    return process.returncode == 0, output.decode(errors="replace")


@cache
def commands_of_build() -> dict[str, tuple[list[str], str]]:
    """How each file is compiled, and in which folder."""
    return {entry["file"]: (shlex.split(entry["command"]), entry["directory"])
            for entry in json.loads((BUILD / "compile_commands.json").read_text())}


@cache
def link_command_of_build(program: str) -> str:
    commands = subprocess.run(["ninja", "-C", BUILD, "-t", "commands", f"bin/{program}"], capture_output=True,
                              text=True, check=True).stdout.splitlines()
    return next(line for line in reversed(commands) if f"-o bin/{program}" in line)


def link_command(program: str, output: Path, ours: Path, tests: Iterable[Path] = ()) -> str:
    """The build's own command, with our object before the library that holds the unchanged one, and of tests these."""
    objects = {f"{file.name}.o" for file in tests}
    command = " ".join(word for word in link_command_of_build(program).split(" ")
                       if not word.endswith("_test.cpp.o") or Path(word).name in objects)
    return command.replace(f"-o bin/{program} ", f"{LINKER} -o {shlex.quote(str(output))} {shlex.quote(str(ours))} ")


def compile_command(path: str, source: Path, output: Path) -> tuple[list[str], str]:
    if str(ROOT / path) not in commands_of_build():
        raise SystemExit(f"mutate: {path} is not in {BUILD}; build it with: cmake --build --preset host")
    words, folder = commands_of_build()[str(ROOT / path)]
    words = [word for word in words if word not in ("-O2", "-g", "-Werror")]
    words = words[:words.index("-o")] + ["-O0", "-w", "-U_FORTIFY_SOURCE"]
    # The name that assertions give, as in the ordinary build.
    words.append(f"-fmacro-prefix-map={source}={path.removeprefix('src/')}")
    return [*words, "-o", str(output), "-c", str(source)], folder


def leading_includes(text: str) -> str:
    """The lines of a source before its first line of code."""
    lines = text.splitlines()
    code = next((number for number, line in enumerate(lines) if line and not line.startswith(("#include", "//"))), 0)
    return "\n".join(lines[:code]) + "\n"


def compile_headers(path: str, folder: Path) -> Path:
    """The headers of a file, compiled once for all changes of it."""
    header = folder / "headers.h"
    header.write_text(leading_includes(source(path)))
    command, directory = compile_command(path, header, folder / "headers.h.gch")
    subprocess.run([*command[:-2], "-x", "c++-header", str(header)], cwd=directory, check=True, capture_output=True)
    return header


class Trial:
    """One text for a file, compiled and tested in a folder of its own."""

    def __init__(self, path: str, text: str, folder: Path) -> None:
        self.path = path
        self._folder = folder
        self._object = folder / "changed.o"
        (folder / "bin").mkdir(parents=True, exist_ok=True)
        (folder / "changed.cpp").write_text(text)

    def compiles(self, headers: Path) -> bool:
        command, folder = compile_command(self.path, self._folder / "changed.cpp", self._object)
        command += ["-include", str(headers)]
        return subprocess.run(command, cwd=folder, capture_output=True, check=False).returncode == 0

    def _link(self, program: str, tests: Iterable[Path] = (),
              change: Callable[[str], str] = lambda command: command) -> None:
        command = change(link_command(program, self._folder / "bin" / program, self._object, tests))
        subprocess.run(command, shell=True, cwd=BUILD, check=True, capture_output=True)

    def link_unit_tests(self) -> None:
        if not unit_tests_of(self.path):
            raise SystemExit(f"mutate: {self.path} has no unit tests")
        self._link("unit_tests", unit_test_files_of(self.path))

    def plan(self) -> tuple[Plan, list[str]]:
        """How the tests of the unchanged file run, and which of them fail."""
        joined, seconds, apart = unit_tests_of(self.path), 0.0, []
        while joined:
            begin = time.monotonic()
            passes, output = self._run_tests(joined, LONGEST_SECONDS)
            seconds = time.monotonic() - begin
            begun = set(re.findall(r"^\[ RUN      \] (\S+)$", output, re.M))
            short = {name for name, milliseconds in re.findall(r"^\[       OK \] (\S+).* \((\d+) ms\)$", output, re.M)
                     if int(milliseconds) < JOINED_MILLISECONDS}
            if passes and begun <= short:
                break
            apart += sorted(begun - short) or joined
            joined = [name for name in joined if name not in apart]
        alone: dict[str, float] = {}
        failing = []

        def look(name: str) -> None:
            begin = time.monotonic()
            if self._fails([name], LONGEST_SECONDS):
                failing.append(name)
            alone[name] = time.monotonic() - begin
        with ThreadPoolExecutor(TESTS_AT_ONCE) as pool:
            list(pool.map(look, apart))
        return Plan(joined, seconds, dict(sorted(alone.items(), key=lambda item: item[1]))), failing

    def failing_unit_test(self, plan: Plan, first: str = "") -> str | None:
        """A unit test of the file that fails, twice to rule out load; None if all pass. Begins with `first`."""
        if first in plan.alone or first in plan.joined:
            seconds = plan.alone.get(first, JOINED_MILLISECONDS / 1000)
            if self._fails([first], seconds) and self._fails([first], seconds):
                return first
        joined = list(plan.joined)
        while joined:
            name = self._fails(joined, plan.joined_seconds)
            if not name:
                break
            if self._fails([name], JOINED_MILLISECONDS / 1000):
                return name
            joined.remove(name)
        # Those that did not fail together, too: what one leaves may hide from the next what it looks for.
        failed: list[str] = []

        def look(name: str, seconds: float) -> None:
            if not failed and self._fails([name], seconds) and self._fails([name], seconds):
                failed.append(name)
        tests = dict.fromkeys(plan.joined, JOINED_MILLISECONDS / 1000) | plan.alone
        with ThreadPoolExecutor(TESTS_AT_ONCE) as pool:
            list(pool.map(look, tests.keys(), tests.values()))
        return failed[0] if failed else None

    def _run_tests(self, names: list[str], seconds: float, *options: str) -> tuple[bool, str]:
        return run([ROOT / "scripts/private-run", ROOT, "--", *LIMITS, self._folder / "bin/unit_tests",
                    "--gtest_filter=" + ":".join(names), *options], seconds)

    def _fails(self, names: list[str], seconds: float) -> str | None:
        """The first of these that fails or does not end, None if all pass; they take `seconds` without a change."""
        passes, output = self._run_tests(names, TIMES_AS_LONG * seconds + MORE_SECONDS, "--gtest_fail_fast")
        if passes:
            return None
        failed = re.findall(r"^\[  FAILED  \] ([\w./]+)", output, re.M)
        return (failed[:1] or re.findall(r"^\[ RUN      \] (\S+)$", output, re.M)[-1:] or names[:1])[0]

    def failing_system_test(self, tests: list[str], seconds: float) -> str | None:
        """The first of these that fails, twice to rule out load; None if all pass."""
        if not tests:
            return None  # without a name pytest would take all tests that there are
        # Copies: the sandbox of the system tests shows the service this folder alone.
        shutil.copytree(BUILD / "lib", self._folder / "lib", ignore=shutil.ignore_patterns("*.a"), dirs_exist_ok=True)
        shutil.copy(BUILD / "bin/ringbuf_cat", self._folder / "bin")
        if Path(self.path).name == "main.cpp":
            # The entry point is in no library: our object takes its place.
            self._link("protocol_process", change=lambda command: re.sub(r" \S*/Public/main\.cpp\.o", "", command))
        else:
            self._link("protocol_process")
        name = self._failing(tests, seconds)
        return name and self._failing([f"tests/system/{name}"] if "::" in name else tests, seconds)

    def _failing(self, tests: list[str], seconds: float) -> str | None:
        processes = str(min(8, 2 * len(tests)))
        passes, output = run([*LIMITS, "/usr/bin/python3", "-m", "pytest", "-x", "-q", "-n", processes,
                              "-p", "no:cacheprovider", *tests], seconds, CAMGATE_BUILD=str(self._folder))
        names = re.findall(r"^(?:FAILED|ERROR) \S*?(test_\w+\.py::\S+)", output, re.M)
        return None if passes else (names or ["the system tests take too long"])[0]
