"""query and wait: conditions answered by the exit status, now or when they hold. What conditions mean is tested beside the parser."""
import signal
import unittest

import support
from support import ToolTest, path


class Query(ToolTest):
    def test_query_answers_by_its_exit_status_only(self):
        api = self.cluster()
        api.ok("shmnm_setpingstat", "alpha", 1)
        for condition, status in (
            ("servers/alpha/pingstat=1", 0),
            ("servers/beta/pingstat=1", 1),
            ("all servers/*/pingstat=1", 1),
            ("any servers/*/pingstat=1 and not exists servers/delta/pri", 0),
            ("servers/delta/pri!=1", 1),
        ):
            with self.subTest(condition):
                result = self.tool("query", condition)
                self.assertEqual((result.status, result.out, result.err), (status, "", ""))
                result = self.tool("query", "--format", "json", condition)
                self.assertEqual((result.status, result.err), (status, ""))
                self.assertEqual(result.json, {"version": 1, "kind": "query", "holds": status == 0})

    def test_query_accepts_the_condition_in_one_or_several_arguments(self):
        api = self.cluster()
        api.ok("shmnm_modifynode", "alpha", -7)
        for condition in (
            ["servers/alpha/pri=-7"],
            ["servers/alpha/pri", "=", "-7"],
            ["(", "servers/alpha/pri", "<", "-6", "or", "servers/alpha/pri=0", ")", "and", "servers/beta/pri > -1"],
        ):
            self.assertEqual(self.tool("query", *condition).status, 0, condition)
        self.assertEqual(self.tool("query", "servers/alpha/pri", ">", "-7").status, 1)

    def test_query_can_look_at_a_dump(self):
        api = self.cluster()
        api.ok("shmnm_setclstat", 4)
        self.assertEqual(self.tool("dump", path(self.folder / "picture.dump")).status, 0)
        api.ok("shmnm_setclstat", 5)
        self.assertEqual(self.tool("query", "--file", path(self.folder / "picture.dump"), "cluster/clstat=4").status, 0)
        self.assertEqual(self.tool("query", "cluster/clstat=4").status, 1)

    def test_query_shows_the_position_of_a_syntax_error(self):
        result = self.tool("query", "cluster/clstat=1 or a!> 2")
        self.assertEqual(result.status, 2, result)
        self.assertEqual(
            result.err, 'shmnmctl: invalid condition at character 22, "!> 2": one of = != < <= > >= is expected; see "shmnmctl query --help"\n'
        )
        result = self.tool("query", "exists a or servers =>", "2", "--format", "json")
        self.assertEqual(result.status, 2, result)
        self.assertEqual(result.error["message"], 'invalid condition at character 22, "> 2": a number is expected; see "shmnmctl query --help"')

    def test_names_in_a_condition_are_escaped_as_in_keys(self):
        api = self.region()
        api.ok("shmnm_addnode", b"a*b/ \x1b", 3)
        self.assertEqual(self.tool("query", "servers/a%2Ab%2F%20%1B/pri=3").status, 0)
        self.assertEqual(self.tool("query", "all servers/*%2A*/pri=3").status, 0)


