"""Plots as SVG text. Colours come from the page's style, so that they follow light and dark."""

from __future__ import annotations

import math
from collections.abc import Sequence
from html import escape

WIDTH = 340
HEIGHT = 170
LEFT, RIGHT, TOP, BOTTOM = 46, 10, 10, 30


def number(value: float) -> str:
    """Three digits that count, without an exponent."""
    if value == 0 or abs(value) >= 100:
        return f"{value:,.0f}".replace(",", "\u202f")
    return f"{value:.{max(0, 2 - math.floor(math.log10(abs(value))))}f}"


def bar(value: float, aim: float | None, greatest: float) -> str:
    """A figure as a bar, with a mark at its aim."""
    scale = 100 / greatest if greatest > 0 else 0
    colour = "bad" if aim is not None and value > aim else "good"
    mark = "" if aim is None else f'<rect class="aim" x="{aim * scale:.1f}" y="0" width="0.8" height="10"/>'
    return ('<svg class="bar" viewBox="0 0 101 10" preserveAspectRatio="none" role="img" '
            f'aria-label="{number(value)}{"" if aim is None else f", aim {number(aim)}"}">'
            f'<rect class="{colour}" x="0" y="2" width="{max(value * scale, 0.5):.1f}" height="6"/>{mark}</svg>')


def line(points: Sequence[tuple[float, float]], x_label: str, y_label: str) -> str:
    """A line through points, from zero upwards; x is laid out by powers of ten where it spans several."""
    xs, ys = zip(*points)
    logarithmic = min(xs) > 0 and max(xs) / min(xs) >= 100
    top = max(ys) * 1.15

    def place(x: float, y: float) -> tuple[float, float]:
        low, high, at = (math.log(min(xs)), math.log(max(xs)), math.log(x)) if logarithmic else (min(xs), max(xs), x)
        part = (at - low) / (high - low) if high > low else 0.5
        return LEFT + part * (WIDTH - LEFT - RIGHT), HEIGHT - BOTTOM - y / top * (HEIGHT - TOP - BOTTOM)
    placed = [place(x, y) for x, y in points]
    marks = []
    for part in (0.0, 0.5, 1.0):
        y = HEIGHT - BOTTOM - part / 1.15 * (HEIGHT - TOP - BOTTOM)
        marks.append(f'<line class="grid" x1="{LEFT}" x2="{WIDTH - RIGHT}" y1="{y:.1f}" y2="{y:.1f}"/>'
                     f'<text x="{LEFT - 4}" y="{y + 3:.1f}" text-anchor="end">{number(max(ys) * part)}</text>')
    shown = points if len(points) <= 4 else [point for point in points if point[0] >= max(xs) / 2 or point == points[0]]
    marks += [f'<text x="{place(x, 0)[0]:.1f}" y="{HEIGHT - BOTTOM + 12}" text-anchor="middle">{number(x)}</text>'
              for x, _ in (shown if len(shown) <= 4 else shown[::2])]
    dots = "".join(f'<circle cx="{x:.1f}" cy="{y:.1f}" r="3"><title>{number(a)} {escape(x_label)}: {number(b)} '
                   f'{escape(y_label)}</title></circle>' for (x, y), (a, b) in zip(placed, points))
    path = " ".join(f"{x:.1f},{y:.1f}" for x, y in placed)
    return (f'<svg class="plot" viewBox="0 0 {WIDTH} {HEIGHT}" role="img" aria-label="{escape(y_label)}">'
            f'{"".join(marks)}'
            f'<polyline points="{path}"/>{dots}'
            f'<text x="{WIDTH - RIGHT}" y="{HEIGHT - 4}" text-anchor="end">{escape(x_label)}</text></svg>')
