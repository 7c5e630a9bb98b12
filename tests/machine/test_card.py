"""The card that pages are written to: pulled out, full, read-only, late; and slow."""

from __future__ import annotations

from booted import FOLDER, LONG, complete, download, inside
from simulator import Camera, wire

# The driver of the card's disk, which lets go of it as if it were pulled out.
DRIVER = "/sys/bus/virtio/drivers/virtio_blk"
DEVICE = "$(basename $(readlink -f /sys/block/vdb/device))"


def give_back(booted: Camera) -> None:
    inside(booted, f"umount --lazy /tmp/mmcblk0; echo $(cat /tmp/card) >{DRIVER}/bind; "
                   "until mount /dev/vd[b-z] /tmp/mmcblk0; do sleep 0.1; done")  # pause: the kernel tells only a bus


def failed_download(booted: Camera) -> None:
    """A download ends, no page of it is told of, and the service is still the same process."""
    before, pid = len(booted.itgt.requests(wire.IMPORT_FILE)), booted.service.pid
    booted.wait_download(LONG, download(booted))
    assert len(booted.itgt.requests(wire.IMPORT_FILE)) == before
    assert booted.service.pid == pid and booted.service.exit_code is None


def test_card_that_is_pulled_out_while_a_page_is_written(booted: Camera) -> None:
    """The disk is slow, so that it still has most of the page to take."""
    booted.sandbox.monitor("block_set_io_throttle", id="card", bps=0, bps_rd=0, bps_wr=500_000, iops=0, iops_rd=0,
                           iops_wr=0)
    begin = download(booted)
    inside(booted, f"until [ -s {FOLDER}/white0 ]; do :; done; "
                   f"basename $(readlink -f /sys/block/vdb/device) >/tmp/card; echo $(cat /tmp/card) >{DRIVER}/unbind")
    booted.sandbox.monitor("block_set_io_throttle", id="card", bps=0, bps_rd=0, bps_wr=0, iops=0, iops_rd=0, iops_wr=0)
    booted.wait_download(LONG, begin)
    assert booted.service.exit_code is None
    give_back(booted)
    complete(booted)


def test_full_card(booted: Camera) -> None:
    inside(booted, "dd if=/dev/zero of=/tmp/mmcblk0/filler bs=64k 2>/dev/null", 1)
    failed_download(booted)
    inside(booted, "rm /tmp/mmcblk0/filler")
    complete(booted)


def test_read_only_card(booted: Camera) -> None:
    inside(booted, "mount -o remount,ro /tmp/mmcblk0")
    failed_download(booted)
    inside(booted, "mount -o remount,rw /tmp/mmcblk0")
    complete(booted)


def test_card_that_is_mounted_late(booted: Camera) -> None:
    """The service runs already, in a file system view of its own, and sees the card all the same."""
    inside(booted, "systemctl stop camera-card; systemctl restart camgate")
    failed_download(booted)
    inside(booted, "systemctl start camera-card")
    complete(booted)
    assert inside(booted, f"ls {FOLDER}") == "white0\n"


def test_slow_card(booted: Camera) -> None:
    booted.sandbox.monitor("block_set_io_throttle", id="card", bps=1_000_000, bps_rd=0, bps_wr=0, iops=0, iops_rd=0,
                           iops_wr=0)
    complete(booted, 60)
