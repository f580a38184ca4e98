"""Ten thousand connections, and crowds of clients that are slow, half closed or from one place: the rest is served, and afterwards
nothing of them is left."""
import contextlib
import os
import pathlib
import re
import resource
import socket
import subprocess
import time

import web_support
from web_support import WebTest, support

KEPT = b"GET /healthz HTTP/1.1\r\nHost: localhost\r\n\r\n"
CONNECTIONS, TOTAL, PER_CLIENT = 10_000, 1_024, 64
NO_ROOM, TOO_MANY = b"this server has no connection left; try again later", b"this client has too many connections; end some of them"
READER, GROUP = 54321, 54400


def raise_limit_of_files(wanted):
    """As many descriptors as wanted, or as this user may have."""
    soft, hard = resource.getrlimit(resource.RLIMIT_NOFILE)
    if hard < wanted:
        with contextlib.suppress(ValueError, OSError):
            resource.setrlimit(resource.RLIMIT_NOFILE, (wanted, wanted))
            return wanted
    resource.setrlimit(resource.RLIMIT_NOFILE, (min(wanted, hard), hard))
    return min(wanted, hard)


class Crowd(WebTest):
    def setUp(self):
        super().setUp()
        self.allowed = raise_limit_of_files(CONNECTIONS + 500)

    def place(self, number, per_place):
        """The address that a client comes from: so many from each."""
        place = number // per_place
        return f"127.{1 + place // 250}.1.{1 + place % 250}"

    def connect(self, web, source=None, buffer=None):
        made = socket.socket()
        self.addCleanup(made.close)
        made.settimeout(web_support.DEADLINE)
        if buffer:
            made.setsockopt(socket.SOL_SOCKET, socket.SO_RCVBUF, buffer)
        if source:
            # The port is chosen at the connect, when the other end is known.
            made.setsockopt(socket.IPPROTO_IP, getattr(socket, "IP_BIND_ADDRESS_NO_PORT", 24), 1)
            made.bind((source, 0))
        made.connect(web.address)
        return made

    def answer(self, connection):
        """What the server says first. A refusal may be lost, as nobody waits for what the client has sent."""
        try:
            return connection.recv(4096)
        except ConnectionResetError:
            return b"reset"

    def knock(self, web, count, per_place):
        """Opens that many connections and leaves them open; those that were served, and what the others were told."""
        served, refused = [], []
        for number in range(count):
            connection = self.connect(web, self.place(number, per_place))
            with contextlib.suppress(ConnectionResetError, BrokenPipeError):
                connection.sendall(KEPT)
            told = self.answer(connection)
            if told.startswith(b"HTTP/1.1 200"):
                served.append(connection)
            else:
                refused.append((connection, told))
        return served, refused

    def descriptors(self, web):
        return len(os.listdir(f"/proc/{web.process.pid}/fd"))

    def memory(self, web):
        """In kB."""
        return int(re.search(r"VmRSS:\s+(\d+)", pathlib.Path(f"/proc/{web.process.pid}/status").read_text())[1])

    def until(self, holds):
        end = time.monotonic() + web_support.DEADLINE
        while not holds():
            self.assertLess(time.monotonic(), end)

    def until_only(self, web, descriptors):
        """Waits until nothing but the server's own descriptors is open."""
        self.until(lambda: self.descriptors(web) <= descriptors)

    def assert_serves(self, web, source=None):
        connection = self.connect(web, source)
        connection.sendall(KEPT)
        self.assertIn(b" 200 OK", self.answer(connection))
        connection.close()

    def answer_of_one(self, web):
        with self.connect(web, "127.250.1.1") as connection:
            with contextlib.suppress(ConnectionResetError, BrokenPipeError):
                connection.sendall(KEPT)
            return self.answer(connection)


