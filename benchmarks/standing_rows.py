"""What the service costs by being there: its start, its idleness, its file; and the micro-benchmarks."""

from __future__ import annotations

import json
import shlex
import statistics
import subprocess
import tempfile
from pathlib import Path

from benchmarks import footprint, measuring
from benchmarks.measuring import SERVICE
from benchmarks.comparison.results import Row, Series

GROUP = "Standing by"
MICRO_GROUP = "Pieces of work"
SMALLEST = "smallest_server"
STARTS = 25
COUNTED_STARTS = 3
AGAINST = "smallest POCO server"
LARGER = "A larger program is relocated, and it makes the event queue's connection and its sockets first."
STAND_INS = ("The stand-ins of the ring buffer, which reserves 4 MB at once, and of the account switch take the rest; "
             "on the camera both are the vendor's.")


def rows() -> tuple[list[Row], list[Series]]:
    return [*_idle(), *timed(), _counted_start(), *_sizes(), *_micro()], []


def _idle() -> list[Row]:
    ours, theirs = (footprint.idle(measuring.program(name)) for name in (SERVICE, SMALLEST))
    memory = {"service, KiB": ours["memory when idle"], "smallest server, KiB": theirs["memory when idle"]}
    return [Row(GROUP, "wake-ups when idle", "", ours["wake-ups when idle"], "a second", aim=1.1, tolerance=0.5),
            Row(GROUP, "private memory when idle", AGAINST, memory["service, KiB"] / memory["smallest server, KiB"],
                aim=1.15, parts=memory),
            Row(GROUP, "threads when idle", "", ours["threads when idle"], "threads", tolerance=0.0),
            Row(GROUP, "descriptors when idle", "", ours["descriptors when idle"], "descriptors", tolerance=0.0)]


def timed() -> list[Row]:
    """The rows that depend on how fast the machine is, alone."""
    found = []
    for name, settings in (("start to command socket", {}),
                           ("start to command socket, empty platform", measuring.empty_platform())):
        ours, theirs = footprint.start_times(measuring.subject(SERVICE), measuring.program(SMALLEST), starts=STARTS,
                                             **settings)
        ratio = statistics.median(one / other for one, other in zip(ours, theirs))
        found.append(Row(GROUP, name, AGAINST, ratio, aim=1.15, tolerance=0.5,
                         parts={"service, ms": statistics.median(ours),
                                "smallest server, ms": statistics.median(theirs)}, timed=True,
                         reason=LARGER if settings else STAND_INS))
    return found


def _counted_start() -> Row:
    # Now and then one is told to stop before it has got far enough to end in order.
    counts = [statistics.median(measuring.instructions(f"exec {measuring.callgrind()} {measuring.program(name)}",
                                                       measuring.wait_for_commands) for _ in range(COUNTED_STARTS))
              for name in (SERVICE, SMALLEST)]
    return Row(GROUP, "start and stop: instructions", AGAINST, counts[0] / counts[1], aim=1.15,
               parts={"service, million": counts[0] / 1e6, "smallest server, million": counts[1] / 1e6})


def _sizes() -> list[Row]:
    found = []
    for architecture, folder in (("amd64", measuring.program(SERVICE).parent), ("armhf", measuring.armhf_folder())):
        if folder is None:
            continue
        ours, theirs = (next(iter(footprint.sizes(folder / name, architecture).values()))
                        for name in (SERVICE, SMALLEST))
        found.append(Row(GROUP, f"stripped binary, {architecture}", "", ours, "KiB", tolerance=0.05,
                         parts={"service, KiB": ours, "smallest server, KiB": theirs}))
    return found


def _micro() -> list[Row]:
    """Instructions of one round of each, and its time."""
    binary = measuring.program("micro_benchmarks")
    printed = subprocess.run([binary, "--benchmark_format=json"], capture_output=True, text=True, check=True).stdout
    found = []
    for one in json.loads(printed)["benchmarks"]:
        name = one["name"].partition("/")[0]
        with tempfile.NamedTemporaryFile(mode="r") as counts:
            subprocess.run([*shlex.split(measuring.callgrind(f"*{name}*", counts.name)), binary,
                            f"--benchmark_filter=^{name}/"], capture_output=True, check=True)
            instructions = measuring.total(Path(counts.name).read_text()) / one["iterations"]
        found.append(Row(MICRO_GROUP, name, "", instructions, "instructions", parts={"µs": one["cpu_time"] / 1000}))
    return found
