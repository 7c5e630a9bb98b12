"""`camsim trace FILE`: explains a recorded run."""

from __future__ import annotations

import argparse
import json
from collections.abc import Callable
from pathlib import Path
from typing import Any

from rich.text import Text

from simulator.errors import CameraError
from simulator.trace.chapters import Chapter, chapters_of
from simulator.trace.comparison import NOT_COMPARED, compare, counts
from simulator.trace.diagram import STYLES
from simulator.trace.page.web_page import page
from simulator.trace.recording import Recording, read
from simulator.trace.terminal.clock import wall_clock
from simulator.trace.terminal.output import say
from simulator.trace.terminal.terminal import Terminal
from simulator.trace.words import NAMES, Item

HELP = "explain a recorded run: as text, as JSON, or as a page to look at"
EXAMPLES = ("camsim trace gate.run", "camsim trace gate.run --html gate.html",
            "camsim trace gate.run --compare other.run", "camsim trace gate.run --json | less")


def add_arguments(parser: argparse.ArgumentParser) -> None:
    parser.add_argument("file", type=Path, metavar="FILE", help="a recorded run")
    form = parser.add_mutually_exclusive_group()
    form.add_argument("--json", action="store_true", help="print it as JSON")
    form.add_argument("--html", type=Path, metavar="OUT", help="write it as one page for a browser")
    form.add_argument("--compare", type=Path, metavar="OTHER", help="show the first byte in which another recording of "
                      "the same scenario differs; exit code 1 if it does")


def run(arguments: argparse.Namespace) -> int:
    recording = read(arguments.file)
    if arguments.compare:
        return show_comparison(recording, read(arguments.compare))
    chapters = chapters_of(recording)
    if arguments.json:
        print(json.dumps(as_document(recording, chapters), indent=2))
        return 0
    if arguments.html:
        return write_page(arguments.html, page(recording, chapters))
    show(recording, chapters)
    return 0


def write_page(path: Path, text: str) -> int:
    try:
        path.write_text(text, encoding="utf-8")
    except OSError as error:
        raise CameraError(f"the page cannot be written: {error}") from error
    say(f"{path}: open it in a browser ({path.stat().st_size / 1e6:.1f} MB)")
    return 0


def show(recording: Recording, chapters: list[Chapter]) -> None:
    console = Terminal()
    clock = wall_clock(recording.began)
    console.print(summary(recording, chapters))
    for chapter in chapters:
        console.print()
        console.print(Text(f"{chapter.title}   {chapter.begin:.3f} s to {chapter.end:.3f} s", style="bold"))
        for item in chapter.items:
            console.print_hanging(_line(item, clock))


def show_comparison(one: Recording, other: Recording) -> int:
    differences = compare(one, other)
    for line in differences or [f"the same: {', '.join(f'{number} {name}' for name, number in counts(one).items())}"]:
        say(line)
    say("not compared: " + ", ".join(NOT_COMPARED))
    return 1 if differences else 0


def summary(recording: Recording, chapters: list[Chapter]) -> str:
    """One line about the whole run."""
    kinds = [item.kind for chapter in chapters for item in chapter.items]
    counts = [f"{kinds.count(kind)} {name}" for kind, name in (
        ("datagram", "datagrams"), ("request", "HTTPS requests"), ("file", "files"), ("log", "log records"),
        ("fault", "faults"))]
    cut = "; its end is missing, because the run was killed" if recording.cut else ""
    version = f", version {recording.about['version']}" if recording.about.get("version") else ""
    cut += "" if recording.bodies else "; it was recorded without long bodies"
    build = f"{version}, build {recording.about['build']}" if "build" in recording.about else version
    last = recording.entries[-1].time if recording.entries else 0.0
    return f"recorded {recording.began[:19].replace('T', ' ')} UTC{build}, {last:.1f} s: {', '.join(counts)}{cut}"


def _line(item: Item, clock: Callable[[float], str]) -> Text:
    who = NAMES.get(item.source, item.source)
    if item.target:
        who += f" → {NAMES.get(item.target, item.target)}"
    style = "dim" if item.kind in ("log", "note", "connection") else ""
    line = Text.assemble((f"{item.time:9.3f} s  {clock(item.time):<14}", "dim"),
                         (f"{who:<23}", STYLES.get(_peer(item), "")),
                         (item.title, style or "bold"), ("  " + item.detail if item.detail else "", style))
    if item.fault:
        line.append(f"  [fault: {item.fault}]", "bold red")
    return line


def _peer(item: Item) -> str:
    return item.target if item.source == "service" and item.target else item.source


def as_document(recording: Recording, chapters: list[Chapter]) -> dict[str, Any]:
    """The trace for programs; `line` is an item's line in the recording, which has its bytes."""
    return {"began": recording.began, "about": recording.about, "cut": recording.cut, "chapters": [
        {"title": chapter.title, "begin": chapter.begin, "end": chapter.end, "pictures": chapter.pictures,
         "phases": [{"name": name, "begin": begin, "end": end} for name, begin, end in chapter.phases],
         "items": [_item_document(item) for item in chapter.items]} for chapter in chapters]}


def _item_document(item: Item) -> dict[str, Any]:
    return {"line": item.line, "time": item.time, "kind": item.kind, "from": item.source, "to": item.target or None,
            "title": item.title, "detail": item.detail, "size": item.size, "fault": item.fault or None,
            "connection": item.connection or None,
            "fields": [{"name": part.name, "offset": part.offset, "width": part.width, "value": part.value}
                       for part in item.fields]}
