"""The manual page, which follows the command itself."""
import pathlib
import re
import subprocess

import support
from support import ToolTest


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

    def test_the_manual_page_describes_every_key_of_the_picture(self):
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
            record = re.match(r"(bridge/servers/NAME|bridge|cluster|servers/NAME|(?:hb|np)/TYPE/NAME|fst)/", first)[0]
            keys += [first] + [other if other.startswith(record) else record + other for other in others]
        self.assertEqual(keys, [key for key, _ in key_patterns(self)])

    def test_the_page_is_well_formed(self):
        lint = subprocess.run(["mandoc", "-T", "lint", self.page()], capture_output=True, text=True)
        self.assertEqual((lint.stdout, lint.returncode), ("", 0))


if __name__ == "__main__":
    support.main()
