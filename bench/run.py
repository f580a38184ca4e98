#!/usr/bin/env python3
"""Runs the benchmark programs of a build and prints their figures next to the floor, the goals and the peers.

    run.py FOLDER [--windows] [--json FILE] [--markdown FILE] [--row ROW] [--rounds N]
    run.py FOLDER --compare OTHER [--row ROW] [--rounds N]
    run.py FOLDER --instructions [--row ROW]
    run.py FOLDER --run PROGRAM [ARGUMENT...]

FOLDER holds the programs. --row measures only the rows whose names match the regular expression ROW. --compare compares the library
in FOLDER with the library in the folder OTHER, under the same programs. --instructions counts the instructions of a call, by
function, of the library and of the floor; the numbers are the same in every run. --run runs one program, or a profiler with one, in
an installation made for it.
"""
import argparse
import json
import os
import pathlib
import re
import shutil
import signal
import statistics
import subprocess
import sys
import tempfile
import threading
import time

SCRIPTS = pathlib.Path(__file__).resolve().parent.parent / "scripts"
SIZES = [(4, 4), (128, 16)]
LIBRARY, FLOOR, STRCMP = "library", "floor", "peer_strcmp"
PEERS = [STRCMP, "peer_interprocess_map", "peer_interprocess_hash", "peer_lmdb", "peer_sqlite"]
SHORT = {STRCMP: "strcmp", "peer_interprocess_map": "ip map", "peer_interprocess_hash": "ip hash", "peer_lmdb": "LMDB", "peer_sqlite": "SQLite"}

# All goals. The highest ratio of a row to its floor:
FLOOR_GOALS = {
    "header_word_get": 1.3,
    "server_word_get/128": 1.6,
    "server_word_set/128": 1.6,
    "pair_get/128/16": 1.8,
    "pair_set/128/16": 1.8,
    "row/128/16": 1.5,
    "server_word_get/4": 2.5,
    "server_word_set/4": 2.5,
    "pair_get/4/4": 2.5,
    "pair_set/4/4": 2.5,
    "row/4/4": 2.5,
    "lock": 1.5,
    "locked_set/128/16": 1.5,
}
# The lowest ratio of the strcmp peer's time to the library's; above 1 the library is faster.
STRCMP_GOALS = {"server_word_get/128": 4.0, "server_word_set/128": 4.0, "pair_get/128/16": 1.0, "pair_set/128/16": 1.0}
# The lowest ratio of the library's rounds to the strcmp peer's when two processes compete; and the smallest share of the rounds that
# each process must get.
TWO_PROCESSES_GOALS = {(4, 4): 0.7, (128, 16): 1.0}
LEAST_SHARE = 0.1
KILLS, TAKE_OVER_MEDIAN_MS, TAKE_OVER_WORST_MS = 5, 5, 50
ATTACH_US, LOAD_US, PRIVATE_KIB = 150, 1000, 512
# For how long a copy of the bytes in use of a full cluster holds the lock, when it takes it.
COPIES, COPY_HOLD_US = 300, 20
# The highest ratio of a call through shmnm.hpp to the C call, in the rows whose names begin so.
CPP_ROWS, CPP_WAYS, CPP_GOAL = "cpp_", {"cpp": "", "cpp_codes": ", error code"}, 1.03
# How long the reading library takes for a copy of a full cluster with its JSON.
SNAPSHOTS, SNAPSHOT_MS = 200, 10
# Under wine goals are wider by this factor; waits in the kernel have no goal there.
WINE_ALLOWANCE = 1.5
KERNEL_WAITS = ("lock", "locked_set", "picture")

# The figures depend on where a process's memory happens to lie, so the rounds come from several processes.
PROCESSES = 5
PATIENCE_S = 20
GOOD_PATH_CALLS = 1_000_000
# Regions that each function is tried on, and how long its slowest call may take.
WORST_HEADER_TRIES, WORST_HEADER_MS = 120, 100
HAMMER_MS, HAMMER_ROUNDS = 100, 15
ATTACH_PROCESSES, ATTACHES = 11, 20


