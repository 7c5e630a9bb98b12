"""What the service does from its start until it takes commands."""

from __future__ import annotations

import os
import signal
import stat
import struct
from pathlib import Path

import pytest

from simulator import Camera, build_folder
from support import (END, EVENT_CACHE, PROCESS, RING_BUFFER, SUBSYSTEM, WRITE_LOG, StartCamera, at_most, count_text,
                     expect_log, expect_working, poll_until, received, start_download, status_field, texts, wait_end,
                     wait_stopped, written)

WAITING = "CustomSubSystem Wait itgt fail!\\n"
READY = "CustomSubSystem Wait itgt ok!\\n"
# A stop signal before the service begins to wait for one may end it by the signal.
STOPPED_EARLY = (0, 128 + signal.SIGTERM)
SERVING = "waitForTerminationRequest sucess!\\n"


def test_subscription_record_is_written_once_and_is_exactly_304_bytes(camera: Camera) -> None:
    header = struct.pack("<HBBHHHHI", 0x5331, 0, 2, 0, 0, 16, 0, 288)
    body = bytes(16) + b"gate.saas.olv".ljust(16, b"\0") + b"1".ljust(16, b"\0") + bytes(240)
    camera.wait_until(lambda: camera.events.subscriptions)
    assert camera.events.subscriptions == [header + body]


def test_opened_device_nodes_are_logged_for_debugging(camera: Camera) -> None:
    event_node = camera.wait_for_log("open event fd is")
    cache_node = camera.wait_for_log("open cache fd is")
    assert (event_node.level, event_node.path) == (cache_node.level, cache_node.path) == ("DEBUG", EVENT_CACHE)
    assert event_node.text.startswith("[LogCommon]:open event fd is ")
    assert int(event_node.text.split()[-1]) > 0
    assert cache_node.text.startswith("[LogCommon]:open cache fd is ")
    assert int(cache_node.text.split()[-1]) > 0


def test_missing_event_node_ends_the_process_with_70_and_tells_why(start_camera: StartCamera) -> None:
    camera = start_camera(events=False, wait=False, ends_with=(70,))
    assert camera.service.wait() == 70
    output = camera.service.stderr.decode()
    assert "nRet == IPC_SUCCESS" in output
    assert "Public_SubProcess" in output
    assert "line 91" in output
    assert output.endswith("\n")
    expect_log(camera, "ERROR", EVENT_CACHE, "[LogCommon]:open event pass fail")
    expect_log(camera, "ERROR", EVENT_CACHE, "[LogCommon]:Utils_EventCacheSubscriberInit fail")
    assert not camera.path("/tmp/CU").exists()
    assert not camera.path("/tmp/HK").exists()
    assert SERVING not in texts(camera)


def test_missing_cache_node_is_not_noticed_at_start(start_camera: StartCamera) -> None:
    camera = start_camera(start=False)
    camera.events.cache_folder.rmdir()
    camera.start_service()
    expect_log(camera, "DEBUG", EVENT_CACHE, "[LogCommon]:open cache fd is -1")
    camera.wait_until(lambda: len(camera.events.subscriptions) == 1)
    expect_working(camera)


def test_start_is_logged_in_order(camera: Camera) -> None:
    lines = [(record.level, record.path, record.text) for record in camera.service.log]
    assert lines[2:] == [
        ("INFO", SUBSYSTEM, "CustomSubSystem ..."),
        ("INFO", SUBSYSTEM, READY),
        ("ERROR", RING_BUFFER, "[LogCommon]:client open name metadata_servfile26214\\n"),
        ("INFO", PROCESS, "SignalCapture sucess!\\n"),
        ("INFO", PROCESS, SERVING)]


