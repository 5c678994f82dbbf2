"""Finds the crash dumps in a log or in captured standard output."""

import re
from dataclasses import dataclass, field
from datetime import datetime
from typing import Optional

PROGRAM_COUNTER = 16  # index of the instruction pointer among the registers of x86-64

_PREFIX = re.compile(r"(\d\d/\d\d/\d\d \d\d:\d\d:\d\d\.\d{3}) - .{10,}? - \[ThreadID: (-?\d+)\] - (.*)", re.S)
_HEADLINE = re.compile(r"Structured exception (.+) \(code ([0-9A-F]{8})\) occurred at (\S+)$")
_FRAME = re.compile(r"\s*(?P<path>.*?)(?:\((?P<symbol>[^()]*?)(?P<offset>[+-]0x[0-9a-f]+)?\) ?)?"
                    r"\[(?P<address>0x[0-9a-f]+|\(nil\))\]$")
_REGISTER = re.compile(r"reg\[(\d\d)\] = 0x([0-9a-f]+)$")
_MODULE = re.compile(r"    \(([0-9a-f]+)\) ?(.*)$")


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

    @property
    def program_counter(self):
        return self.registers.get(PROGRAM_COUNTER)

    def add(self, text):
        """Takes one line of the dump. Lines of other origin in between (traces, the host's own output) are skipped."""
        if register := _REGISTER.match(text):
            self.registers[int(register[1])] = int(register[2], 16)
        elif self.registers:
            if module := _MODULE.match(text):
                self.modules.append((int(module[1], 16), module[2]))
            elif self.modules and text in ("", "Done"):  # in the log, on standard output
                self.modules_ended = True
        elif frame := _FRAME.match(text):
            address = 0 if frame["address"] == "(nil)" else int(frame["address"], 16)
            offset = int(frame["offset"], 16) if frame["offset"] else None
            self.frames.append(Frame(address, frame["path"], frame["symbol"] or "", offset))

    def same_fault(self, other):
        return (self.frames, self.registers, self.modules) == (other.frames, other.registers, other.modules)


def find_dumps(lines):
    """Threads may log in between, so each thread's lines are put together; lines without a prefix are one stream more."""
    dumps = []
    current = {}
    for number, line in enumerate(lines, 1):
        line = line.rstrip("\r\n")
        prefix = _PREFIX.match(line)
        time, thread, text = prefix.groups() if prefix else (None, None, line)
        if headline := _HEADLINE.search(text):
            dump = Dump(number, headline[1], int(headline[2], 16), headline[3], _parse_time(time), thread)
            current[thread] = dump
            dumps.append(dump)
        elif thread in current:
            current[thread].add(text)
            if current[thread].modules_ended:
                del current[thread]
    return dumps


def _parse_time(text):
    try:
        return datetime.strptime(text, "%d/%m/%y %H:%M:%S.%f") if text else None
    except ValueError:
        return None
