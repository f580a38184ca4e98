#!/usr/bin/env python3
"""The endurance run: a cluster under random faults, whose picture, followers and figures are checked. scripts/soak runs it.

    soak.py linux FOLDER HOURS [--seed N] [--plant FAULT,...] [--no-mounts]

FOLDER holds the programs. --plant gives one process faults that the run must find: descriptor, memory, file, handover or write.
--no-mounts does as if the system permitted no mounts. --series FILE keeps all samples, as JSON. Ends with a table, and with 1 if anything was not as it should be.
"""
import argparse
import collections
import json
import os
import pathlib
import random
import resource
import shutil
import signal
import subprocess
import sys
import tempfile
import time
import traceback

PLANTS = ("descriptor", "memory", "file", "handover", "write")
ISOLATED = "SHMNM_SOAK_IS_ISOLATED"
NAMESPACE = ["unshare", "--mount", "--propagation", "private"]


def options():
    parser = argparse.ArgumentParser()
    parser.add_argument("platform", choices=("linux",))
    parser.add_argument("folder", type=pathlib.Path)
    parser.add_argument("hours", type=float)
    parser.add_argument("--seed", type=int, default=random.SystemRandom().randrange(1 << 31))
    parser.add_argument("--plant", default="")
    parser.add_argument("--no-mounts", action="store_true")
    parser.add_argument("--series", type=pathlib.Path)
    given = parser.parse_args()
    given.plants = [plant for plant in given.plant.split(",") if plant]
    if not given.hours > 0 or not set(given.plants) <= set(PLANTS):
        parser.error(f"HOURS is a number above 0, FAULT is one of {', '.join(PLANTS)}")
    return given


def isolate(is_refused):
    """Continues in a namespace of its own for mounts, if the system permits one. @return whether it does"""
    if os.environ.get(ISOLATED):
        return True
    command = NAMESPACE if os.geteuid() == 0 else [*NAMESPACE, "--user", "--map-root-user"]
    if is_refused or subprocess.run([*command, "mount", "-t", "tmpfs", "tmpfs", "/mnt"], capture_output=True).returncode != 0:
        return False
    os.execvpe(command[0], [*command, sys.executable, "-B", *sys.argv], dict(os.environ, **{ISOLATED: "1"}))


PROJECT = pathlib.Path(__file__).resolve().parents[2]
sys.path.insert(0, str(PROJECT / "tests/etcd"))

import faults  # noqa: E402
import machine as machines  # noqa: E402
import report  # noqa: E402
from checkpoint import Checkpoint  # noqa: E402
from followers import Watch, Web  # noqa: E402
from processes import Late, pause  # noqa: E402
from samples import Samples  # noqa: E402


