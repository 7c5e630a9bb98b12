"""The journal is in the order of causes, however late the machine lets the thread run that waits for the log."""

from __future__ import annotations

import re
import select
import threading
from collections import Counter
from collections.abc import Callable, Iterator
from pathlib import Path
from types import SimpleNamespace
from typing import Any

import pytest

from simulator import Camera, Journal, wire
from simulator.cli.scenarios.play import Player
from simulator.cli.scenarios.scenario import load
from simulator.device import service
from simulator.messages import sockets
from simulator.trace.explanation import LiveTrace
from simulator.trace.recording import Entry, read
from support import DEADLINE, poll_until

SCENARIOS = Path(__file__).parents[1] / "scenarios"
SLOW_SECONDS = 0.3

# Of each two, the n-th of the second comes of the n-th of the first, or of the one before where a third value says so.
# A log record is written as the beginning of its text, a datagram as its ends and its command.
CAUSES: list[tuple[str, str, int]] = [
    ("client service body", "log (Process info:|GetJsonMsgInfo err)", 0),
    ("log (Process info:|GetJsonMsgInfo err)", "service client head", 0),
    ("log  RegisterProcObj::SendSysObj, ContentData:", "request for a page", 0),
    ("response to a page", "log DownloadPictureProcess Status:200", 0),
    ("log  Fullfilename ", "service itgt 7020", 0),
    ("itgt service 7020", "log taskID is ", 0),
    ("log Task ID is ", "service itgt 7021", 0),
    ("itgt service 7021", "log Current process is ", 0),
    ("itgt service 7031", "log picTaskResult Update TIME IS ", 0),
    ("log @@@picTaskResult Update ", "request of a report", 0),
    ("response to a report", "log response status ", 0),
    ("faces service 7019", "log  [Custom] download picture file ", 0),
    ("faces service 7018", "log CMD_ALARM_FACE_LIB_SET ", 0),
    ("log CMD_ALARM_FACE_LIB_SET ", "service faces 7018", 1),
]


class SlowPoll:
    """Stands in for what the log's thread waits with: from a moment on, that thread goes on late."""

    in_time = threading.Event()
    seconds: float | None = None

    def __init__(self) -> None:
        self._poll = select.poll()
        self.register = self._poll.register

    def poll(self) -> list[tuple[int, int]]:
        ready = self._poll.poll()
        self.in_time.wait(SlowPoll.seconds)
        return ready


@pytest.fixture
def slow_log(make_camera: Callable[..., Camera], monkeypatch: pytest.MonkeyPatch) -> Iterator[Callable[..., None]]:
    """slow_log(seconds): from here to the end of the test the log's thread goes on so late; without a number, never."""
    monkeypatch.setattr(service, "select", SimpleNamespace(poll=SlowPoll, POLLIN=select.POLLIN))
    SlowPoll.in_time.set()

    def begin(seconds: float | None = None) -> None:
        SlowPoll.seconds = seconds
        SlowPoll.in_time.clear()

    yield begin
    SlowPoll.in_time.set()


def name_of(entry: Entry, targets: dict[int, str]) -> str:
    """What an entry is called in CAUSES; `targets` has what was last asked for on a connection."""
    if entry.type == "log":
        return f"log {entry.text}"
    if entry.type == "datagram":
        ends = f"{entry.fields['from']} {entry.to} "
        if "client" in ends:
            return ends + ("head" if len(entry.data) == wire.HEAD_SIZE else "body")
        return ends + str(wire.Message(entry.data).command) if "events" not in ends else ends
    if entry.type == "request":
        is_report = entry.head.split(b" ")[1].endswith(b"Result")
        targets[entry.connection] = "a report" if is_report else "a page"
        return "request of a report" if is_report else "request for a page"
    return f"response to {targets[entry.connection]}" if entry.type == "response" else ""


def out_of_order(entries: list[Entry]) -> list[str]:
    """The entries that stand before what they come of."""
    seen: Counter[str] = Counter()
    targets: dict[int, str] = {}
    found = []
    for entry in entries:
        name = name_of(entry, targets)
        for cause, effect, lag in CAUSES:
            if re.match(effect, name) and seen[cause] < seen[effect] + 1 - lag:
                found.append(f"line {entry.number}: {name}, before {cause}")
        seen.update({pattern for pair in CAUSES for pattern in pair[:2] if re.match(pattern, name)})
    return found


@pytest.mark.parametrize("name", [
    "all-well", "client-garbage", "client-late", "events-restarts", "faces-late", "faces-restarts", "itgt-bad-pictures",
    "itgt-ready-after", "itgt-twice", "platform-chunked", "platform-closes", "platform-status"])
def test_everything_recorded_stands_behind_what_it_comes_of(
        name: str, make_camera: Callable[..., Camera], slow_log: Callable[..., None], tmp_path: Path) -> None:
    slow_log(SLOW_SECONDS)
    player = Player(load(SCENARIOS / f"{name}.json"), make_camera(start=False, recording=tmp_path / "run"))
    player.play()
    assert [check for check in player.checks if not check.ok] == []
    entries = read(tmp_path / "run").entries
    assert sum(name_of(entry, {}) == "service client head" for entry in entries if entry.type == "datagram") > 0
    assert out_of_order(entries) == []


