"""The service's log: its records, and which of them end a download."""

from __future__ import annotations

import re
from dataclasses import dataclass

_RECORD = re.compile(r"(\d{4}-\d\d-\d\dT\S+) (\w+) (\S+):(\d+) (.*)")


@dataclass(frozen=True)
class LogRecord:
    """One line of the service's standard error.

    A line that is not of the log's form has the level "" and its whole text in `text`. Control characters are escaped
    in `text` as the log escapes them (a line break reads \\n, two characters).
    """

    time: str
    level: str
    path: str
    line: int
    text: str


def parse_record(line: str) -> LogRecord:
    match = _RECORD.fullmatch(line)
    if match is None:
        return LogRecord("", "", "", 0, line)
    return LogRecord(match[1], match[2], match[3], int(match[4]), match[5])


def ends_download(text: str) -> bool:
    """Whether a record says that a download is over, by whatever cause: "... End " or "... Exception ..."."""
    return text.startswith("CustomJsonPicDownloadTask E")


def fails_download(text: str) -> bool:
    """Whether a record says that a page could not be fetched, which ends the download."""
    return text.startswith("DownloadPictureProcess fail.")
