"""Where somebody's own platform is, as its URL says, and what the service in its sandbox asks for in its place."""

from __future__ import annotations

import ipaddress
import os
import re
import socket
from dataclasses import dataclass
from typing import Any
from urllib.parse import urlsplit

from simulator.errors import CameraError
from simulator.peers.platform import task_info

_HTTPS_PORT = 443
_FIRST_FREE_PORT = 1024
_PORT_IN_PLACE = 8443
_OWN_ADDRESSES = ("127.0.0.1", "::1")


@dataclass(frozen=True)
class Address:
    """A real platform's place.

    host, port    as the URL has them
    asked_host    what the service asks for: the same name, which the sandbox knows as its own address. An address in
                  numbers the sandbox cannot have, unless it is its own
    asked_port    the same port, another one where only root may open that
    task_path     the path of pages; result_path of reports
    """

    host: str
    port: int
    asked_host: str
    asked_port: int
    task_path: str
    result_path: str

    @property
    def asked(self) -> str:
        """Host and port as the service writes them behind "Host: "."""
        return _authority(self.asked_host, self.asked_port)

    @property
    def real(self) -> str:
        """Host and port as a camera without a sandbox would write them."""
        return _authority(self.host, self.port)

    @property
    def server_name(self) -> str | None:
        """What a camera's handshake would name: the host, unless it is in numbers."""
        return None if _is_numeric(self.host) else self.host.rstrip(".")

    def __str__(self) -> str:
        return f"{_bracketed(self.host)}:{self.port}"

    def connect(self, seconds: float) -> socket.socket:
        """A TCP connection. Raises OSError that says to where."""
        try:
            return socket.create_connection((self.host, self.port), seconds)
        except TimeoutError as error:
            raise TimeoutError(f"{self}: no connection in {seconds:g} s") from error
        except OSError as error:
            raise type(error)(error.errno, f"{self}: {error.strerror}") from error

    def task(self, faces: int | None, changes: dict[str, Any]) -> dict[str, Any]:
        """The "taskInfo" of a whiteListDown for this platform; see Platform.task."""
        base = f"https://{_bracketed(self.asked_host)}:{self.asked_port}"
        return task_info(75 if faces is None else faces, base + self.task_path, base + self.result_path, changes)


def address_of(url: str, result_path: str | None = None) -> Address:
    """The place that a URL names. Raises CameraError, with what to write, for one that a camera cannot be given."""
    try:
        parts = urlsplit(url)
        host, port = parts.hostname or "", parts.port
    except ValueError as error:
        raise CameraError(f"{url!r} is no address of a platform: {error}") from error
    for wrong, why in (
            (parts.scheme != "https" or port == 0 or not _is_host(host), "write https://HOST:PORT/PATH, for example "
             "https://localhost:9443/platform/whiteList"),
            (re.search(r"[\x00-\x20\x7f-\U0010ffff]", url), "write other than printable ASCII as %XX"),
            ("@" in parts.netloc, "leave out what stands before @: the service logs in nowhere"),
            ("?" in url or "#" in url, "leave out what stands from ? or # on: the service drops it; put it into the "
             "path"),
            (result_path is not None and not re.fullmatch(r"/[!-~]*", result_path), "--result-path begins with /")):
        if wrong:
            raise CameraError(f"{url!r} is no address of a platform: {why}")
    port = port or _HTTPS_PORT
    task_path = parts.path or "/platform/whiteList"
    return Address(host, port, "127.0.0.1" if _is_numeric(host) and host not in _OWN_ADDRESSES else host,
                   port if port >= _FIRST_FREE_PORT or os.geteuid() == 0 else _PORT_IN_PLACE,
                   task_path, result_path or task_path + "Result")


def _is_host(host: str) -> bool:
    return _is_numeric(host) or bool(re.fullmatch(r"[A-Za-z0-9_]([A-Za-z0-9._-]{0,251}[A-Za-z0-9_.])?", host))


def _is_numeric(host: str) -> bool:
    try:
        ipaddress.ip_address(host)
    except ValueError:
        return False
    return True


def _bracketed(host: str) -> str:
    return f"[{host}]" if ":" in host else host


def _authority(host: str, port: int) -> str:
    """As the service's HTTP library writes it: a port that is a usual one is left out."""
    return _bracketed(host) if port in (80, _HTTPS_PORT) else f"{_bracketed(host)}:{port}"
