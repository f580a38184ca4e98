"""The Windows installer, under wine in a prefix of its own: install, upgrade, repair, remove, with and without a process that
uses the files."""
import json
import os
import pathlib
import re
import shutil
import struct
import subprocess
import sys

import support
from support import PROJECT, Place, run, windows_path

from binary_file import Pe

NM = "x86_64-w64-mingw32-nm"
WINE = PROJECT / "scripts/wine"
LATER = "1.99.0"
COMPONENTS = ("runtime", "tool", "web", "bridge", "development")
WITH_SERVICE = "ADDLOCAL=Cluster,Web,Bridge,Service"
SERVICES = r"HKLM\SYSTEM\CurrentControlSet\Services"
# The installer's results. The status of a Unix process has only their lowest byte.
DONE, RESTART_NEEDED, FAILED = 0, 3010 % 256, 1603 % 256
# Of an action; Windows ends with 1603 then.
FAILED_HALFWAY = 1627 % 256
RUN_INSTALLED_DEFERRED = 18 + 1024 + 2048
AFTER_THE_SERVICE_IS_STOPPED, AFTER_THE_SERVICE_IS_INSTALLED = 1945, 5900
MINE = b"\n<!-- edited by the administrator -->\n"


def version():
    """The project's."""
    (cached,) = (line for line in (support.BUILD / "CMakeCache.txt").read_text().splitlines() if line.startswith("CMAKE_PROJECT_VERSION:"))
    return cached.partition("=")[2]


def make_later(file, now):
    """Makes a DLL or program one of the later version: in its version resource, nowhere else."""
    content = file.read_bytes()
    at = content.index(struct.pack("<I", 0xFEEF04BD))
    high = struct.pack("<HH", 99, 1)
    content = content[:at + 8] + high + content[at + 12:at + 16] + high + content[at + 20:]
    old, new = (text.encode("utf-16-le") for text in (now, LATER))
    file.write_bytes(content.replace(old + b"\0" * (len(new) - len(old) + 2), new + b"\0\0"))


def files(folder):
    return {file.relative_to(folder).as_posix(): file.read_bytes() for file in folder.rglob("*") if file.is_file()}


