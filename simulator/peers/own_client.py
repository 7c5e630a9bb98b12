"""Somebody's own command client: camsim stands between it and the service, and sees its commands and their replies.

To that client a folder stands for /tmp. In it lies HK, for as long as the service takes commands on its own, and there
the client makes KH. The simulated client goes on beside it: a reply is for whoever sent a command with its tag.
"""

from __future__ import annotations

import json
import socket
import threading
from collections import Counter
from pathlib import Path

from simulator.journal import Journal
from simulator.messages import wire
from simulator.messages.sockets import DatagramEndpoint
from simulator.owned_thread import OwnedThread
from simulator.peers.client import Client

_BETWEEN_LOOKS = 0.05


class OwnClient:
    """Passes commands and replies on while the block runs.

    camera  the folder in which the camera's /tmp lies
    folder  what stands for /tmp to the own client
    there   is set while HK is there

    Journal, from "client": "sent" and "received" with `data`, as of the simulated client; "own_command" with `tag` and
    `wrong` for each head, "own_body" with `wrong` for a body that does not fit, "own_reply" with `tag` and `body`,
    "own_lost" with `tag` and `error` when nobody takes the reply, "own_refused" with `error` when the service does not
    take the datagram.
    """

    def __init__(self, journal: Journal, client: Client, camera: Path) -> None:
        self.folder = camera / "client"
        self.there = threading.Event()
        self._journal = journal
        self._client = client
        self._service = camera / wire.COMMAND_SOCKET.lstrip("/")
        self._lock = threading.Lock()
        self._waiting: Counter[int] = Counter()  # commands without a reply, by tag
        self._head: bytes | None = None  # of a command whose body has not come
        self._out = socket.socket(socket.AF_UNIX, socket.SOCK_DGRAM)
        self._endpoint: DatagramEndpoint | None = None
        self._ended = threading.Event()
        self._thread = OwnedThread(self._watch, "own client")

    def __enter__(self) -> OwnClient:
        self.folder.mkdir(exist_ok=True)
        self.folder.chmod(0o777)
        self._client.on_reply = self._reply
        self._thread.start()
        return self

    def __exit__(self, *_: object) -> None:
        self._ended.set()
        self._thread.join()
        self._client.on_reply = None
        self._out.close()

    def _watch(self) -> None:
        """Has HK for as long as somebody listens on the service's: a client sees from it whether to try later."""
        while not self._ended.wait(_BETWEEN_LOOKS):
            with socket.socket(socket.AF_UNIX, socket.SOCK_DGRAM) as probe:
                listens = probe.connect_ex(str(self._service)) == 0
            if listens and self._endpoint is None:
                self._head = None
                self._endpoint = DatagramEndpoint(self.folder / self._service.name, self._take)
                self._endpoint.start()
                self.there.set()
            elif not listens:
                self._close()
        self._close()

    def _close(self) -> None:
        if self._endpoint is not None:
            self.there.clear()
            self._endpoint.close()
            self._endpoint = None

    def _take(self, data: bytes) -> None:
        """A head, or the body behind it, as the service tells them apart."""
        if self._head is None or len(data) == wire.HEAD_SIZE and data[:1] not in b"{[ \t\r\n":
            self._head = data
            tag = wire.decode(wire.HEAD, data).get("tag", 0)
            with self._lock:
                self._waiting[tag] += 1
            self._journal.add("client", "own_command", tag=tag, wrong=wrong_in_head(data))
        else:
            wrong = wrong_in_body(self._head, data)
            self._head = None
            if wrong:
                self._journal.add("client", "own_body", wrong=wrong)
        self._journal.add("client", "sent", data=data)
        try:
            self._out.sendto(data, str(self._service))
        except OSError as error:
            self._journal.add("client", "own_refused", error=error.strerror or str(error))

    def _reply(self, head: bytes, data: bytes) -> bool:
        """Whether a datagram of a reply is for the own client; it gets it then."""
        tag = wire.decode(wire.HEAD, head).get("tag", 0)
        if not self._waiting[tag] and (tag in self._client.tags or not self._waiting.total()):
            return False
        try:
            endpoint = self._endpoint  # a client may take replies from HK alone, as it does when it has connected to it
            if endpoint is not None:
                endpoint.send(data, self.folder / Path(wire.CLIENT_SOCKET).name)
        except OSError as error:
            self._journal.add("client", "own_lost", tag=tag, error=error.strerror or str(error))
        if data is not head:
            with self._lock:
                self._waiting -= Counter([tag if self._waiting[tag] else next(iter(self._waiting))])
            self._journal.add("client", "own_reply", tag=tag, body=data.decode("utf-8", "backslashreplace"))
        return True


def wrong_in_head(head: bytes) -> list[str]:
    """What the head of a command has that it should not; docs/client-engineer.md says what it should."""
    if len(head) != wire.HEAD_SIZE:
        return [f"it has {len(head)} bytes, not {wire.HEAD_SIZE}"]
    fields = wire.decode(wire.HEAD, head)
    wrong = [f"{name} is {fields[name]!r}, not {wanted!r}" for name, wanted in (
        ("destPath", wire.COMMAND_SOCKET), ("srcPath", wire.CLIENT_SOCKET))
        if fields[name] != wanted]
    length = fields["bodyLength"]
    if length == 0:
        wrong.append("bodyLength is 0")
    elif length >= 1 << 24 and (swapped := int.from_bytes(length.to_bytes(4, "little"), "big")) < 1 << 24:
        wrong.append(f"bodyLength is {length}; big-endian it would be {swapped}, and numbers are little-endian")
    known = [range(field.offset, field.end) for field in wire.HEAD if not field.name.startswith("reserved")]
    stray = [offset for offset, byte in enumerate(head) if byte and not any(offset in one for one in known)]
    if stray:
        wrong.append(f"byte {stray[0]} is {head[stray[0]]}, not 0")
    return wrong


def wrong_in_body(head: bytes, body: bytes) -> list[str]:
    """What does not fit in the body behind a head."""
    announced = wire.decode(wire.HEAD, head).get("bodyLength", len(body))
    wrong = [] if announced == len(body) else [f"it has {len(body)} bytes, and its head announced {announced}"]
    try:
        document = json.loads(body)
    except ValueError as error:
        return [*wrong, f"it is no JSON: {error}"]
    if not isinstance(document, dict) or not isinstance(document.get("taskName"), str):
        wrong.append('it is no object with a text "taskName"')
    elif not isinstance(document.get("taskInfo"), dict):
        wrong.append('it has no object "taskInfo"')
    return wrong
