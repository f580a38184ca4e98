"""Completion: what the command offers for each word, and what the TAB key does in real shells on a pseudo-terminal."""
import os
import re
import shlex

import pexpect

import support
from support import PROJECT, ToolTest, path

SCRIPTS = PROJECT / "tools/shmnmctl/completion"


def key_patterns(test):
    """All keys that there can be, as the tool's help has them."""
    return re.findall(r"^  (\S+/\S+) +\S", test.tool("list", "--help").out.split("Keys:")[1], re.M)


class Candidates(ToolTest):
    def offered(self, *words):
        """What is offered for the last of these words."""
        result = self.tool("__complete", *words[:-1], "=" + words[-1])
        self.assertEqual((result.status, result.err), (0, ""))
        return [line.split("\t")[0] for line in result.lines]

    def shell_completes(self, *words):
        """What the shell itself is to complete."""
        (line,) = self.tool("__complete", *words[:-1], "=" + words[-1]).lines
        self.assertTrue(line.startswith("\t"), line)
        return line[1:]

    def commands(self):
        return re.findall(r"^  (\w+) +", self.tool("--help").out.split("Subcommands:")[1], re.M)

    def test_every_command_of_the_help_is_offered(self):
        self.assertEqual(self.offered(""), self.commands())
        self.assertGreater(len(self.commands()), 15)
        self.assertEqual(self.offered("st"), ["status"])
        self.assertEqual(self.offered("--lock-timeout", "5", "st"), ["status"])
        self.assertEqual(self.offered("add", ""), ["server", "hb", "np", "fst"])
        self.assertEqual(self.offered("simulate", "o"), ["on", "off"])
        self.assertEqual(self.offered("__c"), [])

    def test_every_option_of_each_help_is_offered(self):
        groups = {"add": "server", "remove": "hb", "modify": "np", "describe": "fst", "simulate": "on", "service": "install"}
        for name in self.commands():
            command = [name] + ([groups[name]] if name in groups else [])
            with self.subTest(command):
                options = re.findall(r"^  (?:-\w,)?(--[a-z-]+)", self.tool(*command, "--help").out, re.M)
                self.assertIn("--help", options)
                self.assertLessEqual(set(options), set(self.offered(*command, "--")))
        self.assertEqual(self.offered("status", "--w"), ["--watch"])
        self.assertEqual(self.offered("set", "--force", "--lock-t"), ["--lock-timeout"])
        self.assertEqual(self.offered("get", "--format", "j"), ["json"])
        self.assertEqual(self.offered("get", "--format=j"), ["--format=json"])

    def test_each_key_that_the_help_names_is_offered_part_by_part(self):
        region = self.cluster()
        region.ok("shmnm_setfstrscpid", "agent", 0, 1, 2)
        self.bridge().says(("beta", "fresh", {}))
        names = {"servers": ("alpha",), "hb": ("lan", "lanhb1"), "np": ("ping", "pingnp1"), "fst": ("agent",), "bridge": ("beta",)}
        for pattern in key_patterns(self):
            first, *rest = pattern.split("/")
            given = list(names.get(first, ()))
            parts = [first] + [{"SERVER": "alpha", "KIND": "0"}.get(part) or (given.pop(0) if part in ("TYPE", "NAME") else part) for part in rest]
            with self.subTest(pattern):
                for i in range(len(parts)):
                    begun = "/".join(parts[:i] + [""]) if i else ""
                    self.assertIn("/".join(parts[: i + 1]) + ("/" if i + 1 < len(parts) else ""), self.offered("get", begun))

    def test_machines_are_offered_that_the_bridge_knows(self):
        self.cluster()
        self.assertEqual(self.offered("status", "--machine", ""), [])
        self.bridge().says(("beta", "fresh", {}), ("gamma", "silent", {}))
        self.assertEqual(self.offered("status", "--machine", ""), ["alpha", "beta", "gamma"])

    def test_names_of_the_region_are_offered_where_existing_ones_are_wanted(self):
        self.cluster()
        for command in ("remove", "modify"):
            self.assertEqual(self.offered(command, "server", ""), ["alpha", "beta", "gamma"])
        self.assertEqual(self.offered("simulate", "on", "alpha", "b"), ["beta"])
        for command in ("remove", "modify", "describe"):
            self.assertEqual(self.offered(command, "hb", ""), ["lan", "disk"])
            self.assertEqual(self.offered(command, "hb", "lan", ""), ["lanhb1"])
            self.assertEqual(self.offered(command, "np", "majority", ""), ["majoritynp1"])
        self.assertEqual(self.offered("add", "server", ""), [])
        self.assertEqual(self.offered("list", "servers/"), ["servers/alpha/", "servers/beta/", "servers/gamma/"])

    def test_set_offers_keys_that_can_be_set_and_no_key_for_a_value(self):
        self.cluster()
        self.assertEqual(self.offered("set", "cluster/clstat", "1", "cluster/wait"), ["cluster/waitstat"])
        self.assertEqual(self.offered("set", "cluster/clstat", ""), [])
        self.assertNotIn("servers/alpha/combstat", self.offered("set", "servers/alpha/"))
        self.assertIn("servers/alpha/combstat", self.offered("get", "servers/alpha/"))

    def test_words_within_a_condition_are_offered_in_one_argument_and_in_several(self):
        self.cluster()
        for command in ("query", "wait"):
            self.assertEqual(self.offered(command, "all servers/*/ping"), ["all servers/*/pingstat"])
            self.assertEqual(self.offered(command, "all", "servers/*/ping"), ["servers/*/pingstat"])
            self.assertEqual(self.offered(command, "not(cluster/cl"), ["not(cluster/clstat"])
            self.assertEqual(self.offered(command, "cluster/clstat=1 a"), ["cluster/clstat=1 and"])
            self.assertEqual(self.offered(command, "cluster/clstat", "=", "1", "and", "exists", "servers/b"), ["servers/beta/"])
            self.assertEqual(self.offered(command, "cluster/clstat "), ["cluster/clstat " + each for each in ("=", "!=", "<", "<=", ">", ">=")])
            self.assertEqual(self.offered(command, "cluster/clstat="), [])
            self.assertIn("any", self.offered(command, ""))
            self.assertIn("cluster/clstat=1 and not", self.offered(command, "cluster/clstat=1 and "))

    def test_the_words_of_rows_are_offered_for_only(self):
        self.cluster()
        self.assertEqual(self.offered("status", "--only", "hold"), ["holdstat"])
        self.assertEqual(self.offered("status", "--only=hold"), ["--only=holdstat"])
        self.assertEqual(self.offered("status", "servers", "--only", "nodestat!=1 and ping"), ["nodestat!=1 and pingstat"])
        self.assertEqual(self.offered("status", "--only", "any svs"), ["any svstat/"])
        self.assertEqual(self.offered("status", "--only", "svstat/b"), ["svstat/beta"])
        self.assertEqual(self.offered("status", "--only", "pids/"), ["pids/0", "pids/1", "pids/2"])
        self.assertEqual(self.offered("status", "--only", "nodestat "), ["nodestat " + each for each in ("=", "!=", "<", "<=", ">", ">=")])
        self.assertEqual(self.offered("status", "--only", "clst"), [])
        self.assertEqual(self.offered("status", "servers/b"), ["servers/beta/"])

    def test_files_and_commands_are_left_to_the_shell(self):
        for words in (["dump", ""], ["status", "--file", ""], ["verify", "x"], ["get", "--file", ""], ["get", "-f", ""], ["serve", "--config", ""], ["lock", "--", "x", ""]):
            with self.subTest(words):
                self.assertEqual(self.shell_completes(*words), "files")
        self.assertEqual(self.shell_completes("lock", "--", ""), "commands")

    def test_names_come_from_the_dump_that_was_named(self):
        self.cluster().ok("shmnm_addnode", "delta", 3)
        file = path(self.folder / "dump")
        self.assertEqual(self.tool("dump", file).status, 0)
        self.environment["KZMUTIL_NAMESPACE"] += "elsewhere-"
        self.assertEqual(self.offered("get", "--file", file, "servers/d"), ["servers/delta/"])
        self.assertEqual(self.offered("get", "servers/d"), [])

    def test_completion_is_silent_and_quick_without_a_region_and_while_the_lock_is_held(self):
        self.assertEqual(self.offered("remove", "server", ""), [])
        self.assertEqual(self.offered("get", "servers/alpha/ping"), ["servers/alpha/pingstat"])
        api = self.cluster()
        api.ok("shmnm_rwlock", 0)
        self.offered("remove", "server", "")


