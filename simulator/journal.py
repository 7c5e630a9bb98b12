"""The journal of one simulated camera: everything that happened, in order, and ways to wait for it."""

from __future__ import annotations

import threading
import time
from collections.abc import Callable
from dataclasses import dataclass, field
from datetime import datetime, timezone
from typing import Any, TypeVar

T = TypeVar("T")

# Seconds of one wait: a signal that comes just as Python begins to wait is handled only at its end.
_STEP = 0.5


@dataclass(frozen=True)
class Event:
    """One thing that happened.

    time    monotonic seconds (time.monotonic())
    source  who saw it: "client", "itgt", "faces", "platform", "events", "service"
    kind    what it was, for example "received", "sent", "request", "picture", "log"
    data    the details; also readable as attributes: event.message is event.data["message"]
    """

    time: float
    source: str
    kind: str
    data: dict[str, Any] = field(default_factory=dict)

    def __getattr__(self, name: str) -> Any:
        try:
            return self.__dict__["data"][name]
        except KeyError:
            raise AttributeError(f"a {self.source} {self.kind} event has no {name}") from None

    def matches(self, source: str | None = None, kind: str | None = None, **data: Any) -> bool:
        """True if source, kind and all named details are as given."""
        return ((source is None or self.source == source) and (kind is None or self.kind == kind)
                and all(name in self.data and self.data[name] == value for name, value in data.items()))

    def __str__(self) -> str:
        details = ", ".join(f"{name}={_short(value)}" for name, value in self.data.items())
        return f"{self.time:.3f} {self.source} {self.kind}: {details}"


def _short(value: Any) -> str:
    text = repr(value) if not isinstance(value, (bytes, bytearray)) else f"{len(value)} bytes"
    return text if len(text) <= 120 else text[:117] + "..."


class Journal:
    """An append-only list of events, in the order of causes. Every method may be called from any thread.

    What a peer does is added before it is done; what a peer got, after `take` has added what the service wrote so far.
    So what the service wrote before it sent something stands before that, whichever thread the machine lets run first.
    What it wrote just after may stand before it, too.

    began     monotonic seconds; what is shown and recorded counts from here, which is `began_at` on the wall clock
    patience  returns what every wait's `timeout` is multiplied by at its end, for a service or a machine that is slow
    take      adds what happened and is told of in no other way: what stands in the log
    began     when it began, as `Event.time` counts, and began_at on the wall: the clock of all who tell of a run
    """

    def __init__(self) -> None:
        self.began = time.monotonic()
        self.began_at = datetime.now(timezone.utc)
        self.patience: Callable[[], float] = lambda: 1.0
        self.take: Callable[[], None] = lambda: None
        self._taking = False
        self._changed = threading.Condition(threading.RLock())
        self._events: list[Event] = []
        self._listeners: list[Callable[[Event], None]] = []

    def catch_up(self) -> None:
        """Has `take` add what happened so far; called from within it, by a listener perhaps, it does nothing."""
        with self._changed:
            if self._taking:
                return
            self._taking = True
            try:
                self.take()
            finally:
                self._taking = False

    def add(self, source: str, kind: str, **data: Any) -> Event:
        """Appends an event, wakes whoever waits and calls the listeners on the caller's thread, in order."""
        with self._changed:
            self.catch_up()
            event = Event(time.monotonic(), source, kind, data)
            self._events.append(event)
            self._changed.notify_all()
            for listener in tuple(self._listeners):
                listener(event)
        return event

    def locked(self) -> threading.Condition:
        """`with journal.locked():` keeps every other thread from adding and from taking."""
        return self._changed

    def __len__(self) -> int:
        with self._changed:
            self.catch_up()
            return len(self._events)

    @property
    def events(self) -> list[Event]:
        """A copy of the list so far."""
        with self._changed:
            self.catch_up()
            return list(self._events)

    def forget(self) -> None:
        """Drops the events so far, for runs so long that they would fill the memory. Positions begin anew at 0."""
        with self._changed:
            self.catch_up()
            self._events.clear()

    def find(self, source: str | None = None, kind: str | None = None, **data: Any) -> list[Event]:
        """The events so far that match (see Event.matches)."""
        return [event for event in self.events if event.matches(source, kind, **data)]

    def listen(self, listener: Callable[[Event], None]) -> Callable[[], None]:
        """Calls `listener` with every further event; it must be quick and must not wait for another event.

        Returns a function that ends it.
        """
        with self._changed:
            self._listeners.append(listener)
        return lambda: self._listeners.remove(listener)

    def wait_for(self, predicate: Callable[[Event], bool], timeout: float = 10.0, since: int = 0) -> Event:
        """The first event for which `predicate` is true, from position `since` on; past events count.

        `since=len(journal)` taken before an action limits the search to what the action causes.
        Raises TimeoutError after `timeout` seconds.
        """
        begin = time.monotonic()
        position = since
        with self._changed:
            while True:
                while position < len(self._events):
                    position += 1
                    if predicate(self._events[position - 1]):
                        return self._events[position - 1]
                self._wait(begin, timeout)

    def wait_until(self, condition: Callable[[], T], timeout: float = 10.0) -> T:
        """The first true value of `condition()`, which is evaluated now and after every event.

        Raises TimeoutError after `timeout` seconds.
        """
        begin = time.monotonic()
        with self._changed:
            while not (value := condition()):
                self._wait(begin, timeout)
            return value

    def _wait(self, begin: float, timeout: float) -> None:
        left = begin + timeout - time.monotonic()
        if left <= 0:
            timeout *= self.patience()
            left = begin + timeout - time.monotonic()
        if left <= 0:
            last = "\n  ".join(str(event) for event in self._events[-15:]) or "nothing at all"
            raise TimeoutError(f"not seen within {timeout:g} s; the last events were:\n  {last}")
        self._changed.wait(min(left, _STEP))
