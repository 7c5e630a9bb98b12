"""A line from a camera to a platform that is as far away as one likes."""

from __future__ import annotations

import os
import socket
import subprocess
import sys
from pathlib import Path
from types import TracebackType

from benchmarks.line import packets
from simulator import Camera, CameraError
from simulator.peers.platform import Platform

NEAR, FAR = "10.99.0.1", "10.99.0.2"
_FOLDER = Path(__file__).resolve().parent
_PATIENCE = 30.0


class Line:
    """While it is open, `platform` listens at the far end of a line of the camera's network.

    A round trip on it takes `milliseconds`, a packet has up to 1500 bytes, and both ends are the system's own TCP.
    Needs /dev/net/tun, and root or networks for everybody.

    url    of the platform
    costs  of each connection; there when the line is closed
    """

    url = f"https://{FAR}:{Platform.port}"

    def __init__(self, camera: Camera, milliseconds: float) -> None:
        self.platform = Platform(camera.journal)
        self.costs: list[packets.Cost] = []
        self._camera = camera
        self._milliseconds = milliseconds
        self._helpers: list[subprocess.Popen[bytes]] = []
        self._channels: list[socket.socket] = []

    def __enter__(self) -> Line:
        near = self._end(NEAR, FAR, 0, str(self._camera.service.pid))
        far, listener = self._end(FAR, NEAR, self.platform.port)
        self.platform.start([socket.socket(fileno=listener)])
        self._relay = subprocess.Popen(
            [sys.executable, "-I", _FOLDER / "relay.py", str(near[0]), str(far), str(self._milliseconds)],
            stdin=subprocess.PIPE, stdout=subprocess.PIPE, pass_fds=[near[0], far])
        for descriptor in (near[0], far):
            os.close(descriptor)
        return self

    def __exit__(self, kind: type[BaseException] | None, error: BaseException | None,
                 trace: TracebackType | None) -> None:
        printed = self._relay.communicate(timeout=_PATIENCE)[0]
        self.costs = packets.connections(packets.parse(printed.decode()))
        self.platform.stop()
        for channel in self._channels:
            channel.close()
        for helper in self._helpers:
            helper.wait(_PATIENCE)

    def _end(self, address: str, peer: str, port: int, *pid: str) -> list[int]:
        """Descriptors of an end's device and, with a port, of its listening socket."""
        ours, theirs = socket.socketpair(socket.AF_UNIX, socket.SOCK_SEQPACKET)
        ours.settimeout(_PATIENCE)
        own_network = [] if pid else ["unshare", *([] if os.geteuid() == 0 else ["--map-root-user"]), "--net"]
        with theirs:
            self._helpers.append(subprocess.Popen(
                [*own_network, sys.executable, "-I", _FOLDER / "device.py", str(theirs.fileno()), "line", address, peer,
                 str(port), *pid], pass_fds=[theirs.fileno()]))
        self._channels.append(ours)
        descriptors = socket.recv_fds(ours, 16, 2)[1]
        if not descriptors:
            raise CameraError("no end of a line could be made: needs /dev/net/tun and a network of its own")
        return list(descriptors)
