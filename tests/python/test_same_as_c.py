"""Random calls through the package and through C, on two regions: the same results, outputs and bytes after each call.

SHMNM_PYTHON_CALLS asks for more calls than the usual 100,000.
"""

import collections
import os
import pathlib
import pickle
import subprocess
import sys
import zlib

import pytest
from hypothesis import HealthCheck, Phase, given, settings
from hypothesis import strategies as st

import conftest
import shmnm
from c_side import declarations

HEADER = conftest.PROJECT / "src/windows/server/library/shmnm/include/shmnm.h"
CALLS = int(os.environ.get("SHMNM_PYTHON_CALLS", "100000"))
BYTES_PER_RUN = 6400  # of a fixed size, because Hypothesis spends two bytes on each one of a text that may grow

# A few that meet again and again, and some that are worth a try.
NAMES = [b"a", b"b", b"a", b"a"] * 12 + [b"lan1", b"lan2", b"", b"s" * 31, b"s" * 32, b"s" * 255, b"s" * 256, b"s" * 300, b"\xff\xfe/%", "größe".encode()]
INT32 = [0, 1] * 8 + [2, 3, -1, 7, (1 << 31) - 1, -(1 << 31)]
UINT32 = [0, 1, 2, 3, 9, 0x10, (1 << 31), (1 << 32) - 1]
POSITIONS = [0, 1, 2, 3, 4, 5]
COUNTS = [1, 2, 3, 4, 0, -1]
BYTES = [b"x", b"text\0\xff", bytes(range(256)), b"y" * 300, b""]


def text(name):
    return name.decode("utf-8", "surrogateescape")


def joined(names):
    """A list as C has it."""
    return b"".join(name.encode("utf-8", "surrogateescape") + b"\0" for name in names) + (b"\0" if names else b"\0\0")


class PythonSide:
    """Each function of the library by the name of C, made from uses of the package. Returns the outputs."""

    def __init__(self):
        self.region = shmnm.create()
        self.locks = []

    def close(self):
        for lock in reversed(self.locks):
            lock.release()
        self.region.close()

    # Life and lock

    def create(self):
        # As C's create in a process that has the region: nothing happens.
        with pytest.raises(shmnm.AlreadyMapped):
            shmnm.create()

    def attach(self):
        self.attached = shmnm.attach()

    def detach(self):
        self.attached.detach()

    def delete(self):
        self.region.delete()
        self.region = shmnm.create()

    def clear(self):
        self.region.clear()

    def dump(self):
        return [self.region.dump()]

    def _take(self, lock):
        self.locks.append(lock)
        lock.acquire()

    def rolock(self, timeout):
        self._take(self.region.read_lock(timeout / 1000))

    def rwlock(self, timeout):
        self._take(self.region.lock(timeout / 1000))

    def rounlock(self):
        self.locks.pop().release()

    rwunlock = rounlock

    # The cluster

    def setmaxvalue_ex(self, *values):
        self.region.cluster.maxima = values

    def getmaxvalue_ex(self):
        return list(self.region.cluster.maxima)

    def sethbinfo_ex(self, *values):
        self.region.cluster.hbinfo = values

    def gethbinfo_ex(self):
        return list(self.region.cluster.hbinfo)

    def chkalivesv(self, name):
        return [int(self.region.cluster.alive if name is None else self.region.cluster.alive_without(text(name)))]

    # Servers

    def _server(self, name):
        return self.region.servers.get_handle(text(name))

    def addnode(self, name, pri):
        self.region.servers.add(text(name), pri)

    def rmnode(self, name):
        del self.region.servers[text(name)]

    def modifynode(self, name, pri):
        self._server(name).pri = pri

    def enumnode(self):
        return [joined(self.region.servers.names())]

    def getnodepri(self, name):
        return [self.region.servers[text(name)].pri]

    def getnodename(self, pri):
        return [self.region.servers.by_pri(pri).name.encode("utf-8", "surrogateescape")]

    def getnodecombstat(self, name):
        return [int(self._server(name).combstat or 0)]

    # Network-wide rows

    def setrscsvstat_nw(self, type, name, svid, stat):
        self._resource("hb", type, name).network[svid] = stat

    def getrscsvstat_nw(self, type, name, svid):
        return [self._resource("hb", type, name).network[svid]]

    def enumrscsvstat_nw(self, type, name):
        return [self._resource("hb", type, name).network.words()]

    def enumsvrscstat_nw(self, name):
        return [self._server(name).network_stats()]

    # Resources: what follows is a use of either kind

    def _resource(self, kind, type, name):
        resources = getattr(self.region, kind)
        return resources.any_type(text(name)) if type is None else resources._made(text(type), text(name))

    def _kinds(self, kind):
        resources = getattr(self.region, kind)
        resource = lambda type, name: self._resource(kind, type, name)

        def set_row(type, name, svid, stat):
            resource(type, name).svstat[svid] = stat

        def remove(type, name):
            del resources[text(type), text(name)]

        return {
            f"add{kind}rsc": lambda type, name, pri: resources.add(text(type), text(name), pri) and None,
            f"rm{kind}rsc": remove,
            f"modify{kind}rsc": lambda type, name, pri: setattr(resource(type, name), "pri", pri),
            f"get{kind}rscpri": lambda type, name: [resources[text(type), text(name)].pri],
            f"get{kind}rscinfo": lambda name: [resources.type_of(text(name)).encode("utf-8", "surrogateescape")],
            f"enum{kind}type": lambda: [joined(resources.types())],
            f"enum{kind}rsc": lambda type: [joined(resources.names(None if type is None else text(type)))],
            f"set{kind}rscstat": lambda type, name, stat: setattr(resource(type, name), "stat", stat),
            f"get{kind}rscstat": lambda type, name: [resource(type, name).stat],
            f"set{kind}rscsvstat": set_row,
            f"get{kind}rscsvstat": lambda type, name, svid: [resource(type, name).svstat[svid]],
            f"enum{kind}rscsvstat": lambda type, name: [resource(type, name).svstat.words()],
            f"enumsv{kind}rscstat": lambda name: [getattr(self._server(name), f"{kind}_stats")()],
            f"settype{kind}stat": lambda type, stat: resources.set_type_stat(text(type), stat),
            f"set{kind}descript": lambda type, name, data: setattr(resource(type, name), "descript", data),
            f"get{kind}descript": lambda type, name: [resource(type, name).descript],
            f"add{kind}rscsvstat": lambda position: resources.open_column(position),
            f"rm{kind}rscsvstat": lambda position: resources.close_column(position),
        }

    # Simulation and fst

    def setnpsimu(self, flag, words):
        self.region.simulation.set(flag, words)

    def getnpsimu(self, count):
        flag, words = self.region.simulation.get(count)
        return [flag, words]

    def getnpsimuflag(self):
        return [int(self.region.simulation.active)]

    def setfstrscstat(self, stat):
        self.region.fst.stat = stat

    def getfstrscstat(self):
        return [self.region.fst.stat]

    def setfstdescript(self, data):
        self.region.fst.descript = data

    def getfstdescript(self):
        return [self.region.fst.descript]

    def setfstrscpid(self, name, kind, pid, data):
        self.region.fst.pids[text(name), kind] = pid, data

    def getfstrscpid(self, name, kind):
        try:
            return [tuple(self.region.fst.pids[text(name), kind])]
        except shmnm.NotFound:
            return [None]

    def call(self, name, *inputs):
        """The result code and the outputs."""
        use = getattr(self, name, None) or self._kinds("hb").get(name) or self._kinds("np").get(name)
        try:
            return 0, (use or self._word(name))(*inputs) or []
        except shmnm.Error as error:
            return int(error.code), []

    def _word(self, name):
        verb, word = name[:3], name[3:]
        of_cluster = hasattr(shmnm.Cluster, word)
        if verb == "set":
            return lambda *inputs: setattr(self.region.cluster if of_cluster else self._server(inputs[0]), word, inputs[-1])
        return lambda *inputs: [getattr(self.region.cluster if of_cluster else self._server(inputs[0]), word)]


