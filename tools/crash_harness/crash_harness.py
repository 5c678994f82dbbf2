#!/usr/bin/env python3
"""Crashes a host in every way known, and at random instructions, and looks whether the last words are on disk.

    crash_harness.py BUILD [--random N] [--trials N] [--steps N] [--only CASE] [--keep] [--peer]

BUILD is the folder with host and plugin.so. The verdict of each case is printed as a row; trials that failed are described
below it. Exits 1 when a deterministic case failed.
"""

import argparse
import collections
import fcntl
import mmap
import os
import random
import re
import shutil
import signal
import struct
import subprocess
import sys
import tempfile
import time

import tracer
from verdict import PeerVerdict, Verdict

TIME_LIMIT = 3.0
EXIT_STATUS = 42
FIELDS = ["ready", "go", "faults", "dumped", "finished", "errno_lost", "heap_calls", "stack_use", "modules", "printed", "frozen"]
WORKERS = 8
RECORD_SIZE = (len(FIELDS) + 2 * WORKERS) * 8
HEADROOM = 16 * 1024  # the stack that the library promises to need at most


class Record:
    def __init__(self, path):
        with open(path, "w+b") as file:
            file.truncate(4096)
            self.memory = mmap.mmap(file.fileno(), 4096)

    def __getitem__(self, name):
        words = struct.unpack_from(f"{len(FIELDS) + 2 * WORKERS}Q", self.memory)
        if name == "returned":
            return words[len(FIELDS):len(FIELDS) + WORKERS]
        if name == "before":
            return words[len(FIELDS) + WORKERS:]
        return words[FIELDS.index(name)]

    def set(self, name, value):
        struct.pack_into("Q", self.memory, 8 * FIELDS.index(name), value)

    def note_before(self):
        if not self["frozen"]:
            struct.pack_into(f"{WORKERS}Q", self.memory, 8 * (len(FIELDS) + WORKERS), *self["returned"])
            self.set("frozen", 1)


class Case:
    """A row of the table: what the host is asked, and what it is expected to leave."""

    def __init__(self, name, case=None, strategy="append", workers=1, inject=None, out="file", env=(), dumps=1,
                 status=EXIT_STATUS, log=True, stdout=True, trials=None, setup=None, owner=False):
        self.name, self.case, self.strategy, self.workers = name, case or name, strategy, workers
        self.inject, self.out, self.env, self.dumps, self.status = inject, out, dict(env), dumps, status
        self.log, self.stdout, self.trials, self.setup = log, stdout, trials, setup
        self.owner = owner  # another thread may be stopped inside the logger: what it is writing is its own, and nobody else's


def wait_until(condition, process, seconds=5):
    end = time.monotonic() + seconds
    while not condition():
        if process.poll() is not None or time.monotonic() > end:
            raise tracer.Gone(f"the host ended early, status {process.returncode}")
        time.sleep(0.0005)


def inject_at_random(process, record, _):
    wait_until(lambda: record["ready"], process)
    time.sleep(random.uniform(0, 0.03))
    thread = random.choice(tracer.threads_of(process.pid))
    thread.stop()
    thread.step(random.randint(1, 60))
    record.note_before()
    thread.send()
    thread.release()
    return ()


def inject_beside_stopped(process, record, _):
    """Another thread is stopped for ever, wherever it is."""
    wait_until(lambda: record["ready"], process)
    time.sleep(random.uniform(0, 0.03))
    threads = tracer.threads_of(process.pid)
    victim, owner = random.sample(threads, 2)
    owner.stop()
    owner.step(random.randint(1, 60))
    record.note_before()
    victim.send()
    return (owner,)


def inject_at_step(process, record, step, number=signal.SIGSEGV):
    wait_until(lambda: record["ready"], process)
    thread = tracer.Thread(process.pid, process.pid)
    thread.seize()
    record.set("go", 1)
    thread.run_to_breakpoint()
    if step is None:
        return thread.count_steps(200000)
    thread.step(step)
    thread.send(number)
    if number != signal.SIGSEGV:
        thread.go_on_to_breakpoint()
    thread.release()
    return ()


