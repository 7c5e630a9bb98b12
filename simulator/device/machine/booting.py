"""Boots a machine once and keeps its memory in a file: /usr/bin/python3 -m simulator.device.machine.booting FOLDER"""

from __future__ import annotations

import sys
import time
from pathlib import Path

from simulator.device.machine.machine import BOOT_SECONDS, Machine
from simulator.errors import CameraError

# A card can be changed while it is out, and nothing of it is remembered.
_READY = ("until systemctl is-active --quiet multi-user.target; do sleep 0.2; done; "  # pause: systemd tells only a bus
          "systemctl stop camgate camera-card; sync; echo 3 >/proc/sys/vm/drop_caches")


def keep_state(made: Path) -> None:
    """Writes the file "state" beside the disks in the folder."""
    machine = Machine(made=made, boots=True)
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
        (made / "state").write_bytes(machine.outside("/tmp/.camera/state").read_bytes())
    finally:
        machine.remove()


keep_state(Path(sys.argv[1]))
