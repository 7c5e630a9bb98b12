"""camsim run: plays scenarios."""

from __future__ import annotations

import argparse
from contextlib import nullcontext
from pathlib import Path

from simulator.camera import Camera
from simulator.cli import options
from simulator.cli.command_line import (DONE, FAILED, STOPPED, WRONG_ARGUMENTS, CodedError, Stopped, print_json,
                                        stoppable)
from simulator.cli.scenarios.play import Player
from simulator.cli.scenarios.scenario import Scenario, load
from simulator.errors import CameraError
from simulator.trace.display import Display

HELP = "play scenario files and say whether each came out as expected"
DESCRIPTION = """\
Plays each scenario on a camera of its own and compares the outcome with what the file expects. Exit code 0
when all came out as expected, 1 when not, 2 for a faulty file. The format is in simulator/README.md."""
EXAMPLES = (
    "camsim run tests/scenarios/itgt-late.json",
    "camsim run --watch --record late.run tests/scenarios/itgt-late.json",
    "camsim run tests/scenarios/events-*.json")


def add_arguments(parser: argparse.ArgumentParser) -> None:
    parser.add_argument("scenarios", nargs="+", type=Path, metavar="SCENARIO", help="scenario files")
    parser.add_argument("--watch", action="store_true", help="show what happens meanwhile, as camsim watch does")
    parser.add_argument("--verbose", action="store_true", help="with --watch: with all details; else: every comparison")
    options.add_service(parser)
    options.add_machine(parser)
    options.add_record(parser)
    options.add_json(parser, "print JSON: a line for each scenario, with every comparison")


def run(arguments: argparse.Namespace) -> int:
    try:
        scenarios = [load(path) for path in arguments.scenarios]
    except CameraError as error:
        raise CodedError(str(error), WRONG_ARGUMENTS) from error
    options.check_record(arguments)
    if arguments.record is not None and len(scenarios) > 1:
        raise CodedError("--record takes one scenario; a file holds one run", WRONG_ARGUMENTS)
    with stoppable():
        try:
            results = [_play(scenario, arguments) for scenario in scenarios]
        except Stopped:
            return STOPPED
    if len(results) > 1 and not arguments.json:
        print(f"{sum(results)} of {len(results)} scenarios came out as expected")
    return DONE if all(results) else FAILED


def _play(scenario: Scenario, arguments: argparse.Namespace) -> bool:
    camera = Camera(service=options.service_of(arguments), start=False, recording=arguments.record,
                    bodies=not arguments.no_bodies, machine=options.machine_of(arguments))
    try:
        player = Player(scenario, camera)
        show = Display(arguments.verbose)
        if arguments.watch:
            show.follow(camera.journal)
        with show if arguments.watch else nullcontext():
            good = player.play()
    finally:
        camera.close()
    if arguments.json:
        print_json({"scenario": scenario.name, "as_expected": good,
                    "checks": [{"what": check.what, "expected": check.expected, "seen": check.seen, "ok": check.ok}
                               for check in player.checks]})
        return good
    print(f"{'as expected' if good else 'NOT AS EXPECTED'}: {scenario.name}: {scenario.about}", flush=True)
    for check in player.checks:
        if not check.ok or arguments.verbose:
            print(f"    {'ok' if check.ok else '!!'}  {check.what}: {check.seen!r}"
                  + ("" if check.ok else f", expected {check.expected!r}"))
    return good
