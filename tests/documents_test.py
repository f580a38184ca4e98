"""What the documents name exists: tests that prove a promise, files that are linked to.

    documents_test.py
"""
import pathlib
import re
import subprocess
import unittest

PROJECT = pathlib.Path(__file__).resolve().parents[1]
DOCUMENTS = [PROJECT / name for name in ("README.md", "CONTRIBUTING.md", "CHANGELOG.md")] + sorted((PROJECT / "docs").glob("*.md"))


def all_tests():
    """The names of all tests: Suite.Name of C++, method names of Python, programs and tests of the build."""
    names = set()
    for file in (PROJECT / "tests").rglob("*"):
        if file.suffix == ".cpp":
            names.add(file.name)
            text = file.read_text()
            for suite, name in re.findall(r"\bTEST(?:_F|_P)?\(\s*(\w+),\s*(\w+)\s*\)", text):
                names.add(f"{suite}.{name}")
        elif file.suffix == ".py":
            names |= set(re.findall(r"^    def (test_\w+)", file.read_text(), re.M))
        elif file.name == "CMakeLists.txt":
            text = file.read_text()
            names |= set(re.findall(r"NAME (\w+)", text)) | {f"bridge_{name}" for name in re.findall(r"^shmnm_bridge_scene\((\w+)", text, re.M)}
            names |= {f"{name}_fuzz" for name in re.findall(r"^shmnm_fuzz_test\((\w+)", text, re.M)}
    return names


def literals(file):
    """The string literals of a source, adjacent ones joined, with the text before each in its statement."""
    text = re.sub(r"//[^\n]*|#include[^\n]*", "", file.read_text())
    for found in re.finditer(r'"(?:[^"\\\n]|\\.)*"(?:\s*"(?:[^"\\\n]|\\.)*")*', text):
        joined = "".join(re.findall(r'"((?:[^"\\\n]|\\.)*)"', found[0]))
        begin = max(text.rfind(mark, 0, found.start()) for mark in ";{}")
        yield text[begin + 1 : found.start()], joined.replace('\\"', '"').replace("\\n", "")


class Documents(unittest.TestCase):
    def test_every_promise_names_tests_that_exist(self):
        tests = all_tests()
        rows = re.findall(r"^\| .* \| (`.*`) \|$", (PROJECT / "docs/guarantees.md").read_text(), re.M)
        self.assertGreater(len(rows), 10)
        for row in rows:
            for name in re.findall(r"`([^`]+)`", row):
                with self.subTest(name):
                    self.assertTrue(name in tests, "no such test")

    def test_every_message_of_the_log_is_explained(self):
        text = (PROJECT / "docs/troubleshooting.md").read_text()
        library = PROJECT / "src/windows/server/library/shmnm/src"
        lines = {literal for file in library.iterdir() for _, literal in literals(file) if re.search(r"[ %.]", literal)}
        self.assertGreater(len(lines), 35)
        for line in sorted(lines):
            with self.subTest(line):
                self.assertTrue(f"`{line}`" in text, "not in docs/troubleshooting.md")

    def test_every_error_of_the_tool_is_explained(self):
        text = (PROJECT / "docs/troubleshooting.md").read_text()
        errors = set()
        for file in (PROJECT / "tools").rglob("*.cpp"):
            for before, literal in literals(file):
                thrown = re.search(r"(?:Failure\(|^)\s*Exit::\w+,[^\"]*$|(?:Error|refuse)\(\s*ErrorKind::\w+,[^\"]*$", before)
                if thrown and " " in literal:
                    errors.add(re.sub(r"\{\}", "...", literal))
        self.assertGreater(len(errors), 25)
        for error in sorted(errors):
            # What follows a placeholder at the end, and advice that is put together, may differ.
            pieces = [piece.strip() for piece in re.split(r"\.\.\.", error) if len(piece.strip()) > 8]
            with self.subTest(error):
                for piece in pieces:
                    self.assertTrue(piece in text, f"{piece!r} is not in docs/troubleshooting.md")

    def test_the_proxy_that_is_shown_is_the_example(self):
        example = (PROJECT / "examples/haproxy/haproxy.cfg").read_text()
        self.assertIn(f"```\n{example}```\n", (PROJECT / "docs/monitoring.md").read_text())

    def test_every_defect_names_commits_of_the_history_and_a_test_of_its_mend(self):
        def git(*arguments):
            return subprocess.run(["git", *arguments], cwd=PROJECT, capture_output=True, text=True)

        text = (PROJECT / "docs/track-record.md").read_text()
        rows = re.findall(r"^\| `([0-9a-f]{7,40})` \| .* \| `([0-9a-f]{7,40})` \| (.*) \| .* \|$", text, re.M)
        self.assertGreater(len(rows), 60)
        if git("rev-parse", "--is-shallow-repository").stdout.strip() != "false":
            print("docs/track-record.md: the commits are not compared with the history, which this copy does not have whole")
            return
        for mend, since, test in rows:
            with self.subTest(mend=mend, test=test):
                for commit in (mend, since):
                    self.assertEqual(git("merge-base", "--is-ancestor", commit, "HEAD").returncode, 0, f"{commit} is not in the history")
                self.assertEqual(git("merge-base", "--is-ancestor", since, mend).returncode, 0, f"{since} is not before the mend")
                names = re.findall(r"`([^`]+)`", test)
                self.assertTrue(names or test == "-")
                for name in names[1:]:
                    suite, _, method = name.rpartition(".")
                    if "." in name:
                        definition = rf"(TEST(_[FP])?\({suite}, {method}\)|def {method}\()"
                        self.assertEqual(git("grep", "-qE", definition, mend, "--", "tests").returncode, 0, "no such test at the mend")

    def test_every_link_leads_to_a_file(self):
        links = 0
        for document in DOCUMENTS:
            for target in re.findall(r"\]\(([^)#]+)\)", document.read_text()):
                links += 1
                with self.subTest(document=document.name, target=target):
                    self.assertTrue((document.parent / target).exists())
        self.assertGreater(links, 10)


if __name__ == "__main__":
    unittest.main()