class Run:
    def __init__(self, given, may_mount):
        self.seconds, self.chance = given.hours * 3_600, random.Random(given.seed)
        self.findings, self.counts = report.Findings(), collections.Counter()
        self.busy, self.active = set(), []  # what has a fault now; the faults with the times of their ends
        self.killed_owners, self.takeover_ns = {}, []
        self.number = 1_000
        self.folder = pathlib.Path(tempfile.mkdtemp(prefix="shmnm-soak-"))
        self.etcd = machines.Etcd(self.folder)
        self.etcd.start()
        endpoint = self.etcd.member.endpoint
        self.first = machines.Machine("first", "alpha", self.folder, given.folder, endpoint, given.plants)
        self.second = machines.Machine("second", "delta", self.folder, given.folder, endpoint, ())
        if may_mount:
            self.first.mount("log", "1m")
            self.first.mount("dumps", "1m")
        machines.start(self.first, self.second, given.seed % 1_000_000)
        self.first.run("dump", self.first.folder / "dumps/region.bin")  # one file, which later dumps replace
        self.samples = Samples()
        self.checkpoint = Checkpoint(self.first, self.second, self.findings)

    def count(self, what):
        self.counts[what] += 1

    def next_number(self):
        self.number += 1
        return self.number

    def all_processes(self):
        return [*self.first.processes.values(), *self.second.processes.values(), self.etcd]

    # The loop.

    def go(self):
        """Faults, samples and checkpoints until the time is over."""
        # A slice has a checkpoint every few seconds, a long run every half a minute.
        sample_every = min(max(self.seconds / 300, 1.0), 20.0)
        checkpoint_every = min(max(self.seconds / 8, 4.0), 30.0)
        fault_every = 0.35 if self.seconds < 600 else 0.7
        now = time.monotonic()
        self.end = now + self.seconds
        sample_at, checkpoint_at, fault_at, report_at = now, now + 1.0, now, now + 600
        self.checkpoint.begin_a_wait()
        while (now := time.monotonic()) < self.end:
            self.mend(now)
            if now >= sample_at:
                self.sample()
                sample_at = now + sample_every
            if now >= checkpoint_at:
                self.mend_all()
                self.checkpoint.take()
                self.see_that_all_live()
                checkpoint_at = time.monotonic() + checkpoint_every
            if now >= fault_at:
                self.begin_a_fault(now)
                fault_at = now + self.chance.expovariate(1 / fault_every)
            if now >= report_at:
                print(f"{(now - self.end + self.seconds) / 3_600:.2f} h: {self.checkpoint.count} checkpoints, {len(self.findings.texts)} findings", flush=True)
                report_at += 600
            pause(max(0.001, min([fault_at, sample_at, checkpoint_at, *(end for end, _ in self.active)]) - time.monotonic()))
        self.mend_all(keeps_some=False)
        self.checkpoint.take()
        self.see_that_all_live()
        self.sample()

    def begin_a_fault(self, now):
        fault = faults.choose(self)
        if fault.begin():
            self.active.append((now + self.chance.uniform(fault.least, fault.most), fault))

    def mend(self, now):
        for entry in list(self.active):
            if entry[0] <= now and entry[1].end():
                self.active.remove(entry)

    def mend_all(self, keeps_some=True):
        """Ends all faults, but leaves some writers dead, so that the interrupted call is compared as it is."""
        kept = [entry for entry in self.active if keeps_some and isinstance(entry[1], faults.KillMember) and entry[1].victim.role == "write" and self.chance.random() < 0.5]
        while waiting := [entry for entry in self.active if entry not in kept]:
            # What waits for the configuration is mended after it.
            self.active = kept + [entry for entry in waiting if not entry[1].end()]

    def sample(self):
        for machine in (self.first, self.second):
            self.samples.take(machine)
            for pid, (asked, taken) in machine.shared.takeovers().items():
                if pid in self.killed_owners:
                    self.takeover_ns.append(taken - max(asked, self.killed_owners.pop(pid)))
        self.see_that_all_live()

    def see_that_all_live(self):
        for process in self.all_processes():
            if ended := process.ended():
                self.findings.add(ended)
                process.forget()
                if process in self.first.members() and process.role == "tables":
                    self.first.run("repair", "--force")
                process.start()

    # The end.

    def close(self):
        """All processes end as they are told, and the region with them."""
        if self.checkpoint.wait:
            self.checkpoint.wait.kill()
        for machine in (self.first, self.second):
            for name in reversed(list(machine.processes)):
                process = machine.processes[name]
                if not process.is_running:
                    continue
                status = process.end(how=None if process.is_piped else signal.SIGTERM)
                if status != 0:
                    self.findings.add(f"{process.name} ended with {status}, told to end")
            status, _, _ = machine.run("list")
            left = list(machine.objects.iterdir())
            if status != 3 or left:
                self.findings.add(f"{machine.name}: something is left of the region: {status} {left}")

    def judge(self):
        """The table of figures."""
        members = [member for machine in (self.first, self.second) for member in machine.members()]
        followers = list(self.first.processes.values())
        total = lambda field: sum(member.journal[field] for member in members)  # noqa: E731
        for member in members:
            if member.journal["lost"]:
                self.findings.add(f"{member.name} found {member.journal['lost']} values lost: {member.journal.problem}")
        for follower in followers:
            if isinstance(follower, Watch):
                for problem in follower.problems[:3]:
                    self.findings.add(problem)
        print("\nFigures that stay flat:")
        report.print_verdicts(self.samples.verdicts(), self.findings)
        print("\nFaults:")
        report.print_counts(self.counts)
        print("\nWork:")
        usage = resource.getrusage(resource.RUSAGE_CHILDREN)
        own = resource.getrusage(resource.RUSAGE_SELF)
        report.print_counts({
            "rounds under the lock": total("rounds"), "calls that set a value": total("sets"), "attaches": total("attaches"),
            "attaches refused for a broken configuration": total("refused_attaches"), "lives of writers": total("lives"),
            "interrupted calls found done": total("kept"), "interrupted calls found undone": total("undone"),
            "checkpoints": self.checkpoint.count, "values compared with journals": self.checkpoint.compared,
            "values compared while their call was interrupted": self.checkpoint.interrupted, "takes after a killed owner": sum(machine.shared["takeovers"] for machine in (self.first, self.second)),
            "changes told by watch": sum(follower.changes for follower in followers if isinstance(follower, Watch)),
            "scrapes": sum(follower.scrapes for follower in followers if isinstance(follower, Web)), "hand-overs to a waiter": self.samples.hand_overs,
            "seconds of processor time": round(usage.ru_utime + usage.ru_stime + own.ru_utime + own.ru_stime),
        })
        if self.takeover_ns:
            print(f"\nFrom the kill of an owner, or from the next request if that is later, to the take: {report.microseconds(self.takeover_ns)} ({len(self.takeover_ns)} times)")

    def tell_what_was_logged(self):
        """The newest errors that the programs and the library have written."""
        for machine in (self.first, self.second):
            for file in sorted((machine.folder / "errors").iterdir()):
                if text := file.read_text(errors="replace")[-600:].strip():
                    print(f"-- {machine.name} {file.name}: {text}")
            lines = [line for file in sorted((machine.folder / "log").glob("shmnm.log*")) for line in file.read_text(errors="replace").splitlines() if " ERR" in line]
            print("\n".join([f"-- {machine.name} log:", *sorted(lines)[-10:]]))

    def clean(self):
        for process in (self.etcd,):
            if process.is_running:
                process.kill()
        self.first.end()
        self.second.end()
        shutil.rmtree(self.folder, ignore_errors=True)


def main():
    given = options()
    may_mount = isolate(given.no_mounts)
    disks = "disks of its own that can be full" if may_mount else "a limit of file sizes for full disks, because mounts are not permitted"
    print(f"scripts/soak: {given.hours:g} hours, --seed {given.seed}, {disks}", flush=True)
    run = Run(given, may_mount)
    try:
        run.go()
        run.close()
    except Late as late:
        run.findings.add(str(late))
    except Exception:  # whatever it is, the figures are told and all processes end
        run.findings.add(f"the run itself failed: {traceback.format_exc(chain=False)}")
        for process in run.all_processes():
            if ended := process.ended():
                run.findings.add(ended)
    finally:
        if run.findings.texts:
            run.tell_what_was_logged()
        run.judge()
        if given.series:
            given.series.write_text(json.dumps({f"{subject}: {kind}": values for (subject, kind), values in run.samples.series.items()}))
        run.clean()
    if run.findings.texts:
        print(f"\nscripts/soak: {len(run.findings.texts)} findings; the same faults again: --seed {given.seed}")
        for text in run.findings.texts:
            print(f"  {text}")
        sys.exit(1)
    print("\nEverything was as it should be.")


if __name__ == "__main__":
    main()
