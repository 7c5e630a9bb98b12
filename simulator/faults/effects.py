"""What each fault does, in terms of the peers' own hooks. The table of faults is in table.py."""

from __future__ import annotations

import dataclasses
import random
import threading
from collections.abc import Callable
from types import SimpleNamespace
from typing import Any

from simulator.messages import wire
from simulator.messages.http import NEVER, Close, Request, Reset, Response, Send, Step, Wait, trickle
from simulator.peers.client import Client
from simulator.peers.events import EventPublisher
from simulator.peers.face_library import FaceLibrary
from simulator.peers.itgt import Itgt
from simulator.peers.peer import MessagePeer, Reply
from simulator.peers.platform import Answer, Platform

# The parameters of a switched fault, by name.
Values = SimpleNamespace
Ask = Callable[[], Reply]


def _noise(size: int) -> bytes:
    """The same garbage every time."""
    return random.Random(size).randbytes(size)


# Answers of ITGT and the face library: what they would say is asked for with answer().

def late(peer: MessagePeer, _message: wire.Message, answer: Ask, values: Values) -> Reply:
    peer.pause(values.seconds)
    return answer()


def silent(_peer: MessagePeer, _message: wire.Message, _answer: Ask, _values: Values) -> Reply:
    return None


def wrong_command(_peer: MessagePeer, _message: wire.Message, answer: Ask, values: Values) -> Reply:
    reply = answer()
    return wire.encode_reply(reply, same_header=True, command=values.code) if isinstance(reply, bytes) else reply


def garbage(_peer: MessagePeer, _message: wire.Message, answer: Ask, values: Values) -> Reply:
    answer()
    return _noise(values.bytes)


def truncated(_peer: MessagePeer, _message: wire.Message, answer: Ask, values: Values) -> Reply:
    reply = answer()
    return bytes(reply)[:values.bytes] if isinstance(reply, bytes) else reply


def twice(_peer: MessagePeer, _message: wire.Message, answer: Ask, _values: Values) -> Reply:
    reply = answer()
    return [reply, reply] if isinstance(reply, bytes) else reply


def progress_never(_peer: MessagePeer, _message: wire.Message, answer: Ask, _values: Values) -> Reply:
    reply = answer()
    return wire.encode_reply(reply, same_header=True, status=0) if isinstance(reply, bytes) else reply


def progress_after(peer: Itgt, message: wire.Message, answer: Ask, values: Values) -> Reply:
    reply = answer()
    page = peer.imports.get(message.request["import_task_id"])
    if page is None or page.polls > values.polls or not isinstance(reply, bytes):
        return reply
    return wire.encode_reply(reply, same_header=True, status=0)


def import_refused(_peer: MessagePeer, message: wire.Message, _answer: Ask, values: Values) -> Reply:
    """No import begins, and the number that is told belongs to none."""
    return wire.encode_reply(message, import_task_id=values.task)


def bad_pictures(_peer: MessagePeer, message: wire.Message, answer: Ask, _values: Values) -> Reply:
    """Overwrites the page file before ITGT looks into it."""
    path = _peer.outside(message.request["directory"] + message.request["file_name"])
    path.write_bytes(path.read_bytes().replace(b'"picture": "', b'"picture": "!'))
    return answer()


def state_file(peer: Itgt, message: wire.Message, answer: Ask, values: Values) -> Reply:
    """Spoils the state file once the import is done."""
    reply = answer()
    page = peer.imports.get(message.request["import_task_id"])
    if page is not None and page.finished:
        path = peer.outside(wire.Message(reply).reply["state_file"])
        if values.what == "missing":
            path.unlink(missing_ok=True)
        else:
            path.write_bytes({"garbage": b"\xff{", "empty": b"", "truncated": path.read_bytes()[:-10]}[values.what])
    return reply


def clear_refused(_peer: MessagePeer, _message: wire.Message, answer: Ask, values: Values) -> Reply:
    reply = answer()
    return wire.encode_reply(reply, same_header=True, status=values.status) if isinstance(reply, bytes) else reply


def configuration(peer: FaceLibrary, _message: wire.Message, answer: Ask, values: Values) -> Reply:
    """Spoils the configuration file before the service is told of it."""
    reply = answer()
    path = peer.outside(peer.configuration_path)
    if values.what == "missing":
        path.unlink(missing_ok=True)
    else:
        path.write_bytes({"garbage": b"\xff{", "truncated": path.read_bytes()[:-10],
                          "wrong": b'{"FaceListsArry":[{"ID":1}]}'}[values.what])
    return reply


# Answers of the platform.

PlatformAsk = Callable[[], Answer]


def response_late(_platform: Platform, _request: Request, answer: PlatformAsk, values: Values) -> Answer:
    return [Wait(values.seconds), *_steps(answer())]


def response_silent(_platform: Platform, _request: Request, _answer: PlatformAsk, _values: Values) -> Answer:
    return None


def response_status(_platform: Platform, _request: Request, answer: PlatformAsk, values: Values) -> Answer:
    response = answer()
    if isinstance(response, Response):
        return dataclasses.replace(response, status=values.code, reason="")
    return response


def response_redirect(platform: Platform, request: Request, _answer: PlatformAsk, values: Values) -> Answer:
    target = f"https://127.0.0.1:{platform.second_port}{request.target}"
    return Response(values.code, headers=[("Location", target)])


def response_body(_platform: Platform, _request: Request, answer: PlatformAsk, values: Values) -> Answer:
    response = answer()
    if not isinstance(response, Response):
        return response
    body = {"garbage": _noise(5_000), "empty": b"", "other": b'{"hello": "world"}'}[values.what]
    return dataclasses.replace(response, body=body)


