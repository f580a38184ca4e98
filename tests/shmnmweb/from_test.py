"""shmnmctl --from: the commands that read, over a server of shmnmweb."""
import json
import socket
import threading

import web_support
from web_support import WebTest, support


class From(WebTest):
    def setUp(self):
        super().setUp()
        self.region_holder = self.cluster()
        self.region_holder.ok("shmnm_setnodestat", "alpha", 1)
        self.region_holder.ok("shmnm_sethbdescript", "lan", "lanhb1", b"text" + bytes(252), 256)
        self.web = self.serve()
        self.address = f"http://127.0.0.1:{self.web.address[1]}"

    def there(self, *arguments, **options):
        return self.tool("--from", self.address, *arguments, **options)

    def test_every_reading_command_says_what_it_says_here(self):
        dump = self.folder / "dump"
        for command in (["status"], ["status", "--format", "json"], ["list"], ["list", "servers", "--format", "json"], ["get", "servers/alpha/nodestat"],
                        ["get", "no/such/key"], ["dump", "-"], ["verify"], ["export"], ["query", "cluster/alive=1"], ["query", "cluster/alive=0"],
                        ["wait", "cluster/alive=1"], ["wait", "--timeout", "1ms", "cluster/alive=0"]):
            with self.subTest(command):
                here, there = self.tool(*command), self.there(*command)
                self.assertEqual((there.status, there.raw, there.err), (here.status, here.raw, here.err))
        self.assertEqual(self.there("dump", support.path(dump)).status, 0)
        self.assertEqual(dump.read_bytes(), self.dumped())

    def test_the_option_may_stand_after_the_command(self):
        self.assertEqual(self.tool("get", "cluster/alive", "--from", self.address).out, "1\n")

    def test_watch_tells_each_change(self):
        watch = self.start("--from", self.address, "watch", "cluster", "--format", "json", "--from-start")
        while json.loads(watch.stdout.readline())["key"] != "cluster/alive":
            pass
        for value in (1, 2, 3):
            self.region_holder.ok("shmnm_setclstat", value)
            while (event := json.loads(watch.stdout.readline()))["kind"] != "change":
                pass
            self.assertEqual((event["key"], event["new"]), ("cluster/clstat", value))

    def test_wait_returns_when_the_condition_holds(self):
        wait = self.start("--from", self.address, "wait", "--interval", "1h", "cluster/clstat=4")
        timer = threading.Timer(0, lambda: [self.region_holder.ok("shmnm_setclstat", value) for value in (1, 4)])
        timer.start()
        self.assertEqual(wait.wait(60), 0)
        timer.join()

    def test_a_region_that_is_not_there_is_told_as_here(self):
        self.region_holder.end()
        self.web.until("/healthz", lambda answer: answer.status == 503)
        here, there = self.tool("status"), self.there("status")
        self.assertEqual((there.status, there.err), (here.status, here.err))
        self.assertEqual(there.status, 3)

    def test_every_command_that_changes_or_needs_this_machine_refuses(self):
        before = self.dumped()
        for command in (["set", "cluster/clstat", "1"], ["add", "server", "delta", "5"], ["remove", "server", "alpha"], ["modify", "server", "alpha", "5"],
                        ["describe", "hb", "lan", "lanhb1"], ["simulate", "off"], ["clear", "--yes"], ["repair"], ["holders"], ["lock", "--who"], ["lock", "--", "true"], ["serve"]):
            with self.subTest(command):
                result = self.there(*command)
                self.assertEqual((result.status, result.raw), (2, b""))
                self.assertEqual(result.err, f'shmnmctl: "{command[0]}" needs the region of this machine: run it there, without --from\n')
        self.assertEqual(self.dumped(), before)

    def test_wrong_addresses_are_wrong_usage(self):
        for address in ("localhost:9683", "http://", "http://host:0", "http://host:x", "http://a b:1", "ftp://host", "http://host/path",
                        *(("unix:/x", "https://localhost:1") if support.PLATFORM == "windows" else ("unix:",))):
            with self.subTest(address):
                result = self.tool("--from", address, "status")
                self.assertEqual((result.status, result.err.startswith("shmnmctl: invalid address")), (2, True), result)

    def test_a_dump_and_a_server_are_wrong_usage(self):
        result = self.there("status", "--file", "x")
        self.assertEqual((result.status, result.err), (2, "shmnmctl: a dump and a server were named; use --file or --from\n"))

    def test_no_server_and_wrong_answers_are_failures(self):
        self.web.end()
        result = self.there("status")
        self.assertEqual((result.status, result.raw), (5, b""))
        self.assertIn("cannot speak with the server: ", result.err)
        with socket.create_server(("127.0.0.1", 0)) as listener:
            address = f"http://127.0.0.1:{listener.getsockname()[1]}"
            for answer in (b"", b"nonsense", b"HTTP/1.1 200 OK\r\n\r\n", b"HTTP/1.1 200 OK\r\n\r\n{}\n", b"HTTP/1.1 200 OK\r\nContent-Length: 9\r\n\r\n{}\n",
                           b"HTTP/1.1 500 No\r\n\r\n", b"HTTP/1.1 200 OK\r\nContent-Length: x\r\n\r\n", b"HTTP/1.1 200 OK\r\n" + b"a: b\r\n" * 20000,
                           b'HTTP/1.1 200 OK\r\n\r\n{"version":1,"kind":"snapshot"}\n'):
                with self.subTest(answer[:80]):
                    def serve():
                        connection, _ = listener.accept()
                        with connection:
                            connection.recv(4096)
                            try:
                                connection.sendall(answer)
                            except OSError:
                                pass
                    server = threading.Thread(target=serve)
                    server.start()
                    result = self.tool("--from", address, "status")
                    server.join()
                    self.assertEqual((result.status, result.raw), (5, b""))
                    self.assertRegex(result.err, "answer|server")

    def test_a_front_end_shows_what_another_server_shows(self):
        front = self.serve("--from", self.address)
        self.assertEqual(front.get("/picture.json").body, self.tool("status", "--format", "json").raw)
        stream = self.stream(front)
        stream.next()
        self.region_holder.ok("shmnm_setclstat", 8)
        self.assertEqual(stream.next()[2]["changes"], [{"key": "cluster/clstat", "old": 0, "new": 8}])
        self.assertEqual(front.get("/dump").body, self.dumped())


if __name__ == "__main__":
    web_support.main()
