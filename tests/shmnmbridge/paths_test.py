"""Installations and configurations of the bridge whose paths have blanks, letters of any script and any length."""
import shutil

import bridge_support
from bridge_support import PLATFORM, BridgeTest, until

import support
from folders import FOLDERS
from support import path
from terminal import Terminal


class FolderTest(BridgeTest):
    def runs_in_every_folder(self, program_in):
        """A bridge checks its configuration, runs, and says so, in each folder."""
        for number, name in enumerate(FOLDERS):
            with self.subTest(name):
                machine = self.machine("alpha", folder=name, cluster=f"{self.cluster[-50:]}{number}").create()
                program = program_in(machine)
                named = machine.folder / "мост é.xml"
                shutil.copy(machine.folder / "etc/bridge.xml", named)
                check = machine.run("check", "--config", path(named), program=program)
                self.assertEqual((check.status, check.err), (0, ""), check)
                self.assertIn(f"ok     {path(named)}: server alpha of cluster ", check.lines[0])
                bridge = machine.start([*program, "run"])
                self.assertIn("ready: server alpha of cluster ", bridge.ready)
                until(lambda: machine.status().get("running"), "the claim")
                self.assertEqual(machine.run("check", program=program).lines[-1], "ok     a bridge runs for this machine's region")
                bridge.end()


class Paths(FolderTest):
    def test_the_bridge_runs_in_every_folder(self):
        self.runs_in_every_folder(lambda machine: support.program("shmnmbridge"))

    def test_messages_show_names_as_they_were_typed(self):
        machine = self.machine("alpha", folder="мост 橋")
        broken = machine.folder / "é.xml"
        broken.write_text("<root/>")
        check = machine.run("check", "--config", path(broken))
        self.assertEqual(check.status, 1, check)
        self.assertIn(f'wrong  {path(broken)}, line 1: the root element is not "bridge"', check.out)
        run = machine.run("run", "--config", path(broken))
        self.assertEqual((run.status, run.out), (5, ""))
        self.assertIn(f'shmnmbridge: {path(broken)}, line 1: the root element is not "bridge"', run.err)
        missing = path(machine.folder / "нет.xml")
        self.assertIn(f"cannot read the bridge's configuration {missing}; see ", machine.run("run", "--config", missing).err)

    def test_a_terminal_shows_names_as_they_were_typed(self):
        machine = self.machine("alpha")
        self.environment = machine.environment
        broken = machine.folder / "мост é.xml"
        broken.write_text("<root/>")
        for command, start in (("check", "wrong  "), ("run", "shmnmbridge: ")):
            terminal = Terminal(self, 200, 10, command, "--config", path(broken), program="shmnmbridge", LC_ALL="C.UTF-8")
            terminal.read_to_end()
            self.assertIn(f'{start}{path(broken)}, line 1: the root element is not "bridge"', terminal.lines[0])


class Installed(FolderTest):
    """On Windows; tests/package has those of Linux."""

    def copied_into(self, machine):
        (machine.folder / "bin").mkdir()
        for file in [*support.FOLDER.glob("kzm*.dll"), support.FOLDER / "shmnmbridge.exe"]:
            shutil.copy2(file, machine.folder / "bin" / file.name)
        del machine.environment["KZM_INSTALL_PATH"]
        return support.program("shmnmbridge")[:-1] + [str(machine.folder / "bin/shmnmbridge.exe")]

    def test_the_bridge_finds_its_own_installation_in_every_folder(self):
        self.runs_in_every_folder(self.copied_into)


if PLATFORM == "linux":
    del Installed

if __name__ == "__main__":
    bridge_support.main()