@pytest.mark.seconds(3)
def test_without_marker_it_waits_with_one_line_a_second_and_goes_on_when_the_marker_comes(
        start_camera: StartCamera) -> None:
    camera = start_camera(marker=False)
    camera.wait_until(lambda: count_text(camera, WAITING) >= 3)
    times = [written(record) for record in camera.service.log if record.text == WAITING]
    assert all(0.9 <= later - earlier <= at_most(1.8) for earlier, later in zip(times, times[1:]))
    assert expect_log(camera, "INFO", SUBSYSTEM, WAITING)
    assert not camera.path("/tmp/HK").exists()
    assert not camera.path("/dev/shm/metadata_servfile26214").exists()
    assert camera.itgt.received == []
    camera.make_ready()
    camera.wait_serving(timeout=3)
    expect_log(camera, "INFO", SUBSYSTEM, READY)
    received(camera, "itgt", 1037)
    expect_working(camera)


def test_stop_signal_ends_the_wait_for_the_marker(start_camera: StartCamera) -> None:
    camera = start_camera(marker=False, ends_with=STOPPED_EARLY)
    expect_log(camera, "INFO", SUBSYSTEM, WAITING)
    assert stat.S_ISSOCK(camera.path("/tmp/CU").stat().st_mode), "the service's own message socket is there by then"
    assert wait_stopped(camera, signal.SIGTERM) in STOPPED_EARLY


def test_itgt_is_told_once_with_message_1037_and_every_other_byte_zero(camera: Camera) -> None:
    received(camera, "itgt", 1037)
    expect_working(camera)
    header = b"/tmp/II\0" + b"/tmp/CU\0" + bytes(144) + struct.pack("<II", 4, 1037)
    assert camera.itgt.received == [header.ljust(21408, b"\0")]


TRACER = r"""
static void note(const char* what) {
    int file = open("/tmp/trace", O_WRONLY | O_CREAT | O_APPEND, 0666);
    if (file >= 0) { if (write(file, what, strlen(what)) < 0) _exit(9); close(file); }
}
static void note_path(const char* call, const struct sockaddr* address, socklen_t length) {
    char text[160];
    if (address == NULL || address->sa_family != AF_UNIX) return;
    snprintf(text, sizeof text, "%s %.*s\n", call, (int)(length - offsetof(struct sockaddr_un, sun_path)),
             ((const struct sockaddr_un*)address)->sun_path);
    note(text);
}
int bind(int socket, const struct sockaddr* address, socklen_t length) {
    note_path("bind", address, length);
    return NEXT(bind)(socket, address, length);
}
ssize_t sendto(int socket, const void* data, size_t size, int flags, const struct sockaddr* address, socklen_t length) {
    note_path("sendto", address, length);
    return NEXT(sendto)(socket, data, size, flags, address, length);
}
void* SSL_CTX_new(const void* method) {
    note("tls\n");
    return NEXT(SSL_CTX_new)(method);
}
int client_open(void* handle, const char* name, unsigned int size) {
    char text[160];
    snprintf(text, sizeof text, "ring %s %u\n", name, size);
    note(text);
    return NEXT(client_open)(handle, name, size);
}
int QL_ChangeProcUser(const char* user) {
    note("user "); note(user); note("\n");
    return NEXT(QL_ChangeProcUser)(user);
}
"""


def test_ring_buffer_then_notice_to_itgt_then_tls_then_command_socket(with_library: StartCamera) -> None:
    camera = with_library(TRACER, start=False)
    camera.path("/tmp/trace").touch()
    camera.path("/tmp/trace").chmod(0o666)
    camera.start_service()
    lines = camera.path("/tmp/trace").read_text().splitlines()
    assert lines == ["bind /tmp/CU", "user sshd", "ring metadata_servfile26214 4194304", "sendto /tmp/II", "tls",
                     "bind /tmp/HK"]


def test_both_sockets_have_mode_0660(camera: Camera) -> None:
    modes = {path: camera.path(path).stat().st_mode for path in ("/tmp/CU", "/tmp/HK")}
    assert modes == {path: stat.S_IFSOCK | 0o660 for path in modes}


