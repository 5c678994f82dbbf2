"""What a host has left: its log, its standard output, and its record, which tells the true call stack of each fault."""

import collections
import glob
import os
import pathlib
import re
import shutil
import struct

THREADS = 16
MAX_DUMPS = 1024
HEAD = struct.Struct(f"{5 + 2 * THREADS}q")
DUMP = struct.Struct("3q104Q")
MAX_FRAMES = 100
MAX_UNKNOWN = 25  # frames of code that notes nothing
LAST_WHOLE = 6  # dumps which no more signals are sent into
MAX_BEHIND_MAIN = 12  # libc and libstdc++ start threads
EXITS = {3: "a dump took too long", 4: "another thread could not log at once", 9: "this machine does not allow the restriction"}

# By the beginning of the case's name:
AT_RANDOM = ("random", "beside-stopped")
LOOSE = AT_RANDOM + ("step", "sent", "dumps-on-request", "overflow")  # the fault can be between a call and its note
ALLOWED = {"sent": "wxHhscfFeRrMmPpGCgADa", "owner": "wbs"}  # lines outside of whole dumps

LINE = re.compile(r"\d\d/\d\d/\d\d \d\d:\d\d:\d\d\.\d{3} - ERROR      - \[ThreadID: (\d+)\] - (.*)", re.S)
HANDLER, CONSTRUCTOR = "Host::HandleFatalSignal", "StructuredException::StructuredException"
FRAME = r"(?:\S.*)?\[(?:0x[0-9a-f]+|\(nil\))\]"
UNKNOWN = re.compile(r".*/(lib|ld-)[^/]*|\[.*")  # the libraries of others, and no code at all
COMMON = {"f": "  Fault address:  .*", "r": r"reg\[\d\d\] = 0x[0-9a-f]+", "m": r"    \([0-9a-f]+\) .*",
          "x": "  A fault ended this part of the dump|    The list of modules is damaged"}


def forms(lines):
    """One letter for each kind of line, so that a dump is a pattern over letters."""
    return re.compile("|".join(f"(?P<{letter}>{form})" for letter, form in {**lines, **COMMON}.items()), re.S)


LOG_FORMS = forms({"w": r"Host - worker \d+ line \d+\.", "H": CONSTRUCTOR + "Structured exception .*",
                   "h": HANDLER + "Structured exception .*", "s": "-{22}", "c": "  Call stack:", "F": "     " + FRAME, "e": "",
                   "R": "  Registers:", "M": "  Modules list:", "b": "Host - bytes.*"})
OUT_FORMS = forms({"o": "printed .{55}", "P": ".*" + CONSTRUCTOR, "p": HANDLER, "h": "Structured exception .*",
                   "G": r"GenerateCallStack\.\.\.", "C": "Call stack", "F": FRAME, "g": "Finished GenerateCallStack",
                   "R": r"Registers\.\.\.", "A": r"GenerateModuleAddresses\.\.\.", "D": "Done",
                   "a": "Finished GenerateModuleAddresses"})
LOG_DUMP = re.compile("s?[Hh]fcF+eRr{23}eeM(m+)x?e")
OUT_DUMP = re.compile("[Pp]hfGCF+gRr{23}A(m+)x?Da")

Fault = collections.namedtuple("Fault", "thread written frames")
Dump = collections.namedtuple("Dump", "kind frames registers modules")


def read_text(path):
    with open(path, errors="surrogateescape", newline="\n") as file:
        return file.read()


def prepare(build, folder):
    """What each host needs in its folder."""
    with open(folder + "/record", "wb") as file:
        file.truncate(HEAD.size + MAX_DUMPS * DUMP.size)
    for path in glob.glob(build + "/*.so"):
        shutil.copy(path, folder)


