"""Tours of the service, in each of which a system call or an allocation fails, and what must hold for all of them."""

from __future__ import annotations

import re
import signal
import time
from collections.abc import Callable, Iterable
from contextlib import suppress
from pathlib import Path
from typing import Any

import plan
from control import Control, library
from plan import Failure
from sample import ALL
from simulator import CameraError, wire
from support import BEGIN, END, FOLDER, StartCamera, at_request, descriptors, poll_until, threads

# What did not hold, and what had happened, as soon as it is known: a run of all takes long.
FINDINGS = Path(__file__).resolve().parents[3] / "build" / "logs" / "calls.txt"
FACES = 2
# Nothing has been tried for so long: what fails has failed, for the moment. Longer than the pause before a new attempt.
_QUIET = 0.05
# A test's record_property.
Record = Callable[[str, object], None]
# Of the pool, whose threads end and begin as it sees fit.
_SPARE_THREADS = 2
# A failure that lasts is tried again after a second or five; a reply that is lost never comes.
_LATEST_REPLY = 12.0
# What is not called again does not kill, and what is lost, or ended without memory and has told so, does not come.
_SOON = 1.0
START_FAILED = 70
# A library that ends the process.
_ABORTED = 128 + signal.SIGABRT
# What stands first, if anything, where there is no memory before the service begins: the framework's exception passes
# through main, or the C library ends the process where it looks for the user.
_BEFORE_ITS_OWN = r"terminate called|.*: nss_database\w*: Assertion|Unexpected error\.$|$"
# The record before the TLS library begins.
_TLS_BEGINS = "client open name"
# A start that says this goes on: without taking commands, or as root, who cannot write what the service's user has.
_GOES_ON_WITHOUT = ("Utils_ProcessRingBufProducerInit fail", "Fail to run ChangeProcUser")
_RECORD_LOST = "metadata put ring buf fail."
# What it says when it has started.
_STARTED = "waitForTerminationRequest sucess!"
_LOG = "write to the log"
_RECORD = r"\d{4}-\d\d-\d\dT"
_REPLY_LOST = "SendJsonMsg fail"


