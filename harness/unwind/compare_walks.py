#!/usr/bin/env python3
"""Compares the call stack of a dump with a debugger's at random instructions.

    compare_walks.py BUILD [N]

BUILD is the folder that harness/crash/build.sh has filled. N instructions (800) of its host are tried, in libc, the loader,
libstdc++, plug-ins and the library: the debugger stops it somewhere, notes the frames, and lets it dump in a signal handler.
Prints where the stops were and each difference; exits 1 when more than one in 200 differs.
"""

import collections
import os
import random
import subprocess
import sys
import tempfile

sys.path.insert(0, os.path.dirname(os.path.abspath(__file__)) + "/../crash")
import judge


def in_debugger(count):
    import gdb

    def report(text):
        os.write(int(os.environ["REPORT"]), (text + "\n").encode())

    def is_code(address):
        return gdb.solib_name(address) or "No symbol" not in gdb.execute(f"info symbol {address}", to_string=True)

    # In code without tables the debugger guesses a frame more, which lies in the heap or on the stack.
    def own_frames():
        frame, addresses = gdb.newest_frame(), []
        while frame is not None and len(addresses) < judge.MAX_FRAMES:
            if frame.type() not in (gdb.INLINE_FRAME, gdb.TAILCALL_FRAME) and is_code(frame.pc()):
                addresses.append(frame.pc())
            frame = frame.older()
        return addresses

    def dumped_frames():
        """From the interrupted place on: the handler's frame and what it returns to come before."""
        texts = judge.read_text("stdout").split("\n")[:-1]
        os.truncate("stdout", 0)
        dumps, _ = judge.find_dumps(texts, [None] * len(texts), judge.OUT_FORMS, judge.OUT_DUMP)
        frames = [text for text in dumps[-1][1].frames]
        handler = next(i for i, text in enumerate(frames) if "libErrorHandlerDll" not in text)
        return judge.addresses_of(dumps[-1][1])[handler + 2:]

    def name_of(address):
        return os.path.basename(gdb.solib_name(address) or "program")

    def describe(addresses):
        return " ".join(f"{name_of(address)}:{address:#x}" for address in addresses)

    for command in ["pagination off", "confirm off", "debuginfod enabled off", "backtrace past-main on",
                    "backtrace past-entry on", "breakpoint pending on", "print thread-events off"]:
        gdb.execute("set " + command)
    gdb.execute("handle SIGPROF stop nopass", to_string=True)
    gdb.execute("handle SIGUSR1 nostop pass noprint", to_string=True)
    gdb.Breakpoint("ThreadState::Compare")
    gdb.execute("run wander append 30 1 > stdout", to_string=True)
    places, differences = collections.Counter(), 0
    for _ in range(count):
        gdb.execute("handle SIGPROF nostop noprint nopass", to_string=True)
        gdb.execute(f"stepi {random.randint(1, 60)}", to_string=True)
        expected = own_frames()
        places[name_of(expected[0])] += 1
        gdb.execute("signal SIGUSR1", to_string=True)
        dumped = dumped_frames()
        if dumped != expected[:len(dumped)] or (len(dumped) < len(expected) and len(dumped) < judge.MAX_FRAMES - 12):
            differences += 1
            report(f"differs:\n  debugger {describe(expected)}\n  dump     {describe(dumped)}")
        gdb.execute("handle SIGPROF stop nopass", to_string=True)
        gdb.execute("continue", to_string=True)
    report(", ".join(f"{place} {number}" for place, number in places.most_common()))
    report(f"{count - differences} of {count} equal")
    gdb.execute("kill")
    gdb.execute(f"quit {1 if differences * 200 > count else 0}")


def main():
    build, count = os.path.abspath(sys.argv[1]), sys.argv[2] if len(sys.argv) > 2 else "800"
    report = os.dup(1)
    with tempfile.TemporaryDirectory() as folder:
        judge.prepare(build, folder)
        try:
            # What the debugger and the program print is noise.
            command = ["gdb", "-q", "-nx", "-batch", "-x", os.path.abspath(__file__), "--args", build + "/host-O1"]
            sys.exit(subprocess.run(command, check=False, cwd=folder, env=dict(os.environ, COUNT=count, REPORT=str(report)),
                                    pass_fds=[report], stdin=subprocess.DEVNULL, stdout=subprocess.DEVNULL,
                                    stderr=subprocess.STDOUT).returncode)
        except FileNotFoundError:
            sys.exit("compare_walks.py: gdb is missing (tools/setup.sh --checks)")


if "COUNT" in os.environ:
    in_debugger(int(os.environ["COUNT"]))
else:
    main()
