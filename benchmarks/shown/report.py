"""The page that shows a benchmark run: self-contained, for a phone and a screen, light and dark."""

from __future__ import annotations

from html import escape

from benchmarks.shown import plots
from benchmarks.comparison.results import Results, Row, Series

STYLE = """
:root { color-scheme: light dark; --text: #1c2430; --soft: #5b6675; --ground: #fff; --card: #f3f5f8; --good: #2b7a5b;
  --bad: #b4502d; --line: #2f6db5; --grid: #d5dbe3; }
@media (prefers-color-scheme: dark) { :root { --text: #e4e9f0; --soft: #9aa7b8; --ground: #14181e; --card: #1d232b;
  --good: #58b891; --bad: #e08a5f; --line: #74a9e6; --grid: #37414e; } }
* { box-sizing: border-box; }
body { margin: 0 auto; padding: 1rem; max-width: 60rem; background: var(--ground); color: var(--text);
  font: 16px/1.45 system-ui, sans-serif; }
h1 { font-size: 1.5rem; margin: .5rem 0; } h2 { font-size: 1.15rem; margin: 2rem 0 .5rem; }
p, .soft { color: var(--soft); }
.row { background: var(--card); border-radius: .5rem; padding: .6rem .8rem; margin: .5rem 0; }
.head { display: flex; flex-wrap: wrap; justify-content: space-between; gap: .2rem 1rem; }
.value { font-weight: 600; font-variant-numeric: tabular-nums; }
.soft { font-size: .85rem; overflow-wrap: anywhere; }
.bar { display: block; width: 100%; height: 12px; margin: .3rem 0; }
.plots { display: grid; grid-template-columns: repeat(auto-fill, minmax(min(100%, 20rem), 1fr)); gap: .8rem; }
figure { margin: 0; background: var(--card); border-radius: .5rem; padding: .6rem; }
.plot { width: 100%; height: auto; }
svg text { font: 10px system-ui, sans-serif; fill: var(--soft); }
.good { fill: var(--good); } .bad { fill: var(--bad); } .aim { fill: var(--text); }
.grid { stroke: var(--grid); } polyline { fill: none; stroke: var(--line); stroke-width: 2; }
circle { fill: var(--line); }
"""

INTRODUCTION = """What the service costs a small camera, each figure beside what people would pick instead, from one run
on one machine. Less is better; the upright mark is the aim. Ratios and counts are comparable between runs, times are
not."""


def page(results: Results) -> str:
    rows = results.rows
    aimed = [row for row in rows if row.aim is not None]
    groups = list(dict.fromkeys(row.group for row in rows))
    versions = ", ".join(f"{escape(name)} {escape(version)}" for name, version in results.versions.items())
    body = "".join(_group(group, [row for row in rows if row.group == group],
                          [series for series in results.series if series.group == group]) for group in groups)
    return (f'<!DOCTYPE html>\n<html lang="en">\n<head>\n<meta charset="utf-8">\n'
            f'<meta name="viewport" content="width=device-width, initial-scale=1">\n<title>camgate, measured</title>\n'
            f"<style>{STYLE}</style>\n</head>\n<body>\n<h1>camgate, measured</h1>\n<p>{INTRODUCTION}</p>\n"
            f"<p>{sum(row.meets_aim for row in aimed)} of {len(aimed)} aims met. With {versions}.</p>\n"
            f"{body}</body>\n</html>\n")


def _group(name: str, rows: list[Row], series: list[Series]) -> str:
    shown = "".join(map(_row, rows))
    drawn = "".join(f"<figure><figcaption>{escape(one.name)} <span class=\"soft\">({escape(one.y)})</span></figcaption>"
                    f"{plots.line(one.points, one.x, one.y)}</figure>\n" for one in series)
    return f"<h2>{escape(name)}</h2>\n{shown}" + (f'<div class="plots">{drawn}</div>\n' if drawn else "")


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
