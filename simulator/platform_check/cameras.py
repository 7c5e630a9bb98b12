"""Checks with the unchanged service: whole downloads, their reports, many in a row, and many cameras at once."""

from __future__ import annotations

import time
from collections.abc import Sequence
from dataclasses import dataclass
from typing import Any

from simulator.camera import Camera
from simulator.cli.outcome import in_words, outcome
from simulator.errors import CameraError
from simulator.journal import Event
from simulator.messages.log import fails_download
from simulator.messages.wire import PAGE_SIZE
from simulator.peers.real.asking import GRANTED
from simulator.peers.real.gateway import Gateway
from simulator.platform_check.check import NEARLY, Check, Finding, Subject, failed, not_judged, passed, warning
from simulator.platform_check.responses import known_fault

IN_A_ROW = 20
AT_ONCE = 10
_DOWNLOAD_SECONDS = 600.0
_REPLY_SECONDS = 10.0
_MOST_FAILURES = 3  # of downloads in a row, after which the rest says nothing new
_REPORT_FAILED = 221  # the line number of what the service logs then
_NO_SUCH_PATH = (404, 405, 410, 501)


@dataclass(frozen=True)
class Download:
    """A download by the service: what came of it (see outcome()), how long it took, and what happened."""

    outcome: dict[str, Any]
    seconds: float
    events: Sequence[Event]

    @property
    def fetched(self) -> bool:
        """Whether every page came; what ITGT made of them is another matter."""
        return not any(event.matches("service", "ended") or event.matches("service", "log")
                       and fails_download(event.record.text) for event in self.events)

    @property
    def why(self) -> str:
        why: str = self.outcome.get("why", "")
        return why


def _camera(subject: Subject) -> Camera:
    """A camera with only this platform, until the checks end."""
    return subject.stack.enter_context(Camera(service=subject.service, platform=lambda journal: Gateway(
        journal, subject.url, subject.result_path)))


def _first_camera(subject: Subject) -> Camera:
    return subject.once("camera", lambda: _camera(subject))


def _begin(subject: Subject, camera: Camera, faces: int) -> int:
    """Gives the command; returns the position in the journal before it."""
    status = 409
    while status == 409:  # the download before has logged its end, and ends
        begin = len(camera.journal)
        status = camera.client.command("whiteListDown", camera.platform.task(faces, **subject.info)).status
    if status != 200:
        raise CameraError(f"the service refuses the command with {status}: is there anything odd in --set?")
    return begin


def _end(camera: Camera, begin: int) -> Download:
    end = camera.wait_download(_DOWNLOAD_SECONDS, begin)
    events = camera.journal.events[begin:]
    return Download(outcome(events, end), end.time - events[0].time, events)


def _whole(subject: Subject) -> Download:
    """The download of everything, once."""
    def make() -> Download:
        camera = _first_camera(subject)
        return _end(camera, _begin(subject, camera, subject.faces))
    return subject.once("download", make)


def _download(subject: Subject) -> Finding:
    done = _whole(subject)
    if not done.fetched:
        if fault := known_fault(subject):
            return not_judged(f"{done.why}; as seen above: {fault}")
        return failed(done.why, "the service itself says so: look for the same time in your server's log")
    path = subject.address.task_path
    pages = [event for event in done.events
             if event.matches("platform", "response", target=path) and event.response.status == 200]
    size = sum(len(event.response.body) for event in pages)
    slowest = max(_seconds(done.events, event.connection) for event in pages)
    seen = (f"{subject.faces} faces in {len(pages)} pages, {size:,} bytes, in {done.seconds:.1f} s; the slowest "
            f"page took {slowest:.3f} s")
    return passed(seen)


def _pictures(subject: Subject) -> Finding:
    seen = _whole(subject).outcome
    if seen["refused"] or not seen["pictures"]:
        return warning(f"the simulated ITGT imported {seen['pictures']} pictures and refused {seen['refused']}",
                       "send each record with \"credentialNumber\" and a JPEG in base64 as \"picture\", or ask who "
                       "builds your ITGT what it reads")
    return passed(f"the simulated ITGT imported all {seen['pictures']}")


