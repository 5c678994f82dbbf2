#!/usr/bin/env python3
"""Compares what a reader of logs made of log files with the entries that are in them.

    compare_entries.py lnav ROWS.json FILE...       rows of lnav's table, as it writes them
    compare_entries.py messages LINES.json FILE...  a JSON object a line, with the whole entry as "entry"; in any
                                                    order, and with or without line feeds at an entry's end

FILE... in the order of their numbers.
"""
import json
import re
import sys

LEVELS = {"ERROR": "error", "WARNING": "warning", "DEBUG_LOW": "debug", "DEBUG_HIGH": "debug2"}
NEXT_ENTRY = re.compile(r"\n(?=\d\d/\d\d/\d\d [\d:.]{12} - )")
PLACE = re.compile(r"(?! )(.*?)\((\d+)\) : (.*?)\(\) - ")


def entry_of(text):
    stamp, level, thread, rest = text[:21], *text[24:].split(" - ", 2)
    day, month, year = stamp[:8].split("/")
    place = PLACE.match(rest)
    file, line, function = place.groups() if place else (None, None, None)
    return {
        "log_time": f"20{year}-{month}-{day} {stamp[9:]}",
        "log_level": LEVELS.get(level.rstrip()) or ("critical" if "-" in level else "trace"),
        "thread": thread.removeprefix("[ThreadID: ").removesuffix("]"),
        "file": file,
        "line": line and int(line),
        "function": function,
        "log_body": rest[place.end():] if place else rest,
        "log_text": text,
    }


def entries_in(name):
    with open(name, encoding="utf-8", newline="\n") as log:
        return NEXT_ENTRY.split(log.read().removesuffix("\n"))


def main(kind, result, *files):
    expected = [text for name in files for text in entries_in(name)]
    with open(result, encoding="utf-8") as lines:
        if kind == "lnav":
            expected, actual = [entry_of(text) for text in expected], json.load(lines)
        else:
            actual = [json.loads(line)["entry"] for line in lines]
            expected, actual = (sorted(text.rstrip("\n") for text in texts) for texts in (expected, actual))
    for number, (wanted, found) in enumerate(zip(expected, actual), 1):
        if wanted != found:
            sys.exit(f"entry {number}: expected\n{wanted!r}\nfound\n{found!r}")
    if len(expected) != len(actual) or not expected:
        sys.exit(f"{len(expected)} entries in the files, {len(actual)} found")
    print(f"{len(expected)} entries of {len(files)} files, as written")


if __name__ == "__main__":
    main(*sys.argv[1:])
