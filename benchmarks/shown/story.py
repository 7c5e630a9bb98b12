"""What the page says of the figures: a chapter for each thing that costs something.

A sentence names its figures in braces, as "group: name" for the value of a row, with " / part" for a part of it, and
with " ÷ 1000" for thousands. One whose figures were not measured is left out.
"""

from __future__ import annotations

import re
from collections.abc import Callable
from dataclasses import dataclass

from benchmarks.comparison.results import Results, Row
from benchmarks.shown import plots

CAMERAS = 100_000
# A download of 75 faces: pages, the faces of a whole one, and connections.
PAGES, FACES, FACES_A_PAGE, CONNECTIONS = 3, 75, 30, 6


@dataclass(frozen=True)
class Bars:
    """A plot of bars: what each is called, and its figure."""

    title: str
    unit: str
    figures: dict[str, str]


@dataclass(frozen=True)
class Line:
    """A plot of a series of points."""

    series: str


@dataclass(frozen=True)
class Chapter:
    """begins: how the keys of the rows that it tells of begin. They stand below it."""

    title: str
    sentences: tuple[str, ...]
    plot: Bars | Line
    begins: tuple[str, ...]

    def tells_of(self, row: Row) -> bool:
        return row.key.startswith(self.begins)

    def missed(self, results: Results) -> list[str]:
        """A sentence for each reason of missed aims."""
        named: dict[str, list[str]] = {}
        for row in results.rows:
            if self.tells_of(row) and not row.meets_aim:
                named.setdefault(row.reason, []).append(
                    f"{row.name} is {plots.number(row.value)} ({plots.number(row.aim or 0)} was wanted)")
        return [f"Missed: {'; '.join(names)}. {reason}".rstrip() for reason, names in named.items()]


FLEET = Chapter("What 100,000 cameras cost", (
    "A download of 75 faces is three pages and six connections, of which five resume the TLS session of the first. "
    "A full handshake takes a platform "
    "{The platform: handshakes of a download of 75 faces, P-256 / a full handshake, thousand instructions ÷ 1000} "
    "million instructions with a P-256 key, and "
    "{The platform: handshakes of a download of 75 faces, RSA of 2048 bits / a full handshake, thousand instructions "
    "÷ 1000} million with RSA of 2048 bits; a resumed one takes "
    "{The platform: handshakes of a download of 75 faces, P-256 / a resumed one, thousand instructions ÷ 1000} "
    "million.",
    "The handshakes of 100,000 downloads therefore take it {fleet: billions} billion instructions in place of "
    "{fleet: full billions}; with RSA {fleet: RSA billions} in place of {fleet: full RSA billions}.",
    "They bring {fleet: TB} TB down the line, and their cameras wait for {fleet: million round trips} million round "
    "trips in all, {fleet: saved round trips} million fewer than without resumption."),
    Bars("Handshakes of 100,000 downloads", "billion instructions", {
        "P-256, resumed": "fleet: billions", "P-256, all in full": "fleet: full billions",
        "RSA, resumed": "fleet: RSA billions", "RSA, all in full": "fleet: full RSA billions"}),
    ("The platform: ",))
