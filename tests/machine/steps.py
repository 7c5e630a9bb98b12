"""The steps of a download, each made so long that something can be done to the camera in it."""

from __future__ import annotations

from booted import FOLDER, LONG, download, inside
from simulator import Camera, faults
from simulator.cli.scenarios.play import switches_of
from simulator.messages import wire

_SLOW_CARD = "slow card"
# By what a step lasts for seconds, and goes on then.
STEPS = {
    "connect": "platform.slow-handshake",
    "request sent": "platform.late=seconds=3,at=pages",
    "half of the page": "platform.slow=seconds=3,pieces=2,at=pages",
    "page file written": _SLOW_CARD,
    "import asked": f"itgt.late=seconds=3,command={wire.IMPORT_FILE}",
    "import answered": f"itgt.ready-after=3,command={wire.IMPORT_PROGRESS}",
    "report sent": "platform.late=seconds=3,at=results",
}


def throttle(booted: Camera, bytes_per_second: int) -> None:
    """The card takes and gives so much; 0: as fast as it can."""
    booted.sandbox.monitor("block_set_io_throttle", device="card", bps=bytes_per_second, bps_rd=0, bps_wr=0, iops=0,
                           iops_rd=0, iops_wr=0)


def download_up_to(booted: Camera, step: str) -> int:
    """A download of two pages that is in this step now, and goes on undisturbed afterwards: where it began."""
    inside(booted, f"rm -f {FOLDER}/*")
    if STEPS[step] == _SLOW_CARD:
        throttle(booted, 5_000)
        begin = download(booted, 60)
        inside(booted, f"until [ -s {FOLDER}/white0 ]; do :; done")
        throttle(booted, 0)
        return begin
    switches = switches_of(booted)
    order = faults.parse(STEPS[step])
    switches.on(order)
    begin = download(booted, 60)
    booted.wait_for(lambda event: event.matches(None, "fault", name=order.fault.name), LONG, begin)
    switches.off(order.fault)
    return begin
