"""The network between machines and members of etcd, on one host, and its faults.

Each machine has a network namespace of its own where the system permits that; its cuts are rules of its packet filter.
Elsewhere the machines share the host's network, and a proxy stands between each machine and each member.
"""
import asyncio
import contextlib
import os
import shutil
import socket
import subprocess
import sys
import tempfile
import threading

CLIENT_PORT, PEER_PORT = 2379, 2380
ISOLATED = "SHMNM_TEST_IS_ISOLATED"
NAMESPACES = ["unshare", "--net", "--mount"]
# The interfaces, the packet filter and the files of a machine under wine: all that the tests need of namespaces.
PROBE = """set -e
mount -t tmpfs tmpfs /run && mkdir /run/netns
ip link set lo up && ip link add hub type bridge
ip netns add probe && ip link add probe type veth peer name eth0 netns probe
nsenter --net=/run/netns/probe iptables -w -I INPUT -p tcp --sport 1 -j DROP"""


def unshare():
    """The command that runs another one in namespaces of its own."""
    return NAMESPACES if os.geteuid() == 0 else [*NAMESPACES, "--user", "--map-root-user"]


def reason_for_no_namespaces():
    """Why this system permits no network namespaces; nothing if it permits them."""
    for program in ("unshare", "nsenter", "ip", "iptables"):
        if not shutil.which(program, path=f"{os.environ.get('PATH', '')}:/usr/sbin:/sbin"):
            return f"{program} is not installed"
    done = subprocess.run([*unshare(), "sh", "-c", PROBE], capture_output=True, text=True)
    return "" if done.returncode == 0 else (done.stderr.strip().splitlines() or ["unshare failed"])[-1]


def isolate():
    """Continues this program in namespaces of its own, which end with it, if the system permits that.
    @return why it does not; nothing if this program runs in them"""
    if os.environ.get(ISOLATED):
        make_hub()
        return ""
    reason = reason_for_no_namespaces()
    if not reason:
        environment = dict(os.environ, **{ISOLATED: "1"})
        environment["PATH"] += ":/usr/sbin:/sbin"
        sys.stdout.flush()
        os.execvpe(unshare()[0], [*unshare(), sys.executable, "-B", *sys.argv], environment)
    return reason


def run(*words):
    subprocess.run([str(word) for word in words], check=True, stdout=subprocess.DEVNULL)


def make_hub():
    """The switch to which all namespaces are connected, this program's too. It ends with this program's namespaces."""
    run("mount", "--make-rprivate", "/")
    run("mount", "-t", "tmpfs", "tmpfs", "/run")
    os.mkdir("/run/netns")
    run("ip", "link", "set", "lo", "up")
    run("ip", "link", "add", "hub", "type", "bridge")
    run("ip", "addr", "add", "10.77.0.1/24", "dev", "hub")
    run("ip", "link", "set", "hub", "up")


class Place:
    """A network namespace with one address."""

    def __init__(self, name, number):
        self.name, self.address = name, f"10.77.0.{number}"
        self.command = ["nsenter", f"--net=/run/netns/{name}"]
        run("ip", "netns", "add", name)
        run("ip", "link", "add", f"to-{name}", "type", "veth", "peer", "name", "eth0", "netns", name)
        run("ip", "link", "set", f"to-{name}", "master", "hub", "up")
        for words in (("addr", "add", f"{self.address}/24", "dev", "eth0"), ("link", "set", "eth0", "up"), ("link", "set", "lo", "up")):
            run("ip", "-n", name, *words)

    def rule(self, chain, *words):
        run(*self.command, "iptables", "-w", "-A", chain, "-p", "tcp", *words, "-j", "DROP")

    def cut(self, direction, port):
        """Drops what goes "to" a port elsewhere, what comes "from" it, or "both". A member's own port is cut in the same way."""
        if direction in ("to", "both"):
            self.rule("OUTPUT", "--dport", port)
            self.rule("OUTPUT", "--sport", port)
        if direction in ("from", "both"):
            self.rule("INPUT", "--sport", port)
            self.rule("INPUT", "--dport", port)

    def heal(self):
        run(*self.command, "iptables", "-w", "-F")


