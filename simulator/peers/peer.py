"""What the two processes that answer MSG_DATA requests have in common."""

from __future__ import annotations

import threading
from collections import defaultdict, deque
from collections.abc import Callable
from pathlib import Path
from typing import Any, Union

from simulator.journal import Journal
from simulator.messages import wire
from simulator.messages.sockets import DatagramEndpoint

# What a peer can answer: one datagram, several, none, or whatever a function of the request makes of it.
Reply = Union[bytes, list[bytes], None]
Answer = Union[Reply, Callable[[wire.Message], Reply]]


class MessagePeer:
    """A process that listens on a unix datagram socket and answers MSG_DATA requests.

    received    every datagram that arrived, in order
    on_message  called as on_message(message, default) for each request in place of the peer's own behaviour, on the
                peer's thread; default() carries that behaviour out and returns its reply
    delay       seconds between a request and its answer

    Journal: "received" and "sent" with `message`, "send_failed" and "hook_failed" with `error`, "hooked" with `name`
    and `command` when an answer is not the peer's own.
    """

    name = ""
    address = ""

    def __init__(self, journal: Journal, folder: Path) -> None:
        self.journal = journal
        self.received: list[wire.Message] = []
        self.on_message: Callable[[wire.Message, Callable[[], Reply]], Reply] | None = None
        self.delay = 0.0
        self._folder = folder
        self._scripts: dict[int, deque[Answer]] = defaultdict(deque)
        self._endpoint: DatagramEndpoint | None = None
        self._stopping = threading.Event()

    def start(self) -> None:
        """Binds the socket; nothing happens if it is bound."""
        if self._endpoint is None:
            self._stopping.clear()
            self._endpoint = DatagramEndpoint(self.outside(self.address), self._handle)
            self._endpoint.start()

    def stop(self) -> None:
        """Removes the socket, as if the process had ended; start() brings it back."""
        if self._endpoint is not None:
            self._stopping.set()
            self._endpoint.close()
            self._endpoint = None

    def is_idle(self) -> bool:
        """Whether it is done with everything that has been sent to it."""
        return self._endpoint is None or self._endpoint.is_idle()

    def script(self, command: int, *answers: Answer) -> None:
        """Queues the answers to the next requests with this command, ahead of on_message and the own behaviour."""
        self._scripts[command].extend(answers)

    def requests(self, command: int) -> list[wire.Message]:
        """What arrived with this command so far."""
        return [message for message in list(self.received) if message.command == command]

    def send(self, data: bytes, path: str = wire.EXCHANGE_SOCKET) -> None:
        """Sends a datagram that nobody asked for. Raises OSError if nobody listens at `path`."""
        if self._endpoint is None:
            raise RuntimeError(f"{self.name} is not started")
        self.journal.add(self.name, "sent", message=wire.Message(data), path=path)
        self._endpoint.send(data, self.outside(path))

    def pause(self, seconds: float) -> None:
        """Waits on the peer's thread; the end of the peer ends it."""
        self._stopping.wait(seconds)

    def outside(self, path: str) -> Path:
        """Where a path of the camera lies on this machine."""
        return self._folder / path.lstrip("/")

    def default(self, message: wire.Message) -> Reply:
        """The peer's own behaviour: acts on a request and returns the reply."""
        raise NotImplementedError

    def _handle(self, data: bytes) -> None:
        message = wire.Message(data)
        self.received.append(message)
        self.journal.add(self.name, "received", message=message, command=message.command)
        try:
            reply = self._answer(message)
        except Exception as error:  # a mistake in a test's hook must not end the thread unseen
            self.journal.add(self.name, "hook_failed", error=repr(error), command=message.command)
            return
        if self.delay:
            self._hooked("delay", message, seconds=self.delay)
        self.pause(self.delay)
        for datagram in [reply] if isinstance(reply, bytes) else reply or []:
            try:
                self.send(datagram, message.source or wire.EXCHANGE_SOCKET)
            except OSError as error:
                self.journal.add(self.name, "send_failed", error=str(error), command=message.command)

    def _answer(self, message: wire.Message) -> Reply:
        script = self._scripts[message.command]
        if script:
            self._hooked("script", message)
            answer = script.popleft()
            return answer(message) if callable(answer) else answer
        if self.on_message is None:
            return self.default(message)
        own: list[Reply] = []

        def default() -> Reply:
            own.append(self.default(message))
            return own[-1]
        reply = self.on_message(message, default)
        if not own or reply is not own[-1]:
            self._hooked("on_message", message)
        return reply

    def _hooked(self, name: str, message: wire.Message, **details: Any) -> None:
        self.journal.add(self.name, "hooked", name=name, command=message.command, **details)


def file_event(peer: MessagePeer, path: str, content: bytes) -> dict[str, Any]:
    """Writes a file of the camera, readable by everybody, and notes it in the journal as "file"."""
    target = peer.outside(path)
    target.parent.mkdir(parents=True, exist_ok=True)
    target.write_bytes(content)
    target.chmod(0o644)
    return peer.journal.add(peer.name, "file", path=path, content=content).data