def inputs_of(name):
    """For each input of a function, what it may be."""
    special = {
        "setfstrscpid": [NAMES, [0, 1, 2, 3, -1], UINT32, [0, 5, 1 << 63, (1 << 64) - 1]],
        "getfstrscpid": [NAMES, [0, 1, 2, 3, -1]],
        "setnpsimu": [UINT32, [None, [], [1], [0, 1, 1], [1, 0, 2, 1, 1], [9, 1]]],
        "getnpsimu": [COUNTS],
        "setfstdescript": [BYTES],
        "chkalivesv": [[None, *NAMES]],
        "setmaxvalue_ex": [[1, 2, 3, 4, 0, 5, 4, 4]] * 3,
        "rolock": [[0]],
        "rwlock": [[0]],
        "enumhbrsc": [[None, *NAMES]],
        "enumnprsc": [[None, *NAMES]],
        "dump": [],
        "getnodename": [INT32],
        "gethbrscinfo": [NAMES],
        "getnprscinfo": [NAMES],
        "gethbdescript": [NAMES, NAMES],
        "getnpdescript": [NAMES, NAMES],
        "sethbdescript": [NAMES, NAMES, BYTES],
        "setnpdescript": [NAMES, NAMES, BYTES],
        "addhbrscsvstat": [POSITIONS],
        "addnprscsvstat": [POSITIONS],
        "rmhbrscsvstat": [POSITIONS],
        "rmnprscsvstat": [POSITIONS],
    }
    if name in special:
        return special[name]
    # Where C takes a null type, so does the package.
    null_type = name in {f"{verb}{kind}rsc{what}" for verb in ("get", "set", "enum") for kind in ("hb", "np") for what in ("stat", "svstat")}
    null_type |= name in ("setrscsvstat_nw", "getrscsvstat_nw", "enumrscsvstat_nw")
    plain = [each for each in DECLARED[f"shmnm_{name}"] if not (each.endswith("*") and "const char" not in each)]
    choices = {"const char*": NAMES, "int32_t": INT32, "uint32_t": UINT32}
    inputs = [choices[each] for each in plain]
    if null_type:
        inputs[0] = [None, *NAMES]
    return inputs


