"""Draws the results of bench/run, and puts the most telling ones into a page, between the lines of MARKS:

  chart.py RESULTS.json CHART.svg PAGE.md

What was not measured is left out.
"""
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
SUBJECTS = {"library": "ErrorHandlerDll", "limit": "bare code by hand", "spdlog": "spdlog", "glog": "glog",
            "log4cplus": "log4cplus", "Boost.Log": "Boost.Log"}

MARKS = ("<!-- figures of bench/run -->", "<!-- end of the figures -->")

WIDTH, LEFT, RIGHT, TOP = 800, 150, 110, 78
BAR, ROW, HEADING, GAP = 12, 17, 24, 10

# The picture brings its own ground: a page may be dark where the system that colours the picture is set to light. Texts keep the
# grid off by a rim in the colour of the ground.
STYLE = """
 text { font: 12px sans-serif; fill: #57606a; stroke: #ffffff; stroke-width: 3px; paint-order: stroke }
 .title { font-size: 17px; font-weight: bold; fill: #1f2328 }
 .heading, .library { font-weight: bold; fill: #1f2328 }
 .end { text-anchor: end } .middle { text-anchor: middle } .small { font-size: 11px }
 .ground { fill: #ffffff; stroke: #d0d7de } .grid { stroke: #e4e8ec }
 rect.peer { fill: #afb8c1 } rect.limit { fill: #d4a72c } rect.library { fill: #0969da }
 @media (prefers-color-scheme: dark) {
  text { fill: #9da7b1; stroke: #0d1117 } .title, .heading, text.library { fill: #f0f3f6 }
  .ground { fill: #0d1117; stroke: #3d444d } .grid { stroke: #262c36 }
  rect.peer { fill: #656c76 } rect.limit { fill: #9e6a03 } rect.library { fill: #4493f8 }
 }
"""


def number(value):
    return f"{value:,.0f}" if value >= 100 else f"{value:.3g}"


def times(ratio):
    return f"{ratio:.0f}×" if ratio >= 10 else f"{ratio:.1f}×" if ratio >= 1.05 else f"{ratio:.2f}×"


def groups(results):
    """Heading and (subject, nanoseconds, ratio to the library) of each scenario that has the library."""
    for scenario, title in SCENARIOS:
        taken = {name: metrics["ns"] for name, metrics in results.get(scenario, {}).items() if metrics.get("ns")}
        if "library" in taken:
            yield title, [(name, taken[name], taken[name] / taken["library"]) for name in SUBJECTS if name in taken]


def text(x, y, words, style=""):
    return f'<text x="{x:.1f}" y="{y:.1f}" class="{style}">{escape(words)}</text>'


def line(x1, y1, x2, y2, style):
    return f'<line x1="{x1:.1f}" y1="{y1:.1f}" x2="{x2:.1f}" y2="{y2:.1f}" class="{style}"/>'


def axis(bars):
    """Ticks on the powers of ten around all times, and the place of a time between them."""
    low = 10.0 ** math.floor(math.log10(min(time for _, time, _ in bars) * 0.9))
    high = 10.0 ** math.ceil(math.log10(max(time for _, time, _ in bars)))
    scale = (WIDTH - LEFT - RIGHT) / math.log(high / low)
    ticks = [low * 10.0 ** power for power in range(round(math.log10(high / low)) + 1)]
    return ticks, lambda time: LEFT + math.log(time / low) * scale


def bar(name, time, ratio, place, y):
    style = name if name in ("library", "limit") else "peer"
    end = place(time)
    middle = y + BAR / 2 + 4
    words = f"{number(time)} ns" + ("" if name == "library" else f", {times(ratio)}")
    return [text(LEFT - 10, middle, SUBJECTS[name], f"end {style}"),
            f'<rect x="{LEFT}" y="{y:.1f}" width="{max(end - LEFT, 1):.1f}" height="{BAR}" class="{style}"/>',
            text(end + 5, middle, words, style)]


def captions(setup):
    run = setup.get("command", "")
    noise = " (a quick run: noisy)" if "--quick" in run else ""
    yield f"{setup.get('machine', 'unknown machine')}; {setup.get('compiler', '')} {setup.get('flags', '')}"
    yield f"{run}{noise}, {setup.get('date', '')}, {setup.get('commit', '')}; log on tmpfs; medians; every subject synchronous"
    peers = [f"{name} {peer['version']}" for name, peer in setup.get("peers", {}).items() if name in SUBJECTS]
    yield "; ".join(peers) if peers else "The versions of the peers were not recorded by this run."


def draw(setup, drawn):
    ticks, place = axis([entry for _, bars in drawn for entry in bars])
    marks, y = [], TOP
    for heading, bars in drawn:
        marks.append(text(20, y + 15, heading, "heading"))
        y += HEADING
        end = y + ROW * len(bars)
        marks += [line(place(tick), y - 3, place(tick), end, "grid") for tick in ticks]
        for name, time, ratio in bars:
            marks += bar(name, time, ratio, place, y)
            y += ROW
        y += GAP
    labels = [text(place(tick), y + 16, f"{tick:,g} ns", "middle") for tick in ticks]
    labels.append(text((LEFT + WIDTH - RIGHT) / 2, y + 36, "Time of one operation (logarithmic)", "middle"))
    notes = [text(20, y + 62 + 16 * index, words, "small") for index, words in enumerate(captions(setup))]
    height = y + 60 + 16 * len(notes) + 16
    yield f'<svg xmlns="http://www.w3.org/2000/svg" viewBox="0 0 {WIDTH} {height}" width="{WIDTH}" height="{height}">'
    yield "<title>Time per operation</title>"
    yield f"<style>{STYLE}</style>"
    yield f'<rect x="0.5" y="0.5" width="{WIDTH - 1}" height="{height - 1}" rx="6" class="ground"/>'
    yield text(20, 32, "Time per operation", "title")
    yield text(20, 54, "Shorter is faster; × is the time of ErrorHandlerDll. Bare code is written by hand for this one task.")
    yield from marks + labels + notes
    yield "</svg>"


def table(drawn):
    """The peers as columns, without the bare code."""
    peers = [name for name in SUBJECTS if name not in ("library", "limit") and
             any(name == entry for _, bars in drawn for entry, _, _ in bars)]
    yield f"| time | ErrorHandlerDll | {' | '.join(SUBJECTS[name] for name in peers)} |"
    yield "|---" + "|---:" * (len(peers) + 1) + "|"
    for title, bars in drawn:
        found = {name: (time, ratio) for name, time, ratio in bars}
        cells = [f"{times(found[name][1])}" if name in found else "-" for name in peers]
        yield f"| {title} | {number(found['library'][0])} ns | {' | '.join(cells)} |"


def fill(path, drawn):
    with open(path, encoding="utf-8") as file:
        before, rest = file.read().split(MARKS[0] + "\n")
    after = rest.split(MARKS[1])[1]
    with open(path, "w", encoding="utf-8") as file:
        file.write("\n".join([before + MARKS[0], *table(drawn), MARKS[1] + after]))


def main():
    source, target, page = sys.argv[1:]
    with open(source, encoding="utf-8") as file:
        report = json.load(file)
    drawn = list(groups(report["results"]))
    if not drawn:
        sys.exit("chart.py: no results to draw")
    os.makedirs(os.path.dirname(target) or ".", exist_ok=True)
    with open(target, "w", encoding="utf-8") as file:
        file.writelines(mark + "\n" for mark in draw(report["setup"], drawn))
    fill(page, drawn)


main()
