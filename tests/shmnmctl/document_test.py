"""export, diff and apply, and list | set -: pictures as documents."""
import json
import subprocess
import threading

import support
from support import ToolTest, path


class Documents(ToolTest):
    def full_cluster(self):
        """A cluster in which every kind of word has a value of its own, and servers share a priority."""
        api = self.cluster()
        api.ok("shmnm_modifynode", "gamma", 0)
        api.ok("shmnm_setnpsimu", 1, (0, 1, 0))
        api.ok("shmnm_setclstat", 7)
        api.ok("shmnm_sethbinfo_ex", 3, 4)
        api.ok("shmnm_sethbrscsvstat", "lan", "lanhb1", 1, 12)
        api.ok("shmnm_setfstrscpid", "agent /%", 1, 4711, 2**64 - 1)
        api.ok("shmnm_setfstrscstat", 9)
        return api

    def exported(self, name="picture.json"):
        result = self.tool("export", "--format", "json")
        self.assertEqual((result.status, result.err), (0, ""))
        file = self.folder / name
        file.write_bytes(result.raw)
        return path(file)

    def apply(self, *arguments, status=0):
        result = self.tool("apply", *arguments)
        self.assertEqual(result.status, status, result)
        return result

    def refused(self, *arguments):
        before = self.dumped()
        result = self.apply(*arguments, status=5)
        self.assertEqual((result.out, self.dumped()), ("", before))
        return result.err

    def test_an_export_is_applied_to_an_empty_region_and_gives_the_same_bytes(self):
        api = self.full_cluster()
        before, file = self.dumped(), self.exported()
        api.end()
        self.region()
        changed = self.apply(file).lines
        self.assertIn("hb/lan/lanhb1/svstat/beta - -> 12", changed)
        self.assertIn("fst/piddata/agent%20%2F%25/1 - -> 18446744073709551615", changed)
        self.assertEqual(self.dumped(), before)
        self.assertEqual(self.apply(file).out, "")

    def test_a_dump_is_exported_compared_and_applied_like_the_live_region(self):
        self.full_cluster()
        dump, file = self.folder / "dump", self.exported()
        dump.write_bytes(self.dumped())
        self.assertEqual(self.tool("export", "--file", path(dump)).raw, (self.folder / "picture.json").read_bytes())
        for sides in ((path(dump), "live"), (file, path(dump)), ("live", file), ("live", "live")):
            with self.subTest(sides):
                result = self.tool("diff", *sides)
                self.assertEqual((result.status, result.out, result.err), (0, "", ""))
        self.tool("set", "cluster/clstat", "8")
        self.assertEqual(self.apply(path(dump)).out, "cluster/clstat 8 -> 7\n")
        self.assertEqual(self.dumped(), dump.read_bytes())

    def test_a_picture_is_compared_and_applied_from_standard_input(self):
        api = self.full_cluster()
        dump, export = self.dumped(), self.tool("export").raw
        for picture in (dump, export):
            api.ok("shmnm_setclstat", 8)
            result = self.tool("diff", "-", "live", input=picture)
            self.assertEqual((result.status, result.lines), (1, ["cluster/clstat 7 -> 8"]))
            result = self.tool("diff", "live", "-", input=picture)
            self.assertEqual((result.status, result.lines), (1, ["cluster/clstat 8 -> 7"]))
            self.assertEqual(self.tool("apply", "-", "--dry-run", input=picture).lines, ["cluster/clstat 8 -> 7"])
            self.assertEqual(self.tool("apply", "-", input=picture).lines, ["cluster/clstat 8 -> 7"])
            self.assertEqual(self.dumped(), dump)
        result = self.tool("apply", "-", input=b"x")
        self.assertEqual(result.status, 5)
        self.assertRegex(result.err, "^shmnmctl: cannot read standard input: ")
        result = self.tool("diff", "-", "-", input=export)
        self.assertEqual((result.status, result.out), (2, ""))
        self.assertIn("A and B cannot both be standard input: write one of them to a file", result.err)

    def test_diff_writes_one_line_per_difference_and_ends_with_1(self):
        self.full_cluster()
        file = self.exported()
        self.tool("set", "cluster/clstat", "8", "servers/alpha/pri", "-3")
        self.tool("remove", "np", "ping", "pingnp1")
        self.tool("describe", "fst", "a text")
        lines = self.tool("diff", file, "live")
        self.assertEqual(lines.status, 1)
        self.assertEqual(lines.lines, [
            "cluster/clstat 7 -> 8", "servers/alpha/pri 0 -> -3",
            "np/ping/pingnp1/pri 0 -> -", "np/ping/pingnp1/stat 0 -> -",
            "np/ping/pingnp1/svstat/alpha 2 -> -", "np/ping/pingnp1/svstat/beta 2 -> -", "np/ping/pingnp1/svstat/gamma 2 -> -",
            'fst/descript "" -> "a%20text"'])
        answer = self.tool("diff", "--format", "json", file, "live")
        self.assertEqual((answer.status, answer.json["kind"]), (1, "diff"))
        self.assertEqual(answer.json["differences"][:3], [
            {"key": "cluster/clstat", "old": 7, "new": 8}, {"key": "servers/alpha/pri", "old": 0, "new": -3}, {"key": "np/ping/pingnp1/pri", "old": 0}])
        self.assertEqual(len(answer.json["differences"]), len(lines.lines))

    def test_a_dry_run_lists_what_apply_changes_and_changes_nothing(self):
        self.full_cluster()
        file = self.exported()
        self.tool("set", "cluster/clstat", "8")
        self.tool("add", "server", "delta", "9")
        changed = self.dumped()
        dry = self.apply("--dry-run", file)
        self.assertEqual(self.dumped(), changed)
        answer = self.apply("--dry-run", "--format", "json", file).json
        self.assertEqual((answer["applied"], len(answer["differences"])), (False, len(dry.lines)))
        self.assertEqual(self.apply(file).out, dry.out)
        self.tool("set", "cluster/clstat", "8")
        answer = self.apply("--format", "json", file).json
        self.assertEqual(answer, {"version": 1, "kind": "apply", "applied": True, "differences": [{"key": "cluster/clstat", "old": 8, "new": 7}]})

    def test_what_no_call_can_do_is_refused_by_name_and_nothing_is_changed(self):
        self.full_cluster()
        file = self.exported()
        whole = json.loads((self.folder / "picture.json").read_text())

        def edited(edit):
            document = json.loads(json.dumps(whole))
            edit(document)
            (self.folder / "edited.json").write_text(json.dumps(document, indent=4))
            return path(self.folder / "edited.json")

        def twice(document):
            document["cluster"]["clstat"] = 1
            document["servers"][2]["name"] = "alpha"

        self.tool("add", "fst", "another", "0", "1")
        self.assertIn("cannot set fst/pids/another: names with process ids cannot be removed", self.refused(file))
        self.assertIn("cannot set servers/alpha: it is there twice", self.refused(edited(twice)))
        self.assertIn("cannot set servers/alpha: it is there twice", self.refused("--dry-run", edited(twice)))
        self.assertIn("edited.json: servers[1].pri is out of range", self.refused(edited(lambda one: one["servers"][1].update(pri=2**40))))
        self.assertIn("the picture has changed maxima", self.refused(edited(lambda one: one["cluster"].update(max_hb=2))))
        self.assertIn("the region has room for servers 4, ", self.refused(edited(lambda one: one["counts"].update(servers=5))))

    def test_a_region_of_other_counts_than_configured_is_refused(self):
        self.full_cluster()
        file = self.exported()
        self.configure(server=4, hbr=3, npr=2, fstr=2)
        self.assertIn("this machine's configuration has servers 4, hb 3, np 2, fst 2; ", self.refused(file))
        self.assertIn("this machine's configuration has servers 4, hb 3, np 2, fst 2", self.refused("--force", file))

    def test_changed_maxima_are_put_right_with_force(self):
        api = self.full_cluster()
        before, file = self.dumped(), self.exported()
        api.ok("shmnm_setmaxvalue_ex", 4, 2, 2)
        self.refused(file)
        self.assertEqual(self.apply("--force", file).out, "cluster/max_hb 2 -> 3\n")
        self.assertEqual(self.dumped(), before)

    def test_nothing_is_changed_if_the_difference_cannot_be_written(self):
        self.full_cluster()
        file = self.exported()
        self.tool("set", "cluster/clstat", "8")
        changed = self.dumped()
        if support.PLATFORM == "linux":
            with open("/dev/full", "wb") as output:
                self.assertEqual(self.tool("apply", file, stdout=output).status, 5)
            self.assertEqual(self.dumped(), changed)

    def test_holders_of_the_lock_see_one_picture_or_the_other(self):
        api = self.cluster()
        api.ok("shmnm_setclstat", 1)
        api.ok("shmnm_setnodestat", "gamma", 1)
        one = self.exported("one.json")
        self.tool("set", "cluster/clstat", "2", "servers/gamma/nodestat", "2", "np/majority/majoritynp1/stat", "2")
        self.tool("remove", "server", "alpha")
        other = self.exported("other.json")
        observer, seen, done = self.api(), [], threading.Event()
        observer.ok("shmnm_attach")

        def look():
            while not done.is_set():
                observer.ok("shmnm_rolock", 60_000)
                seen.append((len(observer.ok("shmnm_enumnode")), observer.ok("shmnm_getclstat")[0], observer.ok("shmnm_getnodestat", "gamma")[0]))
                observer.ok("shmnm_rounlock")

        thread = threading.Thread(target=look)
        thread.start()
        try:
            for file in [one, other] * (10 if support.PLATFORM == "linux" else 2):
                self.apply(file)
        finally:
            done.set()
            thread.join()
        self.assertEqual(set(seen), {(3, "1", "1"), (2, "2", "2")})


