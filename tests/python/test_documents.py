"""The examples that people read do what is written beside them."""

import os
import re
import signal
import subprocess
import sys

import pytest

import conftest

BLOCK = re.compile(r"^```(\w*)\n(.*?)^```$", re.M | re.S)


@pytest.fixture
def served():
    """A region made of the example's configuration."""
    (conftest.INSTALLATION / "etc/cluster.xml").write_bytes((conftest.PROJECT / "examples/cluster.xml").read_bytes())
    process = subprocess.Popen([conftest.BIN / "shmnmctl", "serve", "--until-eof"], stdin=subprocess.PIPE, stdout=subprocess.PIPE, text=True)
    assert process.stdout.readline().startswith("ready: ")
    yield
    process.communicate(timeout=60)


def examples(document):
    """Each example of a document: code, and the output that is printed after it."""
    blocks = BLOCK.findall((conftest.PROJECT / document).read_text())
    for number, (language, code) in enumerate(blocks):
        if language == "python":
            after = blocks[number + 1] if number + 1 < len(blocks) else ("end", "")
            yield code, after[1] if after[0] == "" else ""


def run(*arguments, expect=0):
    done = subprocess.run([sys.executable, "-B", "-W", "error", *map(str, arguments)], capture_output=True, text=True, timeout=60)
    assert done.returncode == expect, done.stderr
    return done.stdout if expect == 0 else done.stderr


class TestDocuments:
    def test_the_manual_s_examples_print_what_it_shows(self, served):
        """In order, in one process; a mark stands between the outputs."""
        shown = list(examples("docs/python.md"))
        assert len(shown) >= 10
        code = "print('----')\n".join(code for code, _ in shown)
        assert run("-c", code).split("----\n") == [output for _, output in shown]

    @pytest.mark.parametrize("document", ["README.md", "bindings/python/README.md"])
    def test_other_documents_examples_run(self, served, document):
        for code, _ in examples(document):
            assert run("-c", code)

    def test_the_tutorial_marks_a_server_and_lists_all(self, served):
        program = conftest.PROJECT / "examples/python/tutorial.py"
        assert run(program, "beta") == "alpha: 2\nbeta: 1\ngamma: 2\ndelta: 2\n"
        assert run(program, "omega", expect=1) == 'unknown server "omega"\n'
        assert "usage" in run(program, expect=2)

    def test_the_tutorial_names_what_is_missing(self):
        assert "shmnmctl serve" in run(conftest.PROJECT / "examples/python/tutorial.py", "beta", expect=1)

    def test_the_watcher_tells_who_stops_and_begins_to_be_alive(self, served):
        conftest.tool("set", "servers/alpha/nodestat", 1)
        process = subprocess.Popen([sys.executable, "-B", conftest.PROJECT / "examples/python/failed_servers.py"], stdout=subprocess.PIPE, text=True)
        assert process.stdout.readline() == "alive: alpha\n"
        conftest.tool("set", "servers/beta/nodestat", 1)
        assert process.stdout.readline() == "beta is alive\n"
        conftest.tool("set", "servers/alpha/nodestat", 9)
        assert process.stdout.readline() == "alpha is not alive\n"
        process.send_signal(signal.SIGINT)
        assert process.wait(timeout=60) == 0
        process.stdout.close()

    def test_the_manual_lists_every_public_name(self):
        import shmnm

        text = (conftest.PROJECT / "docs/python.md").read_text()
        # Types that come from something else, whose attributes the manual lists.
        derived = {"Change", "Cluster", "Event", "Finding", "Fst", "HbResource", "HbResources", "InstallationPathUnknown", "Lock", "Missing",
                   "NpResource", "NpResources", "ProcessIds", "Region", "Resource", "Row", "Servers", "Simulation", "picture_version"}
        derived |= {name for name in shmnm.__all__ if name.endswith("Picture") and name not in ("Picture", "NoPicture")} | {"InterruptedChange"}
        for name in set(shmnm.__all__) - derived:
            assert re.search(rf"\b{name}\b", text), f"{name} is not in the manual"
