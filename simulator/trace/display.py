"""What `./demo` and `camsim` show: arrows and moving bars on a terminal, plain lines without one."""

from __future__ import annotations

import os
import threading
import time
from types import TracebackType

from rich.console import Console, Group, RenderableType
from rich.live import Live
from rich.progress import BarColumn, MofNCompleteColumn, Progress, TaskID, TextColumn, TimeElapsedColumn
from rich.table import Table
from rich.text import Text

from simulator.journal import Journal
from simulator.trace.diagram import LANES, NARROWEST, STYLES, Diagram
from simulator.trace.explanation import LiveItem, LiveTrace
from simulator.trace.words import NAMES

_LEVELS = {"ERROR": "red", "DEBUG": "dim"}
_MOST_ROWS = 8  # of one message with all its details


class Display:
    """Writes to standard output; its methods may be called from any thread.

    drawn  whether it draws: on a terminal that is wide enough and can, unless NO_COLOR wants it plain

    `with display:` keeps the names of the columns, and the bars of a download, at the bottom of a terminal.
    """

    def __init__(self, verbose: bool) -> None:
        plain = False if os.environ.get("NO_COLOR") else None  # bold and dim are escapes, too
        self.console = Console(highlight=False, markup=False, emoji=False, soft_wrap=True, force_terminal=plain)
        self.drawn = (self.console.is_terminal and not self.console.is_dumb_terminal
                      and self.console.width >= NARROWEST)
        self._verbose = verbose
        self._begin = time.monotonic()
        self._diagram = Diagram(self.console.width)
        self._bars = _Bars(self.console)
        self._live: Live | None = None
        self._lock = threading.RLock()

    def __enter__(self) -> Display:
        if self.drawn:
            self._live = Live(get_renderable=self._bottom, console=self.console, refresh_per_second=10, transient=True)
            self._live.start()
        return self

    def __exit__(self, kind: type[BaseException] | None, error: BaseException | None,
                 trace: TracebackType | None) -> None:
        if self._live is not None:
            self._live.stop()
            self._live = None

    def follow(self, journal: Journal) -> None:
        """Shows every event of a camera from here on."""
        trace = LiveTrace()
        journal.listen(lambda event: [self.show(live) for live in trace.take(event)])

    def show(self, live: LiveItem) -> None:
        """One thing that happened, drawn or as a line, when it is wanted at this level of detail."""
        with self._lock:
            if self._live is not None:
                self._bars.note(live)
            if not (self._verbose or ("drawn" if self.drawn else "as line") in live.shown):
                return
            seconds, is_message = live.time - self._begin, live.kind == "message"
            style = "bold red" if live.kind == "fault" else _LEVELS.get(live.level, "")
            text = live.text if self._verbose or not is_message else live.title
            if self.drawn:
                for row in self._diagram.rows(seconds, live.source, live.target, text, style,
                                              _MOST_ROWS if self._verbose else 2):
                    self.console.print(row)
                return
            arrow = ("<-- " if live.source == "service" else "--> ") if is_message else ""
            peer = live.target if live.source == "service" and live.target else live.source
            self._line(seconds, peer, arrow + text, "dim" if is_message else style)

    def heading(self, text: str) -> None:
        self.console.print()
        self.console.print(Text(text, style="bold"))

    def line(self, source: str, text: str, style: str = "") -> None:
        """One line about a process of the camera ("demo": about none)."""
        with self._lock:
            seconds = time.monotonic() - self._begin
            if self.drawn and source in LANES:
                for row in self._diagram.rows(seconds, source, "", text, style, _MOST_ROWS):
                    self.console.print(row)
            else:
                self._line(seconds, source, text, style)

    def summary(self, title: str, rows: dict[str, str]) -> None:
        table = Table(title=title, title_justify="left", title_style="bold", show_header=False)
        for name, value in rows.items():
            table.add_row(Text(name), Text(value))
        self.console.print()
        self.console.print(table)

    def _line(self, seconds: float, source: str, text: str, style: str) -> None:
        self.console.print(Text.assemble((f"{seconds:7.3f} s  ", "dim"),
                                         (f"{NAMES.get(source, ''):<13}", STYLES.get(source) or "dim"), (text, style)))

    def _bottom(self) -> RenderableType:
        return Group(self._diagram.head(), self._bars.bars) if self._bars.shown else self._diagram.head()


class _Bars:
    """The bars of a running download: its pages, and the pictures of the page that is being imported."""

    def __init__(self, console: Console) -> None:
        columns = (TextColumn("{task.description:<24}"), BarColumn(), MofNCompleteColumn(),
                   TextColumn("{task.fields[note]}"), TimeElapsedColumn())
        self.bars = Progress(*columns, console=console)
        self._pages: TaskID | None = None
        self._pictures: TaskID | None = None

    @property
    def shown(self) -> bool:
        return self._pages is not None

    def note(self, live: LiveItem) -> None:
        progress = live.progress
        if "pages" in progress and self._pages is None:
            self._pages = self.bars.add_task("pages", total=progress["pages"], note="reported")
        if self._pages is None:
            return
        if "reported" in progress:
            self.bars.advance(self._pages)
        elif "page" in progress:
            self._remove_pictures()
            self._pictures = self.bars.add_task(f"pictures of {progress['page']}", total=progress["records"],
                                                note="imported")
        elif "picture" in progress and self._pictures is not None:
            self.bars.advance(self._pictures)
        elif "ended" in progress:
            self._remove_pictures()
            self.bars.remove_task(self._pages)
            self._pages = None

    def _remove_pictures(self) -> None:
        if self._pictures is not None:
            self.bars.remove_task(self._pictures)
            self._pictures = None
