"""Installations and files whose paths have blanks, letters of any script and any length."""
import shutil
import subprocess

import support
from folders import FOLDERS, InstallationTest
from support import path
from terminal import Terminal

class Paths(InstallationTest):
    def test_configuration_log_and_dumps_are_found_in_every_folder(self):
        for name in FOLDERS:
            with self.subTest(name):
                folder = self.install(name)
                self.expect_log(folder)
                self.assertEqual(self.tool("set", "cluster/clstat", "7").status, 0)
                dump = folder / "Снимок é.bin"
                self.assertEqual(self.tool("dump", path(dump)).status, 0)
                self.assertEqual(dump.read_bytes(), self.dumped())
                for reading in (["get", "cluster/clstat", "--file", path(dump)], ["--verbose", "get", "cluster/clstat", "-f", path(dump)]):
                    self.assertEqual(self.tool(*reading).out, "7\n")
                self.assertEqual(self.tool("status", path(dump)).status, 0)
                checked = self.tool("verify", "--config", path(folder / "etc/cluster.xml"))
                self.assertEqual((checked.status, checked.out, checked.err), (0, "", ""))

    def expect_log(self, folder):
        """The log of a server is written, and rotated once it is full."""
        configuration = folder / "etc/cluster.xml"
        configuration.write_text(configuration.read_text().replace("<log>", "<log><size>200</size>"))
        self.serving(support.program("shmnmctl"))
        generations = [file.read_text() for file in (folder / "log").glob("shmnm.log*")]
        self.assertGreater(len(generations), 1)
        self.assertIn("KzmutilCreateNamedFileMapping(use)", "".join(generations))

    def test_messages_show_names_as_they_were_typed(self):
        for name in ("нет.bin", "集群.bin", "é.bin"):
            missing = path(self.folder / name)
            for command in (["list", "--file", missing], ["verify", missing]):
                refused = self.tool(*command)
                self.assertEqual(refused.status, 5, refused)
                self.assertIn(f"cannot read {missing}: ", refused.err)
            escaped = "".join(letter if letter < "\x7F" else "".join(f"%{byte:02X}" for byte in letter.encode()) for letter in missing)
            self.assertIn(f"cannot read {escaped}: ", self.tool("list", "--file", missing, "--format", "json").error["message"])
        hidden = self.tool("list", "--file", "x\u202ey")
        self.assertIn("cannot read x%E2%80%AEy: ", hidden.err)

    def test_names_of_servers_are_utf_8(self):
        self.cluster()
        self.assertEqual(self.tool("add", "server", "сервер", "9").status, 0)
        self.assertEqual(self.tool("get", "servers/%D1%81%D0%B5%D1%80%D0%B2%D0%B5%D1%80/pri").out, "9\n")
        self.assertEqual(self.tool("remove", "server", "сервер").status, 0)

    def test_a_command_under_the_lock_gets_its_arguments_as_they_were_typed(self):
        self.cluster()
        missing = path(self.folder / "нет 集 \\.bin")
        locked = self.tool("lock", "--", *support.native_program("shmnmctl"), "list", "--file", missing)
        self.assertEqual(locked.status, 5, locked)
        self.assertIn(f"cannot read {missing}: ", locked.err)


class OnATerminal(InstallationTest):
    def test_a_terminal_shows_names_as_they_were_typed(self):
        missing = path(self.folder / "нет é.bin")
        terminal = Terminal(self, 200, 10, "list", "--file", missing, LC_ALL="C.UTF-8")
        self.assertEqual(terminal.read_to_end(), 5)
        self.assertIn(f"shmnmctl: cannot read {missing}: ", terminal.lines[0])


class Installed(InstallationTest):
    """On Windows; tests/package has those of Linux."""

    def test_a_program_finds_its_own_installation_in_every_folder(self):
        for name in FOLDERS:
            with self.subTest(name):
                folder = self.install(name)
                (command,) = self.copy_programs(folder, "shmnmctl")
                self.serving(command)
                self.assertTrue((folder / "log/shmnm.log").exists())
                shown = subprocess.run(command + ["get", "cluster/clstat"], env=self.environment, capture_output=True, timeout=support.DEADLINE)
                self.assertEqual((shown.returncode, shown.stdout, shown.stderr), (0, b"0\n", b""))


if __name__ == "__main__":
    support.main()
