"""ITGT, the camera's analysis process, on /tmp/II."""

from __future__ import annotations

import base64
import binascii
import json
import threading
from collections.abc import Callable
from dataclasses import dataclass, field
from pathlib import Path
from typing import Any

from simulator.journal import Journal
from simulator.messages import wire
from simulator.peers.peer import MessagePeer, Reply, file_event
from simulator.peers.pictures import is_jpeg


@dataclass
class Import:
    """The import of one page file. `records` is what the platform sent, `results` what became of them so far."""

    task_id: int
    file_name: str
    records: list[dict[str, Any]]
    results: list[dict[str, Any]] = field(default_factory=list)
    polls: int = 0
    finished: bool = False


class Itgt(MessagePeer):
    """Imports page files picture by picture and tells how far it got.

    not_ready_answers   progress queries per page that are answered "not ready" whatever the import does
    picture_seconds     time to import one picture; 0: the page is imported before the 7020 request is answered
    time_text           the time that ITGT reports
    next_task_id        the import task id of the next page, beyond 32 bits so that a cut shows
    on_state_file       called with the state document before it is written; returns the bytes to write instead
    imports             what was or is being imported, by task id

    Journal: "page" with `page` (an Import), "picture" with `task_id`, `record_id`, `result`, `done`, `total`, "file"
    with `path` and `content` of the state file, "imported" with `task_id`.
    """

    name = "itgt"
    address = wire.ITGT_SOCKET

    def __init__(self, journal: Journal, folder: Path) -> None:
        super().__init__(journal, folder)
        self.not_ready_answers = 0
        self.picture_seconds = 0.0
        self.time_text = "2024-05-17 08:30:00"
        self.next_task_id = 4_300_000_001
        self.on_state_file: Callable[[dict[str, Any]], bytes] | None = None
        self.imports: dict[int, Import] = {}
        self._importers: list[threading.Thread] = []

    def stop(self) -> None:
        super().stop()
        for importer in self._importers:
            importer.join()
        self._importers.clear()

    def default(self, message: wire.Message) -> Reply:
        if message.command == wire.IMPORT_FILE:
            return self._accept(message)
        if message.command == wire.IMPORT_PROGRESS:
            return self._progress(message)
        if message.command == wire.IMPORT_TIME:
            return wire.encode_reply(message, PageTime=self.time_text)
        return None

    def _accept(self, message: wire.Message) -> Reply:
        path = message.request["ImportFileDirectory"] + message.request["ImportFileName"]
        page = Import(self.next_task_id, message.request["ImportFileName"], _records(self.outside(path)))
        self.next_task_id += 1
        self.imports[page.task_id] = page
        self.journal.add(self.name, "page", page=page)
        if self.picture_seconds > 0:
            importer = threading.Thread(target=self._import, args=(page,), name=f"import {page.file_name}", daemon=True)
            self._importers.append(importer)
            importer.start()
        else:
            self._import(page)
        return wire.encode_reply(message, ImportFileTaskId=page.task_id)

    def _import(self, page: Import) -> None:
        for record in page.records:
            if self.picture_seconds > 0 and self._stopping.wait(self.picture_seconds):
                return
            result = wire.IMPORTED if is_jpeg(_picture(record)) else wire.BAD_PICTURE
            # Told before it is so, because the thread that answers the service looks at the page meanwhile.
            self.journal.add(self.name, "picture", task_id=page.task_id, record_id=record.get("credentialNumber"),
                             result=result, done=len(page.results) + 1, total=len(page.records))
            page.results.append({"ID": record.get("credentialNumber"), "RESULT_TYPE_E": result})
        document = {"TaskResultArry": page.results}
        content = self.on_state_file(document) if self.on_state_file else json.dumps(document).encode()
        file_event(self, _state_file(page), content)
        self.journal.add(self.name, "imported", task_id=page.task_id, page=page)
        page.finished = True

    def _progress(self, message: wire.Message) -> Reply:
        page = self.imports.get(message.request["ProgressTaskId"])
        if page is None:
            return wire.encode_reply(message, ProgressStatus=0)
        page.polls += 1
        ready = page.finished and page.polls > self.not_ready_answers
        return wire.encode_reply(message, ProgressStatus=1 if ready else 0, ProgressTotal=len(page.records),
                                 ProgressCurrent=len(page.results), ProgressStatePath=_state_file(page))


def _state_file(page: Import) -> str:
    return f"/tmp/mmcblk0/face_basic/{page.file_name}.state.json"


def _records(path: Path) -> list[dict[str, Any]]:
    """The records of a page file; none if it is not the platform's document."""
    try:
        return [record for record in json.loads(path.read_bytes())["records"] if isinstance(record, dict)]
    except (OSError, ValueError, KeyError, TypeError):
        return []


def _picture(record: dict[str, Any]) -> bytes:
    try:
        return base64.b64decode(record["picture"], validate=True)
    except (KeyError, TypeError, binascii.Error):
        return b""
