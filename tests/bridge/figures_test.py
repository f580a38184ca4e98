#!/usr/bin/env python3
"""What the bridge costs, and that it costs no more with time.

    figures_test.py FOLDER [--machines N] [--seconds N] [--soak SECONDS]

Machines whose local processes set ten words a second each: how long a change takes to all other machines, what goes over the
network, what etcd and the bridges use. --soak goes on, with cuts, failures of members and compactions, and then compares the
memory and descriptors of the bridges, none of which is started again. Only the soak can fail: the machine's speed is not the subject.
"""
import argparse
import json
import os
import pathlib
import random
import re
import signal
import subprocess
import sys
import threading
import time
import urllib.request

from bridge_support import History, Scene, begin, wait_until

CHANGES_PER_SECOND = 10


def pause(seconds):
    threading.Event().wait(seconds)


def processor_seconds(process):
    fields = pathlib.Path(f"/proc/{process.pid}/stat").read_text().rsplit(")", 1)[1].split()
    return (int(fields[11]) + int(fields[12])) / os.sysconf("SC_CLK_TCK")


def network_bytes(machine):
    """What has gone to a machine and come from it; nothing without namespaces."""
    if not machine.place.command:
        return 0
    told = subprocess.run(["ip", "-s", "-j", "link", "show", "dev", f"to-{machine.place.name}"], capture_output=True, check=True)
    return sum(json.loads(told.stdout)[0]["stats64"][way]["bytes"] for way in ("rx", "tx"))


def transactions(etcd):
    text = urllib.request.urlopen(etcd.members[0].endpoint + "/metrics", timeout=10).read().decode()
    return float(re.search(r"^etcd_server_proposals_applied_total (\S+)", text, re.M)[1])


def memory(process):
    return int(re.search(r"VmRSS:\s+(\d+)", pathlib.Path(f"/proc/{process.pid}/status").read_text())[1])


def descriptors(process):
    return len(os.listdir(f"/proc/{process.pid}/fd"))


def longest_hold(machines):
    return max(machine.status()[0]["longest_hold_us"] for machine in machines)


def latencies(scene, since):
    """Milliseconds from each change until each other region shows it, or a later one of the same word. The newest are left out:
    they may be on their way."""
    found, newest = [], time.monotonic() - 2
    for owner in scene.machines:
        for machine in scene.others(owner):
            shown = {}
            for event in list(machine.shown):
                shown.setdefault(event.key, []).append(event)
            for written in list(owner.written):
                if not since <= written.time <= newest:
                    continue
                found.append(next(((event.time - written.time) * 1_000 for event in shown.get(written.key, ()) if event.time >= written.time and event.value >= written.value), float("inf")))
    return sorted(found)


def start(scene):
    for machine in scene.machines:
        machine.make_region()
        machine.start_bridge()
    wait_until(scene.all_fresh, "all machines are fresh")


def measure(scene, seconds):
    machines, etcd = scene.machines, scene.etcd
    for machine in machines:
        machine.local.ask("rate", CHANGES_PER_SECOND)
    pause(2)
    began = time.monotonic()
    bridges, members = [machine.bridge for machine in machines], [member.process for member in etcd.members]
    before = [sum(map(processor_seconds, bridges)), sum(map(processor_seconds, members)), sum(map(network_bytes, machines)), transactions(etcd)]
    pause(seconds)
    took = time.monotonic() - began
    after = [sum(map(processor_seconds, bridges)), sum(map(processor_seconds, members)), sum(map(network_bytes, machines)), transactions(etcd)]
    bridge_load, member_load, traffic, operations = [(new - old) / took for new, old in zip(after, before)]
    found = latencies(scene, began)
    assert found and found[-1] != float("inf"), "a change has not arrived"
    sizes = {kind: max((len(str(value)) for _, key, value in scene.history.changes if key.startswith(kind) and value), default=0) for kind in ("state", "beat")}
    print(f"{len(machines)} machines, {CHANGES_PER_SECOND} changes a second each, {took:.0f} s, load of this machine {os.getloadavg()[0]:.1f}:")
    print(f"  change to another machine's region: {len(found)} times, p50 {found[len(found) // 2]:.0f} ms, p99 {found[len(found) * 99 // 100]:.0f} ms, longest {found[-1]:.0f} ms")
    print(f"  etcd: {operations:.0f} writes a second, all members {member_load * 100:.0f} % of a core; state {sizes['state']} bytes, beat {sizes['beat']} bytes")
    print(f"  per machine: {traffic / len(machines) / 1_000:.1f} kB/s of network, bridge {bridge_load / len(machines) * 100:.1f} % of a core, "
          f"{max(map(memory, bridges)) / 1_000:.1f} MB, {max(map(descriptors, bridges))} descriptors, the region's lock held for {longest_hold(machines)} us at most",
          flush=True)


