#!/usr/bin/env python3
"""Runs hosts that fault, again and again or once and for all, and judges what each has left.

    crash.py BUILD [--random N] [--steps N] [--only TEXT] [--keep]

BUILD is the folder that build.sh has filled. One row a failure, the counts at the end; exits 1 when anything failed.
"""

import argparse
import concurrent.futures
import dataclasses
import fcntl
import os
import re
import shutil
import signal
import subprocess
import sys
import tempfile
import threading
import time

import judge

TIME_LIMIT = 25


@dataclasses.dataclass
class Case:
    """What a host is asked, and what it may leave besides whole dumps and whole lines, each once."""
    name: str
    strategy: str = "append"
    lines: int = 30  # logged before the case begins
    number: int = 0  # of threads or instructions
    out: str = "file"
    allowed: str = "w"  # lines outside of whole dumps
    log: bool = True
    printed: bool = True  # all that was printed is there
    keeps_lines: bool = False  # another thread is stopped inside the logger: what it has buffered is its own
    walks: bool = True  # the call stack can be found
    calls_back: bool = False  # what notes nothing calls what does
    may_be_torn: bool = False  # the kernel may cut short another thread's write at the end of the process
    names: tuple = ()
    status: int = 0
    host: str = "host-O1"


WAYS = "jump jump-then-handle throw return".split()
BROKEN = judge.ANY_PART_OF_A_DUMP
STRATEGIES = ("append", "rotate")
AGAIN = [Case(name) for name in WAYS + """
    fork callback-jumps alarm dumps-on-request log-call log-call-then-handle nested nested-throw readv-refused readv-kills
    no-proc chroot not-dumpable no-memory no-descriptors closed-descriptors small-signal-stack overflow small-thread""".split()]
AGAIN += [Case("threads-" + name, "rotate") for name in ("jump", "throw", "return")]
AGAIN += [Case(name, names=("first.so", "second.so") * 2) for name in ("reload", "reload-throw")]
AGAIN += [Case("sent", allowed=BROKEN), Case("no-file-size", log=False, out="pipe"), Case("fifo", log=False)]
AGAIN += [Case(name, allowed="wbs")
          for name in ("owner-jump", "owner-jump-then-handle", "owner-throw", "owner-throw-options")]

ENDS = [Case(name, strategy, 250) for strategy in STRATEGIES for name in """
    heap other-heap print localtime other-localtime other-dlopen write smashed-stack null-call wild-call other-write""".split()]
ENDS += [Case(name, strategy, 250, calls_back=True)
         for strategy in STRATEGIES for name in ("fork-prepare", "fork-parent", "fork-child", "dlopen")]
ENDS += [Case("damaged-list", strategy, 250, walks=False) for strategy in STRATEGIES]
ENDS += [Case("all-at-once", strategy, 250, threads) for strategy in STRATEGIES for threads in (2, 8)]
ENDS += [Case("all-at-once", "append", 250, 2, "full pipe"), Case("other-stdout", printed=False), Case("modules"),
         Case("killed-after-first", lines=250, status=-signal.SIGKILL)]
ENDS += [Case(name, strategy, 0) for name in ("fault", "heap") for strategy in STRATEGIES + ("overwrite",)]
ENDS += [Case("fault", out=out) for out in ("closed", "full pipe", "slow pipe", "full device")]


