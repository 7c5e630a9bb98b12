"""The steps of a page, each as long as it took: fetch, import, report."""

from __future__ import annotations

import re

from simulator.messages import wire
from simulator.trace.story.chapter import Chapter
from simulator.trace.words import Item

_NOT_FETCHED = re.compile(r"DownloadPictureProcess Status:(?!200\b)")
_REPORTED = ("response status ", "metadata ", "ReportPageResult err ")


class Phases:
    """Fetch until ITGT is told of the page, import until it is done, report until the platform has answered.

    One that gets no answer takes until the service gives up, or until `close`.
    """

    def __init__(self, chapter: Chapter) -> None:
        self._chapter = chapter
        self._connected = False
        self._going_on = True
        chapter.phases.append(("fetch", chapter.begin, chapter.begin))

    def take(self, item: Item) -> None:
        """Something that happened meanwhile, in the page or beside it."""
        if not self._going_on:
            return
        if item.kind == "connection" and not self._connected:
            self._connected = True
            self._chapter.phases[0] = ("fetch", item.time, item.time)
        self._extend(item.time)
        phase = self._chapter.phases[-1][0]
        command = wire.Message(item.data).command if item.kind == "datagram" and item.target == "itgt" else 0
        if phase == "fetch" and command == wire.IMPORT_FILE:
            self._chapter.phases.append(("import", item.time, item.time))
        elif phase == "import" and command == wire.IMPORT_TIME:
            self._chapter.phases.append(("report", item.time, item.time))
        elif item.kind == "log" and (phase == "fetch" and _NOT_FETCHED.match(item.detail)
                                     or phase == "report" and item.detail.startswith(_REPORTED)):
            self._going_on = False

    def close(self, time: float) -> None:
        """The page is over."""
        if self._going_on:
            self._extend(time)
            self._going_on = False

    def _extend(self, time: float) -> None:
        name, begin, end = self._chapter.phases[-1]
        self._chapter.phases[-1] = (name, begin, max(end, time))
