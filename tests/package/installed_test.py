"""The tree that `cmake --install` lays down works wherever it is moved, and programs are built against it in one line."""
import os
import pathlib
import shlex
import shutil
import subprocess

import support
from support import PICTURE_EXAMPLE, PROJECT, TUTORIAL, Place, run

from binary_file import Elf

FILES = """
    bin/shmnmctl bin/shmnmweb bin/shmnmbridge libexec/shmnm-keeper
    include/kzmkernel.h include/kzmlog.h include/kzmutil.h include/kzmxml.h include/shmnm.h include/shmnm.hpp
    lib/cmake/shmnm/shmnm-config-version.cmake lib/cmake/shmnm/shmnm-config.cmake lib/cmake/shmnm/shmnm-targets.cmake
    lib/libkzmkernel.so lib/libkzmlog.so lib/libkzmshmnm.so lib/libkzmshmnm.so.1 lib/libkzmutil.so lib/libkzmxml.so
    lib/pkgconfig/shmnm.pc
    include/shmnmpicture.h lib/libshmnmpicture.so lib/libshmnmpicture.so.1 lib/pkgconfig/shmnmpicture.pc
    lib/cmake/shmnmpicture/shmnmpicture-config-version.cmake lib/cmake/shmnmpicture/shmnmpicture-config.cmake
    lib/cmake/shmnmpicture/shmnmpicture-targets.cmake
    share/bash-completion/completions/shmnmctl share/zsh/vendor-completions/_shmnmctl share/fish/vendor_completions.d/shmnmctl.fish
    share/doc/shmnm/CHANGELOG.md share/doc/shmnm/docs/abi.md share/doc/shmnm/docs/operations.md
    share/doc/shmnm/examples/cluster.xml share/doc/shmnm/examples/tutorial.c share/doc/shmnm/examples/tutorial.cpp
    share/doc/shmnm/examples/picture.c
    share/doc/shmnm/examples/shmnm.service share/doc/shmnm/examples/shmnm-keeper.service
    share/doc/shmnm/examples/shmnmweb.service share/doc/shmnm/examples/shmnmweb.socket share/doc/shmnm/examples/states.json
    share/doc/shmnm/examples/shmnmbridge.service share/doc/shmnm/examples/bridge.xml share/man/man8/shmnmbridge.8
    share/doc/shmnm/examples/grafana/shmnm.json share/doc/shmnm/examples/haproxy/haproxy.cfg share/doc/shmnm/examples/prometheus/prometheus.yml
    share/doc/shmnm/examples/prometheus/shmnm_rules.yml share/doc/shmnm/examples/prometheus/shmnm_rules_test.yml
    share/doc/shmnm/examples/python/tutorial.py share/doc/shmnm/examples/python/failed_servers.py
    share/man/man1/shmnmctl.1 share/man/man8/shmnm-keeper.8 share/man/man8/shmnmweb.8 share/man/man3/shmnm.3 share/man/man3/shmnm_create.3 share/man/man3/shmnm_setholdstat.3
""".split()


