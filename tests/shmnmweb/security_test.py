"""Who may ask, what a client cannot do, and that bad clients take nothing from good ones."""
import http.client
import json
import pathlib
import socket
import subprocess
import threading

import web_support
from web_support import WebTest, support

GOOD = b"GET /healthz HTTP/1.1\r\nHost: localhost\r\nConnection: close\r\n\r\n"


class Hosts(WebTest):
    def status(self, web, *fields, version=b"1.1"):
        request = b"GET /healthz HTTP/" + version + b"\r\n" + b"".join(field + b"\r\n" for field in fields) + b"Connection: close\r\n\r\n"
        return int(web.raw(request).split(b" ")[1])

    def test_names_of_the_loopback_interface_are_served(self):
        self.cluster()
        web = self.serve()
        for host in (b"localhost", b"LOCALHOST:1", b"127.0.0.1", b"127.1.2.3:9683", b"[::1]", b"[::1]:80", b"localhost:"):
            with self.subTest(host):
                self.assertEqual(self.status(web, b"Host: " + host), 200)

    def test_every_other_name_is_refused(self):
        self.cluster()
        web = self.serve()
        for host in (b"evil.test", b"localhost.evil.test", b"127.0.0.1.evil.test", b"127.0.0", b"127.0.0.256", b"127.1", b"127.0.0.1.", b"0x7f.0.0.1",
                     b"192.0.2.1", b"[::2]", b"[::1", b"::1", b"", b"localhost:x", b"localhost:99999", b"localhost@evil.test", b"evil.test#localhost", b"localhost/x"):
            with self.subTest(host):
                self.assertEqual(self.status(web, b"Host: " + host), 421)
        answer = web.raw(b"GET / HTTP/1.1\r\nHost: evil.test\r\n\r\n")
        self.assertIn(b"ask it as localhost, or start shmnmweb with --allow-host", answer)
        self.assertIn(b"Connection: close", answer)

    def test_an_allowed_name_is_served(self):
        self.cluster()
        web = self.serve("--allow-host", "Picture.example.org", "--allow-host", "[fe80::1]")
        for host, status in ((b"picture.EXAMPLE.org:443", 200), (b"[fe80::1]:80", 200), (b"localhost", 200), (b"example.org", 421)):
            with self.subTest(host):
                self.assertEqual(self.status(web, b"Host: " + host), status)

    def test_only_http_1_0_may_leave_the_host_out(self):
        self.cluster()
        web = self.serve()
        self.assertEqual(self.status(web), 400)
        self.assertEqual(self.status(web, version=b"1.0"), 200)
        self.assertEqual(self.status(web, b"Host: evil.test", version=b"1.0"), 421)

    def test_two_hosts_are_refused(self):
        self.cluster()
        web = self.serve()
        self.assertEqual(self.status(web, b"Host: localhost", b"Host: localhost"), 400)

    def test_no_other_origin_may_read(self):
        self.cluster()
        web = self.serve()
        for path in ("/", "/picture.json", "/metrics", "/snapshot", "/nothing"):
            with self.subTest(path):
                fields = web.get(path, Origin="http://evil.test").fields
                self.assertEqual([name for name in fields if name.lower().startswith("access-control")], [])
                self.assertEqual((fields["Cross-Origin-Resource-Policy"], fields["X-Content-Type-Options"]), ("same-origin", "nosniff"))
                self.assertIn("frame-ancestors 'none'", fields["Content-Security-Policy"])

    def test_other_machines_need_a_word_of_the_operator(self):
        for address in ("0.0.0.0:0", "[::]:0"):
            with self.subTest(address):
                done = subprocess.run(support.program("shmnmweb") + ["--listen", address], capture_output=True, env=self.environment, timeout=support.DEADLINE)
                self.assertEqual((done.returncode, done.stdout), (2, b""))
                self.assertIn(f"other machines can reach {address}, and nothing is encrypted", done.stderr.decode())
        self.cluster()
        web = web_support.Server(self, "--listen", "0.0.0.0:0", "--allow-remote")
        self.assertEqual(web.address[0], "0.0.0.0")
        web.address = ("127.0.0.1", web.address[1])
        self.assertEqual(web.raw(GOOD).split(b" ")[1], b"200")


