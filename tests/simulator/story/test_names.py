"""One set of names: what docs/messages.md calls fields, messages and sockets is what a trace calls them."""

from __future__ import annotations

import re
from pathlib import Path

import pytest

from simulator.messages import wire
from simulator.trace.story import names

DOCUMENT = (Path(__file__).resolve().parents[3] / "docs" / "messages.md").read_text(encoding="utf-8")
SECTION = re.compile(r"^#{2,3} (.+)\n((?:(?!#{2,3} ).*\n?)*)", re.MULTILINE)
SECTIONS = {match[1]: match[2] for match in SECTION.finditer(DOCUMENT)}
# A field; "bytes" are none, they carry nothing.
ROW = re.compile(r"^\|(?: (\w+) \|)? (\d+) \| (\d+) \| (?!bytes)\S+ \| `(\w+)` \|", re.MULTILINE)


def fields(section: str, direction: str = "") -> dict[str, tuple[int, int]]:
    """Offset and width of each field of a section, by name."""
    return {name: (int(offset), int(width)) for way, offset, width, name in ROW.findall(SECTIONS[section])
            if way == direction}


def described(table: wire.Table, moved: int = 0) -> dict[str, tuple[int, int]]:
    return {field.name: (field.offset - moved, field.end - field.offset) for field in table}


@pytest.mark.parametrize("section, table", [
    ("MSG_DATA", wire.HEADER), ("Command head", wire.HEAD), ("Notification", wire.NOTIFICATION),
    ("Buffer descriptor", wire.DESCRIPTOR), ("Block header", wire.BLOCK_HEADER)])
def test_fields_have_the_names_of_the_document(section: str, table: wire.Table) -> None:
    there = fields(section)
    assert described(table) and described(table).items() <= there.items()
    assert {name for name in there if not re.match("unused|payload", name)} <= set(described(table))


@pytest.mark.parametrize("code", wire.COMMANDS)
def test_payloads_have_the_names_of_the_document(code: int) -> None:
    command = wire.COMMANDS[code]
    section = f"{code} {command.name}"
    assert described(command.request) == fields(section, "request")
    assert described(command.reply) == fields(section, "reply")


def test_subscription_has_the_names_of_the_document() -> None:
    head, body = fields("Subscription header"), fields("Subscription body")
    named = {**head, **{name: (offset + 16, width) for name, (offset, width) in body.items()}}
    assert described(wire.SUBSCRIPTION) == {
        name: place for name, place in named.items() if not name.startswith("unused")}


@pytest.mark.parametrize("name", [
    names.HEAD, names.COMMAND, names.REPLY, *names.SUBSCRIPTION, *names.NOTIFICATION, *names.BUFFER,
    names.PAGE_REQUEST, names.PAGE, names.REPORT, *names.FILES.values(), names.RECORD,
    *(f"{command.code} {command.name}" for command in wire.COMMANDS.values())])
def test_messages_have_the_names_of_the_document(name: str) -> None:
    assert name in SECTIONS


@pytest.mark.parametrize("name", [
    wire.COMMAND_SOCKET, wire.CLIENT_SOCKET, wire.EXCHANGE_SOCKET, wire.ITGT_SOCKET, wire.FACE_LIBRARY_SOCKET,
    wire.EVENT_NODE, names.CACHE, names.RING_BUFFER, names.HTTPS])
def test_sockets_have_the_names_of_the_document(name: str) -> None:
    wires = DOCUMENT.partition("| Wire | Other end |")[2].partition("\n\n")[0]
    assert re.search(rf"[`| ]{re.escape(name)}[`| ]", wires)