def _reports(done: Download) -> dict[int, int | None]:
    """The status of the answer to each report, by connection; None where no whole one came."""
    statuses: dict[int, int | None] = {event.request.connection: None for event in done.events
                                       if event.matches("platform", "report")}
    for event in done.events:
        if event.matches("platform", "response") and event.connection in statuses and event.response.status >= 200:
            statuses[event.connection] = event.response.status
    return statuses


def _result_path(subject: Subject) -> Finding:
    statuses = _reports(_whole(subject))
    path = subject.address.result_path
    for status in statuses.values():
        if status in _NO_SUCH_PATH or 300 <= (status or 0) < 400:
            return failed(f"POST {path}: status {status}", f"take reports at {path}, or name the path that does with "
                          "--result-path; they come to the host and port of the pages")
    return passed(f"{path} took {len(statuses)} requests") if statuses else not_judged("the service sent no report")


def _report(subject: Subject) -> Finding:
    done = _whole(subject)
    statuses = _reports(done)
    if not statuses:
        return not_judged("the service sent no report")
    do = "answer each report with 200, within 5 s: a camera sends it once, and goes on whatever comes"
    said = [event.record.text for event in done.events if event.matches("service", "log")
            and event.record.line == _REPORT_FAILED]
    if said:
        why = in_words(said[0].partition(" ")[2].strip(), "no answer, or no more of it, for 5 s")
        return failed(f"{len(said)} of {len(statuses)} reports got no answer; the first: {why}", do)
    for number, status in enumerate(statuses.values(), 1):
        if status is None or not 200 <= status < 300:
            return failed(f"report {number} of {len(statuses)}: status {status}", do)
    slowest = max(_seconds(done.events, connection) for connection in statuses)
    seen = f"{len(statuses)} reports, one for each page; the slowest answer took {slowest:.3f} s"
    return warning(seen, do) if slowest > GRANTED * NEARLY else passed(seen)


def _seconds(events: Sequence[Event], connection: int) -> float:
    """From the request on a connection to its answer."""
    asked = next(event.time for event in events
                 if event.matches("platform", "request") and event.request.connection == connection)
    return next(event.time for event in events if event.matches("platform", "response", connection=connection)
                and event.response.status >= 200) - asked


def _in_a_row(subject: Subject) -> Finding:
    camera, failures = _first_camera(subject), []
    begin = time.monotonic()
    for number in range(1, IN_A_ROW + 1):
        done = _end(camera, _begin(subject, camera, 1))
        if not done.fetched:
            failures.append(f"download {number}: {done.why}")
        if len(failures) == _MOST_FAILURES:
            break
    if failures:
        return failed(f"{len(failures)} of {number} downloads failed; {failures[0]}", "serve the same task again and "
                      "again: cameras ask anew after a failure, and each request has a connection of its own")
    return passed(f"{IN_A_ROW} of {IN_A_ROW}, {(time.monotonic() - begin) / IN_A_ROW:.2f} s each")


def _at_once(subject: Subject) -> Finding:
    cameras = [_first_camera(subject), *(_camera(subject) for _ in range(AT_ONCE - 1))]
    faces = min(PAGE_SIZE, subject.faces)
    begins = [_begin(subject, camera, faces) for camera in cameras]
    done = [_end(camera, begin) for camera, begin in zip(cameras, begins)]
    failures = [one.why for one in done if not one.fetched]
    if failures:
        return failed(f"{len(failures)} of {AT_ONCE} cameras got no page; one of them: {failures[0]}", "serve "
                      "connections side by side: more processes or threads, a longer queue, no limit for each address")
    return passed(f"{AT_ONCE} of {AT_ONCE}, the slowest in {max(one.seconds for one in done):.1f} s")


_WHO = "Who asks whom"
CHECKS = (
    Check("download", "the unchanged service fetches every page", "What the camera does with a response", _download,
          ("tls",)),
    Check("pictures", "the simulated ITGT can import the pictures; else a warning", "Play the camera: curl", _pictures,
          ("download", "records")),
    Check("result-path", "reports are taken at the result path", _WHO, _result_path, ("download",)),
    Check("report", "every report is answered with 200 to 299, within 5 s", _WHO, _report, ("result-path",)),
    Check("in-a-row", f"{IN_A_ROW} downloads one after the other", "Connection", _in_a_row, ("download",)),
    Check("at-once", f"{AT_ONCE} cameras at once", "Connection", _at_once, ("download",)))
