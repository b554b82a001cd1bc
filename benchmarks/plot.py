"""Draws the figures as an SVG: a bar for each line, on a logarithmic scale, ending at its part of what is allowed."""

from __future__ import annotations

from math import floor, ceil, log10
from xml.sax.saxutils import escape

from figures import Figure, show_limit, show_ratio, show_value

WIDTH = 1040
ROW = 30
TOP = 74
NAMES = 430  # width of the column of names
VALUES = 220  # width of the column of values

# Middle tones: the page behind may be light or dark.
INK = "#7b828b"
GRID = "#8b949e"
MET = "#2f9e62"
MISSED = "#d9622b"
GOAL = "#3b82d6"


def text(x: float, y: float, words: str, anchor: str = "start", extra: str = "") -> str:
    return f'<text x="{x:.1f}" y="{y:.1f}" text-anchor="{anchor}" fill="{INK}" {extra}>{escape(words)}</text>'


def line(x1: float, y1: float, x2: float, y2: float, colour: str, extra: str = "") -> str:
    return f'<line x1="{x1:.1f}" y1="{y1:.1f}" x2="{x2:.1f}" y2="{y2:.1f}" stroke="{colour}" {extra}/>'


def value_of(figure: Figure) -> str:
    if figure.ratio is None:
        return f"{show_value(figure.our_value, figure.unit)} of {show_limit(figure)}"
    return f"{show_ratio(figure)} × {figure.reference}"


def draw(figures: list[Figure]) -> str:
    shares = [figure.part_of_limit for figure in figures]
    least = min(floor(log10(min(shares))), -1)
    most = max(ceil(log10(max(shares))), 1)
    left, right = NAMES, WIDTH - VALUES
    bottom = TOP + ROW * len(figures)
    height = bottom + 44

    def at(share: float) -> float:
        return left + (log10(share) - least) / (most - least) * (right - left)

    parts = [
        f'<svg xmlns="http://www.w3.org/2000/svg" viewBox="0 0 {WIDTH} {height}" width="{WIDTH}" height="{height}" '
        'font-family="sans-serif" font-size="13">',
        "<title>How long each operation takes, compared with what it may take</title>",
        text(16, 26, "Time (or memory) as part of what is allowed", extra='font-size="16" font-weight="bold"'),
        text(16, 48, "Left of the blue line: within the limit. Each step of the scale is a factor of ten."),
    ]
    for power in range(least, most + 1):
        x = at(10.0**power)
        parts.append(line(x, TOP - 6, x, bottom, GRID, 'stroke-opacity="0.35"'))
        parts.append(text(x, bottom + 20, f"{10.0**power:g}", "middle"))
    for row, figure in enumerate(figures):
        y = TOP + ROW * row
        begin, end = sorted((at(figure.part_of_limit), at(1)))
        colour = MET if figure.is_met else MISSED
        parts.append(text(left - 12, y + 19, figure.name, "end"))
        parts.append(
            f'<rect x="{begin:.1f}" y="{y + 6}" width="{max(end - begin, 1.5):.1f}" height="{ROW - 12}" '
            f'rx="2" fill="{colour}"/>'
        )
        parts.append(text(right + 12, y + 19, value_of(figure)))
    parts.append(line(at(1), TOP - 6, at(1), bottom, GOAL, 'stroke-width="2"'))
    parts.append(text(at(1), TOP - 12, "limit", "middle"))
    parts.append(text((left + right) / 2, bottom + 38, "part of the limit", "middle"))
    return "\n".join([*parts, "</svg>"]) + "\n"
