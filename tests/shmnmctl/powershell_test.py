"""The PowerShell module, as far as it can be checked without a PowerShell: it uses options that exist, and it is documented."""
import re
import unittest

import support
from support import PROJECT, ToolTest

FOLDER = PROJECT / "tools/shmnmctl/powershell/Shmnm"
MODULE = (FOLDER / "Shmnm.psm1").read_text()
MANIFEST = (FOLDER / "Shmnm.psd1").read_text()
FUNCTIONS = {"Get-ShmnmPicture": "status", "Wait-ShmnmCondition": "wait", "Watch-Shmnm": "watch"}


class Module(ToolTest):
    def test_it_exports_what_its_manifest_names(self):
        for text in (MANIFEST, MODULE):
            self.assertEqual(set(re.findall(r"'(\w+-Shmnm\w*)'", text)), set(FUNCTIONS))
        self.assertIn(f"ModuleVersion     = '{re.search('shmnm VERSION ([0-9.]+)', (PROJECT / 'CMakeLists.txt').read_text())[1]}'", MANIFEST)

    def test_every_option_that_it_uses_exists(self):
        shared = self.tool("--help").out
        for name, command in FUNCTIONS.items():
            body = MODULE[MODULE.index(f"function {name} {{"):]
            body = body[:body.index("\n}\n")]
            self.assertIn(f"@('{command}'", body)
            for option in re.findall(r"'(--[a-z-]+)'", body + "'--from' '--lock-timeout' '--format'"):
                self.assertIn(option, self.tool(command, "--help").out + shared, name)

    def test_every_function_and_parameter_is_documented(self):
        document = (PROJECT / "docs/windows.md").read_text()
        for name in FUNCTIONS:
            self.assertIn(f"`{name}", document)
            help_text = MODULE[:MODULE.index(f"function {name} {{")].rsplit("<#", 1)[1]
            self.assertIn(".SYNOPSIS", help_text)
            self.assertIn(".EXAMPLE", help_text)


if __name__ == "__main__":
    support.main()
