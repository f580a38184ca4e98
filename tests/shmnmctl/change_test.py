"""set, add, remove, modify, describe, simulate and clear: what the library then answers, and what is refused."""
import support
from support import ToolTest


class Changing(ToolTest):
    def refused(self, status, *command, **options):
        """Runs a command that must end with this status and change no byte of the region."""
        before = self.dumped()
        result = self.tool(*command, **options)
        self.assertEqual(result.status, status, result)
        self.assertEqual(self.dumped(), before)
        return result.err

    def done(self, *command, **options):
        result = self.tool(*command, **options)
        self.assertEqual((result.status, result.out, result.err), (0, "", ""))

    def test_set_changes_every_settable_word(self):
        api = self.cluster()
        api.ok("shmnm_setfstrscpid", "agent", 1, 1, 1)
        fixed = {"alive", "dfailstatus", "combstat", "max_servers", "max_hb", "max_np", "hbinfo_a", "hbinfo_b", "pri"}
        keys = [line.split(" ")[0] for line in self.tool("list").lines]
        keys = [key for key in keys if key.split("/")[-1] not in fixed and not key.startswith("bridge/")]
        values = {key: str(1000 + i) for i, key in enumerate(keys)}
        self.done("set", "-", input="".join(f"{key} {value}\n" for key, value in values.items()))
        listed = dict(line.split(" ") for line in self.tool("list").lines)
        self.assertEqual({key: listed[key] for key in keys}, values)
        # The library agrees.
        self.assertEqual(api.ok("shmnm_getrscsvstat_nw", "disk", "diskhb1", 2)[0], values["hb/disk/diskhb1/network/gamma"])
        self.assertEqual(api.ok("shmnm_getnprscsvstat", "ping", "pingnp1", 1)[0], values["np/ping/pingnp1/svstat/beta"])
        self.assertEqual(api.ok("shmnm_getfstrscpid", "agent", 2), [values["fst/pids/agent/2"], values["fst/piddata/agent/2"]])

    def test_values_are_decimal_or_hexadecimal_and_priorities_have_a_sign(self):
        api = self.cluster()
        self.done("set", "cluster/clstat", "0xFFFFFFFF", "servers/alpha/pri", "-12", "hb/lan/lanhb1/pri", "7")
        self.assertEqual(api.ok("shmnm_getclstat"), ["4294967295"])
        self.assertEqual(api.ok("shmnm_getnodepri", "alpha"), ["-12"])
        self.assertEqual(api.ok("shmnm_gethbrscpri", "lan", "lanhb1"), ["7"])

    def test_set_changes_nothing_if_one_key_is_unknown(self):
        self.cluster()
        error = self.refused(1, "set", "-", input="cluster/clstat 5\nservers/nobody/nodestat 1\ncluster/bwflag 6\n")
        self.assertIn("nothing was set: there is no key servers/nobody/nodestat; ", error)

    def test_set_changes_nothing_if_one_value_is_invalid(self):
        self.cluster().ok("shmnm_sethbinfo_ex", 3, 4)
        for key, value in (
            ("cluster/clstat", "4294967296"),
            ("cluster/clstat", "-1"),
            ("servers/alpha/pri", "2147483648"),
            ("cluster/clstat", "none"),
            ("cluster/clstat", "1x"),
            ("cluster/clstat", ""),
            ("cluster/hbinfo_a", "0"),
        ):
            with self.subTest(key=key, value=value):
                self.refused(2, "set", "cluster/bwflag", "1", key, value)

    def test_set_refuses_computed_and_simulated_words(self):
        self.cluster()
        for key in ("cluster/alive", "cluster/dfailstatus", "servers/alpha/combstat", "servers/alpha/dfailstatus"):
            with self.subTest(key=key):
                self.refused(5, "set", key, "1")

    def test_set_needs_both_words_of_a_pair(self):
        api = self.cluster()
        self.assertIn('as in "shmnmctl set cluster/hbinfo_a 3 cluster/hbinfo_b 1"', self.refused(5, "set", "cluster/hbinfo_a", "3"))
        self.done("set", "cluster/hbinfo_a", "3", "cluster/hbinfo_b", "4")
        self.done("set", "cluster/hbinfo_b", "5")
        self.assertEqual(api.ok("shmnm_gethbinfo_ex"), ["3", "5"])
        self.done("set", "--force", "cluster/max_hb", "2")
        self.assertEqual(api.ok("shmnm_getmaxvalue_ex"), ["4", "2", "2"])

    def test_set_changes_a_maximum_in_either_direction_only_with_force(self):
        api = self.cluster()
        now = {"max_servers": 4, "max_hb": 3, "max_np": 2}
        for key in now:
            for step in (-1, 1):
                value = str(now[key] + step)
                with self.subTest(key=key, value=value):
                    api.ok("shmnm_setmaxvalue_ex", *now.values())
                    for form, options in (([f"cluster/{key}", value, "cluster/clstat", "9"], {}),
                                          (["-"], {"input": f"cluster/clstat 9\ncluster/{key} {value}\n"})):
                        error = self.refused(5, "set", *form, **options)
                        self.assertIn(f"cannot set cluster/{key}: the region was laid out by it, and every process reads the tables by it; "
                                      "use --force to change it all the same", error)
                        self.done("set", "--force", *form, **options)
                        self.assertEqual(api.ok("shmnm_getmaxvalue_ex"), [str(now[other] + step * (other == key)) for other in now])
                        self.assertEqual(api.ok("shmnm_getclstat"), ["9"])
                        api.ok("shmnm_setmaxvalue_ex", *now.values())
                        api.ok("shmnm_setclstat", 0)

    def test_set_needs_neither_force_nor_a_call_for_values_that_are_there(self):
        file = self.folder / "etc/cluster.xml"
        file.write_text(file.read_text().replace("<level>4</level>", "<level>16</level>"))
        api = self.cluster()
        api.ok("shmnm_setfstrscpid", "agent", 1, 4711, 1)
        api.ok("shmnm_modifynode", "gamma", 0)  # by its priority the library finds another server
        api.ok("shmnm_setnodestat", "alpha", 1)
        api.ok("shmnm_setisolateflag", "alpha", 2)
        listed = self.tool("list")
        self.assertIn("servers/alpha/combstat none", listed.lines)
        before, log = self.dumped(), self.folder / "log/shmnm.log"
        calls = len(log.read_text().splitlines())
        self.done("set", "cluster/max_servers", "4", "cluster/max_hb", "0x3", "cluster/hbinfo_a", "0", "cluster/alive", "1")
        self.done("set", "-", input=listed.out)
        self.assertEqual(self.dumped(), before)
        called = "\n".join(log.read_text().splitlines()[calls:])
        for call in ("_set", "_modify", "_attach"):
            self.assertNotIn(call, called)
        # The configuration's counts need not be the region's, since nothing is written.
        self.configure(server=5, hbr=3, npr=2, fstr=1)
        self.done("set", "-", input=listed.out)
        self.assertEqual(self.dumped(), before)

    def test_the_last_of_several_values_of_one_key_stays(self):
        api = self.cluster()
        self.done("set", "cluster/clstat", "5", "cluster/clstat", "0", "cluster/bwflag", "0", "cluster/bwflag", "3")
        self.assertEqual((api.ok("shmnm_getclstat"), api.ok("shmnm_getbwflag")), (["0"], ["3"]))

    def test_set_refuses_a_pair_whose_server_the_library_would_not_find(self):
        api = self.cluster()
        api.ok("shmnm_modifynode", "gamma", 0)
        self.assertIn("alpha has the same priority, 0; ", self.refused(5, "set", "hb/lan/lanhb1/svstat/gamma", "1"))
        self.done("set", "hb/lan/lanhb1/svstat/alpha", "1")

    def test_set_finds_a_server_by_the_priority_that_the_same_command_gives_it(self):
        api = self.cluster()
        self.done("set", "servers/alpha/pri", "7", "hb/lan/lanhb1/svstat/alpha", "5", "servers/beta/pri", "0", "hb/lan/lanhb1/svstat/beta", "6")
        self.assertEqual([api.ok("shmnm_gethbrscsvstat", "lan", "lanhb1", pri) for pri in (7, 0)], [["5"], ["6"]])

    def test_set_refuses_a_state_on_a_server_that_the_same_command_hides_behind_another(self):
        self.cluster()
        self.assertIn("alpha has the same priority, 0; ", self.refused(5, "set", "servers/gamma/pri", "0", "hb/lan/lanhb1/svstat/gamma", "1"))
        self.done("set", "hb/lan/lanhb1/svstat/gamma", "1", "servers/gamma/pri", "0")

    def test_set_checks_for_a_full_table_of_process_ids_before_it_changes_anything(self):
        api = self.cluster()
        for name in "abcd":
            api.ok("shmnm_setfstrscpid", name, 0, 1, 1)
        self.refused(5, "set", "cluster/clstat", "1", "fst/pids/a/0", "2")
        self.refused(5, "add", "fst", "e", "0", "1")

    def test_set_skips_empty_and_comment_lines_and_names_a_bad_line(self):
        api = self.cluster()
        self.done("set", "-", input="# states\r\n\n  cluster/clstat\t 8  \r\n")
        self.assertEqual(api.ok("shmnm_getclstat"), ["8"])
        self.assertIn("line 2", self.refused(2, "set", "-", input="cluster/clstat 9\ncluster/bwflag\n"))
        self.assertIn("VALUE is missing after cluster/clstat", self.refused(2, "set", "cluster/clstat"))

    def test_servers_are_added_changed_and_removed(self):
        api = self.cluster()
        self.done("add", "server", "delta", "-3")
        self.assertEqual(api.ok("shmnm_getnodepri", "delta"), ["-3"])
        self.refused(5, "add", "server", "delta", "4")
        self.refused(5, "add", "server", "epsilon", "4")  # four are configured
        self.done("modify", "server", "delta", "9")
        self.assertEqual(api.ok("shmnm_getnodepri", "delta"), ["9"])
        self.done("remove", "server", "alpha")
        self.assertEqual(api.ok("shmnm_enumnode"), ["beta", "gamma", "delta"])
        self.refused(1, "remove", "server", "alpha")
        self.refused(1, "modify", "server", "alpha", "1")

    def test_resources_are_added_changed_and_removed(self):
        api = self.cluster()
        for table, kind, name in (("hb", "lan", "new"), ("np", "ping", "pingnp1")):
            if table == "np":
                self.done("remove", table, kind, name)
            self.done("add", table, kind, name, "5")
            self.refused(5, "add", table, kind, name, "5")
            self.done("modify", table, kind, name, "4294967295")
            self.assertEqual(api.ok(f"shmnm_get{table}rscpri", kind, name), ["4294967295"])
            self.refused(5, "add", table, "other", "one", "1")  # three and two are configured
            self.done("remove", table, kind, name)
            self.refused(1, "remove", table, kind, name)
            self.refused(1, "modify", table, kind, name, "1")

    def test_names_are_written_as_in_keys_and_never_cut(self):
        api = self.cluster()
        self.done("add", "server", "%2D7 of%2F%25", "1")
        self.assertEqual(api.ok("shmnm_enumnode")[-1], "-7%20of%2F%25".replace("-", "-"))
        for name in ("n" * 256, "%zz", "%00"):
            self.refused(2, "add", "server", name, "1")
        self.refused(2, "add", "hb", "t" * 32, "name", "1")
        self.refused(2, "add", "np", "type", "n" * 32, "1")
        self.refused(2, "add", "server", "eta", "eleven")

    def test_process_ids_are_added_under_new_and_known_names(self):
        api = self.cluster()
        self.done("add", "fst", "agent", "0", "4711", "0x8000000000000001")
        self.done("add", "fst", "agent", "2", "4712")
        self.assertEqual(api.ok("shmnm_getfstrscpid", "agent", 0), ["4711", str(2**63 + 1)])
        self.assertEqual(api.ok("shmnm_getfstrscpid", "agent", 2), ["4712", "0"])
        self.refused(2, "add", "fst", "agent", "3", "1")

    def test_a_description_is_shown_and_replaced_as_a_whole(self):
        api = self.cluster()
        self.done("describe", "hb", "lan", "lanhb1", "a long description")
        self.done("describe", "hb", "lan", "lanhb1", "short %25")
        self.assertEqual(api.ok("shmnm_gethbdescript", "lan", "lanhb1")[0], "short%20%25" + "%00" * 249)
        self.assertEqual(self.tool("describe", "hb", "lan", "lanhb1").out, "short %25\n")
        self.assertEqual(self.tool("describe", "hb", "lan", "lanhb1", "--format", "json").json["descript"], "short%20%25")
        self.done("describe", "fst", "x" * 256)
        self.assertEqual(self.tool("describe", "fst").out, "x" * 256 + "\n")
        self.assertIn("the library reaches only the description of the first np resource", self.refused(5, "describe", "np", "majority", "majoritynp1", "x"))
        self.refused(1, "describe", "np", "majority", "nobody", "x")
        self.refused(2, "describe", "fst", "x" * 257)
        self.assertEqual(self.tool("describe", "hb", "lan", "nobody").status, 1)

    def test_a_partition_is_simulated_by_name(self):
        api = self.cluster()
        self.done("simulate", "on", "gamma", "alpha")
        self.assertEqual(api.ok("shmnm_getnpsimu", 4), ["1", "1", "0", "1", "0"])
        self.done("simulate", "on")
        self.assertEqual(api.ok("shmnm_getnpsimu", 4), ["1", "0", "0", "0", "0"])
        self.done("simulate", "off")
        self.assertEqual(api.ok("shmnm_getnpsimuflag"), ["0"])
        self.refused(1, "simulate", "on", "nobody")
        api.ok("shmnm_modifynode", "gamma", 1)
        self.assertIn("gamma has the priority 1 too and would be cut off with it; give one of them another priority with", self.refused(5, "simulate", "on", "beta"))
        api.ok("shmnm_modifynode", "gamma", -1)
        self.refused(5, "simulate", "on", "gamma")

    def test_clear_needs_confirmation_and_leaves_a_usable_region(self):
        api = self.cluster()
        self.refused(2, "clear")
        self.done("clear", "--yes")
        self.assertEqual(api.ok("shmnm_enumnode"), [])
        self.assertEqual(api.ok("shmnm_getmaxvalue_ex"), ["4", "3", "2"])
        self.done("add", "server", "alpha", "0")

    def test_a_differing_configuration_is_refused_unless_forced(self):
        api = self.cluster()
        self.configure(server=4, hbr=3, npr=1, fstr=1)
        error = self.refused(5, "set", "cluster/clstat", "1")
        self.assertIn("the region has servers 4, hb 3, np 2, fst 1, this machine's configuration has servers 4, hb 3, np 1, fst 1", error)
        self.done("set", "cluster/clstat", "1", "--force")
        self.assertEqual(api.ok("shmnm_getmaxvalue_ex"), ["4", "3", "1"])
        self.assertEqual(api.ok("shmnm_getclstat"), ["1"])

    def test_a_missing_configuration_is_refused(self):
        self.cluster()
        (self.folder / "etc/cluster.xml").unlink()
        place = support.path(self.folder) + "/etc/cluster.xml"
        self.assertEqual(
            self.refused(5, "set", "cluster/clstat", "1"),
            "shmnmctl: nothing was changed: shmnm_attach failed with code 12 (the configuration could not be loaded); "
            f"put the configuration at {place}\n",
        )

    def test_changes_wait_for_the_lock_and_say_who_has_it(self):
        api = self.cluster()
        api.ok("shmnm_rwlock", 0)
        result = self.tool("set", "cluster/clstat", "1", "--lock-timeout", "50")
        self.assertEqual(result.status, 4)
        self.assertIn("timed out after 50 ms waiting for the lock; ", result.err)
        if support.PLATFORM == "linux":
            self.assertIn(f"held by process {api.process.pid} thread {api.process.pid} (\"", result.err)
            self.assertIn("api_caller\", running) since 20", result.err)
        api.ok("shmnm_rwunlock")
        self.done("set", "cluster/clstat", "1", "--lock-timeout", "50")


if __name__ == "__main__":
    support.main()
