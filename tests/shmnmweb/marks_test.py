"""The marks of the bridge between machines over HTTP: document, events, metrics, conditions, snapshots."""
import subprocess

import web_support
from web_support import WebTest, support

FRESH = ("beta", "fresh", {"age_ms": 200, "revision": 7, "address": "http://beta.example:9683"})
SILENT = ("gamma", "silent", {"age_ms": 7000})
NAMELESS = {"server": "alpha"}


class Marks(WebTest):
    def setUp(self):
        super().setUp()
        self.cluster()
        self.marks = self.bridge()
        self.marks.says(FRESH, SILENT, contested=["cluster/clstat"], proposals={"proposed": 4, "accepted": 1, "lost": 3})
        self.web = self.serve()

    def test_the_document_has_them_and_their_ages_move_on(self):
        document = self.web.get("/picture.json").json
        web_support.support.VALIDATOR.validate(document)
        bridge = document["bridge"]
        self.assertEqual((bridge["up"], bridge["server"], bridge["contested"]), (True, "alpha", ["cluster/clstat"]))
        self.assertEqual([(each["name"], each["freshness"]) for each in bridge["servers"]], [("beta", "fresh"), ("gamma", "silent")])
        self.marks.says(("gamma", "silent", {"age_ms": 90_000}))
        self.web.until("/picture.json", lambda answer: answer.json["bridge"]["servers"][0].get("age_ms", 0) >= 90_000)

    def test_a_changed_mark_is_an_event_and_a_passed_second_is_none(self):
        stream = self.stream(self.web)
        kind, _, begun = stream.next()
        self.assertEqual((kind, begun["picture"]["bridge"]["servers"][0]["freshness"]), ("picture", "fresh"))
        # Ages and revisions move; nobody is told.
        self.marks.says(("beta", "fresh", {**FRESH[2], "age_ms": 900, "revision": 8}), SILENT, contested=["cluster/clstat"],
                        proposals={"proposed": 4, "accepted": 1, "lost": 3})
        self.marks.says(("beta", "silent", FRESH[2]), SILENT, contested=["cluster/clstat"], proposals={"proposed": 4, "accepted": 1, "lost": 3})
        kind, _, told = stream.next()
        self.assertEqual((kind, told["changes"]), ("changes", [{"key": "bridge/servers/beta/freshness", "old": 1, "new": 2}]))

    def test_another_address_sends_the_whole_picture(self):
        stream = self.stream(self.web)
        stream.next()
        self.marks.says(("beta", "fresh", {**FRESH[2], "address": "http://elsewhere:1"}), SILENT, contested=["cluster/clstat"],
                        proposals={"proposed": 4, "accepted": 1, "lost": 3})
        kind, _, told = stream.next()
        self.assertEqual((kind, told["picture"]["bridge"]["servers"][0]["address"]), ("picture", "http://elsewhere:1"))

    def test_a_bridge_that_ends_is_told(self):
        stream = self.stream(self.web)
        stream.next()
        self.marks.end()
        kind, _, told = stream.next()
        # Its texts are gone with it, so the whole picture is sent.
        self.assertEqual((kind, told["picture"]["bridge"]["up"], told["picture"]["bridge"]["servers"]), ("picture", False, []))

    def test_conditions_see_them(self):
        self.assertTrue(self.web.get("/query?condition=bridge/servers/gamma/freshness=2").json["holds"])
        self.assertFalse(self.web.get("/query?condition=all%20bridge/servers/*/freshness=1").json["holds"])

    def test_health_checks_do_not_look_at_them(self):
        self.assertEqual(self.web.get("/healthz").status, 200)
        self.marks.says(FRESH, written_ms_ago=9000)
        self.web.until("/picture.json", lambda answer: not answer.json["bridge"]["up"])
        self.assertEqual(self.web.get("/healthz").status, 200)

    def test_metrics_tell_of_them(self):
        answer = self.web.get("/metrics?collect[]=bridge")
        for line in ("shmnm_bridge_up 1", "shmnm_bridge_connected 1", "shmnm_bridge_refused 0", "shmnm_bridge_contested_words 1",
                     "shmnm_bridge_unmatched_records 0", "shmnm_bridge_proposals_total 4", "shmnm_bridge_proposals_lost_total 3",
                     'shmnm_bridge_server_fresh{server="beta"} 1', 'shmnm_bridge_server_fresh{server="gamma"} 0',
                     'shmnm_bridge_server_silent{server="gamma"} 1'):
            with self.subTest(line):
                self.assertIn("\n" + line + "\n", answer.text)
        self.assertRegex(answer.text, r'\nshmnm_bridge_server_age_seconds\{server="gamma"\} [0-9]+\.[0-9]{3}\n')
        done = subprocess.run(["promtool", "check", "metrics"], input=answer.body, capture_output=True)
        self.assertEqual((done.returncode, done.stdout, done.stderr), (0, b"", b""))
        self.marks.end()
        self.web.until("/metrics?collect[]=bridge", lambda later: "\nshmnm_bridge_up 0\n" in later.text and "bridge_connected" not in later.text)

    def test_from_reads_them_with_the_region(self):
        address = f"http://127.0.0.1:{self.web.address[1]}"
        elsewhere = dict(self.environment, KZMUTIL_NAMESPACE=self.environment["KZMUTIL_NAMESPACE"] + "elsewhere-")
        here = self.tool("status", "--format", "json").json["bridge"]
        there = self.tool("status", "--format", "json", "--from", address, environment=elsewhere).json["bridge"]
        for bridge in (here, there):
            for server in bridge["servers"]:
                self.assertGreaterEqual(server.pop("age_ms"), 200)
        self.assertEqual(here, there)
        waiting = self.start("wait", "bridge/servers/gamma/freshness=1", "--timeout", "30s", "--from", address, environment=elsewhere)
        self.marks.says(FRESH, ("gamma", "fresh", {}))
        self.assertEqual(waiting.wait(timeout=web_support.DEADLINE), 0)

    def test_a_snapshot_that_is_known_is_sent_again_if_a_mark_has_changed(self):
        tag = self.web.get("/snapshot").fields["ETag"]
        self.marks.says(("beta", "unknown", FRESH[2]), SILENT)
        self.web.until("/snapshot", lambda answer: answer.fields["ETag"] != tag)
        self.assertEqual(self.web.get("/snapshot", If_None_Match=tag).status, 200)


if __name__ == "__main__":
    support.main()
