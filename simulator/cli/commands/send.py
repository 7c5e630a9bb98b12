"""camsim send: a command to a running camera."""

from __future__ import annotations

import argparse
import json
import re
from pathlib import Path
from typing import Any

from simulator.cli import options
from simulator.cli.command_line import WRONG_ARGUMENTS, CodedError, completing, print_json
from simulator.cli.control import ask
from simulator.cli.running import described, information
from simulator.cli.scenarios.settings import SCHEMA
from simulator.trace.terminal.output import say

HELP = "send a command, or raw bytes, to a running camera and print the reply"
DESCRIPTION = """\
Sends a command through the simulated client on /tmp/KH of a running camera, and prints the reply. The exit
code gives the status: 0 for 200, 3 for 400, 4 for 409, 5 for no reply. With --wait also the outcome of the download:
7 when a page is missing, or no picture was imported; the text says why."""
_LONGEST_WAIT = 86_400
EXAMPLES = (
    "camsim send whiteListDown --faces 75 --wait",
    "camsim send whiteListDown --set taskID=T7 --set totalNum=31",
    "camsim send whiteListClear",
    "camsim send faceNotHitDown --info '{\"FaceID\": 7}'",
    "camsim send --raw head.bin --raw '7b 7d'")


def add_arguments(parser: argparse.ArgumentParser) -> None:
    commands = SCHEMA["definitions"]["send"]["properties"]["send"]["enum"]
    completing(parser.add_argument("command", nargs="?",
                                   help=f"{', '.join(commands)}, or a command that does not exist"), *commands)
    parser.add_argument("--faces", type=int, metavar="N",
                        help="whiteListDown: faces to fetch (75, or all own pictures)")
    parser.add_argument("--info", metavar="JSON", help="the command's arguments (taskInfo) as a JSON object, or @FILE; "
                        "for whiteListDown and whiteListClear only what differs from the defaults")
    parser.add_argument("--set", action="append", default=[], metavar="NAME=VALUE",
                        help="one argument; may be repeated; VALUE is JSON, or else text")
    parser.add_argument("--raw", action="append", default=[], metavar="HEX|FILE",
                        help="in place of a command: one datagram, as hexadecimal digits or the content of a file; "
                             "a command is two, its head and its body")
    parser.add_argument("--tag", type=int, metavar="N", help="the tag of the command's head")
    parser.add_argument("--wait", action="store_true", help="whiteListDown: wait for the end of the download")
    parser.add_argument("--seconds", type=float, default=10.0, metavar="S", help="how long to wait for the reply (10)")
    options.add_name(parser)
    options.add_json(parser, "print the reply as JSON")


def run(arguments: argparse.Namespace) -> int:
    answer = ask(arguments.name, _request(arguments))
    code: int = answer.pop("code", 0)
    if arguments.json:
        print_json({**answer, "exit_code": code})
    else:
        say(described(answer))
    return code


def _request(arguments: argparse.Namespace) -> dict[str, Any]:
    if not (0 <= (arguments.tag or 0) < 2**32 and 0 <= arguments.seconds <= _LONGEST_WAIT):
        raise CodedError(f"--tag is 0 to {2**32 - 1}, and --seconds 0 to {_LONGEST_WAIT}", WRONG_ARGUMENTS)
    if bool(arguments.command) == bool(arguments.raw):
        raise CodedError("name a command, or bytes with --raw; camsim send --help shows both", WRONG_ARGUMENTS)
    if arguments.raw:
        return {"do": "raw", "datagrams": [_bytes(text).hex() for text in arguments.raw], "seconds": arguments.seconds}
    for name, wanted in (("faces", arguments.faces is not None), ("wait", arguments.wait)):
        if wanted and arguments.command != "whiteListDown":
            raise CodedError(f"--{name} is for whiteListDown", WRONG_ARGUMENTS)
    info = _information(arguments.info) if arguments.info else {}
    for text in arguments.set:
        name, equals, value = text.partition("=")
        if not equals:
            raise CodedError(f"--set takes NAME=VALUE, not {text!r}", WRONG_ARGUMENTS)
        info[name] = _value(value)
    return {"do": "send", "command": arguments.command, "faces": arguments.faces, "info": info, "tag": arguments.tag,
            "wait": arguments.wait, "seconds": arguments.seconds}


def _value(text: str) -> Any:
    try:
        return json.loads(text)
    except ValueError:
        return text


def _information(text: str) -> dict[str, Any]:
    try:
        return information(Path(text[1:]).read_text(encoding="utf-8") if text.startswith("@") else text)
    except (OSError, ValueError) as error:
        raise CodedError(f"--info takes a JSON object, or @FILE with one: {error}", WRONG_ARGUMENTS) from error


def _bytes(text: str) -> bytes:
    if Path(text).is_file():
        return Path(text).read_bytes()
    if re.fullmatch(r"(\s*[0-9A-Fa-f]{2})*\s*", text):
        return bytes.fromhex(text)
    raise CodedError(f"--raw takes hexadecimal digits, two a byte, or a file; {text!r} is neither", WRONG_ARGUMENTS)
