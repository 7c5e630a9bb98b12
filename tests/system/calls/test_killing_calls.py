"""Each system call of a start, a tour and a stop is the service's last; the tour of the next start is whole."""

from __future__ import annotations

import signal
from collections.abc import Callable

import pytest

import plan
from sample import PARTS, part_of
from support import StartCamera
from tours import Record, Tours

KILLS_OF_A_SAMPLE = 4


def during_tour(tours: Tours) -> None:
    tours.tour()


def during_stop(tours: Tours) -> None:
    tours.camera.service.send_signal(signal.SIGTERM)
    tours.camera.service.wait()


@pytest.mark.seconds(30)
@pytest.mark.parametrize("part", range(PARTS))
@pytest.mark.parametrize("when", [during_tour, during_stop])
def test_next_tour_is_whole_whichever_call_was_the_last(with_library: StartCamera, part: int,
                                                        when: Callable[[Tours], None],
                                                        record_property: Record) -> None:
    tours = Tours(with_library)
    tours.start()
    tours.control.begin()
    if when is during_tour:
        tours.whole()
    else:
        when(tours)
    kills = plan.kills(tours.control.counts())
    if when is during_stop:
        tours.start()
    tours.each(part_of(kills, part), lambda kill: tours.killed(kill, lambda: when(tours)), KILLS_OF_A_SAMPLE)
    tours.expect_no_violations(record_property, "kills in a tour or a stop")


@pytest.mark.seconds(30)
@pytest.mark.parametrize("part", range(PARTS))
def test_next_tour_is_whole_whichever_call_of_a_start_was_the_last(with_library: StartCamera, part: int,
                                                                   record_property: Record) -> None:
    tours = Tours(with_library)
    tours.control.begin()
    tours.camera.start_service()
    kills = plan.kills(tours.control.counts())

    def starts_anew() -> None:
        tours.camera.start_service()

    def killed(kill: plan.Failure) -> None:
        tours.camera.service.send_signal(signal.SIGKILL)
        tours.camera.service.wait()
        tours.killed(kill, starts_anew)

    tours.each(part_of(kills, part), killed, KILLS_OF_A_SAMPLE)
    tours.expect_no_violations(record_property, "kills in a start")
