"""Runs the programs of examples/ as their README says, and downloads from those that are platforms."""

from __future__ import annotations

import base64
import contextlib
import json
import os
import signal
import socket
import subprocess
import threading
from collections.abc import Callable, Iterator, Mapping, Sequence
from pathlib import Path

from simulator import Camera
from simulator.messages.certificate import certificate
from simulator.peers.pictures import picture
from simulator.peers.real.relay import Relay
from support import DEADLINE, FOLDER, page_starts, wait_end

EXAMPLES = Path(__file__).resolve().parents[1] / "examples"
FACES = 75


def free_port() -> int:
    with socket.socket() as one:
        one.bind(("127.0.0.1", 0))
        return int(one.getsockname()[1])


class ExamplePlatform:
    """One that runs: its port, the pictures that it serves, and what it has printed so far."""

    def __init__(self, command: Sequence[str], folder: Path, environment: Mapping[str, str] | None = None) -> None:
        self.port = free_port()
        self.pictures = [picture(number, 800, 1_000) for number in range(FACES)]
        faces = folder / "faces"
        faces.mkdir()
        for number, content in enumerate(self.pictures):
            (faces / f"face{number:02}.jpg").write_bytes(content)
        self.lines: list[str] = []
        self._news = threading.Condition()
        self._process = subprocess.Popen([*command, str(self.port), certificate(), certificate(), str(faces)],
                                         env={**os.environ, **(environment or {})}, cwd=folder, text=True,
                                         stdout=subprocess.PIPE, stderr=subprocess.STDOUT, start_new_session=True)
        threading.Thread(target=self._read, daemon=True).start()

    def wait_for(self, seen: Callable[[list[str]], bool]) -> None:
        with self._news:
            done = self._news.wait_for(lambda: seen(self.lines) or self._process.poll() is not None, DEADLINE)
        assert done and seen(self.lines), "".join(self.lines)

    def _read(self) -> None:
        assert self._process.stdout is not None
        for line in self._process.stdout:
            with self._news:
                self.lines.append(line.rstrip("\n"))
                self._news.notify_all()

    def stop(self) -> None:
        os.killpg(self._process.pid, signal.SIGTERM)  # `go run` has its program as another process
        self._process.wait(DEADLINE)


@contextlib.contextmanager
def running(command: Sequence[str], folder: Path, environment: Mapping[str, str] | None = None
            ) -> Iterator[ExamplePlatform]:
    platform = ExamplePlatform(command, folder, environment)
    try:
        platform.wait_for(lambda lines: any(" is up" in line for line in lines))
        yield platform
    finally:
        platform.stop()


def expect_download(make_camera: Callable[..., Camera], platform: ExamplePlatform) -> None:
    """All of its faces go through the unchanged service, and the platform is told so."""
    url = f"https://localhost:{platform.port}/faces/page"
    camera = make_camera(platform=lambda journal: Relay(journal, url, "/faces/result")).__enter__()
    assert camera.client.command("whiteListDown", camera.platform.task(FACES)).status == 200
    wait_end(camera, timeout=60)
    came = []
    for start in page_starts(FACES):
        came += json.loads(camera.path(f"{FOLDER}/white{start}").read_bytes())["records"]
    assert [base64.b64decode(record["picture"]) for record in came] == platform.pictures
    assert [(record["credentialNumber"], record["name"]) for record in came] == [
        (str(number), f"face{number:02}") for number in range(FACES)]
    told = [f"{what}, from {start}" for start, count in zip(page_starts(FACES), (30, 30, 15))
            for what in (f"page: {count} records", f"report: {count} of {count} imported")]
    platform.wait_for(lambda lines: told[-1] in lines)
    assert [line for line in platform.lines if line in told] == told


def expect_refusals(platform: ExamplePlatform) -> None:
    """What a platform cannot understand does not end it."""
    for path, body, status in (("/nowhere", b"{}", 404), ("/faces/page", b"no JSON", 400), ("/faces/page", b"{}", 400),
                               ("/faces/result", b"no JSON", 400)):
        assert post(platform.port, path, body) == status, (path, body)


def post(port: int, path: str, body: bytes) -> int:
    """The status of the answer to a request of a camera's TLS version."""
    seen = subprocess.run(["curl", "--silent", "--insecure", "--tlsv1.2", "--tls-max", "1.2", "--data-binary", "@-",
                           "--output", "/dev/null", "--write-out", "%{http_code}", f"https://localhost:{port}{path}"],
                          input=body, capture_output=True, timeout=DEADLINE, check=False)
    return int(seen.stdout)
