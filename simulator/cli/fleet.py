"""Many cameras against one platform, and what the platform sees of them."""

from __future__ import annotations

import resource
import socket
import statistics
import time
from collections import Counter
from collections.abc import Callable, Sequence
from contextlib import ExitStack
from pathlib import Path
from types import SimpleNamespace
from typing import Any

from simulator.camera import Camera
from simulator.device.process_status import kilobytes, private_kilobytes
from simulator.errors import CameraError
from simulator.journal import Event, Journal
from simulator.messages.log import ends_download, fails_download
from simulator.messages.wire import PAGE_SIZE
from simulator.peers.platform import Platform

_DESCRIPTORS_PER_CAMERA = 24
_DESCRIPTORS_BESIDE = 100
_SAMPLE_SECONDS = 0.5


class _SharedPlatform:
    """Stands in each camera in the platform's place: gathers the sockets for the one platform that serves them all."""

    def __init__(self, platform: Platform, listeners: list[socket.socket]) -> None:
        self.full_port = 0
        self.ports = (platform.port,)
        self.host = platform.host
        self.task = platform.task
        self.reports = platform.reports
        self._listeners = listeners

    def start(self, listeners: Sequence[socket.socket], kept: Sequence[socket.socket] = ()) -> None:
        self._listeners += [*listeners, *kept]

    def stop(self) -> None:
        """The sockets are the platform's by now."""


class Fleet:
    """Brings cameras up one after the other, sends each its whiteListDown at its time, and measures.

    count    how many cameras
    faces    how many faces each of them fetches
    spread   seconds over which the commands are spread evenly; 0: all at once
    make     makes the platform for a camera's journal, when it is not the simulated one
    prepare  called with each camera before it starts

    `run` may be called once.
    """

    def __init__(self, count: int, faces: int | None, spread: float, service: Path | None = None,
                 make: Callable[[Journal], Any] | None = None,
                 prepare: Callable[[Any], None] = lambda subject: None) -> None:
        _raise_descriptor_limit(count)
        self.cameras: list[Camera] = []
        self._journal = Journal()
        self._platform = Platform(self._journal)
        self._listeners: list[socket.socket] = []
        self._played = make is None
        self._count, self._faces, self._spread, self._service = count, faces, spread, service
        self._make = make or (lambda journal: _SharedPlatform(self._platform, self._listeners))
        self._prepare = prepare
        self._sent: list[float] = []
        self._ended: dict[int, float] = {}
        self._failed: set[int] = set()
        self._memory: dict[int, int] = {}

    def run(self, seconds: float, tell: Callable[[str], None]) -> dict[str, Any]:
        """Runs all downloads, at most so many seconds; returns what was measured. `tell` hears how far it is."""
        with ExitStack() as stack:
            for number in range(self._count):
                camera = Camera(service=self._service, start=False, platform=self._make)
                stack.callback(camera.close)
                self._prepare(camera)
                self.cameras.append(stack.enter_context(camera))
                camera.journal.listen(lambda event, number=number: self._note(number, event))
                camera.start_service()
                if (number + 1) % 10 == 0:
                    tell(f"{number + 1} cameras are up")
            stack.callback(self._platform.stop)
            if self._played:
                self._prepare_platform()
            begin = time.monotonic()
            self._command(begin)
            self._wait(begin + self._spread + seconds, tell)
            return self._measured(begin, time.monotonic())

    def _prepare_platform(self) -> None:
        self._prepare(SimpleNamespace(platform=self._platform, itgt=SimpleNamespace()))
        total = self._platform.task(self._faces)["totalNum"]
        for start in range(0, total, PAGE_SIZE):  # making pictures up takes a while; a real platform has its own
            self._platform.page(start, min(PAGE_SIZE, total - start))
        self._platform.start(self._listeners)

    def _note(self, number: int, event: Event) -> None:
        if not event.matches("service", "log"):
            return
        if fails_download(event.record.text):
            self._failed.add(number)
        elif ends_download(event.record.text):
            self._ended[number] = event.time

    def _command(self, begin: float) -> None:
        for number, camera in enumerate(self.cameras):
            self._sample_until(begin + self._spread * number / self._count)
            self._sent.append(time.monotonic())
            camera.client.send("whiteListDown", camera.platform.task(self._faces, cameraCode=f"C{number + 1}"))

    def _wait(self, deadline: float, tell: Callable[[str], None]) -> None:
        told = 0
        while len(self._ended) < self._count and time.monotonic() < deadline:
            self._sample_until(time.monotonic() + _SAMPLE_SECONDS)
            if len(self._ended) // 10 > told:
                told = len(self._ended) // 10
                tell(f"{len(self._ended)} of {self._count} downloads have ended")

    def _sample_until(self, moment: float) -> None:
        """Passes the time with looks at the memory of the services."""
        while (left := moment - time.monotonic()) > 0:
            time.sleep(min(left, _SAMPLE_SECONDS))  # pause: between two looks at the memory
            for number, camera in enumerate(self.cameras):
                self._memory[number] = max(self._memory.get(number, 0),
                                           _bytes(private_kilobytes, camera.service.pid))

    def _measured(self, begin: float, end: float) -> dict[str, Any]:
        complete = sorted(number for number in self._ended if number not in self._failed)
        completions = sorted(self._ended[number] - self._sent[number] for number in complete)
        journals = [self._journal] if self._played else [camera.journal for camera in self.cameras]
        events = [event for journal in journals for event in journal.events if event.source == "platform"]
        last = max(self._ended.values(), default=end)
        first = min((event.time for event in events), default=begin)
        return {
            "cameras": self._count, "faces": self.cameras[0].platform.task(self._faces)["totalNum"],
            "spread_seconds": self._spread, "complete": len(complete), "seconds": round(last - begin, 3),
            "platform": platform_view(events, first, last, self._played),
            "completion_seconds": spread_of(completions),
            "memory_bytes": spread_of(list(self._memory.values()), 0),
            "memory_peak_bytes": spread_of([
                _bytes(lambda process: kilobytes(process, "VmHWM"), camera.service.pid) for camera in self.cameras], 0)}


