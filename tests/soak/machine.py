"""The machines of the run: each has an installation, a region with its processes, and a bridge. They share one member of etcd."""
import contextlib
import json
import os
import pathlib
import re
import shutil
import subprocess

import etcd_support
from followers import Watch, Web
from journal import Journal, SharedJournal
from processes import CHILD, DEADLINE, Late, Member, Process, Ready, Silent, until

PROJECT = pathlib.Path(__file__).resolve().parents[2]
CLUSTER_FILE = (PROJECT / "examples/cluster.xml").read_text()
LOG_BYTES = 40_000
GENERATIONS = 4


def configuration(level=4, size=LOG_BYTES, servers=16):
    """The example's configuration with a log of another level and size, or with room for another number of servers."""
    text = re.sub(r"<level>\d+", f"<level>{level}", CLUSTER_FILE)
    text = re.sub(r"<size>\d+", f"<size>{size}", text)
    return re.sub(r"<server>\d+", f"<server>{servers}", text)


class Etcd(Process):
    """A member of etcd. Its wall clock stays as it is: it is not the subject."""

    def __init__(self, folder):
        client, peer = etcd_support.free_ports(2)
        options = ("--auto-compaction-mode", "revision", "--auto-compaction-retention", "200", "--log-level", "error")
        self.member = etcd_support.Member("etcd", folder, client, peer, f"etcd=http://127.0.0.1:{peer}", options)
        super().__init__("etcd", self.member.command, dict(os.environ), folder / "etcd.err")

    def started(self):
        self.member.process = self.child
        self.member.wait_until_serves()

    def forget(self):
        self.member.process = None
        return super().forget()


