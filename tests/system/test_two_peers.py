"""Two peers at once: one is slow, silent, away or restarts, and the business with each other one goes on beside it."""

from __future__ import annotations

import contextlib
import threading
from collections.abc import Callable, Iterator
from typing import Any

import pytest

from simulator import NEVER, Camera, Reset, Send, Wait, wire
from support import download, expect_working, received, start_download, wait_end

PEERS = ["itgt", "faces", "client", "platform", "events"]
STATES = ["slow", "silent", "away", "restarts"]
DOWNLOAD = ("itgt", "platform")
SLOW = 1.5
BODY = b'{"taskName":"faceNotHitDown","taskInfo":{"late":1}}'


class Business:
    """What the service has to do with each peer, begun by start_X and over when X returns."""

    def __init__(self, camera: Camera, disturbed_peer: str) -> None:
        self.camera = camera
        self._reports = 0 if disturbed_peer == "platform" else 2
        self._downloads = False
        self._tag = 0

    def start(self, peer: str) -> None:
        camera = self.camera
        if peer in DOWNLOAD and not self._downloads:
            start_download(camera, 31)
            self._downloads = True
        elif peer == "faces":
            self._tag = camera.client.send("whiteListClear", {"cameraCode": "C1"})
        elif peer == "client":
            self._tag = camera.client.send("faceNotHitDown", {"a": 1})
        elif peer == "events":
            camera.events.publish({"id": 1})

    def is_under_way(self, peer: str) -> None:
        if peer in ("itgt", "faces"):
            received(self.camera, peer, 7021 if peer == "itgt" else 7019)
        elif peer == "platform":
            self.camera.wait_for(lambda event: event.matches("platform", "request"))

    def end(self, peer: str) -> None:
        camera = self.camera
        if peer in DOWNLOAD:
            wait_end(camera, timeout=20)
            assert len(camera.platform.reports) >= self._reports
        elif peer == "faces":
            camera.wait_until(lambda: len(camera.faces.applied) == 3, 20)
        elif peer == "client":
            assert camera.client.wait_reply(self._tag, 20).status == 200
        else:
            assert len(camera.wait_until(lambda: camera.events.subscriptions)) == 1
            assert camera.service.exit_code is None


def disturb_message_peer(camera: Camera, peer: Any, state: str) -> Callable[[], None]:
    """Returns what brings the peer back; what it was asked while it was silent it answers then."""
    unanswered: list[wire.Message] = []

    def keep(message: wire.Message, _default: Callable[[], Any]) -> None:
        unanswered.append(message)

    restarts: list[threading.Thread] = []

    def back() -> None:
        for thread in restarts:
            thread.join()
        peer.on_message = None
        peer.delay = 0.0
        peer.start()
        for message in unanswered:
            reply = peer.default(message)
            if reply is not None:
                peer.send(reply)

    def restart() -> None:
        """Between two requests of a download; the face library before a clear."""
        if peer is camera.itgt:
            camera.wait_for_log("Not Ready, try ")
        peer.stop()
        peer.start()

    if state == "slow":
        peer.delay = SLOW
    elif state == "silent":
        peer.on_message = keep
    elif state == "away":
        peer.stop()
    elif peer is camera.itgt:
        restarts.append(threading.Thread(target=restart))
        restarts[0].start()
    else:
        restart()
    return back


def disturb_platform(camera: Camera, state: str) -> Callable[[], None]:
    answers: dict[str, Callable[[Any, Callable[[], Any]], Any]] = {
        "slow": lambda _request, default: [Wait(SLOW), Send(default().encode())],
        "silent": lambda _request, _default: NEVER}
    connections = iter([[Reset()]] if state == "restarts" else [])

    def back() -> None:
        camera.platform.on_request = camera.platform.on_connect = None

    if state in answers:
        camera.platform.on_request = answers[state]
    elif state == "away":
        camera.platform.on_connect = lambda _connection: [Reset()]
    else:
        camera.platform.on_connect = lambda _connection: next(connections, None)
    return back


def disturb_client(camera: Camera, state: str) -> Callable[[], None]:
    """Slow and silent between the two datagrams of a command; away and restarted before it takes a reply."""
    def complete() -> None:
        camera.client.send_raw(BODY)
        assert camera.client.wait_reply(7).status == 200

    if state in ("slow", "silent"):
        camera.client.send_raw(wire.encode_head(7, len(BODY)))
        return complete
    camera.client.send("faceNotHitDown", {"a": 1})
    camera.client.stop()
    if state == "restarts":
        camera.client.start()
    return camera.client.start


def disturb_events(camera: Camera, state: str) -> Callable[[], None]:
    camera.wait_until(lambda: camera.events.subscriptions)
    if state in ("slow", "silent"):
        camera.events.on_notify = lambda packet: [packet] if state == "slow" else []
        camera.events.publish({"id": 0})
    else:
        camera.events.stop()
        if state == "restarts":
            camera.events.start()
    return camera.events.start


@contextlib.contextmanager
def disturbed(camera: Camera, peer: str, state: str) -> Iterator[None]:
    if peer in ("itgt", "faces"):
        back = disturb_message_peer(camera, getattr(camera, peer), state)
    else:
        back = {"platform": disturb_platform, "client": disturb_client, "events": disturb_events}[peer](camera, state)
    yield
    back()


def expect_all_well(camera: Camera) -> None:
    camera.itgt.not_ready_answers = 0
    camera.faces.applied.clear()
    before = len(camera.platform.reports)
    download(camera, 31)
    assert camera.client.command("whiteListClear", {"cameraCode": "C1"}).status == 200
    assert len(camera.faces.applied) == 3
    assert len(camera.platform.reports) == before + 2
    expect_working(camera)


def seconds(disturbed_peer: str, state: str) -> int:
    return 8 if state == "slow" else 6 if state == "silent" and disturbed_peer in ("itgt", "faces", "platform") else 3


@pytest.mark.parametrize("peer, state, other", [
    pytest.param(peer, state, other, marks=pytest.mark.seconds(seconds(peer, state)))
    for peer in PEERS for state in STATES for other in PEERS if other != peer])
def test_business_with_one_goes_on_while_another_is_disturbed(camera: Camera, peer: str, state: str,
                                                              other: str) -> None:
    """What takes the disturbed peer to begin with is under way before."""
    business = Business(camera, peer)
    camera.itgt.not_ready_answers = 1
    camera.faces.delay = 0.2
    is_under_way = peer == "client" or (peer != "itgt" and other in DOWNLOAD)
    # Of two in the same download the other is served when it goes on, and commands behind a clear after it.
    is_held_up = (peer in DOWNLOAD and other in DOWNLOAD) or (peer, other) == ("faces", "client")
    if is_under_way:
        business.start(other)
        business.is_under_way("platform" if peer == "platform" else other)
    with disturbed(camera, peer, state):
        if peer != "client":
            business.start(peer)
        if not is_under_way:
            business.start(other)
        if not is_held_up:
            business.end(other)
    for late in (other, peer):
        if late != "client" or peer != "client":
            business.end(late)
    expect_all_well(camera)
