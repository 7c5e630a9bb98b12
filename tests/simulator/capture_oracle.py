"""What a capture of a recorded run must show, from the recording and docs/messages.md: nothing of the exporter."""

from __future__ import annotations

import base64
import json
import re
import struct
import subprocess
import zlib
from collections.abc import Iterator
from pathlib import Path
from typing import Any

from support import DEADLINE

ROOT = Path(__file__).resolve().parents[2]
DISSECTOR = ROOT / "contracts/camgate.lua"
# For root, newer releases run no scripts.
_TSHARK = ["bwrap", "--unshare-user", "--uid", "1000", "--gid", "1000", "--dev-bind", "/", "/", "tshark", "-n"]
FORMATS = {"u8": "<B", "u16": "<H", "u32": "<I", "i32": "<i", "u64": "<Q", "i64": "<q"}
_ESCAPES = ((b"=r", b"\r"), (b"=n", b"\n"), (b"=e", b"="))

# Direction ("" where there is none), offset, type and name of each field, by heading of docs/messages.md.
Fields = list[tuple[str, int, str, str]]


def documented() -> dict[str, Fields]:
    tables: dict[str, Fields] = {}
    heading = ""
    for line in (ROOT / "docs/messages.md").read_text(encoding="utf-8").splitlines():
        if line.startswith("#"):
            heading = line.partition(" ")[2]
        row = re.match(r"\| (?:(request|reply) \| )?(\d+) \| \d+ \| ([a-z]+\d+|char\[\d+\]) \| `(\w+)`", line)
        if row and not row[4].startswith("unused"):
            tables.setdefault(heading, []).append((row[1] or "", int(row[2]), row[3], row[4]))
    return tables


TABLES = documented()
COMMANDS = {int(heading[:4]): heading for heading in TABLES if heading[:4].isdigit()} | {1037: ""}
# The map request is a call, no message.
NAMES = sorted({name for heading, table in TABLES.items() if heading != "Map request" for _, _, _, name in table})


def decoded(data: bytes, heading: str, direction: str = "", base: int = 0) -> dict[str, str]:
    """The fields of a table that lie inside the bytes, as text."""
    found = {}
    for in_, offset, kind, name in TABLES.get(heading, []):
        place = base + offset
        if in_ != direction:
            continue
        if kind.startswith("char") and place < len(data):
            found[name] = data[place:place + int(kind[5:-1])].split(b"\0")[0].decode()
        elif kind in FORMATS and place + struct.calcsize(FORMATS[kind]) <= len(data):
            found[name] = str(struct.unpack_from(FORMATS[kind], data, place)[0])
    return found


def entries(path: Path) -> Iterator[dict[str, Any]]:
    """The entries of a recording, bytes decoded."""
    contents: dict[str, bytes] = {}
    for line in path.read_bytes().splitlines():
        text, _, packed = line.partition(b"\t")
        entry = json.loads(text)
        if entry.get("type") == "content":
            for escape, byte in _ESCAPES:
                packed = packed.replace(escape, byte)
            contents[entry["sha256"]] = zlib.decompress(packed)
            continue
        for name, value in entry.items():
            if isinstance(value, dict) and set(value) == {"base64"}:
                entry[name] = base64.b64decode(value["base64"])
            elif isinstance(value, dict) and set(value) == {"sha256", "size"}:
                entry[name] = contents.get(value["sha256"], value["size"])
        yield entry


def shown(capture: Path, *names: str, only: str = "camgate") -> list[dict[str, str]]:
    """The named fields of each packet, as tshark shows them; those that a packet lacks are left out."""
    command = [*_TSHARK, "-X", f"lua_script:{DISSECTOR}", "-r", str(capture), "-Y", only, "-T", "fields",
               "-E", "separator=/t", "-E", "occurrence=a", *(word for name in names for word in ("-e", name))]
    done = subprocess.run(command, capture_output=True, text=True, timeout=DEADLINE, check=True)
    assert "lua" not in done.stderr.lower(), done.stderr
    rows = [dict(zip(names, line.split("\t"))) for line in done.stdout.splitlines()]
    return [{name: value for name, value in row.items() if value} for row in rows]


def http_bodies(capture: Path, folder: Path) -> list[bytes]:
    """The bodies of all requests and responses, reassembled by Wireshark."""
    subprocess.run([*_TSHARK, "-q", "-r", str(capture), "--export-objects", f"http,{folder}"],
                   capture_output=True, timeout=DEADLINE, check=True)
    return sorted(path.read_bytes() for path in folder.iterdir())
