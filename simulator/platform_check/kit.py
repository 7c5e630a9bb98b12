"""All checks, in the order in which they are made, and carrying them out."""

from __future__ import annotations

import time
from collections.abc import Callable, Collection, Iterator
from dataclasses import dataclass, replace

from simulator.peers.real.asking import reason
from simulator.platform_check import cameras, connection, records, responses
from simulator.platform_check.check import FAILED, NOT_JUDGED, Check, Finding, Subject, failed, not_judged

CHECKS: dict[str, Check] = {check.name: check for module in (connection, responses, records, cameras)
                            for check in module.CHECKS}


@dataclass(frozen=True)
class Result:
    """A check that was made: its finding, and the seconds that it took."""

    check: Check
    finding: Finding
    seconds: float

    @property
    def good(self) -> bool:
        """Whether nothing stands in the way of cameras: passed, perhaps with a warning."""
        return self.finding.verdict not in (FAILED, NOT_JUDGED)


def examine(subject: Subject, only: Collection[str] = (), tell: Callable[[Check], None] = lambda check: None
            ) -> Iterator[Result]:
    """Makes the checks, or only some, and those which they need, and yields each one's result when it is there.

    tell  hears of each check that begins
    """
    with subject.stack:
        made: dict[str, Result] = {}
        for name in CHECKS:
            if not only or name in only:
                _make(name, subject, made, tell)
                yield made[name]


def _make(name: str, subject: Subject, made: dict[str, Result], tell: Callable[[Check], None]) -> Result:
    if name in made:
        return made[name]
    check = CHECKS[name]
    for needed in check.needs:
        if not _make(needed, subject, made, tell).good:
            made[name] = Result(check, not_judged(f"{needed} comes first"), 0.0)
            return made[name]
    tell(check)
    begin = time.monotonic()
    try:
        finding = check.judge(subject)
    except OSError as error:  # a connection that failed where one had worked, or a download without an end
        finding = failed(reason(error).partition("\n")[0], "look into the server's log: it worked just before")
    made[name] = Result(check, replace(finding, seen=_printable(finding.seen)), time.monotonic() - begin)
    return made[name]


def _printable(text: str) -> str:
    """The same without what would move a terminal's cursor, or what XML cannot hold: a platform may say anything."""
    return "".join(one if one.isprintable() else ascii(one)[1:-1] for one in text)
