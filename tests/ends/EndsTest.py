#!/usr/bin/env python3
"""The table of ends in docs/reading-a-log.md says what is left: EndsTest.py PROGRAM PAGE. A cell that begins with "all" or "none"
is tried; "-" means that there is no such way."""
import os
import re
import resource
import subprocess
import sys
import tempfile

program, page = (os.path.abspath(argument) for argument in sys.argv[1:])
LEFT = {"all": 50, "none": 0}


def lines_left(keeper, way):
    with tempfile.TemporaryDirectory() as folder:
        subprocess.run([program, keeper, way], cwd=folder, timeout=60, stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)
        path = os.path.join(folder, "ends.log")
        return len(re.findall(r"\(\) - line \d+\n", open(path).read())) if os.path.exists(path) else 0


resource.setrlimit(resource.RLIMIT_CORE, (0, 0))
rows = [re.split(r" *\| *", line.strip())[1:-1] for line in open(page) if line.startswith("|")]
head = next(i for i, row in enumerate(rows) if row[0] == "the process ends by")
keepers = [name.replace("`", "") for name in rows[head]]
ends = [(re.sub(r"`| \(.*\)", "", row[0]), keeper, cell) for row in rows[head + 2:] if len(row) == len(keepers)
        for keeper, cell in zip(keepers[1:], row[1:]) if cell != "-"]
wrong = [end for end in ends if lines_left(end[1], end[0]) != LEFT[end[2].split()[0].rstrip(",")]]
print(f"{len(ends)} ends tried; these are not as the table says: {wrong}")
sys.exit(wrong != [] or len(ends) < 32)
