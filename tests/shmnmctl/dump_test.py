"""Dumps that are whole, cut, changed by calls, and none: which of them the reading commands show."""
import subprocess

import support
from support import ToolTest, path

READING = {
    "status": ["status"],
    "list": ["list"],
    "get": ["get", "cluster/clstat"],
    "query": ["query", "cluster/clstat=7"],
    "describe": ["describe", "fst"],
    "export": ["export"],
}


class Dumps(ToolTest):
    def dump_of(self, *changes):
        """A region with every table full, as a dump after these calls."""
        api = self.cluster()
        api.ok("shmnm_addnode", "delta", 3)
        api.ok("shmnm_addhbrsc", "lan", "lanhb2", 2)
        api.ok("shmnm_setclstat", 7)
        for function, *arguments in changes:
            api.ok(function, *arguments)
        self.assertEqual(self.tool("dump", path(self.folder / "dump")).status, 0)
        api.end()
        return (self.folder / "dump").read_bytes()

    def file(self, content):
        (self.folder / "file").write_bytes(content)
        return path(self.folder / "file")

    def refused_as_cut(self, content, wanted):
        file, size = self.file(content), len(content)
        what = f"{file} was cut or is not a dump: it has {size} bytes, and its header asks for {wanted}"
        self.refused(file, size, what, f'"shmnmctl verify {file}" checks it, "shmnmctl status --force {file}" shows what there is')

    def refused(self, file, size, what, advice):
        """Every reading command refuses it with status 5, and shows it with --force and a warning."""
        for name, command in READING.items():
            with self.subTest(name, size=size):
                result = self.tool(*command, "--file", file)
                self.assertEqual((result.status, result.out), (5, ""))
                self.assertEqual(result.err, f"shmnmctl: {what}; {advice}\n")
                forced = self.tool(*command, "--file", file, "--force")
                self.assertLess(forced.status, 2, forced)
                self.assertIn(f"shmnmctl: warning: {what}\n", forced.err)
        warned = self.tool("status", "--format", "json", "--file", file, "--force")
        self.assertEqual((warned.status, warned.error), (0, {"version": 1, "kind": "warning", "message": what}))

    def test_a_file_that_is_no_dump_is_refused_by_every_reading_command_but_verify(self):
        text = b"root:x:0:0:root:/root:/bin/bash\n" * 60
        file = self.file(text)
        self.refused(file, len(text), f"{file} is not a dump", 'name a file written by "shmnmctl dump"')
        self.assertEqual(self.tool("verify", "--file", self.file(text)).status, 1)

    def test_a_cut_dump_is_refused_wherever_it_was_cut(self):
        whole = self.dump_of()
        self.assertEqual(len(whole), 16052)
        for size in (1084, 4096, 8192, 12288, len(whole) - 1):
            self.refused_as_cut(whole[:size], "16052 bytes")
        self.refused_as_cut(whole + b"\0", "16052 bytes")
        self.assertIn("header/maxima: expected those of a file of 4096 bytes", self.tool("verify", self.file(whole[:4096])).out)

    def test_force_shows_what_a_cut_dump_has(self):
        whole = self.dump_of()
        shown = self.tool("get", "--force", "--file", self.file(whole[:4096]), "servers/delta/pri")
        self.assertEqual((shown.status, shown.out), (0, "3\n"))
        exported = self.tool("export", "--force", "--file", self.file(whole[:4096]))
        self.assertEqual([server["name"] for server in exported.json["servers"]], ["alpha", "beta", "gamma", "delta"])

    def test_a_whole_dump_is_shown_without_a_word(self):
        file = self.file(self.dump_of())
        for name, command in READING.items():
            with self.subTest(name):
                self.assertEqual(self.tool(*command, "--file", file).err, "")

    def test_a_dump_with_changed_maxima_is_shown_with_a_warning(self):
        whole = self.dump_of()
        for maxima in ((9, 9, 9), (4, 1, 1), (4, 3, 3), (2, 3, 2)):
            with self.subTest(maxima):
                self.environment["KZMUTIL_NAMESPACE"] += "x"
                changed = self.dump_of(("shmnm_setmaxvalue_ex", *maxima))
                self.assertEqual(len(changed), len(whole))
                doubt = (f"the maxima in the header were changed: it has servers {maxima[0]}, hb {maxima[1]}, np {maxima[2]}, fst 1, "
                         "and the region was laid out for servers 4, hb 3, np 2, fst 1")
                result = self.tool("get", "servers/delta/pri", "--file", self.file(changed))
                self.assertEqual((result.status, result.out, result.err), (0, "3\n", f"shmnmctl: warning: {doubt}\n"))
                result = self.tool("list", "np", "--format", "json", "--file", self.file(changed))
                self.assertEqual(result.error, {"version": 1, "kind": "warning", "message": doubt})
                self.assertIn("np/ping/pingnp1/pri", result.json["words"])
                # Cut, it is none the less cut.
                self.assertEqual(self.tool("list", "--file", self.file(changed[:-4])).status, 5)

    def test_a_dump_with_a_cleared_header_is_shown_with_a_warning(self):
        cleared = self.dump_of(("shmnm_clear",))
        result = self.tool("get", "cluster/clstat", "--file", self.file(cleared))
        self.assertEqual(
            (result.status, result.out, result.err),
            (0, "0\n", "shmnmctl: warning: the header was cleared, and no process has attached since\n"),
        )

    def test_a_live_region_with_changed_maxima_is_shown_with_a_warning(self):
        api = self.cluster()
        api.ok("shmnm_setmaxvalue_ex", 4, 9, 1)
        result = self.tool("get", "cluster/max_hb")
        self.assertEqual((result.status, result.out), (0, "9\n"))
        self.assertEqual(
            result.err,
            "shmnmctl: warning: the maxima in the header were changed: it has servers 4, hb 9, np 1, fst 1, and the region "
            "was laid out for servers 4, hb 3, np 2, fst 1\n",
        )
        api.ok("shmnm_clear")
        self.assertIn("warning: the header was cleared", self.tool("status").err)

    def test_a_dump_takes_the_place_of_an_older_one(self):
        whole = self.dump_of()
        file = self.folder / "older"
        file.write_bytes(b"an older dump" * 10_000)
        self.cluster()
        self.assertEqual(self.tool("dump", path(file)).status, 0)
        self.assertEqual(len(file.read_bytes()), len(whole))
        self.assertEqual([each.name for each in self.folder.iterdir() if "older" in each.name], ["older"])

    def test_a_dump_that_cannot_be_written_leaves_nothing(self):
        self.cluster()
        missing = self.folder / "missing/dump"
        result = self.tool("dump", path(missing))
        self.assertEqual((result.status, result.err), (5, f"shmnmctl: cannot write {path(missing)}: No such file or directory\n"))
        (self.folder / "folder").mkdir()
        self.assertEqual(self.tool("dump", path(self.folder / "folder")).status, 5)
        self.assertEqual(list((self.folder / "folder").iterdir()), [])


