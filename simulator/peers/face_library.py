"""The face-library process on /tmp/A."""

from __future__ import annotations

import json
from pathlib import Path
from typing import Any

from simulator.journal import Journal
from simulator.messages import wire
from simulator.peers.peer import MessagePeer, Reply, file_event


class FaceLibrary(MessagePeer):
    """Clears its face lists on request, hands out the configuration to apply afterwards, and takes the lists back.

    lists               the face lists that the configuration file holds
    configuration       bytes to write into the file instead of the lists; None for the lists
    configuration_path  where the file lies on the camera; it is written at every clear request
    status              status word of the clear reply, 0 for success
    applied             the face lists that were set, as payload fields, in order

    Journal: "cleared" with `status`, "file" with `path` and `content`, "list" with the payload fields as `face_list`.
    Replies keep the request's header unchanged.
    """

    name = "faces"
    address = wire.FACE_LIBRARY_SOCKET

    def __init__(self, journal: Journal, folder: Path) -> None:
        super().__init__(journal, folder)
        self.lists: list[dict[str, Any]] = [
            face_list(1, "Staff"), face_list(2, "Visitors", threshold=75), face_list(3, "Watched", list_type=2)]
        self.configuration: bytes | None = None
        self.configuration_path = "/tmp/mmcblk0/face_basic/facelists.json"
        self.status = 0
        self.applied: list[dict[str, Any]] = []

    def default(self, message: wire.Message) -> Reply:
        if message.command == wire.CLEAR_LISTS:
            return self._clear(message)
        if message.command == wire.SET_LIST:
            self.applied.append(message.request)
            self.journal.add(self.name, "list", face_list=message.request)
            return wire.encode_reply(message, same_header=True)
        return None

    def _clear(self, message: wire.Message) -> Reply:
        content = self.configuration
        if content is None:
            content = json.dumps({"FaceListsArry": self.lists}, ensure_ascii=False).encode()
        self.journal.add(self.name, "cleared", status=self.status)
        file_event(self, self.configuration_path, content)
        return wire.encode_reply(message, same_header=True, ClearStatus=self.status,
                                 ClearConfigPath=self.configuration_path)


def face_list(list_id: Any, name: Any, *, list_type: Any = 1, on_control: Any = 1,
              threshold: Any = 80) -> dict[str, Any]:
    """One element of the configuration's "FaceListsArry"."""
    return {"ID": list_id, "FaceListName": name, "FaceListType": list_type, "OnControl": on_control,
            "Threshold": threshold}
