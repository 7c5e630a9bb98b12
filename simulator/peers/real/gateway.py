"""Somebody's own platform in the place of the simulated one, with camsim in the middle.

The service checks no certificate, so TLS can end here: the service speaks with the server that the simulated platform
has, and that server has a connection of its own to the real platform for each one of the service's. What comes is
passed on as it comes, byte for byte; a copy is read to know where a response ends and what it says. Only a fault that
wants to change an answer waits for all of it. So everything that is known about the simulated platform (requests,
reports, hooks, faults) is known about a real one, by the same code.

The real connection is made first, with the TLS of a camera. What goes wrong there the service is to see itself: a
refused connection (see Door), a handshake that fails by a second connection that is passed through as it is.
"""

from __future__ import annotations

import contextlib
import socket
from collections.abc import Iterable, Iterator
from typing import Any

from simulator.journal import Journal
from simulator.messages.http import Close, Request, Reset, Send, Step
from simulator.messages.https_server import Connection, noted, reset_at_end
from simulator.messages.text import document_of
from simulator.peers.platform import Answer, Platform
from simulator.peers.real.door import BehindDoor
from simulator.peers.real.relay import CONNECT_SECONDS, pass_on
from simulator.peers.real.response_reader import Received
from simulator.peers.real.upstream import Coming, Gone, Upstream


class Gateway(BehindDoor, Platform):
    """The real platform at `address`, as a Platform.

    Journal, besides what Platform has: "presented" with `tls_version`, `cipher` and `certificate` of the real platform,
    when they are others than before; "unsecured" with `error` when it has no TLS for a camera; "unanswered" with
    `received` bytes when the service has gone before an answer was whole, "cut" when the platform has; those of Door
    and "relayed" of Relay.
    """

    full_port = 0  # there is no port whose connects hang

    def __init__(self, journal: Journal, url: str, result_path: str | None = None) -> None:
        Platform.__init__(self, journal)
        BehindDoor.__init__(self, journal, url, result_path, self._server.accept)
        self.second_port = self.port % 65535 + 1  # a fault names it; nobody listens
        self.task_path, self.result_path = self.address.task_path, self.address.result_path
        self._server.around = self._around
        self._upstreams: dict[int, Upstream] = {}
        self._presented: dict[str, str] = {}

    def _end_connections(self) -> None:
        Platform.stop(self)

    def default(self, request: Request) -> Any:
        """The real platform's answer, which has not begun to come."""
        asked, real = (f"\r\nHost: {name}\r\n".encode() for name in (self.address.asked, self.address.real))
        head, end, body = request.raw.partition(b"\r\n\r\n")
        return Coming(self._upstreams[request.connection], (head + b"\r\n").replace(asked, real, 1) + end[2:] + body)

    def changeable(self, answer: Answer) -> Answer:
        """Waits for an answer, so that a fault can change it. One that does not become whole stays as it comes."""
        if not isinstance(answer, Coming):
            return answer
        steps: list[Step] = []
        with contextlib.suppress(Gone):
            for step, responses in answer.steps():
                steps.append(step)
                if responses and answer.reader.whole:
                    return responses[-1]
        return steps

    def _steps(self, answer: Any, request: Request) -> Iterable[Step]:
        return self._passed(answer, request) if isinstance(answer, Coming) else super()._steps(answer, request)

    def _passed(self, answer: Coming, request: Request) -> Iterator[Step]:
        step: Step = Close()
        try:
            for step, responses in answer.steps():
                for response in responses:
                    self._note_response(response, request)
                if answer.reader.whole or isinstance(step, Send):
                    yield step
            if answer.reader.whole:
                return
        except Gone:
            self._note("unanswered", request.connection, received=len(answer.reader.raw))
            return
        self._note("cut", request.connection, received=len(answer.reader.raw), reset=isinstance(step, Reset))
        sent = [Send(bytes(answer.reader.raw))] if answer.reader.raw else []
        for _ in noted([*sent, step], self._journal, request.connection):
            pass  # the bytes went out as they came
        yield step

    def _note_response(self, response: Received, request: Request) -> None:
        self._journal.add(self.name, "response", response=response, target=request.target,
                          connection=request.connection)
        page = document_of(response.body) if response.status == 200 and request.target == self.task_path else None
        records = page.get("records") if isinstance(page, dict) else None
        asked = document_of(request.body)
        if isinstance(records, list) and isinstance(asked, dict) and isinstance(asked.get("startIndex"), int):
            self._journal.add(self.name, "page", start=asked["startIndex"], records=len(records),
                              bytes=len(response.body))

    def _note(self, kind: str, connection: int, **data: Any) -> None:
        self._journal.add(self.name, kind, connection=connection, port=self.port, **data)

    @contextlib.contextmanager
    def _around(self, connection: Connection) -> Iterator[bool]:
        # The pieces of an answer are to come when the platform sent them, not when the one before is acknowledged.
        connection.socket.setsockopt(socket.IPPROTO_TCP, socket.TCP_NODELAY, 1)
        try:
            upstream = Upstream(self._connected(connection), self.address, connection.wait)
        except Gone:
            self._note("unsecured", connection.number, error="the handshake did not end in time")
            yield False
            return
        except _NoConnection as failure:
            raise OSError(str(failure)) from failure
        except OSError as error:
            reason = getattr(error, "reason", None)  # OpenSSL's, without Python's source lines around it
            self._note("unsecured", connection.number,
                       error=reason.lower().replace("_", " ") if reason else error.strerror or str(error))
            self._pass_through(connection)
            yield False
            return
        with contextlib.closing(upstream):
            if upstream.tls() != self._presented:
                self._presented = upstream.tls()
                self._note("presented", connection.number, platform=str(self.address), **self._presented)
            self._upstreams[connection.number] = upstream
            try:
                yield True
            finally:
                del self._upstreams[connection.number]

    def _connected(self, connection: Connection) -> socket.socket:
        try:
            return self.address.connect(CONNECT_SECONDS)
        except OSError as error:
            reset_at_end(connection.socket)
            if not isinstance(error, TimeoutError):
                self._door.refused(error)
            raise _NoConnection(error.strerror or str(error)) from error

    def _pass_through(self, connection: Connection) -> None:
        """Lets the service see for itself why the platform's handshake fails."""
        counts = [0, 0]
        with self._connected(connection) as platform:
            pass_on(connection.socket, platform, self._stopping, counts)
        self._note("relayed", connection.number, sent=counts[0], received=counts[1])


class _NoConnection(Exception):
    """The platform takes no connection; the text says why."""
