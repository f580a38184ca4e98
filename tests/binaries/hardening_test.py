#!/usr/bin/env python3
"""How the shared libraries are hardened, read from the files.

    hardening_test.py linux|windows FOLDER NM READELF VERSION
"""
import os
import sys
import unittest

import interface
from binary_file import Elf, Pe


class Linux(unittest.TestCase):
    def setUp(self):
        self.libraries = {name: Elf(os.path.join(folder, f"lib{name}.so"), nm, readelf)
                          for name in [*interface.EXPORTS, "kzmkernel", "shmnmpicture"]}

    def test_function_addresses_become_read_only_after_loading(self):
        for name, library in self.libraries.items():
            with self.subTest(name):
                self.assertIn("GNU_RELRO", dict(library.segments))
                self.assertIn("BIND_NOW", library.flags)

    def test_the_stack_is_not_executable(self):
        for name, library in self.libraries.items():
            with self.subTest(name):
                self.assertEqual([flags for kind, flags in library.segments if kind == "GNU_STACK"], ["RW"])

    def test_nothing_is_both_writable_and_executable(self):
        for name, library in self.libraries.items():
            with self.subTest(name):
                loaded = [flags for kind, flags in library.segments if kind == "LOAD"]
                self.assertIn("RE", loaded)
                self.assertFalse([flags for flags in loaded if "W" in flags and "E" in flags])

    def test_code_is_never_patched_at_load(self):
        for name, library in self.libraries.items():
            with self.subTest(name):
                self.assertNotIn("TEXTREL", library.tags | library.flags)

    def test_functions_protect_their_stack(self):
        for name, library in self.libraries.items():
            with self.subTest(name):
                self.assertIn("__stack_chk_fail", library.imports)

    def test_nothing_keeps_a_library_loaded(self):
        for name, library in self.libraries.items():
            with self.subTest(name):
                self.assertNotIn("NODELETE", library.flags)
                self.assertNotIn("u", library.exports.values())


class Windows(unittest.TestCase):
    high_entropy_addresses, dynamic_base, no_execute = 0x20, 0x40, 0x100

    def setUp(self):
        self.libraries = {name: Pe(os.path.join(folder, f"{name}.dll"), nm) for name in [*interface.EXPORTS, "shmnmpicture"]}

    def test_the_address_is_chosen_at_load_from_all_64_bits(self):
        for name, library in self.libraries.items():
            with self.subTest(name):
                self.assertTrue(library.dll_characteristics & self.high_entropy_addresses)
                self.assertTrue(library.dll_characteristics & self.dynamic_base)
                self.assertTrue(library.has_relocations())
                self.assertGreater(library.image_base, 0xFFFFFFFF)

    def test_data_is_not_executable(self):
        execute, write = 0x20000000, 0x80000000
        for name, library in self.libraries.items():
            with self.subTest(name):
                self.assertTrue(library.dll_characteristics & self.no_execute)
                both = [section for section, *_, flags in library.sections if flags & execute and flags & write]
                self.assertEqual(both, [])

    def test_functions_protect_their_stack(self):
        for name, library in self.libraries.items():
            with self.subTest(name):
                self.assertIn("__stack_chk_fail", library.symbols)

    def test_each_library_states_its_version_and_company(self):
        numbers = tuple(int(part) for part in version.split(".")) + (0,)
        for name, library in self.libraries.items():
            with self.subTest(name):
                resource = library.version()
                self.assertIsNotNone(resource, "no version resource")
                file_version, product_version, texts = resource
                self.assertEqual(file_version, numbers)
                self.assertEqual(product_version, numbers)
                self.assertEqual(texts["CompanyName"], "shmnm")
                self.assertEqual(texts["ProductName"], "shmnm")
                self.assertEqual(texts["FileVersion"], version)
                self.assertEqual(texts["ProductVersion"], version)
                self.assertEqual(texts["OriginalFilename"], name + ".dll")
                self.assertEqual(texts["InternalName"], name)
                self.assertTrue(texts["FileDescription"])


if __name__ == "__main__":
    platform, folder, nm, readelf, version = sys.argv[1:]
    tests = unittest.defaultTestLoader.loadTestsFromTestCase(Linux if platform == "linux" else Windows)
    sys.exit(not unittest.TextTestRunner(verbosity=2).run(tests).wasSuccessful())
