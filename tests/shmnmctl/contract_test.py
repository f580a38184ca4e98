"""The exit status of every subcommand under every condition, and what it says then: one line, also as JSON."""
import contextlib
import os
import pathlib
import subprocess
import unittest

import support
from support import ToolTest, path

READING = {
    "status": ["status"],
    "list": ["list"],
    "get": ["get", "cluster/clstat"],
    "query": ["query", "cluster/clstat=0"],
    "verify": ["verify"],
    "describe hb": ["describe", "hb", "lan", "lanhb1"],
    "describe np": ["describe", "np", "ping", "pingnp1"],
    "describe fst": ["describe", "fst"],
    "export": ["export"],
}
LIVE = {
    "dump": ["dump", "-"],
    "wait": ["wait", "cluster/clstat=0", "--timeout", "1"],
}
CHANGING = {
    "set": ["set", "cluster/clstat", "1"],
    "add server": ["add", "server", "delta", "3"],
    "add hb": ["add", "hb", "lan", "lanhb2", "3"],
    "add fst": ["add", "fst", "agent", "0", "1"],
    "modify server": ["modify", "server", "alpha", "5"],
    "modify hb": ["modify", "hb", "lan", "lanhb1", "5"],
    "modify np": ["modify", "np", "ping", "pingnp1", "5"],
    "describe": ["describe", "fst", "text"],
    "simulate on": ["simulate", "on", "alpha"],
    "simulate off": ["simulate", "off"],
    "remove server": ["remove", "server", "gamma"],
    "remove hb": ["remove", "hb", "disk", "diskhb1"],
    "remove np": ["remove", "np", "majority", "majoritynp1"],
    "clear": ["clear", "--yes"],
}
# What ends only when it is told to, or does without a region.
WATCHING = {"watch": ["watch", "--from-start"]}
NOTHING_FOUND = {
    "list": ["list", "servers/nobody"],
    "get": ["get", "servers/nobody/pri"],
    "query": ["query", "cluster/clstat=1"],
    "set": ["set", "servers/nobody/pri", "1"],
    "remove server": ["remove", "server", "nobody"],
    "remove hb": ["remove", "hb", "lan", "nobody"],
    "remove np": ["remove", "np", "lan", "nobody"],
    "modify server": ["modify", "server", "nobody", "1"],
    "modify hb": ["modify", "hb", "lan", "nobody", "1"],
    "modify np": ["modify", "np", "lan", "nobody", "1"],
    "describe hb": ["describe", "hb", "lan", "nobody"],
    "simulate on": ["simulate", "on", "nobody"],
}
WRONG = {
    "nothing": [],
    "no such command": ["bogus"],
    "status": ["status", "--bogus"],
    "status, two files": ["status", "a", "b"],
    "status --watch": ["status", "--watch", "soon"],
    "list": ["list", "a", "b"],
    "get": ["get"],
    "set": ["set"],
    "set, half a pair": ["set", "cluster/clstat"],
    "set, no number": ["set", "cluster/clstat", "much"],
    "add": ["add"],
    "add server": ["add", "server", "delta"],
    "add server, no number": ["add", "server", "delta", "first"],
    "modify hb": ["modify", "hb", "lan"],
    "describe": ["describe", "hb", "lan"],
    "simulate": ["simulate"],
    "clear": ["clear"],
    "diff": ["diff", "live"],
    "apply": ["apply"],
    "export, a name": ["export", "picture.json"],
    "holders": ["holders", "all"],
    "query": ["query"],
    "query, no condition": ["query", "cluster/clstat="],
    "wait": ["wait", "cluster/clstat=0", "--timeout", "soon"],
    "watch": ["watch", "--interval", "often"],
    "dump": ["dump"],
    "lock": ["lock"],
    "format": ["status", "--format", "xml"],
    "lock time": ["--lock-timeout", "soon", "status"],
}


GROUPS = ("add", "remove", "modify", "describe", "simulate")


def in_json(command):
    """The same command asking for JSON."""
    words = 2 if command and command[0] in GROUPS else 1
    return command[:words] + ["--format", "json"] + command[words:]


