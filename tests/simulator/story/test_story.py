"""What the chapters of a recorded run tell: how long its work took, what failed and why, and what answers what."""

from __future__ import annotations

import base64
import os
import random
import re
import signal
import subprocess
from pathlib import Path

import pytest

from camsim_runs import CAMSIM, ROOT, Camsim
from simulator import Journal, Response, wire
from simulator.trace.chapters import chapters_of
from simulator.trace.recording import Recorder, read
from simulator.trace.story.chapter import Chapter, Failure
from simulator.trace.story.failures import Failures
from simulator.trace.words import Item
from support import StartCamera, at_most, wait_end

SIGKILLED = 128 + signal.SIGKILL


def played(camsim: Camsim, folder: Path, scenario: str) -> list[Chapter]:
    """The chapters of a scenario, which must come out as expected."""
    done = camsim.run("run", "--record", folder / "run", ROOT / "tests" / "scenarios" / f"{scenario}.json")
    assert done.returncode == 0, done.stdout
    return chapters_of(read(folder / "run"))


def failures(chapters: list[Chapter]) -> list[Failure]:
    return [failure for chapter in chapters for failure in chapter.failures]


def all_items(chapters: list[Chapter]) -> dict[int, Item]:
    return {item.number: item for chapter in chapters for item in chapter.items}


# The service waits 5 s; what begins and ends it is seen later, each: on a busy machine by any part of a second.
_SECONDS = r"[1-9]\d*\.\d\d s"
TIMEOUT = f"page 0 to 29 was not fetched: Timeout after {_SECONDS}; the download ended"
# By scenario: the reason, the fault, and what is at the place that the reason leads to.
REASONS = {
    "platform-silent": (TIMEOUT, "platform.silent", "ERROR"),
    "platform-no-handshake": (TIMEOUT, "platform.no-handshake", "ERROR"),
    "platform-late": (TIMEOUT, "platform.late", "ERROR"),
    "platform-refuses": ("page 0 to 29 was not fetched: Connection reset by peer; the download ended",
                         "platform.refuses", "ERROR"),
    "platform-reset": ("page 0 to 29 was not fetched: Connection reset by peer; the download ended",
                       "platform.reset", "ERROR"),
    "platform-status": ("the platform answered the request of page 0 to 29 with 503 Service Unavailable; "
                        "the download ended", "platform.status", "503 Service Unavailable"),
    # POCO 1.13 has another name for it.
    "platform-tls-1.1": ("page 0 to 29 was not fetched: SSL (Exception|connection unexpectedly closed): .*; "
                         "the download ended", "platform.tls", "ERROR"),
    "itgt-never-ready": ("ITGT said 10 times that page 0 to 0 is not imported; .*", "itgt.never-ready", "INFO"),
    "itgt-bad-pictures": (r"ITGT did not take \d+ pictures of page 0 to \d+", "itgt.bad-pictures", "imported the page"),
    "itgt-state-file-missing": (r"the service logged: \[Custom\] download picture, open file .* error\.",
                                "itgt.state-file", "ERROR"),
    "faces-silent": (f"face library did not answer 7019 CMD_FACE_LIB_CLEAR, {_SECONDS} until the stop",
                     "faces.silent", "7019 CMD_FACE_LIB_CLEAR request"),
    "faces-configuration-garbage": ("whiteListClear was refused, status 400: (the service logged: )?parser Err .*",
                                    "faces.configuration", "reply: status 400"),
    "client-garbage": ("datagram of 100 bytes was refused, status 400: the service logged: PUBLIC_JSON Err .*",
                       "client.garbage", "reply: status 400"),
}


@pytest.mark.parametrize("scenario", REASONS)
def test_failure_has_its_reason_its_fault_and_its_place(camsim: Camsim, tmp_path: Path, scenario: str) -> None:
    chapters = played(camsim, tmp_path, scenario)
    reason, fault, title = REASONS[scenario]
    failed = next(failure for failure in failures(chapters) if failure.failed)
    assert re.fullmatch(reason, failed.text) and failed.fault == fault, failed
    assert all_items(chapters)[failed.item].title.startswith(title)


