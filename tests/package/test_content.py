"""What is in the packages, and what is not. CAMGATE_BUILD names the build folder that holds them."""

from __future__ import annotations

import gzip
import json
import platform
import re
import subprocess
from pathlib import Path

import elf
import pytest
from packages import field, listing, package, unpacked

from simulator.device.service import version_of

ROOT = Path(__file__).resolve().parents[2]
NAMES = ("camgate", "camgate-simulator")
FOLDER, FILE, PROGRAM = "drwxr-xr-x", "-rw-r--r--", "-rwxr-xr-x"
# Of what the package that is built here is to depend on, in each release.
OF_RELEASE = {
    "bookworm": ("libpocofoundation80 (>= 1.11.0)", "libpoconetssl80 (>= 1.11.0)", "libssl3 (>=", "libsafec3",
                 "libc6 ("),
    "trixie": ("libpocofoundation100 (>= 1.13.0)", "libpoconetssl100 (>= 1.13.0)", "libssl3t64 (>=", "libsafec3t64",
               "libc6 (")}
CAMGATE = {
    "/etc/init.d/camgate": PROGRAM,
    "/lib/systemd/system/camgate.service": FILE,
    "/usr/sbin/protocol_process": PROGRAM,
    "/usr/share/doc/camgate/camera.md": FILE,
    "/usr/share/doc/camgate/changelog.gz": FILE,
    "/usr/share/doc/camgate/copyright": FILE,
    "/usr/share/doc/camgate/messages.md": FILE,
    "/usr/share/man/man8/protocol_process.8.gz": FILE,
}


@pytest.fixture(params=NAMES)
def tree(request: pytest.FixtureRequest, tmp_path: Path) -> Path:
    """One of the packages, unpacked."""
    return unpacked(package(request.param), tmp_path / request.param)


def _binaries(tree: Path) -> list[Path]:
    return [path for path in tree.rglob("*") if path.is_file() and not path.is_symlink() and elf.is_elf(path)]


def test_the_camera_gets_the_service_and_nothing_else() -> None:
    files = {path: mode for path, (mode, _) in listing(package("camgate")).items() if not path.endswith("/")}
    assert files == CAMGATE


@pytest.mark.parametrize("name", NAMES)
def test_everything_is_roots_and_nobody_else_may_change_it(name: str) -> None:
    for path, (mode, owner) in listing(package(name)).items():
        assert owner == "root/root", path
        assert mode in (FOLDER, FILE, PROGRAM) or mode.startswith("l"), path
        assert path.endswith("/") == (mode == FOLDER), path


def test_integrators_get_stand_ins_reader_and_simulator() -> None:
    files = listing(package("camgate-simulator"))
    folder = "/usr/lib/camgate/simulator/"
    modules = {str(path.relative_to(ROOT / "simulator")) for path in (ROOT / "simulator").rglob("*")
               if path.is_file() and path.name != "README.md" and path.parent.name != "__pycache__"}
    assert {path.removeprefix(folder) for path in files
            if path.startswith(folder) and not path.endswith("/")} == modules
    assert {"/usr/bin/ringbuf_cat", "/usr/lib/camgate/lib/libcamera_devices.so"} <= set(files)
    assert [path for path in files if re.fullmatch(r"/usr/lib/[a-z0-9_]+-linux-gnu\w*/libcamera_platform\.so", path)]
    assert ("/usr/bin/camsim" in files) == (ROOT / "simulator" / "camsim").exists()
    assert not set(files) & set(CAMGATE)


def test_integrators_get_the_contracts() -> None:
    folder = "/usr/lib/camgate/contracts/"
    files = listing(package("camgate-simulator"))
    assert {path.removeprefix(folder) for path in files if path.startswith(folder)} - {""} == {
        path.name for path in (ROOT / "contracts").iterdir()}
    assert "/usr/include/camgate_messages.h" in files


def test_links_lead_to_files_of_the_packages(tmp_path: Path) -> None:
    for name in NAMES:
        subprocess.run(["dpkg-deb", "--extract", str(package(name)), str(tmp_path)], check=True)
    links = [path for path in tmp_path.rglob("*") if path.is_symlink()]
    assert len(links) >= 3
    for link in links:
        assert tmp_path in link.resolve(strict=True).parents, link


def test_binaries_are_stripped_and_look_for_libraries_where_the_system_does(tree: Path) -> None:
    binaries = _binaries(tree)
    assert binaries
    for binary in binaries:
        assert not elf.sections(binary) & {".symtab", ".debug_info", ".debug_line"}, binary
        assert not elf.dynamic(binary, "RUNPATH") + elf.dynamic(binary, "RPATH"), binary


