"""Draws the results of bench/run: chart.py RESULTS.json CHART.svg. What was not measured is left out."""
import json
import math
import os
import sys
from html import escape

SCENARIOS = [
    ("line, memory", "One line"),
    ("formatted line, memory", "One formatted line"),
    ("2 threads, memory", "One line, two threads"),
    ("filtered call, memory", "A line that is filtered out"),
    ("rotation, memory", "One line, with rotation"),
    ("hex dump, 1024 bytes, memory", "Hex dump of 1 KiB"),
]
SUBJECTS = {"library": "ErrorHandlerDll", "spdlog": "spdlog", "glog": "glog", "log4cplus": "log4cplus",
            "Boost.Log": "Boost.Log"}

WIDTH, LEFT, RIGHT, TOP = 800, 140, 60, 78
BAR, ROW, HEADING, GAP = 12, 17, 24, 10

# The picture brings its own ground: a page may be dark where the system that colours the picture is set to light.
STYLE = """
 text { font: 12px sans-serif; fill: #57606a }
 .title { font-size: 17px; font-weight: bold; fill: #1f2328 }
 .heading, .library { font-weight: bold; fill: #1f2328 }
 .end { text-anchor: end } .middle { text-anchor: middle } .small { font-size: 11px }
 .ground { fill: #ffffff; stroke: #d0d7de } .grid { stroke: #e4e8ec } .limit { stroke: #57606a }
 rect.peer { fill: #afb8c1 } rect.library { fill: #0969da }
 @media (prefers-color-scheme: dark) {
  text { fill: #9da7b1 } .title, .heading, text.library { fill: #f0f3f6 }
  .ground { fill: #0d1117; stroke: #3d444d } .grid { stroke: #262c36 } .limit { stroke: #9da7b1 }
  rect.peer { fill: #656c76 } rect.library { fill: #4493f8 }
 }
"""


def number(value):
    return f"{value:,.0f}" if value >= 100 else f"{value:.3g}"


def groups(results):
    """Heading and (subject, ratio to the limit) of each scenario that has a limit and the library."""
    for scenario, title in SCENARIOS:
        times = {name: metrics["ns"] for name, metrics in results.get(scenario, {}).items() if metrics.get("ns")}
        if "limit" in times and "library" in times:
            bars = [(name, times[name] / times["limit"]) for name in SUBJECTS if name in times]
            yield f"{title} (limit: {number(times['limit'])} ns)", bars


def text(x, y, words, style=""):
    return f'<text x="{x:.1f}" y="{y:.1f}" class="{style}">{escape(words)}</text>'


def line(x1, y1, x2, y2, style):
    return f'<line x1="{x1:.1f}" y1="{y1:.1f}" x2="{x2:.1f}" y2="{y2:.1f}" class="{style}"/>'


def axis(bars):
    """Ticks on 1, 2 and 5 around all ratios, and the place of a ratio between them."""
    ratios = [ratio for _, ratio in bars] + [0.5, 2]
    steps = [digit * 10.0 ** power for power in range(-9, 10) for digit in (1, 2, 5)]
    low = max(step for step in steps if step < min(ratios))
    high = min(step for step in steps if step > max(ratios))
    scale = (WIDTH - LEFT - RIGHT) / math.log(high / low)
    return [step for step in steps if low <= step <= high], lambda ratio: LEFT + math.log(ratio / low) * scale


def bar(name, ratio, place, y):
    style = "library" if name == "library" else "peer"
    start, end = sorted((place(1), place(ratio)))
    middle = y + BAR / 2 + 4
    # Always on the right, as bars to the left may reach the names.
    return [text(LEFT - 10, middle, SUBJECTS[name], f"end {style}"),
            f'<rect x="{start:.1f}" y="{y:.1f}" width="{max(end - start, 1):.1f}" height="{BAR}" class="{style}"/>',
            text(end + 5, middle, f"{number(ratio)}×", style)]


def captions(setup):
    run = setup.get("command", "")
    noise = " (a quick run: noisy)" if "--quick" in run else ""
    yield f"{setup.get('machine', 'unknown machine')}; {setup.get('compiler', '')} {setup.get('flags', '')}"
    yield f"{run}{noise}, {setup.get('date', '')}, {setup.get('commit', '')}; log on tmpfs; medians"


def draw(setup, drawn):
    ticks, place = axis([bar for _, bars in drawn for bar in bars])
    marks, y = [], TOP
    for heading, bars in drawn:
        marks.append(text(20, y + 15, heading, "heading"))
        y += HEADING
        end = y + ROW * len(bars)
        marks += [line(place(tick), y - 3, place(tick), end, "limit" if tick == 1 else "grid") for tick in ticks]
        for name, ratio in bars:
            marks += bar(name, ratio, place, y)
            y += ROW
        y += GAP
    labels = [text(place(tick), y + 16, f"{tick:g}×", "middle") for tick in ticks]
    labels.append(text((LEFT + WIDTH - RIGHT) / 2, y + 36, "Time of one operation / time of the limit (logarithmic)",
                       "middle"))
    notes = [text(20, y + 62 + 16 * index, words, "small") for index, words in enumerate(captions(setup))]
    height = y + 92
    yield f'<svg xmlns="http://www.w3.org/2000/svg" viewBox="0 0 {WIDTH} {height}" width="{WIDTH}" height="{height}">'
    yield "<title>Time per operation against a hand-written limit</title>"
    yield f"<style>{STYLE}</style>"
    yield f'<rect x="0.5" y="0.5" width="{WIDTH - 1}" height="{height - 1}" rx="6" class="ground"/>'
    yield text(20, 32, "Time per operation against a hand-written limit", "title")
    yield text(20, 54, "Further left is faster. 1× is the limit: bare code, written by hand for this one task.")
    yield from marks + labels + notes
    yield "</svg>"


def main():
    source, target = sys.argv[1:]
    with open(source, encoding="utf-8") as file:
        report = json.load(file)
    drawn = list(groups(report["results"]))
    if not drawn:
        sys.exit("chart.py: no results to draw")
    os.makedirs(os.path.dirname(target) or ".", exist_ok=True)
    with open(target, "w", encoding="utf-8") as file:
        file.writelines(mark + "\n" for mark in draw(report["setup"], drawn))


main()
