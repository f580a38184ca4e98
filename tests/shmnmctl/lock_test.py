"""lock: a command runs under the region's lock, and who holds it is told."""
import contextlib
import os
import pathlib
import select
import signal
import subprocess
import time

import support
from support import ToolTest, path


def tool_as_command(*arguments):
    """The tool itself, as a command to be run under the lock."""
    return ["--"] + support.native_program("shmnmctl") + list(arguments)


class LockTest(ToolTest):
    def witness(self):
        """A process that has the mutex open, so that what is known of it outlives its owners."""
        caller = self.api()
        caller.ok("shmnm_rolock", 0)
        caller.ok("shmnm_rounlock")
        return caller


class Locking(LockTest):
    def expect_the_command_to_run_without_the_lock(self, holder):
        """The command, an API caller, answers; it is not the owner and does not get the lock."""
        holder.stdin.write(b"shmnm_rwlock 0\n")
        holder.stdin.flush()
        self.assertEqual(holder.stdout.readline().strip(), b"17")

    def test_the_command_runs_while_the_lock_is_held(self):
        api = self.api()
        holder = self.start("lock", "--", *support.native_program("api_caller"), stdin=subprocess.PIPE)
        self.expect_the_command_to_run_without_the_lock(holder)
        self.assertEqual(api.call("shmnm_rwlock", 0)[0], 17)
        holder.stdin.close()
        self.assertEqual(holder.wait(), 0)
        api.ok("shmnm_rwlock", 0)
        api.ok("shmnm_rwunlock")

    def test_lock_returns_the_exit_status_of_the_command(self):
        self.assertEqual(self.tool("lock", *tool_as_command("--version")).status, 0)
        self.assertEqual(self.tool("lock", *tool_as_command("status")).status, 3)
        result = subprocess.run(
            support.program("shmnmctl") + ["lock"] + tool_as_command("get"), env=self.environment, capture_output=True
        )
        self.assertEqual(result.returncode, 2)

    def test_lock_names_a_command_that_cannot_be_started_and_frees_the_lock(self):
        self.witness()
        result = self.tool("lock", "--", "no-such-command-at-all")
        self.assertEqual(result.status, 5)
        self.assertIn("cannot run no-such-command-at-all", result.err)
        self.assertEqual(self.tool("lock", "--who").status, 1)

    def test_ctrl_c_reaches_the_command_and_the_lock_stays_held(self):
        api = self.api()
        holder = self.start("lock", "--", *support.native_program("api_caller"), stdin=subprocess.PIPE)
        self.expect_the_command_to_run_without_the_lock(holder)
        # To the tool alone; what a terminal sends reaches the command as well.
        holder.send_signal(signal.SIGINT)
        self.expect_the_command_to_run_without_the_lock(holder)
        self.assertEqual(api.call("shmnm_rwlock", 0)[0], 17)
        holder.stdin.close()
        self.assertEqual(holder.wait(), 0)

    def test_lock_prints_the_name_of_the_lock_on_request(self):
        name = self.environment["KZMUTIL_NAMESPACE"] + "oru_kzmshmnm_lock"
        told = f"shmnmctl: opens the mutex {name}\n"
        self.assertEqual(self.tool("--verbose", "lock", "--who").err, told)
        self.assertEqual(self.tool("--verbose", "lock", *tool_as_command("--version")).err, told)

    def test_arguments_reach_the_command_unchanged(self):
        odd = ["two words", 'quo"te', "back\\slash", 'both\\"', "trailing\\", "", "tab\there", "%PATH%", "*"]
        self.cluster()
        dump = path(self.folder / "picture.dump")
        self.assertEqual(self.tool("dump", dump).status, 0)
        for argument in odd:
            with self.subTest(argument):
                # A word that no key has is named in the error. A dump is read, since the lock is taken.
                command = ["get", "--file", dump, f"x{argument}"]
                direct, locked = self.tool(*command), self.tool("lock", *tool_as_command(*command))
                shown = argument.replace("\t", "%09")
                self.assertIn(f'no such word "x{shown}"; ', direct.err)
                self.assertEqual((locked.status, locked.err), (2, direct.err))

    def test_a_killed_tool_takes_its_command_with_it(self):
        api = self.api()
        holder = self.start("lock", "--", *support.native_program("api_caller"), stdin=subprocess.PIPE)
        self.expect_the_command_to_run_without_the_lock(holder)
        holder.kill()
        # The command has the other end of this pipe, and its standard input is open.
        self.assertTrue(select.select([holder.stdout], [], [], 30)[0], "the command goes on without the lock")
        self.assertEqual(holder.stdout.read(), b"")
        api.ok("shmnm_rwlock", 10_000)
        api.ok("shmnm_rwunlock")

    def test_lock_reports_a_wait_that_times_out(self):
        api = self.api()
        api.ok("shmnm_rwlock", 0)
        result = self.tool("lock", "--timeout", "50", *tool_as_command("--version"))
        self.assertEqual((result.status, result.out), (4, ""))
        self.assertIn("timed out after 50 ms waiting for the lock; ", result.err)

    def test_lock_names_the_holder_of_the_lock(self):
        api = self.api()
        free = self.tool("lock", "--who")
        self.assertEqual(free.status, 1)
        self.assertIn("nobody holds it", free.out)
        document = self.tool("lock", "--who", "--format", "json").json
        self.assertEqual((document["held"], document["holder"]), (False, None))
        api.ok("shmnm_rwlock", 0)
        self.assertEqual(self.tool("lock", "--who").status, 0)
        self.assertTrue(self.tool("lock", "--who", "--format", "json").json["held"])

    def test_lock_needs_either_a_command_or_a_question(self):
        self.assertEqual(self.tool("lock").status, 2)
        self.assertEqual(self.tool("lock", "--who", "--", "x").status, 2)


