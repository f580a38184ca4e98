"""What the tests of the bridge share: real members of etcd, and machines with a region, local processes and a bridge of their own.

    NAME_test.py linux|windows FOLDER [OPTION...]

With `windows` the last machine runs Windows programs, from FOLDER, under wine; the others run Linux programs from the build
linux-release.
"""
import base64
import collections
import contextlib
import http.client
import json
import os
import pathlib
import queue
import shutil
import signal
import subprocess
import sys
import threading
import time
import urllib.error
import urllib.request

import bridge_network

PROJECT = pathlib.Path(__file__).resolve().parents[2]
DEADLINE = 60
NOT_RUN = 77  # ctest reports it as "Skipped"
SERVERS = ("alpha", "beta", "gamma", "delta", "epsilon")
PREFIX = "/shmnm/tests/1/"
WINDOW, LEASE = 1.5, 3.0
LIMIT = WINDOW + 3 * WINDOW / 9
MARKED = WINDOW + 1  # by then a machine that is no longer heard is not fresh
# A number that no local process sets says nothing of its origin: what new records hold.
FIRST_NUMBER = 1_000
QUOTA = 16 << 20

# The end of this program ends what it has started, however it ends.
CHILD = ["setpriv", "--pdeathsig", "KILL"]


def encoded(text):
    return base64.b64encode(text.encode()).decode()


def decoded(text):
    return base64.b64decode(text).decode()


def after_prefix(prefix):
    """The end of the range of all keys with a prefix."""
    return prefix[:-1] + chr(ord(prefix[-1]) + 1)


def wait_until(condition, what, timeout=DEADLINE, pause=0.02):
    end = time.monotonic() + timeout
    while not (found := condition()):
        if time.monotonic() > end:
            raise AssertionError(f"not within {timeout} s: {what}")
        threading.Event().wait(pause)
    return found


class Member:
    def __init__(self, name, place, folder, initial, options):
        self.name, self.place = name, place
        self.endpoint = f"http://{place.address}:{bridge_network.CLIENT_PORT}"
        peer = f"http://{place.address}:{bridge_network.PEER_PORT}"
        self.command = [*place.command, *CHILD, "etcd", "--name", name, "--data-dir", f"{folder}/{name}", "--listen-client-urls", self.endpoint,
                        "--advertise-client-urls", self.endpoint, "--listen-peer-urls", peer, "--initial-advertise-peer-urls", peer, "--initial-cluster",
                        initial, "--unsafe-no-fsync", "--heartbeat-interval", "50", "--election-timeout", "500", "--logger", "zap", "--log-level", "error",
                        "--quota-backend-bytes", str(QUOTA), *options]
        self.log = open(f"{folder}/{name}.log", "ab")
        self.process = None

    def start(self):
        self.process = subprocess.Popen(self.command, stdin=subprocess.DEVNULL, stdout=self.log, stderr=self.log)

    def kill(self):
        if self.process:
            self.process.kill()
            self.process.wait()
        self.process = None

    def post(self, target, body, timeout=10):
        """The answer. @throws OSError  there is none, or it says that etcd refuses"""
        request = urllib.request.Request(self.endpoint + target, json.dumps(body).encode(), {"Content-Type": "application/json"})
        with urllib.request.urlopen(request, timeout=timeout) as answer:
            return json.loads(answer.read())

    def is_serving(self):
        with contextlib.suppress(OSError, ValueError):
            return bool(self.post("/v3/kv/range", {"key": encoded("x")}, 2))
        return False

    def is_leader(self):
        status = self.post("/v3/maintenance/status", {})
        return status.get("leader") == status["header"]["member_id"]


