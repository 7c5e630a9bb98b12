"""A run as one page to look at. That of a recorded run loads nothing from anywhere; that of a running one grows."""

from __future__ import annotations

import base64
import gzip
import hashlib
import html
import json
from collections.abc import Iterable
from pathlib import Path
from typing import Any

from simulator.trace.explanation import is_cut, shown_bytes
from simulator.trace.recording import Recording
from simulator.trace.story.chapter import Chapter, Failure
from simulator.trace.words import NAMES, SHORT_NAMES, Item

_FOLDER = Path(__file__).parent
_SCRIPTS = ("model", "messages/drawing", "search", "messages/rows", "messages/detail", "chapters", "overview", "tools",
            "trace")


def page(recording: Recording, chapters: list[Chapter]) -> str:
    """The page's HTML. What the processes said stands in it compressed, in letters that are no markup."""
    seconds = recording.entries[-1].time if recording.entries else 0.0
    known = batch(((item, chapter) for chapter in chapters for item in chapter.items), chapters,
                  (failure for chapter in chapters for failure in chapter.failures))
    about = {"began": recording.began, "about": recording.about, "cut": recording.cut}
    return _page("Recorded run", {**about, "batch": {**known, "seconds": seconds}}, _SCRIPTS, "")


def live_page(began: str, about: dict[str, Any]) -> str:
    """The page of a run that goes on: it asks its server for what happens."""
    return _page("Running camera", {"live": True, "began": began, "about": about, "batch": batch((), (), ())},
                 (*_SCRIPTS, "live"), " connect-src 'self';")


def batch(items: Iterable[tuple[Item, Chapter]], chapters: Iterable[Chapter],
          failures: Iterable[Failure]) -> dict[str, Any]:
    """Something of a run as the page takes it: what is new, and what has changed."""
    return {"items": [_item(item, chapter) for item, chapter in items],
            "chapters": [{name: getattr(chapter, name) for name in (
                "number", "title", "begin", "end", "phases", "pictures", "over")} for chapter in chapters],
            "failures": [vars(failure) for failure in failures]}


def _page(title: str, run: dict[str, Any], scripts: tuple[str, ...], policy: str) -> str:
    style = (_FOLDER / "trace.css").read_text(encoding="utf-8")
    script = "".join((_FOLDER / "scripts" / f"{name}.js").read_text(encoding="utf-8") for name in scripts)
    data = json.dumps({"names": NAMES, "short_names": SHORT_NAMES, **run}, separators=(",", ":"), default=str).encode()
    parts = {"title": html.escape(f"{title}, {run['began'][:19].replace('T', ' ')}"), "heading": title,
             "policy": f"default-src 'none'; script-src {_hash(script)}; style-src {_hash(style)};{policy} "
                       "base-uri 'none'; form-action 'none'",
             "style": style, "script": script, "run": base64.b64encode(gzip.compress(data, mtime=0)).decode()}
    text = (_FOLDER / "trace.html").read_text(encoding="utf-8")
    pieces = text.split("{{")
    return pieces[0] + "".join(parts[name] + rest for name, _, rest in (piece.partition("}}") for piece in pieces[1:]))


def _hash(text: str) -> str:
    return f"'sha256-{base64.b64encode(hashlib.sha256(text.encode()).digest()).decode()}'"


def _item(item: Item, chapter: Chapter) -> dict[str, Any]:
    return {"number": item.number, "chapter": chapter.number, "line": item.line, "time": item.time, "kind": item.kind,
            "from": item.source, "to": item.target, "title": item.title, "detail": item.detail, "text": item.text,
            "fault": item.fault, "connection": item.connection, "message": item.message, "socket": item.socket,
            "asks": item.asks, "answers": item.answers, "after": round(item.after, 6),
            "fields": [[part.name, part.offset, part.width, part.value] for part in item.fields],
            "bytes": {"size": item.size, "cut": item.size > len(item.data) or is_cut(item.data),
                      "parts": [[offset, part.hex()] for offset, part in item.parts or shown_bytes(item.data)]}}
