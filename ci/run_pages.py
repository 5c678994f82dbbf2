#!/usr/bin/env python3
"""Runs the blocks that the pages mark as `sh` line by line in one shell a page, and those marked as `lnav` in that viewer; for
ci/pages.sh, which prepares the folder. A command in a block without a mark, or one that fails, is an error.
"""

import glob
import re
import subprocess
import sys

PAGES = ["README.md", "CONTRIBUTING.md", "examples/mrz_reader/README.md"] + sorted(glob.glob("docs/*.md"))

# What is not run here, and why.
LEFT_OUT = {
    "./demo.sh": "run by ci/demo.sh",
    "./test.sh": "the first stage of .ci/run",
    ".ci/run": "runs this",
    "ci/quick.sh": "stages of .ci/run",
    "tools/setup.sh": "has been run for this",
    "cmake --preset debug": "a build of the whole tree; the same line with release is run",
    "ctest --preset debug": "needs that build; .ci/run does it with release",
    "clang-format -i FILE...": "the names are the reader's; ci/format.sh runs it on all",
    "mrz_reader [--log FILE]": "a synopsis; the line behind it is run",
}
COMMAND = re.compile(r"(?:\./|\.?ci/|tools/|build/)\S+|(?:apt-get|c\+\+|cc|cmake|cpack|ctest|curl|dpkg|g\+\+|gcc|gdb|grep|journalctl|"
                     r"kill|ldd|lnav|logrotate|ls|man|pkill|python3|sudo|tail|vim|zcat) +[-\w./$]")


def blocks(page):
    """(mark, line number, lines) of each fenced or indented block of code."""
    mark, start, lines = None, 0, []
    previous = ""
    with open(page, encoding="utf-8") as file:
        for number, line in enumerate(file.read().splitlines() + [""], 1):
            if mark is None and line.startswith("```"):
                mark, start, lines = line[3:], number, []
            elif mark is not None and mark != "    " and line == "```":
                yield mark, start, lines
                mark = None
            elif mark is None and line.startswith("    ") and not previous:
                mark, start, lines = "    ", number - 1, [line[4:]]
            elif mark == "    " and not line.startswith("    "):
                yield mark, start, lines
                mark = None
            elif mark is not None:
                lines.append(line[4:] if mark == "    " else line)
            previous = line.strip()


def run(page, number, line, shell):
    shell.stdin.write(line + "\necho \"#status $?\"\n")
    shell.stdin.flush()
    output = []
    for text in shell.stdout:
        if text.startswith("#status "):
            break
        output.append(text)
    else:
        text = "#status of a shell that has ended"
    if text != "#status 0\n":
        sys.exit(f"{page}:{number}: {line}\n{''.join(output)}{text}")


def main():
    count, left_out = 0, []
    for page in PAGES:
        with subprocess.Popen(["bash"], stdin=subprocess.PIPE, stdout=subprocess.PIPE, stderr=subprocess.STDOUT, text=True,
                              errors="replace") as shell:
            for mark, start, lines in blocks(page):
                for number, line in enumerate(lines, start + 1):
                    reason = next((r for start_of, r in LEFT_OUT.items() if line.startswith(start_of)), None)
                    if reason:
                        left_out.append(f"{line.split('  ')[0]} ({reason})")
                    elif mark == "sh" and line:
                        run(page, number, line, shell)
                        count += 1
                    elif mark == "lnav":
                        run(page, number, f"lnav -c '{line.replace(chr(39), chr(39) + chr(92) + chr(39) * 2)}' reader.*.log", shell)
                        count += 1
                    elif mark in ("", "    ") and COMMAND.match(line):
                        sys.exit(f"{page}:{number}: a command in a block that is not marked as sh: {line}")
            shell.stdin.close()
    print(f"{count} commands of {len(PAGES)} pages. Left out: {'; '.join(left_out)}")


if __name__ == "__main__":
    main()
