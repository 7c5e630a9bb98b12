"""What a metadata record costs on its way through the receive task."""

from __future__ import annotations

import json
import os
import shlex
import statistics
import subprocess
import tempfile
from pathlib import Path

from benchmarks import measuring
from benchmarks.comparison.results import Row, Series
from simulator import build_folder

GROUP = "A metadata record"
KILOBYTES = (1, 10, 100)
ROUNDS = 5
# Records of a count, and of a round of timing, that come to about the same work for each size.
COUNTED_KILOBYTES = 400
TIMED_KILOBYTES = 3_000
FUNCTIONS = {"task": "IPCService::ProtocalProcess::Public_MetaDataRecvTask::runTask*", "parser": "parserAlone*"}


def rows() -> tuple[list[Row], list[Series]]:
    found, points = [], []
    with tempfile.TemporaryDirectory(prefix="benchmark") as folder:
        for size in KILOBYTES:
            record = written(folder, size)
            row, time = _instructions(record, size), _time(record, size)
            points.append((float(size), row.parts["service, thousand"]))
            found += [row, time]
    return found, [Series(GROUP, "A record through the receive task", "KB a record", "thousand instructions", points)]


def timed() -> list[Row]:
    """The rows that depend on how fast the machine is, alone."""
    with tempfile.TemporaryDirectory(prefix="benchmark") as folder:
        return [_time(written(folder, size), size) for size in KILOBYTES]


def written(folder: str, size: int) -> Path:
    record = Path(folder) / "record"
    record.write_text(_record(size * 1000))
    return record


def _time(record: Path, size: int) -> Row:
    rates = _rates(record, size)
    ratio = rates["parser alone, records a second"] / rates["service, records a second"]
    return Row(GROUP, f"{size} KB: time", "parser alone", ratio, tolerance=0.5, parts=rates, timed=True)


def _record(size: int) -> str:
    """A record as a camera makes them: targets with their boxes and attributes, until it is large enough."""
    document: dict[str, object] = {"Timestamp": 1_715_930_000_123, "ChannelId": 1, "FrameNumber": 421_337}
    targets: list[dict[str, object]] = []
    document["Targets"] = targets
    while len(json.dumps(document)) < size:
        number = len(targets)
        targets.append({"TargetId": number, "Type": "face",
                        "Box": {"x": 0.125 + number / 1e4, "y": 0.25, "w": 64, "h": 80},
                        "Similarity": 0.875, "Attributes": [1, 2, number], "Name": f"Person {number}", "Masked": False})
    return json.dumps(document)


def _run(before: list[str], how: str, record: Path, count: int) -> int:
    """Runs the program; returns the nanoseconds that it took."""
    command = [*before, str(measuring.subject("metadata_records")), how, str(record.parent), str(record), str(count)]
    environment = {"PATH": os.environ["PATH"], "LD_PRELOAD": str(build_folder() / "lib" / "libcamera_devices.so")}
    return int(subprocess.run(command, env=environment, capture_output=True, text=True, check=True,
                              timeout=measuring.PATIENCE).stdout)


def _counted(how: str, record: Path, count: int) -> float:
    output = record.parent / "counts"
    _run(shlex.split(measuring.callgrind(FUNCTIONS[how], output)), how, record, count)
    return measuring.total(output.read_text()) / count


def _instructions(record: Path, size: int) -> Row:
    count = COUNTED_KILOBYTES // size
    ours, theirs = (_counted(how, record, count) for how in ("task", "parser"))
    return Row(GROUP, f"{size} KB: instructions", "parser alone", ours / theirs, aim=1.1,
               parts={"service, thousand": ours / 1000, "parser alone, thousand": theirs / 1000})


def _rates(record: Path, size: int) -> dict[str, float]:
    """Records a second; the two take turns."""
    count = TIMED_KILOBYTES // size
    rounds = [(_run([], "task", record, count), _run([], "parser", record, count)) for _ in range(ROUNDS)]
    ours, theirs = (statistics.median(times) / count for times in zip(*rounds))
    return {"service, records a second": 1e9 / ours, "parser alone, records a second": 1e9 / theirs}
