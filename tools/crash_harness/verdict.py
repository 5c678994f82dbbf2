"""What a crash left behind: whole dumps, lost lines, doubled lines."""

import glob
import os
import re

_LINE = re.compile(r"\d\d/\d\d/\d\d \d\d:\d\d:\d\d\.\d{3} - ERROR      - \[ThreadID: (\d+)\] - (.*)", re.S)
_WORKER = re.compile(r"Host - worker (\d+) line (\d+)\.")
_HANDLER = "Host::HandleFatalSignal"
_CONSTRUCTOR = "StructuredException::StructuredException"
_REGISTER = r"reg\[\d\d\] = 0x[0-9a-f]+"
_FRAME = r"(\S.*)?\[(0x[0-9a-f]+|\(nil\))\]"
_MODULE = r"    \([0-9a-f]+\) .*"

# One letter for each line, so that the shape of a dump is a pattern over letters.
_LOG_LETTERS = [
    ("w", _WORKER.pattern), ("H", _CONSTRUCTOR + "Structured exception .*"), ("h", _HANDLER + "Structured exception .*"),
    ("s", "-{22}"), ("f", "  Fault address:  .*"), ("c", "  Call stack:"), ("F", "     " + _FRAME), ("e", ""),
    ("R", "  Registers:"), ("r", _REGISTER), ("M", "  Modules list:"), ("m", _MODULE), ("b", "Host - bytes.*"),
    ("x", "  A fault ended this part of the dump|    The list of modules is damaged"),
]
_OUT_LETTERS = [
    ("o", r"printed .{55}"), ("P", ".*" + _CONSTRUCTOR), ("p", _HANDLER), ("h", "Structured exception .*"),
    ("f", "  Fault address:  .*"), ("G", "GenerateCallStack\\.\\.\\."), ("C", "Call stack"), ("m", _MODULE), ("F", _FRAME),
    ("g", "Finished GenerateCallStack"), ("R", "Registers\\.\\.\\."), ("r", _REGISTER), ("A", "GenerateModuleAddresses\\.\\.\\."),
    ("D", "Done"), ("a", "Finished GenerateModuleAddresses"),
    ("x", "  A fault ended this part of the dump|    The list of modules is damaged"),
]
_LOG_DUMPS = ["HfcF+eRr{23}eeM(m+)(x?)e", "shfcF+eRr{23}eeM(m+)(x?)e"]
_OUT_DUMPS = ["PhfGCF+gRr{23}A(m+)(x?)Da", "phfGCF+gRr{23}A(m+)(x?)Da"]


def _letters(lines, table):
    return "".join(next((letter for letter, form in table if re.fullmatch(form, line, re.S)), "?") for line in lines)


def _count_whole(shape, dumps, modules, threads=None):
    counts = []
    for dump in dumps:
        matches = [m for m in re.finditer(dump, shape) if len(m[1]) >= modules]
        if threads is not None:
            matches = [m for m in matches if len(set(threads[m.start():m.end()])) == 1]
        counts.append(len(matches))
    return min(counts), max(counts)


def read_text(path):
    with open(path, errors="surrogateescape", newline="\n") as file:
        return file.read()


class Verdict:
    """`record` as the host left it; `dumps` is the number of threads that crashed, `kinds` of dumps each of them wrote."""

    def __init__(self, folder, record, dumps, modules, kinds):
        files = glob.glob(folder + "/host*.log")
        files.sort(key=lambda name: (len(name), name))
        self.log_lines = [line for name in files for line in read_text(name).split("\n")[:-1]]
        self.torn_end = [name for name in files if not ("\n" + read_text(name)).endswith("\n")]
        parsed = [_LINE.fullmatch(line) for line in self.log_lines]
        bodies = [m[2] if m else "\0" for m in parsed]
        self.log_shape = _letters(bodies, _LOG_LETTERS)
        self.log_whole = _count_whole(self.log_shape, _LOG_DUMPS[:kinds], modules, [m[1] if m else "" for m in parsed]) == (dumps, dumps)

        text = read_text(folder + "/stdout")
        self.out_shape = _letters(text.split("\n")[:-1], _OUT_LETTERS)
        self.out_whole = _count_whole(self.out_shape.replace("o", ""), _OUT_DUMPS[:kinds], modules) == (dumps, dumps)

        logged = {}
        for body in bodies:
            match = _WORKER.fullmatch(body)
            if match:
                key = int(match[1]), int(match[2])
                logged[key] = logged.get(key, 0) + 1
        self.doubled = sorted(key for key, count in logged.items() if count > 1)
        self.lost = [(worker, number) for worker, last in enumerate(record["before"])
                     for number in range(1, last + 1) if (worker, number) not in logged]
        self.torn_inside = self.log_shape.count("?")
        self.printed = self.out_shape.count("o")


class PeerVerdict:
    """For other libraries: a stack trace of some lines behind its headline, and the lines before it."""

    def __init__(self, folder, record):
        paths = [path for path in glob.glob(folder + "/*") if not os.path.islink(path) and os.path.isfile(path)]
        texts = [read_text(path) for path in paths if not path.endswith((".so", "/record", "/stdout"))]
        traces = [re.split(r"(?i)stack trace|\*\*\* SIG", text, maxsplit=1) for text in texts]
        self.whole = any(len(parts) == 2 and parts[1].count("\n") >= 3 for parts in traces)
        numbers = [match for text in texts for match in re.findall(r"worker (\d+) line (\d+)\.", text)]
        logged = {(int(worker), int(number)) for worker, number in numbers}
        self.doubled = len(numbers) - len(logged)
        self.lost = sum((worker, number) not in logged for worker, last in enumerate(record["before"])
                        for number in range(1, last + 1))
