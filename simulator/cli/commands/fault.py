"""camsim fault: switches faults of a running camera."""

from __future__ import annotations

import argparse
import contextlib
from typing import Any

from simulator import faults
from simulator.cli import options
from simulator.cli.command_line import DONE, WRONG_ARGUMENTS, CodedError, completing, print_json
from simulator.cli.control import ask
from simulator.errors import CameraError
from simulator.trace.terminal.output import say

HELP = "list the faults of every peer, and switch them while a camera runs"
DESCRIPTION = """\
Lists what each peer can do wrong, and switches faults on and off in a running camera."""
EXAMPLES = (
    "camsim fault list",
    "camsim fault list platform",
    "camsim fault itgt silent on",
    "camsim fault platform.status on code=503 at=results times=2",
    "camsim fault itgt.silent off",
    "camsim fault all off")


def add_arguments(parser: argparse.ArgumentParser) -> None:
    completing(parser.add_argument(
        "words", nargs="+", metavar="list|FAULT",
        help='"list", "list PEER", "PEER FAULT" or "PEER.FAULT", then "on" (which may be left out) or "off", then '
             'parameters NAME=VALUE; "all off" switches every fault off'),
        "list", "all", "on", "off", *faults.FAULTS, *faults.PEERS)
    options.add_name(parser)
    options.add_json(parser, "print JSON")


def run(arguments: argparse.Namespace) -> int:
    if arguments.words[0] == "list":
        return _list(arguments)
    words = list(arguments.words)
    name = words.pop(0)
    if "." not in name and name != "all" and words:
        name = f"{name}.{words.pop(0)}"
    switch = words.pop(0) if words and "=" not in words[0] else "on"
    if switch not in ("on", "off") or (switch == "off" and words):
        raise CodedError(f"after the fault write on, with NAME=VALUE, or off; not {' '.join([switch, *words])!r}",
                         WRONG_ARGUMENTS)
    if (name, switch) == ("all", "on"):
        raise CodedError("all can only be switched off", WRONG_ARGUMENTS)
    text = f"{name}={','.join(words)}" if words else name
    try:
        if name != "all":
            faults.parse(text)
    except CameraError as error:
        raise CodedError(str(error), WRONG_ARGUMENTS) from error
    active = ask(arguments.name, {"do": f"fault_{switch}", "fault": text})["active"]
    if arguments.json:
        print_json({"active": active})
    else:
        say("switched on now: " + (", ".join(active) or "nothing"))
    return DONE


def _list(arguments: argparse.Namespace) -> int:
    peers = arguments.words[1:] or list(faults.PEERS)
    for peer in peers:
        if peer not in faults.PEERS:
            raise CodedError(f"there is no peer {peer!r}; there are {', '.join(faults.PEERS)}"
                             + faults.suggestion(peer, faults.PEERS), WRONG_ARGUMENTS)
    active: list[str] = []
    with contextlib.suppress(CameraError):  # the list is good without a camera, too
        active = ask(arguments.name, {"do": "faults"})["active"]
    chosen = [fault for fault in faults.FAULTS.values() if fault.peer in peers]
    if arguments.json:
        for fault in chosen:
            print_json(_document(fault, active))
        return DONE
    for fault in chosen:
        say(f"{'* ' if _is_on(fault, active) else '  '}{fault.name:<24}{fault.help}")
        for parameter in fault.parameters:
            choices = f", one of {', '.join(parameter.choices)}" if len(parameter.choices) > 1 else ""
            say(f"      {parameter.name}={parameter.default}: {parameter.help}{choices}")
    say("* switched on now: " + ", ".join(active) if active else "Nothing is switched on.")
    return DONE


def _is_on(fault: faults.Fault, active: list[str]) -> bool:
    return fault.name in [text.partition("=")[0] for text in active]


def _document(fault: faults.Fault, active: list[str]) -> dict[str, Any]:
    return {"fault": fault.name, "peer": fault.peer, "help": fault.help, "on": _is_on(fault, active),
            "parameters": [{"name": parameter.name, "default": parameter.default, "help": parameter.help,
                            "choices": list(parameter.choices)} for parameter in fault.parameters]}
