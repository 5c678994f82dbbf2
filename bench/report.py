"""Lays out the results of bench/run: report.py RAW FOLDER writes RESULTS.md and results.json into the folder."""
import collections
import datetime
import json
import os
import platform
import subprocess
import sys

# The Debian package that each peer is built with, and how it is set up: as far as it goes, like the library.
PEERS = {
    "spdlog": ("libspdlog-dev", "logger and sink with a lock (mt), pattern of the same fields, flushed every 101 lines"),
    "glog": ("libgoogle-glog-dev", "its own line format, buffered, flushed every 101 lines"),
    "log4cplus": ("liblog4cplus-dev", "pattern of the same fields, no immediate flush, flushed every 101 lines"),
    "Boost.Log": ("libboost-log1.74-dev", "synchronous sink, format of the same fields, no auto flush, flushed every 101 lines"),
    "Abseil": ("libabsl-dev", "failure signal handler with its symboliser; only for crash reports"),
}

# Scenario, metric, highest ratio to the limit, peer and highest ratio to it.
TARGETS = [
    ("line, memory", "ns", 1.15, "spdlog", 0.45),
    ("line, disk", "ns", 1.20, "spdlog", 0.45),
    ("line, varying length, memory", "ns", None, "spdlog", None),
    ("formatted line, memory", "ns", 1.20, "spdlog", 0.70),
    ("2 threads, memory", "ns", 1.50, "spdlog", 0.45),
    ("4 threads, memory", "ns", 1.50, "spdlog", 0.45),
    ("latency, 2 threads, memory", "p50", 1.60, "spdlog", 0.40),
    ("filtered call, memory", "ns", 1.90, "spdlog", 1.00),
    ("rotation, memory", "ns", 1.20, "spdlog", 0.30),
    ("hex dump, 64 bytes, memory", "ns", 1.25, "spdlog", 0.30),
    ("hex dump, 1024 bytes, memory", "ns", 1.15, "spdlog", 0.30),
    ("hex dump, 65536 bytes, memory", "ns", 1.20, "spdlog", 0.30),
    ("text of a built-in code", "ns", 2.00, "std::error_code", 0.20),
    ("raise, catch, delete", "ns", 1.15, "std::system_error", 0.85),
    ("handle at a boundary", "ns", 1.20, None, None),
    ("crash report", "ns", 1.40, "glog", 0.50),
    ("crash report", "ns", 1.40, "Abseil", 0.50),
    ("system calls", "per 101 lines", 1.20, "spdlog", None),
    ("line, memory", "instructions", 1.45, "spdlog", None),
    ("formatted line, memory", "instructions", 1.15, "spdlog", None),
    ("loading", "ns", None, "spdlog", 1.00),
    ("loading", "private KiB", None, "spdlog", None),
    ("loading", "compile ms", None, "spdlog", 0.50),
    ("rotation, memory", "lines lost", None, None, None),
    ("line, memory", "allocations", None, None, None),
    ("line, varying length, memory", "allocations", None, None, None),
    ("formatted line, memory", "allocations", None, None, None),
    ("filtered call, memory", "allocations", None, None, None),
]


def number(value):
    if value is None:
        return "-"
    return f"{value:,.0f}" if abs(value) >= 1000 else f"{value:.3g}"


def ratio(value, base):
    return f"{value / base:.2f}" if value is not None and base else "-"


def against(value, base, target):
    """The ratio, in bold where it misses the target."""
    missed = target is not None and value is not None and base and round(value / base, 2) > target
    return f"**{ratio(value, base)}**" if missed else ratio(value, base)


def read(path):
    """Results as scenario -> subject -> metric -> value; of a metric printed repeatedly the worst stands."""
    results = collections.defaultdict(lambda: collections.defaultdict(dict))
    with open(path) as raw:
        for line in raw:
            scenario, subject, metric, value = line.rstrip("\n").split("\t")
            metrics = results[scenario][subject]
            metrics[metric] = max(metrics.get(metric, float("-inf")), float(value))
    return results


def output_of(*command):
    return subprocess.run(command, capture_output=True, text=True, check=False).stdout.strip()


def version_of(package):
    return output_of("dpkg-query", "-W", "-f=${Version}", package) or "version unknown"