class Installer(Place):
    @classmethod
    def setUpClass(cls):
        super().setUpClass()
        cls.now = version()
        (cls.msi,) = (support.BUILD / "package/packed").glob("*.msi")
        cls.stage = cls.folder / "stage"
        for component in COMPONENTS:
            run("cmake", "--install", support.BUILD, "--component", component, "--prefix", cls.stage / component / "tree")
        cls.first = {name: content for component in ("runtime", "tool", "web", "bridge") for name, content in files(cls.stage / component / "tree").items()}
        cls.development = files(cls.stage / "development/tree")
        cls.example = cls.first["share/doc/shmnm/examples/cluster.xml"]

        later = cls.folder / "later"
        shutil.copytree(cls.stage, later)
        for file in [*later.glob("*/tree/bin/*.dll"), *later.glob("*/tree/bin/*.exe")]:
            make_later(file, cls.now)
        documents = later / "tool/tree/share/doc/shmnm"
        (documents / "docs/abi.md").rename(documents / "docs/of_the_later_version.md")
        (documents / "CHANGELOG.md").write_text("the later version's\n")
        (documents / "examples/cluster.xml").write_text("<root/>\n")
        cls.second = {name: content for component in ("runtime", "tool", "web", "bridge") for name, content in files(later / component / "tree").items()}
        cls.later_msi = cls.make(later, LATER, "later.msi")

        cls.prefix = cls.folder / "wine"
        cls.installed = cls.prefix / "drive_c/Program Files/shmnm"
        cls.tool = cls.installed / "bin/shmnmctl.exe"
        cls.addClassCleanup(cls.end_wine)

    @classmethod
    def make(cls, stage, of_version, name):
        file = cls.folder / name
        run(sys.executable, "-B", PROJECT / "packaging/windows/make_msi.py", stage, of_version, file, env=dict(os.environ, SOURCE_DATE_EPOCH="1700000000"))
        return file

    @classmethod
    def end_wine(cls):
        """Ends everything that runs in the prefix, as a restart of the machine does."""
        environment = dict(os.environ, WINEPREFIX=str(cls.prefix))
        for option in ("-k", "-w"):
            subprocess.run(["/usr/lib/wine/wineserver64", option], env=environment, stderr=subprocess.DEVNULL)

    def environment(self, **more):
        return super().environment(SHMNM_WINEPREFIX=str(self.prefix), **more)

    def setUp(self):
        self.present = None
        # In reverse: what a test has started ends before all of these.
        self.addCleanup(shutil.rmtree, self.installed, ignore_errors=True)
        self.addCleanup(lambda: self.present and self.msiexec("/x", self.present))
        self.addCleanup(self.remove_services)

    def remove_services(self):
        """The next test would take a service that is still there for its own."""
        for service in ("shmnm", "shmnmweb"):
            # Not the installed tool, which may be gone already.
            run(WINE, support.BUILD / "bin/shmnmctl.exe", "service", "remove", "--name", service, env=self.environment())
        self.assertEqual(self.registered("shmnm", "shmnmweb"), [])

    def wine(self, *words):
        done = subprocess.run([WINE, *words], env=self.environment(), stdin=subprocess.DEVNULL, stdout=subprocess.PIPE, stderr=subprocess.DEVNULL, timeout=300)
        return done.stdout.decode(errors="replace").replace("\r\n", "\n")

    def msiexec(self, action, msi, *properties):
        """The result of the installer."""
        # Not into a pipe: processes that the installer starts would keep it open.
        result = subprocess.call([WINE, "msiexec", action, windows_path(msi), *properties, "/qn"], env=self.environment(), stdin=subprocess.DEVNULL,
                                 stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL, timeout=300)
        if result in (DONE, RESTART_NEEDED):
            self.present = msi if action == "/i" else None
        return result

    def path_of_the_machine(self):
        text = self.wine("reg", "query", r"HKLM\System\CurrentControlSet\Control\Session Manager\Environment", "/v", "PATH")
        return [folder.rstrip("\\") for folder in text.split("REG_EXPAND_SZ")[1].strip().split(";")]

    def products(self):
        """The versions of this product that Windows lists."""
        text = self.wine("reg", "query", r"HKLM\Software\Microsoft\Windows\CurrentVersion\Uninstall", "/s")
        return [line.split()[-1] for line in text.splitlines() if "DisplayVersion" in line]

    def install_and_edit(self, msi=None):
        self.assertEqual(self.msiexec("/i", msi or self.msi), DONE)
        with (self.installed / "etc/cluster.xml").open("ab") as file:
            file.write(MINE)

    def expect_installed(self, expected, configuration, folder=None):
        found = files(folder or self.installed)
        found = {name: content for name, content in found.items() if not name.startswith("log/")}
        self.assertEqual(found.pop("etc/cluster.xml"), configuration)
        self.assertEqual(sorted(found), sorted(expected))
        self.assertEqual([name for name in found if found[name] != expected[name]], [])

    def test_an_installation_is_complete_in_the_path_and_listed(self):
        self.assertEqual(self.msiexec("/i", self.msi), DONE)
        self.expect_installed(self.first, self.example)
        self.assertTrue((self.installed / "log").is_dir())
        self.assertIn(r"C:\Program Files\shmnm\bin", self.path_of_the_machine())
        self.assertEqual(self.wine(self.tool, "--version"), f"shmnmctl {self.now}\n")
        self.assertEqual(self.products(), [self.now])

    def test_the_installed_programs_share_a_region(self):
        self.assertEqual(self.msiexec("/i", self.msi), DONE)
        environment = self.environment()
        self.serve(self.tool, environment)
        self.assertEqual(run(WINE, self.tool, "get", "servers/beta/nodestat", env=environment), "2\n")
        self.assertEqual(support.healthz(self, [WINE, self.installed / "bin/shmnmweb.exe"], environment), 200)
        self.assertTrue((self.installed / "log/shmnm.log").is_file())

    def test_what_programs_are_built_with_is_installed_if_it_is_asked_for(self):
        self.assertEqual(self.msiexec("/i", self.msi, "ADDLOCAL=ALL"), DONE)
        self.expect_installed(self.first | self.development, self.example)

    def test_the_cluster_s_files_are_installed_even_if_other_features_are_asked_for(self):
        self.assertEqual(self.msiexec("/i", self.msi, "ADDLOCAL=Service"), DONE)
        self.expect_installed({name: content for name, content in self.first.items() if name not in ("bin/shmnmweb.exe", "bin/shmnmbridge.exe")}, self.example)
        self.assertEqual(self.service("status")["state"], "stopped")

    def test_an_upgrade_replaces_everything_but_an_edited_configuration(self):
        self.install_and_edit()
        self.assertEqual(self.msiexec("/i", self.later_msi), DONE)
        self.expect_installed(self.second, self.example + MINE)
        self.assertEqual(Pe(self.tool, NM).version()[0], (1, 99, 0, 0))
        self.assertEqual(self.products(), [LATER])
        self.assertEqual(self.path_of_the_machine().count(r"C:\Program Files\shmnm\bin"), 1)

    def test_an_upgrade_leaves_an_attached_process_and_its_region_alone(self):
        self.install_and_edit()
        environment = self.environment()
        process = self.serve(self.tool, environment)
        run(WINE, self.tool, "set", "servers/beta/holdstat", "1", env=environment)
        self.assertIn(self.msiexec("/i", self.later_msi), (DONE, RESTART_NEEDED))
        self.assertIsNone(process.poll())
        self.assertEqual(run(WINE, self.tool, "get", "servers/beta/holdstat", env=environment), "1\n")
        self.assertEqual(run(WINE, self.tool, "verify", env=environment), "")
        process.end()
        self.end_wine()
        self.wine("cmd", "/c", "exit")
        self.expect_installed(self.second, self.example + MINE)

    def test_an_upgrade_stays_in_the_folder_that_was_chosen(self):
        chosen = self.prefix / "drive_c/cluster tools/картина"
        self.assertEqual(self.msiexec("/i", self.msi, r"INSTALLDIR=C:\cluster tools\картина"), DONE)
        self.expect_installed(self.first, self.example, chosen)
        self.assertEqual(self.msiexec("/i", self.later_msi), DONE)
        self.expect_installed(self.second, self.example, chosen)
        self.assertFalse(self.installed.exists())
        self.assertEqual(self.msiexec("/x", self.later_msi), DONE)
        self.assertEqual(list(files(chosen)), ["etc/cluster.xml"])

    def test_a_repair_puts_back_what_was_lost_or_changed_but_not_an_edited_configuration(self):
        self.install_and_edit()
        (self.installed / "bin/kzmxml.dll").unlink()
        (self.installed / "bin/kzmlog.dll").write_bytes(b"damaged")
        (self.installed / "share/doc/shmnm/CHANGELOG.md").write_text("changed")
        self.assertEqual(self.msiexec("/i", self.msi, "REINSTALL=ALL", "REINSTALLMODE=amus"), DONE)
        self.expect_installed(self.first, self.example + MINE)
        (self.installed / "etc/cluster.xml").unlink()
        self.assertEqual(self.msiexec("/i", self.msi, "REINSTALL=ALL", "REINSTALLMODE=amus"), DONE)
        self.expect_installed(self.first, self.example)

    def test_a_removal_leaves_the_configuration_and_nothing_else(self):
        before = self.path_of_the_machine()
        self.install_and_edit()
        process = self.serve(self.tool, self.environment())
        process.end()
        self.assertTrue((self.installed / "log/shmnm.log").is_file())
        added = b"KZMUTIL_READERS=Users\n"
        (self.installed / "etc/environment").write_bytes(added)
        self.assertEqual(self.msiexec("/x", self.msi), DONE)
        self.assertEqual(files(self.installed), {"etc/cluster.xml": self.example + MINE, "etc/environment": added})
        self.assertEqual([entry.name for entry in self.installed.iterdir()], ["etc"])
        self.assertEqual([folder for folder in self.path_of_the_machine() if folder], [folder for folder in before if folder])
        self.assertEqual(self.products(), [])
        self.assertNotIn("InstallDir", self.wine("reg", "query", r"HKLM\Software\shmnm"))
        self.assertEqual(self.msiexec("/i", self.msi), DONE)
        self.expect_installed(self.first | {"etc/environment": added}, self.example + MINE)

    def test_a_removal_leaves_an_attached_process_and_its_files_alone(self):
        self.install_and_edit()
        environment = self.environment()
        process = self.serve(self.tool, environment)
        self.assertIn(self.msiexec("/x", self.msi), (DONE, RESTART_NEEDED))
        self.assertIsNone(process.poll())
        self.assertEqual(run(WINE, self.tool, "get", "servers/beta/nodestat", env=environment), "2\n")
        process.end()
        in_use = {"bin/shmnmctl.exe", "bin/kzmshmnm.dll", "bin/kzmutil.dll", "bin/kzmxml.dll", "bin/kzmlog.dll"}
        left = {name for name in files(self.installed) if not name.startswith("log/")}
        self.assertLessEqual(left, in_use | {"etc/cluster.xml"})
        self.assertEqual((self.installed / "etc/cluster.xml").read_bytes(), self.example + MINE)
        self.assertEqual(self.products(), [])

    def service(self, *words):
        """What `shmnmctl service` says."""
        return json.loads(self.wine(self.tool, "--format", "json", "service", *words))

    def registered(self, *services):
        """All that the registry has about services and their events."""
        keys = [rf"{SERVICES}\{place}{name}" for name in services for place in ("", "EventLog\\Application\\")]
        return [text for text in (self.wine("reg", "query", key, "/s") for key in keys) if "Unable to find the specified registry key" not in text]

    def test_the_service_is_the_one_that_shmnmctl_installs(self):
        self.assertEqual(self.msiexec("/i", self.msi, WITH_SERVICE), DONE)
        self.expect_installed(self.first, self.example)
        state = self.service("status")
        self.assertEqual((state["installed"], state["state"], state["account"], state["start"]), (True, "stopped", "LocalSystem", "automatic"))
        self.assertEqual(state["command_line"], r'"C:\Program Files\shmnm\bin\shmnmctl.exe" serve --service')
        self.assertFalse(self.service("status", "--web")["installed"])
        made = self.registered("shmnm")
        self.assertIn("EventMessageFile", made[1])
        self.service("remove")
        self.service("install")
        self.assertEqual(self.registered("shmnm"), made)

    def test_the_installed_service_starts_and_goes_with_a_removal(self):
        self.assertEqual(self.msiexec("/i", self.msi, WITH_SERVICE), DONE)
        environment = self.environment()
        self.assertEqual(self.service("start")["state"], "running")
        self.assertEqual(run(WINE, self.tool, "get", "servers/beta/nodestat", env=environment), "2\n")
        self.service("install", "--web", "--", "--listen", "127.0.0.1:0")
        self.assertEqual(self.service("start", "--web")["state"], "running")
        self.assertEqual(self.msiexec("/x", self.msi), DONE)
        self.assertEqual(files(self.installed), {"etc/cluster.xml": self.example})
        self.assertEqual(self.registered("shmnm", "shmnmweb"), [])

    def test_a_service_that_was_not_asked_for_is_not_installed(self):
        self.assertEqual(self.msiexec("/i", self.msi), DONE)
        self.assertEqual(self.registered("shmnm", "shmnmweb"), [])

    def test_the_service_is_added_and_taken_out_later(self):
        self.assertEqual(self.msiexec("/i", self.msi), DONE)
        self.assertEqual(self.msiexec("/i", self.msi, "ADDLOCAL=Service"), DONE)
        self.service("start")
        self.assertEqual(self.msiexec("/i", self.msi, "ADDLOCAL=Development"), DONE)
        self.assertEqual(self.service("status")["state"], "running")
        self.assertEqual(self.msiexec("/i", self.msi, "REMOVE=Service"), DONE)
        self.assertEqual(self.registered("shmnm"), [])
        self.expect_installed(self.first | self.development, self.example)

    def test_an_upgrade_and_a_repair_restart_the_service_and_keep_its_settings(self):
        self.assertEqual(self.msiexec("/i", self.msi, WITH_SERVICE), DONE)
        self.service("install", "--", "--register")
        before = self.service("start")
        made = self.registered("shmnm")
        # No other process uses the files, so they are all replaced at once.
        self.assertEqual(self.msiexec("/i", self.later_msi, WITH_SERVICE), DONE)
        self.expect_installed(self.second, self.example)
        after = self.service("status")
        self.assertEqual((after["state"], after["command_line"]), ("running", before["command_line"]))
        self.assertNotEqual(after["process"], before["process"])
        self.assertEqual(self.registered("shmnm"), made)
        (self.installed / "bin/kzmlog.dll").write_bytes(b"damaged")
        self.assertEqual(self.msiexec("/i", self.later_msi, "REINSTALL=ALL", "REINSTALLMODE=amus"), DONE)
        self.expect_installed(self.second, self.example)
        self.assertEqual(self.service("status")["state"], "running")
        self.assertEqual(self.registered("shmnm"), made)
        self.service("remove")
        self.assertEqual(self.msiexec("/i", self.later_msi, "REINSTALL=ALL", "REINSTALLMODE=amus"), DONE)
        self.assertEqual(self.service("status")["state"], "stopped")

    def test_an_upgrade_of_the_service_leaves_the_region_of_an_attached_process_alone(self):
        self.assertEqual(self.msiexec("/i", self.msi, WITH_SERVICE), DONE)
        environment = self.environment()
        process = self.serve(self.tool, environment)
        self.service("start")
        run(WINE, self.tool, "set", "servers/beta/holdstat", "1", env=environment)
        self.assertIn(self.msiexec("/i", self.later_msi, WITH_SERVICE), (DONE, RESTART_NEEDED))
        self.assertIsNone(process.poll())
        self.assertEqual(self.service("status")["state"], "running")
        process.end()
        self.assertEqual(run(WINE, self.tool, "get", "servers/beta/holdstat", env=environment), "1\n", "held by the service now")

    def test_a_service_of_another_installation_is_left_alone(self):
        self.wine("sc", "create", "shmnm", "binPath=", r'"C:\elsewhere\bin\shmnmctl.exe" serve --service')
        before = self.registered("shmnm")
        self.assertEqual(self.msiexec("/i", self.msi), DONE)
        self.assertEqual(self.msiexec("/i", self.later_msi), DONE)
        self.assertEqual(self.msiexec("/x", self.later_msi), DONE)
        self.assertIn("elsewhere", before[0])
        self.assertEqual(self.registered("shmnm"), before)

    def test_the_commands_of_the_document_say_what_the_document_shows(self):
        document = (PROJECT / "docs/windows.md").read_text()
        self.assertEqual(self.msiexec("/i", self.msi), DONE)
        shown = re.search(r"```\n(> shmnmctl service install.*?)```", document, re.S)[1]
        commands = re.findall(r"^> shmnmctl (.*)\n((?:[^>].*\n)+)", shown, re.M)
        self.assertEqual(len(commands), shown.count("> "))
        for command, output in commands:
            # The namespace is this test's.
            told = re.sub(r"  variable  KZMUTIL_NAMESPACE=.*\n", "", self.wine(self.tool, *command.split()))
            self.assertEqual(re.sub(r"process \d+", "process 4712", told), output, command)
        batch = self.prefix / "drive_c/dumps.bat"
        (lines,) = re.findall(r"```\n(set key=.*?)```", document, re.S)
        batch.write_text(lines.replace("\n", "\r\n"))
        self.wine("cmd", "/c", r"C:\dumps.bat")
        (key,) = re.findall(r"set key=(.*)\n", lines)
        made = self.wine("reg", "query", key)
        self.assertRegex(made, r"DumpFolder +REG_EXPAND_SZ +C:\\Dumps\n")
        self.assertRegex(made, r"DumpType +REG_DWORD +0x2\n")

    def failing(self, msi, sequence):
        """A copy of an installer with an action that fails."""
        file = self.folder / f"failing_{msi.name}"
        shutil.copy(msi, file)
        (tool,) = (line.split("\t")[0] for line in run("msiinfo", "export", file, "File").splitlines() if line.startswith("f_bin_shmnmctl_exe_"))
        for statement in (
            f"INSERT INTO `CustomAction` (`Action`, `Type`, `Source`, `Target`) VALUES ('Fail', {RUN_INSTALLED_DEFERRED}, '{tool}', 'no such command')",
            f"INSERT INTO `InstallExecuteSequence` (`Action`, `Condition`, `Sequence`) VALUES ('Fail', '', {sequence})",
        ):
            run("msibuild", file, "-q", statement)
        return file

    def test_an_installation_that_fails_leaves_nothing_but_the_configuration(self):
        before = self.path_of_the_machine()
        self.assertEqual(self.msiexec("/i", self.failing(self.msi, AFTER_THE_SERVICE_IS_INSTALLED), WITH_SERVICE), FAILED_HALFWAY)
        self.assertEqual(files(self.installed), {"etc/cluster.xml": self.example})
        self.assertEqual([entry.name for entry in self.installed.iterdir()], ["etc"])
        self.assertEqual([folder for folder in self.path_of_the_machine() if folder], [folder for folder in before if folder])
        self.assertEqual(self.products(), [])
        self.assertNotIn("InstallDir", self.wine("reg", "query", r"HKLM\Software\shmnm"))
        self.assertEqual(self.registered("shmnm", "shmnmweb"), [])
        self.assertEqual(self.msiexec("/i", self.msi, WITH_SERVICE), DONE)
        self.expect_installed(self.first, self.example)

    def test_an_upgrade_that_fails_starts_the_service_that_it_has_stopped(self):
        self.assertEqual(self.msiexec("/i", self.msi, WITH_SERVICE), DONE)
        before = self.service("start")
        self.assertEqual(self.msiexec("/i", self.failing(self.later_msi, AFTER_THE_SERVICE_IS_STOPPED), WITH_SERVICE), FAILED_HALFWAY)
        after = self.service("status")
        self.assertEqual((after["state"], after["command_line"]), ("running", before["command_line"]))
        self.assertNotEqual(after["process"], before["process"])
        self.expect_installed(self.first, self.example)
        self.assertEqual(self.products(), [self.now])

    def test_an_older_version_is_refused(self):
        self.install_and_edit(self.later_msi)
        self.assertEqual(self.msiexec("/i", self.msi), FAILED)
        self.assertEqual(self.products(), [LATER])

    def test_the_same_files_make_the_same_installer_byte_for_byte(self):
        first, second = (self.make(self.stage, self.now, name).read_bytes() for name in ("one.msi", "two.msi"))
        self.assertEqual(first, second)


if __name__ == "__main__":
    support.main()
