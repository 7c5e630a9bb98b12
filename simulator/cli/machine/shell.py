"""camsim shell: a root shell in a booted camera."""

from __future__ import annotations

import argparse
import os
import select
import socket
import sys
import termios
import tty
from pathlib import Path

from simulator.cli import options
from simulator.cli.command_line import DONE, NO_CAMERA, CodedError
from simulator.cli.control import ask

HELP = "open a root shell in a booted camera"
DESCRIPTION = """\
Connects this terminal with the serial console of a booted camera, on which a root shell reads. What is typed there
goes to the camera, Ctrl-C as well; Ctrl-] goes away from it. Without a terminal, commands come from standard input,
and the shell is left where they end."""
EXAMPLES = ("camsim shell", "camsim shell | tee console.txt")

_LEAVE = b"\x1d"
# The shell tells nobody when it has done what it was told: without a terminal a line of its own says so.
_DONE = b"camsim-shell-$((40 + 2))\n"
_DONE_SEEN = b"camsim-shell-42"


def add_arguments(parser: argparse.ArgumentParser) -> None:
    options.add_name(parser)


def run(arguments: argparse.Namespace) -> int:
    status = ask(arguments.name, {"do": "status"})
    console = Path(status.get("folder", "/nonexistent")) / "tmp/.camera/console"
    if not console.exists():
        raise CodedError(f"the camera {arguments.name!r} has no machine of its own; start one with: "
                         "camsim up --machine", NO_CAMERA)
    with socket.socket(socket.AF_UNIX) as connection:
        connection.connect(str(console))
        if sys.stdin.isatty():
            _on_terminal(connection)
        else:
            _from_pipe(connection)
    return DONE


def _on_terminal(connection: socket.socket) -> None:
    print("camsim: the camera's shell; Ctrl-] leaves it", flush=True)
    before = termios.tcgetattr(sys.stdin)
    tty.setraw(sys.stdin)
    try:
        connection.sendall(b"\n")
        while True:
            ready, _, _ = select.select([sys.stdin, connection], [], [])
            if connection in ready:
                if not (data := connection.recv(65536)):
                    return
                os.write(sys.stdout.fileno(), data)
            if sys.stdin in ready:
                typed = os.read(sys.stdin.fileno(), 4096)
                if not typed or _LEAVE in typed:
                    return
                connection.sendall(typed)
    finally:
        termios.tcsetattr(sys.stdin, termios.TCSADRAIN, before)


def _from_pipe(connection: socket.socket) -> None:
    connection.sendall(sys.stdin.buffer.read().rstrip(b"\n") + b"\necho " + _DONE)
    seen = b""
    while _DONE_SEEN not in seen:
        if not (data := connection.recv(65536)):
            return
        seen += data
        os.write(sys.stdout.fileno(), data)
