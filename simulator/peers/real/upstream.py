"""A connection to somebody's own platform, made as a camera makes it: its TLS, and an answer that comes in pieces."""

from __future__ import annotations

import functools
import select
import socket
import ssl
from collections.abc import Callable, Iterator
from typing import TypeVar

from simulator.messages.certificate import described
from simulator.messages.http import Close, Reset, Send, Step
from simulator.peers.real.address import Address
from simulator.peers.real.response_reader import Received, ResponseReader

T = TypeVar("T")
# Waits for an event of poll() on a descriptor; False when there is nobody left to wait for.
Wait = Callable[[int, int], bool]

_PIECE = 65536
# What the service offers, docs/platform-engineer.md has it: a platform that refuses a camera is to refuse here, too.
_CIPHERS = ("ALL:!DH:!aNULL:!eNULL:!SEED-SHA:!CAMELLIA128-SHA:!CAMELLIA256-SHA:!IDEA-CBC-SHA:!RC4:!AES256-SHA:"
            "!AES128-SHA:!DES-CBC3-SHA")


class Gone(Exception):
    """The service has ended its connection, or the camera ends."""


@functools.lru_cache
def _context() -> ssl.SSLContext:
    context = ssl.SSLContext(ssl.PROTOCOL_TLS_CLIENT)
    context.check_hostname = False
    context.verify_mode = ssl.CERT_NONE
    context.minimum_version = context.maximum_version = ssl.TLSVersion.TLSv1_2
    context.set_ciphers(_CIPHERS)
    context.options &= ~ssl.OP_IGNORE_UNEXPECTED_EOF  # an end without a farewell is to be told from one with it
    return context


class Upstream:
    """Owns a TCP connection to the platform from its handshake on, which __init__ carries out.

    session  of a connection before, to resume if the platform does
    wait     may be set anew at any time

    Raises OSError if there is no TLS, and Gone.
    """

    def __init__(self, plain: socket.socket, address: Address, wait: Wait,
                 session: ssl.SSLSession | None = None) -> None:
        plain.settimeout(0)
        self.wait = wait
        self._socket = _context().wrap_socket(plain, server_hostname=address.server_name, session=session,
                                              do_handshake_on_connect=False, suppress_ragged_eofs=False)
        try:
            self._complete(self._socket.do_handshake)
        except BaseException:
            self.close()
            raise

    def __enter__(self) -> Upstream:
        return self

    def __exit__(self, *_: object) -> None:
        self.close()

    @property
    def session(self) -> ssl.SSLSession | None:
        """For a later connection to resume."""
        return self._socket.session

    @property
    def resumed(self) -> bool:
        """Whether the platform knew the session."""
        return bool(self._socket.session_reused)

    def tls(self) -> dict[str, str]:
        """Version, cipher and certificate, for people."""
        certificate = self._socket.getpeercert(True)
        return {"tls_version": self._socket.version() or "", "cipher": (self._socket.cipher() or ("",))[0],
                "certificate": described(certificate) if certificate else "none"}

    def send(self, data: bytes) -> None:
        view = memoryview(data)
        while view:
            view = view[self._complete(lambda: self._socket.send(view)):]

    def receive(self) -> bytes:
        """The next bytes; none when the platform has said that no more come. Raises OSError for any other end."""
        try:
            return self._complete(lambda: self._socket.recv(_PIECE))
        except ssl.SSLZeroReturnError:
            return b""

    def close(self) -> None:
        self._socket.close()

    def _complete(self, step: Callable[[], T]) -> T:
        while True:
            try:
                return step()
            except ssl.SSLWantReadError:
                events = select.POLLIN
            except ssl.SSLWantWriteError:
                events = select.POLLOUT
            if not self.wait(self._socket.fileno(), events):
                raise Gone


class Coming:
    """The platform's answer to a request, which is sent when somebody begins to take the answer.

    reader  what has come
    """

    def __init__(self, upstream: Upstream, request: bytes) -> None:
        self.reader = ResponseReader()
        self._upstream = upstream
        self._request = request

    def steps(self) -> Iterator[tuple[Step, list[Received]]]:
        """What is to be done to answer in the same way, and the responses that a step makes whole."""
        try:
            self._upstream.send(self._request)
            while not self.reader.whole:
                data = self._upstream.receive()
                if not data:
                    yield Close(), self.reader.end()
                    return
                yield Send(data), self.reader.feed(data)
        except OSError as error:
            # Python has one exception for an end without a farewell and for a reset; OpenSSL has a reason for one only.
            without_farewell = getattr(error, "reason", None) == "UNEXPECTED_EOF_WHILE_READING"
            yield Close(alert=False) if without_farewell else Reset(), []
