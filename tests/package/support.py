"""What the tests of the packages share: commands that must succeed, a place of their own, and a region that is served.

Each test file is run natively and, with Windows programs, under wine:

    NAME_test.py PLATFORM BUILD [unittest arguments]

PLATFORM is linux or windows, BUILD is the build folder that is installed and packed.
"""
import http.client
import os
import pathlib
import re
import shutil
import subprocess
import sys
import tempfile
import unittest

PROJECT = pathlib.Path(__file__).resolve().parents[2]
TUTORIAL = PROJECT / "examples/tutorial.c"
PICTURE_EXAMPLE = PROJECT / "examples/picture.c"
sys.path.insert(0, str(PROJECT / "tests/binaries"))

PLATFORM = "linux"
BUILD = pathlib.Path()


def run(*command, **options):
    """The standard output of a command that must succeed."""
    done = subprocess.run([str(word) for word in command], stdout=subprocess.PIPE, stderr=subprocess.PIPE, timeout=120, **options)
    if done.returncode != 0:
        raise AssertionError(f"{command} ended with {done.returncode}\n{done.stdout.decode()}{done.stderr.decode()}")
    return done.stdout.decode().replace("\r\n", "\n")


def windows_path(name):
    return "Z:" + str(name).replace("/", "\\")


class Place(unittest.TestCase):
    """A folder for all tests of a class, and programs run beside an installation."""

    maxDiff = None

    @classmethod
    def setUpClass(cls):
        cls.folder = pathlib.Path(tempfile.mkdtemp(prefix="shmnm-package-"))
        cls.addClassCleanup(shutil.rmtree, cls.folder, ignore_errors=True)

    def environment(self, **more):
        """Kernel objects of this test's own, and nothing that would lead to another installation."""
        environment = {name: value for name, value in os.environ.items() if name not in ("KZM_INSTALL_PATH", "LD_LIBRARY_PATH", "NOTIFY_SOCKET")}
        environment["KZMUTIL_NAMESPACE"] = f"{self.folder.name}-{self.id().rsplit('.', 1)[1]}-"
        return environment | more

    def program(self, file):
        return [PROJECT / "scripts/wine", file] if PLATFORM == "windows" else [file]

    def serve(self, tool, environment):
        """A process that holds a region made of the example's configuration until the test ends or says so."""
        process = subprocess.Popen(
            [str(word) for word in self.program(tool)] + ["serve", "--until-eof"], stdin=subprocess.PIPE, stdout=subprocess.PIPE, stderr=subprocess.DEVNULL, env=environment
        )

        def end():
            if not process.stdin.closed:
                process.stdin.close()
            process.wait()
            process.stdout.close()

        self.addCleanup(end)
        ready = process.stdout.readline().decode()
        self.assertRegex(ready, r"^ready: .* with 4 servers, 3 hb and 2 np resources\r?\n$")
        process.end = end
        return process

    def expect_tutorial(self, tutorial, tool, environment):
        """The program does in this installation what its documentation says."""
        self.serve(tool, environment)
        output = run(*self.program(tutorial), "beta", env=environment)
        self.assertEqual(output, "alpha: 2\nbeta: 1\ngamma: 2\ndelta: 2\n")
        self.assertEqual(run(*self.program(tool), "get", "servers/beta/nodestat", env=environment), "1\n")

    def expect_picture(self, program, tool, environment):
        """The example of the reading library prints in this installation what the tool prints."""
        self.serve(tool, environment)
        output = run(*self.program(program), "all servers/*/nodestat=2", env=environment)
        self.assertEqual(output, run(*self.program(tool), "status", "--format", "json", env=environment))
        self.assertIn('"name":"gamma"', output)


def healthz(test, program, environment):
    """The status that a server answers about the region's health."""
    process = subprocess.Popen([str(word) for word in program] + ["--listen", "127.0.0.1:0"], stdin=subprocess.DEVNULL, stdout=subprocess.PIPE,
                               stderr=subprocess.DEVNULL, env=environment)
    test.addCleanup(process.stdout.close)
    test.addCleanup(process.wait)
    test.addCleanup(process.kill)
    address = re.fullmatch(r"listening on http://(.+):(\d+)/\r?\n", process.stdout.readline().decode())
    connection = http.client.HTTPConnection(address[1], int(address[2]), timeout=60)
    test.addCleanup(connection.close)
    connection.request("GET", "/healthz")
    return connection.getresponse().status


def packages(build):
    """The Debian packages of a build, by name."""
    return {file.name.partition("_")[0]: file for file in sorted((build / "package/packed").glob("*.deb"))}


def symbols(build):
    """The Debian packages of debug symbols of a build, by the names of their programs' packages."""
    return {file.name.partition("-dbgsym_")[0]: file for file in sorted((build / "package/packed").glob("*-dbgsym_*.ddeb"))}


def later(package, folder):
    """The same package as the next version, made below a folder."""
    file = folder / f"later_{package.name}"
    if file.exists():
        return file
    tree = folder / f"later {package.stem}"
    run("dpkg-deb", "--raw-extract", package, tree)
    control = tree / "DEBIAN/control"
    version = re.search(r"^Version: (.*)$", control.read_text(), re.M)[1]
    control.write_text(control.read_text().replace(version, "1.999.0-1"))
    for library in tree.glob("usr/lib/*/libkzmshmnm.so.1"):
        library.resolve().rename(library.parent / "libkzmshmnm.so.1.999.0")
        library.unlink()
        library.symlink_to("libkzmshmnm.so.1.999.0")
    run("dpkg-deb", "--root-owner-group", "--build", tree, file)
    return file


def expect_links_to_lead_somewhere(test, folder):
    """Follows each link of the documents below a folder. @return how many there are"""
    count = 0
    for document in sorted(folder.rglob("*.md")):
        text = document.read_text()
        for target in re.findall(r"\]\(([^)\s]+)\)", text):
            count += 1
            file, _, heading = target.partition("#")
            with test.subTest(document=document.name, target=target):
                linked = document.parent / file if file else document
                test.assertTrue(linked.is_file())
                if heading:
                    names = {re.sub(r"[^\w\- ]", "", line.lstrip("# ").lower()).replace(" ", "-") for line in linked.read_text().splitlines() if line.startswith("#")}
                    test.assertIn(heading, names)
    return count


def install_example_configuration(prefix):
    (prefix / "etc").mkdir()
    (prefix / "log").mkdir()
    shutil.copy(prefix / "share/doc/shmnm/examples/cluster.xml", prefix / "etc/cluster.xml")


def main():
    global PLATFORM, BUILD
    PLATFORM, BUILD = sys.argv[1], pathlib.Path(sys.argv[2]).resolve()
    unittest.main(module="__main__", argv=[sys.argv[0]] + sys.argv[3:])