class SlowFacesPoll:
    """Stands in for what peers wait with: the face library's thread goes on late."""

    def __init__(self) -> None:
        self._poll = select.poll()
        self.register = self._poll.register

    def poll(self) -> list[tuple[int, int]]:
        ready = self._poll.poll()
        if threading.current_thread().name == "datagrams A":
            threading.Event().wait(SLOW_SECONDS)  # pause: this is what is tried
        return ready


def test_what_was_sent_before_the_end_counts_however_late_it_is_taken(
        make_camera: Callable[..., Camera], monkeypatch: pytest.MonkeyPatch) -> None:
    monkeypatch.setattr(sockets, "select", SimpleNamespace(poll=SlowFacesPoll, POLLIN=select.POLLIN))
    player = Player(load(SCENARIOS / "faces-twice.json"), make_camera(start=False))
    player.play()
    assert [check for check in player.checks if not check.ok] == []


def test_an_endpoint_is_idle_when_its_handler_is_done(tmp_path: Path) -> None:
    begun, may_end = threading.Event(), threading.Event()

    def handle(_data: bytes) -> None:
        begun.set()
        may_end.wait(DEADLINE)
    endpoint = sockets.DatagramEndpoint(tmp_path / "A", handle)
    assert endpoint.is_idle()
    endpoint.send(b"one", tmp_path / "A")
    assert not endpoint.is_idle(), "nobody has taken it"
    endpoint.start()
    assert begun.wait(DEADLINE) and not endpoint.is_idle(), "it is dealt with"
    may_end.set()
    poll_until(endpoint.is_idle)
    endpoint.close()


def test_an_order_that_is_wrong_is_seen() -> None:
    def log(text: str) -> Entry:
        return Entry(2, 0.0, "log", {"text": text})
    told = Entry(3, 0.0, "datagram", {"from": "service", "to": "itgt", "data": bytes(wire.encode_request(
        wire.ITGT_SOCKET, wire.EXCHANGE_SOCKET, 7020))})
    good = [log(" Fullfilename /tmp/white0"), told]
    assert out_of_order(good * 2) == []
    assert out_of_order(good + good[::-1]) == ["line 3: service itgt 7020, before log  Fullfilename "]


def test_a_reply_has_the_log_of_its_command_before_it(
        start_camera: Callable[..., Camera], slow_log: Callable[..., None]) -> None:
    camera = start_camera()
    shown: list[str] = []
    trace = LiveTrace()
    camera.journal.listen(lambda event: shown.extend(item.title for item in trace.take(event)))
    slow_log()
    assert camera.client.command("faceNotHitDown", {"FaceID": 7}).status == 200
    told = [event.record.text if event.kind == "log" else f"{event.source} {event.kind}"
            for event in camera.journal.events]
    assert told.index("Process cmd:faceNotHitDown.") < told.index("client received")
    logged = next(place for place, title in enumerate(shown) if "Process cmd:faceNotHitDown." in title)
    assert logged < next(place for place, title in enumerate(shown) if "status 200" in title), shown


def test_a_position_has_all_before_it_that_was_written_before(
        start_camera: Callable[..., Camera], slow_log: Callable[..., None]) -> None:
    camera = start_camera()
    slow_log()
    camera.client.command("xyz", {})
    poll_until(lambda: camera.service.log[-1].text == "Process cmd:xyz  not supported .")
    begin = len(camera.journal)
    assert camera.client.command("faceNotHitDown", {"FaceID": 7}).status == 200
    later = [event.record.text for event in camera.journal.events[begin:] if event.kind == "log"]
    assert later[0] == "Process cmd:faceNotHitDown."


def test_what_a_listener_adds_parts_no_records() -> None:
    """A listener may look at the journal, and add to it, while the log is taken."""
    journal = Journal()
    waiting = ["one", "two", "three"]

    def take() -> None:
        while waiting:
            journal.add("service", "log", text=waiting.pop(0))

    def note(event: object) -> None:
        if len(journal) < 9:
            journal.add("test", "seen", at=len(journal))
    journal.take = take
    journal.listen(note)
    journal.add("client", "sent")
    assert [event.text for event in journal.find("service", "log")] == ["one", "two", "three"]
    assert journal.events[0].text == "one"
    assert [event.kind for event in journal.events].index("sent") > [
        place for place, event in enumerate(journal.events) if event.kind == "log"][-1]


def test_whoever_sees_the_log_knows_the_service(
        make_camera: Callable[..., Camera], monkeypatch: pytest.MonkeyPatch) -> None:
    own = service.Service._receive_sockets

    def late(*arguments: Any) -> Any:
        threading.Event().wait(SLOW_SECONDS)  # pause: the machine does something else
        return own(*arguments)

    monkeypatch.setattr(service.Service, "_receive_sockets", late)
    camera = make_camera(start=False)
    seen: list[tuple[str, bool]] = []
    camera.journal.listen(lambda event: seen.append((event.kind, camera.service.pid > 0)))
    camera.__enter__()
    camera.start_service()
    assert seen[0] == ("starting", True)
    assert {known for _, known in seen} == {True}
