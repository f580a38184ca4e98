"""The functions' manual pages: there is one for every name, it is well formed, and it says what the header declares and the library
does.

    reference_test.py BUILD SHARED_LIBRARY

What the header declares is asked of the compiler, not of the tool that the pages are made with.
"""
import ctypes
import json
import os
import pathlib
import re
import shutil
import subprocess
import sys
import tempfile
import unittest

PROJECT = pathlib.Path(__file__).resolve().parents[1]
HEADER = PROJECT / "src/windows/server/library/shmnm/include/shmnm.h"
sys.path.insert(0, str(PROJECT / "tests/binaries"))
import interface

BUILD, LIBRARY = (pathlib.Path(argument).resolve() for argument in sys.argv[1:3])
PAGES = BUILD / "man/man3"
RECORDS = {"shmnm_header", "shmnm_server", "shmnm_resource", "shmnm_fst_pid"}


def run(*command, **options):
    return subprocess.run([str(word) for word in command], stdout=subprocess.PIPE, stderr=subprocess.STDOUT, text=True, timeout=60, **options)


def nodes(tree):
    yield tree
    for node in tree.get("inner", []):
        yield from nodes(node)


def declarations():
    """What the compiler reads in the header: functions with their arguments as (type, name), result codes with their values."""
    done = run("clang", "-Xclang", "-ast-dump=json", "-fsyntax-only", "-x", "c", "-std=c11", HEADER)
    functions, results = {}, {}
    for node in nodes(json.loads(done.stdout)):
        if node["kind"] == "FunctionDecl" and node["name"].startswith("shmnm_"):
            functions[node["name"]] = [(p["type"]["qualType"], p["name"]) for p in node.get("inner", []) if p["kind"] == "ParmVarDecl"]
        elif node["kind"] == "EnumConstantDecl":
            results[node["name"]] = int(next(n["value"] for n in nodes(node) if n["kind"] == "ConstantExpr"))
    return functions, results


FUNCTIONS, RESULTS = declarations()


def part(text, heading):
    """What stands below a heading of a page."""
    return re.search(rf"^\.S[hs] {heading}\n(.*?)(?=^\.S[hs] |\Z)", text, re.M | re.S)[1]


class Manual(unittest.TestCase):
    maxDiff = None

    def page(self, name):
        return (PAGES / f"{name}.3").read_text()

    def each_page(self):
        """The pages of functions, each once, with the functions that share it."""
        for file in sorted(PAGES.iterdir()):
            if not file.is_symlink() and file.stem not in RECORDS | {"shmnm"}:
                text = file.read_text()
                yield text, re.findall(r"^\.Fo (\w+)$", text, re.M)

    def test_each_exported_name_and_nothing_else_has_a_page(self):
        self.assertEqual(len(interface.KZMSHMNM), 91)
        self.assertEqual(set(FUNCTIONS), interface.KZMSHMNM)
        self.assertEqual({file.name for file in PAGES.iterdir()}, {f"{name}.3" for name in interface.KZMSHMNM | RECORDS | {"shmnm"}})
        for name in interface.KZMSHMNM | RECORDS:
            with self.subTest(name):
                self.assertRegex(part(self.page(name), "NAME"), rf"(?m)^\.Nm {name}( ,)?$")

    def test_each_page_is_well_formed(self):
        lint = run("mandoc", "-T", "lint", "-W", "style", *(file for file in PAGES.iterdir() if not file.is_symlink()))
        # The pages are of no system's own, and are not in this machine's database.
        remarks = [line for line in lint.stdout.splitlines() if not re.search(r"STYLE: (operating system explicitly specified|referenced manual not found)", line)]
        self.assertEqual(remarks, [])

    def test_the_linter_reports_a_malformed_page(self):
        text = self.page("shmnm_create").replace(".Sh NAME", ".Sh NAMES")
        lint = run("mandoc", "-T", "lint", "-W", "warning", input=text)
        self.assertIn("WARNING", lint.stdout)

    def test_each_page_that_is_referred_to_exists(self):
        references = 0
        for file in PAGES.iterdir():
            for name, section in re.findall(r"\bXr (\w+) (\d)", file.read_text()):
                references += 1
                self.assertTrue((BUILD / f"man/man{section}/{name}.{section}").exists(), f"{file.name} refers to {name}({section})")
        self.assertGreater(references, 500)

    def test_each_synopsis_matches_the_declaration(self):
        found = {}
        for text, names in self.each_page():
            for type, name, arguments in re.findall(r"^\.Ft (.*)\n\.Fo (\w+)\n((?:\.Fa .*\n)*)\.Fc$", part(text, "SYNOPSIS"), re.M):
                self.assertEqual(type, "uint32_t")
                self.assertNotIn(name, found)
                found[name] = re.findall(r'^\.Fa "(.*)"$', arguments, re.M)
            self.assertIn(".In shmnm.h\n", text)
        self.assertEqual(found, {name: [re.sub(r"\* (\w+)$", r"*\1", f"{type} {argument}") for type, argument in arguments] or ["void"]
                                 for name, arguments in FUNCTIONS.items()})

    def test_each_argument_is_documented_and_outputs_are_marked(self):
        for text, names in self.each_page():
            declared = {name: type for function in names for type, name in FUNCTIONS[function]}
            with self.subTest(names[0]):
                if not declared:
                    self.assertNotIn(".Ss Arguments", text)
                    continue
                told = {}
                for listed, direction, what in re.findall(r"^\.It Fa (.+) Pq (in|out|in, out)\n((?:(?!\.It|\.El).*\n)+)", part(text, "Arguments"), re.M):
                    self.assertGreater(len(what), 5)
                    told |= {name: direction for name in listed.split(" , ")}
                self.assertEqual(set(told), set(declared))
                for name, type in declared.items():
                    self.assertEqual("out" in told[name], type.endswith("*") and not type.startswith("const "), f"{type} {name}")

    def test_result_codes_are_listed_with_their_numbers(self):
        overview = dict(re.findall(r"^\.It Dv (SHMNM_\w+) Pq (\d+)$", part(self.page("shmnm"), "RETURN VALUES"), re.M))
        self.assertEqual(overview, {name: str(value) for name, value in RESULTS.items()})
        for text, names in self.each_page():
            for name, value in re.findall(r"Dv (SHMNM_\w+) Pq (\d+)", part(text, "RETURN VALUES")):
                self.assertEqual(int(value), RESULTS[name], names[0])

    def test_pages_mention_an_unmapped_region_exactly_where_the_library_reports_it(self):
        folder = tempfile.mkdtemp(prefix="shmnm-reference-")
        self.addCleanup(shutil.rmtree, folder)
        os.environ |= {"KZM_INSTALL_PATH": folder, "KZMUTIL_NAMESPACE": f"reference-{os.getpid()}-"}
        library = ctypes.CDLL(str(LIBRARY))
        told, reported = set(), set()
        for text, names in self.each_page():
            if "The region is not mapped in this process." in part(text, "RETURN VALUES"):
                told |= set(names)
            for name in names:
                if getattr(library, name)(*[ctypes.c_uint64(0) for _ in FUNCTIONS[name]]) == RESULTS["SHMNM_ERR_NOTINIT"]:
                    reported.add(name)
        self.assertEqual(told, reported)
        self.assertEqual(len(told), 85)

    def test_every_page_covers_locks_and_threads_and_links_to_the_overview(self):
        for text, names in self.each_page():
            with self.subTest(names[0]):
                self.assertIn("lock", part(text, "Locks and threads"))
                self.assertIn("Any thread", part(text, "Locks and threads"))
                self.assertRegex(part(text, "SEE ALSO"), r"\.Xr shmnm 3\b")
        listed = re.findall(r"^\.It Xr (\w+) 3$", self.page("shmnm"), re.M)
        self.assertEqual(sorted(listed), sorted(FUNCTIONS))


