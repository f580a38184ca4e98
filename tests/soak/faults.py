"""The faults of the run. Each begins, lasts for a while, and is mended. `begin` returns False if it cannot begin now; `end` returns False if
it cannot be mended yet."""
import errno
import threading
import time

from machine import LOG_BYTES, configuration
from processes import Member, pause, until

LONGEST_STOP = 1.0  # calls that a stopped process holds up wait for at most two seconds


class Fault:
    least, most = 0.1, 1.0

    def __init__(self, run):
        self.run, self.chance, self.first, self.second, self.findings = run, run.chance, run.first, run.second, run.findings

    def begin(self):
        raise NotImplementedError

    def end(self):
        return True

    def free(self, *processes):
        """Those of some processes that run and have no other fault now."""
        return [process for process in processes if process.is_running and not process.is_stopped and process not in self.run.busy]


def caught_with_the_lock(process, tries):
    """Stops a process again and again until it has the lock in its stop. @return whether it has"""
    for _ in range(tries):
        process.stop()
        if process.owns_the_lock():
            return True
        process.go_on()
        pause(0.002)
    return False


class KillMember(Fault):
    """A writer is killed, mostly inside the lock. What its call left is settled by its next life."""

    least, most = 0.05, 1.5

    def begin(self):
        victims = self.free(*(member for machine in (self.first, self.second) for member in machine.members() if not member.is_steady))
        if not victims:
            return False
        self.victim = self.chance.choice(victims)
        self.chance.choice((self.kill_anywhere, self.kill_with_the_lock, self.kill_in_a_call))()
        self.run.busy.add(self.victim)
        if self.victim.role == "tables":
            self.mend_the_tables()
        return True

    def kill_anywhere(self):
        self.victim.kill()
        self.run.count("writers killed")

    def kill_with_the_lock(self):
        if not caught_with_the_lock(self.victim, 100):
            self.kill_anywhere()
            return
        self.run.killed_owners[self.victim.pid] = time.monotonic_ns()
        self.victim.kill()
        self.run.count("writers killed inside the lock")

    def kill_in_a_call(self):
        """It kills itself by a timer while it makes calls."""
        if self.first.configuration_is_broken:
            self.kill_anywhere()  # it may be waiting for the configuration
            return
        self.victim.tell("k")
        until(lambda: self.victim.child.poll() is not None, f"{self.victim.name} dies", pace=0.005)
        self.victim.forget()
        self.run.count("writers killed among their calls")

    def mend_the_tables(self):
        if self.first.configuration_is_broken:
            return
        status, out, errors = self.first.run("repair", "--force")
        if status != 0:
            self.findings.add(f"repair ended with {status}: {errors}")
        elif out.startswith("completed"):
            self.run.count("changes of tables repaired")

    def end(self):
        if self.victim.role == "tables":
            if self.first.configuration_is_broken:
                return False
            self.mend_the_tables()
        self.victim.start()
        self.run.busy.discard(self.victim)
        return True


class Stop(Fault):
    """Any process is stopped for a while. It goes on by itself: the run may be waiting for a command that waits for it."""

    least = most = LONGEST_STOP

    def begin(self):
        victims = self.free(*self.first.processes.values(), *self.second.processes.values(), self.run.etcd)
        if not victims:
            return False
        self.victim = self.chance.choice(victims)
        has_lock = isinstance(self.victim, Member) and self.chance.random() < 0.5 and caught_with_the_lock(self.victim, 50)
        if not has_lock:
            self.victim.stop()
        self.timer = threading.Timer(self.chance.uniform(0.05, LONGEST_STOP), self.victim.go_on)
        self.timer.start()
        self.run.busy.add(self.victim)
        self.run.count("owners of the lock stopped" if has_lock else "processes stopped")
        return True

    def end(self):
        self.timer.join()
        self.run.busy.discard(self.victim)
        return True


class Restart(Fault):
    """A server, a holder, a follower, a bridge or etcd is killed, and started again."""

    least, most = 0.05, 2.0

    def begin(self):
        named = [self.first.processes[name] for name in ("serve", "watch 2", "web 2")]
        victims = self.free(*named, *(self.second.processes[name] for name in ("serve", "bridge")), self.run.etcd)
        if not victims:
            return False
        self.victim = self.chance.choice(victims)
        self.victim.kill()
        self.run.busy.add(self.victim)
        self.run.count(f"{'etcd' if self.victim is self.run.etcd else self.victim.name.split()[0]} killed")
        return True

    def end(self):
        if self.first.configuration_is_broken:
            return False
        self.victim.start()
        if self.victim.name == "serve" and '"created":false' not in self.victim.first_line:
            self.findings.add(f"serve did not find the region that lives: {self.victim.first_line}")
        self.run.busy.discard(self.victim)
        return True


