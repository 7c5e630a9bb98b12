"""The restrictions of the init unit, for the service in the simulator's sandbox."""

from __future__ import annotations

import base64
import functools
import os
from typing import Any

from simulator.device import system_calls
from simulator.device.unit_file import service_settings
from simulator.errors import CameraError

# What restricts and is applied here, by bwrap or by the launcher.
APPLIED = frozenset({
    "CapabilityBoundingSet", "NoNewPrivileges", "UMask", "LimitCORE",
    "ProtectSystem", "ReadWritePaths", "ReadOnlyPaths", "ProtectHome", "PrivateMounts", "PrivateDevices",
    "ProtectKernelTunables", "ProtectKernelModules", "ProtectKernelLogs", "ProtectControlGroups", "ProtectClock",
    "ProtectHostname", "ProtectProc", "ProcSubset",
    "RestrictAddressFamilies", "RestrictNamespaces", "RestrictRealtime", "RestrictSUIDSGID", "LockPersonality",
    "MemoryDenyWriteExecute", "SystemCallArchitectures", "SystemCallFilter"})
# What is not, and why.
NOT_APPLIED = {
    **dict.fromkeys(("Type", "ExecStart", "Restart", "RestartSec", "KillSignal", "TimeoutStopSec", "StandardInput",
                     "StandardOutput", "StandardError", "SyslogIdentifier"), "start, end and output restrict nothing"),
    "AmbientCapabilities": "empty, as it is without systemd",
    "BindPaths": "the device nodes are simulated by a preloaded library",
    **dict.fromkeys(("DevicePolicy", "DeviceAllow"), "belong to a control group, which only a service manager makes"),
}

# The leak checker of a sanitized binary looks at the threads as a debugger does.
_SANITIZER_CALLS = frozenset({"ptrace"})
_CAPABILITIES = {"CAP_CHOWN": 0, "CAP_SETGID": 6, "CAP_SETUID": 7}
_ON = ["yes"]
# Settings that bwrap and the launcher apply in this one form.
_FORMS = {
    "ProtectSystem": ["strict"], "ReadOnlyPaths": ["/run"], "ProtectProc": ["invisible"], "ProcSubset": ["pid"],
    "LimitCORE": ["0"], "SystemCallArchitectures": ["native"],
    **dict.fromkeys(("NoNewPrivileges", "ProtectHome", "PrivateMounts", "ProtectKernelTunables",
                     "ProtectControlGroups", *system_calls.SWITCHED), _ON)}


@functools.lru_cache
def settings() -> dict[str, list[str]]:
    """The unit's settings. Raises CameraError for one that is not known here, so that none is overlooked."""
    found = service_settings()
    for name, lines in found.items():
        if name not in APPLIED and name not in NOT_APPLIED:
            raise CameraError(f"the simulator neither applies {name}= of the init unit nor knowingly leaves it out")
        if lines != _FORMS.get(name, lines):
            raise CameraError(f"the simulator cannot apply {name}={lines} of the init unit")
    return found


def writable_paths() -> list[str]:
    """The only paths that the service may write to, besides /dev."""
    return [path.removeprefix("-") for line in settings()["ReadWritePaths"] for path in line.split()]


@functools.lru_cache
def filters(sanitized: bool) -> tuple[str, ...]:
    """The system call filters, each in base64."""
    found = settings()
    calls = system_calls.listed(found["SystemCallFilter"])
    switched = [make for name, make in system_calls.SWITCHED.items() if name in found]
    if sanitized:
        calls |= _SANITIZER_CALLS
    made = [system_calls.call_filter(calls),
            system_calls.address_family_filter(found["RestrictAddressFamilies"][0].split()),
            *(make() for make in switched)]
    return tuple(base64.b64encode(system_calls.program(one)).decode() for one in made)


def launch_order(foreign: bool, sanitized: bool) -> dict[str, Any]:
    """What the launcher is to do to itself before it becomes the service.

    A binary of another processor makes its system calls through an emulator, which needs more of them, and writes the
    machine code that it runs: for it there are no filters. As an ordinary user there are no capabilities to begin with.
    """
    root = os.geteuid() == 0
    kept = [_CAPABILITIES[name] for line in settings()["CapabilityBoundingSet"] for name in line.split()]
    return {"umask": int(settings()["UMask"][0], 8), "core_limit": 0, "keep_capabilities": kept if root else None,
            "private_proc": root, "filters": [] if foreign else filters(sanitized)}