class Installation:
    """An installation with its own configuration and its own namespace for shared objects."""

    count = 0

    def __init__(self, windows=False):
        self.windows = windows

    def __enter__(self):
        self.folder = tempfile.mkdtemp(prefix="shmnm-bench-")
        os.makedirs(f"{self.folder}/etc")
        pathlib.Path(f"{self.folder}/etc/cluster.xml").write_text(
            "<root><all><num><server>128</server><hbr>16</hbr><npr>16</npr><fstr>1</fstr></num></all>"
            "<shmnm><log><level>4</level><size>1000000</size></log></shmnm></root>\n"
        )
        path = "Z:" + self.folder.replace("/", "\\") if self.windows else self.folder
        Installation.count += 1
        self.environment = dict(os.environ, KZM_INSTALL_PATH=path, KZMUTIL_NAMESPACE=f"bench-{os.getpid()}-{Installation.count}-")
        return self

    def __exit__(self, *_):
        shutil.rmtree(self.folder)

    def command(self, program, *arguments):
        program = [SCRIPTS / "wine", f"{program}.exe"] if self.windows else [program]
        return [str(word) for word in (*program, *arguments)]

    def output_of(self, program, *arguments, before=()):
        done = subprocess.run([*before, *self.command(program, *arguments)], env=self.environment, check=True, stdout=subprocess.PIPE, text=True)
        return done.stdout


class Process:
    """A program that the benchmark talks to line by line."""

    def __init__(self, installation, program, *arguments, processor=None):
        def pin():
            if processor is not None:
                os.sched_setaffinity(0, {processor % os.cpu_count()})

        self.process = subprocess.Popen(
            installation.command(program, *arguments),
            env=installation.environment,
            stdin=subprocess.PIPE,
            stdout=subprocess.PIPE,
            text=True,
            preexec_fn=pin,
        )

    def said(self, expected=None):
        overdue = threading.Timer(PATIENCE_S, self.process.kill)
        overdue.start()
        line = self.process.stdout.readline().strip()
        overdue.cancel()
        if not line or (expected and line != expected):
            raise RuntimeError(f"{self.process.args}: expected {expected}, got {line!r}")
        return line

    def tell(self):
        self.process.stdin.write("\n")
        self.process.stdin.flush()

    def kill(self):
        self.process.send_signal(signal.SIGKILL)

    def end(self):
        self.process.stdin.close()
        self.process.wait()

    def wait_until_it_sleeps(self):
        quiet = 0
        while quiet < 3:
            state = pathlib.Path(f"/proc/{self.process.pid}/stat").read_text().rsplit(")", 1)[1].split()[0]
            quiet = quiet + 1 if state == "S" else 0
            time.sleep(0.002)


class Result:
    """The figures of a run, and the table of rows with their goals."""

    def __init__(self):
        self.figures, self.rows = {}, []

    def add(self, row, value, goal="", met=None, peers=None, floor="", ratio=""):
        self.rows.append({"row": row, "value": value, "floor": floor, "ratio": ratio, "goal": goal, "met": met, "peers": peers or {}})


def median_ratio(of, to):
    """The median of the ratios within each round."""
    return statistics.median(a / b for a, b in zip(of, to))


def measured(installation, folder, size, row, rounds, who=()):
    output = pathlib.Path(installation.folder) / "figures.json"
    options = ["--rounds", rounds, "--json", "Z:" + str(output).replace("/", "\\") if installation.windows else output]
    for name in who:
        options += ["--who", name]
    if row:
        options += ["--only", row]
    subprocess.run(installation.command(folder / "shmnm_bench", *size, *options), env=installation.environment, check=True)
    rows = {}
    for entry in json.loads(output.read_text()):
        rows.setdefault(entry["row"], {})[entry["who"]] = entry["ns"]
    return rows


def calls(result, folder, row, rounds, windows):
    """Measures the rows of single calls and their floors."""
    rows = {}
    for _ in range(PROCESSES):
        for size in SIZES:
            with Installation(windows) as installation:
                for name, figures in measured(installation, folder, size, row, rounds).items():
                    for who, ns in figures.items():
                        rows.setdefault(name, {}).setdefault(who, []).extend(ns)
    result.figures["calls"] = rows
    for name, ns in rows.items():
        if name.startswith(CPP_ROWS):
            cpp_calls(result, name, ns)
            continue
        allowance = WINE_ALLOWANCE if windows else 1
        goal = FLOOR_GOALS.get(name)
        if windows and name.split("/")[0] in KERNEL_WAITS:
            goal = None
        ratio = median_ratio(ns[LIBRARY], ns[FLOOR])
        peers = {peer: median_ratio(ns[peer], ns[LIBRARY]) for peer in PEERS if peer in ns}
        met = ratio <= goal * allowance if goal else None
        text = f"<= {goal * allowance:.2f}" if goal else ""
        if name in STRCMP_GOALS:
            least = STRCMP_GOALS[name] / allowance
            text += f", strcmp >= {least:.1f}"
            met = met and peers[STRCMP] >= least
        result.add(
            name,
            f"{statistics.median(ns[LIBRARY]):.1f} ns",
            text,
            met,
            {peer: f"{times:.2f}" for peer, times in peers.items()},
            floor=f"{statistics.median(ns[FLOOR]):.1f}",
            ratio=f"{ratio:.2f}",
        )


