"""The table of everything that the peers can do wrong, and how a fault is written."""

from __future__ import annotations

import difflib
from collections.abc import Callable, Sequence
from dataclasses import dataclass
from types import SimpleNamespace
from typing import Any

from simulator.errors import CameraError
from simulator.faults import effects as do
from simulator.messages.certificate import KINDS

PEERS = {"itgt": "ITGT", "faces": "the face library", "platform": "the platform", "client": "the command client",
         "events": "the event cache"}

# Where a fault takes hold. Each stage has its own form of effect; see effects.py and switches.py.
ANSWER, CONNECT, TLS, SEND, NOTIFY, STATE = "answer", "connect", "tls", "send", "notify", "state"


class FaultError(CameraError):
    """A fault that is not written as the table has it. `about` names the part at fault: "fault" or a parameter."""

    def __init__(self, text: str, about: str = "fault") -> None:
        super().__init__(text)
        self.about = about


@dataclass(frozen=True)
class Parameter:
    """`default` tells the type: a whole number, seconds (a float), or one text of `choices`."""

    name: str
    default: int | float | str
    help: str
    choices: tuple[str, ...] = ()
    at_least: int = 0

    def checked(self, value: Any) -> Any:
        """The value as the effect wants it, from text or from JSON. Raises FaultError."""
        if isinstance(self.default, str):
            if str(value) not in self.choices:
                raise FaultError(f"{self.name} is one of {', '.join(self.choices)}, not {value!r}"
                                 + suggestion(str(value), self.choices), self.name)
            return str(value)
        kind = type(self.default)
        wanted = "a whole number" if kind is int else "a number"
        try:
            if isinstance(value, bool) or (kind is int and isinstance(value, float)):
                raise ValueError
            number = kind(value)
        except (TypeError, ValueError):
            raise FaultError(f"{self.name} is {wanted}, not {value!r}", self.name) from None
        if not self.at_least <= number <= 2**32 - 1:
            raise FaultError(f"{self.name} is {wanted} from {self.at_least} to {2**32 - 1}, not {value!r}", self.name)
        return number


@dataclass(frozen=True)
class Fault:
    """One line of the table. `parameters` has the ones of the fault itself first, then those of its stage."""

    peer: str
    word: str
    help: str
    stage: str
    effect: Callable[..., Any]
    parameters: tuple[Parameter, ...] = ()

    @property
    def name(self) -> str:
        return f"{self.peer}.{self.word}"

    def values(self, given: dict[str, Any]) -> SimpleNamespace:
        """All parameters with the given values, checked. Raises FaultError."""
        known = {parameter.name: parameter for parameter in self.parameters}
        for name in given:
            if name not in known:
                there = f"it takes {', '.join(known)}" if known else "it takes none"
                raise FaultError(f"{self.name} has no parameter {name!r}; {there}" + suggestion(name, known), name)
        return SimpleNamespace(**{name: parameter.checked(given.get(name, parameter.default))
                                  for name, parameter in known.items()})


@dataclass(frozen=True)
class Order:
    """A fault with its parameters, as somebody wants it."""

    fault: Fault
    values: SimpleNamespace

    def __str__(self) -> str:
        changed = [f"{parameter.name}={getattr(self.values, parameter.name)}" for parameter in self.fault.parameters
                   if getattr(self.values, parameter.name) != parameter.default]
        return self.fault.name + ("=" + ",".join(changed) if changed else "")


def _seconds(default: float, text: str = "seconds to wait") -> Parameter:
    return Parameter("seconds", default, text)


def _times() -> Parameter:
    return Parameter("times", 0, "how often it happens; 0: until it is switched off")


def _bytes(default: int, text: str) -> Parameter:
    return Parameter("bytes", default, text)


def _messages(peer: str, codes: Sequence[int], make: Sequence[tuple[Any, ...]]) -> list[Fault]:
    """Faults in the answers to MSG_DATA requests. Each line: word, help, effect, command (0: any), parameters."""
    faults = []
    for word, text, effect, code, *own in make:
        command = Parameter("command", str(code), "the request it is about; 0: every one",
                            ("0", *map(str, codes)) if not code else (str(code),))
        faults.append(Fault(peer, word, text, ANSWER, effect, (*own, command, _times())))
    return faults


