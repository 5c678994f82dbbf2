#!/usr/bin/env python3
"""Runs hosts that fault again and again and go on, and compares each dump with the true call stack that the host has noted.

    crash_again.py BUILD [--only TEXT] [--keep]

BUILD is the folder that build.sh has filled. One row a failure, the counts at the end; exits 1 when anything failed.
"""

import argparse
import collections
import concurrent.futures
import fcntl
import glob
import os
import re
import shutil
import struct
import subprocess
import sys
import tempfile

sys.path.insert(0, os.path.dirname(os.path.abspath(__file__)) + "/../../tools/crash_harness")
import verdict as crash  # noqa: E402

TIME_LIMIT = 25
LONGEST_DUMP = 3.0  # seconds: what a watchdog leaves a dying process
MAX_FRAMES = 100
MAX_GAP = 12
MAX_DUMPS = 256
MAX_BEHIND_MAIN = 12  # libc and libstdc++ start threads
HEAD = struct.Struct("2iq16q")
DUMP = struct.Struct("4iQ104Q")
BYTES = "".join(f"\n{' '.join(f'{i & 255:02X}' for i in range(row, row + 16))} : " for row in range(0, 1600, 16))

Fault = collections.namedtuple("Fault", "thread broken written pc frames")
Dump = collections.namedtuple("Dump", "kind frames registers modules")

EXITS = {4: "another thread could not log at once", 8: "the plug-ins lie at different addresses",
         9: "this machine does not allow the restriction"}


def read_dumps(texts, table, forms):
    """The whole dumps among lines, each with the number of its first line, and the lines outside of them."""
    shape = crash._letters(texts, table)
    dumps, outside, end = [], [], 0
    for match in re.finditer("|".join(form.replace("(x?)", "") for form in forms), shape):
        def pick(letter):
            return tuple(texts[i].strip() for i in range(*match.span()) if shape[i] == letter)
        dumps.append((match.start(), Dump(2 if shape[match.start()] in "sp" else 1, pick("F"), pick("r"), pick("m"))))
        outside += [(shape[i], texts[i]) for i in range(end, match.start())] + [(str(dumps[-1][1].kind), "")]
        end = match.end()
    return dumps, outside + list(zip(shape[end:], texts[end:]))


def compare_frames(fault, dump):
    """The library's frames, the handler, the interrupted place, and from there each noted return address."""
    addresses = [int(text[text.rindex("[") + 1:-1].replace("(nil)", "0"), 16) for text in dump.frames]
    i = next((i for i, text in enumerate(dump.frames) if "libErrorHandlerDll" not in text), len(addresses)) + 1
    last = i
    for expected in fault.frames:
        if expected == 0:
            last = i + MAX_GAP
            continue
        while i < last and i < len(addresses) and addresses[i] != expected:
            i += 1
        if i >= MAX_FRAMES:
            return None
        if i >= len(addresses) or addresses[i] != expected:
            return f"frame {i} of {len(addresses)} is {'/'.join(dump.frames[i:i + 1])}, not {expected:#x}"
        i += 1
        last = i
    if len(addresses) > i + MAX_BEHIND_MAIN:
        return f"{len(addresses) - i} frames behind main"
    return None if f"reg[16] = {fault.pc:#x}" in dump.registers else "another program counter"


