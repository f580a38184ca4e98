"""The command line itself: misspelt words, times, where options stand, and what a wrong one is answered with."""
import support
from support import ToolTest, path


class UsageTest(ToolTest):
    def wrong(self, message, *command):
        """A command that is wrong usage, with what it says as text and as JSON."""
        result = self.tool(*command)
        self.assertEqual((result.status, result.out, result.err), (2, "", f"shmnmctl: {message}\n"))
        result = self.tool("--format", "json", *command)
        self.assertEqual((result.status, result.out, result.error["status"], result.error["message"]), (2, "", 2, message))


class Misspelt(UsageTest):
    """There is no region: a misspelt word is noticed before anything is read."""

    def test_a_misspelt_word_in_a_key_is_wrong_usage_with_a_suggestion(self):
        for command in (["get"], ["list"], ["query", "--file", "x", "exists"], ["wait", "not", "exists"], ["watch"]):
            with self.subTest(command[0]):
                self.wrong('no such word "servrs"; did you mean "servers"?', *command, "servrs/alpha/pri")
                self.wrong('no such word "holdstatt"; did you mean "holdstat"?', *command, "servers/alpha/holdstatt")
        self.wrong('no such word "holdstatt"; did you mean "holdstat"?', "set", "cluster/clstat", "1", "servers/alpha/holdstatt", "1")
        result = self.tool("set", "-", input="# two\ncluster/clstat 1\nservers/alpha/holdstatt 1\n")
        self.assertEqual((result.status, result.err), (2, 'shmnmctl: line 3: no such word "holdstatt"; did you mean "holdstat"?\n'))

    def test_a_misspelt_command_is_wrong_usage_with_a_suggestion(self):
        self.wrong('unknown command "stauts"; did you mean "status"? "shmnmctl --help" lists the commands', "stauts")
        self.wrong('unknown command "bogus"; "shmnmctl --help" lists the commands', "bogus")
        self.wrong('unknown command "add servr"; did you mean "add server"? usage: shmnmctl add server|hb|np|fst ...', "add", "servr", "alpha", "1")

    def test_a_misspelt_option_is_wrong_usage_with_the_options_of_the_command(self):
        usage = "usage: shmnmctl set [--format text|json] [--force] KEY VALUE ..."
        self.wrong(f'unknown option "--forse"; did you mean "--force"? {usage}', "set", "--forse", "cluster/clstat", "1")
        self.wrong(f'unknown option "--bogus"; {usage}', "set", "cluster/clstat", "1", "--bogus=5")
        # One that every command takes.
        self.wrong(f'unknown option "--lock-timout"; did you mean "--lock-timeout"? {usage}', "set", "cluster/clstat", "1", "--lock-timout=5")

    def test_a_name_that_is_not_there_is_a_plain_no(self):
        self.cluster()
        for command in (["get"], ["list"], ["query", "exists"]):
            with self.subTest(command[0]):
                self.assertEqual(self.tool(*command, "servers/nobody/pri").status, 1)
        self.assertEqual(self.tool("set", "servers/nobody/pri", "1").status, 1)
        self.assertEqual(self.tool("wait", "servers/nobody/pri=1", "--timeout", "1ms").status, 4)

    def test_keys_are_shown_as_they_were_typed(self):
        self.cluster()
        self.assertEqual(self.tool("get", "servers/a%20b/pri").err, 'shmnmctl: there is no key servers/a%20b/pri; "shmnmctl list" shows all keys\n')
        self.assertEqual(self.tool("list", "servers/a%20b").err, 'shmnmctl: no key lies below servers/a%20b; "shmnmctl list" shows all keys\n')
        self.assertIn("nothing was set: there is no key servers/a%20b/pri; ", self.tool("set", "servers/a%20b/pri", "1").err)
        self.assertIn(": servers/a%20b/pri=1 (no such key)", self.tool("wait", "servers/a%20b/pri=1", "--timeout", "1ms").err)
        self.wrong('invalid value "%20" for servers/a%20b/pri: use a whole number from -2147483648 to 2147483647', "set", "servers/a%20b/pri", "%20")


