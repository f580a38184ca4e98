"""A second build of the same source, in another folder, zone, language and umask, makes the same packages byte for byte."""
import os
import pathlib
import re
import shutil
import subprocess

import support
from support import PROJECT, Place, run


def cached(name):
    """What this build was configured with."""
    return re.search(rf"^{name}:\w+=(.*)$", (support.BUILD / "CMakeCache.txt").read_text(), re.M)[1]


class Packages(Place):
    @classmethod
    def setUpClass(cls):
        super().setUpClass()
        source = cls.folder / "another place" / "source"
        for name in run("git", "-C", PROJECT, "ls-files", "--cached", "--others", "--exclude-standard", "-z").split("\0"):
            if name and (PROJECT / name).is_file():
                (source / name).parent.mkdir(parents=True, exist_ok=True)
                shutil.copy(PROJECT / name, source / name)
        environment = dict(os.environ, TZ="Pacific/Auckland", LC_ALL="C", LANG="C")
        environment.pop("SOURCE_DATE_EPOCH", None)
        # A cache of compiled files would answer for the second build. It also makes paths relative, and must do so here too.
        if "CCACHE_BASEDIR" in environment:
            environment.update(CCACHE_BASEDIR=str(source), CCACHE_RECACHE="1")
        build = source / "build" / support.BUILD.name

        def step(*command):
            subprocess.run(command, env=environment, umask=0o077, check=True, stdout=subprocess.DEVNULL, stderr=subprocess.STDOUT, timeout=2400)

        step("cmake", "-G", "Ninja", "-S", source, "-B", build, "-DBUILD_TESTING=OFF",
             *(f"-D{name}={cached(name)}" for name in ("CMAKE_BUILD_TYPE", "CMAKE_C_COMPILER", "CMAKE_CXX_COMPILER")))
        step("cmake", "--build", build, "--parallel", str(os.cpu_count()), "--target", "packaged")
        step("cpack", "--config", build / "CPackConfig.cmake", "-B", build / "package/packed")
        cls.first, cls.second = ({file.name: file for each in (support.packages, support.symbols) for file in each(folder).values()} for folder in (support.BUILD, build))

    def test_two_builds_are_identical_byte_for_byte(self):
        self.assertEqual(len(self.first), 8 + 5, "packages and their symbols")
        self.assertEqual([file.name for file in self.first.values()], [file.name for file in self.second.values()])
        for name, package in self.first.items():
            with self.subTest(name):
                if package.read_bytes() != self.second[name].read_bytes():
                    self.fail(self.difference(package, self.second[name]))

    def difference(self, first, second):
        """What differs, by the names of the files in the packages."""
        trees = []
        for number, package in enumerate((first, second)):
            trees.append(self.folder / f"{package.name}.{number}")
            run("dpkg-deb", "--raw-extract", package, trees[-1])
        done = subprocess.run(["diff", "--recursive", "--brief", *trees], capture_output=True, text=True)
        return done.stdout or "only times, modes or the order of files"

    def test_everything_in_a_package_has_the_time_of_the_changelog(self):
        changelog = PROJECT / "packaging/debian/changelog"
        epoch = int(run("dpkg-parsechangelog", "--file", changelog, "--show-field", "Timestamp"))
        for name, package in self.first.items():
            listed = run("dpkg-deb", "--contents", package, env=dict(os.environ, TZ="UTC"))
            times = {" ".join(line.split()[3:5]) for line in listed.splitlines()}
            self.assertEqual(times, {run("date", "--utc", f"--date=@{epoch}", "+%Y-%m-%d %H:%M").strip()}, name)


if __name__ == "__main__":
    support.main()
