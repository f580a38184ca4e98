"""shmnmctl as the user nobody, over a Unix socket: all reading works, and nothing else. Run as root, on Linux."""
import os
import shutil
import signal
import subprocess

import web_support
from web_support import WebTest, support

NOBODY, READERS = 65534, 54400


class Nobody(WebTest):
    def setUp(self):
        super().setUp()
        self.programs = self.folder / "bin"
        self.programs.mkdir()
        self.folder.chmod(0o755)
        for file in [support.FOLDER / "shmnmctl", *support.FOLDER.glob("libkzm*.so*")]:
            shutil.copy(file, self.programs)
        self.region_holder = self.cluster()
        self.region_holder.ok("shmnm_setnodestat", "alpha", 1)
        socket = self.folder / "web.sock"
        web_support.Server(self, "--socket", socket)
        os.chown(socket, 0, READERS)
        self.address = f"unix:{socket}"
        self.exported = self.folder / "export"
        self.exported.write_bytes(self.tool("export").raw)
        self.exported.chmod(0o644)

    def start_as_nobody(self, *arguments):
        process = subprocess.Popen([self.programs / "shmnmctl", *map(str, arguments)], env=self.environment, stdin=subprocess.DEVNULL,
                                   stdout=subprocess.PIPE, stderr=subprocess.PIPE, user=NOBODY, group=NOBODY, extra_groups=[READERS], cwd="/")
        self.addCleanup(process.communicate)
        self.addCleanup(process.kill)
        return process

    def as_nobody(self, *arguments):
        process = self.start_as_nobody(*arguments)
        out, err = process.communicate(timeout=web_support.DEADLINE)
        return process.returncode, out, err.decode()

    def test_every_reading_command_says_what_it_says_to_the_owner(self):
        for command in (["status"], ["status", "--format", "json"], ["status", "servers/alpha"], ["status", "--only", "nodestat!=1"], ["list"], ["list", "hb"],
                        ["get", "servers/alpha/nodestat"], ["get", "no/such/key"], ["dump", "-"], ["verify"], ["query", "cluster/alive=1"], ["query", "cluster/alive=0"],
                        ["wait", "cluster/alive=1"], ["wait", "--timeout", "1ms", "cluster/alive=0"], ["export"], ["diff", "live", self.exported], ["diff", self.exported, "live"]):
            with self.subTest(command):
                here = self.tool(*command)
                self.assertEqual(self.as_nobody("--from", self.address, *command), (here.status, here.raw, here.err))

    def test_commands_that_go_on_follow_the_changes(self):
        watch = self.start_as_nobody("--from", self.address, "watch", "cluster/clstat", "--from-start")
        status = self.start_as_nobody("--from", self.address, "status", "--watch", "10ms", "cluster")
        self.assertIn(b"cluster/clstat - -> 0\n", watch.stdout.readline())
        self.assertIn(b"every 10ms", status.stdout.readline())
        self.region_holder.ok("shmnm_setclstat", 5)
        while not (line := watch.stdout.readline()).endswith(b"cluster/clstat 0 -> 5\n"):
            self.assertIn(b" gap: ", line)
        while b"clstat 5" not in status.stdout.readline():
            pass
        for process in (watch, status):
            process.send_signal(signal.SIGTERM)
            process.communicate(timeout=web_support.DEADLINE)
            self.assertEqual(process.returncode, 0)

    def test_every_other_command_is_refused_and_changes_nothing(self):
        before = self.dumped()
        for command in (["set", "cluster/clstat", "1"], ["add", "server", "delta", "5"], ["add", "hb", "lan", "lanhb2", "5"], ["remove", "server", "alpha"],
                        ["remove", "np", "ping", "pingnp1"], ["modify", "server", "alpha", "5"], ["describe", "hb", "lan", "lanhb1"], ["simulate", "on", "alpha"],
                        ["simulate", "off"], ["clear", "--yes"], ["apply", self.exported], ["apply", "--dry-run", self.exported], ["repair"], ["repair", "--discard"],
                        ["holders"], ["lock", "--who"], ["lock", "--", "true"], ["serve"]):
            with self.subTest(command):
                refused = f'shmnmctl: "{command[0]}" needs the region of this machine: run it there, without --from\n'
                self.assertEqual(self.as_nobody("--from", self.address, *command), (2, b"", refused))
                # Nor without the server; "serve" would make a region of nobody's own.
                if command != ["serve"]:
                    status, out, _ = self.as_nobody(*command)
                    self.assertEqual((status, out), (5, b""))
        self.assertEqual(self.dumped(), before)

    def test_a_dump_goes_into_a_file_of_the_user(self):
        own = self.folder / "own"
        own.mkdir()
        os.chown(own, NOBODY, NOBODY)
        self.assertEqual(self.as_nobody("--from", self.address, "dump", own / "dump"), (0, b"", ""))
        self.assertEqual((own / "dump").read_bytes(), self.dumped())
        self.assertEqual((own / "dump").stat().st_uid, NOBODY)


if __name__ == "__main__":
    web_support.main()
