"""Pictures: snapshots, questions, waiting, watching, and what `python -m shmnm` prints."""

import copy
import dataclasses
import json
import os
import pickle
import subprocess
import sys
import threading

import pytest

import conftest
import shmnm


@pytest.fixture
def full(cluster):
    """A region with something in every table."""
    cluster.servers["alpha"].nodestat = 1
    cluster.servers["beta"].isolateflag = 5
    cluster.servers["beta"].nodestat = 1
    cluster.servers["gamma"].name
    cluster.hb["disk", "diskhb1"].network[1] = 77
    cluster.hb["lan", "lanhb1"].descript = b"first\xff"
    cluster.cluster.hbinfo = 3, 4
    cluster.fst.stat = 6
    cluster.fst.pids["mön", 2] = 4711, (1 << 64) - 1
    cluster.simulation.start(["gamma"])
    return cluster


def module(*arguments, expect=0):
    """What `python -m shmnm` prints."""
    done = subprocess.run([sys.executable, "-B", "-m", "shmnm", *map(str, arguments)], capture_output=True, text=True, timeout=60)
    assert done.returncode == expect, done.stderr
    return done.stdout if expect == 0 else done.stderr


class Marks:
    """A process that writes marks as a bridge does."""

    def __enter__(self):
        self.process = subprocess.Popen([conftest.BIN / "marks_writer"], stdin=subprocess.PIPE, stdout=subprocess.PIPE, text=True)
        return self

    def say(self, **bridge):
        print(json.dumps({"server": "alpha", **bridge}), file=self.process.stdin, flush=True)
        assert self.process.stdout.readline() == "written\n"

    def __exit__(self, *_):
        self.process.stdin.close()
        self.process.wait()
        self.process.stdout.close()


class TestBridge:
    def test_a_machine_without_a_bridge_says_so(self, cluster):
        bridge = cluster.snapshot().bridge
        assert (bridge.up, bridge.stopped_ms, bridge.servers) == (False, None, ())
        assert cluster.snapshot().words()["bridge/up"] == 0

    def test_marks_stand_beside_the_picture(self, cluster):
        with Marks() as marks:
            marks.say(
                servers=[
                    {"name": "b%20ta", "freshness": "fresh", "age_ms": 40, "revision": 7, "address": "http://10.0.0.2:9683", "other_times": True},
                    {"name": "gamma", "freshness": "silent", "claimed": False},
                ],
                contested=["servers/gamma/nodestat"],
                proposals={"proposed": 5, "accepted": 4, "lost": 1, "replaced": 0},
            )
            snapshot = cluster.snapshot()
            bridge = snapshot.bridge
            assert (bridge.up, bridge.connected, bridge.cluster, bridge.server) == (True, True, "production", "alpha")
            assert bridge.proposals == shmnm.ProposalsPicture(5, 4, 1, 0) and bridge.contested == ("servers/gamma/nodestat",)
            beta, gamma = bridge.servers
            assert (beta.name, beta.freshness, beta.revision, beta.address) == ("b ta", shmnm.Freshness.FRESH, 7, "http://10.0.0.2:9683")
            assert (gamma.freshness, gamma.claimed) == (shmnm.Freshness.SILENT, False)
            assert (beta.other_times, gamma.other_times, bridge.lost_servers) == (True, False, 0)
            words = snapshot.words()
            assert (words["bridge/contested"], words["bridge/lost"], words["bridge/servers/b%20ta/freshness"]) == (1, 1, 1)
            listed = json.loads(conftest.tool("list", "--format", "json"))["words"]
            assert [key for key in words if key.startswith("bridge/")] == [key for key in listed if key.startswith("bridge/")]
            assert pickle.loads(pickle.dumps(snapshot)) == snapshot

    def test_a_change_of_a_mark_is_watched_and_its_age_is_not(self, cluster):
        with Marks() as marks:
            marks.say(servers=[{"name": "beta", "freshness": "fresh", "age_ms": 10}])
            events = shmnm.watch(interval=0.01)
            next(events)
            marks.say(servers=[{"name": "beta", "freshness": "fresh", "age_ms": 20}])
            marks.say(servers=[{"name": "beta", "freshness": "silent", "age_ms": 3000}])
            assert [(change.key, change.old, change.new) for change in next(events).changes] == [("bridge/servers/beta/freshness", 1, 2)]


