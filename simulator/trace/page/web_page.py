"""A recorded run as one page to look at: self-contained, nothing in it is loaded from anywhere."""

from __future__ import annotations

import base64
import gzip
import hashlib
import html
import json
from pathlib import Path
from typing import Any

from simulator.trace.chapters import Chapter
from simulator.trace.explanation import is_cut, shown_bytes
from simulator.trace.recording import Recording
from simulator.trace.words import NAMES, SHORT_NAMES, Item

_FOLDER = Path(__file__).parent


def page(recording: Recording, chapters: list[Chapter]) -> str:
    """The page's HTML. What the processes said stands in it compressed, in letters that are no markup."""
    style = (_FOLDER / "trace.css").read_text(encoding="utf-8")
    script = "".join((_FOLDER / name).read_text(encoding="utf-8") for name in ("search.js", "trace.js", "detail.js"))
    data = json.dumps(_run(recording, chapters), separators=(",", ":")).encode()
    parts = {"title": html.escape(f"Recorded run, {recording.began[:19].replace('T', ' ')}"),
             "policy": f"default-src 'none'; script-src {_hash(script)}; style-src {_hash(style)}; base-uri 'none'; "
                       "form-action 'none'",
             "style": style, "script": script, "run": base64.b64encode(gzip.compress(data, mtime=0)).decode()}
    text = (_FOLDER / "trace.html").read_text(encoding="utf-8")
    pieces = text.split("{{")
    return pieces[0] + "".join(parts[name] + rest for name, _, rest in (piece.partition("}}") for piece in pieces[1:]))


def _hash(text: str) -> str:
    return f"'sha256-{base64.b64encode(hashlib.sha256(text.encode()).digest()).decode()}'"


def _run(recording: Recording, chapters: list[Chapter]) -> dict[str, Any]:
    return {"names": NAMES, "short_names": SHORT_NAMES,
            "began": recording.began, "about": recording.about, "cut": recording.cut,
            "seconds": recording.entries[-1].time if recording.entries else 0.0,
            "chapters": [{"title": chapter.title, "begin": chapter.begin, "end": chapter.end,
                          "phases": chapter.phases, "pictures": chapter.pictures,
                          "items": [_item(item) for item in chapter.items]} for chapter in chapters]}


def _item(item: Item) -> dict[str, Any]:
    return {"line": item.line, "time": item.time, "kind": item.kind, "from": item.source, "to": item.target,
            "title": item.title, "detail": item.detail, "text": item.text, "fault": item.fault,
            "connection": item.connection,
            "fields": [[part.name, part.offset, part.width, part.value] for part in item.fields],
            "bytes": {"size": item.size, "cut": item.size > len(item.data) or is_cut(item.data),
                      "parts": [[offset, part.hex()] for offset, part in item.parts or shown_bytes(item.data)]}}
