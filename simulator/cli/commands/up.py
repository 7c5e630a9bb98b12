"""camsim up: a whole camera until it is stopped."""

from __future__ import annotations

import argparse
import os
from contextlib import AbstractContextManager, nullcontext

from simulator.camera import Camera, build_folder
from simulator.cli import options
from simulator.cli.command_line import DONE, FAILED, STOPPED, Stopped, print_json, stoppable
from simulator.cli.control import Control, print_events
from simulator.cli.running import RunningCamera
from simulator.cli.scenarios.play import switches_of
from simulator.errors import CameraError
from simulator.peers.own_client import OwnClient
from simulator.trace.display import Display
from simulator.web.server import PageServer

HELP = "run a whole camera until Ctrl-C: the service and everything around it"
DESCRIPTION = """\
Runs the unchanged service in a sandbox of its own, with every process around it simulated, until Ctrl-C or
SIGTERM, and shows what passes between them. In another terminal, use camsim send, watch and fault meanwhile."""
EXAMPLES = (
    "camsim up",
    "camsim up --name gate --quiet --record gate.run",
    "camsim up --fault platform.status=503 --fault itgt.late=3",
    "camsim up --pictures ~/faces",
    "camsim up --web",
    "camsim up --machine",
    "camsim up --platform https://localhost:9443/platform/whiteList")


def add_arguments(parser: argparse.ArgumentParser) -> None:
    options.add_name(parser)
    options.add_service(parser)
    options.add_machine(parser)
    options.add_platform(parser)
    options.add_transparent(parser)
    options.add_pictures(parser)
    options.add_itgt(parser)
    options.add_faults(parser)
    options.add_record(parser)
    parser.add_argument("--web", type=_port, nargs="?", const=0, metavar="PORT",
                        help="also serve the page of the run to browsers of this machine while it goes on (a free one)")
    parser.add_argument("--quiet", action="store_true", help="show only when it is up and when it has ended")
    parser.add_argument("--verbose", action="store_true",
                        help="also show the service's log and every message in full, decoded")
    options.add_json(parser, "print JSON: a line for the camera when it is up, then one for everything that happens")


def _port(text: str) -> int:
    if not text.isdecimal() or int(text) > _LAST_PORT:
        raise argparse.ArgumentTypeError(f"{text!r} is not a port, 0 to {_LAST_PORT}")
    return int(text)


def run(arguments: argparse.Namespace) -> int:
    with stoppable():
        camera = options.make_camera(arguments)
        switches = switches_of(camera)
        running = RunningCamera(arguments.name, camera, switches)
        try:
            control = Control(arguments.name, camera.journal, running.handlers())
            web = _page_of(camera, arguments)
        except BaseException:
            camera.close()
            raise
        show = Display(arguments.verbose)
        try:
            with (web as server, show, control, camera,
                  OwnClient(camera.journal, camera.client, camera.sandbox.folder) as own):
                ready = "itgt.no-marker" not in options.switch_on(switches, arguments)
                _follow(camera, show, arguments)
                camera.start_service(wait=ready)
                own.there.wait(_SOON if ready else 0)
                running.is_up = True
                _greet(running, show, arguments, server.url if server else "")
                # In a booted camera systemd brings it up again.
                code = camera.wait_for(lambda event: not arguments.machine and event.matches("service", "ended"),
                                       _FOREVER).exit_code
                raise CameraError(f"the service ended by itself, with code {code}; its last output:\n"
                                  + "\n".join(record.text for record in camera.service.log[-10:]))
        except Stopped:
            if not running.is_up or camera.service.exit_code == 143:  # too early for it to take SIGTERM itself
                return STOPPED
            if not arguments.json:
                show.console.print(f"Camera {arguments.name} is down; the service ended with code "
                                   f"{camera.service.exit_code}.")
            return DONE if camera.service.exit_code == 0 else FAILED


# Until the service's socket is seen, which is there already.
_SOON = 5.0
# A wait takes at most what the system's clock can count.
_FOREVER = 10 * 365 * 86400.0
_LAST_PORT = 65535


def _page_of(camera: Camera, arguments: argparse.Namespace) -> AbstractContextManager[PageServer | None]:
    if arguments.web is None:
        return nullcontext()
    about = {"build": build_folder().name, "version": camera.service.version}
    return PageServer(camera.journal, camera.path, about, arguments.web)


def _follow(camera: Camera, show: Display, arguments: argparse.Namespace) -> None:
    if not arguments.quiet:
        (print_events if arguments.json else show.follow)(camera.journal)


def _greet(running: RunningCamera, show: Display, arguments: argparse.Namespace, url: str) -> None:
    status = running.status()
    if arguments.json:
        print_json({"up": True, **status, **({"web": url} if url else {})})
        return
    name = "" if arguments.name == "camera" else f" --name {arguments.name}"
    show.console.print(f"Camera {arguments.name} is up, process {os.getpid()}; Ctrl-C ends it. In another terminal:")
    show.console.print(f"  camsim send whiteListDown --wait{name}\n  camsim watch{name}\n"
                       f"  camsim fault itgt.silent on{name}\n"
                       f"The camera's /tmp lies in {status['folder']}/tmp\n"
                       f"To your own command client stands for /tmp: {status['client_folder']}")
    if url:
        show.console.print(f"In a browser of this machine: {url}")