class FullDisk(Fault):
    """The disks of the log and of the dumps are full. Without a disk of the run's own: a limit of file sizes for the dump."""

    least, most = 0.5, 3.0

    def begin(self):
        if "disk" in self.run.busy:
            return False
        if not self.first.mounted:
            self.see_the_limit()
            return True
        self.run.busy.add("disk")
        self.fillers = [folder / "filler" for folder in self.first.mounted]
        for filler in self.fillers:
            self.fill(filler)
        self.see_the_dump([])
        self.run.count("disks filled")
        return True

    @staticmethod
    def fill(filler):
        with open(filler, "ab", buffering=0) as file:
            try:
                while True:
                    file.write(bytes(4_096))
            except OSError as error:
                if error.errno != errno.ENOSPC:
                    raise

    def see_the_dump(self, prefix):
        before = set((self.first.folder / "dumps").iterdir())
        status, _, errors = self.first.run("dump", self.first.folder / "dumps/full.bin")
        if status != 5 or "space" not in errors:
            self.findings.add(f"a dump to a full disk ended with {status}: {errors}")
        left = set((self.first.folder / "dumps").iterdir()) - before
        for file in left:
            self.run.count("cut dumps left on a full disk")
            file.unlink()

    def see_the_limit(self):
        target = self.first.folder / "dumps/limited.bin"
        status, _, _ = self.first.run("--fsize=65536", self.first.programs / "shmnmctl", "dump", target, program="/usr/bin/prlimit")
        if status == 0:
            self.findings.add("a dump beyond the limit of file sizes ended with 0")
        target.unlink(missing_ok=True)
        self.run.count("dumps beyond a limit of file sizes")

    def end(self):
        if self.first.mounted:
            for filler in self.fillers:
                filler.unlink()
            self.run.busy.discard("disk")
        return True


class MoveClock(Fault):
    """The wall clock of one machine's programs jumps, and stays there."""

    DAY = 86_400

    def begin(self):
        machine = self.chance.choice((self.first, self.second))
        jump = self.chance.choice((0, 1, -1, 60, -60, 3_600, -3_600, self.DAY, -self.DAY, 365 * self.DAY, -365 * self.DAY, 20 * 365 * self.DAY, -20 * 365 * self.DAY))
        machine.set_clock(jump + self.chance.random())
        self.run.count("clock changes")
        return True


class EditConfiguration(Fault):
    """The configuration is edited: the log's level and size, which may change at any time; then it is no XML for a while, and nothing
    attaches; or another installation with other counts tries to change the region, and is refused."""

    least, most = 0.2, 1.5

    def begin(self):
        if "configuration" in self.run.busy:
            return False
        self.edit = self.chance.choice((self.edit_well, self.edit_well, self.edit_badly, self.come_with_other_counts))
        self.run.busy.add("configuration")
        self.edit()
        return True

    def edit_well(self):
        self.first.log_level = self.chance.choice((1, 2, 4, 4, 16))
        text = configuration(self.first.log_level, self.chance.choice((LOG_BYTES // 2, LOG_BYTES)))
        self.first.configure(text, in_place=self.chance.random() < 0.5)
        status, out, errors = self.first.run("verify", "--config", self.first.folder / "etc/cluster.xml")
        if status != 0:
            self.findings.add(f"verify --config of a valid configuration ended with {status}: {out}{errors}")
        self.run.count("valid edits")

    def edit_badly(self):
        self.first.configuration_is_broken = True
        text = self.chance.choice((configuration()[:500], "", "<root>", configuration().replace("</all>", "</al>")))
        self.first.configure(text, in_place=self.chance.random() < 0.5)
        for arguments, expected in ((("verify", "--config", self.first.folder / "etc/cluster.xml"), 1), (("set", "cluster/clstat", 77), 5)):
            status, _, errors = self.first.run(*arguments)
            if status != expected:
                self.findings.add(f"with a configuration that is no XML, {arguments[0]} ended with {status}: {errors}")
        self.run.count("invalid edits")

    def come_with_other_counts(self):
        for arguments in (("set", "cluster/clstat", 78), ("serve",)):
            status, _, errors = self.first.run(*arguments, installation=self.first.folder / "other")
            if status != 5 or "servers 32" not in errors:
                self.findings.add(f"with other counts {arguments[0]} ended with {status}: {errors}")
        self.run.count("refused counts")

    def end(self):
        if self.first.configuration_is_broken:
            self.first.configure(configuration(), in_place=self.chance.random() < 0.5)
            self.first.configuration_is_broken, self.first.log_level = False, 4
        self.run.busy.discard("configuration")
        return True


class Operate(Fault):
    """Not a fault: what operators and monitoring do all the time."""

    COMMANDS = (("status",), ("list", "servers"), ("get", "cluster/clstat"), ("export",), ("holders",), ("query", "cluster/waitstat>=0"), ("verify",), ("lock", "--", "true"),
                ("status", "--format", "json"), ("set", "cluster/clstat"), ("dump",))

    def begin(self):
        if self.first.configuration_is_broken:
            return False
        arguments = self.chance.choice(self.COMMANDS)
        if arguments[0] == "set":
            arguments = (*arguments, self.run.next_number())
        elif arguments[0] == "dump":
            if "disk" in self.run.busy:
                return False
            arguments = (*arguments, self.first.folder / "dumps/region.bin")
        elif arguments[0] == "verify" and any(isinstance(one, Member) and one.role == "tables" for one in self.run.busy):
            return False  # a change that was interrupted, or goes on while its process is stopped, is found, as it should be
        status, _, errors = self.first.run(*arguments)
        if status != 0:
            self.findings.add(f"{' '.join(map(str, arguments))} ended with {status}: {errors}")
        for web in self.free(*(self.first.processes[name] for name in ("web", "web 2"))):
            web.scrape()
        self.run.count("commands")
        return True


# Each with its share.
FAULTS = ((KillMember, 6), (Stop, 6), (Restart, 3), (FullDisk, 2), (MoveClock, 2), (EditConfiguration, 2), (Operate, 6))


def choose(run):
    kinds, shares = zip(*FAULTS)
    return run.chance.choices(kinds, shares)[0](run)
