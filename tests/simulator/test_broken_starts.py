"""A signal's exception leaves the start of a thread, which begins all the same: late, when its owner has closed."""

from __future__ import annotations

import contextlib
import socket
import threading
from collections.abc import Callable
from pathlib import Path

import pytest

from simulator import Journal
from simulator.messages.sockets import Acceptor, DatagramEndpoint
from simulator.owned_thread import OwnedThread
from simulator.peers.client import Client
from simulator.peers.events import EventPublisher
from simulator.peers.own_client import OwnClient
from support import DEADLINE


class _Signal(BaseException):
    pass


@pytest.fixture
def broken_off(monkeypatch: pytest.MonkeyPatch) -> list[threading.Thread]:
    """The threads that were to start: a signal comes before each of them begins."""
    threads: list[threading.Thread] = []

    def start(thread: threading.Thread) -> None:
        threads.append(thread)
        raise _Signal
    monkeypatch.setattr(threading.Thread, "start", start)
    return threads


# Begins, and ends, an owner.
BeginAndEnd = tuple[Callable[[], object], Callable[[], object]]


def endpoint(folder: Path) -> BeginAndEnd:
    one = DatagramEndpoint(folder / "II", lambda _data: None)
    return one.start, one.close


def acceptor(_folder: Path) -> BeginAndEnd:
    one = Acceptor("platform", lambda connection: connection.close())
    return lambda: one.start([socket.create_server(("127.0.0.1", 0))]), one.stop


def publisher(folder: Path) -> BeginAndEnd:
    one = EventPublisher(Journal(), folder / "event", folder)
    return one.start, one.stop


def own_client(folder: Path) -> BeginAndEnd:
    one = OwnClient(Journal(), Client(Journal(), folder), folder)
    return one.__enter__, one.__exit__


@pytest.mark.parametrize("owner", [endpoint, acceptor, publisher, own_client])
def test_an_owner_whose_start_was_broken_off_ends_without_its_thread(
        owner: Callable[[Path], BeginAndEnd], tmp_path: Path, broken_off: list[threading.Thread]) -> None:
    begin, end = owner(tmp_path)
    with pytest.raises(_Signal):
        begin()
    end()
    (thread,) = broken_off
    thread.run()  # now it begins


def test_a_thread_that_runs_although_its_start_was_broken_off_is_waited_for(monkeypatch: pytest.MonkeyPatch) -> None:
    began, may_end, joined = threading.Event(), threading.Event(), threading.Event()

    def target() -> None:
        began.set()
        may_end.wait(DEADLINE)
    thread = OwnedThread(target, "late")
    begin = threading.Thread.start

    def broken_off_late(one: threading.Thread) -> None:
        begin(one)
        began.wait(DEADLINE)
        raise _Signal
    with monkeypatch.context() as patch:
        patch.setattr(threading.Thread, "start", broken_off_late)
        with contextlib.suppress(_Signal):
            thread.start()
    waiting = threading.Thread(target=lambda: (thread.join(), joined.set()))
    waiting.start()
    assert not joined.wait(0.2)  # pause: what it would do wrong it would do meanwhile
    may_end.set()
    assert joined.wait(DEADLINE) and not thread.is_alive()
    waiting.join()


def test_a_thread_that_was_started_runs_even_if_it_is_waited_for_at_once() -> None:
    ran: list[int] = []
    for number in range(200):
        thread = OwnedThread(lambda number=number: ran.append(number), "short")
        thread.start()
        thread.join()
    assert ran == list(range(200))


def test_a_thread_that_was_never_started_is_not_waited_for_and_runs_nothing() -> None:
    ran: list[int] = []
    thread = OwnedThread(lambda: ran.append(1), "never")
    thread.join()
    thread.start()
    thread.join()
    assert ran == []
