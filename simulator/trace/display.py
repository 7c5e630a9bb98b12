"""What `./demo` and `camsim` show: arrows and moving bars on a terminal, plain lines without one."""

from __future__ import annotations

import time
from dataclasses import replace
from types import TracebackType

from rich.table import Table
from rich.text import Text

from simulator.journal import Journal
from simulator.trace.diagram import LANES, NARROWEST, STYLES, TIME_WIDTH, Diagram
from simulator.trace.explanation import LiveItem, LiveTrace
from simulator.trace.terminal.bars import Bars
from simulator.trace.terminal.terminal import Terminal
from simulator.trace.words import NAMES

_LEVELS = {"ERROR": "red", "DEBUG": "dim"}
_MOST_ROWS = 8  # of one message with all its details
_DUMP_INDENT = 2
_NARROW = 40  # columns of the bars where there is no room for a diagram
_DUMP_WIDTHS = {16: 70, 8: 38, 4: 22}  # columns of a row with so many bytes


class Display:
    """Writes to standard output; its methods may be called from any thread.

    Times are seconds since the beginning of the journal that is followed, or since `began`.
    `with display:` keeps the names of the columns, and the bars of a download, at the bottom of a terminal from the
    first row that is drawn.
    """

    def __init__(self, verbose: bool) -> None:
        self.console = Terminal()
        self.began = time.monotonic()
        self._verbose = verbose
        self._bars = Bars()
        self._lane = 0  # of the names that were printed last
        self._rows = 0  # since then
        self._may_pin = False
        self._pinned = False

    @property
    def drawn(self) -> bool:
        """Whether it draws now: on a terminal that can, and is wide enough."""
        return self.console.draws and self.console.width >= NARROWEST

    def __enter__(self) -> Display:
        self._may_pin = self.console.draws
        return self

    def __exit__(self, kind: type[BaseException] | None, error: BaseException | None,
                 trace: TracebackType | None) -> None:
        with self.console.lock:
            self.console.unpin()
            if self._pinned and self.drawn and self._rows > _MOST_ROWS:
                self.console.print_rows([self._diagram().head()])
            self._may_pin = self._pinned = False

    def pin(self) -> None:
        """Shows what stays at the bottom, before there is anything above it."""
        if self._may_pin and not self._pinned:
            self._pinned = True
            self.console.pin(self._bottom)

    def follow(self, journal: Journal) -> None:
        """Shows every event of a camera from here on."""
        trace = LiveTrace()
        self.began = journal.began
        journal.listen(lambda event: [self.show(replace(live, time=live.time - self.began))
                                      for live in trace.take(event)])

    def show(self, live: LiveItem) -> None:
        """One thing that happened, drawn or as a line, when it is wanted at this level of detail."""
        with self.console.lock:
            self._bars.note(live)
            drawn = self.drawn
            if not (self._verbose or ("drawn" if drawn else "as line") in live.shown):
                return
            is_message = live.kind == "message"
            style = "bold red" if live.kind == "fault" else _LEVELS.get(live.level, "")
            text = live.text if self._verbose or not is_message else live.title
            if drawn:
                self._draw(live.time, live.source, live.target, text, style, _MOST_ROWS if self._verbose else 3)
                return
            arrow = ("<-- " if live.source == "service" else "--> ") if is_message else ""
            peer = live.target if live.source == "service" and live.target else live.source
            self._line(live.time, peer, arrow + text, "dim" if is_message else style)

    def heading(self, text: str) -> None:
        with self.console.lock:
            self.console.print()
            self.console.print(Text(text, style="bold"))
            self._lane = 0

    def line(self, source: str, text: str, style: str = "") -> None:
        """One line about a process of the camera ("demo": about none)."""
        with self.console.lock:
            seconds = time.monotonic() - self.began
            if self.drawn and source in LANES:
                self._draw(seconds, source, "", text, style, _MOST_ROWS)
            else:
                self._line(seconds, source, text, style)

    def dump(self, source: str, title: str, data: bytes) -> None:
        """A line about a process, and bytes below it, in rows that no terminal breaks."""
        with self.console.lock:
            self.line(source, title)
            indent = TIME_WIDTH if self.drawn else _DUMP_INDENT
            count = next((count for count, width in _DUMP_WIDTHS.items() if indent + width <= self.console.width), 4)
            self.console.print_rows([Text(" " * indent + _dump_row(start, data[start:start + count], count))
                                     for start in range(0, len(data), count)])

    def summary(self, title: str, rows: dict[str, str]) -> None:
        table = Table(title=title, title_justify="left", title_style="bold", show_header=False)
        for name, value in rows.items():
            table.add_row(Text(name), Text(value))
        with self.console.lock:
            self.console.print()
            self.console.print(table)
            self._lane = 0

    def _draw(self, seconds: float, source: str, target: str, text: str, style: str, most: int) -> None:
        """Rows of the diagram, below the names of its columns where those are not just above or have moved."""
        self.pin()
        diagram = self._diagram()
        names = [diagram.head()] if diagram.lane != self._lane else []
        self._lane = diagram.lane
        rows = diagram.rows(seconds, source, target, text, style, most)
        self._rows = len(rows) + (0 if names else self._rows)
        self.console.print_rows([*names, *rows])

    def _line(self, seconds: float, source: str, text: str, style: str) -> None:
        self.console.print_hanging(Text.assemble(
            (f"{seconds:7.3f} s  ", "dim"), (f"{NAMES.get(source, ''):<13}", STYLES.get(source) or "dim"),
            (text, style)))

    def _diagram(self) -> Diagram:
        return Diagram(self.console.width)

    def _bottom(self) -> list[Text]:
        """Never wider than the narrowest diagram, so that a terminal that gets narrower breaks none of it."""
        if self.drawn:
            return [self._diagram().head(), *self._bars.rows(NARROWEST - 1)]
        return self._bars.rows(min(_NARROW, self.console.width) - 1)


def _dump_row(start: int, row: bytes, count: int) -> str:
    signs = "".join(chr(code) if 32 <= code < 127 else "." for code in row)
    return f"{start:3}  {row.hex(' '):<{3 * count - 1}}  {signs}"
