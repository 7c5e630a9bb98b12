"""A run that goes on, told for a page: on disk, so that readers cost no memory, however many and slow they are."""

from __future__ import annotations

import contextlib
import json
import os
import queue
import tempfile
import threading
from collections.abc import Callable
from pathlib import Path

from simulator.errors import CameraError
from simulator.journal import Event, Journal
from simulator.trace.entries import entries_of
from simulator.trace.page.web_page import batch
from simulator.trace.recording import Entry
from simulator.trace.story.chapter import Chapter
from simulator.trace.story.story import Story

_PIECE = 1_000_000  # bytes that one answer has, or a line when that is longer


class LiveRun:
    """Follows a journal from here on: each thing that happens becomes a line in a file without a name.

    outside  where a path of the camera lies on this machine
    """

    def __init__(self, journal: Journal, outside: Callable[[str], Path]) -> None:
        self._journal = journal
        self._outside = outside
        self._story = Story()
        self._file = tempfile.TemporaryFile(prefix="camsim-web")
        self._size = 0
        self._waiting: queue.SimpleQueue[Entry | None] = queue.SimpleQueue()
        self._thread = threading.Thread(target=self._tell, name="live run", daemon=True)
        self._thread.start()
        self._end = journal.listen(self._note)

    def close(self) -> None:
        """Ends it; what happened until then is told."""
        self._end()
        self._waiting.put(None)
        self._thread.join()
        self._file.close()

    def read(self, offset: int) -> tuple[int, list[bytes]]:
        """Whole lines from an offset on, not all of them when they are many, and where to go on. Raises ValueError."""
        end = self._size
        if not 0 <= offset <= end:
            raise ValueError(f"there is nothing at {offset}")
        data = b""
        while offset + len(data) < end and b"\n" not in data:
            data += os.pread(self._file.fileno(), min(_PIECE, end - offset - len(data)), offset + len(data))
        data = data[:data.rfind(b"\n") + 1]
        return offset + len(data), data.splitlines()

    @property
    def size(self) -> int:
        return self._size

    def _note(self, event: Event) -> None:
        """On the thread of whoever caused the event, who must not wait for the telling."""
        for kind, fields in entries_of(event, self._outside):
            self._waiting.put(Entry(0, max(event.time - self._journal.began, 0.0), kind, fields))

    def _tell(self) -> None:
        while (entry := self._waiting.get()) is not None:
            with contextlib.suppress(CameraError):  # nothing that a page could show
                self._take(entry)

    def _take(self, entry: Entry) -> None:
        before = self._story.chapters[-1]
        told = self._story.take(entry)
        changed: list[Chapter] = [before, *self._story.chapters[before.number + 1:]]
        if told is not None and told[1] not in changed:
            changed.append(told[1])
        failures = self._story.changed_failures()
        line = json.dumps(batch([told] if told else [], changed, failures), separators=(",", ":"), default=str).encode()
        with contextlib.suppress(OSError):  # a full disk must not disturb the camera; the page then stands still
            os.pwrite(self._file.fileno(), line + b"\n", self._size)
            self._size += len(line) + 1
