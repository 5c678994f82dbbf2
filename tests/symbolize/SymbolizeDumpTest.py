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

HERE = os.path.dirname(os.path.abspath(__file__))
TOOL = os.path.join(HERE, "../../tools/symbolize_dump.py")
COMPILER = os.environ["CXX"]
LIBRARY_FOLDER = os.environ["LIBRARY_FOLDER"]
OTHER_THREAD = "22/11/26 10:00:00.000 - ERROR      - [ThreadID: 1] - "
TOOLS = ("llvm-symbolizer", "eu-addr2line", "addr2line")
ARANGES = ["-gdwarf-aranges"] if "clang" in COMPILER else []  # GCC always writes what eu-addr2line needs


def run(*command, status=0, cwd=None):
    result = subprocess.run(command, cwd=cwd, capture_output=True, text=True, check=False)
    if result.returncode != status:
        raise AssertionError(f"{command} ended with {result.returncode}, not {status}:\n{result.stdout}{result.stderr}")
    return result.stdout


def build(source, output, *flags):
    run(COMPILER, "-std=c++20", "-g", "-O1", "-fcf-protection=none", "-Wl,--build-id", *ARANGES, *flags,
        os.path.join(HERE, source), "-o", output, "-I", os.path.join(HERE, "../../include"),
        "-L", LIBRARY_FOLDER, "-Wl,-rpath," + LIBRARY_FOLDER, "-lErrorHandlerDll")


def line_of(marker, source):
    with open(os.path.join(HERE, source), encoding="utf-8") as file:
        return next(f"{source}:{number}" for number, line in enumerate(file, 1) if marker in line)


