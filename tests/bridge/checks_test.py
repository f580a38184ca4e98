#!/usr/bin/env python3
# Tests that what is checked of the bridge's schedules fails for what is wrong, and for nothing else.
import sys
import types
import unittest

import bridge_checks
from bridge_support import Event, History


class Machine(types.SimpleNamespace):
    __hash__ = object.__hash__


class Findings(unittest.TestCase):
    KEY = "cluster/clstat"

    def check(self, shown, written=(), cleared=(), regions=()):
        """Shown are (time, value). In etcd the value 10 + n has the revision n."""
        machine = Machine(
            server="alpha", marks=[], cleared=list(cleared), shown=[Event(time, self.KEY, value) for time, value in shown],
            written=[Event(time, self.KEY, value) for time, value in written], region=[Event(time, "", value) for time, value in regions])
        history = types.SimpleNamespace(changes=[(revision, "agreed/clstat", {"value": [10 + revision, 0]}) for revision in range(1, 9)])
        checker = bridge_checks.Checker(types.SimpleNamespace(machines=[machine]), history, [], 0, 100)
        checker.check_words_never_fall()
        return checker.findings

    def test_an_agreed_word_that_rises_is_right(self):
        self.assertEqual(self.check([(1, 11), (2, 13), (3, 18)]), [])

    def test_an_agreed_word_that_falls_is_found(self):
        found = ["invariant 2: cluster/clstat on alpha falls from 5 to 3 at 3.00 s"]
        self.assertEqual(self.check([(1, 11), (2, 15), (3, 13)]), found)
        self.assertEqual(self.check([(1, 11), (2, 15), (3, 13)], written=[(2, 15)]), found, "in one region a word never falls")
        self.assertEqual(self.check([(1, 11), (2, 15), (3, 13)], cleared=[2.5]), found, "another machine's value has been heard of")
        self.assertEqual(self.check([(1, 11), (2, 15), (3, 13)], written=[(2, 15)], cleared=[1.5]), found, "cleared before it was set")

    def test_a_value_that_etcd_may_not_have_accepted_yet_ends_with_its_region(self):
        self.assertEqual(self.check([(1, 11), (2, 15), (3, 13)], written=[(2, 15)], cleared=[2.5]), [])
        self.assertEqual(self.check([(1, 11), (2, 15), (3, 13)], written=[(2, 15)], regions=[(0, 1), (2.2, 0), (2.5, 1)]), [])
        self.assertEqual(self.check([(1, 14), (2, 15), (3, 13)], written=[(2, 15)], cleared=[2.5]),
                         ["invariant 2: cluster/clstat on alpha falls from 4 to 3 at 3.00 s"])


class Histories(unittest.TestCase):
    def history_after(self, read, compacted):
        """A history that has come to a revision when a member answers that an older watch begins before the last compaction."""
        history = object.__new__(History)
        history.revision, history.ended, history.is_lost, history.changes = read, False, False, []
        history.take({"compact_revision": str(compacted)})
        return history

    def test_a_history_is_lost_if_it_has_not_come_to_the_compaction(self):
        self.assertTrue(self.history_after(7, 9).is_lost)

    def test_a_history_that_has_come_to_the_compaction_meanwhile_is_not_lost(self):
        self.assertFalse(self.history_after(8, 9).is_lost)
        self.assertFalse(self.history_after(20, 9).is_lost)


if __name__ == "__main__":
    sys.exit(unittest.main())
