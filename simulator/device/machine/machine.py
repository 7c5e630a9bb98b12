"""The emulated machine: qemu in the camera's sandbox, its disks, and the way to it."""

from __future__ import annotations

import contextlib
import json
import shlex
import shutil
import socket
import subprocess
import sys
import time
from collections.abc import Callable, Sequence
from pathlib import Path
from typing import Any

from simulator.device.machine.bridge import Bridge
from simulator.device.machine.channel import Ended, connected
from simulator.device.sandbox import Sandbox
from simulator.device.service import Service
from simulator.errors import CameraError
from simulator.journal import Journal

# Where the guest sees this side of its network.
HOST = "10.0.2.2"
MEGABYTES = 128
# Seconds for a boot and for going on from the kept memory, on a machine that has other things to do, too.
BOOT_SECONDS = 600.0
_SCRIPT = Path(__file__).parents[3] / "scripts" / "machine"
# Below them the memory of the kernel itself must be made smaller, or it does not start.
_SMALL = 96
_SMALLER_KERNEL = " cma=0"


def build_folder() -> Path:
    """The folder of the build that the machine's packages are made of."""
    return _SCRIPT.parents[1] / "build" / "armhf"


def machine_folder() -> Path:
    """The folder with what scripts/machine made, which makes it anew where the packages have changed."""
    if not _SCRIPT.exists():
        raise CameraError("a booted camera needs a checkout of camgate; this is an installed simulator")
    if shutil.which("qemu-system-arm") is None:
        raise CameraError("qemu-system-arm is missing; scripts/bootstrap --machine installs it and makes the machine")
    if subprocess.run([str(_SCRIPT)], stdout=sys.stderr, check=False).returncode != 0:
        raise CameraError("the machine could not be made (above)")
    return build_folder() / "machine"


