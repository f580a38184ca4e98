"""shmnmctl --from: the commands that read, over a server of shmnmweb."""
import contextlib
import json
import re
import socket
import threading
import time

import web_support
from terminal import Terminal
from web_support import WebTest, support


class From(WebTest):
    def setUp(self):
        super().setUp()
        self.region_holder = self.cluster()
        self.region_holder.ok("shmnm_setnodestat", "alpha", 1)
        self.region_holder.ok("shmnm_sethbdescript", "lan", "lanhb1", b"text" + bytes(252), 256)
        self.web = self.serve()
        self.address = f"http://127.0.0.1:{self.web.address[1]}"
        # As on another machine, which has no region.
        self.elsewhere = dict(self.environment, KZMUTIL_NAMESPACE=self.environment["KZMUTIL_NAMESPACE"] + "elsewhere-")

    def there(self, *arguments, **options):
        return self.tool("--from", self.address, *arguments, environment=self.elsewhere, **options)

    def test_every_reading_command_says_what_it_says_here(self):
        dump = self.folder / "dump"
        self.region_holder.ok("shmnm_setpingstat", "beta", 3)
        self.shown(self.web)
        exported, changed = self.folder / "export", self.folder / "changed"
        exported.write_bytes(self.tool("export").raw)
        changed.write_text(exported.read_text().replace('"pingstat":3', '"pingstat":4'))
        exported, changed = support.path(exported), support.path(changed)
        for command in (["status"], ["status", "--format", "json"], ["list"], ["list", "servers", "--format", "json"], ["get", "servers/alpha/nodestat"],
                        ["get", "no/such/key"], ["dump", "-"], ["verify"], ["verify", "--format", "json"], ["export"],
                        ["query", "cluster/alive=1"], ["query", "cluster/alive=0"], ["wait", "cluster/alive=1"], ["wait", "--timeout", "1ms", "cluster/alive=0"],
                        ["status", "servers"], ["status", "hb/lan", "cluster"], ["status", "--only", "nodestat!=1"], ["status", "servers", "--only", "nodestat=7"],
                        ["status", "--format", "json", "--only", "pingstat=3"], ["diff", "live", exported], ["diff", exported, "live"], ["diff", "live", changed],
                        ["diff", changed, "live", "--format", "json"], ["diff", "live", "live"]):
            with self.subTest(command):
                here, there = self.tool(*command), self.there(*command)
                self.assertEqual((there.status, there.raw, there.err), (here.status, here.raw, here.err))
        self.assertEqual(self.there("diff", "live", changed).out, "servers/beta/pingstat 3 -> 4\n")
        self.assertEqual(self.there("diff", changed, "live").out, "servers/beta/pingstat 4 -> 3\n")
        self.assertEqual(self.there("dump", support.path(dump)).status, 0)
        self.assertEqual(dump.read_bytes(), self.dumped())

    def test_the_option_may_stand_after_the_command(self):
        self.assertEqual(self.tool("get", "cluster/alive", "--from", self.address).out, "1\n")

    def test_verify_finds_what_is_wrong_there(self):
        self.region_holder.ok("shmnm_setmaxvalue_ex", 2, 3, 2)
        here, there = self.tool("verify"), self.there("verify")
        self.assertEqual((there.status, there.raw, there.err), (here.status, here.raw, here.err))
        self.assertEqual(there.status, 1)

    def test_a_status_that_repeats_itself_follows_the_server(self):
        for options, first in ((("--format", "json"), self.tool("status", "--format", "json").raw), (("cluster",), None)):
            with self.subTest(options):
                value = 5 if first else 6
                status = self.start("--from", self.address, "status", "--watch", "10ms", *options, environment=self.elsewhere)
                line = status.stdout.readline()
                self.assertTrue(line == first if first else b"every 10ms" in line, line)
                self.region_holder.ok("shmnm_setclstat", value)
                while not re.search(rb'"clstat":5' if first else rb"clstat +6", status.stdout.readline()):
                    pass

    def test_a_screen_shows_the_server(self):
        self.environment = self.elsewhere
        terminal = Terminal(self, 100, 30, "--from", self.address, "status", "--watch", "50ms")
        terminal.wait_for(lambda shown: any("alpha" in line for line in shown.lines))
        self.region_holder.ok("shmnm_setclstat", 9)
        terminal.wait_for(lambda shown: re.search(r"clstat +9", "\n".join(shown.lines)))
        terminal.press("q")
        self.assertEqual(terminal.read_to_end(), 0)

    def test_keys_of_the_server_are_completed(self):
        for options in (["--from", self.address], ["--from=" + self.address]):
            with self.subTest(options):
                # An answer that comes too late for one TAB is offered at a later one.
                end = time.monotonic() + web_support.DEADLINE
                while not (offered := self.tool("__complete", *options, "get", "=servers/b", environment=self.elsewhere).lines):
                    self.assertLess(time.monotonic(), end)
                self.assertEqual([line.split("\t")[0] for line in offered], ["servers/beta/"])
        # A server that does not answer delays no key for long.
        with socket.create_server(("127.0.0.1", 0)) as silent:
            result = self.tool("__complete", "--from", f"http://127.0.0.1:{silent.getsockname()[1]}", "get", "=servers/b", environment=self.elsewhere)
            self.assertEqual((result.status, result.raw, result.err), (0, b"", ""))

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
        self.assertEqual(wait.wait(support.DEADLINE), 0)
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
                        ["describe", "hb", "lan", "lanhb1"], ["simulate", "off"], ["clear", "--yes"], ["repair"], ["holders"], ["lock", "--who"], ["lock", "--", "true"], ["serve"],
                        ["apply", "file"], ["apply", "--dry-run", "file"], ["remove", "hb", "lan", "lanhb1"], ["simulate", "on", "alpha"], ["repair", "--discard"]):
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

    def test_what_belongs_to_other_sources_is_wrong_usage(self):
        here = ("status", "--file", "x")
        for options, error in (
                (["--from", self.address, *here], "a dump and a server were named; use --file or --from"),
                (["--from", self.address, "verify", "--config", "x"], "a configuration and a server were named; use --config or --from"),
                (["--ca-file", "x", "status"], "--ca-file, --cert and --key are for a server; name it by --from https://HOST:PORT"),
                (["--cert", "x", *here], "--ca-file, --cert and --key are for a server; name it by --from https://HOST:PORT"),
                *((["--from", self.address, option, "x", "status"],
                   f"authorities, a certificate or a key were named, but {self.address} does not use them; name the server as https://HOST:PORT")
                  for option in ("--ca-file", "--cert", "--key"))):
            with self.subTest(options):
                result = self.tool(*options)
                self.assertEqual((result.status, result.raw, result.err), (2, b"", f"shmnmctl: {error}\n"))

    def test_a_server_that_is_late_is_given_up(self):
        def silent(connection):
            while connection.recv(4096):
                pass

        def dribbling(start):
            def answer(connection):
                connection.sendall(start)
                # Each byte comes in good time.
                connection.settimeout(0.05)
                while True:
                    try:
                        if not connection.recv(4096):
                            return
                    except socket.timeout:
                        connection.sendall(b"x")
            return answer

        with socket.create_server(("127.0.0.1", 0)) as listener:
            address = f"http://127.0.0.1:{listener.getsockname()[1]}"
            for name, answer in (("silent", silent), ("head", dribbling(b"HTTP/1.1 200 OK\r\nX: ")),
                                 ("body", dribbling(b"HTTP/1.1 200 OK\r\nContent-Length: 100000\r\n\r\n{"))):
                with self.subTest(name):
                    def serve():
                        connection, _ = listener.accept()
                        with connection, contextlib.suppress(OSError):
                            answer(connection)
                    server = threading.Thread(target=serve)
                    server.start()
                    self.late("--from", address)
                    server.join()

    def test_a_server_that_accepts_no_connection_is_given_up(self):
        # The system answers for as many connections as wait to be accepted; the next one gets no answer.
        with socket.socket() as listener:
            listener.bind(("127.0.0.1", 0))
            listener.listen(0)
            waiting = []
            while True:
                waiting.append(socket.socket())
                waiting[-1].settimeout(0.5)
                try:
                    waiting[-1].connect(listener.getsockname())
                except socket.timeout:
                    break
            self.late("--from", f"http://127.0.0.1:{listener.getsockname()[1]}")
            for connection in waiting:
                connection.close()

    def late(self, *options):
        result = self.tool(*options, "--server-timeout", "300ms", "status")
        self.assertEqual((result.status, result.raw), (5, b""))
        self.assertRegex(result.err, "does not answer")

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
