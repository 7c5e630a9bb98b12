"""The parts of a recorded run: its start, each command with what it causes, and each page of a download."""

from __future__ import annotations

from collections.abc import Iterator
from dataclasses import dataclass, field

from simulator.messages import wire
from simulator.messages.log import ends_download
from simulator.messages.text import document_of, one_line
from simulator.trace.explanation import explain
from simulator.trace.recording import Entry, Recording
from simulator.trace.words import Item


@dataclass
class Chapter:
    """A part of a run.

    phases    of a page: name ("fetch", "import", "report"), begin and end in seconds since the recording began
    pictures  how many ITGT imported meanwhile
    """

    title: str
    begin: float
    items: list[Item] = field(default_factory=list)
    phases: list[tuple[str, float, float]] = field(default_factory=list)
    pictures: int = 0

    @property
    def end(self) -> float:
        return max([self.begin, *(item.time for item in self.items)])


def chapters_of(recording: Recording) -> list[Chapter]:
    """The chapters of a run, in order; every explained entry is in one."""
    teller = _Teller()
    imported = []

    def passing() -> Iterator[Entry]:
        for entry in recording.entries:
            if entry.type == "note" and (entry.source, entry.kind) == ("itgt", "picture"):
                imported.append(entry.time)
            yield entry

    for item in explain(passing()):
        teller.take(item)
    chapters = [chapter for chapter in teller.chapters if chapter.items]
    for chapter in chapters:
        chapter.phases = _phases(chapter)
    for time in imported:
        at = [chapter for chapter in chapters if chapter.begin <= time]
        if at:
            at[-1].pictures += 1
    return chapters


class _Teller:
    """Puts items into chapters, one after the other."""

    def __init__(self) -> None:
        self.chapters = [Chapter("Start", 0.0)]
        self._head: Item | None = None  # of a command whose body has not come
        self._downloading = False

    def take(self, item: Item) -> None:
        if item.kind == "datagram" and item.source == "client":
            self._take_command(item)
        elif item.kind == "request" and (title := _page_title(item)) is not None:
            self._downloading = True
            self._begin_page(title, item)
        elif item.kind == "log" and ends_download(item.detail):
            self._downloading = False
        self.chapters[-1].items.append(item)

    def _take_command(self, item: Item) -> None:
        """A head begins a chapter, which its body names. What comes during a download stays with the page."""
        if self._head is not None:
            self._head = None
            if not self._downloading:
                self.chapters[-1].title = item.title.removeprefix("command ")
            return
        self._head = item if len(item.data) == wire.HEAD_SIZE else None
        if not self._downloading:
            self.chapters.append(Chapter(item.title, item.time))

    def _begin_page(self, title: str, request: Item) -> None:
        """A page begins when its connection does; that is among the last items. The reply to the command is not its."""
        items = self.chapters[-1].items
        begin = next((position for position, item in enumerate(items) if item.connection == request.connection),
                     len(items))
        own = [item for item in items[begin:] if item.target != "client"]
        items[begin:] = [item for item in items[begin:] if item.target == "client"]
        self.chapters.append(Chapter(title, own[0].time if own else request.time, own))


def _page_title(request: Item) -> str | None:
    body = document_of(request.data.partition(b"\r\n\r\n")[2])
    if not isinstance(body, dict) or "startIndex" not in body or "offset" not in body or "ImportInfo" in body:
        return None
    start, count = body["startIndex"], body["offset"]
    if isinstance(start, int) and isinstance(count, int):
        return f"page {start} to {start + count - 1}"
    return one_line(f"page {start}", 60)


def _phases(chapter: Chapter) -> list[tuple[str, float, float]]:
    """Fetch until ITGT is told of the page, import until it is done, report until the platform has answered."""
    requests = [item for item in chapter.items if item.kind == "request"]
    if not requests or not chapter.title.startswith("page "):
        return []
    told = _times(chapter, wire.IMPORT_FILE)
    asked = _times(chapter, wire.IMPORT_TIME)
    phases = [("fetch", chapter.begin, told[0] if told else _last_of_connection(chapter, requests[0]))]
    if told:
        progress = [item.time for item in chapter.items if item.kind == "datagram" and item.source == "itgt"
                    and wire.Message(item.data).command in (wire.IMPORT_FILE, wire.IMPORT_PROGRESS)]
        phases.append(("import", told[0], asked[0] if asked else max([told[0], *progress])))
    if asked:
        reported = requests[1:]
        phases.append(("report", asked[0], _last_of_connection(chapter, reported[0]) if reported else asked[-1]))
    return phases


def _times(chapter: Chapter, command: int) -> list[float]:
    return [item.time for item in chapter.items
            if item.kind == "datagram" and item.target == "itgt" and wire.Message(item.data).command == command]


def _last_of_connection(chapter: Chapter, request: Item) -> float:
    """When the answer to a request was over, as far as the platform saw it."""
    return max(item.time for item in chapter.items if item.connection == request.connection)
