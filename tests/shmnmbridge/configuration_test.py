"""The bridge's configuration, its secrets, and what "check" and the command line say."""
import os
import pathlib
import subprocess
import unittest

import bridge_support
from bridge_support import BridgeTest, PLATFORM, until
import etcd_support
import support

NOWHERE = ["http://127.0.0.1:9"]


class Configuration(BridgeTest):
    def problems(self, text, machine=None):
        """The lines and texts that "run" refuses a configuration with, and "check" finds."""
        machine = machine or self.machine("alpha", NOWHERE)
        file = machine.folder / "etc/bridge.xml"
        file.write_text(text)
        run, check = machine.run("run"), machine.run("check")
        self.assertEqual((run.status, check.status), (5, 1), (run, check))
        mark = "bridge.xml, line "
        found = [line.partition(mark)[2] for line in run.err.splitlines()]
        self.assertEqual([line.partition(mark)[2] for line in check.out.splitlines() if mark in line], found)
        return found

    def test_all_mistakes_are_reported_with_their_lines(self):
        found = self.problems("""<bridge>
  <cluster>my cluster</cluster>
  <sever>alpha</sever>
  <etcd>
    <endpoint>127.0.0.1:2379</endpoint>
    <endpoint></endpoint>
    <user>bridge</user>
    <key>missing.pem</key>
    <password>x</password>
  </etcd>
  <host>a b</host>
  <address>beta:80</address>
  <local>clstatt</local>
  <local>hb/lan</local>
  <local>np/ping/gw1</local>
  <window_ms>20</window_ms>
  <lease_s>ten</lease_s>
  <lease_s>11</lease_s>
  <gather_ms>-1</gather_ms>
  <reset_when_cut_off>yes</reset_when_cut_off>
</bridge>
""")
        expected = ["1: no server: write this machine's name, as in cluster.xml",
                    '2: the name "my cluster" of the cluster cannot be part of a key: use at most 128 letters, digits and -_.:@+,',
                    '3: unknown element "sever" in /bridge; did you mean "server"?',
                    '5: ', '6: endpoint is empty: give it a value, or remove it',
                    "7: a user of etcd needs a password_file: name the file with its password",
                    "8: a certificate for etcd needs its key, and a key its certificate: name both files",
                    "8: cannot use the secret in ",
                    '9: unknown element "password" in /bridge/etcd; did you mean "password_file"?',
                    '11: the host "a b" is not a name: use at most 128 letters, digits and -_.:@+,',
                    '12: the address "beta:80" is not where a browser finds this machine\'s picture: write http://HOST:PORT or https://HOST:PORT',
                    '13: "clstatt" is not a word that machines agree on; did you mean "clstat"?',
                    '14: "hb/lan" is not a word that machines agree on; use waitstat, bwflag, ',
                    '16: window_ms is "20": use a number from 500 to 60000',
                    '17: lease_s is "ten": use a number from 2 to 3600',
                    "18: /bridge has lease_s twice, first in line 17: remove one of them",
                    '19: gather_ms is "-1": use a number from 0 to 10000',
                    '20: reset_when_cut_off is "yes": use a number from 0 to 1']
        self.assertEqual(len(found), len(expected), found)
        for line, begin in zip(found, expected):
            self.assertTrue(line.startswith(begin), f"{line!r} does not begin with {begin!r}")

    def test_other_mistakes(self):
        etcd = "<etcd><endpoint>http://127.0.0.1:9</endpoint></etcd>"
        for text, line in (("<bridge>\n<cluster>c</cluster", "2: not well-formed XML"),
                           ("<root/>", '1: the root element is not "bridge"'),
                           (f"<bridge><cluster>c</cluster><server>a</server>\n<window_ms>3000</window_ms><lease_s>4</lease_s>{etcd}</bridge>",
                            "2: a lease of 4000 ms is too short for a window of 3000 ms: make lease_s at least one and a half times as long"),
                           ("<bridge><cluster>c</cluster>\n<server name='a'>a</server><etcd><endpoint>http://127.0.0.1:9</endpoint></etcd></bridge>",
                            "2: server contains attributes: write its value as text between its tags"),
                           ("<bridge><cluster>c</cluster><server>a</server></bridge>", "1: no etcd: add an element etcd with an endpoint per member"),
                           ("<bridge><cluster>c</cluster><server>a</server>\n<etcd/></bridge>", "2: no endpoint: write one per member of etcd"),
                           (f"<bridge><cluster>c</cluster><server>{'a' * 256}</server>{etcd}</bridge>", "1: the name of the server is longer than 255 bytes"),
                           ("<bridge><cluster>c</cluster><server>a</server><etcd><endpoint>http://192.0.2.1:9</endpoint>\n<user>u</user>"
                            "<password_file>p</password_file></etcd></bridge>", "1: a password would cross the network readable on its way to http://192.0.2.1:9")):
            with self.subTest(line):
                self.assertTrue(self.problems(text)[0].startswith(line), self.problems(text))

    def test_a_missing_configuration_says_where_it_belongs(self):
        machine = self.machine("alpha", NOWHERE)
        (machine.folder / "etc/bridge.xml").unlink()
        run = machine.run("run")
        self.assertEqual(run.status, 5)
        self.assertIn("cannot read the bridge's configuration ", run.err)
        self.assertIn("bridge.xml; ", run.err)

    def test_the_command_line_says_what_is_wrong_with_it(self):
        machine = self.machine("alpha", NOWHERE)
        for arguments in ((), ("rum",), ("run", "--password", "x"), ("status", "--format", "xml")):
            with self.subTest(arguments):
                done = machine.run(*arguments)
                self.assertEqual((done.status, done.out), (2, ""))
                self.assertRegex(done.err, r'^shmnmbridge: .*; see "shmnmbridge --help"\r?\n$')
        self.assertRegex(machine.run("--version").out, r"^shmnmbridge \d+\.\d+\.\d+\r?\n$")
        for arguments in (("--help",), ("run", "--help"), ("check", "--help"), ("status", "--help")):
            done = machine.run(*arguments)
            self.assertEqual(done.status, 0)
            self.assertIn("Exit status: ", done.out)

    def test_status_without_a_bridge(self):
        machine = self.machine("alpha", NOWHERE)
        text, document = machine.run("status"), machine.run("status", "--format", "json")
        self.assertEqual((text.status, text.out), (3, ""))
        self.assertIn("no bridge runs here: start it with", text.err)
        self.assertEqual((document.status, document.err), (3, ""))
        self.assertEqual(document.json, {"version": 1, "kind": "bridge", "up": False})

    def test_check_finds_all_right(self):
        machine = self.machine("alpha", self.etcd.endpoints).create()
        check = machine.run("check")
        self.assertEqual((check.status, check.err), (0, ""), check)
        self.assertEqual([line[:5] for line in check.lines], 3 * ["ok   "], check)
        self.assertEqual(self.keys(), {}, "it has written nothing")
        machine.start()
        until(lambda: machine.status().get("running"), "the claim")
        self.assertEqual(machine.run("check").lines[-1], "ok     a bridge runs for this machine's region")

    def test_check_finds_what_is_wrong_outside_the_configuration(self):
        dead = f"http://127.0.0.1:{etcd_support.free_ports(1)[0]}"
        other = etcd_support.Cluster(self.addCleanup)
        machine = self.machine("delta", [*self.etcd.endpoints, dead, *other.endpoints])
        found = machine.run("check")
        self.assertEqual(found.status, 1)
        wrong = [line for line in found.lines if line.startswith("wrong")]
        self.assertEqual(len(wrong), 3, found)
        self.assertTrue(wrong[0].startswith(f"wrong  {dead}: "))
        self.assertIn(" belong to different clusters of etcd; name members of one", wrong[1])
        self.assertIn("no process holds the region", wrong[2])
        machine.create()
        machine.api.ok("shmnm_modifynode", "beta", 0)
        wrong = [line for line in machine.run("check").lines if line.startswith("wrong")][2:]
        self.assertEqual([line.split(";")[0] for line in wrong],
                         ["wrong  the region has no server delta", "wrong  the server alpha shares its priority 0 with another, so its words are not fed",
                          "wrong  the server beta shares its priority 0 with another, so its words are not fed"])


    def test_check_refuses_words_that_are_too_large_for_etcd(self):
        machine = self.machine("alpha", self.etcd.endpoints)
        (machine.folder / "etc/cluster.xml").write_text("<root><all><num><server>2</server><hbr>7700</hbr><npr>1</npr><fstr>1</fstr></num></all></root>")
        machine.create()
        # A percent sign takes three bytes in a key.
        for number in range(7_600):
            if number == 7_000:
                self.assertNotIn("wrong", machine.run("check").out)
            machine.api.ok("shmnm_addhbrsc", "%" * 31, "%" * 26 + f"{number:05}", 1)
        check = machine.run("check")
        self.assertEqual(check.status, 1)
        self.assertRegex(check.out, r"wrong  the words of alpha are \d{7} bytes in etcd, which by default accepts \d{7} at once; use fewer resources or shorter names, or start all members with a larger --max-request-bytes")