class Contract(ToolTest):
    def with_documents(self):
        """The commands that take an exported picture. Makes one, from a region that has ended after that."""
        api = self.cluster()
        (self.folder / "picture.json").write_bytes(self.tool("export").raw)
        api.end()
        file = path(self.folder / "picture.json")
        return {"diff": ["diff", file, "live"], "apply --dry-run": ["apply", "--dry-run", file], "apply": ["apply", file]}

    def holders(self):
        """What only Linux tells."""
        return {} if support.PLATFORM == "windows" else {"holders": ["holders"]}

    def expect(self, status, cases):
        """Every case twice: with an error of one line of text, and of one document of JSON."""
        for name, command in cases.items():
            for form in ("text", "json"):
                with self.subTest(name, form=form):
                    self.expect_one(status, command if form == "text" else in_json(command))

    def expect_one(self, status, command):
        result = self.tool(*command)
        self.assertEqual(result.status, status, result)
        if status == 0:
            self.assertEqual(result.err, "")
        elif "json" in command:
            # That a condition does not hold, and what verify finds, is an answer and no error.
            self.assertEqual((result.error if result.err else result.json | {"status": status})["status"], status)
        elif result.err or status != 1:
            self.assertRegex(result.err, r"\Ashmnmctl: [ -~]+\n\Z")

    def test_status_0_on_success(self):
        documents = self.with_documents()
        self.cluster()
        self.expect(0, READING | documents | self.holders() | {"wait": LIVE["wait"]})
        self.assertEqual(self.tool(*LIVE["dump"]).status, 0)
        for name, command in CHANGING.items():
            self.assertEqual(self.tool(*command).status, 0, name)
        self.assertEqual(self.tool("lock", "--", *support.native_program("shmnmctl"), "--version").status, 0)

    def test_status_0_for_help_and_version(self):
        for command in (["--help"], ["--version"], ["status", "--help"], ["add", "server", "--help"]):
            result = self.tool(*command)
            self.assertEqual((result.status, result.err), (0, ""))
            self.assertNotEqual(result.out, "")

    def test_status_1_when_nothing_is_found(self):
        documents = self.with_documents()
        self.cluster().ok("shmnm_setclstat", 1)
        self.expect(1, {"diff": documents["diff"]})
        self.tool("set", "cluster/clstat", "0")
        self.expect(1, NOTHING_FOUND)

    def test_status_2_for_wrong_usage_before_anything_is_read(self):
        self.expect(2, WRONG)

    def test_status_3_without_a_region(self):
        self.expect(3, READING | LIVE | CHANGING | WATCHING | self.with_documents() | {"holders": ["holders"]})

    def test_status_4_while_the_lock_is_held(self):
        documents = self.with_documents()
        api = self.cluster()
        api.ok("shmnm_rwlock", 0)
        cases = {name: ["--lock-timeout", "30"] + command for name, command in (READING | CHANGING | documents | {"dump": LIVE["dump"]}).items()}
        for name, command in cases.items():
            with self.subTest(name):
                result = self.tool(*command)
                self.assertEqual(result.status, 4, result)
                self.assertIn("timed out after 30 ms waiting for the lock; ", result.err)
        self.assertEqual(self.tool("lock", "--timeout", "30", "--", *support.native_program("shmnmctl"), "--version").status, 4)
        self.assertEqual(self.tool("wait", "cluster/clstat=1", "--timeout", "100ms").status, 4)

    def test_status_watch_reports_each_problem_with_its_own_status(self):
        api = self.cluster()
        api.ok("shmnm_rwlock", 0)
        watch = self.start("--lock-timeout", "30", "status", "--watch", "0.05", "--format", "json")

        def next_document():
            return support.validated(watch.stdout.readline().decode())[0]

        def next_error():
            while (document := next_document())["kind"] != "error":
                pass
            return document["status"], document["message"]

        status, message = next_error()
        self.assertEqual(status, 4)
        self.assertRegex(message, "^timed out after 30 ms waiting for the lock; .*retry with a longer --lock-timeout, or deal with its holder$")
        api.ok("shmnm_rwunlock")
        while next_document()["kind"] == "error":
            pass
        api.end()
        status, message = next_error()
        self.assertEqual(status, 3)
        self.assertRegex(message, '^no process holds the region .*; start the cluster, or run "shmnmctl serve"$')

    def test_status_4_when_a_wait_times_out(self):
        self.cluster()
        self.expect(4, {"wait": ["wait", "cluster/clstat=1", "--timeout", "50ms"]})

    def test_status_5_when_the_region_belongs_to_another_user(self):
        documents = self.with_documents()
        with self.foreign_objects():
            self.expect(5, READING | LIVE | CHANGING | WATCHING | documents | {"holders": ["holders"]})
            self.assertEqual(self.tool("lock", "--", *support.native_program("shmnmctl"), "--version").status, 5)

    def test_status_5_when_others_can_write_to_the_region(self):
        with self.objects_open_to_everyone():
            self.expect(5, {"status": READING["status"], "set": CHANGING["set"]} | LIVE | WATCHING)
            self.assertEqual(self.tool("lock", "--", *support.native_program("shmnmctl"), "--version").status, 5)

    def foreign_objects(self):
        return self.unusable_objects("D:", lambda file: os.chown(file, 65534, 65534),
                                     lambda file: os.chown(file, os.geteuid(), os.getegid()))

    def objects_open_to_everyone(self):
        return self.unusable_objects("D:(A;;GA;;;WD)", lambda file: file.chmod(0o666), lambda file: file.chmod(0o600))

    @contextlib.contextmanager
    def unusable_objects(self, access_list, spoil, mend):
        """On Windows objects with that access list; on Linux those of a cluster, their files spoilt."""
        if support.PLATFORM == "windows":
            holder = subprocess.Popen(support.program("planted_objects") + [access_list], stdin=subprocess.PIPE, stdout=subprocess.PIPE,
                                      env=self.environment)
            self.assertEqual(holder.stdout.readline().strip(), b"ready")
            yield
            holder.communicate()
            return
        self.cluster()
        files = list(pathlib.Path("/dev/shm").glob(f"*/*{self.environment['KZMUTIL_NAMESPACE']}*"))
        self.assertGreaterEqual(len(files), 2)
        for file in files:
            spoil(file)
        yield
        for file in files:
            mend(file)

    def test_status_5_for_a_file_that_is_not_a_dump(self):
        (self.folder / "cut").write_bytes(b"\0" * 1083)
        (self.folder / "empty").write_bytes(b"")
        for file in ("cut", "empty", "missing", "etc"):
            name = path(self.folder / file)
            self.expect(5, {"diff": ["diff", name, name], "apply": ["apply", name]})
            cases = {command: READING[command] + (["--file", name] if command not in ("status", "verify") else [name]) for command in READING}
            self.expect(5, cases)

    def test_status_5_for_holders_on_windows(self):
        self.cluster()
        if support.PLATFORM == "windows":
            self.expect(5, {"holders": ["holders"]})
            self.assertEqual(self.tool("holders").err, "shmnmctl: this system does not tell which processes hold the region\n")
        else:
            self.expect(0, {"holders": ["holders"]})

    @staticmethod
    def writing():
        """Commands that write to standard output. A condition and a healthy region are answered without a word of text."""
        quiet = {name: in_json(READING[name]) for name in ("query", "verify")}
        return READING | quiet | WATCHING | {"dump": LIVE["dump"]}

    def test_status_5_when_the_reader_of_its_output_is_gone(self):
        self.cluster()
        for name, command in self.writing().items():
            with self.subTest(name):
                read, write = os.pipe()
                os.close(read)
                with os.fdopen(write, "wb") as output:
                    result = self.tool(*command, stdout=output)
                self.assertEqual(result.status, 5, result)
                self.assertIn("cannot write to standard output: its reader has closed it", result.err)

    def test_status_5_when_the_disk_is_full(self):
        self.cluster()
        for name, command in self.writing().items():
            with self.subTest(name), open("/dev/full", "wb") as output:
                result = self.tool(*command, stdout=output)
                self.assertEqual(result.status, 5, result)
                self.assertIn("cannot write to standard output", result.err)
        self.assertEqual(self.tool("dump", path("/dev/full")).status, 5)
        self.assertEqual(self.tool("dump", path(self.folder / "no such folder/dump")).status, 5)

    def test_status_5_when_the_library_refuses(self):
        self.cluster()
        refused = {
            "add server": ["add", "server", "alpha", "0"],
            "set": ["set", "cluster/alive", "1"],
            "describe": ["describe", "np", "majority", "majoritynp1", "text"],
        }
        self.expect(5, refused)


if __name__ == "__main__":
    support.main()