def find_dumps(texts, threads, line_forms, dump_form):
    """The whole dumps of one thread each, with that, and the lines outside of them: a digit stands for a dump."""
    found = [line_forms.fullmatch(text) for text in texts]
    shape = "".join(match.lastgroup if match else "?" for match in found)
    dumps, outside, end = [], [], 0
    for match in dump_form.finditer(shape):
        if len(set(threads[match.start():match.end()])) > 1:
            continue
        def pick(letter):
            return tuple(texts[i].strip() for i in range(*match.span()) if shape[i] == letter)
        kind = 2 if shape[match.start()] in "sp" else 1
        dumps.append((threads[match.start()], Dump(kind, pick("F"), pick("r"), pick("m"))))
        outside += [(shape[i], texts[i]) for i in range(end, match.start())] + [(str(kind), "")]
        end = match.end()
    return dumps, outside + list(zip(shape[end:], texts[end:]))


def addresses_of(dump):
    return [int(text[text.rindex("[") + 1:-1].replace("(nil)", "0"), 16) for text in dump.frames]


def compare_frames(fault, dump, case):
    """The library's frames, the handler, what that returns to, the interrupted place, and from there each noted return address.
    Between them lie unknown frames, when it is one that the former returns to."""
    if f"reg[16] = {fault.frames[1]:#x}" not in dump.registers:
        return "another program counter"
    addresses = addresses_of(dump)
    i = last = next((i for i, text in enumerate(dump.frames) if "libErrorHandlerDll" not in text), len(addresses)) + 1
    for number, expected in enumerate(fault.frames if case.name != "damaged-list" else ()):
        while i < last and i < len(addresses) and addresses[i] != expected:
            i += 1
        if i >= MAX_FRAMES:
            return None
        if i >= len(addresses) or addresses[i] != expected:
            return f"frame {i} of {len(addresses)} is {'/'.join(dump.frames[i:i + 1])}, not {expected:#x}"
        if "libgcc_s" in dump.frames[i]:  # which overwrites its own frames
            return None
        may_skip = number > 0 and UNKNOWN.fullmatch(dump.frames[i]) or case.name.startswith(LOOSE if number == 1 else AT_RANDOM)
        i += 1
        last = i + (MAX_UNKNOWN if may_skip else 0)
    return None if len(addresses) <= i + MAX_BEHIND_MAIN else f"{len(addresses) - i} frames behind main"


