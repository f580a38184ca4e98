"""The Windows zip: unpacked anywhere, programs are built against it by MinGW and for Microsoft's ABI, and run. The zip of its symbols."""
import re
import shlex
import zipfile

import support
from support import PICTURE_EXAMPLE, PROJECT, TUTORIAL, Place, run, windows_path

import interface
from binary_file import Pe

CC = "x86_64-w64-mingw32-gcc-posix"
NM = "x86_64-w64-mingw32-nm"
LIBRARIES = ("kzmshmnm", "kzmutil", "kzmxml", "kzmlog", "shmnmpicture")
# What programs of Microsoft's ABI are linked to.
IMPORTED = {"kzmshmnm": interface.KZMSHMNM, "shmnmpicture": interface.SHMNMPICTURE}
FILES = """
    bin/kzmlog.dll bin/kzmshmnm.dll bin/kzmutil.dll bin/kzmxml.dll bin/shmnmctl.exe bin/shmnmweb.exe bin/shmnmbridge.exe
    include/kzmlog.h include/kzmutil.h include/kzmxml.h include/shmnm.h include/shmnm.hpp
    lib/cmake/shmnm/shmnm-config-version.cmake lib/cmake/shmnm/shmnm-config.cmake lib/cmake/shmnm/shmnm-targets.cmake
    lib/kzmshmnm.def lib/kzmshmnm.lib lib/libkzmlog.dll.a lib/libkzmshmnm.dll.a lib/libkzmutil.dll.a lib/libkzmxml.dll.a
    lib/pkgconfig/shmnm.pc
    bin/shmnmpicture.dll include/shmnmpicture.h lib/shmnmpicture.def lib/shmnmpicture.lib lib/libshmnmpicture.dll.a
    lib/cmake/shmnmpicture/shmnmpicture-config-version.cmake lib/cmake/shmnmpicture/shmnmpicture-config.cmake
    lib/cmake/shmnmpicture/shmnmpicture-targets.cmake lib/pkgconfig/shmnmpicture.pc
    share/doc/shmnm/CHANGELOG.md share/doc/shmnm/docs/abi.md share/doc/shmnm/docs/windows.md
    share/doc/shmnm/examples/cluster.xml share/doc/shmnm/examples/tutorial.c share/doc/shmnm/examples/states.json share/doc/shmnm/examples/bridge.xml
    share/doc/shmnm/examples/grafana/shmnm.json share/doc/shmnm/examples/haproxy/haproxy.cfg share/doc/shmnm/examples/prometheus/shmnm_rules.yml
    share/doc/shmnm/examples/python/tutorial.py share/doc/shmnm/examples/python/failed_servers.py
""".split()


