"""The simulated command client."""

from __future__ import annotations

import socket
import tempfile
from pathlib import Path

from simulator.journal import Journal
from simulator.peers.client import Client


def head_of_reply(tag: int) -> bytes:
    return b"/tmp/KH\0/tmp/HK\0" + bytes(224) + tag.to_bytes(4, "little") + bytes(12) + b"\x18\0\0\0" + bytes(20)


def test_head_of_a_service_that_died_is_no_part_of_the_next_reply() -> None:
    body = b'{\n  "StatusCode" : 200\n}'
    with tempfile.TemporaryDirectory(dir="/tmp") as name:
        folder = Path(name)
        (folder / "tmp").mkdir()
        client = Client(Journal(), folder)
        client.start()
        with socket.socket(socket.AF_UNIX, socket.SOCK_DGRAM) as service:
            for datagram in (head_of_reply(1), head_of_reply(2), body, head_of_reply(3), body):
                service.sendto(datagram, str(folder / "tmp/KH"))
        client.wait_reply(3)
        client.stop()
    assert [(reply.tag, reply.body) for reply in client.replies] == [(2, body), (3, body)]
