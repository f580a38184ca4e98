"""Programs built with an earlier version run with this one: nothing of the binary interface has changed, and the header
compiles without a warning in every language that it is made for."""
import re
import shutil
import subprocess

import support
from support import PROJECT, Place

import interface

HEADERS = (PROJECT / "src/windows/server/library/shmnm/include/shmnm.h", PROJECT / "tools/picture_library/include/shmnmpicture.h")
COMPILERS = {"c": ("gcc", "clang", "x86_64-w64-mingw32-gcc-posix"), "c++": ("g++", "clang++", "x86_64-w64-mingw32-g++-posix")}
STANDARDS = {"c": ("c11", "c17"), "c++": ("c++11", "c++14", "c++17", "c++20")}
LIBRARIES = ("kzmkernel", "kzmlog", "kzmshmnm", "kzmutil", "kzmxml")
PICTURE = "shmnmpicture"


def compared(before, after):
    """What abidiff says of the two; its status is 0 when they are the same."""
    return subprocess.run(["abidiff", "--no-show-locs", "--no-corpus-path", before, after], capture_output=True, text=True)


class BinaryInterface(Place):
    def test_each_library_matches_its_saved_interface(self):
        for library in (*LIBRARIES, PICTURE):
            with self.subTest(library):
                done = compared(PROJECT / f"abi/lib{library}.abi", support.BUILD / f"bin/lib{library}.so")
                self.assertEqual(done.returncode, 0, done.stdout + done.stderr)

    def test_the_saved_library_has_the_91_functions_with_their_types(self):
        text = (PROJECT / "abi/libkzmshmnm.abi").read_text()
        self.assertEqual(set(re.findall(r"<elf-symbol name='(\w+)'", text)), interface.KZMSHMNM)
        self.assertEqual(set(re.findall(r"<function-decl name='(\w+)'", text)), interface.KZMSHMNM)
        self.assertEqual(len(interface.KZMSHMNM), 91)

    def test_the_saved_reader_has_its_functions_with_their_types_and_the_options(self):
        text = (PROJECT / "abi/libshmnmpicture.abi").read_text()
        self.assertEqual(set(re.findall(r"<elf-symbol name='(\w+)'", text)), interface.SHMNMPICTURE)
        self.assertEqual(set(re.findall(r"<function-decl name='(\w+)'", text)), interface.SHMNMPICTURE)
        self.assertRegex(text, r"<class-decl name='shmnmpicture_options' size-in-bits='320'")

    def test_a_changed_argument_type_is_detected(self):
        saved = PROJECT / "abi/libkzmshmnm.abi"
        text = saved.read_text()
        wide = re.search(r"<typedef-decl name='uint64_t' .*?id='(\w+)'/>", text).group(1)
        function = re.search(r"<function-decl name='shmnm_rwlock'.*?</function-decl>", text, re.S).group(0)
        changed = self.folder / "changed.abi"
        changed.write_text(text.replace(function, re.sub(r"<parameter type-id='\w+'", f"<parameter type-id='{wide}'", function)))
        done = compared(saved, changed)
        self.assertNotEqual(done.returncode, 0)
        self.assertIn("shmnm_rwlock", done.stdout)

    def test_a_missing_or_new_function_is_detected(self):
        saved = PROJECT / "abi/libkzmshmnm.abi"
        lacking = self.folder / "lacking.abi"
        text = re.sub(r" *<elf-symbol name='shmnm_dump'.*?/>\n", "", saved.read_text())
        lacking.write_text(re.sub(r" *<function-decl name='shmnm_dump'.*?</function-decl>\n", "", text, flags=re.S))
        for before, after, words in ((saved, lacking, "1 Removed"), (lacking, saved, "1 Added")):
            done = compared(before, after)
            self.assertNotEqual(done.returncode, 0)
            self.assertIn(words, done.stdout)


class Header(Place):
    def compiled(self, header, compiler, language, standard):
        warnings = ["-Wall", "-Wextra", "-Wpedantic", "-Wconversion", "-Wsign-conversion", "-Wshadow", "-Wundef", "-Werror"]
        if language == "c":
            warnings.append("-Wstrict-prototypes")
        return subprocess.run([compiler, f"-std={standard}", *warnings, "-fsyntax-only", "-x", language, header], capture_output=True, text=True)

    def test_the_header_compiles_alone_and_without_warnings_with_each_compiler(self):
        # As a file that is included: a header compiled as the main file has warnings of its own kind.
        for header in HEADERS:
            for language, compilers in COMPILERS.items():
                alone = self.folder / f"{header.stem}.{language}"
                alone.write_text(f'#include "{header}"\nextern int nothing_else;\n')
                for compiler in compilers:
                    for standard in STANDARDS[language]:
                        with self.subTest(header=header.name, compiler=compiler, standard=standard):
                            done = self.compiled(alone, compiler, language, standard)
                            self.assertEqual((done.returncode, done.stderr), (0, ""))

    def test_a_warning_in_the_header_is_detected(self):
        for language, compilers in COMPILERS.items():
            bad = self.folder / "bad.h"
            shutil.copy(HEADERS[0], bad)
            bad.write_text(bad.read_text() + "static inline int shmnm_bad(unsigned long long wide) { return wide; }\n")
            alone = self.folder / f"bad.{language}"
            alone.write_text(f'#include "{bad}"\n')
            for compiler in compilers:
                with self.subTest(compiler=compiler):
                    self.assertIn("conversion", self.compiled(alone, compiler, language, STANDARDS[language][0]).stderr)


class Promise(Place):
    def test_the_packages_name_the_version_of_each_function(self):
        text = (PROJECT / "packaging/debian/symbols").read_text()
        listed = {name: set() for name in LIBRARIES}
        for line in text.splitlines():
            library = re.match(r"lib(\w+)\.so(\.1)? libshmnm1 #MINVER#$", line)
            if library:
                current = listed[library[1]]
                self.assertEqual(library[2], ".1" if library[1] == "kzmshmnm" else None)
            else:
                current.add(re.match(r" (\w+)@Base \d+\.\d+\.\d+$", line)[1])
        self.assertEqual(listed, dict(interface.EXPORTS, kzmkernel=interface.KZMKERNEL))
        first, *lines = (PROJECT / "packaging/debian/libshmnmpicture1/symbols").read_text().splitlines()
        self.assertEqual(first, "libshmnmpicture.so.1 libshmnmpicture1 #MINVER#")
        self.assertEqual({re.match(r" (\w+)@Base \d+\.\d+\.\d+$", line)[1] for line in lines}, interface.SHMNMPICTURE)

    def test_the_packages_changelog_ends_at_this_version(self):
        version = re.search(r"project\(shmnm VERSION ([\d.]+)", (PROJECT / "CMakeLists.txt").read_text())[1]
        first = (PROJECT / "packaging/debian/changelog").read_text().splitlines()[0]
        self.assertEqual(first, f"shmnm ({version}-1) stable; urgency=medium")


if __name__ == "__main__":
    support.main()
