"""Finds what runs a binary for the camera's processor on a machine that has another one."""

from __future__ import annotations

import functools
import platform
import shutil
import subprocess
from pathlib import Path

from simulator.errors import CameraError

_ARM = 40  # e_machine of an ELF file for 32-bit ARM
_ROOT_SCRIPT = Path(__file__).parents[2] / "scripts" / "armhf-root"
_MAKE_ROOT = "scripts/bootstrap --armhf installs the emulator and the root that it needs"


def is_foreign(binary: Path) -> bool:
    """Whether the binary is for 32-bit ARM and this machine is not. A command without a folder is this machine's."""
    if not binary.is_file():
        return False
    with binary.open("rb") as stream:
        header = stream.read(20)
    return (header[:4] == b"\x7fELF" and int.from_bytes(header[18:20], "little") == _ARM
            and not platform.machine().startswith(("arm", "aarch64")))


@functools.lru_cache
def _emulator() -> tuple[str, Path]:
    """The emulator, and the folder of the processor's compiler ("bin") and libraries ("root")."""
    program = shutil.which("qemu-arm")
    if program is None:
        raise CameraError(f"qemu-arm is missing, and the binary is for 32-bit ARM; {_MAKE_ROOT}")
    answer = subprocess.run([str(_ROOT_SCRIPT), "--path"], stdout=subprocess.PIPE, text=True, check=True).stdout
    folder = Path(answer.strip())
    if not folder.is_dir():
        raise CameraError(f"{folder} is missing; {_MAKE_ROOT}")
    return program, folder


def needed_folders(binary: Path) -> list[Path]:
    """The folders that must be visible to the binary's process besides its own."""
    return [_emulator()[1] / "root"] if is_foreign(binary) else []


def compiler(binary: Path) -> str:
    """The C compiler that makes libraries for the binary."""
    return str(_emulator()[1] / "bin" / "gcc") if is_foreign(binary) else "gcc"


def process(binary: Path, environment: dict[str, str]) -> tuple[list[str], dict[str, str]]:
    """The words and the environment to start the binary with.

    What tells the dynamic linker to load libraries is for the binary alone, not for its emulator.
    """
    if not is_foreign(binary):
        return [str(binary)], environment
    program, folder = _emulator()
    words = [program, "-L", str(folder / "root")]
    for name in ("LD_PRELOAD", "LD_LIBRARY_PATH"):
        if name in environment:
            words += ["-E", f"{name}={environment[name]}"]
    return [*words, str(binary)], {name: value for name, value in environment.items() if not name.startswith("LD_")}