class TestSnapshot:
    def test_has_everything_of_one_moment(self, full):
        snapshot = full.snapshot()
        assert snapshot.region.live and snapshot.region.size == len(full.dump())
        assert (snapshot.region.max_servers, snapshot.region.server_count, snapshot.region.hb_count) == (4, 3, 2)
        assert (snapshot.cluster.hbinfo_a, snapshot.cluster.hbinfo_b, snapshot.cluster.alive) == (3, 4, True)
        assert [server.name for server in snapshot.servers] == ["alpha", "beta", "gamma"]
        assert snapshot.server("alpha").combstat is shmnm.CombinedState.ALIVE and snapshot.server("beta").combstat is None
        assert snapshot.hb[1].network == (2, 77, 2) and snapshot.hb[0].descript == b"first\xff"
        assert snapshot.np[0].network is None and snapshot.np[1].svstat == (2, 2, 2)
        assert snapshot.simulation == shmnm.SimulationPicture(1, ("gamma",))
        assert snapshot.fst.pids == (shmnm.ProcessIdPicture("mön", (0, 0, 4711), (0, 0, (1 << 64) - 1)),)
        assert snapshot.interrupted == ()
        with pytest.raises(KeyError):
            snapshot.server("omega")

    def test_is_frozen_and_can_be_compared_copied_and_sent(self, full):
        snapshot = full.snapshot()
        with pytest.raises(dataclasses.FrozenInstanceError):
            snapshot.cluster.clstat = 1
        assert snapshot == full.snapshot() == copy.deepcopy(snapshot) == pickle.loads(pickle.dumps(snapshot))
        full.cluster.clstat = 9
        assert snapshot != full.snapshot()
        assert hash(snapshot) == hash(copy.deepcopy(snapshot))

    def test_needs_no_attachment_and_writes_nothing(self, holder):
        # An attach would write the configured maxima.
        assert holder.told("setattr(region.cluster, 'maxima', (3, 2, 1))") == "None"
        before = holder.told("hash(region.dump())")
        shmnm.snapshot()
        assert holder.told("hash(region.dump())") == before
        holder.end()
        with pytest.raises(shmnm.NoPicture) as raised:
            shmnm.snapshot()
        assert raised.value.result == 300 and raised.value.code is None

    def test_of_a_dump_is_that_of_the_region(self, full, tmp_path):
        file = tmp_path / "a dump"
        file.write_bytes(full.dump())
        live, dumped = full.snapshot(), shmnm.snapshot(file=file)
        assert not dumped.region.live
        assert dumped.bridge is None and dataclasses.replace(dumped, region=live.region, bridge=live.bridge) == live
        assert shmnm.snapshot(file=os.fsencode(file)) == dumped

    def test_of_a_cut_dump_needs_force(self, full, tmp_path):
        file = tmp_path / "cut"
        file.write_bytes(full.dump()[:2000])
        with pytest.raises(shmnm.PictureError) as raised:
            shmnm.snapshot(file=file)
        assert raised.value.result == 502
        assert len(shmnm.snapshot(file=file, force=True).servers) == 2
        with shmnm.Picture(file=file, force=True) as picture:
            assert picture.warning()

    def test_of_what_is_no_dump_is_an_error(self, tmp_path):
        with pytest.raises(shmnm.PictureError) as raised:
            shmnm.snapshot(file=tmp_path / "missing")
        assert raised.value.result == 501
        with pytest.raises(ValueError):
            shmnm.snapshot(file="a", address="b")
        with pytest.raises(ValueError):
            shmnm.snapshot(file="a\0b")

    def test_of_an_address_is_that_of_the_region(self, full, tmp_path):
        path = tmp_path / "web"
        server = subprocess.Popen([conftest.BIN / "shmnmweb", "--socket", path], stdout=subprocess.PIPE, text=True)
        try:
            assert server.stdout.readline()
            seen = shmnm.snapshot(address=f"unix:{path}")
            assert dataclasses.replace(seen, region=full.snapshot().region) == full.snapshot()
            assert module("--from", f"unix:{path}") == module()
            full.cluster.clstat = 3
            assert shmnm.wait("cluster/clstat=3", 30, address=f"unix:{path}").cluster.clstat == 3
        finally:
            server.terminate()
            server.communicate(timeout=60)
        with pytest.raises(shmnm.PictureError):
            shmnm.snapshot(address=f"unix:{path}")
        with pytest.raises(shmnm.PictureError) as raised:
            shmnm.snapshot(address="nonsense")
        assert raised.value.result == 201

    def test_under_a_lock_of_this_thread_needs_no_other(self, full):
        with full.lock():
            assert full.snapshot(lock_timeout=0.001).region.live

    def test_waits_for_a_lock_no_longer_than_it_may(self, full):
        code = "import shmnm, sys\nwith shmnm.attach() as region, region.lock():\n    print('held', flush=True)\n    sys.stdin.readline()\n"
        with conftest.python(code) as blocker:
            assert blocker.stdout.readline() == "held\n"
            try:
                with pytest.raises(TimeoutError) as raised:
                    full.snapshot(lock_timeout=0.01)
                assert isinstance(raised.value, shmnm.PictureLockTimeout)
            finally:
                blocker.communicate("go on\n", timeout=60)


