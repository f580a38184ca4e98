"""status, list, get and dump: what they show is what the library answers, and looking changes nothing."""
import os
import pathlib

import support
from support import ToolTest, escaped


def busy_cluster(test):
    """A region in which every word has a value of its own."""
    api = test.cluster()
    numbers = iter(range(100, 100_000))
    api.ok("shmnm_sethbinfo_ex", next(numbers), next(numbers))
    for word in ("waitstat", "bwflag", "bwflagdisk", "clstat"):
        api.ok(f"shmnm_set{word}", next(numbers))
    servers = [("alpha", 0), ("beta", 1), ("gamma", 2)]
    for server, _ in servers:
        for word in ("nodestat", "nodestat_nw", "downnotifystat", "isolateflag", "pingstat", "holdstat"):
            api.ok(f"shmnm_set{word}", server, next(numbers))
    for table, resources in (("hb", (("lan", "lanhb1"), ("disk", "diskhb1"))), ("np", (("ping", "pingnp1"), ("majority", "majoritynp1")))):
        for kind, name in resources:
            api.ok(f"shmnm_set{table}rscstat", kind, name, next(numbers))
            for _, priority in servers:
                api.ok(f"shmnm_set{table}rscsvstat", kind, name, priority, next(numbers))
                if table == "hb":
                    api.ok("shmnm_setrscsvstat_nw", kind, name, priority, next(numbers))
    api.ok("shmnm_sethbdescript", "lan", "lanhb1", "the first net")
    api.ok("shmnm_setnpsimu", 1, [0, 1, 0])
    api.ok("shmnm_setfstrscstat", next(numbers))
    api.ok("shmnm_setfstdescript", b"\xff\x00odd")
    for kind in range(3):
        api.ok("shmnm_setfstrscpid", "agent", kind, next(numbers), 2**63 + next(numbers))
    return api


def answers(api):
    """Every word by its key, as the library's own functions answer."""
    words = {}
    words["cluster/max_servers"], words["cluster/max_hb"], words["cluster/max_np"] = api.ok("shmnm_getmaxvalue_ex")
    words["cluster/hbinfo_a"], words["cluster/hbinfo_b"] = api.ok("shmnm_gethbinfo_ex")
    for word in ("waitstat", "bwflag", "bwflagdisk", "clstat"):
        words[f"cluster/{word}"] = api.ok(f"shmnm_get{word}")[0]
    words["cluster/alive"] = api.ok("shmnm_chkalivesv")[0]
    words["cluster/dfailstatus"], *failed = api.ok("shmnm_getnpsimu", 16)
    servers = api.ok("shmnm_enumnode")
    for server in servers:
        words[f"servers/{server}/pri"] = priority = api.ok("shmnm_getnodepri", server)[0]
        for word in ("nodestat", "nodestat_nw", "downnotifystat", "isolateflag", "pingstat", "holdstat"):
            words[f"servers/{server}/{word}"] = api.ok(f"shmnm_get{word}", server)[0]
        words[f"servers/{server}/combstat"] = api.ok("shmnm_getnodecombstat", server)[0]
        words[f"servers/{server}/dfailstatus"] = failed[int(priority)]
    for table in ("hb", "np"):
        for kind, name in zip(api.ok(f"shmnm_enum{table}type"), api.ok(f"{table}_names")):
            key = f"{table}/{kind}/{name}"
            words[f"{key}/pri"] = api.ok(f"shmnm_get{table}rscpri", kind, name)[0]
            words[f"{key}/stat"] = api.ok(f"shmnm_get{table}rscstat", kind, name)[0]
            rows = {"svstat": f"shmnm_enum{table}rscsvstat"} | ({"network": "shmnm_enumrscsvstat_nw"} if table == "hb" else {})
            for row, function in rows.items():
                for server, state in zip(servers, api.ok(function, kind, name), strict=True):
                    words[f"{key}/{row}/{server}"] = state
    words["fst/stat"] = api.ok("shmnm_getfstrscstat")[0]
    for kind in range(3):
        words[f"fst/pids/agent/{kind}"], words[f"fst/piddata/agent/{kind}"] = api.ok("shmnm_getfstrscpid", "agent", kind)
    return words


