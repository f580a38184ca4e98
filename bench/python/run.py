"""What calls through the Python package cost, beside bare calls through ctypes: a table, and whether the goals are met.

    /usr/bin/python3 bench/python/run.py build/linux-release/bin

In a region of 128 servers with 16 hb and 16 np resources. A row is the median of 31 rounds, in which the package and the bare calls take
turns, so that a temporary disturbance of the machine affects both.
"""

import ctypes
import os
import pathlib
import statistics
import sys
import tempfile
import time

PROJECT = pathlib.Path(__file__).resolve().parents[2]
BIN = pathlib.Path(sys.argv[1]).resolve()
ROUNDS = 31
GET_GOAL_US = 1.0
SNAPSHOT_GOAL_MS = 10.0


def seconds_of(work, calls):
    begin = time.perf_counter()
    for _ in range(calls):
        work()
    return (time.perf_counter() - begin) / calls


def compared(package, bare, calls):
    """Microseconds of a call of both, and the median of their differences."""
    pairs = []
    for number in range(ROUNDS):
        pair = {}
        for work in (package, bare) if number % 2 else (bare, package):
            pair[work] = seconds_of(work, calls) * 1e6
        pairs.append((pair[package], pair[bare]))
    return (*(statistics.median(column) for column in zip(*pairs)), statistics.median(one - other for one, other in pairs))


def fill(region):
    for number in range(1, 129):
        region.servers.add(f"server{number:03}", number)
    for number in range(1, 17):
        region.hb.add("lan", f"lanhb{number}", number)
        region.np.add("ping", f"pingnp{number}", number)


def main():
    folder = pathlib.Path(tempfile.mkdtemp(prefix="shmnm-bench-"))
    (folder / "etc").mkdir()
    (folder / "log").mkdir()
    (folder / "etc/cluster.xml").write_text("<root><all><num><server>128</server><hbr>16</hbr><npr>16</npr><fstr>1</fstr></num></all></root>")
    os.environ |= {"KZM_INSTALL_PATH": str(folder), "KZMUTIL_NAMESPACE": f"{folder.name}-", "SHMNM_LIBRARY_PATH": str(BIN)}
    sys.path.insert(0, str(PROJECT / "bindings/python"))
    import shmnm

    # The bare calls: declared once, with arguments that are made once. No less is possible with ctypes.
    library = ctypes.CDLL(str(BIN / "libkzmshmnm.so.1"))
    word = ctypes.c_uint32
    get, put, take, give_back = library.shmnm_getnodestat, library.shmnm_setnodestat, library.shmnm_rwlock, library.shmnm_rwunlock
    get.argtypes, put.argtypes = [ctypes.c_char_p, ctypes.POINTER(word)], [ctypes.c_char_p, word]
    for function in (get, put, take, give_back):
        function.restype = word

    value = word()
    output = ctypes.byref(value)

    def bare_lock():
        take(5000)
        give_back()

    with shmnm.create() as region:
        fill(region)
        server = region.servers["server128"]
        server.nodestat = 7
        assert get(b"server128", output) == 0 and server.nodestat == value.value == 7

        def package_set():
            server.nodestat = 1

        def package_lock():
            with region.lock():
                pass

        rows = [
            ("get of a held server", *compared(lambda: server.nodestat, lambda: get(b"server128", output), 2000)),
            ("set of a held server", *compared(package_set, lambda: put(b"server128", 1), 2000)),
            ("lock and unlock", *compared(package_lock, bare_lock, 1000)),
        ]
        print(f"{'':24}{'package µs':>12}{'ctypes µs':>12}{'more µs':>10}")
        for name, package, bare, more in rows:
            print(f"{name:24}{package:12.2f}{bare:12.2f}{more:10.2f}")
        snapshot_ms = statistics.median(seconds_of(region.snapshot, 1) * 1e3 for _ in range(ROUNDS))
        with shmnm.Picture() as picture:
            again_ms = statistics.median(seconds_of(lambda: (picture.update(), picture.snapshot()), 1) * 1e3 for _ in range(ROUNDS))
        print(f"snapshot() {snapshot_ms:.2f} ms; update() and snapshot() of an open picture {again_ms:.2f} ms")
        met = {
            f"a get costs at most {GET_GOAL_US} µs more than the bare call": rows[0][3] <= GET_GOAL_US,
            f"a snapshot takes less than {SNAPSHOT_GOAL_MS} ms": snapshot_ms < SNAPSHOT_GOAL_MS,
        }
    for goal, reached in met.items():
        print(f"{'met' if reached else 'MISSED'}: {goal}")
    return 0 if all(met.values()) else 1


if __name__ == "__main__":
    sys.exit(main())