class Tours:
    """One camera, and tours of its service: a download of a page, a clear with two lists, a notHit record.

    made        how many of the failures the service came to
    without_tls how many starts ended in OpenSSL, or without one of its algorithms: where a single allocation fails
                while it begins, it may take no notice
    violations  what did not hold, and with which failure
    """

    def __init__(self, with_library: StartCamera, **arguments: Any) -> None:
        self.camera = with_library(library(), start=False, records_only=False, **arguments)
        self.control = Control(self.camera)
        self.camera.faces.lists = self.camera.faces.lists[:2]
        self.made = 0
        self.without_tls = 0
        self._played = False
        self.violations: list[str] = []
        self._told: list[tuple[str, bytes]] = []
        self._usual: set[str] = set()
        at_request(self.camera.itgt, wire.IMPORT_FILE, self._look)

    def start(self) -> None:
        """Starts the service, and has it do all once, so that what is done only once is done."""
        self.camera.start_service()
        since = len(self.camera.journal)
        self.whole()
        self.whole()
        self._usual = self._texts(since)
        self._kept = descriptors(self.camera), threads(self.camera) + _SPARE_THREADS

    def whole(self, records: bool = True) -> None:
        """A tour in which nothing fails: it begins when no download is going on, and must be whole."""
        camera = self.camera
        begin = self._begin_download()
        self._command("whiteListClear", {"cameraCode": "C1"})
        if records:
            self._command("faceNotHitDown", {"a": "b"})
        camera.wait_for(lambda event: event.kind == "report", 20.0, begin)
        camera.wait_for_log(END, 20.0, begin)
        assert self._outcome(begin) >= (1, 1, 2), "pages told, reports, lists"

    def _command(self, name: str, information: dict[str, Any]) -> int | None:
        """The status of a command, which has one reply."""
        tag = self.camera.client.send(name, information)
        status = self.camera.client.wait_reply(tag, 20.0).status
        assert status == 200 or name == "whiteListDown" and status == 409, f"{name}: {status}"
        assert self._replies(tag) == 1, "one reply each"
        return status

    def _begin_download(self) -> int:
        """Starts a download as soon as the one before is over; returns where in the journal it begins."""
        begins: list[int] = []

        def accepted() -> bool:
            begins.append(len(self.camera.journal))
            return self._command("whiteListDown", self.camera.platform.task(FACES)) == 200
        poll_until(accepted)
        # The one before may have told of its end only now.
        begun = self.camera.wait_for_log(BEGIN, 20.0, begins[-1])
        return next(number for number, event in enumerate(self.camera.journal.events)
                    if event.matches("service", "log") and event.record is begun)

    def _until(self, done: Callable[[], bool]) -> None:
        """Waits until this is so; or, once something has failed, until no more memory is asked for."""
        asked, since = -1, 0.0

        def quiet() -> bool:
            nonlocal asked, since
            if asked != (now := self.control.allocations()):
                asked, since = now, time.monotonic()
            return self.control.failed() > 0 and time.monotonic() > since + _QUIET
        poll_until(lambda: done() or quiet())

    def _look(self, message: wire.Message) -> None:
        name = message.request["ImportFileName"]
        self._told.append((name, self.camera.path(f"{FOLDER}/{name}").read_bytes()))

    def _outcome(self, since: int) -> tuple[int, int, int]:
        """How many pages ITGT was told of from there on, how many were reported, how many lists were set."""
        events = self.camera.journal.events[since:]
        page = ("white0", self.camera.platform.page(0, FACES))
        assert all(told == page for told in self._told), "ITGT is told of nothing but whole pages"
        told = sum(event.kind == "page" and event.source == "itgt" for event in events)
        reports = [event.request.json() for event in events if event.kind == "report"]
        assert all((report["startIndex"], report["offset"]) == (0, FACES) for report in reports)
        imported = [report for report in reports
                    if [one["importStatus"] for one in report["ImportInfo"]] == [0] * FACES]
        lists = [event.face_list["ListName"] for event in events if event.kind == "list"]
        assert lists == ["Staff", "Visitors"][:len(lists)], "lists in order, each once"
        self._told.clear()
        return told, len(imported), len(lists)

    def _replies(self, tag: int) -> int:
        return sum(reply.tag == tag for reply in self.camera.client.replies)

    def _texts(self, since: int) -> set[str]:
        """The texts of the log from there on, without numbers."""
        return {re.sub(r"\d+", "0", event.record.text) for event in self.camera.journal.events[since:]
                if event.matches("service", "log")}

    def _try(self, name: str, information: dict[str, Any]) -> int:
        """Sends a command that may get no reply, and waits for it or for the record that says so; returns its tag."""
        camera, begin = self.camera, len(self.camera.journal)
        tag = camera.client.send(name, information)
        with suppress(TimeoutError):
            camera.wait_for(lambda event: event.matches("client", "reply", tag=tag) or event.matches("service", "ended")
                            or event.matches("service", "log") and _REPLY_LOST in event.record.text,
                            _LATEST_REPLY, begin)
        return tag

    def failing(self, failure: Failure) -> None:
        """A tour in which this call fails; what it may cost is checked, and the next one must be whole."""
        camera, begin = self.camera, len(self.camera.journal)
        self.control.begin(failure)
        tags = [self._try("whiteListDown", camera.platform.task(FACES)),
                self._try("whiteListClear", {"cameraCode": "C1"}), self._try("faceNotHitDown", {"a": "b"})]
        statuses = [reply.status for reply in camera.client.replies if reply.tag in tags]
        if 200 in statuses[:1] and failure.call != _LOG:
            has_told = failure.call == plan.ALLOCATION and self._texts(begin) - self._usual
            with suppress(TimeoutError):
                camera.wait_for_log(END, _SOON if has_told else _LATEST_REPLY, begin)
        self.made += bool(self.control.failed())
        self.control.begin()
        assert camera.service.exit_code is None, f"the service ended: {camera.service.exit_code}"
        is_whole = (self._outcome(begin), statuses) == ((1, 1, 2), [200] * 3)
        told_of = failure.call == _LOG or self._texts(begin) - self._usual
        assert is_whole or told_of, "no record tells of it"
        self.whole()
        assert all(self._replies(tag) <= 1 for tag in tags), "at most one reply"
        assert failure.call != plan.ALLOCATION or len(statuses) == len(tags), "one reply each"
        self._expect_nothing_left()

    def without_memory(self, failure: Failure, then: Callable[[], object]) -> None:
        """A tour in which this allocation fails and all behind it, for a while: what comes then is whole again."""
        camera, begin = self.camera, len(self.camera.journal)
        self.control.begin(failure)
        tags = []
        for name, information in (("whiteListDown", camera.platform.task(FACES)),
                                  ("whiteListClear", {"cameraCode": "C1"}), ("faceNotHitDown", {"a": "b"})):
            tags.append(camera.client.send(name, information))
            self._until(lambda: self._replies(tags[-1]) > 0)
        self._until(lambda: any(event.matches("service", "log") and event.record.text == END
                                for event in camera.journal.events[begin:]))
        self.made += bool(self.control.failed())
        then()
        assert all(self._replies(tag) <= 1 for tag in tags), "at most one reply"

    def memory_comes_back(self) -> None:
        camera = self.camera
        self.control.begin()
        assert camera.service.exit_code is None, f"the service ended: {camera.service.exit_code}"
        self._command("faceNotHitDown", {"a": "b"})  # behind all commands without memory
        self.whole()
        self._expect_nothing_left()

    def _expect_nothing_left(self) -> None:
        """Descriptors and threads are no more than after the first tours; says how many, if they are."""
        def left() -> list[tuple[str, int, int]]:
            counts = ("descriptors", descriptors(self.camera)), ("threads", threads(self.camera))
            return [(name, now, most) for (name, now), most in zip(counts, self._kept) if now > most]
        with suppress(AssertionError):
            poll_until(lambda: not left())
        too_many = left()
        assert not too_many, f"now, and at most: {too_many}"

    def stop_without_memory(self) -> None:
        self.camera.service.send_signal(signal.SIGTERM)
        code = self.camera.service.wait()
        self.control.begin()
        assert code == 0, f"exit code {code}"
        self.camera.start_service()

    def starting(self, failure: Failure) -> None:
        """A start in which this call fails: it ends with 70 and the reason, or the service is as good as any."""
        self._stop()
        camera, begin, said = self.camera, len(self.camera.journal), len(self.camera.service.stderr)
        self.control.begin(failure)
        camera.start_service(wait=False)
        if failure.call == plan.ALLOCATION:
            self._until(lambda: self._has_started(begin))
        else:
            log_fails = failure.call == _LOG  # it may be the record that is waited for
            with suppress(*([TimeoutError] if log_fails else [])):
                camera.wait_for(lambda event: event.matches("service", "ended") or event.matches("service", "log")
                                and _STARTED in event.record.text, _SOON if log_fails else 20.0, begin)
        self.made += bool(self.control.failed())
        self.control.begin()
        # The record that tells of a start that goes on without may be lost with what it tells of.
        with suppress(*([AssertionError] if failure.lasts else [])):
            poll_until(lambda: camera.service.exit_code is not None or self._goes_on_without(begin)
                       or self._takes_commands(), _SOON if failure.lasts else 20.0)
        if camera.service.exit_code == _ABORTED and self._ended_before_its_own(begin):
            assert failure.call == plan.ALLOCATION
        elif camera.service.exit_code == _ABORTED and failure.call == plan.ALLOCATION and not failure.lasts:
            assert _TLS_BEGINS in camera.service.log[-1].text
            self.without_tls += 1
        elif camera.service.exit_code is not None:
            assert camera.service.exit_code == START_FAILED, f"exit code {camera.service.exit_code}"
            reason = camera.service.stderr[said:].decode(errors="replace").strip().rpartition("\n")[2]
            assert reason and not re.match(_RECORD, reason), f"the reason is told behind the log, not: {reason}"
        elif not self._goes_on_without(begin) and self._takes_commands():
            if failure.call == plan.ALLOCATION and not self._has_tls():
                self.without_tls += 1
            else:
                self.whole(records=self._takes_records())

    def _ended_before_its_own(self, since: int) -> bool:
        texts = (event.record.text for event in self.camera.journal.events[since:] if event.matches("service", "log"))
        return bool(re.match(_BEFORE_ITS_OWN, next(texts, "")))

    def _has_tls(self) -> bool:
        begin = self._begin_download()
        self.camera.wait_for_log(END, 20.0, begin)
        return not any(re.search("SSL (Exception|connection)", text) for text in self._texts(begin))

    def _has_started(self, since: int) -> bool:
        return any(event.matches("service", "ended") or event.matches("service", "log")
                   and _STARTED in event.record.text for event in self.camera.journal.events[since:])

    def _goes_on_without(self, since: int) -> bool:
        return any(told in text for text in self._texts(since) for told in _GOES_ON_WITHOUT)

    def _takes_commands(self) -> bool:
        """Whether there is somebody to take one: it may be answered later."""
        with suppress(OSError):
            self.camera.client.send("nothing", {})
            return True
        return False

    def _takes_records(self) -> bool:
        """False when the start left the ring buffer closed, which each record tells then."""
        begin = len(self.camera.journal)
        status = self.camera.client.command("faceNotHitDown", {"a": "b"}).status
        return status == 200 or _RECORD_LOST not in self._texts(begin)

    def stopping(self, failure: Failure) -> None:
        """A stop in which this call fails is a stop all the same."""
        self._stop()
        self.camera.start_service()
        self.whole()
        self.control.begin(failure)
        self.camera.service.send_signal(signal.SIGTERM)
        code = self.camera.service.wait()
        self.made += bool(self.control.failed())
        self.control.begin()
        assert code == 0, f"exit code {code}"

    def _stop(self) -> None:
        if self.camera.service.pid and self.camera.service.exit_code is None:
            self.camera.service.send_signal(signal.SIGTERM)
            assert self.camera.service.wait() == 0

    def tour(self) -> None:
        """All commands once; some may have no reply."""
        self._try("whiteListDown", self.camera.platform.task(FACES))
        self._try("whiteListClear", {"cameraCode": "C1"})
        self._try("faceNotHitDown", {"a": "b"})

    def killed(self, failure: Failure, when: Callable[[], object]) -> None:
        """The process is killed during `when`, or a while later; the next one's tour is whole."""
        camera, begin = self.camera, len(self.camera.journal)
        self.control.begin(failure)
        # It may be gone before the last command is sent.
        with suppress(TimeoutError, OSError, AssertionError, CameraError):
            when()
            camera.wait_for(lambda event: event.matches("service", "ended"), _SOON, begin)
        was_killed = bool(self.control.failed())
        if not was_killed:  # fewer calls than in the tour that was counted
            camera.service.send_signal(signal.SIGKILL)
        self.made += was_killed
        code = camera.service.wait()
        assert code == 128 + signal.SIGKILL or not was_killed, f"exit code {code}"
        self._outcome(begin)
        self.control.begin()
        camera.start_service()
        self.whole()

    def each(self, failures: Iterable[Failure], play: Callable[[Failure], None], sample: int | None = None) -> None:
        """Plays all of them, or until so many were made, also those behind one that does harm."""
        for failure in failures:
            if self.made == sample and not ALL:
                return
            self._played = True
            try:
                play(failure)
            except Exception as error:  # whatever it is, it is the finding
                self.violations.append(f"{failure}: {type(error).__name__} {error}"[:300])
                FINDINGS.parent.mkdir(parents=True, exist_ok=True)
                with FINDINGS.open("a") as file:
                    print(self.violations[-1], *self.camera.journal.events[-80:], sep="\n  ", file=file)
                self._end()

    def expect_no_violations(self, record_property: Record, name: str) -> None:
        """Counts what was played, under a name, in the record of the run."""
        record_property(name, self.made)
        assert not self.violations, "\n".join(self.violations)
        assert self.made > 0 or not self._played or ALL  # one call more or less is made from run to run

    def _end(self) -> None:
        """Whatever state the service is in, it ends and begins anew."""
        self.control.begin()
        if self.camera.service.exit_code is None:
            self.camera.service.send_signal(signal.SIGKILL)
            self.camera.service.wait()
        self._told.clear()
        self.start()