class DumpsOnLinux(Dumps):
    """Under Linux only: a limit of file sizes stands for a full disk."""

    def test_a_dump_for_which_there_is_no_room_leaves_the_older_one(self):
        self.cluster()
        file = self.folder / "older"
        for content in (None, b"an older dump"):
            with self.subTest(content):
                if content:
                    file.write_bytes(content)
                # The signal of the limit is ignored, as Python does, and so reaches the tool as an error.
                done = subprocess.run(["sh", "-c", 'ulimit -f 8; exec "$@"', "sh", *support.program("shmnmctl"), "dump", file], env=self.environment,
                                      restore_signals=False, capture_output=True, text=True)
                self.assertEqual((done.returncode, done.stderr), (5, f"shmnmctl: cannot write {file}: File too large\n"))
                left = [each for each in self.folder.iterdir() if "older" in each.name]
                self.assertEqual([each.read_bytes() for each in left], [content] if content else [])

    def test_a_dump_keeps_the_permissions_of_the_older_one(self):
        file = self.folder / "older"
        file.write_bytes(b"an older dump")
        file.chmod(0o600)
        self.cluster()
        self.assertEqual(self.tool("dump", file).status, 0)
        self.assertEqual((file.stat().st_mode & 0o777, file.stat().st_size > 1084), (0o600, True))

    def test_a_dump_is_written_through_a_link_and_to_a_pipe(self):
        whole = self.dump_of()
        self.cluster()
        (self.folder / "place").mkdir()
        link = self.folder / "link"
        link.symlink_to(self.folder / "place/target")
        (self.folder / "place/target").write_bytes(b"older")
        self.assertEqual(self.tool("dump", link).status, 0)
        self.assertTrue(link.is_symlink())
        self.assertEqual(len((self.folder / "place/target").read_bytes()), len(whole))
        done = subprocess.run([*support.program("shmnmctl"), "dump", "/dev/stdout"], env=self.environment, capture_output=True)
        self.assertEqual((done.returncode, len(done.stdout)), (0, len(whole)))


if __name__ == "__main__":
    support.main()
