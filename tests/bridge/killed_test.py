#!/usr/bin/env python3
"""The bridge killed after each of its calls of the library and each of its requests, on machines whose local processes go on.

    killed_test.py FOLDER [--last N] [--machines N] [--verbose]

The bridge of the first machine lives. Each of the others dies after its 1st, 2nd ... Nth step of a kind; then it is started again
and must be fresh everywhere before it is killed for the next time. What the regions, the marks and etcd show meanwhile is checked as
after a schedule of faults.
"""
import argparse
import collections
import concurrent.futures
import itertools
import pathlib
import signal
import sys
import time

import bridge_checks
from bridge_support import DEADLINE, MARKED, Scene, begin, wait_until
from schedules_test import AGREED, HEALING, Run

KINDS = ("call", "request")


class KilledRun(Run):
    def __init__(self, scene, preloaded, last, verbose):
        super().__init__(scene, 0, [], verbose)
        self.preloaded, self.last = preloaded, last
        self.killed = collections.Counter()
        self.numbers = itertools.count(bridge_checks.AGREED_NUMBER + 1)

    def run(self):
        # What a thread has started ends with it.
        with concurrent.futures.ThreadPoolExecutor(len(self.scene.machines)) as self.threads:
            return super().run()

    def play(self):
        """Each of the machines is killed at steps of its own, all machines at the same time."""
        victims = self.scene.machines[1:]
        steps = [(kind, number) for number in range(1, self.last + 1) for kind in KINDS]
        for done in [self.threads.submit(self.kill_at, victim, steps[at :: len(victims)]) for at, victim in enumerate(victims)]:
            done.result()

    def kill_at(self, machine, steps):
        for at, step in enumerate(steps):
            # The last one stays dead for so long that it must be silent.
            self.kill_after(machine, *step, is_last=at == len(steps) - 1)

    def kill_after(self, machine, kind, number, is_last):
        began = time.monotonic()
        machine.kill_bridge()
        machine.start_bridge(LD_PRELOAD=self.preloaded, **{f"SHMNM_KILL_AFTER_{kind.upper()}": str(number)})
        code = machine.bridge.wait(DEADLINE)
        died = time.monotonic()
        assert code == -signal.SIGKILL, f"{machine.server}'s bridge ended with {code} before {kind} {number}: {machine.log()}"
        machine.bridge = None
        self.say(f"{machine.server}'s bridge died after {kind} {number}")
        verified = machine.run("shmnmctl", "verify")
        assert verified.returncode == 0, f"verify on {machine.server} after {kind} {number}: {verified.stdout}{verified.stderr}"
        # It needs the lock.
        machine.local.ask("agree", AGREED[machine.number % len(AGREED)], next(self.numbers))
        if is_last:
            wait_until(lambda: time.monotonic() > died + MARKED + 1, "it is silent")
        restarted = time.monotonic()
        machine.start_bridge()
        wait_until(lambda: self.is_healed(machine, restarted), f"{machine.server} is fresh after {kind} {number}")
        self.killed[kind] += 1
        self.troubles += [bridge_checks.Trouble(machine, f"{kind} {number}", began, time.monotonic(), False, False),
                          bridge_checks.Trouble(machine, f"the death after {kind} {number}", died, restarted, True, True)]

    def is_healed(self, machine, since):
        """It and the first machine call each other fresh, and the newest words have come both ways."""
        first = self.scene.machines[0]
        return all(here.now_marked().get(there.server) == "fresh" and
                   any(event.time > since and there.server in event.key.split("/") and bridge_checks.is_own(event.value) for event in reversed(here.shown[-200:]))
                   for here, there in ((machine, first), (first, machine)))


def main():
    options = argparse.ArgumentParser()
    options.add_argument("folder")
    options.add_argument("--last", type=int, default=24)
    options.add_argument("--machines", type=int, default=5)
    options.add_argument("--verbose", action="store_true")
    options = options.parse_args()
    linux, _ = begin("linux", options.folder)
    began = time.monotonic()
    with Scene(options.machines, linux) as scene:
        run = KilledRun(scene, str(pathlib.Path(linux).resolve() / "called_library.so"), options.last, options.verbose)
        findings, seconds, times = run.run()
        logs = {machine.server: machine.log() for machine in scene.machines}
    print(f"{options.machines} machines, killed after " + " and after ".join(f"{run.killed[kind]} {kind}s" for kind in KINDS) + f", {time.monotonic() - began:.1f} s")
    if seconds is not None:
        print(f"equal and fresh after the last start: {seconds:.2f} s (limit {HEALING:.0f} s)")
    if times:
        print(f"no longer fresh after a death: longest {max(times):.2f} s (limit {MARKED:.1f} s)")
    if findings:
        for server, log in logs.items():
            print(f"--- {server}'s bridge\n{log}")
        sys.exit("\n".join(findings[:20]))


if __name__ == "__main__":
    main()
