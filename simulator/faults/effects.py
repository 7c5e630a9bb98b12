"""Every fault of the peers, in terms of their own hooks: what it is called, its parameters, and what it does."""

from __future__ import annotations

import dataclasses
import random
from collections.abc import Callable
from types import SimpleNamespace
from typing import Any

from simulator.faults.fault import ANSWER, CONNECT, NOTIFY, SEND, STATE, TLS, Declarations, Parameter
from simulator.messages import wire
from simulator.messages.certificate import KINDS
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
fault = Declarations()


def _seconds(default: float, text: str = "seconds to wait") -> Parameter:
    return Parameter("seconds", default, text)


def _bytes(default: int, text: str) -> Parameter:
    return Parameter("bytes", default, text)


def _noise(size: int) -> bytes:
    """The same garbage every time."""
    return random.Random(size).randbytes(size)


def _overwritten(answer: Ask, **fields: Any) -> Reply:
    """The peer's own answer with some fields changed."""
    reply = answer()
    return wire.encode_reply(reply, same_header=True, **fields) if isinstance(reply, bytes) else reply


# Answers of ITGT and the face library: what they would say is asked for with answer().

@fault(ANSWER, "itgt,faces.late", "answers some seconds late", _seconds(2.0))
def late(peer: MessagePeer, _message: wire.Message, answer: Ask, values: Values) -> Reply:
    peer.pause(values.seconds)
    return answer()


fault(ANSWER, "itgt,faces.silent", "never answers")(
    lambda _peer, _message, _answer, _values: None)
fault(ANSWER, "itgt,faces.wrong-command", "answers with another command code",
      Parameter("code", 7777, "the command code of the answer"))(
    lambda _peer, _message, answer, values: _overwritten(answer, command=values.code))


@fault(ANSWER, "itgt,faces.garbage", "answers with random bytes", _bytes(21408, "how many"))
def garbage(_peer: MessagePeer, _message: wire.Message, answer: Ask, values: Values) -> Reply:
    answer()
    return _noise(values.bytes)


@fault(ANSWER, "itgt,faces.truncated", "answers with only the first bytes", _bytes(100, "how many"))
def truncated(_peer: MessagePeer, _message: wire.Message, answer: Ask, values: Values) -> Reply:
    reply = answer()
    return bytes(reply)[:values.bytes] if isinstance(reply, bytes) else reply


@fault(ANSWER, "itgt,faces.twice", "sends every answer twice")
def twice(_peer: MessagePeer, _message: wire.Message, answer: Ask, _values: Values) -> Reply:
    reply = answer()
    return [reply, reply] if isinstance(reply, bytes) else reply


@fault(ANSWER, "itgt.refuses", "refuses every page: names an import that does not exist",
       Parameter("task", 0, "the number of that import"), command=wire.IMPORT_FILE)
def import_refused(_peer: MessagePeer, message: wire.Message, _answer: Ask, values: Values) -> Reply:
    """No import begins, and no import has the number in the reply."""
    return wire.encode_reply(message, ImportFileTaskId=values.task)


fault(ANSWER, "itgt.never-ready", "reports every import as unfinished", command=wire.IMPORT_PROGRESS)(
    lambda _peer, _message, answer, _values: _overwritten(answer, ProgressStatus=0))


@fault(ANSWER, "itgt.ready-after", "reports an import as unfinished a number of times",
       Parameter("polls", 3, "how many times"), command=wire.IMPORT_PROGRESS)
def progress_after(peer: Itgt, message: wire.Message, answer: Ask, values: Values) -> Reply:
    reply = answer()
    page = peer.imports.get(message.request["ProgressTaskId"])
    if page is None or page.polls > values.polls or not isinstance(reply, bytes):
        return reply
    return wire.encode_reply(reply, same_header=True, ProgressStatus=0)


@fault(ANSWER, "itgt.bad-pictures", "finds every picture unreadable", command=wire.IMPORT_FILE)
def bad_pictures(_peer: MessagePeer, message: wire.Message, answer: Ask, _values: Values) -> Reply:
    """Overwrites the page file before ITGT looks into it."""
    path = _peer.outside(message.request["ImportFileDirectory"] + message.request["ImportFileName"])
    path.write_bytes(path.read_bytes().replace(b'"picture": "', b'"picture": "!'))
    return answer()


@fault(ANSWER, "itgt.state-file", "writes an unusable state file",
       Parameter("what", "garbage", "what is wrong with it", ("garbage", "empty", "truncated", "missing")),
       command=wire.IMPORT_PROGRESS)
def state_file(peer: Itgt, message: wire.Message, answer: Ask, values: Values) -> Reply:
    """Spoils the state file once the import is done."""
    reply = answer()
    page = peer.imports.get(message.request["ProgressTaskId"])
    if page is not None and page.finished:
        path = peer.outside(wire.Message(reply).reply["ProgressStatePath"])
        if values.what == "missing":
            path.unlink(missing_ok=True)
        else:
            path.write_bytes({"garbage": b"\xff{", "empty": b"", "truncated": path.read_bytes()[:-10]}[values.what])
    return reply


