"""Memory that cannot be had: each single allocation of a command and of a download fails once."""

from __future__ import annotations

import mmap
import signal
import struct
from pathlib import Path

import pytest

from simulator import Camera, Response
from support import PAGE, StartCamera, expect_working, poll_until, sanitized, wait_stopped

CONTROL = "/tmp/allocations"
# Fails allocations of one thread, or of all others, as /tmp/allocations says: see Allocations.
FAILING = r"""
void* __libc_malloc(size_t);
void* __libc_calloc(size_t, size_t);
void* __libc_realloc(void*, size_t);
struct control { int good; int failing; int failed; int thread; int others; };
static struct control* volatile control;
__attribute__((constructor)) static void open_control(void) {
    int file = open("/tmp/allocations", O_RDWR);
    void* data = mmap(NULL, sizeof(struct control), PROT_READ | PROT_WRITE, MAP_SHARED, file, 0);
    if (data != MAP_FAILED) control = data;
    close(file);
}
static int fails(void) {
    if (control == NULL || __atomic_load_n(&control->failing, __ATOMIC_ACQUIRE) <= 0) return 0;
    if ((gettid() != control->thread) != control->others) return 0;
    if (__atomic_sub_fetch(&control->good, 1, __ATOMIC_ACQ_REL) >= 0) return 0;
    if (__atomic_fetch_sub(&control->failing, 1, __ATOMIC_ACQ_REL) <= 0) return 0;
    __atomic_add_fetch(&control->failed, 1, __ATOMIC_ACQ_REL);
    errno = ENOMEM;
    return 1;
}
void* malloc(size_t size) { return fails() ? NULL : __libc_malloc(size); }
void* calloc(size_t count, size_t size) { return fails() ? NULL : __libc_calloc(count, size); }
void* realloc(void* data, size_t size) { return fails() ? NULL : __libc_realloc(data, size); }
"""


class Allocations:
    """The failing allocations of a service: those of its command loop, or those of all its other threads.

    A sanitizer's own allocator comes before the one that fails: there, nothing fails, and only the service's way
    through is tested.
    """

    def __init__(self, with_library: StartCamera, others: bool) -> None:
        self.camera = with_library(FAILING, start=False)
        path = self.camera.path(CONTROL)
        path.write_bytes(bytes(20))
        path.chmod(0o666)
        with path.open("r+b") as file:
            self._memory = mmap.mmap(file.fileno(), 20)
        self.camera.start_service()
        expect_working(self.camera)
        self._memory[12:20] = struct.pack("ii", self._loop_thread(), others)

    def _loop_thread(self) -> int:
        """The number of the command loop's thread in the sandbox."""
        for task in Path(f"/proc/{self.camera.service.pid}/task").iterdir():
            if (task / "comm").read_text().strip() == "Json Msg Loop":
                lines = (task / "status").read_text().splitlines()
                return int(next(line for line in lines if line.startswith("NSpid")).split()[-1])
        raise AssertionError("no thread of the command loop")

    def fail(self, good: int, failing: int = 1) -> None:
        """After so many good allocations, so many fail."""
        self._memory[0:12] = struct.pack("iii", good, 0, 0)
        self._memory[4:8] = struct.pack("i", failing)

    def failures(self) -> int:
        """How many have failed so far."""
        return int(struct.unpack("i", self._memory[8:12])[0])

    def failed(self) -> int:
        """Ends the failing; returns how many failed."""
        self._memory[4:8] = bytes(4)
        return self.failures()


COMMANDS = {"faceNotHitDown": {"a": [1, {"b": "c" * 100}]}, "whiteListClear": {"cameraCode": "C1"}, "nothing": {}}


@pytest.mark.parametrize("name", COMMANDS)
def test_no_single_allocation_of_a_command_costs_its_reply(with_library: StartCamera, name: str) -> None:
    allocations = Allocations(with_library, others=False)
    camera, good, failed = allocations.camera, 0, 1
    while failed:
        allocations.fail(good)
        before = len(camera.client.replies)
        assert camera.client.command(name, COMMANDS[name]).status in (200, 400)
        failed = allocations.failed()
        expect_working(camera)
        assert len(camera.client.replies) == before + 2, "one reply each"
        good += 1
    assert sanitized() or good > 50


def test_time_without_any_memory_harms_no_later_command(with_library: StartCamera) -> None:
    """What comes meanwhile is lost, and so are its log records."""
    allocations = Allocations(with_library, others=False)
    camera = allocations.camera
    for name, information in COMMANDS.items():
        allocations.fail(0, 1_000_000)
        camera.client.send(name, information)
        poll_until(lambda: allocations.failures() > 10 or sanitized())
        allocations.failed()
        expect_working(camera)


def begin(camera: Camera, total: int) -> None:
    """Starts a download as soon as the one before is over, of whose end there may be no record."""
    poll_until(lambda: camera.client.command("whiteListDown", camera.platform.task(total)).status == 200)


@pytest.mark.seconds(20)
@pytest.mark.parametrize("first", range(4))
def test_no_single_allocation_of_a_download_leaves_the_service_busy(with_library: StartCamera, first: int) -> None:
    """Every 60th, from different ones on: a page makes thousands."""
    allocations = Allocations(with_library, others=True)
    camera, good, failed = allocations.camera, first * 15, 1
    camera.platform.script(camera.platform.task_path, *[Response(body=b'{"records":[]}')] * 1000)
    while failed:
        allocations.fail(good)
        begin(camera, 1)
        begin(camera, 0)
        failed = allocations.failed()
        good += 60
    assert sanitized() or good > 1000
    before = len(camera.platform.reports)
    begin(camera, 1)
    camera.wait_until(lambda: len(camera.platform.reports) == before + 1)


@pytest.mark.parametrize("failing", [1, 2, 3, 1000])
@pytest.mark.parametrize("good", range(4))
def test_download_whose_thread_has_no_memory_to_begin_leaves_the_service_free(with_library: StartCamera, good: int,
                                                                              failing: int) -> None:
    allocations = Allocations(with_library, others=True)
    camera = allocations.camera
    allocations.fail(good, failing)
    begin(camera, 0)
    poll_until(lambda: allocations.failures() > 0 or sanitized())
    begin(camera, 0)
    allocations.failed()
    begin(camera, 1)
    camera.wait_until(lambda: camera.platform.reports)
    assert wait_stopped(camera, signal.SIGTERM) == 0


NO_LARGE_BLOCKS = """
void* __libc_malloc(size_t);
void* malloc(size_t size) {
    if (size > 32 << 20) { errno = ENOMEM; return NULL; }
    return __libc_malloc(size);
}
"""


def test_page_of_unknown_length_needs_no_room_for_the_longest(with_library: StartCamera) -> None:
    """Where there is no block of 64 MB the text of a page in chunks grows with what comes."""
    camera = with_library(NO_LARGE_BLOCKS)
    body = b'{"records":[]}' + b" " * 3_000_000
    camera.platform.script(camera.platform.task_path, Response(body=body, chunk_size=4096))
    begin(camera, 1)
    camera.wait_until(lambda: camera.platform.reports)
    assert camera.path(PAGE).read_bytes() == body
