"""status as people see it: on a pseudo-terminal of 80 and of 200 columns, once and again and again."""
import os
import pty
import signal
import termios
import unittest

import support
from support import ToolTest
from terminal import Terminal


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

    def test_states_have_their_colours(self):
        api = self.many_servers()
        api.ok("shmnm_setnodestat", "server003", 1)
        terminal = Terminal(self, 80, 60, "status")
        self.assertEqual(terminal.read_to_end(), 0)
        self.assertFalse([line for line in terminal.lines if "[" in line], "no escape sequence is shown as text")

        def color(line, text):
            row = next(i for i, shown in enumerate(terminal.lines) if shown.startswith(line))
            cell = terminal.screen.buffer[row][terminal.lines[row].rindex(text)]
            return cell.fg

        self.assertEqual(color("server003", "yes"), "green")
        self.assertEqual(color("server004", "no"), "red")
        plain = Terminal(self, 80, 60, "status", NO_COLOR="1")
        plain.read_to_end()
        self.assertEqual(plain.lines, terminal.lines)
        self.assertEqual({cell.fg for row in plain.screen.buffer.values() for cell in row.values()} - {"default", "white"}, set())

    def test_a_long_name_is_shortened_visibly(self):
        api = self.region()
        api.ok("shmnm_addnode", "n" * 200, 1)
        terminal = Terminal(self, 80, 40, "status", NO_COLOR="1")
        terminal.read_to_end()
        self.assertIn("n" * 25 + "~", [line.split(" ")[0] for line in terminal.lines])
        self.assertLessEqual(max(len(line) for line in terminal.lines), 80)


