"""A command client that takes its replies slowly."""

from __future__ import annotations

import select
import socket
import threading
import time

from simulator import Camera, wire

# The pause after each datagram that it takes.
PAUSE_SECONDS = 0.002
# Nothing comes for so long: nothing more will.
QUIET_SECONDS = 2.0


class SlowClient:
    """Sends commands as fast as the service's queue takes them, and meanwhile takes the replies slowly.

    heads, bodies  the datagrams of replies so far
    """

    def __init__(self, camera: Camera) -> None:
        self.heads = 0
        self.bodies = 0
        self._service = str(camera.path(wire.COMMAND_SOCKET))
        self._socket = socket.socket(socket.AF_UNIX, socket.SOCK_DGRAM)
        path = camera.path(wire.CLIENT_SOCKET)
        self._socket.bind(str(path))
        path.chmod(0o666)

    def burst(self, body: bytes, count: int) -> None:
        """Sends the command so many times; returns when no more replies come."""
        sender = threading.Thread(target=self._send, args=(body, count))
        sender.start()
        while select.select([self._socket], [], [], QUIET_SECONDS)[0] or sender.is_alive():
            data = self._socket.recv(65536)
            if len(data) == wire.HEAD_SIZE:
                self.heads += 1
            else:
                self.bodies += 1
            time.sleep(PAUSE_SECONDS)  # pause: the slowness of this client
        sender.join()
        self._socket.close()

    def _send(self, body: bytes, count: int) -> None:
        # A socket of its own: the other one's queue is what fills up.
        with socket.socket(socket.AF_UNIX, socket.SOCK_DGRAM) as sender:
            for tag in range(1, count + 1):
                sender.sendto(wire.encode_head(tag, len(body)), self._service)
                sender.sendto(body, self._service)