class BadRequests(WebTest):
    def test_what_is_not_a_request_is_refused_and_the_server_goes_on(self):
        self.cluster()
        web = self.serve()
        for data, status in (
            (b"\r\n\r\n\r\n", 400), (b"\x00\x01\x02\xff\r\n\r\n", 400), (b"GET\r\n\r\n", 400), (b"GET /\r\n\r\n", 400), (b"GET / HTTP/2.0\r\n\r\n", 400),
            (b"GET / HTTP/1.1\nHost: localhost\n\n", 400), (b"GET http://localhost/ HTTP/1.1\r\nHost: localhost\r\n\r\n", 400),
            (b"GET /\x00 HTTP/1.1\r\nHost: localhost\r\n\r\n", 400), (b"GET / HTTP/1.1\r\nHost : localhost\r\n\r\n", 400),
            (b"OPTIONS * HTTP/1.1\r\nHost: localhost\r\n\r\n", 405), (b"GET / HTTP/1.1\r\nHost: localhost\r\nContent-Length: 5\r\n\r\nhello", 400),
            (b"GET / HTTP/1.1\r\nHost: localhost\r\nTransfer-Encoding: chunked\r\n\r\n5\r\nhello\r\n0\r\n\r\n", 400),
            (b"GET / HTTP/1.1\r\nHost: localhost\r\nContent-Length: -1\r\n\r\n", 400),
            (b"POST / HTTP/1.1\r\nHost: localhost\r\nContent-Length: 18446744073709551615\r\n\r\n", 405),
            (b"GET /%00 HTTP/1.1\r\nHost: localhost\r\nConnection: close\r\n\r\n", 404),
            (b"GET /" + b"a" * 9000 + b" HTTP/1.1\r\nHost: localhost\r\n\r\n", 431),
            (b"GET / HTTP/1.1\r\nHost: localhost\r\n" + b"X-Field: value\r\n" * 600 + b"\r\n", 431),
            (b"\x16\x03\x01\x02\x00\x01\x00\x01\xfc\x03\x03" + b"\x00" * 200, 400),
        ):
            with self.subTest(data[:60]):
                answer = web.raw(data)
                self.assertEqual(answer.split(b" ")[1], str(status).encode(), answer[:200])
                document = json.loads(answer.partition(b"\r\n\r\n")[2])
                self.assertEqual(document["kind"], "error")
        self.assertEqual(web.get("/healthz").status, 200)

    def test_a_client_that_closes_its_half_is_answered_still(self):
        self.cluster()
        web = self.serve()
        self.assertTrue(web.raw(b"GET /picture.json HTTP/1.1\r\nHost: localhost\r\nConnection: close\r\n\r\n", end=True).endswith(b"}\n"))
        self.assertEqual(web.raw(b"GET /picture.json HTTP/1.1\r\nHost: local", end=True), b"")

    def test_a_request_that_dribbles_in_is_cut_off(self):
        self.cluster()
        web = self.serve("--request-timeout", "1")
        slow = [web.socket() for _ in range(20)]
        for connection in slow:
            connection.sendall(b"GET / HTTP/1.1\r\nHost: localhost\r\nX: ")
        self.assertEqual(web.get("/healthz").status, 200)

        def dribble(connection):
            # Each byte comes in good time, the request as a whole never.
            connection.settimeout(0.2)
            for _ in range(300):
                try:
                    connection.send(b"x")
                    if connection.recv(1) == b"":
                        return True
                except socket.timeout:
                    continue
                except OSError:
                    return True
            return False

        self.assertTrue(dribble(slow[0]))
        for connection in slow:
            connection.settimeout(web_support.DEADLINE)
            try:
                self.assertEqual(connection.recv(1), b"")
            except ConnectionResetError:
                pass
            connection.close()

    def test_a_client_of_events_that_talks_is_cut_off(self):
        self.cluster()
        web = self.serve()
        with web.socket() as talker:
            talker.sendall(b"GET /events HTTP/1.1\r\nHost: localhost\r\n\r\n")
            self.assertIn(b"200 OK", talker.recv(4096))
            received = 0
            try:
                talker.sendall(b"x" * (1 << 20))
                while part := talker.recv(65536):
                    received += len(part)
            except (ConnectionResetError, BrokenPipeError):
                pass
            self.assertLess(received, 1 << 20)
        self.assertEqual(web.get("/healthz").status, 200)

    def test_a_large_body_is_neither_read_nor_kept(self):
        self.cluster()
        web = self.serve()
        for method, status in ((b"GET", b"400"), (b"POST", b"405")):
            with self.subTest(method), web.socket() as connection:
                connection.sendall(method + b" / HTTP/1.1\r\nHost: localhost\r\nContent-Length: 1000000000\r\n\r\n")
                self.assertEqual(connection.recv(4096).split(b" ")[1], status)
                with self.assertRaises((ConnectionResetError, BrokenPipeError)):
                    while True:
                        connection.sendall(b"x" * 65536)
        self.assertEqual(web.get("/healthz").status, 200)


