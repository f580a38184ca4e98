"""The Debian packages: what they are made of, and their life in a root of their own: installed, used, upgraded below a running
process, purged."""
import datetime
import gzip
import os
import pathlib
import re
import shlex
import subprocess

import support
from support import PICTURE_EXAMPLE, TUTORIAL, Place, run

import interface
from binary_file import Elf

PACKAGES = ("libshmnm1", "libshmnm-dev", "shmnmctl", "shmnmweb", "shmnmbridge", "python3-shmnm", "libshmnmpicture1", "libshmnmpicture-dev")
WITH_SYMBOLS = ("libshmnm1", "shmnmctl", "shmnmweb", "shmnmbridge", "libshmnmpicture1")
UNITS = {"shmnm.service": "shmnmctl", "shmnm-keeper.service": "shmnmctl", "shmnmweb.service": "shmnmweb", "shmnmweb.socket": "shmnmweb",
         "shmnmbridge.service": "shmnmbridge"}
LIB = f"usr/lib/{os.uname().machine}-linux-gnu"


def fields(package):
    """The control fields of a package's file."""
    return dict(line.split(": ", 1) for line in run("dpkg-deb", "--field", package).splitlines() if re.match(r"\S+: ", line))


def files(package):
    """The names of what a package installs, folders left out."""
    return {line.split()[5].removeprefix("./") for line in run("dpkg-deb", "--contents", package).splitlines() if not line.startswith("d")}


def identity_of(file):
    """What a program and its symbols have in common."""
    return re.search(r"Build ID: ([0-9a-f]+)", run("readelf", "--notes", "--wide", file))[1]


