"""shmnmbridge run: two machines on one host, which differ in their names, and a real etcd."""
import base64
import itertools
import json
import pathlib
import shutil
import signal
import socket
import ssl
import subprocess
import sys
import tempfile
import time

import bridge_support
from bridge_support import BridgeTest, PLATFORM, until
import etcd_support
import support

sys.path.insert(0, str(bridge_support.PROJECT / "tests/shmnmweb"))
import certificates  # noqa: E402  it stands beside other tests


class Run(BridgeTest):
    def put(self, key, value):
        body = {name: base64.b64encode(text).decode() for name, text in (("key", f"/shmnm/{self.cluster}/1/".encode() + key), ("value", value))}
        self.assertEqual(self.etcd.members[0].post("/v3/kv/put", body)[0], 200)

    def test_two_machines_converge_and_a_clean_end_is_seen(self):
        alpha, beta = self.machine("alpha", address="http://127.0.0.1:9683").create(), self.machine("beta").create()
        self.assertEqual(alpha.start().ready, f"ready: server alpha of cluster {self.cluster}")
        beta.start()
        alpha.api.ok("shmnm_setnodestat", "alpha", 1)
        alpha.api.ok("shmnm_sethbrscsvstat", "lan", "lan1", 0, 7)
        alpha.api.ok("shmnm_setrscsvstat_nw", "lan", "lan1", 0, 8)
        beta.api.ok("shmnm_setpingstat", "beta", 5)
        beta.waits_for(1, "shmnm_getnodestat", "alpha")
        beta.waits_for(7, "shmnm_gethbrscsvstat", "lan", "lan1", 0)
        beta.waits_for(8, "shmnm_getrscsvstat_nw", "lan", "lan1", 0)
        alpha.waits_for(5, "shmnm_getpingstat", "beta")
        alpha.waits_for_freshness("beta", "fresh")
        beta.waits_for_freshness("alpha", "fresh")
        beta.api.ok("shmnm_setclstat", 4)
        alpha.waits_for(4, "shmnm_getclstat")
        beta.api.ok("shmnm_sethbinfo_ex", 3, 9)
        until(lambda: alpha.api.call("shmnm_gethbinfo_ex") == (0, ["3", "9"]), "the pair")
        status = beta.run("status")
        self.assertEqual(status.status, 0, status)
        self.assertIn("alpha   fresh", status.out)
        self.assertRegex(status.out, r"(?m)^lock        held for \d+ us at most\r?$")
        self.assertGreater(beta.status()["longest_hold_us"], 0)
        self.assertIn("http://127.0.0.1:9683", status.out)
        self.assertEqual({"claim/alpha", "state/alpha", "beat/alpha"} & set(self.keys()), {"claim/alpha", "state/alpha", "beat/alpha"})

        if PLATFORM == "linux":
            self.assertEqual(alpha.bridge.end(signal.SIGTERM), 0, alpha.bridge.logged())
            self.assertEqual([key for key in self.keys() if "alpha" in key], [], "a clean end deletes its keys")
        else:
            alpha.bridge.end()
        beta.waits_for(2, "shmnm_getnodestat", "alpha")
        beta.waits_for(2, "shmnm_gethbrscsvstat", "lan", "lan1", 0)
        beta.waits_for_freshness("alpha", "silent")
        self.assertEqual(beta.run("status").status, 1)
        self.assertEqual(alpha.run("status").status, 3)
        self.assertEqual(alpha.get("shmnm_getnodestat", "alpha"), [1], "its own words are as they were")
        alpha.start()
        beta.waits_for(1, "shmnm_getnodestat", "alpha")

    def test_a_second_bridge_of_a_region_is_refused(self):
        alpha = self.machine("alpha").create()
        alpha.start()
        second = alpha.run("run")
        self.assertEqual(second.status, 5)
        self.assertRegex(second.err, r"^shmnmbridge: another bridge runs for this machine's region.*; stop it first\r?\n$")
        if PLATFORM == "linux":
            self.assertIn(f": process {alpha.bridge.process.pid}; ", second.err)
        self.assertEqual(alpha.status()["up"], True)

    def test_a_second_machine_of_a_name_is_refused_by_the_first_ones_claim(self):
        first, second = self.machine("alpha").create(), self.machine("alpha").create()
        first.start()
        until(lambda: first.status().get("running"), "the first one's claim")
        second.start()
        until(lambda: second.status().get("refused"), "the refusal")
        until(lambda: "another machine (host " in second.bridge.logged(), second.bridge.logged)
        self.assertEqual((second.status()["running"], second.run("status").status), (False, 1))
        check = second.run("check")
        self.assertEqual(check.status, 1)
        self.assertRegex(check.out, r"wrong  another machine, host \S+, has claimed the name alpha; ")
        self.assertTrue(first.status()["running"])

    def test_a_region_of_other_counts_is_not_fed(self):
        alpha, beta = self.machine("alpha").create(), self.machine("beta").create()
        configured = (beta.folder / "etc/cluster.xml").read_text()
        (beta.folder / "etc/cluster.xml").write_text(configured.replace("<hbr>3", "<hbr>2"))
        before = beta.api.ok("shmnm_getmaxvalue_ex")
        alpha.api.ok("shmnm_setnodestat", "alpha", 1)
        alpha.start()
        beta.start()
        until(lambda: beta.status().get("running") and beta.freshness("alpha"), "the bridge knows of alpha")
        until(lambda: "nothing is fed into it until they are equal" in beta.bridge.logged(), "what is wrong is said")
        self.assertEqual(beta.status()["fed"], False)
        self.assertEqual(beta.run("status").status, 1)
        self.assertIn("wrong  the region has servers 4, hb 3, np 2, fst 1, this machine's configuration has servers 4, hb 2, np 2, fst 1;", beta.run("check").out)
        # alpha's words came with the claim that beta has read; a feed would have followed within two looks.
        alpha.waits_for_freshness("beta", "fresh")
        self.assertEqual(beta.get("shmnm_getnodestat", "alpha"), [2])
        self.assertEqual(beta.api.ok("shmnm_getmaxvalue_ex"), before)
        (beta.folder / "etc/cluster.xml").write_text("<root><all>")
        until(lambda: "configuration cannot be read: nothing is fed" in beta.bridge.logged(), "a damaged file is named")
        self.assertEqual(beta.status()["fed"], False)
        self.assertIn("wrong  this machine's configuration cannot be read", beta.run("check").out)
        (beta.folder / "etc/cluster.xml").write_text(configured)
        beta.waits_for(1, "shmnm_getnodestat", "alpha")
        until(lambda: "the region is bridged" in beta.bridge.logged(), "it is said")

    def test_what_others_write_to_etcd_reaches_no_terminal_as_it_is(self):
        alpha = self.machine("alpha").create()
        self.put(b"claim/alpha", json.dumps({"host": "a\n\x1b[31mb", "run": "x.1", "address": ""}).encode())
        self.put(b"claim/beta", json.dumps({"host": "h", "run": "x.1", "address": "http://b\x1b" + "\u00e9" * 200}).encode())
        self.put(b"claim/\x1b[31m\xff", json.dumps({"host": "h", "run": "x.1", "address": ""}).encode())
        alpha.start()
        until(lambda: alpha.status().get("refused"), "the refusal")
        until(lambda: "another machine (host a%0A%1B[31mb) has claimed the name alpha" in alpha.bridge.logged(), alpha.bridge.logged)
        text, document = alpha.run("status"), alpha.run("status", "--format", "json")
        self.assertEqual((text.status, document.status), (1, 1))
        for output in (text.out, document.out, alpha.bridge.logged()):
            self.assertTrue(output.replace("\n", "").replace("\r", "").isprintable(), output)
            self.assertNotIn("\xff", output)

    def test_without_etcd_every_call_has_the_same_result(self):
        nobody = [f"http://127.0.0.1:{port}" for port in etcd_support.free_ports(2)]
        alone, bridged = self.machine("alpha", nobody).create(), self.machine("alpha", nobody).create()
        bridged.start()
        until(lambda: bridged.status().get("up"), "the bridge runs")
        # The lock is waited for: the bridge may hold it for a moment.
        calls = [("shmnm_setnodestat", "alpha", 1), ("shmnm_setnodestat", "beta", 1), ("shmnm_setnodestat", "gamma", 1), ("shmnm_setclstat", 3),
                 ("shmnm_sethbinfo_ex", 0, 1), ("shmnm_sethbinfo_ex", 2, 3), ("shmnm_addnode", "gamma", 2), ("shmnm_addnode", "gamma", 2),
                 ("shmnm_sethbrscstat", "lan", "lan1", 6), ("shmnm_sethbrscsvstat", "lan", "lan1", 1, 5), ("shmnm_rwlock", 10_000),
                 ("shmnm_rwlock", 0), ("shmnm_rwunlock",), ("shmnm_rwunlock",), ("shmnm_settypehbstat", "lan", 4), ("shmnm_rmnode", "beta"),
                 ("shmnm_getclstat",), ("shmnm_getnodestat", "alpha"), ("shmnm_clear",), ("shmnm_addnode", "alpha", 0), ("shmnm_setnodestat", "alpha", 1)]
        for _ in range(5):
            for call in calls:
                self.assertEqual(bridged.api.call(*call), alone.api.call(*call), call)
        self.assertEqual(bridged.words(), alone.words())
        self.assertEqual(bridged.status()["connected"], False)
        self.assertEqual(bridged.run("status").status, 1)

    def test_an_etcd_that_hangs_delays_no_look_and_is_found_again(self):
        etcd = etcd_support.Cluster(self.addCleanup)
        alpha, beta = self.machine("alpha", etcd.endpoints).create(), self.machine("beta", etcd.endpoints).create()
        alpha.start()
        beta.start()
        alpha.waits_for_freshness("beta", "fresh")
        etcd.members[0].stop()
        try:
            until(lambda: not alpha.status().get("connected", True), "it notices")
            # The marks would stand still, and show no bridge.
            status = alpha.status()
            self.assertEqual((status["up"], alpha.freshness("beta")), (True, "unknown"))
            alpha.api.ok("shmnm_setnodestat", "alpha", 1)
            until(lambda: "cut off from etcd" in alpha.bridge.logged(), alpha.bridge.logged)
        finally:
            etcd.members[0].go_on()
        beta.waits_for(1, "shmnm_getnodestat", "alpha")
        alpha.waits_for_freshness("beta", "fresh")
        self.assertEqual(alpha.bridge.logged().count("cut off from etcd"), 1)

    def test_etcds_trouble_is_logged_when_it_begins_and_when_it_ends(self):
        etcd = etcd_support.Cluster(self.addCleanup)
        proxy = etcd_support.Proxy(self, etcd.members[0].port)
        alpha = self.machine("alpha", [proxy.endpoint]).create()
        alpha.start()
        until(lambda: alpha.status().get("connected"), "it is connected")
        for times in (1, 2):
            proxy.holds_answers, tries = True, proxy.accepted + 5
            proxy.cut()
            until(lambda: proxy.accepted > tries and not alpha.status()["connected"], "five requests have failed")
            self.assertEqual([alpha.bridge.logged().count(line) for line in ("etcd failed to answer: ", "cut off from etcd (", "etcd answers again; ")], [times, times, times - 1])
            proxy.holds_answers = False
            proxy.cut()
            until(lambda: alpha.bridge.logged().count("etcd answers again; ") == times, alpha.bridge.logged)
            until(lambda: alpha.bridge.logged().count("connected to etcd at ") == times + 1, alpha.bridge.logged)
        log = alpha.bridge.logged()
        self.assertRegex(log, r"etcd failed to answer: \w.*\n")
        self.assertRegex(log, r"cut off from etcd \(\w.*\): the other machines' words stay as they are\r?\n")
        self.assertRegex(log, r"etcd answers again; requests that failed: \d+ within \d+\.\d s, the last one because: \w.*\n")
        self.assertEqual((log.count("etcd failed to answer: "), log.count("cut off from etcd (")), (2, 2))

    def test_a_machine_that_is_cut_off_keeps_words_or_resets_them_as_configured(self):
        etcd = etcd_support.Cluster(self.addCleanup)
        alpha, beta = self.machine("alpha", etcd.endpoints, reset_when_cut_off=1).create(), self.machine("beta", etcd.endpoints).create()
        alpha.start()
        beta.start()
        for machine, other, priority in ((alpha, beta, 1), (beta, alpha, 0)):
            other.api.ok("shmnm_setnodestat", other.server, 1)
            other.api.ok("shmnm_sethbrscsvstat", "lan", "lan1", priority, 7)
            other.api.ok("shmnm_setpingstat", other.server, 5)
            machine.waits_for(5, "shmnm_getpingstat", other.server)
            machine.waits_for(7, "shmnm_gethbrscsvstat", "lan", "lan1", priority)
        etcd.members[0].stop()
        try:
            alpha.waits_for(2, "shmnm_getnodestat", "beta")
            alpha.waits_for(2, "shmnm_gethbrscsvstat", "lan", "lan1", 1)
            until(lambda: "the other machines' states are set to unknown" in alpha.bridge.logged(), "it is said")
            until(lambda: not beta.status().get("connected", True), "beta notices too")
            self.assertEqual((alpha.freshness("beta"), beta.freshness("alpha")), ("unknown", "unknown"))
            self.assertEqual(alpha.get("shmnm_getpingstat", "beta"), [5], "only states can be unknown")
            self.assertEqual(beta.get("shmnm_getnodestat", "alpha"), [1])
            self.assertEqual(beta.get("shmnm_gethbrscsvstat", "lan", "lan1", 0), [7])
        finally:
            etcd.members[0].go_on()
        alpha.waits_for(1, "shmnm_getnodestat", "beta")
        alpha.waits_for(7, "shmnm_gethbrscsvstat", "lan", "lan1", 1)

    def test_changes_are_gathered_for_as_long_as_configured(self):
        alpha = self.machine("alpha", gather_ms=500).create()
        alpha.start()
        until(lambda: "state/alpha" in self.keys(), "the claim")

        def changed():
            alpha.api.ok("shmnm_setpingstat", "alpha", next(values))
            return json.loads(self.keys()["state/alpha"])["seq"]

        values = itertools.count(1)
        first, begin = changed(), time.monotonic()
        until(lambda: changed() >= first + 6, "six more writes")
        # The first of them may follow at once, the second with the next beat; any may come late, but none early.
        self.assertGreater(time.monotonic() - begin, 3 * 0.5)

    def test_machines_with_other_times_are_named(self):
        alpha, beta = self.machine("alpha").create(), self.machine("beta", gather_ms=200).create()
        alpha.start()
        beta.start()
        for machine, other in ((alpha, "beta"), (beta, "alpha")):
            until(lambda: [each["other_times"] for each in machine.status().get("servers", [])] == [True], "the times differ")
            until(lambda: f"the bridge of {other} has window_ms 600 and gather_ms " in machine.bridge.logged(), machine.bridge.logged)
            self.assertIn("its bridge has another window_ms or gather_ms", machine.run("status").out)

    def test_servers_without_room_for_a_mark_are_counted(self):
        alpha, beta = self.machine("alpha").create(), self.machine("beta").create()
        for number in range(300):
            self.put(f"claim/a{number}".encode(), json.dumps({"host": "h", "run": "x.1", "address": ""}).encode())
        beta.start()
        alpha.start()
        until(lambda: "only 256 servers can be marked" in alpha.bridge.logged(), "it is said")
        alpha.waits_for_freshness("beta", "fresh")
        status = alpha.status()
        self.assertEqual((len(status["servers"]), status["lost_servers"], status["all_fresh"]), (256, 45, False))
        text = alpha.run("status")
        self.assertEqual((text.status, text.lines[-1]), (1, "and 45 more servers, which cannot be marked"))
        self.assertEqual(alpha.bridge.logged().count("only 256 servers"), 1)

    def test_a_local_word_stays_local(self):
        alpha, beta = self.machine("alpha", local="bwflag").create(), self.machine("beta").create()
        alpha.start()
        beta.start()
        alpha.waits_for_freshness("beta", "fresh")
        alpha.api.ok("shmnm_setbwflag", 6)
        alpha.api.ok("shmnm_setwaitstat", 3)
        beta.waits_for(3, "shmnm_getwaitstat")
        self.assertEqual(beta.get("shmnm_getbwflag"), [0])

    def test_without_a_region_it_waits_for_one(self):
        alpha = self.machine("alpha")
        alpha.start()
        until(lambda: "no process holds the region" in alpha.bridge.logged(), "it is said")
        alpha.create(servers=("beta",))
        until(lambda: "the region has no server alpha" in alpha.bridge.logged(), "it is said")
        self.assertEqual(self.keys(), {})
        alpha.api.ok("shmnm_addnode", "alpha", 1)
        until(lambda: "claim/alpha" in self.keys(), "the claim")
        until(lambda: "the region is bridged" in alpha.bridge.logged(), alpha.bridge.logged)
        until(lambda: alpha.status().get("connected"), "it is connected")
        alpha.api.ok("shmnm_rmnode", "alpha")
        until(lambda: "not connected: no beat is written without a copy of the region that has the server alpha" in alpha.bridge.logged(), "it is said")
        self.assertNotIn("cut off from etcd", alpha.bridge.logged())


