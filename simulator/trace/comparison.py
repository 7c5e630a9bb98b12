"""Holds two recorded runs of the same story against each other, byte by byte."""

from __future__ import annotations

import hashlib
import re
from collections import defaultdict
from collections.abc import Callable
from dataclasses import dataclass
from itertools import zip_longest
from typing import Any

from simulator.messages.text import LeftOut, one_line
from simulator.trace.recording import Entry, Recording

# What is not compared, and why. Everything else is.
NOT_COMPARED = {
    "times": "two runs happen at different times; no message of the service holds its own clock",
    "order between channels": "independent threads and processes overtake each other; within a channel (the datagrams "
                              "from one process to one socket, one connection, one file, the log of one source file) "
                              "the order is compared",
    "process ids": "each run is another process",
    "words of the JSON library": "the log passes on how POCO's parser explains that a text is no JSON, and each "
                                 "version of POCO has words of its own (1.10: error: 1: unexpected end of data; 1.11: "
                                 "unexpected end of text); what stands before and after them is compared",
    "notes of the peers": "what a peer notes about itself says nothing about the service; its messages are compared",
}

# The one explanation that is the service's own is compared.
_LIBRARY_WORDS = re.compile(r"(JSON Exception: )(?!Maximum depth exceeded).*?( ?)$")
_WITHOUT_WORDS = r"\1(words of the library)\2"

# Of a connection, without how long anything took.
_FACTS = ("event", "port", "tls_version", "cipher", "raw", "error", "requests")

Channel = tuple[str, ...]
_Step = tuple[Channel, Any]
_SHOWN_BYTES = 24
_SHOWN_CHARACTERS = 160


def compare(one: Recording, other: Recording) -> list[str]:
    """A line for each channel that differs, with the first difference; none when the runs are the same."""
    ones, others = _channels(one), _channels(other)
    found = []
    for channel in sorted(set(ones) | set(others)):
        difference = _difference(_Side(one, ones.get(channel, [])), _Side(other, others.get(channel, [])))
        if difference:
            found.append(f"{' '.join(channel)}: {difference}")
    return found


def counts(recording: Recording) -> dict[str, int]:
    """How many steps of each kind are compared."""
    numbers: dict[str, int] = defaultdict(int)
    for channel, steps in _channels(recording).items():
        numbers[channel[0]] += len(steps)
    return dict(numbers)


@dataclass(frozen=True)
class _Mark:
    """A step as it is kept in memory, where a whole run has no room."""

    position: int  # among the entries
    digest: bytes


@dataclass(frozen=True)
class _Side:
    """The steps of a channel in one of the runs."""

    recording: Recording
    marks: list[_Mark]

    def step(self, number: int) -> Any:
        """The whole of it again, to tell a difference."""
        found = _step(self.recording.entries[self.marks[number].position])
        assert found is not None
        return found[1]


def _channels(recording: Recording) -> dict[Channel, list[_Mark]]:
    channels: dict[Channel, list[_Mark]] = defaultdict(list)
    for position, entry in enumerate(recording.entries):
        if (step := _step(entry)) is not None:
            digest = hashlib.sha256(repr(_identity(step[1])).encode("utf-8", "surrogatepass")).digest()
            channels[step[0]].append(_Mark(position, digest))
    return channels


def _step(entry: Entry) -> _Step | None:
    return _COMPARED[entry.type](entry) if entry.type in _COMPARED else None


def _identity(value: Any) -> Any:
    """The same for the same: bytes that were left out of a recording are as good as those that are there."""
    if isinstance(value, dict):
        return sorted((name, _identity(one)) for name, one in value.items())
    if isinstance(value, LeftOut):
        return "bytes", value.sha256
    return ("bytes", hashlib.sha256(value).hexdigest()) if isinstance(value, bytes) else value


def _connection(entry: Entry) -> _Step:
    facts = {name: value for name, value in entry.fields.items() if name in _FACTS}
    return ("connection", str(entry.connection)), facts


def _note(entry: Entry) -> _Step | None:
    if (entry.source, entry.kind) != ("service", "ended"):
        return None
    return ("end of the service",), entry.data


# Of each type of entry that is compared: its channel, and what of it.
_COMPARED: dict[str, Callable[[Entry], _Step | None]] = {
    "datagram": lambda entry: (("datagrams", entry.fields["from"], "to", entry.to, entry.socket), entry.data),
    "request": lambda entry: (("requests",), {"connection": entry.connection, "tls_version": entry.tls_version,
                                              "cipher": entry.cipher, "head": entry.head, "body": entry.body}),
    "response": lambda entry: (("responses",), {"head": entry.head, "body": entry.body}),
    "step": lambda entry: (("steps of connection", str(entry.connection)), entry.fields),
    "connection": _connection,
    "file": lambda entry: (("files", entry.path), {"process": entry.process, "data": entry.data}),
    "buffer": lambda entry: (("buffers",), entry.data),
    "ring_record": lambda entry: (("ring buffer",), entry.text),
    "log": lambda entry: (("log", entry.path), 
                          f"{entry.level} line {entry.line}: {_LIBRARY_WORDS.sub(_WITHOUT_WORDS, entry.text)}"),
    "note": _note,
}


def _difference(one: _Side, other: _Side) -> str:
    for number, (mine, its) in enumerate(zip_longest(one.marks, other.marks)):
        if mine is None or its is None:
            which, side = ("second", other) if mine is None else ("first", one)
            return (f"{len(one.marks)} and {len(other.marks)}; only the {which} run has number {number + 1}: "
                    f"{_shown(side.step(number))}")
        if mine.digest != its.digest:
            return f"number {number + 1}: {_unequal(one.step(number), other.step(number))}"
    return ""


def _unequal(one: Any, other: Any) -> str:
    if isinstance(one, dict) and isinstance(other, dict):
        for name in sorted(set(one) | set(other)):
            if _identity(one.get(name)) != _identity(other.get(name)):
                return f"{name}: {_unequal(one.get(name), other.get(name))}"
    if isinstance(one, LeftOut) or isinstance(other, LeftOut):
        return f"{_shown(one)} and {_shown(other)}"
    long = isinstance(one, str) and isinstance(other, str) and max(len(one), len(other)) > _SHOWN_CHARACTERS
    if not long and not (isinstance(one, bytes) and isinstance(other, bytes)):
        return f"{_shown(one)} and {_shown(other)}"
    offset = next((position for position, pair in enumerate(zip(one, other)) if pair[0] != pair[1]),
                  min(len(one), len(other)))
    return (f"{len(one)} and {len(other)} {'characters' if long else 'bytes'}, different from offset {offset} on: "
            f"{_shown(one[offset:])} and {_shown(other[offset:])}")


def _shown(value: Any) -> str:
    if isinstance(value, LeftOut):
        return f"{value!r}"
    if isinstance(value, bytes):
        return repr(value[:_SHOWN_BYTES]) + ("..." if len(value) > _SHOWN_BYTES else "")
    return one_line(repr(value), _SHOWN_CHARACTERS + 2)
