"""Switches faults on and off while the peers run."""

from __future__ import annotations

import threading
from collections.abc import Callable, Iterable, Mapping
from typing import Any

from simulator.errors import CameraError
from simulator.faults.fault import ANSWER, CONNECT, NOTIFY, PEERS, SEND, STATE, TLS, Fault, Order
from simulator.faults.table import FAULTS
from simulator.journal import Journal
from simulator.messages.http import Request, Step
from simulator.messages.https_server import Connection
from simulator.peers.peer import MessagePeer
from simulator.peers.platform import Answer, Platform


class FaultSwitches:
    """Owns the hooks of the peers it is given; nobody else may set them.

    parts  the peers by their names in PEERS; a fault of another peer is refused

    Journal: "fault_on" and "fault_off" with `name` and `text`, and "fault" with `name` whenever one takes hold; the
    source is the peer. All methods may be called from any thread.
    """

    def __init__(self, journal: Journal, parts: Mapping[str, Any]) -> None:
        self._journal = journal
        self._parts = dict(parts)
        self._lock = threading.RLock()
        self._active: dict[str, Order] = {}
        self._left: dict[str, int] = {}
        for peer in ("itgt", "faces"):
            if peer in self._parts:
                self._parts[peer].on_message = self._message_hook(self._parts[peer])
        if "platform" in self._parts:
            self._parts["platform"].on_request = self._request
            self._parts["platform"].on_connect = self._connect
        if "client" in self._parts:
            self._parts["client"].on_send = self._send
        if "events" in self._parts:
            self._parts["events"].on_notify = self._notify

    @property
    def active(self) -> list[Order]:
        """What is switched on, in the order in which it was."""
        with self._lock:
            return list(self._active.values())

    @property
    def spent(self) -> list[Order]:
        """Of those, the ones that take hold no more: they did as many times as they were to."""
        with self._lock:
            return [order for name, order in self._active.items() if self._left[name] < 0]

    def on(self, order: Order) -> None:
        """Switches a fault on; if it is on already, with the new parameters. Raises CameraError."""
        fault = order.fault
        if fault.peer not in self._parts:
            raise CameraError(f"{fault.name} cannot be switched: {PEERS[fault.peer]} is not played here")
        with self._lock:
            self._active[fault.name] = order
            self._left[fault.name] = getattr(order.values, "times", 0)
        self._journal.add(fault.peer, "fault_on", name=fault.name, text=str(order))
        self._apply_state(order, True)

    def off(self, fault: Fault) -> None:
        """Switches a fault off; nothing happens if it is not on."""
        with self._lock:
            order = self._active.pop(fault.name, None)
        if order is not None:
            self._journal.add(fault.peer, "fault_off", name=fault.name, text=str(order))
            self._apply_state(order, False)

    def _apply_state(self, order: Order, on: bool) -> None:
        fault = order.fault
        if fault.stage == STATE:
            if on:
                self._journal.add(fault.peer, "fault", name=fault.name)
            fault.effect(self._parts[fault.peer], on, order.values)
        elif fault.stage == TLS:
            offer: dict[str, str] = {}
            for one in self._of(fault.peer, TLS):
                offer.update(one.fault.effect(one.values))
            self._parts["platform"].use_tls(**offer)

    def _of(self, peer: str, stage: str) -> list[Order]:
        return [order for order in self.active if (order.fault.peer, order.fault.stage) == (peer, stage)]

    def _happening(self, peer: str, stage: str, concerned: Callable[[Any], bool] = lambda values: True) -> list[Order]:
        """The active faults that take hold now; each counts as once more."""
        chosen = []
        with self._lock:
            for order in self._of(peer, stage):
                name = order.fault.name
                if concerned(order.values) and self._left[name] >= 0:
                    chosen.append(order)
                    if self._left[name]:
                        self._left[name] = self._left[name] - 1 or -1
        for order in chosen:
            self._journal.add(peer, "fault", name=order.fault.name)
        return chosen

    def _message_hook(self, peer: MessagePeer) -> Callable[[Any, Callable[[], Any]], Any]:
        def hook(message: Any, default: Callable[[], Any]) -> Any:
            if message.command not in _CODES[peer.name]:
                return default()
            return _chain(self._happening(peer.name, ANSWER,
                                          lambda values: values.command in ("0", str(message.command))),
                          peer, message, default)()
        return hook

    def _request(self, request: Request, default: Callable[[], Any]) -> Answer:
        platform: Platform = self._parts["platform"]
        places = ("all", "results" if request.target == platform.result_path else "pages")
        orders = self._happening("platform", ANSWER, lambda values: values.at in places)
        if not orders:
            return default()
        answer: Answer = _chain(orders, platform, request, lambda: platform.changeable(default()))()
        return answer

    def _connect(self, _connection: Connection) -> Iterable[Step] | None:
        if self._of("platform", TLS):
            for order in self._of("platform", TLS):
                self._journal.add("platform", "fault", name=order.fault.name)
        orders = self._happening("platform", CONNECT)
        steps: Iterable[Step] | None = orders[0].fault.effect(orders[0].values) if orders else None
        return steps

    def _send(self, datagrams: list[bytes]) -> list[Any]:
        for order in self._happening("client", SEND):
            datagrams = order.fault.effect(self._parts["client"], datagrams, order.values)
        return datagrams

    def _notify(self, packet: bytes) -> list[bytes]:
        packets = [packet]
        for order in self._happening("events", NOTIFY):
            packets = order.fault.effect(self._parts["events"], packets, order.values)
        return packets


_CODES = {peer: {int(choice) for fault in FAULTS.values() if fault.peer == peer
                 for parameter in fault.parameters if parameter.name == "command" for choice in parameter.choices}
          for peer in ("itgt", "faces")}


def _chain(orders: list[Order], peer: Any, asked: Any, answer: Callable[[], Any]) -> Callable[[], Any]:
    """The peer's own answer, as the faults leave it, the first switched on first."""
    for order in orders:
        answer = _link(order, peer, asked, answer)
    return answer


def _link(order: Order, peer: Any, asked: Any, answer: Callable[[], Any]) -> Callable[[], Any]:
    return lambda: order.fault.effect(peer, asked, answer, order.values)
