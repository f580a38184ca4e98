"""The example for HAProxy, run by the packaged one before a real shmnmweb: what clients get through it, and who does not.

    proxy_test.py linux FOLDER [unittest arguments]      FOLDER holds the programs; run as root
"""
import json
import os
import pathlib
import re
import socket
import ssl
import subprocess
import sys
import warnings

PROJECT = pathlib.Path(__file__).resolve().parents[2]
sys.path.insert(0, str(PROJECT / "tests/shmnmweb"))
import web_support  # noqa: E402
from certificates import Authority  # noqa: E402
from web_support import DEADLINE, WebTest  # noqa: E402

EXAMPLE = (PROJECT / "examples/haproxy/haproxy.cfg").read_text()
READERS = 54400


class Proxy(WebTest):
    def setUp(self):
        super().setUp()
        self.folder.chmod(0o755)
        self.region_holder = self.cluster()
        self.region_holder.ok("shmnm_setnodestat", "alpha", 1)
        self.path = self.folder / "web.sock"
        self.servers, self.operators = Authority(self.folder, "servers"), Authority(self.folder, "operators")
        self.operator = self.operators.sign("operator")
        self.start_server()
        self.start_proxy()

    def start_server(self):
        self.server = web_support.Server(self, "--socket", self.path, "--max-connections-per-client", 1000)
        os.chown(self.path, 0, READERS)

    def start_proxy(self):
        """Runs the example as it stands, but for names and places that this machine does not have."""
        listener = socket.create_server(("127.0.0.1", 0), backlog=128)
        self.address = listener.getsockname()
        self.url = f"https://localhost:{self.address[1]}"
        text = EXAMPLE
        for there, here in (("group shmnm-readers", f"gid {READERS}"), ("bind 192.0.2.1:9684", f"bind fd@{listener.fileno()}"),
                            ("/etc/haproxy/shmnm/server.pem", self.servers.sign("server", "DNS:localhost").both),
                            ("/etc/haproxy/shmnm/operators.pem", self.operators.certificate), ("unix@/run/shmnmweb.sock", f"unix@{self.path}"),
                            ("-i picture.example.org", "-i localhost")):
            self.assertIn(there, text)
            text = text.replace(there, str(here))
        configuration = self.folder / "haproxy.cfg"
        configuration.write_text(text)
        log = open(self.folder / "haproxy.log", "w")
        self.proxy = subprocess.Popen(["/usr/sbin/haproxy", "-db", "-f", configuration], pass_fds=[listener.fileno()], stdin=subprocess.DEVNULL, stdout=log, stderr=log)
        log.close()
        listener.close()

        def end():
            self.assertIsNone(self.proxy.poll(), (self.folder / "haproxy.log").read_text())
            self.proxy.kill()
            self.proxy.wait()

        self.addCleanup(end)

    def credentials(self):
        return ("--from", self.url, "--ca-file", self.servers.certificate, "--cert", self.operator.both)

    def there(self, *arguments):
        return self.tool(*self.credentials(), *arguments)

    def curl_arguments(self, target, *options):
        return ["curl", "--silent", "--show-error", "--max-time", "60", "--cacert", self.servers.certificate, "--cert", self.operator.both, *options, self.url + target]

    def curl(self, target, *options):
        """The status and the body, or 0 and why there is none."""
        done = subprocess.run(self.curl_arguments(target, "--write-out", "\n%{http_code}", *options), capture_output=True, timeout=DEADLINE)
        body, _, status = done.stdout.rpartition(b"\n")
        return int(status), body if done.returncode == 0 else done.stderr

    def test_every_reading_command_says_what_it_says_here(self):
        for command in (["status"], ["status", "--format", "json"], ["list"], ["get", "servers/alpha/nodestat"], ["dump", "-"], ["verify"], ["export"],
                        ["query", "cluster/alive=1"], ["query", "cluster/alive=0"], ["wait", "cluster/alive=1"]):
            with self.subTest(command):
                here, there = self.tool(*command), self.there(*command)
                self.assertEqual((there.status, there.raw, there.err), (here.status, here.raw, here.err))

    def test_curl_is_answered_as_by_the_server_itself(self):
        self.assertEqual(self.curl("/picture.json"), (200, self.tool("status", "--format", "json").raw))
        self.assertEqual(self.curl("/dump"), (200, self.dumped()))
        self.assertEqual(self.curl("/servers/beta/alive")[0], 503)
        self.assertEqual(self.curl("/nothing")[0], 404)
        status, body = self.curl("/picture.json", "--data", "x")
        self.assertEqual((status, json.loads(body)["message"]), (405, "shmnmweb only reads; use GET or HEAD"))

    def test_only_clients_with_a_certificate_of_the_operators_are_served(self):
        for name, identity in (("none", None), ("of another authority", self.servers.sign("intruder")), ("expired", self.operators.sign("former", days=-1))):
            with self.subTest(name):
                result = self.tool("--from", self.url, "--ca-file", self.servers.certificate, *(("--cert", identity.both) if identity else ()), "status")
                self.assertEqual((result.status, result.raw), (5, b""))
                self.assertRegex(result.err, "it refuses this client: .*; see --cert and --key")
                options = ["--cert", identity.both] if identity else []
                done = subprocess.run(["curl", "--silent", "--cacert", self.servers.certificate, *options, self.url + "/"], capture_output=True, timeout=DEADLINE)
                self.assertNotEqual(done.returncode, 0)
                self.assertEqual(done.stdout, b"")

    def test_versions_before_1_2_are_refused(self):
        context = ssl.create_default_context(cafile=self.servers.certificate)
        context.load_cert_chain(self.operator.certificate, self.operator.key)
        for version, is_served in (("TLSv1_1", False), ("TLSv1_2", True), ("TLSv1_3", True)):
            with self.subTest(version), socket.create_connection(self.address, timeout=DEADLINE) as plain:
                context.set_ciphers("ALL:@SECLEVEL=0")
                with warnings.catch_warnings():
                    warnings.simplefilter("ignore", DeprecationWarning)
                    context.minimum_version, context.maximum_version = ssl.TLSVersion.TLSv1, getattr(ssl.TLSVersion, version)
                try:
                    with context.wrap_socket(plain, server_hostname="localhost") as client:
                        client.sendall(b"GET /healthz HTTP/1.0\r\nHost: localhost\r\n\r\n")
                        self.assertIn(b"200 OK", client.recv(4096))
                    self.assertTrue(is_served)
                except ssl.SSLError as refused:
                    self.assertFalse(is_served, refused)
                    self.assertIn("ALERT_PROTOCOL_VERSION", str(refused))

    def test_other_names_are_refused(self):
        for host, status in (("evil.test", 421), ("localhost.evil.test", 421), ("127.0.0.1", 421), ("", 421), ("LOCALHOST", 200), ("localhost:1", 200)):
            with self.subTest(host):
                self.assertEqual(self.curl("/healthz", "--header", f"Host: {host}" if host else "Host;")[0], status)

    def test_events_come_at_once_and_the_stream_outlives_its_comments(self):
        stream = subprocess.Popen(self.curl_arguments("/events", "--no-buffer"), stdout=subprocess.PIPE)
        self.addCleanup(stream.communicate)
        self.addCleanup(stream.kill)

        def event(kind):
            while stream.stdout.readline() != f"event: {kind}\n".encode():
                pass
            while not (line := stream.stdout.readline()).startswith(b"data: "):
                pass
            return json.loads(line[6:])

        self.assertEqual(event("picture")["picture"], self.tool("status", "--format", "json").json)
        # Each change is made only when the one before it has arrived: nothing waits for more.
        for value in (1, 2, 3):
            self.region_holder.ok("shmnm_setclstat", value)
            self.assertEqual(event("changes")["changes"], [{"key": "cluster/clstat", "old": value - 1, "new": value}])
        while not (line := stream.stdout.readline()).startswith(b": "):
            self.assertNotEqual(line, b"")
        self.region_holder.ok("shmnm_setclstat", 4)
        self.assertEqual(event("changes")["changes"], [{"key": "cluster/clstat", "old": 3, "new": 4}])
        # Also where the comments alone would keep it open, one may be late.
        times = dict(re.findall(r"timeout (client|server) (\d+)s\n", EXAMPLE))
        self.assertEqual(sorted(times), ["client", "server"])
        for seconds in times.values():
            self.assertGreaterEqual(int(seconds), 2 * 15)

    def test_watch_and_wait_follow_the_changes(self):
        watch = self.start(*self.credentials(), "watch", "cluster/clstat", "--from-start", "--format", "json")
        wait = self.start(*self.credentials(), "wait", "cluster/clstat=6")
        self.assertEqual(json.loads(watch.stdout.readline())["new"], 0)
        self.assertIsNone(wait.poll())
        self.region_holder.ok("shmnm_setclstat", 6)
        while (told := json.loads(watch.stdout.readline()))["kind"] != "change":
            pass
        self.assertEqual((told["old"], told["new"]), (0, 6))
        self.assertEqual(wait.wait(DEADLINE), 0)

    def test_one_address_does_not_take_the_connections_of_others(self):
        context = ssl.create_default_context(cafile=self.servers.certificate)
        context.load_cert_chain(self.operator.certificate, self.operator.key)
        held = []
        for _ in range(64):
            held.append(context.wrap_socket(socket.create_connection(self.address, timeout=DEADLINE), server_hostname="localhost"))
        self.assertEqual(self.curl("/healthz")[0], 0)
        self.assertEqual(self.curl("/healthz", "--interface", "127.0.0.9")[0], 200)
        for connection in held:
            connection.close()
        while self.curl("/healthz")[0] != 200:
            self.assertIsNone(self.proxy.poll())

    def test_a_server_that_was_restarted_is_served_again(self):
        self.server.process.terminate()
        self.assertEqual(self.server.process.wait(DEADLINE), 0)
        self.assertEqual(self.curl("/healthz")[0], 503)
        self.start_server()
        self.assertEqual(self.curl("/healthz")[0], 200)


if __name__ == "__main__":
    web_support.main()
