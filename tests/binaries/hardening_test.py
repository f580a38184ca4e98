#!/usr/bin/env python3
"""How the shared libraries and the programs are hardened, read from the files.

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
        self.programs = {name: Elf(os.path.join(folder, name), nm, readelf) for name in interface.PROGRAMS["linux"]}
        self.files = self.libraries | self.programs

    def test_the_address_of_each_file_is_chosen_at_load(self):
        for name, file in self.files.items():
            with self.subTest(name):
                self.assertEqual(file.type, "DYN")

    def test_function_addresses_become_read_only_after_loading(self):
        for name, file in self.files.items():
            with self.subTest(name):
                self.assertIn("GNU_RELRO", dict(file.segments))
                self.assertIn("BIND_NOW", file.flags)

    def test_the_stack_is_not_executable(self):
        for name, file in self.files.items():
            with self.subTest(name):
                self.assertEqual([flags for kind, flags in file.segments if kind == "GNU_STACK"], ["RW"])

    def test_nothing_is_both_writable_and_executable(self):
        for name, file in self.files.items():
            with self.subTest(name):
                loaded = [flags for kind, flags in file.segments if kind == "LOAD"]
                self.assertIn("RE", loaded)
                self.assertFalse([flags for flags in loaded if "W" in flags and "E" in flags])

    def test_code_is_never_patched_at_load(self):
        for name, file in self.files.items():
            with self.subTest(name):
                self.assertNotIn("TEXTREL", file.tags | file.flags)

    def test_functions_protect_their_stack(self):
        for name, file in self.files.items():
            with self.subTest(name):
                self.assertIn("__stack_chk_fail", file.imports)

    def test_nothing_keeps_a_library_loaded(self):
        for name, library in self.libraries.items():
            with self.subTest(name):
                self.assertNotIn("NODELETE", library.flags)
                self.assertNotIn("u", library.exports.values())


class Windows(unittest.TestCase):
    high_entropy_addresses, dynamic_base, no_execute, control_flow_guard, terminal_server_aware = 0x20, 0x40, 0x100, 0x4000, 0x8000
    codeview, more_characteristics = 2, 20  # types of entries in the debug directory

    def setUp(self):
        names = [*(f"{library}.dll" for library in interface.EXPORTS), "shmnmpicture.dll", *interface.PROGRAMS["windows"]]
        self.files = {name: Pe(os.path.join(folder, name), nm) for name in names}

    def test_the_address_is_chosen_at_load_from_all_64_bits(self):
        for name, file in self.files.items():
            with self.subTest(name):
                self.assertTrue(file.dll_characteristics & self.high_entropy_addresses)
                self.assertTrue(file.dll_characteristics & self.dynamic_base)
                self.assertTrue(file.has_relocations())
                self.assertGreater(file.image_base, 0xFFFFFFFF)

    def test_data_is_not_executable(self):
        execute, write = 0x20000000, 0x80000000
        for name, file in self.files.items():
            with self.subTest(name):
                self.assertTrue(file.dll_characteristics & self.no_execute)
                both = [section for section, *_, flags in file.sections if flags & execute and flags & write]
                self.assertEqual(both, [])

    def test_functions_protect_their_stack(self):
        for name, file in self.files.items():
            with self.subTest(name):
                self.assertIn("__stack_chk_fail", file.symbols)
                # The compiler's own protector loads a provider of cryptography into each process.
                self.assertNotIn("CryptAcquireContextA", file.symbols)

    def test_programs_know_of_several_sessions(self):
        for name in interface.PROGRAMS["windows"]:
            with self.subTest(name):
                self.assertTrue(self.files[name].dll_characteristics & self.terminal_server_aware)

    def test_no_file_claims_a_guard_that_the_tool_chain_cannot_set(self):
        # Neither Control Flow Guard nor shadow stacks (CET): docs/windows.md says so, and changes when this fails.
        for name, file in self.files.items():
            with self.subTest(name):
                self.assertFalse(file.dll_characteristics & self.control_flow_guard)
                self.assertNotIn(self.more_characteristics, dict(file.debug_entries()))

    def test_debuggers_know_each_file_by_its_contents_and_not_by_its_time(self):
        identities = set()
        for name, file in self.files.items():
            with self.subTest(name):
                self.assertEqual(file.time_stamp, 0)
                (identity,) = (entry for kind, entry in file.debug_entries() if kind == self.codeview)
                self.assertRegex(identity, rb"(?s)\ARSDS.{16}")
                identities.add(identity)
        self.assertEqual(len(identities), len(self.files))

    def test_each_file_states_its_version_and_company(self):
        numbers = tuple(int(part) for part in version.split(".")) + (0,)
        for name, file in self.files.items():
            with self.subTest(name):
                resource = file.version()
                self.assertIsNotNone(resource, "no version resource")
                file_version, product_version, texts = resource
                self.assertEqual(file_version, numbers)
                self.assertEqual(product_version, numbers)
                self.assertEqual(texts["CompanyName"], "shmnm")
                self.assertEqual(texts["ProductName"], "shmnm")
                self.assertEqual(texts["FileVersion"], version)
                self.assertEqual(texts["ProductVersion"], version)
                self.assertEqual(texts["OriginalFilename"], name)
                self.assertEqual(texts["InternalName"], os.path.splitext(name)[0])
                self.assertTrue(texts["FileDescription"])


if __name__ == "__main__":
    platform, folder, nm, readelf, version = sys.argv[1:]
    tests = unittest.defaultTestLoader.loadTestsFromTestCase(Linux if platform == "linux" else Windows)
    sys.exit(not unittest.TextTestRunner(verbosity=2).run(tests).wasSuccessful())