def disturb(scene, chance):
    """One failure that the bridges survive."""
    kind = chance.choice(("cut", "member", "compact", "region"))
    machine = chance.choice(scene.machines)
    if kind == "cut":
        scene.network.cut(machine.number, chance.choice(("to", "from", "both")))
        pause(chance.uniform(0.5, 5))
        scene.network.heal(machine.number)
    elif kind == "member":
        member = chance.choice(scene.etcd.members)
        member.process.send_signal(signal.SIGSTOP)
        pause(chance.uniform(0.5, 3))
        member.process.send_signal(signal.SIGCONT)
    elif kind == "compact":
        scene.etcd.post("/v3/kv/compaction", {"revision": scene.history.revision})
    else:
        machine.end_region()
        pause(chance.uniform(0, 1))
        machine.make_region()
        machine.local.ask("rate", CHANGES_PER_SECOND)
    pause(1)
    return kind


def soak(scene, seconds):
    chance, samples, count = random.Random(1), [], 0
    calm = [descriptors(machine.bridge) for machine in scene.machines]
    end = time.monotonic() + seconds
    while time.monotonic() < end:
        disturb(scene, chance)
        count += 1
        samples.append(max(memory(machine.bridge) for machine in scene.machines))
        # What the test itself keeps does not grow for an hour.
        scene.history.changes.clear()
        for machine in scene.machines:
            for events in (machine.written, machine.shown, machine.marks):
                del events[:-2_000]
    wait_until(scene.all_fresh, "all machines are fresh after the soak")
    quarter = max(len(samples) // 4, 1)
    early, late = samples[quarter : 2 * quarter + 1] or samples, samples[-quarter:]
    sizes = [max(part) for part in (early, late)]
    print(f"soak of {seconds} s with {count} failures: memory of a bridge at most {sizes[0]} kB in the second quarter, {sizes[1]} kB in the last; "
          f"descriptors {calm} before it and {[descriptors(machine.bridge) for machine in scene.machines]} after it; the region's lock held for {longest_hold(scene.machines)} us at most")
    for machine in scene.machines:
        if machine.bridge.poll() is not None:
            sys.exit(f"figures_test.py: {machine.server}'s bridge has ended: {machine.log()}")
    if sizes[1] > sizes[0] * 1.05 + 512:
        sys.exit("figures_test.py: memory grew")
    # While etcd fails, connections come and go.
    wait_until(lambda: all(descriptors(machine.bridge) <= before for machine, before in zip(scene.machines, calm)), "no more descriptors are open than before the failures")


def main():
    options = argparse.ArgumentParser()
    options.add_argument("folder")
    options.add_argument("--machines", type=int, default=5)
    options.add_argument("--seconds", type=int, default=10)
    options.add_argument("--soak", type=int, default=0)
    options = options.parse_args()
    linux, _ = begin("linux", options.folder)
    with Scene(options.machines, linux) as scene:
        scene.history = History(scene.etcd)
        scene.cleanup.callback(scene.history.end)
        start(scene)
        measure(scene, options.seconds)
        if options.soak:
            soak(scene, options.soak)


if __name__ == "__main__":
    main()
