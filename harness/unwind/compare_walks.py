#!/usr/bin/env python3
"""Compares the library's stack walk with a debugger's at random instructions.

    compare_walks.py WANDERER PLUGIN [N]

WANDERER and PLUGIN are what CMake has built (the program of that name, and a shared object with PluginEntry). N instructions
(500) are tried: the program is stopped somewhere, the debugger notes the frames, the program walks its stack in a signal
handler. Prints where the stops were and each difference; exits 1 when more than one in 200 differs.
"""

import collections
import os
import random
import subprocess
import sys


def in_debugger(count):
    import gdb

    def report(text):
        os.write(int(os.environ["REPORT"]), (text + "\n").encode())

    def is_code(address):
        return gdb.solib_name(address) or "No symbol" not in gdb.execute(f"info symbol {address}", to_string=True)

    # In code without tables the debugger guesses a frame more, which lies in the heap or on the stack.
    def own_frames():
        frame, addresses = gdb.newest_frame(), []
        while frame is not None and len(addresses) < 100:
            if frame.type() not in (gdb.INLINE_FRAME, gdb.TAILCALL_FRAME) and is_code(frame.pc()):
                addresses.append(frame.pc())
            frame = frame.older()
        return addresses

    def walked_frames():
        walked = int(gdb.parse_and_eval("gResult.count"))
        address = int(gdb.parse_and_eval("(unsigned long)&gFrames"))
        memory = gdb.selected_inferior().read_memory(address, 8 * walked).tobytes()
        return [int.from_bytes(memory[8 * i:8 * i + 8], "little") for i in range(walked)]

    def name_of(address):
        return os.path.basename(gdb.solib_name(address) or "program")

    def describe(addresses):
        return " ".join(f"{name_of(address)}:{address:#x}" for address in addresses)

    for command in ["pagination off", "confirm off", "debuginfod enabled off", "backtrace past-main on",
                    "backtrace past-entry on", "breakpoint pending on", "print thread-events off"]:
        gdb.execute("set " + command)
    gdb.execute("handle SIGPROF stop nopass", to_string=True)
    gdb.execute("handle SIGUSR1 nostop pass noprint", to_string=True)
    gdb.Breakpoint("OnWalked")
    gdb.execute("run", to_string=True)
    places, differences = collections.Counter(), 0
    for _ in range(count):
        gdb.execute("handle SIGPROF nostop noprint nopass", to_string=True)
        gdb.execute(f"stepi {random.randint(1, 60)}", to_string=True)
        expected = own_frames()
        places[name_of(expected[0])] += 1
        gdb.execute("signal SIGUSR1", to_string=True)
        walked = walked_frames()
        whole = bool(gdb.parse_and_eval("gResult.reachedEnd"))
        found = bool(gdb.parse_and_eval("(unsigned long)gContext == gResult.signalFrame"))
        if walked[2:] != expected or not found:
            differences += 1
            report(f"differs (end {whole}, signal {found}):\n  debugger {describe(expected)}\n  walk     {describe(walked[2:])}")
        gdb.execute("handle SIGPROF stop nopass", to_string=True)
        gdb.execute("continue", to_string=True)
    report(", ".join(f"{place} {number}" for place, number in places.most_common()))
    report(f"{count - differences} of {count} equal")
    gdb.execute("kill")
    gdb.execute(f"quit {1 if differences * 200 > count else 0}")


def main():
    program, plugin = sys.argv[1:3]
    count = sys.argv[3] if len(sys.argv) > 3 else "500"
    command = ["gdb", "-q", "-nx", "-batch", "-x", __file__, "--args",
               program, plugin]
    try:
        # What the debugger and the program print is noise.
        report = os.dup(1)
        sys.exit(subprocess.run(command, check=False, env=dict(os.environ, COUNT=count, REPORT=str(report)), pass_fds=[report],
                                stdin=subprocess.DEVNULL, stdout=subprocess.DEVNULL, stderr=subprocess.STDOUT).returncode)
    except FileNotFoundError:
        sys.exit("compare_walks.py: gdb is missing (tools/setup.sh --checks)")


if "COUNT" in os.environ:
    in_debugger(int(os.environ["COUNT"]))
else:
    main()
