#!/usr/bin/env python3
"""The table of ends in docs/reading-a-log.md says what is left: EndsTest.py PROGRAM PAGE. A cell that begins with "all" or "none"
is tried; "-" means that there is no such way."""
import os
import re
import subprocess
import sys
import tempfile

program, page = (os.path.abspath(argument) for argument in sys.argv[1:])
LEFT = {"all": 50, "none": 0}


def lines_left(keeper, way):
    with tempfile.TemporaryDirectory() as folder:
        subprocess.run(["sh", "-c", 'ulimit -c 0; exec "$@" >errors 2>&1', "sh", program, keeper, way], cwd=folder, timeout=60)
        path = os.path.join(folder, "ends.log")
        return len(re.findall(r"\(\) - line \d+\n", open(path).read())) if os.path.exists(path) else 0


rows = [re.split(r" *\| *", line.strip())[1:-1] for line in open(page) if line.startswith("|")]
head = next(i for i, row in enumerate(rows) if row[0] == "the process ends by")
keepers = [name.replace("`", "") for name in rows[head]]
tried = wrong = 0
for row in rows[head + 2:]:
    way = re.sub(r"`| \(.*\)", "", row[0])
    for keeper, cell in zip(keepers[1:], row[1:]):
        if len(row) != len(keepers) or cell == "-":
            continue
        left = lines_left(keeper, way)
        tried += 1
        if left != LEFT[cell.split()[0].rstrip(",")]:
            wrong += 1
            print(f"{way}, {keeper}: the table says {cell}, left are {left} lines")
print(f"{tried} ends tried, {wrong} are not as the table says")
sys.exit(wrong != 0 or tried < 32)