class SecuredRun(BridgeTest):
    """With an etcd that speaks TLS and asks for a password."""

    @classmethod
    def setUpClass(cls):
        pass

    def setUp(self):
        super().setUp()
        folder = pathlib.Path(tempfile.mkdtemp(prefix="etcd-"))
        self.addCleanup(shutil.rmtree, folder, ignore_errors=True)
        self.authority, self.stranger = certificates.Authority(folder, "authority"), certificates.Authority(folder, "stranger")
        made = self.authority.sign("server", "DNS:localhost")
        port, peer = etcd_support.free_ports(2)
        # Its own gateway is a client of it, and does not know the authority.
        options = ["--cert-file", str(made.certificate), "--key-file", str(made.key)]
        self.member = etcd_support.Member("tls", folder, port, peer, f"tls=http://127.0.0.1:{peer}", options, "https")
        self.member.context = ssl.create_default_context(cafile=self.authority.certificate)
        self.member.context.check_hostname = False
        self.addCleanup(self.member.log.close)
        self.addCleanup(self.member.kill)
        self.member.start()
        self.member.wait_until_serves()
        for target, body in (("user/add", {"name": "root", "password": "root"}), ("role/add", {"name": "root"}),
                             ("user/grant", {"user": "root", "role": "root"}), ("auth/enable", {})):
            status, answer = self.member.post("/v3/auth/" + target.removeprefix("auth/"), body)
            self.assertEqual(status, 200, answer)

    def secured(self, server, authority, password):
        etcd = f"<authorities>{etcd_support.path(authority.certificate)}</authorities><user>root</user><password_file>password</password_file>"
        machine = self.machine(server, [f"https://localhost:{self.member.port}"], etcd=etcd)
        file = machine.folder / "etc/password"
        file.write_text(password + "\n")
        file.chmod(0o600)
        return machine.create()

    def test_two_machines_converge(self):
        alpha, beta = (self.secured(server, self.authority, "root") for server in ("alpha", "beta"))
        self.assertEqual(alpha.run("check").status, 0, alpha.run("check").out)
        for machine in (alpha, beta):
            machine.start()
        alpha.api.ok("shmnm_setnodestat", "alpha", 1)
        beta.waits_for(1, "shmnm_getnodestat", "alpha")
        beta.waits_for_freshness("alpha", "fresh")
        alpha.waits_for_freshness("beta", "fresh")
        self.assertEqual(alpha.run("status").status, 0)

    def test_a_stranger_and_a_wrong_password_are_named_and_nothing_is_fed(self):
        alpha = self.secured("alpha", self.authority, "root")
        alpha.start()
        alpha.api.ok("shmnm_setnodestat", "alpha", 1)
        for authority, password, reason in ((self.stranger, "root", "its certificate is refused"), (self.authority, "another one", "password")):
            beta = self.secured("beta", authority, password)
            check = beta.run("check")
            self.assertEqual(check.status, 1, check.out)
            self.assertRegex(check.out, f"wrong  https://localhost:\\d+: [^/]*{reason}")
            beta.start()
            until(lambda: reason in beta.bridge.logged(), "the trouble is logged")
            self.assertEqual(beta.status()["connected"], False)
            self.assertNotIn("another one", check.out + beta.bridge.logged())
            self.assertEqual(beta.get("shmnm_getnodestat", "alpha"), [2])
            beta.bridge.end()


