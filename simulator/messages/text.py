"""Any bytes as text for people: JSON laid out, long values cut, nothing in it that would steer a terminal."""

from __future__ import annotations

import functools
import json
from typing import Any

VALUE_LIMIT = 200  # characters
_TEXT_LIMIT = 4_000
_JSON_LIMIT = 16_000_000  # bytes of a document that is taken apart to show it
_DEPTH_LIMIT = 40


class LeftOut(bytes):
    """In place of bytes that are not here, only how many they are, and their SHA-256. Without them it is empty."""

    size: int
    sha256: str

    def __new__(cls, size: int, sha256: str) -> LeftOut:
        made = super().__new__(cls)
        made.size, made.sha256 = size, sha256
        return made

    def __bool__(self) -> bool:
        return True

    def __repr__(self) -> str:
        return f"({size(self)}, left out of the recording)"


def length(data: bytes) -> int:
    """How many bytes they are, or were."""
    return data.size if isinstance(data, LeftOut) else len(data)


def visible(text: str) -> str:
    """`text` with everything escaped that would steer a terminal or change the direction of writing."""
    return "".join(character if character.isprintable() or character == "\n" else _escaped(character)
                   for character in text)


def _escaped(character: str) -> str:
    code = ord(character)
    return f"\\x{code:02x}" if code < 256 else f"\\u{code:04x}" if code < 0x10000 else f"\\U{code:08x}"


def one_line(text: str, limit: int = VALUE_LIMIT) -> str:
    """`text` on one line, cut where it is long."""
    text = visible(" ".join(text[:4 * limit].split()))
    return text if len(text) <= limit else text[:limit - 1] + "…"


def printable(data: bytes) -> str:
    return data.decode("utf-8", "backslashreplace")


def size(data: bytes) -> str:
    return "1 byte" if length(data) == 1 else f"{length(data):,} bytes"


def as_text(data: bytes) -> str:
    """JSON in lines, long values cut; other text as it is; "" for what is neither."""
    if isinstance(data, LeftOut):
        return repr(data)
    document = document_of(data)
    text = json.dumps(_shortened(document), indent=2, ensure_ascii=False) if document is not None else None
    if text is None:
        start = data[:_TEXT_LIMIT]
        if any(byte < 32 and byte not in b"\t\r\n" for byte in start):
            return ""
        text = printable(start).replace("\r\n", "\n").replace("\t", "    ")
    cut = len(text) > _TEXT_LIMIT or document is None and len(data) > len(text)
    more = f"\n… ({size(data)} in all)" if cut else ""
    return visible(text[:_TEXT_LIMIT]) + more


def compact(data: bytes) -> str:
    """JSON without line breaks, long values cut; the first characters of anything else."""
    if isinstance(data, LeftOut):
        return "left out of the recording"
    document = document_of(data)
    return printable(data[:4 * VALUE_LIMIT]) if document is None \
        else json.dumps(_shortened(document), ensure_ascii=False)


@functools.lru_cache(maxsize=4)
def document_of(data: bytes) -> Any:
    """The JSON object or array that data is; None if it is none."""
    if data[:1] not in (b"{", b"[") or len(data) > _JSON_LIMIT:
        return None
    try:
        return json.loads(data)
    except (ValueError, RecursionError):
        return None


def _shortened(value: Any, depth: int = 0) -> Any:
    if isinstance(value, str) and len(value) > VALUE_LIMIT:
        return f"{value[:40]}… ({len(value):,} characters)"
    if depth > _DEPTH_LIMIT and isinstance(value, (list, dict)):
        return "…"
    if isinstance(value, list):
        return [_shortened(element, depth + 1) for element in value]
    return {name: _shortened(element, depth + 1) for name, element in value.items()} if isinstance(value, dict) \
        else value
