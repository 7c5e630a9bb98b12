"""camsim watch: what flows between whom in a running camera."""

from __future__ import annotations

import argparse

from simulator.cli import options
from simulator.cli.command_line import DONE, Stopped, print_json, stoppable
from simulator.cli.control import asking
from simulator.trace.display import Display
from simulator.trace.explanation import LiveItem

HELP = "show live what passes between the processes of a running camera, decoded"
DESCRIPTION = """\
Shows everything that passes between the processes of a running camera, from now on, until Ctrl-C or the
end of the camera: drawn on a terminal; as plain lines elsewhere, or when TERM=dumb is set."""
EXAMPLES = ("camsim watch", "camsim watch --verbose", "camsim watch --json | grep '\"kind\": \"fault\"'")


def add_arguments(parser: argparse.ArgumentParser) -> None:
    parser.add_argument("--verbose", action="store_true",
                        help="also show the service's log and every message in full, decoded")
    options.add_name(parser)
    options.add_json(parser)


def run(arguments: argparse.Namespace) -> int:
    with stoppable():
        show = Display(arguments.verbose)
        try:
            lines = asking(arguments.name, {"do": "watch"})
            next(lines, None)  # it says that from here on nothing is missed
            if arguments.json:
                print_json({"watching": arguments.name})
                for document in lines:
                    print_json(LiveItem(**document).public())
                return DONE
            show.console.print(f"Watching camera {arguments.name}; Ctrl-C ends.")
            with show:
                show.pin()
                for document in lines:
                    show.show(LiveItem(**document))
            show.console.print(f"Camera {arguments.name} has ended.")
        except Stopped:
            pass
        return DONE
