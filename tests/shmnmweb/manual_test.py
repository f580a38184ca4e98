"""The manual page of shmnmweb, which follows the command itself."""
import re
import subprocess

import web_support
from web_support import WebTest, support

PAGE = support.PROJECT / "docs/man/man8/shmnmweb.8"


def text():
    return PAGE.read_text().replace("\\-", "-")


class Manual(WebTest):
    def options(self):
        said = subprocess.run(support.program("shmnmweb") + ["--help"], capture_output=True, text=True, env=self.environment, check=True)
        return set(re.findall(r"^  (?:-\w,)?(--[a-z-]+)", said.stdout, re.M))

    def test_the_page_describes_exactly_the_options_of_the_command(self):
        described = {"-" + option for line in re.findall(r"^\.It (Fl .*)$", text(), re.M) for option in re.findall(r"Fl (-[a-z-]+)", line)}
        self.assertEqual(described, self.options())
        self.assertGreater(len(described), 10)

    def test_the_page_and_the_document_describe_every_path(self):
        self.cluster()
        message = self.serve().get("/nothing").json["message"]
        paths = re.findall(r"/[\w./]*(?:\?condition=)?", message.partition(";")[2])
        self.assertGreater(len(paths), 8)
        document = (support.PROJECT / "docs/monitoring.md").read_text()
        for path in paths:
            with self.subTest(path):
                self.assertRegex(text(), rf"(?m)^\.It Pa {re.escape(path)}")
                self.assertRegex(document, rf"(?m)^\| `{re.escape(path)}")

    def test_the_page_is_well_formed(self):
        lint = subprocess.run(["mandoc", "-T", "lint", "-W", "warning", PAGE], capture_output=True, text=True)
        self.assertEqual((lint.stdout, lint.returncode), ("", 0))


if __name__ == "__main__":
    web_support.main()
