#!/usr/bin/env python3
"""Tests of the endurance run's own checks: each must find the fault that it is for, and nothing else.

    checks_test.py linux FOLDER [unittest arguments]
"""
import pathlib
import random
import re
import shutil
import subprocess
import sys
import tempfile
import unittest

PROJECT = pathlib.Path(__file__).resolve().parents[2]
sys.path.insert(0, str(PROJECT / "tests/etcd"))

import machine as machines  # noqa: E402
from flatness import Bound, judged  # noqa: E402
from followers import Watch  # noqa: E402
from journal import differences  # noqa: E402
from processes import until  # noqa: E402
from samples import BOUNDS, figures  # noqa: E402

FOLDER = pathlib.Path(sys.argv[2]).resolve()
CHANCE = random.Random(19)


def series(value, count=200):
    return [(float(moment), value(moment)) for moment in range(count)]


def verdict(samples, bound):
    return judged(samples, bound, samples[0][0], samples[-1][0])


class Flatness(unittest.TestCase):
    def test_noise_without_growth_is_flat(self):
        for amount in (1, 50, 300):
            found = verdict(series(lambda _: 1_000 + CHANCE.uniform(-amount, amount)), Bound(100))
            self.assertTrue(found.is_flat, found)

    def test_growth_beyond_the_bound_is_found_under_noise(self):
        found = verdict(series(lambda moment: 1_000 + 1.5 * moment + CHANCE.uniform(-50, 50)), Bound(100))
        self.assertFalse(found.is_flat, found)
        self.assertAlmostEqual(found.growth, 1.5 * 150, delta=45)

    def test_one_descriptor_in_the_whole_run_is_found(self):
        self.assertFalse(verdict(series(lambda moment: 8 + (moment >= 120)), BOUNDS["descriptors"]).is_flat)

    def test_a_figure_that_comes_back_is_flat(self):
        self.assertTrue(verdict(series(lambda moment: 12 + 3 * (moment % 7 > 4)), BOUNDS["descriptors"]).is_flat)

    def test_a_quarter_of_wild_samples_hides_no_growth_and_feigns_none(self):
        def wild(moment):
            return CHANCE.choice((0, 100_000)) if moment % 4 == 0 else 1_000
        self.assertTrue(verdict(series(wild), Bound(100)).is_flat)
        self.assertFalse(verdict(series(lambda moment: wild(moment) + (2 * moment if moment % 4 else 0)), Bound(100)).is_flat)

    def test_growth_in_the_warm_up_does_not_count(self):
        self.assertTrue(verdict(series(lambda moment: min(moment, 40) * 100), Bound(1)).is_flat)

    def test_a_longer_run_finds_slower_growth(self):
        slow = 0.2
        self.assertTrue(verdict(series(lambda moment: slow * moment, 300), Bound(100)).is_flat)
        self.assertFalse(verdict(series(lambda moment: slow * moment, 3_000), Bound(100)).is_flat)

    def test_too_few_samples_are_no_verdict(self):
        self.assertFalse(verdict(series(lambda moment: moment, 20), Bound(1)).is_measured)


class Journals(unittest.TestCase):
    VALUES = {"servers/alpha/pingstat": {1_004, 1_005}, "servers/alpha/holdstat": {1_007}, "servers/temp/pri": {0}}

    def test_the_last_completed_and_the_interrupted_call_are_permitted(self):
        for value in ("1004", "1005"):
            self.assertEqual(differences({"servers/alpha/pingstat": value, "servers/alpha/holdstat": "1007"}, self.VALUES), [])

    def test_any_other_value_or_none_or_a_record_too_many_is_a_difference(self):
        shown = {"servers/alpha/pingstat": "1003", "servers/temp/pri": "99"}
        self.assertEqual([text.split(",")[0] for text in differences(shown, self.VALUES)],
                         ["servers/alpha/pingstat is 1003", "servers/alpha/holdstat is None", "servers/temp/pri is 1"])


