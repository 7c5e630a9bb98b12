"""Which chapter each thing that happens belongs to, and how long the work of a chapter takes."""

from __future__ import annotations

import re

from simulator.messages import wire
from simulator.messages.log import ends_download
from simulator.trace.story.chapter import Chapter
from simulator.trace.story.phases import Phases
from simulator.trace.words import Item

# The service's log, which is the same for every platform: what begins a page, and which page it is.
_PAGE_BEGINS = " DownLoad Picture begin "
_WHICH_PAGE = re.compile(r' RegisterProcObj::SendSysObj, ContentData:.*"startIndex" : (\d+),.*"offset" : (\d+),')
_SERVING = "waitForTerminationRequest sucess!"
# Seconds after its work within which what happens still belongs to a chapter; its work has not become longer by that.
_SOON = 1.0


class Teller:
    """Puts items into chapters: the start, each command, each page of a download, "Idle" after their work, the stop.

    chapters  those so far. Their items are the caller's business: a run that goes on would fill the memory
    """

    def __init__(self) -> None:
        self.chapters = [Chapter("Start", 0.0)]
        self.downloading = False
        self._head = False  # of a command whose body has not come
        self._asking: Chapter | None = None  # of the command that waits for its reply
        self._connections: dict[int, Chapter] = {}
        self._phases: Phases | None = None  # of the page that is the last chapter

    def take(self, item: Item) -> Chapter:
        """The item's chapter."""
        chapter = self._chapter_of(item)
        if self._phases is not None and (item.kind != "connection" or chapter is self.chapters[-1]):
            self._phases.take(item)
        if not chapter.over or chapter.title in ("Idle", "Stop") or item.kind == "log":
            chapter.end = max(chapter.end, item.time)
        if item.kind == "log":
            self._take_log(chapter, item)
        elif chapter is self._asking and item.title.startswith("reply: "):
            self._take_reply(chapter, item)
        return chapter

    def imported(self) -> None:
        """ITGT has imported a picture."""
        self.chapters[-1].pictures += 1

    def _chapter_of(self, item: Item) -> Chapter:
        if item.kind == "datagram" and item.source == "client":
            return self._command(item)
        if item.kind == "log" and item.detail.startswith(_PAGE_BEGINS):
            self.downloading = True
            chapter = self._open("page", item.time)
            self._phases = Phases(chapter)
            return chapter
        if item.target == "client" and self._asking is not None:
            return self._asking
        if item.connection in self._connections:
            return self._connections[item.connection]
        if title := self._next_title(item):
            self._open(title, item.time)
        if item.connection:
            self._connections[item.connection] = self.chapters[-1]
        return self.chapters[-1]

    def _next_title(self, item: Item) -> str:
        """The title of the chapter that an item begins; "" if it begins none."""
        last = self.chapters[-1]
        if item.kind == "note" and item.title == "starting":
            return "" if last.title == "Start" else "Start"
        if item.kind == "note" and item.title in ("event node closed", "ended"):
            return "" if last.title == "Stop" else "Stop"
        return "Idle" if last.over and last.title != "Idle" and item.time - last.end > _SOON else ""

    def _open(self, title: str, time: float) -> Chapter:
        last = self.chapters[-1]
        if not last.over:
            last.end = max(last.end, time)
        if self._phases is not None:
            self._phases.close(last.end)
            self._phases = None
        last.over = True
        self.chapters.append(Chapter(title, time, time, number=len(self.chapters)))
        return self.chapters[-1]

    def _command(self, item: Item) -> Chapter:
        """A head begins a chapter, which its body names. What comes during a download stays with the page."""
        if self._head:
            self._head = False
            if not self.downloading:
                self.chapters[-1].title = item.title.removeprefix("command ")
            return self.chapters[-1]
        self._head = item.size == wire.HEAD_SIZE
        self._asking = self.chapters[-1] if self.downloading else self._open(item.title, item.time)
        return self._asking

    def _take_log(self, chapter: Chapter, item: Item) -> None:
        if chapter.title == "page" and (which := _WHICH_PAGE.match(item.detail)):
            chapter.title = f"page {which[1]} to {int(which[1]) + int(which[2]) - 1}"
        elif ends_download(item.detail):
            self.downloading = False
            chapter.over = True
        elif chapter.title == "Start" and item.detail.startswith(_SERVING):
            chapter.over = True

    def _take_reply(self, chapter: Chapter, item: Item) -> None:
        self._asking = None
        if not self.downloading and (chapter.title != "whiteListDown" or item.title != "reply: status 200"):
            chapter.over = True
