"""Servers, resources and the rest of the region as Python shows them: mappings, words, lists, names and errors."""

import re

import pytest

import conftest
import shmnm
from test_region import objects_of


class TestServers:
    def test_behave_like_a_mapping(self, cluster):
        servers = cluster.servers
        assert list(servers) == list(servers.keys()) == ["alpha", "beta", "gamma"]
        assert len(servers) == 3 and servers
        assert "beta" in servers and "omega" not in servers and 7 not in servers
        assert servers["beta"].name == "beta"
        assert servers.get("omega") is None and servers.get("beta") == servers["beta"]
        assert [server.pri for server in servers.values()] == [0, 1, 2]
        assert dict(servers.items()) == {name: servers[name] for name in ("alpha", "beta", "gamma")}
        del servers["beta"]
        assert list(servers) == ["alpha", "gamma"]

    def test_missing_keys_are_key_errors_with_a_readable_message(self, cluster):
        for use in (lambda: cluster.servers["omega"], lambda: cluster.servers.__delitem__("omega"), lambda: cluster.servers.by_pri(9)):
            with pytest.raises(KeyError) as raised:
                use()
            assert isinstance(raised.value, shmnm.NotFound) and raised.value.code == 3
            assert str(raised.value).startswith("shmnm_") and "no server" in str(raised.value)

    def test_are_empty_in_an_empty_region(self, region):
        assert list(region.servers) == [] and len(region.servers) == 0 and not region.servers

    def test_an_empty_name_is_told_from_no_name(self, region):
        region.servers.add("", 0)
        assert list(region.servers) == [""] and "" in region.servers
        region.servers.add("x", 1)
        assert list(region.servers) == ["", "x"]

    def test_a_name_that_was_cut_twice_is_one_key_and_two_names(self, region):
        region.servers.add("s" * 300, 0)
        region.servers.add("s" * 300, 1)
        assert region.servers.names() == ["s" * 255] * 2
        assert len(region.servers) == 1 and list(region.servers) == ["s" * 255]
        assert "s" * 300 not in region.servers

    @pytest.mark.parametrize("name", ["größe", "日本", "\udcff\udc80", "a/b c%", "\x01\x7f"])
    def test_any_name_comes_back_as_it_was_given(self, region, name):
        region.servers.add(name, 0)
        assert list(region.servers) == [name]
        assert region.servers.by_pri(0).name == name
        assert shmnm.unescaped(shmnm.escaped(name)) == name
        assert conftest.tool("get", f"servers/{shmnm.escaped(name)}/nodestat") == "2\n"

    def test_refuses_what_is_no_name(self, region):
        with pytest.raises(ValueError, match="NUL"):
            region.servers.add("a\0b", 0)
        with pytest.raises(TypeError):
            region.servers.add(b"alpha", 0)
        assert len(region.servers) == 0

    def test_words_are_read_from_the_region_at_each_use(self, cluster):
        server = cluster.servers["alpha"]
        for number, word in enumerate(("nodestat", "nodestat_nw", "downnotifystat", "isolateflag", "pingstat", "holdstat")):
            setattr(server, word, 40 + number)
            assert getattr(server, word) == 40 + number
            assert conftest.tool("get", f"servers/alpha/{word}") == f"{40 + number}\n"
            conftest.tool("set", f"servers/alpha/{word}", 7)
            assert getattr(server, word) == 7
        server.pri = -5
        assert server.pri == -5 and cluster.servers.by_pri(-5) == server

    def test_a_held_server_is_found_again_when_it_was_removed_and_added(self, cluster):
        server = cluster.servers["alpha"]
        del cluster.servers["alpha"]
        with pytest.raises(shmnm.NotFound):
            server.nodestat
        cluster.servers.add("alpha", 8)
        assert server.pri == 8

    @pytest.mark.parametrize(
        "nodestat, waitstat, isolateflag, combined",
        [
            (1, 0, 0, shmnm.CombinedState.ALIVE),
            (1, 1, 1, shmnm.CombinedState.ISOLATED),
            (1, 0, 2, None),
            (1, 2, 5, shmnm.CombinedState.WAITING),
            (1, 3, 0, shmnm.CombinedState.OTHER),
            (2, 0, 0, shmnm.CombinedState.NEW),
            (7, 0, 0, shmnm.CombinedState.OTHER),
        ],
    )
    def test_combined_state_is_one_of_an_enumeration_or_none(self, cluster, nodestat, waitstat, isolateflag, combined):
        server = cluster.servers["alpha"]
        server.nodestat, server.isolateflag, cluster.cluster.waitstat = nodestat, isolateflag, waitstat
        assert server.combstat is combined

    def test_columns_have_a_word_per_resource(self, cluster):
        beta = cluster.servers["beta"]
        cluster.hb["disk", "diskhb1"].svstat[1] = 5
        cluster.hb["lan", "lanhb1"].network[1] = 6
        cluster.np["ping", "pingnp1"].svstat[beta] = 7
        assert (beta.hb_stats(), beta.network_stats(), beta.np_stats()) == ([2, 5], [6, 2], [7, 2])
        with pytest.raises(shmnm.NotFound):
            cluster.servers.get_handle("omega").hb_stats()