def setup(present):
    with open("/proc/cpuinfo") as cpus:
        model = next((line.split(":", 1)[1].strip() for line in cpus if line.startswith("model name")), "unknown")
    changed = " with changes" if output_of("git", "status", "--porcelain", "-uno", "--", ":!bench/RESULTS.md",
                                           ":!bench/results.json", ":!docs/images/benchmarks.svg") else ""
    return {
        "command": os.environ["BENCH_COMMAND"],
        "date": datetime.date.today().isoformat(),
        "commit": output_of("git", "rev-parse", "--short", "HEAD") + changed,
        "machine": f"{model}, {os.cpu_count()} processors, load {os.getloadavg()[0]:.1f} at the end",
        "kernel": platform.release(),
        "compiler": os.environ["BENCH_COMPILER"],
        "flags": os.environ["BENCH_FLAGS"],
        "file systems": f"memory: tmpfs, disk: {os.environ['BENCH_DISK']}",
        "TZ": os.environ.get("TZ", "not set"),
        "peers": {peer: {"version": version_of(package), "settings": settings}
                  for peer, (package, settings) in PEERS.items() if peer in present},
    }


def summary(results):
    yield "| operation | metric | library | x limit | target | peer | x peer | target |"
    yield "|---|---|---:|---:|---:|---|---:|---:|"
    for scenario, metric, limit_target, peer, peer_target in TARGETS:
        subjects = results.get(scenario, {})
        get = lambda name: subjects.get(name, {}).get(metric)
        cells = [scenario, metric, number(get("library")),
                 against(get("library"), get("limit"), limit_target), number(limit_target), peer or "-",
                 against(get("library"), get(peer), peer_target), number(peer_target)]
        yield "| " + " | ".join(cells) + " |"


def table(subjects):
    metrics = list(dict.fromkeys(metric for values in subjects.values() for metric in values))
    head = metrics[0] if "ns" not in metrics else "ns"
    limit = subjects.get("limit", {}).get(head)
    no_peers = ("library", "limit", "spdlog, our sink")
    others = [values[head] for name, values in subjects.items() if name not in no_peers and head in values]
    best = min(others, default=None)
    yield f"| subject | {' | '.join(metrics)} | {head} x limit | {head} x best peer |"
    yield "|---|" + "---:|" * (len(metrics) + 2)
    for name, values in subjects.items():
        cells = [name] + [number(values.get(metric)) for metric in metrics]
        cells += [ratio(values.get(head), limit), ratio(values.get(head), best)]
        yield "| " + " | ".join(cells) + " |"


def report(results, facts):
    absent = [peer for peer in PEERS if peer not in facts["peers"]]
    yield "# Results of the benchmarks"
    yield ""
    yield "Written by `bench/run`. All figures are for one operation, medians of interleaved repetitions unless they say best;"
    yield "`cpu ns` is the processor time of the whole process. `limit` is a yardstick, code written by hand for the one task: a"
    yield "lock, one reading of the clock, the text of the second kept, one copy, one write for 101 lines. It is no bound: where"
    yield "the library is faster (a ratio below 1), it does the task in a better way. Compare ratios, not nanoseconds."
    yield ""
    yield "All subjects log synchronously: the calling thread writes. Loggers that hand lines to a thread of their own (quill,"
    yield "fmtlog) are not in Debian 12 and were not measured; their callers return sooner, and what they hold is lost in a crash."
    yield ""
    yield from (f"- {name}: {value}" for name, value in facts.items() if name != "peers")
    yield from (f"- {peer} {facts['peers'][peer]['version']}: {facts['peers'][peer]['settings']}" for peer in facts["peers"])
    yield "- absent peers: " + (", ".join(absent) or "none")
    if not any("instructions" in metrics for subjects in results.values() for metrics in subjects.values()):
        yield "- not measured: instructions, as neither the kernel's counter nor valgrind could be used"
    if "system calls" not in results:
        yield "- not measured: system calls, as strace could not be used"
    yield ""
    yield "## Against the targets"
    yield ""
    yield "In bold what misses its target."
    yield ""
    yield from summary(results)
    for scenario, subjects in results.items():
        yield ""
        yield f"## {scenario[0].upper()}{scenario[1:]}"
        yield ""
        yield from table(subjects)


def main():
    raw, folder = sys.argv[1:]
    results = read(raw)
    facts = setup({subject for subjects in results.values() for subject in subjects})
    with open(os.path.join(folder, "results.json"), "w") as out:
        json.dump({"setup": facts, "results": results}, out, indent=1)
        out.write("\n")
    with open(os.path.join(folder, "RESULTS.md"), "w") as out:
        out.writelines(line + "\n" for line in report(results, facts))


main()