class Secrets(BridgeTest):
    SECRET = "correct-horse-battery"

    def secret_machine(self, mode):
        machine = self.machine("alpha", self.etcd.endpoints, etcd="<user>bridge</user><password_file>password</password_file>").create()
        file = machine.folder / "etc/password"
        file.write_text(self.SECRET + "\n")
        file.chmod(mode)
        return machine

    def test_a_password_that_others_may_read_is_refused(self):
        for mode in (0o640, 0o604, 0o620, 0o602):
            with self.subTest(oct(mode)):
                machine = self.secret_machine(mode)
                done = machine.run("run")
                self.assertEqual(done.status, 5)
                file = machine.folder / "etc/password"
                self.assertIn(f'line 1: cannot use the secret in {file}: others may use it; run "chmod 600 {file}"', done.err)
                self.assertNotIn(self.SECRET, done.err)

    def test_a_password_is_nowhere_to_be_seen(self):
        machine = self.secret_machine(0o600)
        bridge = machine.start()
        until(lambda: machine.status().get("running"), "the claim")
        check, status = machine.run("check"), machine.run("status")
        bridge.end(2)
        seen = [bridge.logged(), check.out, check.err, status.out, status.err, *self.keys().values()]
        seen += [file.read_text(errors="replace") for file in (machine.folder / "log").iterdir()]
        self.assertGreater(len(seen), 5)
        for text in seen:
            self.assertNotIn(self.SECRET, text)


# Windows: secret_file_windows.cpp, which etcd_access tests; wine keeps no rights for new files.
if PLATFORM == "windows":
    del Secrets

if __name__ == "__main__":
    bridge_support.main()
