"""What the handshakes of a download cost the platform's processor."""

from __future__ import annotations

import shlex
import subprocess
import tempfile
from pathlib import Path

from benchmarks import measuring
from benchmarks.comparison.results import Row, Series

GROUP = "The platform"
# A download of 75 faces: three pages, three reports.
CONNECTIONS = 6
KEYS = {"P-256": ["-algorithm", "EC", "-pkeyopt", "ec_paramgen_curve:P-256"],
        "RSA of 2048 bits": ["-algorithm", "RSA", "-pkeyopt", "rsa_keygen_bits:2048"]}
FUNCTION = "platform_step"
_SEVERAL = 20
FLOOR = ("One handshake of the six is a full one, a sixth by itself; a resumed one still derives keys, takes the "
         "ticket apart and compares hashes, a fifth of a full one with a P-256 key.")


def rows() -> tuple[list[Row], list[Series]]:
    found = []
    for name, words in KEYS.items():
        with tempfile.NamedTemporaryFile() as key:
            subprocess.run(["openssl", "genpkey", *words, "-out", key.name], capture_output=True, check=True)
            found.append(_row(key.name, name))
    return found, []


def _row(key: str, name: str) -> Row:
    one = _count(key, 1, 0)
    full = (_count(key, 1 + _SEVERAL, 0) - one) / _SEVERAL
    resumed = (_count(key, 1, _SEVERAL) - one) / _SEVERAL
    download = full + (CONNECTIONS - 1) * resumed
    return Row(GROUP, f"handshakes of a download of 75 faces, {name}", "full handshakes", download / CONNECTIONS / full,
               aim=0.3, tolerance=0.05, reason=FLOOR,
               parts={"a full handshake, thousand instructions": full / 1e3,
                      "a resumed one, thousand instructions": resumed / 1e3})


def _count(key: str, full: int, resumed: int) -> float:
    """Instructions of the platform's end of so many handshakes."""
    with tempfile.NamedTemporaryFile() as counts:
        subprocess.run([*shlex.split(measuring.callgrind(FUNCTION, counts.name)), measuring.program("handshakes"), key,
                        str(full), str(resumed)], capture_output=True, check=True, timeout=measuring.PATIENCE)
        return measuring.total(Path(counts.name).read_text())
