"""The remote platform: serves pages of face records and takes import reports, over HTTPS."""

from __future__ import annotations

import base64
import functools
import json
import socket
from collections import defaultdict, deque
from collections.abc import Callable, Iterable, Sequence
from typing import Any, Union

from simulator.journal import Journal
from simulator.messages import wire
from simulator.messages.certificate import server_context
from simulator.messages.http import NEVER, Request, Response, Send, Step
from simulator.messages.https_server import Connection, HttpsServer, noted
from simulator.peers.pictures import picture

# What the platform can answer: a response, bytes as they are, steps, nothing ever (None), or a function of the request.
Answer = Union[Response, bytes, Sequence[Step], None, Callable[[Request], "Answer"]]


class Platform:
    """Serves `task_path` and `result_path`; everything else is 404.

    port, second_port    where it listens, on 127.0.0.1 and ::1; both behave alike unless on_connect tells them apart
    full_port            127.0.0.1 only: connects to it hang, because nobody takes them
    host                 under which the service asks for it: another one for a camera that has a machine of its own
    picture_sizes        smallest and largest picture in bytes
    pictures             names and contents of pictures to serve in place of made-up ones
    requests, reports    every request so far; those to the result path
    on_request           called as on_request(request, default) in place of the own behaviour; default() carries that
                         out and returns its Response. Runs on the connection's thread.
    on_connect           called with each new Connection; returns steps for the bare TCP connection (NEVER: it never
                         shakes hands) or None for the ordinary handshake
    connections          every connection so far

    Journal: "request" with `request`, "page" with `start`, `records` and `bytes`, "report" with `request`, "response"
    with `response` and `connection` (before it is sent; only ordinary ones), "hooked" with `name`, `target` and
    `connection` when an answer is not the platform's own, and those of HttpsServer.
    """

    name = "platform"
    port = 8443
    second_port = 8444
    full_port = 8445
    host = "127.0.0.1"
    task_path = "/platform/whiteList"
    result_path = "/platform/whiteListResult"

    def __init__(self, journal: Journal) -> None:
        self.picture_sizes = (20_000, 200_000)
        self.pictures: Sequence[tuple[str, bytes]] = ()
        self.requests: list[Request] = []
        self.on_request: Callable[[Request, Callable[[], Response]], Answer] | None = None
        self._journal = journal
        self._scripts: dict[str, deque[Answer]] = defaultdict(deque)
        self._kept: list[socket.socket] = []
        self._server = HttpsServer(journal, server_context(), self._answer)

    @property
    def reports(self) -> list[Request]:
        return [request for request in list(self.requests) if request.target == self.result_path]

    @property
    def connections(self) -> list[Connection]:
        return list(self._server.connections)

    @property
    def on_connect(self) -> Callable[[Connection], Iterable[Step] | None] | None:
        return self._server.on_connect

    @on_connect.setter
    def on_connect(self, hook: Callable[[Connection], Iterable[Step] | None] | None) -> None:
        self._server.on_connect = hook

    def use_tls(self, minimum: str = "1.2", maximum: str = "1.3", certificate: str = "self-signed") -> None:
        """Offers only these TLS versions ("1.1" to "1.3"), and this kind of certificate, to further connections."""
        self._server.context = server_context(minimum, maximum, certificate)

    def script(self, path: str, *answers: Answer) -> None:
        """Queues the answers to the next requests for this path, ahead of on_request and the own behaviour."""
        self._scripts[path].extend(answers)

    @property
    def ports(self) -> tuple[int, ...]:
        """The ports that it wants to listen on."""
        return (self.port, self.second_port)

    def task(self, faces: int | None = None, **changes: Any) -> dict[str, Any]:
        """The "taskInfo" of a whiteListDown for this platform, of all `pictures` or 75 faces unless told otherwise.

        `changes` replace members, ... removes one.
        """
        if faces is None:
            faces = len(self.pictures) or 75
        return task_info(faces, f"https://{self.host}:{self.port}{self.task_path}",
                         f"https://{self.host}:{self.port}{self.result_path}", changes)

    def start(self, listeners: Sequence[socket.socket], kept: Sequence[socket.socket] = ()) -> None:
        """Serves the listening sockets; those of `kept` are only held open. Owns all of them until stop."""
        self._kept = list(kept)
        self._server.start(listeners)

    def stop(self) -> None:
        """Closes the ports and every connection."""
        self._server.stop()
        for one in self._kept:
            one.close()
        self._kept.clear()

    def page(self, start: int, count: int) -> bytes:
        """The platform's document for records `start` to `start + count - 1`, as far as there are pictures."""
        if self.pictures:
            return _document(start, self.pictures[start:start + count])
        return _page(start, count, *self.picture_sizes)

    def default(self, request: Request) -> Response:
        """The platform's own behaviour."""
        if request.target == self.task_path:
            asked = _json_object(request)
            start, count = asked.get("startIndex"), asked.get("offset")
            if not isinstance(start, int) or not isinstance(count, int) or not 1 <= count <= wire.PAGE_SIZE:
                return Response(400)
            body = self.page(start, count)
            records = min(count, max(0, len(self.pictures) - start)) if self.pictures else count
            self._journal.add(self.name, "page", start=start, records=records, bytes=len(body))
            return Response(body=body)
        if request.target == self.result_path:
            return Response(body=b'{"result":"ok"}')
        return Response(404)

    def changeable(self, answer: Answer) -> Answer:
        """What a hook may change of an answer of default(), when that is not all there yet: of this platform, it is."""
        return answer

    def _answer(self, request: Request) -> Iterable[Step]:
        self.requests.append(request)
        self._journal.add(self.name, "request", request=request, target=request.target)
        if request.target == self.result_path:
            self._journal.add(self.name, "report", request=request)
        script = self._scripts[request.target]
        if script:
            self._hooked("script", request)
            return self._steps(script.popleft(), request)
        if self.on_request is None:
            return self._steps(self.default(request), request)
        own: list[Response] = []

        def default() -> Response:
            own.append(self.default(request))
            return own[-1]
        answer = self.on_request(request, default)
        if not own or answer is not own[-1]:
            self._hooked("on_request", request)
        return self._steps(answer, request)

    def _hooked(self, name: str, request: Request) -> None:
        self._journal.add(self.name, "hooked", name=name, target=request.target, connection=request.connection)

    def _steps(self, answer: Answer, request: Request) -> Iterable[Step]:
        if callable(answer):
            return self._steps(answer(request), request)
        if isinstance(answer, Response):
            self._journal.add(self.name, "response", response=answer, target=request.target,
                              connection=request.connection)
            return answer.steps()
        steps = NEVER if answer is None else [Send(answer)] if isinstance(answer, bytes) else answer
        return noted(steps, self._journal, request.connection)