CHAPTERS = (
    Chapter("What a page costs the camera", (
        "A page has up to 30 faces and some 4.5 MB. To fetch it, keep it and report what became of it takes the camera "
        "{A page: instructions / service, million} million instructions.",
        "A program on libcurl that does the two requests, writes the file and nothing else takes "
        "{A page: instructions / program on libcurl, million} million; the curl command, two processes, takes "
        "{A page: instructions / curl command, million} million.",
        "The service is below both because it makes its TLS context once, reads what has come in one go, and resumes "
        "the TLS session of the connection before.",
        "It needs {A page: system calls} system calls for a page, the program on libcurl "
        "{A page: system calls / program on libcurl}.",
        "The page's text is held once, so that a page that is cut off leaves no file: that is "
        "{A page: page faults} pages of memory which the kernel supplies and takes back, and the reason why processor "
        "time is {A page: processor time, user and system} times that of the program on libcurl, which holds 16 KB."),
        Bars("Instructions of a page with its report", "million instructions", {
            "service": "A page: instructions / service, million",
            "program on libcurl": "A page: instructions / program on libcurl, million",
            "curl command": "A page: instructions / curl command, million"}), ("A page: ",)),
    Chapter("What a page costs the line", (
        "A page with its report waits for the line {The line: round trips of a page with its report} times: each of "
        "its two connections once for TCP, once for TLS and once for the answer. The first page of a download waits "
        "{The line: round trips of a page with its report / service, first page of a download} times, since a full "
        "handshake takes two; a program that resumes nothing waits "
        "{The line: round trips of a page with its report / program on libcurl, each further page} times for every "
        "page.",
        "Where a round trip takes 200 ms, a page with its report takes "
        "{The line: a page with its report, 200 ms a round trip / service, ms} ms, and "
        "{The line: a page with its report, 200 ms a round trip / program on libcurl, ms} ms with the program on "
        "libcurl. What is more than the round trips is the platform's TCP, which begins with ten packets and doubles.",
        "On the wire a page is {The line: bytes on the wire of a page with its report} times its size, with the "
        "headers of all packets in both directions."),
        Line("A page with its report on a longer line"), ("The line: ",)),
    Chapter("What a command costs", (
        "A faceNotHitDown takes {A command: faceNotHitDown: instructions} thousand instructions and "
        "{A command: faceNotHitDown: system calls} system calls, from the datagram to the reply: "
        "{A command: faceNotHitDown: instructions / reading JSON, thousand} thousand to read its JSON, "
        "{A command: faceNotHitDown: instructions / writing JSON, thousand} thousand to write JSON, and {A command: "
        "faceNotHitDown: instructions / stand-in of the log, thousand} thousand in the stand-in of the log.",
        "Its client waits {A command: faceNotHitDown: round trip, median / service, median, µs} µs for the reply, of "
        "which a loop that only receives and answers would take "
        "{A command: faceNotHitDown: round trip, median / bare loop, median, µs} µs.",
        "Without the stand-ins of log and ring buffer, which on the camera are the vendor's, it would be "
        "{A command: faceNotHitDown, empty platform: round trip, median / service, median, µs} µs."),
        Line("Round trips of faceNotHitDown"), ("A command: ",)),
    Chapter("What a metadata record costs", (
        "A record of 10 KB takes {A metadata record: 10 KB: instructions / service, thousand ÷ 1000} million "
        "instructions; {A metadata record: 10 KB: instructions / parser alone, thousand ÷ 1000} million of them are "
        "the JSON library's, which would take them anywhere.",),
        Line("A record through the receive task"), ("A metadata record: ",)),
    Chapter("What a second of idling costs", (
        "With nothing to do the service wakes up {Standing by: wake-ups when idle} times a second, with "
        "{Standing by: threads when idle} threads and {Standing by: descriptors when idle} descriptors.",
        "It holds {Standing by: private memory when idle / service, KiB} KiB of memory for itself alone; the smallest "
        "server with the same libraries holds {Standing by: private memory when idle / smallest server, KiB} KiB."),
        Bars("Private memory when idle", "KiB", {
            "service": "Standing by: private memory when idle / service, KiB",
            "smallest server": "Standing by: private memory when idle / smallest server, KiB"}),
        tuple(f"Standing by: {what}" for what in ("wake", "private", "threads", "descriptors", "stripped"))),
    Chapter("What a start costs", (
        "From its start to its command socket it takes {Standing by: start to command socket / service, ms} ms, the "
        "smallest server {Standing by: start to command socket / smallest server, ms} ms: nearly all of it is the "
        "dynamic linker's and OpenSSL's.",
        "Start and stop together take {Standing by: start and stop: instructions / service, million} million "
        "instructions, {Standing by: start and stop: instructions} times those of the smallest server."),
        Bars("Start and stop", "million instructions", {
            "service": "Standing by: start and stop: instructions / service, million",
            "smallest server": "Standing by: start and stop: instructions / smallest server, million"}),
        ("Standing by: start",)),
    Chapter("What the camera's own processor does", (
        "In instructions of a 32-bit ARM without help for AES, counted by its emulator: a page with its report takes "
        "{The camera's processor: a page with its report, without its pictures} million, and "
        "{The camera's processor: each MB of a page} million for each MB of pictures, nearly all of it to decrypt.",
        "A command takes {The camera's processor: a command, faceNotHitDown} thousand instructions, a record of 10 KB "
        "{The camera's processor: a record of 10 KB / service, thousand ÷ 1000} million, start and stop "
        "{The camera's processor: start and stop / service, million} million."),
        Bars("A megabyte of a page, and a start", "million instructions", {
            "each MB of a page": "The camera's processor: each MB of a page",
            "start and stop": "The camera's processor: start and stop / service, million"}),
        ("The camera's processor: ",)),
    FLEET,
    Chapter("What the pieces of work cost", (), Bars("Instructions of one round", "instructions", {
        "request": "Pieces of work: requestDocument", "message": "Pieces of work: messageBuilding",
        "command": "Pieces of work: commandDecoding", "report": "Pieces of work: reportDocument"}),
        ("Pieces of work: ",)),
)


