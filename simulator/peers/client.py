"""The command client on /tmp/KH."""

from __future__ import annotations

import json
import threading
import time
from collections.abc import Callable, Iterable
from dataclasses import dataclass
from pathlib import Path
from typing import Any

from simulator.journal import Journal
from simulator.messages import wire
from simulator.messages.http import Wait
from simulator.messages.sockets import DatagramEndpoint


@dataclass(frozen=True)
class CommandReply:
    """One reply: its two datagrams as they came, and the monotonic time at which the body was there."""

    head: bytes
    body: bytes
    time: float

    @property
    def fields(self) -> dict[str, Any]:
        return wire.decode(wire.HEAD, self.head)

    @property
    def tag(self) -> int:
        return int(self.fields.get("tag", 0))

    @property
    def status(self) -> int | None:
        """The status code; None if the body is not the expected document."""
        try:
            return int(json.loads(self.body)["StatusCode"])
        except (ValueError, KeyError, TypeError):
            return None


class Client:
    """Sends commands to /tmp/HK and collects the replies.

    replies  every reply so far, in order
    on_send  called with the datagrams of each command, head and body; returns the ones to send in their place, with
             Wait steps between them where it likes. Runs on the caller's thread.
    on_reply called with the head and each datagram of a reply, the head itself first; True keeps it from `replies`
    tags     of every head that was sent

    Journal: "sent" and "received" with `data` (one datagram), "reply" with `reply` and `tag`.
    """

    name = "client"

    def __init__(self, journal: Journal, folder: Path) -> None:
        self.replies: list[CommandReply] = []
        self.on_send: Callable[[list[bytes]], Iterable[bytes | Wait]] | None = None
        self.on_reply: Callable[[bytes, bytes], bool] | None = None
        self.tags: set[int] = set()
        self._stopping = threading.Event()
        self._journal = journal
        self._folder = folder
        self._endpoint: DatagramEndpoint | None = None
        self._head: bytes | None = None
        self._next_tag = 1000

    def start(self) -> None:
        """Binds the socket; nothing happens if it is bound."""
        if self._endpoint is None:
            self._head = None
            self._stopping.clear()
            self._endpoint = DatagramEndpoint(self._outside(wire.CLIENT_SOCKET), self._handle)
            self._endpoint.start()

    def stop(self) -> None:
        """Removes the socket, as if the process had ended."""
        self._stopping.set()
        if self._endpoint is not None:
            self._endpoint.close()
            self._endpoint = None

    def is_idle(self) -> bool:
        """Whether it has taken everything that has been sent to it."""
        return self._endpoint is None or self._endpoint.is_idle()

    def hide(self) -> None:
        """Removes the socket's file: commands still go out, and their replies find nobody."""
        self._outside(wire.CLIENT_SOCKET).unlink(missing_ok=True)

    def command(self, name: Any, info: Any, timeout: float = 10.0) -> CommandReply:
        """Sends one command and waits for its reply."""
        return self.wait_reply(self.send(name, info), timeout)

    def send(self, name: Any, info: Any, tag: int | None = None) -> int:
        """Sends one command without waiting; returns its tag."""
        return self.send_body(json.dumps({"taskName": name, "taskInfo": info}, ensure_ascii=False).encode(), tag)

    def send_body(self, body: bytes, tag: int | None = None, claimed_length: int | None = None) -> int:
        """Sends a head and `body`; the head claims the body's length or `claimed_length`. Returns the tag."""
        if tag is None:
            self._next_tag += 1
            tag = self._next_tag
        datagrams = [wire.encode_head(tag, len(body) if claimed_length is None else claimed_length), body]
        for one in self.on_send(datagrams) if self.on_send is not None else datagrams:
            if isinstance(one, Wait):
                self._stopping.wait(one.seconds)
            else:
                self.send_raw(one)
        return tag

    def send_raw(self, data: bytes) -> None:
        """Sends one datagram, whatever it holds. Raises OSError if nobody listens on /tmp/HK."""
        if self._endpoint is None:
            raise RuntimeError("the command client is not started")
        if len(data) == wire.HEAD_SIZE:
            self.tags.add(wire.decode(wire.HEAD, data)["tag"])
        self._journal.add(self.name, "sent", data=data)
        self._endpoint.send(data, self._outside(wire.COMMAND_SOCKET))

    def wait_reply(self, tag: int, timeout: float = 10.0) -> CommandReply:
        """The first reply with this tag, past ones included."""
        found: CommandReply = self._journal.wait_for(lambda event: event.matches("client", "reply", tag=tag),
                                                     timeout).reply
        return found

    def _outside(self, path: str) -> Path:
        return self._folder / path.lstrip("/")

    @staticmethod
    def _is_head(data: bytes) -> bool:
        """A service that dies between the datagrams of a reply leaves a head, and behind it comes the next one's."""
        return len(data) == wire.HEAD_SIZE and data.startswith(wire.CLIENT_SOCKET.encode())

    def _handle(self, data: bytes) -> None:
        self._journal.add(self.name, "received", data=data)
        is_head = self._head is None or self._is_head(data)
        head = data if is_head or self._head is None else self._head
        self._head = data if is_head else None
        if self.on_reply is not None and self.on_reply(head, data) or is_head:
            return
        reply = CommandReply(head, data, time.monotonic())
        self.replies.append(reply)
        self._journal.add(self.name, "reply", reply=reply, tag=reply.tag)
