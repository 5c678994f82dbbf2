#!/usr/bin/env python3
"""Compares what a reader of logs made of log files with the entries that are in them.

    compare_entries.py lnav ROWS.json FILE...       rows of lnav's table, as it writes them
    compare_entries.py messages LINES.json FILE...  a JSON object a line, with the whole entry as "entry"; in any
                                                    order, and with or without line feeds at an entry's end

FILE... in the order of their numbers. Fields are found by their place in the line and by plain searches, not by the patterns
that the readers use.
"""
import json
import sys

LEVELS = {"ERROR": "error", "WARNING": "warning", "DEBUG_LOW": "debug", "DEBUG_HIGH": "debug2"}


def location_of(text):
    """File, line and function of a text that starts with "File(120) : Func() - ", and what follows."""
    place, separator, rest = text.partition("() - ")
    source, colon, function = place.partition(") : ")
    file, bracket, line = source.rpartition("(")
    if separator and colon and bracket and line.isdigit() and not file.startswith(" "):
        return file, int(line), function, rest
    return None, None, None, text


def entry_of(text):
    stamp, level, thread, rest = text[:21], *text[24:].split(" - ", 2)
    day, month, year = stamp[:8].split("/")
    file, line, function, body = location_of(rest)
    return {
        "log_time": f"20{year}-{month}-{day} {stamp[9:]}",
        "log_level": LEVELS.get(level.rstrip()) or ("critical" if "-" in level else "trace"),
        "thread": thread.removeprefix("[ThreadID: ").removesuffix("]"),
        "file": file,
        "line": line,
        "function": function,
        "log_body": body,
        "log_text": text,
    }


def entries_in(names):
    texts = []
    for name in names:
        with open(name, encoding="utf-8", newline="\n") as log:
            for line in log:
                if line[2:3] == "/" and line[8:9] == " " and line[21:24] == " - ":
                    texts.append(line)
                else:
                    texts[-1] += line
    return [text.removesuffix("\n") for text in texts]


def main(kind, result, *files):
    expected = entries_in(files)
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