def test_unanswered_page_and_the_download_that_it_held_up(camsim: Camsim, tmp_path: Path) -> None:
    chapters = played(camsim, tmp_path, "itgt-silent")
    refusal = re.compile("(whiteListDown|a command during .*) was refused, status 409: not allowed,.*")
    # ITGT may hold its answer back before the second command comes, or behind it.
    refused = [failure for failure in failures(chapters) if refusal.fullmatch(failure.text)]
    assert [failure.fault for failure in refused] == [""]
    assert [(failure.fault, failure.text.partition(",")[0]) for failure in failures(chapters)
            if failure not in refused] == [
        ("itgt.silent", "ITGT did not answer 7020 CMD_FACE_IMPORT_FILE"),
        ("", "page 0 to 0 was not done when the service was stopped")]
    page, stop = chapters[-2:]
    told = next(item for item in page.items if item.title == "7020 CMD_FACE_IMPORT_FILE request")
    assert page.phases[-1] == ("import", told.time, stop.begin), "it goes on until the stop"


def test_fault_without_a_failure_is_told_as_such(camsim: Camsim, tmp_path: Path) -> None:
    failure, = failures(played(camsim, tmp_path, "events-garbage"))
    assert (failure.text, failure.fault, failure.failed) == ("fault events.garbage takes hold", "events.garbage", False)


def test_nothing_failed_when_all_is_well(camsim: Camsim, tmp_path: Path) -> None:
    assert failures(played(camsim, tmp_path, "all-well")) == []


@pytest.mark.parametrize("scenario", ["platform-silent", "platform-no-handshake"])
def test_fetch_without_an_answer_takes_until_it_is_given_up(camsim: Camsim, tmp_path: Path, scenario: str) -> None:
    page = next(chapter for chapter in played(camsim, tmp_path, scenario) if chapter.title == "page 0 to 29")
    (name, begin, end), = page.phases
    connected = next(item for item in page.items if item.title == "TCP connection 1")
    given_up = next(item for item in page.items if item.detail.startswith("DownloadPictureProcess Status:400"))
    assert (name, begin, end) == ("fetch", connected.time, given_up.time)
    assert 4.9 < end - begin < at_most(5.5)


def test_chapter_ends_with_its_work(start_camera: StartCamera, tmp_path: Path) -> None:
    camera = start_camera(recording=tmp_path / "run")
    camera.client.command("whiteListDown", camera.platform.task(31))
    wait_end(camera)
    camera.journal.add("platform", "later")
    last = camera.journal.events[-1].time - camera.journal.began
    camera.close()
    chapters = {chapter.title: chapter for chapter in chapters_of(read(tmp_path / "run"))}
    page = chapters["page 30 to 30"]
    end = next(item.time for item in page.items if item.detail.startswith("CustomJsonPicDownloadTask End"))
    assert page.end == end <= last
    assert page.phases[-1][0] == "report" and page.phases[-1][2] <= end
    assert chapters["Stop"].begin >= page.end
    assert [item.title for item in chapters["Stop"].items][-2:].count("ended") == 1


def test_refusals_that_nobody_injected(start_camera: StartCamera, tmp_path: Path) -> None:
    camera = start_camera(recording=tmp_path / "run")
    assert camera.client.command("nonsense", {}).status == 400
    camera.client.command("whiteListDown", camera.platform.task(1, taskURL="https://127.0.0.1:8443/elsewhere"))
    wait_end(camera)
    camera.close()
    found = failures(chapters_of(read(tmp_path / "run")))
    assert [(failure.text, failure.fault) for failure in found] == [
        ("nonsense was refused, status 400: Process cmd:nonsense  not supported .", ""),
        ("the platform answered the request of page 0 to 0 with 404 Not Found; the download ended", "")]


@pytest.mark.parametrize("first", ["log", "message"])
def test_reason_of_a_refusal_may_be_logged_before_or_behind_the_reply(first: str) -> None:
    reason = Item(line=1, time=1.0, kind="log", source="service", target="", title="INFO Custom_JsonMsgLoop",
                  detail="Process cmd:nonsense  not supported .", number=1)
    reply = Item(line=2, time=1.0, kind="message", source="service", target="client", title="reply: status 400",
                 number=2)
    found = Failures()
    for item in (reason, reply) if first == "log" else (reply, reason):
        found.take(item, Chapter("nonsense", 1.0))
    assert [failure.text for failure in found.all.values()] == [
        "nonsense was refused, status 400: Process cmd:nonsense  not supported ."]


