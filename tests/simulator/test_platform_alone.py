"""camsim platform, alone and with a camera that reaches it from its sandbox; certificates as TLS sees them."""

from __future__ import annotations

import http.client
import json
import socket
import ssl
from pathlib import Path
from typing import Any

import pytest

from camsim_runs import Camsim, StartUp
from simulator.messages.certificate import KINDS, certificate


def post(port: int, path: str, document: dict[str, Any], context: ssl.SSLContext) -> tuple[int, bytes]:
    connection = http.client.HTTPSConnection("127.0.0.1", port, context=context, timeout=60)
    connection.request("POST", path, json.dumps(document))
    answer = connection.getresponse()
    return answer.status, answer.read()


def trusting() -> ssl.SSLContext:
    context = ssl.create_default_context()
    context.check_hostname = False
    context.verify_mode = ssl.CERT_NONE
    return context


def test_pages_of_own_pictures(camsim: Camsim, up: StartUp, faces: Path) -> None:
    platform = up("--port", 0, "--pictures", faces, subcommand="platform")
    port = platform.first["port"]
    assert platform.first["taskURL"] == f"https://127.0.0.1:{port}/platform/whiteList"
    assert platform.first["totalNum"] == 4
    status, body = post(port, "/platform/whiteList", {"startIndex": 0, "offset": 30}, trusting())
    records = json.loads(body)["records"]
    assert (status, [record["name"] for record in records]) == (200, ["anna", "bert", "carl", "dora"])
    assert post(port, "/platform/whiteList", {"startIndex": 0, "offset": 31}, trusting())[0] == 400
    assert post(port, "/elsewhere", {}, trusting())[0] == 404
    assert platform.stop() == 0
    assert [line["title"] for line in platform.lines if line.get("title", "").startswith("POST ")] == [
        "POST /platform/whiteList, 31 bytes", "POST /platform/whiteList, 31 bytes", "POST /elsewhere, 2 bytes"]


def test_faults_of_the_platform_alone(camsim: Camsim, up: StartUp) -> None:
    platform = up("--port", 0, "--fault", "platform.status=418", subcommand="platform")
    port = platform.first["port"]
    assert post(port, "/platform/whiteListResult", {}, trusting())[0] == 418
    assert camsim.run("fault", "--name", "platform", "all", "off").returncode == 0
    assert post(port, "/platform/whiteListResult", {}, trusting())[0] == 200
    assert camsim.run("fault", "--name", "platform", "platform", "tls", "on", "version=1.3").returncode == 0
    with socket.create_connection(("127.0.0.1", port)) as plain, trusting().wrap_socket(plain) as secured:
        assert secured.version() == "TLSv1.3"
    done = camsim.run("fault", "--name", "platform", "itgt.silent")
    assert (done.returncode, "ITGT is not played here" in done.stderr) == (1, True)
    done = camsim.run("send", "whiteListClear", "--name", "platform")
    assert (done.returncode, "takes no commands" in done.stderr) == (6, True)


@pytest.mark.parametrize("host", ["localhost", "127.0.0.1"])
def test_a_camera_reaches_a_platform_outside_its_sandbox(camsim: Camsim, up: StartUp, faces: Path, host: str) -> None:
    platform = up("--port", 0, "--pictures", faces, subcommand="platform")
    url = platform.first["taskURL"].replace("127.0.0.1", host)
    camera = up("--platform", url)
    assert camera.first["url"] == url
    answer = camsim.json("send", "whiteListDown", "--faces", 4, "--wait")[0]
    assert answer["download"]["complete"] is True
    assert answer["download"]["pictures"] == 3
    camera.stop()
    platform.stop()
    requests = [line["fields"] for line in platform.lines if line.get("title", "").startswith("POST ")]
    assert [request["request_line"] for request in requests] == [
        "POST /platform/whiteList HTTP/1.1", "POST /platform/whiteListResult HTTP/1.1"]
    assert {request["tls_version"] for request in requests} == {"TLSv1.2"}
    assert sum(line.get("title", "").startswith("POST ") for line in camera.lines) == 2


@pytest.mark.parametrize("transparent", [[], ["--transparent"]])
def test_a_platform_that_is_not_there_is_told(camsim: Camsim, up: StartUp, transparent: list[str]) -> None:
    with socket.create_server(("127.0.0.1", 0)) as taken:
        port = taken.getsockname()[1]
    camera = up("--platform", f"https://localhost:{port}/x", "--result-path", "/y", *transparent)
    assert camsim.run("send", "whiteListDown", "--faces", 1, "--wait").returncode == 7
    camera.stop()
    assert [line["text"] for line in camera.lines if "is not there" in line.get("text", "")] == [
        f"is not there: localhost:{port}: Connection refused; the service is refused, too, until it is back"]


def test_a_port_that_is_taken_is_an_error(camsim: Camsim) -> None:
    with socket.create_server(("127.0.0.1", 0)) as taken:
        done = camsim.run("platform", "--port", taken.getsockname()[1])
    assert done.returncode == 1
    assert "choose with --address and --port" in done.stderr


@pytest.mark.parametrize("kind, complaint", [
    ("self-signed", None), ("expired", "certificate has expired"), ("wrong-name", "IP address mismatch"),
    ("unknown-issuer", "unable to get local issuer certificate")])
def test_certificates_are_what_they_are_called(kind: str, complaint: str | None, camsim: Camsim, up: StartUp) -> None:
    """As a client sees them that checks, and trusts the certificate itself where nobody else signed it."""
    assert kind in KINDS
    context = ssl.create_default_context()
    if kind == "unknown-issuer":
        context.load_verify_locations(certificate("self-signed"))
    platform = up("--port", 0, "--fault", f"platform.certificate={kind}", subcommand="platform")
    port = platform.first["port"]
    if kind != "unknown-issuer":
        context.load_verify_locations(cadata=ssl.get_server_certificate(("127.0.0.1", port)))
    try:
        status, _ = post(port, "/platform/whiteListResult", {}, context)
    except ssl.SSLCertVerificationError as error:
        assert complaint is not None and complaint in str(error)
    else:
        assert (status, complaint) == (200, None)
