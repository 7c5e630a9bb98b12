"""What has come of each change, kept over runs, and the run itself."""

from __future__ import annotations

import hashlib
import json
import os
import sys
import tempfile
import threading
import time
from collections.abc import Iterable
from concurrent.futures import ThreadPoolExecutor
from pathlib import Path
from typing import Any

from scripts.mutants.places import ROOT, Mutant, source
from scripts.mutants.tests_of import all_system_tests, system_tests_of, text_of, text_of_test, unit_test_files_of
from scripts.mutants.trial import Plan, Trial, compile_headers, run

WORK = ROOT / "build" / "mutate"
RESULTS = WORK / "results.jsonl"
PLANS = WORK / "plans.json"
# Changes that are tried side by side: they mostly wait.
WORKERS = 6
BUILD_SECONDS = 1800
# The programs that are linked anew, and what they need beside themselves.
TARGETS = ("unit_tests", "protocol_process", "camera_platform", "camera_devices", "ringbuf_cat")
LONGEST_SYSTEM_SECONDS = 900

REFUSED = "refused"
SURVIVED = "survived"
LEFT = "passes the unit tests"


def digest_of(*texts: str) -> str:
    return hashlib.sha256("\0".join(texts).encode()).hexdigest()[:16]


def name_of(mutant: Mutant) -> str:
    """A name for the change and the file that it is one of."""
    return f"{digest_of(source(mutant.path))} {mutant.offset} {mutant.length} {mutant.new.strip()}"


def tests_of(mutant: Mutant, result: str) -> str:
    """A name for the tests that a result depends on: the one that noticed the change, or all that did not."""
    if result == REFUSED:
        return ""
    if result not in (LEFT, SURVIVED):
        return digest_of(text_of_test(mutant.path, result))
    system_tests = system_tests_of(mutant.path) if result == SURVIVED else []
    return digest_of(*map(text_of, [*unit_test_files_of(mutant.path), *(ROOT / name for name in system_tests)]))


class Results:
    """The results of all runs, in a file: those that still hold, and what noticed a change when it was last tried."""

    def __init__(self, path: Path = RESULTS) -> None:
        self._path = path
        self._lock = threading.Lock()
        self._entries: dict[str, dict[str, str]] = {}
        self._last: dict[str, str] = {}
        if path.exists():
            for line in path.read_text().splitlines():
                self._take(json.loads(line))

    def _take(self, entry: dict[str, str]) -> None:
        self._entries[entry["name"]] = entry
        self._last[entry["change"]] = entry["result"]

    def of(self, mutant: Mutant) -> str | None:
        entry = self._entries.get(name_of(mutant))
        return entry["result"] if entry and entry["tests"] == tests_of(mutant, entry["result"]) else None

    def last(self, mutant: Mutant) -> str:
        return self._last.get(" | ".join(mutant.change()), "")

    def add(self, mutant: Mutant, result: str) -> None:
        entry = {"name": name_of(mutant), "tests": tests_of(mutant, result), "result": result,
                 "change": " | ".join(mutant.change()), "line": str(mutant.line)}
        with self._lock:
            self._take(entry)
            with self._path.open("a") as file:
                file.write(json.dumps(entry) + "\n")
            print(f"{result[:60]:60} {mutant}", flush=True)


class Plans:
    """How the unit tests of each file run, kept over runs as long as neither is different."""

    def __init__(self, path: Path = PLANS) -> None:
        self._path = path
        self._lock = threading.Lock()
        self._plans: dict[str, list[Any]] = json.loads(path.read_text()) if path.exists() else {}

    @staticmethod
    def _name(path: str) -> str:
        return f"{path} {digest_of(source(path), *map(text_of, unit_test_files_of(path)))}"

    def of(self, path: str) -> Plan | None:
        return Plan(*self._plans[self._name(path)]) if self._name(path) in self._plans else None

    def add(self, path: str, plan: Plan) -> None:
        with self._lock:
            self._plans[self._name(path)] = list(vars(plan).values())
            self._path.write_text(json.dumps(self._plans))


