"""What a page costs: processor, memory, and how that grows."""

from __future__ import annotations

import statistics
from collections.abc import Callable

from benchmarks import measuring
from benchmarks.measuring import PAGE, PAGE_OF_LIBCURL, PAGE_OF_SERVICE, PATIENCE, SERVICE, Work
from benchmarks.comparison.results import Row, Series
from simulator import Camera, CameraError, Request, Response
from simulator.device import process_status
from simulator.journal import Journal
from simulator.peers.platform import Platform

GROUP = "A page"
COUNTED_PAGES = 5
TIMED_PAGES = 10
ROUNDS = 5
# One small and quick to play, for many pages.
SMALL_PICTURES = (500, 500)
NUMBERS_OF_PAGES = (1, 10, 100, 1000)
FIRST_PAGE = ("Only the first page of a download shakes hands in full, the others resume its TLS session, and OpenSSL "
              "makes its list of decoders for the first certificate.")
MEGABYTES = (1, 10, 50)
PEAKS = 5


def rows() -> tuple[list[Row], list[Series]]:
    growth, series = _growth()
    return [*_instructions(), *_kernel_figures(), _system_calls(), *growth, *_peaks()], [series]


def service(pages: int, pictures: tuple[int, int] | None = None) -> Work:
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
    ours = measuring.instructions(f"exec {measuring.callgrind(PAGE_OF_SERVICE)} {measuring.program(SERVICE)}",
                                     service(pages)) / pages
    libcurl = measuring.instructions(
        f"exec {measuring.callgrind(PAGE_OF_LIBCURL)} {measuring.program('libcurl_page')}", _end,
        **_libcurl(pages)) / pages
    command = measuring.instructions(_curl_command(), _end)
    parts = {"service, million": ours / 1e6, "program on libcurl, million": libcurl / 1e6,
             "curl command, million": command / 1e6}
    return [Row(GROUP, "instructions", "program on libcurl", ours / libcurl, aim=0.65, parts=parts),
            Row(GROUP, "instructions, beside curl", "curl command", ours / command, aim=1.0, parts=parts)]


def timed() -> list[Row]:
    """The rows that depend on how fast the machine is, alone."""
    return _kernel_figures()[:1]


def _kernel_figures() -> list[Row]:
    """What the kernel says of each page; the two programs take turns."""
    ours: list[dict[str, float]] = []
    theirs: list[dict[str, float]] = []
    for _ in range(ROUNDS):
        with measuring.camera(f"exec {measuring.subject(SERVICE)}") as camera:
            service(1)(camera)
            before = _used(camera.service.pid)
            measuring.download(camera, TIMED_PAGES)
            ours.append({name: (value - before[name]) / TIMED_PAGES
                         for name, value in _used(camera.service.pid).items()})
        with measuring.camera(f"exec {measuring.program('libcurl_page')} >/tmp/used",
                              **_libcurl(1 + TIMED_PAGES)) as camera:
            _end(camera)
            used = map(float, camera.path("/tmp/used").read_text().split())
            theirs.append({name: value / TIMED_PAGES for name, value in zip(("ms", "page faults"), used)})
    ratio = statistics.median(one["ms"] / other["ms"] for one, other in zip(ours, theirs))
    spread = {f"{who}, {label}, ms": pick([one["ms"] for one in rounds])
              for who, rounds in (("service", ours), ("program on libcurl", theirs))
              for label, pick in (("least", min), ("median", statistics.median), ("most", max))}
    faults = {who: statistics.median(one["page faults"] for one in rounds)
              for who, rounds in (("service", ours), ("program on libcurl", theirs))}
    moved = {name: statistics.median(one[name] for one in ours) for name in ("MB in", "MB out")}
    return [Row(GROUP, "processor time, user and system", "program on libcurl", ratio, tolerance=0.5, parts=spread,
                timed=True),
            Row(GROUP, "page faults", "", faults["service"], tolerance=0.25, parts=faults),
            Row(GROUP, "bytes through system calls", "size of the page",
                sum(moved.values()) * 1e6 / page_size(pages=TIMED_PAGES),
                aim=2.1, tolerance=0.02, parts=moved)]


def _used(pid: int) -> dict[str, float]:
    """What a process has used so far."""
    moved = process_status.bytes_moved(pid)
    return {"ms": process_status.processor_seconds(pid) * 1e3, "page faults": process_status.page_faults(pid),
            "MB in": moved[0] / 1e6, "MB out": moved[1] / 1e6}


def page_size(pictures: tuple[int, int] | None = None, pages: int = 5) -> float:
    """Bytes of a page on average, of so many pages."""
    platform = Platform(Journal())
    if pictures:
        platform.picture_sizes = pictures
    return statistics.fmean(len(platform.page(start, PAGE)) for start in range(0, pages * PAGE, PAGE))


def _system_calls() -> Row:
    """Those of ten pages without those of one, so that start and end do not count."""
    def calls(name: str, pages: int, work: Work) -> int:
        return sum(measuring.system_calls(str(measuring.program(name)), work, **_libcurl(pages)).values())
    ours = (calls(SERVICE, 11, service(11)) - calls(SERVICE, 1, service(1))) / 10
    libcurl = (calls("libcurl_page", 11, _end) - calls("libcurl_page", 1, _end)) / 10
    return Row(GROUP, "system calls", "", ours, tolerance=0.1,
               parts={"service": ours, "program on libcurl": libcurl})


def _growth() -> tuple[list[Row], Series]:
    costs = {pages: measuring.instructions(
        f"exec {measuring.callgrind(PAGE_OF_SERVICE)} {measuring.program(SERVICE)}",
        service(pages, SMALL_PICTURES)) / pages for pages in NUMBERS_OF_PAGES}
    parts = {f"{pages} pages, million instructions a page": cost / 1e6 for pages, cost in costs.items()}
    points = [(float(pages), cost / 1e6) for pages, cost in costs.items()]
    return ([Row(GROUP, f"cost a page of {pages}", "that of the first 10", costs[pages] / costs[10],
                 aim=1.05 if pages == 1 else 1.03, parts=parts, reason=FIRST_PAGE if pages == 1 else "")
             for pages in NUMBERS_OF_PAGES if pages != 10],
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
