"""The platform's side of TCP and TLS: connections, each on a thread of its own, that carry out steps."""

from __future__ import annotations

import contextlib
import select
import socket
import ssl
import struct
import threading
import time
from collections.abc import Callable, Iterable, Iterator, Sequence
from contextlib import AbstractContextManager, nullcontext

from simulator.journal import Journal
from simulator.messages.http import Close, Request, Reset, Send, Step, Wait
from simulator.messages.sockets import Acceptor

_RESET_ON_CLOSE = struct.pack("ii", 1, 0)  # SO_LINGER: on, no time


class _Ended(Exception):
    """The connection is over, from either side."""


class Connection:
    """One TCP connection of the service.

    number, port  which it is, counted from 1, and the port it came to
    tls_version   "TLSv1.2" or "TLSv1.3" after the handshake, "" before or without
    server_name   what the handshake asked for, "" when it named no server
    requests      number of whole requests that came on it
    opened        monotonic time of the accept
    closed        monotonic time of its end, None while it is open
    read_after    seconds to wait before a request is read, 0 at first
    """

    def __init__(self, server: HttpsServer, number: int, connected: socket.socket) -> None:
        self.number = number
        self.port = connected.getsockname()[1]
        self.tls_version = ""
        self.server_name = ""
        self.cipher = ""
        self.requests = 0
        self.opened = time.monotonic()
        self.closed: float | None = None
        self.read_after = 0.0
        self._server = server
        self._socket = connected
        self._dropped = threading.Event()
        self.thread = threading.Thread(target=self._run, name=f"connection {number}", daemon=True)

    def drop(self) -> None:
        """Ends the connection from another thread."""
        self._dropped.set()
        with contextlib.suppress(OSError):
            socket.socket.shutdown(self._socket, socket.SHUT_RDWR)

    @property
    def socket(self) -> socket.socket:
        """For who takes the connection over before its handshake."""
        return self._socket

    def wait(self, descriptor: int, events: int = select.POLLIN) -> bool:
        """Waits for an event on a descriptor; False once the service, or drop(), has ended the connection."""
        poll = select.poll()
        poll.register(descriptor, events)
        poll.register(self._socket, select.POLLRDHUP)
        return descriptor in [ready for ready, _ in poll.poll()]

    def _run(self) -> None:
        try:
            steps = self._server.on_connect(self) if self._server.on_connect else None
            if steps is not None:
                self._note("hooked", name="on_connect")
                self._carry_out(noted(steps, self._server.journal, self.number))
            with self._server.around(self) as served:
                if served:
                    self._serve()
        except _Ended:
            pass
        except (OSError, ValueError) as error:
            self._note("broken", error=str(error))
        except Exception as error:  # a mistake in a test's hook
            self._note("hook_failed", error=repr(error))
        finally:
            self.closed = time.monotonic()
            self._note("closed", requests=self.requests)
            self._socket.close()

    def _serve(self) -> None:
        self._handshake()
        while (request := self._read_request()) is not None:
            self._carry_out(self._server.answer(request))
        self._carry_out([Close()])

    def _note(self, kind: str, **data: object) -> None:
        self._server.journal.add("platform", kind, connection=self.number, port=self.port, **data)

    def _handshake(self) -> None:
        context = self._server.context
        context.sni_callback = _keep_server_name
        secured = context.wrap_socket(self._socket, server_side=True, do_handshake_on_connect=False)
        self._socket = secured
        begin, processor_begin = time.monotonic(), time.thread_time()
        secured.do_handshake()
        self.tls_version = secured.version() or ""
        self.server_name = getattr(secured, "server_name", "")
        self.cipher = (secured.cipher() or ("",))[0]
        self._note("handshake", tls_version=self.tls_version, cipher=self.cipher, seconds=time.monotonic() - begin,
                   processor_seconds=time.thread_time() - processor_begin, resumed=bool(secured.session_reused))

    def _read_request(self) -> Request | None:
        """The next request; None when the service closed the connection instead."""
        self._dropped.wait(self.read_after)
        raw = b""
        while b"\r\n\r\n" not in raw:
            try:
                data = self._socket.recv(65536)
            except ConnectionResetError:  # newer versions of Python tell it from an ordinary end
                if raw or not self.requests:
                    raise
                return None  # who has its answer may leave so
            if not data:
                if raw:
                    self._note("incomplete", raw=raw)
                return None
            raw += data
        head = raw.partition(b"\r\n\r\n")[0]
        length = 0
        for line in head.split(b"\r\n")[1:]:
            name, _, value = line.partition(b":")
            if name.strip().lower() == b"content-length":
                length = int(value)
        while len(raw) < len(head) + 4 + length:
            data = self._socket.recv(65536)
            if not data:
                self._note("incomplete", raw=raw)
                return None
            raw += data
        self.requests += 1
        return Request(raw, self.number, self.port, self.tls_version, self.cipher, time.monotonic())

    def _carry_out(self, steps: Iterable[Step]) -> None:
        for step in steps:
            if isinstance(step, Send):
                self._socket.sendall(step.data)
            elif isinstance(step, Wait):
                if self._dropped.wait(step.seconds):
                    raise _Ended
            elif isinstance(step, Reset):
                reset_at_end(self._socket)
                raise _Ended
            elif isinstance(step, Close):
                if step.alert and isinstance(self._socket, ssl.SSLSocket):
                    self._socket.settimeout(0)  # send close_notify, do not wait for the other side's
                    with contextlib.suppress(OSError, ValueError):
                        self._socket.unwrap()
                raise _Ended