def flattened(status):
    """The words of a status document by their keys."""
    words = {f"cluster/{name}": value for name, value in status["cluster"].items()}
    words |= {f"cluster/{name}": status["region"][name] for name in ("max_servers", "max_hb", "max_np")}
    words["cluster/dfailstatus"] = status["simulation"]["dfailstatus"]
    for server in status["servers"]:
        words |= {f"servers/{server['name']}/{name}": value for name, value in server.items() if name not in ("name", "alive")}
    for table in ("hb", "np"):
        for resource in status[table]:
            key = f"{table}/{resource['type']}/{resource['name']}"
            words |= {f"{key}/{name}": resource[name] for name in ("pri", "stat")}
            for row in ("svstat", "network"):
                for server, state in zip(status["servers"], resource.get(row, [])):
                    words[f"{key}/{row}/{server['name']}"] = state
    words["fst/stat"] = status["fst"]["stat"]
    for record in status["fst"]["pids"]:
        for kind in range(3):
            words[f"fst/pids/{record['name']}/{kind}"] = record["pid"][kind]
            words[f"fst/piddata/{record['name']}/{kind}"] = record["piddata"][kind]
    return {key: str(int(value)) if isinstance(value, bool) else str(value) for key, value in words.items()}


def reading_commands(test):
    """Every command that only reads, and ends by itself."""
    return [
        ("status",),
        ("list",),
        ("get", "cluster/clstat"),
        ("query", "exists cluster/clstat"),
        ("wait", "exists cluster/clstat"),
        ("verify",),
        ("dump", support.path(test.folder / "dump")),
    ]


