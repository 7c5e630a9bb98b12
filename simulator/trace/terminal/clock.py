"""The time of day that a recording's seconds since its beginning were."""

from __future__ import annotations

from collections.abc import Callable
from datetime import datetime, timedelta, timezone


def wall_clock(began: str) -> Callable[[float], str]:
    """Says it in UTC, of a recording that began at a time in ISO 8601; "" if it does not say when it began."""
    try:
        begin = datetime.fromisoformat(began).astimezone(timezone.utc)
    except ValueError:
        return lambda _seconds: ""
    return lambda seconds: f"{begin + timedelta(seconds=seconds):%H:%M:%S.%f}"[:-3]
