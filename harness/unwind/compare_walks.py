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
import re
import subprocess
import sys
import tempfile

sys.path.insert(0, os.path.dirname(os.path.abspath(__file__)) + "/../crash")
import judge


def in_debugger(count, report):
    import gdb

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
        """From the interrupted place on: the library, the handler's frame and what it returns to come before."""
        dump = judge.read_text("stdout").rpartition("Call stack\n")[2].partition("\nFinished")[0]
        os.truncate("stdout", 0)
        frames = re.sub("(.*libErrorHandlerDll.*\n)*", "", dump, count=1).split("\n")[2:]
        return [int(frame[frame.rindex("[0x") + 1:-1], 16) for frame in frames]

    def name_of(address):
        return os.path.basename(gdb.solib_name(address) or "program")

    for command in ("set pagination off", "set confirm off", "set debuginfod enabled off", "set backtrace past-main on",
                    "set backtrace past-entry on", "set breakpoint pending on", "handle SIGPROF stop nopass",
                    "handle SIGUSR1 nostop pass noprint", "break ThreadState::Compare", "run wander append 30 1 > stdout"):
        gdb.execute(command)
    places, differences = collections.Counter(), 0
    for _ in range(count):
        gdb.execute("handle SIGPROF nostop noprint nopass")
        gdb.execute(f"stepi {random.randint(1, 60)}")
        expected = own_frames()
        places[name_of(expected[0])] += 1
        gdb.execute("signal SIGUSR1")
        dumped = dumped_frames()
        if dumped != expected[:len(dumped)] or (len(dumped) < len(expected) and len(dumped) < judge.MAX_FRAMES - 12):
            differences += 1
            for who, addresses in (("debugger", expected), ("dump    ", dumped)):
                print(who, *(f"{name_of(address)}:{address:#x}" for address in addresses), file=report)
        gdb.execute("handle SIGPROF stop nopass")
        gdb.execute("continue")
    print(dict(places.most_common()), f"{count - differences} of {count} equal", file=report)
    report.close()
    gdb.execute(f"quit {1 if differences * 200 > count else 0}")


def main():
    build, count = os.path.abspath(sys.argv[1]), sys.argv[2] if len(sys.argv) > 2 else "800"
    with tempfile.TemporaryDirectory() as folder:
        judge.prepare(build, folder)
        # What the debugger and the program print is noise.
        command = ["gdb", "-q", "-nx", "-batch", "-x", os.path.abspath(__file__), "--args", build + "/host-O1"]
        status = subprocess.run(command, check=False, cwd=folder, env=dict(os.environ, COUNT=count),
                                stdin=subprocess.DEVNULL, capture_output=True).returncode
        print(judge.read_text(folder + "/report"), end="")
    sys.exit(status)


if "COUNT" in os.environ:
    in_debugger(int(os.environ["COUNT"]), open("report", "w"))
else:
    main()
