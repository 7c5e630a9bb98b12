"""A run told: every thing that happened in words, in its chapter, with what it answers and what failed."""

from __future__ import annotations

from dataclasses import replace

from simulator.messages import wire
from simulator.trace.explanation import Explainer, trimmed
from simulator.trace.recording import Entry
from simulator.trace.story.answers import Answers
from simulator.trace.story.chapter import Chapter, Failure
from simulator.trace.story.failures import Failures
from simulator.trace.story.names import message_of, socket_of
from simulator.trace.story.teller import Teller
from simulator.trace.words import HIDDEN, Item


class Story:
    """Takes what happens, one entry after the other; it keeps the chapters, not what is in them."""

    def __init__(self) -> None:
        self._explainer = Explainer()
        self._teller = Teller()
        self._answers = Answers()
        self._failures = Failures()
        self._number = 0

    @property
    def chapters(self) -> list[Chapter]:
        return self._teller.chapters

    @property
    def failures(self) -> list[Failure]:
        """What failed, in the order in which it was found."""
        return list(self._failures.all.values())

    def changed_failures(self) -> list[Failure]:
        """Those that are new or have changed since the last time."""
        changed = [self._failures.all[number] for number in sorted(self._failures.changed)]
        self._failures.changed.clear()
        return changed

    def take(self, entry: Entry) -> tuple[Item, Chapter] | None:
        """The entry in words, and its chapter; None when another entry says the same."""
        if entry.type == "note" and (entry.source, entry.kind) in HIDDEN:
            if (entry.source, entry.kind) == ("itgt", "picture"):
                self._teller.imported()
                if entry.fields["data"].get("result") != wire.IMPORTED:
                    self._failures.refused_picture()
            return None
        item = self._explainer.take(entry)
        if item is None:
            return None
        self._number += 1
        item = self._answers.take(replace(item, number=self._number))
        before = self.chapters[-1]
        chapter = self._teller.take(item)
        if self.chapters[-1] is not before and self.chapters[-1].title == "Stop":
            self._failures.stopped(item, before, self._teller.downloading, self._answers.waiting)
            self._answers.waiting = []
            self._teller.downloading = False
        self._failures.take(item, chapter)
        fetching = len(chapter.phases) == 1
        return trimmed(replace(item, message=message_of(item, fetching), socket=socket_of(item))), chapter
