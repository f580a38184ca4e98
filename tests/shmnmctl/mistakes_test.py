"""Thirty mistakes at the keyboard: what each is answered with, word for word, and that following the answer leads to success."""
import support
from support import ToolTest, path

KEYS = '"shmnmctl list" shows all keys'
MEMBERS = '"shmnmctl status" shows what there is'

USAGES = {
    "status": "shmnmctl status [--format text|json] [--watch [TIME]] [--only CONDITION] [--machines] [--file FILE] [--force] [PREFIX ...]",
    "get": "shmnmctl get [--format text|json] [--file FILE] [--force] KEY",
    "add server": "shmnmctl add server [--format text|json] [--force] NAME PRI",
}

# What was typed, the status, the message, and what to type instead according to it.
MISTAKES = (
    # Words
    ("stauts", 2, 'unknown command "stauts"; did you mean "status"? "shmnmctl --help" lists the commands', "status"),
    ("ad server delta 3", 2, 'unknown command "ad"; did you mean "add"? "shmnmctl --help" lists the commands', "add server delta 3"),
    ("add servr delta 3", 2, 'unknown command "add servr"; did you mean "add server"? usage: shmnmctl add server|hb|np|fst ...', "add server delta 3"),
    ("status --fromat text", 2, 'unknown option "--fromat"; did you mean "--format"? usage: {status}', "status --format text"),
    ("get servers/alpha/holdstatt", 2, 'no such word "holdstatt"; did you mean "holdstat"?', "get servers/alpha/holdstat"),
    ("list servrs", 2, 'no such word "servrs"; did you mean "servers"?', "list servers"),
    ("get clstat", 2, 'no such word "clstat" at the beginning of a key; did you mean "cluster/clstat"?', "get cluster/clstat"),
    ("query servers/alpha/nodestate=2", 2, 'no such word "nodestate"; did you mean "nodestat"?', "query servers/alpha/nodestat=2"),
    ("set cluster/waitsta 1", 2, 'no such word "waitsta"; did you mean "waitstat"?', "set cluster/waitstat 1"),
    # Keys
    ("get servers/alpha", 2, '"servers/alpha" is not a whole key: "shmnmctl list servers/alpha" shows the keys below it, such as "servers/alpha/pri"', "get servers/alpha/pri"),
    ("get cluster/clstat/now", 2, 'there is no key below "cluster/clstat": leave out "/now"', "get cluster/clstat"),
    ("get servers/*/pri", 2,
     '"servers/*/pri" is not one key: "shmnmctl list servers" shows the keys below "servers", '
     '"shmnmctl query \'any servers/*/pri=0\'" tests the words that match (a * in a name is written %2A)', "list servers"),
    ("list servers/al*", 2,
     '"servers/al*" is not one key: "shmnmctl list servers" shows the keys below "servers" (a * in a name is written %2A)', "list servers"),
    ("get servers/omega/pri", 1, f"there is no key servers/omega/pri; {KEYS}", "list"),
    ("get servers/alhpa/pri", 1, f'there is no key servers/alhpa/pri; did you mean "servers/alpha/pri"? {KEYS}', "get servers/alpha/pri"),
    (["get", "servers/two words/pri"], 2, 'invalid name "two words" in a key: write it "two%20words"', "get servers/two%20words/pri"),
    # Arguments
    ("get", 2, f"KEY is missing: {KEYS}; usage: {{get}}", "list"),
    ("add server delta", 2, "PRI is missing: the priority, a whole number; usage: {add server}", "add server delta 3"),
    ("set cluster/clstat", 2, "VALUE is missing after cluster/clstat: use a whole number from 0 to 4294967295", "set cluster/clstat 1"),
    ("set cluster/clstat much", 2, 'invalid value "much" for cluster/clstat: use a whole number from 0 to 4294967295', "set cluster/clstat 4294967295"),
    ("set servers/alpha/pri 2147483648", 2, 'invalid value "2147483648" for servers/alpha/pri: use -2147483648 to 2147483647', "set servers/alpha/pri 2147483647"),
    ("add fst agent 3 4711", 2, 'invalid kind "3": use 0, 1 or 2', "add fst agent 2 4711"),
    ("wait cluster/clstat=0 --timeout 5sec", 2, 'invalid time "5sec" for --timeout: use 500ms, 10s, 2m, 1h or seconds', "wait cluster/clstat=0 --timeout 5s"),
    ("wait cluster/clstat=0 --interval 0", 2, 'invalid time "0" for --interval: use 1ms to 1h', "wait cluster/clstat=0 --interval 1ms"),
    ("status --format yaml", 2, 'invalid format "yaml": use text or json; usage: {status}', "status --format json"),
    ("query servers/*/pri=0", 2,
     'a key with * needs "any" or "all" before it, as in \'any servers/*/pri=0\'; see "shmnmctl query --help"',
     ["query", "any servers/*/pri=0"]),
    ("lock", 2, 'COMMAND is missing: "shmnmctl lock -- COMMAND" runs COMMAND while it holds the lock, "shmnmctl lock --who" shows who holds it', "lock -- {tool} --version"),
    ("clear", 2, "clear removes all servers, resources and values: add --yes to confirm", "clear --yes"),
    # What is there
    ("add server alpha 1", 5, 'server alpha exists already; change it with "shmnmctl modify"', "modify server alpha 1"),
    ("remove server omega", 1, f"there is no server omega; {MEMBERS}", "status"),
    ("remove server alhpa", 1, f'there is no server alhpa; did you mean "alpha"? {MEMBERS}', "remove server alpha"),
    ("simulate on bta", 1, f'there is no server bta; did you mean "beta"? {MEMBERS}', "simulate on beta"),
    ("set cluster/hbinfo_a 1", 5,
     'cluster/hbinfo_a and cluster/hbinfo_b can only be set together, each to at least 1, as in "shmnmctl set cluster/hbinfo_a 1 cluster/hbinfo_b 1"',
     "set cluster/hbinfo_a 1 cluster/hbinfo_b 1"),
    ("set cluster/dfailstatus 1", 5, 'cannot set cluster/dfailstatus: only a simulation sets it; use "shmnmctl simulate on SERVER" or "shmnmctl simulate off"', "simulate on alpha"),
    ("status {text}", 5, '{text} is not a dump; name a file written by "shmnmctl dump"', "status {dump}"),
    ("status {cut}", 5,
     '{cut} was cut or is not a dump: it has 4096 bytes, and its header asks for {whole} bytes; '
     '"shmnmctl verify {cut}" checks it, "shmnmctl status --force {cut}" shows what there is', "status --force {cut}"),
    ("status {missing}", 5, 'cannot read {missing}: No such file or directory; name a file written by "shmnmctl dump"', "status {dump}"),
)


class Mistakes(ToolTest):
    COUNTS = {"server": 5, "hbr": 3, "npr": 2, "fstr": 1}

    def test_each_mistake_is_answered_with_what_to_do_and_doing_it_succeeds(self):
        self.cluster().ok("shmnm_addnode", "two words", 7)
        (self.folder / "text").write_bytes(b"x" * 2000)
        files = {name: path(self.folder / name) for name in ("text", "missing", "dump", "cut")}
        self.assertEqual(self.tool("dump", files["dump"]).status, 0)
        dump = (self.folder / "dump").read_bytes()
        (self.folder / "cut").write_bytes(dump[:4096])
        files["whole"] = str(len(dump))
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
