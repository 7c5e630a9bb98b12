"""Each allocation of a start, a tour and a stop fails once; and, from each one on, all of them."""

from __future__ import annotations

import signal
from collections.abc import Callable
from errno import ENOMEM

import pytest

import plan
from plan import Failure
from sample import PARTS, part_of
from support import StartCamera
from tours import START_FAILED, Record, Tours


TOURS_OF_A_SAMPLE = 10
STARTS_OF_A_SAMPLE = 5
STOPS_OF_A_SAMPLE = 3


@pytest.mark.seconds(30)
@pytest.mark.parametrize("part", range(PARTS))
def test_failing_allocation_of_a_tour_costs_at_most_what_needed_it(with_library: StartCamera, part: int,
                                                                   record_property: Record) -> None:
    tours = Tours(with_library)
    tours.start()
    tours.control.begin()
    tours.whole()
    failures = plan.allocations(tours.control.counts(), lasts=False)
    tours.each(part_of(failures, part), tours.failing, TOURS_OF_A_SAMPLE)
    tours.expect_no_violations(record_property, "tours with a failing allocation")


@pytest.mark.seconds(30)
@pytest.mark.parametrize("part", range(PARTS))
def test_tour_behind_one_without_memory_is_whole(with_library: StartCamera, part: int,
                                                 record_property: Record) -> None:
    tours = Tours(with_library)
    tours.start()
    tours.control.begin()
    tours.whole()
    failures = plan.allocations(tours.control.counts(), lasts=True)
    tours.each(part_of(failures, part),
               lambda failure: tours.without_memory(failure, tours.memory_comes_back), TOURS_OF_A_SAMPLE)
    tours.expect_no_violations(record_property, "tours without memory from an allocation on")


@pytest.mark.parametrize("lasts", [False, True], ids=["one", "all"])
def test_download_whose_thread_has_no_memory_to_begin_leaves_the_service_free(with_library: StartCamera, lasts: bool,
                                                                              record_property: Record) -> None:
    tours = Tours(with_library)
    tours.start()
    thread = plan.ROLES.index("other thread")
    first = plan.allocations({(thread, plan.ALLOCATION): 4 if tours.control.allocations() else 0}, lasts)
    tours.each(first, lambda failure: tours.without_memory(failure, tours.memory_comes_back))
    tours.expect_no_violations(record_property, "downloads without memory to begin")


@pytest.mark.seconds(30)
@pytest.mark.parametrize("part", range(PARTS))
def test_stop_ends_where_a_tour_has_no_memory_any_more(with_library: StartCamera, part: int,
                                                       record_property: Record) -> None:
    tours = Tours(with_library)
    tours.start()
    tours.control.begin()
    tours.whole()
    failures = plan.allocations(tours.control.counts(), lasts=True)
    tours.each(part_of(failures, part),
               lambda failure: tours.without_memory(failure, tours.stop_without_memory), STOPS_OF_A_SAMPLE)
    tours.expect_no_violations(record_property, "stops without memory in a tour")


@pytest.mark.seconds(30)
@pytest.mark.parametrize("lasts", [False, True], ids=["one", "all"])
@pytest.mark.parametrize("part", range(PARTS))
def test_failing_allocation_of_a_start_ends_it_with_70_or_does_no_harm(with_library: StartCamera, part: int,
                                                                       lasts: bool, record_property: Record) -> None:
    tours = Tours(with_library, ends_with=(0, START_FAILED, 128 + signal.SIGABRT))
    tours.control.begin()
    tours.camera.start_service()
    failures = plan.allocations(tours.control.counts(), lasts)
    tours.each(part_of(failures, part), tours.starting, STARTS_OF_A_SAMPLE)
    record_property("starts that OpenSSL did not survive whole", tours.without_tls)
    tours.expect_no_violations(record_property, "starts with a failing allocation" + ", and all behind it" * lasts)


@pytest.mark.parametrize(("fails", "code", "said"), [
    (lambda _count: Failure(0, plan.ALLOCATION, 1, ENOMEM), 128 + signal.SIGABRT, b"std::bad_alloc\n"),
    (lambda count: Failure(0, plan.ALLOCATION, count // 2, ENOMEM, True), START_FAILED, b"\nOut of memory\n")],
    ids=["before the service's own", "of the service"])
def test_start_without_memory_says_so(with_library: StartCamera, fails: Callable[[int], Failure], code: int,
                                      said: bytes) -> None:
    tours = Tours(with_library, ends_with=(0, START_FAILED, 128 + signal.SIGABRT))
    tours.control.begin()
    tours.camera.start_service()
    count = tours.control.allocations()
    tours.camera.service.send_signal(signal.SIGTERM)
    tours.camera.service.wait()
    if count > 0:  # or else nothing can fail in this build
        before = len(tours.camera.service.stderr)
        tours.control.begin(fails(count))
        tours.camera.start_service(wait=False)
        assert tours.camera.service.wait() == code
        assert said in tours.camera.service.stderr[before:]


@pytest.mark.seconds(30)
@pytest.mark.parametrize("lasts", [False, True], ids=["one", "all"])
@pytest.mark.parametrize("part", range(PARTS))
def test_failing_allocation_of_a_stop_does_not_hinder_it(with_library: StartCamera, part: int, lasts: bool,
                                                         record_property: Record) -> None:
    tours = Tours(with_library)
    tours.start()
    tours.control.begin()
    tours.camera.service.send_signal(signal.SIGTERM)
    tours.camera.service.wait()
    failures = plan.allocations(tours.control.counts(), lasts)
    tours.each(part_of(failures, part), tours.stopping, STOPS_OF_A_SAMPLE)
    tours.expect_no_violations(record_property, "stops with a failing allocation" + ", and all behind it" * lasts)
