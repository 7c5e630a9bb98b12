"""A camera's system under emulation, to install packages in, with the simulated processes around it."""

from __future__ import annotations

import select
import shutil
import subprocess
import tempfile
import time
from pathlib import Path

from simulator import build_folder
from simulator.journal import Journal
from simulator.peers.client import Client
from simulator.peers.events import EventPublisher

ROOT = Path(__file__).resolve().parents[2]
_SERVICE = "/usr/sbin/protocol_process"
# Played here, as the firmware of a camera has them: the account that the service switches to, a system log,
# and an init that has brought the camera up.
_ACCOUNT = "sshd:x:74:74::/run/sshd:/usr/sbin/nologin\n"
_DEVICES = "/usr/lib/libfirmware_devices.so"
_PROGRAMS = {"usr/bin/logger": "exec cat >>/var/log/camgate.log", "sbin/init": ":",
             "sbin/runlevel": "echo N 2"}


class InstalledCamera:
    """A copy of the small Debian 11 system for 32-bit ARM in which commands run as its root user.

    root  the folder that is "/" there
    """

    def __init__(self) -> None:
        # Directly below /tmp: paths of unix sockets are short.
        self.root = Path(tempfile.mkdtemp(prefix="cam", dir="/tmp"))
        self._packages = self.root / "packages"
        journal = Journal()
        self.client = Client(journal, self.root)
        self._events = EventPublisher(journal, self.root / "tmp/.camera/event", self.root / "tmp/.camera/cache")
        self._shell: subprocess.Popen[str] | None = None

    def __enter__(self) -> InstalledCamera:
        answer = subprocess.run([str(ROOT / "scripts/camera-root"), "--path"], stdout=subprocess.PIPE, text=True,
                                check=True).stdout
        made = Path(answer.strip()) / "root"
        assert made.is_dir(), f"{made} is missing; scripts/camera-root makes it"
        subprocess.run(["cp", "-a", f"{made}/.", str(self.root)], check=True)
        self._play_firmware()
        # A shell that reads commands: what they start lives on until the end of the sandbox.
        self._shell = subprocess.Popen([str(ROOT / "scripts/camera-run"), str(self.root), "--", "sh"], text=True,
                                       stdin=subprocess.PIPE, stdout=subprocess.PIPE, bufsize=1)
        # Every process there gets the library of the device nodes; the nodes' other ends are in this one.
        self.run("true")
        self._shell.stdin.write(f"export LD_PRELOAD={_DEVICES}\n")
        return self

    def __exit__(self, *_: object) -> None:
        if self._shell is not None:
            self._shell.kill()
            self._shell.communicate()
        self.client.stop()
        self._events.stop()
        shutil.rmtree(self.root, ignore_errors=True)

    def run(self, command: str, expected: int = 0, timeout: float = 120.0) -> str:
        """What the command writes to standard output and standard error; it must end with the expected exit code."""
        assert self._shell is not None and self._shell.stdin is not None and self._shell.stdout is not None
        self._shell.stdin.write(f"({command}) >/run/output 2>&1 </dev/null; echo $?\n")
        ready, _, _ = select.select([self._shell.stdout], [], [], timeout)
        output = self.root / "run/output"
        assert ready, f"{command}: no end within {timeout} s\n{output.read_text()}"
        code = self._shell.stdout.readline().strip()
        assert code == str(expected), f"{command}: exit code {code}\n{output.read_text()}{self.log()}"
        return output.read_text()

    def dpkg(self, action: str, *packages: Path) -> str:
        """Runs the camera's own dpkg on packages of this machine; returns what it says."""
        self._packages.mkdir(exist_ok=True)
        for package in packages:
            shutil.copy(package, self._packages)
        output = self.run(f"dpkg {action} {' '.join(f'/packages/{package.name}' for package in packages)}")
        shutil.rmtree(self._packages)
        return output

    def processes(self) -> list[int]:
        """The process ids, there, of all that run the service's binary."""
        listing = self.run("for one in /proc/[0-9]*; do echo $one $(tr '\\0' ' ' <$one/cmdline); done")
        lines = [line.split() for line in listing.splitlines()]
        return [int(words[0].rpartition("/")[2]) for words in lines if words[-1:] == [_SERVICE] and words[1] != "sh"]

    def wait_serving(self, timeout: float = 20.0) -> None:
        """Waits until the service takes commands."""
        deadline = time.monotonic() + timeout
        while not (self.root / "tmp/HK").exists() or "waitForTerminationRequest" not in self.log():
            assert time.monotonic() < deadline, f"the service does not take commands:\n{self.log()}"
            select.select([], [], [], 0.02)  # pause: nothing tells of a new file or line, so both are looked at again

    def log(self) -> str:
        """What the service has written to the system's log."""
        path = self.root / "var/log/camgate.log"
        return path.read_text(errors="replace") if path.exists() else ""

    def forget_log(self) -> None:
        (self.root / "var/log/camgate.log").unlink(missing_ok=True)

    def files(self) -> set[str]:
        """Every file and folder of the system but those of the kernel and of dpkg's own records."""
        ours = ("/proc", "/dev", "/sys", "/run/output", "/var/lib/dpkg", "/var/log")
        paths = {f"/{path.relative_to(self.root)}" for path in self.root.rglob("*")}
        return {path for path in paths if not path.startswith(ours)}

    def _play_firmware(self) -> None:
        with (self.root / "etc/passwd").open("a") as stream:
            stream.write(_ACCOUNT)
        for name, command in _PROGRAMS.items():
            (self.root / name).write_text(f"#!/bin/sh\n{command}\n")
            (self.root / name).chmod(0o755)
        for name in ("tmp/mmcblk0/face_basic", "tmp/.camera", "mnt/srvfs"):
            (self.root / name).mkdir(parents=True, exist_ok=True)
        (self.root / "tmp/intelligent_ok").touch()
        shutil.copy(build_folder() / "lib/libcamera_devices.so", self.root / _DEVICES[1:])
        self._events.start()
        self.client.start()