class ListedWords(ToolTest):
    def set_again(self, expected=0):
        listed = self.tool("list")
        before = self.dumped()
        result = self.tool("set", "-", input=listed.raw)
        self.assertEqual((result.status, result.err), (0, ""))
        self.assertEqual(self.dumped(), before)

    def test_what_list_writes_set_takes_as_it_stands(self):
        api = self.cluster()
        self.set_again()
        api.ok("shmnm_modifynode", "gamma", 0)
        api.ok("shmnm_sethbrscsvstat", "lan", "lanhb1", 1, 12)
        api.ok("shmnm_setnodestat", "beta", 1)
        api.ok("shmnm_setisolateflag", "beta", 5)  # no combined state
        api.ok("shmnm_setnpsimu", 1, (0, 1, 0))
        for name in "abcd":
            api.ok("shmnm_setfstrscpid", name, 2, 1, 2**64 - 1)
        self.set_again()

    def test_only_what_is_another_value_is_set(self):
        api = self.cluster()
        listed = self.tool("list").out
        api.ok("shmnm_setclstat", 5)
        api.ok("shmnm_setpingstat", "alpha", 6)
        result = self.tool("set", "-", input=listed)
        self.assertEqual((result.status, result.err), (0, ""))
        self.assertEqual(self.tool("list").out, listed)


if __name__ == "__main__":
    support.main()