class Looking(ToolTest):
    def test_every_word_is_shown_as_the_library_returns_it(self):
        api = busy_cluster(self)
        expected = answers(api)
        self.assertEqual(dict(line.split(" ") for line in self.tool("list").lines), expected | {"bridge/up": "0"})
        listed = self.tool("list", "--format", "json").json["words"]
        self.assertEqual({key: str(value) for key, value in listed.items()}, expected | {"bridge/up": "0"})
        status = self.tool("status", "--format", "json").json
        self.assertEqual(flattened(status), expected)
        self.assertEqual(status["simulation"]["failed"], ["beta"])
        self.assertEqual(status["hb"][0]["descript"], escaped("the first net"))
        self.assertEqual(status["fst"]["descript"], "%FF%00odd")

    def test_get_prints_one_word_by_its_key(self):
        api = busy_cluster(self)
        self.assertEqual(self.tool("get", "servers/beta/pingstat").out, api.ok("shmnm_getpingstat", "beta")[0] + "\n")
        self.assertEqual(
            self.tool("get", "fst/piddata/agent/1", "--format", "json").json["value"], api.ok("shmnm_getfstrscpid", "agent", 1)[1]
        )

    def test_get_matches_only_whole_parts_of_a_prefix(self):
        api = self.region()
        api.ok("shmnm_addnode", "node", 1)
        api.ok("shmnm_addnode", "node2", 2)
        keys = [line.split(" ")[0] for line in self.tool("list", "servers/node").lines]
        self.assertEqual(len(keys), 9)
        self.assertTrue(all(key.startswith("servers/node/") for key in keys), keys)
        self.assertEqual(self.tool("list", "servers/nod").status, 1)

    def test_hostile_names_are_escaped_and_found_by_their_keys(self):
        api = self.region()
        name = "a/b*\x1b[2J\n%é\""
        api.ok("shmnm_addnode", name, 7)
        key = f"servers/{escaped(name)}/pri"
        self.assertIn(key + " 7", self.tool("list").lines)
        self.assertEqual(self.tool("get", key).out, "7\n")
        self.assertEqual(self.tool("status", "--format", "json").json["servers"][0]["name"], escaped(name))
        self.assertNotIn("\x1b", self.tool("status").out)

    def test_the_first_of_two_equal_names_has_the_key_and_status_shows_both(self):
        api = self.region()
        long_name = "n" * 255
        api.ok("shmnm_addnode", long_name + "x", 1)
        api.ok("shmnm_addnode", long_name + "y", 2)
        self.assertEqual(self.tool("get", f"servers/{long_name}/pri").out, "1\n")
        self.assertEqual([server["pri"] for server in self.tool("status", "--format", "json").json["servers"]], [1, 2])

    def test_a_server_without_a_combined_state_shows_none(self):
        api = self.cluster()
        api.ok("shmnm_setnodestat", "alpha", 1)
        api.ok("shmnm_setisolateflag", "alpha", 2)
        self.assertEqual(self.tool("get", "servers/alpha/combstat").out, "none\n")
        self.assertIsNone(self.tool("get", "servers/alpha/combstat", "--format", "json").json["value"])

    def test_the_combined_state_follows_the_library_for_all_states(self):
        api = self.region()
        api.ok("shmnm_addnode", "alpha", 0)
        for wait in (0, 1, 2, 3, 4):
            api.ok("shmnm_setwaitstat", wait)
            for node in (0, 1, 2, 3):
                api.ok("shmnm_setnodestat", "alpha", node)
                api.ok("shmnm_setisolateflag", "alpha", 1)
                with self.subTest(wait=wait, node=node):
                    self.assertEqual(self.tool("get", "servers/alpha/combstat").out.strip(), api.ok("shmnm_getnodecombstat", "alpha")[0])

    def test_reading_commands_change_no_byte_and_hold_nothing(self):
        api = busy_cluster(self)
        # A reader whose configuration differs would write its own counts into the header if it attached.
        self.configure(server=9, hbr=9, npr=9, fstr=1)
        api.ok("dump", support.path(self.folder / "before"))
        for command in (["status"], ["list"], ["get", "cluster/clstat"], ["dump", support.path(self.folder / "dump")]):
            self.assertEqual(self.tool(*command).status, 0)
        api.ok("dump", support.path(self.folder / "after"))
        self.assertEqual((self.folder / "before").read_bytes(), (self.folder / "after").read_bytes())
        self.assertEqual((self.folder / "before").read_bytes(), (self.folder / "dump").read_bytes())
        api.end()
        self.assertEqual(self.tool("status").status, 3)

    def test_a_dump_answers_as_the_region_did(self):
        busy_cluster(self)
        file = support.path(self.folder / "picture.dump")
        self.assertEqual(self.tool("dump", file).status, 0)
        self.assertEqual(self.dumped(), (self.folder / "picture.dump").read_bytes())
        live = [self.tool(*command) for command in (["list"], ["status"], ["get", "cluster/clstat"])]
        status = self.tool("status", "--format", "json").json
        # Elsewhere, later, under another configuration.
        self.configure(server=1, hbr=1, npr=1)
        self.environment["KZMUTIL_NAMESPACE"] += "elsewhere-"
        # What is said of the bridge is said of now.
        self.assertEqual(self.tool("list", "--file", file).out + "bridge/up 0\n", live[0].out)
        self.assertEqual(self.tool("status", file).out, live[1].out)
        self.assertEqual(self.tool("get", "-f", file, "cluster/clstat").out, live[2].out)
        offline = self.tool("status", "--format", "json", file).json
        status["region"]["live"] = False
        self.assertFalse(status.pop("bridge")["up"])
        self.assertEqual(offline, status)

    def rows(self, *arguments):
        """The first words of the lines that status shows."""
        result = self.tool("status", *arguments)
        self.assertEqual((result.status, result.err), (0, ""), result)
        return [line.split()[0] for line in result.lines if line]

    def test_status_shows_the_part_below_prefixes(self):
        busy_cluster(self)
        self.assertEqual(self.rows("servers"), ["server", "alpha", "beta", "gamma"])
        self.assertEqual(self.rows("servers/beta", "np/ping"), ["server", "beta", "np", "ping/pingnp1"])
        self.assertEqual(self.rows("cluster"), ["cluster", "in", "simulation"])
        self.assertEqual(self.rows("fst/pids"), ["process", "agent"])
        # Only the columns and rows with a word below a prefix.
        self.assertEqual(self.tool("status", "servers/beta/pingstat").lines, ["server ping", f"beta    {self.tool('get', 'servers/beta/pingstat').out.strip()}"])
        lines = self.tool("status", "hb/lan/lanhb1/network/gamma").lines
        self.assertEqual(lines, ["hb        gamma", f"  network {self.tool('get', 'hb/lan/lanhb1/network/gamma').out.strip():>5}"])
        result = self.tool("status", "servers", "servers/delta")
        self.assertEqual((result.status, result.out), (1, ""))
        self.assertIn("no key lies below servers/delta", result.err)

    def test_status_shows_the_rows_for_which_a_condition_holds(self):
        api = self.cluster()
        api.ok("shmnm_setnodestat", "beta", 1)
        api.ok("shmnm_sethbrscsvstat", "disk", "diskhb1", 2, 7)
        self.assertEqual(self.rows("--only", "nodestat!=1"), ["server", "alpha", "gamma"])
        self.assertEqual(self.rows("--only", "any svstat/*=7"), ["hb", "disk/diskhb1", "network"])
        self.assertEqual(self.rows("np", "--only", "pri=0"), ["np", "ping/pingnp1"])
        result = self.tool("status", "--only", "nodestat=5")
        self.assertEqual((result.status, result.out), (1, ""))
        self.assertEqual(result.err, "shmnmctl: the condition holds for no row\n")
        for condition, message in (
            ("nodestatt=1", 'no row has a word "nodestatt"; did you mean "nodestat"?'),
            ("servers/alpha/nodestat=1", "name a word without the key of its row"),
            ("nodestat=1 and stat=1", "no row has all words of the condition"),
            ("nodestat", "is expected"),
        ):
            result = self.tool("status", "--only", condition)
            self.assertEqual((result.status, result.out), (2, ""), condition)
            self.assertIn(message, result.err)

    def test_a_part_in_json_has_its_rows_and_names_the_columns(self):
        api = self.cluster()
        api.ok("shmnm_setnodestat", "beta", 1)
        whole = self.tool("status", "--format", "json").json
        self.assertNotIn("columns", whole)
        part = self.tool("status", "--format", "json", "--only", "nodestat=1").json
        self.assertEqual(part["servers"], whole["servers"][1:2])
        self.assertEqual((part["hb"], part["np"], part["fst"]["pids"]), ([], [], []))
        # What is no row is there as always.
        self.assertEqual((part["cluster"], part["region"]), (whole["cluster"], whole["region"]))
        part = self.tool("status", "--format", "json", "hb/lan").json
        self.assertEqual((part["servers"], part["hb"]), ([], whole["hb"][:1]))
        self.assertEqual(dict(zip(part["columns"], part["hb"][0]["svstat"], strict=True)), {"alpha": 2, "beta": 2, "gamma": 2})
        result = self.tool("status", "--format", "json", "--only", "nodestat=5")
        self.assertEqual((result.status, result.err, result.json["servers"]), (1, "", []))

    def test_a_part_of_a_dump_is_shown(self):
        busy_cluster(self)
        file = support.path(self.folder / "picture.dump")
        self.assertEqual(self.tool("dump", file).status, 0)
        live = self.tool("status", "servers/alpha").out
        self.assertEqual(self.tool("status", file, "servers/alpha").out, live)
        self.assertEqual(self.tool("status", "servers/alpha", file).out, live)
        self.assertEqual(self.tool("status", "--file", file, "servers/alpha").out, live)
        self.assertEqual(self.tool("status", "--file", file, file).status, 2)
        for prefix, status, message in (
            ("servrs/alpha", 2, 'did you mean "servers"?'),
            ("servers/alpha/holdstatt", 2, 'did you mean "holdstat"?'),
            ("picture.dmp", 5, "cannot read picture.dmp"),
        ):
            result = self.tool("status", prefix)
            self.assertEqual((result.status, result.out), (status, ""), prefix)
            self.assertIn(message, result.err)

    def test_a_part_is_shown_again_and_again(self):
        self.cluster()
        process = self.start("status", "--watch", "servers/beta", "--only", "nodestat=2")
        lines = [process.stdout.readline().decode().strip() for _ in range(4)]
        self.assertEqual([line.split()[0] for line in lines[2:]], ["server", "beta"])

    def test_the_kernel_objects_are_named_on_request(self):
        self.cluster()
        done = support.subprocess.run(
            support.program("shmnmctl") + ["--verbose", "get", "cluster/clstat"], capture_output=True, env=self.environment, check=True
        )
        prefix = self.environment["KZMUTIL_NAMESPACE"]
        self.assertEqual(
            done.stderr.decode().splitlines()[:2],
            [f"shmnmctl: opens the region {prefix}oru_kzmshmnm_map", f"shmnmctl: opens the mutex {prefix}oru_kzmshmnm_lock"],
        )

    def test_verbose_says_how_the_copy_was_made(self):
        self.cluster()
        for command in reading_commands(self):
            process = self.start("--verbose", *command)
            told = process.communicate()[1].decode().splitlines()[-1]
            what = "all bytes" if command[0] in ("verify", "dump") else "the bytes in use"
            if support.PLATFORM == "windows":
                self.assertRegex(told, f"^shmnmctl: copied {what} with the lock: waited [0-9]+ us for it, held it for [0-9]+ us$")
            else:
                self.assertEqual(told, f"shmnmctl: copied {what} without the lock")


