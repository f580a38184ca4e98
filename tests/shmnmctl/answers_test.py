"""JSON answers of the commands that change the picture or hold the lock, and the schema, which only grows."""
import jsonschema

import support
from support import ToolTest, path


class Answers(ToolTest):
    def answer(self, *command, **options):
        """The one document that a command answers, without its version. As text it says nothing."""
        result = self.tool("--format", "json", *command, **options)
        self.assertEqual((result.status, result.err), (0, ""))
        document = result.json
        self.assertEqual(document.pop("version"), 1)
        return document

    def test_set_answers_the_words_that_it_set(self):
        self.cluster()
        self.assertEqual(
            self.answer("set", "cluster/clstat", "0x10", "servers/alpha/pri", "-3", "cluster/clstat", "17"),
            {"kind": "set", "words": {"cluster/clstat": 17, "servers/alpha/pri": -3}},
        )
        self.assertEqual(self.answer("set", "-", input="cluster/bwflag 4294967295\n"), {"kind": "set", "words": {"cluster/bwflag": 4294967295}})
        self.assertEqual(self.tool("get", "cluster/clstat").out, "17\n")

    def test_add_modify_and_remove_answer_with_keys(self):
        self.cluster()
        for command, answer in (
            (["add", "server", "del%20ta", "-4"], {"kind": "add", "words": {"servers/del%20ta/pri": -4}}),
            (["modify", "server", "del%20ta", "5"], {"kind": "modify", "words": {"servers/del%20ta/pri": 5}}),
            (["remove", "server", "del%20ta"], {"kind": "remove", "removed": "servers/del%20ta"}),
            (["add", "hb", "lan", "lanhb2", "4294967295"], {"kind": "add", "words": {"hb/lan/lanhb2/pri": 4294967295}}),
            (["modify", "np", "ping", "pingnp1", "9"], {"kind": "modify", "words": {"np/ping/pingnp1/pri": 9}}),
            (["remove", "hb", "lan", "lanhb2"], {"kind": "remove", "removed": "hb/lan/lanhb2"}),
            (["add", "fst", "agent", "1", "4711", "18446744073709551615"],
             {"kind": "add", "words": {"fst/pids/agent/1": 4711, "fst/piddata/agent/1": "18446744073709551615"}}),
        ):
            with self.subTest(command):
                self.assertEqual(self.answer(*command), answer)

    def test_describe_simulate_and_clear_answer_what_is_there_then(self):
        self.cluster()
        self.assertEqual(self.answer("describe", "hb", "lan", "lanhb1", "a net"), {"kind": "describe", "descript": "a%20net"})
        self.assertEqual(self.answer("describe", "hb", "lan", "lanhb1"), {"kind": "describe", "descript": "a%20net"})
        self.assertEqual(self.answer("describe", "fst", "x"), {"kind": "describe", "descript": "x"})
        self.assertEqual(self.answer("simulate", "on", "gamma", "alpha"), {"kind": "simulate", "dfailstatus": 1, "failed": ["gamma", "alpha"]})
        self.assertEqual(self.answer("simulate", "off"), {"kind": "simulate", "dfailstatus": 0, "failed": []})
        self.assertEqual(self.answer("clear", "--yes"), {"kind": "clear"})
        self.assertEqual(self.tool("list", "servers").status, 1)

    def test_dump_answers_the_file_and_its_size(self):
        self.cluster()
        file = path(self.folder / "picture.dump")
        size = len(self.dumped())
        self.assertEqual(self.answer("dump", file), {"kind": "dump", "file": file, "size": size})
        self.assertEqual((self.folder / "picture.dump").stat().st_size, size)

    def test_changes_are_silent_as_text(self):
        self.cluster()
        for command in (["set", "cluster/clstat", "1"], ["add", "server", "delta", "3"], ["dump", path(self.folder / "dump")], ["clear", "--yes"]):
            result = self.tool(*command)
            self.assertEqual((result.status, result.out, result.err), (0, "", ""))

    def test_lock_answers_the_last_take_over_and_the_command_in_plain_text(self):
        api = self.region()
        answer = self.tool("lock", "--who", "--format", "json").json
        self.assertIsNone(answer["last_takeover"])
        other = self.api()
        other.ok("shmnm_rwlock", 0)
        other.kill()
        api.ok("shmnm_rwlock", 10000)
        answer = self.tool("lock", "--who", "--format", "json").json
        if support.PLATFORM == "windows":
            # Nobody there knows who holds a mutex.
            self.assertEqual((answer["last_takeover"], answer["holder"]), (None, None))
            return
        self.assertIn(f"last at {answer['last_takeover']}", self.tool("lock", "--who").out)
        holder = answer["holder"]
        self.assertEqual(holder["command_line"], support.program("api_caller")[0])
        self.assertEqual(holder["command"], support.escaped(holder["command_line"]))


class Schema(ToolTest):
    def test_the_schema_only_grows(self):
        """Every kind and member is still described, and none that had to be there may be missing."""

        def compare(before, now, at):
            self.assertLessEqual(set(before.get("required", [])), set(now.get("required", [])), at)
            for name, member in before.get("properties", {}).items():
                self.assertIn(name, now.get("properties", {}), at)
                if isinstance(member, dict):
                    compare(member, now["properties"][name], f"{at}/{name}")
            if "items" in before:
                compare(before["items"], now["items"], at + "[]")

        for name, definition in support.SCHEMA_BEFORE["$defs"].items():
            compare(definition, support.SCHEMA["$defs"][name], name)
        self.assertLessEqual(support.KINDS_BEFORE, support.kinds_of(support.SCHEMA))
        self.assertGreater(len(support.KINDS_BEFORE), 12)

    def test_a_reader_for_the_schema_as_it_was_notices_what_breaks_it(self):
        document = {"version": 1, "kind": "get", "key": "cluster/clstat", "value": 1}
        support.VALIDATOR_BEFORE.validate(document | {"later": 1})
        for broken in ({"version": 1, "kind": "get", "key": "cluster/clstat"}, document | {"value": [1]}, document | {"version": 2}):
            with self.assertRaises(jsonschema.ValidationError):
                support.VALIDATOR_BEFORE.validate(broken)


if __name__ == "__main__":
    support.main()
