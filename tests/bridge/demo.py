#!/usr/bin/env python3
"""Shows the bridge between three machines: what scripts/demo --machines 3 runs.

    demo.py FOLDER COUNT      FOLDER holds the programs

Starts three members of etcd and the machines, each with a region and a bridge of its own. Ends non-zero if anything is not as it
should be; whatever it has started ends with it.
"""
import os
import pathlib
import subprocess
import sys
import time

import bridge_network
import bridge_support
from bridge_support import SERVERS, Etcd, Machine, wait_until

FOLDER, COUNT = pathlib.Path(sys.argv[1]).resolve(), int(sys.argv[2])


def say(text):
    print(f"\n== {text}", flush=True)


def show(text):
    print("".join(f"    {line}\n" for line in text.rstrip().splitlines()), end="", flush=True)


class DemoMachine(Machine):
    """A machine whose local processes are the command line's."""

    def make_region(self):
        members = "".join(f'<server name="{name}" priority="{i}"/>' for i, name in enumerate(self.servers))
        (self.folder / "etc/cluster.xml").write_text(
            "<root><all><num><server>8</server><hbr>4</hbr><npr>4</npr><fstr>1</fstr></num></all><cluster>"
            f'{members}<hb type="lan" name="lanhb1" priority="0"/><np type="ping" name="pingnp1" priority="0"/></cluster></root>')
        self.local = self.start("shmnmctl", "serve", "--until-eof", stdin=subprocess.PIPE, stdout=subprocess.PIPE)
        assert self.local.stdout.readline(), "the region was not created"

    def end_region(self):
        if self.local:
            self.local.stdin.close()
            self.local.wait()
            self.local.stdout.close()
        self.local = None

    def ctl(self, *arguments):
        done = self.run("shmnmctl", *arguments)
        assert done.returncode == 0, f"shmnmctl {' '.join(arguments)} on {self.server}: {done.stderr}"
        return done.stdout.strip()

    def set(self, key, value):
        self.ctl("set", key, str(value))

    def get(self, key):
        return int(self.ctl("get", key))

    def marked(self):
        document = self.status()[0] or {}
        return {server["name"]: server["freshness"] for server in document.get("servers", ())}

    def show_status(self):
        show(self.run("shmnmbridge", "status").stdout)


def all_fresh(machines):
    return all(machine.status()[1] == 0 for machine in machines)


def words_agree(machines):
    for machine in machines:
        for owner in machines:
            for key in (f"servers/{owner.server}/nodestat", f"servers/{owner.server}/pingstat", f"hb/lan/lanhb1/svstat/{owner.server}", "cluster/clstat"):
                if machine.get(key) != owner.get(key):
                    return False
    return True


def seconds_until(condition, what):
    began = time.monotonic()
    wait_until(condition, what, 30, 0.1)
    return f"{time.monotonic() - began:.1f} s"


def demonstrate(machines, network):
    first, last = machines[0], machines[-1]
    others = machines[:-1]

    say("Each machine sets its own server's states, in its own region")
    for i, machine in enumerate(machines):
        machine.make_region()
        machine.set(f"servers/{machine.server}/nodestat", 1)
        machine.set(f"servers/{machine.server}/pingstat", 100 + i)
        machine.set(f"hb/lan/lanhb1/svstat/{machine.server}", 1)
    show("\n".join(f"{machine.server} knows {', '.join(name + ' ' + str(machine.get(f'servers/{name}/pingstat')) for name in machine.servers)}" for machine in machines))

    say("A bridge starts on each machine, and the regions converge")
    for machine in machines:
        machine.start_bridge()
    show(f"all fresh after {seconds_until(lambda: all_fresh(machines), 'all machines are fresh')}")
    show("\n".join(f"{machine.server} knows {', '.join(name + ' ' + str(machine.get(f'servers/{name}/pingstat')) for name in machine.servers)}" for machine in machines))
    wait_until(lambda: words_agree(machines), "all regions show the same", 10, 0.1)
    first.show_status()

    say(f"{first.server} sets a word that all machines share")
    first.set("cluster/clstat", 7)
    show(f"clstat is 7 everywhere after {seconds_until(lambda: all(machine.get('cluster/clstat') == 7 for machine in machines), 'clstat arrives')}")

    say(f"{last.server} is cut off; then states change on both sides")
    network.cut(last.number, "both")
    first.set(f"servers/{first.server}/pingstat", 200)
    last.set(f"servers/{last.server}/pingstat", 300)
    took = seconds_until(lambda: all(machine.marked().get(last.server) == "silent" for machine in others)
                         and all(last.marked().get(machine.server) == "unknown" for machine in others), "both sides mark what they do not hear")
    show(f"both sides know it after {took}")
    show(f"{first.server}'s side: {last.server} is silent, and its states are unknown (2)")
    first.show_status()
    wait_until(lambda: all(machine.get(f"servers/{last.server}/nodestat") == 2 for machine in others), f"{last.server}'s state is 2", 10, 0.1)
    show(f"{last.server}'s side: it is cut off, and nothing is known of the others; their words stay, and are marked")
    last.show_status()
    for machine in others:
        assert last.get(f"servers/{machine.server}/nodestat") == 1, "words were changed although nothing was known"
    assert last.get(f"servers/{first.server}/pingstat") == 100 and first.get(f"servers/{last.server}/pingstat") == 100 + last.number, "words have crossed the cut"

    say("The cut heals, and the regions converge again")
    network.heal(last.number)
    show(f"all fresh after {seconds_until(lambda: all_fresh(machines), 'all machines are fresh again')}")
    wait_until(lambda: words_agree(machines), "all regions show the same again", 10, 0.1)
    assert last.get(f"servers/{first.server}/pingstat") == 200 and first.get(f"servers/{last.server}/pingstat") == 300
    last.show_status()

    say("The bridges end; no region loses a word")
    for machine in machines:
        machine.end_bridge()
        assert machine.status()[1] == 3, "a bridge is still there"
        assert machine.get(f"servers/{machine.server}/nodestat") == 1
    say("Everything was as it should be.")


def main():
    if not 2 <= COUNT <= len(SERVERS):
        sys.exit(f"scripts/demo: --machines takes 2 to {len(SERVERS)}")
    reason = bridge_network.isolate()
    network = bridge_network.network(3, COUNT)
    folder = bridge_network.temporary_folder("shmnm-demo-")
    etcd, machines = None, []
    try:
        say("Three members of etcd start" + (f"; proxies stand for networks, because there are no namespaces ({reason})" if reason else ", and each machine has a network namespace"))
        etcd = Etcd(network, folder)
        machines = [DemoMachine(i, SERVERS[:COUNT], network.machines[i], network.endpoints(i), folder, FOLDER) for i in range(COUNT)]
        for machine in machines:
            machine.configure(window_ms=3_000, lease_s=10)
        demonstrate(machines, network)
    except AssertionError as problem:
        sys.exit(f"scripts/demo: {problem}")
    finally:
        for machine in machines:
            machine.end()
        if etcd:
            etcd.end()
        network.end()
        os.rmdir(folder)


if __name__ == "__main__":
    main()
