"""The service in a booted camera, where systemd starts it."""

from __future__ import annotations

import socket
import threading
from collections.abc import Sequence
from pathlib import Path

from simulator.device.machine.machine import Machine
from simulator.device.service import Service
from simulator.errors import CameraError
from simulator.journal import Journal

_SIGNALLED = 128
_EXITED = "1"
# Of one that was started again meanwhile systemd knows only whether that was because it had failed.
_ASK = ("while set -- $(systemctl show camgate --value -p NRestarts -p ExecMainPID -p ExecMainCode -p ExecMainStatus); "
        "[ $2 = {pid} ] && [ $3 = 0 ]; do :; done; "
        "if [ $2 = {pid} ]; then echo $3 $4; elif [ $1 = 0 ]; then echo 1 0; else echo 1 255; fi")
# What systemd would say of a service that a machine that goes down takes with it.
_WITH_MACHINE = ["2", "9"]


class BootedService(Service):
    """Starts, signals and ends the service by way of the camera's systemd; `pid` is its number in the camera.

    systemd starts a service that fails again by itself, which is another "started" in the journal.
    """

    def __init__(self, journal: Journal, machine: Machine, binary: Path, *, ports: Sequence[int],
                 full_port: int) -> None:
        super().__init__(journal, machine, binary, ports=ports, full_port=full_port)
        self._machine = machine
        self._runs = False
        self._asking: list[threading.Thread] = []

    def start(self) -> list[socket.socket]:
        """Switches the machine on where it is off, and starts the service in it."""
        if self._runs:
            raise CameraError("the service is already running")
        first = not self._machine.is_on
        if first:
            self._machine.switch_on(self._happened, self._ports, self._full_port)
            self._machine.settle()
        if not (first and self._machine.boots):  # or else it is started by the boot
            self._exit_code = None
            started = self._machine.shell("systemctl start camera-card camgate")
            if started.code != 0:
                raise CameraError(f"the service did not start: {started.text}")
        return self._machine.sockets()

    def send_signal(self, number: int) -> None:
        if self._runs:
            self._machine.shell(f"kill -{number} {self.pid}")

    def stop(self, timeout: float = 5.0) -> int | None:
        """Has systemd stop the service, if it runs; returns its exit code."""
        if self._machine.is_on:
            self._machine.shell("systemctl stop camgate")
            if self.pid and self._exit_code is None:
                self.wait(timeout)
        for thread in tuple(self._asking):
            thread.join()
        return self._exit_code

    def _happened(self, what: str, data: bytes) -> None:
        if what == "started":
            self.pid = int(data)
            self._runs = True
            self._exit_code = None
            self._journal.add(self.name, "starting")
            self._journal.add(self.name, "started", pid=self.pid)
        elif what == "log":
            self._take_output(data)
        else:
            self._runs = False
            self._take_output(b"")
            thread = threading.Thread(target=self._ask_for_end, args=(self.pid,), name="end", daemon=True)
            self._asking.append(thread)
            thread.start()

    def _take_stderr(self) -> None:
        """What it writes comes by the way of its messages, in their order."""

    def _ask_for_end(self, pid: int) -> None:
        """Its log has ended; what it ended with, systemd knows a moment later."""
        try:
            answer = self._machine.shell(_ASK.format(pid=pid)).text.split()
        except CameraError:
            answer = _WITH_MACHINE
        code = int(answer[1]) + (0 if answer[0] == _EXITED else _SIGNALLED)
        with self._journal.locked():
            if self.pid == pid:
                self._exit_code = code
            self._journal.add(self.name, "ended", exit_code=code)
