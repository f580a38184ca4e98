#!/usr/bin/env python3
"""What crosses the borders of the shared libraries: plain functions, just those that are documented.

    exports_test.py linux|windows FOLDER NM READELF VERSION
"""
import os
import re
import sys
import unittest

import interface
from binary_file import Elf, Pe

PROJECT = os.path.join(os.path.dirname(__file__), "../..")
HEADER = os.path.join(PROJECT, "src/windows/server/library/shmnm/include/shmnm.h")
PICTURE_HEADER = os.path.join(PROJECT, "tools/picture_library/include/shmnmpicture.h")


class Interface(unittest.TestCase):
    def test_the_library_has_91_functions(self):
        self.assertEqual(len(interface.KZMSHMNM), 91)

    def test_the_header_declares_exactly_these_functions(self):
        with open(HEADER, encoding="utf-8") as file:
            declared = re.findall(r"^SHMNM_API uint32_t (\w+)\(", file.read(), re.M)
        self.assertEqual(len(declared), 91)
        self.assertEqual(set(declared), interface.KZMSHMNM)

    def test_the_reader_s_header_declares_exactly_its_functions(self):
        with open(PICTURE_HEADER, encoding="utf-8") as file:
            declared = re.findall(r"^SHMNMPICTURE_API [\w *]+?(shmnmpicture_\w+)\(", file.read(), re.M)
        self.assertEqual(sorted(declared), sorted(interface.SHMNMPICTURE))


class Linux(unittest.TestCase):
    run_times = {"libc.so.6", "libm.so.6", "libgcc_s.so.1", "libstdc++.so.6", "ld-linux-x86-64.so.2"}
    exports = dict(interface.EXPORTS, kzmkernel=interface.KZMKERNEL, shmnmpicture=interface.SHMNMPICTURE)

    def library(self, name):
        return Elf(os.path.join(folder, f"lib{name}.so"), nm, readelf)

    def test_each_library_exports_its_functions_and_nothing_else(self):
        for name, functions in self.exports.items():
            with self.subTest(name):
                self.assertEqual(self.library(name).exports, {function: "T" for function in functions})

    def test_the_library_imports_the_14_companion_functions(self):
        imports = self.library("kzmshmnm").imports
        companions = interface.KZMUTIL | interface.KZMXML | interface.KZMLOG
        self.assertEqual(len(companions), 14)
        self.assertEqual({name for name in imports if re.match("Kzmutil|xmllib|kzmlog", name)}, companions)
        self.assertLessEqual({name for name in imports if name.startswith("kzmkernel")}, interface.KZMKERNEL)

    def test_the_library_depends_on_the_companions_and_the_run_times(self):
        needed = set(self.library("kzmshmnm").needed)
        self.assertEqual(needed - self.run_times,
                         {"libkzmutil.so", "libkzmxml.so", "libkzmlog.so", "libkzmkernel.so"})

    def test_each_companion_depends_only_on_the_layers_below(self):
        below = {"kzmkernel": set(), "kzmutil": {"libkzmkernel.so"}, "kzmxml": {"libkzmutil.so"},
                 "kzmlog": {"libkzmutil.so"}}
        for name, libraries in below.items():
            with self.subTest(name):
                self.assertEqual(set(self.library(name).needed) - self.run_times, libraries)

    def test_each_companion_is_found_by_its_plain_file_name_beside_the_others(self):
        for name in self.exports.keys() - {"kzmshmnm", "shmnmpicture"}:
            with self.subTest(name):
                library = self.library(name)
                self.assertFalse(os.path.islink(library.path))
                self.assertEqual(library.soname, [f"lib{name}.so"])
                self.assertEqual(library.run_path, ["$ORIGIN"])

    def test_programs_depend_on_the_version_of_the_library_s_interface(self):
        for name in ("kzmshmnm", "shmnmpicture"):
            with self.subTest(name):
                library = self.library(name)
                self.assertEqual(library.soname, [f"lib{name}.so." + version.split(".")[0]])
                self.assertEqual(library.run_path, ["$ORIGIN"])
                self.assertEqual(os.path.basename(os.path.realpath(library.path)), f"lib{name}.so." + version)

    def test_the_reader_loads_the_library_only_when_it_needs_it(self):
        library = self.library("shmnmpicture")
        self.assertEqual(set(library.needed) - self.run_times,
                         {"libkzmutil.so", "libkzmxml.so", "libkzmkernel.so", "libssl.so.3", "libcrypto.so.3"})
        self.assertNotIn("libstdc++.so.6", library.needed)


class Windows(unittest.TestCase):
    system = {"KERNEL32.dll", "ADVAPI32.dll", "msvcrt.dll"}

    def library(self, name):
        return Pe(os.path.join(folder, f"{name}.dll"), nm)

    def test_each_library_exports_its_functions_and_nothing_else(self):
        for name, functions in dict(interface.EXPORTS, shmnmpicture=interface.SHMNMPICTURE).items():
            with self.subTest(name):
                self.assertEqual(self.library(name).exports(), {function: ".text" for function in functions})

    def test_the_reader_loads_the_library_only_when_it_needs_it(self):
        imports = set(self.library("shmnmpicture").imports())
        self.assertEqual(imports - self.system, {"kzmutil.dll", "kzmxml.dll", "WS2_32.dll"})

    def test_the_library_imports_the_14_companion_functions(self):
        imports = self.library("kzmshmnm").imports()
        companions = {name: functions for name, functions in imports.items() if name not in self.system}
        self.assertEqual(companions, {"kzmutil.dll": interface.KZMUTIL, "kzmxml.dll": interface.KZMXML,
                                      "kzmlog.dll": interface.KZMLOG})

    def test_each_companion_depends_only_on_the_layers_below(self):
        below = {"kzmutil": set(), "kzmxml": {"kzmutil.dll"}, "kzmlog": {"kzmutil.dll"}}
        for name, libraries in below.items():
            with self.subTest(name):
                self.assertEqual(set(self.library(name).imports()) - self.system, libraries)


if __name__ == "__main__":
    platform, folder, nm, readelf, version = sys.argv[1:]
    tests = unittest.TestSuite()
    for case in (Interface, Linux if platform == "linux" else Windows):
        tests.addTests(unittest.defaultTestLoader.loadTestsFromTestCase(case))
    sys.exit(not unittest.TextTestRunner(verbosity=2).run(tests).wasSuccessful())
