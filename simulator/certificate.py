"""The platform's own certificate, made anew for every run of the simulator."""

from __future__ import annotations

import atexit
import functools
import shutil
import ssl
import subprocess
import tempfile
from pathlib import Path

from simulator.errors import CameraError

VERSIONS = {"1.2": ssl.TLSVersion.TLSv1_2, "1.3": ssl.TLSVersion.TLSv1_3}


@functools.lru_cache
def certificate() -> Path:
    """A file with a private key and its self-signed certificate; it lasts until the interpreter exits."""
    folder = Path(tempfile.mkdtemp(prefix="camcert", dir="/tmp"))
    atexit.register(shutil.rmtree, folder, ignore_errors=True)
    path = folder / "platform.pem"
    made = subprocess.run(
        ["openssl", "req", "-x509", "-newkey", "ec", "-pkeyopt", "ec_paramgen_curve:prime256v1", "-nodes", "-days", "2",
         "-subj", "/CN=platform", "-keyout", str(path), "-out", str(folder / "certificate.pem")],
        capture_output=True, text=True, check=False)
    if made.returncode != 0:
        raise CameraError(f"openssl made no certificate for the platform: {made.stderr.strip()}")
    with path.open("a") as file:
        file.write((folder / "certificate.pem").read_text())
    return path


def server_context(minimum: str = "1.2", maximum: str = "1.3") -> ssl.SSLContext:
    """A TLS server context with the certificate, for the versions "1.2" and "1.3"."""
    context = ssl.SSLContext(ssl.PROTOCOL_TLS_SERVER)
    context.load_cert_chain(certificate())
    context.minimum_version = VERSIONS[minimum]
    context.maximum_version = VERSIONS[maximum]
    return context
