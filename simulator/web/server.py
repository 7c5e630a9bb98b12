"""Serves the page of a running camera to the browsers of this machine. They can only look."""

from __future__ import annotations

import contextlib
import json
import threading
import time
from collections.abc import Callable, Mapping
from http.server import BaseHTTPRequestHandler, ThreadingHTTPServer
from pathlib import Path
from typing import Any
from urllib.parse import parse_qs, urlsplit

from simulator.errors import CameraError
from simulator.journal import Journal
from simulator.trace.page.web_page import live_page
from simulator.web.live_run import LiveRun

_LOOPBACK = "127.0.0.1"
_SECONDS = 10.0  # that a browser has to send its request, and to take each piece of the answer
_AT_ONCE = 32  # requests that are served at the same time; further ones are turned away
_HEADERS = {"Cache-Control": "no-store", "X-Content-Type-Options": "nosniff", "X-Frame-Options": "DENY",
            "Cross-Origin-Resource-Policy": "same-origin", "Referrer-Policy": "no-referrer"}


class PageServer:
    """Serves the page of a camera while the block runs, on the loopback alone.

    url  where it is
    """

    def __init__(self, journal: Journal, outside: Callable[[str], Path], about: Mapping[str, Any],
                 port: int = 0) -> None:
        try:
            self._server = _Server(port, lambda: live_page(journal.began_at.isoformat(), dict(about)).encode())
        except OSError as error:
            raise CameraError(f"port {port} cannot be served on {_LOOPBACK}: {error.strerror}") from error
        self._server.run = LiveRun(journal, outside)
        self._server.clock = lambda: time.monotonic() - journal.began
        self.url = f"http://{_LOOPBACK}:{self._server.server_port}/"

    def __enter__(self) -> PageServer:
        threading.Thread(target=self._server.serve_forever, args=(0.05,), name="page server", daemon=True).start()
        return self

    def __exit__(self, *_: object) -> None:
        self._server.shutdown()
        self._server.server_close()
        self._server.run.close()


class _Server(ThreadingHTTPServer):
    daemon_threads = True
    block_on_close = False  # a browser that does not read must not hold up the end

    run: LiveRun
    clock: Callable[[], float]

    def __init__(self, port: int, page: Callable[[], bytes]) -> None:
        super().__init__((_LOOPBACK, port), _Handler)
        self.page = page
        # Who else could have a name of another machine lead here would read this one's run with his own page.
        self.hosts = {f"{name}:{self.server_port}" for name in (_LOOPBACK, "localhost")}
        self._free = threading.BoundedSemaphore(_AT_ONCE)

    def process_request(self, request: Any, client_address: Any) -> None:
        if self._free.acquire(blocking=False):
            super().process_request(request, client_address)
        else:
            self.shutdown_request(request)

    def process_request_thread(self, request: Any, client_address: Any) -> None:
        try:
            super().process_request_thread(request, client_address)
        finally:
            self._free.release()

    def handle_error(self, request: Any, client_address: Any) -> None:
        """A browser that went away is no error."""


class _Handler(BaseHTTPRequestHandler):
    server: _Server
    timeout = _SECONDS
    server_version, sys_version = "camsim", ""

    def do_GET(self) -> None:
        """The page, or what happened from an offset on."""
        address = urlsplit(self.path)
        if self.headers.get("Host") not in self.server.hosts:
            self.send_error(421, "This is not the server of that name")
        elif address.path == "/":
            self._answer("text/html; charset=utf-8", self.server.page())
        elif address.path == "/run":
            self._run(parse_qs(address.query).get("from", [""])[0])
        else:
            self.send_error(404)

    def _run(self, offset: str) -> None:
        try:
            following, lines = self.server.run.read(int(offset))
        except ValueError:
            self.send_error(400)
            return
        head = {"next": following, "more": following < self.server.run.size, "seconds": round(self.server.clock(), 3)}
        self._answer("application/json", json.dumps(head).encode()[:-1] + b', "batches": [' + b",".join(lines) + b"]}")

    def _answer(self, kind: str, body: bytes) -> None:
        self.send_response(200)
        for name, value in {"Content-Type": kind, "Content-Length": str(len(body)), **_HEADERS}.items():
            self.send_header(name, value)
        self.end_headers()
        with contextlib.suppress(OSError):  # it went away, or does not read
            self.wfile.write(body)

    def log_message(self, *_: object) -> None:
        """What browsers ask for is nobody's business on the terminal."""
