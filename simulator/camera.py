"""The whole simulated camera around one running service."""

from __future__ import annotations

import contextlib
import os
import re
from collections.abc import Callable, Mapping, Sequence
from pathlib import Path
from types import TracebackType
from typing import Any, TypeVar

from simulator.device import emulator
from simulator.device.machine import machine as booted
from simulator.device.machine.booted_service import BootedService
from simulator.device.sandbox import Sandbox
from simulator.device.service import Service, sanitizer_runtimes, version_of
from simulator.errors import CameraError
from simulator.journal import Event, Journal
from simulator.messages import wire
from simulator.messages.log import LogRecord, ends_download
from simulator.peers.client import Client
from simulator.peers.events import EventPublisher
from simulator.peers.face_library import FaceLibrary
from simulator.peers.itgt import Itgt
from simulator.peers.platform import Platform
from simulator.trace.recording import Recorder

T = TypeVar("T")

RING_BUFFER = "metadata_servfile26214"
# The last thing that the service logs when it starts.
_SERVING = "waitForTerminationRequest sucess!"
# Emulated and instrumented code takes several times as long.
_SLOW_PATIENCE = 4.0


def build_folder() -> Path:
    """The folder with bin/protocol_process and lib/libcamera_devices.so.

    $CAMGATE_BUILD; where this package is installed beside them, the folder that holds all three; else build/host.
    """
    around = Path(__file__).resolve().parent.parent
    installed = (around / "bin" / "protocol_process").exists()
    return Path(os.environ.get("CAMGATE_BUILD") or (around if installed else around / "build" / "host")).resolve()