def cpp_calls(result, name, ns):
    """The rows that compare calls through shmnm.hpp with the C calls."""
    for way, meaning in CPP_WAYS.items():
        ratio = median_ratio(ns[way], ns[LIBRARY])
        text = f"{statistics.median(ns[way]):.1f} ns, {ratio:.3f} of the C call's {statistics.median(ns[LIBRARY]):.1f}"
        result.add(name + meaning, text, f"<= {CPP_GOAL}", ratio <= CPP_GOAL)


def two_processes(result, folder):
    program = folder / "shmnm_bench_process"
    for size in SIZES:
        with Installation() as installation:
            contestants = [LIBRARY, *PEERS]
            holders = [Process(installation, program, "serve", who, *size) for who in contestants]
            for holder in holders:
                holder.said("ready")
            rounds = {who: [] for who in contestants}
            for _ in range(HAMMER_ROUNDS):
                for who in contestants:
                    pair = [Process(installation, program, "hammer", who, *size, HAMMER_MS, processor=i) for i in range(2)]
                    for process in pair:
                        process.said("ready")
                    for process in pair:
                        process.tell()
                    rounds[who].append([[int(word) for word in process.said().split()] for process in pair])
                    for process in pair:
                        process.end()
            for holder in holders:
                holder.end()
        name = f"two_processes/{size[0]}/{size[1]}"
        result.figures[name] = rounds
        sums = {who: [sum(made for made, _ in pair) for pair in rounds[who]] for who in contestants}

        def least_share(who):
            return min(min(made for made, _ in pair) / max(1, sum(made for made, _ in pair)) for pair in rounds[who])

        def longest_ms(who):
            return max(waited for pair in rounds[who] for _, waited in pair) / 1e6

        of_strcmp = median_ratio(sums[LIBRARY], sums[STRCMP])
        goal = TWO_PROCESSES_GOALS[size]
        per_second = statistics.median(sums[LIBRARY]) / (HAMMER_MS / 1e3)
        result.add(
            name,
            f"{per_second / 1e6:.2f} M/s, {of_strcmp:.2f} of strcmp's",
            f">= {goal}",
            of_strcmp >= goal,
            {who: f"{median_ratio(sums[LIBRARY], sums[who]):.2f}" for who in PEERS},
        )
        result.add(
            name + " least share",
            f"{least_share(LIBRARY):.2f}",
            f">= {LEAST_SHARE}",
            least_share(LIBRARY) >= LEAST_SHARE,
            {who: f"{least_share(who):.2f}" for who in PEERS},
        )
        result.add(name + " longest wait", f"{longest_ms(LIBRARY):.1f} ms", peers={who: f"{longest_ms(who):.1f} ms" for who in PEERS})


def owner_killed(result, folder):
    program = folder / "shmnm_bench_process"
    times = {}
    # Boost.Interprocess is left out: its mutex stays locked for ever when its owner is killed.
    for who in [LIBRARY, STRCMP, "peer_lmdb", "peer_sqlite"]:
        with Installation() as installation:
            holder = Process(installation, program, "serve", who, 4, 4)
            holder.said("ready")
            times[who] = []
            for _ in range(KILLS):
                owner = Process(installation, program, "hold", who, 4, 4)
                owner.said("locked")
                successor = Process(installation, program, "take_over", who, 4, 4)
                successor.said("waiting")
                successor.wait_until_it_sleeps()
                killed = time.monotonic_ns()
                owner.kill()
                times[who].append((int(successor.said()) - killed) / 1e6)
                owner.process.wait()
                successor.end()
            holder.end()
    result.figures["owner_killed"] = times
    middle, worst = statistics.median(times[LIBRARY]), max(times[LIBRARY])
    peers = {who: f"{statistics.median(figures):.2f} ms" for who, figures in times.items() if who != LIBRARY}
    result.add(
        "owner_killed",
        f"{len(times[LIBRARY])} of {KILLS}, {middle:.2f} ms, worst {worst:.2f} ms",
        f"<= {TAKE_OVER_MEDIAN_MS}, {TAKE_OVER_WORST_MS} ms",
        middle <= TAKE_OVER_MEDIAN_MS and worst <= TAKE_OVER_WORST_MS,
        peers,
    )


