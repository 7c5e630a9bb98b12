"""Each restriction of the init unit, tried in the kernel from where the service runs."""

from __future__ import annotations

import shlex

import pytest

from booted import inside
from simulator import Camera
from simulator.device.unit_file import service_settings

# Exit code of a program that a filter has ended, and what a try of a system call ends with instead: its error.
KILLED = 128 + 31
EPERM, EACCES, EAFNOSUPPORT = 1, 13, 97


def call(*words: object) -> str:
    """A system call by its number on 32-bit ARM; its error is the exit code."""
    return f"perl -e 'exit(syscall({', '.join(map(str, words))}) == -1 ? $!+0 : 0)'"


# What is tried, and what it ends with; a text is looked for in what it writes.
TRIES: dict[str, tuple[str, int | str]] = {
    "CapabilityBoundingSet": ("cat /mnt/srvfs/secret", "Permission denied"),
    "AmbientCapabilities": ("grep CapAmb /proc/self/status", "0000000000000000"),
    "NoNewPrivileges": ("grep NoNewPrivs /proc/self/status", "NoNewPrivs:\t1"),
    "UMask": ("touch /tmp/new && ls -l /tmp/new", "-rw-r--r--"),
    "LimitCORE": ("ulimit -c", "0\n"),
    "ProtectSystem": ("touch /etc/new", "Read-only file system"),
    "ReadWritePaths": ("touch /tmp/one /mnt/srvfs/two && touch /mnt/three", "Read-only file system"),
    "ReadOnlyPaths": ("touch /run/new", "Read-only file system"),
    "ProtectHome": ("ls /root", "Permission denied"),
    "PrivateMounts": ("mount -t tmpfs none /tmp", KILLED),
    "PrivateDevices": ("ls /dev/vda", "No such file"),
    "BindPaths": ("exec 3</dev/cache && echo opened", "opened"),
    "DevicePolicy": ("cat </mnt/srvfs/block", "Operation not permitted"),
    "DeviceAllow": ("exec 3</mnt/srvfs/character && echo opened", "opened"),
    "ProtectKernelTunables": ("touch /sys/kernel/mm/ksm/run", "Read-only file system"),
    "ProtectKernelModules": (call(128, 0, 0, 0), KILLED),
    "ProtectKernelLogs": (call(103, 3, 0, 0), KILLED),
    "ProtectControlGroups": ("mkdir /sys/fs/cgroup/new", "Read-only file system"),
    "ProtectClock": (call(79, 0, 0), KILLED),
    "ProtectHostname": (call(74, '$x = "x"', 1), KILLED),
    # To the group root all processes stay visible.
    "ProtectProc": ("perl -e '$) = \"74 74\"; $( = 74; $< = $> = 74; print -d \"/proc/1\" ? \"seen\" : \"unseen\"'",
                    "unseen"),
    "ProcSubset": ("cat /proc/meminfo", "No such file"),
    "RestrictAddressFamilies": (call(281, 17, 3, 0), EAFNOSUPPORT),
    "RestrictNamespaces": (call(337, 0x20000), EPERM),
    "RestrictRealtime": (call(156, 0, 1, '$x = pack("i", 1)'), KILLED),
    "RestrictSUIDSGID": ("touch /tmp/four && chmod 4755 /tmp/four", "Operation not permitted"),
    "LockPersonality": (call(136, 8), KILLED),
    "MemoryDenyWriteExecute": (call(192, 0, 4096, 7, 0x22, -1, 0), EPERM),
    "SystemCallFilter": (call(88, 0, 0, 0), KILLED),
}
# There is one set of system calls on this processor.
NOT_TRIED = {"SystemCallArchitectures"}
NO_RESTRICTION = {"Type", "ExecStart", "Restart", "RestartSec", "KillSignal", "TimeoutStopSec", "StandardInput",
                  "StandardOutput", "StandardError", "SyslogIdentifier"}


def test_every_setting_of_the_unit_is_tried_or_known_to_restrict_nothing() -> None:
    assert set(service_settings()) == set(TRIES) | NOT_TRIED | NO_RESTRICTION


@pytest.fixture
def tried(booted: Camera) -> dict[str, tuple[int, str]]:
    """What each try ended with and wrote, in the service's place: a drop-in starts a shell under the same unit."""
    script = "".join(f"(exec 2>&1; {words[0]}) >/tmp/try.{name}; echo $? >/tmp/code.{name}\n"
                     for name, words in TRIES.items())
    inside(booted, "systemctl stop camgate; mkdir -p /run/systemd/system/camgate.service.d /root; "
                   "echo secret >/mnt/srvfs/secret; chown 74 /mnt/srvfs/secret; chmod 600 /mnt/srvfs/secret; "
                   "mknod -m 666 /mnt/srvfs/block b 254 0; mknod -m 666 /mnt/srvfs/character c 204 64; "
                   "mknod -m 666 /dev/cache c 204 64; "
                   "printf '[Service]\\nExecStart=\\nExecStart=/bin/sh /tmp/tries\\nEnvironment=LD_PRELOAD=\\n"
                   "StandardError=journal\\nType=oneshot\\nRestart=no\\n' "
                   ">/run/systemd/system/camgate.service.d/tries.conf; "
                   f"echo {shlex.quote(script)} >/tmp/tries; systemctl daemon-reload; systemctl start camgate")
    listing = inside(booted, "cd /tmp && for one in try.*; do echo \"=== ${one#try.} $(cat code.${one#try.})\"; "
                             "cat $one; done")
    found = {}
    for part in listing.split("=== ")[1:]:
        head, _, text = part.partition("\n")
        found[head.split()[0]] = (int(head.split()[1]), text)
    return found


def test_what_the_unit_forbids_is_refused_by_the_kernel(booted: Camera, tried: dict[str, tuple[int, str]]) -> None:
    def as_expected(name: str) -> bool:
        expected = TRIES[name][1]
        code, text = tried[name]
        return expected in text if isinstance(expected, str) else code == expected
    assert {name: tried[name] for name in TRIES if not as_expected(name)} == {}
    assert "type=1326" in inside(booted, "dmesg"), "the kernel names what a filter has ended"
