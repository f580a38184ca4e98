"""What the tests of the client of etcd share: real members, a proxy that fails as networks do, and the client in a program.

Each test file is run natively and, with the client as a Windows program, under wine:
    NAME_test.py linux|windows FOLDER [TEST...]
"""
import contextlib
import json
import os
import pathlib
import queue
import shutil
import signal
import socket
import subprocess
import sys
import tempfile
import threading
import time
import unittest
import urllib.error
import urllib.request

DEADLINE = 60
PROJECT = pathlib.Path(__file__).resolve().parents[2]
PLATFORM, FOLDER = sys.argv[1], pathlib.Path(sys.argv[2])


def free_ports(count):
    held = [socket.create_server(("127.0.0.1", 0)) for _ in range(count)]
    ports = [one.getsockname()[1] for one in held]
    for one in held:
        one.close()
    return ports


def path(name):
    """A file's name as the program under test knows it."""
    return f"Z:{name}".replace("/", "\\") if PLATFORM == "windows" else str(name)


class Member:
    """A member of etcd, with its files in a folder that stays when it ends."""

    def __init__(self, name, folder, client_port, peer_port, initial, options=(), scheme="http"):
        self.name, self.port, self.scheme = name, client_port, scheme
        client, peer = f"{scheme}://127.0.0.1:{client_port}", f"http://127.0.0.1:{peer_port}"
        self.command = ["etcd", "--name", name, "--data-dir", str(folder / name), "--listen-client-urls", client, "--advertise-client-urls", client,
                        "--listen-peer-urls", peer, "--initial-advertise-peer-urls", peer, "--initial-cluster", initial, "--unsafe-no-fsync",
                        "--heartbeat-interval", "50", "--election-timeout", "500", "--logger", "zap", *options]
        self.log = open(folder / f"{name}.log", "ab")
        self.process = None
        self.context = None  # of TLS, for what the tests ask themselves

    @property
    def endpoint(self):
        return f"{self.scheme}://127.0.0.1:{self.port}"

    def start(self):
        self.process = subprocess.Popen(self.command, stdin=subprocess.DEVNULL, stdout=self.log, stderr=self.log)

    def kill(self):
        if self.process:
            self.process.kill()
            self.process.wait()
        self.process = None

    def stop(self):
        self.process.send_signal(signal.SIGSTOP)
        # Until then it may still answer.
        os.waitid(os.P_PID, self.process.pid, os.WSTOPPED)

    def go_on(self):
        self.process.send_signal(signal.SIGCONT)

    def post(self, target, body, token=None):
        """Speaks with the member directly. The status and the answer."""
        headers = {"Content-Type": "application/json"}
        if token:
            headers["Authorization"] = token
        request = urllib.request.Request(self.endpoint + target, json.dumps(body).encode(), headers)
        try:
            with urllib.request.urlopen(request, timeout=DEADLINE, context=self.context) as answer:
                return answer.status, json.loads(answer.read())
        except urllib.error.HTTPError as error:
            return error.code, json.loads(error.read())

    def wait_until_listens(self):
        end = time.monotonic() + DEADLINE
        while time.monotonic() < end and self.process.poll() is None:
            with contextlib.suppress(OSError):
                socket.create_connection(("127.0.0.1", self.port), timeout=DEADLINE).close()
                return
            threading.Event().wait(0.02)
        raise AssertionError("etcd does not listen: " + pathlib.Path(self.log.name).read_text()[-2000:])

    def wait_until_serves(self):
        end = time.monotonic() + DEADLINE
        while time.monotonic() < end:
            if self.process.poll() is not None:
                break
            with contextlib.suppress(OSError, ValueError):
                if self.post("/v3/kv/range", {"key": "AA=="})[0] in (200, 400):
                    return
            # A member that listens already, but has no leader, answers only then.
            threading.Event().wait(0.02)
        raise AssertionError("etcd does not serve: " + pathlib.Path(self.log.name).read_text()[-2000:])


class Cluster:
    """Members that serve together; they end with the test, or with the test's class."""

    def __init__(self, cleanup, size=1, options=()):
        self.folder = pathlib.Path(tempfile.mkdtemp(prefix="etcd-"))
        cleanup(shutil.rmtree, self.folder, ignore_errors=True)
        ports = free_ports(2 * size)
        names = [f"m{i}" for i in range(size)]
        initial = ",".join(f"{name}=http://127.0.0.1:{ports[size + i]}" for i, name in enumerate(names))
        self.members = [Member(name, self.folder, ports[i], ports[size + i], initial, options) for i, name in enumerate(names)]
        cleanup(self.end)
        for member in self.members:
            member.start()
        for member in self.members:
            member.wait_until_serves()

    @property
    def endpoints(self):
        return [member.endpoint for member in self.members]

    def end(self):
        for member in self.members:
            member.kill()
            member.log.close()