class Namespaces:
    """One namespace for each member and each machine."""

    can_cut_members = True

    def __init__(self, members, machines):
        self.members = [Place(f"etcd{i}", 11 + i) for i in range(members)]
        self.machines = [Place(f"machine{i}", 21 + i) for i in range(machines)]

    def endpoints(self, _):
        return [f"http://{place.address}:{CLIENT_PORT}" for place in self.members]

    def cut(self, machine, direction):
        self.machines[machine].cut(direction, CLIENT_PORT)

    def heal(self, machine):
        self.machines[machine].heal()

    def cut_member(self, member, direction):
        self.members[member].cut(direction, PEER_PORT)

    def heal_member(self, member):
        self.members[member].heal()

    def end(self):
        for place in self.members + self.machines:
            run("ip", "netns", "delete", place.name)
            # The other end goes with the namespace, which lives for as long as a process is in it.
            subprocess.run(["ip", "link", "delete", f"to-{place.name}"], capture_output=True)


class Loopback:
    """An address of the host's loopback network."""

    command = []

    def __init__(self, address):
        self.address = address


class Proxies:
    """The host's own network, with a proxy for each machine and member. A cut holds what it should drop: what a network drops is
    sent again, and arrives when the cut has healed."""

    can_cut_members = False

    def __init__(self, members, machines):
        net = self.free_net()
        self.members = [Loopback(f"127.{net}.{11 + i}") for i in range(members)]
        self.machines = [Loopback(f"127.{net}.{21 + i}") for i in range(machines)]
        self.loop = asyncio.new_event_loop()
        self.thread = threading.Thread(target=self.loop.run_forever)
        self.thread.start()
        self.gates = [{way: self.call(self.gate()) for way in ("to", "from")} for _ in self.machines]
        self.servers = []
        for machine, place in enumerate(self.machines):
            for number, member in enumerate(self.members):
                self.servers.append(self.call(self.serve(self.gates[machine], place.address, CLIENT_PORT + number, member.address)))

    @staticmethod
    def free_net():
        for net in (f"77.{number}" for number in range(256)):
            with contextlib.suppress(OSError):
                socket.create_server((f"127.{net}.11", CLIENT_PORT)).close()
                return net
        raise AssertionError("no free addresses")

    def call(self, coroutine):
        return asyncio.run_coroutine_threadsafe(coroutine, self.loop).result()

    @staticmethod
    async def gate():
        gate = asyncio.Event()
        gate.set()
        return gate

    @staticmethod
    async def serve(gates, address, port, member):
        async def copy(reader, writer, gate):
            with contextlib.suppress(OSError, asyncio.CancelledError):
                while part := await reader.read(1 << 16):
                    await gate.wait()
                    writer.write(part)
                    await writer.drain()
                await gate.wait()
            writer.close()

        async def connected(reader, writer):
            with contextlib.suppress(OSError, asyncio.CancelledError):
                await gates["to"].wait()
                there = await asyncio.open_connection(member, CLIENT_PORT)
                await asyncio.gather(copy(reader, there[1], gates["to"]), copy(there[0], writer, gates["from"]))
            writer.close()

        return await asyncio.start_server(connected, address, port)

    def endpoints(self, machine):
        return [f"http://{self.machines[machine].address}:{CLIENT_PORT + i}" for i in range(len(self.members))]

    def cut(self, machine, direction):
        for way in ("to", "from") if direction == "both" else (direction,):
            self.loop.call_soon_threadsafe(self.gates[machine][way].clear)

    def heal(self, machine):
        for gate in self.gates[machine].values():
            self.loop.call_soon_threadsafe(gate.set)

    async def close(self):
        for server in self.servers:
            server.close()
        tasks = asyncio.all_tasks() - {asyncio.current_task()}
        for task in tasks:
            task.cancel()
        await asyncio.gather(*tasks, return_exceptions=True)

    def end(self):
        self.call(self.close())
        self.loop.call_soon_threadsafe(self.loop.stop)
        self.thread.join()
        self.loop.close()


def network(members, machines):
    return Namespaces(members, machines) if os.environ.get(ISOLATED) else Proxies(members, machines)


def temporary_folder(prefix):
    """A folder in memory, where there is room for one."""
    return tempfile.mkdtemp(prefix=prefix, dir="/dev/shm" if os.access("/dev/shm", os.W_OK) else None)
