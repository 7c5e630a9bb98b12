"""The bars of a running download: its pages, and the pictures of the page that is being imported."""

from __future__ import annotations

import time
from dataclasses import dataclass, field

from rich.text import Text

from simulator.trace.explanation import LiveItem

_DONE, _LEFT = "━", "─"  # told apart without colours
_LONGEST = 20


@dataclass
class _Bar:
    """So much of something is done."""

    name: str
    total: int
    verb: str
    done: int = 0
    begin: float = field(default_factory=time.monotonic)

    def row(self, width: int) -> Text:
        count = f"{self.done}/{self.total} {self.verb}"
        seconds = int(time.monotonic() - self.begin)
        time_text = f"{seconds // 60}:{seconds % 60:02}"
        length = max(0, min(_LONGEST, width - 22 - len(count) - 2 - len(time_text) - 1))
        filled = length * min(self.done, self.total) // max(1, self.total)
        return Text.assemble(f"{self.name:<22}", (_DONE * filled, "bold green"), (_LEFT * (length - filled), "dim"),
                             f" {count}  {time_text}")


class Bars:
    """Follows a download by what happens."""

    def __init__(self) -> None:
        self._pages: _Bar | None = None
        self._pictures: _Bar | None = None

    def rows(self, width: int) -> list[Text]:
        return [bar.row(width) for bar in (self._pages, self._pictures) if bar is not None]

    def note(self, live: LiveItem) -> None:
        progress = live.progress
        if "pages" in progress and self._pages is None:
            self._pages = _Bar("pages", progress["pages"], "reported")
        if self._pages is None:
            return
        if "reported" in progress:
            self._pages.done += 1
        elif "page" in progress:
            self._pictures = _Bar(f"pictures of {progress['page']}", progress["records"], "imported")
        elif "picture" in progress and self._pictures is not None:
            self._pictures.done += 1
        elif "ended" in progress:
            self._pages = self._pictures = None
