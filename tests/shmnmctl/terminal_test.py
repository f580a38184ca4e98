"""status as people see it: on a pseudo-terminal of 80 and of 200 columns, once and again and again."""
import fcntl
import os
import pty
import select
import signal
import struct
import subprocess
import termios
import time
import unittest

import pyte

import support
from support import ToolTest


class Terminal:
    """The tool on a terminal, and what stands on its screen."""

    def __init__(self, test, columns, rows, *arguments, **variables):
        self.screen = pyte.Screen(columns, rows)
        self.stream = pyte.ByteStream(self.screen)
        self.raw = b""
        self.controller, terminal = pty.openpty()
        self.terminal_name = os.ttyname(terminal)
        self.resize(columns, rows)
        environment = dict(test.environment, TERM="xterm", **variables)
        self.process = subprocess.Popen(
            support.program("shmnmctl") + list(arguments), stdin=terminal, stdout=terminal, stderr=terminal, env=environment, start_new_session=True
        )
        os.close(terminal)

        def finish():
            if self.process.poll() is None:
                self.process.kill()
            self.process.wait()
            os.close(self.controller)

        test.addCleanup(finish)

    def resize(self, columns, rows):
        fcntl.ioctl(self.controller, termios.TIOCSWINSZ, struct.pack("HHHH", rows, columns, 0, 0))

    def read(self):
        """Takes in what the tool has written. False once it has ended and all is read."""
        if not select.select([self.controller], [], [], 10)[0]:
            raise AssertionError("the tool writes nothing")
        try:
            data = os.read(self.controller, 1 << 16)
        except OSError:
            return False
        self.raw += data
        self.stream.feed(data)
        return bool(data)

    def read_to_end(self):
        while self.read():
            pass
        return self.process.wait()

    def wait_for(self, condition):
        """Reads until the screen shows what it should."""
        end = time.monotonic() + 20
        while not condition(self):
            if time.monotonic() > end or not self.read():
                raise AssertionError("the screen never shows it:\n" + "\n".join(self.lines))

    @property
    def lines(self):
        return [line.rstrip() for line in self.screen.display]


class TerminalTest(ToolTest):
    COUNTS = {"server": 16, "hbr": 3, "npr": 2, "fstr": 1}

    def many_servers(self):
        api = self.region()
        for i in range(12):
            api.ok("shmnm_addnode", f"server{i:03}", i)
        api.ok("shmnm_addhbrsc", "lan", "lanhb1", 0)
        api.ok("shmnm_addnprsc", "ping", "pingnp1", 0)
        for i in range(12):
            api.ok("shmnm_sethbrscsvstat", "lan", "lanhb1", i, 100 + i)
        return api


class OnATerminal(TerminalTest):
    def test_every_line_fits_and_every_state_is_shown(self):
        self.many_servers()
        for columns in (80, 200):
            with self.subTest(columns=columns):
                terminal = Terminal(self, columns, 60, "status", NO_COLOR="1")
                self.assertEqual(terminal.read_to_end(), 0)
                # A line that was too long would have been broken by the terminal: there would be more of them.
                # A console of Windows breaks a line when its last column is written to, so that one stays free there.
                width = columns - 1 if support.PLATFORM == "windows" else columns
                piped = self.tool("status", environment=dict(self.environment, COLUMNS=str(width)))
                self.assertEqual("\n".join(terminal.lines).rstrip(), piped.out.rstrip())
                self.assertLessEqual(max(len(line) for line in piped.lines), columns)
                shown = piped.out.split()
                for i in range(12):
                    self.assertIn(str(100 + i), shown)
                    self.assertIn(f"server{i:03}", shown)

    def test_a_wide_terminal_shows_a_matrix_in_one_piece_and_a_narrow_one_in_parts(self):
        self.many_servers()
        rows = {}
        for columns in (80, 200):
            terminal = Terminal(self, columns, 60, "status", NO_COLOR="1")
            terminal.read_to_end()
            rows[columns] = sum(line.startswith("lan/lanhb1") for line in terminal.lines)
        self.assertEqual(rows, {80: 2, 200: 1})

    def test_a_long_name_is_shortened_visibly(self):
        api = self.region()
        api.ok("shmnm_addnode", "n" * 200, 1)
        terminal = Terminal(self, 80, 40, "status", NO_COLOR="1")
        terminal.read_to_end()
        self.assertIn("n" * 25 + "~", [line.split(" ")[0] for line in terminal.lines])
        self.assertLessEqual(max(len(line) for line in terminal.lines), 80)


class ObeyingEscapes(TerminalTest):
    """What needs a terminal that obeys escape sequences. Wine's console shows them as text, so these run on Linux."""

    def test_colours_are_used_only_on_terminals_and_if_wanted(self):
        self.many_servers()
        terminal = Terminal(self, 80, 60, "status")
        terminal.read_to_end()
        self.assertIn(b"\x1b[", terminal.raw)
        terminal = Terminal(self, 80, 60, "status", NO_COLOR="1")
        terminal.read_to_end()
        self.assertNotIn(b"\x1b", terminal.raw)
        self.assertNotIn("\x1b", self.tool("status").out)

    def test_watch_redraws_in_place_marks_changes_and_restores_the_terminal(self):
        api = self.many_servers()
        terminal = Terminal(self, 80, 50, "status", "--watch", "0.05")
        terminal.wait_for(lambda seen: any(line.startswith("cluster") for line in seen.lines))
        self.assertIn(b"\x1b[?1049h", terminal.raw)
        api.ok("shmnm_setwaitstat", 77)
        terminal.wait_for(lambda seen: any("waitstat 77*" in line for line in seen.lines))
        # The mark goes with the next draw.
        terminal.wait_for(lambda seen: any("waitstat 77 " in line for line in seen.lines))
        self.assertEqual(sum(line.startswith("cluster") for line in terminal.lines), 1)
        # Nothing was wiped before it was drawn anew.
        self.assertNotIn(b"\x1b[2J", terminal.raw)
        os.kill(terminal.process.pid, signal.SIGINT)
        self.assertEqual(terminal.read_to_end(), 0)
        self.assertTrue(terminal.raw.endswith(b"\x1b[?25h\x1b[?1049l"))

    def test_watch_adapts_to_a_resized_terminal(self):
        self.many_servers()
        terminal = Terminal(self, 200, 50, "status", "--watch", "60")
        terminal.wait_for(lambda seen: any(line.startswith("fst") for line in seen.lines))
        terminal.screen.resize(20, 80)
        terminal.resize(80, 20)
        before = len(terminal.raw)
        os.kill(terminal.process.pid, signal.SIGWINCH)
        terminal.wait_for(lambda seen: len(seen.raw) > before and any(line.startswith("server000") for line in seen.lines))
        drawn = terminal.raw[before:].decode()
        self.assertLessEqual(drawn.count("\r\n"), 19)
        os.kill(terminal.process.pid, signal.SIGTERM)
        self.assertEqual(terminal.read_to_end(), 0)

    def test_watch_waits_for_a_region_that_has_ended(self):
        api = self.many_servers()
        terminal = Terminal(self, 120, 40, "status", "--watch", "0.05")
        terminal.wait_for(lambda seen: any(line.startswith("cluster") for line in seen.lines))
        api.end()
        terminal.wait_for(lambda seen: any("no process holds the region" in line for line in seen.lines))
        self.region()
        terminal.wait_for(lambda seen: any(line.startswith("cluster") for line in seen.lines))


if __name__ == "__main__":
    support.main()
