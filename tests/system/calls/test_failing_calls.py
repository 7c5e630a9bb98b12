"""Each system call of a start, a tour and a stop fails once, in each way that is plausible."""

from __future__ import annotations

import signal
from errno import EAGAIN

import pytest

import plan
from plan import Failure
from sample import PARTS, part_of
from support import StartCamera
from tours import START_FAILED, Record, Tours

TOURS_OF_A_SAMPLE = 25
STARTS_OF_A_SAMPLE = 10
STOPS_OF_A_SAMPLE = 3


@pytest.mark.seconds(30)
@pytest.mark.parametrize("part", range(PARTS))
def test_failing_call_of_a_tour_costs_at_most_the_tour(with_library: StartCamera, part: int,
                                                       record_property: Record) -> None:
    tours = Tours(with_library)
    tours.start()
    tours.control.begin()
    tours.whole()
    failures = plan.failures(tours.control.counts())
    tours.each(part_of(failures, part), tours.failing, TOURS_OF_A_SAMPLE)
    tours.expect_no_violations(record_property, "tours with a failing call")


@pytest.mark.seconds(30)
@pytest.mark.parametrize("part", range(PARTS))
def test_failing_call_of_a_start_ends_it_with_70_or_does_no_harm(with_library: StartCamera, part: int,
                                                                 record_property: Record) -> None:
    tours = Tours(with_library, ends_with=(0, START_FAILED))
    tours.control.begin()
    tours.camera.start_service()
    failures = plan.failures(tours.control.counts())
    tours.each(part_of(failures, part), tours.starting, STARTS_OF_A_SAMPLE)
    tours.expect_no_violations(record_property, "starts with a failing call")


@pytest.mark.parametrize("number", [1, 2], ids=["first", "second"])
def test_start_that_gets_no_thread_for_its_tasks_ends_with_70_and_the_reason(with_library: StartCamera,
                                                                             number: int) -> None:
    tours = Tours(with_library, ends_with=(0, START_FAILED))
    tours.control.begin()
    tours.camera.start_service()
    can_fail = (0, "clone") in tours.control.counts()
    tours.camera.service.send_signal(signal.SIGTERM)
    tours.camera.service.wait()
    if can_fail:  # not in each build
        before = len(tours.camera.service.stderr)
        tours.control.begin(Failure(0, "clone", number, EAGAIN))
        tours.camera.start_service(wait=False)
        assert tours.camera.service.wait() == START_FAILED
        assert tours.camera.service.stderr[before:] == b"System exception: cannot start thread\n"


@pytest.mark.seconds(30)
@pytest.mark.parametrize("part", range(PARTS))
def test_failing_call_of_a_stop_does_not_hinder_it(with_library: StartCamera, part: int,
                                                   record_property: Record) -> None:
    tours = Tours(with_library)
    tours.start()
    tours.control.begin()
    tours.camera.service.send_signal(signal.SIGTERM)
    tours.camera.service.wait()
    failures = plan.failures(tours.control.counts())
    tours.each(part_of(failures, part), tours.stopping, STOPS_OF_A_SAMPLE)
    tours.expect_no_violations(record_property, "stops with a failing call")
