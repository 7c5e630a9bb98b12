"""A large block of memory that cannot be had; tests/system/calls has the other allocations."""

from __future__ import annotations

from simulator import Response
from support import PAGE, StartCamera

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
    assert camera.client.command("whiteListDown", camera.platform.task(1)).status == 200
    camera.wait_until(lambda: camera.platform.reports)
    assert camera.path(PAGE).read_bytes() == body
