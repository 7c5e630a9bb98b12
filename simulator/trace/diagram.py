"""Processes as columns, messages as arrows: rows of a sequence diagram as wide as the terminal."""

from __future__ import annotations

from rich.cells import cell_len
from rich.text import Text

from simulator.trace.terminal.lines import in_lines, longest_word
from simulator.trace.words import SHORT_NAMES

# The columns from left to right: who calls the service first, then whom it calls.
LANES = ("client", "platform", "service", "itgt", "faces", "events")
STYLES = {"client": "cyan", "itgt": "green", "faces": "magenta", "platform": "blue", "events": "yellow",
          "service": ""}
# Below this width there is no room for the words beside the columns.
NARROWEST = 72
# Columns to the left of the diagram.
TIME_WIDTH = 9

_MOST_BESIDE = 3  # rows of text beside the columns; more of it goes below, as wide as the terminal
_LINE, _ARROW_LEFT, _ARROW_RIGHT, _SHAFT, _NOTE, _CROSSING = "│", "◀", "▶", "─", "●", "┼"


class Diagram:
    """Makes rows for a terminal of a width in characters.

    lane  the width of a column
    """

    def __init__(self, width: int) -> None:
        self.lane = 8 if width < 100 else 10
        self._beside = max(10, width - TIME_WIDTH - self.lane * len(LANES) - 1)
        self._below = max(10, width - TIME_WIDTH)
        self._places = {name: number * self.lane + self.lane // 2 for number, name in enumerate(LANES)}

    def head(self) -> Text:
        """The names above or below the columns."""
        return Text.assemble(" " * TIME_WIDTH,
                             *((f"{SHORT_NAMES[name]:^{self.lane + 1}}"[:self.lane],
                                f"bold {STYLES[name]}".strip()) for name in LANES))

    def rows(self, seconds: float, source: str, target: str, text: str, style: str = "", most: int = 3) -> list[Text]:
        """An arrow from source to target, or without a target a mark at the source, and beside it the text.

        What does not fit beside it without being broken goes below. Text that needs more than `most` rows is cut.
        """
        words = Text(text, style)
        lines = in_lines(words, self._beside, self._beside)
        begin = Text(" " * TIME_WIDTH)
        if longest_word(text) > self._beside or len(lines) > min(_MOST_BESIDE, most):
            lines = in_lines(words, self._beside, self._below)
        else:
            begin += self._lanes("", "") + Text(" ")
        if len(lines) > most:
            lines = [*lines[:most - 1], _cut(lines[most - 1], self._below)]
        first = Text.assemble((f"{seconds:7.3f}  ", "dim"), self._lanes(source, target), " ", lines[0])
        return [first, *(begin + line for line in lines[1:])]

    def _lanes(self, source: str, target: str) -> Text:
        cells = [" "] * (self.lane * len(LANES))
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


def _cut(line: Text, width: int) -> Text:
    """The line with the sign that more was to come, in place of its last words if there is no room."""
    while cell_len(line.plain) > width - 2 and " " in line.plain.strip():
        line = line[:line.plain.rstrip().rindex(" ")]
    return line + Text(" …")
