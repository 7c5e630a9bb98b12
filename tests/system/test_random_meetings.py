"""Commands, delays and absences by chance: at the end every command has its reply, every page its import and report.

The seed decides everything but the machine's own speed. CAMGATE_MEETINGS is the number of seeds; scripts/soak plays 50.
"""

from __future__ import annotations

import os
import random
import threading
import time
from collections.abc import Callable
from typing import Any

import pytest

from simulator import Camera, wire
from support import expect_working, page_starts

SEEDS = range(int(os.environ.get("CAMGATE_MEETINGS", "3")))
SECONDS = 30
# Seconds that an answer takes; silence for longer than 5 gives the turn to others.
DELAYS = [0.0, 0.0, 0.0, 0.1, 0.3, 1.0, 3.0, 6.0, 9.0]
# What a peer may still owe when no more commands come: its own answers, and those of all commands in the queue.
REST_SECONDS = 120
PEERS = {"itgt": "/tmp/II", "faces": "/tmp/A"}


class Meetings:
    """Half a minute of one camera's life."""

    def __init__(self, camera: Camera, seed: int) -> None:
        self._camera = camera
        self._chance = random.Random(seed)
        self._end = time.monotonic() + SECONDS
        self._tags: dict[int, tuple[str, int]] = {}
        for peer in (camera.itgt, camera.faces):
            peer.on_message = self._delayed(peer, random.Random(self._chance.random()))

    def play(self) -> None:
        absences = threading.Thread(target=self._absences, args=(random.Random(self._chance.random()),))
        absences.start()
        while time.monotonic() < self._end:
            self._send()
            threading.Event().wait(self._chance.choice([0.0, 0.2, 1.0, 3.0]))  # pause: a client's own
        absences.join()
        self._expect_all()

    def _delayed(self, peer: Any, chance: random.Random) -> Callable[[wire.Message, Callable[[], Any]], Any]:
        def answer(_message: wire.Message, default: Callable[[], Any]) -> Any:
            reply = default()
            if time.monotonic() < self._end:
                peer.pause(chance.choice(DELAYS))
            return reply
        return answer

    def _absences(self, chance: random.Random) -> None:
        """Nobody can send to a peer that is away. What it was asked before it answers all the same."""
        while time.monotonic() < self._end:
            path = self._camera.path(PEERS[chance.choice(list(PEERS))])
            path.chmod(0)
            threading.Event().wait(chance.choice([0.3, 1.0, 3.0]))  # pause: the absence
            path.chmod(0o666)
            threading.Event().wait(chance.choice([0.0, 1.0, 5.0]))  # pause: until the next

    def _send(self) -> None:
        # The socket's queue has room for five commands, on most systems.
        self._camera.wait_until(lambda: len(self._tags) - len(self._camera.client.replies) < 4, REST_SECONDS)
        name = self._chance.choice(["whiteListDown", "whiteListDown", "whiteListClear", "faceNotHitDown"])
        faces = self._chance.choice([1, 30, 31, 65])
        self._camera.itgt.not_ready_answers = self._chance.choice([0, 0, 1, 2])
        information = self._camera.platform.task(faces) if name == "whiteListDown" else {"cameraCode": "C1"}
        self._tags[self._camera.client.send(name, information)] = (name, faces)

    def _expect_all(self) -> None:
        camera = self._camera
        statuses = {tag: camera.client.wait_reply(tag, REST_SECONDS).status for tag in self._tags}
        assert [reply.tag for reply in camera.client.replies] == list(self._tags), "one reply each, in order"
        accepted = [faces for tag, (name, faces) in self._tags.items()
                    if name == "whiteListDown" and statuses[tag] == 200]
        assert all(statuses[tag] in ((200, 409) if name == "whiteListDown" else (200,))
                   for tag, (name, _) in self._tags.items()), statuses
        starts = [start for faces in accepted for start in page_starts(faces)]
        camera.wait_until(lambda: len(camera.platform.reports) >= len(starts), REST_SECONDS)
        reports = [report.json() for report in camera.platform.reports]
        assert [report["startIndex"] for report in reports] == starts
        assert all(report["datatime"] and len(report["ImportInfo"]) == report["offset"] for report in reports)
        assert [len(camera.itgt.requests(command)) for command in (7020, 7031)] == [len(starts)] * 2
        clears = sum(name == "whiteListClear" for name, _ in self._tags.values())
        assert [face["ListName"] for face in camera.faces.applied] == ["Staff", "Visitors", "Watched"] * clears
        expect_working(camera)


@pytest.mark.seconds(60)
@pytest.mark.timeout(300)
@pytest.mark.parametrize("seed", SEEDS)
def test_nothing_is_lost_or_crossed_whoever_meets_whom(camera: Camera, seed: int) -> None:
    Meetings(camera, seed).play()
