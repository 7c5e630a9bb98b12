"""The comparison of benchmark figures, and the page that shows them. Nothing is measured here."""

from __future__ import annotations

import html
import json
import os
import struct
import xml.etree.ElementTree as ElementTree
from html.parser import HTMLParser
from pathlib import Path

import pytest

import benchmarks
from benchmarks.comparison import results, turns
from benchmarks.line import packets
from benchmarks.shown import documents, plots, report, story

COMMITTED = Path(benchmarks.__file__).parent / "results.json"
FIGURES = """{
 "rows": [
  {"group": "A page", "name": "instructions", "against": "a <program>", "value": 0.9, "unit": "", "tolerance": 0.1,
   "aim": 1.0, "parts": {"service, million": 28.3}},
  {"group": "Idle", "name": "threads", "against": "", "value": 3, "unit": "threads", "tolerance": 0.0, "aim": null,
   "parts": {}}
 ],
 "series": [{"group": "A page", "name": "Growth", "x": "pages", "y": "million",
   "points": [[1, 5], [10, 4], [1000, 4]]}],
 "versions": {"OpenSSL": "3.0"}
}"""


def changed(index: int, **members: object) -> list[results.Row]:
    document = json.loads(FIGURES)
    document["rows"][index].update(members)
    return results.read(json.dumps(document)).rows


@pytest.mark.parametrize("row, value", [(0, 0.98), (0, 0.5), (1, 3), (1, 2)])
def test_a_figure_within_its_tolerance_is_not_worse(row: int, value: float) -> None:
    assert results.worse(changed(row, value=value), results.read(FIGURES).rows) == []


@pytest.mark.parametrize("row, value, name", [(0, 1.0, "A page: instructions"), (1, 4, "Idle: threads")])
def test_a_figure_beyond_its_tolerance_is_worse(row: int, value: float, name: str) -> None:
    findings = results.worse(changed(row, value=value), results.read(FIGURES).rows)
    assert len(findings) == 1 and name in str(findings[0])


def test_the_committed_tolerance_counts() -> None:
    assert results.worse(changed(0, value=1.5, tolerance=9.0), results.read(FIGURES).rows)


def test_a_figure_that_is_no_longer_measured_is_a_finding() -> None:
    rows = results.read(FIGURES).rows
    assert list(map(str, results.worse(rows[:1], rows))) == ["Idle: threads: was not measured"]


def test_a_new_figure_is_no_finding() -> None:
    rows = results.read(FIGURES).rows
    assert results.worse(rows, rows[:1]) == []


def test_what_is_written_is_read_again() -> None:
    found = results.read(FIGURES)
    assert results.read(found.text()) == found


def test_the_page_is_whole_and_fetches_nothing() -> None:
    page = report.page(results.read(FIGURES))
    pictures = []

    class Reader(HTMLParser):
        def handle_starttag(self, tag: str, attributes: list[tuple[str, str | None]]) -> None:
            pictures.extend([tag] if tag == "svg" else [])
            assert tag not in ("script", "link", "img", "iframe")
            assert not {"src", "href"} & {name for name, _ in attributes}
    Reader().feed(page)
    # One bar for the ratio, one plot; a count by itself has no bar.
    assert len(pictures) == 2
    assert "a &lt;program&gt;" in page and "1 of 1 aims met" in page and "prefers-color-scheme: dark" in page
    for part in page.split("<svg ")[1:]:
        ElementTree.fromstring("<svg " + part.partition("</svg>")[0] + "</svg>")


def test_a_missed_aim_is_shown() -> None:
    page = report.page(results.Results(changed(0, value=1.2), [], {}))
    assert "aim: at most 1, missed" in page and 'class="bad"' in page


def test_the_committed_figures_make_a_page() -> None:
    committed = results.read(COMMITTED.read_text())
    assert all(row.name in html.unescape(report.page(committed)) for row in committed.rows)


def row(value: float, timed: bool = True) -> results.Row:
    return results.Row("Idle", "start", "", value, "ms", tolerance=0.5, timed=timed)


@pytest.mark.parametrize("committed, present, kept", [
    pytest.param([2.0, 2.1, 9.0], [2.2, 2.0, 2.1], False, id="the machine is slower for both"),
    pytest.param([1.0, 1.1, 0.9], [2.0, 2.1, 1.9], True, id="only the present build is slower"),
    pytest.param([], [2.0], True, id="nothing to compare with")])
def test_a_time_is_worse_only_beside_the_committed_build(committed: list[float], present: list[float],
                                                         kept: bool) -> None:
    finding = results.Finding(row(1.0), row(2.0))
    found = turns.confirmed([finding], {"Idle: start": committed}, {"Idle: start": present})
    assert bool(found) == kept


