"""Installations, dumps and files of names whose paths have blanks, letters of any script and any length."""
import shutil
import subprocess

import web_support
from web_support import Server, WebTest

import support
from folders import FOLDERS, InstallationTest
from support import path
from terminal import Terminal

NAMES = support.PROJECT / "examples/states.json"


class Paths(WebTest, InstallationTest):
    def test_the_region_a_dump_and_names_are_found_in_every_folder(self):
        for name in FOLDERS:
            with self.subTest(name):
                folder = self.install(name)
                self.cluster()
                names, dump = folder / "имена é.json", folder / "Снимок é.bin"
                shutil.copy(NAMES, names)
                self.assertEqual(self.tool("dump", path(dump)).status, 0)
                live = self.serve("--names", path(names))
                self.assertEqual(live.get("/healthz").status, 200)
                self.assertEqual(live.get("/names.json").body, NAMES.read_bytes())
                self.shown(live)
                dumped = self.serve("--dump", path(dump))
                self.assertEqual(dumped.get("/picture.json").body, self.tool("status", path(dump), "--format", "json").raw)
                live.end()
                dumped.end()

    def test_messages_show_names_as_they_were_typed(self):
        for name in ("нет.json", "集群.json", "é.json"):
            missing = path(self.folder / name)
            done = subprocess.run(support.program("shmnmweb") + ["--names", missing], stdin=subprocess.DEVNULL, capture_output=True, env=self.environment, timeout=60)
            self.assertEqual((done.returncode, done.stdout), (5, b""))
            self.assertIn(f"shmnmweb: cannot use the names in {missing}: ", done.stderr.decode())


class OnATerminal(InstallationTest):
    def test_a_terminal_shows_names_as_they_were_typed(self):
        missing = path(self.folder / "нет é.json")
        terminal = Terminal(self, 200, 10, "--names", missing, program="shmnmweb", LC_ALL="C.UTF-8")
        self.assertEqual(terminal.read_to_end(), 5)
        self.assertIn(f"shmnmweb: cannot use the names in {missing}: ", terminal.lines[0])


class Installed(InstallationTest):
    """On Windows; tests/package has those of Linux."""

    def test_the_server_finds_its_own_installation_in_every_folder(self):
        for name in FOLDERS:
            with self.subTest(name):
                tool, web = self.copy_programs(self.install(name), "shmnmctl", "shmnmweb")
                self.serving(tool)
                server = Server(self, "--listen", "127.0.0.1:0", program=web)
                self.assertEqual(server.get("/healthz").status, 200)
                server.end()


if __name__ == "__main__":
    web_support.main()
