"""Processes as columns, messages as arrows: rows of a sequence diagram as wide as the terminal."""

from __future__ import annotations

import textwrap

from rich.text import Text

from simulator.trace.words import SHORT_NAMES

# The columns from left to right: who calls the service first, then whom it calls.
LANES = ("client", "platform", "service", "itgt", "faces", "events")
STYLES = {"client": "cyan", "itgt": "green", "faces": "magenta", "platform": "blue", "events": "yellow",
          "service": ""}
# Below this width there is no room for the words beside the columns.
NARROWEST = 72

_TIME_WIDTH = 9
_LINE, _ARROW_LEFT, _ARROW_RIGHT, _SHAFT, _NOTE, _CROSSING = "│", "◀", "▶", "─", "●", "┼"


class Diagram:
    """Makes rows for a terminal of a width in characters."""

    def __init__(self, width: int) -> None:
        self._lane = 8 if width < 100 else 10
        self._text_width = max(10, width - _TIME_WIDTH - self._lane * len(LANES) - 1)
        self._places = {name: number * self._lane + self._lane // 2 for number, name in enumerate(LANES)}

    def head(self) -> Text:
        """The names above or below the columns."""
        return Text.assemble(" " * _TIME_WIDTH,
                             *((f"{SHORT_NAMES[name]:^{self._lane + 1}}"[:self._lane],
                                f"bold {STYLES[name]}".strip()) for name in LANES))

    def rows(self, seconds: float | None, source: str, target: str, text: str, style: str = "",
             most: int = 2) -> list[Text]:
        """An arrow from source to target, or without a target a mark at the source, and beside it the text.

        Text that needs more than `most` rows is cut.
        """
        lines = textwrap.wrap(text, self._text_width, max_lines=most, placeholder=" …") or [""]
        time = f"{seconds:7.3f}  " if seconds is not None else " " * _TIME_WIDTH
        first = Text.assemble((time, "dim"), self._lanes(source, target), " ", (lines[0], style))
        rest = [Text.assemble(" " * _TIME_WIDTH, self._lanes("", ""), " ", (line, style)) for line in lines[1:]]
        return [first, *rest]

    def _lanes(self, source: str, target: str) -> Text:
        cells = [" "] * (self._lane * len(LANES))
        for place in self._places.values():
            cells[place] = _LINE
        text = Text("".join(cells), style="dim")
        if source not in self._places:
            return text
        if target not in self._places:
            return self._drawn(cells, self._places[source], _NOTE, source)
        begin, end = self._places[source], self._places[target]
        if begin < end:
            drawn = _SHAFT * (end - begin - 1) + _ARROW_RIGHT
            return self._drawn(cells, begin + 1, drawn, source if target == "service" else target)
        drawn = _ARROW_LEFT + _SHAFT * (begin - end - 1)
        return self._drawn(cells, end, drawn, source if target == "service" else target)

    def _drawn(self, cells: list[str], begin: int, drawn: str, peer: str) -> Text:
        """The row with something drawn from a place on, in the colour of the peer."""
        row = "".join(cells)
        drawn = "".join(_CROSSING if cells[begin + number] == _LINE and sign == _SHAFT else sign
                        for number, sign in enumerate(drawn))
        return Text.assemble((row[:begin], "dim"), (drawn, f"bold {STYLES.get(peer, '')}".strip()),
                             (row[begin + len(drawn):], "dim"))
