"""A command's body that cannot be received at once."""

from __future__ import annotations


import pytest

from support import LOOP, StartCamera, expect_working

# Behind the first head, that many receives fail.
FAILING = """
ssize_t recv(int fd, void* buffer, size_t length, int flags)
{
    static int left = -1;
    if (left < 0 && length == 280 && flags == 0) {
        left = %d;
    } else if (left > 0) {
        --left;
        errno = ENOMEM;
        return -1;
    }
    return NEXT(recv)(fd, buffer, length, flags);
}
"""


@pytest.mark.parametrize("failures, status", [(1, 200), (2, 200), (3, 400)])
def test_body_is_received_at_the_third_attempt_at_the_latest(with_library: StartCamera, failures: int,
                                                             status: int) -> None:
    camera = with_library(FAILING % failures)
    assert camera.client.command("faceNotHitDown", {"a": 1}).status == status
    record = camera.wait_for_log(lambda record: record.text.startswith("receiveBytes fail:"))
    assert (record.level, record.path) == ("ERROR", LOOP)
    assert sum(line.text.startswith("receiveBytes fail:") for line in camera.service.log) == failures
    expect_working(camera)
