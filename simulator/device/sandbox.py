"""A private camera around the service: own /tmp, /mnt, /dev, accounts and network, at the real paths."""

from __future__ import annotations

import atexit
import os
import re
import shutil
import subprocess
import tempfile
from collections.abc import Sequence
from pathlib import Path

from simulator.device import emulator, restrictions
from simulator.errors import CameraError

# The account that the service switches to, as root: any that is not root's.
_ACCOUNT_ID = 74
# Folders of this machine that the sandbox hides: behind the camera's own, and, as the init unit says, behind nothing.
_OWN = ("/tmp", "/mnt", "/dev")
# Where a service that was built for coverage adds its counts; outside it is $GCOV_PREFIX.
COUNTS = "/mnt/counts"
_EMPTY = ("/home", "/root", "/run/user", "/usr/lib/modules")


def _suppressions() -> list[Path]:
    """The files that the options of sanitizers name in the environment."""
    options = [value for name, value in os.environ.items() if name.endswith("SAN_OPTIONS")]
    return [Path(path) for value in options for path in re.findall(r"\bsuppressions=([^:\s]+)", value)]


class Sandbox:
    """Owns one camera's private folder and knows how to run a program inside the sandbox.

    hosts  further names of the sandbox's own address

    The folder lies directly below /tmp, because paths of unix sockets are short. Everything written to the camera's
    /tmp, /mnt and /dev/shm can be seen and changed from outside through `outside`. Shared memory lies below this
    machine's /dev/shm: older C libraries want a file system in memory there.

    What of this machine can be seen and written to inside is what the init unit says.

    mounts  further arguments of bwrap, for example a small file system that only the service sees
    """

    def __init__(self, hosts: Sequence[str] = ()) -> None:
        if shutil.which("bwrap") is None:
            raise CameraError("bwrap is not installed; run scripts/bootstrap or: apt-get install bubblewrap")
        self.mounts: list[str] = []
        self.folder = Path(tempfile.mkdtemp(prefix="cam", dir="/tmp"))
        self._shared_memory = Path(tempfile.mkdtemp(prefix="cam", dir="/dev/shm"))
        self._shared_memory.chmod(0o777)
        atexit.register(self.remove)  # for an end before the camera was closed
        for name in ("tmp", "tmp/.camera", "tmp/mmcblk0", "tmp/mmcblk0/face_basic", "mnt", "mnt/srvfs", "dev"):
            self._make_folder(name)
        if "GCOV_PREFIX" in os.environ:
            self._make_folder(COUNTS.lstrip("/"))
        (self.folder / "dev/shm").symlink_to(self._shared_memory)
        self._write_accounts()
        names = " ".join(dict.fromkeys(["localhost", *hosts]))
        (self.folder / "etc/hosts").write_text(f"127.0.0.1 {names}\n::1 {names}\n")

    def outside(self, path: str) -> Path:
        """Where a path of the camera below /tmp, /mnt or /dev/shm lies on this machine."""
        return self.folder / path.lstrip("/")

    def command(self, visible: Sequence[Path] = ()) -> list[str]:
        """The command line to put before a program and its arguments.

        `visible` names files or folders that the program needs even if they lie below /tmp, /mnt or /dev here.
        """
        arguments = ["bwrap", "--die-with-parent", "--unshare-net", "--unshare-pid", "--unshare-ipc", "--unshare-uts",
                     "--ro-bind", "/", "/", "--dev", "/dev", "--proc", "/proc"]
        for name in _EMPTY:
            arguments += ["--tmpfs", name] * Path(name).is_dir()
        arguments += ["--bind", str((self.folder / "dev/shm").resolve()), "/dev/shm"]
        arguments += self._camera_folders()
        for name in ("etc/passwd", "etc/group", "etc/hosts", "etc/nsswitch.conf"):
            arguments += ["--ro-bind", str(self.folder / name), f"/{name}"] * Path(f"/{name}").exists()
        for path in dict.fromkeys(path.resolve() for path in (*visible, *_suppressions())):
            if str(path).startswith(tuple(f"{hidden}/" for hidden in (*_OWN, *_EMPTY))):
                arguments += ["--ro-bind", str(path), str(path)]
        return [*arguments, *self.mounts, "--chdir", "/", "--"]

    def run(self, program: Sequence[str | Path], timeout: float = 60.0) -> subprocess.CompletedProcess[bytes]:
        """Runs another program of the camera to its end, for example a reader of the ring buffer."""
        binary = Path(program[0])
        words, _ = emulator.process(binary, {})
        visible = [binary.parent.parent, binary.parent, *emulator.needed_folders(binary)]
        command = [*self.command(visible), *words, *map(str, program[1:])]
        return subprocess.run(command, stdin=subprocess.DEVNULL, capture_output=True, timeout=timeout, check=False)

    def remove(self) -> None:
        for folder in (self.folder, self._shared_memory):
            shutil.rmtree(folder, ignore_errors=True)
        atexit.unregister(self.remove)

    def _camera_folders(self) -> list[str]:
        """Of /tmp and /mnt, what the init unit names can be written to, and the rest only read."""
        writable = [path for path in restrictions.writable_paths() if self.outside(path).exists()]
        arguments: list[str] = []
        for kind, paths in (("--ro-bind", ["/tmp", "/mnt"]), ("--bind", writable)):
            for path in paths:
                arguments += [kind, str(self.outside(path)), path]
        if counts := os.environ.get("GCOV_PREFIX"):
            arguments += ["--bind", counts, COUNTS]
        return arguments

    def _make_folder(self, name: str) -> None:
        folder = self.folder / name
        folder.mkdir(parents=True, exist_ok=True)
        folder.chmod(0o777)

    def _write_accounts(self) -> None:
        """As root the account is a real other one; else it is the own, the only one that can be switched to."""
        uid, gid = (_ACCOUNT_ID, _ACCOUNT_ID) if os.geteuid() == 0 else (os.getuid(), os.getgid())
        folder = self.folder / "etc"
        folder.mkdir()
        (folder / "passwd").write_text("root:x:0:0:root:/root:/bin/sh\n"
                                       f"sshd:x:{uid}:{gid}:sshd:/tmp:/usr/sbin/nologin\n")
        (folder / "group").write_text(f"root:x:0:\nsshd:x:{gid}:\n")
        # Not the modules that this machine asks besides, which no camera has and which take time to load.
        (folder / "nsswitch.conf").write_text("passwd: files\ngroup: files\nhosts: files dns\n")