def test_stale_files_at_the_socket_paths_are_replaced(start_camera: StartCamera) -> None:
    camera = start_camera(start=False)
    for path in ("/tmp/CU", "/tmp/HK"):
        camera.path(path).write_text("stale")
        camera.path(path).chmod(0o444)
    camera.start_service()
    assert all(stat.S_ISSOCK(camera.path(path).stat().st_mode) for path in ("/tmp/CU", "/tmp/HK"))
    expect_working(camera)


def test_it_starts_again_after_it_was_killed(camera: Camera) -> None:
    camera.service.send_signal(signal.SIGKILL)
    assert camera.service.wait() == 128 + signal.SIGKILL
    assert camera.path("/tmp/HK").exists()
    camera.start_service()
    expect_working(camera)


@pytest.mark.parametrize("path", ["/tmp/CU", "/tmp/HK"])
def test_socket_path_that_cannot_be_bound_ends_the_process_with_70(start_camera: StartCamera, path: str) -> None:
    camera = start_camera(start=False, ends_with=(70,))
    camera.path(path).mkdir()
    camera.start_service(wait=False)
    assert camera.service.wait() == 70
    assert SERVING not in texts(camera)
    assert [record.text for record in camera.service.log if record.level == ""], "the reason on standard error"


def test_user_is_switched_to_sshd(camera: Camera) -> None:
    uid = gid = 74
    if os.geteuid() != 0:
        uid, gid = os.getuid(), os.getgid()
    assert status_field(camera, "Uid").split() == [str(uid)] * 4
    assert status_field(camera, "Gid").split() == [str(gid)] * 4


def test_failed_ring_buffer_leaves_a_running_process_without_notice_and_command_socket(
        with_library: StartCamera) -> None:
    camera = with_library("void* srvfs_calloc(size_t n, size_t s) { return NULL; }\n")
    expect_log(camera, "ERROR", SUBSYSTEM, "initialize Utils_ProcessRingBufProducerInit fail, errno[-1]")
    assert not camera.path("/tmp/HK").exists()
    assert camera.path("/tmp/CU").exists()
    assert camera.itgt.received == []
    assert count_text(camera, SERVING) == 1
    assert camera.service.exit_code is None


OWN_PLATFORM = WRITE_LOG + r"""
    for (char* c = text; *c; ++c) if (*c == '\n') *c = '|';
    dprintf(2, "%d,%d,%d,%d,%s,%d,%s\n", module, level, debugFlag, reserved, path, line, text);
}
int QL_ChangeProcUser(const char* user) { return 0; }
void* srvfs_calloc(size_t count, size_t size) {
    static char memory[4096];  /* of the framework, which nobody frees */
    return count * size <= sizeof memory ? memory : NULL;
}
int client_open(void* handle, const char* name, unsigned int size) { return 0; }
int client_msgsend(void* handle, const void* data, unsigned int length, int flag) { return 0; }
"""


def test_another_platform_library_takes_the_stand_ins_place_and_sees_module_4_in_every_line(
        with_library: StartCamera) -> None:
    camera = with_library(OWN_PLATFORM, records_only=False)
    camera.client.command("whiteListDown", camera.platform.task(31))
    camera.wait_for_log(END)
    assert camera.client.command("faceNotHitDown", {}).status == 200
    assert camera.client.command("whiteListClear", {"cameraCode": "C"}).status == 200
    assert camera.client.send_body(b"{") and camera.wait_for_log("GetJsonMsgInfo err:.")
    lines = [record.text.split(",", 6) for record in camera.service.log]
    assert len(lines) > 50
    assert {(line[0], line[2], line[3]) for line in lines} == {("4", "0", "0")}
    assert {line[1] for line in lines} == {"0", "1", "3"}
    source_root = Path(__file__).resolve().parents[2] / "src"
    assert all((source_root / f"{path}.cpp").is_file() for path in {line[4] for line in lines})


