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
import subprocess
import sys
import tempfile
import threading
import time

import judge

STRATEGIES = ("append", "rotate")


@dataclasses.dataclass
class Case:
    """What a host is asked."""
    name: str
    strategy: str = "append"
    lines: int = 30  # logged before the case begins
    number: int = 0  # of threads or instructions
    out: str = "file"
    log: bool = True  # can be judged
    host: str = "host-O1"


CASES = [Case(name) for name in """
    jump jump-then-handle throw return callback-jumps overflow child-throw reload-jump reload-throw alarm sent dumps-on-request
    log-call log-call-then-handle nested nested-throw owner-jump owner-jump-then-handle owner-throw owner-throw-options
    small-signal-stack small-thread readv-refused readv-kills no-proc chroot not-dumpable no-memory no-descriptors
    closed-descriptors modules other-stdout""".split()]
CASES += [Case("threads-" + way, "rotate", number=4) for way in ("jump", "throw", "return")]
WAYS = ["jump", "jump-then-handle", "throw", "return", "callback-jumps"]
HOSTS = {"host-O3": WAYS + ["threads-jump", "overflow"], "asan": WAYS, "valgrind": WAYS,
         "host-clang": ["jump", "jump-then-handle", "callback-jumps", "threads-jump", "overflow"]}  # no exceptions out of instructions
CASES += [dataclasses.replace(case, host=host) for host, names in HOSTS.items() for case in CASES if case.name in names]
CASES += [Case(name, strategy, 250) for strategy in STRATEGIES for name in """
    heap other-heap print localtime other-localtime dlopen other-dlopen write other-write smashed-stack null-call wild-call
    damaged-list fork-prepare fork-parent fork-child ends-after-first""".split()]
CASES += [Case("all-at-once", strategy, 250, threads) for strategy in STRATEGIES for threads in (2, 8)]
CASES += [Case(name, strategy, 0) for name in ("fault", "heap") for strategy in STRATEGIES + ("overwrite",)]
CASES += [Case("fault", out=out) for out in ("closed", "full pipe", "slow pipe", "full device")]
CASES += [Case("all-at-once", "append", 250, 2, "full pipe"), Case("no-file-size", out="full device", log=False),
          Case("fifo", log=False)]


def random_cases(count):
    for i in range(count):
        strategy = STRATEGIES[i % 2]
        if i % 3 == 2:
            # A thread that is stopped between two files leaves no log to write to.
            yield Case("beside-stopped", strategy, number=3, log=strategy == "append")
        else:
            yield Case("random", strategy, number=(1, 3)[i // 2 % 2])


def step_cases(build, wanted):
    """At `wanted` instructions of some lines, spread evenly."""
    for name in ("step", "step-handler"):
        for strategy in STRATEGIES:
            case = Case(name, strategy, number=1 << 30)
            total = run(build, case, False).steps
            for number in range(0, total, max(1, total // wanted)):
                yield dataclasses.replace(case, number=number)


def read_slowly(descriptor):
    while os.read(descriptor, 600):
        time.sleep(0.3)


def open_output(kind, folder):
    if not kind.endswith("pipe"):
        path = "/dev/full" if kind == "full device" else folder + "/stdout"
        return os.open(path, os.O_WRONLY | os.O_CREAT | os.O_APPEND)
    reader, writer = os.pipe()  # the reading end stays open
    size = fcntl.fcntl(writer, fcntl.F_SETPIPE_SZ, 4096)
    if kind == "full pipe":
        os.write(writer, b"x" * size)
    else:
        threading.Thread(target=read_slowly, args=(reader,), daemon=True).start()
    return writer


def run(build, case, keeps):
    """One trial; returns its verdict."""
    folder = tempfile.mkdtemp(prefix="crash-")
    judge.prepare(build, folder)
    if case.name == "fifo":  # and nobody reads
        os.mkfifo(folder + "/hosta.log")
        fcntl.fcntl(os.open(folder + "/hosta.log", os.O_RDWR), fcntl.F_SETPIPE_SZ, 4096)
    # Without caches of threads, what holds the heap's lock holds it for all.
    environment = dict(os.environ, GLIBC_TUNABLES="glibc.malloc.tcache_count=0:glibc.malloc.arena_max=1",
                       ASAN_OPTIONS="detect_stack_use_after_return=0:detect_leaks=0:use_sigaltstack=0")
    command = [f"{build}/{case.host}"]
    if case.host in ("valgrind", "asan"):
        environment["SLOW"] = "1"
    if case.host == "valgrind":
        command = ["valgrind", "--quiet", build + "/host-O1"]
    output = open_output(case.out, folder)
    try:
        ended = subprocess.run(command + [case.name, case.strategy, str(case.lines), str(case.number)], cwd=folder, env=environment,
                               stdin=subprocess.DEVNULL, stdout=output, stderr=subprocess.PIPE, text=True, errors="replace",
                               timeout=100 if case.host == "valgrind" else 25, check=False,
                               preexec_fn=(lambda: os.close(1)) if case.out == "closed" else None)
        verdict = judge.Judge(case, folder, ended.returncode)
        reports = re.findall(r"at 0x\w+: (.*libErrorHandlerDll.*)", ended.stderr) if case.host == "valgrind" else ended.stderr
        verdict.require(case.host not in ("valgrind", "asan") or not reports, f"reports {reports}")
    except subprocess.TimeoutExpired:
        verdict = judge.Judge(case, folder, "a hang")
    os.close(output)
    if not keeps:
        shutil.rmtree(folder)
    return verdict


def main():
    parser = argparse.ArgumentParser()
    parser.add_argument("build")
    parser.add_argument("--random", type=int, default=100, help="faults at random instructions")
    parser.add_argument("--steps", type=int, default=15, help="instructions tried of each line that is stepped through")
    parser.add_argument("--only", default="", help="only the trials whose row contains this")
    parser.add_argument("--keep", action="store_true", help="keep the folders of the trials")
    options = parser.parse_args()
    build = os.path.abspath(options.build)
    cases = CASES + list(random_cases(options.random)) + (list(step_cases(build, options.steps)) if options.steps else [])
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