def platform_view(events: list[Event], begin: float, end: float, played: bool) -> dict[str, Any]:
    """What the platform sees, out of the events of its connections."""
    seconds = max(end - begin, 0.001)
    slots = int(seconds) + 1
    opened = [event.time for event in events if event.kind == "accepted"]
    closed = [event.time for event in events if event.kind in ("closed", "relayed")]
    concurrent = _concurrent(opened, closed, begin, slots)
    mean = round((sum(closed) - sum(opened)) / max(1, len(closed)), 4)
    view: dict[str, Any] = {
        "connections": len(opened), "connections_per_second": round(len(opened) / seconds, 2),
        "connection_seconds": mean if len(opened) == len(closed) else None,  # some may be open at the end
        "concurrent": {"peak": max(concurrent, default=0), "each_second": concurrent}}
    if not played:  # what goes through to a real platform is encrypted, handshakes included
        sent = sum(event.data["received"] for event in events if event.kind == "relayed")
        received = sum(event.data["sent"] for event in events if event.kind == "relayed")
        return {**view, "encrypted_bytes_sent": sent, "encrypted_bytes_received": received,
                "encrypted_bytes_sent_per_second": round(sent / seconds)}
    requests = [event for event in events if event.kind == "request"]
    sizes = [(event.time, len(event.response.encode())) for event in events if event.kind == "response"]
    sent, received = sum(size for _, size in sizes), sum(len(event.request.raw) for event in requests)
    handshakes = [event for event in events if event.kind == "handshake"]
    return {
        **view, "requests": len(requests), "requests_per_second": round(len(requests) / seconds, 2),
        "requests_in_busiest_second": max(_each_second([(event.time, 1) for event in requests], begin), default=0),
        "bytes_sent": sent, "bytes_received": received, "bytes_sent_per_second": round(sent / seconds),
        "bytes_sent_in_busiest_second": max(_each_second(sizes, begin), default=0),
        "handshakes": len(handshakes), "handshakes_resumed": sum(event.resumed for event in handshakes),
        "handshake_seconds": spread_of([event.seconds for event in handshakes], 4),
        "handshake_processor_seconds": spread_of([event.processor_seconds for event in handshakes], 6)}


def _each_second(amounts: Sequence[tuple[float, int]], begin: float) -> list[int]:
    sums: Counter[int] = Counter()
    for moment, amount in amounts:
        sums[int(moment - begin)] += amount
    return list(sums.values())


def _concurrent(opened: list[float], closed: list[float], begin: float, slots: int) -> list[int]:
    """The most connections that were open at once, second by second."""
    most = [0] * slots
    count, slot = 0, 0
    for moment, change in sorted([(moment, 1) for moment in opened] + [(moment, -1) for moment in closed]):
        now = min(max(int(moment - begin), 0), slots - 1)
        while slot < now:
            slot += 1
            most[slot] = count
        count += change
        most[slot] = max(most[slot], count)
    return most


def spread_of(values: Sequence[float], digits: int = 3) -> dict[str, float] | None:
    """Least, middle, nine tenths, most and mean; None without values."""
    if not values:
        return None
    ordered = sorted(values)
    tenth = ordered[min(len(ordered) - 1, int(len(ordered) * 0.9))]
    named = {"least": ordered[0], "median": statistics.median(ordered), "nine_tenths": tenth, "most": ordered[-1],
             "mean": statistics.fmean(ordered)}
    return {name: round(value, digits) for name, value in named.items()}


def _bytes(measure: Callable[[int], int], process: int) -> int:
    """A measure in kilobytes as bytes; 0 for a process that has ended."""
    try:
        return 1024 * measure(process)
    except (OSError, ValueError):
        return 0


def _raise_descriptor_limit(count: int) -> None:
    needed = count * _DESCRIPTORS_PER_CAMERA + _DESCRIPTORS_BESIDE
    soft, hard = resource.getrlimit(resource.RLIMIT_NOFILE)
    if hard != resource.RLIM_INFINITY and hard < needed:
        raise CameraError(f"{count} cameras need {needed} open files, and this user may have {hard}; take fewer "
                          "cameras, or raise the limit (ulimit -Hn)")
    if soft < needed:
        resource.setrlimit(resource.RLIMIT_NOFILE, (needed, hard))