def random_cases(count):
    for i in range(count):
        strategy = STRATEGIES[i % 2]
        if i % 3 == 2:
            # A thread that is stopped between two files leaves no log to write to.
            yield Case("beside-stopped", strategy, 30, 3, log=strategy == "append", printed=False, keeps_lines=True,
                       calls_back=True, may_be_torn=True)
        else:
            yield Case("random", strategy, 30, (1, 3)[i // 2 % 2], printed=False, calls_back=True, may_be_torn=True)


def step_cases(build, wanted):
    """At `wanted` instructions of some lines, spread evenly."""
    for name in ("step", "step-handler"):
        for strategy in STRATEGIES:
            case = Case(name, strategy, 30, 1 << 30, calls_back=True)
            total = run(build, case, False).steps
            for number in range(0, total, max(1, total // wanted)):
                yield dataclasses.replace(case, number=number)


def read_slowly(descriptor):
    while os.read(descriptor, 600):
        time.sleep(0.3)
    os.close(descriptor)


def open_output(kind, folder):
    """Standard output of the host, and the other end of it."""
    if kind == "full pipe":
        reader, writer = os.pipe()
        os.set_blocking(writer, False)
        try:
            while os.write(writer, b"x" * 4096):
                pass
        except BlockingIOError:
            pass
        os.set_blocking(writer, True)
        return writer, reader
    if kind == "slow pipe":
        reader, writer = os.pipe()
        fcntl.fcntl(writer, fcntl.F_SETPIPE_SZ, 4096)
        threading.Thread(target=read_slowly, args=(reader,), daemon=True).start()
        return writer, None
    return os.open("/dev/full" if kind == "full device" else folder + "/stdout", os.O_WRONLY | os.O_CREAT | os.O_APPEND), None


def prepare(case, build, folder):
    """What lies in the host's folder, and an open end that it must have."""
    judge.prepare(build, folder)
    if case.name == "modules":
        os.mkdir(folder + "/modules")
        for i in range(500):
            shutil.copy(build + "/plugin.so", f"{folder}/modules/m{i}.so")
    if case.name == "fifo":
        os.mkfifo(folder + "/hosta.log")
        descriptor = os.open(folder + "/hosta.log", os.O_RDWR)  # and nobody reads
        fcntl.fcntl(descriptor, fcntl.F_SETPIPE_SZ, 4096)
        return descriptor
    return None


def command_of(case, build):
    arguments = [case.name, case.strategy, str(case.lines), str(case.number)]
    if case.host == "valgrind":
        return ["valgrind", "--quiet", "--log-file=valgrind", build + "/host-O1"] + arguments
    return [f"{build}/{case.host}"] + arguments


def run(build, case, keeps):
    """One trial; returns its verdict."""
    folder = tempfile.mkdtemp(prefix="crash-")
    kept = [prepare(case, build, folder)]
    # Without caches of threads, what holds the heap's lock holds it for all.
    environment = dict(os.environ, GLIBC_TUNABLES="glibc.malloc.tcache_count=0:glibc.malloc.arena_max=1",
                       ASAN_OPTIONS="detect_stack_use_after_return=0:detect_leaks=0:use_sigaltstack=0")
    if case.host in ("valgrind", "asan"):
        environment["SLOW"] = "1"
    output, end = open_output(case.out, folder)
    kept.append(end)
    try:
        with open(folder + "/errors", "wb") as errors:
            process = subprocess.Popen(command_of(case, build), cwd=folder, env=environment, stdin=subprocess.DEVNULL,
                                       stdout=subprocess.PIPE if case.out == "pipe" else output, stderr=errors,
                                       preexec_fn=(lambda: os.close(1)) if case.out == "closed" else None)
        os.close(output)
        try:
            text = process.communicate(timeout=TIME_LIMIT * (4 if case.host == "valgrind" else 1))[0]
            hangs = False
        except subprocess.TimeoutExpired:
            process.kill()
            text, hangs = process.communicate()[0], True
        if text is not None:
            with open(folder + "/stdout", "wb") as file:
                file.write(text)
        verdict = judge.Judge(case, folder, process.returncode)
        verdict.require(not hangs, "hangs")
        if case.host == "asan" and os.path.getsize(folder + "/errors"):
            verdict.wrong.append("the sanitizer reports " + judge.read_text(folder + "/errors")[:300])
        if case.host == "valgrind":
            verdict.wrong += [text for text in re.findall(r"at 0x\w+: (.*)", judge.read_text(folder + "/valgrind"))
                              if "libErrorHandlerDll" in text][:1]
        return verdict
    finally:
        for descriptor in kept:
            if descriptor is not None:
                os.close(descriptor)
        if not keeps:
            shutil.rmtree(folder)


def main():
    parser = argparse.ArgumentParser()
    parser.add_argument("build")
    parser.add_argument("--random", type=int, default=100, help="faults at random instructions")
    parser.add_argument("--steps", type=int, default=15, help="instructions tried of each line that is stepped through")
    parser.add_argument("--only", default="", help="only the trials whose row contains this")
    parser.add_argument("--keep", action="store_true", help="keep the folders of the trials")
    options = parser.parse_args()
    build = os.path.abspath(options.build)
    some = WAYS + ["threads-jump", "overflow", "callback-jumps"]
    few = WAYS + ["callback-jumps"]
    clang = [name for name in some if name not in ("throw", "return")]  # it has no exceptions out of instructions
    hosts = {"host-O0": some, "host-O3": some, "host-stripped": some, "host-nopie": some, "host-clang": clang, "asan": few,
             "valgrind": few}
    cases = AGAIN + [dataclasses.replace(case, host=host) for host, names in hosts.items() for case in AGAIN if case.name in names]
    cases += ENDS + list(random_cases(options.random)) + (list(step_cases(build, options.steps)) if options.steps else [])
    cases = [case for case in cases if options.only in str(case)]
    failed = 0
    with concurrent.futures.ThreadPoolExecutor(os.cpu_count() + 1) as pool:
        for case, verdict in zip(cases, pool.map(lambda case: run(build, case, options.keep), cases)):
            failed += 1 if verdict.wrong else 0
            if verdict.wrong or options.keep:
                print("FAILED" if verdict.wrong else "passed", case.host, case.name, case.strategy, case.lines, case.number, case.out,
                      verdict.folder if options.keep else "")
            for text in verdict.wrong[:3]:
                print(f"    {text[:300]}")
    print(f"{len(cases) - failed} passed, {failed} failed")
    sys.exit(1 if failed or not cases else 0)


main()
