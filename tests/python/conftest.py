"""What the tests of the Python package share: an installation, kernel objects and programs of their own.

    SHMNM_TEST_BIN=build/linux-release/bin /usr/bin/python3 -B -m pytest -p no:cacheprovider tests/python
"""

import os
import pathlib
import shutil
import subprocess
import sys
import tempfile

import hypothesis
import pytest

PROJECT = pathlib.Path(__file__).resolve().parents[2]
BIN = pathlib.Path(os.environ["SHMNM_TEST_BIN"]).resolve()
PACKAGE = PROJECT / "bindings/python"
INSTALLATION = pathlib.Path(tempfile.mkdtemp(prefix="shmnm-python-"))

# The library reads these when it is loaded, which is at the first use of the package.
os.environ["KZM_INSTALL_PATH"] = str(INSTALLATION)
os.environ["KZMUTIL_NAMESPACE"] = f"{INSTALLATION.name}-"
os.environ["SHMNM_LIBRARY_PATH"] = str(BIN)
os.environ["PYTHONPATH"] = str(PACKAGE)
os.environ.pop("NOTIFY_SOCKET", None)
sys.path.insert(0, str(PACKAGE))

# The seed of a failure is printed; nothing is kept on the disk.
hypothesis.settings.register_profile("shmnm", deadline=None, database=None, print_blob=True)
hypothesis.settings.load_profile("shmnm")


def pytest_unconfigure():
    shutil.rmtree(INSTALLATION, ignore_errors=True)


def configure(server=4, hbr=3, npr=2, fstr=1):
    """Writes the configuration that the next region is made by."""
    counts = "".join(f"<{name}>{value}</{name}>" for name, value in locals().items())
    for folder in ("etc", "log"):
        (INSTALLATION / folder).mkdir(exist_ok=True)
    (INSTALLATION / "etc/cluster.xml").write_text(f"<root><all><num>{counts}</num></all><shmnm><log><level>4</level></log></shmnm></root>")


def tool(*arguments, expect=0):
    """The standard output of shmnmctl."""
    done = subprocess.run([BIN / "shmnmctl", *map(str, arguments)], stdin=subprocess.DEVNULL, capture_output=True, text=True, timeout=60)
    assert done.returncode == expect, done.stderr
    return done.stdout


def python(code, *arguments, **options):
    """A Python process that runs this code, with pipes to talk through."""
    return subprocess.Popen([sys.executable, "-B", "-c", code, *map(str, arguments)], stdin=subprocess.PIPE, stdout=subprocess.PIPE, text=True, **options)


@pytest.fixture(autouse=True)
def configuration():
    configure()


@pytest.fixture
def region():
    """A region that this process has created."""
    import shmnm

    with shmnm.create() as created:
        yield created


@pytest.fixture
def cluster(region):
    """A region with three servers, two hb and two np resources."""
    for pri, server in enumerate(("alpha", "beta", "gamma")):
        region.servers.add(server, pri)
    region.hb.add("lan", "lanhb1", 0)
    region.hb.add("disk", "diskhb1", 1)
    region.np.add("ping", "pingnp1", 0)
    region.np.add("majority", "majoritynp1", 1)
    return region


@pytest.fixture
def holder():
    """Another process that holds a region. It answers each line of Python with a line."""
    code = "import shmnm, sys\nwith shmnm.create() as region:\n    print('ready', flush=True)\n    while (line := sys.stdin.readline().strip()) != 'end':\n        print(eval(line), flush=True)\n"
    process = python(code)
    assert process.stdout.readline() == "ready\n"

    class Holder:
        pid = process.pid

        @staticmethod
        def told(line):
            process.stdin.write(line + "\n")
            process.stdin.flush()
            return process.stdout.readline().rstrip("\n")

        @staticmethod
        def end():
            # Not by closing the pipe: a forked child may have it, too.
            process.stdin.write("end\n")
            process.stdin.flush()
            assert process.wait(timeout=60) == 0

        @staticmethod
        def kill():
            process.kill()
            process.wait(timeout=60)

    yield Holder
    process.kill()
    process.wait()
    process.stdin.close()
    process.stdout.close()