def interrupt_at_step(process, record, step):
    """A handler logs and returns; the fault comes later."""
    return inject_at_step(process, record, step, signal.SIGUSR1)


def open_output(kind, folder):
    """Standard output of the host, and what must stay open as long as it runs."""
    if kind == "closed":
        return None, ()
    if kind == "full pipe":
        reader, writer = os.pipe()
        fcntl.fcntl(writer, fcntl.F_SETFL, os.O_NONBLOCK)
        try:
            while os.write(writer, b"x" * 4096):
                pass
        except BlockingIOError:
            pass
        fcntl.fcntl(writer, fcntl.F_SETFL, 0)
        return writer, (reader,)
    if kind == "slow pipe":
        reader, writer = os.pipe()
        fcntl.fcntl(writer, 1031, 4096)
        slow = subprocess.Popen(["sh", "-c", "while sleep 0.3; do dd bs=600 count=1 status=none || exit; done >/dev/null"],
                                stdin=reader)
        os.close(reader)
        return writer, (slow,)
    path = "/dev/full" if kind == "full device" else folder + "/stdout"
    return os.open(path, os.O_WRONLY | os.O_APPEND), ()


class Harness:
    def __init__(self, build, keep, peer):
        self.peer = peer
        self.build, self.keep, self.failures, self.deepest = os.path.abspath(build), keep, [], 0

    def run(self, case, step=None):
        """One trial. Returns what is wrong with it, or None; in a count of steps, their number."""
        folder = tempfile.mkdtemp(prefix="crash-")
        kept = ()
        held = ()
        process = None
        try:
            record = Record(folder + "/record")
            open(folder + "/stdout", "w").close()
            shutil.copy(self.build + "/plugin.so", folder)
            if case.setup:
                case.setup(self.build, folder)
            output, kept = open_output(case.out, folder)
            command = [self.build + "/host", case.case, str(case.workers), case.strategy]
            environment = dict(os.environ, **case.env)
            errors = open(folder + "/stderr", "wb")
            process = subprocess.Popen(command, cwd=folder, env=environment, stdout=output, stderr=errors,
                                       preexec_fn=(lambda: os.close(1)) if output is None else None)
            errors.close()
            if output is not None:
                os.close(output)
            start = time.monotonic()
            if case.inject:
                held = case.inject(process, record, step)
                if isinstance(held, int):
                    process.kill()
                    return held
                start = time.monotonic()
            while process.poll() is None:
                for thread in held:
                    thread.reap(os.WNOHANG)
                if time.monotonic() - start > TIME_LIMIT + 0.2:
                    process.kill()
                    return self.describe(case, "hang", folder, record)
                time.sleep(0.001)
            return self.judge(case, process.returncode, folder, record)
        except tracer.Gone as error:
            return f"not injected: {error}"
        finally:
            if process:
                process.kill()
                for thread in held if isinstance(held, tuple) else ():
                    thread.reap()
                process.wait()
            for item in kept:
                if isinstance(item, int):
                    os.close(item)
                else:
                    item.kill()
                    item.wait()
            if not self.keep:
                shutil.rmtree(folder, ignore_errors=True)

    def judge_peer(self, case, folder, record):
        verdict = PeerVerdict(folder, record)
        wrong = [] if verdict.whole else ["no stack trace"]
        if verdict.lost:
            wrong.append(f"{verdict.lost} lines lost")
        if verdict.doubled:
            wrong.append(f"{verdict.doubled} lines doubled")
        return self.describe(case, "; ".join(wrong), folder, record) if wrong else None

    def judge(self, case, status, folder, record):
        if self.peer:
            return self.judge_peer(case, folder, record)
        modules = record["modules"] + (500 if case.case == "modules" else 0)
        kinds = 1 if case.case == "exit-after-first" else 2
        verdict = Verdict(folder, record, case.dumps, 1 if case.case == "damaged-list" else modules, kinds)
        self.deepest = max(self.deepest, record["stack_use"])
        wrong = []
        if status != case.status:
            wrong.append(f"second fault or wrong end (status {status})")
        if case.log and not verdict.log_whole:
            wrong.append("log not whole")
        if case.stdout and not verdict.out_whole:
            wrong.append("standard output not whole")
        if case.log and verdict.lost and not case.owner:
            wrong.append(f"{len(verdict.lost)} lines lost from {verdict.lost[0]}")
        if verdict.doubled:
            wrong.append(f"{len(verdict.doubled)} lines doubled from {verdict.doubled[0]}")
        if case.stdout and not case.inject and case.name != "other-stdout" and verdict.printed != record["printed"]:
            wrong.append(f"{verdict.printed} lines printed instead of {record['printed']}")
        # The kernel may cut short the write that another thread makes at the moment of _exit. That line came after the dump.
        if verdict.torn_inside or (verdict.torn_end and case.workers == 1):
            wrong.append(f"torn lines: {verdict.torn_inside}, files that end within a line: {verdict.torn_end}")
        if record["errno_lost"]:
            wrong.append("errno changed")
        if record["heap_calls"]:
            wrong.append(f"{record['heap_calls']} calls of the heap")
        if record["stack_use"] > HEADROOM:
            wrong.append(f"{record['stack_use']} bytes of stack")
        return self.describe(case, "; ".join(wrong), folder, record, verdict) if wrong else None

    def describe(self, case, wrong, folder, record, verdict=None):
        text = f"{wrong} [faults {record['faults']}, dumped {record['dumped']}, finished {record['finished']}]"
        if verdict:
            text += f"\n      log ...{verdict.log_shape[-160:]}\n      out ...{verdict.out_shape[-160:]}"
        return text + (f"\n      {folder}" if self.keep else "")

    def report(self, case, results):
        bad = [result for result in results if result is not None and not result.startswith("not injected")]
        missed = sum(result is not None and result.startswith("not injected") for result in results)
        count = len(results) - missed
        print(f"{case.name:34} {count - len(bad):5} of {count:5}  {100 * (count - len(bad)) / max(count, 1):6.2f} %", flush=True)
        kinds = collections.Counter(re.sub(r"^\d+ ", "", text.split(" [")[0].split(";")[0].split(" from ")[0]) for text in bad)
        if bad:
            print("    " + ", ".join(f"{kind}: {number}" for kind, number in kinds.items()))
        for text in bad[:4]:
            print(f"    - {text}")
        if missed and count == 0:
            print(f"    - {results[0]}")
        if (bad or not count) and case.inject not in (inject_at_random, inject_beside_stopped):
            self.failures.append(case.name)

    def find_rotating_line(self):
        """How many lines come before the one that goes to the second file."""
        with tempfile.TemporaryDirectory(prefix="crash-") as folder:
            record = Record(folder + "/record")
            subprocess.run([self.build + "/host", "until-rotated", "1", "rotate"], cwd=folder, check=False,
                           env=dict(os.environ, SILENT_BEFORE="1"))
            return record["returned"][0] - 1

    def run_steps(self, case, wanted):
        if case.strategy == "rotate":
            case.env["LINES_BEFORE"] = str(self.find_rotating_line())
        total = self.run(case)
        if not isinstance(total, int):
            self.report(case, [total])
            return
        stride = max(1, total // wanted)
        steps = range(random.randrange(stride), total, stride)
        case.name += f" ({total} instructions)"
        self.report(case, [self.run(case, step) for step in steps])


def make_modules(build, folder):
    os.mkdir(folder + "/modules")
    for i in range(500):
        shutil.copy(build + "/plugin.so", f"{folder}/modules/m{i}.so")


def deterministic_cases():
    for name in ["null-write", "exit-normally", "own-heap", "other-heap", "own-printf", "own-stdout", "own-write", "own-localtime",
                 "other-localtime", "own-dlopen", "other-dlopen", "fork-prepare", "fork-parent", "fork-child", "corrupt-heap",
                 "smashed-stack", "no-memory", "null-call", "wild-call", "damaged-list", "stack-overflow"]:
        for strategy in ["append", "rotate"]:
            yield Case(f"{name}, {strategy}", name, strategy)
    yield Case("other-stdout", env={})
    for strategy in ["append", "rotate"]:
        yield Case(f"other-write, {strategy}", "other-write", strategy)
        yield Case(f"no-descriptors, {strategy}", "no-descriptors", strategy, log=strategy == "append")
    yield Case("kill -9 after the first dump", "exit-after-first", status=-signal.SIGKILL)
    for strategy in ["append", "overwrite", "rotate"]:
        yield Case(f"dump is the first line, {strategy}", "null-write", strategy, env={"SILENT_BEFORE": "1"})
        yield Case(f"the same in malloc, {strategy}", "own-heap", strategy, env={"SILENT_BEFORE": "1"})
    for threads in [2, 8]:
        for strategy in ["append", "rotate"]:
            yield Case(f"{threads} threads at once, {strategy}", "threads", strategy, workers=threads, dumps=threads)
    yield Case("2 threads at once, full pipe", "threads", workers=2, dumps=2, out="full pipe", stdout=False)
    for out in ["closed", "full pipe", "slow pipe", "full device"]:
        yield Case(f"standard output: {out}", "null-write", out=out, stdout=False, env={"SILENT_BEFORE": "1"})
    yield Case("500 modules", "modules", setup=make_modules, trials=2)
    for size in [16, 64]:
        for name in ["stack-overflow", "own-heap", "own-write"]:
            yield Case(f"{name}, {size} KiB", name, "rotate", env={"STACK_SIZE": str(size * 1024)})
    yield Case("first line, 16 KiB, rotate", "null-write", "rotate", env={"STACK_SIZE": str(16 * 1024), "SILENT_BEFORE": "1"})


def step_cases():
    yield Case("inside Write that flushes", "step", inject=inject_at_step, env={"LINES_BEFORE": "100", "SILENT_BEFORE": "1"})
    yield Case("inside Write that rotates", "step", "rotate", inject=inject_at_step, env={"SILENT_BEFORE": "1"})
    yield Case("handler logs inside Write that flushes", "step", inject=interrupt_at_step,
               env={"LINES_BEFORE": "100", "SILENT_BEFORE": "1"})
    yield Case("handler logs inside Write that rotates", "step", "rotate", inject=interrupt_at_step,
               env={"SILENT_BEFORE": "1"})


def random_cases():
    for strategy in ["append", "rotate"]:
        for workers in [1, 3]:
            yield Case(f"random, {workers} workers, {strategy}", "random", strategy, workers, inject_at_random)
    for strategy in ["append", "rotate"]:
        yield Case(f"beside a stopped thread, {strategy}", "random", strategy, 3, inject_beside_stopped, stdout=False,
                   owner=True)


def main():
    parser = argparse.ArgumentParser()
    parser.add_argument("build")
    parser.add_argument("--random", type=int, default=100, help="random trials in all")
    parser.add_argument("--trials", type=int, default=1, help="trials of each deterministic case")
    parser.add_argument("--steps", type=int, default=15, help="instructions tried in each of the stepped cases")
    parser.add_argument("--only", default="", help="only the cases whose name contains this")
    parser.add_argument("--peer", action="store_true", help="the host was built with another library")
    parser.add_argument("--keep", action="store_true", help="keep the folders of the trials")
    options = parser.parse_args()
    harness = Harness(options.build, options.keep, options.peer)
    start = time.monotonic()
    for case in deterministic_cases():
        if options.only in case.name:
            harness.report(case, [harness.run(case) for _ in range(case.trials or options.trials)])
    for case in step_cases():
        if options.only in case.name and options.steps:
            harness.run_steps(case, options.steps)
    cases = [case for case in random_cases() if options.only in case.name]
    for case in cases:
        harness.report(case, [harness.run(case) for _ in range(max(1, options.random // len(cases)))] if options.random else [])
    print(f"deepest stack beyond the signal frame: {harness.deepest} bytes; {time.monotonic() - start:.0f} s")
    if harness.failures:
        sys.exit("failed: " + ", ".join(harness.failures))


main()
