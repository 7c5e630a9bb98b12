"""Plots as SVG text. Colours come from the page's style, so that they follow light and dark."""

from __future__ import annotations

import math
from collections.abc import Mapping, Sequence
from html import escape

WIDTH = 340
HEIGHT = 190
LEFT, RIGHT, TOP, BOTTOM = 46, 14, 22, 34
BAR_HEIGHT = 26
LABEL = 130  # room for the names of bars
MOST_TICKS = 5


def number(value: float) -> str:
    """Three digits that count, without an exponent; a whole number as one."""
    if value == round(value) or abs(value) >= 100:
        return f"{value:,.0f}".replace(",", "\u202f")
    return f"{value:.{max(0, 2 - math.floor(math.log10(abs(value))))}f}"


def ticks(greatest: float) -> list[float]:
    """Round numbers from 0 to at least the greatest value, a few of them, at steps of 1, 2 or 5 and zeros."""
    if greatest <= 0:
        return [0.0, 1.0]
    power = 10.0 ** math.floor(math.log10(greatest / MOST_TICKS))
    step = next(factor * power for factor in (1, 2, 5, 10) if greatest <= factor * power * MOST_TICKS)
    return [round(count * step, 12) for count in range(math.ceil(greatest / step) + 1)]


def tick(value: float) -> str:
    """A round number, without the zeros behind its point."""
    return f"{value:,.10g}".replace(",", "\u202f")


def bar(value: float, aim: float | None, greatest: float) -> str:
    """A figure as a bar, with a mark at its aim."""
    scale = 100 / greatest if greatest > 0 else 0
    colour = "bad" if aim is not None and value > aim else "good"
    mark = "" if aim is None else f'<rect class="aim" x="{aim * scale:.1f}" y="0" width="0.8" height="10"/>'
    return ('<svg class="bar" viewBox="0 0 101 10" preserveAspectRatio="none" role="img" '
            f'aria-label="{number(value)}{"" if aim is None else f", aim {number(aim)}"}">'
            f'<rect class="{colour}" x="0" y="2" width="{max(value * scale, 0.5):.1f}" height="6"/>{mark}</svg>')


def bars(values: Mapping[str, float], unit: str) -> str:
    """A bar for each name, the first one the service's own, on an axis with its unit."""
    marks = ticks(max(values.values()))
    height = TOP + BAR_HEIGHT * len(values) + BOTTOM
    bottom = height - BOTTOM

    def place(value: float) -> float:
        return LABEL + value / marks[-1] * (WIDTH - LABEL - RIGHT)
    drawn = [f'<line class="grid" x1="{place(mark):.1f}" x2="{place(mark):.1f}" y1="{TOP}" y2="{bottom}"/>'
             f'<text x="{place(mark):.1f}" y="{bottom + 12}" text-anchor="middle">{tick(mark)}</text>'
             for mark in marks]
    for index, (name, value) in enumerate(values.items()):
        top = TOP + BAR_HEIGHT * index
        # Where there is no room behind the bar its number stands in it.
        inside = place(value) > WIDTH - 40
        drawn.append(f'<text class="name" x="{LABEL - 6}" y="{top + 17}" text-anchor="end">{escape(name)}</text>'
                     f'<rect class="{"own" if index == 0 else "other"}" x="{LABEL}" y="{top + 4}" rx="2" '
                     f'width="{place(value) - LABEL:.1f}" height="{BAR_HEIGHT - 8}"/>'
                     f'<text class="{"within" if inside else "name"}" y="{top + 17}" '
                     f'x="{place(value) + (-5 if inside else 5):.1f}" text-anchor="{"end" if inside else "start"}">'
                     f'{number(value)}</text>')
    return (f'<svg class="plot" viewBox="0 0 {WIDTH} {height}" role="img" aria-label="{escape(unit)}">{"".join(drawn)}'
            f'<text x="{WIDTH - RIGHT}" y="{height - 6}" text-anchor="end">{escape(unit)}</text></svg>')


def line(points: Sequence[tuple[float, float]], x_label: str, y_label: str) -> str:
    """A line through points, from zero upwards; x is laid out by powers of ten where it spans several."""
    xs, ys = zip(*points)
    logarithmic = min(xs) > 0 and max(xs) / min(xs) >= 100
    y_marks = ticks(max(ys))
    x_marks = list(xs) if logarithmic else ticks(max(xs))
    low, high = (math.log(min(xs)), math.log(max(xs))) if logarithmic else (0.0, x_marks[-1])

    def place(x: float, y: float) -> tuple[float, float]:
        part = ((math.log(x) if logarithmic else x) - low) / (high - low) if high > low else 0.5
        return LEFT + part * (WIDTH - LEFT - RIGHT), HEIGHT - BOTTOM - y / y_marks[-1] * (HEIGHT - TOP - BOTTOM)
    placed = [place(x, y) for x, y in points]
    marks = [f'<line class="grid" x1="{LEFT}" x2="{WIDTH - RIGHT}" y1="{y:.1f}" y2="{y:.1f}"/>'
             f'<text x="{LEFT - 4}" y="{y + 3:.1f}" text-anchor="end">{tick(mark)}</text>'
             for mark, y in ((mark, place(xs[0], mark)[1]) for mark in y_marks)]
    marks += [f'<text x="{place(x, 0)[0]:.1f}" y="{HEIGHT - BOTTOM + 13}" text-anchor="middle">{tick(x)}</text>'
              for x in x_marks]
    dots = "".join(f'<circle cx="{x:.1f}" cy="{y:.1f}" r="3"><title>{number(a)} {escape(x_label)}: {number(b)} '
                   f'{escape(y_label)}</title></circle>' for (x, y), (a, b) in zip(placed, points))
    path = " ".join(f"{x:.1f},{y:.1f}" for x, y in placed)
    return (f'<svg class="plot" viewBox="0 0 {WIDTH} {HEIGHT}" role="img" aria-label="{escape(y_label)}">'
            f'<text x="4" y="12">{escape(y_label)}</text>{"".join(marks)}'
            f'<polyline points="{path}"/>{dots}'
            f'<text x="{WIDTH - RIGHT}" y="{HEIGHT - 5}" text-anchor="end">{escape(x_label)}</text></svg>')
