"""The rows of a benchmark run, and how they compare with those of another."""

from __future__ import annotations

import json
from collections.abc import Iterable, Mapping
from dataclasses import asdict, dataclass, field
from typing import Any


@dataclass(frozen=True)
class Row:
    """One figure. Less is better.

    group      heading it stands under
    name       what was measured; with its group it tells the row from all others
    against    what it is a ratio to, or "" when it is a figure by itself
    value      the figure
    unit       of the figure; "" for a ratio
    tolerance  how much greater than the committed one it may be, as a part of that one
    aim        the most it should be, None where there is no aim
    parts      what it was made from, for the reader
    timed      whether it was measured by the clock, so that the machine has a part in it
    reason     why the aim is missed when it is: what the figure is made of, in a sentence
    """

    group: str
    name: str
    against: str
    value: float
    unit: str = ""
    tolerance: float = 0.03
    aim: float | None = None
    parts: Mapping[str, float] = field(default_factory=dict)
    timed: bool = False
    reason: str = ""

    @property
    def key(self) -> str:
        return f"{self.group}: {self.name}"

    @property
    def meets_aim(self) -> bool:
        return self.aim is None or self.value <= self.aim


@dataclass(frozen=True)
class Series:
    """Points of a plot that belong to no single row. `x` names what grows, `y` what it costs, with its unit."""

    group: str
    name: str
    x: str
    y: str
    points: list[tuple[float, float]]


@dataclass(frozen=True)
class Results:
    """A run: rows, plots, and the versions of what it ran with."""

    rows: list[Row]
    series: list[Series]
    versions: Mapping[str, str]

    def text(self) -> str:
        """JSON, a row or series a line: a difference shows which figure changed."""
        return "{" + ",\n ".join(f"{json.dumps(name)}: {_lines(value)}" for name, value in asdict(self).items()) + "}\n"


def _lines(value: Any) -> str:
    if not isinstance(value, list):
        return json.dumps(value, ensure_ascii=False)
    return "[\n  " + ",\n  ".join(json.dumps(element, ensure_ascii=False) for element in value) + "]"


def read(text: str) -> Results:
    document = json.loads(text)
    return Results([Row(**row) for row in document["rows"]],
                   [Series(**{**series, "points": [tuple(point) for point in series["points"]]})
                    for series in document["series"]],
                   document["versions"])


@dataclass(frozen=True)
class Finding:
    """A committed figure, and what was measured instead: nothing, or more than its tolerance allows."""

    before: Row
    now: Row | None

    @property
    def timed(self) -> bool:
        """Whether the machine may be the reason."""
        return self.now is not None and self.now.timed

    def __str__(self) -> str:
        if self.now is None:
            return f"{self.before.key}: was not measured"
        return (f"{self.before.key}: {self.now.value:.4g} {self.now.unit}".rstrip()
                + f" is more than {self.before.value:.4g} by more than {self.before.tolerance:.0%}")


def worse(measured: Iterable[Row], committed: Iterable[Row]) -> list[Finding]:
    """The committed rows that are missing now or greater by more than the committed tolerance."""
    now = {row.key: row for row in measured}
    return [Finding(before, now.get(before.key)) for before in committed
            if before.key not in now or now[before.key].value > before.value * (1 + before.tolerance)]