class SymbolizeDump(unittest.TestCase):
    def setUp(self):
        resource.setrlimit(resource.RLIMIT_CORE, (0, 0))
        folder = tempfile.TemporaryDirectory()
        self.addCleanup(folder.cleanup)
        self.folder = folder.name
        self.host = self.path("host")
        build("CrashHost.cpp", self.host)

    def path(self, name):
        return os.path.join(self.folder, name)

    def read(self, name):
        with open(self.path(name), encoding="utf-8") as file:
            return file.read()

    def write(self, name, content):
        with open(self.path(name), "wb") as file:
            file.write(content if isinstance(content, bytes) else content.encode())

    def crash(self, *arguments):
        self.write("dump", run(self.host, *arguments, status=-11, cwd=self.folder))

    def symbolize(self, *options, status=0, dump="dump"):
        return run(sys.executable, TOOL, *options, self.path(dump), status=status)

    def expect_lines(self, text, *expected):
        """The lines stand in this order, the first at the frame of the program counter."""
        frames = text[text.index("\n*#"):].split("\n")[1:]
        for (function, marker, source), frame in zip(expected, frames):
            self.assertIn(function, frame, text)
            self.assertRegex(frame, line_of(marker, source) + r"\b", text)

    def expect_host_lines(self, text):
        self.expect_lines(text, ("WriteInHost", "HOST FAULT", "CrashHost.cpp"),
                          ("NeverReturns", "HOST CALL", "CrashHost.cpp"))
        self.assertIn("<signal handler called>", text)

    def test_every_tool_names_lines_of_pie_and_fixed_executables(self):
        for flags in (("-fPIE", "-pie"), ("-fno-pie", "-no-pie")):
            build("CrashHost.cpp", self.host, *flags)
            self.crash()
            for tool in TOOLS:
                with self.subTest(tool=tool, flags=flags):
                    self.expect_host_lines(self.symbolize("--tool", tool))
        run("objcopy", "--remove-section=.debug_aranges", self.host)
        self.expect_host_lines(self.symbolize("--tool", "addr2line"))
        self.assertIn(f"eu-addr2line finds no lines in {self.host}", self.symbolize("--tool", "eu-addr2line"))

    def test_plugin(self):
        plugin = self.path("plugin.so")
        build("Plugin.cpp", plugin, "-fPIC", "-shared")
        self.crash(plugin)
        self.expect_lines(self.symbolize(), ("WriteInPlugin", "PLUGIN FAULT", "Plugin.cpp"),
                          ("PluginEntry", "PLUGIN CALL", "Plugin.cpp"), ("NeverReturns", "HOST CALL", "CrashHost.cpp"))
        # Only the neighbours of the function that faults keep their symbols.
        run("strip", plugin)
        for tool in TOOLS:
            text = self.symbolize("--tool", tool)
            self.assertRegex(text, r"\n\*#.* \?\? \[plugin\.so\]\n.*PluginEntry")
        os.remove(plugin)
        text = self.symbolize(status=3)
        self.assertIn(f"warning: {plugin}: the file is missing", text)
        self.assertIn("PluginEntry+0x", text)

    def test_separate_debug_files(self):
        build_id = run("readelf", "-n", self.host).split("Build ID: ")[1].split()[0]
        os.makedirs(self.path(f"debug/.build-id/{build_id[:2]}"))
        by_id = self.path(f"debug/.build-id/{build_id[:2]}/{build_id[2:]}.debug")
        for link, flag, debug in ((False, "--build-id", by_id), (True, "--build-id", self.host + ".debug"),
                                  (True, "--build-id=none", self.host + ".debug")):
            with self.subTest(link=link, flag=flag):
                build("CrashHost.cpp", self.host, "-Wl," + flag)
                run("objcopy", "--only-keep-debug", self.host, debug)
                run("strip", "--remove-section=.gnu_debuglink", self.host)
                if link:
                    run("objcopy", f"--add-gnu-debuglink={debug}", self.host)
                self.crash()
                self.expect_host_lines(self.symbolize("--debug-dir", self.path("debug")))
                build("CrashHost.cpp", debug, "-Wl," + flag, "-O2")
                text = self.symbolize("--debug-dir", self.path("debug"), status=3)
                self.assertIn("does not match", text)
                self.assertNotIn("CrashHost.cpp", text)
                os.remove(debug)
                self.assertIn("has no debug information", self.symbolize())

    def test_logs(self):
        self.crash()
        lines = self.read("crash.log").splitlines(keepends=True)
        log = "".join(line + OTHER_THREAD + "reg[16] = 0x0\n" for line in lines * 2).encode()
        for pack in (bytes, gzip.compress, bz2.compress, lzma.compress):
            self.write("log", pack(log))
            text = self.symbolize(dump="log")
            self.expect_host_lines(text)
            self.assertRegex(text, r"dump 2, line \d+: the same as dump 1")
        self.write("log", gzip.compress(b"\n" * 1000000 + log)[:-9])
        self.assertIn("ends early", self.symbolize(status=3, dump="log"))
        os.utime(self.host, (4e9, 4e9))
        self.assertIn("changed after the crash", self.symbolize(dump="crash.log", status=3))
        build("CrashHost.cpp", self.host, "-O0")
        self.assertIn("DOES NOT MATCH", self.symbolize(status=3))
        self.write("log", OTHER_THREAD + "nothing happened\n")
        self.symbolize(status=1, dump="log")
        self.symbolize(status=2, dump="missing")

    def test_lines_that_a_collector_has_put_its_prefix_before(self):
        self.crash()
        other = "Nov 23 11:59:59 host reader[4712]: reg[16] = 0x0\n"
        prefixes = ("Nov 23 11:59:5{} host reader[4711]: ", "2026-11-23T11:59:5{}.123456+01:00 host reader[4711]: ",
                    "[ 1234.56789{}] reader[4711]: ", "reader-1  | ", "<11>1 2026-11-23T11:59:5{}Z host reader 4711 - - ")
        for name in ("dump", "crash.log"):
            for prefix in prefixes:
                with self.subTest(name=name, prefix=prefix):
                    # As collectors do, without the blanks at the end, and with the same dump of another process in between.
                    lines = enumerate(self.read(name).splitlines())
                    self.write("collected", "".join(f"{prefix.format(i % 10)}{line}".rstrip() + "\n" + other for i, line in lines))
                    text = self.symbolize(dump="collected")
                    self.expect_host_lines(text)
                    self.assertIn(f'"{prefix.format("")[:10]}', re.sub(r"(:5|\.56789)\d", r"\1", text))
        self.write("dump", self.read("dump").replace("Structured", "half a line of the host's Structured"))
        text = self.symbolize()
        self.expect_host_lines(text)
        self.assertNotIn("left out", text)


if __name__ == "__main__":
    unittest.main()
