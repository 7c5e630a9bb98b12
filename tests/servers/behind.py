"""The platform behind the web servers: pages from a played platform, framed as the path says; keeps reports."""

from __future__ import annotations

import json
import threading
from collections.abc import Callable
from http.server import BaseHTTPRequestHandler, ThreadingHTTPServer
from typing import Any

PIECE = 5000


class Behind:
    """Answers /length, /chunked and /interim, each a way to frame a page, and keeps what comes to a path + "Result"."""

    def __init__(self, page: Callable[[int, int], bytes]) -> None:
        behind = self
        self.reports: list[dict[str, Any]] = []

        class Handler(BaseHTTPRequestHandler):
            """One connection from the web server."""

            protocol_version = "HTTP/1.1"

            def do_POST(self) -> None:
                body = json.loads(self.rfile.read(int(self.headers["Content-Length"])) if "Content-Length" in
                                  self.headers else self._chunks())
                if self.path.endswith("Result"):
                    behind.reports.append(body)
                    self._answer(b'{"result":"ok"}', False)
                elif self.path == "/ready":
                    self._answer(b"ready", False)
                else:
                    if self.path == "/interim":
                        self.wfile.write(b"HTTP/1.1 103 Early Hints\r\nLink: </style.css>; rel=preload\r\n\r\n")
                    self._answer(page(body["startIndex"], body["offset"]), self.path == "/chunked")

            def _chunks(self) -> bytes:
                data = b""
                while (size := int(self.rfile.readline(), 16)) > 0:
                    data += self.rfile.read(size)
                    self.rfile.readline()
                self.rfile.readline()
                return data

            def _answer(self, body: bytes, chunked: bool) -> None:
                self.send_response(200)
                self.send_header("Content-Type", "application/json")
                if not chunked:
                    self.send_header("Content-Length", str(len(body)))
                    self.end_headers()
                    self.wfile.write(body)
                    return
                self.send_header("Transfer-Encoding", "chunked")
                self.end_headers()
                pieces = [body[start:start + PIECE] for start in range(0, len(body), PIECE)]
                self.wfile.write(b"".join(b"%x\r\n%s\r\n" % (len(piece), piece) for piece in [*pieces, b""]))

            def log_message(self, *arguments: Any) -> None:
                pass

        self._server = ThreadingHTTPServer(("127.0.0.1", 0), Handler)
        self.port = self._server.server_address[1]
        self._thread = threading.Thread(target=self._server.serve_forever, daemon=True)
        self._thread.start()

    def close(self) -> None:
        self._server.shutdown()
        self._server.server_close()