def task_info(faces: int, url: str, result_url: str, changes: dict[str, Any]) -> dict[str, Any]:
    """The "taskInfo" of a whiteListDown; `changes` replace members, ... removes one."""
    info = {"cameraCode": "C1", "taskID": "T1", "totalNum": faces, "sqbh": "S1", "datatime": "D1",
            "securityCode": "K1", "taskURL": url, "taskResultURL": result_url, **changes}
    return {name: value for name, value in info.items() if value is not ...}


def credential_number(index: int) -> str:
    """The identifier of the record at `index`: an identity card's 18 digits."""
    return f"110101{19600101 + index % 30 + 10000 * (index % 40)}{index:04d}"


def _json_object(request: Request) -> dict[str, Any]:
    try:
        document = request.json()
    except ValueError:
        return {}
    return document if isinstance(document, dict) else {}


@functools.lru_cache(maxsize=8)
def _page(start: int, count: int, minimum: int, maximum: int) -> bytes:
    return _document(start, [(f"Face {index}", picture(index, minimum, maximum))
                             for index in range(start, start + count)])


def _document(start: int, pictures: Sequence[tuple[str, bytes]]) -> bytes:
    records = [{"credentialNumber": credential_number(index), "name": name,
                "picture": base64.b64encode(content).decode()}
               for index, (name, content) in enumerate(pictures, start)]
    return json.dumps({"startIndex": start, "offset": len(records), "records": records}).encode()