def reset_at_end(connected: socket.socket) -> None:
    """The end of the connection will be a TCP reset."""
    connected.setsockopt(socket.SOL_SOCKET, socket.SO_LINGER, _RESET_ON_CLOSE)


def _keep_server_name(secured: ssl.SSLObject, name: str | None, context: ssl.SSLContext) -> None:
    """Called in a handshake, by OpenSSL."""
    setattr(secured, "server_name", name or "")


def noted(steps: Iterable[Step], journal: Journal, connection: int) -> Iterator[Step]:
    """The same steps, each noted in the journal as "step" before it is carried out."""
    for step in steps:
        journal.add("platform", "step", connection=connection, step=step)
        yield step


class HttpsServer:
    """Accepts connections on listening sockets that somebody else made and answers their requests.

    on_connect   called with each new Connection; returns steps to carry out on the bare TCP connection in place of a
                 handshake, or None to go on. Runs on the connection's thread.
    around       entered around each Connection that on_connect leaves alone, on its thread, before the handshake; tells
                 whether the connection is served, or was taken over. An OSError from it breaks the connection
    answer       called with each Request; returns the steps that answer it. Runs on the connection's thread.
    context      the TLS settings of further connections
    connections  every connection so far

    Journal: "accepted", "handshake" with `tls_version`, `cipher`, `seconds`, the server's own `processor_seconds`
    and whether an earlier session was `resumed`, "incomplete" with `raw`, "broken" with `error`, "hook_failed" with
    `error`, "closed" with `requests`, "hooked" with `name` when on_connect takes over; all with `connection` (its
    number) and `port`. "step" with `step` and `connection` for each step that is no ordinary answer.
    """

    def __init__(self, journal: Journal, context: ssl.SSLContext, answer: Callable[[Request], Iterable[Step]]) -> None:
        self.journal = journal
        self.context = context
        self.answer = answer
        self.on_connect: Callable[[Connection], Iterable[Step] | None] | None = None
        self.around: Callable[[Connection], AbstractContextManager[bool]] = lambda _connection: nullcontext(True)
        self.connections: list[Connection] = []
        self._acceptor = Acceptor("platform", self.accept)

    def start(self, listeners: Sequence[socket.socket]) -> None:
        """Serves these sockets, which it owns from now on, until stop."""
        self._acceptor.start(listeners)

    def stop(self) -> None:
        """Closes the ports and every connection."""
        self._acceptor.stop()
        for connection in self.connections:
            connection.drop()
        for connection in self.connections:
            connection.thread.join()

    def accept(self, connected: socket.socket) -> None:
        """Serves one connection more, on a thread of its own."""
        connection = Connection(self, len(self.connections) + 1, connected)
        self.connections.append(connection)
        self.journal.add("platform", "accepted", connection=connection.number, port=connection.port)
        connection.thread.start()