def _whatever_the_request() -> list[tuple[Any, ...]]:
    return [
        ("late", "answers after some seconds", do.late, 0, _seconds(2.0)),
        ("silent", "never answers", do.silent, 0),
        ("wrong-command", "answers with another command code", do.wrong_command, 0,
         Parameter("code", 7777, "the command code of the answer")),
        ("garbage", "answers with random bytes", do.garbage, 0, _bytes(21408, "how many")),
        ("truncated", "answers with the first bytes only", do.truncated, 0, _bytes(100, "how many")),
        ("twice", "sends every answer twice", do.twice, 0)]


def _whenever(peer: str) -> list[Fault]:
    who = PEERS[peer]
    return [Fault(peer, "absent", f"{who} does not run", STATE, do.absent),
            Fault(peer, "restarts", f"{who} ends and is there again at once", STATE, do.restarted)]


_ITGT = [
    *_messages("itgt", (7020, 7021, 7031), [
        *_whatever_the_request(),
        ("refuses", "takes no page: tells the number of no import", do.import_refused, 7020,
         Parameter("task", 0, "the number it tells")),
        ("never-ready", "says of every import that it is not done", do.progress_never, 7021),
        ("ready-after", "says that an import is not done so many times", do.progress_after, 7021,
         Parameter("polls", 3, "how many times")),
        ("bad-pictures", "finds every picture unreadable", do.bad_pictures, 7020),
        ("state-file", "leaves a state file that cannot be used", do.state_file, 7021,
         Parameter("what", "garbage", "what is wrong with it", ("garbage", "empty", "truncated", "missing")))]),
    *_whenever("itgt"),
    Fault("itgt", "no-marker", "never says that it is ready: /tmp/intelligent_ok is missing", STATE, do.no_marker)]

_FACES = [
    *_messages("faces", (7018, 7019), [
        *_whatever_the_request(),
        ("refuses", "refuses to clear its lists", do.clear_refused, 7019,
         Parameter("status", 1, "the status that it answers", at_least=1)),
        ("configuration", "hands out a configuration that cannot be used", do.configuration, 7019,
         Parameter("what", "garbage", "what is wrong with it", ("garbage", "truncated", "wrong", "missing")))]),
    *_whenever("faces")]


def _answers(*make: tuple[Any, ...]) -> list[Fault]:
    """Faults in the platform's answers. Each line: word, help, effect, parameters."""
    at = Parameter("at", "all", "which requests", ("all", "pages", "results"))
    return [Fault("platform", word, text, ANSWER, effect, (*own, at, _times())) for word, text, effect, *own in make]


_PLATFORM = [
    *_answers(
        ("late", "answers after some seconds (the service waits 5)", do.response_late, _seconds(6.0)),
        ("silent", "takes requests and never answers", do.response_silent),
        ("status", "answers with another HTTP status", do.response_status,
         Parameter("code", 503, "the status", at_least=100)),
        ("redirect", "sends to another port", do.response_redirect, Parameter("code", 302, "the status", at_least=300)),
        ("body", "answers 200 with a body that is no page", do.response_body,
         Parameter("what", "garbage", "the body", ("garbage", "empty", "other"))),
        ("garbage", "answers with random bytes in place of HTTP", do.response_garbage, _bytes(5000, "how many")),
        ("truncated", "ends the connection before the last bytes of the answer", do.response_truncated,
         Parameter("bytes", 1, "how many are missing", at_least=1)),
        ("reset", "resets the connection in the middle of the answer", do.response_reset,
         _bytes(50, "how many bytes come before")),
        ("slow", "sends the answer in pieces, with a pause after each", do.response_slow,
         _seconds(0.2, "seconds of each pause"), Parameter("pieces", 5, "how many pieces", at_least=1)),
        ("chunked", "sends the body in chunks", do.response_chunked,
         Parameter("bytes", 1000, "bytes of a chunk", at_least=1))),
    *[Fault("platform", word, text, CONNECT, effect, (*own, _times())) for word, text, effect, *own in (
        ("refuses", "resets every new connection", do.connection_refused),
        ("closes", "closes every new connection", do.connection_closed),
        ("no-handshake", "takes connections and never shakes hands", do.connection_silent),
        ("plain", "speaks HTTP without TLS", do.connection_plain),
        ("slow-handshake", "sends its part of the handshake byte by byte", do.connection_trickle,
         _seconds(0.2, "seconds between two bytes")))],
    Fault("platform", "certificate", "shows another kind of certificate", TLS, do.certificate,
          (Parameter("kind", "expired", "which", KINDS),)),
    Fault("platform", "tls", "offers one version of TLS only", TLS, do.tls,
          (Parameter("version", "1.3", "which", ("1.1", "1.2", "1.3")),))]

