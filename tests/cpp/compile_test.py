"""shmnm.hpp compiles without a warning wherever it is meant to, refuses what is wrong, and leaves no macro behind.

    compile_test.py
"""
import itertools
import pathlib
import re
import subprocess
import tempfile
import unittest

PROJECT = pathlib.Path(__file__).resolve().parents[2]
INCLUDE = PROJECT / "src/windows/server/library/shmnm/include"
SOURCES = PROJECT / "tests/cpp/compile"
COMPILERS = ("g++", "clang++", "x86_64-w64-mingw32-g++")
STANDARDS = ("-std=c++17", "-std=c++20")
WITHOUT = ("-fno-exceptions", "-fno-rtti")
WARNINGS = ("-Wall", "-Wextra", "-Wpedantic", "-Wconversion", "-Wsign-conversion", "-Wshadow", "-Wold-style-cast", "-Wundef", "-Werror")


def compiled(compiler, *arguments):
    return subprocess.run([compiler, f"-I{INCLUDE}", *map(str, arguments)], capture_output=True, text=True, timeout=120)


class Compile(unittest.TestCase):
    def expect_clean(self, source, *options, compilers=COMPILERS):
        for compiler, standard in itertools.product(compilers, STANDARDS):
            with self.subTest(compiler=compiler, standard=standard, options=options, source=source.name):
                done = compiled(compiler, standard, *WARNINGS, *options, "-fsyntax-only", source)
                self.assertEqual((done.returncode, done.stdout + done.stderr), (0, ""))

    def test_optimisers_find_nothing_to_warn_of(self):
        with tempfile.TemporaryDirectory() as folder:
            for compiler in COMPILERS:
                with self.subTest(compiler):
                    done = compiled(compiler, STANDARDS[0], "-O2", *WARNINGS, "-c", SOURCES / "everything.cpp", "-o", f"{folder}/object")
                    self.assertEqual((done.returncode, done.stdout + done.stderr), (0, ""))

    def test_everything_compiles_without_a_warning(self):
        self.expect_clean(SOURCES / "everything.cpp")

    def test_everything_compiles_without_exceptions_and_run_time_types(self):
        self.expect_clean(SOURCES / "everything.cpp", *WITHOUT)

    def test_the_examples_compile_without_a_warning(self):
        for name in ("tutorial", "alive", "alive_codes", "hb_table"):
            self.expect_clean(PROJECT / f"examples/{name}.cpp", compilers=("g++",))

    def test_each_misuse_is_refused(self):
        source = SOURCES / "misuse.cpp"
        wrong = {number for number, line in enumerate(source.read_text().splitlines(), 1) if re.search(r"; +// ", line)}
        self.assertEqual(len(wrong), 18)
        done = compiled("clang++", "-std=c++17", "-fsyntax-only", "-ferror-limit=0", source)
        refused = {int(number) for number in re.findall(rf"^{re.escape(str(source))}:(\d+):\d+: error: ", done.stderr, re.M)}
        self.assertEqual(refused, wrong)

    def test_results_that_are_ignored_are_warned_of(self):
        for line in ("shmnm::attach(error);", "shmnm::get(shmnm::clstat, error);", "shmnm::Server::names(error);", "shmnm::WriteLock(shmnm::forever);"):
            with tempfile.TemporaryDirectory() as folder, self.subTest(line):
                source = pathlib.Path(folder) / "ignored.cpp"
                source.write_text(f'#include "shmnm.hpp"\nvoid ignored(std::error_code& error) {{ {line} static_cast<void>(error); }}\n')
                done = compiled("g++", "-std=c++17", "-fsyntax-only", *WARNINGS, source)
                self.assertIn("nodiscard", done.stderr)

    def test_no_macro_is_left_and_the_system_s_header_is_not_needed(self):
        header = (INCLUDE / "shmnm.hpp").read_text()
        own = re.findall(r"^#include [<\"].*[>\"]$", header, re.M)
        self.assertIn('#include "shmnm.h"', own)
        with tempfile.TemporaryDirectory() as folder:
            whole, parts = (pathlib.Path(folder) / name for name in ("whole.cpp", "parts.cpp"))
            whole.write_text('#include "shmnm.hpp"\n')
            parts.write_text("\n".join(own) + "\n")
            for compiler in COMPILERS:
                with self.subTest(compiler):
                    macros = [set(compiled(compiler, "-std=c++17", "-dM", "-E", source).stdout.splitlines()) for source in (whole, parts)]
                    self.assertEqual(macros[0] - macros[1], {"#define SHMNM_HPP "})
                    self.assertFalse([line for line in macros[0] if re.match(r"#define (_WINDOWS_|_INC_WINDOWS|_WINBASE_)", line)])


class Documents(unittest.TestCase):
    """The programs that documents show are the examples, which other tests build and run."""

    @staticmethod
    def blocks(document, language):
        return re.findall(rf"^```{language}\n(.*?)^```$", (PROJECT / document).read_text(), re.M | re.S)

    def test_the_readme_shows_the_examples(self):
        for language, name in (("c", "alive.c"), ("cpp", "alive.cpp")):
            self.assertEqual(self.blocks("README.md", language), [(PROJECT / "examples" / name).read_text()])

    def test_the_tutorial_s_code_is_that_of_the_examples(self):
        examples = [re.sub(r"(?m)^ +", "", (PROJECT / "examples" / name).read_text()) for name in ("tutorial.cpp", "alive_codes.cpp", "hb_table.cpp")]
        blocks = self.blocks("docs/cpp.md", "cpp")
        self.assertGreater(len(blocks), 4)
        for block in blocks:
            with self.subTest(block):
                self.assertTrue(any(re.sub(r"(?m)^ +", "", block) in example for example in examples))


if __name__ == "__main__":
    unittest.main()
