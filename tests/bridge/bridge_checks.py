"""The invariants of docs/bridge-protocol.md, as far as they can be seen from outside, checked after a schedule by what local
processes have written, what regions and marks have shown, and what etcd has held. The numbers in the findings are theirs.

A machine under load is late: times that are limits of the protocol get SLACK.
"""
import bisect
import collections

from bridge_support import FIRST_NUMBER, LIMIT, MARKED

SLACK = 0.5
FOREIGN_NUMBER = 900_000_000  # from here on: what local processes set in another server's words
AGREED_NUMBER = 500_000_000   # from here on: what they set in agreed words
UNKNOWN = 2
WORDS_OF_SILENCE = ("/nodestat", "/nodestat_nw")

# What kept a machine from its work. `hides`: others must not call it fresh; `blinds`: it must not call others fresh.
Trouble = collections.namedtuple("Trouble", "machine what start end hides blinds")


class Steps:
    """A value that changes at known times."""

    def __init__(self, changes):
        self.times = [time for time, _ in changes]
        self.values = [value for _, value in changes]

    def at(self, time):
        found = bisect.bisect_right(self.times, time)
        return self.values[found - 1] if found else None

    def spans(self, end):
        """Each known value with its begin and end."""
        return [span for span in zip(self.values, self.times, [*self.times[1:], end]) if span[0] is not None]


def steps(events):
    """By key."""
    changes = collections.defaultdict(list)
    for event in events:
        changes[event.key].append((event.time, event.value))
    return {key: Steps(each) for key, each in changes.items()}


def is_own(value):
    return value is not None and FIRST_NUMBER <= value < AGREED_NUMBER


