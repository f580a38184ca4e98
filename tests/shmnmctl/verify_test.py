"""verify: it finds each thing that a healthy region never shows, and nothing else."""
import os
import pathlib
import random
import struct
import time
import unittest

import support
from support import PROJECT, ToolTest, path

HEADER, SERVER, RESOURCE, PID = 1084, 320, 584, 324
# Of a region with 4 servers, 3 hb and 2 np resources, 1 fst resource.
HB, NP, FST, PIDS, NETWORK, SIZE = 2364, 9372, 14044, 14628, 15924, 16052
RECORD = RESOURCE + 4 * 4
LONG = 300 * "x"


def word(number):
    return struct.pack("<i", number)


# What is written where in a healthy dump, and the one line that verify answers.
DAMAGES = [
    # Counts
    (28, word(5), "28 header/server_count: expected 0 to 4; found 5"),
    (28, word(-1), "28 header/server_count: expected 0 to 4; found -1"),
    (32, word(4), "32 header/hb_count: expected 0 to 3; found 4"),
    (32, word(-2147483648), "32 header/hb_count: expected 0 to 3; found -2147483648"),
    (36, word(2147483647), "36 header/np_count: expected 0 to 2; found 2147483647"),
    (40, word(5), "40 header/fst_pid_count: expected 0 to 4; found 5"),
    (40, word(-7), "40 header/fst_pid_count: expected 0 to 4; found -7"),
    # Maxima
    (8, word(5), "8 header/maxima: expected those of a file of 16052 bytes; found servers 5, hb 3, np 2, fst 1: 19648 bytes"),
    (8, word(-146), "8 header/maxima: expected those of a file of 16052 bytes; found servers -146, hb 3, np 2, fst 1: beyond all memory"),
    (12, word(1), "8 header/maxima: expected those of a file of 16052 bytes; found servers 4, hb 1, np 2, fst 1: 11316 bytes"),
    (16, word(2147483647), "8 header/maxima: expected those of a file of 16052 bytes; found servers 4, hb 3, np 2147483647, fst 1: 5050881549092 bytes"),
    (20, word(0), "8 header/maxima: expected those of a file of 16052 bytes; found servers 4, hb 3, np 2, fst 0: 14172 bytes"),
    (24, word(9), "24 header/fst_pid_limit: expected 4, the servers times the fst resources; found 9"),
    # Names and types without a NUL
    (1084, 256 * b"n", "1084 servers[0]/name: expected a NUL within 256 bytes; found 256 bytes without a NUL"),
    (HB, 32 * b"n", "2364 hb[0]/name: expected a NUL within 32 bytes; found 32 bytes without a NUL"),
    (HB + RECORD + 256, 32 * b"t", "3220 hb[1]/type: expected a NUL within 32 bytes; found 32 bytes without a NUL"),
    (NP, 256 * b"n", "9372 np[0]/name: expected a NUL within 32 bytes; found 256 bytes without a NUL"),
    # Empty ones
    (1084, bytes(256), "1084 servers[0]/name: expected a text; found an empty one"),
    (HB + 256, bytes(32), "2620 hb[0]/type: expected a text; found an empty one"),
    (NP + RECORD, bytes(32), "9972 np[1]/name: expected a text; found an empty one"),
    (PIDS, bytes(256), "14628 fst/pids[0]/name: expected a text; found an empty one"),
    # Double ones
    (1404, b"alpha", "1404 servers[1]/name: expected a name of its own; found the name of servers[0]"),
    (
        HB + RECORD,
        b"lanhb1".ljust(256, b"\0") + b"lan\0",
        "2964 hb[1]/name: expected a type and a name of its own; found those of hb[0]",
    ),
    (
        NP + RECORD,
        b"pingnp1".ljust(256, b"\0") + b"ping".ljust(32, b"\0"),
        "9972 np[1]/name: expected a type and a name of its own; found those of np[0]",
    ),
    (PIDS + PID, b"agent".ljust(256, b"\0"), "14952 fst/pids[1]/name: expected a name of its own; found the name of fst/pids[0]"),
    # Text that is not padded
    (1100, b"A", "1100 servers/alpha/name: expected zeros after the text; found 0x41"),
    (1084 + 255, b"\xff", "1339 servers/alpha/name: expected zeros after the text; found 0xFF"),
    (HB + 32, b"A", "2396 hb/lan/lanhb1/name: expected zeros after the text; found 0x41"),
    (NP + 256 + 31, b"A", "9659 np/ping/pingnp1/type: expected zeros after the text; found 0x41"),
    (PIDS + 100, b"A", "14728 fst/pids/agent/name: expected zeros after the text; found 0x41"),
    # Free slots
    (2044, b"A", "2044 servers[3]: expected zeros, as in every free slot; found 0x41"),
    (HB + 2 * RECORD + 599, b"A", "4163 hb[2]: expected zeros, as in every free slot; found 0x41"),
    (PIDS + 2 * PID + 5, b"AAA", "15281 fst/pids[2]: expected zeros, as in every free slot; found 0x41"),
    (4164, b"A", "4164 hb/rest: expected zeros after the last slot; found 0x41"),
    (FST - 1, b"A", "14043 np/rest: expected zeros after the last slot; found 0x41"),
    (FST, b"A", "14044 fst[0]/name: expected zeros, as in every reserved field; found 0x41"),
    (FST + 256, b"A", "14300 fst[0]/type: expected zeros, as in every reserved field; found 0x41"),
    (FST + 544, b"A", "14588 fst[0]/pri: expected zeros, as in every reserved field; found 0x41"),
    (15972, b"A", "15972 network/rest: expected zeros after the last row; found 0x41"),
    (SIZE - 1, b"A", "16051 network/rest: expected zeros after the last row; found 0x41"),
    # Reserved fields
    (100, b"A", "100 header/reserved_64: expected zeros, as in every reserved field; found 0x41"),
    (1356, b"A", "1356 servers/alpha/reserved_272: expected zeros, as in every reserved field; found 0x41"),
    (1084 + 2 * SERVER + 319, b"A", "2043 servers/gamma/reserved_292: expected zeros, as in every reserved field; found 0x41"),
    (HB + 552, b"A", "2916 hb/lan/lanhb1/reserved_552: expected zeros, as in every reserved field; found 0x41"),
    (NP + RECORD + 583, b"A", "10555 np/majority/majoritynp1/reserved_552: expected zeros, as in every reserved field; found 0x41"),
    (FST + 583, b"A", "14627 fst[0]/reserved_552: expected zeros, as in every reserved field; found 0x41"),
    (PIDS + 292, b"A", "14920 fst/pids/agent/reserved_292: expected zeros, as in every reserved field; found 0x41"),
]


