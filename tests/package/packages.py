"""The packages that scripts/package left in the build folder."""

from __future__ import annotations

import subprocess
from pathlib import Path

from simulator import build_folder


def package(name: str, folder: Path | None = None) -> Path:
    """The one package of this name in the build folder (or another one)."""
    found = sorted((folder or build_folder()).glob(f"{name}_*.deb"))
    assert len(found) == 1, f"{name}: {found or 'no package'}; scripts/package builds them"
    return found[0]


def field(path: Path, name: str) -> str:
    """A field of the package's description of itself."""
    return subprocess.run(["dpkg-deb", "--field", str(path), name], stdout=subprocess.PIPE, text=True,
                          check=True).stdout.strip()


def unpacked(path: Path, folder: Path) -> Path:
    """The package's files, with what manages them in DEBIAN, in a new folder."""
    subprocess.run(["dpkg-deb", "--raw-extract", str(path), str(folder)], check=True)
    return folder


def listing(path: Path) -> dict[str, tuple[str, str]]:
    """Mode and owner of every file and folder in the package, for example ("-rwxr-xr-x", "root/root")."""
    text = subprocess.run(["dpkg-deb", "--contents", str(path)], env={"PATH": "/usr/bin:/bin", "LC_ALL": "C"},
                          stdout=subprocess.PIPE, text=True, check=True).stdout
    words = [line.split(maxsplit=5) for line in text.splitlines()]
    return {word[5].split(" -> ")[0].removeprefix("."): (word[0], word[1]) for word in words}


def with_version(path: Path, version: str, folder: Path) -> Path:
    """The same package with another version."""
    tree = unpacked(path, folder / "tree")
    control = tree / "DEBIAN/control"
    lines = [f"Version: {version}" if line.startswith("Version:") else line
             for line in control.read_text().splitlines()]
    control.write_text("\n".join(lines) + "\n")
    made = folder / f"camgate_{version}.deb"
    subprocess.run(["dpkg-deb", "--root-owner-group", "--build", str(tree), str(made)], check=True,
                   stdout=subprocess.DEVNULL)
    return made