class Etcd:
    def __init__(self, network, folder, options=()):
        self.folder = pathlib.Path(folder) / f"etcd-{time.monotonic_ns()}"
        self.folder.mkdir()
        places = network.members
        initial = ",".join(f"etcd{i}=http://{place.address}:{bridge_network.PEER_PORT}" for i, place in enumerate(places))
        self.members = [Member(f"etcd{i}", place, self.folder, initial, options) for i, place in enumerate(places)]
        for member in self.members:
            member.start()
        for member in self.members:
            wait_until(member.is_serving, f"{member.name} serves")

    def post(self, target, body):
        """Asks the members until one answers."""
        end = time.monotonic() + DEADLINE
        while True:
            for member in self.members:
                with contextlib.suppress(OSError, ValueError):
                    return member.post(target, body, 3)
            assert time.monotonic() < end, "no member of etcd answers"

    def leader(self):
        return wait_until(lambda: next((member for member in self.members if member.process and self.leads(member)), None), "etcd has a leader")

    @staticmethod
    def leads(member):
        with contextlib.suppress(OSError, ValueError):
            return member.is_leader()
        return False

    def keys(self):
        """All keys of the bridge with their values, decoded."""
        answer = self.post("/v3/kv/range", {"key": encoded(PREFIX), "range_end": encoded(after_prefix(PREFIX))})
        return {decoded(one["key"])[len(PREFIX):]: json.loads(decoded(one["value"])) for one in answer.get("kvs", ())}

    def fill(self):
        """Writes until the database is full. @return the number of bytes"""
        wait_until(self.members[0].is_serving, "the first member serves")  # it may just have been started again
        written, value = 0, base64.b64encode(bytes(1 << 20)).decode()
        while True:
            try:
                self.members[0].post("/v3/kv/put", {"key": encoded("fill/" + str(written)), "value": value}, 30)
            except urllib.error.HTTPError as error:
                assert "space" in error.read().decode()
                return written
            written += 1 << 20

    def empty(self, history):
        """Makes room again, as an operator does, when the history has been read."""
        answer = self.post("/v3/kv/deleterange", {"key": encoded("fill/"), "range_end": encoded(after_prefix("fill/"))})
        # Nobody can write: the newest revision of the bridge's keys is their last.
        history.catch_up()
        # A watch that begins again must not ask for what is compacted.
        history.revision = max(history.revision, int(answer["header"]["revision"]))
        self.post("/v3/kv/compaction", {"revision": answer["header"]["revision"], "physical": True})
        for member in self.members:
            member.post("/v3/maintenance/defragment", {}, DEADLINE)
        for alarm in self.post("/v3/maintenance/alarm", {"action": "GET"}).get("alarms", ()):
            self.post("/v3/maintenance/alarm", {"action": "DEACTIVATE", **alarm})
        # etcd 3.4 stores how far it has come only with a write. A member that is killed before the first write after the alarm applies
        # requests again that it refused while it was full, now with success, and its data then differ from those of the others for good.
        written = int(self.post("/v3/kv/put", {"key": encoded("room"), "value": ""})["header"]["revision"])
        for member in self.members:
            wait_until(lambda: self.revision(member) >= written, f"{member.name} has the first write after the alarm")
            member.post("/v3/maintenance/defragment", {}, DEADLINE)

    def newest(self):
        """The last revision of the bridge's keys."""
        kept = self.post("/v3/kv/range", {"key": encoded(PREFIX), "range_end": encoded(after_prefix(PREFIX)), "keys_only": True}).get("kvs", ())
        return max((int(one["mod_revision"]) for one in kept), default=0)

    @staticmethod
    def revision(member):
        """What the member itself has come to, whatever the others have."""
        return int(member.post("/v3/kv/range", {"key": encoded("x"), "serializable": True})["header"]["revision"])

    def revisions(self):
        """What each member has come to. They differ for moments only, unless the members hold different data."""
        return {member.name: self.revision(member) for member in self.members}

    def end(self):
        for member in self.members:
            member.kill()
            member.log.close()
        shutil.rmtree(self.folder, ignore_errors=True)


