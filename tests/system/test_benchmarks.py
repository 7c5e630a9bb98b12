"""The comparison of benchmark figures, and the page that shows them. Nothing is measured here."""

from __future__ import annotations

import html
import json
import xml.etree.ElementTree as ElementTree
from html.parser import HTMLParser
from pathlib import Path

import pytest

from benchmarks import report, results

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
    assert len(findings) == 1 and name in findings[0]


def test_the_committed_tolerance_counts() -> None:
    assert results.worse(changed(0, value=1.5, tolerance=9.0), results.read(FIGURES).rows)


def test_a_figure_that_is_no_longer_measured_is_a_finding() -> None:
    rows = results.read(FIGURES).rows
    assert results.worse(rows[:1], rows) == ["Idle: threads: was not measured"]


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
    assert "aim: at most 1.00, missed" in page and 'class="bad"' in page


def test_the_committed_figures_make_a_page() -> None:
    committed = results.read((Path(results.__file__).parent / "results.json").read_text())
    assert all(row.name in html.unescape(report.page(committed)) for row in committed.rows)
