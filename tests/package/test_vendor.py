"""A build against a vendor's POCO and platform libraries, as docs/camera.md tells it, in place of Debian's and ours."""

from __future__ import annotations

import re
import subprocess
from pathlib import Path

import elf
import pytest
from packages import field, package

from simulator import Camera, build_folder
from simulator.device import emulator

ROOT = Path(__file__).resolve().parents[2]
pytestmark = pytest.mark.timeout(600)  # it builds the service
SERVICE = build_folder() / "bin/protocol_process"
COMPILER = emulator.compiler(SERVICE)

_LOG = r"""
#include <stdarg.h>
#include <stdio.h>
#include <string.h>
void QL_WriteLog(int module, int level, int debugFlag, int reserved, const char* path, int line,
                 const char* format, ...)
{
    char text[4096];
    va_list arguments;
    va_start(arguments, format);
    vsnprintf(text, sizeof text, format, arguments);
    va_end(arguments);
    text[strcspn(text, "\n")] = 0;
    fprintf(stderr, "2000-01-01T00:00:00.000 VENDOR %s:%d %s\n", path, line, text);
    (void)module, (void)level, (void)debugFlag, (void)reserved;
}
"""
_SERVICES = r"""
#include <stdlib.h>
int QL_ChangeProcUser(const char* user) { return user == NULL; }
void* srvfs_calloc(size_t count, size_t size) { return calloc(count, size); }
int client_open(void* handle, const char* name, unsigned int size) { return !handle || !name || !size; }
int client_msgsend(void* handle, const void* data, unsigned int length, int flag)
{
    return !handle || !data || !length || !flag;
}
"""


def make_library(folder: Path, name: str, source: str) -> Path:
    library = folder / f"lib{name}.so"
    (folder / f"{name}.c").write_text(source)
    subprocess.run([COMPILER, "-shared", "-fPIC", "-O1", "-Wall", "-Werror", f"-Wl,-soname,{library.name}.2",
                    "-o", f"{library}.2", str(folder / f"{name}.c")], check=True)
    library.symlink_to(f"{library.name}.2")
    return library


def copy_poco(folder: Path) -> str:
    """Makes a POCO root whose libraries have a later number, as the camera's have. Returns the number."""
    needed = next(name for name in elf.dynamic(SERVICE, "NEEDED") if name.startswith("libPocoFoundation.so."))
    number = needed.rpartition(".")[2]
    later = str(int(number) + 1)
    system = next(iter(emulator.needed_folders(SERVICE)), Path("/")) / "usr"
    (folder / "lib").mkdir(parents=True)
    (folder / "include").mkdir()
    subprocess.run(["cp", "-rL", str(system / "include/Poco"), str(folder / "include")], check=True)
    names = re.compile(rb"(libPoco\w+\.so\.)" + number.encode() + rb"\0")
    for library in system.glob(f"lib/*/libPoco*.so.{number}"):
        made = folder / "lib" / f"{library.name.removesuffix(number)}{later}"
        made.write_bytes(names.sub(rb"\g<1>" + later.encode() + rb"\0", library.read_bytes()))
        made.with_name(library.name.removesuffix(f".{number}")).symlink_to(made.name)
    return later


@pytest.fixture(scope="module")
def vendor(tmp_path_factory: pytest.TempPathFactory) -> Path:
    """A folder with a vendor's POCO in "poco", its platform libraries in "lib", and a build against them in "build"."""
    folder = tmp_path_factory.mktemp("vendor")
    (folder / "lib").mkdir()
    libraries = [make_library(folder / "lib", name, source)
                 for name, source in (("vendor_log", _LOG), ("vendor_base", _SERVICES))]
    (folder / "number").write_text(copy_poco(folder / "poco"))
    options = [f"-DCAMGATE_POCO_ROOT={folder / 'poco'}",
               f"-DCAMGATE_PLATFORM_LIBRARIES={';'.join(map(str, libraries))}", "-DCMAKE_CXX_FLAGS_RELWITHDEBINFO=-O1"]
    preset = "armhf" if COMPILER != "gcc" else "host"
    build = folder / "build"
    run("cmake", "--preset", preset, "-B", str(build), "-DBUILD_TESTING=OFF", *options)
    run("cmake", "--build", str(build))
    run("cpack", "--config", str(build / "CPackConfig.cmake"), "-B", str(build))
    return folder


def run(*command: str) -> None:
    made = subprocess.run(command, cwd=ROOT, capture_output=True, text=True, check=False)
    assert made.returncode == 0, made.stdout[-3000:] + made.stderr[-3000:]


def test_the_service_is_linked_with_the_vendors_libraries(vendor: Path) -> None:
    number = (vendor / "number").read_text()
    needed = elf.dynamic(vendor / "build/bin/protocol_process", "NEEDED")
    assert {"libvendor_log.so.2", "libvendor_base.so.2", f"libPocoFoundation.so.{number}",
            f"libPocoNetSSL.so.{number}"} <= set(needed)
    assert "libcamera_platform.so" not in needed
    assert not [name for name in needed if name.startswith("libPoco") and not name.endswith(f".{number}")]


def test_its_package_leaves_the_vendors_libraries_to_the_firmware(vendor: Path) -> None:
    depends = field(package("camgate", vendor / "build"), "Depends")
    assert "libc6" in depends and "libssl" in depends
    assert "poco" not in depends and "vendor" not in depends


def test_it_runs_with_the_vendors_libraries(vendor: Path) -> None:
    service = vendor / "build/bin/protocol_process"
    with Camera(service=service, libraries=[vendor / "lib", vendor / "poco/lib"],
                preload=[build_folder() / "lib/libcamera_devices.so"]) as camera:
        assert camera.client.command("faceNotHitDown", {"still": "there"}).status == 200
        camera.wait_for_log(lambda record: record.level == "VENDOR" and "faceNotHitDown" in record.text)


def refused(vendor: Path, option: str) -> str:
    """What cmake says when it does not accept an option."""
    made = subprocess.run(["cmake", "--preset", "host", "-B", str(vendor / "refused"), option], cwd=ROOT,
                          capture_output=True, text=True, check=False)
    assert made.returncode != 0
    return " ".join(made.stderr.split())


def test_a_wrong_folder_is_named(vendor: Path) -> None:
    assert "there is no include/Poco/Foundation.h in it" in refused(vendor, f"-DCAMGATE_POCO_ROOT={vendor / 'lib'}")
    assert "names \"/none.so\", which is no file" in refused(vendor, "-DCAMGATE_PLATFORM_LIBRARIES=/none.so")
