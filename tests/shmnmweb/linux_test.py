"""What shmnmweb does on Linux alone: Unix sockets, other users, what it opens."""
import os
import pathlib
import re
import shutil
import signal
import socket
import stat
import subprocess
import time

import web_support
from web_support import LocalConnection, WebTest, support

READER, STRANGER, GROUP = 54321, 54322, 54400


class ReadOnly(WebTest):
    def test_nothing_but_the_page_of_the_lock_is_mapped_for_writing(self):
        region = self.cluster()
        region.ok("shmnm_setclstat", 5)
        before = self.dumped()
        trace = self.folder / "trace"
        # The sanitizers' builds look for leaks, which they cannot do beside strace, and write what they counted.
        self.environment["ASAN_OPTIONS"] = ":".join(filter(None, [self.environment.get("ASAN_OPTIONS"), "detect_leaks=0"]))
        self.environment["GCOV_PREFIX"] = str(self.folder / "log")
        web = self.serve(program=["strace", "-D", "-f", "-y", "-e", "trace=openat,open,creat,mmap,mprotect,mkdir,unlink,rename,ftruncate,pwrite64,fallocate", "-o", str(trace)]
                         + support.program("shmnmweb"))
        stream = self.stream(web)
        stream.next()
        region.ok("shmnm_setclstat", 6)
        self.assertEqual(stream.next()[2]["changes"][0]["new"], 6)
        for path in ("/picture.json", "/metrics", "/dump", "/snapshot?all", "/query?condition=cluster/clstat=6"):
            self.assertEqual(web.get(path).status, 200)
        web.process.terminate()
        self.assertEqual(web.process.wait(web_support.DEADLINE), 0)
        end = time.monotonic() + web_support.DEADLINE
        while f"{web.process.pid} +++ exited" not in re.sub(" +", " ", trace.read_text()):
            self.assertLess(time.monotonic(), end)
        lines = trace.read_text().splitlines()
        name = self.environment["KZMUTIL_NAMESPACE"]
        opened = [line for line in lines if re.search(r"\bopen(at)?\(|creat\(", line) and " = -1 " not in line]
        writable = {re.search(r'"([^"]+)"', line)[1] for line in opened if re.search(r"O_RDWR|O_WRONLY|O_CREAT", line)}
        # The last one is what the thread sanitizer keeps for its own use.
        allowed = re.compile(rf"/dev/null|m\.{re.escape(name)}oru_kzmshmnm_lock|kzmkernel\.\d+\.guard|{re.escape(str(self.folder))}/log/.*|/tmp/tsan\.rodata\.\d+")
        self.assertEqual([file for file in writable if not allowed.fullmatch(file)], [])
        shared = [line for line in lines if "mmap(" in line and "MAP_SHARED" in line]
        of_region = [line for line in shared if "oru_kzmshmnm_map" in line]
        self.assertTrue(of_region)
        for line in of_region:
            self.assertNotIn("PROT_WRITE", line)
        for line in shared:
            if "PROT_WRITE" in line:
                self.assertIn("oru_kzmshmnm_lock", line)
        for line in lines:
            self.assertFalse("mprotect(" in line and "PROT_WRITE" in line and "oru_kzmshmnm_map" in line, line)
        region.ok("shmnm_setclstat", 5)
        self.assertEqual(self.dumped(), before)

    def test_a_running_server_can_write_to_nothing_shared_but_the_page_of_the_lock(self):
        region = self.cluster()
        web = self.serve()
        # The server keeps the region open while it waits for the lock, and may hold the lock for a moment.
        region.ok("shmnm_rwlock", 10_000)
        map_file, lock_file = (f"{kind}.{self.environment['KZMUTIL_NAMESPACE']}oru_kzmshmnm_{name}" for kind, name in (("s", "map"), ("m", "lock")))
        end = time.monotonic() + web_support.DEADLINE
        while True:
            web.process.send_signal(signal.SIGSTOP)
            os.waitid(os.P_PID, web.process.pid, os.WSTOPPED)
            opened, mapped = support.opened_by(web.process.pid), shared_memory_of(web.process.pid)
            web.process.send_signal(signal.SIGCONT)
            if map_file in opened and map_file in mapped:
                break
            self.assertLess(time.monotonic(), end)
        region.ok("shmnm_rwunlock")
        self.assertEqual(opened[map_file], {os.O_RDONLY})
        self.assertEqual(mapped[map_file], {"r--s"})
        self.assertEqual([file for file, rights in mapped.items() if any("w" in right for right in rights)], [lock_file])
        writable = [file for file, flags in opened.items() if flags != {os.O_RDONLY}]
        # The empty file through which processes lock their folder.
        self.assertEqual(writable, [f"kzmkernel.{os.geteuid()}.guard"])
        self.assertEqual(web.get("/picture.json").status, 200)


    def test_a_free_lock_is_left_alone(self):
        region = self.cluster()
        web = self.serve()

        def lock():
            lines = web.get("/metrics?collect[]=lock").text.splitlines()
            return {name: value for name, value in (line.rsplit(" ", 1) for line in lines if not line.startswith("#"))}

        before = lock()
        for value in range(1, 6):
            region.ok("shmnm_setclstat", value)
            web.until("/picture.json", lambda answer: answer.json["cluster"]["clstat"] == value)
            now = lock()
            self.assertEqual((now["shmnm_scrape_lock_wait_seconds"], now["shmnm_scrape_lock_hold_seconds"]), ("0.000000", "0.000000"))
        self.assertEqual(now["shmnm_lock_takes_total"], before["shmnm_lock_takes_total"])


