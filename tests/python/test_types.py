"""The types of the package: it is clean under mypy --strict for every Python that it supports, and so are its users.

Only the installed Python runs these tests; for the other versions mypy is what was tried.
"""

import subprocess
import sys

import pytest

import conftest

VERSIONS = ("3.9", "3.10", "3.11", "3.12", "3.13")
USER = """
import shmnm
from typing import List, Optional

def names(region: shmnm.Region) -> List[str]:
    with region.lock(timeout=5):
        return list(region.servers)

with shmnm.attach() as region:
    server: shmnm.Server = region.servers["alpha"]
    state: int = server.nodestat
    server.nodestat = shmnm.State.ALIVE
    combined: Optional[shmnm.CombinedState] = server.combstat
    for (kind, name), resource in region.hb.items():
        word: int = resource.network[0]
    region.cluster.hbinfo = shmnm.HbInfo(a=1, b=2)
    pid: shmnm.ProcessId = region.fst.pids["monitor", 0]
    snapshot: shmnm.Snapshot = region.snapshot()
for event in shmnm.watch():
    for change in event.changes:
        if change.new is not shmnm.MISSING and change.new is not None:
            number: int = change.new
"""
MISTAKES = {
    "server.nodestat = 'up'": "Incompatible types in assignment",
    "region.servers[1]": "Invalid index type",
    "region.np['ping', 'pingnp1'].network": 'has no attribute "network"',
    "server.combstat = 1": "read-only",
    "snapshot.cluster.clstat = 1": "read-only",
}


def mypy(*arguments):
    return subprocess.run(["/usr/bin/mypy", "--strict", "--no-error-summary", *arguments], capture_output=True, text=True, env={"PATH": "/usr/bin:/bin", "MYPYPATH": str(conftest.PACKAGE)})


class TestTypes:
    @pytest.mark.parametrize("version, platform", [*((version, "linux") for version in VERSIONS), ("3.11", "win32")])
    def test_the_package_is_clean(self, version, platform, tmp_path):
        done = mypy("--python-version", version, "--platform", platform, "--cache-dir", tmp_path, conftest.PACKAGE / "shmnm")
        assert (done.returncode, done.stdout) == (0, "")

    def test_a_program_is_clean_and_its_mistakes_are_found(self, tmp_path):
        program = tmp_path / "program.py"
        program.write_text(USER)
        done = mypy("--cache-dir", tmp_path / "cache", program)
        assert (done.returncode, done.stdout) == (0, "")
        for mistake, message in MISTAKES.items():
            program.write_text(f"{USER}\n{mistake}\n")
            done = mypy("--cache-dir", tmp_path / "cache", program)
            assert done.returncode == 1 and message in done.stdout, (mistake, done.stdout)

    def test_the_package_says_that_it_is_typed(self):
        assert (conftest.PACKAGE / "shmnm/py.typed").is_file()

    def test_the_versions_are_those_that_the_package_names(self):
        text = (conftest.PACKAGE / "pyproject.toml").read_text()
        assert f'requires-python = ">= {VERSIONS[0]}"' in text
        assert sys.version_info[:2] == (3, 11) or f"{sys.version_info[0]}.{sys.version_info[1]}" in VERSIONS