class Figures:
    """The figures of a run by the names that sentences use."""

    def __init__(self, results: Results) -> None:
        self._values = {row.key: row.value for row in results.rows}
        self._values |= {f"{row.key} / {part}": value for row in results.rows for part, value in row.parts.items()}
        for name, work in _FLEET.items():
            try:
                self._values[f"fleet: {name}"] = work(self)
            except KeyError:
                continue

    def __getitem__(self, name: str) -> float:
        return self._values[name]

    def sentence(self, template: str) -> str | None:
        """The template with its figures; None when one was not measured."""
        try:
            return re.sub(r"\{([^}÷]+)( ÷ 1000)?\}",
                          lambda match: plots.number(self[match[1]] / (1000 if match[2] else 1)), template)
        except KeyError:
            return None

    def bars(self, wanted: Bars) -> dict[str, float]:
        """The bars of a plot; none when one was not measured."""
        try:
            return {name: self[figure] for name, figure in wanted.figures.items()}
        except KeyError:
            return {}


def _handshakes(key: str, full: int) -> Callable[[Figures], float]:
    """Billions of instructions for the handshakes of all downloads, so many of each in full."""
    row = f"The platform: handshakes of a download of 75 faces, {key}"
    return lambda figures: CAMERAS / 1e6 * (
        full * figures[f"{row} / a full handshake, thousand instructions"]
        + (CONNECTIONS - full) * figures[f"{row} / a resumed one, thousand instructions"])


def _round_trips(figures: Figures) -> float:
    row = "The line: round trips of a page with its report"
    return CAMERAS / 1e6 * (figures[f"{row} / service, first page of a download"] + (PAGES - 1) * figures[row])


def _saved(figures: Figures) -> float:
    row = "The line: round trips of a page with its report"
    return CAMERAS / 1e6 * PAGES * figures[f"{row} / program on libcurl, each further page"] - _round_trips(figures)


_FLEET: dict[str, Callable[[Figures], float]] = {
    "billions": _handshakes("P-256", 1), "full billions": _handshakes("P-256", CONNECTIONS),
    "RSA billions": _handshakes("RSA of 2048 bits", 1),
    "full RSA billions": _handshakes("RSA of 2048 bits", CONNECTIONS),
    "TB": lambda figures: CAMERAS / 1e6 * FACES / FACES_A_PAGE
    * figures["The line: bytes on the wire of a page with its report / service, MB down"],
    "million round trips": _round_trips, "saved round trips": _saved}
