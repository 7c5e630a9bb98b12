"""What every test in Python uses: cameras that are looked over at the end, and the order in which tests run."""

from __future__ import annotations

import json
import signal
import sys
from collections.abc import Callable, Iterator
from pathlib import Path
from typing import Any

import pytest

ROOT = Path(__file__).resolve().parents[1]
sys.path.insert(0, str(ROOT))

from contract_files import complaints, request_complaints  # noqa: E402 importable only with the path above
from simulator import Camera, build_folder  # noqa: E402 importable only with the path above
from support import compiled, slowness  # noqa: E402 importable only with the path above

# Pictures of this size make pages of 30 records small where their content does not matter.
SMALL_PICTURES = (800, 1_000)
STOPPED_CLEANLY = (0,)

CAMERAS: pytest.StashKey[list[Camera]] = pytest.StashKey()


def pytest_configure(config: pytest.Config) -> None:
    config.addinivalue_line("markers", "seconds(n): takes so long, because the service waits; the longest go first")
    # nohup, and a script's "&", have these signals ignored, and so would all programs that tests start. A handler is
    # not inherited.
    for number in (signal.SIGINT, signal.SIGQUIT, signal.SIGHUP):
        if signal.getsignal(number) == signal.SIG_IGN:
            signal.signal(number, lambda *_: None)


def pytest_collection_modifyitems(items: list[pytest.Item]) -> None:
    def seconds(item: pytest.Item) -> float:
        marker = item.get_closest_marker("seconds")
        return float(marker.args[0]) if marker else 0.0
    items.sort(key=seconds, reverse=True)


@pytest.hookimpl(optionalhook=True)
def pytest_xdist_make_scheduler(config: pytest.Config, log: Any) -> Any:
    """Hands out one test at a time, so that the long ones do not gather at one worker. Every fourth worker begins with
    the shortest: the processors have work while the long ones wait.
    """
    from xdist.scheduler import LoadScheduling

    class OneByOne(LoadScheduling):  # type: ignore[misc] # xdist comes without types
        def schedule(self) -> None:
            if self.collection is None and self.collection_is_completed:
                self._check_nodes_have_same_collection()
                self.collection = list(self.node2collection.values())[0]
                self.pending[:] = range(len(self.collection))
                for _ in range(2):  # a worker starts a test when it knows the next one
                    for node in self.nodes:
                        self.send(node)
            for node in self.nodes:
                self.check_schedule(node)

        def check_schedule(self, node: Any, duration: float = 0) -> None:
            if node.shutting_down:
                return
            if not self.pending:
                node.shutdown()
            elif len(self.node2pending[node]) < 2:
                self.send(node)

        def send(self, node: Any) -> None:
            if self.pending:
                self.pending.insert(0, self.pending.pop(-1 if self.nodes.index(node) % 4 == 3 else 0))
                self._send_tests(node, 1)

    return OneByOne(config, log)


@pytest.hookimpl(hookwrapper=True)
def pytest_runtest_makereport(item: pytest.Item, call: pytest.CallInfo[None]) -> Iterator[None]:
    """Shows with a failure what the cameras of the test went through."""
    outcome = yield
    report = outcome.get_result()  # type: ignore[attr-defined] # what a hook wrapper is sent
    if report.failed:
        for number, camera in enumerate(item.stash.get(CAMERAS, []), 1):
            report.sections.append((f"camera {number}", camera.report()[-20_000:]))


def look_over(camera: Camera, ends_with: tuple[int, ...], records_only: bool) -> None:
    """What holds for every camera at its end, whatever the test was about."""
    assert camera.service.exit_code in ends_with, "the service's exit code"
    assert camera.service.stdout == b"", "the service prints nothing"
    assert not camera.journal.find(kind="hook_failed")
    for event in camera.journal.find("platform", "request"):
        assert request_complaints(event.request) == [], event.request.raw
    for event in camera.journal.find("client", "reply"):
        assert complaints("reply", json.loads(event.reply.body)) == []
    if records_only and ends_with == STOPPED_CLEANLY:
        strange = [record.text for record in camera.service.log if record.level == ""]
        assert not strange, "every line of standard error is a log record"


@pytest.fixture
def make_camera(request: pytest.FixtureRequest) -> Iterator[Callable[..., Camera]]:
    """Makes cameras that end with the test: make_camera(ends_with=(0,), records_only=True, **arguments of Camera).

    ends_with     the exit codes that the service may have at the end, after a SIGTERM if it still runs
    records_only  whether standard error holds nothing but records of the stand-in log
    """
    cameras = request.node.stash.setdefault(CAMERAS, [])
    endings: list[tuple[tuple[int, ...], bool]] = []

    def make(*, ends_with: tuple[int, ...] = STOPPED_CLEANLY, records_only: bool = True, **arguments: Any) -> Camera:
        camera = Camera(**arguments)
        camera.platform.picture_sizes = SMALL_PICTURES
        own = camera.journal.patience
        camera.journal.patience = lambda: own() * slowness()
        cameras.append(camera)
        endings.append((ends_with, records_only))
        return camera

    yield make
    for camera in cameras:
        camera.close()
    for camera, (ends_with, records_only) in zip(cameras, endings):
        look_over(camera, ends_with, records_only)


@pytest.fixture
def start_camera(make_camera: Callable[..., Camera]) -> Callable[..., Camera]:
    """Makes cameras as make_camera does, and starts them."""
    return lambda **arguments: make_camera(**arguments).__enter__()


@pytest.fixture
def camera(start_camera: Callable[..., Camera]) -> Camera:
    """A camera with all its processes, whose service takes commands."""
    return start_camera()


@pytest.fixture
def with_library(start_camera: Callable[..., Camera], tmp_path: Path) -> Callable[..., Camera]:
    """Starts a camera whose service has functions replaced by those of a C source (see support.compiled).

    with_library(source, **arguments of make_camera)
    """
    devices = build_folder() / "lib" / "libcamera_devices.so"
    return lambda source, **arguments: start_camera(preload=[devices, compiled(tmp_path, source)], **arguments)