class InAShell(ToolTest):
    """TAB in a shell on a terminal; what then stands on the line is printed, each argument in brackets."""

    def shell(self, program, arguments, *setup):
        environment = dict(self.environment, PATH=f"{support.FOLDER}:{os.environ['PATH']}", TERM="xterm", HOME=str(self.folder), LC_ALL="C.UTF-8")
        child = pexpect.spawn(program, arguments, env=environment, dimensions=(50, 200), timeout=30, encoding="utf-8", codec_errors="replace")
        self.addCleanup(child.close, force=True)
        for line in (*setup, "echo is-rea''dy"):
            child.sendline(line)
        child.expect("is-ready")
        return child

    def completed(self, child, typed):
        """The arguments after the TAB key."""
        # The beginning of the line, the command that prints it, and the end of the line: the shell reads key by key.
        child.send(typed + "\t")
        child.send("\x01printf '[%s]' begin \x05 end\r")
        child.expect(r"\[begin\]((?:\[[^\]]*\])*)\[end\]")
        return re.findall(r"\[([^\]]*)\]", child.match[1])

    def expect_completion(self, child):
        (self.folder / "a dump").write_bytes(b"")
        child.sendline(f"cd {shlex.quote(str(self.folder))}")
        for typed, arguments in (
            ("shmnmctl stat", ["shmnmctl", "status"]),
            ("shmnmctl add ser", ["shmnmctl", "add", "server"]),
            ("shmnmctl status --wat", ["shmnmctl", "status", "--watch"]),
            ("shmnmctl get --format js", ["shmnmctl", "get", "--format", "json"]),
            ("shmnmctl get --format=js", ["shmnmctl", "get", "--format=json"]),
            ("shmnmctl get clus\tcls", ["shmnmctl", "get", "cluster/clstat"]),
            ("shmnmctl remove server alp", ["shmnmctl", "remove", "server", "alpha"]),
            ("shmnmctl get servers/be\tping", ["shmnmctl", "get", "servers/beta/pingstat"]),
            ("shmnmctl get servers/a:b@c,\tpri", ["shmnmctl", "get", "servers/a:b@c,d/pri"]),
            ("shmnmctl set cluster/clstat 1 hb/d", ["shmnmctl", "set", "cluster/clstat", "1", "hb/disk/"]),
            ("shmnmctl query cluster/clstat=1 and cluster/wai", ["shmnmctl", "query", "cluster/clstat=1", "and", "cluster/waitstat"]),
            ("shmnmctl verify a", ["shmnmctl", "verify", "a dump"]),
            ("shmnmctl lock -- mktem", ["shmnmctl", "lock", "--", "mktemp"]),
        ):
            with self.subTest(typed):
                self.assertEqual(self.completed(child, typed), arguments)
        with self.subTest("a condition in quotes"):
            quoted = self.completed(child, "shmnmctl query 'all servers/*/ping")
            self.assertEqual(quoted, ["shmnmctl", "query", "all servers/*/pingstat"])

    def expect_a_list(self, child):
        child.send("shmnmctl remove server \t\t")
        for name in ("alpha", "beta", "gamma"):
            child.expect(name)
        child.send("\x03")

    def test_bash_completes(self):
        self.cluster().ok("shmnm_addnode", "a:b@c,d", 9)
        child = self.shell("bash", ["--norc", "--noprofile", "-i"], f"source {SCRIPTS / 'shmnmctl.bash'}")
        self.expect_completion(child)
        self.expect_a_list(child)

    def test_zsh_completes_with_no_file_but_its_own(self):
        self.cluster().ok("shmnm_addnode", "a:b@c,d", 9)
        (self.folder / "functions").mkdir()
        (self.folder / "functions/_shmnmctl").write_bytes((SCRIPTS / "_shmnmctl").read_bytes())
        child = self.shell("zsh", ["-f", "-i"], f"fpath=({self.folder}/functions $fpath); autoload -Uz compinit; compinit -u -D; bindkey -e; setopt no_beep no_prompt_cr")
        self.expect_completion(child)
        self.expect_a_list(child)

    def test_fish_completes(self):
        self.cluster().ok("shmnm_addnode", "a:b@c,d", 9)
        child = self.shell("fish", ["--no-config", "--private", "-i"], f"set -g fish_complete_path {SCRIPTS} $fish_complete_path")
        self.expect_completion(child)
        self.expect_a_list(child)


if __name__ == "__main__":
    support.main()
