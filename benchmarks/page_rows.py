"""What a page costs: processor, memory, and how that grows."""

from __future__ import annotations

import statistics
from collections.abc import Callable

from benchmarks import measuring
from benchmarks.measuring import PAGE_OF_LIBCURL, PAGE_OF_SERVICE, PATIENCE, SERVICE, Work
from benchmarks.results import Row, Series
from simulator import Camera, CameraError, Request, Response
from simulator.device import process_status

GROUP = "A page"
COUNTED_PAGES = 5
TIMED_PAGES = 10
ROUNDS = 5
# One small and quick to play, for many pages.
SMALL_PICTURES = (500, 500)
NUMBERS_OF_PAGES = (1, 10, 100, 1000)
MEGABYTES = (1, 10, 50)
PEAKS = 5


def rows() -> tuple[list[Row], list[Series]]:
    growth, series = _growth()
    return [*_instructions(), _processor_time(), _system_calls(), *growth, *_peaks()], [series]


def _service(pages: int, pictures: tuple[int, int] | None = None) -> Work:
    """Has the service download; without pictures of a given size these are the simulator's own, 20 to 200 KB."""
    def work(camera: Camera) -> None:
        if pictures:
            camera.platform.picture_sizes = pictures
        measuring.wait_for_commands(camera)
        measuring.download(camera, pages)
    return work


def _end(camera: Camera) -> None:
    """Waits until another program has done the same."""
    code = camera.service.wait(PATIENCE)
    if code != 0:
        raise CameraError(f"ended with {code}: {camera.path('/tmp/log').read_text()[-2000:]}")


def _libcurl(pages: int) -> dict[str, dict[str, str]]:
    return {"environment": {"PAGES": str(pages)}}


def _curl_command() -> str:
    """The two posts of a page with the command, a process for each."""
    curl = (f"{measuring.callgrind()}.%p curl --fail --silent --insecure --tlsv1.2 --tls-max 1.2"
            " --header 'Content-Type: application/json;charset=UTF-8'")
    host = f"https://127.0.0.1:{measuring.PORT}"
    return f"""
{curl} --data '{{"startIndex": 0, "offset": 30}}' --output /tmp/mmcblk0/white0 {host}/platform/whiteList
{curl} --data "$(printf '%2000s')" --output /dev/null {host}/platform/whiteListResult
cat /tmp/counts.* >/tmp/counts
"""


def _instructions() -> list[Row]:
    pages = COUNTED_PAGES
    service = measuring.instructions(f"exec {measuring.callgrind(PAGE_OF_SERVICE)} {measuring.program(SERVICE)}",
                                     _service(pages)) / pages
    libcurl = measuring.instructions(
        f"exec {measuring.callgrind(PAGE_OF_LIBCURL)} {measuring.program('libcurl_page')}", _end,
        **_libcurl(pages)) / pages
    command = measuring.instructions(_curl_command(), _end)
    parts = {"service, million": service / 1e6, "program on libcurl, million": libcurl / 1e6,
             "curl command, million": command / 1e6}
    return [Row(GROUP, "instructions", "program on libcurl", service / libcurl, aim=1.0, parts=parts),
            Row(GROUP, "instructions, beside curl", "curl command", service / command, aim=1.0, parts=parts)]


def _processor_time() -> Row:
    """User and system time; the two take turns."""
    ours, theirs = [], []
    for _ in range(ROUNDS):
        with measuring.camera(f"exec {measuring.program(SERVICE)}") as camera:
            _service(1)(camera)
            before = process_status.processor_seconds(camera.service.pid)
            measuring.download(camera, TIMED_PAGES)
            ours.append((process_status.processor_seconds(camera.service.pid) - before) / TIMED_PAGES)
        with measuring.camera(f"exec {measuring.program('libcurl_page')}", **_libcurl(TIMED_PAGES)) as camera:
            _end(camera)
            theirs.append(int(camera.service.stdout) / 1e9 / TIMED_PAGES)
    ratio = statistics.median(one / other for one, other in zip(ours, theirs))
    return Row(GROUP, "processor time, user and system", "program on libcurl", ratio, aim=1.0, tolerance=0.25,
               parts={"service, ms": statistics.median(ours) * 1e3,
                      "program on libcurl, ms": statistics.median(theirs) * 1e3})


def _system_calls() -> Row:
    """Those of ten pages without those of one, so that start and end do not count."""
    def calls(name: str, pages: int, work: Work) -> int:
        return sum(measuring.system_calls(str(measuring.program(name)), work, **_libcurl(pages)).values())
    service = (calls(SERVICE, 11, _service(11)) - calls(SERVICE, 1, _service(1))) / 10
    libcurl = (calls("libcurl_page", 11, _end) - calls("libcurl_page", 1, _end)) / 10
    return Row(GROUP, "system calls", "", service, tolerance=0.1,
               parts={"service": service, "program on libcurl": libcurl})


def _growth() -> tuple[list[Row], Series]:
    costs = {pages: measuring.instructions(
        f"exec {measuring.callgrind(PAGE_OF_SERVICE)} {measuring.program(SERVICE)}",
        _service(pages, SMALL_PICTURES)) / pages for pages in NUMBERS_OF_PAGES}
    parts = {f"{pages} pages, million instructions a page": cost / 1e6 for pages, cost in costs.items()}
    points = [(float(pages), cost / 1e6) for pages, cost in costs.items()]
    return ([Row(GROUP, f"cost a page of {pages}", "that of the first 10", costs[pages] / costs[10], aim=1.03,
                 parts=parts) for pages in NUMBERS_OF_PAGES if pages != 10],
            Series(GROUP, "Cost a page as a download grows", "pages", "million instructions a page", points))


def _peaks() -> list[Row]:
    found = []
    for told in (True, False):
        for megabytes in MEGABYTES:
            size = megabytes << 20
            # The kernel counts to a few hundred kilobytes only.
            peak = statistics.median(_peak(size, told) for _ in range(PEAKS))
            found.append(Row(GROUP, f"peak memory, {megabytes} MB{'' if told else ' in chunks'}", "size of the page",
                             peak / size, aim=1.15, tolerance=0.05 + 0.2 / megabytes,
                             parts={"above idle, KiB": peak / 1024}))
    return found


def _peak(size: int, told: bool) -> float:
    """Bytes that the service has written for itself alone when a page has come down, above idle, at the most."""
    with measuring.camera(f"exec {measuring.program(SERVICE)}") as camera:
        camera.platform.picture_sizes = SMALL_PICTURES
        measuring.wait_for_commands(camera)
        pid = camera.service.pid
        idle = process_status.kilobytes(pid, "VmRSS"), process_status.kilobytes(pid, "RssFile")
        process_status.reset_peak(pid)

        def page(request: Request, default: Callable[[], Response]) -> Response:
            if request.target != camera.platform.task_path:
                return default()
            records = default().body[:-2]
            body = records + b" " * (size - len(records) - 2) + b"]}"
            return Response(body=body) if told else Response(body=body, chunk_size=65536)
        camera.platform.on_request = page
        measuring.download(camera, 1)
        # Pages of libraries that were first used meanwhile are shared with whoever uses the library.
        files = process_status.kilobytes(pid, "RssFile") - idle[1]
        return (process_status.kilobytes(pid, "VmHWM") - idle[0] - files) * 1024.0