class Proxy:
    """Passes connections on to a port, and fails as it is told to."""

    def __init__(self, test, port):
        self.target = ("127.0.0.1", port)
        self.listener = socket.create_server(("127.0.0.1", 0))
        self.endpoint = f"http://127.0.0.1:{self.listener.getsockname()[1]}"
        self.lock = threading.Lock()
        self.pairs, self.threads = [], []
        self.accepted = 0
        self.delay = 0.0           # seconds before each part of an answer
        self.holds_requests = self.holds_answers = False  # what comes is taken and never passed on
        self.answer_bytes = None   # of each connection's answers, so many are passed on
        self.closes_after = False  # then the connection ends, instead of saying no more
        self.damaged_byte = None   # of each connection's answers, the position of a byte that is changed
        self.ended = threading.Event()
        self.run(self.accept)
        test.addCleanup(self.end)

    def run(self, function, *arguments):
        thread = threading.Thread(target=function, args=arguments)
        self.threads.append(thread)
        thread.start()

    def accept(self):
        while True:
            try:
                client, _ = self.listener.accept()
            except OSError:
                return
            server = socket.create_connection(self.target)
            for one in (client, server):
                one.setsockopt(socket.IPPROTO_TCP, socket.TCP_NODELAY, 1)
            with self.lock:
                self.pairs.append((client, server))
                self.accepted += 1
            self.run(self.requests, client, server)
            self.run(self.answers, client, server)

    def requests(self, client, server):
        with contextlib.suppress(OSError):
            while part := client.recv(1 << 16):
                if not self.holds_requests:
                    server.sendall(part)
        with contextlib.suppress(OSError):
            server.shutdown(socket.SHUT_RDWR)

    def answers(self, client, server):
        passed = 0
        with contextlib.suppress(OSError):
            while part := server.recv(1 << 16):
                if self.delay:
                    self.ended.wait(self.delay)
                if self.holds_answers:
                    continue
                if self.answer_bytes is not None:
                    part = part[:max(0, self.answer_bytes - passed)]
                if self.damaged_byte is not None and passed <= self.damaged_byte < passed + len(part):
                    at = self.damaged_byte - passed
                    part = part[:at] + bytes([part[at] ^ 1]) + part[at + 1:]
                passed += len(part)
                client.sendall(part)
                if self.closes_after and passed == self.answer_bytes:
                    break
        with contextlib.suppress(OSError):
            client.shutdown(socket.SHUT_RDWR)

    def cut(self):
        """Ends all connections."""
        with self.lock:
            pairs = list(self.pairs)
        for pair in pairs:
            for one in pair:
                with contextlib.suppress(OSError):
                    one.shutdown(socket.SHUT_RDWR)

    def end(self):
        self.ended.set()
        self.listener.shutdown(socket.SHUT_RDWR)
        self.listener.close()
        # Connections that were accepted until then.
        self.threads[0].join()
        self.cut()
        for thread in self.threads:
            thread.join()
        for pair in self.pairs:
            for one in pair:
                one.close()


class Client:
    """The client in a program of its own. What it tells is sorted by the command that it belongs to."""

    def __init__(self, test, endpoints, **settings):
        program = [str(PROJECT / "scripts/wine"), str(FOLDER / "etcd_driver.exe")] if PLATFORM == "windows" else [str(FOLDER / "etcd_driver")]
        self.process = subprocess.Popen(program, stdin=subprocess.PIPE, stdout=subprocess.PIPE)
        test.addCleanup(self.end)
        self.lines, self.last_id, self.told = {}, 0, []
        self.lock = threading.Lock()
        # A busy machine answers late: only where a time-out is the subject is it short.
        self.write({"endpoints": endpoints, "timeout": 30_000, "connect_timeout": 20_000, **settings})
        self.first = json.loads(self.process.stdout.readline())
        self.reader = threading.Thread(target=self.read)
        self.reader.start()
        if "error" not in self.first:
            assert self.first == {"ready": True}, self.first

    def write(self, line):
        self.process.stdin.write(json.dumps(line).encode() + b"\n")
        self.process.stdin.flush()

    def of(self, number):
        with self.lock:
            return self.lines.setdefault(number, queue.Queue())

    def read(self):
        for line in self.process.stdout:
            self.told.append(line)
            document = json.loads(line)
            self.of(document["id"]).put(document)

    def command(self, **command):
        self.last_id += 1
        self.write({"id": self.last_id, **command})
        return self.last_id

    def next(self, number):
        return self.of(number).get(timeout=DEADLINE)

    def send(self, **command):
        return self.command(**command)

    def answer(self, number):
        return self.next(number)["answer"]

    def ask(self, **command):
        """Sends a request; its answer."""
        return self.answer(self.send(**command))

    def tell(self, **command):
        return self.next(self.command(**command))

    def watch(self, **watch):
        """A watch that etcd has made."""
        number = self.command(watch=watch)
        first = self.next(number)
        assert first.get("message", {}).get("created"), first
        return number

    def events(self, number, count):
        """So many changes of a watch, as (key, value), or (key, None) of deletions."""
        found = []
        while len(found) < count:
            line = self.next(number)
            assert "message" in line, line
            found += [(event["key"], None if event["deleted"] else event["value"]) for event in line["message"]["events"]]
        return found

    def end(self):
        with contextlib.suppress(OSError):
            self.process.stdin.close()
        self.reader.join()
        self.process.wait()
        self.process.stdout.close()


class EtcdTest(unittest.TestCase):
    maxDiff = None

    def assert_done(self, answer):
        self.assertEqual((answer["failure"], answer["reason"]), ("none", ""))
        return answer

    def client(self, endpoints, **settings):
        client = Client(self, endpoints, **settings)
        self.assertNotIn("error", client.first)
        return client

    def refusal(self, endpoints, **settings):
        """Why settings are refused."""
        return Client(self, endpoints, **settings).first["error"]


def main():
    if not shutil.which("etcd"):
        sys.exit("etcd is not installed; run scripts/install-dependencies bridge")
    os.environ.pop("ETCD_NAME", None)
    unittest.main(argv=[sys.argv[0], *sys.argv[3:]], verbosity=2)