fault(ANSWER, "faces.refuses", "refuses to clear its lists",
      Parameter("status", 1, "the status that it answers", at_least=1), command=wire.CLEAR_LISTS)(
    lambda _peer, _message, answer, values: _overwritten(answer, ClearStatus=values.status))


@fault(ANSWER, "faces.configuration", "hands out an unusable configuration",
       Parameter("what", "garbage", "what is wrong with it", ("garbage", "truncated", "wrong", "missing")),
       command=wire.CLEAR_LISTS)
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


fault(ANSWER, "platform.late", "answers some seconds late (the service waits 5)", _seconds(6.0))(
    lambda _platform, _request, answer, values: [Wait(values.seconds), *_steps(answer())])
fault(ANSWER, "platform.silent", "accepts requests and never answers")(
    lambda _platform, _request, _answer, _values: None)


@fault(ANSWER, "platform.status", "answers with another HTTP status",
       Parameter("code", 503, "the status", at_least=100))
def response_status(_platform: Platform, _request: Request, answer: PlatformAsk, values: Values) -> Answer:
    response = answer()
    if isinstance(response, Response):
        return dataclasses.replace(response, status=values.code, reason="")
    return response


@fault(ANSWER, "platform.redirect", "redirects to another port", Parameter("code", 302, "the status", at_least=300))
def response_redirect(platform: Platform, request: Request, _answer: PlatformAsk, values: Values) -> Answer:
    target = f"https://{platform.host}:{platform.second_port}{request.target}"
    return Response(values.code, headers=[("Location", target)])


@fault(ANSWER, "platform.body", "answers 200 with a body that is not a page",
       Parameter("what", "garbage", "the body", ("garbage", "empty", "other")))
def response_body(_platform: Platform, _request: Request, answer: PlatformAsk, values: Values) -> Answer:
    response = answer()
    if not isinstance(response, Response):
        return response
    body = {"garbage": _noise(5_000), "empty": b"", "other": b'{"hello": "world"}'}[values.what]
    return dataclasses.replace(response, body=body)


fault(ANSWER, "platform.garbage", "answers with random bytes in place of HTTP", _bytes(5000, "how many"))(
    lambda _platform, _request, _answer, values: [Send(_noise(values.bytes)), Close()])
fault(ANSWER, "platform.truncated", "ends the connection before the last bytes of the answer",
      Parameter("bytes", 1, "how many are missing", at_least=1))(
    lambda _platform, _request, answer, values: [Send(_whole(answer())[:-values.bytes]), Close()])
fault(ANSWER, "platform.reset", "resets the connection in the middle of the answer",
      _bytes(50, "how many bytes come before"))(
    lambda _platform, _request, answer, values: [Send(_whole(answer())[:values.bytes]), Reset()])


@fault(ANSWER, "platform.slow", "sends the answer in pieces, with a pause after each",
       _seconds(0.2, "seconds of each pause"), Parameter("pieces", 5, "how many pieces", at_least=1))
