"""Thirty mistakes at the keyboard: what each is answered with, word for word, and that following the answer leads to success."""
import support
from support import ToolTest, path

KEYS = '"shmnmctl list" shows all keys'
MEMBERS = '"shmnmctl status" shows what there is'

USAGES = {
    "status": "shmnmctl status [--format text|json] [--watch [TIME]] [--only CONDITION] [--file FILE] [--force] [PREFIX ...]",
    "get": "shmnmctl get [--format text|json] [--file FILE] [--force] KEY",
    "add server": "shmnmctl add server [--format text|json] [--force] NAME PRI",
}

# What was typed, the status, the message, and what to type instead according to it.
MISTAKES = (
    # Words
    ("stauts", 2, 'unknown command "stauts"; did you mean "status"? "shmnmctl --help" lists the commands', "status"),
    ("ad server delta 3", 2, 'unknown command "ad"; "shmnmctl --help" lists the commands', "--help"),
    ("add servr delta 3", 2, 'unknown command "add servr"; did you mean "add server"? usage: shmnmctl add server|hb|np|fst ...', "add server delta 3"),
    ("status --wacth", 2, 'unknown option "--wacth"; did you mean "--watch"? usage: {status}', "status --help"),
    ("get servers/alpha/holdstatt", 2, 'no such word "holdstatt"; did you mean "holdstat"?', "get servers/alpha/holdstat"),
    ("list servrs", 2, 'no such word "servrs"; did you mean "servers"?', "list servers"),
    ("get clstat", 2, 'no such word "clstat" at the beginning of a key; did you mean "cluster/clstat"?', "get cluster/clstat"),
    ("query servers/alpha/nodestate=2", 2, 'no such word "nodestate"; did you mean "nodestat"?', "query servers/alpha/nodestat=2"),
    ("set cluster/waitsta 1", 2, 'no such word "waitsta"; did you mean "waitstat"?', "set cluster/waitstat 1"),
    # Keys
    ("get servers/alpha", 2, '"servers/alpha" is not a whole key; add what is missing, as in "servers/alpha/pri"', "get servers/alpha/pri"),
    ("get cluster/clstat/now", 2, 'no key "cluster/clstat/now" can exist: "cluster/clstat" is a whole key', "get cluster/clstat"),
    ("get servers/*/pri", 2, 'invalid name "*" in a key: write a * as %2A; it stands for other bytes only in conditions', ["query", "any servers/*/pri=0"]),
    ("get servers/aleph/pri", 1, f"there is no key servers/aleph/pri; {KEYS}", "list"),
    (["get", "servers/two words/pri"], 2, 'invalid name "two words" in a key: write it "two%20words"', "get servers/two%20words/pri"),
    # Arguments
    ("get", 2, "KEY is missing; usage: {get}", "get cluster/clstat"),
    ("add server delta", 2, "PRI is missing; usage: {add server}", "add server delta 3"),
    ("set cluster/clstat", 2, "set takes pairs of KEY and VALUE, or - to read them from standard input", "set cluster/clstat 1"),
    ("set cluster/clstat much", 2, 'invalid value "much" for cluster/clstat: use a whole number from 0 to 4294967295', "set cluster/clstat 4294967295"),
    ("set servers/alpha/pri 2147483648", 2, 'invalid value "2147483648" for servers/alpha/pri: use -2147483648 to 2147483647', "set servers/alpha/pri 2147483647"),
    ("add fst agent 3 4711", 2, 'invalid kind "3": use 0, 1 or 2', "add fst agent 2 4711"),
    ("wait cluster/clstat=0 --timeout 5sec", 2, 'invalid time "5sec" for --timeout: use 500ms, 10s, 2m, 1h or seconds', "wait cluster/clstat=0 --timeout 5s"),
    ("watch --interval 0", 2, 'invalid time "0" for --interval: use 1ms to 1h', "watch --help"),
    ("status --format yaml", 2, 'invalid format "yaml": use text or json; usage: {status}', "status --format json"),
    ("query servers/*/pri=0", 2,
     'invalid condition at character 1, "servers/*/pri=0": "all" or "any" is expected before a key with *; see "shmnmctl query --help"',
     ["query", "any servers/*/pri=0"]),
    ("lock", 2, 'use either "lock --who" or "lock -- COMMAND"', "lock -- {tool} --version"),
    ("clear", 2, "clear removes all servers, resources and values: add --yes to confirm", "clear --yes"),
    # What is there
    ("add server alpha 1", 5, 'server alpha exists already; change it with "shmnmctl modify"', "modify server alpha 1"),
    ("remove server aleph", 1, f"there is no server aleph; {MEMBERS}", "status"),
    ("set cluster/hbinfo_a 1", 5,
     'cannot set cluster/hbinfo_a, cluster/hbinfo_b: the library sets them together, each to at least 1; give all of them in one "shmnmctl set"',
     "set cluster/hbinfo_a 1 cluster/hbinfo_b 1"),
    ("set cluster/dfailstatus 1", 5, 'cannot set cluster/dfailstatus: only a simulation sets it; use "shmnmctl simulate"', "simulate on alpha"),
    ("status {text}", 5,
     '{text} was cut or is not a dump: it has 2000 bytes, and its header asks for more than any memory has; '
     'check it with "shmnmctl verify", or use --force to show what there is', "status --force {text}"),
    ("status {missing}", 5, 'cannot read {missing}: No such file or directory; name a file written by "shmnmctl dump"', "status {dump}"),
)


class Mistakes(ToolTest):
    COUNTS = {"server": 5, "hbr": 3, "npr": 2, "fstr": 1}

    def test_each_mistake_is_answered_with_what_to_do_and_doing_it_succeeds(self):
        self.cluster().ok("shmnm_addnode", "two words", 7)
        (self.folder / "text").write_bytes(b"x" * 2000)
        files = {name: path(self.folder / name) for name in ("text", "missing", "dump")}
        self.assertEqual(self.tool("dump", files["dump"]).status, 0)
        self.assertGreaterEqual(len(MISTAKES), 30)
        for typed, status, message, instead in MISTAKES:
            with self.subTest(typed):
                self.environment["KZMUTIL_NAMESPACE"] += "x"
                region = self.cluster()
                region.ok("shmnm_addnode", "two words", 7)
                result = self.tool(*self.words(typed, files))
                self.assertEqual((result.status, result.out), (status, ""))
                self.assertEqual(result.err, f"shmnmctl: {self.filled(message, files)}\n")
                # A warning is no failure.
                self.assertEqual(self.tool(*self.words(instead, files)).status, 0)
                region.end()

    def words(self, typed, files):
        """The arguments that a command line stands for."""
        words = typed.split() if isinstance(typed, str) else typed
        return [support.native_program("shmnmctl")[0] if word == "{tool}" else self.filled(word, files) for word in words]

    @staticmethod
    def filled(text, files):
        """A text with its files and usages."""
        for name, file in files.items():
            text = text.replace(f"{{{name}}}", file)
        for command, usage in USAGES.items():
            text = text.replace(f"{{{command}}}", usage)
        return text


if __name__ == "__main__":
    support.main()
