"""camsim check-platform: whether cameras can fetch from a platform, check by check."""

from __future__ import annotations

import argparse
from collections.abc import Iterator, Sequence
from contextlib import contextmanager
from pathlib import Path

from rich.console import Console
from rich.status import Status
from rich.table import Table
from rich.text import Text

from simulator.camera import build_folder
from simulator.cli import options
from simulator.cli.command_line import (DONE, FAILED, STOPPED, WRONG_ARGUMENTS, CodedError, Stopped, completing,
                                        print_json, stoppable)
from simulator.device.service import version_of
from simulator.errors import CameraError
from simulator.peers.real.address import address_of
from simulator.platform_check import check, junit
from simulator.platform_check.check import Check, Subject
from simulator.platform_check.kit import CHECKS, Result, examine
from simulator.trace.display import Display

HELP = "check whether cameras can fetch from a platform of your own, and say what to mend"
DESCRIPTION = """\
A test kit for whoever builds a platform: asks it for pages as cameras do, has the unchanged service fetch from
it, and gives a verdict on each thing that cameras rely on: what was seen, and what to do. The platform sees
requests and reports of cameras: give it a test task of 75 records, or say what it has with --faces and --set.
Exit code 0 if every check passed, perhaps with a warning; docs/platform-engineer.md explains each one."""
EXAMPLES = (
    "camsim check-platform https://localhost:9443/platform/whiteList",
    "camsim check-platform https://localhost:9443/pages --result-path /results --set taskID=T7 --faces 40",
    "camsim check-platform https://localhost:9443/pages --only length --only chunks",
    "camsim check-platform https://platform.example/pages --junit platform.xml")
_MEMBERS = ("cameraCode", "taskID", "sqbh", "datatime", "securityCode")
_STYLES = {check.PASSED: "green", check.WARNING: "yellow", check.FAILED: "bold red", check.NOT_JUDGED: "dim"}
_DOCUMENT = "docs/platform-engineer.md"
_MOST_FACES = 10_000


def add_arguments(parser: argparse.ArgumentParser) -> None:
    parser.add_argument("url", metavar="URL", help="where the platform's pages are: https://HOST:PORT/PATH")
    parser.add_argument("--result-path", metavar="PATH", help="where it takes results (the path of URL with Result "
                        "appended)")
    parser.add_argument("--faces", type=int, default=75, metavar="N",
                        help="how many records its test task has, at least (75)")
    parser.add_argument("--set", action="append", default=[], metavar="NAME=VALUE",
                        help=f"what cameras say of themselves and of the task: {', '.join(_MEMBERS)}; may be repeated")
    completing(parser.add_argument("--only", action="append", default=[], metavar="CHECK",
                                   help=f"make only this check; may be repeated: {', '.join(CHECKS)}"), *CHECKS)
    parser.add_argument("--junit", type=Path, metavar="FILE", help="also write the results to FILE as JUnit XML")
    options.add_service(parser)
    options.add_json(parser)


def run(arguments: argparse.Namespace) -> int:
    subject = _subject(arguments)
    service = subject.service or build_folder() / "bin" / "protocol_process"
    if not service.exists():  # what cannot be done is to be known before everything else is
        raise CameraError(f"{service} is missing; ./demo builds it")
    if arguments.junit:
        arguments.junit.touch()
    console = Display(False).console
    if not arguments.json:
        console.print(f"{arguments.url}, reports to {subject.address.result_path}, {subject.faces} records; "
                      f"the service has version {version_of(service) or 'unknown'}")
    results: list[Result] = []
    with stoppable():
        try:
            with _progress(console) as status:
                for result in examine(subject, arguments.only, lambda one: _tell(status, one)):
                    results.append(result)
                    print_json(_document(result)) if arguments.json else _show(console, result)
        except Stopped:
            return STOPPED
    if arguments.junit:
        junit.write(arguments.junit, arguments.url, results)
    counts = {verdict: [one.finding.verdict for one in results].count(verdict) for verdict in _STYLES}
    good = all(result.good for result in results)
    if arguments.json:
        print_json({"url": arguments.url, "good": good, **counts})
    else:
        console.print(_last_line(counts), style="bold green" if good else "bold red")
    return DONE if good else FAILED


def _subject(arguments: argparse.Namespace) -> Subject:
    try:
        address_of(arguments.url, arguments.result_path)
    except CameraError as error:
        raise CodedError(str(error), WRONG_ARGUMENTS) from error
    if not 1 <= arguments.faces <= _MOST_FACES:
        raise CodedError(f"--faces is 1 to {_MOST_FACES}", WRONG_ARGUMENTS)
    for name in arguments.only:
        if name not in CHECKS:
            raise CodedError(f"--only takes one of {', '.join(CHECKS)}, not {name!r}", WRONG_ARGUMENTS)
    info = {}
    for text in arguments.set:
        name, equals, value = text.partition("=")
        if not equals or name not in _MEMBERS:
            raise CodedError(f"--set takes NAME=VALUE with one of {', '.join(_MEMBERS)}, not {text!r}", WRONG_ARGUMENTS)
        info[name] = value
    return Subject(arguments.url, arguments.result_path, arguments.faces, info, options.service_of(arguments))


@contextmanager
def _progress(console: Console) -> Iterator[Status | None]:
    """A line at the bottom of a terminal, which says what is being checked."""
    if console.is_terminal and not console.is_dumb_terminal:
        with console.status("") as status:
            yield status
    else:
        yield None


def _tell(status: Status | None, one: Check) -> None:
    if status is not None:
        status.update(f"{one.name}: {one.demand} ...")


def _document(result: Result) -> dict[str, object]:
    finding = result.finding
    return {"check": result.check.name, "verdict": finding.verdict, "demand": result.check.demand, "seen": finding.seen,
            **({"do": finding.do, "section": result.check.section} if finding.do else {}),
            "seconds": round(result.seconds, 3)}


def _show(console: Console, result: Result) -> None:
    """A line; on a terminal, one whose ends stay below their beginnings."""
    finding = result.finding
    verdict = Text(finding.verdict.upper() if finding.verdict == check.FAILED else finding.verdict,
                   _STYLES[finding.verdict])
    do = f"{finding.do} ({_DOCUMENT}, \"{result.check.section}\")" if finding.do else ""
    if not console.is_terminal:
        console.print(f"{verdict.plain:<10}  {result.check.name:<14}  {finding.seen}" + (f" -> {do}" if do else ""))
        return
    grid = Table.grid(padding=(0, 2))
    grid.add_column(width=10)
    grid.add_column(width=14)
    grid.add_column()
    grid.add_row(verdict, Text(result.check.name), Text(finding.seen))
    if do:
        grid.add_row("", "", Text(f"-> {do}", "bold" if finding.verdict == check.FAILED else ""))
    console.print(grid, soft_wrap=False)


def _last_line(counts: dict[str, int]) -> str:
    said: Sequence[str] = [f"{count} {verdict}" for verdict, count in counts.items() if count]
    return ", ".join(said) + ("" if counts[check.FAILED] + counts[check.NOT_JUDGED] else
                              ": cameras can fetch from this platform")