class Zip(Place):
    @classmethod
    def setUpClass(cls):
        super().setUpClass()
        (archive,) = (support.BUILD / "package/packed").glob("shmnm-*-windows-x64.zip")
        with zipfile.ZipFile(archive) as file:
            file.extractall(cls.folder)
        (cls.folder / archive.stem).rename(cls.folder / "moved here")
        cls.prefix = cls.folder / "moved here"
        cls.binaries = sorted(file.name for file in (cls.prefix / "bin").iterdir())
        with zipfile.ZipFile(archive.with_name(f"{archive.stem}-symbols.zip")) as file:
            cls.symbols = sorted(name for name in file.namelist() if not name.endswith("/"))
            file.extractall(cls.folder / "unpacked")
        for file in (cls.folder / "unpacked" / archive.stem / "bin").iterdir():
            file.rename(cls.prefix / "bin" / file.name)
        support.install_example_configuration(cls.prefix)
        cls.tool = cls.prefix / "bin/shmnmctl.exe"

    def environment(self, **more):
        return super().environment(WINEPATH=windows_path(self.prefix / "bin"), **more)

    def build(self, *command, **options):
        """Builds the tutorial into a folder of this test's own; the command's {program} is the program's name."""
        program = self.folder / self.id().rsplit(".", 1)[1] / "tutorial.exe"
        program.parent.mkdir()
        run(*(program if word == "{program}" else word for word in command), **options)
        return program

    def test_every_file_is_at_its_expected_path(self):
        for file in FILES:
            with self.subTest(file):
                self.assertTrue((self.prefix / file).is_file())

    def test_every_link_in_the_documents_leads_to_a_file_of_the_zip(self):
        self.assertGreater(support.expect_links_to_lead_somewhere(self, self.prefix / "share/doc/shmnm"), 20)

    def test_no_file_contains_a_path_of_the_build(self):
        for file in self.prefix.rglob("*"):
            if file.suffix in (".cmake", ".pc", ".h", ".def"):
                text = file.read_bytes()
                for place in (support.BUILD, PROJECT, self.folder):
                    self.assertNotIn(bytes(place), text, file)

    def test_the_files_that_are_checked_for_versions_and_hardening_are_those_of_the_zip(self):
        self.assertEqual(self.binaries, sorted([*(f"{library}.dll" for library in LIBRARIES), *interface.PROGRAMS["windows"]]))

    def test_the_symbols_are_in_a_zip_of_their_own_that_is_unpacked_over_the_first(self):
        (folder,) = {name.split("/")[0] for name in self.symbols}
        self.assertEqual(self.symbols, [f"{folder}/bin/{name}.debug" for name in self.binaries])

    def test_each_binary_is_stripped_and_names_its_file_of_symbols(self):
        for name in self.binaries:
            with self.subTest(name):
                headers = run("x86_64-w64-mingw32-objdump", "-h", self.prefix / "bin" / name)
                self.assertNotIn(".debug_info", headers)
                self.assertIn(".gnu_debuglink", headers)
                self.assertIn(name.encode() + b".debug\0", (self.prefix / "bin" / name).read_bytes())
                self.assertIn(".debug_info", run("x86_64-w64-mingw32-objdump", "-h", self.prefix / "bin" / f"{name}.debug"))

    def test_debuggers_find_the_line_of_a_function(self):
        for name in interface.PROGRAMS["windows"]:
            with self.subTest(name):
                symbols = run(NM, "-P", self.prefix / "bin" / f"{name}.debug")
                (address,) = (line.split()[2] for line in symbols.splitlines() if line.startswith("main T "))
                line = run("x86_64-w64-mingw32-addr2line", "-fpe", self.prefix / "bin" / name, f"0x{address}")
                self.assertRegex(line, rf"^main at .*/tools/{name[:-4]}/src/main\.cpp:\d+$")

    def test_a_debugger_shows_from_a_dump_where_a_process_was(self):
        writer, dump = self.folder / "dump_writer.exe", self.folder / "serve.dmp"
        run(CC, "-municode", "-Wall", "-Wextra", "-Werror", PROJECT / "tests/package/dump_writer.c", "-o", writer, "-ldbghelp")
        environment = self.environment()
        run(*self.program(writer), windows_path(dump), f'"{windows_path(self.tool)}" serve --until-eof', env=environment)
        # The system's own files are those of wine.
        system = run(PROJECT / "scripts/wine", "winepath", "-u", r"C:\windows\system32", env=environment).strip()
        commands = (f'settings set target.exec-search-paths "{system}"', f'target create --core "{dump}" "{self.tool}"', f'target symbols add "{self.tool}.debug"', "bt all")
        shown = run("lldb-14", "--batch", *(word for command in commands for word in ("-o", command)))
        frames = {name: address for address, name in re.findall(r"frame #\d+: 0x(\w+) shmnmctl\.exe`([\w:]+)", shown)}
        self.assertIn("shmnmctl::run_program", frames, shown)
        self.assertIn("shmnmctl::session::wait_for_stop", frames, shown)
        for name, line in (("shmnmctl::run_program", r"tools/shmnmctl/src/program\.cpp:\d+"), ("shmnmctl::session::wait_for_stop", r"tools/shmnmctl/src/session_windows\.cpp:\d+")):
            # Where a call was made, not where it returns to.
            told = run("x86_64-w64-mingw32-addr2line", "-Cfpie", self.tool, hex(int(frames[name], 16) - 1))
            self.assertRegex(told, rf"{name}\b.* at .*/{line}\n")

    def test_no_binary_contains_the_time_of_its_build(self):
        for name in self.binaries:
            with self.subTest(name):
                self.assertEqual(Pe(self.prefix / "bin" / name, NM).time_stamp, 0)
                self.assertEqual(Pe(self.prefix / "bin" / f"{name}.debug", NM).time_stamp, 0)

    def test_each_binary_states_its_version(self):
        for name in self.binaries:
            with self.subTest(name):
                self.assertIsNotNone(Pe(self.prefix / "bin" / name, NM).version())

    def test_the_tool_has_the_texts_of_the_events(self):
        texts = re.findall(r"^The service .*", (PROJECT / "tools/service/messages.mc").read_text(), re.M)
        self.assertEqual(len(texts), 8)
        content = (self.prefix / "bin/shmnmctl.exe").read_bytes()
        for text in texts:
            self.assertIn(text.encode("utf-16-le"), content, text)

    def test_each_module_definition_lists_the_functions_of_its_dll(self):
        self.assertEqual(len(interface.KZMSHMNM), 91)
        for name, functions in IMPORTED.items():
            with self.subTest(name):
                lines = (self.prefix / f"lib/{name}.def").read_text().split()
                self.assertEqual(lines[:3], ["LIBRARY", f"{name}.dll", "EXPORTS"])
                self.assertEqual(lines[3:], sorted(functions))

    def test_microsoft_s_import_libraries_have_the_functions_of_their_dlls(self):
        for name, functions in IMPORTED.items():
            with self.subTest(name):
                library = self.prefix / f"lib/{name}.lib"
                members = run("llvm-readobj", "--file-headers", library)
                self.assertEqual(members.count("Format: COFF-import-file\n"), len(functions))
                names = {line.split()[-1] for line in run("llvm-nm", library).splitlines() if " T shmnm" in line}
                self.assertEqual(names, functions)

    def test_the_zip_s_shmnmweb_shows_the_region(self):
        environment = self.environment()
        self.serve(self.tool, environment)
        self.assertEqual(support.healthz(self, self.program(self.prefix / "bin/shmnmweb.exe"), environment), 200)

    def test_a_program_is_built_by_cmake_and_runs(self):
        consumer = self.folder / "by cmake"
        run(
            "cmake", "-G", "Ninja", "-S", PROJECT / "tests/package/consumer", "-B", consumer,
            f"-DCMAKE_TOOLCHAIN_FILE={PROJECT}/cmake/mingw-w64.cmake", f"-Dshmnm_DIR={self.prefix}/lib/cmake/shmnm", f"-DTUTORIAL={TUTORIAL}",
        )
        run("cmake", "--build", consumer)
        self.expect_tutorial(consumer / "tutorial.exe", self.tool, self.environment())

    def test_a_program_that_reads_pictures_is_built_by_cmake_and_runs(self):
        consumer = self.folder / "reader by cmake"
        run(
            "cmake", "-G", "Ninja", "-S", PROJECT / "tests/package/picture_consumer", "-B", consumer,
            f"-DCMAKE_TOOLCHAIN_FILE={PROJECT}/cmake/mingw-w64.cmake", f"-Dshmnmpicture_DIR={self.prefix}/lib/cmake/shmnmpicture",
            f"-DEXAMPLE={PICTURE_EXAMPLE}",
        )
        run("cmake", "--build", consumer)
        self.expect_picture(consumer / "picture.exe", self.tool, self.environment())

    def test_a_program_is_built_by_pkg_config_and_runs(self):
        environment = self.environment(PKG_CONFIG_LIBDIR=str(self.prefix / "lib/pkgconfig"))
        flags = shlex.split(run("pkg-config", "--cflags", "--libs", "shmnm >= 1.0", env=environment))
        self.expect_tutorial(self.build(CC, "-std=c11", TUTORIAL, *flags, "-o", "{program}"), self.tool, self.environment())

    def test_a_program_in_cpp_is_built_by_the_plain_compiler_and_runs(self):
        # The C++ run time is linked in, so that the program needs no DLL but the library.
        library = self.prefix / "lib/libkzmshmnm.dll.a"
        program = self.build(CC.replace("gcc", "g++"), "-std=c++17", "-static", TUTORIAL.with_suffix(".cpp"), f"-I{self.prefix}/include", library, "-o", "{program}")
        self.expect_tutorial(program, self.tool, self.environment())

    def test_a_program_is_built_by_the_plain_compiler_and_runs(self):
        program = self.build(CC, "-std=c11", TUTORIAL, f"-I{self.prefix}/include", f"-L{self.prefix}/lib", "-lkzmshmnm", "-o", "{program}")
        self.assertEqual(Pe(program, NM).imports()["kzmshmnm.dll"] - interface.KZMSHMNM, set())
        self.expect_tutorial(program, self.tool, self.environment())

    def test_a_program_of_microsoft_s_abi_is_linked_with_the_lib_and_runs(self):
        msvc = PROJECT / "tests/package/msvc"
        objects = []
        for source in (TUTORIAL, msvc / "startup.c"):
            objects.append(self.folder / f"{source.stem}.obj")
            run(
                "clang", "--target=x86_64-windows-msvc", "-std=c11", "-O1", "-Wall", "-Wextra", "-Werror", "-nostdlibinc",
                f"-I{msvc}/include", f"-I{self.prefix}/include", "-c", source, "-o", objects[-1],
            )
        runtime = self.folder / "msvcrt.lib"
        run("llvm-dlltool", "-m", "i386:x86-64", "-d", msvc / "msvcrt.def", "-l", runtime)
        program = self.folder / "tutorial_msvc.exe"
        run(
            "lld-link", "/machine:x64", "/subsystem:console", "/entry:startup", "/nodefaultlib", f"/out:{program}", *objects,
            self.prefix / "lib/kzmshmnm.lib", runtime,
        )
        self.assertEqual(set(Pe(program, NM).imports()), {"kzmshmnm.dll", "msvcrt.dll"})
        self.expect_tutorial(program, self.tool, self.environment())


if __name__ == "__main__":
    support.main()
