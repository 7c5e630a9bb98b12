"""What several test files share: names of log sources, waits, and small programs in C."""

from __future__ import annotations

import os
import subprocess
import sys
import threading
import time
from collections.abc import Callable
from datetime import datetime
from importlib.machinery import SourceFileLoader
from importlib.util import module_from_spec, spec_from_loader
from pathlib import Path
from types import ModuleType
from typing import Any

from simulator import Camera, Event, LogRecord, build_folder, wire
from simulator.device import emulator, process_status
from simulator.device.service import sanitizer_runtimes

_COMMAND_SIDE = "media_server/IPCService/ProtocolProcess/Custom_SubSystem/"
SUBSYSTEM = _COMMAND_SIDE + "Custom_SubSystem"
LOOP = _COMMAND_SIDE + "Custom_JsonMsgLoop"
TASK = _COMMAND_SIDE + "Custom_JsonPicDownloadTask"
DOWNLOAD = _COMMAND_SIDE + "Custom_DownloadPictureProcObj"
HTTP = _COMMAND_SIDE + "Custom_HttpParam"
PROCESS = "media_server/IPCService/ProtocolProcess/Public/Public_SubProcess"
TRANSMITTER = "media_server/IPCService/Public/IPCUnixTransmitter"
EVENT_CACHE = "public/utils/alg_utils/utils_srvfs_eventcache"
RING_BUFFER = "public/utils/alg_utils/utils_process_ringbuf"

# Seconds after which a wait for what surely comes has failed: no machine is so slow.
DEADLINE = 120.0
# What every small program in C begins with.
_PRELUDE = "#define _GNU_SOURCE\n" + "".join(f"#include <{name}.h>\n" for name in (
    "arpa/inet", "dlfcn", "errno", "fcntl", "netdb", "netinet/in", "netinet/tcp", "pthread", "signal", "stdarg",
    "stddef", "stdio", "stdlib", "string", "sys/mman", "sys/resource", "sys/socket", "sys/syscall", "sys/un",
    "unistd")) + """
// The function that this one stands before.
#define NEXT(name) ((__typeof__(name)*)dlsym(RTLD_NEXT, #name))
"""
# The fixtures start_camera and with_library.
StartCamera = Callable[..., Camera]

# A platform library's function for log records begins so; it has the record's text in `text`.
WRITE_LOG = r"""
void QL_WriteLog(int module, int level, int debugFlag, int reserved, const char* path, int line, const char* format,
                 ...) {
    char text[4096];
    va_list arguments;
    va_start(arguments, format);
    vsnprintf(text, sizeof text, format, arguments);
    va_end(arguments);
"""

# Seconds that a stop may take: about one, and some more.
STOP_SECONDS = 3.0
# Where pages are written, and the first one's file.
FOLDER = "/tmp/mmcblk0/face_basic/faceLib"
PAGE = f"{FOLDER}/white0"
BEGIN = "CustomJsonPicDownloadTask Begin "
END = "CustomJsonPicDownloadTask End "


def page_starts(faces: int) -> list[int]:
    """The first record of each page of a download: a page has 30 at most."""
    return list(range(0, faces, 30))


def sanitized() -> bool:
    """True for a service built with a sanitizer, whose memory says nothing about the service's own."""
    return bool(sanitizer_runtimes(build_folder() / "bin" / "protocol_process"))


def emulated() -> bool:
    """True for a service for 32-bit ARM on a machine that is none."""
    return emulator.is_foreign(build_folder() / "bin" / "protocol_process")


def slowness() -> float:
    """How many times longer everything takes on this machine now, at least 1: processes ready to run, a processor.

    Of now and of the last minute the worse: what was slow is looked at when it is over.
    """
    words = Path("/proc/loadavg").read_text().split()
    return max(1.0, max(float(words[0]), float(words[3].split("/")[0])) / (os.cpu_count() or 1))


def at_most(seconds: float) -> float:
    """How long may be taken, on this machine and by this build, for what takes so long on an idle one at most."""
    return seconds * slowness() * (4.0 if sanitized() or emulated() else 1.0)


def memory_limit(kilobytes: int, with_sanitizers: int) -> int:
    """How much memory may be, or may have come: sanitizers keep freed memory back, emulators what they translated."""
    return with_sanitizers if sanitized() else kilobytes + (8_000 if emulated() else 0)


def expect_log(camera: Camera, level: str, path: str, text: str, line: int | None = None, since: int = 0,
               timeout: float = 10.0) -> LogRecord:
    """Waits for the first record with exactly this text and holds its level, source path and source line against it."""
    record = camera.wait_for_log(lambda record: record.text == text, timeout, since)
    assert (record.level, record.path) == (level, path)
    assert line is None or record.line == line
    return record