class Judge:
    """`wrong` says what is wrong with what `case` has left in `folder`."""

    def __init__(self, case, folder, status):
        self.case, self.folder, self.wrong = case, folder, []
        data = pathlib.Path(folder, "record").read_bytes()
        count, changes, self.modules, self.steps, self.printed, *numbers = HEAD.unpack_from(data)
        self.lines, self.before = numbers[:THREADS], numbers[THREADS:]
        rows = [DUMP.unpack_from(data, HEAD.size + i * DUMP.size) for i in range(min(count, MAX_DUMPS))]
        self.faults = [Fault(*row[:2], row[3:3 + row[2]]) for row in rows if row[2] > 1]  # else interrupted at once
        self.require(status == 0, EXITS.get(status, f"ended with {status}") + f" after fault {count}")
        self.require(not changes, f"mask, signal stack, errno or use of the heap: changed {changes} times")
        self.require(count, "no fault")
        log = self.judge_log() if case.log else None
        out = self.judge_output() if case.out == "file" else None
        if log is not None and out is not None and case.name != "sent":
            self.require(collections.Counter(log) == collections.Counter(out), "log and output differ")
        if case.name.startswith("reload"):
            plugins = [name for dump in out for name in ("first.so", "second.so") if name in "".join(dump.frames)]
            self.require(plugins == ["first.so", "first.so", "second.so", "second.so"] * 2, f"call stacks in {plugins}")

    def require(self, holds, text):
        if not holds:
            self.wrong.append(text)

    def judge_dumps(self, place, dumps):
        free = list(dumps)
        for wanted in (True, False):
            for number, fault in enumerate(self.faults):
                for kind in (1, 2):
                    is_broken = self.case.name == "sent" and number < len(self.faults) - LAST_WHOLE
                    if wanted != (kind <= fault.written and not is_broken) or kind > fault.written + 1:
                        continue
                    near = [item for item in free if item[1].kind == kind and item[0] in (None, fault.thread)]
                    fitting = [item for item in near if compare_frames(fault, item[1], self.case) is None]
                    if fitting:  # where frames may be skipped, deeper dumps fit, too
                        free.remove(min(fitting, key=lambda item: len(item[1].frames)))
                    elif wanted:
                        why = compare_frames(fault, near[0][1], self.case) if near else "not there"
                        self.wrong.append(f"{place}: dump {kind} of fault {number}: {why}")
        self.require(not free, f"{place}: {len(free)} dumps that no fault explains")
        self.require(all(len(dump.modules) >= self.modules for _, dump in dumps), f"{place}: not all modules")
        return [dump for _, dump in dumps]

    def judge_log(self):
        names = filter(os.path.isfile, glob.glob(self.folder + "/host*log"))
        entries = []
        for name in sorted(names, key=lambda name: (name[:len(self.folder) + 6], len(name), name)):
            *lines, rest = read_text(name).split("\n")
            # The kernel may cut short another thread's write at the end of the process.
            self.require(not rest or self.case.name in AT_RANDOM, "a file ends inside a line")
            for line in lines:
                match = LINE.fullmatch(line)
                if match:
                    entries.append([int(match[1]), match[2]])
                elif line:
                    entries = entries or [[0, ""]]
                    entries[-1][1] += "\n" + line
        dumps, outside = find_dumps([body for _, body in entries], [thread for thread, _ in entries], LOG_FORMS, LOG_DUMP)
        self.judge_outside("log", outside)
        self.judge_lines(collections.Counter(body for letter, body in outside if letter == "w"))
        if self.case.name in ("owner-jump-then-handle", "owner-throw", "owner-throw-options"):
            self.judge_owner(outside)
        return self.judge_dumps("log", dumps)

    def judge_lines(self, lines):
        for writer, (last, before) in enumerate(zip(self.lines, self.before)):
            # One may have been on its way when all ended. What a thread has buffered that is stopped in the logger is its own.
            for number in range(1, last + 2):
                count = lines.pop(f"Host - worker {writer} line {number}.", 0)
                fits = count == 1 if number <= before and self.case.name != "beside-stopped" else count <= 1
                self.require(fits, f"line {number} of {last} of writer {writer} is there {count} times")
        self.require(not lines, f"{sum(lines.values())} lines that nobody wrote")

    def judge_owner(self, outside):
        """The owner's block is in one piece, and the entries of the callback, which runs in no signal handler, are whole."""
        text = "|".join(letter + body for letter, body in outside if letter != "1")
        self.require(f"|s{'-' * 22}|wHost - worker 1 line 1.|wHost - worker 1 line 2.|" in text, "the owner's block is split")
        for what, whole in (("message", " " + "7".zfill(5000)), ("hex dump", ("\n" + "00 " * 16 + ": " + "." * 16) * 100)):
            count = text.count(f"|bHost - bytes{whole}|")
            self.require(count == 2, f"{what} of the callback: {count} of 2 whole")

    def judge_outside(self, place, outside):
        allowed = ALLOWED.get(self.case.name.split("-")[0], "w") + "o12"
        strange = [(letter, text) for letter, text in outside if letter not in allowed]
        self.require(not strange, f"{place}: {len(strange)} lines outside of whole dumps: {strange[:1]}")

    def judge_output(self):
        texts = read_text(self.folder + "/stdout").split("\n")[:-1]
        dumps, outside = find_dumps(texts, [None] * len(texts), OUT_FORMS, OUT_DUMP)
        self.judge_outside("output", outside)
        printed = sum(letter == "o" for letter, _ in outside)
        self.require(printed == self.printed or self.case.name in AT_RANDOM + ("other-stdout",),
                     f"{printed} of {self.printed} lines printed")
        return self.judge_dumps("output", dumps)
