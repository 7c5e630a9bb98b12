"""The package under the service manager that a camera has: installed, upgraded, removed and purged."""

from __future__ import annotations

from booted import LONG, SOON, complete, download, inside, wait_back
from simulator import Camera

SERVICE = "/packages/camgate_*.deb"


def state(booted: Camera, name: str) -> str:
    return inside(booted, f"systemctl show camgate --value -p {name}").strip()


def test_an_upgrade_during_a_download_ends_it_and_the_new_one_serves(booted: Camera) -> None:
    begin = download(booted, 30_000)  # of which a small part comes, until the new one is unpacked
    booted.wait_for(lambda event: event.matches("platform", "page"), LONG, begin)
    since = len(booted.journal)
    assert "Setting up camgate" in inside(booted, f"dpkg --install {SERVICE}")
    wait_back(booted, since)
    assert booted.wait_for(lambda event: event.matches("service", "ended"), LONG, since).exit_code == 0
    complete(booted)


def test_an_upgrade_of_a_stopped_service_does_not_start_it(booted: Camera) -> None:
    inside(booted, f"systemctl stop camgate; dpkg --install {SERVICE}")
    assert state(booted, "ActiveState") == "inactive"
    assert state(booted, "UnitFileState") == "enabled"


def test_removed_it_is_gone_and_cannot_be_started(booted: Camera) -> None:
    inside(booted, "dpkg --remove camgate")
    assert booted.service.wait(SOON) == 0
    assert state(booted, "ActiveState") == "inactive"
    assert inside(booted, "ls /tmp/HK /tmp/CU /tmp/CP 2>/dev/null", 2) == ""
    assert "camgate.service" in inside(booted, "systemctl start camgate", 1)


def test_purged_nothing_of_it_is_known_to_systemd(booted: Camera) -> None:
    inside(booted, "dpkg --purge camgate")
    assert booted.service.wait(SOON) == 0
    assert state(booted, "LoadState") in ("not-found", "bad-setting", "error")
    assert inside(booted, "find /etc/systemd /etc/init.d /etc/rc?.d /lib/systemd -name '*camgate*' "
                          "-not -name camgate.service.d") == ""
