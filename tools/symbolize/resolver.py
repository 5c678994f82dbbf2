"""Function, file and line of addresses in an ELF file, from whichever tool is installed."""

import re
import shutil
import subprocess
from functools import lru_cache

_VERSIONS = [""] + [f"-{n}" for n in range(25, 12, -1)]  # Debian's llvm-NN packages install names with the version only
_TOOLS = {
    "llvm-symbolizer": ["llvm-symbolizer" + v for v in _VERSIONS],
    "addr2line": ["addr2line"],
    "eu-addr2line": ["eu-addr2line"],  # finds no lines without .debug_aranges, which Clang only writes when told
}
TOOL_NAMES = list(_TOOLS)


def find_tool(wanted=None):
    """(kind, path) of the tool, or None."""
    for kind in [wanted] if wanted else TOOL_NAMES:
        for name in _TOOLS[kind]:
            if path := shutil.which(name):
                return kind, path
    return None


def resolve(tool, path, addresses):
    """For each address a list of (function, "file:line") from the innermost inlined function outwards; parts may be empty."""
    kind, program = tool
    if kind == "llvm-symbolizer":
        command = [program, f"--obj={path}", "--inlining", "--demangle", "--relativenames"]
    else:
        command = [program, "-a", "-f", "-i", "-C", "-e", path]
    output = _run(command + [hex(a) for a in addresses])
    blocks = re.split(r"\n\n", output) if kind == "llvm-symbolizer" else re.split(r"^0x[0-9a-f]+\n", output, flags=re.M)[1:]
    results = [_parse_block(block) for block in blocks[:len(addresses)]]
    return results + [[]] * (len(addresses) - len(results))


def _parse_block(block):
    lines = block.strip("\n").split("\n")
    pairs = zip(lines[::2], lines[1::2])
    return [(_known(function.split(" inlined at ")[0]), _place(place)) for function, place in pairs]


def _known(text):
    return "" if text.startswith("??") else text


def _place(text):
    match = re.match(r"(.*?):(\d+)", text)
    return f"{match[1]}:{match[2]}" if match and not text.startswith("??") and match[2] != "0" else ""


@lru_cache(maxsize=None)
def demangle(symbol):
    program = shutil.which("c++filt") or shutil.which("llvm-cxxfilt")
    return _run([program, symbol]).strip() or symbol if program and symbol.startswith("_Z") else symbol


def _run(command):
    return subprocess.run(command, stdin=subprocess.DEVNULL, capture_output=True, encoding="utf-8",
                          errors="surrogateescape", check=False).stdout