class Run:
    """Tries changes side by side."""

    def __init__(self, results: Results) -> None:
        self._results = results
        self._kept_plans = Plans()
        self._locks: dict[str, threading.Lock] = {}
        self._lock = threading.Lock()
        self._plans: dict[str, tuple[Plan, Path]] = {}
        self._system_seconds = 0.0

    def try_all(self, mutants: Iterable[Mutant], listed: set[tuple[str, str, str]]) -> dict[Mutant, str]:
        """The results of these. System tests run last, for what the unit tests leave and what is not listed."""
        mutants = list(mutants)
        for mutant in mutants:
            tests_of(mutant, SURVIVED)  # reads the tests as they are now, whoever edits one meanwhile
        with tempfile.TemporaryDirectory(dir=WORK) as folder, ThreadPoolExecutor(WORKERS) as pool:
            list(pool.map(lambda mutant: self._unit_tests(mutant, Path(folder)), mutants))
            left = [mutant for mutant in mutants if self._results.of(mutant) == LEFT]
            for mutant in left:
                if mutant.change() not in listed:
                    self._system_tests(mutant, Path(folder))
        return {mutant: self._results.of(mutant) or "" for mutant in mutants}

    def _unit_tests(self, mutant: Mutant, folder: Path) -> None:
        if self._results.of(mutant) is None:
            plan, headers = self._prepared(mutant.path, folder)
            with tempfile.TemporaryDirectory(dir=folder) as place:
                trial = Trial(mutant.path, mutant.text(), Path(place))
                if not trial.compiles(headers):
                    self._results.add(mutant, REFUSED)
                elif mutant.path.endswith("/main.cpp"):  # which no unit test can try
                    self._results.add(mutant, LEFT)
                else:
                    trial.link_unit_tests()
                    self._results.add(mutant, trial.failing_unit_test(plan, self._results.last(mutant)) or LEFT)

    def _system_tests(self, mutant: Mutant, folder: Path) -> None:
        _, headers = self._prepared(mutant.path, folder)
        if not self._system_seconds:
            self._system_seconds = self._without_change(mutant.path, folder)
        with tempfile.TemporaryDirectory(dir=folder) as place:
            trial = Trial(mutant.path, mutant.text(), Path(place))
            require(None if trial.compiles(headers) else f"compiling {mutant}")
            failing = trial.failing_system_test(system_tests_of(mutant.path), self._system_seconds)
            self._results.add(mutant, failing or SURVIVED)

    def _prepared(self, path: str, folder: Path) -> tuple[Plan, Path]:
        """How the file's unit tests run, and its headers. A test that fails without a change would kill everything."""
        with self._lock:
            lock = self._locks.setdefault(path, threading.Lock())
        with lock:
            if path not in self._plans:
                place = Path(tempfile.mkdtemp(dir=folder))
                trial = Trial(path, source(path), place)
                headers = compile_headers(path, place)
                require(None if trial.compiles(headers) else f"compiling {path}")
                plan = Plan([], 0, {}) if path.endswith("/main.cpp") else self._kept_plans.of(path)
                if not plan:
                    trial.link_unit_tests()
                    plan, failing = trial.plan()
                    require(failing[0] if failing else None)
                    self._kept_plans.add(path, plan)
                self._plans[path] = plan, headers
        return self._plans[path]

    def _without_change(self, path: str, folder: Path) -> float:
        """How long the system tests of one change may take: as long as those of all topics do."""
        _, headers = self._prepared(path, folder)
        trial = Trial(path, source(path), Path(tempfile.mkdtemp(dir=folder)))
        require(None if trial.compiles(headers) else f"compiling {path}")
        begin = time.monotonic()
        require(trial.failing_system_test(all_system_tests(), LONGEST_SYSTEM_SECONDS))
        return time.monotonic() - begin


def require(failing: str | None) -> None:
    if failing is not None:
        print(f"mutate: without any change fails: {failing}\nRepair it, or wait for less load.", file=sys.stderr)
        os._exit(2)  # other threads are at work


def build() -> None:
    for command in (["cmake", "--preset", "host"], ["cmake", "--build", "--preset", "host", "--target", *TARGETS]):
        succeeds, output = run(command, BUILD_SECONDS)
        if not succeeds:
            raise SystemExit(f"mutate: the unchanged service cannot be built:\n{output}")
