"""What became of a download, and why: from the service's log and from what the other processes did."""

from __future__ import annotations

import errno
import os
import re
from collections.abc import Callable, Sequence
from typing import Any

from simulator.journal import Event
from simulator.messages import wire
from simulator.messages.log import ends_download, fails_download

_PAGE = "Http Param:"  # what the service logs when it asks for a page
_REPORT = b'"ImportInfo"'  # what every report has, and no other request
_REPORT_FAILED = re.compile(r"metadata (?!put ring buf)")
_NO_ANSWER = re.compile(r"SendMsgAndRecvResponse err:(.*)")
_SECONDS = "5 s"  # what the service grants each step
# What the service says of an exchange that failed, and what that is in plain words; the first that matches counts.
_FAILURES: tuple[tuple[str, Callable[[re.Match[str], str], str]], ...] = (
    (r"Connection refused: (.*)", lambda match, _stage: f"the platform refused the connection ({match[1]})"),
    (r"Timeout.*", lambda _match, stage: f"time-out, {stage}"),
    (r"Connection reset by peer.*", lambda _match, _stage: "the platform reset or closed the connection"),
    (r"(?:SSL|Certificate).*::(.*)", lambda match, _stage: f"TLS failed: {match[1]}"),
    (r"SSL.*", lambda match, _stage: f"TLS failed: {match[0]}"),
    (r"Malformed message: (.*)", lambda match, _stage: f"what came is no whole HTTP response: {match[1]}"),
    (r".*", lambda match, _stage: match[0]))


def outcome(events: Sequence[Event], end: Event | None) -> dict[str, Any]:
    """Pages that were handed to ITGT, pictures that it imported and refused, and whether all is well; else `why`.

    Reports that the platform did not take are there as `unreported`: the pictures are on the camera all the same.

    end  of the download; None when it stands still
    """
    pages = sum(event.matches("itgt", "received", command=wire.IMPORT_FILE) for event in events)
    results = [event.result for event in events if event.matches("itgt", "picture")]
    imported = results.count(wire.IMPORTED)
    lines = [event.record.text for event in events if event.matches("service", "log")]
    why = ""
    if end is None:
        why = f"it stands still: {_why_still(events)}"
    elif end.kind != "log":
        why = f"the service ended with code {end.exit_code}"
    elif any(fails_download(line) for line in lines):
        why = _why_no_page(lines, events)
    elif results and not imported:
        why = "ITGT refused every picture"
    elif pages and not imported:
        why = "ITGT imported no picture"
    seen = {"pages": pages, "pictures": imported, "refused": len(results) - imported, "complete": not why}
    if why:
        return {**seen, "why": why}
    unreported = _unreported(events, lines)
    return {**seen, "unreported": unreported} if unreported else seen


def _unreported(events: Sequence[Event], lines: Sequence[str]) -> int:
    """How many reports were refused, or not answered, in a download whose pages all came."""
    reports = {event.request.connection for event in events
               if event.matches("platform", "request") and _REPORT in event.request.raw}
    refused = sum(event.matches("platform", "response") and event.connection in reports
                  and not 200 <= event.response.status < 300 for event in events)
    return refused + sum(bool(_REPORT_FAILED.match(line)) for line in lines)


def _why_still(events: Sequence[Event]) -> str:
    """Of a download that has not ended, and to which nothing happens any more."""
    asked = [event.message.command for event in events if event.matches("itgt", "received")]
    if asked:
        return f"ITGT has not given the answer to its request {asked[-1]} that the service waits for"
    return "the service waits for ITGT, which is not there, or for the platform"


def _why_no_page(lines: Sequence[str], events: Sequence[Event]) -> str:
    page = f"page {lines.count(_PAGE)} could not be fetched"
    for line in reversed(lines):
        if match := _NO_ANSWER.match(line):
            return f"{page}: {in_words(match[1].strip(), _stage(events))}"
        if match := re.match(r"Http Status \$(\d+)", line):
            if match[1] != "200":
                return f"{page}: the platform answered {match[1]}"
            break
    said = [line for line in lines if line.startswith(("[Custom]", " [Custom]"))]
    return f"page {lines.count(_PAGE)} could not be stored or handed to ITGT" + (
        f": {said[-1].strip()}" if said else "")


def unreachable(events: Sequence[Event]) -> str:
    """Why there is no way to somebody's own platform, where that says more than that it refuses; else ""."""
    seen = [event for event in events if event.source == "platform" and event.kind in ("absent", "present")]
    if not seen or seen[-1].kind == "present" or os.strerror(errno.ECONNREFUSED) in seen[-1].error:
        return ""
    return f" (the way to it: {seen[-1].error})"


def in_words(failure: str, stage: str) -> str:
    for pattern, words in _FAILURES:
        if match := re.fullmatch(pattern, failure):
            return words(match, stage)
    return failure


def _stage(events: Sequence[Event]) -> str:
    """How far the last connection had come, as far as the platform's side is seen."""
    connection = 0
    stage = f"nothing came for {_SECONDS}"
    for event in events:
        if event.matches("platform", "accepted"):
            connection, stage = event.connection, f"the TLS handshake did not end in {_SECONDS}"
        elif event.matches("platform", "request") and event.request.connection == connection:
            stage = f"no answer, or no more of it, for {_SECONDS}"
        elif event.matches("platform", "relayed"):
            stage = f"nothing came for {_SECONDS}"
    return stage


def download_state(events: Sequence[Event]) -> dict[str, Any]:
    """What the download does: "state" is "running", "over" with the outcome of the last one, or "none"."""
    ends = [position for position, event in enumerate(events) if event.matches("service", "ended")
            or event.matches("service", "log") and ends_download(event.record.text)]
    now = events[ends[-1] + 1:] if ends else events
    if pages := _asked(now):
        return {"state": "running", "page": pages,
                "pictures": sum(event.matches("itgt", "picture", result=wire.IMPORTED) for event in now)}
    for before, end in reversed(list(zip([-1, *ends], ends))):
        if _asked(events[before + 1:end]):
            return {"state": "over", **outcome(events[before + 1:end], events[end])}
    return {"state": "none"}


def _asked(events: Sequence[Event]) -> int:
    """How many pages the service has asked for."""
    return sum(event.matches("service", "log") and event.record.text == _PAGE for event in events)


def described(download: dict[str, Any]) -> str:
    """The same as a line for people."""
    return f"download {in_a_line(download)}, {download['seconds']:g} s"


def in_a_line(download: dict[str, Any]) -> str:
    """Whether it was complete, and if not, why."""
    how = "complete" if download["complete"] else f"NOT complete, {download['why']}"
    refused = f", {download['refused']} refused" if download["refused"] else ""
    unreported = f", {download['unreported']} reports not taken" if download.get("unreported") else ""
    return f"{how}: {download['pages']} pages, {download['pictures']} pictures imported{refused}{unreported}"
