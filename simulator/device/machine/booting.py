"""Boots a machine once and keeps its memory in a file: /usr/bin/python3 -m simulator.device.machine.booting FOLDER"""

from __future__ import annotations

import shutil
import subprocess
import sys
import time
from pathlib import Path

from simulator.device.machine.machine import BOOT_SECONDS, Machine
from simulator.errors import CameraError

# A card can be changed while it is out, and nothing of it is remembered.
_READY = ("until systemctl is-active --quiet multi-user.target; do sleep 0.2; done; "  # pause: systemd tells only a bus
          "systemctl stop camgate camera-card; sync")


def keep_state(made: Path) -> None:
    """Writes the files "state" and "state-disk" beside the disks in the folder."""
    machine = Machine(made=made, boots=True, disk="/tmp/.camera/disk")
    disk = machine.outside("/tmp/.camera/disk")
    subprocess.run(["cp", "--sparse=always", made / "disk", disk], check=True)
    try:
        machine.switch_on(lambda _what, _data: None, (), 0)
        machine.shell(_READY)
        machine.leave()
        machine.monitor("migrate", uri="exec:gzip -1 >/tmp/.camera/state")
        deadline = time.monotonic() + BOOT_SECONDS
        while (status := machine.monitor("query-migrate")["status"]) != "completed":
            if status == "failed" or time.monotonic() > deadline:
                raise CameraError(f"the machine's memory could not be kept: {status}")
            time.sleep(0.1)  # pause: the emulator says nothing of the end of it
        machine.monitor("quit")
        shutil.move(machine.outside("/tmp/.camera/state"), made / "state")
        subprocess.run(["cp", "--sparse=always", disk, made / "state-disk"], check=True)
    finally:
        machine.remove()


keep_state(Path(sys.argv[1]))
