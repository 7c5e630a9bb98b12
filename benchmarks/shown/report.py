"""The page that shows a benchmark run: self-contained, for a phone and a screen, light and dark."""

from __future__ import annotations

from html import escape

from benchmarks.comparison.results import Results, Row
from benchmarks.shown import plots
from benchmarks.shown.story import CHAPTERS, Bars, Chapter, Figures, Line

STYLE = """
:root { color-scheme: light dark; --text: #1c2430; --soft: #5b6675; --ground: #fff; --card: #f3f5f8; --good: #2b7a5b;
  --bad: #b4502d; --line: #2f6db5; --grid: #d5dbe3; --other: #a9b6c6; --within: #fff; }
@media (prefers-color-scheme: dark) { :root { --text: #e4e9f0; --soft: #9aa7b8; --ground: #14181e; --card: #1d232b;
  --good: #58b891; --bad: #e08a5f; --line: #74a9e6; --grid: #37414e; --other: #55637a; --within: #14181e; } }
* { box-sizing: border-box; }
body { margin: 0 auto; padding: 1rem; max-width: 52rem; background: var(--ground); color: var(--text);
  font: 16px/1.5 system-ui, sans-serif; }
h1 { font-size: 1.6rem; margin: .5rem 0; } h2 { font-size: 1.25rem; margin: 2.5rem 0 .5rem; }
.chapter { display: grid; grid-template-columns: repeat(auto-fit, minmax(min(100%, 22rem), 1fr)); gap: .5rem 1.5rem;
  align-items: start; }
.chapter p { margin: 0 0 .6rem; }
.soft, summary { color: var(--soft); font-size: .85rem; overflow-wrap: anywhere; }
summary { cursor: pointer; margin: .4rem 0; }
.missed { border-left: 3px solid var(--bad); padding-left: .7rem; }
.row { background: var(--card); border-radius: .5rem; padding: .6rem .8rem; margin: .5rem 0; }
.head { display: flex; flex-wrap: wrap; justify-content: space-between; gap: .2rem 1rem; }
.value { font-weight: 600; font-variant-numeric: tabular-nums; }
.bar { display: block; width: 100%; height: 12px; margin: .3rem 0; }
figure { margin: 0; background: var(--card); border-radius: .5rem; padding: .6rem; }
figcaption { font-weight: 600; font-size: .9rem; }
.plot { width: 100%; height: auto; }
svg text { font: 10px system-ui, sans-serif; fill: var(--soft); }
svg .name { fill: var(--text); } svg .within { fill: var(--within); }
.good { fill: var(--good); } .bad { fill: var(--bad); } .aim { fill: var(--text); }
.own { fill: var(--line); } .other { fill: var(--other); }
.grid { stroke: var(--grid); } polyline { fill: none; stroke: var(--line); stroke-width: 2; }
circle { fill: var(--line); }
"""

INTRODUCTION = """What the service costs a small camera, its line and its platform, beside what people would pick
instead. All of it is from one run on one machine. Instructions, system calls and round trips are the same on another
machine; times are not, and only their ratios can be compared."""


def page(results: Results) -> str:
    rows = results.rows
    figures = Figures(results)
    aimed = [row for row in rows if row.aim is not None]
    versions = ", ".join(f"{escape(name)} {escape(version)}" for name, version in results.versions.items())
    untold = [row for row in rows if not any(chapter.tells_of(row) for chapter in CHAPTERS)]
    chapters = "".join(_chapter(chapter, figures, results) for chapter in CHAPTERS)
    others = "".join(f"<h2>{escape(group)}</h2>\n"
                     f"{_rows([row for row in untold if row.group == group], _other_plots({group}, results))}"
                     for group in dict.fromkeys(row.group for row in untold))
    return (f'<!DOCTYPE html>\n<html lang="en">\n<head>\n<meta charset="utf-8">\n'
            f'<meta name="viewport" content="width=device-width, initial-scale=1">\n<title>camgate, measured</title>\n'
            f"<style>{STYLE}</style>\n</head>\n<body>\n<h1>camgate, measured</h1>\n<p>{INTRODUCTION}</p>\n"
            f"<p>{sum(row.meets_aim for row in aimed)} of {len(aimed)} aims met. With {versions}.</p>\n"
            f"{chapters}{others}</body>\n</html>\n")


def _chapter(chapter: Chapter, figures: Figures, results: Results) -> str:
    """Nothing where nothing of it was measured."""
    sentences = [text for text in map(figures.sentence, chapter.sentences) if text is not None]
    rows = [row for row in results.rows if chapter.tells_of(row)]
    plot = _plot(chapter, figures, results)
    if not rows and not plot:
        return ""
    said = "".join(f"<p>{escape(text)}</p>\n" for text in sentences)
    missed = "".join(f'<p class="missed">{escape(text)}</p>\n' for text in chapter.missed(results))
    return (f'<h2>{escape(chapter.title)}</h2>\n<div class="chapter"><div>{said}{missed}</div>{plot}</div>\n'
            f"{_rows(rows, _other_plots({row.group for row in rows}, results))}")


def _plot(chapter: Chapter, figures: Figures, results: Results) -> str:
    if isinstance(chapter.plot, Bars):
        bars = figures.bars(chapter.plot)
        return _figure(chapter.plot.title, plots.bars(bars, chapter.plot.unit)) if bars else ""
    series = chapter.plot.series
    return "".join(_figure(one.name, plots.line(one.points, one.x, one.y)) for one in results.series
                   if one.name == series)


def _other_plots(groups: set[str], results: Results) -> str:
    """Those of the groups that no chapter begins with."""
    shown = {chapter.plot.series for chapter in CHAPTERS if isinstance(chapter.plot, Line)}
    return "".join(_figure(one.name, plots.line(one.points, one.x, one.y)) for one in results.series
                   if one.group in groups and one.name not in shown)


def _figure(title: str, drawn: str) -> str:
    return f"<figure><figcaption>{escape(title)}</figcaption>{drawn}</figure>\n"


def _rows(rows: list[Row], drawn: str = "") -> str:
    if not rows:
        return ""
    return (f"<details><summary>{len(rows)} figures</summary>\n"
            f"{''.join(map(_row, rows))}{drawn}</details>\n")


def _row(row: Row) -> str:
    value = f"{plots.number(row.value)} {escape(row.unit or 'of')} {escape(row.against)}".strip()
    if row.aim is None and not row.against:
        drawn = ""
    else:
        drawn = plots.bar(row.value, row.aim, max(row.value, row.aim or 0, 1) * 1.15)
    aim = "" if row.aim is None else f"aim: at most {plots.number(row.aim)}{'' if row.meets_aim else ', missed'}; "
    parts = "".join(f"; {escape(name)} {plots.number(value)}" for name, value in row.parts.items())
    return (f'<div class="row"><div class="head"><span>{escape(row.name)}</span>'
            f'<span class="value">{value}</span></div>'
            f'{drawn}<div class="soft">{aim}allowed to get worse by {row.tolerance:.0%}{parts}</div></div>\n')