class TestPicture:
    def test_answers_as_the_command_does(self, full):
        with shmnm.Picture(all_bytes=True) as picture:
            assert picture.json() == conftest.tool("status", "--format", "json")
            assert picture.value("servers/alpha/nodestat") == 1
            assert picture.value("servers/beta/combstat") is None
            assert picture.value("fst/piddata/m%C3%B6n/2") == (1 << 64) - 1
            assert picture.holds("any servers/*/nodestat=1 and cluster/clstat=0")
            assert picture.unmet("cluster/clstat=1") == "cluster/clstat=1 (it is 0)"
            assert picture.unmet("cluster/clstat=0") is None
            assert picture.findings() == [] and picture.warning() == ""

    def test_finds_what_a_healthy_region_never_shows(self, full, tmp_path):
        data = bytearray(full.dump())
        data[28:32] = (99).to_bytes(4, "little")
        file = tmp_path / "damaged"
        file.write_bytes(data)
        with shmnm.Picture(file=file) as picture:
            found = picture.findings()
        assert found[0].offset == 28 and found[0].found.startswith("99")

    def test_mistakes_are_errors_of_their_kinds(self, full):
        with shmnm.Picture() as picture:
            for key, kind in (("servers/omega/nodestat", 100), ("servers/alpha/nodestatt", 203)):
                with pytest.raises(KeyError) as raised:
                    picture.value(key)
                assert isinstance(raised.value, shmnm.NoSuchKey) and raised.value.result == kind
            assert "nodestat" in str(raised.value) and "\\" not in str(raised.value)
            with pytest.raises(ValueError) as raised:
                picture.holds("cluster/clstat=")
            assert isinstance(raised.value, shmnm.InvalidCondition)
            with pytest.raises(ValueError):
                picture.value("a\0b")
            with pytest.raises(shmnm.PictureError):
                picture.findings()
        with pytest.raises(ValueError, match="closed"):
            picture.json()
        picture.close()

    def test_update_tells_whether_a_byte_has_changed(self, full):
        with shmnm.Picture() as picture:
            assert not picture.update()
            full.cluster.clstat = 5
            assert picture.update() and picture.value("cluster/clstat") == 5
            assert not picture.update(0.001)

    def test_is_used_by_one_thread_at_a_time(self, full):
        errors = []
        with shmnm.Picture() as picture:
            expected = picture.snapshot()

            def use():
                for _ in range(50):
                    if picture.snapshot() != expected or picture.update():
                        errors.append("differs")

            threads = [threading.Thread(target=use) for _ in range(4)]
            for thread in threads:
                thread.start()
            for thread in threads:
                thread.join()
        assert not errors

    def test_of_the_live_region_goes_on_in_a_forked_child(self, full):
        with shmnm.Picture() as picture:
            child = os.fork()
            if child == 0:
                full.cluster.clstat = 6
                os._exit(0 if picture.update() and picture.value("cluster/clstat") == 6 else 1)
            assert os.waitstatus_to_exitcode(os.waitpid(child, 0)[1]) == 0
            assert picture.update()