_CLIENT = [
    *[Fault("client", word, text, SEND, effect, (*own, _times())) for word, text, effect, *own in (
        ("late", "waits between head and body", do.client_late, _seconds(1.0)),
        ("no-body", "sends a head and no body", do.client_no_body),
        ("garbage", "sends random bytes for a body", do.client_garbage, _bytes(100, "how many")),
        ("wrong-command", "sends a command that there is not", do.client_wrong_command),
        ("truncated", "leaves the last bytes of the body out", do.client_truncated,
         Parameter("bytes", 5, "how many", at_least=1)),
        ("claims", "claims another length in the head", do.client_claims, _bytes(0, "the length")))],
    Fault("client", "no-socket", "sends commands, but /tmp/KH for the replies is missing", STATE, do.no_socket)]

_EVENTS = [
    *[Fault("events", word, text, NOTIFY, effect, (*own, _times())) for word, text, effect, *own in (
        ("late", "notifies after some seconds", do.event_late, _seconds(1.0)),
        ("silent", "publishes without notifying", do.event_silent),
        ("garbage", "notifies with random bytes", do.event_garbage, _bytes(256, "how many")),
        ("truncated", "notifies with the first bytes only", do.event_truncated, _bytes(9, "how many")),
        ("status", "notifies with a status that is no success", do.event_status,
         Parameter("code", 500, "the status")),
        ("wrong-buffer", "names a buffer that there is not", do.event_buffer, Parameter("number", 9999, "its number")),
        ("repeated", "sends every notification several times", do.event_repeated,
         Parameter("packets", 8, "how often", at_least=1)))],
    *_whenever("events")]

FAULTS: dict[str, Fault] = {fault.name: fault for fault in (*_ITGT, *_FACES, *_PLATFORM, *_CLIENT, *_EVENTS)}


def find(name: str) -> Fault:
    """The fault "PEER.WORD". Raises FaultError with a suggestion."""
    if name in FAULTS:
        return FAULTS[name]
    peer, _, word = name.partition(".")
    if peer not in PEERS:
        raise FaultError(f"there is no peer {peer!r}; there are {', '.join(PEERS)}" + suggestion(peer, PEERS)
                         + "; a fault is written PEER.FAULT, for example itgt.silent")
    words = [fault.word for fault in FAULTS.values() if fault.peer == peer]
    raise FaultError(f"{peer} has no fault {word!r}; it has {', '.join(words)}" + suggestion(word, words))


def parse(text: str) -> Order:
    """A fault as on the command line: "itgt.silent", "platform.status=503", "itgt.late=seconds=3,command=7021".

    The first value needs no name. Raises FaultError.
    """
    name, equals, rest = text.strip().partition("=")
    fault = find(name)
    given: dict[str, Any] = {}
    for number, part in enumerate(rest.split(",") if equals else []):
        key, named, value = part.partition("=")
        if not named:
            if number or not fault.parameters:
                raise FaultError(f"{part!r} in {text!r} has no name; write PARAMETER=VALUE")
            key, value = fault.parameters[0].name, part
        given[key] = value
    return Order(fault, fault.values(given))


def from_document(document: Any) -> Order:
    """A fault as in a scenario file: the same text, or an object {"fault": NAME, PARAMETER: VALUE, ...}."""
    if isinstance(document, str):
        return parse(document)
    if not isinstance(document, dict) or not isinstance(document.get("fault"), str):
        raise FaultError('a fault is a text like "itgt.silent", or an object with "fault" and its parameters')
    fault = find(document["fault"])
    return Order(fault, fault.values({name: value for name, value in document.items() if name != "fault"}))


def suggestion(word: str, known: Any) -> str:
    """"; did you mean ...?" when a known word is close, else nothing."""
    close = difflib.get_close_matches(word, list(known), 1, 0.55)
    return f"; did you mean {close[0]!r}?" if close else ""