class LinuxRun(BridgeTest):
    def test_it_ends_in_time_although_etcd_hangs(self):
        etcd = etcd_support.Cluster(self.addCleanup)
        alpha = self.machine("alpha", etcd.endpoints).create()
        alpha.start()
        until(lambda: alpha.status().get("running"), "the claim")
        etcd.members[0].stop()
        self.addCleanup(etcd.members[0].go_on)
        self.assertEqual(alpha.bridge.end(signal.SIGINT), 0)
        until(lambda: "etcd has not confirmed the end in time: the claim ends with its lease" in alpha.bridge.logged(), alpha.bridge.logged)

    def test_it_tells_the_service_manager_how_it_is(self):
        alpha = self.machine("alpha").create()
        manager = socket.socket(socket.AF_UNIX, socket.SOCK_DGRAM)
        self.addCleanup(manager.close)
        manager.settimeout(bridge_support.DEADLINE)
        manager.bind(str(alpha.folder / "notify"))
        alpha.start(NOTIFY_SOCKET=str(alpha.folder / "notify"), WATCHDOG_USEC="200000")
        told = [manager.recv(100).decode() for _ in range(5)]
        self.assertEqual(told, ["READY=1"] + 4 * ["WATCHDOG=1"])
        alpha.bridge.process.send_signal(signal.SIGTERM)
        while told[-1] == "WATCHDOG=1":
            told.append(manager.recv(100).decode())
        self.assertEqual(told[-1], "STOPPING=1")
        self.assertEqual(alpha.bridge.process.wait(bridge_support.DEADLINE), 0)


class WindowsRun(BridgeTest):
    def test_ctrl_c_ends_it_cleanly(self):
        alpha = self.machine("alpha").create()
        said = alpha.folder / "said"
        # To a file: wine may start a process for the console that keeps the output open for long.
        with said.open("wb") as output:
            command = [*support.program("console_interrupt"), *support.native_program("shmnmbridge"), "run"]
            done = subprocess.run(command, env=alpha.environment, stdin=subprocess.DEVNULL, stdout=output, stderr=output, timeout=bridge_support.DEADLINE)
        self.assertEqual(done.returncode, 0, said.read_text())
        self.assertIn(f"ready: server alpha of cluster {self.cluster}", said.read_text().splitlines())
        self.assertEqual(self.keys(), {})


if PLATFORM == "windows":
    del LinuxRun
else:
    del WindowsRun

if __name__ == "__main__":
    bridge_support.main()