class Times(UsageTest):
    def test_every_option_takes_a_time_with_its_unit(self):
        self.cluster()
        for time in ("10ms", "0.01s", "0.01", "0.001m", "0.00001h"):
            with self.subTest(time):
                self.assertEqual(self.tool("wait", "cluster/clstat=0", "--interval", time, "--timeout", time).status, 0)
        for time in ("0", "10", "10s", "500ms", "2m", "1h"):
            with self.subTest(time):
                self.assertEqual(self.tool("--lock-timeout", time, "get", "cluster/clstat").status, 0)
                self.assertEqual(self.tool("wait", "cluster/clstat=0", "--timeout", time).status, 0)

    def test_a_plain_number_is_milliseconds_for_the_lock_and_seconds_elsewhere(self):
        api = self.cluster()
        api.ok("shmnm_rwlock", 0)
        for time, milliseconds in (("30", 30), ("30ms", 30), ("0.03s", 30), ("0.0005m", 30)):
            with self.subTest(time):
                self.assertIn(f"timed out after {milliseconds} ms waiting", self.tool("get", "cluster/clstat", "--lock-timeout", time).err)
                self.assertIn(f"timed out after {milliseconds} ms waiting", self.tool("lock", "--timeout", time, "--", "x").err)
        api.ok("shmnm_rwunlock")
        shown = self.start("status", "--watch", "2").stdout.readline().decode()
        self.assertTrue(shown.endswith("  every 2s\n"), shown)

    def test_what_is_no_time_is_refused_with_the_form_and_the_range(self):
        for time in ("soon", "10 s", "1d", "-1s", "nan"):
            with self.subTest(time):
                self.wrong(f'invalid time "{time}" for --timeout: use 500ms, 10s, 2m, 1h or seconds', "wait", "cluster/clstat=0", f"--timeout={time}")
                self.wrong(f'invalid time "{time}" for --lock-timeout: use 500ms, 10s, 2m, 1h or milliseconds', "get", f"--lock-timeout={time}", "cluster/clstat")
        for command in (["watch"], ["wait", "cluster/clstat=0"]):
            for time in ("0", "2h"):
                self.wrong(f'invalid time "{time}" for --interval: use 1ms to 1h', *command, "--interval", time)
        self.wrong('invalid time "1ms" for --watch: use 10ms to 24h', "status", "--watch", "1ms")
        self.wrong('invalid time "1194h" for --lock-timeout: use 0 to 1193h', "status", "--lock-timeout", "1194h")


class Options(UsageTest):
    def test_the_format_stands_before_or_after_the_command(self):
        self.cluster()
        expected = {"version": 1, "kind": "get", "key": "cluster/clstat", "value": 0}
        for command in (["--format", "json", "get", "cluster/clstat"], ["get", "--format", "json", "cluster/clstat"],
                        ["get", "cluster/clstat", "--format=json"], ["--format", "text", "get", "cluster/clstat", "--format", "json"]):
            with self.subTest(command):
                self.assertEqual(self.tool(*command).json, expected)
        self.assertEqual(self.tool("describe", "--format", "json", "hb", "lan", "lanhb1").json["kind"], "describe")
        self.wrong('invalid format "xml": use text or json; usage: shmnmctl lock [--format text|json] [--timeout TIME] [--who] [COMMAND ...]',
                   "lock", "--format", "xml", "--who")

    def test_status_and_verify_take_a_dump_as_an_option_and_alone(self):
        self.cluster()
        file = path(self.folder / "picture.dump")
        self.assertEqual(self.tool("dump", file).status, 0)
        self.environment["KZMUTIL_NAMESPACE"] += "elsewhere-"
        for command in ("status", "verify"):
            outputs = {self.tool(command, *form).out for form in ([file], ["--file", file], ["-f", file])}
            self.assertEqual(len(outputs), 1, outputs)
            self.assertEqual(self.tool(command, "--file", file).status, 0)
            twice = self.tool(command, "--file", file, file)
            self.assertEqual(twice.status, 2)
            self.assertRegex(twice.err, "use either FILE or --file; |: name one dump$")

    def test_each_error_of_usage_shows_the_command_at_hand(self):
        for command, message in (
            (["get"], 'KEY is missing: "shmnmctl list" shows all keys; usage: shmnmctl get [--format text|json] [--file FILE]'),
            (["add", "server", "x"], "PRI is missing: the priority, a whole number; usage: shmnmctl add server [--format text|json] [--force] NAME PRI"),
            (["dump", "a", "b"], 'unexpected argument "b"; usage: shmnmctl dump [--format text|json]'),
            (["get", "--file"], "--file needs a value; usage: shmnmctl get "),
            (["get", "x", "-f", "a", "-f", "b"], "--file is given more than once; usage: shmnmctl get "),
            (["repair", "--force", "--discard"], "use either --force or --discard; usage: shmnmctl repair "),
            (["add"], 'a command is missing after "shmnmctl add"; usage: shmnmctl add server|hb|np|fst ...'),
            ([], 'a command is missing after "shmnmctl"; "shmnmctl --help" lists the commands'),
            (["lock"], 'COMMAND is missing: "shmnmctl lock -- COMMAND" runs COMMAND'),
            (["lock", "--who", "--", "x"], 'use either "lock --who" or "lock -- COMMAND"'),
        ):
            with self.subTest(command):
                result = self.tool(*command)
                self.assertEqual((result.status, result.out), (2, ""))
                self.assertIn(f"shmnmctl: {message}", result.err)


class Help(UsageTest):
    def test_help_and_version_that_cannot_be_written_end_with_status_5(self):
        for command in (["--help"], ["status", "--help"], ["add", "server", "--help"], ["--version"]):
            with self.subTest(command), open("/dev/full", "wb") as output:
                result = self.tool(*command, stdout=output)
                self.assertEqual(result.status, 5, result)
                self.assertIn("cannot write to standard output", result.err)


if __name__ == "__main__":
    support.main()