class Reference(unittest.TestCase):
    """What the header leaves out is not passed over."""

    def setUp(self):
        self.folder = pathlib.Path(tempfile.mkdtemp(prefix="shmnm-reference-"))
        self.addCleanup(shutil.rmtree, self.folder)

    def make(self, old, new):
        """Makes the pages of a header in which one text is another."""
        text = HEADER.read_text()
        self.assertEqual(text.count(old), 1, old)
        header = self.folder / HEADER.name
        header.write_text(text.replace(old, new))
        settings = (BUILD / "docs/reference/Doxyfile").read_text()
        settings = settings.replace(str(HEADER), str(header)).replace(str(BUILD / "docs/reference"), str(self.folder))
        done = run("doxygen", "-", input=settings)
        if done.returncode != 0:
            return done
        generator = PROJECT / "docs/reference/make_manual.py"
        return run(sys.executable, "-B", generator, self.folder / "xml", header, PROJECT / "examples/tutorial.c", "1.0.0", self.folder / "man3")

    def test_the_pages_describe_all_that_the_header_declares(self):
        done = self.make("SHMNM_API uint32_t shmnm_attach(void);", "SHMNM_API uint32_t shmnm_attach(void); ")
        self.assertEqual((done.returncode, done.stdout), (0, ""))
        for file in (self.folder / "man3").iterdir():
            self.assertEqual(re.sub(r"^\.Dd .*", "", file.read_text()), re.sub(r"^\.Dd .*", "", (PAGES / file.name).read_text()), file.name)
        pages = "".join(file.read_text() for file in (self.folder / "html").glob("group__*.html"))
        for name in FUNCTIONS:
            self.assertRegex(pages, rf"\b{name}\b")

    def test_a_function_without_a_comment_is_refused(self):
        done = self.make("SHMNM_API uint32_t shmnm_attach(void);", "SHMNM_API uint32_t shmnm_attach(void);\nSHMNM_API uint32_t shmnm_more(void);")
        self.assertNotEqual(done.returncode, 0)
        self.assertIn("shmnm_more", done.stdout)

    def test_an_argument_documented_under_another_name_is_refused(self):
        done = self.make("@param[in] timeout_ms  milliseconds", "@param[in] timeout  milliseconds")
        self.assertNotEqual(done.returncode, 0)
        self.assertIn("timeout", done.stdout)

    def test_an_undocumented_argument_is_refused(self):
        done = self.make("shmnm_rolock(uint32_t timeout_ms);", "shmnm_rolock(uint32_t timeout_ms, uint32_t reason);")
        self.assertNotEqual(done.returncode, 0)
        self.assertIn("reason", done.stdout)

    def test_an_output_documented_as_an_input_is_refused(self):
        done = self.make("@param[out]    buf   receives the bytes; null", "@param[in]     buf   receives the bytes; null")
        self.assertNotEqual(done.returncode, 0)
        self.assertIn("buf is in", done.stdout)


if __name__ == "__main__":
    unittest.main(argv=[sys.argv[0]] + sys.argv[3:])
