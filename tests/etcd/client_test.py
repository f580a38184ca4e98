#!/usr/bin/env python3
"""The client of etcd against one real member: requests, leases, watches, and what etcd refuses."""
import os
import unittest

from etcd_support import PLATFORM, Cluster, EtcdTest, main


class Requests(EtcdTest):
    @classmethod
    def setUpClass(cls):
        cls.cluster = Cluster(cls.addClassCleanup)

    def setUp(self):
        self.etcd = self.client(self.cluster.endpoints)
        self.prefix = f"/{self.id()}/"

    def key(self, name):
        return self.prefix + name

    def values(self, answer):
        return [[(entry["key"].removeprefix(self.prefix), entry["value"]) for entry in found] for found in answer["found"]]

    def test_a_transaction_that_holds_does_all_of_its_first_half(self):
        first = self.assert_done(self.etcd.ask(put={"key": self.key("a"), "value": "1"}))
        answer = self.etcd.ask(
            **{"if": [{"key": self.key("a"), "changed": first["revision"]}, {"key": self.key("a"), "created": first["revision"]},
                      {"key": self.key("a"), "value": "1"}, {"key": self.key("b"), "changed": 0}]},
            then=[{"put": {"key": self.key("a"), "value": "2"}}, {"put": {"key": self.key("b"), "value": "3"}}, {"read": {"below": self.prefix}}],
            otherwise=[{"put": {"key": self.key("a"), "value": "wrong"}}])
        self.assert_done(answer)
        self.assertTrue(answer["succeeded"])
        self.assertEqual(answer["revision"], first["revision"] + 1)
        self.assertEqual(self.values(answer), [[("a", "2"), ("b", "3")]])
        entry = answer["found"][0][0]
        self.assertEqual((entry["created"], entry["changed"], entry["version"]), (first["revision"], first["revision"] + 1, 2))

    def test_a_transaction_that_does_not_hold_does_its_other_half(self):
        first = self.assert_done(self.etcd.ask(put={"key": self.key("a"), "value": "1"}))
        for wrong in ({"changed": first["revision"] - 1}, {"created": 0}, {"value": "2"}):
            answer = self.etcd.ask(**{"if": [{"key": self.key("a"), **wrong}]}, then=[{"put": {"key": self.key("a"), "value": "wrong"}}],
                                   otherwise=[{"read": {"key": self.key("a")}}, {"read": {"key": self.key("none")}}])
            self.assert_done(answer)
            self.assertFalse(answer["succeeded"])
            self.assertEqual(answer["revision"], first["revision"])
            self.assertEqual(self.values(answer), [[("a", "1")], []])

    def test_keys_below_a_prefix_are_deleted_and_no_others(self):
        for name in ("a/1", "a/2", "b"):
            self.etcd.ask(put={"key": self.key(name), "value": "x"})
        self.assert_done(self.etcd.ask(then=[{"delete": {"below": self.key("a/")}}]))
        self.assertEqual(self.values(self.etcd.ask(read={"below": self.prefix})), [[("b", "x")]])

    def test_values_hold_any_text_and_many_bytes(self):
        etcd = self.client(self.cluster.endpoints, timeout=20_000)
        for value in ("", "\0", "\"\\\n\x7f", "äß€\U0001f600", "x" * 1_000_000):
            self.assert_done(etcd.ask(put={"key": self.key("a"), "value": value}))
            self.assertEqual(self.assert_done(etcd.ask(read={"key": self.key("a")}))["found"][0][0]["value"], value)

    def test_every_answer_names_the_cluster_and_its_revision(self):
        grant = self.etcd.ask(grant=10)
        answers = [grant, self.etcd.ask(put={"key": self.key("a"), "value": "1"}), self.etcd.ask(read={"key": self.key("a")}),
                   self.etcd.ask(keep_alive=grant["lease"]), self.etcd.ask(then=[]), self.etcd.ask(revoke=grant["lease"])]
        self.assertEqual(len({answer["cluster"] for answer in answers}), 1)
        self.assertGreater(int(answers[0]["cluster"]), 0)
        revisions = [answer["revision"] for answer in answers]
        self.assertEqual(revisions, [grant["revision"]] + [grant["revision"] + 1] * 5)

    def test_a_lease_takes_its_keys_with_it(self):
        grant = self.assert_done(self.etcd.ask(grant=30))
        self.assertEqual(grant["seconds"], 30)
        self.assert_done(self.etcd.ask(put={"key": self.key("a"), "value": "1", "lease": grant["lease"]}))
        self.assertEqual(self.assert_done(self.etcd.ask(keep_alive=grant["lease"]))["seconds"], 30)
        self.assertEqual(self.etcd.ask(read={"key": self.key("a")})["found"][0][0]["lease"], grant["lease"])
        self.assert_done(self.etcd.ask(revoke=grant["lease"]))
        self.assertEqual(self.etcd.ask(read={"key": self.key("a")})["found"], [[]])

    def test_a_lease_that_has_ended_is_told(self):
        lease = self.etcd.ask(grant=30)["lease"]
        self.assert_done(self.etcd.ask(revoke=lease))
        kept = self.assert_done(self.etcd.ask(keep_alive=lease))
        self.assertEqual(kept["seconds"], 0)
        put = self.etcd.ask(put={"key": self.key("a"), "value": "1", "lease": lease})
        self.assertEqual((put["failure"], put["reason"]), ("no_lease", "etcdserver: requested lease not found"))
        self.assertEqual(self.etcd.ask(revoke=lease)["failure"], "no_lease")
        self.assertEqual(self.etcd.ask(read={"key": self.key("a")})["found"], [[]])

    def test_a_watch_tells_each_change_when_it_is_made(self):
        watch = self.etcd.watch(below=self.prefix)
        for i in range(20):
            self.etcd.ask(put={"key": self.key("a"), "value": str(i)})
            self.assertEqual(self.etcd.events(watch, 1), [(self.key("a"), str(i))])
        self.etcd.ask(put={"key": "/elsewhere", "value": "x"})
        self.etcd.ask(then=[{"delete": {"key": self.key("a")}}])
        self.assertEqual(self.etcd.events(watch, 1), [(self.key("a"), None)])

    def test_a_watch_begins_at_a_revision(self):
        first = self.etcd.ask(put={"key": self.key("a"), "value": "1"})["revision"]
        for value in "234":
            self.etcd.ask(put={"key": self.key("a"), "value": value})
        watch = self.etcd.watch(below=self.prefix, **{"from": first + 2})
        self.assertEqual(self.etcd.events(watch, 2), [(self.key("a"), "3"), (self.key("a"), "4")])

    def test_a_watch_that_is_not_wanted_any_more_says_nothing(self):
        ended, other = self.etcd.watch(below=self.prefix), self.etcd.watch(below=self.prefix)
        self.etcd.tell(unwatch=ended)
        self.etcd.ask(put={"key": self.key("a"), "value": "1"})
        self.assertEqual(self.etcd.events(other, 1), [(self.key("a"), "1")])
        self.assertTrue(self.etcd.of(ended).empty())

    def test_a_compacted_revision_is_told(self):
        revision = 0
        for value in "123":
            revision = self.etcd.ask(put={"key": self.key("a"), "value": value})["revision"]
        self.assert_done(self.etcd.ask(compact=revision))
        watch = self.etcd.command(watch={"below": self.prefix, "from": revision - 2})
        line = self.etcd.next(watch)
        if "message" in line:
            self.assertEqual(line["message"]["events"], [])
            line = self.etcd.next(watch)
        self.assertEqual((line["end"], line["compact_revision"]), ("compacted", revision))
        self.assertEqual(self.etcd.ask(compact=revision)["failure"], "compacted")

    def test_more_requests_than_may_wait_are_not_sent(self):
        etcd = self.client(self.cluster.endpoints, request_limit=5)
        self.cluster.members[0].stop()
        numbers = [etcd.send(put={"key": self.key(str(i)), "value": "1"}) for i in range(8)]
        refused = [etcd.answer(number) for number in numbers[5:]]
        self.cluster.members[0].go_on()
        self.assertEqual({(answer["failure"], answer["reason"]) for answer in refused}, {("not_sent", "too many requests wait for an answer")})
        for number in numbers[:5]:
            etcd.answer(number)

    def test_ten_thousand_requests_take_no_memory_and_no_descriptors(self):
        def used():
            descriptors = len(os.listdir(f"/proc/{self.etcd.process.pid}/fd")) if PLATFORM == "linux" else 0
            return self.etcd.tell(memory=True)["bytes"], descriptors

        watch = self.etcd.watch(key=self.key("none"))
        requests = 10_000 if PLATFORM == "linux" else 2_000
        self.assertEqual(self.etcd.tell(put_often=500, key=self.key("a"))["failed"], 0)
        before = used()
        self.assertEqual(self.etcd.tell(put_often=requests, key=self.key("a"))["failed"], 0)
        after = used()
        print(f"{requests} requests: {before[0]} bytes before, {after[0]} after")
        self.assertLess(after[0] - before[0], 8_192)
        self.assertEqual(after[1], before[1])
        self.assertTrue(self.etcd.of(watch).empty())


class FullDatabase(EtcdTest):
    def test_writes_are_refused_and_keep_alives_are_not(self):
        etcd = self.client(Cluster(self.addCleanup, options=("--quota-backend-bytes", "200000")).endpoints)
        lease = etcd.ask(grant=60)["lease"]
        # etcd compares its quota with its size as of the last commit, so a fast client may write more than the quota.
        answers = (etcd.ask(put={"key": "a", "value": "x" * 100_000}) for _ in range(200))
        refused = next((answer for answer in answers if answer["failure"] != "none"), None)
        self.assertIsNotNone(refused, "20 MB were accepted")
        self.assertEqual((refused["failure"], refused["reason"]), ("full", "etcdserver: mvcc: database space exceeded"))
        transaction = etcd.ask(then=[{"put": {"key": "b", "value": "1"}}])
        self.assertEqual(transaction["failure"], "full")
        self.assertEqual(self.assert_done(etcd.ask(keep_alive=lease))["seconds"], 60)
        self.assertEqual(self.assert_done(etcd.ask(read={"key": "b"}))["found"], [[]])


if __name__ == "__main__":
    main()
