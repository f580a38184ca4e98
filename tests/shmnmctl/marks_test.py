"""The marks of the bridge between machines: beside the servers, as words, and what is said when the bridge stands still."""
import json
import unittest

import support
from support import ToolTest

FRESH = ("beta", "fresh", {"age_ms": 200, "revision": 7, "address": "http://beta.example:9683"})
SILENT = ("gamma", "silent", {"age_ms": 7000, "claimed": False})


class Marks(ToolTest):
    def words(self):
        """The words of the bridge, without those that move."""
        words = self.tool("list", "bridge", "--format", "json").json["words"]
        return {key: value for key, value in words.items() if not key.endswith("/age_ms")}

    def row(self, server, *options):
        lines = self.tool("status", *options).lines
        return next(line for line in lines if line.startswith(server + " ")).split()

    def test_without_a_bridge_there_is_one_word(self):
        self.cluster()
        self.assertEqual(self.words(), {"bridge/up": 0})
        self.assertNotIn("bridge", self.tool("status").out)
        self.assertEqual(self.tool("status", "bridge").lines, ["bridge      none"])
        bridge = self.tool("status", "--format", "json").json["bridge"]
        self.assertEqual((bridge["up"], bridge["stopped_ms"], bridge["servers"]), (False, None, []))

    def test_status_marks_each_server(self):
        self.cluster()
        self.bridge().says(FRESH, SILENT, contested=["cluster/clstat"], unmatched=["servers/delta"])
        out = self.tool("status").out
        self.assertIn(
            "\nbridge      up  connected yes  running yes  refused no  fed yes  contested 1  unmatched 1  proposed 0  accepted 0  lost 0  replaced 0\n"
            "contested   cluster/clstat\nunmatched   servers/delta\n",
            out,
        )
        self.assertEqual(self.row("server")[-1], "mark")
        self.assertEqual(self.row("alpha")[-1], "own")
        self.assertEqual(self.row("beta")[-1], "fresh")
        self.assertEqual(self.row("gamma")[-2:-1], ["silent"])
        self.assertRegex(self.row("gamma")[-1], r"^[0-9]+s$")

    def test_status_names_servers_with_other_times(self):
        self.cluster()
        self.bridge().says(FRESH, ("gamma", "fresh", {"other_times": True}))
        self.assertIn("\nother times gamma\n", self.tool("status").out)
        servers = self.tool("status", "--format", "json").json["bridge"]["servers"]
        self.assertEqual([(server["name"], server["other_times"]) for server in servers], [("beta", False), ("gamma", True)])

    def test_status_counts_servers_that_have_no_mark_for_want_of_room(self):
        self.cluster()
        self.bridge().says(*[(f"server{number}", "fresh", {}) for number in range(260)])
        self.assertIn("\nno marks    4 more servers\n", self.tool("status").out)
        bridge = self.tool("status", "--format", "json").json["bridge"]
        self.assertEqual((len(bridge["servers"]), bridge["lost_servers"]), (256, 4))

    def test_a_server_without_a_mark_is_unknown(self):
        self.cluster()
        self.bridge().says(FRESH)
        self.assertEqual(self.row("gamma")[-1], "unknown")

    def test_json_tells_all_of_each_mark(self):
        self.cluster()
        self.bridge().says(FRESH, SILENT, proposals={"proposed": 5, "accepted": 3, "lost": 1, "replaced": 2}, member="http://etcd:2379")
        bridge = self.tool("status", "--format", "json").json["bridge"]
        ages = [server.pop("age_ms") for server in bridge["servers"]]
        self.assertGreaterEqual(ages[0], 200)
        self.assertGreaterEqual(ages[1], 7000)
        plain = {"unmatched": False, "duplicate_priority": False, "other_names": False, "other_times": False}
        self.assertEqual(
            bridge["servers"],
            [
                {"name": "beta", "freshness": "fresh", "revision": 7, "address": "http://beta.example:9683", "claimed": True, **plain},
                {"name": "gamma", "freshness": "silent", "revision": 0, "address": "", "claimed": False, **plain},
            ],
        )
        self.assertEqual(bridge["proposals"], {"proposed": 5, "accepted": 3, "lost": 1, "replaced": 2})
        self.assertEqual((bridge["up"], bridge["connected"], bridge["server"], bridge["member"]), (True, True, "alpha", "http://etcd:2379"))

    def test_marks_are_words(self):
        self.cluster()
        self.bridge().says(FRESH, SILENT, connected=False, proposals={"lost": 4})
        words = self.words()
        self.assertEqual((words["bridge/up"], words["bridge/connected"], words["bridge/lost"]), (1, 0, 4))
        self.assertEqual((words["bridge/servers/beta/freshness"], words["bridge/servers/gamma/freshness"]), (1, 2))
        self.assertEqual((words["bridge/servers/beta/revision"], words["bridge/servers/gamma/claimed"]), (7, 0))
        self.assertEqual(self.tool("query", "all bridge/servers/*/freshness=1").status, 1)
        self.assertEqual(self.tool("query", "bridge/servers/gamma/age_ms>=7000 and bridge/up=1").status, 0)
        self.assertEqual(self.tool("get", "bridge/servers/beta/freshness").out, "1\n")
        wrong = self.tool("get", "bridge/servers/beta/fresness")
        self.assertEqual((wrong.status, wrong.err), (2, 'shmnmctl: no such word "fresness"; did you mean "freshness"?\n'))

    def test_nobody_sets_them_and_a_listing_can_still_be_set(self):
        self.cluster()
        self.bridge().says(FRESH)
        wrong = self.tool("set", "bridge/up", "0")
        self.assertEqual((wrong.status, wrong.err), (5, "shmnmctl: cannot set bridge/up: only the bridge between machines says it\n"))
        listing = self.tool("list").out
        self.assertIn("bridge/servers/beta/age_ms", listing)
        self.assertEqual(self.tool("set", "-", input=listing).status, 0)

    def test_marks_that_stand_still_vouch_for_nothing(self):
        self.cluster()
        bridge = self.bridge()
        bridge.says(FRESH, SILENT, written_ms_ago=7000)
        told = self.tool("status", "--format", "json").json["bridge"]
        self.assertFalse(told["up"])
        self.assertGreaterEqual(told["stopped_ms"], 7000)
        self.assertEqual([server["freshness"] for server in told["servers"]], ["unknown", "unknown"])
        self.assertGreaterEqual(told["servers"][0]["age_ms"], 7200)
        self.assertRegex(self.tool("status").out, r"\nbridge      stopped for [0-9]+s  connected no ")
        self.assertEqual(self.row("beta")[-2], "unknown")
        self.assertEqual(self.tool("query", "bridge/up=0 and bridge/servers/beta/freshness=0").status, 0)
        bridge.says(FRESH, SILENT)
        self.assertEqual(self.row("beta")[-1], "fresh")

    def test_a_bridge_that_was_stopped_within_a_write_is_not_up(self):
        self.cluster()
        self.bridge().says(FRESH, odd=True)
        self.assertEqual(self.words(), {"bridge/up": 0})

    def test_marks_vanish_with_their_bridge(self):
        self.cluster()
        bridge = self.bridge()
        bridge.says(FRESH)
        self.assertEqual(self.words()["bridge/up"], 1)
        bridge.process.kill()
        bridge.process.wait()
        self.assertEqual(self.words(), {"bridge/up": 0})

    def test_wait_sees_a_mark_change(self):
        self.cluster()
        bridge = self.bridge()
        bridge.says(FRESH, SILENT)
        waiting = self.start("wait", "bridge/servers/gamma/freshness=1", "--timeout", "30s")
        bridge.says(FRESH, ("gamma", "fresh", {"age_ms": 1}))
        self.assertEqual(waiting.wait(timeout=support.DEADLINE), 0)

    def test_watch_tells_of_marks_but_not_of_ages_and_misses_no_step(self):
        self.cluster()
        bridge = self.bridge()
        bridge.says(FRESH, SILENT)
        watch = self.start("watch", "--from-start", "--format", "json", "--interval", "5ms")

        def event():
            return json.loads(watch.stdout.readline())

        begun = event()
        while begun["key"] != "bridge/servers/gamma/claimed":
            self.assertNotIn("age_ms", begun["key"])
            begun = event()
        bridge.says(("beta", "silent", {"age_ms": 5000, "revision": 8}), SILENT)
        told = event()
        self.assertEqual((told["kind"], told["key"], told["old"], told["new"]), ("change", "bridge/servers/beta/freshness", 1, 2))

    def test_a_dump_has_no_marks_and_an_export_neither(self):
        self.cluster()
        self.bridge().says(FRESH)
        file = self.folder / "dump"
        file.write_bytes(self.dumped())
        self.assertNotIn("bridge", self.tool("status", "--format", "json", "--file", support.path(file)).json)
        self.assertNotIn("bridge", self.tool("export").json)
        self.assertEqual(self.tool("diff", "live", support.path(file)).status, 0)

    def test_names_that_are_not_escaped_are_left_out(self):
        self.cluster()
        self.bridge().says(("be/ta", "fresh", {}), ("%zz", "fresh", {}), ("a%20b", "fresh", {"address": "http://x\x1b[31m"}))
        servers = self.tool("status", "--format", "json").json["bridge"]["servers"]
        self.assertEqual([(server["name"], server["address"]) for server in servers], [("a%20b", "http://x%1B[31m")])


if __name__ == "__main__":
    support.main()