class Wait(ToolTest):
    def waiting(self, *arguments):
        """A wait that is about to take its first look."""
        process = self.start("wait", "--verbose", *arguments)
        self.assertIn(b"opens the region", process.stderr.readline())
        self.assertIn(b"opens the mutex", process.stderr.readline())
        return process

    @staticmethod
    def last_error(process):
        """What it ended with, behind what --verbose tells."""
        return process.stderr.read().decode().splitlines()[-1]

    def test_wait_refuses_a_dump_which_never_changes(self):
        self.cluster()
        file = path(self.folder / "picture.dump")
        self.assertEqual(self.tool("dump", file).status, 0)
        # Not even a condition that holds in it.
        for condition in ("cluster/clstat=0", "cluster/clstat=1"):
            result = self.tool("wait", "--file", file, condition)
            self.assertEqual((result.status, result.out), (2, ""))
            self.assertEqual(result.err.strip(), 'shmnmctl: a dump does not change: test it with "shmnmctl query --file FILE"')

    def test_wait_refuses_a_value_that_can_never_come(self):
        self.cluster()
        result = self.tool("wait", "cluster/clstat=-1", "--timeout", "0")
        self.assertEqual((result.status, result.out), (2, ""))
        self.assertEqual(result.err, 'shmnmctl: "cluster/clstat=-1" can never hold: use a value from 0 to 4294967295 for cluster/clstat\n')
        self.assertEqual(self.tool("query", "cluster/clstat=-1").status, 1)

    def test_wait_returns_at_once_if_the_condition_holds(self):
        self.cluster()
        result = self.tool("wait", "cluster/clstat=0")
        self.assertEqual((result.status, result.out, result.err), (0, "", ""))
        result = self.tool("wait", "--format", "json", "cluster/clstat=0", "--timeout", "0")
        self.assertEqual((result.status, result.json), (0, {"version": 1, "kind": "wait", "holds": True}))

    def test_wait_returns_as_soon_as_the_condition_holds(self):
        api = self.cluster()
        process = self.waiting("all servers/*/pingstat=1", "and", "cluster/clstat=2")
        for server in ("alpha", "beta", "gamma"):
            api.ok("shmnm_setpingstat", server, 1)
        self.assertIsNone(process.poll())
        api.ok("shmnm_setclstat", 2)
        self.assertEqual(process.wait(), 0)

    def test_wait_waits_while_a_condition_on_all_servers_has_no_server(self):
        api = self.region()
        process = self.waiting("all servers/*/pri=3")
        api.ok("shmnm_setclstat", 2)
        self.assertEqual(self.tool("wait", "cluster/clstat=2").status, 0)
        self.assertIsNone(process.poll())
        api.ok("shmnm_addnode", "alpha", 3)
        self.assertEqual(process.wait(), 0)

    def test_wait_reports_at_its_time_out_what_did_not_hold(self):
        self.cluster()
        for duration in ("50ms", "0.05s", "0.05", "0.001m", "0.00001h", "0", "0ms"):
            with self.subTest(duration):
                result = self.tool("wait", "exists cluster/clstat and all servers/*/pri = 0", "--timeout", duration)
                self.assertEqual(result.status, 4, result)
                self.assertEqual(result.err, f"shmnmctl: the condition did not hold within {duration}: all servers/*/pri = 0 (servers/beta/pri is 1, 1 more)\n")
        result = self.tool("wait", "cluster/clstat=1", "--timeout", "1ms", "--format", "json")
        self.assertEqual(result.error["message"], "the condition did not hold within 1ms: cluster/clstat=1 (it is 0)")

    def test_wait_refuses_an_invalid_duration(self):
        for duration in ("", "soon", "5 s", "1d", "-1", "-1s", "1msx", "ms", "inf", "nan", "1e300h"):
            with self.subTest(duration):
                result = self.tool("wait", "cluster/clstat=0", f"--timeout={duration}")
                self.assertEqual(result.status, 2, result)

    def test_needs_a_region_at_the_start(self):
        self.assertEqual(self.tool("wait", "cluster/clstat=0").status, 3)

    def test_wait_continues_when_a_region_ends_and_returns(self):
        api = self.cluster()
        process = self.waiting("cluster/clstat=3")
        api.end()
        # The one that waits may be looking just now, and the region lives while it does.
        while self.tool("get", "cluster/clstat").status != 3:
            pass
        self.region().ok("shmnm_setclstat", 3)
        self.assertEqual(process.wait(), 0)

    def test_wait_reports_a_missing_region_at_its_time_out(self):
        api = self.cluster()
        process = self.waiting("cluster/clstat=3", "--timeout", "3s")
        api.end()
        self.assertEqual(process.wait(), 4)
        self.assertEqual(self.last_error(process), "shmnmctl: the condition did not hold within 3s: no process holds the region any more")

    def test_wait_ends_in_time_even_if_the_lock_is_never_free(self):
        api = self.cluster()
        api.ok("shmnm_rwlock", 0)
        result = self.tool("wait", "cluster/clstat=0", "--timeout", "60ms", "--lock-timeout", "20")
        self.assertEqual(result.status, 4, result)
        self.assertRegex(result.err, r"^shmnmctl: the condition did not hold within 60ms: timed out after [0-9]+ ms waiting for the lock")
        # Without the time-out of the wait it is waited for, however often it does not come.
        process = self.waiting("cluster/clstat=0", "--lock-timeout", "1")
        self.assertEqual(self.tool("wait", "cluster/clstat=0", "--timeout", "60ms").status, 4)
        self.assertIsNone(process.poll())
        api.ok("shmnm_rwunlock")
        self.assertEqual(process.wait(), 0)

    def test_wait_ends_with_status_5_on_a_signal(self):
        self.cluster()
        for request in (signal.SIGINT,) if support.PLATFORM == "windows" else (signal.SIGINT, signal.SIGTERM, signal.SIGHUP):
            with self.subTest(request):
                process = self.waiting("cluster/clstat=9")
                process.send_signal(request)
                self.assertEqual(process.wait(), 5)
                self.assertEqual(self.last_error(process), "shmnmctl: interrupted before the condition held: cluster/clstat=9 (it is 0)")


if __name__ == "__main__":
    support.main()