class OnAScreen(TerminalTest):
    """status --watch and its keys, with as many servers and resources as there can be."""

    COUNTS = {"server": 128, "hbr": 16, "npr": 16, "fstr": 1}
    WINDOWS_KEYS = {"Home": "\x1b[H", "End": "\x1b[F"}
    KEYS = {
        "Up": "\x1b[A", "Down": "\x1b[B", "Right": "\x1b[C", "Left": "\x1b[D", "PageUp": "\x1b[5~", "PageDown": "\x1b[6~",
        "Home": "\x1b[1~", "End": "\x1b[4~", "Escape": "\x1b", "Enter": "\r", "Backspace": "\x7f",
    }

    def full_cluster(self):
        api = self.region()
        for i in range(128):
            api.ok("shmnm_addnode", f"server{i:03}", i)
        for i in range(16):
            api.ok("shmnm_addhbrsc", "lan", f"lan{i}", i)
            api.ok("shmnm_addnprsc", "ping", f"ping{i}", i)
        return api

    def watch(self, columns, rows, interval="60"):
        # A terminal that has no commands which the emulator does not know.
        terminal = Terminal(self, columns, rows, "status", "--watch", interval, TERM="linux", NO_COLOR="1")
        terminal.wait_for(lambda seen: seen.lines[-1])
        return terminal

    def press(self, terminal, *keys):
        names = self.KEYS | (self.WINDOWS_KEYS if support.PLATFORM == "windows" else {})
        terminal.press("".join(names.get(key, key) for key in keys))

    def expect_end(self, terminal):
        self.press(terminal, "q")
        self.assertEqual(terminal.read_to_end(), 0)

    def test_keys_scroll_the_lines_and_it_says_how_many_there_are(self):
        self.full_cluster()
        terminal = self.watch(80, 24)
        terminal.wait_for(lambda seen: seen.lines[-1].startswith("167 more lines"))
        self.assertTrue(terminal.lines[-1].endswith("? help  q end"))
        self.assertTrue(terminal.lines[1].startswith("cluster "))
        for keys, last_line in (
            (["Down"], "166 more lines"),
            (["Down", "Down", "Up"], "165 more lines"),
            (["PageDown"], "144 more lines"),
            ([" "], "123 more lines"),
            (["PageUp"], "144 more lines"),
            (["End"], "last line"),
            (["Up"], "1 more line "),
            (["Home"], "167 more lines"),
        ):
            with self.subTest(keys):
                self.press(terminal, *keys)
                terminal.wait_for(lambda seen: seen.lines[-1].startswith(last_line))
        self.expect_end(terminal)

    def test_headings_and_names_stay_while_tables_scroll(self):
        self.full_cluster()
        terminal = self.watch(80, 24)
        self.press(terminal, "PageDown", "PageDown")
        terminal.wait_for(lambda seen: seen.lines[1].startswith("server ") and seen.lines[2].startswith("server036 "))
        self.press(terminal, "End")
        terminal.wait_for(lambda seen: any(line.startswith("ping/ping15 ") and line.endswith(">") for line in seen.lines))
        headings = next(line for line in terminal.lines if line.startswith("np "))
        self.assertEqual(headings.split()[:4], ["np", "pri", "stat", "server000"])
        self.press(terminal, *["Right"] * 7)
        terminal.wait_for(lambda seen: any(line.startswith("np ") and "<server007" in line for line in seen.lines))
        # The rows come after their heading, and the screen may have been read in between.
        terminal.wait_for(
            lambda seen: any(line.startswith("ping/ping15 ") and "<" in line and line.endswith(">") for line in seen.lines)
        )
        self.press(terminal, "Left")
        terminal.wait_for(lambda seen: any(line.startswith("np ") and "<server006" in line for line in seen.lines))
        self.press(terminal, *[">"] * 40)
        terminal.wait_for(lambda seen: any(line.startswith("np ") and line.endswith("server127") for line in seen.lines))
        self.press(terminal, *["<"] * 40)
        terminal.wait_for(lambda seen: any(line.startswith("np ") and "server000" in line for line in seen.lines))
        self.expect_end(terminal)

    def test_a_filter_shows_the_rows_or_columns_with_its_text(self):
        self.full_cluster()
        terminal = self.watch(100, 30)
        before = terminal.lines
        self.press(terminal, *"/server09")
        terminal.wait_for(lambda seen: seen.lines[-1] == "/server09_")
        self.press(terminal, "x", "Backspace", "3", "Enter")
        terminal.wait_for(lambda seen: "/server093 " in seen.lines[-1])
        self.assertEqual([line.split()[0] for line in terminal.lines[1:3]], ["server", "server093"])
        self.assertEqual(terminal.lines[4].split(), ["hb", "server093"])
        self.assertEqual(terminal.lines[5].split(), ["lan/lan0", "2"])
        self.press(terminal, "Escape")
        terminal.wait_for(lambda seen: seen.lines[1:] == before[1:])
        self.expect_end(terminal)

    def test_help_is_shown_on_request_and_q_ends(self):
        self.full_cluster()
        terminal = self.watch(80, 24)
        self.press(terminal, "?")
        terminal.wait_for(lambda seen: "q: end" in seen.lines)
        self.press(terminal, "?")
        terminal.wait_for(lambda seen: any(line.startswith("cluster ") for line in seen.lines))
        self.expect_end(terminal)

    def test_the_smallest_and_the_largest_screen_are_filled(self):
        self.full_cluster()
        for columns, rows in ((20, 5), (300, 100)):
            with self.subTest(columns=columns):
                terminal = self.watch(columns, rows)
                terminal.wait_for(lambda seen: "more lines" in seen.lines[-1])
                shown = [line for line in terminal.lines[1:-1] if line]
                self.assertTrue(shown[0].startswith("cluster"))
                below = int(terminal.lines[-1].split(" ")[0])
                # One after the other, each line comes into sight.
                self.press(terminal, *["Down"] * below)
                terminal.wait_for(lambda seen: seen.lines[-1].startswith("last line"))
                self.assertIn("stat 0", terminal.lines[-2])
                self.press(terminal, "Home")
                terminal.wait_for(lambda seen: seen.lines[-1].startswith(f"{below} more lines"))
                self.assertEqual([line for line in terminal.lines[1:-1] if line], shown)
                self.expect_end(terminal)


