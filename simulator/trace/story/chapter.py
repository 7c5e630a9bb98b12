"""A part of a run, and what failed in it."""

from __future__ import annotations

from dataclasses import dataclass, field

from simulator.trace.words import Item


@dataclass
class Failure:
    """Something that failed, or a fault that took hold.

    number  in the order in which they were found, from 1
    item    number of the item where it shows
    text    the reason in words
    fault   names the fault that caused it; "" when none was injected
    times   how often the fault took hold
    failed  whether anything came of it
    chapter  number of the chapter where it shows
    """

    number: int
    time: float
    item: int
    text: str
    fault: str = ""
    times: int = 1
    failed: bool = True
    chapter: int = 0


@dataclass
class Chapter:
    """A part of a run.

    begin, end  in seconds since the recording began; it ends when its work does
    phases      of a page: name ("fetch", "import", "report"), begin and end
    pictures    how many ITGT imported meanwhile
    number      its place among the chapters
    over        whether its work has ended
    """

    title: str
    begin: float
    end: float = 0.0
    items: list[Item] = field(default_factory=list)
    phases: list[tuple[str, float, float]] = field(default_factory=list)
    pictures: int = 0
    failures: list[Failure] = field(default_factory=list)
    number: int = 0
    over: bool = False

    @property
    def is_page(self) -> bool:
        return self.title.startswith("page")