class Packages(Place):
    @classmethod
    def setUpClass(cls):
        super().setUpClass()
        cls.packages = support.packages(support.BUILD)
        cls.symbols = support.symbols(support.BUILD)

    def root(self):
        """An empty system that packages can be installed into."""
        root = self.folder / self.id().rsplit(".", 1)[1]
        for folder in ("info", "updates", "triggers"):
            (root / "var/lib/dpkg" / folder).mkdir(parents=True)
        for file in ("status", "available"):
            (root / "var/lib/dpkg" / file).touch()
        return root

    def dpkg(self, root, *arguments):
        # The run times of C and C++ are the machine's own.
        run("dpkg", "--root", root, "--log", root / "var/lib/dpkg/log", "--force-depends", "--force-not-root", "--force-bad-path",
            "--force-script-chrootless", *arguments)

    def installed(self):
        root = self.root()
        self.dpkg(root, "--install", *self.packages.values())
        return root

    def installation(self, root):
        """Environment of a process of an installation in this root."""
        folder = root / "installation"
        (folder / "etc").mkdir(parents=True)
        (folder / "log").mkdir()
        (folder / "etc/cluster.xml").write_bytes((root / "usr/share/doc/shmnm/examples/cluster.xml").read_bytes())
        return self.environment(KZM_INSTALL_PATH=str(folder))

    def built(self, root, source, package):
        """A program, built with pkg-config alone against the packages in a root."""
        environment = dict(os.environ, PKG_CONFIG_LIBDIR=str(root / LIB / "pkgconfig"))
        flags = shlex.split(run("pkg-config", "--cflags", "--libs", package, env=environment))
        program = root / source.stem
        run("cc", "-std=c11", source, *flags, f"-Wl,-rpath,{root / LIB}", "-o", program)
        return program

    def tutorial(self, root):
        return self.built(root, TUTORIAL, "shmnm")

    def test_there_are_eight_packages_and_symbols_of_each_that_has_programs(self):
        self.assertEqual(set(self.packages), set(PACKAGES))
        self.assertEqual(set(self.symbols), set(WITH_SYMBOLS))

    def test_lintian_accepts_every_package(self):
        done = subprocess.run(["lintian", "--fail-on", "error,warning", *self.packages.values(), *self.symbols.values()], capture_output=True, text=True)
        self.assertEqual((done.returncode, done.stdout), (0, ""), done.stderr)

    def test_lintian_reports_a_faulty_package(self):
        folder = self.folder / "disliked"
        run("dpkg-deb", "--raw-extract", self.packages["libshmnm1"], folder)
        (folder / "usr/share/doc/libshmnm1/copyright").unlink()
        file = self.folder / "disliked.deb"
        run("dpkg-deb", "--root-owner-group", "--build", folder, file)
        done = subprocess.run(["lintian", "--fail-on", "error", file], capture_output=True, text=True)
        self.assertNotEqual(done.returncode, 0)
        self.assertIn("no-copyright-file", done.stdout)

    def test_each_package_states_its_description_and_dependencies(self):
        version = fields(self.packages["libshmnm1"])["Version"]
        for package, file in self.packages.items():
            with self.subTest(package):
                control = fields(file)
                self.assertEqual((control["Package"], control["Version"], control["Source"], control["Architecture"]), (package, version, "shmnm", "all" if package == "python3-shmnm" else "amd64"))
                self.assertIn("live picture of a failover cluster", control["Description"])
        same = f"libshmnm1 (= {version})"
        self.assertEqual(fields(self.packages["libshmnm-dev"])["Depends"], same)
        self.assertEqual(fields(self.packages["libshmnmpicture-dev"])["Depends"], f"libshmnmpicture1 (= {version})")
        for package in ("shmnmctl", "shmnmweb", "shmnmbridge", "libshmnmpicture1"):
            self.assertIn(same, fields(self.packages[package])["Depends"].split(", "))
        for package in ("shmnmweb", "shmnmbridge"):
            self.assertIn(f"shmnmctl (= {version})", fields(self.packages[package])["Depends"].split(", "))
        self.assertEqual({re.sub(r" .*", "", each) for each in fields(self.packages["shmnmbridge"])["Depends"].split(", ")},
                         {"libc6", "libgcc-s1", "libssl3", "libstdc++6", "libshmnm1", "shmnmctl"}, "nothing but what it uses")
        needed = fields(self.packages["python3-shmnm"])["Depends"]
        self.assertEqual(re.sub(r"\d+\.\d+\.\d+", "VERSION", needed), "python3 (>= 3.9), libshmnm1 (>= VERSION), libshmnmpicture1 (>= VERSION)")
        for package in ("libshmnm1", "shmnmctl", "shmnmweb", "shmnmbridge", "libshmnmpicture1"):
            self.assertIn("libc6 (>= 2.", fields(self.packages[package])["Depends"])

    def test_each_file_is_in_the_right_package(self):
        library, development, tool, web, bridge, python, reader, reader_development = (files(self.packages[package]) for package in PACKAGES)
        self.assertEqual({name for name in library if name.startswith("usr/lib/")} - {f"{LIB}/libkzmshmnm.so.1", "usr/lib/tmpfiles.d/shmnm.conf"},
                         {f"{LIB}/libkzm{name}.so" for name in ("kernel", "log", "util", "xml")} |
                         {name for name in library if re.fullmatch(rf"{LIB}/libkzmshmnm\.so\.1\.\d+\.\d+", name)})
        self.assertIn("usr/lib/tmpfiles.d/shmnm.conf", library)
        for file in ("shmnm.h", "shmnm.hpp", "kzmlog.h", "kzmutil.h", "kzmxml.h", "kzmkernel.h"):
            self.assertIn(f"usr/include/{file}", development)
        for file in ("libkzmshmnm.so", "pkgconfig/shmnm.pc", "cmake/shmnm/shmnm-config.cmake"):
            self.assertIn(f"{LIB}/{file}", development)
        for file in ("bin/shmnmctl", "share/man/man1/shmnmctl.1.gz", "share/bash-completion/completions/shmnmctl",
                     "share/zsh/vendor-completions/_shmnmctl", "share/fish/vendor_completions.d/shmnmctl.fish",
                     "share/doc/shmnm/examples/cluster.xml", "share/doc/shmnm/examples/tutorial.c", "share/doc/shmnm/examples/states.json",
                     "share/doc/shmnm/examples/prometheus/shmnm_rules.yml", "share/doc/shmnm/examples/grafana/shmnm.json", "share/doc/shmnm/examples/haproxy/haproxy.cfg",
                     "lib/systemd/system/shmnm.service", "lib/systemd/system/shmnm-keeper.service", "libexec/shmnm-keeper",
                     "share/man/man8/shmnm-keeper.8.gz", "lib/sysusers.d/shmnmctl.conf", "lib/tmpfiles.d/shmnmctl.conf"):
            self.assertIn(f"usr/{file}", tool)
        self.assertEqual({name for name in tool if not name.startswith("usr/")}, {"etc/shmnm/cluster.xml", "etc/shmnm/environment"})
        # Installing the tool installs nothing that listens.
        self.assertEqual({name for name in web if not name.startswith(("usr/share/doc/", "usr/share/lintian/"))},
                         {"usr/bin/shmnmweb", "usr/lib/systemd/system/shmnmweb.service", "usr/lib/systemd/system/shmnmweb.socket",
                          "usr/lib/sysusers.d/shmnmweb.conf", "usr/share/man/man8/shmnmweb.8.gz"})
        self.assertEqual({name for name in bridge if not name.startswith(("usr/share/doc/", "usr/share/lintian/"))},
                         {"usr/bin/shmnmbridge", "usr/lib/systemd/system/shmnmbridge.service", "usr/share/man/man8/shmnmbridge.8.gz"})
        place = "usr/lib/python3/dist-packages/"
        modules = {f"{place}shmnm/{file.name}" for file in (support.PROJECT / "bindings/python/shmnm").iterdir() if file.is_file()}
        self.assertEqual({name for name in python if name.startswith(f"{place}shmnm/")}, modules)
        self.assertEqual({re.sub(r"-\d+\.\d+\.\d+", "", name) for name in python if not name.startswith("usr/share/")} - modules,
                         {f"{place}shmnm.dist-info/{file}" for file in ("METADATA", "WHEEL", "top_level.txt")})
        documents = ("usr/share/doc/", "usr/share/lintian/")
        (reader_file,) = {name for name in reader if re.fullmatch(rf"{LIB}/libshmnmpicture\.so\.1\.\d+\.\d+", name)}
        self.assertEqual({name for name in reader if not name.startswith(documents)}, {f"{LIB}/libshmnmpicture.so.1", reader_file})
        self.assertEqual({name for name in reader_development if not name.startswith(documents)},
                         {"usr/include/shmnmpicture.h"} | {f"{LIB}/{file}" for file in (
                             "libshmnmpicture.so", "pkgconfig/shmnmpicture.pc", "cmake/shmnmpicture/shmnmpicture-config.cmake",
                             "cmake/shmnmpicture/shmnmpicture-config-version.cmake", "cmake/shmnmpicture/shmnmpicture-targets.cmake",
                             "cmake/shmnmpicture/shmnmpicture-targets-relwithdebinfo.cmake")})
        for package, names in zip(PACKAGES, (library, development, tool, web, bridge, python, reader, reader_development)):
            self.assertIn(f"usr/share/doc/{package}/copyright", names)
            self.assertIn(f"usr/share/doc/{package}/changelog.Debian.gz", names)

    def test_manual_pages_have_the_date_of_the_changelog_and_not_of_the_build(self):
        changelog = support.PROJECT / "packaging/debian/changelog"
        day = datetime.datetime.fromtimestamp(int(run("dpkg-parsechangelog", "--file", changelog, "--show-field", "Timestamp")), datetime.timezone.utc)
        for package, page, line in (("libshmnm-dev", "man3/shmnm_setholdstat.3.gz", f".Dd {day:%B} {day.day}, {day.year}"),
                                    ("shmnmctl", "man1/shmnmctl.1.gz", f'.TH SHMNMCTL 1 "{day.date()}"')):
            root = self.folder / package
            run("dpkg-deb", "--extract", self.packages[package], root)
            self.assertIn(line, gzip.decompress((root / "usr/share/man" / page).read_bytes()).decode())

    def test_each_function_has_a_manual_page_in_the_development_package(self):
        root = self.installed()
        pages = {file.name for file in (root / "usr/share/man/man3").iterdir()}
        self.assertLessEqual({f"{name}.3.gz" for name in interface.KZMSHMNM} | {"shmnm.3.gz", "shmnm_header.3.gz"}, pages)
        self.assertEqual({f"usr/share/man/man3/{page}" for page in pages},
                         {name for name in files(self.packages["libshmnm-dev"]) if name.startswith("usr/share/man/")})
        # A name that shares a page leads to it.
        page = gzip.decompress((root / "usr/share/man/man3/shmnm_setholdstat.3.gz").read_bytes()).decode()
        self.assertIn(".Dt SHMNM_SETNODESTAT 3\n", page)
        self.assertIn("\n.Nm shmnm_setholdstat\n", page)

    def test_the_library_s_package_lists_its_symbols(self):
        listed = run("dpkg-deb", "--info", self.packages["libshmnm1"], "symbols")
        part = listed[listed.index("libkzmshmnm.so.1 "):]
        self.assertEqual(set(re.findall(r"^ (shmnm_\w+)@Base", part, re.M)), interface.KZMSHMNM)
        self.assertIn("ldconfig", run("dpkg-deb", "--info", self.packages["libshmnm1"], "triggers"))
        listed = run("dpkg-deb", "--info", self.packages["libshmnmpicture1"], "symbols")
        self.assertEqual(set(re.findall(r"^ (\w+)@Base", listed, re.M)), interface.SHMNMPICTURE)
        self.assertIn("ldconfig", run("dpkg-deb", "--info", self.packages["libshmnmpicture1"], "triggers"))

    def test_an_upgrade_keeps_what_an_administrator_has_changed_in_the_configuration(self):
        root = self.installed()
        file = root / "etc/shmnm/cluster.xml"
        file.write_text(file.read_text().replace("alpha", "omega"))
        self.dpkg(root, "--force-confold", "--install", *(support.later(package, self.folder) for package in self.packages.values()))
        self.assertIn("omega", file.read_text())
        self.dpkg(root, "--remove", "shmnmctl")
        self.assertIn("omega", file.read_text())

    def test_systemd_accepts_the_units(self):
        root = self.folder / "units"
        for package in set(UNITS.values()):
            run("dpkg-deb", "--extract", self.packages[package], root)
        for unit in UNITS:
            # The programs are not on this machine.
            text = (root / "usr/lib/systemd/system" / unit).read_text()
            for program in re.findall(r"^ExecStart=(\S+)", text, re.M):
                self.assertTrue(os.access(root / program.lstrip("/"), os.X_OK), program)
            (self.folder / unit).write_text(re.sub(r"^ExecStart=", f"ExecStart={root}", text, flags=re.M))
        done = subprocess.run(["systemd-analyze", "verify", "--man=no", *(self.folder / unit for unit in UNITS)], capture_output=True, text=True)
        self.assertEqual((done.returncode, done.stdout, done.stderr), (0, "", ""))

    def test_systemd_reports_a_faulty_unit(self):
        unit = self.folder / "faulty.service"
        unit.write_text("[Service]\nExecStart=/bin/true\nProtectSystem=perhaps\n")
        done = subprocess.run(["systemd-analyze", "verify", "--man=no", unit], capture_output=True, text=True)
        self.assertIn("faulty.service:3: Failed to parse protect system value", done.stderr)

    def test_the_services_are_exposed_by_less_than_2_5(self):
        root = self.folder / "exposed"
        for unit, package in UNITS.items():
            if not unit.endswith(".service"):
                continue
            with self.subTest(unit):
                run("dpkg-deb", "--extract", self.packages[package], root)
                said = run("systemd-analyze", "security", "--offline=yes", "--no-pager", root / "usr/lib/systemd/system" / unit)
                (exposure,) = re.findall(r"Overall exposure level for \S+: ([\d.]+)", said)
                self.assertLess(float(exposure), 2.5, said)

    def test_every_link_in_the_documents_leads_to_an_installed_file(self):
        root = self.folder / "documents"
        run("dpkg-deb", "--extract", self.packages["shmnmctl"], root)
        folder = root / "usr/share/doc/shmnm"
        self.assertGreater(support.expect_links_to_lead_somewhere(self, folder), 20)
        for name in ("tutorial", "operations"):
            self.assertTrue((folder / f"docs/{name}.md").is_file())
        self.assertTrue((root / "usr/share/doc/shmnmctl/changelog.Debian.gz").is_file())

    def test_root_s_folder_of_objects_is_made_at_boot_and_at_installation(self):
        root = self.installed()
        folder, guard = root / "dev/shm/kzmkernel.0", root / "dev/shm/kzmkernel.0.guard"
        self.assertEqual((folder.stat().st_mode, folder.stat().st_uid), (0o40700, 0))
        self.assertEqual((guard.stat().st_mode, guard.stat().st_uid, guard.stat().st_size), (0o100600, 0, 0))

    def test_the_symbols_of_each_program_and_library_are_found_by_its_identity(self):
        root = self.installed()
        self.dpkg(root, "--install", *self.symbols.values())
        found = set()
        for package, file in self.symbols.items():
            control = fields(file)
            self.assertEqual((control["Package"], control["Section"], control["Depends"]),
                             (f"{package}-dbgsym", "debug", f"{package} (= {control['Version']})"))
            identities = set()
            for name in files(self.packages[package]):
                program = root / name
                if program.is_symlink() or program.read_bytes()[:4] != b"\x7fELF":
                    continue
                with self.subTest(name):
                    identity = identity_of(program)
                    symbols = root / "usr/lib/debug/.build-id" / identity[:2] / f"{identity[2:]}.debug"
                    self.assertEqual(identity_of(symbols), identity)
                    for each, has in ((program, False), (symbols, True)):
                        self.assertEqual(".debug_info" in run("readelf", "--section-headers", "--wide", each), has, each)
                    identities.add(identity)
                    found.add(program.name)
            self.assertEqual(set(control["Build-Ids"].split()), identities)
        self.assertLessEqual({"shmnmctl", "shmnm-keeper", "shmnmweb", "shmnmbridge", "libkzmkernel.so", "libkzmlog.so", "libkzmutil.so", "libkzmxml.so"}, found)

    def test_a_debugger_names_the_lines_of_a_running_process_with_the_symbols_and_not_without(self):
        root = self.installed()
        process = self.serve(root / "usr/bin/shmnmctl", self.installation(root))
        for names_lines in (False, True):
            shown = run("gdb", "--batch", "-nx", "-iex", f"set debug-file-directory {root}/usr/lib/debug", "-p", process.pid, "-ex", "thread apply all backtrace")
            self.assertEqual(bool(re.search(r" in shmnmctl::run_program \(.* at .*tools/shmnmctl/src/program\.cpp:\d+", shown)), names_lines, shown)
            self.dpkg(root, "--install", *self.symbols.values())

    def test_a_program_built_against_the_installed_packages_runs(self):
        root = self.installed()
        program = self.tutorial(root)
        self.assertIn("libkzmshmnm.so.1", Elf(program, "nm", "readelf").needed)
        self.expect_tutorial(program, root / "usr/bin/shmnmctl", self.installation(root))

    def test_a_python_program_runs_with_the_installed_packages(self):
        root = self.installed()
        environment = self.installation(root)
        # The library's own folder is the system's path of this root.
        environment |= {"PYTHONPATH": str(root / "usr/lib/python3/dist-packages"), "LD_LIBRARY_PATH": str(root / LIB)}
        program = support.PROJECT / "examples/python/tutorial.py"
        self.serve(root / "usr/bin/shmnmctl", environment)
        output = run("/usr/bin/python3", "-B", "-W", "error", program, "beta", env=environment)
        self.assertEqual(output, "alpha: 2\nbeta: 1\ngamma: 2\ndelta: 2\n")
        where = "import shmnm\nshmnm.attach().close()\nprint(shmnm.__file__, open('/proc/self/maps').read())"
        loaded = run("/usr/bin/python3", "-B", "-c", where, env=environment)
        self.assertIn(str(root / "usr/lib/python3/dist-packages/shmnm/__init__.py"), loaded)
        self.assertIn(str(root / LIB / "libkzmshmnm.so.1"), loaded)
        shown = run("/usr/bin/python3", "-B", "-W", "error", "-m", "shmnm", env=environment)
        self.assertEqual(shown.split(), run(root / "usr/bin/shmnmctl", "status", env=environment).split())

    def test_a_program_that_reads_pictures_is_built_against_the_installed_packages_and_runs(self):
        root = self.installed()
        program = self.built(root, PICTURE_EXAMPLE, "shmnmpicture")
        self.assertIn("libshmnmpicture.so.1", Elf(program, "nm", "readelf").needed)
        self.expect_picture(program, root / "usr/bin/shmnmctl", self.installation(root))

    def test_a_running_process_and_its_region_outlive_an_upgrade(self):
        root = self.installed()
        tool, program, environment = root / "usr/bin/shmnmctl", self.tutorial(root), self.installation(root)
        creator = self.serve(tool, environment)
        before = self.libraries_of(creator)
        self.assertTrue(any("libkzmshmnm.so.1." in name for name in before))
        run(tool, "set", "servers/gamma/pingstat", "77", env=environment)

        self.dpkg(root, "--install", *(support.later(package, self.folder) for package in self.packages.values()))
        self.assertTrue((root / LIB / "libkzmshmnm.so.1.999.0").is_file())
        self.assertFalse([name for name in (root / LIB).glob("libkzmshmnm.so.1.*") if not name.name.endswith("999.0")])

        # The creator goes on with the files it had, and those of the next version meet it in its region.
        self.assertEqual({name + " (deleted)" for name in before}, self.libraries_of(creator))
        self.assertEqual(run(tool, "get", "servers/gamma/pingstat", env=environment), "77\n")
        self.assertEqual(run(program, "beta", env=environment), "alpha: 2\nbeta: 1\ngamma: 2\ndelta: 2\n")
        run(tool, "verify", env=environment)
        creator.end()
        self.assertEqual(creator.returncode, 0)
        self.assertNotEqual(subprocess.run([tool, "status"], env=environment, capture_output=True).returncode, 0, "the region went with its creator")

    def libraries_of(self, process):
        maps = pathlib.Path(f"/proc/{process.pid}/maps").read_text()
        return set(re.findall(r"\S*/libkzm\w+\.so\S*(?: \(deleted\))?", maps))

    def test_a_purge_leaves_nothing_behind(self):
        def installed(root):
            # What lies on the memory disk may be in use; it goes with the machine's next start.
            passing = (root / "dev", root / "run")
            return {str(file.relative_to(root)) for file in root.rglob("*") if "var/lib/dpkg" not in str(file) and not {file, *file.parents} & set(passing)}

        root = self.root()
        before = installed(root)
        self.dpkg(root, "--install", *self.packages.values())
        self.assertTrue((root / "usr/bin/shmnmctl").is_file())
        self.dpkg(root, "--purge", *PACKAGES)
        # The user stays, so that no later user gets its number.
        users = {"etc", *(f"etc/{name}" for name in ("passwd", "group", "group-", "shadow", "gshadow", "gshadow-", ".pwd.lock"))}
        self.assertEqual(installed(root) - before, users)
        self.assertIn("\nshmnm:x:", "\n" + (root / "etc/passwd").read_text())
        self.assertIn("\nshmnm-readers:x:", "\n" + (root / "etc/group").read_text())
        self.assertEqual(run("dpkg-query", "--admindir", root / "var/lib/dpkg", "--show"), "")


if __name__ == "__main__":
    support.main()