class Camera:
    """A camera with all its processes; `with Camera() as camera:` starts it, and leaves nothing behind.

    Leaving the block raises CameraError if a hook or script raised an exception meanwhile.

    service    path of the binary; default: the one of build_folder()
    preload    libraries to preload; default: the one that plays the device nodes. Sanitizer runtimes that the binary
               needs come before them by themselves.
    libraries  folders to search for libraries before the binary's own, to put another platform library in place
    environment  further variables for the service
    marker     whether ITGT's readiness marker exists from the start
    itgt, faces, client, events  whether that process runs from the start (its start() brings it up later)
    start      whether to start the service at once; else start_service() does
    platform   what makes the platform of the camera's journal: a Platform, or what stands in its place (Gateway, Relay)
    filtered   whether system calls are filtered as on the camera; tools that look into the service need others
    wait       whether starting waits until the service takes commands; without a marker it never does
    recording  file to record the run in (see trace/recording.py)
    bodies     whether the recording keeps bodies and files beyond 4 KiB, which pages are
    machine    what makes a machine of its own for the camera, from names of this side; None: a sandbox of this one.
               There the service is the one of its packages, and what is said of the sandbox's is of no use

    Attributes: journal, sandbox, itgt, faces, client, events, platform, service.
    Must be entered on a thread that lives as long as the camera.
    """

    def __init__(self, *, service: Path | None = None, preload: Sequence[Path] | None = None,
                 libraries: Sequence[Path] = (), environment: Mapping[str, str] | None = None, marker: bool = True,
                 itgt: bool = True, faces: bool = True, client: bool = True, events: bool = True, start: bool = True,
                 wait: bool = True, filtered: bool = True, platform: Callable[[Journal], Any] = Platform,
                 recording: Path | None = None, bodies: bool = True,
                 machine: Callable[[Sequence[str]], booted.Machine] | None = None) -> None:
        build = booted.build_folder() if machine else build_folder()
        if preload is None:
            preload = [build / "lib" / "libcamera_devices.so"]
        binary = service or build / "bin" / "protocol_process"
        how = "; ./demo builds it" + " when CAMGATE_BUILD is not set" * ("CAMGATE_BUILD" in os.environ)
        for path in (binary, *preload):
            if not path.exists():
                raise CameraError(f"{path} is missing" + ("" if path == service else how))
        self._marker = marker
        self._start = start
        self._wait = wait and marker
        self.journal = Journal()
        self.platform = platform(self.journal)
        if machine and self.platform.host == Platform.host:
            self.platform.host = booted.HOST
        self.sandbox = machine([self.platform.host]) if machine else Sandbox([self.platform.host])
        self._recorder = None
        if recording:
            self._recorder = Recorder(self.journal, recording, self.path, {
                "build": build.name, "version": version_of(binary.resolve())}, bodies)
        self.itgt = Itgt(self.journal, self.sandbox.folder)
        self.faces = FaceLibrary(self.journal, self.sandbox.folder)
        self.client = Client(self.journal, self.sandbox.folder)
        self.events = EventPublisher(self.journal, self.path("/tmp/.camera/event"), self.path("/tmp/.camera/cache"))
        self._parts = [part for part, wanted in ((self.itgt, itgt), (self.faces, faces), (self.client, client),
                                                 (self.events, events)) if wanted]
        self.service: Service
        if isinstance(self.sandbox, booted.Machine):
            self.service = BootedService(self.journal, self.sandbox, binary, ports=self.platform.ports,
                                         full_port=self.platform.full_port)
        else:
            self.service = Service(self.journal, self.sandbox, binary,
                                   preload=preload, libraries=libraries, environment=environment, filtered=filtered,
                                   ports=self.platform.ports, full_port=self.platform.full_port)
        if emulator.is_foreign(binary) or sanitizer_runtimes(binary):
            self.journal.patience = lambda: _SLOW_PATIENCE

    def __enter__(self) -> Camera:
        try:
            for part in self._parts:
                part.start()
            if self._marker:
                self.make_ready()
            if self._start:
                self.start_service(self._wait)
        except BaseException:
            self.close()
            raise
        return self

    def __exit__(self, kind: type[BaseException] | None, error: BaseException | None,
                 trace: TracebackType | None) -> None:
        self.close()
        failed = [str(event) for event in self.journal.events if event.kind == "hook_failed"]
        if failed and kind is None:
            raise CameraError("a hook or script of this camera failed: " + "; ".join(failed))

    def close(self) -> None:
        """Ends the service and every process of the camera and removes its folder. May be called twice."""
        try:
            if self._recorder and self.service.pid and self.service.exit_code is None:
                with contextlib.suppress(CameraError):  # a service that never came so far has no ring buffer
                    self.read_ring_buffer()
            self.service.stop()
        finally:
            for part in (self.platform, self.client, self.itgt, self.faces, self.events):
                part.stop()
            self.sandbox.remove()
            if self._recorder:
                self._recorder.close()

    def start_service(self, wait: bool = True) -> None:
        """Starts the service, again if it has ended; the platform gets the ports of its new network."""
        self.platform.stop()
        begin = len(self.journal)
        sockets = self.service.start()
        kept = 2 if self.platform.full_port else 0
        self.platform.start(sockets[:len(sockets) - kept], kept=sockets[len(sockets) - kept:])
        if wait:
            self.wait_serving(since=begin)

    def wait_serving(self, timeout: float = 20.0, since: int = 0) -> None:
        """Waits until the service has started and takes commands. Raises CameraError if it ended instead."""
        def started_or_ended(event: Event) -> bool:
            return event.matches("service", "ended") or (
                event.matches("service", "log") and _SERVING in event.record.text)
        event = self.journal.wait_for(started_or_ended, timeout, since)
        if event.kind == "ended":
            tail = self.service.stderr.decode("utf-8", "backslashreplace")[-3000:]
            raise CameraError(f"the service ended with code {event.exit_code} while it started"
                              + (f":\n{tail.strip()}" if tail.strip() else ", and said nothing"))

    def make_ready(self) -> None:
        """Creates ITGT's readiness marker."""
        self.path(wire.MARKER).touch()

    def path(self, path: str) -> Path:
        """Where a path of the camera below /tmp, /mnt or /dev/shm lies on this machine."""
        return self.sandbox.outside(path)

    def read_ring_buffer(self) -> list[str]:
        """Takes the unread records out of the ring buffer, as another process of the camera: text, one a record.

        Each is noted in the journal as "ring_record" with `text`. Raises CameraError if there is no reader.
        """
        result = self.sandbox.run([build_folder() / "bin" / "ringbuf_cat", RING_BUFFER])
        if result.returncode != 0:
            raise CameraError(f"ringbuf_cat: {result.stderr.decode('utf-8', 'backslashreplace').strip()}")
        records = result.stdout.decode("utf-8", "backslashreplace").split("\n")[:-1]
        for text in records:
            self.journal.add("service", "ring_record", text=text)
        return records

    def wait_download(self, timeout: float, since: int = 0) -> Event:
        """Waits for what ends a download: a record of the log, or the end of the service."""
        return self.journal.wait_for(
            lambda event: event.matches("service", "ended")
            or event.matches("service", "log") and ends_download(event.record.text), timeout, since)

    def report(self) -> str:
        """What a failed test should show: the service's output and the last events."""
        output = (self.service.stderr + self.service.stdout).decode("utf-8", "backslashreplace")
        events = "\n".join(str(event) for event in self.journal.events[-60:] if event.kind != "log")
        return f"--- output of the service\n{output}--- last events\n{events}\n"

    def wait_for(self, predicate: Callable[[Event], bool], timeout: float = 10.0, since: int = 0) -> Event:
        """The first event, past ones from position `since` on included, for which `predicate` is true."""
        return self.journal.wait_for(predicate, timeout, since)

    def wait_until(self, condition: Callable[[], T], timeout: float = 10.0) -> T:
        """The first true value of `condition()`, evaluated now and after every event."""
        return self.journal.wait_until(condition, timeout)

    def wait_for_log(self, wanted: str | re.Pattern[str] | Callable[[LogRecord], bool], timeout: float = 10.0,
                     since: int = 0) -> LogRecord:
        """The first log record whose text contains a string or matches a pattern, or that satisfies a predicate."""
        return self.service.wait_for_log(wanted, timeout, since)