class LookingOnLinux(ToolTest):
    def takes(self):
        """How often the lock was taken, from its page (docs/lock-protocol.md)."""
        (page,) = pathlib.Path(f"/dev/shm/kzmkernel.{os.geteuid()}").glob(f"m.{self.environment['KZMUTIL_NAMESPACE']}*")
        return int.from_bytes(page.read_bytes()[72:80], "little")

    def test_reading_commands_do_not_take_a_free_lock(self):
        api = self.cluster()
        api.ok("shmnm_rwlock", 0)
        api.ok("shmnm_rwunlock")
        self.assertEqual(self.takes(), 1)
        for command in reading_commands(self):
            self.assertEqual(self.tool(*command).status, 0, command)
            self.assertEqual(self.takes(), 1, command)
        # A copy that cannot be kept takes the lock once its owner lets it go.
        api.ok("shmnm_rwlock", 0)
        waiting = self.start("--verbose", "get", "cluster/clstat")
        line = ""
        while "opens the mutex" not in line:
            line = waiting.stderr.readline().decode()
        self.assertEqual(self.tool("--lock-timeout", "1ms", "get", "cluster/clstat").status, 4)
        api.ok("shmnm_rwunlock")
        self.assertEqual(waiting.wait(), 0)


if __name__ == "__main__":
    support.main()