class WithAndWithoutEscapes(TerminalTest):
    """On consoles of Windows that obey escape sequences and on consoles that do not."""

    def on_console(self, escapes, *arguments):
        return Terminal(self, 80, 60, escapes, *support.native_program("shmnmctl"), *arguments, program="console_mode")

    def test_consoles_of_both_kinds_show_the_same_in_the_same_colours(self):
        self.many_servers().ok("shmnm_setnodestat", "server003", 1)
        screens = []
        for escapes in ("on", "off"):
            terminal = self.on_console(escapes, "status")
            self.assertEqual(terminal.read_to_end(), 0, terminal.lines)
            screens.append([[(cell.data, cell.fg) for _, cell in sorted(row.items())] for _, row in sorted(terminal.screen.buffer.items())])
            self.assertFalse([line for line in terminal.lines if "[" in line], "no escape sequence is shown as text")
            self.assertTrue({"red", "green"} <= {color for row in screens[-1] for _, color in row})
        self.assertEqual(*screens)

    def test_watch_draws_on_consoles_of_both_kinds(self):
        api = self.many_servers()
        for escapes, value in (("on", 77), ("off", 78)):
            with self.subTest(escapes):
                terminal = self.on_console(escapes, "status", "--watch", "0.05")
                terminal.wait_for(lambda seen: any(line.startswith("cluster") for line in seen.lines))
                api.ok("shmnm_setwaitstat", value)
                terminal.wait_for(lambda seen: any(f"waitstat {value}" in line for line in seen.lines))
                self.assertFalse([line for line in terminal.lines if "[" in line])
                terminal.press("q")
                self.assertEqual(terminal.read_to_end(), 0, terminal.lines)


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
        settings = termios.tcgetattr(pty.openpty()[0])
        terminal = Terminal(self, 80, 50, "status", "--watch", "0.05")
        terminal.wait_for(lambda seen: any(line.startswith("cluster") for line in seen.lines))
        self.assertIn(b"\x1b[?1049h", terminal.raw)
        api.ok("shmnm_setwaitstat", 77)
        terminal.wait_for(lambda seen: any("waitstat 77*" in line for line in seen.lines))
        # The mark goes with the next draw.
        terminal.wait_for(lambda seen: any("waitstat 77 " in line for line in seen.lines))
        self.assertEqual(sum(line.startswith("cluster") for line in terminal.lines), 1)
        # Nothing was wiped before it was drawn anew.
        self.assertEqual(terminal.raw.count(b"\x1b[2J"), 1)
        os.kill(terminal.process.pid, signal.SIGINT)
        self.assertEqual(terminal.read_to_end(), 0)
        # The terminal's own screen, its cursor and its keys.
        self.assertRegex(terminal.raw[-60:], rb"\x1b\[\?1049l")
        self.assertRegex(terminal.raw[-60:], rb"\x1b\[\?(12l\x1b\[\?)?25h")
        self.assertEqual(termios.tcgetattr(terminal.controller), settings)

    def test_watch_adapts_to_a_resized_terminal(self):
        self.many_servers()
        terminal = Terminal(self, 200, 50, "status", "--watch", "60")
        terminal.wait_for(lambda seen: any(line.startswith("fst") for line in seen.lines))
        terminal.screen.resize(20, 80)
        terminal.resize(80, 20)
        before = len(terminal.raw)
        os.kill(terminal.process.pid, signal.SIGWINCH)
        terminal.wait_for(lambda seen: len(seen.raw) > before and "more line" in seen.lines[-1])
        self.assertTrue(any(line.startswith("server000") for line in terminal.lines))
        os.kill(terminal.process.pid, signal.SIGTERM)
        self.assertEqual(terminal.read_to_end(), 0)

    def test_watch_draws_a_resized_screen_as_if_it_had_always_had_that_size(self):
        self.many_servers()
        terminal = Terminal(self, 80, 24, "status", "--watch", "60", TERM="linux", NO_COLOR="1")
        terminal.wait_for(lambda seen: "q end" in seen.lines[-1])
        for columns, rows in ((20, 5), (300, 100), (79, 24), (40, 10), (132, 43), (21, 6), (80, 24)):
            with self.subTest(columns=columns, rows=rows):
                fresh = Terminal(self, columns, rows, "status", "--watch", "60", TERM="linux", NO_COLOR="1")
                fresh.wait_for(lambda seen: seen.lines[-1])
                fresh.press("q")
                # What it was when all was drawn, before the terminal was given back.
                self.assertEqual(fresh.read_to_end(), 0)
                terminal.screen.resize(rows, columns)
                terminal.resize(columns, rows)
                # The system tells the processes of the terminal only.
                os.kill(terminal.process.pid, signal.SIGWINCH)
                terminal.wait_for(lambda seen: seen.lines[1:-1] == fresh.lines[1:-1] and seen.lines[-1] == fresh.lines[-1])
        terminal.press("q")
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
