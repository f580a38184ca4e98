"""The figures of the steady processes and of the runtime folders, taken again and again, and their bounds."""
import os
import pathlib
import re
import statistics
import time

from flatness import Bound, judged

# What a figure may gain after the warm-up, however long the run is. A process of the run has a heap of 100 to 3,000 kB.
BOUNDS = {
    "memory kB": Bound(384, 0.03),
    "descriptors": Bound(0.9),
    "mappings": Bound(3.9),
    "threads": Bound(0.9),
    "files": Bound(0.9),
    # The machine's other work is in it; the median of a window is some ten microseconds on an idle machine.
    "hand-over us": Bound(3_000, 0.25),
}
# shmnmweb remembers 2,000 steps, which takes minutes: a shorter run cannot tell its history from a leak.
HISTORY = Bound(6_000)
HISTORY_SECONDS = 1_200


def bound_of(subject, kind, seconds):
    return HISTORY if subject == "web" and kind == "memory kB" and seconds < HISTORY_SECONDS else BOUNDS[kind]


def figures(pid):
    """What a process uses: the memory of its own, open descriptors, mappings, threads."""
    folder = pathlib.Path(f"/proc/{pid}")
    status = (folder / "status").read_text()
    return {
        "memory kB": int(re.search(r"^RssAnon:\s+(\d+)", status, re.M)[1]),
        "descriptors": len(os.listdir(folder / "fd")),
        "mappings": (folder / "maps").read_text().count("\n"),
        "threads": int(re.search(r"^Threads:\s+(\d+)", status, re.M)[1]),
    }


class Samples:
    def __init__(self):
        self.series, self.begin = {}, time.monotonic()
        self.hand_overs = 0
        self.longest_hand_over = 0

    def add(self, subject, kind, value):
        self.series.setdefault((subject, kind), []).append((time.monotonic(), value))

    def take(self, machine):
        for process in machine.processes.values():
            if process.is_steady and process.is_running:
                name = process.name if machine.name == "first" else f"{machine.name}'s {process.name}"
                for kind, value in figures(process.pid).items():
                    self.add(name, kind, value)
        # Rotation moves files; their number is what may grow.
        self.add(f"{machine.name}'s folders", "files", len(machine.files()))
        passed = [ns / 1_000 for member in machine.members() for ns in member.journal.new_hand_overs()]
        if passed:
            self.add(f"{machine.name}'s lock", "hand-over us", statistics.median(passed))
            self.hand_overs += len(passed)
            self.longest_hand_over = max(self.longest_hand_over, max(passed))

    def verdicts(self):
        """Each series with its verdict."""
        end = time.monotonic()
        return {(subject, kind): judged(values, bound_of(subject, kind, end - self.begin), self.begin, end) for (subject, kind), values in sorted(self.series.items())}