class Case:
    """What a case of the host may leave besides whole dumps: letters of lines, dumps that a signal was sent into."""

    def __init__(self, name, allowed="w", out=True, log=True, names=(), setup=lambda folder: None, status=0):
        self.name, self.allowed, self.out, self.log, self.names, self.setup = name, allowed, out, log, names, setup
        self.wrong, self.status = [], status

    def judge_dumps(self, place, dumps, threads):
        free = list(dumps)
        for wanted in (True, False):
            for number, fault in enumerate(self.faults):
                for kind in (1, 2):
                    if wanted != (kind <= fault.written and not fault.broken) or kind > fault.written + 1:
                        continue
                    near = [item for item in free if item[1].kind == kind and threads.get(item[0], fault.thread) == fault.thread]
                    fitting = [item for item in near if compare_frames(fault, item[1]) is None]
                    if fitting:
                        free.remove(fitting[0])
                    elif wanted:
                        why = compare_frames(fault, near[0][1]) if near else "not there"
                        self.wrong.append(f"{place}: dump {kind} of fault {number}: {why}")
        if free:
            self.wrong.append(f"{place}: {len(free)} dumps that no fault explains")

    def judge_log(self, folder):
        names = glob.glob(folder + "/host*log")
        names.sort(key=lambda name: (name[:len(folder) + 6], len(name), name))
        text = "".join(crash.read_text(name) for name in names if os.path.isfile(name))
        entries = []
        for line in text.split("\n")[:-1]:
            match = crash._LINE.fullmatch(line)
            if match:
                entries.append([int(match[1]), match[2]])
            elif line or entries and self.allowed == "wbs":
                entries = entries or [[0, ""]]
                entries[-1][1] += "\n" + line
        if entries and not text.endswith("\n"):
            self.wrong.append("the log ends inside a line")
        dumps, outside = read_dumps([body for _, body in entries], crash._LOG_LETTERS, crash._LOG_DUMPS)
        self.judge_dumps("log", dumps, {start: entries[start][0] for start, _ in dumps})
        self.judge_outside("log", outside)
        lines = collections.Counter(body for letter, body in outside if letter == "w")
        for writer, last in enumerate(self.lines):
            for number in range(1, last + 1):
                count = lines.pop(f"Host - worker {writer} line {number}.", 0)
                if count != 1:
                    self.wrong.append(f"line {number} of writer {writer} is there {count} times")
        if sum(lines.values()) > 1:  # one may have been on its way when all ended
            self.wrong.append(f"{sum(lines.values())} lines that nobody wrote")
        if self.name.startswith("owner") and self.name != "owner-jump":  # that calls back in the signal handler
            self.judge_owner(outside)
        return [dump for _, dump in dumps]

    def judge_owner(self, outside):
        """But for a dump that may not wait, the owner's block is in one piece; the callback's entries are whole."""
        text = "|".join(letter + re.sub(r"(?m) : .*$", " : ", body) for letter, body in outside if letter != "1")
        if f"|s{'-' * 22}|wHost - worker 1 line 1.|wHost - worker 1 line 2.|" not in text:
            self.wrong.append("the block of the log's owner is split")
        for what, whole in (("message", "|bHost - bytes " + "7".zfill(5000)), ("hex dump", "|bHost - bytes" + BYTES)):
            if text.count(whole + "|") != 2:
                self.wrong.append(f"{what} of the callback: {text.count(whole + '|')} of 2 whole")

    def judge_outside(self, place, outside):
        strange = [(letter, text) for letter, text in outside if letter not in self.allowed + "12"]
        if strange:
            self.wrong.append(f"{place}: {len(strange)} lines outside of whole dumps: {strange[0]}")

    def judge(self, folder, status):
        with open(folder + "/record", "rb") as file:
            data = file.read()
        count, changes, slowest, *self.lines = HEAD.unpack_from(data)
        rows = [DUMP.unpack_from(data, HEAD.size + i * DUMP.size) for i in range(min(count, MAX_DUMPS))]
        self.faults = [Fault(row[0], row[1], row[2], row[4], row[5:5 + row[3]]) for row in rows]
        if status != self.status:
            self.wrong.append(EXITS.get(status, f"ended with {status}") + f" after fault {count}")
        if changes:
            self.wrong.append(f"mask, signal stack or errno changed {changes} times")
        if slowest > LONGEST_DUMP * 1e9:
            self.wrong.append(f"a dump took {slowest / 1e9:.1f} s")
        if not count:
            self.wrong.append("no fault")
        log = self.judge_log(folder) if self.log else None
        if self.out:
            out, outside = read_dumps(crash.read_text(folder + "/stdout").split("\n")[:-1], crash._OUT_LETTERS, crash._OUT_DUMPS)
            self.judge_dumps("output", out, {})
            self.judge_outside("output", outside)
            out = [dump for _, dump in out]
            if log is not None and "x" not in self.allowed and collections.Counter(log) != collections.Counter(out):
                self.wrong.append("log and output differ")
            for number, name in enumerate(self.names):
                if not any(name in "".join(dump.frames) for dump in out[2 * number:2 * number + 2]):
                    self.wrong.append(f"{name} is not in the call stacks of its faults")


def make_fifo(folder):
    os.mkfifo(folder + "/hosta.log")
    descriptor = os.open(folder + "/hosta.log", os.O_RDWR)  # and nobody reads
    fcntl.fcntl(descriptor, fcntl.F_SETPIPE_SZ, 4096)
    return descriptor


