"""camsim platform: the simulated platform alone, for a real camera."""

from __future__ import annotations

import argparse
import socket
import threading
from contextlib import nullcontext
from types import SimpleNamespace

from simulator.cli import options
from simulator.cli.command_line import DONE, WRONG_ARGUMENTS, CodedError, Stopped, print_json, stoppable
from simulator.cli.control import Control, print_events
from simulator.cli.running import platform_handlers
from simulator.errors import CameraError
from simulator.faults.switches import FaultSwitches
from simulator.journal import Journal
from simulator.peers.platform import Platform
from simulator.trace.display import Display
from simulator.trace.recording import Recorder

HELP = "run the simulated platform alone, for a real camera"
DESCRIPTION = """\
Serves pages of face pictures over HTTPS and takes reports, as the platform does, for a camera somewhere on
the network; shows what it sees until Ctrl-C. Give the camera the printed addresses in a whiteListDown."""
EXAMPLES = (
    "camsim platform --address 0.0.0.0 --port 8443",
    "camsim platform --pictures ~/faces",
    "camsim platform --fault platform.certificate=expired",
    "camsim fault --name platform platform.status on code=503")


def add_arguments(parser: argparse.ArgumentParser) -> None:
    parser.add_argument("--address", default="127.0.0.1",
                        help="where to listen; 0.0.0.0 for the whole network (127.0.0.1)")
    parser.add_argument("--port", type=int, default=Platform.port, metavar="N",
                        help=f"the port; 0 for any free one ({Platform.port})")
    parser.add_argument("--name", default="platform",
                        help="its name for camsim fault and camsim watch (platform)")
    options.add_pictures(parser)
    options.add_faults(parser)
    options.add_record(parser)
    parser.add_argument("--verbose", action="store_true", help="show every request and response in full")
    options.add_json(parser)


def run(arguments: argparse.Namespace) -> int:
    options.check_record(arguments)
    journal = Journal()
    platform = Platform(journal)
    options.apply_settings(SimpleNamespace(platform=platform), arguments)
    switches = FaultSwitches(journal, {"platform": platform})
    show = Display(arguments.verbose)
    with stoppable():
        listener = _listen(arguments.address, arguments.port)
        platform.port = listener.getsockname()[1]
        recorder = (Recorder(journal, arguments.record, bodies=not arguments.no_bodies) if arguments.record
                    else nullcontext())
        handlers = platform_handlers(arguments.name, _base(platform, arguments) + platform.task_path, switches)
        control = Control(arguments.name, journal, handlers)
        try:
            with listener, show, control, recorder:
                options.switch_on(switches, arguments)
                _greet(platform, show, arguments)
                (print_events if arguments.json else show.follow)(journal)
                platform.start([listener])
                threading.Event().wait()  # pause: a signal ends it
        except Stopped:
            platform.stop()
        return DONE


def _listen(address: str, port: int) -> socket.socket:
    if not 0 <= port <= 65535:
        raise CodedError(f"--port is 0 to 65535, not {port}", WRONG_ARGUMENTS)
    try:
        family = socket.AF_INET6 if ":" in address else socket.AF_INET
        return socket.create_server((address, port), family=family, backlog=1024)
    except OSError as error:
        raise CameraError(f"cannot listen on {address} port {port}: {error}; "
                          "choose with --address and --port") from error


def _base(platform: Platform, arguments: argparse.Namespace) -> str:
    """What the platform's addresses begin with, for others."""
    host = socket.gethostname() if arguments.address in ("0.0.0.0", "::") else arguments.address
    return f"https://{f'[{host}]' if ':' in host else host}:{platform.port}"


def _greet(platform: Platform, show: Display, arguments: argparse.Namespace) -> None:
    base = _base(platform, arguments)
    faces = len(platform.pictures) or 75
    document = {"taskURL": base + platform.task_path, "taskResultURL": base + platform.result_path, "totalNum": faces}
    if arguments.json:
        print_json({"up": True, "name": arguments.name, "port": platform.port, **document})
        return
    show.console.print("The platform is up; Ctrl-C ends it. What a camera's whiteListDown needs:")
    for name, value in document.items():
        show.console.print(f"  {name}: {value}")
    if not platform.pictures:
        show.console.print("  (as many faces as you like: they are generated; --pictures FOLDER serves your own)")
