#!/usr/bin/env python3
"""The bridge on real machines with real members of etcd, through schedules of faults that are made from seeds.

    schedules_test.py linux|windows FOLDER [--seed N] [--count N] [--machines N] [--jobs N] [--verbose]

Without a seed: three schedules, which together hold every kind of fault. Prints each schedule's seed, and the figures of all, or
of each if several run at the same time.
"""
import argparse
import concurrent.futures
import contextlib
import itertools
import random
import signal
import subprocess
import sys
import threading
import time

import bridge_checks
import bridge_network
from bridge_support import CHILD, MARKED, NOT_RUN, History, Scene, begin, wait_until

HEALING = 10.0  # seconds after the last fault until everything must be equal and fresh
AGREED = ("waitstat", "bwflag", "bwflagdisk", "clstat", "hbinfo")
CHANGES_PER_SECOND = 10

# Kinds of faults, those of etcd after those of one machine.
MACHINE_FAULTS = ("kill", "stop", "end", "cut_to", "cut_from", "cut_both", "hold_lock", "new_region", "clear", "foreign")
ETCD_FAULTS = ("kill_leader", "stop_member", "cut_member", "kill_majority", "full", "compact")
# Whether others must not call the machine fresh, and whether it must not call others fresh.
HIDES = {"kill", "stop", "end", "cut_to", "cut_from", "cut_both", "hold_lock", "new_region", "kill_majority", "full"}
BLINDS = {"kill", "stop", "end", "cut_to", "cut_from", "cut_both", "kill_majority", "full"}


class Fault:
    def __init__(self, what, machine, start, lasts, choice):
        self.what, self.machine, self.start, self.lasts, self.choice = what, machine, start, lasts, choice
        self.undo = lambda: None

    def __str__(self):
        return f"{self.what}{'' if self.machine is None else f' {self.machine}'} at {self.start:.1f} s for {self.lasts:.1f} s"