def test_both_builds_are_measured_in_turn(tmp_path: Path) -> None:
    before, now = tmp_path / "before", tmp_path / "now"
    asked: list[str] = []

    def measure() -> list[results.Row]:
        asked.append(Path(os.environ["CAMGATE_SUBJECT"]).name)
        return [row(1.0 if asked[-1] == "before" else 2.0)]
    found = turns.again([results.Finding(row(1.0), row(2.0))], [measure], before, now)
    assert asked == ["before", "now"] * turns.TURNS and "CAMGATE_SUBJECT" not in os.environ
    assert [(one.before.value, one.now and one.now.value) for one in found] == [(1.0, 2.0)]


def test_only_times_are_doubted() -> None:
    counted, timed = (results.worse([row(2.0, timed)], [row(1.0, timed)]) for timed in (False, True))
    assert [one.timed for one in counted + timed] == [False, True]


def recorded(seconds: float, out: bool, payload: int = 0, flags: int = 0x10, port: int = 40000, ip: str = "45") -> str:
    """A line as the relay prints it: IP and TCP headers of 20 bytes each."""
    ports = (port, 8443) if out else (8443, port)
    tcp = struct.pack(">HHIIBBHHH", *ports, 0, 0, 0x50, flags, 0, 0, 0)
    head = bytes.fromhex(ip) + bytes(8) + b"\x06" + bytes(10) + tcp
    return f"{seconds:.6f} {'out' if out else 'in'} {40 + payload} {head.hex()}"


SYN, FIN = 0x02, 0x11


def test_round_trips_are_what_the_camera_waits_for() -> None:
    lines = [recorded(1.0, True, flags=SYN), recorded(1.1, False, flags=SYN), recorded(1.1, True),
             recorded(1.1, True, 100), recorded(1.2, False), recorded(1.2, False, 300), recorded(1.2, False, 300),
             # Two pieces of one request, then its answer and the ends.
             recorded(1.2, True, 200), recorded(1.2, True, 200), recorded(1.3, False), recorded(1.35, False, 50),
             recorded(1.4, True, 31), recorded(1.4, True, flags=FIN), recorded(1.5, False, 31),
             recorded(1.6, False, flags=FIN)]
    (cost,) = packets.connections(packets.parse("\n".join(lines)))
    assert cost == packets.Cost(3, pytest.approx(0.35), 7, 8, 7 * 40 + 531, 8 * 40 + 681)


def test_connections_are_told_apart_and_other_packets_left_out() -> None:
    lines = [recorded(0.5, False, 9, port=1), recorded(1.0, True, flags=SYN), recorded(1.0, True, ip="60"),
             recorded(2.0, True, flags=SYN, port=40001), recorded(2.1, False, flags=SYN, port=40001)]
    costs = packets.connections(packets.parse("\n".join(lines)))
    assert [(cost.round_trips, cost.packets_out, cost.packets_in) for cost in costs] == [(0, 1, 0), (1, 1, 1)]
    assert sum(costs[1:], costs[0]).round_trips == 1


@pytest.mark.parametrize("name", documents.DOCUMENTS)
def test_the_figures_in_the_documents_are_the_committed_ones(name: str) -> None:
    text = (COMMITTED.parents[1] / name).read_text()
    assert documents.written(text, name, results.read(COMMITTED.read_text())) == text, "scripts/bench report"


def test_every_figure_that_the_story_names_was_measured() -> None:
    figures = story.Figures(results.read(COMMITTED.read_text()))
    for chapter in story.CHAPTERS:
        assert None not in [figures.sentence(template) for template in chapter.sentences], chapter.title
        assert not isinstance(chapter.plot, story.Bars) or figures.bars(chapter.plot), chapter.title


def test_a_sentence_whose_figure_was_not_measured_is_left_out() -> None:
    figures = story.Figures(results.read(FIGURES))
    assert figures.sentence("{Idle: threads} threads, {A page: instructions / service, million} million") \
        == "3 threads, 28.3 million"
    assert figures.sentence("{Idle: descriptors} descriptors") is None


@pytest.mark.parametrize("greatest, expected", [
    (4.2, [0, 1, 2, 3, 4, 5]), (26.6, [0, 10, 20, 30]), (100, [0, 20, 40, 60, 80, 100]),
    (0.07, [0, 0.02, 0.04, 0.06, 0.08]),
    (3540, [0, 1000, 2000, 3000, 4000]), (0, [0, 1])])
def test_ticks_are_round_numbers(greatest: float, expected: list[float]) -> None:
    assert plots.ticks(greatest) == pytest.approx(expected)
