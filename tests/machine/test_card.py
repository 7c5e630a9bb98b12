"""The card that pages are written to: pulled out, full, read-only, late; and slow."""

from __future__ import annotations

from booted import FOLDER, LONG, complete, download, inside, wait_back
from simulator import Camera, wire
from steps import throttle

# The driver of the card's disk, which lets go of it as if it were pulled out.
DRIVER = "/sys/bus/virtio/drivers/virtio_blk"


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
    throttle(booted, 500_000)
    begin = download(booted)
    inside(booted, f"until [ -s {FOLDER}/white0 ]; do :; done; "
                   f"basename $(readlink -f /sys/block/vdb/device) >/tmp/card; echo $(cat /tmp/card) >{DRIVER}/unbind")
    throttle(booted, 0)
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
    since = len(booted.journal)
    inside(booted, "systemctl stop camera-card; systemctl restart camgate")
    wait_back(booted, since)
    failed_download(booted)
    inside(booted, "systemctl start camera-card")
    complete(booted)
    assert inside(booted, f"ls {FOLDER}") == "white0\n"


def test_slow_card(booted: Camera) -> None:
    throttle(booted, 1_000_000)
    complete(booted, 60)
