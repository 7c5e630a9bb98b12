"""What `./demo` shows: moving bars on a terminal, plain lines without one."""

from __future__ import annotations

import time
from collections.abc import Iterator
from contextlib import contextmanager
from typing import Any

from rich.console import Console
from rich.progress import BarColumn, MofNCompleteColumn, Progress, TaskID, TextColumn, TimeElapsedColumn
from rich.table import Table
from rich.text import Text

from simulator.describe import describe, describe_notification
from simulator.itgt import IMPORTED
from simulator.journal import Event, Journal

NAMES = {"client": "client", "itgt": "ITGT", "faces": "face library", "platform": "platform", "events": "event cache",
          "service": "service", "demo": ""}
STYLES = {"client": "cyan", "itgt": "green", "faces": "magenta", "platform": "blue", "events": "yellow",
           "service": "dim"}
_LEVELS = {"ERROR": "red", "INFO": "", "DEBUG": "dim"}


class Display:
    """Writes to standard output; its methods may be called from any thread."""

    def __init__(self, verbose: bool) -> None:
        self.console = Console(highlight=False, markup=False, emoji=False, soft_wrap=True)
        self._verbose = verbose
        self._begin = time.monotonic()
        self._progress: Progress | None = None
        self._pages: TaskID | None = None
        self._pictures: tuple[int, TaskID] | None = None  # import task and bar of the current page

    def follow(self, journal: Journal) -> None:
        """Shows every event of a camera from here on."""
        journal.listen(self._show)

    def heading(self, text: str) -> None:
        self.console.print()
        self.console.print(Text(text, style="bold"))

    def line(self, source: str, text: str, style: str = "") -> None:
        """One line about a process of the camera ("demo": about none)."""
        self.console.print(Text.assemble((f"{time.monotonic() - self._begin:7.3f} s  ", "dim"),
                                         (f"{NAMES[source]:<13}", STYLES.get(source, "")), (text, style)))

    def summary(self, title: str, rows: dict[str, str]) -> None:
        table = Table(title=title, title_justify="left", title_style="bold", show_header=False)
        for name, value in rows.items():
            table.add_row(Text(name), Text(value))
        self.console.print()
        self.console.print(table)

    @contextmanager
    def download(self, pages: int) -> Iterator[None]:
        """Shows bars for a download of so many pages while the block runs, on a terminal."""
        if not self.console.is_terminal or self.console.is_dumb_terminal:
            yield
            return
        columns = (TextColumn("{task.description:<24}"), BarColumn(), MofNCompleteColumn(),
                   TextColumn("{task.fields[note]}"), TimeElapsedColumn())
        with Progress(*columns, console=self.console) as progress:
            self._progress = progress
            self._pages = progress.add_task("pages", total=pages, note="reported")
            try:
                yield
            finally:
                self._progress = None
                self._pictures = None

    def _show(self, event: Event) -> None:
        if self._verbose:
            self._show_message(event)
        shown = getattr(self, f"_show_{event.source}_{event.kind}", None)
        if shown is not None:
            shown(event)

    def _show_platform_page(self, event: Event) -> None:
        last = event.start + event.records - 1
        self.line("platform", f"serves records {event.start} to {last}, {event.bytes / 1e6:.1f} MB with their pictures")

    def _show_platform_report(self, event: Event) -> None:
        text = event.request.body.decode("utf-8", "backslashreplace")
        self.line("platform", f"got the report of {len(event.request.body)} bytes: {_cut(text, 260)}")
        if self._progress is not None and self._pages is not None:
            self._progress.advance(self._pages)

    def _show_itgt_page(self, event: Event) -> None:
        page = event.page
        self.line("itgt", f"got page file {page.file_name}, {len(page.records)} records, import task {page.task_id}")
        if self._progress is not None:
            if self._pictures is not None:
                self._progress.remove_task(self._pictures[1])
            bar = self._progress.add_task(f"pictures of {page.file_name}", total=len(page.records), note="imported")
            self._pictures = (page.task_id, bar)

    def _show_itgt_picture(self, event: Event) -> None:
        if self._progress is None:
            outcome = "imported" if event.result == IMPORTED else f"refused, result {event.result}"
            self.line("itgt", f"picture {event.done:>2} of {event.total}: {event.record_id} {outcome}")
        elif self._pictures is not None and self._pictures[0] == event.task_id:
            self._progress.advance(self._pictures[1])

    def _show_itgt_file(self, event: Event) -> None:
        self.line("itgt", f"wrote the import state file {event.path}")

    def _show_itgt_received(self, event: Event) -> None:
        if event.command == 1037:
            self.line("itgt", "got message 1037: the service is up")

    def _show_faces_cleared(self, event: Event) -> None:
        self.line("faces", f"clears its lists on request, status {event.status}")

    def _show_faces_file(self, event: Event) -> None:
        self.line("faces", f"hands out {event.path}: {event.content.decode('utf-8', 'backslashreplace')}")

    def _show_faces_list(self, event: Event) -> None:
        fields = event.face_list
        self.line("faces", f"got face list {fields['list_id']} \"{fields['list_name']}\", type {fields['list_type']}, "
                           f"on control {fields['on_control']}, threshold {fields['threshold']}")

    def _show_client_reply(self, event: Event) -> None:
        self.line("client", f"got the reply to its command {event.tag}: status {event.reply.status}")

    def _show_events_subscribed(self, event: Event) -> None:
        self.line("events", str(describe(event.data["data"])))

    def _show_service_started(self, event: Event) -> None:
        self.line("service", f"started, process {event.pid}")

    def _show_service_ended(self, event: Event) -> None:
        self.line("service", f"ended with code {event.exit_code}")

    def _show_message(self, event: Event) -> None:
        """The service's log, and every message on the wire, decoded."""
        if event.matches("service", "log"):
            record = event.record
            self.line("service", f"{record.level:<5} {record.path}:{record.line} {_cut(record.text)}",
                      _LEVELS.get(record.level, ""))
        elif event.kind in ("sent", "received"):
            arrow = "-->" if event.kind == "sent" else "<--"
            data: Any = event.data.get("message", event.data.get("data"))
            reply = event.source != "client" and event.kind == "sent"
            self.line(event.source, f"{arrow} {_cut(str(describe(data, reply)))}", "dim")
        elif event.matches("events", "notified"):
            self.line("events", f"--> {describe_notification(event.data['data'])}", "dim")
        elif event.matches("platform", "handshake"):
            self.line("platform", f"connection {event.connection}: {event.tls_version}, {event.cipher}", "dim")
        elif event.matches("platform", "request"):
            self.line("platform", "<-- " + _cut(event.request.raw.decode("utf-8", "backslashreplace")), "dim")
        elif event.matches("platform", "response"):
            head = event.response.encode().partition(b"\r\n\r\n")[0].decode()
            self.line("platform", "--> " + head.replace("\r\n", " | ") + f" ({len(event.response.body)} bytes)", "dim")


def _cut(text: str, limit: int = 900) -> str:
    text = text.replace("\r\n", " | ").replace("\n", " ")
    return text if len(text) <= limit else f"{text[:limit - 160]} ... {text[-150:]}"