class TestWaiting:
    def test_returns_a_picture_in_which_the_condition_holds(self, full, holder):
        assert shmnm.wait("cluster/clstat=0", 0).cluster.clstat == 0
        writer = threading.Thread(target=holder.told, args=("[setattr(region.cluster, 'clstat', 4), region.cluster.clstat]",))
        writer.start()
        assert shmnm.wait("cluster/clstat=4", 60, interval=0.001).cluster.clstat == 4
        writer.join()

    def test_time_out_says_what_was_still_false(self, full):
        with pytest.raises(shmnm.WaitTimeout, match=r"within 0.01 s: cluster/clstat=4 \(it is 0\)") as raised:
            shmnm.wait("cluster/clstat=4", 0.01)
        assert isinstance(raised.value, TimeoutError)

    def test_survives_the_end_of_a_region(self, holder):
        """The condition holds in the next region only."""
        box = []
        ready = threading.Event()
        original = shmnm.Picture.unmet

        def unmet(picture, condition):
            try:
                return original(picture, condition)
            finally:
                ready.set()

        shmnm.Picture.unmet = unmet
        try:
            thread = threading.Thread(target=lambda: box.append(shmnm.wait("cluster/clstat=4", 60)))
            thread.start()
            assert ready.wait(60)
            holder.end()
            with shmnm.create() as region:
                region.cluster.clstat = 4
                thread.join()
        finally:
            shmnm.Picture.unmet = original
        assert box[0].cluster.clstat == 4

    def test_mistakes_end_it_at_once(self, full):
        with pytest.raises(shmnm.InvalidCondition):
            shmnm.wait("nonsense")
        with pytest.raises(shmnm.NoSuchKey):
            shmnm.wait("cluster/clstatt=1")
        with pytest.raises(ValueError):
            shmnm.wait("cluster/clstat=1", -1)

    def test_needs_a_region_at_its_start(self):
        with pytest.raises(shmnm.NoPicture):
            shmnm.wait("cluster/clstat=1", 60)


class TestWatching:
    def test_yields_the_picture_and_then_what_has_changed(self, full):
        events = shmnm.watch(interval=0.001)
        first = next(events)
        assert first == shmnm.Event(full.snapshot(), ())
        with full.lock():
            full.cluster.clstat = 4
            full.servers["alpha"].nodestat = 2
            del full.servers["gamma"]
        seen = {}
        # The copies take no lock if it is free, and wait for it otherwise: the three changes are one event.
        for change in next(events).changes:
            seen[change.key] = (change.old, change.new)
        assert seen["cluster/clstat"] == (0, 4) and seen["servers/alpha/nodestat"] == (1, 2)
        assert seen["servers/gamma/pri"] == (2, shmnm.MISSING) and seen["hb/lan/lanhb1/svstat/gamma"] == (2, shmnm.MISSING)
        full.servers["beta"].isolateflag = 0
        assert next(events).changes == (
            shmnm.Change("servers/beta/isolateflag", 5, 0),
            shmnm.Change("servers/beta/combstat", None, 1),
        )
        events.close()

    def test_shows_the_end_of_a_region_and_the_next_one(self):
        with shmnm.create() as region:
            region.servers.add("alpha", 0)
            events = shmnm.watch(interval=0.001)
            count = len(next(events).snapshot.words())
        gone = next(events)
        assert gone.snapshot is None and len(gone.changes) == count
        assert all(change.new is shmnm.MISSING for change in gone.changes)
        with shmnm.create() as region:
            back = next(events)
            assert all(change.old is shmnm.MISSING for change in back.changes)
            assert back.snapshot.cluster.clstat == 0
        events.close()

    def test_holds_no_region(self):
        with shmnm.create():
            events = shmnm.watch()
            next(events)
        with pytest.raises(shmnm.NoRegion):
            shmnm.attach()
        with pytest.raises(shmnm.NoPicture):
            next(shmnm.watch())


class TestModule:
    def test_prints_the_picture(self, full):
        words = module().split()
        expected = conftest.tool("status").split()
        assert words == expected, "other words than shmnmctl status"

    def test_prints_the_document(self, full):
        assert module("--json") == conftest.tool("status", "--format", "json")

    def test_reads_a_dump(self, full, tmp_path):
        file = tmp_path / "dump"
        file.write_bytes(full.dump())
        assert module("--file", file) == module()

    def test_escapes_every_name(self, region):
        region.servers.add("\x1b[31m\udcff", 0)
        assert "%1B%5B31m%FF" in module() and "\x1b" not in module()

    def test_ends_as_the_command_does(self, tmp_path):
        assert "no process holds the region" in module(expect=3)
        assert "cannot read" in module("--file", tmp_path / "missing", expect=5)
        assert module("--nonsense", expect=2)