def test_child_signals_are_captured_and_do_not_disturb(camera: Camera) -> None:
    assert int(status_field(camera, "SigCgt"), 16) & 1 << signal.SIGCHLD - 1
    for _ in range(50):
        camera.service.send_signal(signal.SIGCHLD)
    expect_working(camera)
    start_download(camera, 31)
    while not camera.journal.find("platform", "report"):
        camera.service.send_signal(signal.SIGCHLD)
        camera.wait_for(lambda event: event.source != "client", since=len(camera.journal) - 1)
    wait_end(camera)
    assert camera.platform.reports


TWO_CHILDREN = r"""
__attribute__((constructor)) static void make_children(void) {
    for (int i = 0; i < 2; ++i) if (fork() == 0) for (;;) pause();
}
"""


def children(camera: Camera) -> dict[int, str]:
    """The service's children by process id, with the letter of their state."""
    found = {}
    for folder in Path("/proc").glob("[0-9]*"):
        try:
            fields = (folder / "stat").read_text().rpartition(")")[2].split()
        except OSError:
            continue
        if int(fields[1]) == camera.service.pid:
            found[int(folder.name)] = fields[0]
    return found


def test_one_child_is_reaped_for_each_signal_delivered(with_library: StartCamera) -> None:
    camera = with_library(TWO_CHILDREN)
    both = children(camera)
    assert len(both) == 2
    camera.service.send_signal(signal.SIGSTOP)
    poll_until(lambda: status_field(camera, "State").startswith("T"))
    for child in both:
        os.kill(child, signal.SIGKILL)
    poll_until(lambda: list(children(camera).values()) == ["Z", "Z"])
    camera.service.send_signal(signal.SIGCONT)
    poll_until(lambda: list(children(camera).values()) == ["Z"])
    expect_working(camera)
    assert list(children(camera).values()) == ["Z"], "both ends fell into one signal"
    camera.service.send_signal(signal.SIGCHLD)
    poll_until(lambda: children(camera) == {})
    expect_working(camera)


def test_two_cameras_work_side_by_side(start_camera: StartCamera) -> None:
    cameras = [start_camera(), start_camera()]
    for number, camera in enumerate(cameras):
        start_download(camera, 2, taskID=f"T{number}")
    for number, camera in enumerate(cameras):
        camera.wait_until(lambda: camera.platform.reports)
        assert [request.json()["taskID"] for request in camera.platform.requests] == [f"T{number}"] * 2


def test_the_binary_needs_the_platform_library_at_run_time() -> None:
    """The camera's own library can take the stand-in's place only if nothing of it is in the executable."""
    binary = (build_folder() / "bin" / "protocol_process").read_bytes()
    assert b"libcamera_platform.so\0" in binary


def expect_every_command_carried_out(camera: Camera) -> None:
    begin = len(camera.journal)
    camera.faces.applied.clear()
    start_download(camera, 31)
    assert camera.client.command("whiteListClear", {"cameraCode": "C1"}).status == 200
    assert camera.client.command("faceNotHitDown", {"a": 1}).status == 200
    wait_end(camera, begin)
    assert [report.json()["startIndex"] for report in camera.platform.reports[-2:]] == [0, 30]
    assert len(camera.faces.applied) == 3
    assert camera.read_ring_buffer() == ['{"a":1}']


def test_account_that_is_added_after_a_run_as_root_is_given_what_that_run_left(start_camera: StartCamera) -> None:
    """Without the account the service keeps the rights it has; nobody removes its files by hand."""
    camera = start_camera(start=False)
    accounts = camera.sandbox.folder / "etc" / "passwd"
    with_account = accounts.read_text()
    accounts.write_text("root:x:0:0:root:/root:/bin/sh\n")
    camera.start_service()
    expect_log(camera, "ERROR", SUBSYSTEM, "Fail to run ChangeProcUser")
    expect_every_command_carried_out(camera)
    camera.service.stop()
    accounts.write_text(with_account)
    begin = len(camera.journal)
    camera.start_service()
    expect_every_command_carried_out(camera)
    assert not [event for event in camera.journal.events[begin:]
                if event.matches("service", "log") and event.record.text == "Fail to run ChangeProcUser"]
