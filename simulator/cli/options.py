"""Arguments that several subcommands have in common."""

from __future__ import annotations

import argparse
import functools
import os
from collections.abc import Callable, Sequence
from pathlib import Path
from typing import Any

from simulator import faults
from simulator.camera import Camera
from simulator.cli.command_line import WRONG_ARGUMENTS, CodedError, completing
from simulator.cli.scenarios.settings import SETTINGS
from simulator.device.machine.machine import Machine, machine_folder
from simulator.errors import CameraError
from simulator.faults.switches import FaultSwitches
from simulator.journal import Journal
from simulator.peers.platform import Platform
from simulator.peers.real.address import address_of
from simulator.peers.real.gateway import Gateway
from simulator.peers.real.relay import Relay
from simulator.trace.recording import LONG


def add_json(parser: argparse.ArgumentParser, text: str = "print JSON instead, one object a line") -> None:
    parser.add_argument("--json", action="store_true", help=text)


def add_name(parser: argparse.ArgumentParser) -> None:
    parser.add_argument("--name", default=os.environ.get("CAMSIM_NAME", "camera"),
                        help="which camera, if several are running (camera, or $CAMSIM_NAME)")


def add_service(parser: argparse.ArgumentParser) -> None:
    parser.add_argument("--service", type=Path, metavar="BINARY",
                        help="the service's binary (protocol_process of the build, or of $CAMGATE_BUILD)")


def service_of(arguments: argparse.Namespace) -> Path | None:
    """The binary that was named, which has to be there."""
    service: Path | None = arguments.service
    if service is not None and not service.exists():
        raise CodedError(f"{service} is missing; --service takes a built protocol_process", WRONG_ARGUMENTS)
    return service


def add_machine(parser: argparse.ArgumentParser) -> None:
    parser.add_argument("--machine", action="store_true", help="boot a whole camera instead of a sandbox: its own "
                        "kernel and systemd under emulation, and the service from its package for 32-bit ARM")


def machine_of(arguments: argparse.Namespace) -> Callable[[Sequence[str]], Machine] | None:
    """What makes the machine of a camera that is to boot; it is made itself, if it is not there."""
    if not arguments.machine:
        return None
    if arguments.service is not None:
        raise CodedError("--service is of no use with --machine, whose service is the one of its package",
                         WRONG_ARGUMENTS)
    return functools.partial(Machine, made=machine_folder())


def add_record(parser: argparse.ArgumentParser) -> None:
    parser.add_argument("--record", type=Path, metavar="FILE", help="write everything that happens into FILE, for "
                        "`camsim trace FILE`")
    parser.add_argument("--no-bodies", action="store_true", help="with --record: leave bodies and files of more than "
                        f"{LONG} bytes out, which pages with pictures are; their size and SHA-256 stay")


def check_record(arguments: argparse.Namespace) -> None:
    if arguments.no_bodies and not arguments.record:
        raise CodedError("--no-bodies is of no use without --record FILE", WRONG_ARGUMENTS)


def add_faults(parser: argparse.ArgumentParser) -> None:
    completing(parser.add_argument(
        "--fault", action="append", default=[], metavar="FAULT",
        help="a fault to start with; may be repeated: itgt.silent, platform.status=503, itgt.late=3,command=7021; "
             "`camsim fault list` names all"), *faults.FAULTS)


def add_pictures(parser: argparse.ArgumentParser) -> None:
    parser.add_argument("--pictures", metavar="FOLDER",
                        help="serve the .jpg files of FOLDER as pages, ordered by name")
    parser.add_argument("--picture-bytes", type=int, nargs=2, metavar=("MIN", "MAX"),
                        help="size of the smallest and largest generated picture (20000 200000)")


def add_itgt(parser: argparse.ArgumentParser) -> None:
    parser.add_argument("--picture-seconds", type=float, metavar="S",
                        help="time that ITGT takes to import a picture (0)")
    parser.add_argument("--time-text", metavar="TEXT", help="the time that ITGT reports (2024-05-17 08:30:00)")


def add_platform(parser: argparse.ArgumentParser) -> None:
    parser.add_argument("--platform", metavar="URL", help="use your own platform in place of the simulated one; URL is "
                        "the address of its pages, https://HOST:PORT/PATH. It is reached from this machine")
    parser.add_argument("--result-path", metavar="PATH", help="where that platform takes results (the path of URL with "
                        "Result appended)")


def add_transparent(parser: argparse.ArgumentParser) -> None:
    parser.add_argument("--transparent", action="store_true", help="pass everything to that platform byte for byte, "
                        "with TLS end to end; what passes then cannot be shown, and the platform has no faults")


def make_camera(arguments: argparse.Namespace) -> Camera:
    """A camera that is not started yet, as the arguments want it."""
    check_record(arguments)
    camera = Camera(service=service_of(arguments), start=False, platform=platform_maker(arguments),
                    recording=arguments.record, bodies=not arguments.no_bodies, machine=machine_of(arguments))
    try:
        apply_settings(camera, arguments)
    except BaseException:
        camera.close()
        raise
    return camera


def platform_maker(arguments: argparse.Namespace) -> Callable[[Journal], Any]:
    """What makes the platform of a camera: the simulated one, or the way to the one that the arguments name."""
    url, result_path = arguments.platform, arguments.result_path
    kind = Relay if arguments.transparent else Gateway
    if url is not None:
        try:
            address_of(url, result_path)
        except CameraError as error:
            raise CodedError(str(error), WRONG_ARGUMENTS) from error
        return lambda journal: kind(journal, url, result_path)
    for name in ("result_path", "transparent"):
        if getattr(arguments, name):
            raise CodedError(f"--{name.replace('_', '-')} is of no use without --platform URL", WRONG_ARGUMENTS)
    return Platform


def apply_settings(subject: Any, arguments: argparse.Namespace) -> None:
    """Sets what the arguments say about the peers. `subject` has the peers as attributes, as a Camera has."""
    for name, setting in SETTINGS.items():
        value = getattr(arguments, name, None)
        if value is None:
            continue
        try:
            setting.check(value)
            setting.apply(subject, value)
        except ValueError as error:
            raise CodedError(f"--{name.replace('_', '-')} takes {error}", WRONG_ARGUMENTS) from error
        except CameraError as error:
            raise CodedError(str(error), WRONG_ARGUMENTS) from error


def switch_on(switches: FaultSwitches, arguments: argparse.Namespace) -> list[str]:
    """Switches the faults of the command line on; returns their names."""
    try:
        orders = [faults.parse(text) for text in arguments.fault]
        for order in orders:
            switches.on(order)
    except CameraError as error:
        raise CodedError(str(error), WRONG_ARGUMENTS) from error
    return [order.fault.name for order in orders]
