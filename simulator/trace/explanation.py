"""A recording explained, entry by entry: a whole one, or the stream of what happens now."""

from __future__ import annotations

from collections.abc import Iterator
from dataclasses import asdict, dataclass, field, replace
from typing import Any

from simulator.errors import CameraError
from simulator.journal import Event
from simulator.trace.recording import Entry, Recording, entries_of
from simulator.trace.words import HIDDEN, HOOKS, Item, explained

_MESSAGES = ("datagram", "request", "response", "step")


class Explainer:
    """Explains entries as they come, each in the light of those before it."""

    def __init__(self) -> None:
        self._faults: dict[str, str] = {}

    def take(self, entry: Entry) -> Item | None:
        """The entry in words; None when another one says the same."""
        try:
            item = explained(entry)
        except (TypeError, ValueError, AttributeError) as error:
            raise CameraError(f"line {entry.number} of the recording, a {entry.type}, is damaged: {error}") from error
        if entry.type == "fault":
            if entry.name in HOOKS and self._faults.get(entry.source, entry.name) not in HOOKS:
                return None  # the hook that makes the fault that was named just before
            self._faults[entry.source] = entry.name
        elif item.source in self._faults and item.kind in ("datagram", "response", "step"):
            item = replace(item, fault=self._faults.pop(item.source))
        return item


def explain(recording: Recording) -> list[Item]:
    """Every entry that says something to a reader, explained, in order."""
    explainer = Explainer()
    return [item for entry in recording.entries
            if not (entry.type == "note" and (entry.source, entry.kind) in HIDDEN)
            and (item := explainer.take(entry)) is not None]


@dataclass(frozen=True)
class LiveItem:
    """What happens now, as it is shown and as it is told to a program.

    time      monotonic seconds
    kind      "message", "note", "log" or "fault"
    title     a few words, to stand beside an arrow
    text      everything, decoded
    fields    the same by name

    The rest is as in Item.
    """

    time: float
    source: str
    target: str
    kind: str
    title: str
    text: str
    fields: dict[str, Any]
    level: str = ""
    shown: tuple[str, ...] = ()
    progress: dict[str, Any] = field(default_factory=dict)

    def document(self) -> dict[str, Any]:
        """As JSON has it; LiveItem(**document) is the same again."""
        return asdict(self)

    def public(self) -> dict[str, Any]:
        """What programs may rely on, without what only steers the display."""
        return {name: getattr(self, name) for name in ("time", "source", "target", "kind", "title", "text", "fields")}


class LiveTrace:
    """The trace of a journal's events while they happen."""

    def __init__(self) -> None:
        self._explainer = Explainer()

    def take(self, event: Event) -> Iterator[LiveItem]:
        for kind, fields in entries_of(event):
            if kind == "note":  # with what the recording leaves out
                fields = {**fields, "data": {**event.data, **fields["data"]}}
            item = self._explainer.take(Entry(0, event.time, kind, fields))
            if item is not None:
                yield _live(item)


def _live(item: Item) -> LiveItem:
    kind = "message" if item.kind in _MESSAGES else "log" if item.kind == "log" else "fault" if item.fault else "note"
    return LiveItem(item.time, item.source, item.target if kind == "message" else "", kind, item.short or item.title,
                    item.whole or f"{item.title} {item.detail}".strip(), item.values,
                    item.values["level"] if kind == "log" else "", item.shown, item.progress)
