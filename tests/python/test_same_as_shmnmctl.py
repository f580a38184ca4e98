"""Random regions, healthy and damaged: the package shows what `shmnmctl status` and `shmnmctl list` show.

SHMNM_PYTHON_REGIONS asks for more regions than the usual 150 of each kind.
"""

import dataclasses
import json
import os

from hypothesis import HealthCheck, given, settings
from hypothesis import strategies as st

import conftest
import shmnm
from test_same_as_c import BYTES_PER_RUN, PythonSide, sequence

REGIONS = int(os.environ.get("SHMNM_PYTHON_REGIONS", "150"))
PLAIN = set(b"abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ0123456789-_.:@+,")
many = settings(max_examples=REGIONS, suppress_health_check=list(HealthCheck))
counts = st.tuples(st.integers(1, 4), st.integers(1, 3), st.integers(1, 3), st.integers(0, 1))
random_calls = st.binary(min_size=BYTES_PER_RUN // 4, max_size=BYTES_PER_RUN // 4)


def escaped(name):
    data = name.encode("utf-8", "surrogateescape") if isinstance(name, str) else name
    return "".join(chr(byte) if byte in PLAIN else f"%{byte:02X}" for byte in data)


def document(snapshot):
    """The document that a snapshot was made of, written by hand."""
    status = dataclasses.asdict(snapshot)
    for server in status["servers"]:
        server["name"] = escaped(server["name"])
    for resource in (*status["hb"], *status["np"]):
        resource["type"], resource["name"], resource["descript"] = escaped(resource["type"]), escaped(resource["name"]), escaped(resource["descript"])
        resource["svstat"] = list(resource["svstat"])
        network = resource.pop("network")
        if network is not None:
            resource["network"] = list(network)
    status["simulation"]["failed"] = [escaped(name) for name in status["simulation"]["failed"]]
    fst = status["fst"]
    fst["descript"] = None if fst["descript"] is None else escaped(fst["descript"])
    fst["pids"] = [{"name": escaped(each["name"]), "pid": list(each["pid"]), "piddata": [str(data) for data in each["piddata"]]} for each in fst["pids"]]
    for table in ("servers", "hb", "np", "interrupted"):
        status[table] = list(status[table])
    if status["bridge"] is None:
        del status["bridge"]
    else:
        bridge = status["bridge"]
        bridge["server"] = escaped(bridge["server"])
        for mark in bridge["servers"]:
            mark["name"], mark["freshness"] = escaped(mark["name"]), mark["freshness"].name.lower()
        for table in ("contested", "unmatched", "servers"):
            bridge[table] = list(bridge[table])
    fst["pids"] = list(fst["pids"])
    return {"version": 1, "kind": "status", **status}


def words(document):
    """The words of a document "list": its texts are numbers that JSON's readers would round."""
    return [(key, int(value) if isinstance(value, str) else value) for key, value in document["words"].items()]


def expect_the_same(snapshot, *options):
    """Compares a snapshot with what the command shows, also in order. @return the command's document"""
    status = json.loads(conftest.tool("status", "--format", "json", *options))
    assert document(snapshot) == status
    listed = json.loads(conftest.tool("list", "--format", "json", *options))
    assert list(snapshot.words().items()) == words(listed)
    return status


class TestSameAsShmnmctl:
    def test_a_snapshot_is_what_status_and_list_show(self):
        sizes = set()

        @many
        @given(counts=counts, data=random_calls)
        def run(counts, data):
            conftest.configure(*counts)
            python = PythonSide()
            try:
                for call in sequence(data):
                    if call[0] not in ("clear", "delete"):
                        python.call(*call)
                status = expect_the_same(python.region.snapshot())
                sizes.add((len(status["servers"]), len(status["hb"]), len(status["np"]), len(status["fst"]["pids"])))
            finally:
                python.close()

        run()
        assert len(sizes) > 10, "the regions are not random"

    def test_a_snapshot_of_damage_is_what_status_and_list_show(self, tmp_path):
        file = tmp_path / "damaged"
        places = st.one_of(st.integers(0, 16).map(lambda word: 4 * word), st.integers(0, 1084), st.integers(0, 20000))
        damage = st.lists(st.tuples(places, st.one_of(st.integers(0, 8), st.integers(0, 0xFFFFFFFF), st.integers(0x80000000, 0xFFFFFFFF))), max_size=8)
        shown = []

        @many
        @given(counts=counts, data=random_calls, damage=damage)
        def run(counts, data, damage):
            conftest.configure(*counts)
            python = PythonSide()
            try:
                for call in sequence(data):
                    python.call(*call)
                region = bytearray(python.region.dump())
            finally:
                python.close()
            for place, word in damage:
                place %= len(region) - 3
                region[place : place + 4] = word.to_bytes(4, "little")
            file.write_bytes(region)
            expect_the_same(shmnm.snapshot(file=file, force=True), "--file", file, "--force")
            shown.append(bytes(region))

        run()
        assert len(set(shown)) > REGIONS // 2, "the regions are not random"
