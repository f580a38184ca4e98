"""The event stream of shmnmweb."""
import json

import web_support
from web_support import WebTest


class Events(WebTest):
    def test_the_whole_picture_comes_first_and_then_each_change(self):
        region = self.cluster()
        web = self.serve()
        stream = self.stream(web)
        name, identity, told = stream.any()
        self.assertEqual((name, told["stale"], told["history"], told["merged"]), ("picture", None, [], 0))
        self.assertEqual(told["picture"], web.get("/picture.json").json)
        self.assertEqual(identity, f"{told['run']}-{told['sequence']}")
        for value in (1, 2, 3):
            region.ok("shmnm_setclstat", value)
            name, identity, changed = stream.next()
            self.assertEqual(name, "changes")
            self.assertEqual(changed["changes"], [{"key": "cluster/clstat", "old": value - 1, "new": value}])
            self.assertEqual((changed["run"], changed["sequence"]), (told["run"], told["sequence"] + value))

    def test_a_word_that_is_set_without_the_lock_is_seen_too(self):
        region = self.cluster()
        web = self.serve()
        stream = self.stream(web)
        stream.next()
        region.ok("shmnm_setpingstat", "beta", 5)
        self.assertEqual(stream.next()[2]["changes"], [{"key": "servers/beta/pingstat", "old": 0, "new": 5}])

    def test_what_is_more_than_words_comes_as_the_whole_picture(self):
        region = self.cluster()
        web = self.serve()
        stream = self.stream(web)
        stream.next()
        for call in (("shmnm_addnode", "delta", 9), ("shmnm_sethbdescript", "lan", "lanhb1", b"text" + bytes(252), 256), ("shmnm_rmnode", "alpha")):
            with self.subTest(call[0]):
                region.ok(*call)
                name, _, told = stream.next()
                self.assertEqual(name, "picture")
                self.assertEqual(json.dumps(told["picture"]), json.dumps(self.tool("status", "--format", "json").json))

    def test_a_client_that_comes_back_gets_what_it_missed_as_one_event(self):
        region = self.cluster()
        web = self.serve()
        other, stream = self.stream(web), self.stream(web)
        other.next()
        _, identity, told = stream.next()
        stream.close()
        for value in (5, 6):
            region.ok("shmnm_setclstat", value)
            other.next()
        region.ok("shmnm_setwaitstat", 1)
        other.next()
        region.ok("shmnm_setwaitstat", 0)
        other.next()
        name, _, merged = self.stream(web, identity).next()
        self.assertEqual((name, merged["merged"], merged["sequence"]), ("changes", 3, told["sequence"] + 4))
        self.assertEqual(merged["changes"], [{"key": "cluster/clstat", "old": 0, "new": 6}])

    def test_a_client_that_missed_nothing_is_told_so(self):
        self.cluster()
        web = self.serve()
        _, identity, _ = self.stream(web).next()
        self.assertEqual(self.stream(web, identity).any()[0], "alive")

    def test_an_id_of_another_run_brings_the_whole_picture(self):
        self.cluster()
        first, second = self.serve(), self.serve()
        _, identity, _ = self.stream(first).next()
        for last in (identity, "0-1", "-", "x" * 100, identity.split("-")[0] + "-18446744073709551616"):
            with self.subTest(last):
                self.assertEqual(self.stream(second, last).next()[0], "picture")

    def test_the_region_that_goes_and_comes_back_is_told(self):
        region = self.cluster()
        web = self.serve()
        stream = self.stream(web)
        stream.next()
        region.end()
        told = stream.next()[2]
        self.assertIsNone(told["picture"])
        self.assertIn("no process holds the region", told["stale"]["message"])
        self.cluster()
        while not told["picture"] or not told["picture"]["np"]:
            told = stream.next("picture")[2]
        self.assertIsNone(told["stale"])
        self.assertEqual([entry["event"] for entry in told["history"] if "event" in entry], ["gone", "replaced"])

    def test_the_last_200_changes_are_kept_with_their_times(self):
        region = self.cluster()
        web = self.serve()
        stream = self.stream(web)
        stream.next()
        for value in range(1, 203):
            region.ok("shmnm_setclstat", value)
            while stream.next()[2]["changes"][-1]["new"] != value:
                pass
        history = self.stream(web).next()[2]["history"]
        self.assertEqual(len(history), 200)
        self.assertEqual([entry["new"] for entry in history], list(range(3, 203)))
        self.assertEqual({entry["key"] for entry in history}, {"cluster/clstat"})
        times = [entry["time"] for entry in history]
        self.assertEqual(times, sorted(times))

    def test_a_slow_client_gets_the_latest_state_and_is_told_what_was_merged(self):
        self.configure(server=128, hbr=1, npr=1, fstr=1)
        region = self.region()
        names = [f"server{i:03}" for i in range(128)]
        for i, name in enumerate(names):
            region.ok("shmnm_addnode", name, i)
        # It takes nothing in for longer than the server's own time-out, if this machine is busy.
        web = self.serve("--write-timeout", "3600")
        slow, fast = web_support.Stream(web.slow_connection(), server=web), self.stream(web)
        self.addCleanup(slow.close)
        first = slow.next()[2]["sequence"]
        fast.next()
        # Far more than the system's buffers hold, while the slow client takes in nothing.
        for value in range(1, 101):
            region.ok("shmnm_rwlock", 5000)
            for name in names:
                region.ok("shmnm_setpingstat", name, value)
            region.ok("shmnm_rwunlock")
            while fast.next()[2]["changes"][-1]["new"] != value:
                pass
        events = []
        while not events or events[-1]["changes"][-1]["new"] != 100:
            events.append(slow.next()[2])
        self.assertGreater(max(event["merged"] for event in events), 0)
        self.assertEqual(sum(event["merged"] + 1 for event in events), events[-1]["sequence"] - first)
        self.assertEqual(len(events[-1]["changes"]), 128)

    def test_a_comment_and_a_sign_of_life_come_when_nothing_changes(self):
        self.cluster()
        web = self.serve()
        stream = self.stream(web)
        stream.next()
        while stream.comments == 0:
            name, identity, told = stream.any()
            self.assertEqual((name, identity), ("alive", None))
            self.assertIsNotNone(told["copied"])


if __name__ == "__main__":
    web_support.main()
