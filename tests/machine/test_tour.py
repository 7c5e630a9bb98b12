"""A booted camera does what a sandbox does."""

from __future__ import annotations

from booted import SOON, complete, inside
from simulator import Camera, wire


def test_every_command_comes_to_its_end_and_nothing_is_refused_by_the_kernel(booted: Camera) -> None:
    complete(booted, 60)
    assert booted.client.command("whiteListClear", {"cameraCode": "C1"}, SOON).status == 200
    booted.wait_until(lambda: len(booted.faces.applied) == 3, SOON)
    assert booted.client.command("faceNotHitDown", {"a": 1}, SOON).status == 200
    assert booted.read_ring_buffer() == ['{"a":1}']
    assert "protocol_proces" not in inside(booted, "dmesg"), "no audit record, and no end by the kernel"


def test_the_service_subscribes_to_the_event_cache(booted: Camera) -> None:
    booted.wait_until(lambda: booted.events.subscriptions, SOON)
    assert len(booted.events.subscriptions[0]) == wire.SUBSCRIPTION_SIZE


def test_the_user_is_switched_and_every_capability_is_gone_and_the_filters_are_loaded(booted: Camera) -> None:
    status = dict(line.split(":\t", 1) for line in inside(booted, f"cat /proc/{booted.service.pid}/status").splitlines()
                  if ":\t" in line)
    assert status["Uid"].split() == ["74"] * 4 and status["Gid"].split() == ["74"] * 4
    assert [int(status[name], 16) for name in ("CapInh", "CapPrm", "CapEff", "CapAmb")] == [0] * 4
    assert int(status["CapBnd"], 16) == 1 << 0 | 1 << 6 | 1 << 7, "CAP_CHOWN, CAP_SETGID, CAP_SETUID"
    assert status["NoNewPrivs"] == "1" and status["Seccomp"] == "2"
    assert int(status["Seccomp_filters"]) > 5


def test_the_unit_accounts_for_memory_and_processor_time(booted: Camera) -> None:
    shown = inside(booted, "systemctl show camgate -p MemoryCurrent -p CPUUsageNSec -p TasksCurrent")
    values = {name: int(value) for name, value in (line.split("=") for line in shown.splitlines())}
    assert 1 << 20 < values["MemoryCurrent"] < 40 << 20
    assert values["CPUUsageNSec"] > 0 and 3 <= values["TasksCurrent"] <= 8
