"""What failed in a run and why, in words, and which injected fault it comes from."""

from __future__ import annotations

import re
import signal
from collections.abc import Iterable

from simulator.messages.log import fails_download
from simulator.trace.story.answers import Asked
from simulator.trace.story.chapter import Chapter, Failure
from simulator.trace.words import NAMES, Item

_WITHOUT_ANSWER = re.compile(r"SendMsgAndRecvResponse err:(.*)")
_TRIED = re.compile(r"Tried (\d+) times, Fail!")
# Logged with level ERROR at each start, and yet nothing is wrong.
_HARMLESS = "[LogCommon]:client open name "
# Logged with another level, and yet something is wrong: the beginning of the text.
_FAILED = (" [Custom] download picture, open file", " [Custom] download picture, write file", "SendSysObj err ",
           "metadata ")
# Why a command is refused, where no error says it.
_REASON = re.compile(r"not allowed,is downloading|GetJsonMsgInfo err|Process cmd:.* not supported")
# Seconds after a refusal within which its reason is logged at the latest.
_SOON = 1.0
# Notes that tell of a failure: the beginning of the title.
_FAILED_NOTES = ("a hook failed:", "is not there:", "the reply to your own", "the service does not take your own",
                 "no TLS for a camera")
# Whose fault an error of the log can be: a part of where it was logged, and the peers.
_SUSPECTS = (("HttpParam", ("platform",)), ("DownloadPicture", ("platform", "itgt")),
             ("JsonMsgLoop", ("client", "faces")), ("DownWhite", ("client",)), ("WhiteListClear", ("faces",)),
             ("eventcache", ("events",)), ("MetaData", ("events",)), ("", ("itgt", "faces", "client", "platform")))