DECLARED = dict(declarations(HEADER.read_text()))
NAMES_OF_CALLS = [name.removeprefix("shmnm_") for name in DECLARED]
# These come in pairs of calls, which `sequence` makes of one choice.
PAIRED = ("create", "attach", "detach", "delete", "rolock", "rounlock", "rwlock", "rwunlock")
SINGLE = [name for name in NAMES_OF_CALLS if name not in (*PAIRED, "clear", "setmaxvalue_ex")]
# What fills the tables comes often, and what empties them seldom.
ADDING = [name for name in SINGLE if name.startswith("add") and not name.endswith("svstat")]
CHOICES = [*SINGLE, *ADDING * 8, "lock", "read_lock"]
RARE = ["clear", "setmaxvalue_ex", "anew", "attached", "created"]


def sequence(data):
    """Calls from random bytes, eight for each. Zeros are no call, so that a failure shrinks to few calls."""
    calls, held = [], []
    for at in range(0, len(data) - 7, 8):
        choice, rare, *picks = data[at : at + 8]
        if not choice:
            continue
        if rare >= 253:
            name = RARE[choice % len(RARE)]
        else:
            name = CHOICES[(choice * 256 + rare) % len(CHOICES)]
        if name in ("lock", "read_lock"):
            kind = "w" if name == "lock" else "o"
            if held:
                calls.append((f"r{held.pop()}unlock",))
            else:
                calls.append((f"r{kind}lock", 0))
                held.append(kind)
        elif name == "anew":
            calls += [("delete",)]
        elif name == "attached":
            calls += [("attach",), ("detach",)]
        elif name == "created":
            calls += [("create",)]
        else:
            inputs = [values[pick % len(values)] for values, pick in zip(inputs_of(name), picks + picks)]
            calls.append((name, *inputs))
    calls += [(f"r{kind}unlock",) for kind in reversed(held)]
    return calls


def for_c(calls):
    """The same calls for the other side. Where the package does more, or less, than one call, C does the same."""
    for call in calls:
        if call[0] == "delete":
            yield from ((("delete",), ("create",)))
        elif call[0] in ("attach", "detach"):
            # In the creator's process the package shares the mapping, because a detach would unmap it.
            continue
        else:
            yield call


@pytest.fixture(scope="module")
def c_side():
    library = conftest.BIN / "libkzmshmnm.so.1"
    environment = dict(os.environ, KZMUTIL_NAMESPACE=os.environ["KZMUTIL_NAMESPACE"] + "c-")
    process = subprocess.Popen(
        [sys.executable, "-B", pathlib.Path(__file__).parent / "c_side.py", library, HEADER], stdin=subprocess.PIPE, stdout=subprocess.PIPE, env=environment
    )

    def answers(calls):
        pickle.dump([("create",), *for_c(calls), ("delete",)], process.stdin)
        process.stdin.flush()
        made, _ = pickle.load(process.stdout)
        return made[1:-1]

    yield answers
    process.stdin.close()
    assert process.wait(timeout=60) == 0
    process.stdout.close()


class TestSameAsC:
    made = 0
    succeeded = collections.Counter()

    def test_random_calls_give_the_same_results_outputs_and_bytes(self, c_side):
        examples = CALLS * 8 // BYTES_PER_RUN + CALLS // 2000 + 2

        @settings(max_examples=examples, phases=(Phase.generate, Phase.shrink), suppress_health_check=list(HealthCheck))
        @given(counts=st.tuples(st.integers(1, 4), st.integers(1, 3), st.integers(1, 3), st.integers(0, 1)), data=st.binary(min_size=BYTES_PER_RUN, max_size=BYTES_PER_RUN))
        def run(counts, data):
            conftest.configure(*counts)
            calls = sequence(data)
            expected = iter(c_side(calls))
            python = PythonSide()
            try:
                for call in calls:
                    result, outputs = python.call(*call)
                    if call[0] in ("attach", "detach"):
                        assert (result, outputs) == (0, [])
                        continue
                    answer = next(expected)
                    if call[0] == "delete":
                        assert answer[0] == 0
                        self.succeeded["delete"] += 1
                        answer = next(expected)
                    assert (result, outputs, zlib.crc32(python.region.dump())) == answer, call
                    if result == 0:
                        self.succeeded[call[0]] += 1
                assert next(expected, None) is None
            finally:
                python.close()
            type(self).made += len(calls)

        run()
        print(f"{self.made} calls; the fewest successes: {self.succeeded.most_common()[-5:]}")
        assert self.made >= CALLS
        assert self.succeeded.keys() | {"attach", "detach"} == set(NAMES_OF_CALLS), "a function has never succeeded"
