"""Reading across machines: each machine is an installation with a namespace, a bridge's marks and a server of its own."""
import socket

import web_support
from web_support import WebTest, support


class Machines(WebTest):
    def setUp(self):
        super().setUp()
        self.own = self.environment
        self.machines = {}
        addresses = {}
        for name in ("alpha", "beta"):
            self.environment = dict(self.own, KZMUTIL_NAMESPACE=self.own["KZMUTIL_NAMESPACE"] + name + "-")
            region = self.cluster()
            region.ok("shmnm_setnodestat", name, 1)
            web = self.serve()
            addresses[name] = f"http://127.0.0.1:{web.address[1]}"
            self.machines[name] = (self.environment, region, self.bridge(), web)
        with socket.create_server(("127.0.0.1", 0)) as unused:
            addresses["gamma"] = f"http://127.0.0.1:{unused.getsockname()[1]}"
        self.addresses = addresses
        for name, (_, _, bridge, _) in self.machines.items():
            bridge.says(*((other, "fresh" if other == "beta" else "silent", {"address": address}) for other, address in addresses.items() if other != name),
                        server=name)
        for name, (_, _, _, web) in self.machines.items():
            web.until("/picture.json", lambda answer, own=name: answer.status == 200 and answer.json["bridge"]["server"] == own)
        self.environment = self.machines["alpha"][0]

    def test_a_machine_is_read_at_the_address_that_its_bridge_tells(self):
        self.assertEqual(self.tool("get", "servers/beta/nodestat").out, "2\n")
        there = self.tool("get", "servers/beta/nodestat", "--machine", "beta")
        self.assertEqual((there.status, there.out, there.err), (0, "1\n", ""))
        status = self.tool("status", "--machine", "beta", "--format", "json").json
        self.assertEqual(status["bridge"]["server"], "beta")
        self.assertEqual(self.tool("status", "--machine", "alpha", "--format", "json").json["bridge"]["server"], "alpha")

    def test_the_marks_may_be_read_at_a_server(self):
        elsewhere = dict(self.own, KZMUTIL_NAMESPACE=self.own["KZMUTIL_NAMESPACE"] + "elsewhere-")
        there = self.tool("get", "servers/beta/nodestat", "--from", self.addresses["alpha"], "--machine", "beta", environment=elsewhere)
        self.assertEqual((there.status, there.out), (0, "1\n"))

    def test_the_marks_of_a_machine_come_whole(self):
        servers = [(f"server{number}", "fresh", {"other_times": number == 7}) for number in range(258)]
        self.machines["beta"][2].says(*servers)
        self.machines["beta"][3].until("/picture.json", lambda answer: answer.json["bridge"]["lost_servers"] == 2)
        bridge = self.tool("status", "--machine", "beta", "--format", "json").json["bridge"]
        self.assertEqual([server["name"] for server in bridge["servers"] if server["other_times"]], ["server7"])
        self.assertEqual((len(bridge["servers"]), bridge["lost_servers"]), (256, 2))

    def test_a_machine_that_cannot_be_reached_is_named(self):
        for command in (["status"], ["get", "servers/alpha/pri"], ["diff", "live"]):
            with self.subTest(command):
                failed = self.tool(*command, "--machine", "gamma")
                self.assertEqual((failed.status, failed.out), (5, ""))
                self.assertRegex(failed.err, "^shmnmctl: machine gamma cannot be read: ")

    def test_a_machine_that_nobody_knows_is_refused_with_the_nearest_name(self):
        failed = self.tool("status", "--machine", "bete")
        self.assertEqual((failed.status, failed.err), (1, 'shmnmctl: the bridge knows no machine "bete"; did you mean "beta"?\n'))

    def test_without_a_bridge_no_machine_is_known(self):
        failed = self.tool("status", "--machine", "beta", environment=dict(self.own, KZMUTIL_NAMESPACE=self.own["KZMUTIL_NAMESPACE"] + "elsewhere-"))
        self.assertEqual((failed.status, failed.err), (5, "shmnmctl: no bridge runs on this machine, so the address of another machine is not known; name its server by --from ADDRESS\n"))

    def test_only_http_and_https_are_followed(self):
        for address in ("unix:/tmp/socket", "file:///etc/passwd", "javascript:alert(1)"):
            with self.subTest(address):
                self.machines["alpha"][2].says(("beta", "fresh", {"address": address}))
                failed = self.tool("status", "--machine", "beta")
                self.assertEqual(failed.status, 5)
                self.assertIn(f'its bridge tells the address "{address}", which is neither http nor https', failed.err)
        self.machines["alpha"][2].says(("beta", "fresh", {}))
        self.assertIn("its bridge tells no address", self.tool("status", "--machine", "beta").err)

    def test_commands_that_change_take_no_machine(self):
        failed = self.tool("set", "cluster/clstat", "1", "--machine", "beta")
        self.assertEqual(failed.status, 2)
        self.assertEqual(self.tool("status", "--machine", "beta", "--machine", "alpha").status, 2)

    def test_all_machines_stand_side_by_side(self):
        shown = self.tool("status", "--machines")
        self.assertEqual(shown.status, 5)
        self.assertEqual(shown.err, "shmnmctl: cannot read 1 of 3 machines: gamma; see whether shmnmweb runs there\n")
        rows = {line.split()[0]: line.split()[1:] for line in shown.lines if line}
        self.assertEqual(rows["nodestat"], ["on", "alpha", "on", "beta", "on", "gamma"])
        self.assertEqual(rows["alpha"], ["1", "own", "2", "silent", "-"])
        self.assertEqual(rows["beta"], ["2", "fresh", "1", "own", "-"])
        self.assertRegex(shown.out, r"(?m)^alpha +connected +3 +0 +-$")
        self.assertRegex(shown.out, rf"(?m)^beta +connected +3 +0 +{self.addresses['beta']}$")
        self.assertRegex(shown.out, rf"(?m)^gamma +not read +- +- +{self.addresses['gamma']}$")
        self.assertRegex(shown.out, r"(?m)^gamma cannot be read: .+$")

    def test_all_machines_in_one_document(self):
        shown = self.tool("status", "--machines", "--format", "json")
        machines = shown.json["machines"]
        self.assertEqual([machine["name"] for machine in machines], ["alpha", "beta", "gamma"])
        self.assertEqual([machine["status"] is None for machine in machines], [False, False, True])
        self.assertEqual([machine["message"] is None for machine in machines], [True, True, False])
        self.assertEqual(machines[1]["status"]["servers"][1]["nodestat"], 1)
        self.assertEqual((shown.status, shown.error["status"]), (5, 5))

    def test_all_machines_that_answer_are_done(self):
        self.machines["alpha"][2].says(("beta", "fresh", {"address": self.addresses["beta"]}))
        shown = self.tool("status", "--machines")
        self.assertEqual((shown.status, shown.err), (0, ""))

    def test_diff_tells_where_two_machines_disagree(self):
        different = self.tool("diff", "--machine", "alpha", "--machine", "beta")
        self.assertEqual((different.status, different.out), (1, "servers/alpha/nodestat 1 -> 2\nservers/beta/nodestat 2 -> 1\n"))
        self.assertEqual(self.tool("diff", "live", "--machine", "beta").out, different.out)

    def test_diff_lists_local_words_apart_and_they_do_not_count(self):
        self.machines["beta"][1].ok("shmnm_modifyhbrsc", "lan", "lanhb1", 9)
        self.machines["beta"][3].until("/picture.json", lambda answer: answer.json["hb"][0]["pri"] == 9)
        different = self.tool("diff", "--machine", "alpha", "--machine", "beta", "--format", "json")
        self.assertEqual(different.status, 1)
        self.assertEqual([one["key"] for one in different.json["differences"]], ["servers/alpha/nodestat", "servers/beta/nodestat"])
        self.assertEqual(different.json["local"], [{"key": "hb/lan/lanhb1/pri", "old": 0, "new": 9}])
        for name in ("alpha", "beta"):
            self.machines["alpha"][1].ok("shmnm_setnodestat", name, 1)
            self.machines["beta"][1].ok("shmnm_setnodestat", name, 1)
        self.machines["alpha"][3].until("/picture.json", lambda answer: answer.json["servers"][1]["nodestat"] == 1)
        self.machines["beta"][3].until("/picture.json", lambda answer: answer.json["servers"][0]["nodestat"] == 1)
        agreed = self.tool("diff", "--machine", "alpha", "--machine", "beta")
        self.assertEqual((agreed.status, agreed.out), (0, "words that no bridge shares:\nhb/lan/lanhb1/pri 0 -> 9\n"))

    def test_diff_takes_two_pictures(self):
        self.assertEqual(self.tool("diff", "--machine", "alpha").status, 2)
        self.assertEqual(self.tool("diff").status, 2)
        self.assertEqual(self.tool("diff", "live", "--machine", "alpha", "--machine", "beta").status, 2)


if __name__ == "__main__":
    support.main()