class MovedTree(Place):
    @classmethod
    def setUpClass(cls):
        super().setUpClass()
        cls.first = cls.folder / "first place"
        cls.prefix = cls.folder / "moved here"
        run("cmake", "--install", support.BUILD, "--prefix", cls.first)
        cls.first.rename(cls.prefix)
        support.install_example_configuration(cls.prefix)
        cls.tool = cls.prefix / "bin/shmnmctl"
        cls.lib = cls.prefix / "lib"

    def build(self, *command, **options):
        """Builds the tutorial into a folder of this test's own; the command's {program} is the program's name."""
        program = self.folder / self.id().rsplit(".", 1)[1] / "tutorial"
        program.parent.mkdir()
        run(*(program if word == "{program}" else word for word in command), **options)
        return program

    def test_every_file_is_at_its_expected_path(self):
        for file in FILES:
            with self.subTest(file):
                self.assertTrue((self.prefix / file).is_file())
        known = {str(pathlib.PurePath(file).parent) for file in FILES} | {"etc", "log", "share/doc/shmnm/docs"}
        folders = {str(file.relative_to(self.prefix).parent) for file in self.prefix.rglob("*") if file.is_file()}
        self.assertLessEqual(folders, known, "a file where nobody expects it")
        for name in ("libkzmshmnm", "libshmnmpicture"):
            self.assertEqual(os.readlink(self.lib / f"{name}.so"), f"{name}.so.1")
            self.assertRegex(os.readlink(self.lib / f"{name}.so.1"), rf"^{name}\.so\.1\.\d+\.\d+$")

    def test_every_link_in_the_documents_leads_to_an_installed_file(self):
        self.assertGreater(support.expect_links_to_lead_somewhere(self, self.prefix / "share/doc/shmnm"), 20)

    def test_no_file_contains_a_path_of_the_build(self):
        for file in self.prefix.rglob("*"):
            if file.suffix in (".cmake", ".pc", ".h", ".service", ".socket", ".1", ".3", ".8") and not file.is_symlink():
                text = file.read_bytes()
                for place in (support.BUILD, PROJECT, self.folder):
                    self.assertNotIn(bytes(place), text, file)

    def test_each_binary_finds_its_libraries_relative_to_itself(self):
        binaries = [self.tool, self.prefix / "bin/shmnmweb", self.prefix / "bin/shmnmbridge", self.prefix / "libexec/shmnm-keeper", *(file for file in self.lib.glob("*.so*") if not file.is_symlink())]
        self.assertEqual(len(binaries), 10)
        for file in binaries:
            with self.subTest(file.name):
                run_path = Elf(file, "nm", "readelf").run_path
                self.assertEqual(len(run_path), 1)
                for folder in run_path[0].split(":"):
                    self.assertRegex(folder, r"^\$ORIGIN(/|$)")

    def test_a_program_is_built_by_cmake_and_runs(self):
        consumer = self.folder / "by cmake"
        run("cmake", "-G", "Ninja", "-S", PROJECT / "tests/package/consumer", "-B", consumer, f"-DCMAKE_PREFIX_PATH={self.prefix}", f"-DTUTORIAL={TUTORIAL}")
        run("cmake", "--build", consumer)
        self.expect_tutorial(consumer / "tutorial", self.tool, self.environment())

    def test_cmake_refuses_another_major_version(self):
        project = self.folder / "future"
        project.mkdir()
        (project / "CMakeLists.txt").write_text("cmake_minimum_required(VERSION 3.25)\nproject(future NONE)\nfind_package(shmnm 2 CONFIG REQUIRED)\n")
        done = subprocess.run(
            ["cmake", "-G", "Ninja", "-S", project, "-B", project / "build", f"-DCMAKE_PREFIX_PATH={self.prefix}"], capture_output=True, text=True
        )
        self.assertNotEqual(done.returncode, 0)
        self.assertIn("shmnm-config.cmake, version: 1.", done.stderr)

    def test_a_program_is_built_by_pkg_config_and_runs(self):
        environment = self.environment(PKG_CONFIG_PATH=str(self.lib / "pkgconfig"))
        flags = shlex.split(run("pkg-config", "--cflags", "--libs", "shmnm >= 1.0", env=environment))
        libdir = run("pkg-config", "--variable=libdir", "shmnm", env=environment).strip().replace("\\ ", " ")
        program = self.build("cc", "-std=c11", TUTORIAL, *flags, f"-Wl,-rpath,{libdir}", "-o", "{program}")
        self.expect_tutorial(program, self.tool, self.environment())

    def test_a_program_in_cpp_is_built_by_pkg_config_and_runs(self):
        environment = self.environment(PKG_CONFIG_PATH=str(self.lib / "pkgconfig"))
        flags = shlex.split(run("pkg-config", "--cflags", "--libs", "shmnm >= 1.0", env=environment))
        program = self.build("c++", "-std=c++17", TUTORIAL.with_suffix(".cpp"), *flags, f"-Wl,-rpath,{self.lib}", "-o", "{program}")
        self.expect_tutorial(program, self.tool, self.environment())

    def test_a_program_is_built_by_the_plain_compiler_and_runs(self):
        program = self.build(
            "cc", "-std=c11", TUTORIAL, f"-I{self.prefix}/include", f"-L{self.lib}", f"-Wl,-rpath,{self.lib}", "-lkzmshmnm", "-o", "{program}"
        )
        self.assertIn("libkzmshmnm.so.1", Elf(program, "nm", "readelf").needed)
        self.expect_tutorial(program, self.tool, self.environment())

    def test_a_program_that_reads_pictures_is_built_by_cmake_and_runs(self):
        consumer = self.folder / "reader by cmake"
        run("cmake", "-G", "Ninja", "-S", PROJECT / "tests/package/picture_consumer", "-B", consumer, f"-DCMAKE_PREFIX_PATH={self.prefix}",
            f"-DEXAMPLE={PICTURE_EXAMPLE}")
        run("cmake", "--build", consumer)
        self.expect_picture(consumer / "picture", self.tool, self.environment())

    def test_a_program_that_reads_pictures_is_built_by_pkg_config_and_runs(self):
        environment = self.environment(PKG_CONFIG_PATH=str(self.lib / "pkgconfig"))
        flags = shlex.split(run("pkg-config", "--cflags", "--libs", "shmnmpicture >= 1.0", env=environment))
        program = self.build("cc", "-std=c11", PICTURE_EXAMPLE, *flags, f"-Wl,-rpath,{self.lib}", "-o", "{program}")
        self.assertIn("libshmnmpicture.so.1", Elf(program, "nm", "readelf").needed)
        self.expect_picture(program, self.tool, self.environment())

    def test_the_tree_s_shmnmweb_shows_the_region(self):
        environment = self.environment()
        self.serve(self.tool, environment)
        self.assertEqual(support.healthz(self, [self.prefix / "bin/shmnmweb"], environment), 200)

    def test_a_companion_is_replaced_by_replacing_its_file(self):
        swapped = self.folder / "swapped"
        shutil.copytree(self.prefix, swapped, symlinks=True)
        source = PROJECT / "tests/package/consumer/kzmlog_of_an_installation.c"
        companion = swapped / "lib/libkzmlog.so"
        companion.unlink()
        run("cc", "-std=c11", "-shared", "-fPIC", f"-I{swapped}/include", source, "-o", companion)
        program = self.build(
            "cc", "-std=c11", TUTORIAL, f"-I{swapped}/include", f"-L{swapped}/lib", f"-Wl,-rpath,{swapped}/lib", "-lkzmshmnm", "-o", "{program}"
        )
        environment = self.environment()
        self.serve(swapped / "bin/shmnmctl", environment)
        done = subprocess.run([program, "beta"], env=environment, capture_output=True, text=True)
        self.assertEqual(done.returncode, 0)
        self.assertIn("opened shmnm oru_kzmshmnm_log\n", done.stderr)
        self.assertIn("\n_setnodestat: <<< ENTER >>>\n", done.stderr)


if __name__ == "__main__":
    support.main()
