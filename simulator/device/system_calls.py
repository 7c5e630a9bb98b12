"""Makes the system call filters of the init unit, as systemd would: one for each setting, and all of them apply."""

from __future__ import annotations

import errno
import functools
import os
import socket
import stat
import subprocess
import tempfile
from collections.abc import Callable, Iterable

from simulator.errors import CameraError

try:
    import seccomp
except ImportError as error:
    raise CameraError("python3-seccomp is missing; run scripts/bootstrap or apt-get install it") from error

# Flags of clone and unshare: a new mount, control group, UTS, IPC, user, PID or network namespace.
_NAMESPACES = (0x00020000, 0x02000000, 0x04000000, 0x08000000, 0x10000000, 0x20000000, 0x40000000)
_PROT_WRITE = 2
_PROT_EXEC = 4
_SHM_EXEC = 0o100000
_REALTIME_POLICIES = (1, 2, 6)  # SCHED_FIFO, SCHED_RR, SCHED_DEADLINE
_UNKNOWN = -1
_REFUSED = seccomp.ERRNO(errno.EPERM)


def _bit(argument: int, bit: int) -> seccomp.Arg:
    return seccomp.Arg(argument, seccomp.MASKED_EQ, bit, bit)


def _allowing(rules: Iterable[tuple[str, list[seccomp.Arg]]]) -> seccomp.SyscallFilter:
    """A filter that refuses these system calls where the arguments are so, and allows all others."""
    made = seccomp.SyscallFilter(seccomp.ALLOW)
    for name, arguments in rules:
        made.add_rule(_REFUSED, name, *arguments)
    return made


@functools.lru_cache
def group(name: str) -> frozenset[str]:
    """The system calls of a group such as "@file-system", those of groups within it included; or the one named."""
    if not name.startswith("@"):
        return frozenset({name})
    try:
        listing = subprocess.run(["systemd-analyze", "syscall-filter", name], capture_output=True, text=True,
                                 check=True)
    except FileNotFoundError as error:
        raise CameraError("systemd-analyze is missing; run scripts/bootstrap or: apt-get install systemd") from error
    except subprocess.CalledProcessError as error:
        raise CameraError(f"systemd-analyze knows no {name}: {error.stderr}") from error
    words = [line.strip() for line in listing.stdout.splitlines()[1:]]
    return frozenset().union(*(group(word) for word in words if word and not word.startswith("#")))


def listed(lines: Iterable[str]) -> frozenset[str]:
    """The system calls that lines of SystemCallFilter= allow: each line adds to the list, or with "~" takes away."""
    calls: frozenset[str] = frozenset()
    for number, line in enumerate(lines):
        named: frozenset[str] = frozenset().union(*(group(word) for word in line.removeprefix("~").split()))
        if line.startswith("~"):
            if number == 0:
                raise CameraError("SystemCallFilter= must begin with what is allowed")
            calls -= named
        else:
            calls |= named
    return calls


def call_filter(calls: Iterable[str]) -> seccomp.SyscallFilter:
    """Any other system call, and any of another processor's, ends the process."""
    made = seccomp.SyscallFilter(seccomp.KILL_PROCESS)
    for name in sorted(calls):
        if seccomp.resolve_syscall(seccomp.Arch(), name) != _UNKNOWN:
            made.add_rule(seccomp.ALLOW, name)
    return made


def address_family_filter(names: Iterable[str]) -> seccomp.SyscallFilter:
    allowed = {int(getattr(socket, name)) for name in names}
    made = seccomp.SyscallFilter(seccomp.ALLOW)
    for family in set(range(max(allowed) + 1)) - allowed:
        made.add_rule(seccomp.ERRNO(errno.EAFNOSUPPORT), "socket", seccomp.Arg(0, seccomp.EQ, family))
    made.add_rule(seccomp.ERRNO(errno.EAFNOSUPPORT), "socket", seccomp.Arg(0, seccomp.GT, max(allowed)))
    return made


def namespace_filter() -> seccomp.SyscallFilter:
    made = _allowing([("clone", [_bit(0, flag)]) for flag in _NAMESPACES] + [("unshare", []), ("setns", [])])
    # Its flags are in memory, where a filter cannot see them; the C library then takes the older call.
    made.add_rule(seccomp.ERRNO(errno.ENOSYS), "clone3")
    return made


def realtime_filter() -> seccomp.SyscallFilter:
    made = _allowing([("sched_setscheduler", [seccomp.Arg(1, seccomp.EQ, policy)]) for policy in _REALTIME_POLICIES])
    made.add_rule(_REFUSED, "sched_setattr")
    return made


def set_id_mode_filter() -> seccomp.SyscallFilter:
    """No file or folder that is run with its owner's or group's rights."""
    mode_argument = {"chmod": 1, "fchmod": 1, "fchmodat": 2, "mkdir": 1, "mkdirat": 2, "mknod": 1, "mknodat": 2,
                     "creat": 1, "open": 2, "openat": 3}
    # Without it there is no mode, and anything may stand in its place.
    creates = {"open": [_bit(1, os.O_CREAT)], "openat": [_bit(2, os.O_CREAT)]}
    return _allowing((name, [*creates.get(name, []), _bit(argument, bit)]) for name, argument in mode_argument.items()
                     for bit in (stat.S_ISUID, stat.S_ISGID))


def write_execute_filter() -> seccomp.SyscallFilter:
    both = _PROT_WRITE | _PROT_EXEC
    return _allowing([("mmap", [_bit(2, both)]), ("mprotect", [_bit(2, _PROT_EXEC)]),
                      ("pkey_mprotect", [_bit(2, _PROT_EXEC)]), ("shmat", [_bit(2, _SHM_EXEC)])])


def group_filter(*names: str) -> seccomp.SyscallFilter:
    """Refuses these system calls and the ones of these groups."""
    calls = sorted(frozenset().union(*(group(name) for name in names)))
    return _allowing((name, []) for name in calls if seccomp.resolve_syscall(seccomp.Arch(), name) != _UNKNOWN)


# The filter of each setting that is either on or off.
SWITCHED: dict[str, Callable[[], seccomp.SyscallFilter]] = {
    "RestrictNamespaces": namespace_filter,
    "RestrictRealtime": realtime_filter,
    "RestrictSUIDSGID": set_id_mode_filter,
    "MemoryDenyWriteExecute": write_execute_filter,
    "LockPersonality": lambda: group_filter("personality"),
    "ProtectClock": lambda: group_filter("@clock"),
    "ProtectHostname": lambda: group_filter("sethostname", "setdomainname"),
    "ProtectKernelLogs": lambda: group_filter("syslog"),
    "ProtectKernelModules": lambda: group_filter("@module"),
    "PrivateDevices": lambda: group_filter("@raw-io"),
}


def program(made: seccomp.SyscallFilter) -> bytes:
    """The filter as the kernel takes it, an array of struct sock_filter."""
    with tempfile.TemporaryFile() as file:
        made.export_bpf(file)
        file.seek(0)
        return file.read()