class Machine(Sandbox):
    """A sandbox in which a whole camera is emulated. Outside it looks like the other one.

    made        the folder with the disks, from scripts/machine
    megabytes   of memory; with others than MEGABYTES it boots, which takes a while, and does not go on from the state
    boots       whether it boots in any case
    card, disk  files in place of the made ones, as the emulator sees and names them; what is written to them stays
    """

    def __init__(self, hosts: Sequence[str] = (), *, made: Path, megabytes: int = MEGABYTES,
                 boots: bool = False, card: str | None = None, disk: str | None = None) -> None:
        super().__init__()
        self._names = " ".join(name for name in hosts if name != HOST)
        self._made = made
        self._megabytes = megabytes
        self.boots = boots or megabytes != MEGABYTES
        # Of the kept memory is the disk as it was then.
        kept = made / ("disk" if self.boots else "state-disk")
        self._drives = [_drive("card", card or str(made / "card"), card is None),
                        _drive("disk", disk or str(kept), disk is None)]
        self._hardware: Service | None = None
        self._bridge: Bridge | None = None
        self._kept: list[socket.socket] = []
        self._monitor: socket.socket | None = None

    @property
    def is_on(self) -> bool:
        return self._hardware is not None and self._hardware.exit_code is None

    def switch_on(self, service: Callable[[str, bytes], None], ports: Sequence[int], full_port: int) -> None:
        """Starts the emulation and waits until the agent in it is there."""
        self._hardware = Service(
            Journal(), self, Path("/usr/bin/qemu-system-arm"), preload=(), filtered=False, ports=ports,
            full_port=full_port, environment={"TMPDIR": "/tmp/.camera"}, arguments=self._arguments(),
            visible=[self._made])
        self._kept = self._hardware.start()
        deadline = time.monotonic() + BOOT_SECONDS
        self._bridge = Bridge(self.folder, service)
        self._bridge.start(connected(self.outside("/tmp/.camera/machine"), deadline, lambda: self.is_on))
        if not self._bridge.there.wait(BOOT_SECONDS):
            raise CameraError(f"the emulated machine does not boot; its console:\n{self.console()[-3000:]}")

    def sockets(self) -> list[socket.socket]:
        """The listening sockets of the ports, for an owner that will close them."""
        return [one.dup() for one in self._kept]

    def console(self) -> str:
        """What the kernel and the service manager wrote."""
        path = self.outside("/tmp/.camera/console.log")
        text = path.read_text(errors="replace") if path.exists() else ""
        return text + (self._hardware.stderr.decode(errors="replace") if self._hardware else "")

    def shell(self, command: str, timeout: float = BOOT_SECONDS) -> Ended:
        """Runs a command in the camera, as root."""
        if self._bridge is None:
            raise CameraError("the emulated machine is off")
        return self._bridge.channel.run(command, timeout)

    def leave(self) -> None:
        """Goes away from the agent, which then waits for somebody to come."""
        if self._bridge is not None:
            self._bridge.stop()
            self._bridge = None

    def settle(self) -> None:
        """Tells the camera the time and this side's names, and has it be what it is outside."""
        assert self._bridge is not None
        self._bridge.look()
        self.shell(f"date -s @{time.time():.3f} >/dev/null; echo 127.0.0.1 localhost >/etc/hosts"
                   + (f"; echo {HOST} {shlex.quote(self._names)} >>/etc/hosts" if self._names else ""))

    def monitor(self, command: str, **arguments: Any) -> Any:
        """Gives the emulator an order of its own language, QMP, and returns what it answers. Raises CameraError."""
        if self._monitor is None:
            self._monitor = connected(self.outside("/tmp/.camera/monitor"), time.monotonic() + 60, lambda: self.is_on)
            self._monitor_lines = self._monitor.makefile("r")
            self._monitor_lines.readline()
            self.monitor("qmp_capabilities")
        self._monitor.sendall(json.dumps({"execute": command, "arguments": arguments}).encode())
        for line in self._monitor_lines:
            answer = json.loads(line)
            if "error" in answer:
                raise CameraError(f"{command}: {answer['error']['desc']}")
            if "return" in answer:
                return answer["return"]
        raise CameraError(f"{command}: the emulated machine has ended")

    def run(self, program: Sequence[str | Path], timeout: float = BOOT_SECONDS) -> subprocess.CompletedProcess[bytes]:
        """Runs another program of the camera, which has those of the packages in its own folders."""
        words = [Path(program[0]).name, *map(str, program[1:])]
        ended = self.shell(shlex.join(words), timeout)
        return subprocess.CompletedProcess(words, ended.code, ended.output, ended.output)

    def switch_off(self) -> None:
        """As when the power goes; nothing happens when it is off."""
        if self._hardware is not None and self._hardware.exit_code is None:
            self._hardware.send_signal(9)
            self._hardware.stop()
        self.leave()
        if self._monitor is not None:
            self._monitor_lines.close()
            self._monitor.close()
            self._monitor = None
        for one in self._kept:
            one.close()
        self._kept = []

    def remove(self) -> None:
        with contextlib.suppress(CameraError):
            self.switch_off()
        super().remove()

    def _arguments(self) -> list[str]:
        """The machine of the recipe; the disk of the system comes last, and is the first one that way."""
        line = "console=ttyAMA0 quiet loglevel=4 systemd.show_status=false"
        line += _SMALLER_KERNEL * (self._megabytes <= _SMALL)
        words = ["-M", "virt,highmem=off", "-cpu", "cortex-a15", "-accel", "tcg,tb-size=64", "-m", str(self._megabytes),
                 "-nodefaults", "-nographic", "-kernel", str(self._made / "kernel"),
                 "-initrd", str(self._made / "initramfs"), "-append", line,
                 "-netdev", "user,id=net,ipv6=off", "-device", "virtio-net-device,netdev=net",
                 "-device", "virtio-serial-device,max_ports=2",
                 "-chardev", "socket,id=agent,path=/tmp/.camera/machine,server=on,wait=off",
                 "-device", "virtserialport,chardev=agent",
                 "-chardev", "socket,id=console,path=/tmp/.camera/console,server=on,wait=off,"
                             "logfile=/tmp/.camera/console.log",
                 "-serial", "chardev:console",
                 "-qmp", "unix:/tmp/.camera/monitor,server=on,wait=off",
                 *self._drives[0], *self._drives[1]]
        if not self.boots:
            words += ["-incoming", f"exec:gzip -dc {shlex.quote(str(self._made / 'state'))}"]
        return words


def _drive(name: str, file: str, forgets: bool) -> list[str]:
    return ["-drive", f"if=none,id={name},format=raw,file={file},snapshot={'on' if forgets else 'off'}",
            "-device", f"virtio-blk-device,drive={name},queue-size=16"]
