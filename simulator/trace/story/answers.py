"""Which message answers which, and what is not answered."""

from __future__ import annotations

from collections.abc import Callable
from dataclasses import dataclass, replace

from simulator.messages import wire
from simulator.trace.words import Item


@dataclass(frozen=True)
class Asked:
    """A request: its item's number, time and title, who has to answer, and by what the answer is known.

    key  a command's tag, the command code of an exchange, an HTTPS request's connection, a buffer's identifier
    """

    number: int
    time: float
    title: str
    peer: str
    key: int


class Answers:
    """Finds what each message answers, on every wire.

    waiting  what has no answer so far, in the order in which it was asked
    """

    def __init__(self) -> None:
        self.waiting: list[Asked] = []
        self._tags: dict[str, int] = {}  # of the head that came from this process, until its body follows

    def take(self, item: Item) -> Item:
        """The item; what it answers, and after how long, is added to it."""
        asked, asking = None, len(self.waiting)
        if item.kind == "datagram":
            of = self._client if "client" in (item.source, item.target) else \
                self._events if item.source == "events" else self._exchange
            asked = of(item)
        elif item.kind == "buffer":
            self._take_out(lambda one: one.peer == "events")  # nobody has to ask for one: only the newest waits
            self._ask(item, "events", item.values["identifier"])
        elif item.kind == "request":
            self._ask(item, "platform", item.connection)
        elif item.kind in ("response", "step") and item.target == "service" and not item.title.startswith("1"):
            asked = self._take_out(lambda one: (one.peer, one.key) == ("platform", item.connection))
        elif item.kind == "connection" and item.title.endswith(" closed"):
            self._take_out(lambda one: (one.peer, one.key) == ("platform", item.connection))
        if asked is not None:
            return replace(item, answers=asked.number, after=item.time - asked.time)
        return replace(item, asks=True) if item.kind != "buffer" and len(self.waiting) > asking else item

    def _client(self, item: Item) -> Asked | None:
        if item.size == wire.HEAD_SIZE and "tag" in item.values:
            self._tags[item.source] = item.values["tag"]
        elif (tag := self._tags.pop(item.source, None)) is not None:
            if item.source == "client":
                self._ask(item, "service", tag)
            else:  # commands are answered in their order: what was asked before gets no reply any more
                asked = next((one for one in self.waiting if (one.peer, one.key) == ("service", tag)), None)
                if asked is not None:
                    self._take_out(lambda one: one.peer == "service" and one.number <= asked.number)
                return asked
        return None

    def _exchange(self, item: Item) -> Asked | None:
        command = wire.Message(item.data).command
        if item.source == "service":
            if command in wire.COMMANDS and command != wire.READY:
                self._ask(item, item.target, command)
            return None
        return (self._take_out(lambda one: (one.peer, one.key) == (item.source, command))
                or self._take_out(lambda one: one.peer == item.source))

    def _events(self, item: Item) -> Asked | None:
        return self._take_out(lambda one: (one.peer, one.key) == ("events", item.values.get("identifier")))

    def _ask(self, item: Item, peer: str, key: int) -> None:
        self.waiting.append(Asked(item.number, item.time, item.title, peer, key))

    def _take_out(self, chosen: Callable[[Asked], bool]) -> Asked | None:
        """Removes those; returns the first."""
        found = [one for one in self.waiting if chosen(one)]
        self.waiting = [one for one in self.waiting if one not in found]
        return found[0] if found else None
