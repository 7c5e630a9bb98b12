"""What docs/messages.md calls the messages, and over what they go."""

from __future__ import annotations

from simulator.messages import wire
from simulator.trace.words import Item

HTTPS, CACHE, RING_BUFFER = "HTTPS", "/dev/cache", "metadata_servfile26214"
HEAD, COMMAND, REPLY = "Command head", "Command body", "Reply body"
SUBSCRIPTION = ("Subscription header", "Subscription body")
NOTIFICATION = ("Notification", "Buffer descriptor")
BUFFER = ("Mapped buffer", "Block header")
PAGE_REQUEST, PAGE, REPORT = "Page request", "Page and page file", "Task-result report"
FILES = {"service": PAGE, "itgt": "Import state file", "faces": "Face-list configuration file"}
RECORD = "Ring-buffer record"


def message_of(item: Item, fetching: bool) -> str:
    """The headings of the sections that describe an item, "" if none does; `fetching`: a page is fetched meanwhile."""
    if item.kind == "datagram":
        return _datagram(item)
    if item.kind == "request":
        return PAGE_REQUEST if fetching else REPORT
    if item.kind == "response":
        return PAGE if fetching and item.title.startswith("2") else ""
    if item.kind == "file":
        return FILES.get(item.source, "")
    return {"buffer": ", ".join(BUFFER), "ring_record": RECORD}.get(item.kind, "")


def socket_of(item: Item) -> str:
    """Over what an item goes: a socket, a node, a buffer's name."""
    return item.socket or {"request": HTTPS, "response": HTTPS, "step": HTTPS, "buffer": CACHE,
                           "ring_record": RING_BUFFER}.get(item.kind, "")


def _datagram(item: Item) -> str:
    if "events" in (item.source, item.target):
        names = SUBSCRIPTION if item.target == "events" else NOTIFICATION
        return ", ".join(names) if item.fields else ""
    if "client" in (item.source, item.target):
        known = {"command head": HEAD, "reply head": HEAD, "command": COMMAND, "reply:": REPLY}
        return known.get(item.title) or known.get(item.title.split(" ", 1)[0], "")
    command = wire.COMMANDS.get(wire.Message(item.data).command)
    return f"{command.code} {command.name}" if command else ""