def shared_memory_of(process):
    """The files that a process has mapped as shared memory, each with its rights."""
    found = {}
    for line in pathlib.Path(f"/proc/{process}/maps").read_text().splitlines():
        _, rights, _, _, _, *name = line.split(maxsplit=5)
        if rights.endswith("s"):
            found.setdefault(pathlib.Path("".join(name)).name, set()).add(rights)
    return found


class Readers(WebTest):
    def setUp(self):
        super().setUp()
        self.programs = self.folder / "bin"
        self.programs.mkdir()
        self.folder.chmod(0o755)
        for file in [support.FOLDER / "shmnmctl", support.FOLDER / "shmnmweb", *support.FOLDER.glob("libkzm*.so*")]:
            shutil.copy(file, self.programs)
        self.path = self.folder / "web.sock"

    def serve_group(self, *arguments):
        """A server whose socket belongs to a group that exists here alone."""
        web = web_support.Server(self, "--socket", self.path, *arguments)
        os.chown(self.path, 0, GROUP)
        return web

    def ask(self, user, groups, target="/picture.json", method="GET"):
        script = ("import socket, sys\ns = socket.socket(socket.AF_UNIX)\ntry:\n    s.connect(sys.argv[1])\nexcept OSError as error:\n    sys.exit(error.strerror)\n"
                  "s.sendall(sys.argv[2].encode())\nwhile part := s.recv(65536):\n    sys.stdout.buffer.write(part)\n")
        request = f"{method} {target} HTTP/1.1\r\nHost: anything.test\r\nConnection: close\r\n\r\n"
        done = subprocess.run(["/usr/bin/python3", "-c", script, str(self.path), request], capture_output=True, user=user, group=user, extra_groups=groups, timeout=web_support.DEADLINE, cwd="/")
        return done

    def test_members_of_the_group_read_everything_and_nobody_else(self):
        self.cluster()
        self.serve_group()
        mode = self.path.stat().st_mode
        self.assertEqual((stat.S_ISSOCK(mode), stat.S_IMODE(mode)), (True, 0o660))
        for target in ("/", "/picture.json", "/metrics", "/healthz", "/dump", "/snapshot", "/query?condition=cluster/clstat=0"):
            with self.subTest(target):
                done = self.ask(READER, [GROUP], target)
                self.assertTrue(done.stdout.startswith(b"HTTP/1.1 200 OK"), done)
        self.assertTrue(self.ask(READER, [GROUP]).stdout.endswith(self.tool("status", "--format", "json").raw))
        done = self.ask(STRANGER, [])
        self.assertEqual((done.returncode, done.stdout, done.stderr), (1, b"", b"Permission denied\n"))

    def test_members_of_the_group_use_every_reading_command(self):
        self.cluster()
        self.serve_group()
        address = f"unix:{self.path}"
        for command in (["status"], ["status", "--format", "json"], ["list"], ["get", "cluster/alive"], ["dump", "-"], ["verify"], ["query", "cluster/alive=0"],
                        ["wait", "cluster/alive=0"]):
            with self.subTest(command):
                here = self.tool(*command)
                there = self.tool_of(READER, [GROUP], "--from", address, *command)
                self.assertEqual((there.returncode, there.stdout, there.stderr), (here.status, here.raw, b""))
        for command in (["set", "cluster/clstat", "1"], ["clear", "--yes"], ["lock", "--", "true"]):
            with self.subTest(command):
                self.assertEqual(self.tool_of(READER, [GROUP], "--from", address, *command).returncode, 2)
                self.assertNotEqual(self.tool_of(READER, [GROUP], *command).returncode, 0)
        refused = self.tool_of(STRANGER, [], "--from", address, "status")
        self.assertEqual((refused.returncode, refused.stdout), (5, b""))
        self.assertIn(b"Permission denied", refused.stderr)

    def tool_of(self, user, groups, *arguments):
        return subprocess.run([self.programs / "shmnmctl", *arguments], capture_output=True, env=self.environment, stdin=subprocess.DEVNULL, timeout=web_support.DEADLINE,
                              user=user, group=user, extra_groups=groups, cwd="/")

    def test_a_front_end_needs_no_right_to_the_region(self):
        self.cluster()
        self.serve_group()
        front = web_support.Server(self, "--listen", "127.0.0.1:0", "--from", f"unix:{self.path}", program=[str(self.programs / "shmnmweb")],
                                   user=READER, group=READER, extra_groups=[GROUP], cwd="/")
        self.assertEqual(front.get("/picture.json").body, self.tool("status", "--format", "json").raw)

    def test_members_of_the_group_can_change_nothing(self):
        self.cluster()
        before = self.dumped()
        self.serve_group()
        for method in ("POST", "PUT", "DELETE", "PATCH"):
            with self.subTest(method):
                self.assertTrue(self.ask(READER, [GROUP], "/picture.json", method).stdout.startswith(b"HTTP/1.1 405"))
        self.assertEqual(self.dumped(), before)

    def test_a_user_has_no_more_than_a_share_of_connections(self):
        self.cluster()
        self.serve_group("--max-connections-per-client", "3")
        held = []
        for _ in range(3):
            connection = LocalConnection(self.path)
            connection.request("GET", "/healthz")
            self.assertEqual(connection.getresponse().read()[:1], b"{")
            held.append(connection)
        with socket.socket(socket.AF_UNIX) as more:
            more.connect(str(self.path))
            self.assertIn(b"this client has too many connections", more.recv(4096))
        self.assertTrue(self.ask(READER, [GROUP]).stdout.startswith(b"HTTP/1.1 200 OK"))
        for connection in held:
            connection.close()

    def test_the_socket_of_a_killed_server_is_replaced_and_that_of_a_living_one_is_not(self):
        self.cluster()
        killed = self.serve_group().process
        killed.kill()
        killed.wait()
        web = self.serve_group()
        done = subprocess.run(support.program("shmnmweb") + ["--socket", str(self.path)], capture_output=True, env=self.environment, timeout=web_support.DEADLINE)
        self.assertEqual(done.returncode, 5)
        self.assertIn(b"Address already in use; stop the process that has it, or use another one", done.stderr)
        self.assertTrue(self.ask(READER, [GROUP]).stdout.startswith(b"HTTP/1.1 200 OK"))
        web.process.terminate()
        self.assertEqual(web.process.wait(web_support.DEADLINE), 0)
        self.assertFalse(self.path.exists())

    def test_a_file_that_is_no_socket_is_left_alone(self):
        self.path.write_text("precious")
        done = subprocess.run(support.program("shmnmweb") + ["--socket", str(self.path)], capture_output=True, env=self.environment, timeout=web_support.DEADLINE)
        self.assertEqual((done.returncode, self.path.read_text()), (5, "precious"))


