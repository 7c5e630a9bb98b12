"""A command's body that cannot be received at once."""

from __future__ import annotations

from collections.abc import Callable
from pathlib import Path

import pytest

from simulator import Camera
from support import LOOP, expect_working, with_library

StartCamera = Callable[..., Camera]

# Behind the first head, that many receives fail.
FAILING = """
#include <dlfcn.h>
#include <errno.h>
#include <sys/socket.h>
ssize_t recv(int fd, void* buffer, size_t length, int flags)
{
    static int left = -1;
    ssize_t (*next)(int, void*, size_t, int) = (ssize_t (*)(int, void*, size_t, int))dlsym(RTLD_NEXT, "recv");
    if (left < 0 && length == 280 && flags == 0) {
        left = %d;
    } else if (left > 0) {
        --left;
        errno = ENOMEM;
        return -1;
    }
    return next(fd, buffer, length, flags);
}
"""


@pytest.mark.parametrize("failures, status", [(1, 200), (2, 200), (3, 400)])
def test_body_is_received_at_the_third_attempt_at_the_latest(start_camera: StartCamera, tmp_path: Path, failures: int,
                                                             status: int) -> None:
    camera = with_library(start_camera, tmp_path, FAILING % failures)
    assert camera.client.command("faceNotHitDown", {"a": 1}).status == status
    record = camera.wait_for_log(lambda record: record.text.startswith("receiveBytes fail:"))
    assert (record.level, record.path) == ("ERROR", LOOP)
    assert sum(line.text.startswith("receiveBytes fail:") for line in camera.service.log) == failures
    expect_working(camera)
