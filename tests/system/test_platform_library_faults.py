"""The camera's own libraries and the start: calls that hang, fail or find nothing left."""

from __future__ import annotations

import os
import signal

import pytest

from simulator import Camera
from support import (LOOP, SUBSYSTEM, StartCamera, count_text, download, expect_log, expect_working, start_polling,
                     wait_end, wait_stopped)

# A stop signal before the service begins to wait for one may end it by the signal.
STOPPED_EARLY = (0, 128 + signal.SIGTERM)

RING = r"""
int client_open(void* handle, const char* name, unsigned int size) { return 0; }
int client_msgsend(void* handle, const void* data, unsigned int length, int flag) { %s return 0; }
"""


def test_ring_buffer_that_hangs_holds_up_commands_but_no_download_and_no_stop(with_library: StartCamera) -> None:
    camera = with_library(RING % "for (;;) pause();")
    start_polling(camera)
    camera.client.send("faceNotHitDown", {})
    expect_log(camera, "INFO", LOOP, "Process cmd:faceNotHitDown.")
    wait_end(camera)
    assert len(camera.platform.reports) == 1
    assert len(camera.client.replies) == 1
    assert wait_stopped(camera, signal.SIGTERM) == 0


def test_slow_ring_buffer_is_waited_for(with_library: StartCamera) -> None:
    camera = with_library(RING % "usleep(700000);")  # pause: the slow library itself
    tags = [camera.client.send(name, {}) for name in ("faceNotHitDown", "nothing")]
    assert camera.client.wait_reply(tags[1]).status == 400
    assert [reply.status for reply in camera.client.replies] == [200, 400]


def test_full_shared_memory_refuses_each_record_and_nothing_else(start_camera: StartCamera) -> None:
    """Less room than the ring needs, really full."""
    camera = start_camera(start=False)
    camera.sandbox.mounts = ["--perms", "0777", "--size", "1048576", "--tmpfs", "/dev/shm"]
    camera.start_service()
    for _ in range(2):
        assert camera.client.command("faceNotHitDown", {}).status == 400
    assert count_text(camera, "metadata put ring buf fail.") == 2
    download(camera, 1)
    assert camera.client.command("whiteListClear", {"cameraCode": "C"}).status == 200


def test_ring_buffer_that_another_user_owns_refuses_each_record_and_nothing_else(start_camera: StartCamera) -> None:
    camera = start_camera(start=False)
    ring = camera.path("/dev/shm/metadata_servfile26214")
    ring.mkdir()
    camera.start_service()
    assert camera.client.command("faceNotHitDown", {}).status == 400
    expect_log(camera, "ERROR", LOOP, "metadata put ring buf fail.")
    download(camera, 1)


USER = "int QL_ChangeProcUser(const char* user) { %s }\n"


def test_user_switch_that_hangs_holds_up_the_start_and_no_stop(with_library: StartCamera) -> None:
    camera = with_library(USER % "for (;;) pause();", wait=False, ends_with=STOPPED_EARLY)
    expect_log(camera, "INFO", SUBSYSTEM, "CustomSubSystem ...")
    assert wait_stopped(camera, signal.SIGTERM) in STOPPED_EARLY
    assert not camera.path("/tmp/HK").exists()


def test_slow_user_switch_is_waited_for(with_library: StartCamera) -> None:
    camera = with_library(USER % "sleep(1); return 0;")  # pause: the slow library itself
    expect_working(camera)


@pytest.mark.parametrize("result", [-1, 1, 13, -2147483648, 2147483647])
def test_any_result_of_the_user_switch_but_0_is_a_failure(with_library: StartCamera, result: int) -> None:
    camera = with_library(USER % f"return (int){result}L;")
    expect_log(camera, "ERROR", SUBSYSTEM, "Fail to run ChangeProcUser")
    expect_working(camera)


def without_leak_check() -> dict[str, str]:
    """For starts that fail: the leak check takes descriptors and threads itself, and the framework keeps a thread that
    could not be started until the process is gone."""
    return {"ASAN_OPTIONS": os.environ.get("ASAN_OPTIONS", "") + ":detect_leaks=0"}


# The libraries are loaded by then; what the service opens itself is limited.
FEW_DESCRIPTORS = r"""
__attribute__((constructor)) static void limit(void) {
    struct rlimit limit;
    getrlimit(RLIMIT_NOFILE, &limit);
    limit.rlim_cur = %d;
    setrlimit(RLIMIT_NOFILE, &limit);
}
"""


@pytest.mark.parametrize("limit", range(3, 14))
def test_start_with_few_descriptors_serves_or_ends_with_a_reason(with_library: StartCamera, limit: int) -> None:
    camera = with_library(FEW_DESCRIPTORS % limit, wait=False, ends_with=(0, 70),
                          environment=without_leak_check())
    started = camera.wait_for(lambda event: event.matches("service", "ended") or event.matches("service", "log")
                              and "waitForTerminationRequest" in event.record.text, 20)
    if started.kind == "ended":
        assert camera.service.exit_code == 70
        assert [record.text for record in camera.service.log if record.level == ""], "the reason on standard error"
    else:
        assert camera.path("/tmp/HK").exists()
        assert camera.client.command("nothing", {}).status == 400
        assert wait_stopped(camera, signal.SIGTERM) == 0


NO_THREAD = r"""
int pthread_create(pthread_t* thread, const pthread_attr_t* attributes, void* (*run)(void*), void* argument) {
    return access("/tmp/no threads", F_OK) == 0 ? EAGAIN : NEXT(pthread_create)(thread, attributes, run, argument);
}
"""


def test_threads_that_cannot_be_started_refuse_downloads_until_they_can(with_library: StartCamera) -> None:
    camera = with_library(NO_THREAD)
    camera.path("/tmp/no threads").touch()
    begin = len(camera.journal)
    assert camera.client.command("whiteListDown", camera.platform.task(1)).status == 400
    record = camera.wait_for_log("DownWhiteHandler Err ", since=begin)
    assert (record.level, record.path) == ("ERROR", LOOP)
    expect_working(camera)
    camera.path("/tmp/no threads").unlink()
    download(camera, 1)


def test_no_thread_at_the_start_ends_the_process_with_a_reason(with_library: StartCamera) -> None:
    camera = with_library(NO_THREAD, start=False, ends_with=(70,),
                          environment=without_leak_check())
    camera.path("/tmp/no threads").touch()
    camera.start_service(wait=False)
    assert camera.service.wait() == 70
    assert camera.service.stderr


def test_event_publisher_that_comes_back_is_subscribed_to_at_the_next_start(camera: Camera) -> None:
    """The subscription is written once; nothing else depends on it."""
    camera.wait_until(lambda: camera.events.subscriptions)
    camera.events.stop()
    camera.events.start()
    download(camera, 1)
    assert len(camera.events.subscriptions) == 1
    assert camera.service.stop() == 0
    camera.start_service()
    camera.wait_until(lambda: len(camera.events.subscriptions) == 2)


def test_folder_in_the_place_of_the_marker_counts_as_the_marker(start_camera: StartCamera) -> None:
    """Only its being there counts, not what it is."""
    camera = start_camera(marker=False, start=False)
    camera.path("/tmp/intelligent_ok").mkdir(mode=0)
    camera.start_service(wait=False)
    camera.wait_serving()
    expect_working(camera)
    camera.path("/tmp/intelligent_ok").rmdir()
    download(camera, 1)