def response_slow(_platform: Platform, _request: Request, answer: PlatformAsk, values: Values) -> Answer:
    data = _whole(answer())
    return trickle(data, -(-len(data) // max(1, values.pieces)), values.seconds)


@fault(ANSWER, "platform.chunked", "sends the body in chunks",
       Parameter("bytes", 1000, "bytes of a chunk", at_least=1))
def response_chunked(_platform: Platform, _request: Request, answer: PlatformAsk, values: Values) -> Answer:
    response = answer()
    return dataclasses.replace(response, chunk_size=values.bytes) if isinstance(response, Response) else response


def _steps(answer: Answer) -> list[Step]:
    if isinstance(answer, Response):
        return answer.steps()
    if isinstance(answer, bytes):
        return [Send(answer)]
    return list(NEVER) if answer is None or callable(answer) else list(answer)


def _whole(answer: Answer) -> bytes:
    return b"".join(step.data for step in _steps(answer) if isinstance(step, Send))


# What happens to a connection before its handshake: steps in its place, or None.

fault(CONNECT, "platform.refuses", "resets every new connection")(
    lambda _values: [Reset()])
fault(CONNECT, "platform.closes", "closes every new connection")(
    lambda _values: [Close()])
fault(CONNECT, "platform.no-handshake", "accepts connections and never starts the TLS handshake")(
    lambda _values: list(NEVER))
fault(CONNECT, "platform.plain", "speaks HTTP without TLS")(
    lambda _values: [Send(b"HTTP/1.1 200 OK\r\nContent-Length: 2\r\n\r\n{}"), Close()])
fault(CONNECT, "platform.slow-handshake", "sends its part of the handshake byte by byte",
      _seconds(0.2, "seconds between two bytes"))(
    lambda values: trickle(b"\x16\x03\x03\x40\x00" + b"\x02" * 1000, 1, values.seconds))


# What the command client sends in place of a head and a body.

Datagrams = list[Any]


fault(SEND, "client.late", "waits between head and body", _seconds(1.0))(
    lambda _client, datagrams, values: [datagrams[0], Wait(values.seconds), *datagrams[1:]])
fault(SEND, "client.no-body", "sends a head and no body")(
    lambda _client, datagrams, _values: datagrams[:1])
fault(SEND, "client.garbage", "sends random bytes as the body", _bytes(100, "how many"))(
    lambda _client, datagrams, values: [*datagrams[:-1], _noise(values.bytes)])


@fault(SEND, "client.wrong-command", "sends a command that does not exist")
def client_wrong_command(_client: Client, datagrams: Datagrams, _values: Values) -> Datagrams:
    body = b'{"taskName":"noSuchCommand","taskInfo":{}}'
    return [wire.encode(wire.HEAD, wire.HEAD_SIZE, base=datagrams[0], bodyLength=len(body)), body]


fault(SEND, "client.truncated", "leaves out the last bytes of the body",
      Parameter("bytes", 5, "how many", at_least=1))(
    lambda _client, datagrams, values: [*datagrams[:-1], datagrams[-1][:-values.bytes]])


@fault(SEND, "client.claims", "claims a different length in the head", _bytes(0, "the length"))
def client_claims(_client: Client, datagrams: Datagrams, values: Values) -> Datagrams:
    return [wire.encode(wire.HEAD, wire.HEAD_SIZE, base=datagrams[0], bodyLength=values.bytes), *datagrams[1:]]


# What the event cache's publisher sends in place of a notification.

@fault(NOTIFY, "events.late", "notifies some seconds late", _seconds(1.0))
def event_late(events: EventPublisher, packets: list[bytes], values: Values) -> list[bytes]:
    events.pause(values.seconds)
    return packets


fault(NOTIFY, "events.silent", "publishes without notifying")(
    lambda _events, _packets, _values: [])
fault(NOTIFY, "events.garbage", "notifies with random bytes", _bytes(256, "how many"))(
    lambda _events, _packets, values: [_noise(values.bytes)])
fault(NOTIFY, "events.truncated", "notifies with only the first bytes", _bytes(9, "how many"))(
    lambda _events, packets, values: [packet[:values.bytes] for packet in packets])


@fault(NOTIFY, "events.status", "notifies with an error status", Parameter("code", 500, "the status"))
def event_status(_events: EventPublisher, packets: list[bytes], values: Values) -> list[bytes]:
    return [wire.encode(wire.NOTIFICATION, len(packet), base=packet, status=values.code) for packet in packets]


@fault(NOTIFY, "events.wrong-buffer", "names a buffer that does not exist", Parameter("number", 9999, "its number"))
def event_buffer(_events: EventPublisher, packets: list[bytes], values: Values) -> list[bytes]:
    """The descriptor behind the head names a buffer that is not there."""
    return [packet[:-wire.DESCRIPTOR_SIZE] + wire.encode(wire.DESCRIPTOR, wire.DESCRIPTOR_SIZE,
                                                         base=packet[-wire.DESCRIPTOR_SIZE:], identifier=values.number)
            for packet in packets]


fault(NOTIFY, "events.repeated", "sends every notification several times",
      Parameter("packets", 8, "how often", at_least=1))(
    lambda _events, packets, values: packets * values.packets)


# Faults that are a state rather than an answer: switched on with True, off with False.

@fault(STATE, "itgt,faces,events.absent", "{} is not running")
def absent(part: Any, on: bool, _values: Values) -> None:
    if on:
        part.stop()
    else:
        part.start()


@fault(STATE, "itgt,faces,events.restarts", "{} ends and is back at once")
def restarted(part: Any, on: bool, _values: Values) -> None:
    if on:
        part.stop()
        part.start()


@fault(STATE, "itgt.no-marker", f"never becomes ready: {wire.MARKER} is missing")
def no_marker(itgt: Itgt, on: bool, _values: Values) -> None:
    marker = itgt.outside(wire.MARKER)
    if on:
        marker.unlink(missing_ok=True)
    else:
        marker.touch()


@fault(STATE, "client.no-socket", "sends commands, but /tmp/KH for the replies is missing")
def no_socket(client: Client, on: bool, _values: Values) -> None:
    if on:
        client.hide()
    else:
        client.stop()
        client.start()


# What the platform offers in a handshake: arguments of Platform.use_tls.

fault(TLS, "platform.certificate", "presents another kind of certificate",
      Parameter("kind", "expired", "which", KINDS))(
    lambda values: {"certificate": values.kind})
fault(TLS, "platform.tls", "offers only one version of TLS",
      Parameter("version", "1.3", "which", ("1.1", "1.2", "1.3")))(
    lambda values: {"minimum": values.version, "maximum": values.version})
