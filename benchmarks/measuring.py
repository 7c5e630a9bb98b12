"""Runs the service, or what it is compared with, in a simulated camera under a tool that counts."""

from __future__ import annotations

import contextlib
import os
import re
import tempfile
import time
from collections.abc import Callable, Iterator, Mapping, Sequence
from pathlib import Path
from typing import Any

from simulator import Camera, CameraError, build_folder, wire
from simulator.peers.platform import Platform

COMMAND_SOCKET = "/tmp/HK"
PAGE = wire.PAGE_SIZE
PORT = Platform.port
SERVICE = "protocol_process"
# The function whose calls are one page each, of the service and of the program on libcurl.
PAGE_OF_SERVICE = "IPCService::MetaDataGW::DownloadPictureProcess*"
PAGE_OF_LIBCURL = "libcurl_page"
# A program under callgrind is fifty times as slow.
PATIENCE = 400.0
BUSY_SECONDS = 5.0
# On some processors the C library copies and clears with one instruction, of which callgrind counts each byte.
TUNABLES = ("GLIBC_TUNABLES=glibc.cpu.x86_rep_movsb_threshold=1000000000"
            ":glibc.cpu.x86_rep_stosb_threshold=1000000000")
COUNTS = "/tmp/counts"

Work = Callable[[Camera], None]


def program(name: str) -> Path:
    path = build_folder() / "bin" / name
    if not path.exists():
        raise CameraError(f"{path} is missing; build it with: cmake --build --preset benchmarks")
    return path


def subject(name: str) -> Path:
    """A program that belongs to what is measured, of the build that $CAMGATE_SUBJECT names, else as program()."""
    folder = os.environ.get("CAMGATE_SUBJECT")
    return Path(folder) / "bin" / name if folder else program(name)


def empty_platform() -> dict[str, list[Path]]:
    """The setting of a camera whose log, account switch and ring buffer do nothing."""
    folder = build_folder() / "lib"
    return {"preload": [folder / "libcamera_devices.so", folder / "libempty_platform.so"]}


def armhf_folder() -> Path | None:
    """Where the programs for 32-bit ARM are, if they were built."""
    folder = build_folder().parent / "armhf" / "bin"
    return folder if (folder / SERVICE).exists() else None


@contextlib.contextmanager
def camera(command: str, visible: Sequence[Path] = (), **settings: Any) -> Iterator[Camera]:
    """A camera in which a shell command stands in place of the service. Its log goes to a file, not to Python.

    visible  folders of this machine that the command needs, wherever they lie
    """
    folder = build_folder()
    with tempfile.TemporaryDirectory(prefix="benchmark", dir=folder) as scripts:
        script = Path(scripts) / "service"
        # The service switches its user before the counts are written.
        script.write_text(f"#!/bin/sh\nexec 2>/tmp/log\ntouch {COUNTS}\nchmod 666 {COUNTS}\n{command}\n")
        script.chmod(0o755)
        one = Camera(service=script, libraries=[folder / "lib"], wait=False, filtered=False, **settings)
        for path in visible:
            one.sandbox.mounts += ["--ro-bind", str(path), str(path)]
        with one:
            yield one


def wait_for_commands(one: Camera) -> None:
    """Waits until the service takes commands."""
    deadline = time.monotonic() + PATIENCE
    while not one.path(COMMAND_SOCKET).exists():
        if time.monotonic() > deadline or one.service.exit_code is not None:
            raise CameraError(f"no {COMMAND_SOCKET}: {one.path('/tmp/log').read_text()[-2000:]}")
        time.sleep(0.01)  # pause: nothing tells of a new file


def download(one: Camera, pages: int) -> None:
    """Has the service download, and waits for the last report."""
    before = len(one.platform.reports)
    deadline = time.monotonic() + BUSY_SECONDS
    # The download before may still be ending.
    while (reply := one.client.command("whiteListDown", one.platform.task(pages * PAGE), PATIENCE)).status != 200:
        if time.monotonic() > deadline:
            raise CameraError(f"the download was refused: {reply.body!r}")
        time.sleep(0.01)  # pause: asked again until it is taken
    one.wait_until(lambda: len(one.platform.reports) == before + pages, PATIENCE)


def callgrind(function: str | None = None, output: str | Path = COUNTS) -> str:
    """The words that count the instructions of a program, or only those below a function."""
    collect = f"--toggle-collect='{function}'" if function else ""
    return f"env {TUNABLES} valgrind --tool=callgrind {collect} --callgrind-out-file={output}"


def instructions(command: str, work: Work, **settings: Any) -> float:
    """What callgrind, in the command, has counted in all programs when the work is done and the program has ended."""
    return total(_counts(command, work, settings))


def total(counts: str) -> float:
    """The instructions in what callgrind wrote, of all programs together."""
    return float(sum(map(int, re.findall(r"^totals: (\d+)$", counts, re.MULTILINE))))


def system_calls(command: str, work: Work, **settings: Any) -> dict[str, int]:
    """The system calls of a program by name, from its start to its end."""
    table = _counts(f"exec strace -D -f -c -U calls,name -o {COUNTS} {command}", work, settings)
    return {name: int(calls) for calls, name in re.findall(r"^ *(\d+) ([a-z]\w*)$", table, re.MULTILINE)
            if name != "total"}


def _counts(command: str, work: Work, settings: Mapping[str, Any]) -> str:
    with camera(command, **settings) as one:
        work(one)
        one.service.stop(PATIENCE)
        file = one.path(COUNTS)
        deadline = time.monotonic() + PATIENCE
        # strace writes its table after the end of the program.
        while not (file.exists() and file.stat().st_size):
            if time.monotonic() > deadline:
                raise CameraError(f"nothing was counted by: {command}\n{one.path('/tmp/log').read_text()[-2000:]}")
            time.sleep(0.05)  # pause: nothing tells of a new file
        return file.read_text()
