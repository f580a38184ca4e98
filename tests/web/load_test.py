#!/usr/bin/env python3
"""Loads shmnmweb beside a busy cluster and compares how long the cluster's process waits for the lock with and without it.

    load_test.py FOLDER [SECONDS]      FOLDER holds the programs of an optimised build

500 connections stay open, 50 of them event streams; the others send 200 requests a second. A process changes 1,000 words a
second under the lock. Ends non-zero if a request fails, a stream does not end at the right last value or, in a run of a minute or more, memory grows.
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
CONNECTIONS, STREAMS, REQUESTS_PER_SECOND, WORDS_PER_SECOND = 500, 50, 200, 1000
LAST = 424242
TARGETS = ("/healthz", "/picture.json", "/metrics", "/servers/server000/alive", "/query?condition=cluster/clstat=1")


def addresses():
    """One remote address may have 64 connections: eight addresses of the loopback network have enough."""
    return [f"127.0.0.{2 + i % 10}" for i in range(CONNECTIONS)]


async def request(reader, writer, target):
    writer.write(f"GET {target} HTTP/1.1\r\nHost: localhost\r\n\r\n".encode())
    head = await reader.readuntil(b"\r\n\r\n")
    length = int(re.search(rb"(?i)content-length: (\d+)", head)[1])
    await reader.readexactly(length)
    return int(head.split()[1])


async def client(number, reader, writer, counts, end):
    """Its share of the requests, one after the other."""
    pause = (CONNECTIONS - STREAMS) / REQUESTS_PER_SECOND
    await asyncio.sleep(pause * number / (CONNECTIONS - STREAMS))
    while not end.is_set():
        status = await request(reader, writer, TARGETS[number % len(TARGETS)])
        counts[status] = counts.get(status, 0) + 1
        try:
            await asyncio.wait_for(end.wait(), pause)
        except asyncio.TimeoutError:
            pass
    writer.close()


async def stream(reader, writer):
    """Follows the events to the last value of clstat; the number of events."""
    writer.write(b"GET /events HTTP/1.1\r\nHost: localhost\r\n\r\n")
    await reader.readuntil(b"\r\n\r\n")
    events = 0
    while True:
        line = await reader.readline()
        if not line:
            raise EOFError("a stream has ended")
        if not line.startswith(b"data: "):
            continue
        events += 1
        told = json.loads(line[6:])
        if any(change["key"] == "cluster/clstat" and change["new"] == LAST for change in told.get("changes", ())):
            writer.close()
            return events


def memory(process):
    return int(re.search(r"VmRSS:\s+(\d+)", pathlib.Path(f"/proc/{process.pid}/status").read_text())[1])


async def busy(environment):
    process = await asyncio.create_subprocess_exec(str(FOLDER / "busy_cluster"), str(SECONDS), str(WORDS_PER_SECOND), str(LAST), stdout=subprocess.PIPE, env=environment)
    output, _ = await process.communicate()
    assert process.returncode == 0
    return json.loads(output)


async def loaded(environment):
    web = subprocess.Popen([FOLDER / "shmnmweb", "--listen", "127.0.0.1:0"], stdout=subprocess.PIPE, env=environment)
    try:
        port = int(re.search(rb":(\d+)/", web.stdout.readline())[1])
        end, counts = asyncio.Event(), {}
        connections = [await asyncio.open_connection("127.0.0.1", port, local_addr=(address, 0), limit=1 << 24) for address in addresses()]
        streams = [asyncio.create_task(stream(*connection)) for connection in connections[:STREAMS]]
        clients = [asyncio.create_task(client(i, *connection, counts, end)) for i, connection in enumerate(connections[STREAMS:])]
        measured = asyncio.create_task(busy(environment))
        await asyncio.sleep(SECONDS / 2)
        early = memory(web)
        waits = await measured
        late = memory(web)
        events = await asyncio.wait_for(asyncio.gather(*streams), 30)
        end.set()
        await asyncio.wait_for(asyncio.gather(*clients), 30)
        return waits, early, late, events, counts
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
        waits, early, late, events, counts = asyncio.run(loaded(environment))
        api.stdin.close()
        api.wait()
    print(f"waits for the lock, alone:         median {alone['median_us']:.1f} us, 99% {alone['p99_us']:.1f} us, longest {alone['max_us']:.0f} us")
    print(f"waits for the lock, with shmnmweb: median {waits['median_us']:.1f} us, 99% {waits['p99_us']:.1f} us, longest {waits['max_us']:.0f} us")
    print(f"requests by status {counts}; events for each stream {min(events)} to {max(events)}; memory {early} kB, then {late} kB")
    if set(counts) != {200}:
        sys.exit("load_test.py: requests failed")
    # The history of changes fills in the first 20 seconds.
    if SECONDS >= 60 and late > early * 1.05 + 1024:
        sys.exit("load_test.py: memory grew")


if __name__ == "__main__":
    main()
