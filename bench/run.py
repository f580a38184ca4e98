#!/usr/bin/env python3
"""Runs the benchmark programs of a build and prints their figures next to the floor, the goals and the peers.

    run.py FOLDER [--json FILE] [--row ROW] [--rounds N]
    run.py FOLDER --run PROGRAM [ARGUMENT...]

FOLDER holds the programs. The second form runs one program in the installation that they need, for a profiler or by hand.
"""
import argparse
import json
import os
import pathlib
import shutil
import statistics
import subprocess
import sys
import tempfile

SIZES = [("4", "4"), ("128", "16")]

# Ratios to the floor that are aimed at.
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
# How many times as fast as the strcmp peer.
STRCMP_GOALS = {
    "server_word_get/128": 4.0,
    "server_word_set/128": 4.0,
    "pair_get/128/16": 1.0,
    "pair_set/128/16": 1.0,
}


class Installation:
    """An installation with a configuration of its own, and names for shared objects that nobody else uses."""

    def __enter__(self):
        self.folder = tempfile.mkdtemp(prefix="shmnm-bench-")
        os.makedirs(f"{self.folder}/etc")
        pathlib.Path(f"{self.folder}/etc/cluster.xml").write_text(
            "<root><all><num><server>128</server><hbr>16</hbr><npr>16</npr><fstr>1</fstr></num></all>"
            "<shmnm><log><level>4</level><size>1000000</size></log></shmnm></root>\n"
        )
        self.environment = dict(os.environ, KZM_INSTALL_PATH=self.folder, KZMUTIL_NAMESPACE=f"bench-{os.getpid()}-")
        return self

    def __exit__(self, *_):
        shutil.rmtree(self.folder)


def table(figures):
    rows = {}
    for entry in figures:
        rows.setdefault(entry["row"], {})[entry["who"]] = entry["ns"]

    def ratio(of, to):
        return statistics.median(a / b for a, b in zip(of, to))

    missed = 0
    peers = sorted({who for row in rows.values() for who in row} - {"library", "floor"})
    print(f"{'row':22} {'ns':>9} {'floor ns':>9} {'x floor':>8} {'goal':>6} {'':7}" + "".join(f"{peer[5:]:>14}" for peer in peers))
    for name, row in rows.items():
        if "library" not in row:
            continue
        library, floor = row["library"], row.get("floor")
        line = f"{name:22} {statistics.median(library):9.1f} "
        met = True
        goal = ""
        if floor:
            over = ratio(library, floor)
            line += f"{statistics.median(floor):9.1f} {over:8.2f} "
            if name in FLOOR_GOALS:
                goal, met = f"{FLOOR_GOALS[name]:.1f}", over <= FLOOR_GOALS[name]
        else:
            line += " " * 19
        cells = ""
        for peer in peers:
            if peer not in row:
                cells += f"{'-':>14}"
                continue
            times = ratio(row[peer], library)
            mark = ""
            if peer == "peer_strcmp" and name in STRCMP_GOALS:
                mark = "!" if times < STRCMP_GOALS[name] else ""
                met = met and not mark
            cells += f"{mark}{times:.2f}x".rjust(14)
        verdict = ("met" if met else "MISSED") if name in FLOOR_GOALS or name in STRCMP_GOALS else ""
        missed += verdict == "MISSED"
        print(f"{line}{goal:>6} {verdict:7}{cells}")
    print("\nEach peer's column: how many times as long as the library it takes.")
    return missed


def main():
    parser = argparse.ArgumentParser()
    parser.add_argument("folder", type=pathlib.Path)
    parser.add_argument("--json", type=pathlib.Path)
    parser.add_argument("--row", default="")
    parser.add_argument("--rounds", default="101")
    parser.add_argument("--run", nargs=argparse.REMAINDER)
    arguments = parser.parse_args()
    with Installation() as installation:
        if arguments.run:
            return subprocess.run(arguments.run, env=installation.environment).returncode
        figures = []
        for size in SIZES:
            output = f"{installation.folder}/figures.json"
            command = [arguments.folder / "shmnm_bench", *size, "--rounds", arguments.rounds, "--json", output]
            if arguments.row:
                command += ["--only", arguments.row]
            subprocess.run(command, env=installation.environment, check=True)
            figures += json.loads(pathlib.Path(output).read_text())
    if arguments.json:
        arguments.json.write_text(json.dumps(figures))
    table(figures)
    return 0


if __name__ == "__main__":
    sys.exit(main())
