#!/usr/bin/env python3
"""Crashes real programs, built in the ways that hosts are, and has tools/symbolize_dump.py name the lines."""

import bz2
import gzip
import lzma
import os
import re
import shutil
import subprocess
import sys
import tempfile
import unittest

HERE = os.path.dirname(os.path.abspath(__file__))
TOOL = os.path.join(HERE, "../../tools/symbolize_dump.py")
COMPILER = os.environ["CXX"]
LIBRARY_FOLDER = os.environ["LIBRARY_FOLDER"]
OTHER_THREAD = "22/11/26 10:00:00.000 - ERROR      - [ThreadID: 1] - "


def run(*command, status=0, cwd=None):
    result = subprocess.run(command, cwd=cwd, capture_output=True, text=True, check=False)
    if result.returncode != status:
        raise AssertionError(f"{command} ended with {result.returncode}, not {status}:\n{result.stdout}{result.stderr}")
    return result.stdout


def line_of(marker, source):
    with open(os.path.join(HERE, source), encoding="utf-8") as file:
        return next(f"{source}:{number}" for number, line in enumerate(file, 1) if marker in line)


class SymbolizeDump(unittest.TestCase):
    def setUp(self):
        folder = tempfile.TemporaryDirectory()
        self.addCleanup(folder.cleanup)
        self.folder = folder.name
        self.host = self.path("host")
        self.plugin = self.path("plugin.so")

    def path(self, name):
        return os.path.join(self.folder, name)

    def build(self, *flags, source="CrashHost.cpp", output=None):
        run(COMPILER, "-std=c++20", "-g", "-O1", "-fcf-protection=none", "-Wl,--build-id", *flags,
            os.path.join(HERE, source), "-o", output or self.host, "-I", os.path.join(HERE, "../../include"),
            "-L", LIBRARY_FOLDER, "-Wl,-rpath," + LIBRARY_FOLDER, "-lErrorHandlerDll")

    def build_plugin(self, *flags):
        self.build("-fPIC", "-shared", *flags, source="Plugin.cpp", output=self.plugin)

    def crash(self, *arguments):
        with open(self.path("dump"), "w", encoding="utf-8") as file:
            file.write(run(self.host, *arguments, status=3, cwd=self.folder))

    def symbolize(self, *options, status=0, dump="dump"):
        return run(sys.executable, TOOL, *options, self.path(dump), status=status)

    def strip(self, file, debug, link):
        run("objcopy", "--only-keep-debug", file, debug)
        run("strip", *([] if link else ["--remove-section=.gnu_debuglink"]), file)
        if link:
            run("objcopy", f"--add-gnu-debuglink={debug}", file)

    def expect_lines(self, text, *expected):
        """The lines stand in this order, the first at the frame of the program counter."""
        frames = text[text.index("\n*#"):].split("\n")[1:]
        for (function, marker, source), frame in zip(expected, frames):
            self.assertIn(function, frame, text)
            self.assertRegex(frame, line_of(marker, source) + r"\b", text)

    def expect_host_lines(self, text):
        self.expect_lines(text, ("WriteInHost", "HOST FAULT", "CrashHost.cpp"),
                          ("NeverReturns", "HOST CALL", "CrashHost.cpp"))

    def test_every_tool_names_lines_of_pie_and_fixed_executables(self):
        for flags in (("-fPIE", "-pie"), ("-fno-pie", "-no-pie")):
            self.build(*flags)
            self.crash()
            for tool in ("llvm-symbolizer", "eu-addr2line", "addr2line"):
                with self.subTest(tool=tool, flags=flags):
                    if not shutil.which(tool):
                        self.skipTest(tool + " is not installed")
                    self.expect_host_lines(self.symbolize("--tool", tool))

    def test_plugin(self):
        self.build()
        self.build_plugin()
        self.crash(self.plugin)
        self.expect_lines(self.symbolize(), ("WriteInPlugin", "PLUGIN FAULT", "Plugin.cpp"),
                          ("PluginEntry", "PLUGIN CALL", "Plugin.cpp"), ("NeverReturns", "HOST CALL", "CrashHost.cpp"))
        os.remove(self.plugin)
        text = self.symbolize(status=3)
        self.assertIn(f"warning: {self.plugin}: the file is missing", text)
        self.assertIn("PluginEntry+0x", text)

    def test_separate_debug_files(self):
        for link in (True, False):
            with self.subTest(link=link):
                self.build()
                build_id = run("readelf", "-n", self.host).split("Build ID: ")[1].split()[0]
                folder = self.path(f"debug/.build-id/{build_id[:2]}")
                os.makedirs(folder, exist_ok=True)
                debug = self.host + ".debug" if link else f"{folder}/{build_id[2:]}.debug"
                self.strip(self.host, debug, link)
                self.crash()
                self.expect_host_lines(self.symbolize("--debug-dir", self.path("debug")))
                os.remove(debug)
                self.assertIn("has no debug information", self.symbolize())

    def test_debug_file_of_another_build_is_refused(self):
        for build_id in ("--build-id", "--build-id=none"):
            with self.subTest(build_id=build_id):
                self.build("-Wl," + build_id)
                self.strip(self.host, self.host + ".debug", link=True)
                self.crash()
                self.expect_host_lines(self.symbolize())
                self.build("-Wl," + build_id, "-O2", output=self.path("other"))
                run("objcopy", "--only-keep-debug", self.path("other"), self.host + ".debug")
                text = self.symbolize(status=3)
                self.assertIn("does not match", text)
                self.assertNotIn("CrashHost.cpp", text)

    def test_executable_of_another_build_is_noticed(self):
        self.build()
        self.crash()
        self.build("-O0")
        self.assertIn("DOES NOT MATCH", self.symbolize(status=3))

    def test_log_with_lines_of_another_thread_and_a_second_dump(self):
        self.build()
        self.crash()
        with open(self.path("crash.log"), encoding="utf-8") as file:
            lines = file.readlines()
        with open(self.path("crash.log"), "w", encoding="utf-8") as file:
            file.writelines(line + OTHER_THREAD + "reg[16] = 0x0\n" for line in lines * 2)
        text = self.symbolize(dump="crash.log")
        self.expect_host_lines(text)
        self.assertRegex(text, r"dump 2, line \d+: the same as dump 1")
        os.utime(self.host, (4e9, 4e9))
        self.assertIn("changed after the crash", self.symbolize(dump="crash.log", status=3))

    def test_no_tool_names_the_nearest_symbol_of_a_stripped_file(self):
        # Only the neighbours of the function that faults keep their symbols.
        self.build()
        self.build_plugin()
        run("strip", self.plugin)
        self.crash(self.plugin)
        for tool in ("llvm-symbolizer", "eu-addr2line", "addr2line"):
            with self.subTest(tool=tool):
                text = self.symbolize("--tool", tool)
                fault = re.search(r"^\*#.*", text, re.M)[0]
                self.assertRegex(fault, r" \?\? \[plugin\.so\]$", text)
                self.assertIn("PluginEntry", text)

    def test_compressed_logs(self):
        self.build()
        self.crash()
        with open(self.path("crash.log"), "rb") as file:
            log = file.read()
        for module in (gzip, bz2, lzma):
            with self.subTest(module=module.__name__):
                with open(self.path("packed"), "wb") as file:
                    file.write(module.compress(log))
                self.expect_host_lines(self.symbolize(dump="packed"))
        with open(self.path("packed"), "wb") as file:
            file.write(gzip.compress(b"\n" * 1000000 + log)[:-9])
        self.assertIn("ends early", self.symbolize(status=3, dump="packed"))

    def test_lines_that_a_collector_has_put_its_prefix_before(self):
        self.build()
        self.crash()
        journal, other = "Nov 23 11:59:5{} host reader[4711]: ", "Nov 23 11:59:59 host reader[4712]: "
        prefixes = (journal, "2026-11-23T11:59:5{}.123456+01:00 host reader[4711]: ", "[ 1234.56789{}] reader[4711]: ",
                    "reader-1  | ", "<11>1 2026-11-23T11:59:5{}Z host reader 4711 - - ")
        for name in ("dump", "crash.log"):
            with open(self.path(name), encoding="utf-8") as file:
                lines = file.readlines()
            for prefix in prefixes:
                with self.subTest(name=name, prefix=prefix):
                    # As collectors do, without the blanks at the end, and with the same dump of another process in between.
                    with open(self.path("collected"), "w", encoding="utf-8") as file:
                        for number, line in enumerate(lines):
                            file.write((prefix.format(number % 10) + line).rstrip() + "\n" + other + "reg[16] = 0x0\n")
                    text = self.symbolize(dump="collected")
                    self.expect_host_lines(text)
                    self.assertIn(f'"{prefix.format("")[:10]}', re.sub(r"(:5|\.56789)\d", r"\1", text))
        with open(self.path("dump"), encoding="utf-8") as file:
            dump = file.read()
        with open(self.path("dump"), "w", encoding="utf-8") as file:
            file.write(dump.replace("Structured", "half a line of the host's Structured"))
        text = self.symbolize()
        self.expect_host_lines(text)
        self.assertNotIn("left out", text)

    def test_without_a_dump(self):
        with open(self.path("dump"), "w", encoding="utf-8") as file:
            file.write(OTHER_THREAD + "nothing happened\n")
        self.symbolize(status=1)
        os.remove(self.path("dump"))
        self.symbolize(status=2)


if __name__ == "__main__":
    unittest.main()
