"""The table of everything that the peers can do wrong, and how a fault is written."""

from __future__ import annotations

from typing import Any

from simulator.faults import effects
from simulator.faults.fault import PEERS, Fault, FaultError, Order, suggestion

FAULTS: dict[str, Fault] = {fault.name: fault for peer in PEERS for fault in effects.fault.faults
                            if fault.peer == peer}


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
