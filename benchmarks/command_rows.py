"""What a command costs, and what becomes of many at once."""

from __future__ import annotations

import statistics
from collections.abc import Iterable
from pathlib import Path

from benchmarks import measuring
from benchmarks.measuring import SERVICE
from benchmarks.comparison.results import Row, Series
from benchmarks.slow_client import SlowClient
from simulator import Camera, CameraError

GROUP = "A command"
COMMANDS = {"faceNotHitDown": '{"taskName":"faceNotHitDown","taskInfo":{"faceID":"F1","similarity":42}}',
            "a refused command": '{"taskName":"unknown","taskInfo":{}}'}
AIMS = {"faceNotHitDown": 1.3, "a refused command": 1.2}
FLOOR = ("The library's JSON, the log's three or four lines and the waits between datagrams are what is left beyond "
         "the bare loop, which parses and logs nothing.")
# What most of a command's instructions are, by the functions below which they run.
PROFILE = {"stand-in of the log": "QL_WriteLog", "reading JSON": "IPCService::JsonText::parse*",
           "writing JSON": "IPCService::JsonText::*::written*"}
ROUNDS = 15
COMMANDS_A_ROUND = 400
COUNTED_COMMANDS = 1000
BURSTS = (10, 100, 1000)


def rows() -> tuple[list[Row], list[Series]]:
    found, series = [], []
    for name, body in COMMANDS.items():
        times, plot = _round_trips(name, body, {})
        own, _ = _round_trips(f"{name}, empty platform", body, measuring.empty_platform())
        found += [*times, *own, *_counts(name, body)]
        series.append(plot)
    return [*found, *map(_burst, BURSTS)], series


def timed() -> list[Row]:
    """The rows that depend on how fast the machine is, alone."""
    return [row for name, body in COMMANDS.items()
            for ending, settings in (("", {}), (", empty platform", measuring.empty_platform()))
            for row in _round_trips(f"{name}{ending}", body, settings)[0]]


def ask(camera: Camera, body: str, count: int) -> list[float]:
    """Microseconds of each round trip of the command, sent by a program in the same sandbox."""
    printed = camera.sandbox.run([measuring.program("command_client"), str(count), body], timeout=120)
    if printed.returncode != 0:
        raise CameraError(f"command_client: {printed.stderr.decode()}")
    return [int(line) / 1000 for line in printed.stdout.split()]


def _round_trips(name: str, body: str, settings: dict[str, list[Path]]) -> tuple[list[Row], Series]:
    ours: list[list[float]] = []
    theirs: list[list[float]] = []
    with (measuring.camera(f"exec {measuring.subject(SERVICE)}", client=False, **settings) as service,
          measuring.camera(f"exec {measuring.program('datagram_loop')}", client=False) as loop):
        for camera in (service, loop):
            measuring.wait_for_commands(camera)
            ask(camera, body, COMMANDS_A_ROUND)
        for _ in range(ROUNDS):
            ours.append(ask(service, body, COMMANDS_A_ROUND))
            theirs.append(ask(loop, body, COMMANDS_A_ROUND))

    def ratio(part: float) -> float:
        return statistics.median(_quantile(one, part) / _quantile(other, part) for one, other in zip(ours, theirs))
    parts = {f"{who}, {label}": statistics.median(_quantile(one, part) for one in rounds)
             for who, rounds in (("service", ours), ("bare loop", theirs))
             for label, part in (("median, µs", 0.5), ("99th percentile, µs", 0.99))}
    parts |= {f"{who}, commands a second": 1e6 / statistics.median(map(statistics.fmean, rounds))
              for who, rounds in (("service", ours), ("bare loop", theirs))}
    merged = sorted(time for one in ours for time in one)
    points = [(100 * part, _quantile(merged, part)) for part in (0.01, 0.1, 0.25, 0.5, 0.75, 0.9, 0.95)]
    aim = AIMS[name.partition(",")[0]]
    return ([Row(GROUP, f"{name}: round trip, median", "bare C loop", ratio(0.5), aim=aim, tolerance=0.5, parts=parts,
                 timed=True, reason=FLOOR),
             Row(GROUP, f"{name}: round trip, 99th percentile", "bare C loop", ratio(0.99), tolerance=20.0,
                 parts=parts, timed=True)],
            Series(GROUP, f"Round trips of {name}", "percentile", "µs", points))


def _quantile(values: Iterable[float], part: float) -> float:
    ordered = sorted(values)
    return ordered[min(int(part * len(ordered)), len(ordered) - 1)]


def _counts(name: str, body: str) -> list[Row]:
    """Instructions and system calls of one command: those of many without those of one."""
    binary = measuring.program(SERVICE)

    def work(count: int) -> measuring.Work:
        def several(camera: Camera) -> None:
            measuring.wait_for_commands(camera)
            ask(camera, body, count)
        return several
    numbers = (1, 1 + COUNTED_COMMANDS)

    def thousand(function: str | None) -> float:
        ran = [measuring.instructions(f"exec {measuring.callgrind(function)} {binary}", work(count), client=False)
               for count in numbers]
        return (ran[1] - ran[0]) / COUNTED_COMMANDS / 1000
    called = [measuring.system_calls(str(binary), work(count), client=False) for count in numbers]
    calls = {call: (number - called[0].get(call, 0)) / COUNTED_COMMANDS for call, number in called[1].items()}
    parts = {call: number for call, number in sorted(calls.items(), key=lambda item: -item[1]) if number > 0.5}
    return [Row(GROUP, f"{name}: instructions", "", thousand(None), "thousand",
                parts={f"{part}, thousand": thousand(function) for part, function in PROFILE.items()}),
            Row(GROUP, f"{name}: system calls", "", sum(calls.values()), tolerance=0.05, parts=parts)]


def _burst(count: int) -> Row:
    """Commands of which nobody learns what became: neither answered nor in the log as not to be answered."""
    with measuring.camera(f"exec {measuring.program(SERVICE)}", client=False) as camera:
        measuring.wait_for_commands(camera)
        client = SlowClient(camera)
        client.burst(COMMANDS["faceNotHitDown"].encode(), count)
        logged = camera.path("/tmp/log").read_text().count("SendJsonMsg fail")
    # A reply whose head came and whose body met a full queue is in the log, too.
    return Row(GROUP, f"burst of {count}: lost in the service", "", count - client.bodies - logged,
               "commands", tolerance=0.0, aim=0, parts={"sent": count, "answered": client.bodies,
                                                        "logged: the client's queue is full": logged})
