"""An operator who is neither an administrator nor the cluster's user reads the picture and can change nothing (Windows)."""
import subprocess
import unittest

import support
from operators import OperatorTest
from support import Result, path, validated

WARNING = "read without the lock: this user may not take it, and a change can have been half done"


class Reading(OperatorTest):
    def operator(self, *arguments, json=False):
        command = self.as_operator("shmnmctl") + list(arguments) + (["--format", "json"] if json else [])
        done = subprocess.run(command, env=self.environment, capture_output=True, timeout=support.DEADLINE)
        result = Result(done.returncode, done.stdout, done.stderr.decode())
        if json:
            validated(result.err)
            validated(result.out)
        return result

    def test_every_reading_command_answers_and_says_that_it_had_no_lock(self):
        self.cluster_of_the_system()
        file = path(self.folder / "picture")
        self.assertEqual(self.tool("dump", file).status, 0)
        for command in (
            ["status"], ["list"], ["get", "servers/beta/pri"], ["query", "cluster/clstat=0"], ["verify"], ["export"], ["dump", "-"],
            ["describe", "hb", "lan", "lanhb1"], ["wait", "cluster/clstat=0", "--timeout", "5s"], ["diff", file, "live"],
        ):
            with self.subTest(command):
                read = self.operator(*command)
                self.assertEqual(read.err, f"shmnmctl: warning: {WARNING}\n")
                own = self.tool(*command)
                self.assertEqual((read.status, read.raw), (own.status, own.raw))
                self.assertEqual(own.err, "")
        self.assertEqual(self.operator("get", "servers/beta/pri").out, "1\n")

    def test_the_warning_is_a_document_in_json(self):
        self.cluster_of_the_system()
        read = self.operator("get", "servers/beta/pri", json=True)
        self.assertEqual((read.status, read.json["value"]), (0, 1))
        self.assertEqual((read.error["kind"], read.error["message"]), ("warning", WARNING))

    def test_it_tells_how_often_it_copied(self):
        self.cluster_of_the_system()
        self.assertIn("copied the bytes in use without a right to the lock: two of 2 copies in a row were equal", self.operator("--verbose", "status").err)

    def test_every_command_that_changes_something_is_refused_and_changes_nothing(self):
        self.cluster_of_the_system()
        before = self.dumped()
        for command in (
            ["set", "cluster/clstat", "1"], ["add", "server", "delta", "3"], ["remove", "server", "beta"], ["modify", "server", "beta", "7"],
            ["simulate", "on", "beta"], ["clear", "--yes"], ["repair"],
            ["lock", "--who"], ["lock", "--", *support.native_program("shmnmctl"), "--version"],
        ):
            with self.subTest(command):
                refused = self.operator(*command)
                self.assertEqual((refused.status, refused.out), (5, ""), refused)
                self.assertRegex(refused.err, r"^shmnmctl: cannot open the (lock|region) \S+ \(error 5\); run this as the user who runs the cluster\n$")
        self.assertEqual(self.dumped(), before)

    def test_a_lock_that_is_held_does_not_delay_a_reader(self):
        api = self.cluster_of_the_system()
        api.ok("shmnm_rwlock", 0)
        read = self.operator("--lock-timeout", "0", "get", "servers/beta/pri")
        self.assertEqual((read.status, read.out), (0, "1\n"), read)
        self.assertEqual(self.tool("--lock-timeout", "0", "get", "servers/beta/pri").status, 4, "the lock is held")

    def test_a_user_outside_the_group_reads_nothing(self):
        self.cluster_of_the_system("S-1-5-32-551")
        for command in (["status"], ["get", "servers/beta/pri"], ["dump", "-"], ["set", "cluster/clstat", "1"]):
            refused = self.operator(*command)
            self.assertEqual((refused.status, refused.out), (5, ""), refused)
            self.assertRegex(refused.err, r"\(error 5\); run this as the user who runs the cluster\n$")

    def test_the_picture_library_reads_too_even_if_the_lock_is_held(self):
        api = self.cluster_of_the_system()
        own = self.tool("status", "--format", "json")
        api.ok("shmnm_rwlock", 0)
        read = subprocess.run([*self.as_operator("picture_example"), "servers/beta/pri=1"], env=self.environment, capture_output=True, timeout=support.DEADLINE)
        self.assertEqual((read.returncode, read.stdout.decode().splitlines(), read.stderr), (0, own.lines, b""))

    def test_the_group_stands_in_the_access_list_of_the_region_alone(self):
        self.cluster_of_the_system()
        self.assertEqual(self.securities[3], "O:SYD:P(A;;GA;;;SY)(A;;GA;;;BA)(A;;GA;;;SY)(A;;LCRC;;;BU)")
        self.assertEqual(self.securities[7], "O:SYD:P(A;;GA;;;SY)(A;;GA;;;BA)(A;;GA;;;SY)")


if __name__ == "__main__":
    support.main()
