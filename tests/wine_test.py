"""scripts/wine: what it adds to wine for the tests of Windows programs."""
import contextlib
import os
import pathlib
import resource
import signal
import socket
import subprocess
import sys
import tempfile
import unittest

sys.path.insert(0, str(pathlib.Path(__file__).resolve().parent / "shmnmweb"))
import web_support  # noqa: E402
from web_support import WebTest  # noqa: E402

WINE = pathlib.Path(__file__).resolve().parent.parent / "scripts/wine"
REQUEST = b"GET /healthz HTTP/1.1\r\nHost: localhost\r\nConnection: close\r\n\r\n"
LONG_WORD = 27 * "\1"  # which is three times as long in JSON
LATE_END = '#include <unistd.h>\n__attribute__((destructor)) static void end_late(void) { usleep(2000000); }\n'


class Wine(unittest.TestCase):
    def test_a_program_whose_end_takes_seconds_still_tells_its_exit_code(self):
        with tempfile.TemporaryDirectory() as folder:
            library, loader = pathlib.Path(folder) / "late_end.so", pathlib.Path(folder) / "wine"
            subprocess.run(["cc", "-shared", "-fPIC", "-x", "c", "-", "-o", library], input=LATE_END, text=True, check=True)
            loader.write_text(f'#!/bin/sh\nLD_PRELOAD={library} exec {os.environ.get("WINE", "/usr/lib/wine/wine64")} "$@"\n')
            loader.chmod(0o755)
            subprocess.run([WINE, "cmd", "/c", "exit 0"], check=True)
            ended = subprocess.run([WINE, "cmd", "/c", "exit 3"], env={**os.environ, "WINE": str(loader)})
        self.assertEqual(ended.returncode, 3)

    def test_the_server_may_have_as_many_descriptors_as_the_system_allows(self):
        # It has one for each socket of each program, and keeps the limit that it was started with.
        _, most = resource.getrlimit(resource.RLIMIT_NOFILE)
        with tempfile.TemporaryDirectory() as folder:
            prefix, server = pathlib.Path(folder), pathlib.Path(folder) / "server"
            (prefix / ".ready").touch()
            server.write_text(f"#!/bin/sh\nulimit -S -n >{prefix}/limit\nexit 2\n")
            server.chmod(0o755)
            subprocess.run([WINE], env={**os.environ, "WINE": "/bin/true", "WINESERVER": str(server), "SHMNM_WINEPREFIX": folder}, check=True,
                           preexec_fn=lambda: resource.setrlimit(resource.RLIMIT_NOFILE, (256, most)))
            limit = (prefix / "limit").read_text().strip()
        self.assertEqual(limit, "unlimited" if most == resource.RLIM_INFINITY else str(most))


class KilledPrograms(WebTest):
    """Each program is killed in the middle of input or output, and the others keep their server."""

    ROUNDS = 2

    @staticmethod
    def server():
        """Wine's server, which is the only one of its prefix."""
        prefix = os.environ.get("SHMNM_WINEPREFIX", str(WINE.parent.parent / "build/wine"))
        for process in pathlib.Path("/proc").glob("[0-9]*"):
            with contextlib.suppress(OSError):
                is_server = (process / "comm").read_text().startswith("wineserver")
                if is_server and f"WINEPREFIX={prefix}".encode() in (process / "environ").read_bytes().split(b"\0"):
                    return int(process.name)
        raise AssertionError(f"no server of wine in {prefix}")

    def assert_served(self, region):
        """The lock needs the server, and so does a new program."""
        region.ok("shmnm_rwlock", 5000)
        region.ok("shmnm_rwunlock")
        self.assertEqual(self.tool("get", "cluster/clstat").out, "0\n")

    def test_input_arrives_for_a_program_that_was_just_killed(self):
        region = self.cluster()
        server = self.server()
        for _ in range(self.ROUNDS):
            web = self.serve()
            connections = [web.socket() for _ in range(10)]
            for connection in connections:
                connection.sendall(REQUEST.replace(b"Connection: close\r\n", b""))
                self.assertIn(b"200 OK", connection.recv(4096))
            # The server finds the input and the end together.
            os.kill(server, signal.SIGSTOP)
            try:
                for connection in connections:
                    connection.sendall(b"GET")
                web.process.kill()
                web.process.wait()
            finally:
                os.kill(server, signal.SIGCONT)
            for connection in connections:
                connection.close()
            self.assert_served(region)

    def test_a_program_is_killed_that_has_closed_a_connection_before_all_was_sent(self):
        self.configure(server=128, hbr=200, npr=200, fstr=1)
        region = self.region()
        for i in range(128):
            region.ok("shmnm_addnode", f"server{i:03}", i)
        for i in range(200):
            region.ok("shmnm_addhbrsc", LONG_WORD, LONG_WORD + str(100 + i), i)
            region.ok("shmnm_addnprsc", LONG_WORD, LONG_WORD + str(100 + i), i)
        for _ in range(self.ROUNDS):
            web = self.serve("--write-timeout", "2", "--request-timeout", "2")
            # More than the buffers of an event stream hold.
            self.assertGreater(len(web.get("/picture.json").body), 250_000)
            slow = web.slow_connection().sock
            slow.sendall(b"GET /events HTTP/1.1\r\nHost: localhost\r\n\r\n")
            self.assertEqual(slow.recv(12), b"HTTP/1.1 200")
            self.assertEqual(web.get("/healthz").status, 200)
            # The program closes the connection that says nothing after it has closed the slow one.
            with web.socket() as silent:
                self.assertEqual(silent.recv(1), b"")
            web.process.kill()
            web.process.wait()
            slow.close()
            self.assert_served(region)


if __name__ == "__main__":
    web_support.main()
