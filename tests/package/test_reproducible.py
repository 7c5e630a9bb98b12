"""The same sources, built in another folder by another user's settings, give the same bytes."""

from __future__ import annotations

import fcntl
import os
import shutil
import subprocess
from pathlib import Path

import pytest
from packages import package

from simulator import build_folder
from simulator.device import emulator

ROOT = Path(__file__).resolve().parents[2]
pytestmark = pytest.mark.timeout(600)  # it builds the service
PRESET = "armhf" if emulator.is_foreign(build_folder() / "bin/protocol_process") else "host"
BINARIES = ("bin/protocol_process", "bin/ringbuf_cat", "lib/libcamera_platform.so", "lib/libcamera_devices.so")


def build_packages(folder: Path, **environment: str) -> Path:
    """Builds the packages of the sources in `folder`; returns the build folder."""
    made = subprocess.run([str(folder / "scripts/package"), PRESET], env={**os.environ, **environment}, cwd="/",
                          capture_output=True, text=True, check=False)
    assert made.returncode == 0, made.stderr
    return folder / "build" / PRESET


def time_of_commit() -> dict[str, str]:
    """For a copy, which is no checkout: the time that a build of the commit takes."""
    answer = subprocess.run(["git", "-c", "safe.directory=*", "-C", str(ROOT), "log", "-1", "--format=%ct"],
                            capture_output=True, text=True, check=False)
    return {"SOURCE_DATE_EPOCH": answer.stdout.strip()} if answer.returncode == 0 else {}


def build_elsewhere(folder: Path) -> Path:
    """The build folder of a copy of the sources in another place, with another user's settings."""
    other = folder / "a_folder_with_a_much_longer_name_than_that_of_the_first_one"
    shutil.copytree(ROOT, other, symlinks=True, ignore=shutil.ignore_patterns("build", ".git", "__pycache__"))
    environment = {"TZ": "Pacific/Chatham", "LC_ALL": "C", **time_of_commit()}
    if PRESET == "armhf":
        # Another user has the compiler in another folder.
        answer = subprocess.run([str(ROOT / "scripts/armhf-root"), "--path"], stdout=subprocess.PIPE, text=True,
                                check=True).stdout
        cache = folder / "cache"
        (cache / "camgate").mkdir(parents=True)
        subprocess.run(["cp", "-a", answer.strip(), str(cache / "camgate")], check=True)
        environment["XDG_CACHE_HOME"] = str(cache)
    before = os.umask(0o077)
    try:
        return build_packages(other, **environment)
    finally:
        os.umask(before)


def keep(build: Path, folder: Path) -> None:
    """Copies what is compared out of a build folder, which others may build in by then."""
    for name in BINARIES:
        (folder / name).parent.mkdir(parents=True, exist_ok=True)
        shutil.copy2(build / name, folder / name)
    for path in build.glob("*.deb"):
        shutil.copy2(path, folder)


@pytest.fixture(scope="session")
def builds(tmp_path_factory: pytest.TempPathFactory) -> tuple[Path, Path]:
    """What was built in two places: once, by the first of the processes that share the tests."""
    own = tmp_path_factory.getbasetemp()
    shared = (own.parent if "PYTEST_XDIST_WORKER" in os.environ else own) / "reproducible"
    shared.mkdir(exist_ok=True)
    first, second, done = shared / "first", shared / "second", shared / "done"
    with (shared / "lock").open("w") as lock:
        fcntl.flock(lock, fcntl.LOCK_EX)
        if not done.exists():
            keep(build_elsewhere(tmp_path_factory.mktemp("other")), second)
            keep(build_packages(ROOT), first)
            done.touch()
    return first, second


@pytest.mark.parametrize("name", ["camgate", "camgate-simulator"])
def test_packages_are_the_same(builds: tuple[Path, Path], name: str) -> None:
    first, second = (package(name, build) for build in builds)
    assert first.read_bytes() == second.read_bytes(), f"diffoscope {first} {second}"


@pytest.mark.parametrize("name", BINARIES)
def test_binaries_are_the_same_before_they_are_stripped(builds: tuple[Path, Path], name: str) -> None:
    first, second = (without_file_names(build / name) for build in builds)
    assert first == second


def without_file_names(binary: Path) -> bytes:
    """The binary as it is, with all that debuggers want; for ARM without the symbols, which name the start files."""
    if PRESET == "host":
        return binary.read_bytes()
    stripped = binary.with_name(f"{binary.name}.compared")
    answer = subprocess.run([str(ROOT / "scripts/armhf-root"), "--path"], stdout=subprocess.PIPE, text=True, check=True)
    subprocess.run([f"{answer.stdout.strip()}/bin/objcopy", "--wildcard", "--strip-symbol=*", str(binary),
                    str(stripped)], check=True)
    try:
        return stripped.read_bytes()
    finally:
        stripped.unlink()