def attach(result, folder, windows):
    program = folder / "shmnm_bench_process"
    figures = {}
    with Installation(windows) as installation:
        contestants = [LIBRARY, STRCMP] if windows else [LIBRARY, *PEERS]
        holders = [Process(installation, program, "serve", who, 4, 4) for who in contestants]
        for holder in holders:
            holder.said("ready")
        for _ in range(ATTACH_PROCESSES):
            for who in contestants:
                numbers = [int(word) / 1e3 for word in installation.output_of(program, "attach", who, 4, 4, ATTACHES).split()]
                figures.setdefault(who, []).append((numbers[0::2], numbers[1::2]))
        for holder in holders:
            holder.end()
    result.figures["attach"] = figures
    goal = ATTACH_US * (WINE_ALLOWANCE if windows else 1)

    def line(name, of, goal=None):
        value = {who: statistics.median(of(*process) for process in processes) for who, processes in figures.items()}
        peers = {who: f"{us:.0f} us" for who, us in value.items() if who != LIBRARY}
        result.add(name, f"{value[LIBRARY]:.0f} us", f"<= {goal:.0f} us" if goal else "", value[LIBRARY] <= goal if goal else None, peers)

    line("attach, first of a process", lambda attaches, _: attaches[0], goal)
    line("attach, again", lambda attaches, _: statistics.median(attaches[1:]), goal)
    line("detach", lambda _, detaches: statistics.median(detaches))


def load_and_memory(result, folder):
    with Installation() as installation:
        holder = Process(installation, folder / "shmnm_bench_process", "serve", LIBRARY, 4, 4)
        holder.said("ready")
        region = "/s." + installation.environment["KZMUTIL_NAMESPACE"]
        figures = {"load": [], "load, C++ run time loaded": []}
        for _ in range(ATTACH_PROCESSES):
            for name, other in (("load", []), ("load, C++ run time loaded", ["libstdc++.so.6"])):
                output = installation.output_of(folder / "memory_bench", folder / "libkzmshmnm.so.1", region, *other)
                figures[name].append([int(word) for word in output.split()])
        holder.end()
    result.figures["load_and_memory"] = figures
    for name, processes in figures.items():
        us = statistics.median(loaded for loaded, _, _ in processes) / 1e3
        result.add(name, f"{us:.0f} us", f"<= {LOAD_US} us", us <= LOAD_US)
    kib = statistics.median(after - before for _, before, after in figures["load"])
    result.add("private memory", f"{kib:.0f} KiB", f"<= {PRIVATE_KIB} KiB", kib <= PRIVATE_KIB)


def copies(result, folder, windows):
    figures = {}
    for name, part, lock in (("in use", "in_use", "always"), ("all bytes", "all", "always"), ("in use, lock if needed", "in_use", "if_needed")):
        with Installation(windows) as installation:
            lines = installation.output_of(folder / "copy_bench", COPIES, part, lock).splitlines()
        figures[name] = [[int(word) for word in line.split()] for line in lines]
    result.figures["copy"] = figures
    for name, copied in figures.items():
        whole, held = (statistics.median(column) for column in zip(*copied))
        goal = COPY_HOLD_US if name == "in use" and not windows else None
        result.add(
            f"copy/128/32 {name}",
            f"lock held for {held:.0f} us, whole copy {whole:.0f} us",
            f"<= {goal} us held" if goal else "",
            held <= goal if goal else None,
        )


def snapshots(result, folder, windows):
    with Installation(windows) as installation:
        lines = installation.output_of(folder / "snapshot_bench", SNAPSHOTS).splitlines()
    figures = [[int(word) for word in line.split()] for line in lines]
    result.figures["snapshot"] = figures
    copied, updated = (statistics.median(column) / 1e3 for column in zip(*figures))
    result.add("snapshot/128/32", f"{copied:.2f} ms with JSON, {updated:.2f} ms for an update without a change",
               f"<= {SNAPSHOT_MS} ms", copied <= SNAPSHOT_MS)


