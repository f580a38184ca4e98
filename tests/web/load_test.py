#!/usr/bin/env python3
"""Loads shmnmweb beside a busy cluster and compares how long the cluster's process waits for the lock with and without it.

    load_test.py FOLDER [SECONDS]      FOLDER holds the programs of an optimised build

500 connections stay open, 50 of them event streams, of which 10 read nothing before the end; the others send 200 requests a
second. A process changes 1,000 words a second under the lock. Ends non-zero if a request fails or is not made, if the process
finds the lock in another's hands, if a stream does not end with the values of the region, or, in a run of a minute or more, if memory grows.
"""
import asyncio
import json
import os
import pathlib
import re
import subprocess
import sys
import tempfile

FOLDER = pathlib.Path(sys.argv[1])
SECONDS = int(sys.argv[2]) if len(sys.argv) > 2 else 60
CONNECTIONS, STREAMS, SLOW_STREAMS, REQUESTS_PER_SECOND, WORDS_PER_SECOND = 500, 50, 10, 200, 1000
LAST = 424242
TARGETS = ("/healthz", "/picture.json", "/metrics", "/servers/server000/alive", "/query?condition=cluster/clstat=1")


def addresses():
    """One remote address may have 64 connections: ten addresses of the loopback network have enough."""
    return [f"127.0.0.{2 + i % 10}" for i in range(CONNECTIONS)]


async def request(reader, writer, target):
    writer.write(f"GET {target} HTTP/1.1\r\nHost: localhost\r\n\r\n".encode())
    head = await reader.readuntil(b"\r\n\r\n")
    length = int(re.search(rb"(?i)content-length: (\d+)", head)[1])
    await reader.readexactly(length)
    return int(head.split()[1])


async def client(number, reader, writer, counts, begin):
    """Its share of the requests, each at its time or, if the one before it was late, at once."""
    clock, clients = asyncio.get_running_loop(), CONNECTIONS - STREAMS
    for turn in range(number, REQUESTS_PER_SECOND * SECONDS, clients):
        await asyncio.sleep(max(0, begin + turn / REQUESTS_PER_SECOND - clock.time()))
        status = await request(reader, writer, TARGETS[number % len(TARGETS)])
        counts[status] = counts.get(status, 0) + 1
    writer.close()


async def stream(reader, writer, go_on):
    """Follows the events, as soon as it may, to the last value of clstat; their number, and each server's pingstat by them."""
    writer.write(b"GET /events HTTP/1.1\r\nHost: localhost\r\n\r\n")
    await reader.readuntil(b"\r\n\r\n")
    if not go_on.is_set():
        writer.transport.pause_reading()
        await go_on.wait()
        writer.transport.resume_reading()
    events, shown = 0, {}
    while True:
        line = await reader.readline()
        if not line:
            raise EOFError("a stream has ended")
        if not line.startswith(b"data: "):
            continue
        events += 1
        told = json.loads(line[6:])
        if told.get("picture"):
            shown = {f"servers/{server['name']}/pingstat": server["pingstat"] for server in told["picture"]["servers"]}
            shown["cluster/clstat"] = told["picture"]["cluster"]["clstat"]
        shown |= {change["key"]: change["new"] for change in told.get("changes", ())}
        if shown.get("cluster/clstat") == LAST:
            writer.close()
            return events, shown


def memory(process):
    return int(re.search(r"VmRSS:\s+(\d+)", pathlib.Path(f"/proc/{process.pid}/status").read_text())[1])


async def busy(environment):
    process = await asyncio.create_subprocess_exec(str(FOLDER / "busy_cluster"), str(SECONDS), str(WORDS_PER_SECOND), str(LAST), stdout=subprocess.PIPE, env=environment)
    output, _ = await process.communicate()
    assert process.returncode == 0
    return json.loads(output)