def test_the_service_takes_the_platform_library_from_the_camera(tmp_path: Path) -> None:
    service = unpacked(package("camgate"), tmp_path / "tree") / "usr/sbin/protocol_process"
    assert "libcamera_platform.so" in elf.dynamic(service, "NEEDED")
    assert field(package("camgate"), "Recommends") == "camgate-platform"
    assert field(package("camgate-simulator"), "Provides") == "camgate-platform"


def test_the_service_says_its_version_also_without_its_package(tmp_path: Path) -> None:
    service = unpacked(package("camgate"), tmp_path / "tree") / "usr/sbin/protocol_process"
    version = field(package("camgate"), "Version")
    assert json.loads(elf.metadata(service)) == {"type": "deb", "name": "camgate", "version": version}
    said = subprocess.run(["strings", str(service)], stdout=subprocess.PIPE, text=True, check=True).stdout
    assert elf.metadata(service) in said.splitlines()
    assert version_of(service) == version


@pytest.mark.parametrize("name", NAMES)
def test_no_byte_names_the_folders_of_the_build(name: str, tmp_path: Path) -> None:
    cache = subprocess.run([str(ROOT / "scripts/armhf-root"), "--path"], stdout=subprocess.PIPE, text=True,
                           check=True).stdout.strip()
    forbidden = [str(folder).encode() for folder in (ROOT, Path(cache).parent, Path.home() / ".cache")]
    for path in unpacked(package(name), tmp_path / "tree").rglob("*"):
        if path.is_file() and not path.is_symlink():
            content = path.read_bytes()
            assert not [folder for folder in forbidden if folder in content], path


def test_a_program_depends_on_the_packages_of_its_libraries() -> None:
    depends = field(package("camgate"), "Depends")
    if field(package("camgate"), "Architecture") == "armhf":
        wanted = ("libc6 (>= 2.31)", "libpocofoundation70 (>= 1.10.0)", "libpocojson70 (>= 1.10.0)",
                  "libpoconet70 (>= 1.10.0)", "libpoconetssl70 (>= 1.10.0)", "libpocoutil70 (>= 1.10.0)",
                  "libsafec-3.5-3 (>= 3.5)", "libstdc++6", "libgcc-s1")
    else:
        wanted = OF_RELEASE[platform.freedesktop_os_release()["VERSION_CODENAME"]]
    assert not [one for one in wanted if one not in depends], depends
    assert "camera" not in depends and "platform" not in depends


def test_documents_are_those_of_a_debian_package(tree: Path) -> None:
    documents = tree / "usr/share/doc" / tree.name
    assert "License:" in (documents / "copyright").read_text()
    packed = (documents / "changelog.gz").read_bytes()
    for path in tree.rglob("*.gz"):
        assert path.read_bytes()[4:8] == b"\0\0\0\0", f"the time of packing is in {path}"
    newest = gzip.decompress(packed).decode().splitlines()[0]
    assert newest.startswith(f"camgate ({field(package(tree.name), 'Version')})")


def test_what_an_administrator_changes_is_kept(tmp_path: Path) -> None:
    tree = unpacked(package("camgate"), tmp_path / "tree")
    settings = [f"/{path.relative_to(tree)}" for path in (tree / "etc").rglob("*") if path.is_file()]
    assert (tree / "DEBIAN/conffiles").read_text().split() == settings


def test_sums_are_those_of_the_files(tree: Path) -> None:
    checked = subprocess.run(["md5sum", "--check", "--quiet", "DEBIAN/md5sums"], cwd=tree, check=False,
                             capture_output=True, text=True)
    assert checked.returncode == 0, checked.stdout + checked.stderr
    lines = (tree / "DEBIAN/md5sums").read_text().splitlines()
    files = [path for path in tree.rglob("*") if path.is_file() and not path.is_symlink()]
    assert len(lines) == len([path for path in files if path.parent.name != "DEBIAN"])


@pytest.mark.parametrize("name", NAMES)
def test_installed_size_counts_each_file_and_nothing_of_this_file_system(name: str) -> None:
    """In whole KiB; a folder or a link counts as one, however large it is here."""
    entries = subprocess.run(["dpkg-deb", "--contents", str(package(name))], stdout=subprocess.PIPE, text=True,
                             check=True).stdout.splitlines()
    sizes = [-(-int(line.split()[2]) // 1024) if line.startswith("-") else 1 for line in entries]
    assert field(package(name), "Installed-Size") == str(sum(sizes) - 1), "all but the root itself"