def good_path(result, folder):
    with Installation() as installation:
        trace = pathlib.Path(installation.folder) / "trace"
        before = ["strace", "-f", "-o", trace]
        made, kinds, allocations, locks = map(int, installation.output_of(folder / "good_path_bench", GOOD_PATH_CALLS, before=before).split())
        lines = trace.read_text().splitlines()
    marks = [number for number, line in enumerate(lines) if " getppid(" in line]
    if len(marks) != 2:
        raise RuntimeError("the marks are not in the trace")
    system_calls = marks[1] - marks[0] - 1
    result.figures["good_path"] = {"calls": made, "functions": kinds, "allocations": allocations, "locks": locks, "system_calls": system_calls}
    text = f"{made} calls of {kinds} functions: {allocations} allocations, {system_calls} system calls, {locks} locks"
    result.add("good_path", text, "0, 0, 0", allocations == system_calls == locks == 0)


def worst_header(result, folder):
    with Installation() as installation:
        lines = installation.output_of(folder / "worst_header_bench", WORST_HEADER_TRIES).splitlines()
    tried = sorted(((float(line.split()[1]), line) for line in lines), reverse=True)
    result.figures["worst_header"] = [line for _, line in tried]
    ms, worst = tried[0]
    text = f"{len(tried)} calls, each on {WORST_HEADER_TRIES} damaged regions: {ms:.0f} ms at most, {worst.split()[0]}"
    result.add("worst_header", text, f"<= {WORST_HEADER_MS} ms", ms <= WORST_HEADER_MS)


def cells_of(result):
    """The table as texts: a line of headings, then one line per row."""
    shown = [peer for peer in PEERS if any(peer in row["peers"] for row in result.rows)]
    lines = [["row", "library", "floor ns", "x floor", "goal", "", *(SHORT[peer] for peer in shown)]]
    for row in result.rows:
        verdict = {None: "", True: "met", False: "MISSED"}[row["met"]]
        peers = [row["peers"].get(peer, "-" if row["peers"] else "") for peer in shown]
        lines.append([row["row"], row["value"], row["floor"], row["ratio"], row["goal"], verdict, *peers])
    return lines


PEERS_EXPLAINED = "A peer's figure without a unit is its time divided by the library's, or in a row of shares its share."


def print_table(result):
    lines = cells_of(result)
    # Long texts do not widen their column.
    widths = [max(len(line[column]) for line in lines if len(line[column]) < 50) for column in range(len(lines[0]))]
    print()
    for line in lines:
        cells = [cell.ljust(width) if column in (0, 4, 5) else cell.rjust(width) for column, (cell, width) in enumerate(zip(line, widths))]
        print("  ".join(cells).rstrip())
    print(f"\n{PEERS_EXPLAINED}")


def write_markdown(result, file):
    heads, *lines = cells_of(result)
    text = ["| " + " | ".join(heads) + " |", "|---|---:|---:|---:|---|---|" + "---:|" * (len(heads) - 6)]
    text += ["| " + " | ".join(line) + " |" for line in lines]
    file.write_text("\n".join(text) + f"\n\n{PEERS_EXPLAINED}\n")


def compare(folder, other, row, rounds):
    """Measures the libraries of two builds in turn, under the same programs."""
    figures = {}
    for turn in range(6):
        sides = [("other", other), ("this", folder)]
        for side, place in sides if turn % 2 == 0 else reversed(sides):
            for size in SIZES:
                with Installation() as installation:
                    for name, ns in measured(installation, place, size, row, rounds, who=[LIBRARY, FLOOR]).items():
                        if FLOOR not in ns:
                            continue
                        entry = figures.setdefault(name, {"other": [], "this": []})
                        entry[side].append((statistics.median(ns[LIBRARY]), median_ratio(ns[LIBRARY], ns[FLOOR])))
    print(f"\n{'row':24}{'other ns':>12}{'this ns':>12}{'this/other':>12}{'other x floor':>15}{'this x floor':>14}")
    for name, sides in figures.items():
        other_ns, this_ns = ([ns for ns, _ in sides[side]] for side in ("other", "this"))
        ratios = [statistics.median(ratio for _, ratio in sides[side]) for side in ("other", "this")]
        print(
            f"{name:24}{statistics.median(other_ns):12.1f}{statistics.median(this_ns):12.1f}"
            f"{median_ratio(this_ns, other_ns):12.2f}{ratios[0]:15.2f}{ratios[1]:14.2f}"
        )


