#!/usr/bin/env python3
"""Writes docs/codes.md from the catalogue; with --check only tells whether the page is current."""

import re
import sys
from pathlib import Path

ROOT = Path(__file__).resolve().parent.parent
TABLE = ROOT / "ErrorHandlerDll/ErrorStrings.h"
PAGE = ROOT / "docs/codes.md"

HEAD = """# Codes

Made by `tools/generate_codes.py` from `ErrorHandlerDll/ErrorStrings.h`; do not edit.

| values, as unsigned | kind | text |
| --- | --- | --- |
| 0 to {last} | built in | the template below, or what `SetErrorMessage` put in its place |
| 0x10000 to 0x1FFFF | custom | what `AddCustomErrorMessage` registered |
| 0xC0000001 to 0xFFFFFFFF | structured exception | made from the code |
| all others | invalid | "Invalid error code" |

The last error after a fatal signal is the signal's `si_code`: its numbers (1, 2) are not codes of this table. After a failure
inside a handler it is -1. `%s`, `%d` and `%02x` stand for what the raising code adds.

## Errors

| code | name | text |
| ---: | --- | --- |
"""
WARNINGS = """
## Warnings

| code | text |
| ---: | --- |
"""


def cell(text):
    return "`" + text.replace('\\"', '"').replace("|", "\\|") + "`"


def make_page():
    source = TABLE.read_text(encoding="utf-8")
    errors = re.findall(r'\{(\d+), (\w+), "((?:[^"\\]|\\.)*)"\},', source)
    block = re.search(r"gWarningStrings\[\] = \{(.*?)\};", source, re.S)[1]
    warnings = re.findall(r'"((?:[^"\\]|\\.)*)"', block)
    rows = [f"| {code} | {'' if name == 'kUnnamedCode' else name} | {cell(text)} |\n" for code, name, text in errors]
    if [int(code) for code, _, _ in errors] != list(range(len(rows))) or not rows:
        sys.exit(f"generate_codes: the table of {TABLE.name} does not read as one row a code")
    page = HEAD.format(last=len(rows) - 1) + "".join(rows) + WARNINGS
    return page + "".join(f"| {code} | {cell(text)} |\n" for code, text in enumerate(warnings))


def main():
    page = make_page()
    if sys.argv[1:] == ["--check"]:
        if not PAGE.is_file() or PAGE.read_text(encoding="utf-8") != page:
            sys.exit("docs/codes.md is out of date: run tools/generate_codes.py")
    else:
        PAGE.write_text(page, encoding="utf-8")


if __name__ == "__main__":
    main()
