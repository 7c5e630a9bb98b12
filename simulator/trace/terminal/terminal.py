"""Standard output: a terminal of any width, which may change, or a pipe or file, in which nothing is broken or cut."""

from __future__ import annotations

import contextlib
import os
import threading
from collections.abc import Callable, Iterator, Sequence
from typing import Any

from rich.console import Console
from rich.text import Text

from simulator.trace.terminal.lines import in_lines
from simulator.trace.terminal.output import Failure

_INDENT = 4
_UNLIMITED = 100_000  # columns of what has no width
_REFRESH_SECONDS = 0.2


class Terminal(Console):
    """Standard output for several threads. Rows can be pinned: they stay at the bottom while others scroll by.

    draws  whether the cursor can be moved and lines drawn: a terminal that is not dumb, in UTF-8
    lock   held by whoever prints; for what is to stand together

    NO_COLOR takes colours away, and nothing else (https://no-color.org).
    """

    def __init__(self) -> None:
        self.lock = threading.RLock()
        self._pinned: Callable[[], Sequence[Text]] | None = None
        self._shown: list[str] = []
        self._unpinned = threading.Event()
        self._failed = False  # to write; what comes then is lost
        super().__init__(highlight=False, markup=False, emoji=False, no_color=bool(os.environ.get("NO_COLOR")))
        self.draws = self.file.isatty() and not self.is_dumb_terminal and self.encoding.startswith("utf")
        if not self.draws:
            self.width = _UNLIMITED

    def print(self, *objects: Any, **arguments: Any) -> None:
        with self.lock, self._noting_failure():
            text = self._rendered(*objects, **arguments)
            self._write(self._erasing() + text + self._bottom())

    def print_hanging(self, text: Text) -> None:
        """Prints a paragraph; all its lines but the first are indented."""
        if not self.draws:
            self.print(text, soft_wrap=True)
            return
        first, *rest = in_lines(text, self.width, max(1, self.width - _INDENT))
        self.print_rows([first, *(Text(" " * _INDENT) + line for line in rest)])

    def print_rows(self, rows: Sequence[Text]) -> None:
        """Prints rows that are made for this width."""
        if rows:
            self.print(Text("\n").join(rows), soft_wrap=True)

    def pin(self, rows: Callable[[], Sequence[Text]]) -> None:
        """From here on these rows are at the bottom: as they are now, and for the width of now."""
        with self.lock, self._noting_failure():
            self._pinned = rows
            self._write("\x1b[?25l")
        threading.Thread(target=self._refresh, name="terminal", daemon=True).start()

    def unpin(self) -> None:
        with self.lock:
            if self._pinned is None:
                return
            self._pinned = None
            self._unpinned.set()
            with self._noting_failure():
                self._write(self._erasing() + "\x1b[?25h")

    def on_broken_pipe(self) -> None:
        raise  # noqa: PLE0704 called where the error is handled; newer versions of rich would end the process

    def _refresh(self) -> None:
        while not self._unpinned.wait(_REFRESH_SECONDS):
            with self.lock, self._noting_failure():
                if self._pinned is not None and self._rows() != self._shown:
                    self._write(self._erasing() + self._bottom())

    def _rows(self) -> list[str]:
        rows = self._pinned() if self._pinned else ()
        return [self._rendered(row, soft_wrap=True, end="") for row in rows]

    def _bottom(self) -> str:
        self._shown = self._rows()
        return "\n".join(self._shown)

    def _erasing(self) -> str:
        up = len(self._shown) - 1
        shown, self._shown = self._shown, []
        return ("\r" + (f"\x1b[{up}A" if up else "") + "\x1b[J") if shown else ""

    def _rendered(self, *objects: Any, **arguments: Any) -> str:
        with self.capture() as captured:
            super().print(*objects, **arguments)
        return captured.get()

    def _write(self, text: str) -> None:
        if not self._failed:
            self.file.write(text)
            self.file.flush()

    @contextlib.contextmanager
    def _noting_failure(self) -> Iterator[None]:
        """After the first failure to write, nothing more is written; the main thread hears of it, and ends."""
        try:
            yield
        except OSError as error:
            if self._failed:
                return
            self._failed = True
            Failure.note(error)
            if threading.current_thread() is threading.main_thread():
                raise
