"""A checkpoint: all writers pause, and the region, its followers and the other machine are compared with the journals."""
import urllib.error

from followers import Watch, Wait, Web, comparable
from journal import differences
from machine import GENERATIONS, LOG_BYTES
from processes import Late, until

# A file is rotated at its size, which the processes that write at that moment exceed by a line each.
LONGEST_LINES = 4_000


def shared_words(words, server):
    """A server's words that the bridges carry."""
    own = {f"servers/{server}/{word}" for word in ("nodestat", "nodestat_nw", "downnotifystat", "isolateflag", "pingstat", "holdstat")}
    return {key: value for key, value in words.items() if key in own or key.endswith((f"/svstat/{server}", f"/network/{server}")) and "/temp/" not in key}


class Checkpoint:
    def __init__(self, first, second, findings):
        self.first, self.second, self.findings = first, second, findings
        self.count, self.compared, self.interrupted = 0, 0, 0
        self.wait = None

    def take(self):
        self.count += 1
        for machine in (self.first, self.second):
            for member in machine.members():
                if member.is_running:
                    member.tell("p")
        try:
            for machine in (self.first, self.second):
                for member in machine.members():
                    if member.is_running:
                        until(member.is_paused, f"{member.name} pauses", pace=0.005)
            self.see_the_wait_return()
            self.compare_the_machines()
            for machine in (self.first, self.second):
                self.compare_with_journals(machine)
                self.verify(machine)
            self.compare_the_followers()
            self.see_the_log(self.first)
            self.see_the_holders(self.first)
        except Late as late:
            self.findings.add(f"checkpoint {self.count}: {late}")
        for machine in (self.first, self.second):
            for member in machine.members():
                if member.is_running:
                    member.tell("g")
        self.begin_a_wait()

    def begin_a_wait(self):
        self.wait = Wait(self.first, 1_000 + self.count)
        self.wait.start()

    def see_the_wait_return(self):
        """The wait that began at the last checkpoint returns now and not earlier."""
        if not self.wait:
            return
        if self.wait.child.poll() is not None:
            self.findings.add(f"wait returned with {self.wait.child.returncode} before its condition held")
        status, _, errors = self.first.run("set", Wait.KEY, self.wait.value)
        if status != 0:
            self.findings.add(f"set ended with {status}: {errors}")
            self.wait.kill()
        elif self.wait.end(how=None) != 0:
            self.findings.add(f"wait failed: {self.wait.errors.read_text()[-200:]}")
        self.wait = None

    def compare_the_machines(self):
        """Both bridges vouch for the other server, and both regions show the same of what they share."""
        def agree():
            here, there = self.first.words(), self.second.words()
            for words, other in ((here, "delta"), (there, "alpha")):
                if words.get("bridge/up") != "1" or words.get(f"bridge/servers/{other}/freshness") != "1":
                    return False
            return all(shared_words(here, server) == shared_words(there, server) for server in ("alpha", "delta")) and here["cluster/clstat"] == there["cluster/clstat"]

        try:
            until(agree, "the machines show the same", pace=0.2)
        except Late as late:
            here, there = self.first.words(), self.second.words()
            differing = [f"{key} {value} and {there.get(key)}" for server in ("alpha", "delta") for key, value in shared_words(here, server).items() if there.get(key) != value]
            marks = [f"{machine.name} {key} {value}" for machine, words in ((self.first, here), (self.second, there)) for key, value in words.items() if key.startswith("bridge/")]
            raise Late(f"{late}; {'; '.join(differing + marks)}") from None

    def compare_with_journals(self, machine):
        values = machine.shared.values()
        for member in machine.members():
            values.update(member.journal.values())
        self.compared += len(values)
        self.interrupted += sum(len(permitted) - 1 for permitted in values.values())
        for difference in differences(machine.words(), values):
            self.findings.add(f"checkpoint {self.count} on {machine.name}: {difference}")
        if machine.shared["overlaps"]:
            self.findings.add(f"{machine.name}: the lock had two owners {machine.shared['overlaps']} times")

    def verify(self, machine):
        status, out, errors = machine.run("verify")
        if status != 0:
            self.findings.add(f"checkpoint {self.count} on {machine.name}: verify ended with {status}: {out}{errors}")

    def compare_the_followers(self):
        followers = [process for process in self.first.processes.values() if isinstance(process, (Watch, Web)) and process.is_running]
        words = comparable(self.first.words())
        for follower in followers:
            shown = follower.stream.shown if isinstance(follower, Web) else follower.shown
            only = None if isinstance(follower, Watch) else set(shown())

            def is_current():
                # A document of the picture has no words that follow from others.
                said = shown()
                expected = words if only is None else {key: value for key, value in words.items() if key in said}
                return said == expected and len(said) > 40

            try:
                until(is_current, f"{follower.name} has the region's values", deadline=20)
            except Late as late:
                said = shown()
                wrong = [f"{key} is {words.get(key)}, told {said.get(key)}" for key in sorted(set(words) | set(said)) if words.get(key) != said.get(key) and (only is None or key in said)]
                self.findings.add(f"checkpoint {self.count}: {late}: {'; '.join(wrong[:5])}")
            if isinstance(follower, Web):
                self.compare_the_web(follower, words)

    def compare_the_web(self, web, words):
        try:
            scraped = web.scrape()
            wrong = [key for key, value in scraped.items() if words.get(key) != value]
            if wrong or len(scraped) < 20:
                self.findings.add(f"checkpoint {self.count}: the metrics of {web.name} are wrong: {wrong[:5]}")
            web.get("/healthz")
        except urllib.error.HTTPError as error:
            self.findings.add(f"checkpoint {self.count}: {web.name} answers {error.code} {error.read()[:200]!r}")

    def see_the_log(self, machine):
        """The log takes lines again, whatever its disk was, and keeps to its size."""
        sizes = machine.log_sizes()
        if len(sizes) > GENERATIONS or any(size > LOG_BYTES + LONGEST_LINES for size in sizes):
            self.findings.add(f"checkpoint {self.count}: the log has files of {sizes} bytes")
        if machine.log_level < 4:
            return  # an attach writes no line
        log = machine.folder / "log/shmnm.log"

        def mark():
            return (log.stat().st_ino, log.stat().st_size) if log.exists() else None

        before = mark()
        machine.run("set", "cluster/bwflagdisk", 5 + self.count % 2)
        if mark() == before:
            self.findings.add(f"checkpoint {self.count}: the log takes no lines")

    def see_the_holders(self, machine):
        ours = {process.pid for process in machine.processes.values() if process.is_running}
        others = machine.held_by() - ours
        if others:
            self.findings.add(f"checkpoint {self.count}: processes {others} hold the region and are none of the run")