def schedule(seed, machines=None):
    """The number of machines and the faults. Three seeds in a row hold every kind of fault."""
    chance = random.Random(seed)
    count = machines or chance.choice((3, 3, 4, 5))
    hand = lambda kinds: random.Random(seed // 3).sample(kinds, len(kinds))[seed % 3 :: 3]
    faults = []
    for what in hand(MACHINE_FAULTS):
        faults.append(Fault(what, chance.randrange(count), chance.uniform(0, 4), chance.uniform(0.3, 5), chance.random()))
    start = chance.uniform(0, 2)
    for what in hand(ETCD_FAULTS):
        faults.append(Fault(what, None, start, chance.uniform(0.3, 4), chance.random()))
        start += faults[-1].lasts + chance.uniform(0.5, 1)
    return count, sorted(faults, key=lambda fault: fault.start)


class Run:
    def __init__(self, scene, seed, faults, verbose):
        self.scene, self.faults, self.verbose = scene, faults, verbose
        self.chance = random.Random(seed + 1_000_000)
        self.history = History(scene.etcd)
        self.troubles = []
        self.number = bridge_checks.AGREED_NUMBER
        self.contested = set()
        self.busy = set()  # machines whose local processes hold the lock
        self.stopped = set()

    def say(self, text):
        if self.verbose:
            print(f"    {time.monotonic() - self.begin:6.2f} s  {text}", flush=True)

    def start(self):
        for machine in self.scene.machines:
            machine.make_region()
        for machine in self.scene.machines:
            machine.start_bridge()
        self.begin = time.monotonic()
        wait_until(self.scene.all_fresh, lambda: "all machines are fresh at the start")
        self.begin = time.monotonic()
        for machine in self.scene.machines:
            machine.local.ask("rate", CHANGES_PER_SECOND)

    # Each returns what ends the fault.

    def kill(self, fault, machine):
        machine.kill_bridge()
        self.stopped.discard(machine)
        return lambda: machine.bridge or machine.start_bridge()

    def end(self, fault, machine):
        if machine.is_windows or not machine.bridge or machine in self.stopped:
            return self.kill(fault, machine)
        machine.end_bridge()
        return lambda: machine.bridge or machine.start_bridge()

    def stop(self, fault, machine):
        machine.signal_bridge(signal.SIGSTOP)
        self.stopped.add(machine)

        def go_on():
            machine.signal_bridge(signal.SIGCONT)
            self.stopped.discard(machine)

        return go_on

    def cut(self, direction, machine):
        self.scene.network.cut(machine.number, direction)
        return lambda: self.scene.network.heal(machine.number)

    def cut_to(self, fault, machine):
        return self.cut("to", machine)

    def cut_from(self, fault, machine):
        return self.cut("from", machine)

    def cut_both(self, fault, machine):
        return self.cut("both", machine)

    def hold_lock(self, fault, machine):
        if not machine.local or machine in self.busy:
            return lambda: None
        machine.local.ask("hold")
        self.busy.add(machine)
        local = machine.local

        def release():
            self.busy.discard(machine)
            if machine.local is local:
                local.ask("release")

        return release

    def new_region(self, fault, machine):
        machine.end_region()
        self.busy.discard(machine)

        def make():
            if not machine.local:
                machine.make_region()
                machine.local.ask("rate", CHANGES_PER_SECOND)

        return make

    def clear(self, fault, machine):
        if machine.local and machine not in self.busy:
            machine.cleared.append(time.monotonic())
            machine.local.ask("clear")
        return lambda: None

    def foreign(self, fault, machine):
        other = self.scene.machines[machine.number - 1]
        if machine.local and machine not in self.busy:
            self.number += 1
            machine.local.ask("foreign", other.server, bridge_checks.FOREIGN_NUMBER + self.number)
            self.contested.add((machine, f"servers/{other.server}/pingstat"))
        return lambda: None

    def kill_leader(self, fault, _):
        leader = self.scene.etcd.leader()
        leader.kill()
        return leader.start

    def stop_member(self, fault, _):
        member = self.scene.etcd.members[int(fault.choice * len(self.scene.etcd.members))]
        member.process.send_signal(signal.SIGSTOP)
        return lambda: member.process.send_signal(signal.SIGCONT)

    def cut_member(self, fault, _):
        if not self.scene.network.can_cut_members:
            return self.stop_member(fault, None)
        number = int(fault.choice * len(self.scene.etcd.members))
        self.scene.network.cut_member(number, ("to", "from", "both")[int(fault.choice * 9) % 3])
        return lambda: self.scene.network.heal_member(number)

    def kill_majority(self, fault, _):
        members = self.scene.etcd.members[:2]
        for member in members:
            member.kill()
        return lambda: [member.start() for member in members]

    def full(self, fault, _):
        self.say(f"{self.scene.etcd.fill() >> 20} MB fill the database")
        return lambda: self.scene.etcd.empty(self.history)

    def compact(self, fault, _):
        with contextlib.suppress(OSError):  # already compacted
            self.scene.etcd.members[0].post("/v3/kv/compaction", {"revision": self.history.revision})
        return lambda: None

    @contextlib.contextmanager
    def asking_for_accounts(self):
        """Meanwhile one machine after the other is asked. Not on Windows, where wine needs too much of the machine to start a program."""
        is_over, machines = threading.Event(), [machine for machine in self.scene.machines if not machine.is_windows]

        def ask():
            for machine in itertools.cycle(machines):
                if is_over.wait(0.2):
                    return
                machine.ask_status()

        with concurrent.futures.ThreadPoolExecutor() as threads:
            asked = threads.submit(ask)
            try:
                yield
            finally:
                is_over.set()
            asked.result()

    def set_agreed_word(self):
        machine = self.chance.choice(self.scene.machines)
        if machine.local and machine not in self.busy:
            self.number += 1
            machine.local.ask("agree", self.chance.choice(AGREED), self.number)

    def begin_fault(self, fault):
        machine = None if fault.machine is None else self.scene.machines[fault.machine]
        self.say(f"{fault} begins")
        # A fault that takes a while to begin, such as writing until the database is full, disturbs from its begin on, but has its
        # effect only when it is complete.
        asked = time.monotonic()
        fault.undo = getattr(self, fault.what)(fault, machine)
        return asked, time.monotonic()

    def play(self):
        """All faults, and local processes that write meanwhile."""
        pending, open_faults, next_agreed = list(self.faults), [], self.begin
        while pending or open_faults:
            now = time.monotonic()
            for fault in [fault for fault in pending if self.begin + fault.start <= now]:
                # A majority of members is to remain, but where it is the fault that it does not.
                if fault.machine is None and any(other.machine is None for other, _, _ in open_faults):
                    continue
                pending.remove(fault)
                open_faults.append((fault, *self.begin_fault(fault)))
            for each in [each for each in open_faults if each[2] + each[0].lasts <= now]:
                open_faults.remove(each)
                self.end_fault(*each)
            if next_agreed <= now:
                self.set_agreed_word()
                next_agreed = now + 0.3
            threading.Event().wait(0.02)

    def end_fault(self, fault, asked, complete):
        machine = None if fault.machine is None else self.scene.machines[fault.machine]
        healed = time.monotonic()
        fault.undo()
        self.say(f"{fault.what} has ended")
        shares = [other for other in self.faults if other is not fault and other.machine == fault.machine]
        self.troubles.append(bridge_checks.Trouble(machine, fault.what, asked, time.monotonic(), False, False))
        # Where two faults of one machine overlap, the end of one may have healed the other.
        alone = all(other.start + other.lasts + 2 < fault.start or other.start > fault.start + fault.lasts + 2 for other in shares)
        if alone:
            self.troubles.append(bridge_checks.Trouble(machine, fault.what, complete, healed, fault.what in HIDES, fault.what in BLINDS))

    def settle(self):
        """Nobody writes any more. @return seconds until everything was equal and fresh"""
        for machine in self.scene.machines:
            machine.local.ask("rate", 0)
        for machine in self.scene.machines:
            self.scene.network.heal(machine.number)
        healed = time.monotonic()
        left = []

        def is_settled():
            # Asking etcd for its keys and changes may take seconds, after which they must still be fresh.
            left[:] = self.differences()
            if not left:
                self.history.catch_up()
            left[:] = left or [f"{other.server} is {machine.now_marked().get(other.server)} on {machine.server}" for machine in self.scene.machines
                       for other in self.scene.others(machine) if machine.now_marked().get(other.server) != "fresh"]
            return not left

        try:
            wait_until(is_settled, "", HEALING, 0.05)
        except AssertionError:
            return None, left
        return time.monotonic() - healed, []

    def differences(self):
        listed = self.listed()
        return [text for text in self.scene.differences() if not any(text.startswith(key) and f"on {server}" in text for server, key in listed)]

    def listed(self):
        """The words that a machine may leave as they are: those that a foreign process has set there, and those that a bridge calls
        contested because it lost them more than three times."""
        lost = [(machine.server, "cluster/" + key) for machine in self.scene.machines for key in AGREED
                if f"{key} is contested" in machine.log() and machine.log().count(f"another machine's value of {key} came first") > 3]
        return lost + [(machine.server, key) for machine, key in self.contested]

    def last_checks(self):
        findings = self.last_accounts()
        for machine in self.scene.machines:
            done = machine.run("shmnmctl", "verify")
            if done.returncode != 0:
                findings.append(f"invariant 8: verify on {machine.server}: {done.stdout}{done.stderr}")
        return findings

    def last_accounts(self):
        """Where `shmnmbridge status` does not say in the end what is so: all are fresh, of their last revisions, and no word is contested but
        those of a foreign process."""
        findings = []
        for machine in self.scene.machines:
            account = machine.ask_status()
            revisions = {key[len("state/"):]: revision for revision, key, _ in list(self.history.changes) if key.startswith("state/")}
            expected = {other.server: ("fresh", revisions.get(other.server)) for other in self.scene.others(machine)}
            told = {mark["name"]: (mark["freshness"], mark["revision"]) for mark in account.document.get("servers", ())}
            contested = {key for key in account.document.get("contested", ()) if key.startswith("servers/")}
            if account.code != 0 or told != expected or contested - {key for other, key in self.contested if other is machine}:
                findings.append(f"invariant 1: status on {machine.server} ends with {account.code} and says {account.document}; expected {expected}")
        return findings

    def run(self):
        findings = []
        try:
            self.start()
            with self.asking_for_accounts():
                self.play()
                settled, left = self.settle()
            if settled is None:
                findings.append(f"invariant 1: members of etcd at revisions {self.scene.etcd.revisions()}")
                findings += [f"invariant 1: {HEALING:.0f} s after the last fault {text}" for text in left]
            findings += self.last_checks()
        finally:
            self.history.end()
        checker = bridge_checks.Checker(self.scene, self.history, self.troubles, self.begin, time.monotonic())
        findings += checker.check()
        return findings, settled, checker.stale


def run_side_by_side(options):
    """Each schedule in a process of its own. @return the exit status"""

    def run_alone(seed):
        command = [sys.executable, "-B", __file__, options.platform, options.folder, "--seed", str(seed), "--count", "1"]
        command += ["--machines", str(options.machines)] if options.machines else []
        done = subprocess.run([*CHILD, *command], stdin=subprocess.DEVNULL, stdout=subprocess.PIPE, stderr=subprocess.STDOUT, text=True)
        print(done.stdout, end="", flush=True)
        return done.returncode

    with concurrent.futures.ThreadPoolExecutor(options.jobs) as threads:
        codes = set(threads.map(run_alone, range(options.seed, options.seed + options.count)))
    return next(iter(codes - {0, NOT_RUN}), max(codes))


def main():
    options = argparse.ArgumentParser()
    options.add_argument("platform", choices=("linux", "windows"))
    options.add_argument("folder")
    options.add_argument("--seed", type=int, default=0)
    options.add_argument("--count", type=int, default=3)
    options.add_argument("--machines", type=int)
    options.add_argument("--jobs", type=int, default=1)
    options.add_argument("--verbose", action="store_true")
    options = options.parse_args()
    if options.jobs > 1 and not bridge_network.reason_for_no_namespaces():
        sys.exit(run_side_by_side(options))
    linux, windows = begin(options.platform, options.folder)
    settled, stale, failed, kinds = [], [], [], {}
    for seed in range(options.seed, options.seed + options.count):
        count, faults = schedule(seed, options.machines)
        began = time.monotonic()
        with Scene(count, linux, windows) as scene:
            run = Run(scene, seed, faults, options.verbose)
            findings, seconds, times = run.run()
            if findings:
                failed.append(seed)
                for machine in scene.machines:
                    print(f"--- {machine.server}'s bridge\n{machine.log()}")
        for fault in faults:
            kinds[fault.what] = kinds.get(fault.what, 0) + 1
        print(f"seed {seed}: {count} machines, {len(faults)} faults, {time.monotonic() - began:.1f} s: "
              + (f"equal and fresh {seconds:.2f} s after the last fault" if seconds is not None else "NOT EQUAL"), flush=True)
        for finding in findings[:20]:
            print("  " + finding)
        if findings:
            print("  " + "; ".join(str(fault) for fault in faults))
        settled += [seconds] if seconds is not None else []
        stale += times
    print(f"{options.count} schedules, faults: " + ", ".join(f"{kind} {number}" for kind, number in sorted(kinds.items())))
    if settled:
        print(f"equal and fresh after the last fault: median {sorted(settled)[len(settled) // 2]:.2f} s, longest {max(settled):.2f} s (limit {HEALING:.0f} s)")
    if stale:
        print(f"no longer fresh after a failure: median {sorted(stale)[len(stale) // 2]:.2f} s, longest {max(stale):.2f} s (limit {MARKED:.1f} s)")
    if failed:
        sys.exit(f"failed: seeds {failed}; run this test with --seed N --count 1 to repeat one")


if __name__ == "__main__":
    main()