class History:
    """All changes of the bridge's keys, in etcd's order, read by a watch that goes on after a member has failed."""

    def __init__(self, etcd):
        self.etcd, self.changes, self.revision, self.ended, self.is_lost = etcd, [], 0, False, False
        self.connection = None
        self.thread = threading.Thread(target=self.follow)
        self.thread.start()

    def follow(self):
        while not self.ended:
            for member in self.etcd.members:
                with contextlib.suppress(OSError, ValueError, http.client.HTTPException):
                    self.follow_member(member)
            threading.Event().wait(0.05)

    def follow_member(self, member):
        # Three seconds without any change are as good as an end: a member that is cut off says nothing.
        self.connection = http.client.HTTPConnection(member.place.address, bridge_network.CLIENT_PORT, timeout=3)
        with contextlib.closing(self.connection):
            create = {"key": encoded(PREFIX), "range_end": encoded(after_prefix(PREFIX)), "start_revision": self.revision + 1}
            self.connection.request("POST", "/v3/watch", json.dumps({"create_request": create}))
            answer = self.connection.getresponse()
            while not self.ended and (line := answer.readline()):
                if not self.take(json.loads(line)["result"]):
                    return

    def take(self, result):
        """@return whether the watch goes on"""
        if compacted := int(result.get("compact_revision", 0)):
            # The watch was to begin before the compaction. That is no loss if what lies between has been read or passed over since.
            if self.revision + 1 < compacted:
                self.is_lost = self.ended = True
            return False
        for event in result.get("events", ()):
            pair = event["kv"]
            value = None if event.get("type") == "DELETE" else json.loads(decoded(pair["value"]))
            self.changes.append((int(pair["mod_revision"]), decoded(pair["key"])[len(PREFIX):], value))
            self.revision = max(self.revision, int(pair["mod_revision"]))
        return True

    def catch_up(self):
        """Waits for what has been written so far. It is late if its member was cut off."""
        newest = self.etcd.newest()
        wait_until(lambda: self.is_lost or self.revision >= newest, "the history is read")

    def end(self):
        self.ended = True
        self.thread.join()


class Local:
    """The local processes of a machine: one life of the program bridge_machine."""

    def __init__(self, machine, first_number):
        self.machine, self.answers = machine, queue.Queue()
        # Under wine a look is slow.
        self.process = machine.start("bridge_machine", machine.server, first_number, 50 if machine.is_windows else 200, stdin=subprocess.PIPE, stdout=subprocess.PIPE)
        began = float(self.process.stdout.readline().split()[1]) / 1e9
        # The clocks of Linux programs are one; that of a Windows program begins elsewhere.
        self.ahead = began - time.monotonic() if machine.is_windows else 0.0
        self.reader = threading.Thread(target=self.read)
        self.reader.start()

    def read(self):
        for line in self.process.stdout:
            words = line.decode().split()
            if words and words[0] in Machine.KINDS:
                self.machine.record(words, float(words[1]) / 1e9 - self.ahead)
            elif words:
                self.answers.put(words)
        self.answers.put(["ended"])

    def tell(self, *words):
        self.process.stdin.write((" ".join(str(word) for word in words) + "\n").encode())
        self.process.stdin.flush()

    def ask(self, *words):
        self.tell(*words)
        answer = self.answers.get(timeout=DEADLINE)
        assert answer == ["done"], (words, answer)

    def kill(self):
        self.process.kill()
        self.process.wait()
        self.reader.join()
        for stream in (self.process.stdin, self.process.stdout):
            with contextlib.suppress(OSError):
                stream.close()


Event = collections.namedtuple("Event", "time key value")
# What "shmnmbridge status" said, with its exit status, between two times.
Account = collections.namedtuple("Account", "begin end document code")


