"""A recording explained, entry by entry: a whole one, or the stream of what happens now."""

from __future__ import annotations

from collections.abc import Iterable, Iterator
from dataclasses import asdict, dataclass, field, replace
from typing import Any

from simulator.errors import CameraError
from simulator.journal import Event
from simulator.trace.entries import entries_of
from simulator.trace.recording import Entry
from simulator.trace.words import HIDDEN, HOOKS, Item, explained

_KEPT_BYTES = 65_536  # of one message, while a whole run is explained
_BYTES_LIMIT = 2048  # of one message; the first and the last of a longer one are shown
_BYTES_AT_END = 256
_ROW = 16
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
        elif entry.type == "note" and entry.kind == "fault_off":
            self._faults.pop(entry.source, None)  # what comes from here on is as it should be
        elif item.source in self._faults and item.kind in ("datagram", "response", "step"):
            item = replace(item, fault=self._faults.pop(item.source))
        return item


def explain(entries: Iterable[Entry]) -> Iterator[Item]:
    """Every entry that says something to a reader, explained, in order; of a long one only what is worth showing."""
    explainer = Explainer()
    for entry in entries:
        if entry.type == "note" and (entry.source, entry.kind) in HIDDEN:
            continue
        item = explainer.take(entry)
        if item is not None:
            yield trimmed(item)


def trimmed(item: Item) -> Item:
    """An item with only those bytes of a long message that are worth showing."""
    return item if len(item.data) <= _KEPT_BYTES else replace(item, data=b"", parts=shown_bytes(item.data))


def shown_bytes(data: bytes) -> tuple[tuple[int, bytes], ...]:
    """The bytes worth showing, as pieces with their offsets: no long runs of zeros, and not all of a long message."""
    if is_cut(data):
        end = (len(data) - _BYTES_AT_END) // _ROW * _ROW
        return (0, data[:_BYTES_LIMIT - _BYTES_AT_END]), (end, data[end:])
    pieces: list[tuple[int, bytes]] = []
    for offset in range(0, len(data), _ROW):
        row = data[offset:offset + _ROW]
        if not any(row) and offset:
            continue
        if pieces and sum(map(len, pieces[-1][1:])) + pieces[-1][0] == offset:
            pieces[-1] = (pieces[-1][0], pieces[-1][1] + row)
        else:
            pieces.append((offset, row))
    return tuple(pieces)


def is_cut(data: bytes) -> bool:
    """Whether a message is too long to show, even without its zeros."""
    return len(data) - data.count(0) > _BYTES_LIMIT


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