class TestNumbers:
    @pytest.mark.parametrize("value", [-1, 1 << 32, 1 << 70])
    def test_a_word_refuses_a_number_that_does_not_fit(self, cluster, value):
        before = cluster.dump()
        hb = cluster.hb["lan", "lanhb1"]
        for use in (
            lambda: setattr(cluster.cluster, "clstat", value),
            lambda: setattr(cluster.servers["alpha"], "nodestat", value),
            lambda: setattr(hb, "pri", value),
            lambda: setattr(hb, "stat", value),
            lambda: hb.svstat.__setitem__(0, value),
            lambda: cluster.hb.set_type_stat("lan", value),
            lambda: cluster.simulation.set(1, [value]),
            lambda: cluster.fst.pids.__setitem__(("m", 0), (value, 0)),
            lambda: setattr(cluster.fst, "stat", value),
        ):
            with pytest.raises(OverflowError):
                use()
        assert cluster.dump() == before

    @pytest.mark.parametrize("value", [-(1 << 31) - 1, 1 << 31])
    def test_a_priority_refuses_a_number_that_does_not_fit(self, cluster, value):
        before = cluster.dump()
        for use in (
            lambda: cluster.servers.add("omega", value),
            lambda: setattr(cluster.servers["alpha"], "pri", value),
            lambda: cluster.servers.by_pri(value),
            lambda: cluster.hb["lan", "lanhb1"].svstat[value],
            lambda: cluster.hb.open_column(value),
            lambda: setattr(cluster.cluster, "hbinfo", (value, 1)),
        ):
            with pytest.raises(OverflowError):
                use()
        assert cluster.dump() == before

    def test_other_types_are_refused(self, cluster):
        for value in ("1", 1.5, None):
            with pytest.raises(Exception) as raised:
                cluster.servers["alpha"].nodestat = value
            assert not isinstance(raised.value, shmnm.Error)
        assert cluster.servers["alpha"].nodestat == 2

    def test_states_of_the_library_are_enumerations(self, cluster):
        cluster.servers["alpha"].nodestat = shmnm.State.ALIVE
        assert cluster.servers["alpha"].nodestat == shmnm.State.ALIVE
        assert cluster.cluster.alive and not cluster.cluster.alive_without("alpha")
        assert cluster.cluster.alive_without("nobody")


