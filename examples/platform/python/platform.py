"""A platform: serves the .jpg files of a folder as pages of faces over HTTPS, and takes the reports.

usage: platform.py PORT CERTIFICATE KEY FOLDER
"""

import base64
import json
import ssl
import sys
from http.server import BaseHTTPRequestHandler, ThreadingHTTPServer
from pathlib import Path

if len(sys.argv) != 5:
    sys.exit(__doc__)
port, certificate, key, folder = sys.argv[1:]
faces = sorted(Path(folder).glob("*.jpg"))


def page(asked):
    """The records that a camera asks for, as far as there are pictures. The number is what it reports back."""
    start, count = asked["startIndex"], asked["offset"]
    print(f"page: {count} records, from {start}", flush=True)
    return {"records": [{"credentialNumber": str(start + number), "name": face.stem,
                         "picture": base64.b64encode(face.read_bytes()).decode()}
                        for number, face in enumerate(faces[start:start + count])]}


def result(report):
    """What became of each picture of a page: 0 is imported."""
    imported = [one["importStatus"] == 0 for one in report["ImportInfo"]]
    print(f"report: {sum(imported)} of {len(imported)} imported, from {report['startIndex']}", flush=True)
    return {"result": "ok"}


class Platform(BaseHTTPRequestHandler):
    """One connection of a camera; each brings one request."""

    answers = {"/faces/page": page, "/faces/result": result}
    protocol_version = "HTTP/1.1"
    timeout = 30  # seconds

    def do_POST(self):
        body = self.rfile.read(int(self.headers["Content-Length"]))
        if self.path not in self.answers:
            return self.send_error(404)
        try:
            answer = json.dumps(self.answers[self.path](json.loads(body))).encode()
        except (ValueError, KeyError, TypeError):
            return self.send_error(400)
        self.send_response(200)
        self.send_header("Content-Length", str(len(answer)))
        self.end_headers()
        self.wfile.write(answer)

    def log_message(self, *words):
        """Nothing but pages and reports is printed."""


class Server(ThreadingHTTPServer):
    """Each camera's handshake happens on its own thread: a slow one holds nobody up."""

    def finish_request(self, request, client_address):
        request.settimeout(Platform.timeout)
        with context.wrap_socket(request, server_side=True) as connection:
            super().finish_request(connection, client_address)

    def handle_error(self, request, client_address):
        print(f"{client_address[0]}: {sys.exc_info()[1]}", flush=True)


context = ssl.SSLContext(ssl.PROTOCOL_TLS_SERVER)
context.load_cert_chain(certificate, key)
server = Server(("", int(port)), Platform)
print(f"the platform is up: https://localhost:{port}/faces/page, {len(faces)} faces", flush=True)
server.serve_forever()
