"""status, list, get and dump: what they show is what the library answers."""
import subprocess
import unittest

import support
from support import ToolTest, escaped


class Looking(ToolTest):
    def test_a_word_is_what_the_library_answers(self):
        api = self.cluster()
        api.ok("shmnm_setwaitstat", 7)
        api.ok("shmnm_sethbrscsvstat", "lan", "lanhb1", 1, 4294967295)
        api.ok("shmnm_setrscsvstat_nw", "disk", "diskhb1", 2, 9)
        api.ok("shmnm_modifynode", "gamma", -5)
        api.ok("shmnm_setfstrscpid", "agent", 2, 4711, 2**63)
        words = dict(line.split(" ") for line in self.tool("list").lines)
        self.assertEqual(words["cluster/waitstat"], "7")
        self.assertEqual(words["hb/lan/lanhb1/svstat/beta"], "4294967295")
        self.assertEqual(words["hb/disk/diskhb1/network/gamma"], "9")
        self.assertEqual(words["servers/gamma/pri"], "-5")
        self.assertEqual(words["fst/pids/agent/2"], "4711")
        self.assertEqual(words["fst/piddata/agent/2"], str(2**63))


if __name__ == "__main__":
    support.main()