class Checker:
    def __init__(self, scene, history, troubles, begin, end):
        self.scene, self.history, self.troubles, self.begin, self.end = scene, history, troubles, begin, end
        self.findings, self.stale = [], []
        self.shown = {machine: steps(machine.shown) for machine in scene.machines}
        self.marks = {machine: steps(machine.marks) for machine in scene.machines}

    def find(self, invariant, text):
        self.findings.append(f"invariant {invariant}: {text}")

    def moment(self, time):
        return f"{time - self.begin:.2f} s"

    def check(self):
        self.check_words_never_fall()
        self.check_own_columns()
        self.check_troubles()
        self.check_accounts()
        self.check_silence()
        self.check_marks_without_trouble()
        self.check_fresh_words()
        self.check_history()
        return self.findings

    # 2 and 6.

    def check_words_never_fall(self):
        landed = {}
        for revision, key, value in self.history.changes:
            if key.startswith("agreed/"):
                landed[key[len("agreed/"):], value["value"][0]] = revision
        for machine in self.scene.machines:
            for key, word in self.shown[machine].items():
                if key.startswith("cluster/"):
                    self.check_agreed_word(machine, key, word, landed)
                    continue
                highest = 0
                for value, time, _ in word.spans(self.end):
                    if is_own(value):
                        highest = self.risen(machine, key, highest, value, time)

    def check_agreed_word(self, machine, key, word, landed):
        """Its revisions rise. But what a local process has set is shown before etcd accepts it: if the region is then made anew, nobody
        on the machine may have heard of that revision."""
        set_here = {event.value for event in machine.written if event.key == key}
        new_regions = sorted([*machine.cleared, *(event.time for event in machine.region if event.value == 1)])
        highest = heard_of = region = 0
        for value, time, _ in word.spans(self.end):
            revision = landed.get((key[len("cluster/"):], value))
            if not revision:
                continue
            if region < (region := bisect.bisect_right(new_regions, time)):
                highest = heard_of
            highest = self.risen(machine, key, highest, revision, time)
            if value not in set_here:
                heard_of = max(heard_of, revision)

    def risen(self, machine, key, highest, value, time):
        if value < highest:
            self.find(2, f"{key} on {machine.server} falls from {highest} to {value} at {self.moment(time)}")
        return max(highest, value)

    def check_own_columns(self):
        for machine in self.scene.machines:
            written = {(event.key, event.value) for event in machine.written}
            for event in machine.shown:
                if machine.server in event.key.split("/") and is_own(event.value) and (event.key, event.value) not in written:
                    self.find(6, f"{event.key} on {machine.server}, its own machine, shows {event.value}, which no local process has set")

    # 3.

    def check_troubles(self):
        for trouble in self.troubles:
            late = trouble.start + MARKED + SLACK
            for here, there in self.pairs(trouble):
                self.check_trouble(trouble, late, here, there)

    def pairs(self, trouble):
        """Who must not call whom fresh."""
        pairs = []
        for machine in self.scene.machines:
            if machine is trouble.machine or not trouble.machine:
                does_not_know = trouble.blinds if trouble.machine else trouble.hides
                pairs += [(machine, other) for other in self.scene.others(machine)] if does_not_know else []
            elif trouble.hides:
                pairs.append((machine, trouble.machine))
        return pairs

    def check_trouble(self, trouble, late, here, there):
        word = self.marks[here].get(there.server)
        for value, begin, end in word.spans(self.end) if word else ():
            # What was fresh before is to end in time, and nothing becomes fresh until the trouble has ended.
            if value != "fresh" or begin >= trouble.end or end <= trouble.start:
                continue
            if min(end, trouble.end) > max(late, begin):
                self.find(3, f"{there.server} is fresh on {here.server} from {self.moment(begin)} to {self.moment(end)}, during {trouble.what} from "
                             f"{self.moment(trouble.start)} to {self.moment(trouble.end)}")
            if trouble.end > late and begin <= trouble.start:
                self.stale.append(end - trouble.start)

    def check_silence(self):
        for machine in self.scene.machines:
            for server, mark in self.marks[machine].items():
                for value, begin, end in mark.spans(self.end):
                    if value != "silent" or self.is_troubled(machine, begin, end):
                        continue
                    for suffix in WORDS_OF_SILENCE:
                        word = self.shown[machine].get(f"servers/{server}{suffix}")
                        for state, since, until in word.spans(self.end) if word else ():
                            if state != UNKNOWN and min(end, until) - max(begin, since) > 1 + SLACK:
                                self.find(3, f"servers/{server}{suffix} is {state} on {machine.server} although {server} is silent since {self.moment(begin)}")

    def check_accounts(self):
        """What `shmnmbridge status` said: whole, and not fresh when the watched marks must not be fresh either."""
        for machine in self.scene.machines:
            for account in machine.accounts:
                document = account.document
                marks = {mark["name"]: mark for mark in document.get("servers", ())}
                fresh = [name for name, mark in marks.items() if mark["freshness"] == "fresh"]
                is_all_fresh = document["up"] and document["connected"] and document["running"] and document["fed"] and len(fresh) == len(marks)
                if account.code != (0 if is_all_fresh else 1 if document["up"] else 3):
                    self.find(3, f"status on {machine.server} ends with {account.code} at {self.moment(account.begin)} and says {document}")
                for name in fresh:
                    if not 0 <= marks[name]["age_ms"] < LIMIT * 1_000:
                        self.find(3, f"status on {machine.server} calls {name} fresh at {self.moment(account.begin)} with an age of {marks[name]['age_ms']} ms")
                for trouble in self.troubles:
                    is_within = trouble.start + MARKED + SLACK < account.begin and account.end < trouble.end
                    for here, there in self.pairs(trouble) if is_within else ():
                        if here is machine and there.server in fresh:
                            self.find(3, f"status on {machine.server} calls {there.server} fresh at {self.moment(account.begin)}, during {trouble.what} from "
                                         f"{self.moment(trouble.start)} to {self.moment(trouble.end)}")

    def is_troubled(self, machine, begin, end):
        return any(trouble.start <= end and trouble.end >= begin for trouble in self.troubles if trouble.machine in (machine, None))

    def check_fresh_words(self):
        """Nothing is called fresh whose owner has had something else for longer than the limit."""
        for owner in self.scene.machines:
            ended = self.ends_of_words(owner)
            for machine in self.scene.others(owner):
                mark = self.marks[machine].get(owner.server)
                fresh = [(begin, end) for value, begin, end in mark.spans(self.end) if value == "fresh"] if mark else []
                for key, word in self.shown[machine].items():
                    if key.startswith("cluster/"):
                        continue  # agreed words have no owner
                    for value, begin, end in word.spans(self.end):
                        if (key, value) in ended:
                            self.check_fresh_word(machine, owner, key, value, begin, end, ended[key, value], fresh)

    @staticmethod
    def ends_of_words(owner):
        ends, last = {}, {}
        ends_of_regions = [event.time for event in owner.region if event.value == 0]
        for event in owner.written:
            if event.key in last:
                ends[event.key, last[event.key]] = event.time
            last[event.key] = event.value
            later = [time for time in ends_of_regions if time > event.time]
            if later:
                ends[event.key, event.value] = later[0]
        return ends

    def check_fresh_word(self, machine, owner, key, value, begin, end, ended, fresh):
        late = ended + MARKED + SLACK
        if end <= late:
            return
        for since, until in fresh:
            if min(until, end) > max(since, begin, late):
                self.find(3, f"{key} is {value} on {machine.server} until {self.moment(end)}, when {owner.server} is fresh there since {self.moment(since)}; "
                             f"its owner has had another since {self.moment(ended)}")

    # 4.

    def check_marks_without_trouble(self):
        recovery_from_silence, recovery = 5.0, 10.0
        for machine in self.scene.machines:
            for other in self.scene.others(machine):
                mark = self.marks[machine].get(other.server)
                for value, begin, end in mark.spans(self.end) if mark else ():
                    if value == "silent" and begin > self.begin and not self.is_troubled(other, begin - recovery_from_silence, begin):
                        self.find(4, f"{other.server} is silent on {machine.server} from {self.moment(begin)} on, but beats")
                    quiet = not self.is_troubled(other, begin - recovery, end) and not self.is_troubled(machine, begin - recovery, end)
                    if value != "fresh" and begin > self.begin and quiet:
                        self.find(4, f"{other.server} is {value} on {machine.server} from {self.moment(begin)} on, without a fault")

    # 5, and 2 in etcd.

    def check_history(self):
        claims, highest = {}, {}
        if self.history.is_lost:
            self.find(5, "the test has lost a part of the history")
        by_revision = collections.defaultdict(list)
        for revision, key, value in self.history.changes:
            by_revision[revision].append((key, value))
        for revision, changes in sorted(by_revision.items()):
            # One transaction begins or ends a run.
            for key, value in changes:
                if key.startswith("claim/"):
                    claims[key[len("claim/"):]] = value and value["run"]
            for key, value in changes:
                kind, _, server = key.partition("/")
                if kind not in ("state", "beat") or value is None:
                    continue
                if claims.get(server) != value["run"]:
                    self.find(5, f"{key} of run {value['run']} is written at revision {revision}, where the claim is of {claims.get(server)}")
                if kind == "state":
                    self.check_state(server, value, revision, highest)

    def check_state(self, server, value, revision, highest):
        for position, number in enumerate(value["words"]):
            if is_own(number):
                if number < highest.get((server, position), 0):
                    self.find(2, f"word {position} of {server} falls to {number} in etcd at revision {revision}")
                highest[server, position] = number