BROKEN = "wxHhscfFeRrMmPpGCFgADa"  # any part of a dump
WAYS = "jump jump-then-handle throw return".split()
CASES = [Case(name) for name in WAYS + """
    threads-jump threads-throw threads-return fork callback-jumps alarm dumps-on-request log-call log-call-then-handle nested
    nested-throw readv-refused readv-kills no-proc chroot not-dumpable no-memory no-descriptors closed-descriptors
    small-signal-stack overflow small-thread""".split()]
CASES += [Case(name, names=["first.so", "second.so"] * 2) for name in ("reload", "reload-throw")]
CASES += [Case("sent", allowed=BROKEN), Case("no-file-size", log=False), Case("fifo", log=False, setup=make_fifo)]
CASES += [Case(name, allowed="wbs") for name in ("owner-jump", "owner-jump-then-handle", "owner-throw", "owner-throw-options")]


def run(build, host, case, keep):
    folder = tempfile.mkdtemp(prefix="again-")
    kept = case.setup(folder)
    for name in glob.glob(build + "/*.so"):
        shutil.copy(name, folder)
    with open(folder + "/record", "wb") as file:
        file.truncate(HEAD.size + MAX_DUMPS * DUMP.size)
    environment = dict(os.environ, ASAN_OPTIONS="detect_stack_use_after_return=0:detect_leaks=0:use_sigaltstack=0")
    command = [f"{build}/{host}", case.name]
    if host.startswith("valgrind"):
        command = ["valgrind", "--quiet", "--log-file=valgrind"] + [f"{build}/host-O1", case.name]
    if host in ("valgrind", "asan"):
        environment["SLOW"] = "1"
    try:
        with open(folder + "/errors", "wb") as errors, open(folder + "/stdout", "ab") as output:
            pipe = subprocess.PIPE if case.name == "no-file-size" else output
            process = subprocess.Popen(command, cwd=folder, env=environment, stdin=subprocess.DEVNULL, stdout=pipe, stderr=errors)
            try:
                text = process.communicate(timeout=TIME_LIMIT)[0]
            except subprocess.TimeoutExpired:
                process.kill()
                text = process.communicate()[0]
                case.wrong.append("hangs")
            output.write(text or b"")
        case.judge(folder, process.returncode)
        if host == "asan" and os.path.getsize(folder + "/errors"):
            case.wrong.append("the sanitizer reports " + crash.read_text(folder + "/errors")[:300])
        if host == "valgrind":
            case.wrong += [text for text in re.findall(r"at 0x\w+: (.*)", crash.read_text(folder + "/valgrind"))
                           if "libErrorHandlerDll" in text][:1]
    finally:
        if kept is not None:
            os.close(kept)
        if not keep:
            shutil.rmtree(folder)
    return folder


def main():
    parser = argparse.ArgumentParser()
    parser.add_argument("build")
    parser.add_argument("--only", default="")
    parser.add_argument("--keep", action="store_true")
    options = parser.parse_args()
    build = os.path.abspath(options.build)
    some = [case for case in CASES if case.name in WAYS + ["threads-jump", "overflow", "callback-jumps"]]
    few = [case for case in CASES if case.name in WAYS + ["callback-jumps"]]
    clang = [case for case in some if case.name not in ("throw", "return")]  # it has no exceptions out of instructions
    hosts = {"host-O1": CASES, "host-O0": some, "host-O3": some, "host-stripped": some, "host-nopie": some, "host-clang": clang,
             "asan": few, "valgrind": few}
    trials = [(host, Case(**{key: value for key, value in vars(case).items() if key not in ("wrong",)}))
              for host, cases in hosts.items() for case in cases if options.only in f"{host} {case.name}"]
    failed = 0
    with concurrent.futures.ThreadPoolExecutor(os.cpu_count() + 1) as pool:
        folders = pool.map(lambda trial: run(build, *trial, options.keep), trials)
        for (host, case), folder in zip(trials, folders):
            failed += bool(case.wrong)
            if case.wrong or options.keep:
                print(f"{'FAILED' if case.wrong else 'passed'} {host} {case.name} {folder if options.keep else ''}")
            for text in case.wrong[:3]:
                print(f"    {text[:300]}")
    print(f"{len(trials) - failed} passed, {failed} failed")
    sys.exit(1 if failed or not trials else 0)


main()
