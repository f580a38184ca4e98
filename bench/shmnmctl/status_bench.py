#!/usr/bin/env python3
"""Measures how long "status --format json" takes, and for how long it holds the lock, with every table full.

    status_bench.py FOLDER      FOLDER holds the programs of an optimised build

There are 128 servers, 16 hb and 16 np resources. Prints the medians of 50 runs: for the whole command, and for the copy under the
lock, which is the only part that other processes wait for.
"""
import json
import os
import pathlib
import statistics
import subprocess
import sys
import tempfile
import time

folder = pathlib.Path(sys.argv[1])
RUNS = 50


def main():
    with tempfile.TemporaryDirectory() as installation:
        os.makedirs(f"{installation}/etc")
        pathlib.Path(f"{installation}/etc/cluster.xml").write_text(
            "<root><all><num><server>128</server><hbr>16</hbr><npr>16</npr><fstr>1</fstr></num></all></root>"
        )
        environment = dict(os.environ, KZM_INSTALL_PATH=installation, KZMUTIL_NAMESPACE=f"status-bench-{os.getpid()}-")
        api = subprocess.Popen([folder / "api_caller"], stdin=subprocess.PIPE, stdout=subprocess.PIPE, env=environment, text=True)

        def call(*words):
            print(*words, file=api.stdin, flush=True)
            answer = api.stdout.readline()
            assert answer.startswith("0"), (words, answer)

        call("shmnm_create")
        for i in range(128):
            call("shmnm_addnode", f"server{i:03}", i)
        for i in range(16):
            call("shmnm_addhbrsc", "lan", f"lanhb{i}", i)
            call("shmnm_addnprsc", "ping", f"pingnp{i}", i)

        whole, held = [], []
        for _ in range(RUNS):
            start = time.perf_counter()
            done = subprocess.run([folder / "shmnmctl", "--verbose", "status", "--format", "json"], env=environment, capture_output=True, check=True)
            whole.append((time.perf_counter() - start) * 1e3)
            status = json.loads(done.stdout)
            assert len(status["servers"]) == 128 and len(status["hb"][15]["network"]) == 128
            (line,) = [line for line in done.stderr.decode().splitlines() if "copied the bytes in use" in line]
            held.append(int(line.split()[-2]) if "with the lock" in line else 0)
        api.stdin.close()
        api.wait()
        print(f"status --format json, 128 servers, 16 + 16 resources: {statistics.median(whole):.1f} ms (worst {max(whole):.1f} ms)")
        print(f"the lock is held for                                  {statistics.median(held):.0f} us (worst {max(held):.0f} us)")


if __name__ == "__main__":
    main()