class Machine:
    """One machine. `processes` has all of its processes by name."""

    def __init__(self, name, server, folder, programs, endpoint, plants):
        self.name, self.server, self.programs, self.plants = name, server, pathlib.Path(programs), plants
        self.folder = folder / name
        for part in ("etc", "log", "dumps", "errors", "other/etc", "other/log"):
            (self.folder / part).mkdir(parents=True)
        self.memory = pathlib.Path(f"/dev/shm/{folder.name}-{name}")
        (self.memory / "journals").mkdir(parents=True)
        self.objects = self.memory / "objects"
        self.clock = self.memory / "clock"
        self.clock.write_bytes(bytes(8))
        self.environment = {key: value for key, value in os.environ.items() if key not in ("NO_COLOR", "NOTIFY_SOCKET", "COLUMNS", "SOAK_PLANT")}
        self.environment |= {"KZM_INSTALL_PATH": str(self.folder), "KZMUTIL_NAMESPACE": f"{folder.name}-{name}-", "KZMKERNEL_FOLDER": str(self.objects),
                             "LD_PRELOAD": str(self.programs / "libsoak_clock.so"), "SOAK_CLOCK": str(self.clock)}
        self.configuration_is_broken, self.log_level = False, 4
        self.configure(configuration())
        (self.folder / "other/etc/cluster.xml").write_text(configuration(servers=32))
        locals_ = "".join(f"<local>{word}</local>" for word in ("waitstat", "bwflagdisk"))
        (self.folder / "etc/bridge.xml").write_text(
            f"<bridge><cluster>soak</cluster><server>{server}</server><host>host-{server}</host><window_ms>1500</window_ms><lease_s>3</lease_s>{locals_}"
            f"<etcd><endpoint>{endpoint}</endpoint></etcd></bridge>")
        self.shared = SharedJournal(self.memory / "journals/shared")
        self.processes = {}
        self.mounted = []

    # Its processes.

    def errors(self, name):
        return self.folder / "errors" / name

    def add(self, process):
        self.processes[process.name] = process
        process.start()
        return process

    def serve(self):
        return self.add(Ready("serve", [self.programs / "shmnmctl", "serve", "--format", "json"], self.environment, self.errors("serve")))

    def keeper(self):
        return self.add(Silent("keeper", [self.programs / "shmnm-keeper"], self.environment, self.errors("keeper"), is_steady=True))

    def member(self, role, server, seed, is_steady=False):
        name = f"{role} {server}"
        journal = Journal(self.memory / "journals" / name.replace(" ", "-"))
        process = Member(name, role, server, journal, self.shared, self, seed, is_steady=is_steady)
        # One process has the faults; a hand-over takes as long as all that use the lock let it.
        plants = self.plants if is_steady and role == "write" else [plant for plant in self.plants if plant == "handover"]
        if plants:
            process.environment = {**self.environment, "SOAK_PLANT": ",".join(plants)}
        return self.add(process)

    def bridge(self, is_steady=False):
        return self.add(Silent("bridge", [self.programs / "shmnmbridge", "run"], self.environment, self.errors("bridge"), is_steady=is_steady))

    def web(self, name, is_steady=False):
        return self.add(Web(name, self, is_steady=is_steady))

    def watch(self, name, is_steady=False):
        return self.add(Watch(name, self, is_steady=is_steady))

    def members(self):
        return [process for process in self.processes.values() if isinstance(process, Member)]

    # Its commands.

    def run(self, *arguments, program="shmnmctl", installation=None):
        """Runs a command. @return its exit status, output and errors"""
        environment = {**self.environment, "KZM_INSTALL_PATH": str(installation)} if installation else self.environment
        command = [*CHILD, str(self.programs / program), *map(str, arguments)]
        try:
            done = subprocess.run(command, stdin=subprocess.DEVNULL, capture_output=True, text=True, env=environment, timeout=DEADLINE)
        except subprocess.TimeoutExpired:
            raise Late(f"{program} {' '.join(map(str, arguments))} does not end") from None
        return done.returncode, done.stdout, done.stderr.strip()

    def words(self):
        """All words, by key, as texts."""
        status, out, errors = self.run("list")
        if status != 0:
            raise Late(f"{self.name}: list ended with {status}: {errors}")
        return dict(line.split(" ", 1) for line in out.splitlines())

    def configure(self, text, in_place=False):
        """Edits the configuration, by another file under its name or in the file itself."""
        file = self.folder / "etc/cluster.xml"
        if in_place:
            file.write_text(text)
        else:
            other = file.with_suffix(".new")
            other.write_text(text)
            other.rename(file)

    def set_clock(self, seconds):
        """Moves the wall clock of all programs of this machine."""
        with open(self.clock, "r+b") as file:
            file.write((round(seconds * 1e9)).to_bytes(8, "little", signed=True))

    # Its disks.

    def mount(self, folder, size):
        subprocess.run(["mount", "-t", "tmpfs", "-o", f"size={size}", "tmpfs", self.folder / folder], check=True)
        self.mounted.append(self.folder / folder)

    def files(self):
        """The files in the folders that the programs use while they run, without the generations of the log and the lock of its
        rotation."""
        folders = (self.objects, self.folder / "log", self.folder / "dumps", self.folder / "etc")
        return [file for folder in folders if folder.is_dir() for file in folder.iterdir() if not file.name.startswith(("shmnm.log", "oru_kzmshmnm_log"))]

    def log_sizes(self):
        """The bytes of each generation of the log."""
        found = []
        for file in (self.folder / "log").glob("shmnm.log*"):
            with contextlib.suppress(FileNotFoundError):  # rotated meanwhile
                found.append(file.stat().st_size)
        return found

    def held_by(self):
        """The processes that hold the region."""
        _, out, _ = self.run("holders", "--format", "json")
        return {holder["process"] for holder in json.loads(out)["holders"]}

    def resume_all(self):
        for process in self.processes.values():
            if process.is_running and process.is_stopped:
                process.go_on()

    def end(self):
        """Ends whatever is left, after a failure too."""
        for process in self.processes.values():
            if process.is_running:
                with contextlib.suppress(OSError):
                    process.kill()
        for mounted in self.mounted:
            subprocess.run(["umount", "--lazy", mounted], check=False)
        shutil.rmtree(self.memory, ignore_errors=True)


def start(first, second, seed):
    """Starts all processes of both machines: on the second only what the first one hears of."""
    first.serve()
    first.keeper()
    # Only the own server's words: others are the bridge's.
    first.member("write", "alpha:words", seed + 1)
    first.member("write", "alpha:hb", seed + 2)
    first.member("write", "alpha:np", seed + 3, is_steady=True)
    first.member("tables", "temp", seed + 4)
    first.member("read", "reader", seed + 5, is_steady=True)
    second.serve()
    second.keeper()
    second.member("write", "delta:words:hb:np", seed + 6)
    for machine in (first, second):
        until(lambda: all(member.journal["state"] for member in machine.members()), "all processes have attached")
    first.bridge(is_steady=True)
    second.bridge()
    first.watch("watch", is_steady=True)
    first.watch("watch 2")
    first.web("web", is_steady=True)
    first.web("web 2")
