"""The examples of a document: its fenced blocks, and running them from first to last as its reader would.

What a block is, its info string says; any other is an error, so that no example goes unrun:

sh            commands, run to their end; each must succeed
sh terminal   a command for a terminal of its own: runs on until the document's end, when it gets Ctrl-C
sh checkout   commands in the top folder of the checkout, which the folder and the path of all later ones come from
sh package    the same for who has the packages installed; which of the two a reader follows, its reader is told
console       lines "$ COMMAND", each with the output that it must have below it; "..." stands for any text
c FILE, python FILE, json FILE, text FILE   a file that the copy of the examples has, which a command must name
"""

from __future__ import annotations

import ast
import contextlib
import json
import os
import random
import re
import signal
import socket
import subprocess
import threading
import time
from collections.abc import Iterator, Mapping
from dataclasses import dataclass
from pathlib import Path

from support import DEADLINE

_FENCE = re.compile(r"^```([^\n]*)\n(.*?)^```$", re.MULTILINE | re.DOTALL)
_CHECKS = {"json": json.loads, "python": ast.parse, "c": lambda text: None, "text": lambda text: None}
_STRICT_GCC = "gcc -Wall -Wextra -Werror "
# Ports of this machine that the examples for a platform use.
_SHOWN_PORTS = ("8443", "9443")
# What a program prints when others may use it.
_IS_UP = " is up"


@dataclass(frozen=True)
class Block:
    kind: str
    text: str
    file: str = ""


def blocks(document: str) -> list[Block]:
    """Every fenced block. Raises ValueError for one that could not be run."""
    if (fences := document.count("```")) != 2 * len(_FENCE.findall(document)):
        raise ValueError(f"{fences} fences that do not pair, or not at the start of a line")
    return [_block(info, text) for info, text in _FENCE.findall(document)]


def _block(info: str, text: str) -> Block:
    if info in ("sh", "sh terminal", "sh checkout", "sh package", "console"):
        return Block(info, text)
    kind, _, file = info.partition(" ")
    if kind in _CHECKS and re.fullmatch(r"[\w/-]+\.\w+", file):
        return Block(kind, text, file)
    raise ValueError(f"nobody runs a block with the info string {info!r}:\n{text}")


def transcript(text: str) -> Iterator[tuple[str, str]]:
    """The commands of a console block, each with the output shown below it."""
    if not text.startswith("$ "):
        raise ValueError(f"a console block that does not begin with a command:\n{text}")
    for part in re.split(r"^\$ ", text, flags=re.MULTILINE)[1:]:
        command, newline, output = part.partition("\n")
        while command.endswith("\\"):
            more, newline, output = output.partition("\n")
            command += "\n" + more
        yield command, output


def on_free_ports(document: str) -> str:
    """The document for a platform's engineer with ports of four digits, which count in the lengths of messages."""
    for shown, port in zip(_SHOWN_PORTS, _free_ports()):
        document = document.replace(shown, port)
    return document


def _free_ports() -> Iterator[str]:
    for port in random.sample(range(2000, 9999), 200):
        with contextlib.suppress(OSError), socket.socket() as one:
            one.bind(("127.0.0.1", port))
            yield str(port)


def matches(shown: str, seen: str) -> bool:
    """Whether output is what a document shows, where "..." stands for any text."""
    return re.fullmatch(".*".join(map(re.escape, shown.split("..."))), seen, re.DOTALL) is not None


def logged_in(home: Path) -> dict[str, str]:
    """The environment of a reader who has just logged in."""
    return {"PATH": "/usr/sbin:/usr/bin:/sbin:/bin", "HOME": str(home), "XDG_RUNTIME_DIR": str(home),
            "LC_ALL": "C.UTF-8", "NO_COLOR": "1", "COLUMNS": "200", "CAMSIM_NAME": "camera"}


class Reader:
    """Follows a document from a folder on, the checkout, with certain variables in the environment.

    settles  the kind of block that says where to work: "sh checkout" or "sh package"
    """

    def __init__(self, folder: Path, environment: Mapping[str, str], settles: str = "sh checkout") -> None:
        self._folder = folder
        self._settles = settles
        self._environment = {**os.environ, **environment}
        self._terminals: list[subprocess.Popen[str]] = []

    def follow(self, document: str) -> None:
        """Runs every block; raises AssertionError at the first that does something else than shown."""
        found = blocks(document)
        _expect_used(found)
        try:
            for block in found:
                self._run(block)
            for terminal in self._terminals:
                assert terminal.poll() is None, f"ended before the document's end: {terminal.args}"
        finally:
            for terminal in reversed(self._terminals):
                _end(terminal)

    def _run(self, block: Block) -> None:
        if block.file:
            _CHECKS[block.kind](block.text)
            path = self._folder / block.file
            assert path.is_file() and path.read_text(encoding="utf-8") == block.text, f"{path} is another"
        elif block.kind == "sh terminal":
            self._open_terminal(block.text)
        elif block.kind in ("sh checkout", "sh package"):
            if block.kind == self._settles:
                self._settle(block.text)
        elif block.kind == "sh":
            done = self._bash(f"set -euo pipefail\n{block.text}")
            assert done.returncode == 0, f"{block.text}\n{done.stdout}"
        else:
            for command, shown in transcript(block.text):
                seen = self._bash(command).stdout
                assert matches(shown, seen), f"$ {command}\n--- shown\n{shown}--- seen\n{seen}"

    def _settle(self, commands: str) -> None:
        """Runs commands that change the folder and the path, which all later ones begin with."""
        done = self._bash(f"set -euo pipefail\n{commands}\npwd\necho \"$PATH\"")
        assert done.returncode == 0, f"{commands}\n{done.stdout}"
        folder, self._environment["PATH"] = done.stdout.splitlines()[-2:]
        self._folder = Path(folder)

    def _bash(self, command: str) -> subprocess.CompletedProcess[str]:
        return subprocess.run(["bash", "-c", command], cwd=self._folder, env=self._environment, text=True,
                              stdin=subprocess.DEVNULL, stdout=subprocess.PIPE, stderr=subprocess.STDOUT,
                              timeout=DEADLINE, check=False)

    def _open_terminal(self, command: str) -> None:
        terminal = subprocess.Popen(["bash", "-c", command], cwd=self._folder, env=self._environment, text=True,
                                    stdin=subprocess.DEVNULL, stdout=subprocess.PIPE, stderr=subprocess.STDOUT,
                                    start_new_session=True)
        self._terminals.append(terminal)
        lines: list[str] = []
        up = threading.Event()

        def read() -> None:
            assert terminal.stdout is not None
            for line in terminal.stdout:
                lines.append(line)
                if _IS_UP in line:
                    up.set()
        threading.Thread(target=read, daemon=True).start()
        assert up.wait(DEADLINE), f"{command}\n{''.join(lines)}"


def _expect_used(found: list[Block]) -> None:
    commands = "\n".join(block.text for block in found if not block.file)
    for block in found:
        assert not block.file or block.file in commands, f"no command uses {block.file}"
        if block.kind == "c":
            assert re.search(rf"^\$ {_STRICT_GCC}.*{re.escape(block.file)}$", commands, re.MULTILINE), block.file


def _end(terminal: subprocess.Popen[str]) -> None:
    """Ctrl-C, as in a terminal: to every process that runs in it."""
    deadline = time.monotonic() + DEADLINE
    os.killpg(terminal.pid, signal.SIGINT)
    try:
        terminal.wait(deadline - time.monotonic())
    except subprocess.TimeoutExpired:
        os.killpg(terminal.pid, signal.SIGKILL)
        terminal.wait()
        raise