class OneMachine(unittest.TestCase):
    """A machine with one writer, in which faults are planted."""

    def setUp(self):
        self.folder = pathlib.Path(tempfile.mkdtemp(prefix="shmnm-soak-"))
        self.addCleanup(shutil.rmtree, self.folder, ignore_errors=True)

    def machine(self, *plants):
        machine = machines.Machine("first", "alpha", self.folder, FOLDER, "http://127.0.0.1:1", plants)
        self.addCleanup(machine.end)
        machine.serve()
        return machine

    def writer(self, machine):
        writer = machine.member("write", "alpha:words", 1, is_steady=True)
        until(lambda: writer.journal["rounds"] > 5, "the writer writes")
        return writer

    def paused(self, writer):
        writer.tell("p")
        until(writer.is_paused, "the writer pauses")

    def test_a_value_that_is_not_the_journals_is_found_by_the_checkpoint_and_by_the_writer(self):
        machine = self.machine()
        writer = self.writer(machine)
        self.paused(writer)
        self.assertEqual(differences(machine.words(), writer.journal.values() | machine.shared.values()), [])
        self.assertEqual(machine.run("set", "servers/alpha/pingstat", 7)[0], 0)
        found = differences(machine.words(), writer.journal.values())
        self.assertEqual([text.split(",")[0] for text in found], ["servers/alpha/pingstat is 7"])
        writer.tell("g")
        until(lambda: writer.journal["lost"] == 1, "the writer finds it")
        self.assertIn("servers/alpha/pingstat is 7", writer.journal.problem)

    def test_a_killed_writers_next_life_finds_what_was_lost_meanwhile(self):
        machine = self.machine()
        writer = self.writer(machine)
        writer.kill()
        self.assertEqual(machine.run("set", "servers/alpha/holdstat", 7, "cluster/waitstat", 7)[0], 0)
        writer.start()
        until(lambda: writer.journal["lost"] == 2, "its next life finds both")

    def test_a_call_that_was_interrupted_is_settled_by_the_next_life(self):
        machine = self.machine()
        writer = self.writer(machine)
        settled = 0
        for _ in range(300):
            writer.tell("k")
            until(lambda: writer.child.poll() is not None, "it is killed in a call", pace=0.002)
            writer.forget()
            writer.start()
            lives = writer.lives
            until(lambda: writer.journal["lives"] == lives and writer.journal["state"] == 1 or writer.journal["lost"], "its next life goes on", pace=0.002)
            settled = writer.journal["kept"] + writer.journal["undone"]
            if settled >= 3:
                break
        self.assertGreaterEqual(settled, 3)
        self.assertEqual(writer.journal["lost"], 0, writer.journal.problem)

    def test_the_clock_of_the_programs_moves_and_the_machines_does_not(self):
        machine = self.machine()
        machine.set_clock(-20 * 365 * 86_400)
        machine.run("set", "cluster/clstat", 3)
        newest = (machine.folder / "log/shmnm.log").read_text().splitlines()[-1]
        self.assertLess(int(newest[:4]), int(subprocess.run(["date", "+%Y"], capture_output=True, text=True).stdout) - 18)

    def test_figures_see_a_descriptor_and_a_mapping_of_a_process(self):
        with subprocess.Popen([sys.executable, "-c", "import mmap, sys\nprint('1', flush=True)\nsys.stdin.readline()\nf = open('/dev/null')\nm = mmap.mmap(-1, 1 << 20)\n"
                               "m.write(bytes(1 << 20))\nprint('2', flush=True)\nsys.stdin.readline()"], stdin=subprocess.PIPE, stdout=subprocess.PIPE) as child:
            child.stdout.readline()
            before = figures(child.pid)
            child.stdin.write(b"\n")
            child.stdin.flush()
            child.stdout.readline()
            after = figures(child.pid)
            child.stdin.close()
        self.assertEqual(after["descriptors"] - before["descriptors"], 1)
        self.assertGreater(after["mappings"], before["mappings"] - 1)


class Followers(OneMachine):
    def test_a_change_that_watch_has_missed_without_a_gap_is_found(self):
        watch = Watch("watch", self.machine())
        for text in ('{"kind":"change","seq":1,"key":"a","old":null,"new":1}', '{"kind":"change","seq":2,"key":"a","old":2,"new":3}',
                     '{"kind":"change","seq":4,"key":"a","old":3,"new":4}'):
            watch.heard(text)
        self.assertEqual(watch.problems, ["watch: a was 1, and a change says 2", "watch: event 4 follows event 2"])
        self.assertEqual(watch.shown(), {"a": "4"})


class WholeRun(unittest.TestCase):
    SECONDS = 40

    def test_finds_every_planted_fault_and_no_other(self):
        done = subprocess.run([sys.executable, "-B", PROJECT / "tests/soak/soak.py", "linux", FOLDER, str(self.SECONDS / 3_600), "--seed", "3", "--plant",
                               "descriptor,memory,file,handover,write"], capture_output=True, text=True, timeout=600)
        self.assertEqual(done.returncode, 1, done.stdout + done.stderr)
        found = re.findall(r"^FOUND: (.*)$", done.stdout, re.M)
        expected = (r"write alpha:np: descriptors grows", r"write alpha:np: memory kB grows", r"first's folders: files grows", r"first's lock: hand-over us grows",
                    r"write alpha:np found \d+ values lost")
        for pattern in expected:
            self.assertTrue(any(re.match(pattern, text) for text in found), (pattern, found))
        # A checkpoint, and the other machine, may see a lost write before the writer does.
        others = [text for text in found if not any(re.match(pattern, text) for pattern in (*expected, r"checkpoint \d+ on first: (hb|np)/"))]
        self.assertEqual(others, [])


if __name__ == "__main__":
    unittest.main(argv=[sys.argv[0], *sys.argv[3:]])
