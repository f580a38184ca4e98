"""What the tests of shmnmbridge share: machines, each with a region, a bridge and a process that calls the library.

Each test file is run natively and, with Windows programs, under wine; etcd runs outside:
    NAME_test.py linux|windows FOLDER [TEST...]
"""
import json
import os
import pathlib
import re
import shutil
import signal
import subprocess
import sys
import tempfile
import threading
import time
import unittest

PROJECT = pathlib.Path(__file__).resolve().parents[2]
sys.path[:0] = [str(PROJECT / "tests/etcd"), str(PROJECT / "tests/shmnmctl")]

import etcd_support  # noqa: E402
import support  # noqa: E402

PLATFORM, FOLDER = etcd_support.PLATFORM, etcd_support.FOLDER
support.PLATFORM, support.FOLDER = PLATFORM, FOLDER
DEADLINE = 60
COUNTS = "<num><server>4</server><hbr>3</hbr><npr>2</npr><fstr>1</fstr></num>"


def until(condition, what):
    """Waits for others, with a limit that only a failure meets."""
    end = time.monotonic() + DEADLINE
    while not (found := condition()):
        if time.monotonic() > end:
            raise AssertionError(f"not within {DEADLINE} s: {what}")
        threading.Event().wait(0.01)
    return found


class Bridge:
    """A bridge that runs. What it writes is collected."""

    def __init__(self, machine, command, environment):
        self.log = tempfile.TemporaryFile()
        self.process = subprocess.Popen(command, stdin=subprocess.DEVNULL, stdout=subprocess.PIPE, stderr=self.log, env=environment)
        self.ready = self.process.stdout.readline().decode().strip()

    def logged(self):
        self.log.seek(0)
        return self.log.read().decode()

    def end(self, how=signal.SIGKILL):
        if self.process.poll() is None:
            self.process.send_signal(how)
        status = self.process.wait(DEADLINE)
        self.process.stdout.close()
        return status


class Machine:
    """An installation with names of its own, as one machine of a cluster has them."""

    def __init__(self, test, server, endpoints, folder="", **settings):
        self.server = server
        place = pathlib.Path(tempfile.mkdtemp(prefix="bridge-"))
        test.addCleanup(shutil.rmtree, place, ignore_errors=True)
        self.folder = place / folder
        (self.folder / "etc").mkdir(parents=True)
        (self.folder / "log").mkdir()
        self.environment = {name: value for name, value in os.environ.items() if name not in ("NO_COLOR", "NOTIFY_SOCKET")}
        self.environment["KZM_INSTALL_PATH"] = support.path(self.folder)
        self.environment["KZMUTIL_NAMESPACE"] = f"bridge-{os.getpid()}-{place.name}-"
        (self.folder / "etc/cluster.xml").write_text(f"<root><all>{COUNTS}</all></root>")
        self.configure(endpoints, **settings)
        self.api = support.Api(self.environment)
        test.addCleanup(self.api.end)
        self.test, self.bridge = test, None
        test.addCleanup(lambda: self.bridge and self.bridge.log.close())
        test.addCleanup(lambda: self.bridge and self.bridge.end())

    def configure(self, endpoints, etcd="", **settings):
        """Short times, unless the test has others."""
        texts = {"cluster": "test", "server": self.server, "window_ms": 600, "lease_s": 3, **settings}
        elements = "".join(f"<{name}>{value}</{name}>" for name, value in texts.items())
        listed = "".join(f"<endpoint>{each}</endpoint>" for each in endpoints)
        (self.folder / "etc/bridge.xml").write_text(f"<bridge>{elements}<etcd>{listed}{etcd}</etcd></bridge>")

    def create(self, servers=("alpha", "beta")):
        self.api.ok("shmnm_create")
        for priority, server in enumerate(servers):
            self.api.ok("shmnm_addnode", server, priority)
        self.api.ok("shmnm_addhbrsc", "lan", "lan1", 0)
        return self

    def run(self, *arguments, program="shmnmbridge"):
        command = support.program(program) if isinstance(program, str) else program
        done = subprocess.run([*command, *arguments], stdin=subprocess.DEVNULL, capture_output=True, env=self.environment, timeout=DEADLINE)
        return support.Result(done.returncode, done.stdout, done.stderr.decode())

    def start(self, command=None, **environment):
        """Starts the bridge."""
        if self.bridge:
            self.bridge.log.close()
        self.bridge = Bridge(self, command or [*support.program("shmnmbridge"), "run"], {**self.environment, **environment})
        return self.bridge

    def status(self):
        return json.loads(self.run("status", "--format", "json").out)

    def freshness(self, server):
        return next((each["freshness"] for each in self.status().get("servers", []) if each["name"] == server), None)

    def get(self, function, *inputs):
        return [int(each) for each in self.api.ok(function, *inputs)]

    def waits_for(self, value, function, *inputs):
        until(lambda: self.get(function, *inputs) == [value], f"{function}{inputs} = {value} on {self.server}: {self.bridge and self.bridge.logged()}")

    def waits_for_freshness(self, server, freshness):
        until(lambda: self.freshness(server) == freshness, f"{server} {freshness} on {self.server}: {self.bridge.logged()}")

    def words(self):
        """The whole picture in words, as the tool shows it, without what it says of the bridge."""
        lines = self.run("list", program="shmnmctl").out.splitlines(keepends=True)
        return "".join(line for line in lines if not line.startswith("bridge/"))


class BridgeTest(unittest.TestCase):
    maxDiff = None
    etcd = None

    @classmethod
    def setUpClass(cls):
        cls.etcd = etcd_support.Cluster(cls.addClassCleanup)

    def setUp(self):
        # Each test has keys of its own.
        self.cluster = re.sub(r"\W", "", self.id())[-60:]

    def machine(self, server, endpoints=None, **settings):
        return Machine(self, server, endpoints or self.etcd.endpoints, **{"cluster": self.cluster, **settings})

    def keys(self):
        """The cluster's keys in etcd, without what all have in common."""
        import base64
        prefix = f"/shmnm/{self.cluster}/1/".encode()
        ask = {"key": base64.b64encode(prefix).decode(), "range_end": base64.b64encode(prefix[:-1] + b"0").decode()}
        status, answer = self.etcd.members[0].post("/v3/kv/range", ask)
        self.assertEqual(status, 200)
        return {base64.b64decode(each["key"])[len(prefix):].decode(): base64.b64decode(each["value"]).decode() for each in answer.get("kvs", [])}


def main():
    etcd_support.main()