class TestResources:
    def test_behave_like_a_mapping(self, cluster):
        hb = cluster.hb
        assert list(hb) == [("lan", "lanhb1"), ("disk", "diskhb1")] and len(hb) == 2
        assert ("lan", "lanhb1") in hb and ("disk", "lanhb1") not in hb and "lanhb1" not in hb and ("a", 1) not in hb
        assert [resource.pri for resource in hb.values()] == [0, 1]
        assert hb.get(("x", "y")) is None
        with pytest.raises(KeyError):
            hb["x", "y"]
        del hb["lan", "lanhb1"]
        assert list(hb) == [("disk", "diskhb1")]

    def test_types_and_names_are_listed_in_order(self, cluster):
        cluster.hb.add("lan", "lanhb2", 5)
        assert cluster.hb.types() == ["lan", "disk", "lan"]
        assert cluster.hb.names() == ["lanhb1", "diskhb1", "lanhb2"]
        assert cluster.hb.names("lan") == ["lanhb1", "lanhb2"]
        assert cluster.hb.names("other") == []
        assert cluster.np.type_of("majoritynp1") == "majority"
        with pytest.raises(shmnm.InvalidArgument):
            cluster.np.type_of("")

    def test_empty_types_and_names_are_told_from_none(self, region):
        assert (region.hb.types(), region.hb.names(), region.hb.names("")) == ([], [], [])
        region.hb.add("", "", 0)
        assert (region.hb.types(), region.hb.names(), region.hb.names(""), list(region.hb)) == ([""], [""], [""], [("", "")])
        assert region.hb.names("lan") == []

    def test_words_and_rows(self, cluster):
        resource = cluster.hb["disk", "diskhb1"]
        resource.pri, resource.stat = 8, 9
        resource.svstat[2], resource.network[0] = 3, 4
        assert (resource.pri, resource.stat) == (8, 9)
        assert resource.svstat.words() == [2, 2, 3] and resource.network.words() == [4, 2, 2]
        assert conftest.tool("get", "hb/disk/diskhb1/svstat/gamma") == "3\n"
        assert 2 in resource.svstat and 9 not in resource.svstat and "gamma" not in resource.svstat
        with pytest.raises(shmnm.NotFound):
            resource.svstat[9]
        with pytest.raises(TypeError, match="words"):
            iter(resource.svstat)
        assert not hasattr(cluster.np["ping", "pingnp1"], "network")

    def test_any_type_reaches_the_first_resource_of_a_name(self, cluster):
        resource = cluster.hb.any_type("diskhb1")
        resource.stat = 6
        assert cluster.hb["disk", "diskhb1"].stat == 6 and resource.svstat.words() == [2, 2, 2]
        with pytest.raises(shmnm.InvalidArgument):
            resource.pri

    def test_descriptions_are_bytes(self, cluster):
        first, second = cluster.np.values()
        first.descript = b"\0abc\xff"
        assert first.descript == b"\0abc\xff" + bytes(251)
        first.descript = bytes(300)
        assert first.descript == bytes(256)
        with pytest.raises(shmnm.NotFound):
            second.descript
        with pytest.raises(shmnm.InvalidArgument):
            first.descript = b""

    def test_states_of_a_type_are_set_at_once(self, cluster):
        cluster.hb.set_type_stat("lan", 5)
        assert (cluster.hb["lan", "lanhb1"].stat, cluster.hb["lan", "lanhb1"].svstat.words()) == (5, [5, 5, 5])
        assert cluster.hb["disk", "diskhb1"].stat == 0

    def test_columns_are_opened_and_closed(self, cluster):
        row = cluster.np["ping", "pingnp1"].svstat
        row[0], row[1], row[2] = 10, 11, 12
        cluster.np.open_column(2)
        assert row.words() == [10, 11, 2]
        cluster.np.close_column(0)
        assert row.words()[:1] == [11]
        with pytest.raises(IndexError) as raised:
            cluster.np.open_column(3)
        assert isinstance(raised.value, shmnm.IndexOutOfRange)

    def test_lists_are_read_again_when_they_grow_meanwhile(self, cluster):
        """Another process adds between the measuring and the copying."""
        names = cluster._calls.hb.enumrsc
        added = []

        def grows(*arguments):
            code = names(*arguments)
            if arguments[1] is None and not added:
                added.append(cluster._calls.addhbrsc(b"lan", b"lanhb2", 0))
            return code

        cluster.hb._calls.enumrsc = grows
        assert cluster.hb.names() == ["lanhb1", "diskhb1", "lanhb2"] and added == [0]

    def test_columns_are_read_again_when_they_shrink_meanwhile(self, cluster):
        column = cluster._calls.enumsvhbrscstat
        removed = []

        def shrinks(*arguments):
            code = column(*arguments)
            if arguments[1] is None and not removed:
                removed.append(cluster._calls.rmhbrsc(b"lan", b"lanhb1"))
            return code

        server = cluster.servers["alpha"]
        cluster.hb["disk", "diskhb1"].svstat[0] = 4
        cluster._calls.enumsvhbrscstat = shrinks
        try:
            assert server.hb_stats() == [4] and removed == [0]
        finally:
            cluster._calls.enumsvhbrscstat = column

    def test_a_list_that_never_comes_to_rest_is_an_error(self, cluster):
        def grows(*arguments):
            return 0 if arguments[1] is None else 4

        grows.__name__ = "shmnm_enumhbrsc"
        cluster.hb._calls.enumrsc = grows
        with pytest.raises(shmnm.BufferTooSmall, match="hold the lock"):
            cluster.hb.names()

    @pytest.fixture(autouse=True)
    def calls_as_they_are(self, region):
        """Puts back what a test has replaced: the functions are the process's, not the region's."""
        saved = {kind: dict(vars(getattr(region._calls, kind))) for kind in ("hb", "np")}
        yield
        for kind, functions in saved.items():
            vars(getattr(region._calls, kind)).update(functions)