class Activation(WebTest):
    def test_the_sockets_of_the_service_manager_are_served_and_it_is_told(self):
        self.cluster()
        path = self.folder / "activated.sock"
        with socket.socket(socket.AF_UNIX, socket.SOCK_DGRAM) as told:
            told.bind(str(self.folder / "notify"))
            told.settimeout(web_support.DEADLINE)
            with socket.create_server(("127.0.0.1", 0)) as probe:
                port = probe.getsockname()[1]
            activator = subprocess.Popen(["systemd-socket-activate", "-l", f"127.0.0.1:{port}", "-l", str(path),
                                          "-E", "KZM_INSTALL_PATH", "-E", "KZMUTIL_NAMESPACE", "-E", f"NOTIFY_SOCKET={self.folder / 'notify'}"]
                                         + support.program("shmnmweb"),
                                         env=self.environment, stdout=subprocess.PIPE, stderr=subprocess.PIPE, stdin=subprocess.DEVNULL)
            self.addCleanup(activator.communicate)
            self.addCleanup(activator.kill)
            end = time.monotonic() + web_support.DEADLINE
            while True:
                connection = LocalConnection(path)
                try:
                    connection.request("GET", "/healthz")
                    break
                except OSError:
                    connection.close()
                    self.assertLess(time.monotonic(), end)
            self.assertEqual(connection.getresponse().status, 200)
            connection.close()
            self.assertEqual(told.recv(100), b"READY=1")
            self.assertEqual(activator.stdout.readline(), f"listening on http://127.0.0.1:{port}/\n".encode())
            self.assertEqual(activator.stdout.readline(), f"listening on unix:{path}\n".encode())
            with socket.create_connection(("127.0.0.1", port)) as plain:
                plain.sendall(b"GET /healthz HTTP/1.0\r\n\r\n")
                self.assertIn(b"200 OK", plain.recv(4096))
            activator.terminate()
            self.assertEqual(told.recv(100), b"STOPPING=1")
            self.assertTrue(path.exists())