async def loaded(environment):
    # The slow streams are to be there at the end.
    web = subprocess.Popen([FOLDER / "shmnmweb", "--listen", "127.0.0.1:0", "--write-timeout", str(SECONDS + 60)], stdout=subprocess.PIPE, env=environment)
    try:
        port = int(re.search(rb":(\d+)/", web.stdout.readline())[1])
        end, at_once, counts = asyncio.Event(), asyncio.Event(), {}
        at_once.set()
        connections = [await asyncio.open_connection("127.0.0.1", port, local_addr=(address, 0), limit=1 << 24) for address in addresses()]
        streams = [asyncio.create_task(stream(*connection, end if i < SLOW_STREAMS else at_once)) for i, connection in enumerate(connections[:STREAMS])]
        begin = asyncio.get_running_loop().time()
        clients = [asyncio.create_task(client(i, *connection, counts, begin)) for i, connection in enumerate(connections[STREAMS:])]
        measured = asyncio.create_task(busy(environment))
        sizes = []
        while not measured.done():
            await asyncio.wait([measured], timeout=0.25)
            sizes.append(memory(web))
        end.set()
        told = await asyncio.wait_for(asyncio.gather(*streams), 180)
        await asyncio.wait_for(asyncio.gather(*clients), 180)
        return measured.result(), sizes, told, counts
    finally:
        web.kill()
        web.wait()


def main():
    with tempfile.TemporaryDirectory() as installation:
        os.makedirs(f"{installation}/etc")
        pathlib.Path(f"{installation}/etc/cluster.xml").write_text(
            "<root><all><num><server>128</server><hbr>16</hbr><npr>16</npr><fstr>1</fstr></num></all></root>")
        environment = dict(os.environ, KZM_INSTALL_PATH=installation, KZMUTIL_NAMESPACE=f"load-test-{os.getpid()}-")
        api = subprocess.Popen([FOLDER / "api_caller"], stdin=subprocess.PIPE, stdout=subprocess.PIPE, env=environment, text=True)

        def call(*words):
            print(*words, file=api.stdin, flush=True)
            answer = api.stdout.readline()
            assert answer.startswith("0"), (words, answer)

        call("shmnm_create")
        for i in range(128):
            call("shmnm_addnode", f"server{i:03}", i)
            call("shmnm_setnodestat", f"server{i:03}", 1)
        for i in range(16):
            call("shmnm_addhbrsc", "lan", f"lanhb{i}", i)
            call("shmnm_addnprsc", "ping", f"pingnp{i}", i)
        alone = asyncio.run(busy(environment))
        call("shmnm_setclstat", 0)
        waits, sizes, told, counts = asyncio.run(loaded(environment))
        listed = subprocess.run([FOLDER / "shmnmctl", "list", "--format", "json"], capture_output=True, env=environment, check=True)
        words = json.loads(listed.stdout)["words"]
        api.stdin.close()
        api.wait()
    print(f"waits for the lock, alone:         median {alone['median_us']:.1f} us, 99% {alone['p99_us']:.1f} us, longest {alone['max_us']:.0f} us")
    print(f"waits for the lock, with shmnmweb: median {waits['median_us']:.1f} us, 99% {waits['p99_us']:.1f} us, longest {waits['max_us']:.0f} us")
    print(f"lock found in another's hands: alone {alone['contended']}, with shmnmweb {waits['contended']} of {waits['groups']} times")
    events = [number for number, _ in told]
    quarter = max(len(sizes) // 4, 1)
    early, late = max(sizes[quarter : 2 * quarter + 1]), max(sizes[-quarter:])
    print(f"requests by status {counts}; events for each stream {min(events)} to {max(events)}; memory at most {early} kB in the second quarter, {late} kB in the last")
    if counts != {200: REQUESTS_PER_SECOND * SECONDS}:
        sys.exit("load_test.py: requests failed or were not made")
    if alone["words"] != WORDS_PER_SECOND * SECONDS or waits["words"] != alone["words"]:
        sys.exit("load_test.py: the cluster did not change as many words as it should")
    # How long a process waits for a core is the machine's affair; that it waits for nobody's lock is what shmnmweb promises.
    if waits["contended"] > alone["contended"]:
        sys.exit("load_test.py: shmnmweb held the lock when the cluster needed it")
    expected = {key: value for key, value in words.items() if re.fullmatch(r"servers/.*/pingstat|cluster/clstat", key)}
    for _, shown in told:
        if {key: shown.get(key) for key in expected} != expected:
            sys.exit("load_test.py: a stream ended with other values than the region has")
    # By the second quarter of a minute the history of changes is full.
    if SECONDS >= 60 and late > early * 1.05 + 1024:
        sys.exit("load_test.py: memory grew")


if __name__ == "__main__":
    main()
