#!/usr/bin/env python3
"""Draws the results of latency-bench as one SVG picture: a distribution for each row, its targets
as lines. Usage: draw_latency.py RESULTS.json PICTURE.svg"""

import json
import sys
from html import escape

WIDTH, LEFT, RIGHT = 1040, 390, 190
PLOT = WIDTH - LEFT - RIGHT
TOP, ROW = 64, 34
COLOURS = {"met": "#1a7f37", "missed": "#c62828", "-": "#57606a"}


def text(x, y, content, **attributes):
    extra = "".join(f' {key.replace("_", "-")}="{value}"' for key, value in attributes.items())
    return f'<text x="{x:.1f}" y="{y:.1f}"{extra}>{escape(content)}</text>'


def line(x, top, bottom, **attributes):
    extra = "".join(f' {key.replace("_", "-")}="{value}"' for key, value in attributes.items())
    return f'<line x1="{x:.1f}" x2="{x:.1f}" y1="{top:.1f}" y2="{bottom:.1f}"{extra}/>'


def number(value):
    return f"{value:.3g}" if value < 100 else f"{value:.0f}"


def draw_row(row, y):
    """One row around the height y, on a scale of its own from 0 on."""
    colour = COLOURS[row["verdict"]]
    limits = row["targets"]
    end = 1.08 * max([row["max"], 1e-9, *limits.values()])

    def at(value):
        return LEFT + PLOT * max(value, 0) / end

    parts = [
        text(LEFT - 12, y + 4, row["what"], text_anchor="end"),
        f'<line x1="{LEFT}" x2="{LEFT + PLOT}" y1="{y}" y2="{y}" stroke="#d0d7de"/>',
    ]
    # The values in the order of the repetitions, from the upper edge of the row to the lower.
    count = len(row["values"])
    for i, value in enumerate(row["values"]):
        height = y - 7 + 14 * (i + 0.5) / count
        parts.append(f'<circle cx="{at(value):.1f}" cy="{height:.1f}" r="2" fill="{colour}" '
                     'fill-opacity="0.45"/>')
    parts.append(line(at(row["median"]), y - 9, y + 9, stroke=colour, stroke_width=2.5))
    for name, limit in limits.items():
        # The median's target is the lower of two: its name stands on the other side.
        median = name == "median"
        dashes = {"stroke_dasharray": "3 2"} if median else {}
        side = {"text_anchor": "end"} if median else {}
        parts.append(line(at(limit), y - 12, y + 12, stroke="#0969da", stroke_width=1.5, **dashes))
        parts.append(text(at(limit) + (-3 if median else 3), y - 7, f"{name} {number(limit)}",
                          fill="#0969da", font_size=9, **side))
    summary = f'{number(row["median"])} / {number(row["p95"])} {row["unit"]}'
    parts.append(text(LEFT + PLOT + 10, y + 4, summary, fill=colour))
    parts.append(text(WIDTH - 8, y + 4, row["verdict"], fill=colour, text_anchor="end"))
    return parts


def draw(results):
    rows = results["rows"]
    height = TOP + ROW * len(rows) + 16
    parts = [
        f'<svg xmlns="http://www.w3.org/2000/svg" viewBox="0 0 {WIDTH} {height}" '
        'font-family="sans-serif" font-size="12" fill="#24292f">',
        f'<rect width="{WIDTH}" height="{height}" fill="#ffffff"/>',
        text(12, 22, "How fast Quillspeak speaks and falls silent", font_size=15,
             font_weight="bold"),
        text(12, 40, f'{results["processor"]}, {results["processors"]} cores. A dot is a '
             "repetition, the thick line their median; blue is the target (dashed for the median). "
             "Each row has a scale of its own.", font_size=10, fill="#57606a"),
        text(LEFT + PLOT + 10, TOP - 8, "median / p95", font_size=10, fill="#57606a"),
    ]
    for i, row in enumerate(rows):
        parts += draw_row(row, TOP + ROW * i + ROW / 2)
    return "\n".join([*parts, "</svg>", ""])


def main():
    if len(sys.argv) != 3:
        sys.exit(__doc__)
    with open(sys.argv[1], encoding="utf-8") as file:
        results = json.load(file)
    with open(sys.argv[2], "w", encoding="utf-8") as file:
        file.write(draw(results))


main()