class Verifying(ToolTest):
    def dumped(self, api):
        """The region's bytes, by the library's own dump."""
        file = self.folder / "region"
        api.ok("dump", path(file))
        return file.read_bytes()

    def verified(self, dump):
        """The lines that are found in these bytes."""
        file = self.folder / "damaged"
        file.write_bytes(dump)
        result = self.tool("verify", path(file))
        self.assertEqual(result.err, "")
        self.assertEqual(result.status, 1 if result.out else 0, result)
        return result.lines

    def healthy(self):
        api = self.cluster()
        api.ok("shmnm_setfstrscpid", "agent", 1, 4711, 2**64 - 1)
        api.ok("shmnm_setfstrscpid", "watcher", 0, 1, 1)
        api.ok("shmnm_setfstdescript", 256 * "d")
        api.ok("shmnm_setfstrscstat", 2**32 - 1)
        api.ok("shmnm_sethbdescript", "lan", "lanhb1", 256 * "d")
        api.ok("shmnm_sethbinfo_ex", 2**31 - 1, 5)
        for server in ("alpha", "beta", "gamma"):
            api.ok("shmnm_setholdstat", server, 2**32 - 1)
        return api

    def assert_healthy(self, api):
        result = self.tool("verify")
        self.assertEqual((result.status, result.out, result.err), (0, "", ""))
        self.assertEqual(self.verified(self.dumped(api)), [])

    def test_a_healthy_region_has_no_finding(self):
        self.assert_healthy(self.healthy())
        answer = self.tool("verify", "--format", "json")
        self.assertEqual((answer.status, answer.json), (0, {"version": 1, "kind": "verify", "findings": []}))

    def test_verify_finds_each_damage_and_nothing_else(self):
        dump = self.dumped(self.healthy())
        self.assertEqual(len(dump), SIZE)
        for offset, data, line in DAMAGES:
            with self.subTest(line):
                damaged = dump[:offset] + data + dump[offset + len(data) :]
                self.assertNotEqual(damaged, dump)
                self.assertEqual(self.verified(damaged), [line])

    def test_findings_are_sorted_by_offset_in_text_and_in_json(self):
        dump = bytearray(self.dumped(self.healthy()))
        for offset, data, line in reversed(DAMAGES[-7:]):
            dump[offset : offset + len(data)] = data
        lines = self.verified(dump)
        self.assertEqual(lines, [line for _, _, line in sorted(DAMAGES[-7:])])
        answer = self.tool("verify", path(self.folder / "damaged"), "--format", "json")
        self.assertEqual(answer.status, 1)
        self.assertEqual(["{offset} {key}: expected {expected}; found {found}".format(**each) for each in answer.json["findings"]], lines)

    def test_a_dump_of_the_wrong_size_is_one_finding(self):
        dump = self.dumped(self.healthy())
        for size in (HEADER, HEADER + 1, 5000, SIZE - 1, SIZE + 1, 100000):
            with self.subTest(size):
                self.assertEqual(
                    self.verified(dump.ljust(size, b"\0")[:size]),
                    [f"8 header/maxima: expected those of a file of {size} bytes; found servers 4, hb 3, np 2, fst 1: 16052 bytes"],
                )

    def test_verify_still_checks_header_and_servers_if_the_maxima_are_wrong(self):
        dump = bytearray(self.dumped(self.healthy()))
        dump[16:20] = word(9)
        dump[36:40] = word(-1)
        dump[100] = 1
        dump[1404:1408] = bytes(4)
        dump[HB] = 0
        self.assertEqual(
            self.verified(dump),
            [
                "8 header/maxima: expected those of a file of 16052 bytes; found servers 4, hb 3, np 9, fst 1: 32516 bytes",
                "36 header/np_count: expected 0 or more; found -1",
                "100 header/reserved_64: expected zeros, as in every reserved field; found 0x01",
                "1404 servers[1]/name: expected a text; found an empty one",
            ],
        )

    def test_unused_fst_records_must_be_zero(self):
        self.configure(server=4, hbr=3, npr=2, fstr=2)
        dump = bytearray(self.dumped(self.region()))
        self.assertEqual(self.verified(dump), [])
        dump[FST + RESOURCE] = 0x41
        self.assertEqual(self.verified(dump), ["14628 fst[1]: expected zeros, as in every free slot; found 0x41"])

    def test_names_in_findings_are_escaped(self):
        api = self.region()
        api.ok("shmnm_addnode", b"a\x1b[31m/\xff%", 0)
        dump = bytearray(self.dumped(api))
        dump[1084 + 100] = 0x1B
        self.assertEqual(self.verified(dump), ["1184 servers/a%1B%5B31m%2F%FF%25/name: expected zeros after the text; found 0x1B"])

    def test_the_live_region_is_compared_with_its_layout_and_the_configuration(self):
        api = self.healthy()
        api.ok("shmnm_setmaxvalue_ex", 4, 9, 1)
        self.assertEqual(
            self.tool("verify").lines,
            ["12 header/max_hb: expected 3, as the region is laid out; found 9", "16 header/max_np: expected 2, as the region is laid out; found 1"],
        )
        api.ok("shmnm_setmaxvalue_ex", 4, 3, 2)
        self.assertEqual(self.tool("verify").lines, [])
        self.configure(server=5, hbr=3, npr=2, fstr=1)
        result = self.tool("verify")
        self.assertEqual(result.status, 1)
        self.assertEqual(
            result.lines, ["0 region/size: expected 19648 bytes (servers 5, hb 3, np 2, fst 1), as configured; found 16384 bytes mapped"]
        )

    def test_a_cleared_region_is_healthy_after_it_was_mapped_again(self):
        api = self.healthy()
        api.ok("shmnm_clear")
        self.assertEqual(
            self.tool("verify").lines,
            [
                "8 header/max_servers: expected 4, as the region is laid out; found 0",
                "12 header/max_hb: expected 3, as the region is laid out; found 0",
                "16 header/max_np: expected 2, as the region is laid out; found 0",
                "20 header/fst_count: expected 1, as the region is laid out; found 0",
            ],
        )
        self.api().ok("shmnm_attach")
        self.assert_healthy(api)

    def test_remains_of_normal_calls_are_not_findings(self):
        api = self.cluster()
        for server in range(3):
            api.ok("shmnm_setrscsvstat_nw", "disk", "diskhb1", server, 7)
            api.ok("shmnm_sethbrscsvstat", "disk", "diskhb1", server, 8)
        api.ok("shmnm_rmhbrsc", "disk", "diskhb1")
        api.ok("shmnm_rmnode", "alpha")
        for _ in range(2):
            api.ok("shmnm_addnode", LONG, 9)
            api.ok("shmnm_addhbrsc", LONG, "short", 0)
            api.ok("shmnm_setfstrscpid", LONG, 0, 5, 5)
        for resource in (("ping", "pingnp1"), ("majority", "majoritynp1")):
            api.ok("shmnm_rmnprsc", *resource)
            api.ok("shmnm_addnprsc", "short", LONG, 0)
        self.assert_healthy(api)

    def test_random_calls_leave_regions_healthy(self):
        seed = int(os.environ.get("SHMNM_SEED") or time.time())
        print("seed", seed)
        for counts in ((4, 3, 2, 1), (1, 3, 2, 1), (2, 1, 1, 0)):
            with self.subTest(seed=seed, counts=counts):
                self.configure(**dict(zip(("server", "hbr", "npr", "fstr"), counts)))
                chance = random.Random(seed)
                api = self.api()
                api.ok("shmnm_create")
                for _ in range(3):
                    for _ in range(200):
                        self.random_call(api, chance)
                    self.assertEqual(self.verified(self.dumped(api)), [])
                api.end()

    def random_call(self, api, chance):
        server = chance.choice(("alpha", "beta", "gamma", "delta", "epsilon", LONG, 255 * "y"))
        type, name = chance.choice((("lan", "lan1"), ("lan", "lan2"), ("disk", "lan1"), (LONG, "a"), ("a", LONG)))
        twin, svid, state = chance.choice(("hb", "np")), chance.randrange(6), chance.getrandbits(32)
        call = chance.choice(
            (
                ("shmnm_addnode", server, svid),
                ("shmnm_rmnode", server),
                ("shmnm_rmnode", server[:255]),
                ("shmnm_modifynode", server, svid),
                ("shmnm_setpingstat", server, state),
                (f"shmnm_add{twin}rsc", type, name, state),
                (f"shmnm_add{twin}rsc", type, name, state),
                (f"shmnm_rm{twin}rsc", type[:31], name[:31]),
                (f"shmnm_set{twin}rscstat", type[:31], name[:31], state),
                (f"shmnm_set{twin}rscsvstat", type[:31], name[:31], svid, state),
                (f"shmnm_settype{twin}stat", type[:31], state),
                (f"shmnm_set{twin}descript", type[:31], name[:31], chance.randbytes(chance.randrange(1, 300))),
                ("shmnm_setrscsvstat_nw", type[:31], name[:31], svid, state),
                ("shmnm_setnpsimu", 1, [chance.getrandbits(1) for _ in range(4)]),
                ("shmnm_setfstrscpid", chance.choice((server, 256 * "z")), svid % 4, state, state << 32),
                ("shmnm_setfstrscstat", state),
                ("shmnm_setfstdescript", chance.randbytes(chance.randrange(1, 300))),
                ("shmnm_sethbinfo_ex", 1 + svid, 1 + state % 2**30),
                ("shmnm_setwaitstat", state),
            )
        )
        api.call(*call)
        if chance.random() < 0.005:
            for cleared in ("shmnm_clear", "shmnm_detach", "shmnm_attach"):
                api.ok(cleared)


class Documentation(unittest.TestCase):
    def test_the_documented_examples_match_the_output(self):
        lines = (PROJECT / "docs/verify.md").read_text().splitlines()
        examples = {line.split("`")[-2] for line in lines if line.startswith("|") and "expected" in line}
        self.assertGreater(len(examples), 12)
        tested = pathlib.Path(__file__).read_text()
        for example in examples:
            self.assertTrue(f'"{example}"' in tested, example)


if __name__ == "__main__":
    support.main()
