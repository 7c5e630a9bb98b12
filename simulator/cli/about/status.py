"""camsim status: what runs on this machine, and in which state it is."""

from __future__ import annotations

import argparse
from typing import Any

from simulator.camera import build_folder
from simulator.cli import options
from simulator.cli.command_line import DONE, NO_CAMERA, CodedError, print_json
from simulator.cli.control import ask, running
from simulator.cli.outcome import in_a_line
from simulator.trace.terminal.output import say

HELP = "say which cameras run, what they download, which faults are on, which version they are"
DESCRIPTION = """\
Prints what this user has running, cameras and platforms alone: the version of the service, what its download
does, and the faults that are switched on, with those that are spent (their "times" are over)."""
EXAMPLES = ("camsim status", "camsim status --json")
_START = "  camsim up                           a whole camera, until Ctrl-C"
_NEXT = """\
  camsim send whiteListDown --wait{name}    a download of 75 faces, and what became of it
  camsim watch{name}                        what passes between its processes
  camsim fault platform.status on{name}     make a peer misbehave; `camsim fault list` says what they can do"""


def add_arguments(parser: argparse.ArgumentParser) -> None:
    options.add_json(parser, "print JSON instead, one object for each")


def run(arguments: argparse.Namespace) -> int:
    found = _found()
    if not found:
        raise CodedError("no camera is running; start one with: camsim up", NO_CAMERA)
    for status in found:
        if arguments.json:
            print_json(status)
        else:
            say(described(status))
    return DONE


def next_step() -> int:
    """What `camsim` alone says."""
    found = _found()
    if found:
        say("\n".join(map(described, found)) + "\n")
    cameras = [status["name"] for status in found if "service" in status]
    if cameras:
        name = "" if cameras[0] == "camera" else f" --name {cameras[0]}"
        say(f"Next, in another terminal than that of the camera:\n{_NEXT.format(name=name)}")
    elif (build_folder() / "bin" / "protocol_process").exists():
        say(f"No camera is running. Next:\n{_START}\nand then, in another terminal:\n{_NEXT.format(name='')}")
    else:
        say(f"The service is not built. Next:\n  ./demo      builds it, and shows what it does\nand then:\n{_START}")
    say("\n`camsim --help` lists all commands, `camsim COMMAND --help` explains one.")
    return DONE


def _found() -> list[dict[str, Any]]:
    found = []
    for name in running():
        try:
            found.append(ask(name, {"do": "status"}))
        except CodedError as error:
            if error.code != NO_CAMERA:  # it has ended meanwhile
                raise
    return found


def described(status: dict[str, Any]) -> str:
    """A camera's status for people."""
    faults = [f"{text} (spent)" if text in status["spent"] else text for text in status["faults"]]
    on = f"  faults: {', '.join(faults) or 'none'}"
    if "service" not in status:
        return f"platform {status['name']}, alone, process {status['process']}, at {status['url']}\n{on}"
    version = f"version {status['version']}" if status["version"] else "of unknown version"
    return (f"camera {status['name']}, process {status['process']}: the service, {version}, process "
            f"{status['service']}\n  download: {_download(status['download'])}\n{on}")


def _download(download: dict[str, Any]) -> str:
    state = download["state"]
    if state == "none":
        return "none so far"
    if state == "running":
        return f"page {download['page']} is on its way, {download['pictures']} pictures imported so far"
    return f"none now; the last one: {in_a_line(download)}"