class TestTheRest:
    def test_pairs_and_maxima_are_named(self, region):
        region.cluster.hbinfo = (3, 4)
        assert region.cluster.hbinfo == (3, 4) and region.cluster.hbinfo.b == 4
        assert region.cluster.maxima == shmnm.Maxima(servers=4, hb=3, np=2)
        region.cluster.maxima = region.cluster.maxima._replace(servers=2)
        assert region.cluster.maxima.servers == 2
        with pytest.raises(shmnm.InvalidArgument):
            region.cluster.maxima = (0, 1, 1)
        with pytest.raises(ValueError):
            region.cluster.hbinfo = (0, 1)

    def test_simulation_is_by_name(self, cluster):
        simulation = cluster.simulation
        assert (simulation.active, simulation.failed()) == (False, [])
        simulation.start(["beta", "gamma"])
        assert (simulation.active, simulation.failed()) == (True, ["beta", "gamma"])
        assert conftest.tool("status", "--format", "json").count('"failed":["beta","gamma"]') == 1
        assert simulation.get(5) == (1, [0, 1, 1, 0, 0])
        simulation.start()
        assert (simulation.active, simulation.failed()) == (True, [])
        simulation.stop()
        assert (simulation.active, simulation.failed(), simulation.get(3)) == (False, [], (0, [0, 0, 0]))
        with pytest.raises(shmnm.NotFound):
            simulation.start(["omega"])
        with pytest.raises(shmnm.InvalidArgument):
            simulation.get(2)
        cluster.servers["alpha"].pri = -1
        with pytest.raises(ValueError, match="priority -1"):
            simulation.start(["alpha"])

    def test_process_ids_are_by_name_and_kind(self, region):
        pids = region.fst.pids
        assert ("monitor", 0) not in pids
        with pytest.raises(KeyError):
            pids["monitor", 0]
        pids["monitor", 1] = 4711, (1 << 64) - 1
        assert pids["monitor", 1] == shmnm.ProcessId(4711, (1 << 64) - 1)
        assert pids["monitor", 0] == (0, 0) and ("monitor", 2) in pids and ("monitor", 3) not in pids
        # The values that stand for "unchanged" inside are values like any other.
        for value in ((0xFFFFFFFF, 0xFFFFFFFF), (0xFFFFFFFE, 0xFFFFFFFE)):
            pids["monitor", 2] = value
            assert pids["monitor", 2] == value
        with pytest.raises(TypeError, match="snapshot"):
            iter(pids)

    def test_a_wrong_kind_is_a_value_error_with_the_library_s_code(self, region):
        region.fst.pids["monitor", 0] = 1, 1
        for use in (lambda: region.fst.pids["monitor", 3], lambda: region.fst.pids.__setitem__(("monitor", -1), (1, 1))):
            with pytest.raises(ValueError) as raised:
                use()
            assert isinstance(raised.value, shmnm.InvalidKind) and raised.value.code == shmnm.Result.NOTINIT

    def test_fst_has_a_state_and_a_description(self, region):
        region.fst.stat, region.fst.descript = 5, b"text"
        assert region.fst.stat == 5 and region.fst.descript == b"text" + bytes(252)

    def test_clear_makes_all_bytes_zero(self, cluster):
        assert any(cluster.dump())
        cluster.clear()
        assert not any(cluster.dump())

    def test_nothing_takes_the_lock_in_secret(self, cluster):
        """Each use works while another process has the lock."""
        with conftest.python(
            "import shmnm, sys\nwith shmnm.attach() as region, region.lock():\n    print('held', flush=True)\n    sys.stdin.readline()\n"
        ) as blocker:
            assert blocker.stdout.readline() == "held\n"
            uses = objects_of(cluster)
            for name in ("clear", "lock", "snapshot", "detach", "with"):
                del uses[name]
            cluster.fst.pids["monitor", 0] = 1, 1
            try:
                for use in uses.values():
                    use()
            finally:
                blocker.communicate("go on\n", timeout=60)

    def test_every_result_code_has_its_exception(self, region):
        header = (conftest.PROJECT / "src/windows/server/library/shmnm/include/shmnm.h").read_text()
        codes = {name: int(value) for name, value in re.findall(r"X\(SHMNM_(?:ERR_)?(\w+), (\d+),", header)}
        assert codes == {result.name: result.value for result in shmnm.Result}
        for result in shmnm.Result:
            if result:
                error = shmnm._errors.failure(int(result), region._calls.addnode, b"x")
                assert type(error) is not shmnm.Error and error.code is result
        assert type(shmnm._errors.failure(99, region._calls.addnode)) is shmnm.Error

    def test_full_tables_are_told_apart(self, cluster):
        cluster.servers.add("delta", 3)
        with pytest.raises(shmnm.TableFull) as raised:
            cluster.servers.add("epsilon", 4)
        assert type(raised.value) is shmnm.TableFull
        with pytest.raises(shmnm.ResourceTableFull):
            cluster.np.add("ping", "pingnp2", 0)
        with pytest.raises(shmnm.AlreadyExists):
            cluster.hb.add("lan", "lanhb1", 0)