class Failures:
    """Finds failures as they happen.

    all      by number; one may get more words later, and another chapter
    changed  numbers of those that are new or have changed; the reader's to clear
    """

    def __init__(self) -> None:
        self.all: dict[int, Failure] = {}
        self.changed: set[int] = set()
        self._held: dict[str, Failure] = {}  # by peer, the fault that took hold there and that nothing came of so far
        self._page: Failure | None = None  # what failed in the exchange that goes on
        self._unexplained: Failure | None = None  # a refusal whose reason is not logged yet
        self._reason = ""
        self._refused = 0  # pictures

    def take(self, item: Item, chapter: Chapter) -> None:
        """Looks at an item."""
        if item.kind == "log":
            self._log(item, chapter)
        elif item.kind == "fault":
            self._hold(item, chapter)
        elif item.kind == "response" and not item.title.startswith(("1", "2")):
            what = "report" if len(chapter.phases) > 2 else "request"
            self._page = self._add(item, chapter, f"the platform answered the {what} of {chapter.title} with "
                                                  f"{item.title}", "platform")
        elif item.target == "client" and item.title.startswith("reply: status ") and not item.title.endswith(" 200"):
            self._refusal(item, chapter)
        elif item.kind == "note":
            self._note(item, chapter)

    def stopped(self, item: Item, chapter: Chapter, downloading: bool, unanswered: Iterable[Asked]) -> None:
        """The service is stopped by `item`; `chapter` is what it did until then."""
        for asked in unanswered:
            if asked.peer in ("itgt", "faces"):
                self._add(item, chapter, f"{NAMES[asked.peer]} did not answer {asked.title.removesuffix(' request')}, "
                          f"{item.time - asked.time:.2f} s until the stop", asked.peer, number=asked.number)
        if downloading:
            self._add(item, chapter, f"{chapter.title} was not done when the service was stopped")

    def refused_picture(self) -> None:
        """ITGT did not take a picture."""
        self._refused += 1

    def _hold(self, item: Item, chapter: Chapter) -> None:
        held = self._held.get(item.source)
        if held is not None and (held.fault, held.chapter) == (item.fault, chapter.number):
            held.times += 1
            self.changed.add(held.number)
        else:
            self._held[item.source] = self._new(item, chapter, item.title, item.fault, False)

    def _note(self, item: Item, chapter: Chapter) -> None:
        if item.fault and item.title.endswith(" is switched off"):
            self._held.pop(item.source, None)
        elif item.title.startswith(_FAILED_NOTES):
            self._add(item, chapter, f"{NAMES[item.source]}: {item.title} {item.detail}", item.source)
        elif item.title == "ended" and item.detail != "with code 0":
            self._add(item, chapter, f"the service ended {item.detail}{_signal(item.detail)}", "service")
        elif item.title == "imported the page" and self._refused:
            self._add(item, chapter, f"ITGT did not take {self._refused} pictures of {chapter.title}", "itgt")
            self._refused = 0

    def _refusal(self, item: Item, chapter: Chapter) -> None:
        said = next((one for one in self.all.values() if one.failed and one.chapter == chapter.number), None)
        text = f"{chapter.title} was refused, {item.title.removeprefix('reply: ')}"
        if chapter.is_page:
            said, text = None, f"a command during {chapter.title} was refused, {item.title.removeprefix('reply: ')}"
        reason = said.text if said is not None else self._reason
        text += f": {reason}" if reason else ""
        if said is not None:
            said.text, said.item, said.time = text, item.number, item.time
            self.changed.add(said.number)
        else:
            suspects = () if item.title.endswith(" 409") else ("client", "faces")
            added = self._add(item, chapter, text, *suspects)
            self._unexplained = None if reason else added
        self._reason = ""

    def _log(self, item: Item, chapter: Chapter) -> None:
        text = item.detail
        if text.startswith(" DownLoad Picture begin "):
            self._page = None
        if _REASON.match(text):
            if not self._explains_refusal(item):
                self._reason = text
        elif found := _WITHOUT_ANSWER.match(text):
            self._page = self._add(item, chapter, _not_exchanged(chapter, found[1]), "platform")
        elif fails_download(text) and self._page is not None:
            self._page.text += "; the download ended"
            self.changed.add(self._page.number)
        elif found := _TRIED.match(text):
            self._add(item, chapter, f"ITGT said {found[1]} times that {chapter.title} is not imported; the report "
                                     "tells what was done until then", "itgt")
        elif item.title.startswith("ERROR") and not text.startswith(_HARMLESS) or text.startswith(_FAILED):
            self._error(item, chapter)

    def _error(self, item: Item, chapter: Chapter) -> None:
        if item.detail.startswith("metadata ") and self._page is not None:
            self._unexplained = None
            return  # it says again that the report failed
        if self._explains_refusal(item):
            return
        text = item.detail.strip()
        suspects = next(peers for part, peers in _SUSPECTS if part in item.title)
        added = self._add(item, chapter, f"the service logged: {text}", *suspects)
        self._page = added if chapter.is_page else self._page

    def _explains_refusal(self, item: Item) -> bool:
        """Whether this is the reason of a refusal just before it, which the service logs behind its reply."""
        refusal, self._unexplained = self._unexplained, None
        if refusal is None or item.time - refusal.time >= _SOON:
            return False
        refusal.text += f": {item.detail.strip()}"
        self.changed.add(refusal.number)
        return True

    def _add(self, item: Item, chapter: Chapter, text: str, *suspects: str, number: int = 0) -> Failure:
        """A failure; the fault that caused it had taken hold at one of the suspects."""
        peer = next((peer for peer in suspects if peer in self._held), "")
        held = self._held.pop(peer, None) or self._new(item, chapter, text)
        held.text, held.item, held.time, held.failed = text, number or item.number, item.time, True
        held.chapter = chapter.number
        self.changed.add(held.number)
        return held

    def _new(self, item: Item, chapter: Chapter, text: str, fault: str = "", failed: bool = True) -> Failure:
        failure = Failure(len(self.all) + 1, item.time, item.number, text, fault, failed=failed, chapter=chapter.number)
        self.all[failure.number] = failure
        self.changed.add(failure.number)
        return failure


def _not_exchanged(chapter: Chapter, reason: str) -> str:
    seconds = ""
    if reason == "Timeout" and chapter.phases:
        seconds = f" after {chapter.phases[-1][2] - chapter.phases[-1][1]:.2f} s"
    what = f"the report of {chapter.title} failed" if len(chapter.phases) > 2 else f"{chapter.title} was not fetched"
    return f"{what}: {reason}{seconds}"


def _signal(code: str) -> str:
    """Which signal a service's end is due to: its code is 128 and the signal's number."""
    try:
        return f", {signal.Signals(int(code.rpartition(' ')[2]) - 128).name}"
    except ValueError:
        return ""
