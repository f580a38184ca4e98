"""The bridge killed at every step, and what it does while it holds the region's lock (Linux)."""
import pathlib
import re
import signal
import threading
import unittest

import bridge_support
from bridge_support import BridgeTest, FOLDER, until
import etcd_support
import support

PRELOADED = str(FOLDER / "called_library.so")


class CountingProxy(etcd_support.Proxy):
    """Calls a function once so many requests were passed on; nothing of their answers comes back."""

    def __init__(self, test, port, limit, done):
        self.limit, self.done, self.count = limit, done, 0
        super().__init__(test, port)

    def requests(self, client, server):
        try:
            while part := client.recv(1 << 16):
                with self.lock:
                    self.count += part.count(b"POST /v3/")
                    is_last = self.count >= self.limit
                    self.holds_answers = self.holds_answers or is_last
                server.sendall(part)
                if is_last:
                    self.done()
        except OSError:
            pass
        try:
            server.shutdown(2)
        except OSError:
            pass


class Killed(BridgeTest):
    def setUp(self):
        super().setUp()
        self.alpha, self.beta = self.machine("alpha").create(), self.machine("beta").create()
        self.beta.api.ok("shmnm_setnodestat", "beta", 1)
        self.alpha.start()

    def change(self, value):
        """Changes some of alpha's words, all at once for a look."""
        self.alpha.api.ok("shmnm_rwlock", 10_000)
        for setter in ("shmnm_setnodestat", "shmnm_setpingstat", "shmnm_setholdstat"):
            self.alpha.api.ok(setter, "alpha", value)
        self.alpha.api.ok("shmnm_sethbrscsvstat", "lan", "lan1", 0, value)
        self.alpha.api.ok("shmnm_rwunlock")

    def expect_no_harm(self, beta, values):
        """The region is sound, alpha's words are of these values, beta's own as they were, and its lock comes."""
        verify = beta.run("verify", program="shmnmctl")
        self.assertEqual(verify.status, 0, verify)
        for getter in ("shmnm_getnodestat", "shmnm_getpingstat", "shmnm_getholdstat"):
            self.assertIn(beta.get(getter, "alpha")[0], values)
        self.assertEqual(beta.get("shmnm_getnodestat", "beta"), [1])
        self.assertEqual(beta.api.call("shmnm_rwlock", 10_000)[0], 0)
        beta.api.ok("shmnm_rwunlock")

    def expect_healing(self, value):
        self.beta.start()
        self.beta.waits_for(value, "shmnm_getholdstat", "alpha")
        self.beta.waits_for(value, "shmnm_gethbrscsvstat", "lan", "lan1", 0)
        self.beta.waits_for_freshness("alpha", "fresh")
        self.alpha.waits_for(1, "shmnm_getnodestat", "beta")
        self.beta.bridge.end()

    def test_after_each_call_of_the_library(self):
        value, call, functions = 10, 0, set()
        while True:
            value, call = value + 1, call + 1
            before = set(self.beta.get("shmnm_getholdstat", "alpha") + self.beta.get("shmnm_getnodestat", "alpha") + self.beta.get("shmnm_getpingstat", "alpha"))
            self.change(value)
            bridge = self.beta.start(LD_PRELOAD=PRELOADED, SHMNM_KILL_AFTER_CALL=str(call))
            # It lives if it makes fewer calls.
            until(lambda: bridge.process.poll() is not None or self.beta.freshness("alpha") == "fresh" and self.beta.get("shmnm_getholdstat", "alpha") == [value],
                  f"the end after call {call}, or all words: {bridge.logged()}")
            is_over = bridge.process.poll() is None
            bridge.end()
            with self.subTest(call=call):
                self.expect_no_harm(self.beta, before | {value, 2})
                self.expect_healing(value)
            if is_over:
                break
        # attach, lock, four pairs of a reading and a call, one more reading for the column, unlock, detach
        self.assertGreater(call, 12)

    def test_after_each_request(self):
        value = 100
        for request in range(1, 13):
            value += 1
            before = set(self.beta.get("shmnm_getholdstat", "alpha") + self.beta.get("shmnm_getnodestat", "alpha") + self.beta.get("shmnm_getpingstat", "alpha"))
            self.change(value)
            started = threading.Event()

            def kill():
                # Its first request may come before the test knows its process.
                if started.wait(bridge_support.DEADLINE):
                    self.beta.bridge.process.kill()

            proxy = CountingProxy(self, self.etcd.members[0].port, request, kill)
            self.beta.configure([proxy.endpoint], cluster=self.cluster)
            bridge = self.beta.start()
            started.set()
            self.assertEqual(bridge.process.wait(bridge_support.DEADLINE), -signal.SIGKILL)
            bridge.end()
            self.beta.configure(self.etcd.endpoints, cluster=self.cluster)
            with self.subTest(request=request):
                self.expect_no_harm(self.beta, before | {value, 2})
                self.expect_healing(value)


class Lock(BridgeTest):
    def test_the_thread_that_holds_it_makes_no_system_call(self):
        """Not of the network, nor any other: the hold is as long as the library's calls."""
        alpha, beta = self.machine("alpha").create(), self.machine("beta").create()
        alpha.start()
        trace = beta.folder / "trace"
        beta.start(command=["strace", "-D", "-f", "-o", str(trace), *support.program("shmnmbridge"), "run"], LD_PRELOAD=PRELOADED)
        for value in range(1, 6):
            alpha.api.ok("shmnm_setpingstat", "alpha", value)
            alpha.api.ok("shmnm_setclstat", value)
            beta.waits_for(value, "shmnm_getpingstat", "alpha")
            beta.waits_for(value, "shmnm_getclstat")
        beta.bridge.process.send_signal(signal.SIGTERM)
        beta.bridge.process.wait(bridge_support.DEADLINE)
        held, holds, calls, network = None, 0, 0, 0
        until(lambda: "+++ exited" in trace.read_text().splitlines()[-1], "the trace is whole")
        for line in trace.read_text().splitlines():
            thread, _, what = line.partition(" ")
            network += bool(re.match(r"\s*(sendmsg|recvmsg|sendto|recvfrom|connect)\(", what))
            mark = re.match(r'\s*write\(-1, "([<>]) (\w+)"', what)
            if mark and mark[1] == "<" and mark[2] in ("shmnm_rwlock", "shmnm_rolock"):
                held, holds = thread, holds + 1
            elif mark and mark[1] == ">" and mark[2] in ("shmnm_rwunlock", "shmnm_rounlock"):
                held = None
            elif mark and held:
                calls += mark[1] == ">"
            elif thread == held and "<... write resumed>" not in what:
                self.fail(f"{line} while the lock is held")
        self.assertGreaterEqual(holds, 5)
        self.assertGreaterEqual(calls, 4 * 5, "a reading and a call for each word")
        self.assertGreater(network, 10, "the trace shows what the other thread does")


if __name__ == "__main__":
    bridge_support.main()
