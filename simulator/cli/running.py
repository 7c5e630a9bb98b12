"""What a running camera does when another camsim asks it to: the handlers of its control socket."""

from __future__ import annotations

import contextlib
import json
import os
import time
from typing import Any

from simulator import faults
from simulator.camera import Camera
from simulator.cli.command_line import BUSY, DONE, INCOMPLETE, NO_REPLY, REFUSED
from simulator.cli.control import Handlers
from simulator.cli.outcome import described as outcome_in_words
from simulator.cli.outcome import download_state, outcome, unreachable
from simulator.errors import CameraError
from simulator.faults.switches import FaultSwitches
from simulator.journal import Event

# The service gives a platform 5 s for each step and asks ITGT anew each second, but waits for ITGT's reply without end.
STILL_SECONDS = 30.0


class RunningCamera:
    """Answers for a camera that `camsim up` brought up, or is about to: is_up."""

    def __init__(self, name: str, camera: Camera, switches: FaultSwitches) -> None:
        self.is_up = False
        self._name = name
        self._camera = camera
        self._switches = switches

    def handlers(self) -> Handlers:
        return {"status": lambda _request: self.status(), "send": self._send, "raw": self._raw,
                **fault_handlers(self._switches)}

    def status(self) -> dict[str, Any]:
        task = self._camera.platform.task()
        folder = self._camera.sandbox.folder
        service = self._camera.service
        return {"name": self._name, "version": service.version, "process": os.getpid(), "service": service.pid,
                "folder": str(folder), "client_folder": str(folder / "client"), "url": task["taskURL"],
                "download": download_state(self._camera.journal.events), **_faults(self._switches)}

    def _send(self, request: dict[str, Any]) -> dict[str, Any]:
        camera, name = self._camera, request["command"]
        information = request["info"]
        if name == "whiteListDown":
            information = camera.platform.task(request["faces"], **information)
        elif name == "whiteListClear":
            information = {"cameraCode": "C1", **information}
        since, begin = len(camera.journal), time.monotonic()
        result: dict[str, Any] = {"command": name, "status": None}
        try:
            result["tag"] = camera.client.send(name, information, request["tag"])
        except (OSError, RuntimeError) as error:
            return {**result, "text": f"nobody accepts the command: {error}", "code": NO_REPLY}
        reply = self._reply(since, request["seconds"], result["tag"])
        if reply is None:
            return {**result, "text": f"no reply within {request['seconds']:g} s", "code": NO_REPLY}
        result.update(_outcome(reply.status), seconds=round(time.monotonic() - begin, 3))
        if request["wait"] and name == "whiteListDown" and reply.status == 200:
            result.update(self._download(since))
        return result

    def _raw(self, request: dict[str, Any]) -> dict[str, Any]:
        since, begin = len(self._camera.journal), time.monotonic()
        try:
            for data in request["datagrams"]:
                self._camera.client.send_raw(bytes.fromhex(data))
        except (OSError, RuntimeError) as error:
            return {"status": None, "text": f"nobody accepts the datagram: {error}", "code": NO_REPLY}
        reply = self._reply(since, request["seconds"], None)
        if reply is None:
            return {"status": None, "text": f"no reply within {request['seconds']:g} s", "code": NO_REPLY}
        return {**_outcome(reply.status), "tag": reply.tag, "body": reply.body.decode("utf-8", "backslashreplace"),
                "seconds": round(time.monotonic() - begin, 3)}

    def _reply(self, since: int, seconds: float, tag: int | None) -> Any:
        def replied(event: Event) -> bool:
            return event.matches("client", "reply") and tag in (None, event.tag)
        try:
            return self._camera.wait_for(replied, seconds, since).reply
        except TimeoutError:
            return None

    def _download(self, since: int) -> dict[str, Any]:
        """Waits for the end of the download and looks at what became of it."""
        begin = time.monotonic()
        end = self._end_of_download(since)
        download = {**outcome(self._camera.journal.events[since:], end), "seconds": round(time.monotonic() - begin, 3)}
        if download["complete"]:
            return {"download": download}
        download["why"] += unreachable(self._camera.journal.events)
        return {"download": download, "code": INCOMPLETE if end else NO_REPLY}

    def _end_of_download(self, since: int) -> Event | None:
        """What ends it; None when nothing at all has happened for so long that nothing more is to be expected."""
        while (left := self._camera.journal.events[-1].time + STILL_SECONDS - time.monotonic()) > 0:
            with contextlib.suppress(TimeoutError):
                return self._camera.wait_download(left, since)
        return None


def _outcome(status: int | None) -> dict[str, Any]:
    known = {200: (DONE, "taken"), 400: (REFUSED, "refused: not a command, or an argument is missing or wrong"),
             409: (BUSY, "refused: a download runs already")}
    code, text = known.get(status or 0, (REFUSED, "an unexpected status"))
    return {"status": status, "text": text, "code": code}


def _faults(switches: FaultSwitches) -> dict[str, Any]:
    return {"faults": [str(order) for order in switches.active], "spent": [str(order) for order in switches.spent]}


def platform_handlers(name: str, url: str, switches: FaultSwitches) -> Handlers:
    """What the platform alone can be asked; `url` is where its pages are."""
    return {"status": lambda _request: {"name": name, "process": os.getpid(), "url": url, **_faults(switches)},
            **fault_handlers(switches)}


def fault_handlers(switches: FaultSwitches) -> Handlers:
    """What `camsim fault` asks for."""
    def listed() -> dict[str, Any]:
        return {"active": [str(order) for order in switches.active]}

    def on(request: dict[str, Any]) -> dict[str, Any]:
        switches.on(faults.parse(request["fault"]))
        return listed()

    def off(request: dict[str, Any]) -> dict[str, Any]:
        active = {order.fault.name for order in switches.active}
        names = sorted(active) if request["fault"] == "all" else [faults.find(request["fault"]).name]
        if not set(names) <= active:
            raise CameraError(f"{names[0]} is not switched on")
        for name in names:
            switches.off(faults.FAULTS[name])
        return listed()

    return {"faults": lambda _request: listed(), "fault_on": on, "fault_off": off}


def described(document: dict[str, Any]) -> str:
    """An answer to "send" or "raw" as one line for people."""
    status = f"status {document['status']}" if document["status"] is not None else "no status"
    text = f"{status}: {document['text']}"
    if "seconds" in document:
        text += f" (after {document['seconds']:g} s)"
    if "download" in document:
        text += "\n" + outcome_in_words(document["download"])
    return text


def information(text: str) -> dict[str, Any]:
    """The "taskInfo" that a user wrote. Raises ValueError."""
    value = json.loads(text)
    if not isinstance(value, dict):
        raise ValueError("it is not an object: {...}")
    return value
