"""The Python package as its users get it: a wheel that two builds make byte for byte, in a virtual environment without a network.

SHMNM_PYTHONS names more interpreters to install it into, such as "/usr/bin/python3.9 /usr/bin/python3.13".
"""
import os
import pathlib
import re
import shutil
import subprocess
import sys
import zipfile

import support
from support import PROJECT, Place, run

EXAMPLE = PROJECT / "examples/python/tutorial.py"


class Wheel(Place):
    @classmethod
    def setUpClass(cls):
        super().setUpClass()
        (cls.wheel,) = (support.BUILD / "python").glob("*.whl")

    def make(self, name, **options):
        """Another wheel, from a copy of the source in another place."""
        source = self.folder / name / "another place"
        shutil.copytree(PROJECT / "bindings/python", source)
        epoch = run("dpkg-parsechangelog", "--file", PROJECT / "packaging/debian/changelog", "--show-field", "Timestamp").strip()
        run(sys.executable, "-B", source / "make_wheel.py", self.folder / name / "made", epoch, **options)
        self.assertEqual({file.name for file in source.iterdir()}, {file.name for file in (PROJECT / "bindings/python").iterdir()}, "the build leaves files in the source")
        (wheel,) = (self.folder / name / "made").glob("*.whl")
        return wheel

    def environment_of(self, interpreter):
        """A virtual environment with nothing but the wheel. @return its Python"""
        folder = self.folder / f"environment of {pathlib.Path(interpreter).name} {len(list(self.folder.iterdir()))}"
        run(interpreter, "-m", "venv", folder)
        python = folder / "bin/python"
        clean = self.environment(PIP_CONFIG_FILE=os.devnull, PIP_DISABLE_PIP_VERSION_CHECK="1")
        for name in [name for name in clean if name.startswith("PIP_") and name not in ("PIP_CONFIG_FILE", "PIP_DISABLE_PIP_VERSION_CHECK")]:
            del clean[name]
        run(python, "-m", "pip", "install", "--no-index", "--no-cache-dir", self.wheel, env=clean)
        return python

    def test_two_builds_are_identical_byte_for_byte(self):
        other = self.make("second", umask=0o077, env=dict(os.environ, TZ="Pacific/Auckland", LC_ALL="C", PYTHONHASHSEED="7"))
        self.assertEqual(other.name, self.wheel.name)
        self.assertEqual(other.read_bytes(), self.wheel.read_bytes())

    def test_another_time_makes_another_wheel(self):
        """The comparison of two builds could not see a difference otherwise."""
        source = PROJECT / "bindings/python"
        run(sys.executable, "-B", source / "make_wheel.py", self.folder / "later", "1700000000")
        (wheel,) = (self.folder / "later").glob("*.whl")
        self.assertNotEqual(wheel.read_bytes(), self.wheel.read_bytes())

    def test_it_is_for_every_python_and_platform_and_needs_nothing(self):
        self.assertRegex(self.wheel.name, r"^shmnm-\d+\.\d+\.\d+-py3-none-any\.whl$")
        with zipfile.ZipFile(self.wheel) as archive:
            names = set(archive.namelist())
            metadata = archive.read(next(name for name in names if name.endswith("/METADATA"))).decode()
        self.assertNotIn("Requires-Dist", metadata)
        self.assertIn("Requires-Python: >= 3.9\n", metadata.replace(">=3.9", ">= 3.9"))
        source = PROJECT / "bindings/python/shmnm"
        self.assertEqual({name for name in names if ".dist-info/" not in name}, {f"shmnm/{file.name}" for file in source.iterdir() if file.is_file()})
        self.assertIn("shmnm/py.typed", names)

    def test_pip_installs_it_alone_and_it_reads_and_changes_the_picture(self):
        for interpreter in (sys.executable, *os.environ.get("SHMNM_PYTHONS", "").split()):
            with self.subTest(interpreter):
                python = self.environment_of(interpreter)
                listed = run(python, "-m", "pip", "list", "--format", "freeze")
                self.assertEqual({line.split("==")[0] for line in listed.splitlines()} - {"pip", "setuptools", "wheel"}, {"shmnm"})
                environment = self.environment(SHMNM_LIBRARY_PATH=str(support.BUILD / "bin"), KZM_INSTALL_PATH=str(support.BUILD / "examples"))
                server = self.serve(support.BUILD / "bin/shmnmctl", environment)
                output = run(python, "-W", "error", EXAMPLE, "beta", env=environment)
                self.assertEqual(output, "alpha: 2\nbeta: 1\ngamma: 2\ndelta: 2\n")
                shown = run(python, "-W", "error", "-m", "shmnm", env=environment)
                self.assertEqual(shown.split(), run(support.BUILD / "bin/shmnmctl", "status", env=environment).split())
                server.end()

    def test_a_missing_library_is_named(self):
        python = self.environment_of(sys.executable)
        done = subprocess.run([python, "-m", "shmnm"], env=self.environment(SHMNM_LIBRARY_PATH=str(self.folder)), capture_output=True, text=True)
        self.assertEqual(done.returncode, 5)
        self.assertTrue(re.match(r"shmnm: cannot load libshmnmpicture\.so\.1; install it or set SHMNM_LIBRARY_PATH", done.stderr), done.stderr)


if __name__ == "__main__":
    support.main()
