#!/usr/bin/env python3
"""Crashes real programs, built in the ways that hosts are, and has tools/symbolize_dump.py name the lines."""

import bz2
import gzip
import lzma
import os
import re
import resource
import subprocess
import sys
import tempfile
import unittest
from pathlib import Path

HERE = Path(__file__).resolve().parent
TOOL = HERE / "../../tools/symbolize_dump.py"
COMPILER = os.environ["CXX"]
LIBRARY_FOLDER = os.environ["LIBRARY_FOLDER"]
OTHER_THREAD = "22/11/26 10:00:00.000 - ERROR      - [ThreadID: 1] - "
TOOLS = ("llvm-symbolizer", "eu-addr2line", "addr2line")
PLACES = {line.split("// ")[-1]: f"{source}:{number}" for source in ("CrashHost.cpp", "Plugin.cpp")
          for number, line in enumerate((HERE / source).read_text().split("\n"), 1)}
ARANGES = ["-gdwarf-aranges"] if "clang" in COMPILER else []  # GCC always writes what eu-addr2line needs


def run(*command, status=0):
    result = subprocess.run(command, capture_output=True, text=True, check=False)
    if result.returncode != status:
        raise AssertionError(f"{command} ended with {result.returncode}, not {status}:\n{result.stdout}{result.stderr}")
    return result.stdout


def build(*flags, source="CrashHost.cpp", output="host"):
    run(COMPILER, "-std=c++20", "-g", "-O1", "-fcf-protection=none", "-Wl,--build-id", *ARANGES, *flags, HERE / source,
        "-o", output, "-I", HERE / "../../include", "-L", LIBRARY_FOLDER, "-Wl,-rpath," + LIBRARY_FOLDER, "-lErrorHandlerDll")


def crash(*arguments):
    Path("dump").write_text(run("./host", *arguments, status=-11))


def symbolize(*options, status=0, dump="dump"):
    return run(sys.executable, TOOL, *options, dump, status=status)


class SymbolizeDump(unittest.TestCase):
    def setUp(self):
        resource.setrlimit(resource.RLIMIT_CORE, (0, 0))
        folder = tempfile.TemporaryDirectory()
        self.addCleanup(folder.cleanup)
        os.chdir(folder.name)
        build()

    def expect_lines(self, text, **markers):
        """The marked lines of the functions stand in this order, the first at the frame of the program counter."""
        frames = text[text.index("\n*#"):].split("\n")[1:]
        for (function, marker), frame in zip(markers.items(), frames):
            self.assertRegex(frame, rf"{function}.*{PLACES[marker]}\b", text)

    def expect_host_lines(self, text):
        self.expect_lines(text, WriteInHost="HOST FAULT", NeverReturns="HOST CALL")
        self.assertIn("<signal handler called>", text)

    def test_every_tool_names_lines_of_pie_and_fixed_executables(self):
        for flags in (("-fPIE", "-pie"), ("-fno-pie", "-no-pie")):
            build(*flags)
            crash()
            for tool in TOOLS:
                with self.subTest(tool=tool, flags=flags):
                    self.expect_host_lines(symbolize("--tool", tool))
        run("objcopy", "--remove-section=.debug_aranges", "host")
        self.expect_host_lines(symbolize("--tool", "addr2line"))
        self.assertIn("eu-addr2line finds no lines in ./host", symbolize("--tool", "eu-addr2line"))

    def test_plugin(self):
        build("-fPIC", "-shared", source="Plugin.cpp", output="plugin.so")
        crash("./plugin.so")
        self.expect_lines(symbolize(), WriteInPlugin="PLUGIN FAULT", PluginEntry="PLUGIN CALL", NeverReturns="HOST CALL")
        # Only the neighbours of the function that faults keep their symbols.
        run("strip", "plugin.so")
        for tool in TOOLS:
            self.assertRegex(symbolize("--tool", tool), r"\n\*#.* \?\? \[plugin\.so\]\n.*PluginEntry")
        os.remove("plugin.so")
        self.assertRegex(symbolize(status=3), r"(?s)PluginEntry\+0x.*warning: ./plugin.so: the file is missing")

    def test_separate_debug_files(self):
        build_id = run("readelf", "-n", "host").split("Build ID: ")[1].split()[0]
        by_id = f"debug/.build-id/{build_id[:2]}/{build_id[2:]}.debug"
        os.makedirs(os.path.dirname(by_id))
        for flag, debug in (("--build-id", by_id), ("--build-id", "host.debug"), ("--build-id=none", "host.debug")):
            with self.subTest(flag=flag, debug=debug):
                build("-Wl," + flag)
                run("objcopy", "--only-keep-debug", "host", debug)
                run("strip", "--remove-section=.gnu_debuglink", "host")
                if debug != by_id:
                    run("objcopy", f"--add-gnu-debuglink={debug}", "host")
                crash()
                self.expect_host_lines(symbolize("--debug-dir", "debug"))
                build("-Wl," + flag, "-O2", output=debug)
                text = symbolize("--debug-dir", "debug", status=3)
                self.assertIn("does not match", text)
                self.assertNotIn("CrashHost.cpp", text)
                os.remove(debug)
                self.assertIn("has no debug information", symbolize())

    def test_logs(self):
        crash()
        lines = Path("crash.log").read_text().splitlines(keepends=True)
        log = "".join(line + OTHER_THREAD + "reg[16] = 0x0\n" for line in lines * 2).encode()
        for pack in (bytes, gzip.compress, bz2.compress, lzma.compress):
            Path("log").write_bytes(pack(log))
            text = symbolize(dump="log")
            self.expect_host_lines(text)
            self.assertRegex(text, r"dump 2, line \d+: the same as dump 1")
        Path("log").write_bytes(gzip.compress(b"\n" * 1000000 + log)[:-9])
        self.assertIn("ends early", symbolize(status=3, dump="log"))
        os.utime("host", (4e9, 4e9))
        self.assertIn("changed after the crash", symbolize(dump="crash.log", status=3))
        build("-O0")
        self.assertIn("DOES NOT MATCH", symbolize(status=3))
        symbolize(status=1, dump=HERE / "Plugin.cpp")
        symbolize(status=2, dump="missing")

    def test_lines_that_a_collector_has_put_its_prefix_before(self):
        crash()
        other = "Nov 23 11:59:59 host reader[4712]: reg[16] = 0x0\n"
        prefixes = ("Nov 23 11:59:5{} host reader[4711]: ", "2026-11-23T11:59:5{}.123456+01:00 host reader[4711]: ",
                    "[ 1234.56789{}] reader[4711]: ", "reader-1  | ", "<11>1 2026-11-23T11:59:5{}Z host reader 4711 - - ")
        for name in ("dump", "crash.log"):
            for prefix in prefixes:
                with self.subTest(name=name, prefix=prefix):
                    # As collectors do, without the blanks at the end, and with the same dump of another process in between.
                    lines = enumerate(Path(name).read_text().splitlines())
                    collected = (f"{prefix.format(i % 10)}{line}".rstrip() + "\n" + other for i, line in lines)
                    Path("collected").write_text("".join(collected))
                    text = symbolize(dump="collected")
                    self.expect_host_lines(text)
                    self.assertIn(f'"{prefix.format("")[:10]}', re.sub(r"(:5|\.56789)\d", r"\1", text))
        Path("dump").write_text(Path("dump").read_text().replace("Structured", "half a line of the host's Structured"))
        text = symbolize()
        self.expect_host_lines(text)
        self.assertNotIn("left out", text)


if __name__ == "__main__":
    unittest.main()
