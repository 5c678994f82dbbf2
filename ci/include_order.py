#!/usr/bin/env python3
"""A folder includes only what the table of CONTRIBUTING.md allows it, and no headers or units include each other in a ring."""
import graphlib
import pathlib
import re
import sys

root = pathlib.Path(__file__).resolve().parent.parent
allowed, row = {}, set()  # folder: the folders that it may include, itself among them
for folders, included in re.findall(r"^\| (`.+?`) \|(.+?)\|", (root / "CONTRIBUTING.md").read_text(encoding="utf-8"), re.MULTILINE):
    row = (row if "these" in included else set()) | set(re.findall("`(.+?)`", included))
    for folder in re.findall("`(.+?)`", folders):
        allowed[folder] = row | {folder, included.strip()}


def folder_of(path):
    return max((folder for folder in allowed if path.startswith(folder)), key=len, default=None)


def resolve(file, name, quoted):
    places = [file.parent] * quoted + [root / "include", root, root / "tests", root / "harness"]
    return next(((place / name).resolve() for place in places if (place / name).is_file()), None)


def unit_of(name):
    """A header and its source are one unit. So are the platform's folder behind its one header, and the logger's two helpers."""
    return re.sub("^ZelvoWinAPI/.*", "ZelvoWinAPI", re.sub("/Log(Emergency|Fork)$", "/FileLogger", name.rsplit(".")[0]))


wrong, units = [], {}
files = [file for folder in allowed for file in (root / folder).rglob("*") if file.suffix in (".h", ".cpp", ".c")]
for file in sorted(set(files)):
    name = file.relative_to(root).as_posix()
    for number, line in enumerate(file.read_text(encoding="utf-8", errors="replace").splitlines(), 1):
        if (match := re.match(r'#include ([<"])(.*)[>"]', line)) and (target := resolve(file, match[2], match[1] == '"')):
            used = target.relative_to(root).as_posix()
            if not {folder_of(used), "anything"} & allowed[folder_of(name)]:
                wrong.append(f"{name}:{number}: {folder_of(name)} may not include {used}")
            if unit_of(used) != unit_of(name):
                units.setdefault(unit_of(name), set()).add(unit_of(used))
try:
    graphlib.TopologicalSorter(units).prepare()
except graphlib.CycleError as ring:
    wrong.append("a ring: " + " <- ".join(ring.args[1]))
sys.exit("\n".join(wrong) or print(f"{len(allowed)} folders and {len(units)} units in order"))
