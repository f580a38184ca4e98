"""The life of the region in a process: what attach and create give, and that nothing outlives them."""

import gc
import os
import pickle
import signal
import threading
import warnings

import pytest

import conftest
import shmnm


def objects_of(region):
    """One object of each kind that comes from a region, and a use of it."""
    server, hb, np = region.servers["alpha"], region.hb["lan", "lanhb1"], region.np["ping", "pingnp1"]
    return {
        "cluster": lambda: region.cluster.clstat,
        "cluster, written": lambda: setattr(region.cluster, "clstat", 1),
        "hbinfo": lambda: region.cluster.hbinfo,
        "servers": lambda: list(region.servers),
        "servers, added": lambda: region.servers.add("omega", 9),
        "servers, by priority": lambda: region.servers.by_pri(0),
        "server": lambda: server.nodestat,
        "server, written": lambda: setattr(server, "nodestat", 1),
        "column": server.hb_stats,
        "hb": lambda: region.hb.types(),
        "hb, names": lambda: region.hb.names("lan"),
        "hb, type": lambda: region.hb.type_of("lanhb1"),
        "resource": lambda: hb.stat,
        "row": lambda: hb.svstat[0],
        "row, listed": hb.network.words,
        "np": lambda: np.descript,
        "simulation": lambda: region.simulation.get(4),
        "fst": lambda: region.fst.stat,
        "process ids": lambda: region.fst.pids["monitor", 0],
        "dump": region.dump,
        "clear": region.clear,
        "lock": region.lock,
        "snapshot": region.snapshot,
        "detach": region.detach,
        "with": region.__enter__,
    }


