"""Plays a scenario on a camera of its own, and compares what came of it with what was expected."""

from __future__ import annotations

import contextlib
from collections.abc import Callable
from dataclasses import dataclass
from typing import Any

from simulator.camera import Camera
from simulator.cli.scenarios.scenario import NO_REPLY, UNDELIVERED, Scenario, Step
from simulator.cli.scenarios.settings import SETTINGS
from simulator.errors import CameraError
from simulator.faults.switches import FaultSwitches
from simulator.journal import Event
from simulator.messages.log import ends_download
from simulator.messages.wire import IMPORTED

_REPLY_SECONDS = 20.0
_EVENT_SECONDS = 10.0
_SILENCE_SECONDS = 1.0
_END_SECONDS = 60.0


@dataclass(frozen=True)
class Check:
    """One comparison. `expected` and `seen` are as JSON has them."""

    what: str
    expected: Any
    seen: Any

    @property
    def ok(self) -> bool:
        return bool(self.expected == self.seen)


class _Stopped(Exception):
    """The rest of the scenario cannot be played."""


class Player:
    """Plays one scenario on a camera that was made with start=False and is not entered yet.

    checks  every comparison so far, in order
    """

    def __init__(self, scenario: Scenario, camera: Camera) -> None:
        self.checks: list[Check] = []
        self._scenario = scenario
        self._camera = camera
        self._switches = switches_of(camera)
        self._unanswered: list[tuple[int, int]] = []  # line and tag of commands that are to have no reply

    def play(self) -> bool:
        """Enters the camera, plays everything and leaves it; returns whether all was as expected."""
        for name, value in self._scenario.settings.items():
            SETTINGS[name].apply(self._camera, value)
        with self._camera:
            try:
                self._start()
                for step in self._scenario.steps:
                    self._steps[step.do](self, step)
            except _Stopped:
                pass
            self._stop()
            self._compare()
        return all(check.ok for check in self.checks)

    def _check(self, what: str, expected: Any, seen: Any) -> None:
        self.checks.append(Check(what, expected, seen))
        if expected != seen:
            raise _Stopped

    def _start(self) -> None:
        for order in self._scenario.faults:
            self._switches.on(order)
        ready = "itgt.no-marker" not in [order.fault.name for order in self._scenario.faults]
        try:
            self._camera.start_service(wait=ready)
        except CameraError as error:
            if "exit_code" not in self._scenario.expect or self._camera.service.exit_code is None:
                raise
            self._check("the service's end while it starts", self._scenario.expect["exit_code"],
                        self._camera.service.exit_code)
            raise _Stopped from error
        if ready and "exit_code" in self._scenario.expect and self._scenario.expect["exit_code"] != 0:
            self._check("the service's end while it starts", self._scenario.expect["exit_code"], None)

    def _send(self, step: Step) -> None:
        name = step.values["send"]
        expected = step.values.get("status", 200)
        begin = len(self._camera.journal)
        what = f"line {step.line}: status of {name}"
        try:
            tag = self._camera.client.send(name, self._information(step))
        except OSError:
            self._check(what, expected, UNDELIVERED)
            return
        if expected == NO_REPLY:
            self._unanswered.append((step.line, tag))
            return
        try:
            seen: Any = self._camera.client.wait_reply(tag, step.values.get("seconds", _REPLY_SECONDS)).status
        except TimeoutError:
            seen = NO_REPLY
        self._check(what, expected, seen)
        if name == "whiteListDown" and expected == 200 and step.values.get("wait", True):
            self._wait_log(f"line {step.line}: end of the download", begin, step.values.get("seconds", _END_SECONDS),
                           ends_download)

    def _information(self, step: Step) -> dict[str, Any]:
        information = step.values.get("info", {})
        if step.values["send"] == "whiteListDown":
            return self._camera.platform.task(step.values.get("faces"), **information)
        return information or {"cameraCode": "C1"}

    def _wait_log(self, what: str, begin: int, seconds: float, wanted: Callable[[str], bool]) -> None:
        self._wait(what, begin, seconds, lambda event: event.matches("service", "log") and wanted(event.record.text))

    def _wait(self, what: str, begin: int, seconds: float, wanted: Callable[[Event], bool]) -> None:
        try:
            event = self._camera.wait_for(lambda event: event.matches("service", "ended") or wanted(event), seconds,
                                          begin)
        except TimeoutError:
            self._check(what, "seen", f"not seen in {seconds:g} s")
            return
        self._check(what, "seen", "seen" if wanted(event) else f"the service ended, code {event.exit_code}")

    def _raw(self, step: Step) -> None:
        self._camera.client.send_raw(bytes.fromhex(step.values["raw"]))

    def _publish(self, step: Step) -> None:
        self._camera.wait_until(lambda: self._camera.events.subscriptions)
        self._camera.events.publish(step.values["publish"])

    def _on(self, step: Step) -> None:
        self._switches.on(step.values["on"])

    def _off(self, step: Step) -> None:
        self._switches.off(step.values["off"])

    def _log(self, step: Step) -> None:
        self._wait_log(f"line {step.line}: the log has {step.values['log']!r}", 0,
                       step.values.get("seconds", _EVENT_SECONDS), lambda text: step.values["log"] in text)

    def _took_hold(self, step: Step) -> None:
        name = step.values["took_hold"].name
        self._wait(f"line {step.line}: {name} takes hold", 0, step.values.get("seconds", _EVENT_SECONDS),
                   lambda event: event.matches(None, "fault", name=name))

    def _end(self, _step: Step) -> None:
        self._stop()

    def _stop(self) -> None:
        """Ends the service; before it, replies that are not to come have a while in which they could, and behind it,
        its peers have one to take what it sent them."""
        tags = {tag for _, tag in self._unanswered}
        with contextlib.suppress(TimeoutError):
            if tags and self._camera.service.exit_code is None:
                self._camera.wait_for(lambda event: event.matches("client", "reply") and event.tag in tags,
                                      _SILENCE_SECONDS)
        self._camera.service.stop()
        peers = self._camera.itgt, self._camera.faces, self._camera.client
        with contextlib.suppress(TimeoutError):
            self._camera.wait_until(lambda: all(peer.is_idle() for peer in peers), _SILENCE_SECONDS)

    _steps: dict[str, Callable[[Player, Step], None]] = {
        "send": _send, "raw": _raw, "publish": _publish, "on": _on, "off": _off,
        "took_hold": _took_hold, "log": _log, "end": _end}

    def _compare(self) -> None:
        """What is looked at when the service has ended; here every difference is told, not only the first."""
        camera, expect = self._camera, self._scenario.expect
        tags = [reply.tag for reply in camera.client.replies]
        for line, tag in self._unanswered:
            self.checks.append(Check(f"line {line}: reply", NO_REPLY, "one came" if tag in tags else NO_REPLY))
        for name, count in _COUNTS.items():
            if name in expect:
                self.checks.append(Check(name, expect[name], count(camera)))
        lines = [record.text for record in camera.service.log]
        for text in expect.get("log", []):
            self.checks.append(Check(f"log with {text!r}", True, any(text in line for line in lines)))
        for text in expect.get("no_log", []):
            self.checks.append(Check(f"log with {text!r}", False, any(text in line for line in lines)))
        self.checks.append(Check("exit code of the service", expect.get("exit_code", 0), camera.service.exit_code))
        for name in self._ordered():
            self.checks.append(Check(f"{name} took hold", True, bool(camera.journal.find(kind="fault", name=name))))

    def _ordered(self) -> list[str]:
        switched = [step.values["on"] for step in self._scenario.steps if step.do == "on"]
        return list(dict.fromkeys(order.fault.name for order in [*self._scenario.faults, *switched]))


_COUNTS: dict[str, Callable[[Camera], int]] = {
    "reports": lambda camera: len(camera.platform.reports),
    "page_requests": lambda camera: sum(request.target == camera.platform.task_path
                                        for request in camera.platform.requests),
    "imported": lambda camera: len(camera.journal.find("itgt", "picture", result=IMPORTED)),
    "lists": lambda camera: len(camera.faces.applied)}


def switches_of(camera: Camera) -> FaultSwitches:
    """The switches for the faults of all peers that a camera plays itself."""
    parts: dict[str, Any] = {"itgt": camera.itgt, "faces": camera.faces, "client": camera.client,
                             "events": camera.events}
    if hasattr(camera.platform, "on_request"):
        parts["platform"] = camera.platform
    return FaultSwitches(camera.journal, parts)
