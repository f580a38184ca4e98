"""shmnm-keeper: the second holder, which keeps the region while the process that created it is away."""
import os
import shutil
import signal
import socket
import subprocess

import support
from support import ToolTest

MEMBERS = '<server name="alpha" priority="0"/><hb type="lan" name="lanhb1" priority="0"/>'


class Keeping(ToolTest):
    def setUp(self):
        super().setUp()
        self.configure(MEMBERS, **self.COUNTS)
        address = str(self.folder / "notify")
        self.manager = socket.socket(socket.AF_UNIX, socket.SOCK_DGRAM)
        self.addCleanup(self.manager.close)
        self.manager.bind(address)
        self.manager.settimeout(support.DEADLINE)

    def serve(self):
        process = self.start("serve")
        self.assertTrue(process.stdout.readline().startswith(b"ready"))
        return process

    def end(self, process, request=signal.SIGTERM):
        process.send_signal(request)
        self.assertEqual(process.wait(), 0)

    def keep(self):
        """Starts the keeper and waits until it says that it holds the region."""
        environment = dict(self.environment, NOTIFY_SOCKET=self.manager.getsockname())
        process = subprocess.Popen(support.program("shmnm-keeper"), env=environment, stderr=subprocess.PIPE)

        def finish():
            if process.poll() is None:
                process.kill()
            process.communicate()

        self.addCleanup(finish)
        self.assertEqual(self.manager.recv(100), b"READY=1")
        return process

    def test_the_keeper_keeps_every_word_while_the_only_other_holder_restarts(self):
        creator = self.serve()
        keeper = self.keep()
        for key in ("servers/alpha/nodestat", "servers/alpha/holdstat", "hb/lan/lanhb1/stat"):
            self.assertEqual(self.tool("set", key, "77").status, 0)
        before = self.dumped()
        self.end(creator)
        self.assertEqual(self.dumped(), before)
        creator = self.serve()
        self.assertEqual(self.dumped(), before)
        creator.kill()
        creator.wait()
        self.serve()
        self.assertEqual(self.dumped(), before)
        self.assertIsNone(keeper.poll())

    def test_the_keeper_keeps_the_lock_and_what_it_has_counted(self):
        def takeovers():
            return self.tool("lock", "--who", "--format", "json").json["takeovers"]

        creator = self.serve()
        self.keep()
        owner = self.api()
        owner.ok("shmnm_attach")
        owner.ok("shmnm_rwlock", 0)
        owner.kill()
        self.assertEqual(self.tool("status").status, 0)
        self.assertEqual(takeovers(), 1)
        self.end(creator)
        self.assertEqual(takeovers(), 1)

    def test_the_keeper_writes_nothing_into_the_region(self):
        self.serve()
        self.assertEqual(self.tool("set", "servers/alpha/nodestat", 77).status, 0)
        before = self.dumped()
        self.keep()
        self.assertEqual(self.dumped(), before)

    def test_the_keeper_holds_the_region_by_a_descriptor_that_cannot_write(self):
        self.serve()
        keeper = self.keep()
        region = f"s.{self.environment['KZMUTIL_NAMESPACE']}oru_kzmshmnm_map"
        self.assertEqual(support.opened_by(keeper.pid)[region], {os.O_RDONLY})
        holders = self.tool("holders", "--format", "json").json["holders"]
        self.assertIn(keeper.pid, [holder["process"] for holder in holders])

    def test_the_region_ends_with_the_keeper_if_no_other_process_holds_it(self):
        for request in (signal.SIGTERM, signal.SIGINT, signal.SIGHUP):
            with self.subTest(request):
                creator, keeper = self.serve(), self.keep()
                self.end(creator)
                self.assertEqual(self.tool("status").status, 0)
                self.end(keeper, request)
                self.assertEqual(self.manager.recv(100), b"STOPPING=1")
                self.assertEqual(self.tool("status").status, 3)

    def test_the_keeper_makes_no_region(self):
        done = subprocess.run(support.program("shmnm-keeper"), env=self.environment, capture_output=True, text=True, timeout=support.DEADLINE)
        said = "shmnm-keeper: there is no region to keep: start its creator (shmnm.service) first\n"
        self.assertEqual((done.returncode, done.stdout, done.stderr), (3, "", said))
        self.assertEqual(self.tool("status").status, 3)

    def test_the_keeper_says_why_it_cannot_hold_the_region(self):
        self.environment["KZMKERNEL_FOLDER"] = "not/a/full/path"
        done = subprocess.run(support.program("shmnm-keeper"), env=self.environment, capture_output=True, text=True, timeout=support.DEADLINE)
        said = "shmnm-keeper: cannot hold the region: error 123: KZMKERNEL_FOLDER=not/a/full/path is not the full path of a folder: mend it or unset it\n"
        self.assertEqual((done.returncode, done.stdout, done.stderr), (5, "", said))


