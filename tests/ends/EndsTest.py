#!/usr/bin/env python3
"""The table of ends in docs/reading-a-log.md says what is left: EndsTest.py PROGRAM PAGE. A cell that begins with "all" or "none"
is tried; "-" means that there is no such way."""
import os
import re
import subprocess
import sys
import tempfile

program, page = (os.path.abspath(argument) for argument in sys.argv[1:])
LINES = 50


def table(path):
    rows = [re.split(r" *\| *", line.strip())[1:-1] for line in open(path) if line.startswith("|")]
    head = next(i for i, row in enumerate(rows) if row[0] == "the process ends by")
    body = []
    for row in rows[head + 2 :]:
        if len(row) != len(rows[head]):
            break
        body.append(row)
    return [re.sub("`", "", name) for name in rows[head]], body


def lines_left(keeper, way):
    with tempfile.TemporaryDirectory() as folder:
        subprocess.run(["sh", "-c", 'ulimit -c 0; exec "$@"', "sh", program, keeper, way], cwd=folder, timeout=60,
                       stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)
        path = os.path.join(folder, "ends.log")
        text = open(path).read() if os.path.exists(path) else ""
        return len(re.findall(r"main\(\) - line \d+\n", text))


names, rows = table(page)
tried = wrong = 0
for row in rows:
    way = re.sub(r"`| \(.*\)", "", row[0])
    for keeper, cell in zip(names[1:], row[1:]):
        if cell == "-":
            continue
        expected = {"all": LINES, "none": 0}[cell.split()[0].rstrip(",")]
        left = lines_left(keeper, way)
        tried += 1
        if left != expected:
            wrong += 1
            print(f"{way}, {keeper}: the table says {cell}, left are {left} of {LINES} lines")
print(f"{tried} ends tried, {wrong} are not as the table says")
sys.exit(wrong != 0 or tried < 32)
