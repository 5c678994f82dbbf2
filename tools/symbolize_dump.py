#!/usr/bin/env python3
"""Names function, file and line of every frame of the crash dumps in a log or in captured standard output.

Also reads logs that gzip, bzip2 or xz have compressed, and those in which a collector (the journal, syslog, a container) has
put a time and a name before each line.

Uses what is installed of llvm-symbolizer, addr2line and eu-addr2line, and needs the files that ran, or their like: stripped
ones find their separate debug files by build id and debug link. Says so when a file is missing or is not the one that ran.

Exit status: 0 all dumps shown, 1 there is no dump, 2 the input cannot be read, 3 shown, but with the warnings that are printed.
"""

import argparse
import os
import shutil
import signal
import sys
from datetime import datetime, timedelta

sys.dont_write_bytecode = True  # an installed copy must not grow files that no package owns

from symbolize.dumps import find_dumps
from symbolize.elf import ElfFile, find_debug_file
from symbolize.inputs import DAMAGED, open_text
from symbolize.resolver import TOOL_NAMES, demangle, find_tool, resolve

PROGRAM = os.path.basename(sys.argv[0])
HANDLER_CALLED = "<signal handler called>"


class Module:
    """A loaded file of a dump: where it lay, the file on disk, and the frames in it."""

    def __init__(self, name, base, is_executable):
        self.name, self.base, self.is_executable = name, base, is_executable
        self.elf, self.debug, self.lookups = None, None, []
        self.remarks, self.notes = [], []

    def open(self, options, time):
        path = self._find(options)
        if path is None:
            self.remarks.append("the file is missing: only the symbols of the dump itself are shown")
            return
        try:
            self.elf = ElfFile(path)
        except (OSError, ValueError) as error:
            self.remarks.append(f"{path} cannot be used: {error}")
            return
        # Stamps carry whole milliseconds, cut off.
        if time and datetime.fromtimestamp(os.path.getmtime(path)) > time + timedelta(milliseconds=1):
            self.remarks.append(f"{path} was changed after the crash")
        if not self.elf.has_debug_info:
            self.debug, remarks = find_debug_file(self.elf, options.debug_dir)
            self.remarks += remarks
            if self.debug is None:
                self.notes.append(f"{path} has no debug information, and no debug file of it is found")

    def _find(self, options):
        if self.is_executable and options.exe:
            return options.exe
        found = [f"{d}/{os.path.basename(self.name)}" for d in options.search] + [options.root + self.name]
        if "/" not in self.name and (on_path := shutil.which(self.name)):
            found.append(on_path)
        return next((f for f in found if os.path.isfile(f)), None)

    def check(self, frame, is_caller):
        """Compares what the dump says of a frame with the file; one contradiction proves that another file ran."""
        if self.elf is None or self.base is None:
            return
        address = frame.address - self.base
        values = self.elf.symbols.get(frame.symbol) if frame.symbol else None
        reason = None
        if not self.elf.is_code(address):
            reason = "there is no code"
        elif values and frame.offset is not None and address - frame.offset not in values:
            reason = f"{frame.symbol} lies elsewhere"
        # The start of a function is where a thread or coroutine was made to begin: nothing called it.
        elif is_caller and not (frame.symbol and frame.offset == 0) and not self.elf.follows_call(address):
            reason = "no call comes before the return address"
        if reason and not any("DOES NOT MATCH" in r for r in self.remarks):
            self.remarks.append(f"{self.elf.path} DOES NOT MATCH the file that ran ({reason} at {frame.address:#x}): "
                                "its functions and lines are wrong")