class PackagedInstallation(ToolTest):
    """The file share/shmnm/environment, by which the packages tell the tool where the machine's installation is."""

    def setUp(self):
        super().setUp()
        self.installation = self.environment.pop("KZM_INSTALL_PATH")
        self.namespace = self.environment.pop("KZMUTIL_NAMESPACE")
        prefix = self.folder / "usr"
        (prefix / "bin").mkdir(parents=True)
        (prefix / "share/shmnm").mkdir(parents=True)
        self.program = shutil.copy(support.FOLDER / "shmnmctl", prefix / "bin")
        self.file = prefix / "share/shmnm/environment"
        self.environment["LD_LIBRARY_PATH"] = str(support.FOLDER)

    def said(self, **more):
        """What a command that needs the configuration and the region complains about."""
        done = subprocess.run([self.program, "serve"], env=self.environment | more, capture_output=True, text=True, timeout=support.DEADLINE)
        self.assertEqual((done.returncode, done.stdout), (5, ""))
        return done.stderr

    def test_the_tool_finds_the_installation_without_environment_variables(self):
        (self.folder / "etc/cluster.xml").unlink()
        for text in (
            f"KZM_INSTALL_PATH={self.installation}\n",
            f"# A comment=1\n\n  KZM_INSTALL_PATH =  {self.installation} \n",
            f"KZM_INSTALL_PATH='{self.installation}'\nPATH=/none\nno variable\n",
            f'KZM_INSTALL_PATH="{self.installation}"',
            f"KZMLOG=1\nKZM=\nKZM_INSTALL_PATH={self.installation}\n",
        ):
            with self.subTest(text):
                self.file.write_text(text)
                self.assertIn(f"cannot read the configuration {self.installation}/etc/cluster.xml", self.said())
                self.assertIn(f"cannot read the configuration {self.installation}/etc/cluster.xml", self.said(KZM_INSTALL_PATH=""))

    def test_a_quote_that_does_not_end_is_part_of_the_value(self):
        for value in ("'/none", "/none'", "'/none\""):
            with self.subTest(value):
                self.file.write_text(f"KZM_INSTALL_PATH={value}\n")
                self.assertIn(f"cannot read the configuration {value}/etc/cluster.xml", self.said())

    def test_a_link_to_the_folder_of_the_configuration_is_followed_in_messages(self):
        (self.folder / "etc/cluster.xml").unlink()
        (self.folder / "etc").rmdir()
        (self.folder / "configuration").mkdir()
        (self.folder / "etc").symlink_to("configuration")
        self.file.write_text(f"KZM_INSTALL_PATH={self.installation}\n")
        self.assertIn(f"cannot read the configuration {self.folder}/configuration/cluster.xml", self.said())

    def test_the_file_sets_the_companions_other_variables_too_but_overrides_none(self):
        self.file.write_text(f"KZM_INSTALL_PATH={self.installation}\nKZMKERNEL_FOLDER=of/the/file\n")
        self.assertIn("KZMKERNEL_FOLDER=of/the/file is not the full path", self.said())
        self.assertIn("KZMKERNEL_FOLDER=of/the/caller is not the full path", self.said(KZMKERNEL_FOLDER="of/the/caller"))

    def test_a_chosen_installation_is_not_mixed_with_the_file(self):
        (self.folder / "etc/cluster.xml").unlink()
        self.file.write_text("KZM_INSTALL_PATH=/none\nKZMKERNEL_FOLDER=of/the/file\n")
        said = self.said(KZM_INSTALL_PATH=self.installation, KZMUTIL_NAMESPACE=self.namespace)
        self.assertIn(f"cannot read the configuration {self.installation}/etc/cluster.xml", said)

    def test_without_the_file_the_tool_takes_the_path_that_the_library_takes(self):
        said = self.said(KZMUTIL_NAMESPACE=self.namespace)
        self.assertIn(f"cannot read the configuration {support.FOLDER.resolve().parent}/etc/cluster.xml", said)


class Library(ToolTest):
    """A tool that finds its companions, but not its library."""

    def setUp(self):
        super().setUp()
        self.programs = self.folder / "bin"
        self.programs.mkdir()
        for file in [support.FOLDER / "shmnmctl", *support.FOLDER.glob("libkzm*.so*")]:
            if "libkzmshmnm" not in file.name:
                shutil.copy(file, self.programs)

    def said(self, **more):
        done = subprocess.run([self.programs / "shmnmctl", "serve"], env=self.environment | more, capture_output=True, text=True, timeout=support.DEADLINE)
        self.assertEqual((done.returncode, done.stdout), (5, ""))
        return done.stderr

    def test_is_missed_by_its_name(self):
        self.assertEqual(self.said(), "shmnmctl: cannot load libkzmshmnm.so.1: put it beside this program, with its companions\n")

    def test_of_another_version_lacks_a_function(self):
        shutil.copy(self.programs / "libkzmutil.so", self.programs / "libkzmshmnm.so.1")
        self.assertRegex(self.said(), "^shmnmctl: libkzmshmnm.so.1 has no function shmnm_[a-z_]+: install the library and this program in one version\n$")


if __name__ == "__main__":
    support.main()
