"""A thread that works with what its owner closes."""

from __future__ import annotations

import threading
from collections.abc import Callable


class OwnedThread(threading.Thread):
    """Once `join` has returned, nothing of the thread runs any more, nor will it, and its owner may close its things.

    Of a plain thread this is not sure: a signal's exception may leave `start` when the system makes the thread, and
    `join` then knows of none, but it begins all the same.

    target  what runs on it
    name    as errors name it
    """

    def __init__(self, target: Callable[[], None], name: str) -> None:
        super().__init__(target=target, name=name, daemon=True)
        self._beginning = threading.Lock()
        self._may_begin = True
        self._is_known = False  # start has returned, or the target runs

    def start(self) -> None:
        super().start()
        self._is_known = True

    def run(self) -> None:
        with self._beginning:
            if not self._may_begin:
                return
            self._is_known = True
        super().run()

    def join(self, timeout: float | None = None) -> None:
        """Waits for its end. One that was never started, or whose start was broken off, runs nothing from here on."""
        with self._beginning:
            self._may_begin = self._is_known
        if self._is_known:
            super().join(timeout)