class Machine:
    """One machine. What its processes tell is kept: `written` by its local processes, `shown` by its region, its `marks`, and when
    there was a `region`."""

    KINDS = {"w": "written", "s": "shown", "m": "marks", "r": "region"}

    def __init__(self, number, servers, place, endpoints, folder, linux, windows=None):
        self.number, self.server, self.servers, self.place, self.endpoints = number, servers[number], servers, place, endpoints
        self.is_windows = windows is not None
        self.programs = pathlib.Path(windows or linux)
        self.folder = pathlib.Path(folder) / f"{self.server}-{time.monotonic_ns()}"
        (self.folder / "etc").mkdir(parents=True)
        self.environment = dict(os.environ, KZM_INSTALL_PATH=self.path(self.folder), KZMUTIL_NAMESPACE=f"bridge-{os.getpid()}-{self.server}-")
        if self.is_windows:
            self.environment["SHMNM_WINEPREFIX"] = str(self.wine_prefix())
        self.written, self.shown, self.marks, self.region, self.accounts = [], [], [], [], []
        self.cleared = []  # when a local process was asked to clear the region
        self.lives = 0
        self.local = self.bridge = None
        (self.folder / "etc/cluster.xml").write_text(
            "<root><all><num><server>8</server><hbr>4</hbr><npr>4</npr><fstr>1</fstr></num></all><shmnm><log><level>2</level></log></shmnm></root>")
        self.configure()

    def wine_prefix(self):
        """A prefix of this machine's own, over the project's, so that wine's server starts here and has this machine's network."""
        if not self.place.command:
            return os.environ.get("SHMNM_WINEPREFIX", PROJECT / "build/wine")
        lower = pathlib.Path(os.environ.get("SHMNM_WINEPREFIX", PROJECT / "build/wine"))
        layers = self.folder / "wine"
        for name in ("upper", "work", "prefix"):
            (layers / name).mkdir(parents=True)
        bridge_network.run("mount", "-t", "overlay", "-o", f"lowerdir={lower},upperdir={layers}/upper,workdir={layers}/work", "overlay", layers / "prefix")
        return layers / "prefix"

    def path(self, name):
        """A file's name as this machine's programs know it."""
        return "Z:" + str(name).replace("/", "\\") if self.is_windows else str(name)

    def configure(self, **changes):
        settings = {"cluster": "tests", "server": self.server, "endpoints": self.endpoints, "host": f"host-{self.server}", **changes}
        (self.folder / "etc/bridge.xml").write_text(configuration(**settings))

    def command(self, name, *arguments):
        program = [str(PROJECT / "scripts/wine"), str(self.programs / f"{name}.exe")] if self.is_windows else [str(self.programs / name)]
        return [*self.place.command, *CHILD, *program, *(str(argument) for argument in arguments)]

    def start(self, name, *arguments, environment=None, **streams):
        return subprocess.Popen(self.command(name, *arguments), env={**self.environment, **(environment or {})}, **{"stdin": subprocess.DEVNULL, **streams})

    def run(self, name, *arguments):
        return subprocess.run(self.command(name, *arguments), env=self.environment, stdin=subprocess.DEVNULL, capture_output=True, text=True, timeout=DEADLINE)

    def record(self, words, moment):
        kind, key, value = words[0], words[2] if len(words) > 3 else "", words[-1]
        getattr(self, self.KINDS[kind]).append(Event(moment, key, value if kind == "m" else int(value)))

    # Its region and local processes.

    def first_number(self):
        """Numbers tell whose they are: each life of a machine's local processes begins with one of its own."""
        return (self.number + 1) * 1_000_000 + self.lives * 50_000 + FIRST_NUMBER

    def make_region(self):
        self.lives += 1
        self.local = Local(self, self.first_number())
        self.local.ask("make", *self.servers)

    def end_region(self):
        if self.local:
            self.local.kill()
            # With the region ends the only one that watches it: nothing is known until the next life.
            now = time.monotonic()
            self.region.append(Event(now, "", 0))
            for events in (self.shown, self.marks):
                events += [Event(now, key, None) for key in {event.key for event in events}]
        self.local = None

    # Its bridge.

    def start_bridge(self, **environment):
        with open(self.folder / "bridge.log", "ab") as log:
            self.bridge = self.start("shmnmbridge", "run", environment=environment, stdout=log, stderr=log)

    def signal_bridge(self, number):
        if self.bridge:
            self.bridge.send_signal(number)

    def kill_bridge(self):
        if self.bridge:
            self.bridge.kill()
            self.bridge.wait()
        self.bridge = None

    def end_bridge(self):
        """The clean end."""
        self.bridge.send_signal(signal.SIGTERM)
        assert self.bridge.wait(DEADLINE) == 0, self.log()
        self.bridge = None

    def status(self):
        """The bridge's own account, or nothing if it failed; and the exit status."""
        done = self.run("shmnmbridge", "status", "--format", "json")
        return (json.loads(done.stdout) if done.stdout.strip() else None), done.returncode

    def ask_status(self):
        """Keeps the bridge's own account."""
        begin = time.monotonic()
        document, code = self.status()
        assert document, f"status failed with {code}"
        self.accounts.append(Account(begin, time.monotonic(), document, code))
        return self.accounts[-1]

    def log(self):
        return (self.folder / "bridge.log").read_text(errors="replace")

    # What it shows.

    def now_shown(self):
        return {event.key: event.value for event in list(self.shown)}

    def now_marked(self):
        return {event.key: event.value for event in list(self.marks)}

    def end(self):
        self.kill_bridge()
        self.end_region()
        if self.is_windows and self.place.command:
            subprocess.run([*self.place.command, "/usr/lib/wine/wineserver64", "-k"], env=dict(os.environ, WINEPREFIX=self.environment["SHMNM_WINEPREFIX"]), capture_output=True)
            subprocess.run(["umount", "--lazy", self.environment["SHMNM_WINEPREFIX"]], capture_output=True)
        shutil.rmtree(self.folder, ignore_errors=True)


