"""What a page with its report costs the line between camera and platform, and how long it takes there."""

from __future__ import annotations

import statistics
from collections.abc import Callable

from benchmarks import measuring
from benchmarks.line.line import Line
from benchmarks.line.packets import Cost
from benchmarks.measuring import PAGE, PATIENCE, SERVICE
from benchmarks.comparison.results import Row, Series
from simulator import CameraError
from simulator.journal import Journal
from simulator.peers.platform import Platform

GROUP = "The line"
PAGES = 3
LATENCIES = (20, 50, 200)  # milliseconds
ROUNDS = 2
LIBCURL = "program on libcurl"
CURL = "curl command"
_GO = "/tmp/go"

# The cost of each page with its report, in their order.
Pages = list[Cost]


def rows() -> tuple[list[Row], list[Series]]:
    measured = {latency: _measure(latency) for latency in LATENCIES}
    series = Series(GROUP, "A page with its report on a longer line", "ms a round trip", "ms",
                    [(float(latency), 1000 * _seconds(pages["service"])) for latency, pages in measured.items()])
    return [_round_trips(measured[LATENCIES[-1]]), _bytes(measured[LATENCIES[-1]]), *_times(measured)], [series]


def timed() -> list[Row]:
    """The rows that depend on how fast the machine is, alone."""
    return _times({latency: _measure(latency) for latency in LATENCIES})


def _measure(latency: float) -> dict[str, Pages]:
    """The best of a few times for each page: a busy machine only adds to them."""
    rounds = [{"service": _service(latency), LIBCURL: _other(latency, f"exec {measuring.program('libcurl_page')}"),
               CURL: _other(latency, _curl_command())} for _ in range(ROUNDS)]
    return {who: [min(same, key=lambda page: page.seconds) for same in zip(*(one[who] for one in rounds))]
            for who in rounds[0]}


def _service(latency: float) -> Pages:
    with measuring.camera(f"exec {measuring.subject(SERVICE)}") as camera:
        measuring.wait_for_commands(camera)
        with Line(camera, latency) as line:
            platform = line.platform
            task = platform.task(PAGES * PAGE, taskURL=line.url + platform.task_path,
                                 taskResultURL=line.url + platform.result_path)
            if camera.client.command("whiteListDown", task).status != 200:
                raise CameraError("the download was refused")
            camera.wait_until(lambda: len(platform.reports) == PAGES, PATIENCE)
            _wait_for_ends(camera.wait_until, line)
    return _pages(line)


def _other(latency: float, command: str) -> Pages:
    """A program that makes the same requests, once there is a platform."""
    waiting = f"while [ ! -e {_GO} ]; do sleep 0.05; done\n"  # pause: nothing tells of a new file
    environment = {"PAGES": str(PAGES), "PLATFORM": Line.url}
    with measuring.camera(waiting + command, environment=environment) as camera:
        with Line(camera, latency) as line:
            camera.path(_GO).touch()
            code = camera.service.wait(PATIENCE)
            if code != 0:
                raise CameraError(f"ended with {code}: {camera.path('/tmp/log').read_text()[-2000:]}")
    return _pages(line)


def _wait_for_ends(wait_until: Callable[[Callable[[], bool], float], bool], line: Line) -> None:
    wait_until(lambda: len(line.platform.connections) == 2 * PAGES
               and all(connection.closed for connection in line.platform.connections), PATIENCE)


def _curl_command() -> str:
    """The two posts of each page with the command, a process for each; pages and reports as large as the service's."""
    curl = ("curl --fail --silent --insecure --tlsv1.2 --tls-max 1.2"
            " --header 'Content-Type: application/json;charset=UTF-8'")
    return "".join(f"""
{curl} --data '{{"startIndex": {start}, "offset": {PAGE}}}' --output /tmp/page $PLATFORM/platform/whiteList || exit 1
{curl} --data "$(printf '%2000s')" --output /dev/null $PLATFORM/platform/whiteListResult || exit 1
""" for start in range(0, PAGES * PAGE, PAGE))


def _pages(line: Line) -> Pages:
    if len(line.costs) != 2 * PAGES:
        raise CameraError(f"{len(line.costs)} connections were recorded, not {2 * PAGES}")
    return [page + report for page, report in zip(line.costs[::2], line.costs[1::2])]


def _seconds(pages: Pages) -> float:
    """Of a page with its report, on average of a download."""
    return statistics.fmean(page.seconds for page in pages)


def _round_trips(measured: dict[str, Pages]) -> Row:
    """Those of a page in the middle of a download."""
    parts = {"service, first page of a download": float(measured["service"][0].round_trips)}
    parts |= {f"{who}, each further page": float(pages[1].round_trips) for who, pages in measured.items()}
    return Row(GROUP, "round trips of a page with its report", "", parts["service, each further page"], "round trips",
               aim=6, tolerance=0.0, parts=parts)


def _bytes(measured: dict[str, Pages]) -> Row:
    body = len(Platform(Journal()).page(PAGE, PAGE))
    parts = {}
    for who, pages in measured.items():
        parts |= {f"{who}, MB down": pages[1].bytes_in / 1e6, f"{who}, kB up": pages[1].bytes_out / 1e3,
                  f"{who}, packets": float(pages[1].packets_in + pages[1].packets_out)}
    ours = measured["service"][1]
    return Row(GROUP, "bytes on the wire of a page with its report", "size of the page",
               (ours.bytes_in + ours.bytes_out) / body, aim=1.1, tolerance=0.05, parts=parts)


def _times(measured: dict[int, dict[str, Pages]]) -> list[Row]:
    found = []
    for latency, pages in measured.items():
        parts = {f"{who}, ms": 1000 * _seconds(of_one) for who, of_one in pages.items()}
        found.append(Row(GROUP, f"a page with its report, {latency} ms a round trip", LIBCURL,
                         parts["service, ms"] / parts[f"{LIBCURL}, ms"], aim=1.0, tolerance=0.25, parts=parts,
                         timed=True))
    return found
