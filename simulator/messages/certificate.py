"""The platform's own certificate, made anew for every run of the simulator."""

from __future__ import annotations

import atexit
import functools
import shutil
import ssl
import subprocess
import tempfile
import warnings
from pathlib import Path

from simulator.errors import CameraError

VERSIONS = {"1.1": ssl.TLSVersion.TLSv1_1, "1.2": ssl.TLSVersion.TLSv1_2, "1.3": ssl.TLSVersion.TLSv1_3}
# What can be wrong with a certificate; each is otherwise like the first.
KINDS = ("self-signed", "expired", "wrong-name", "unknown-issuer")

_KEY = ("-newkey", "ec", "-pkeyopt", "ec_paramgen_curve:prime256v1", "-nodes")


@functools.lru_cache
def certificate(kind: str = "self-signed") -> Path:
    """A file with a private key and its certificate of this kind; it lasts until the interpreter exits."""
    folder = Path(tempfile.mkdtemp(prefix="camcert", dir="/tmp"))
    atexit.register(shutil.rmtree, folder, ignore_errors=True)
    name = "elsewhere.invalid" if kind == "wrong-name" else "platform"
    _openssl(folder, "req", "-new", *_KEY, "-subj", f"/CN={name}", "-keyout", "key.pem", "-out", "request.pem")
    signer = ["-signkey", "key.pem"]
    if kind == "unknown-issuer":
        _openssl(folder, "req", "-x509", *_KEY, "-days", "2", "-subj", "/CN=Nobody knows me", "-keyout", "issuer.key",
                 "-out", "issuer.pem")
        signer = ["-CA", "issuer.pem", "-CAkey", "issuer.key", "-CAcreateserial"]
    (folder / "names").write_text(f"subjectAltName=DNS:{name}\n" if kind == "wrong-name" else
                                  f"subjectAltName=DNS:{name},DNS:localhost,IP:127.0.0.1,IP:::1\n")
    if kind == "expired":
        _make_expired(folder)
    else:
        _openssl(folder, "x509", "-req", "-in", "request.pem", *signer, "-days", "2", "-extfile", "names", "-out",
                 "certificate.pem")
    path = folder / "platform.pem"
    path.write_text((folder / "key.pem").read_text() + (folder / "certificate.pem").read_text())
    return path


def _make_expired(folder: Path) -> None:
    """Only "ca" takes a time that is over in every version; it wants to keep lists of what it has signed."""
    (folder / "index").touch()
    (folder / "ca.conf").write_text("[ca]\ndefault_ca=own\n[own]\ndatabase=index\nrand_serial=yes\nnew_certs_dir=.\n"
                                    "default_md=sha256\npolicy=any\n[any]\ncommonName=supplied\n")
    _openssl(folder, "ca", "-batch", "-config", "ca.conf", "-selfsign", "-keyfile", "key.pem", "-in", "request.pem",
             "-extfile", "names", "-startdate", "20200101000000Z", "-enddate", "20200102000000Z", "-notext", "-out",
             "certificate.pem")


def _openssl(folder: Path, *words: str) -> None:
    if shutil.which("openssl") is None:
        raise CameraError("openssl is not installed; run scripts/bootstrap or: apt-get install openssl")
    made = subprocess.run(["openssl", *words], cwd=folder, capture_output=True, text=True, check=False)
    if made.returncode != 0:
        raise CameraError(f"openssl made no certificate for the platform: {made.stderr.strip()}")


def server_context(minimum: str = "1.2", maximum: str = "1.3", kind: str = "self-signed") -> ssl.SSLContext:
    """A TLS server context with a certificate of a kind, for versions out of VERSIONS."""
    context = ssl.SSLContext(ssl.PROTOCOL_TLS_SERVER)
    context.load_cert_chain(certificate(kind))
    with warnings.catch_warnings():
        warnings.simplefilter("ignore", DeprecationWarning)  # old versions are offered to see them refused
        context.minimum_version = VERSIONS[minimum]
        context.maximum_version = VERSIONS[maximum]
    if minimum == "1.1":
        context.set_ciphers("DEFAULT:@SECLEVEL=0")
    return context


@functools.lru_cache
def described(certificate: bytes) -> str:
    """Who a certificate (DER) is for and from, and how long, in a line."""
    made = subprocess.run(["openssl", "x509", "-inform", "DER", "-noout", "-subject", "-issuer", "-enddate",
                           "-nameopt", "RFC2253"], input=certificate, capture_output=True, check=False)
    lines = dict(line.split("=", 1) for line in made.stdout.decode("utf-8", "backslashreplace").splitlines()
                 if "=" in line)
    if made.returncode != 0 or not {"subject", "issuer", "notAfter"} <= set(lines):
        return f"{len(certificate)} bytes that are no certificate"
    issuer = "itself" if lines["issuer"] == lines["subject"] else lines["issuer"]
    return f"{lines['subject'] or 'no name'}, issued by {issuer}, until {lines['notAfter']}"
