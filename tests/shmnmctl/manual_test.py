"""The manual page and the completion, both of which follow the command itself."""
import pathlib
import re
import subprocess

import support
from support import ToolTest

COMPLETION = support.PROJECT / "tools/shmnmctl/completion"


def key_patterns(test):
    """All keys that there can be, as the tool's help has them, with what each means."""
    return re.findall(r"^  (\S+/\S+) +(\S.*)$", test.tool("list", "--help").out.split("Keys:")[1], re.M)


class Manual(ToolTest):
    def page(self):
        file = self.folder / "shmnmctl.1"
        subprocess.run(
            ["/usr/bin/python3", "-B", support.PROJECT / "tools/shmnmctl/make_manual.py", *support.program("shmnmctl"), file], check=True
        )
        return file

    def test_the_page_describes_every_command_and_option(self):
        text = self.page().read_text().replace("\\-", "-")
        names = re.findall(r"^  (\w+) +", self.tool("--help").out.split("Subcommands:")[1], re.M)
        self.assertGreater(len(names), 15)
        for name in names:
            with self.subTest(name):
                self.assertRegex(text, rf"(?m)^\.SS {name}\b")
                for option in re.findall(r"^  (?:-\w,)?(--[a-z-]+)", self.tool(name, "--help").out, re.M):
                    self.assertIn(option, text + "--help")

    def test_the_page_describes_every_key(self):
        text = self.page().read_text().replace("\\-", "-").replace("\n", " ")
        patterns = key_patterns(self)
        self.assertGreater(len(patterns), 25)
        for key, meaning in patterns:
            with self.subTest(key):
                self.assertIn(f".B {key} {meaning}", text)

    def test_the_document_names_the_same_keys(self):
        document = (support.PROJECT / "docs/shmnmctl.md").read_text()
        keys = []
        for line in re.search(r"## Keys\n\n```\n(.*?)```", document, re.S)[1].splitlines():
            first, *others = line.split()
            record = re.match(r"(cluster|servers/NAME|(?:hb|np)/TYPE/NAME|fst)/", first)[0]
            keys += [first] + [other if other.startswith(record) else record + other for other in others]
        self.assertEqual(keys, [key for key, _ in key_patterns(self)])

    def test_the_page_is_well_formed(self):
        lint = subprocess.run(["mandoc", "-T", "lint", self.page()], capture_output=True, text=True)
        self.assertEqual((lint.stdout, lint.returncode), ("", 0))


class Completion(ToolTest):
    def complete(self, *words):
        """What bash offers for the last of these words."""
        script = (
            f"source {COMPLETION / 'shmnmctl.bash'}; COMP_WORDS=(\"$@\"); COMP_CWORD=$(($# - 1)); _shmnmctl; "
            'printf "%s\\n" "${COMPREPLY[@]}"'
        )
        environment = dict(self.environment, PATH=f"{support.FOLDER}:{self.environment['PATH']}")
        done = subprocess.run(
            ["bash", "-c", script, "bash", "shmnmctl", *words], env=environment, capture_output=True, text=True, check=True
        )
        return done.stdout.split()

    def test_commands_and_their_options_are_completed(self):
        self.assertEqual(self.complete("st"), ["status"])
        self.assertEqual(sorted(self.complete("")), sorted(re.findall(r"^  (\w+) +", self.tool("--help").out.split("Subcommands:")[1], re.M)))
        self.assertEqual(self.complete("add", "s"), ["server"])
        self.assertIn("--watch", self.complete("status", "--w"))
        self.assertIn("--force", self.complete("add", "server", "--"))
        self.assertEqual(self.complete("status", "--format", "j"), ["json"])

    def test_existing_servers_resources_and_keys_are_completed(self):
        self.cluster()
        self.assertEqual(self.complete("remove", "server", ""), ["alpha", "beta", "gamma"])
        self.assertEqual(self.complete("simulate", "on", "alpha", "b"), ["beta"])
        self.assertEqual(self.complete("describe", "hb", ""), ["disk", "lan"])
        self.assertEqual(self.complete("describe", "hb", "lan", ""), ["lanhb1"])
        self.assertEqual(self.complete("get", "servers/alpha/ping"), ["servers/alpha/pingstat"])
        self.assertEqual(self.complete("set", "cluster/clstat", "1", "cluster/wait"), ["cluster/waitstat"])

    def test_each_key_that_the_help_names_is_completed(self):
        region = self.cluster()
        region.ok("shmnm_setfstrscpid", "agent", 0, 1, 2)
        names = {"servers": ("alpha",), "hb": ("lan", "lanhb1"), "np": ("ping", "pingnp1"), "fst": ("agent",)}
        for pattern, _ in key_patterns(self):
            first, *rest = pattern.split("/")
            given = list(names.get(first, ()))
            parts = [first] + [{"SERVER": "alpha", "KIND": "0"}.get(part) or (given.pop(0) if part in ("TYPE", "NAME") else part) for part in rest]
            key = "/".join(parts)
            with self.subTest(key):
                self.assertIn(key, self.complete("get", key[:-1]))

    def test_completion_is_silent_without_a_region(self):
        self.assertEqual(self.complete("remove", "server", ""), [])

    def test_the_completion_for_zsh_uses_the_one_for_bash(self):
        self.assertIn("_shmnmctl", (COMPLETION / "_shmnmctl").read_text())


if __name__ == "__main__":
    support.main()
