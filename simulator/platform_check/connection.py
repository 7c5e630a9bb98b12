"""Checks of the way to the platform: TCP and TLS."""

from __future__ import annotations

import socket
import ssl
import time
import warnings

from simulator.peers.real.address import Address
from simulator.peers.real.asking import GRANTED, connect, reason
from simulator.platform_check.check import NEARLY, Check, Finding, Subject, failed, passed, warning

_SUITE = "ECDHE-RSA-AES128-GCM-SHA256"
_DO_TLS = f"offer TLS 1.2 with a suite with ECDHE and AES-GCM, for example {_SUITE}, or ECDHE-ECDSA-... for an EC key"


def _reachable(subject: Subject) -> Finding:
    address, begin = subject.address, time.monotonic()
    do = f"start the server, let it listen at {address}, and open that port in every firewall between"
    try:
        address.connect(GRANTED).close()
    except OSError as error:
        return failed(reason(error), do)
    seconds = time.monotonic() - begin
    seen = f"{address} took a connection after {seconds:.3f} s"
    return warning(f"{seen}, of {GRANTED:g} s for connection and handshake", "look for what delays connections"
                   ) if seconds > GRANTED * NEARLY else passed(seen)


def _tls(subject: Subject) -> Finding:
    begin = time.monotonic()
    try:
        with connect(subject.address) as upstream:
            seconds, tls = time.monotonic() - begin, upstream.tls()
    except OSError as error:
        return failed(*_why_no_tls(subject.address, error))
    seen = f"{tls['tls_version']}, {tls['cipher']}, after {seconds:.3f} s"
    do = "have the handshake end sooner: it has 5 s in total, on a camera's line"
    if seconds > GRANTED:
        return failed(seen, do)
    return warning(seen, do) if seconds > GRANTED * NEARLY else passed(seen)


def _why_no_tls(address: Address, error: OSError) -> tuple[str, str]:
    """What was seen of a handshake that failed, and what to do: by a look at what the server has for others."""
    seen = reason(error)
    if isinstance(error, TimeoutError):
        return seen, "have the server take part in the handshake: a camera waits 5 s"
    if getattr(error, "reason", "") in ("WRONG_VERSION_NUMBER", "HTTP_REQUEST", "PACKET_LENGTH_TOO_LONG"):
        return f"what came is no TLS ({seen}): perhaps HTTP without TLS", f"serve HTTPS at this port; {_DO_TLS}"
    other = _other_tls(address)
    if other is None:
        return f"the handshake failed for a camera and for a client with any TLS: {seen}", (
            f"look into the server's log, and demand no certificate of the client; {_DO_TLS}")
    return f"the handshake failed: {seen}. For others the server has {other}, which no camera has", _DO_TLS


def _other_tls(address: Address) -> str | None:
    """Version and suite that the server has for a client that takes anything."""
    context = ssl.SSLContext(ssl.PROTOCOL_TLS_CLIENT)
    context.check_hostname, context.verify_mode = False, ssl.CERT_NONE
    with warnings.catch_warnings():
        warnings.simplefilter("ignore", DeprecationWarning)  # old versions are tried to name them
        context.minimum_version = ssl.TLSVersion.TLSv1
    context.set_ciphers("ALL:@SECLEVEL=0")
    try:
        with address.connect(GRANTED) as plain, context.wrap_socket(plain, server_hostname=address.server_name) as one:
            return f"{one.version()} with {(one.cipher() or ('no suite',))[0]}"
    except (OSError, socket.timeout):
        return None


def _resumption(subject: Subject) -> Finding:
    with connect(subject.address) as first:
        session = first.session
    with connect(subject.address, session) as second:
        resumed = second.resumed
    return passed("the second connection resumed the session of the first") if resumed else warning(
        "each connection costs the server a full handshake", "offer session tickets or session ids: within a download "
        "a camera resumes, which matters with many cameras")


CHECKS = (
    Check("reachable", "a TCP connection within 5 s", "Connection", _reachable),
    Check("tls", "TLS 1.2 with a suite that cameras have, within 5 s with the connection", "Connection", _tls,
          ("reachable",)),
    Check("resumption", "TLS sessions are resumed, by ticket or session id; else a warning", "Connection", _resumption,
          ("tls",)))