class Report:
    def __init__(self, dump, options):
        self._dump, self._options = dump, options
        self._modules, self._places = {}, {}
        self._bases = {name: base for base, name in reversed(dump.modules) if name}
        self._executable_base = next((base for base, name in dump.modules if not name), None)
        counter = dump.program_counter
        self._fault = next((i for i, f in enumerate(dump.frames) if f.address == counter), None)

    def prepare(self):
        """Assigns the frames to their files and asks the tool once a file."""
        for index, frame in enumerate(self._dump.frames):
            module = self._module_of(frame)
            if module is None or module.base is None:
                continue
            after_fault = self._fault is not None and index > self._fault
            module.check(frame, after_fault)
            # A return address may be the first of the next line or function; the faulting instruction is itself meant.
            module.lookups.append((index, frame.address - module.base - (0 if index == self._fault else 1)))
        for module in self._modules.values():
            if module.elf and module.lookups and self._options.tool:
                elf = module.debug or module.elf
                answers = resolve(self._options.tool, elf.path, [address for _, address in module.lookups])
                if elf.has_debug_info and not any(place for places in answers for _, place in places):
                    module.notes.append(f"{self._options.tool[0]} finds no lines in {elf.path}, which has debug information: "
                                        "try another --tool")
                for (index, address), places in zip(module.lookups, answers):
                    # Without line information the tools fall back on symbols, and some on the nearest, however far away.
                    if elf.covers(address) or any(place for _, place in places):
                        self._places[index] = places

    def _module_of(self, frame):
        if not frame.path:
            return None
        if frame.path not in self._modules:
            is_executable = frame.path not in self._bases
            base = self._executable_base if is_executable else self._bases[frame.path]
            if base is None and not frame.symbol and frame.offset is not None:
                base = frame.address - frame.offset  # of a dump that was cut off before its module list
            module = Module(frame.path, base, is_executable)
            module.open(self._options, self._dump.time)
            if base is None:
                module.remarks.append("the dump does not say where the file was loaded")
            self._modules[frame.path] = module
        return self._modules[frame.path]

    def print(self, number):
        dump = self._dump
        where = f"thread {dump.thread}, {dump.time:%Y-%m-%d %H:%M:%S}" if dump.thread and dump.time else "standard output"
        print(f"dump {number}, line {dump.line}: {dump.signal} (code {dump.code}) at {dump.fault_address}, {where}")
        for index, frame in enumerate(dump.frames):
            self._print_frame(index, frame)
        return self._print_remarks()

    def _print_frame(self, index, frame):
        mark = "*" if index == self._fault else " "
        file = os.path.basename(frame.path) or "no module"
        places = self._places.get(index) or [("", "")]
        if self._fault is not None and index == self._fault - 1:
            places = [(HANDLER_CALLED, "")]  # the trampoline: its address is not that of a return
        for depth, (function, place) in enumerate(places):
            if not function:
                function = f"{demangle(frame.symbol)}+{frame.offset:#x}" if frame.symbol and frame.offset is not None else "??"
            head = f"{mark}#{index:<3} {frame.address:#018x}" if depth == 0 else " " * 24
            inlined = ", inlined into" if depth + 1 < len(places) else ""
            print(f"{head} {function}{' at ' + place if place else ''} [{file}]{inlined}")

    def _print_remarks(self):
        dump = self._dump
        remarks = [f"{m.name}: {r}" for m in self._modules.values() for r in m.remarks]
        if not dump.modules_ended and not dump.modules:
            remarks.append("the dump has no module list: it was cut off, or lines of it are missing")
        if dump.program_counter is None:
            remarks.append("the dump has no program counter: every frame is taken as a return address")
        elif self._fault is None:
            remarks.append(f"the program counter {dump.program_counter:#x} is not among the frames")
        notes = [f"{m.name}: {n}" for m in self._modules.values() for n in m.notes]
        if dump.prefix:
            notes.append(f'"{dump.prefix}" and its like before each line were left out')
        for note in notes:
            print(f"  note: {note}")
        for remark in remarks:
            print(f"  warning: {remark}")
        return bool(remarks)


def parse_arguments():
    parser = argparse.ArgumentParser(description=__doc__, formatter_class=argparse.RawDescriptionHelpFormatter)
    parser.add_argument("files", nargs="*", metavar="FILE", help="log or captured output; standard input without one")
    parser.add_argument("--exe", help="the executable, where the name in the dump does not lead to it")
    parser.add_argument("--search", action="append", default=[], metavar="DIR",
                        help="look for each file here by its name first, for instance unstripped builds")
    parser.add_argument("--root", default="", metavar="DIR", help="put before the paths of the dump")
    parser.add_argument("--debug-dir", action="append", default=[], metavar="DIR",
                        help="folder of separate debug files, before /usr/lib/debug")
    parser.add_argument("--tool", choices=TOOL_NAMES, help="use this one; else the first that is installed")
    options = parser.parse_args()
    options.debug_dir.append("/usr/lib/debug")
    options.tool = find_tool(options.tool)
    return options


def read_dumps(names):
    """Returns (dumps, warnings). Raises OSError."""
    dumps, warnings = [], []
    for name in names or ["-"]:
        with open_text(name) as file:
            try:
                for dump in find_dumps(file):
                    dumps.append(dump)
            except DAMAGED as error:
                warnings.append(f"{name} ends early: {error}")
    return dumps, warnings


def main():
    signal.signal(signal.SIGPIPE, signal.SIG_DFL)  # its reader, head for instance, may have seen enough
    options = parse_arguments()
    sys.stdout.reconfigure(errors="surrogateescape")
    try:
        dumps, warnings = read_dumps(options.files)
    except OSError as error:
        print(f"{PROGRAM}: {error}", file=sys.stderr)
        return 2
    for warning in warnings:
        print(f"warning: {warning}")
    if not dumps:
        print(f"{PROGRAM}: no crash dump found", file=sys.stderr)
        return 1
    warned = bool(warnings)
    if options.tool is None:
        print(f"warning: none of {', '.join(TOOL_NAMES)} is installed: no files and lines")
        warned = True
    for number, dump in enumerate(dumps, 1):
        same = next((i for i, d in enumerate(dumps[:number - 1], 1) if d.same_fault(dump)), None)
        if same:
            print(f"dump {number}, line {dump.line}: the same as dump {same}, written again")
            continue
        report = Report(dump, options)
        report.prepare()
        warned |= report.print(number)
    return 3 if warned else 0


if __name__ == "__main__":
    sys.exit(main())
