"""The init unit: good for the oldest systemd it is for, tight, and understood by the simulator in every setting."""

from __future__ import annotations

import os
import re
import subprocess
from collections.abc import Callable, Iterator
from pathlib import Path

import pytest

from simulator import CameraError
from simulator.device import restrictions, system_calls, unit_file

UNIT = Path(__file__).resolve().parents[2] / "packaging" / "camgate.service"
OLDEST_SYSTEMD = 247
# The version that each setting came with, from systemd's own manuals (its file NEWS for the early ones).
CAME_WITH = {
    "Description": 1, "Documentation": 20, "RequiresMountsFor": 201, "After": 1, "StartLimitIntervalSec": 230,
    "Type": 1, "ExecStart": 1, "Restart": 1, "RestartSec": 1, "KillSignal": 1, "TimeoutStopSec": 188,
    "StandardInput": 1, "StandardOutput": 1, "StandardError": 1, "SyslogIdentifier": 1, "CapabilityBoundingSet": 1,
    "AmbientCapabilities": 229, "NoNewPrivileges": 187, "UMask": 1, "LimitCORE": 1, "ProtectSystem": 214,
    "ReadWritePaths": 231, "ReadOnlyPaths": 231, "ProtectHome": 214, "PrivateMounts": 239, "PrivateDevices": 209,
    "BindPaths": 233, "DevicePolicy": 208, "DeviceAllow": 208, "ProtectKernelTunables": 232,
    "ProtectKernelModules": 232, "ProtectKernelLogs": 244, "ProtectControlGroups": 232, "ProtectClock": 245,
    "ProtectHostname": 242, "ProtectProc": 247, "ProcSubset": 247, "RestrictAddressFamilies": 211,
    "RestrictNamespaces": 233, "RestrictRealtime": 231, "RestrictSUIDSGID": 242, "LockPersonality": 235,
    "MemoryDenyWriteExecute": 231, "SystemCallArchitectures": 209, "SystemCallFilter": 187, "WantedBy": 1}
# System calls that the groups of systemd 247 do not have and those of 252 do, as far as a C library of then makes them.
MISSING_IN_GROUPS_OF_247 = {"getrandom", "mprotect", "sched_getaffinity"}


def settings() -> list[tuple[str, str]]:
    return re.findall(r"^(\w+)=(.*)$", UNIT.read_text(), re.MULTILINE)


def test_every_setting_is_known_to_the_oldest_systemd() -> None:
    names = {name for name, _ in settings()}
    assert len(names) > 40
    assert names <= CAME_WITH.keys(), "a setting whose version nobody has looked up"
    assert not [name for name in names if CAME_WITH[name] > OLDEST_SYSTEMD]
    named = " ".join(value for name, value in settings() if name == "SystemCallFilter").split()
    assert MISSING_IN_GROUPS_OF_247 <= set(named)


def test_systemd_finds_nothing_wrong_with_it(tmp_path: Path) -> None:
    """Only that the program is installed at its place cannot be so here: another stands for it."""
    copy = tmp_path / "camgate.service"
    copy.write_text(re.sub(r"(?m)^ExecStart=.*$", "ExecStart=/bin/true", UNIT.read_text()))
    result = subprocess.run(["systemd-analyze", "verify", "--man=no", str(copy)], capture_output=True, text=True,
                            check=False)
    assert (result.returncode, result.stdout + result.stderr) == (0, "")


def security(unit: Path) -> subprocess.CompletedProcess[str]:
    return subprocess.run(["systemd-analyze", "security", "--offline=true", "--no-pager", "--threshold=30", str(unit)],
                          capture_output=True, text=True, check=False, env={**os.environ, "LC_ALL": "C.UTF-8"})


def exposure(result: subprocess.CompletedProcess[str]) -> float:
    found = re.search(r"Overall exposure level for \S+: ([\d.]+)", result.stdout)
    assert found, result.stdout + result.stderr
    return float(found[1])


def test_its_exposure_is_3_0_or_better(tmp_path: Path) -> None:
    result = security(UNIT)
    assert result.returncode == 0
    assert 0 < exposure(result) <= 3.0
    bare = tmp_path / "bare.service"
    bare.write_text("[Service]\nExecStart=/bin/true\n")
    result = security(bare)
    assert result.returncode != 0 and exposure(result) > 9, "the measure tells a bare unit from this one"


def test_the_simulator_knows_of_each_setting_whether_it_applies_it() -> None:
    names = set(unit_file.service_settings())
    assert restrictions.APPLIED | restrictions.NOT_APPLIED.keys() == names
    assert not restrictions.APPLIED & restrictions.NOT_APPLIED.keys()


@pytest.fixture
def other_unit(tmp_path: Path, monkeypatch: pytest.MonkeyPatch) -> Iterator[Callable[[str, str], None]]:
    """Puts a changed unit in the place of the real one: other_unit(old text, new text)."""
    def change(old: str, new: str) -> None:
        assert old in UNIT.read_text()
        copy = tmp_path / "other.service"
        copy.write_text(UNIT.read_text().replace(old, new))
        monkeypatch.setattr(restrictions, "service_settings", lambda: unit_file.service_settings(copy))
        restrictions.settings.cache_clear()

    yield change
    restrictions.settings.cache_clear()


@pytest.mark.parametrize(("old", "new"), [
    ("\nUMask=", "\nPrivateUsers=yes\nUMask="), ("ProtectSystem=strict", "ProtectSystem=full"),
    ("ProtectHome=yes", "ProtectHome=read-only"), ("LockPersonality=yes", "LockPersonality=no")])
def test_a_setting_that_the_simulator_cannot_apply_is_an_error(other_unit: Callable[[str, str], None], old: str,
                                                               new: str) -> None:
    other_unit(old, new)
    with pytest.raises(CameraError, match="init unit"):
        restrictions.settings()


def test_lines_of_system_calls_add_and_take_away_in_turn() -> None:
    assert system_calls.listed(["read write chown", "~chown write", "write"]) == {"read", "write"}
    assert {"setresuid", "setgroups", "getpid"} <= system_calls.listed(["@default", "~@privileged", "@setuid"])
    assert "fchownat" in system_calls.group("@privileged"), "groups within groups"


def test_the_unit_allows_no_system_call_that_needs_a_privilege_but_the_change_of_user_and_the_hand_over() -> None:
    allowed = system_calls.listed(unit_file.service_settings()["SystemCallFilter"])
    assert {"execve", "openat", "sendto", "setresuid"} <= allowed
    privileged = {name for group in ("@privileged", "@mount", "@debug", "@module", "@raw-io", "@reboot", "@swap",
                                     "@clock", "@keyring", "@ipc", "@aio", "@resources", "@obsolete", "@cpu-emulation")
                  for name in system_calls.group(group)}
    change_of_user = {"setgroups", "setresuid", "setreuid", "setuid"}
    hand_over = {"fchown"}
    assert {name.removesuffix("32") for name in allowed & privileged} == change_of_user | hand_over