class LockingOnLinux(LockTest):
    """What only Linux tells, and signals."""

    def test_the_holder_is_named_with_its_command_state_and_time(self):
        api = self.api()
        api.ok("shmnm_rwlock", 0)
        holder = self.tool("lock", "--who", "--format", "json").json["holder"]
        self.assertEqual((holder["process"], holder["thread"], holder["state"]), (api.process.pid, api.process.pid, "running"))
        self.assertTrue(holder["command"].endswith("api_caller"), holder)
        late = self.tool("lock", "--timeout", "20", *tool_as_command("--version"))
        self.assertEqual(late.status, 4)
        self.assertIn(f'ms waiting for the lock; held by process {api.process.pid} thread {api.process.pid} ("', late.err)
        self.assertIn('api_caller", running) since 20', late.err)
        os.kill(api.process.pid, signal.SIGSTOP)
        try:
            while self.tool("lock", "--who", "--format", "json").json["holder"]["state"] != "stopped":
                time.sleep(0.01)
            self.assertIn(", stopped) since ", self.tool("lock", "--timeout", "20", *tool_as_command("--version")).err)
        finally:
            os.kill(api.process.pid, signal.SIGCONT)

    def test_a_holder_that_has_ended_is_not_named(self):
        self.witness()
        api = self.api()
        api.ok("shmnm_rwlock", 0)
        os.kill(api.process.pid, signal.SIGKILL)
        os.waitid(os.P_PID, api.process.pid, os.WEXITED | os.WNOWAIT)
        # Once as a process that nobody has waited for yet, once as none.
        for _ in range(2):
            told = self.tool("lock", "--who")
            self.assertEqual(told.status, 1)
            who = f"process {api.process.pid} thread {api.process.pid}"
            self.assertIn(f"nobody holds it now: {who} ended with it, and the next one takes it over; taken over 0 times", told.out)
            document = self.tool("lock", "--who", "--format", "json").json
            self.assertEqual((document["held"], document["takeovers"]), (False, 0))
            self.assertEqual((document["holder"]["process"], document["holder"]["state"]), (api.process.pid, "ended"))
            api.process.wait()

    def test_a_command_that_cannot_be_started_leaves_nothing_to_take_over(self):
        self.witness()
        self.assertEqual(self.tool("lock", "--", "no-such-command-at-all").status, 5)
        self.assertEqual(self.tool("lock", *tool_as_command("--version")).status, 0)
        self.assertEqual(self.tool("lock", "--who", "--format", "json").json["takeovers"], 0)

    def test_the_command_ignores_the_same_signals_as_the_tool_did_at_its_start(self):
        for name in ("INT", "QUIT", "PIPE", "XFSZ", "HUP", "TERM"):
            with self.subTest(name):
                ends = self.tool("lock", "--", "sh", "-c", f"ulimit -c 0; kill -{name} $$; echo alive")
                self.assertEqual((ends.status, ends.out), (128 + getattr(signal, f"SIG{name}"), ""))
                ignoring = ["sh", "-c", f'trap "" {name}; exec "$@"', "sh"]
                command = support.program("shmnmctl") + ["lock", "--", "sh", "-c", f"kill -{name} $$; echo alive"]
                stays = subprocess.run(ignoring + command, env=self.environment, capture_output=True)
                self.assertEqual((stays.returncode, stays.stdout, stays.stderr), (0, b"alive\n", b""))

    def test_a_take_over_from_a_killed_holder_is_counted(self):
        self.witness()
        api = self.api()
        api.ok("shmnm_rwlock", 0)
        api.kill()
        self.assertEqual(self.tool("lock", *tool_as_command("--version")).status, 0)
        self.assertEqual(self.tool("lock", "--who", "--format", "json").json["takeovers"], 1)
        self.assertIn("taken over 1 time from an owner that ended, last at 20", self.tool("lock", "--who").out)

    def test_the_command_line_of_a_holder_is_escaped(self):
        holder = subprocess.Popen(
            support.program("api_caller") + ["\x1b]0;evil\x07"], stdin=subprocess.PIPE, stdout=subprocess.PIPE, env=self.environment
        )
        try:
            holder.stdin.write(b"shmnm_rwlock 0\n")
            holder.stdin.flush()
            self.assertEqual(holder.stdout.readline(), b"0\n")
            told = self.tool("lock", "--who")
            self.assertEqual(told.status, 0)
            self.assertNotIn("\x1b", told.out)
            self.assertIn("%1B]0;evil%07", told.out)
        finally:
            holder.communicate()

    def test_lock_reports_a_command_killed_by_a_signal_as_shells_do(self):
        self.assertEqual(self.tool("lock", "--", "sh", "-c", "kill -9 $$").status, 128 + signal.SIGKILL)
        self.assertEqual(self.tool("lock", "--", "sh", "-c", "exit 7").status, 7)

    def test_a_request_to_end_is_passed_on_to_the_command(self):
        holder = self.start("lock", "--", "sh", "-c", "trap 'echo told; exit 3' TERM; echo ready; while :; do sleep 0.01; done")
        self.assertEqual(holder.stdout.readline(), b"ready\n")
        holder.send_signal(signal.SIGTERM)
        self.assertEqual(holder.stdout.readline(), b"told\n")
        self.assertEqual(holder.wait(), 3)
        self.assertEqual(self.tool("lock", "--who").status, 1)

    def test_a_command_is_asked_to_end_when_the_tool_is_killed(self):
        holder = self.start("lock", "--", "sh", "-c", "trap 'echo told; exit 3' TERM; echo ready; while :; do sleep 0.01; done")
        self.assertEqual(holder.stdout.readline(), b"ready\n")
        holder.kill()
        self.assertTrue(select.select([holder.stdout], [], [], 30)[0], "the command was not told")
        self.assertEqual(holder.stdout.read(), b"told\n")

    def test_a_command_does_not_begin_after_the_tool_was_killed(self):
        """strace holds the child up as it asks to be told of the tool's end; meanwhile the tool is killed."""
        trace = subprocess.Popen(
            ["strace", "-f", "-qq", "-o", self.folder / "trace", "-e", "trace=prctl,exit_group", "-e", "inject=prctl:delay_enter=2000000"]
            + support.program("shmnmctl") + ["lock", "--", "sh", "-c", "echo began"],
            stdout=subprocess.PIPE, env=self.environment,
        )
        self.addCleanup(trace.communicate)
        tool = self.child_of(trace.pid, "shmnmctl")
        child = self.child_of(tool, "shmnmctl")
        prctl = "157 "
        while not pathlib.Path(f"/proc/{child}/syscall").read_text().startswith(prctl):
            self.assertIsNone(trace.poll())
        os.kill(tool, signal.SIGKILL)
        self.assertEqual(trace.stdout.read(), b"")
        trace.wait()
        self.assertRegex((self.folder / "trace").read_text(), rf"(?m)^{child} +exit_group\({128 + signal.SIGTERM}\)")

    @staticmethod
    def child_of(parent, name):
        """The child of a process, once there is one of that name."""
        while True:
            for child in pathlib.Path(f"/proc/{parent}/task/{parent}/children").read_text().split():
                with contextlib.suppress(FileNotFoundError, ProcessLookupError):
                    if pathlib.Path(f"/proc/{child}/comm").read_text() == f"{name}\n":
                        return int(child)

    def test_an_interrupt_reaches_only_the_command(self):
        holder = self.start(
            "lock", "--", "sh", "-c", "trap 'echo interrupted; exit 4' INT; echo ready; while :; do sleep 0.01; done", start_new_session=True
        )
        self.assertEqual(holder.stdout.readline(), b"ready\n")
        # As a terminal sends it: to all of the foreground.
        os.killpg(holder.pid, signal.SIGINT)
        self.assertEqual(holder.stdout.readline(), b"interrupted\n")
        self.assertEqual(holder.wait(), 4)

    def test_the_lock_of_a_killed_tool_is_taken_over_while_its_command_runs_on(self):
        api = self.api()
        holder = self.start("lock", "--", "sh", "-c", "echo ready; read line", stdin=subprocess.PIPE)
        self.assertEqual(holder.stdout.readline(), b"ready\n")
        holder.kill()
        api.ok("shmnm_rwlock", 10_000)
        api.ok("shmnm_rwunlock")
        holder.stdin.close()


if __name__ == "__main__":
    support.main()
