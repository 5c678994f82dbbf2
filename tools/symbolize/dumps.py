"""Finds the crash dumps in a log or in captured standard output, also with a collector's prefix before each line."""

import re
from dataclasses import dataclass, field
from datetime import datetime
from typing import Optional

PROGRAM_COUNTER = 16  # index of the instruction pointer among the registers of x86-64

# Collectors cut blanks off the ends of lines.
_STAMP = re.compile(r"(\d\d/\d\d/\d\d \d\d:\d\d:\d\d\.\d{3}) - .{10,}? - \[ThreadID: (-?\d+)\] -(?: (.*))?$", re.S)
_HEADLINE = re.compile(r"Structured exception (.+) \(code ([0-9A-F]{8})\) occurred at (\S+)$")
_FRAME = re.compile(r"\s*(?P<path>.*?)(?:\((?P<symbol>[^()]*?)(?P<offset>[+-]0x[0-9a-f]+)?\) ?)?"
                    r"\[(?P<address>0x[0-9a-f]+|\(nil\))\]$")
_REGISTER = re.compile(r"reg\[(\d\d)\] = 0x([0-9a-f]+)$")
_MODULE = re.compile(r"\s*\(([0-9a-f]+)\) ?(.*)$")
# Times as collectors write them: ISO 8601, the journal's and syslog's, seconds since the start or since 1970.
_COLLECTOR_TIME = re.compile(r"\d{4}-\d\d-\d\d[T ]\d\d:\d\d:\d\d(?:[.,]\d+)?(?:Z|[+-]\d\d:?\d\d)?"
                             r"|[^\W\d]{3,} [ \d]\d \d\d:\d\d:\d\d(?:\.\d+)?|\[ *\d+\.\d+\]|\b\d{10}\.\d+")


@dataclass
class Frame:
    address: int
    path: str
    symbol: str
    offset: Optional[int]  # from the symbol, or from the load offset of the file when there is no symbol


@dataclass
class Dump:
    line: int
    signal: str
    code: int
    fault_address: str
    time: Optional[datetime] = None
    thread: Optional[str] = None
    frames: list = field(default_factory=list)
    registers: dict = field(default_factory=dict)
    modules: list = field(default_factory=list)  # (load offset, path); the executable has no path
    modules_ended: bool = False
    prefix: str = ""  # what a collector had put before its first line

    @property
    def program_counter(self):
        return self.registers.get(PROGRAM_COUNTER)

    def add(self, text):
        """Takes one line of the dump; returns whether it is one. Lines of other origin in between (traces, the host's own
        output) are skipped."""
        if register := _REGISTER.match(text):
            self.registers[int(register[1])] = int(register[2], 16)
        elif self.registers:
            if module := _MODULE.match(text):
                self.modules.append((int(module[1], 16), module[2]))
            elif self.modules and text in ("", "Done"):  # in the log, on standard output
                self.modules_ended = True
            else:
                return False
        elif frame := _FRAME.match(text):
            address = 0 if frame["address"] == "(nil)" else int(frame["address"], 16)
            offset = int(frame["offset"], 16) if frame["offset"] else None
            self.frames.append(Frame(address, frame["path"], frame["symbol"] or "", offset))
        else:
            return False
        return True

    def same_fault(self, other):
        return (self.frames, self.registers, self.modules) == (other.frames, other.registers, other.modules)


def _pattern(prefix):
    """Of the lines with the same prefix. The time in it changes; the rest must not, so that processes that dump at once stay
    apart."""
    return f"(?:{_COLLECTOR_TIME.pattern})".join(re.escape(part) for part in _COLLECTOR_TIME.split(prefix))


class _Prefixes:
    """What collectors put before the lines of one input."""

    def __init__(self):
        self._patterns = []

    def learn(self, prefix):
        pattern = re.compile(f"{_pattern(prefix)}|{_pattern(prefix.rstrip())}$")
        if prefix and pattern not in self._patterns:
            self._patterns.append(pattern)

    def splits(self, line):
        """Pairs of a prefix, by its number, and the rest of the line; the last is 0, for none, and the line as it is."""
        matches = ((number, pattern.match(line)) for number, pattern in enumerate(self._patterns, 1))
        return [(number, line[match.end():]) for number, match in matches if match] + [(0, line)]


def find_dumps(lines):
    """Yields each dump where it begins; it is whole when the lines have ended. Threads may log in between, so each thread's
    lines are put together; lines that name no thread are one stream more, and so are those behind each prefix."""
    current = {}
    prefixes = _Prefixes()
    for number, line in enumerate(lines, 1):
        line = line.rstrip("\r\n")
        if headline := _HEADLINE.search(line):
            stamp = _STAMP.search(line)
            time, thread = stamp.groups()[:2] if stamp else (None, None)
            prefix = line[:(stamp or headline).start()]
            dump = Dump(number, headline[1], int(headline[2], 16), headline[3], _parse_time(time), thread, prefix=prefix)
            prefixes.learn(prefix)
            # A host may have printed half a line before the dump began: then the lines behind it carry no prefix, and the
            # first of them decides.
            current.update({(stream, thread): dump for stream, _ in prefixes.splits(line)})
            yield dump
        else:
            _continue_dump(current, prefixes.splits(line))


def _continue_dump(current, splits):
    for stream, text in splits:
        stamp = _STAMP.match(text)
        thread, text = (stamp[2], stamp[3] or "") if stamp else (None, text)
        dump = current.get((stream, thread))
        if dump and dump.add(text):
            if not stream:
                dump.prefix = ""
            for key in [key for key, value in current.items() if value is dump]:
                if dump.modules_ended or key != (stream, thread):
                    del current[key]
            return


def _parse_time(text):
    try:
        return datetime.strptime(text, "%d/%m/%y %H:%M:%S.%f") if text else None
    except ValueError:
        return None
