"""The publisher of the camera's event cache: the other end of the two device nodes."""

from __future__ import annotations

import fcntl
import json
import os
import select
import socket
import struct
import termios
import threading
from collections.abc import Callable
from pathlib import Path
from typing import Any

from simulator.journal import Journal
from simulator.messages import wire
from simulator.owned_thread import OwnedThread


class EventPublisher:
    """Takes subscriptions and publishes records as buffers of the cache.

    subscriptions  every subscription record that was written, in order
    on_notify      called with each notification packet; returns the packets to send in its place

    Journal: "connected", "subscribed" with `data`, "published" with `buffer_id` and `data`, "notified" with `data`,
    "disconnected".
    """

    name = "events"

    def __init__(self, journal: Journal, socket_path: Path, cache_folder: Path) -> None:
        self.subscriptions: list[bytes] = []
        self.on_notify: Callable[[bytes], list[bytes]] | None = None
        self.cache_folder = cache_folder
        self._journal = journal
        self._path = socket_path
        self._listener: socket.socket | None = None
        self._thread: OwnedThread | None = None
        self._subscribers: list[socket.socket] = []
        self._wake = -1
        self._stopping = threading.Event()
        self._next_buffer = 1

    def start(self) -> None:
        """Makes both nodes available; nothing happens if they are."""
        if self._listener is not None:
            return
        self._stopping.clear()
        self.cache_folder.mkdir(mode=0o755, parents=True, exist_ok=True)
        self._path.unlink(missing_ok=True)
        self._listener = socket.socket(socket.AF_UNIX, socket.SOCK_SEQPACKET)
        self._listener.bind(str(self._path))
        self._path.chmod(0o666)
        self._listener.listen()
        self._wake = os.eventfd(0)
        self._thread = OwnedThread(self._serve, "event publisher")
        self._thread.start()

    def stop(self) -> None:
        """Takes both nodes away; subscribers see the end of their connection."""
        if self._listener is None or self._thread is None:
            return
        self._stopping.set()
        os.eventfd_write(self._wake, 1)
        self._thread.join()
        os.close(self._wake)
        for connection in (self._listener, *self._subscribers):
            connection.close()
        self._subscribers.clear()
        self._listener = None
        self._path.unlink(missing_ok=True)

    def publish(self, record: Any, *, old_producer: bool = False, attribute: int = 0, **notification: Any) -> int:
        """Publishes one record to every subscriber: bytes as they are, anything else as JSON text with its NUL.

        Further arguments are those of wire.encode_notification. Returns the buffer's identifier.
        """
        data = record if isinstance(record, bytes) else json.dumps(record, ensure_ascii=False).encode() + b"\0"
        return self.publish_block(wire.encode_block(data, old_producer), attribute=attribute, **notification)

    def publish_block(self, block: bytes, *, attribute: int = 0, length: int | None = None, **notification: Any) -> int:
        """Publishes a buffer with any content; the descriptor claims its length or `length`."""
        buffer_id = self._next_buffer
        self._next_buffer += 1
        path = self.cache_folder / str(buffer_id)
        path.write_bytes(block)
        path.chmod(0o644)
        self._journal.add(self.name, "published", buffer_id=buffer_id, data=block)
        self.notify(wire.encode_notification(buffer_id, len(block) if length is None else length, attribute,
                                             **notification))
        return buffer_id

    def notify(self, packet: bytes) -> None:
        """Sends one notification packet, whatever it holds, to every subscriber."""
        for one in self.on_notify(packet) if self.on_notify is not None else [packet]:
            self._journal.add(self.name, "notified", data=one)
            for subscriber in tuple(self._subscribers):
                subscriber.send(one, socket.MSG_NOSIGNAL)

    def pause(self, seconds: float) -> None:
        """Waits on the caller's thread; the end of the publisher ends it."""
        self._stopping.wait(seconds)

    def unread(self) -> bool:
        """True while notifications wait that a subscriber has not read."""
        return any(struct.unpack("i", fcntl.ioctl(subscriber, termios.TIOCOUTQ, b"\0" * 4))[0] > 0
                   for subscriber in tuple(self._subscribers))

    def _serve(self) -> None:
        assert self._listener is not None
        poll = select.poll()
        poll.register(self._wake, select.POLLIN)
        poll.register(self._listener, select.POLLIN)
        connections: dict[int, socket.socket] = {}
        while True:
            ready = [descriptor for descriptor, _ in poll.poll()]
            if self._wake in ready:
                return
            for descriptor in ready:
                if descriptor == self._listener.fileno():
                    connection, _ = self._listener.accept()
                    connections[connection.fileno()] = connection
                    self._subscribers.append(connection)
                    poll.register(connection, select.POLLIN)
                    self._journal.add(self.name, "connected")
                elif not self._receive(connections[descriptor]):
                    poll.unregister(descriptor)
                    self._subscribers.remove(connections[descriptor])
                    connections.pop(descriptor).close()
                    self._journal.add(self.name, "disconnected")

    def _receive(self, connection: socket.socket) -> bool:
        try:
            data = connection.recv(65536)
        except OSError:
            return False
        if data:
            self.subscriptions.append(data)
            self._journal.add(self.name, "subscribed", data=data)
        return bool(data)
