"""What a check is: its words, its verdict, and what it is given to look at."""

from __future__ import annotations

from collections.abc import Callable
from contextlib import ExitStack
from dataclasses import dataclass, field
from pathlib import Path
from typing import Any, TypeVar

from simulator.peers.real.address import Address, address_of

T = TypeVar("T")

PASSED, WARNING, FAILED, NOT_JUDGED = "passed", "warning", "failed", "not judged"
# Of what a camera grants, the part from which on it is told how near the end is.
NEARLY = 0.5


@dataclass(frozen=True)
class Finding:
    """What became of a check: its verdict, what was seen, and what to do."""

    verdict: str
    seen: str
    do: str = ""


def passed(seen: str) -> Finding:
    return Finding(PASSED, seen)


def warning(seen: str, do: str) -> Finding:
    return Finding(WARNING, seen, do)


def failed(seen: str, do: str) -> Finding:
    return Finding(FAILED, seen, do)


def not_judged(seen: str) -> Finding:
    return Finding(NOT_JUDGED, seen)


@dataclass
class Subject:
    """The platform that is looked at, and everything that was asked of it, once for all checks.

    url          where its pages are
    result_path  where it takes reports; None: the path of url with Result appended
    faces        how many records it holds at least
    info         members of the command's taskInfo that differ from the simulated client's
    service      the service's binary, unless it is the built one
    stack        what is to be ended with the checks
    """

    url: str
    result_path: str | None = None
    faces: int = 75
    info: dict[str, Any] = field(default_factory=dict)
    service: Path | None = None
    stack: ExitStack = field(default_factory=ExitStack)
    _known: dict[Any, Any] = field(default_factory=dict)

    def once(self, key: Any, make: Callable[[], T]) -> T:
        """What `make` returned the first time."""
        if key not in self._known:
            self._known[key] = make()
        value: T = self._known[key]
        return value

    def known(self, key: Any) -> Any:
        """What once() has for a key, None if nothing was made."""
        return self._known.get(key)

    @property
    def address(self) -> Address:
        return address_of(self.url, self.result_path)

    @property
    def task(self) -> dict[str, Any]:
        """The taskInfo of a whole download."""
        return self.address.task(self.faces, self.info)


@dataclass(frozen=True)
class Check:
    """One check.

    name     for people to name it; stable
    demand   what is demanded, in a few words
    section  of docs/platform-engineer.md, which says more
    judge    looks, and says what it found
    needs    checks without which nothing can be said: not judged unless they pass
    """

    name: str
    demand: str
    section: str
    judge: Callable[[Subject], Finding]
    needs: tuple[str, ...] = ()
