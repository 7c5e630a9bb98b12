"""Files that are full, slow, or not what they should be."""

from __future__ import annotations

import errno
import os
import signal

import pytest

from simulator import Camera, Response, wire
from support import (DOWNLOAD, FOLDER, PAGE, StartCamera, at_request, count_text, download, expect_log, expect_working,
                     poll_until, start_download, start_polling, texts, wait_end, wait_stopped)

LARGE = b"x" * 500_000


def imported(request: wire.Message) -> bytes:
    """ITGT's answer to 7021 without a look at the page, which may lie where only the service sees it."""
    return wire.encode_reply(request, ProgressStatus=1, ProgressStatePath="/tmp/state.json")


def test_page_that_fills_the_disk_is_not_handed_on_and_the_next_that_fits_is(start_camera: StartCamera) -> None:
    """A file system of 64 KiB, really full."""
    camera = start_camera(start=False)
    camera.path(FOLDER).mkdir()
    camera.sandbox.mounts = ["--perms", "0777", "--size", "65536", "--tmpfs", FOLDER]
    camera.start_service()
    camera.path("/tmp/state.json").write_text('{"TaskResultArry":[]}')
    camera.itgt.on_message = lambda message, default: (
        imported(message) if message.command == 7021 else wire.encode_reply(message))
    camera.platform.script(camera.platform.task_path, Response(body=LARGE), Response(body=b"small"))
    download(camera, 31)
    expect_log(camera, "INFO", DOWNLOAD, f" [Custom] download picture, write file {PAGE} error.")
    assert "DownloadPictureProcess fail." in texts(camera)
    assert camera.itgt.requests(7020) == []
    assert len(camera.platform.requests) == 1
    expect_working(camera)
    download(camera, 1)
    assert len(camera.itgt.requests(7020)) == 1
    assert len(camera.platform.reports) == 1


@pytest.mark.parametrize("body", [b"small", LARGE], ids=["small", "large"])
def test_pipe_in_the_place_of_the_page_file_is_no_file(camera: Camera, body: bytes) -> None:
    """Nothing waits for a reader, of which there is none."""
    camera.path(FOLDER).mkdir()
    camera.path(FOLDER).chmod(0o777)
    os.mkfifo(camera.path(PAGE))
    camera.path(PAGE).chmod(0o666)
    camera.platform.script(camera.platform.task_path, Response(body=body))
    download(camera, 31)
    expect_log(camera, "INFO", DOWNLOAD, f" [Custom] download picture, open file {PAGE} error.")
    assert camera.itgt.requests(7020) == []
    camera.path(PAGE).unlink()
    download(camera, 1)
    assert len(camera.platform.reports) == 1


@pytest.mark.parametrize("target", ["/tmp/victim", "/tmp/nothing"])
def test_link_in_the_place_of_the_page_file_is_not_followed(camera: Camera, target: str) -> None:
    camera.path("/tmp/victim").write_text("precious")
    camera.path("/tmp/victim").chmod(0o666)
    camera.path(FOLDER).mkdir()
    camera.path(FOLDER).chmod(0o777)
    camera.path(PAGE).symlink_to(target)
    download(camera, 31)
    expect_log(camera, "INFO", DOWNLOAD, f" [Custom] download picture, open file {PAGE} error.")
    assert "DownloadPictureProcess fail." in texts(camera)
    assert camera.itgt.requests(7020) == []
    assert camera.path("/tmp/victim").read_text() == "precious"
    assert not camera.path("/tmp/nothing").exists()
    camera.path(PAGE).unlink()
    download(camera, 1)
    assert len(camera.platform.reports) == 1


# Notes what is written to the disk, and fails as /tmp/cause says.
SYNC = r"""
int fsync(int file) {
    char link[64], path[256] = "";
    snprintf(link, sizeof link, "/proc/self/fd/%d", file);
    if (readlink(link, path, sizeof path - 1) < 0) return -1;
    FILE* notes = fopen("/tmp/synced", "a");
    fprintf(notes, "%s\n", path);
    fclose(notes);
    FILE* cause = fopen("/tmp/cause", "r");
    if (cause == NULL) return 0;
    int ignored = fscanf(cause, "%d", &errno);
    (void)ignored;
    fclose(cause);
    return -1;
}
"""