class TestRegion:
    def test_every_object_raises_detached_after_the_with_block(self, holder):
        with shmnm.attach() as region:
            region.servers.add("alpha", 0)
            region.hb.add("lan", "lanhb1", 0)
            region.np.add("ping", "pingnp1", 0)
            uses = objects_of(region)
        for name, use in uses.items():
            with pytest.raises(shmnm.Detached) as raised:
                use()
            assert raised.value.code == shmnm.Result.NOTINIT, name
        assert "detached" in repr(region) and "detached" in repr(region.servers) and "detached" in repr(region.hb)
        assert holder.told("region.cluster.clstat") == "0", "a use after the detachment has written"

    def test_stays_detached_when_another_region_is_attached(self, holder):
        with shmnm.attach() as first:
            server = first.servers.add("alpha", 0)
        with shmnm.attach() as second:
            assert second.servers["alpha"].nodestat == 2
            with pytest.raises(shmnm.Detached):
                server.nodestat

    def test_each_attachment_ends_alone(self, holder):
        with shmnm.attach() as first:
            with shmnm.attach() as second:
                second.cluster.clstat = 5
            assert first.cluster.clstat == 5
            assert not second.mapped and first.mapped

    def test_an_attachment_in_the_creator_s_process_leaves_the_region_to_the_creator(self):
        with shmnm.create() as creator:
            with shmnm.attach() as attached:
                attached.cluster.clstat = 6
            assert creator.cluster.clstat == 6
            attached = shmnm.attach()
        with pytest.raises(shmnm.Detached):
            attached.cluster.clstat

    def test_create_is_refused_where_the_region_is_mapped(self, holder):
        with shmnm.attach():
            with pytest.raises(shmnm.AlreadyMapped):
                shmnm.create()
        with shmnm.create() as region:
            assert region.mapped

    def test_delete_of_an_attachment_is_refused(self, holder):
        with shmnm.attach() as region:
            with pytest.raises(ValueError):
                region.delete()
            assert region.cluster.clstat == 0

    def test_detach_of_the_creator_leaves_the_region_alive(self):
        # A process of its own, because the region then lives until its process ends.
        process = conftest.python(
            "import shmnm\nregion = shmnm.create()\nregion.cluster.clstat = 7\nregion.detach()\n"
            "with shmnm.attach() as again:\n    print(again.cluster.clstat)\n"
        )
        assert process.communicate(timeout=60)[0] == "7\n" and process.returncode == 0

    def test_attach_without_a_region_names_the_remedy(self):
        with pytest.raises(shmnm.NoRegion, match="shmnmctl serve") as raised:
            shmnm.attach()
        assert raised.value.code == shmnm.Result.OPENMAP == 8

    def test_a_bad_configuration_is_an_error_of_its_own(self):
        (conftest.INSTALLATION / "etc/cluster.xml").write_text("<root>")
        with pytest.raises(shmnm.ConfigurationNotLoaded):
            shmnm.create()
        assert not shmnm._region._open_regions()

    def test_the_region_ends_with_its_last_process(self, holder):
        with shmnm.attach() as region:
            region.cluster.clstat = 8
            holder.end()
            assert region.cluster.clstat == 8
        with pytest.raises(shmnm.NoRegion):
            shmnm.attach()

    def test_a_forgotten_region_is_closed_with_a_warning(self, holder):
        shmnm.attach()
        with warnings.catch_warnings(record=True) as seen:
            warnings.simplefilter("always")
            gc.collect()
            region = shmnm.attach()
            del region
            gc.collect()
        assert any(issubclass(warning.category, ResourceWarning) for warning in seen)
        assert not shmnm._region._open_regions()

    def test_a_region_or_what_came_from_it_cannot_be_pickled(self, cluster):
        for each in (cluster, cluster.lock(), cluster.servers["alpha"], cluster.hb["lan", "lanhb1"], cluster.fst):
            with pytest.raises(TypeError):
                pickle.dumps(each)

    def test_a_forked_child_uses_the_region_and_keeps_it_alive(self, holder):
        region = shmnm.attach()
        told, tell = os.pipe()
        go, release = os.pipe()
        child = os.fork()
        if child == 0:
            region.cluster.clstat = 9
            os.write(tell, b"x")
            os.read(go, 1)
            os._exit(region.cluster.clstat)
        os.read(told, 1)
        assert holder.told("region.cluster.clstat") == "9"
        region.cluster.clstat = 10
        region.close()
        holder.end()
        # Only the child has it now.
        with shmnm.attach() as again:
            assert again.cluster.clstat == 10
        os.write(release, b"x")
        assert os.waitstatus_to_exitcode(os.waitpid(child, 0)[1]) == 10
        with pytest.raises(shmnm.NoRegion):
            shmnm.attach()
        for descriptor in (told, tell, go, release):
            os.close(descriptor)

    def test_a_detach_in_a_forked_child_leaves_the_parent_s_region(self, holder):
        with shmnm.attach() as region:
            child = os.fork()
            if child == 0:
                region.close()
                try:
                    region.cluster.clstat
                except shmnm.Detached:
                    os._exit(0)
                os._exit(1)
            assert os.waitstatus_to_exitcode(os.waitpid(child, 0)[1]) == 0
            region.cluster.clstat = 3
            assert holder.told("region.cluster.clstat") == "3"

    def test_a_fork_while_another_thread_attaches_leaves_the_child_able_to_attach(self, holder):
        # The other thread is inside create, which holds this package's own lock meanwhile.
        inside, go_on = threading.Event(), threading.Event()
        original = shmnm._region.Region

        class Waiting(original):
            def __init__(self, *arguments, **options):
                inside.set()
                assert go_on.wait(60)
                super().__init__(*arguments, **options)

        shmnm._region.Region = Waiting
        thread = threading.Thread(target=lambda: shmnm.attach().close())
        thread.start()
        assert inside.wait(60)
        shmnm._region.Region = original
        child = os.fork()
        if child == 0:
            signal.alarm(30)
            with shmnm.attach() as region:
                os._exit(region.cluster.clstat)
        status = os.waitpid(child, 0)[1]
        go_on.set()
        thread.join()
        assert os.waitstatus_to_exitcode(status) == 0

    def test_threads_that_use_a_region_while_another_detaches_get_an_error_and_no_fault(self):
        # A fault would end this process, so it is one of its own. In a large region a dump takes long enough to be met.
        conftest.configure(server=128, hbr=16, npr=16)
        code = """if True:
            import shmnm, sys, threading
            sys.setswitchinterval(1e-6)
            with shmnm.create() as holder:
                pass
            stop = threading.Event()
            seen = set()
            box = [shmnm.create()]
            server = box[0].servers.add("alpha", 0)
            def use():
                while not stop.is_set():
                    try:
                        region = box[0]
                        region.servers.names()
                        region.dump()
                        region.servers["alpha"].nodestat
                    except shmnm.Error as error:
                        seen.add(type(error).__name__)
            threads = [threading.Thread(target=use) for _ in range(3)]
            for thread in threads:
                thread.start()
            for _ in range(60):
                box[0].close()
                box[0] = shmnm.create()
                box[0].servers.add("alpha", 0)
            stop.set()
            for thread in threads:
                thread.join()
            box[0].close()
            print(sorted(seen - {"NotFound"}))
        """
        process = conftest.python(code)
        out = process.communicate(timeout=120)[0]
        assert process.returncode == 0
        assert set(eval(out)) <= {"Detached", "NotMapped"}