def configuration(cluster, server, host, endpoints, window_ms=int(WINDOW * 1_000), lease_s=int(LEASE)):
    return (f"<bridge><cluster>{cluster}</cluster><server>{server}</server><host>{host}</host><window_ms>{window_ms}</window_ms><lease_s>{lease_s}</lease_s>"
            f"<etcd>{''.join(f'<endpoint>{endpoint}</endpoint>' for endpoint in endpoints)}</etcd></bridge>")


class Scene:
    """Members and machines together; all of them end with it."""

    def __init__(self, machines, linux, windows=None, members=3, etcd_options=()):
        self.cleanup = contextlib.ExitStack()
        try:
            self.folder = bridge_network.temporary_folder("shmnm-bridge-")
            self.cleanup.callback(shutil.rmtree, self.folder, ignore_errors=True)
            self.network = bridge_network.network(members, machines)
            self.cleanup.callback(self.network.end)
            self.etcd = Etcd(self.network, self.folder, etcd_options)
            self.cleanup.callback(self.etcd.end)
            self.machines = []
            for number in range(machines):
                is_windows = windows and number == machines - 1
                machine = Machine(number, SERVERS[:machines], self.network.machines[number], self.network.endpoints(number), self.folder, linux, windows if is_windows else None)
                self.machines.append(machine)
                self.cleanup.callback(machine.end)
        except BaseException:
            self.cleanup.close()
            raise

    def __enter__(self):
        return self

    def __exit__(self, *_):
        self.cleanup.close()

    def others(self, machine):
        return [other for other in self.machines if other is not machine]

    def all_fresh(self):
        return all(machine.now_marked().get(other.server) == "fresh" for machine in self.machines for other in self.others(machine))

    def differences(self):
        """Where a region shows other words than their owner's region, or than etcd."""
        shown = {machine.server: machine.now_shown() for machine in self.machines}
        agreed = {"cluster/" + key.split("/")[1]: value["value"][0] for key, value in self.etcd.keys().items() if key.startswith("agreed/") and key.count("/") == 1}
        found = []
        for server, words in shown.items():
            for other in shown:
                for key in shown[other]:
                    if other in key.split("/") and other != server and words.get(key) != shown[other][key]:
                        found.append(f"{key} is {words.get(key)} on {server} and {shown[other][key]} on its own machine")
            for key, value in agreed.items():
                if words.get(key) != value:
                    found.append(f"{key} is {words.get(key)} on {server} and {value} in etcd")
        return found


def why_not_run(linux, windows):
    if not shutil.which("etcd"):
        return "etcd is not installed; run scripts/install-dependencies bridge"
    for folder in filter(None, (linux, windows)):
        if not any((pathlib.Path(folder) / f"bridge_machine{suffix}").exists() for suffix in ("", ".exe")):
            return f"there are no programs in {folder}; build it first"
    return ""


def begin(platform, folder):
    """Prepares this program. @return the folders of the Linux and of the Windows programs. Ends it with 77 if it cannot run."""
    linux, windows = (PROJECT / "build/linux-release/bin", folder) if platform == "windows" else (folder, None)
    reason = why_not_run(linux, windows)
    if reason:
        print("not run: " + reason)
        sys.exit(NOT_RUN)
    if windows:
        # The project's prefix is ready before machines lay their own over it.
        subprocess.run([str(PROJECT / "scripts/wine"), "cmd", "/c", "exit"], check=True, stdin=subprocess.DEVNULL)
    os.environ.pop("ETCD_NAME", None)
    reason = bridge_network.isolate()
    if reason:
        print(f"no network namespaces ({reason}): proxies cut the machines off")
    return linux, windows
