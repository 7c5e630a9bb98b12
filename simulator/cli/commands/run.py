"""camsim run: plays scenarios."""

from __future__ import annotations

import argparse
from contextlib import nullcontext

from simulator.camera import Camera
from simulator.cli import options
from simulator.cli.command_line import (DONE, FAILED, STOPPED, WRONG_ARGUMENTS, CodedError, Stopped, completing,
                                        print_json, stoppable)
from simulator.cli.scenarios import shipped
from simulator.cli.scenarios.play import Player
from simulator.cli.scenarios.scenario import Scenario, load
from simulator.errors import CameraError
from simulator.trace.display import Display
from simulator.trace.terminal.output import say

HELP = "play scenario files and say whether each came out as expected"
DESCRIPTION = """\
Plays each scenario on a camera of its own and compares the outcome with what the file expects. Exit code 0
when all came out as expected, 1 when not, 2 for a faulty file. The format is in simulator/README.md.
Many scenarios come with camsim: --list names them."""
EXAMPLES = (
    "camsim run --list",
    "camsim run itgt-late",
    "camsim run --watch --record late.run itgt-late",
    "camsim run my-scenario.json other-scenario.json")


def add_arguments(parser: argparse.ArgumentParser) -> None:
    completing(parser.add_argument("scenarios", nargs="*", metavar="SCENARIO",
                                   help="scenario files, or names of scenarios that come with camsim"),
               *shipped.names(), files=True)
    parser.add_argument("--list", action="store_true", help="name the scenarios that come with camsim, and end")
    parser.add_argument("--watch", action="store_true", help="show what happens meanwhile, as camsim watch does")
    parser.add_argument("--verbose", action="store_true", help="with --watch: with all details; else: every comparison")
    options.add_service(parser)
    options.add_machine(parser)
    options.add_record(parser)
    options.add_json(parser, "print JSON: a line for each scenario, with every comparison")


def run(arguments: argparse.Namespace) -> int:
    if arguments.list:
        return _list(arguments)
    if not arguments.scenarios:
        raise CodedError("name a scenario to play; `camsim run --list` names those that come with camsim",
                         WRONG_ARGUMENTS)
    try:
        scenarios = [load(shipped.file_of(word)) for word in arguments.scenarios]
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
        say(f"{sum(results)} of {len(results)} scenarios came out as expected")
    return DONE if all(results) else FAILED


def _list(arguments: argparse.Namespace) -> int:
    for name in shipped.names():
        scenario = load(shipped.file_of(name))
        if arguments.json:
            print_json({"scenario": name, "about": scenario.about})
        else:
            print(f"{name:<36}{scenario.about}")
    return DONE


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
    say(f"{'as expected' if good else 'NOT AS EXPECTED'}: {scenario.name}: {scenario.about}")
    for check in player.checks:
        if not check.ok or arguments.verbose:
            say(f"    {'ok' if check.ok else '!!'}  {check.what}: {check.seen!r}"
                  + ("" if check.ok else f", expected {check.expected!r}"))
    return good