def test_name_of_a_page_file_is_on_the_disk_before_itgt_is_told(with_library: StartCamera) -> None:
    """And so is that of the folder, when it was not there."""
    camera = with_library(SYNC)
    synced: list[list[str]] = []

    at_request(camera.itgt, 7020, lambda _: synced.append(camera.path("/tmp/synced").read_text().splitlines()))
    download(camera, 31)
    parent = FOLDER.rpartition("/")[0]
    assert synced == [[FOLDER, parent], [FOLDER, parent, FOLDER]]


@pytest.mark.parametrize("cause, told", [(errno.EIO, False), (errno.ENOSPC, False), (errno.EINVAL, True)],
                         ids=["EIO", "ENOSPC", "EINVAL"])
def test_page_whose_name_does_not_get_on_the_disk_is_not_handed_on(with_library: StartCamera, cause: int,
                                                                   told: bool) -> None:
    """EINVAL: the file system does not know such a thing."""
    camera = with_library(SYNC)
    camera.path("/tmp/cause").write_text(str(cause))
    download(camera, 1)
    assert len(camera.itgt.requests(7020)) == told
    assert (f" [Custom] download picture, write file {PAGE} error." in texts(camera)) != told


def test_new_folder_whose_name_does_not_get_on_the_disk_fails_the_page(with_library: StartCamera) -> None:
    of_parent_only = SYNC.replace("if (cause == NULL)", 'if (cause == NULL || strstr(path, "/faceLib") != NULL)')
    camera = with_library(of_parent_only)
    camera.path("/tmp/cause").write_text(str(errno.EIO))
    download(camera, 1)
    assert camera.itgt.requests(7020) == []
    expect_log(camera, "INFO", DOWNLOAD, f" [Custom] download picture, write file {PAGE} error.")


# The first reading or writing of a file whose path begins so hangs, as on a disk that does not answer.
HANGING_STREAM = r"""
static void hang_once(FILE* file) {
    char link[64], path[256] = "";
    snprintf(link, sizeof link, "/proc/self/fd/%%d", fileno(file));
    if (readlink(link, path, sizeof path - 1) < 0 || strncmp(path, "%(path)s", strlen("%(path)s")) != 0) return;
    if (access("/tmp/hung", F_OK) == 0) return;
    close(open("/tmp/hung", O_WRONLY | O_CREAT, 0666));
    for (;;) pause();
}
size_t %(call)s(%(kind)s void* data, size_t size, size_t count, FILE* file) {
    hang_once(file);
    return NEXT(%(call)s)(data, size, count, file);
}
"""
STATE = "/tmp/mmcblk0/face_basic/white0.state"
CONFIGURATION = "/tmp/mmcblk0/face_basic/facelists"


def hanging(with_library: StartCamera, call: str, path: str) -> Camera:
    kind = "const" if call == "fwrite" else ""
    return with_library(HANGING_STREAM % {"call": call, "kind": kind, "path": path})


def wait_hung(camera: Camera) -> None:
    poll_until(camera.path("/tmp/hung").exists)


@pytest.mark.parametrize("call, path", [("fwrite", PAGE), ("fread", STATE)], ids=["page file", "state file"])
def test_disk_that_hangs_holds_up_the_download_only_and_no_stop(with_library: StartCamera, call: str,
                                                                path: str) -> None:
    camera = hanging(with_library, call, path)
    start_download(camera)
    wait_hung(camera)
    expect_working(camera)
    assert camera.client.command("whiteListClear", {"cameraCode": "C1"}).status == 200
    assert camera.client.command("whiteListDown", camera.platform.task(1)).status == 409
    assert wait_stopped(camera, signal.SIGTERM) == 0


def test_disk_that_hangs_at_the_configuration_holds_up_commands_but_no_download_and_no_stop(
        with_library: StartCamera) -> None:
    camera = hanging(with_library, "fread", CONFIGURATION)
    start_polling(camera)
    camera.client.send("whiteListClear", {"cameraCode": "C1"})
    wait_hung(camera)
    wait_end(camera, timeout=30)
    assert len(camera.platform.reports) == 1
    assert wait_stopped(camera, signal.SIGTERM) == 0


def test_page_whose_writing_was_cut_by_a_kill_is_never_handed_on(with_library: StartCamera) -> None:
    camera = hanging(with_library, "fwrite", PAGE)
    start_download(camera)
    wait_hung(camera)
    assert camera.path(PAGE).read_bytes() == b""
    camera.service.send_signal(signal.SIGKILL)
    camera.service.wait()
    assert camera.itgt.requests(7020) == []
    camera.start_service()
    download(camera)
    assert camera.path(PAGE).read_bytes() == camera.platform.page(0, 1)
    assert count_text(camera, " DownLoad Picture Success.") == 1