class Shares(Crowd):
    def test_each_address_has_its_share(self):
        self.cluster()
        web = self.serve("--request-timeout", "3600")
        places, wanted = 15, PER_CLIENT + 6
        served, refused = self.knock(web, places * wanted, wanted)
        self.assertEqual((len(served), len(refused)), (places * PER_CLIENT, places * 6))
        self.assertEqual({told for _, told in refused if TOO_MANY not in told} - {b"reset"}, set())
        self.assert_serves(web, "127.250.1.1")

    def test_there_are_1024_in_all(self):
        self.cluster()
        web = self.serve("--request-timeout", "3600")
        served, refused = self.knock(web, 1_200, 50)
        self.assertEqual((len(served), len(refused)), (TOTAL, 1_200 - TOTAL))
        self.assertEqual({told for _, told in refused if NO_ROOM not in told} - {b"reset"}, set())
        for connection in served:
            connection.close()
        self.until(lambda: self.answer_of_one(web).startswith(b"HTTP/1.1 200"))


class Leftovers(Crowd):
    def test_ten_thousand_at_once(self):
        self.cluster()
        web = self.serve("--request-timeout", "3600")
        count = min(CONNECTIONS, self.allowed - 100)
        if count < CONNECTIONS:
            print(f"this system allows {count} connections, not {CONNECTIONS}")
        self.assertGreater(count, TOTAL)
        own, memory = self.descriptors(web), []
        for _ in range(3):
            served, refused = self.knock(web, count, 50)
            self.assertEqual((len(served), len(refused)), (TOTAL, count - TOTAL))
            self.assertEqual({told for _, told in refused if NO_ROOM not in told} - {b"reset"}, set())
            self.assertIsNone(web.process.poll())
            # Whoever was there before goes on.
            for connection in served[:: TOTAL // 16]:
                connection.sendall(KEPT)
                self.assertIn(b" 200 OK", self.answer(connection))
            # One that goes makes room for one.
            served.pop().close()
            self.until(lambda: self.answer_of_one(web).startswith(b"HTTP/1.1 200"))
            for connection in served + [connection for connection, _ in refused]:
                connection.close()
            self.until_only(web, own)
            self.assert_serves(web)
            memory.append(self.memory(web))
        # What the first round has left is used again.
        self.assertLess(max(memory[1:]), memory[0] + 2_048, memory)

    def test_each_user_of_a_unix_socket_has_a_share(self):
        self.cluster()
        path = self.folder / "web.sock"
        self.folder.chmod(0o755)
        web_support.Server(self, "--socket", path)
        os.chown(path, 0, GROUP)
        script = ("import socket, sys\nall = []\nfor _ in range(70):\n    s = socket.socket(socket.AF_UNIX)\n    all.append(s)\n    s.connect(sys.argv[1])\n"
                  "    try:\n        s.sendall(sys.argv[2].encode())\n        print(s.recv(4096)[9:12].decode() or 503, flush=True)\n"
                  "    except (ConnectionResetError, BrokenPipeError):\n        print(503, flush=True)\nsys.stdin.read()\n")
        # All keep what they have until the last one was served.
        for user in (0, READER, READER + 1):
            process = subprocess.Popen(["/usr/bin/python3", "-c", script, str(path), KEPT.decode()], stdin=subprocess.PIPE, stdout=subprocess.PIPE,
                                       user=user, group=user, extra_groups=[GROUP], cwd="/", text=True)
            self.addCleanup(process.communicate)
            self.addCleanup(process.kill)
            self.assertEqual([process.stdout.readline().strip() for _ in range(70)], ["200"] * PER_CLIENT + ["503"] * 6, user)

    def test_half_closed_connections_are_ended(self):
        self.cluster()
        web = self.serve("--request-timeout", "3600")
        own = self.descriptors(web)
        held = []
        for number in range(960):
            connection = self.connect(web, self.place(number, 60))
            connection.sendall((b"", b"GET /healthz HTTP/1.1\r\nHost: lo", KEPT, b"GET /events HTTP/1.1\r\nHost: localhost\r\n\r\n")[number % 4])
            connection.shutdown(socket.SHUT_WR)
            held.append(connection)
        self.until_only(web, own)
        for number, connection in enumerate(held):
            with contextlib.suppress(ConnectionResetError):
                told = b"".join(iter(lambda: connection.recv(1 << 16), b""))
                self.assertEqual(told[:15] == b"HTTP/1.1 200 OK", number % 4 >= 2)
        self.assert_serves(web)

    def full_region(self, resources):
        """A region whose table of servers is full."""
        self.configure(server=128, hbr=resources, npr=resources, fstr=1)
        region = self.region()
        for number in range(128):
            region.ok("shmnm_addnode", f"server{number:03}", number)
        return region

    def test_slow_readers_of_all_bytes_keep_no_more_than_a_few_copies(self):
        region = self.full_region(resources=200)
        size = len(self.dumped())
        self.assertGreater(size, 20_000_000)
        web = self.serve("--write-timeout", "2", "--request-timeout", "3")
        own, before = self.descriptors(web), self.memory(web)
        stream = self.stream(web)
        stream.next()
        peak = refused = 0
        for number in range(1, 31):
            connection = self.connect(web, self.place(number, 50), buffer=4096)
            connection.sendall(b"GET /dump HTTP/1.1\r\nHost: localhost\r\n\r\n" if number % 2 else b"GET /snapshot?all HTTP/1.1\r\nHost: localhost\r\n\r\n")
            told = self.answer(connection)
            self.assertRegex(told, b"^HTTP/1.1 (200|503) ")
            refused += told.startswith(b"HTTP/1.1 503 ")
            # The next one comes after the next look, so it could have a copy of its own.
            region.ok("shmnm_setpingstat", "server000", number)
            stream.next()
            peak = max(peak, self.memory(web))
        self.assertGreater(refused, 0)
        # Eight, one that is made, and what a look needs.
        self.assertLess(peak - before, 12 * size // 1_024)
        self.assertEqual(web.get("/healthz").status, 200)
        self.until_only(web, own + 1)
        self.assertEqual(len(web.get("/dump").body), size)

    def test_slow_readers_of_events_are_cut_off_and_leave_nothing(self):
        region = self.full_region(resources=1)
        web = self.serve("--write-timeout", "2")
        own, memory = self.descriptors(web), []
        fast = self.stream(web)
        for turn in range(3):
            slow = []
            for number in range(900):
                connection = self.connect(web, self.place(number, 60), buffer=4096)
                connection.sendall(b"GET /events HTTP/1.1\r\nHost: localhost\r\n\r\n")
                self.assertIn(b" 200 OK", self.answer(connection))
                slow.append(connection)
            value = 1000 * turn
            while self.descriptors(web) > own + 1:
                value += 1
                region.ok("shmnm_rwlock", 5000)
                for number in range(128):
                    region.ok("shmnm_setpingstat", f"server{number:03}", value)
                region.ok("shmnm_rwunlock")
                while (told := fast.next()[2].get("changes", [{"new": None}]))[-1]["new"] != value:
                    pass
                self.assertEqual(len(told), 128)
            for connection in slow:
                connection.close()
            memory.append(self.memory(web))
        self.assertLess(max(memory[1:]), memory[0] + 4_096, memory)

    def test_a_server_without_descriptors_waits_for_some(self):
        self.cluster()
        trace, path = self.folder / "trace", self.folder / "web.sock"
        web = self.serve("--socket", path, program=["strace", "-D", "-f", "-e", "trace=accept,accept4", "-o", str(trace)] + support.program("shmnmweb"),
                         preexec_fn=lambda: resource.setrlimit(resource.RLIMIT_NOFILE, (60, 60)))
        stream = self.stream(web)
        stream.next()
        waiting = [self.connect(web) for _ in range(60)]
        for _ in range(60):
            local = socket.socket(socket.AF_UNIX)
            self.addCleanup(local.close)
            local.connect(str(path))
            waiting.append(local)
        self.until(lambda: len(set(re.findall(r"accept4?\((\d+), .* EMFILE ", trace.read_text()))) == 2)
        # It tries again now and then, for either socket, and not all the time: between two signs of life are five seconds.
        while stream.any()[0] != "alive":
            pass
        tried = trace.read_text().count("EMFILE")
        while stream.any()[0] != "alive":
            pass
        self.assertLess(trace.read_text().count("EMFILE") - tried, 500)
        for connection in waiting:
            connection.close()
        self.until(lambda: web.get("/healthz").status == 200)


if __name__ == "__main__":
    web_support.main()