def counted(installation, folder, size, row, who, count):
    """Counts the instructions of a whole run of the program, by function."""
    output = f"{installation.folder}/callgrind"
    valgrind = ["valgrind", "-q", "--tool=callgrind", f"--callgrind-out-file={output}"]
    installation.output_of(folder / "shmnm_bench", *size, "--only", row, "--who", who, "--count", count, before=valgrind)
    lines = subprocess.run(["callgrind_annotate", "--threshold=100", "--auto=no", "--tree=none", output], check=True, stdout=subprocess.PIPE, text=True).stdout
    functions = {}
    for line in lines.splitlines():
        found = re.match(r"\s*([0-9,]+) \(.*?\)\s+(.*?)(?: \[(.*)\])?$", line)
        # A function has one line for each file that a part of it comes from.
        if found and ":" in found[2]:
            name = re.sub(r" \((clone .*|\d+x)\)$", "", found[2].split(":", 1)[1])
            functions[name] = functions.get(name, 0) + int(found[1].replace(",", ""))
    return functions


def instructions(folder, row):
    """Counts the instructions of a call: the difference between a run and a run with half as many calls."""
    calls = 1000
    for size in SIZES:
        with Installation() as installation:
            names = measured(installation, folder, size, row, 1, who=[FLOOR])
            for name in names:
                for who in (FLOOR, LIBRARY):
                    once, twice = (counted(installation, folder, size, f"^{name}$", who, calls * times) for times in (1, 2))
                    each = {function: (count - once.get(function, 0)) / calls for function, count in twice.items()}
                    print(f"\n{name} {who}: {sum(each.values()):.1f} instructions per call")
                    for function, count in sorted(each.items(), key=lambda item: -item[1]):
                        if count >= 0.5:
                            print(f"{count:10.1f}  {function[:130]}")


def main():
    parser = argparse.ArgumentParser(description=__doc__, formatter_class=argparse.RawDescriptionHelpFormatter)
    parser.add_argument("folder", type=lambda text: pathlib.Path(text).resolve())
    parser.add_argument("--windows", action="store_true")
    parser.add_argument("--json", type=pathlib.Path)
    parser.add_argument("--markdown", type=pathlib.Path)
    parser.add_argument("--row", default="")
    parser.add_argument("--rounds", type=int)
    parser.add_argument("--compare", type=lambda text: pathlib.Path(text).resolve())
    parser.add_argument("--instructions", action="store_true")
    parser.add_argument("--run", nargs=argparse.REMAINDER)
    arguments = parser.parse_args()
    if arguments.run:
        with Installation(arguments.windows) as installation:
            return subprocess.run(arguments.run, env=installation.environment).returncode
    if arguments.instructions:
        instructions(arguments.folder, arguments.row)
        return 0
    if arguments.compare:
        compare(arguments.folder, arguments.compare, arguments.row, arguments.rounds or 51)
        return 0

    result = Result()
    calls(result, arguments.folder, arguments.row, arguments.rounds or 61, arguments.windows)
    subjects = {
        "attach, load": lambda: attach(result, arguments.folder, arguments.windows),
        "copy": lambda: copies(result, arguments.folder, arguments.windows),
        "snapshot": lambda: snapshots(result, arguments.folder, arguments.windows),
    }
    if not arguments.windows:
        subjects |= {
            "two_processes": lambda: two_processes(result, arguments.folder),
            "owner_killed": lambda: owner_killed(result, arguments.folder),
            "load, private memory": lambda: load_and_memory(result, arguments.folder),
            "good_path": lambda: good_path(result, arguments.folder),
            "worst_header": lambda: worst_header(result, arguments.folder),
        }
    for names, do in subjects.items():
        if re.search(arguments.row, names):
            do()
    print_table(result)
    if arguments.json:
        arguments.json.write_text(json.dumps({"rows": result.rows, "figures": result.figures}) + "\n")
    if arguments.markdown:
        write_markdown(result, arguments.markdown)
    return 0


if __name__ == "__main__":
    sys.exit(main())
