"""How much is played: a sample, always the same, or all of it in parts, which scripts/calls asks for."""

from __future__ import annotations

import os
import random

from plan import Failure

ALL = "CAMGATE_CALLS_PARTS" in os.environ
PARTS = int(os.environ.get("CAMGATE_CALLS_PARTS", "4"))


def part_of(failures: list[Failure], part: int) -> list[Failure]:
    """A part of them, in the order in which they are played: a sample is the first of it that can be made."""
    chosen = failures[part::PARTS]
    return chosen if ALL else random.Random(part).sample(chosen, len(chosen))
