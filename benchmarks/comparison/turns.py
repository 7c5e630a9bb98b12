"""Tells a swing of the machine from a change of the service: the committed one and the present one take turns."""

from __future__ import annotations

import os
import shutil
import statistics
import subprocess
from collections import defaultdict
from collections.abc import Callable, Iterable, Mapping, Sequence
from dataclasses import replace
from pathlib import Path

from benchmarks.comparison.results import Finding, Row
from simulator import CameraError

TURNS = 3
RESULTS = "benchmarks/results.json"
SUBJECT = "CAMGATE_SUBJECT"
_TARGETS = ("protocol_process", "metadata_records")

# Measures rows by the clock.
Timed = Callable[[], list[Row]]


def build_committed(root: Path) -> Path:
    """Builds the service of the commit whose figures are the committed ones; returns its build folder."""
    commit = _run(["git", "log", "-1", "--format=%H", "--", RESULTS], root).decode().strip()
    source = root / "build" / "committed"
    shutil.rmtree(source, ignore_errors=True)
    source.mkdir(parents=True)
    _run(["tar", "-x", "-C", str(source)], root, _run(["git", "archive", commit], root))
    _run(["cmake", "--preset", "benchmarks"], source)
    _run(["cmake", "--build", "--preset", "benchmarks", "--target", *_TARGETS], source)
    return source / "build" / "benchmarks"


def _run(command: Sequence[str], folder: Path, given: bytes | None = None) -> bytes:
    made = subprocess.run(command, cwd=folder, input=given, capture_output=True, check=False)
    if made.returncode != 0:
        raise CameraError(f"{' '.join(command)} failed:\n{(made.stdout + made.stderr).decode()[-4000:]}")
    return made.stdout


def again(findings: Sequence[Finding], parts: Iterable[Timed], committed: Path, present: Path) -> list[Finding]:
    """Which findings are still there when both builds are measured in turn, on the machine as it is now."""
    measured: dict[Path, dict[str, list[float]]] = {committed: defaultdict(list), present: defaultdict(list)}
    parts = list(parts)
    try:
        for _ in range(TURNS):
            for build, values in measured.items():
                os.environ[SUBJECT] = str(build)
                for row in (row for part in parts for row in part()):
                    values[row.key].append(row.value)
    finally:
        os.environ.pop(SUBJECT, None)
    return confirmed(findings, measured[committed], measured[present])


def confirmed(findings: Iterable[Finding], committed: Mapping[str, Sequence[float]],
              present: Mapping[str, Sequence[float]]) -> list[Finding]:
    """The findings whose median is beyond the tolerance also beside the committed build's of the same minutes."""
    found = []
    for finding in findings:
        key = finding.before.key
        if finding.now is None or not committed.get(key) or not present.get(key):
            found.append(finding)
            continue
        before, now = statistics.median(committed[key]), statistics.median(present[key])
        if now > before * (1 + finding.before.tolerance):
            found.append(Finding(replace(finding.before, value=before), replace(finding.now, value=now)))
    return found