def response_garbage(_platform: Platform, _request: Request, _answer: PlatformAsk, values: Values) -> Answer:
    return [Send(_noise(values.bytes)), Close()]


def response_truncated(_platform: Platform, _request: Request, answer: PlatformAsk, values: Values) -> Answer:
    return [Send(_bytes(answer())[:-values.bytes]), Close()]


def response_reset(_platform: Platform, _request: Request, answer: PlatformAsk, values: Values) -> Answer:
    return [Send(_bytes(answer())[:values.bytes]), Reset()]


def response_slow(_platform: Platform, _request: Request, answer: PlatformAsk, values: Values) -> Answer:
    data = _bytes(answer())
    return trickle(data, -(-len(data) // max(1, values.pieces)), values.seconds)


def response_chunked(_platform: Platform, _request: Request, answer: PlatformAsk, values: Values) -> Answer:
    response = answer()
    return dataclasses.replace(response, chunk_size=values.bytes) if isinstance(response, Response) else response


def _steps(answer: Answer) -> list[Step]:
    if isinstance(answer, Response):
        return answer.steps()
    if isinstance(answer, bytes):
        return [Send(answer)]
    return list(NEVER) if answer is None or callable(answer) else list(answer)


def _bytes(answer: Answer) -> bytes:
    return b"".join(step.data for step in _steps(answer) if isinstance(step, Send))


# What happens to a connection before its handshake: steps in its place, or None.

def connection_refused(_values: Values) -> list[Step]:
    return [Reset()]


def connection_closed(_values: Values) -> list[Step]:
    return [Close()]


def connection_silent(_values: Values) -> list[Step]:
    return list(NEVER)


def connection_plain(_values: Values) -> list[Step]:
    return [Send(b"HTTP/1.1 200 OK\r\nContent-Length: 2\r\n\r\n{}"), Close()]


def connection_trickle(values: Values) -> list[Step]:
    return trickle(b"\x16\x03\x03\x40\x00" + b"\x02" * 1000, 1, values.seconds)


# What the command client sends in place of a head and a body.

Datagrams = list[Any]


def client_late(_client: Client, datagrams: Datagrams, values: Values) -> Datagrams:
    return [datagrams[0], Wait(values.seconds), *datagrams[1:]]


def client_no_body(_client: Client, datagrams: Datagrams, _values: Values) -> Datagrams:
    return datagrams[:1]


def client_garbage(_client: Client, datagrams: Datagrams, values: Values) -> Datagrams:
    return [*datagrams[:-1], _noise(values.bytes)]


def client_wrong_command(_client: Client, datagrams: Datagrams, _values: Values) -> Datagrams:
    body = b'{"taskName":"noSuchCommand","taskInfo":{}}'
    return [wire.encode(wire.HEAD, wire.HEAD_SIZE, base=datagrams[0], body_length=len(body)), body]


def client_truncated(_client: Client, datagrams: Datagrams, values: Values) -> Datagrams:
    return [*datagrams[:-1], datagrams[-1][:-values.bytes]]


def client_claims(_client: Client, datagrams: Datagrams, values: Values) -> Datagrams:
    return [wire.encode(wire.HEAD, wire.HEAD_SIZE, base=datagrams[0], body_length=values.bytes), *datagrams[1:]]


# What the event cache's publisher sends in place of a notification.

def event_late(_events: EventPublisher, packets: list[bytes], values: Values) -> list[bytes]:
    threading.Event().wait(values.seconds)
    return packets


def event_silent(_events: EventPublisher, _packets: list[bytes], _values: Values) -> list[bytes]:
    return []


def event_garbage(_events: EventPublisher, _packets: list[bytes], values: Values) -> list[bytes]:
    return [_noise(values.bytes)]


def event_truncated(_events: EventPublisher, packets: list[bytes], values: Values) -> list[bytes]:
    return [packet[:values.bytes] for packet in packets]


def event_status(_events: EventPublisher, packets: list[bytes], values: Values) -> list[bytes]:
    return [wire.encode(wire.NOTIFICATION, len(packet), base=packet, status=values.code) for packet in packets]


def event_buffer(_events: EventPublisher, packets: list[bytes], values: Values) -> list[bytes]:
    """The descriptor behind the head names a buffer that is not there."""
    return [packet[:-wire.DESCRIPTOR_SIZE] + wire.encode(wire.DESCRIPTOR, wire.DESCRIPTOR_SIZE,
                                                         base=packet[-wire.DESCRIPTOR_SIZE:], buffer_id=values.number)
            for packet in packets]


def event_repeated(_events: EventPublisher, packets: list[bytes], values: Values) -> list[bytes]:
    return packets * values.packets


# Faults that are a state rather than an answer: switched on with True, off with False.

def absent(part: Any, on: bool, _values: Values) -> None:
    if on:
        part.stop()
    else:
        part.start()


def no_marker(itgt: Itgt, on: bool, _values: Values) -> None:
    marker = itgt.outside("/tmp/intelligent_ok")
    if on:
        marker.unlink(missing_ok=True)
    else:
        marker.touch()


def no_socket(client: Client, on: bool, _values: Values) -> None:
    if on:
        client.hide()
    else:
        client.stop()
        client.start()


def restarted(part: Any, on: bool, _values: Values) -> None:
    if on:
        part.stop()
        part.start()


# What the platform offers in a handshake: arguments of Platform.use_tls.

def certificate(values: Values) -> dict[str, str]:
    return {"certificate": values.kind}


def tls(values: Values) -> dict[str, str]:
    return {"minimum": values.version, "maximum": values.version}