def records(camera: Camera, path: str | None = None) -> list[LogRecord]:
    """The log so far, or that of one source path. A reply overtakes its own record: that is waited for."""
    camera.wait_until(lambda: sum(record.text.startswith("SendJsonMsg head") for record in camera.service.log)
                      >= len(camera.client.replies))
    return [record for record in camera.service.log if path in (None, record.path)]


def texts(camera: Camera, path: str | None = None) -> list[str]:
    """The texts of the log so far, or of one source path."""
    return [record.text for record in records(camera, path)]


def count_text(camera: Camera, text: str) -> int:
    return texts(camera).count(text)


def start_download(camera: Camera, faces: int = 1, **changes: object) -> None:
    assert camera.client.command("whiteListDown", camera.platform.task(faces, **changes)).status == 200


def start_polling(camera: Camera, faces: int = 1) -> None:
    """A download that has asked once how far its import is; the second answer will be that it is done."""
    camera.itgt.not_ready_answers = 1
    start_download(camera, faces)
    camera.wait_for_log("Not Ready, try ")


def download(camera: Camera, faces: int = 1, timeout: float = 15.0, **changes: object) -> None:
    """Runs one whiteListDown from the command to the end of its task."""
    begin = len(camera.journal)
    start_download(camera, faces, **changes)
    wait_end(camera, begin, timeout)


def wait_end(camera: Camera, since: int = 0, timeout: float = 15.0) -> None:
    """Waits until a download's task has ended."""
    expect_log(camera, "INFO", TASK, END, since=since, timeout=timeout)


def expect_working(camera: Camera) -> None:
    """The service takes a good command as if nothing had happened before."""
    assert camera.client.command("faceNotHitDown", {"still": "there"}).status == 200


def written(record: LogRecord) -> float:
    """When the service wrote a record, in seconds: however late it was read, the time between two is the service's."""
    return datetime.fromisoformat(record.time).timestamp()


def received(camera: Camera, source: str, command: int, since: int = 0, timeout: float = 10.0) -> Event:
    """Waits until a peer ("itgt", "faces") has received a request with this command."""
    return camera.wait_for(lambda event: event.matches(source, "received", command=command), timeout, since)


def at_request(peer: Any, command: int, action: Callable[[wire.Message], object]) -> None:
    """Has the action done with each request of this command, before the peer replies."""
    def hook(message: wire.Message, default: Callable[[], object]) -> object:
        if message.command == command:
            action(message)
        return default()
    peer.on_message = hook


def expect_unsent(camera: Camera) -> None:
    """A request that could not be sent is logged, and only the first time."""
    record = camera.wait_for_log("sendTo fail:")
    assert (record.level, record.path, record.text[-1]) == ("ERROR", TRANSMITTER, ".")
    assert sum(text.startswith("sendTo fail:") for text in texts(camera)) == 1


def wait_stopped(camera: Camera, number: int, timeout: float = STOP_SECONDS) -> int:
    """Sends a stop signal and waits for the end; returns the exit code."""
    camera.service.send_signal(number)
    return camera.service.wait(timeout)


def poll_until(condition: Callable[[], bool], seconds: float = 20.0) -> None:
    """Waits for what no event tells of, such as the state of a process."""
    begin = time.monotonic()
    while not condition():
        assert time.monotonic() < begin + seconds or time.monotonic() < begin + at_most(seconds), "not seen in time"
        threading.Event().wait(0.002)  # pause: nothing tells of it, so it is looked at again


def status_field(camera: Camera, name: str) -> str:
    """A field of the service's /proc/PID/status."""
    return process_status.status_field(camera.service.pid, name)


def kilobytes(camera: Camera, name: str) -> int:
    """A memory field of the service's /proc/PID/status."""
    return process_status.kilobytes(camera.service.pid, name)


def descriptors(camera: Camera) -> int:
    return process_status.descriptors(camera.service.pid)


def threads(camera: Camera) -> int:
    return process_status.threads(camera.service.pid)


def compiled(folder: Path, source: str) -> Path:
    """A shared library made of C source, to preload into the service or to put in a library's place.

    The source needs no #include; NEXT(name) in a function of that name is the one that it stands before.
    """
    path = folder / "lib.c"
    path.write_text(_PRELUDE + source)
    library = folder / "libtest.so"
    compiler = emulator.compiler(build_folder() / "bin" / "protocol_process")
    made = subprocess.run([compiler, "-shared", "-fPIC", "-O1", "-Wall", "-Werror", "-o", str(library), str(path)],
                          capture_output=True, text=True, check=False)
    assert made.returncode == 0, made.stderr
    return library


def script(name: str) -> ModuleType:
    """The program scripts/NAME as a module; as its name has no ending, it cannot be imported."""
    loader = SourceFileLoader(name, str(Path(__file__).resolve().parents[1] / "scripts" / name))
    spec = spec_from_loader(name, loader)
    assert spec is not None
    module = module_from_spec(spec)
    sys.modules[name] = module  # where its dataclasses look
    loader.exec_module(module)
    return module