class SlowReaders(WebTest):
    def test_a_client_that_takes_nothing_in_is_cut_off(self):
        self.configure(server=128, hbr=200, npr=200, fstr=1)
        self.region()
        web = self.serve("--write-timeout", "1")
        with socket.socket() as slow:
            slow.setsockopt(socket.SOL_SOCKET, socket.SO_RCVBUF, 4096)
            slow.settimeout(web_support.DEADLINE)
            slow.connect(web.address)
            slow.sendall(b"GET /dump HTTP/1.1\r\nHost: localhost\r\n\r\n" * 40)
            # The server ends the connection although nothing was read; what is read then is cut short.
            other = web.connection()
            self.addCleanup(other.close)
            self.assertEqual(web.get("/healthz").status, 200)
            web.until("/healthz", lambda _: not self.is_connected(web, slow))
            whole = len(web.get("/dump").body)
            received = 0
            try:
                while part := slow.recv(1 << 20):
                    received += len(part)
            except OSError:
                pass
            self.assertLess(received, 40 * whole)

    @staticmethod
    def is_connected(web, connection):
        """Whether the server has the other end open still, as the system's table of connections tells."""
        local = connection.getsockname()[1]
        for line in pathlib.Path("/proc/net/tcp").read_text().splitlines()[1:]:
            _, there, here, state = line.split()[:4]
            if int(there.split(":")[1], 16) == web.address[1] and int(here.split(":")[1], 16) == local:
                return state == "01"
        return False


class Limits(WebTest):
    def test_a_client_has_no_more_than_its_share_of_connections(self):
        self.cluster()
        web = self.serve("--max-connections-per-client", "5")
        held = [web.socket() for _ in range(5)]
        for connection in held:
            connection.sendall(GOOD.replace(b"Connection: close\r\n", b""))
            self.assertIn(b"200", connection.recv(100))
        refused = web.raw(b"")
        self.assertIn(b"503 Service Unavailable", refused)
        self.assertIn(b"this client has too many connections; end some of them", refused)
        held[0].close()
        while web.raw(GOOD).split(b" ")[1] != b"200":
            pass
        for connection in held:
            connection.close()

    def test_there_are_no_more_connections_than_allowed(self):
        self.cluster()
        web = self.serve("--max-connections", "7")
        held = [web.socket() for _ in range(7)]
        for connection in held:
            connection.sendall(GOOD.replace(b"Connection: close\r\n", b""))
            self.assertIn(b"200", connection.recv(100))
        self.assertIn(b"this server has no connection left; try again later", web.raw(b""))
        for connection in held:
            connection.close()
        while web.raw(GOOD).split(b" ")[1] != b"200":
            pass

    def test_ten_thousand_connections_are_served_or_refused(self):
        self.cluster()
        web = self.serve("--max-connections-per-client", "20")
        counts = {b"200": 0, b"503": 0}

        def knock():
            for _ in range(2_500):
                with web.socket() as connection:
                    try:
                        connection.sendall(GOOD)
                        counts[connection.recv(4096).split(b" ")[1]] += 1
                    except (ConnectionResetError, BrokenPipeError):
                        counts[b"503"] += 1

        held = [web.socket() for _ in range(17)]
        knockers = [threading.Thread(target=knock) for _ in range(4)]
        for knocker in knockers:
            knocker.start()
        for knocker in knockers:
            knocker.join()
        for connection in held:
            connection.close()
        self.assertEqual(sum(counts.values()), 10_000)
        self.assertGreater(counts[b"200"], 0)
        self.assertIsNone(web.process.poll())
        while web.raw(GOOD).split(b" ")[1] != b"200":
            pass


if __name__ == "__main__":
    web_support.main()
