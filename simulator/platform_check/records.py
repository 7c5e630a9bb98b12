"""Checks of what is in a page: as many records as asked for, and the ones that were asked for."""

from __future__ import annotations

import json
from dataclasses import dataclass, field
from typing import Any

from simulator.messages.wire import PAGE_SIZE
from simulator.platform_check.answer import shown
from simulator.platform_check.check import Check, Finding, Subject, failed, passed
from simulator.platform_check.responses import FRAMED, exchanged

_FAR = 1_000_000  # records that no task has


@dataclass
class Page:
    """The records of a page by what tells them apart, or why there are none."""

    asked: str
    records: list[str] = field(default_factory=list)
    wrong: str = ""


def page(subject: Subject, start: int, count: int) -> Page:
    """The page at `start` of `count` records, asked for once."""
    def make() -> Page:
        found = Page(f"startIndex {start}, offset {count}")
        exchange, answer = exchanged(subject, start, count)
        if answer.wrong is not None:
            found.wrong = str(answer.wrong)
        elif answer.status != 200:
            found.wrong = f"status {answer.status} {answer.reason}".rstrip()
        elif exchange.longest > 5:
            found.wrong = f"an answer after {exchange.longest:.1f} s"
        else:
            _take_records(answer.body, found)
        return found
    return subject.once(("records", start, count), make)


def _first(subject: Subject) -> Page:
    return page(subject, 0, min(PAGE_SIZE, subject.faces))


def _last(subject: Subject) -> Page:
    """The page of the rest, as a camera asks for it."""
    start = (subject.faces - 1) // PAGE_SIZE * PAGE_SIZE
    return page(subject, start, subject.faces - start)


def _take_records(body: bytes, found: Page) -> None:
    try:
        document = json.loads(body)
    except ValueError:
        found.wrong = f"no JSON, but {shown(body)}"
        return
    records = _list_of(document)
    if records is None:
        found.wrong = f"JSON without a list of records: {shown(body)}"
    elif not all(isinstance(record, dict) for record in records):
        found.wrong = "a list in which not every record is an object"
    else:
        found.records = [str(record.get("credentialNumber") or json.dumps(record, sort_keys=True))
                         for record in records]


def _list_of(document: Any) -> list[Any] | None:
    """The list of records: what is called so, or the only list that there is."""
    if isinstance(document, dict):
        lists = [value for value in document.values() if isinstance(value, list)]
        named = document.get("records")
        return named if isinstance(named, list) else lists[0] if len(lists) == 1 else None
    return document if isinstance(document, list) else None


def _failed(one: Page, do: str) -> Finding:
    """What is wrong with a page: with its answer, else with how many records it has."""
    if one.wrong:
        return failed(f"{one.asked}: {one.wrong}", "answer every page as the first one: at once, with 200 and records")
    return failed(f"{one.asked}: {len(one.records)} records", do)


def _records(subject: Subject) -> Finding:
    count = min(PAGE_SIZE, subject.faces)
    first = _first(subject)
    twice = len(first.records) - len(set(first.records))
    if first.wrong:
        return failed(f"{first.asked}: {first.wrong}", "send a JSON object with a list \"records\", as the simulated "
                      "ITGT reads it; if yours reads another format, choose the other checks with --only")
    if len(first.records) != count:
        return failed(f"{first.asked}: {len(first.records)} records", "send as many as offset says; if there are fewer "
                      f"than {subject.faces} in the task, say so with --faces")
    if twice:
        return failed(f"{first.asked}: {twice} of {count} records came twice", "send each record once")
    return passed(f"{count} records of {count}, all different")


def _offset(subject: Subject) -> Finding:
    asked = [page(subject, 0, count) for count in (1, 15) if count <= subject.faces]
    for one, count in zip(asked, (1, 15)):
        if one.wrong or len(one.records) != count:
            return _failed(one, "send exactly as many records as offset says, while there are so many")
    return passed(f"{' and '.join(str(len(one.records)) for one in asked)} records when so many were asked for")


def _start_index(subject: Subject) -> Finding:
    do = "let startIndex be the number of records to leave out: 0 is the first record, 30 the thirty-first"
    faces, known = subject.faces, list(_first(subject).records)
    if faces > PAGE_SIZE:
        second = page(subject, PAGE_SIZE, min(PAGE_SIZE, faces - PAGE_SIZE))
        if second.wrong or not second.records:
            return _failed(second, do)
        if again := len(set(known) & set(second.records)):
            return failed(f"{second.asked}: {again} of its records stood on the page at 0", do)
        known += second.records
    tried = [start for start in (1, PAGE_SIZE, PAGE_SIZE + 1) if start < min(faces, len(known))]
    for start in tried:
        one = page(subject, start, 1)
        if one.wrong or not one.records:
            return _failed(one, do)
        if one.records[0] != known[start]:
            other = f"record {known.index(one.records[0])}" if one.records[0] in known else "another record"
            return failed(f"{one.asked}: {other}, not record {start}", do)
    return passed(f"at {', '.join(map(str, [0, *tried]))} came the records that belong there")


def _last_page(subject: Subject) -> Finding:
    last, rest = _last(subject), (subject.faces - 1) % PAGE_SIZE + 1
    if last.wrong or len(last.records) != rest:
        return _failed(last, f"send the rest, as many as offset says; if there are not {subject.faces} in the task, "
                       "say so with --faces; startIndex counts from 0")
    return passed(f"{last.asked}: {rest} records")


def _beyond(subject: Subject) -> Finding:
    known = {*_first(subject).records, *_last(subject).records}
    do = "send 200 and a page without records: a command's totalNum may be more than you hold by then"
    counts = []
    for start in (subject.faces, subject.faces + PAGE_SIZE, _FAR):
        one = page(subject, start, PAGE_SIZE)
        if one.wrong:
            return failed(f"{one.asked}, beyond the end: {one.wrong}", do)
        if again := len(known & set(one.records)):
            return failed(f"{one.asked}, beyond the end: {again} of its records stood on an earlier page", do)
        if len(one.records) > PAGE_SIZE:
            return failed(f"{one.asked}, beyond the end: {len(one.records)} records", do)
        counts.append(len(one.records))
    more = f"; it holds more than the {subject.faces} of --faces" if any(counts) else ""
    numbers = ", ".join(map(str, counts))
    return passed(f"at {subject.faces}, {subject.faces + PAGE_SIZE} and {_FAR:,}: {numbers} records{more}")


_WHO = "Who asks whom"
CHECKS = (
    Check("records", "a JSON page with as many different records as were asked for", _WHO, _records,
          ("answer-time", *FRAMED, "nul")),
    Check("offset", "as many records as `offset` says: 1 and 15", _WHO, _offset, ("records",)),
    Check("start-index", "at `startIndex` 0, 1, 30 and 31 the records that belong there", _WHO, _start_index,
          ("offset",)),
    Check("last-page", "the rest on the last page, no more and no fewer", _WHO, _last_page, ("start-index",)),
    Check("beyond-the-end", "200 and no record that was before, at and beyond the last record", _WHO, _beyond,
          ("last-page",)))