def test_killed_service(start_camera: StartCamera, tmp_path: Path) -> None:
    camera = start_camera(recording=tmp_path / "run", ends_with=(SIGKILLED,))
    camera.service.send_signal(signal.SIGKILL)
    camera.service.wait(10)
    camera.close()
    failure, = failures(chapters_of(read(tmp_path / "run")))
    assert failure.text == "the service ended with code 137, SIGKILL"


def test_requests_are_paired_with_their_answers_on_every_wire(start_camera: StartCamera, tmp_path: Path) -> None:
    camera = start_camera(recording=tmp_path / "run")
    camera.platform.picture_sizes = (1_000, 2_000)
    camera.client.command("whiteListDown", camera.platform.task(31))
    wait_end(camera)
    camera.client.command("whiteListClear", {"cameraCode": "C1"})
    camera.events.publish(b"{}")
    camera.close()
    items = all_items(chapters_of(read(tmp_path / "run")))
    pairs = [(items[item.answers], item) for item in items.values() if item.answers]
    assert {(asked.title.removesuffix(" request"), answer.title.removesuffix(" reply")) for asked, answer in pairs} == {
        ("command whiteListDown", "reply: status 200"), ("command whiteListClear", "reply: status 200"),
        ("POST /platform/whiteList", "200 OK"), ("POST /platform/whiteListResult", "200 OK"),
        *((title, title) for title in ("7018 CMD_ALARM_FACE_LIB_SET", "7019 CMD_FACE_LIB_CLEAR",
                                       "7020 CMD_FACE_IMPORT_FILE", "7021 CMD_FACE_IMPORT_PROGRESS",
                                       "7031 CMD_FACE_IMPORT_PAGE")),
        ("put buffer 1 into the event cache", "notification")}
    assert all(answer.after == answer.time - asked.time >= 0 for asked, answer in pairs)
    assert len(pairs) == len({asked.number for asked, _ in pairs}), "no request is answered twice"
    assert not [item.title for item in items.values() if item.asks and item.number not in {
        asked.number for asked, _ in pairs}]


def test_same_tag_twice(tmp_path: Path) -> None:
    journal = Journal()
    with Recorder(journal, tmp_path / "run"):
        for status in (200, 400):
            for direction, body in (("sent", b'{"taskName": "x"}'), ("received", b'{"StatusCode": %d}' % status)):
                journal.add("client", direction, data=wire.encode_head(7, len(body)))
                journal.add("client", direction, data=body)
    items = all_items(chapters_of(read(tmp_path / "run")))
    assert [(item.answers, item.number) for item in items.values() if item.answers] == [(2, 4), (6, 8)]


def test_request_that_nobody_answers(camsim: Camsim, tmp_path: Path) -> None:
    items = all_items(played(camsim, tmp_path, "platform-silent"))
    answered = {item.answers for item in items.values()}
    assert [item.title for item in items.values() if item.asks and item.number not in answered] == [
        "POST /platform/whiteList"]


@pytest.mark.seconds(20)
def test_memory_of_a_thousand_faces(tmp_path: Path) -> None:
    """The page of 34 pages with pictures: `camsim trace` reads them one after the other."""
    journal = Journal()
    with Recorder(journal, tmp_path / "run"):
        for number in range(34):
            page = base64.b64encode(random.Random(number).randbytes(3_000_000))
            journal.add("platform", "response", response=Response(body=page), connection=number)
            journal.add("itgt", "file", path=f"/{number}", content=page)
            journal.forget()
    process = subprocess.Popen([CAMSIM, "trace", tmp_path / "run", "--html", tmp_path / "page"],
                               stdout=subprocess.DEVNULL)
    _, status, used = os.wait4(process.pid, 0)
    assert status == 0 and used.ru_maxrss < 150_000, "kilobytes"
