"""The packages in a camera's Debian 11 under emulation: installed, started, stopped, upgraded, removed.

Needs scripts/bootstrap --armhf, scripts/camera-root, and the packages of scripts/package armhf in CAMGATE_BUILD.
"""

from __future__ import annotations

import stat
import time
from collections.abc import Iterator
from pathlib import Path

import pytest
from installed import InstalledCamera
from packages import package, with_version
from support import at_most

STOP_SECONDS = 2.0
# A process takes longer to begin and end under the emulator than it takes to stop: that of a command that does nothing.
_LIBRARY = "/usr/lib/arm-linux-gnueabihf/libcamera_platform.so"


@pytest.fixture
def camera() -> Iterator[InstalledCamera]:
    """A camera without any of the packages."""
    with InstalledCamera() as camera:
        yield camera


@pytest.fixture
def serving(camera: InstalledCamera) -> InstalledCamera:
    """A camera with both packages, whose service takes commands."""
    camera.dpkg("--install", package("camgate-simulator"), package("camgate"))
    camera.wait_serving()
    return camera


def expect_answer(camera: InstalledCamera) -> None:
    """The service answers a good command and a bad one."""
    assert camera.client.command("faceNotHitDown", {"still": "there"}).status == 200
    assert camera.client.command("noSuchCommand", {}).status == 400


def test_installing_starts_the_service(serving: InstalledCamera) -> None:
    assert len(serving.processes()) == 1
    assert stat.S_ISSOCK((serving.root / "tmp/HK").stat().st_mode)
    expect_answer(serving)
    assert "runs (process" in serving.run("/etc/init.d/camgate status")
    assert "ii  camgate" in serving.run("dpkg --list camgate")
    # What starts and ends it with the camera itself.
    links = sorted(str(path.relative_to(serving.root / "etc")) for path in serving.root.glob("etc/rc?.d/*camgate"))
    assert links == [f"rc{level}.d/{kind}01camgate" for level, kind in zip("0123456", "KKSSSSK")]
    assert (serving.root / "etc/systemd/system/multi-user.target.wants/camgate.service").is_symlink()


def test_installed_files_have_the_modes_of_the_package(serving: InstalledCamera) -> None:
    modes = {"usr/sbin/protocol_process": 0o755, "etc/init.d/camgate": 0o755,
             "lib/systemd/system/camgate.service": 0o644, "usr/share/doc/camgate/camera.md": 0o644}
    for name, mode in modes.items():
        assert stat.S_IMODE((serving.root / name).stat().st_mode) == mode, name
    assert serving.run("dpkg --verify camgate camgate-simulator") == ""


def test_stop_ends_it_in_time_and_start_brings_it_back(serving: InstalledCamera) -> None:
    pid = serving.processes()[0]
    begin = time.monotonic()
    serving.run(f"kill -TERM {pid}; while [ -e /proc/{pid} ]; do :; done")
    assert time.monotonic() - begin < at_most(STOP_SECONDS)
    serving.run("/etc/init.d/camgate status", expected=1)
    serving.forget_log()
    serving.run("/etc/init.d/camgate start")
    serving.wait_serving()
    expect_answer(serving)
    assert "stopped" in serving.run("/etc/init.d/camgate stop")
    assert not serving.processes()
    serving.run("/etc/init.d/camgate status", expected=3)


def test_an_upgrade_starts_the_new_service_in_place_of_the_old(serving: InstalledCamera, tmp_path: Path) -> None:
    before = serving.processes()
    serving.forget_log()
    serving.dpkg("--install", with_version(package("camgate"), "0.1.1", tmp_path))
    serving.wait_serving()
    after = serving.processes()
    assert len(after) == 1 and after != before
    expect_answer(serving)
    assert "0.1.1" in serving.run("dpkg --list camgate")


def test_an_upgrade_leaves_a_stopped_service_stopped(serving: InstalledCamera, tmp_path: Path) -> None:
    serving.run("/etc/init.d/camgate stop")
    serving.dpkg("--install", with_version(package("camgate"), "0.1.1", tmp_path))
    assert not serving.processes()


def test_installed_again_after_a_removal_it_starts(serving: InstalledCamera) -> None:
    serving.run("dpkg --remove camgate")
    assert not serving.processes()
    serving.forget_log()
    serving.dpkg("--install", package("camgate"))
    serving.wait_serving()
    expect_answer(serving)


def test_removed_and_purged_it_leaves_no_trace(camera: InstalledCamera) -> None:
    camera.dpkg("--install", package("camgate-simulator"))
    before = camera.files()
    camera.dpkg("--install", package("camgate"))
    camera.wait_serving()
    camera.run("dpkg --remove camgate")
    assert not camera.processes()
    assert not (camera.root / "usr/sbin/protocol_process").exists()
    assert not (camera.root / "usr/share/doc/camgate").exists()
    assert (camera.root / "etc/init.d/camgate").exists(), "the administrator's file stays until it is purged"
    camera.run("dpkg --purge camgate")
    assert camera.files() - before == set()
    camera.run("dpkg --purge camgate-simulator")
    assert not [path for path in camera.files() if "camgate" in path or "libcamera" in path]


def test_without_the_platform_library_it_installs_and_says_what_is_missing(camera: InstalledCamera) -> None:
    said = camera.dpkg("--install", package("camgate"))
    assert "it cannot run: the camera's firmware lacks" in said and "libcamera_platform.so" in said
    assert not camera.processes()
    # The firmware's own, as plain file of no package.
    library = package("camgate").parent / "lib/libcamera_platform.so"
    (camera.root / _LIBRARY[1:]).write_bytes(library.read_bytes())
    camera.run("/etc/init.d/camgate start")
    camera.wait_serving()
    expect_answer(camera)
