#!/usr/bin/env python3
"""Whatever etcd does, a machine's local calls give the results that they give without a bridge.

    local_calls_test.py linux|windows FOLDER [TEST...]
"""
import contextlib
import signal
import subprocess
import sys
import threading
import unittest

import bridge_support
from bridge_support import Etcd, History, Scene, wait_until

LINUX = WINDOWS = None
ROUNDS = 13


def calls(number):
    """One round of what local processes do: lists, own words, agreed words, the lock, refused calls, and all that can be read."""
    return [
        "shmnm_rwlock 5000", f"shmnm_setnodestat alpha {number}", f"shmnm_setnodestat_nw alpha {number}", f"shmnm_setpingstat alpha {number}",
        f"shmnm_setholdstat alpha {number}", f"shmnm_setisolateflag alpha {number % 2}", f"shmnm_setdownnotifystat alpha {number}",
        f"shmnm_sethbrscsvstat lan lan1 0 {number}", f"shmnm_setnprscsvstat ping ping1 0 {number}", f"shmnm_setrscsvstat_nw lan lan1 0 {number}",
        f"shmnm_setwaitstat {number}", f"shmnm_setclstat {number}", f"shmnm_setbwflag {number}", f"shmnm_setbwflagdisk {number}",
        f"shmnm_sethbinfo_ex {number} {number + 1}", f"shmnm_sethbrscstat lan lan1 {number}", "shmnm_rwunlock",
        f"shmnm_addhbrsc lan extra{number} {number}", f"shmnm_addhbrsc lan extra{number} {number}", f"shmnm_rmhbrsc lan extra{number}", f"shmnm_rmhbrsc lan extra{number}",
        "shmnm_setnodestat nobody 1", "shmnm_sethbinfo_ex 0 0", "shmnm_rolock 5000", "shmnm_enumnode", "hb_names", "np_names", "shmnm_getclstat", "shmnm_getwaitstat",
        "shmnm_getbwflag", "shmnm_getbwflagdisk", "shmnm_gethbinfo_ex", "shmnm_getnodestat alpha", "shmnm_getnodestat_nw alpha", "shmnm_getpingstat alpha",
        "shmnm_getholdstat alpha", "shmnm_getisolateflag alpha", "shmnm_getdownnotifystat alpha", "shmnm_getnodecombstat alpha", "shmnm_chkalivesv",
        "shmnm_enumhbrscsvstat lan lan1", "shmnm_enumnprscsvstat ping ping1", "shmnm_enumrscsvstat_nw lan lan1", "shmnm_enumsvhbrscstat alpha",
        "shmnm_getnodestat beta", "shmnm_getpingstat beta", "shmnm_getnodepri beta", "shmnm_gethbrscstat lan lan1", "shmnm_rounlock",
    ]


class LocalCalls(unittest.TestCase):
    maxDiff = None

    @classmethod
    def setUpClass(cls):
        cls.cleanup = contextlib.ExitStack()
        cls.addClassCleanup(cls.cleanup.close)
        # One machine: beta never had a bridge.
        cls.scene = cls.cleanup.enter_context(Scene(1, LINUX, WINDOWS))
        cls.machine = cls.scene.machines[0]
        cls.machine.servers = ("alpha", "beta")
        cls.alone = cls.results(cls.machine)

    @classmethod
    def results(cls, machine, meanwhile=lambda number: None):
        """Each call with its results, on a new region."""
        caller = machine.start("api_caller", stdin=subprocess.PIPE, stdout=subprocess.PIPE, text=True)

        def call(line):
            caller.stdin.write(line + "\n")
            caller.stdin.flush()
            return line, caller.stdout.readline().strip()

        told = [call(line) for line in ("shmnm_create", "shmnm_addnode alpha 0", "shmnm_addnode beta 1", "shmnm_addhbrsc lan lan1 0", "shmnm_addnprsc ping ping1 0")]
        for number in range(1, ROUNDS):
            meanwhile(number)
            told += [call(line) for line in calls(number)]
        told.append(call("shmnm_detach"))
        caller.stdin.close()
        caller.wait()
        caller.stdout.close()
        return told

    def with_bridge(self, is_connected, meanwhile=lambda number: None):
        """The results in a region whose bridge looks at it between the calls, and acts."""
        machine = self.machine
        machine.start_bridge()
        self.addCleanup(machine.kill_bridge)

        def between(number):
            if number == 1:
                wait_until(lambda: (machine.status()[0] or {}).get("connected") is is_connected, f"connected is {is_connected}")
            meanwhile(number)
            # The bridge looks each 50 ms, and is to see the region in many states.
            threading.Event().wait(0.06)

        results = self.results(machine, between)
        self.assertIsNone(machine.bridge.poll(), machine.log())
        return results

    def signal_members(self, number):
        for member in self.scene.etcd.members:
            member.process.send_signal(number)

    def start_members(self):
        for member in self.scene.etcd.members:
            member.start()
        for member in self.scene.etcd.members:
            wait_until(member.is_serving, "etcd serves")

    def kill_members(self):
        for member in self.scene.etcd.members:
            member.kill()

    def test_with_etcd(self):
        self.assertEqual(self.with_bridge(True), self.alone)

    def test_without_etcd(self):
        self.kill_members()
        self.addCleanup(self.start_members)
        self.assertEqual(self.with_bridge(False), self.alone)

    def test_when_etcd_goes_down_and_comes_back(self):
        def meanwhile(number):
            if number == ROUNDS // 3:
                self.kill_members()
            if number == 2 * ROUNDS // 3:
                self.start_members()

        self.assertEqual(self.with_bridge(True, meanwhile), self.alone)

    def test_when_etcd_hangs(self):
        self.addCleanup(self.signal_members, signal.SIGCONT)

        def meanwhile(number):
            if number == 2:
                self.signal_members(signal.SIGSTOP)

        self.assertEqual(self.with_bridge(True, meanwhile), self.alone)

    def test_when_etcd_is_slow(self):
        self.addCleanup(self.signal_members, signal.SIGCONT)

        def meanwhile(number):
            self.signal_members(signal.SIGSTOP if number % 4 else signal.SIGCONT)

        self.assertEqual(self.with_bridge(True, meanwhile), self.alone)

    def test_when_etcd_is_full(self):
        history = History(self.scene.etcd)
        self.addCleanup(history.end)
        self.addCleanup(lambda: self.scene.etcd.empty(history))
        self.scene.etcd.fill()
        self.assertEqual(self.with_bridge(False), self.alone)

    def test_when_another_etcd_answers(self):
        def meanwhile(number):
            if number != ROUNDS // 2:
                return
            self.scene.etcd.end()
            self.scene.etcd = Etcd(self.scene.network, self.scene.folder)
            self.scene.cleanup.callback(self.scene.etcd.end)

        self.assertEqual(self.with_bridge(True, meanwhile), self.alone)

    def test_when_nothing_comes_through(self):
        self.addCleanup(self.scene.network.heal, 0)

        def meanwhile(number):
            if number == 2:
                self.scene.network.cut(0, "both")

        self.assertEqual(self.with_bridge(True, meanwhile), self.alone)


def main():
    global LINUX, WINDOWS
    LINUX, WINDOWS = bridge_support.begin(sys.argv[1], sys.argv[2])
    unittest.main(argv=[sys.argv[0], *sys.argv[3:]], verbosity=2)


if __name__ == "__main__":
    main()