class Watchdog(WebTest):
    def watched(self, **variables):
        """A server, and the socket on which its service manager is told."""
        told = socket.socket(socket.AF_UNIX, socket.SOCK_DGRAM)
        self.addCleanup(told.close)
        told.bind(str(self.folder / "notify"))
        told.settimeout(web_support.DEADLINE)
        web = web_support.Server(self, "--listen", "127.0.0.1:0", environment=self.environment | {"NOTIFY_SOCKET": str(self.folder / "notify")} | variables)
        self.assertEqual(told.recv(100), b"READY=1")
        return web, told

    def expect_looks(self, web, count):
        """Waits until the server has looked at the region several times more."""
        for number in range(1, count + 1):
            self.tool("set", "cluster/clstat", str(number))
            self.shown(web)

    def test_the_service_manager_is_told_again_and_again_that_the_server_works(self):
        self.cluster()
        web, told = self.watched(WATCHDOG_USEC="100000")
        for _ in range(3):
            self.assertEqual(told.recv(100), b"WATCHDOG=1")
        web.process.terminate()
        while (last := told.recv(100)) == b"WATCHDOG=1":
            pass
        self.assertEqual(last, b"STOPPING=1")

    def test_it_is_told_no_more_often_than_half_of_the_time_asks_for(self):
        self.cluster()
        web, told = self.watched(WATCHDOG_USEC=str(24 * 3600 * 1_000_000))
        self.expect_looks(web, 3)
        web.process.terminate()
        self.assertEqual([told.recv(100), told.recv(100)], [b"WATCHDOG=1", b"STOPPING=1"])

    def test_a_watchdog_of_another_process_is_told_nothing(self):
        self.cluster()
        web, told = self.watched(WATCHDOG_USEC="2", WATCHDOG_PID="1")
        self.expect_looks(web, 3)
        web.process.terminate()
        self.assertEqual(told.recv(100), b"STOPPING=1")


if __name__ == "__main__":
    web_support.main()
