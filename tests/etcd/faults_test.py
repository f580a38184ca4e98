#!/usr/bin/env python3
"""The client of etcd when members, connections and answers fail: three real members, and a proxy between."""
import socket
import threading
import time
import unittest

from etcd_support import DEADLINE, Cluster, EtcdTest, Proxy, free_ports, main


class Members(EtcdTest):
    def setUp(self):
        self.cluster = Cluster(self.addCleanup, size=3)
        self.etcd = self.client(self.cluster.endpoints, timeout=3_000)
        self.members = {member.endpoint: member for member in self.cluster.members}

    def put(self, value):
        return self.etcd.ask(put={"key": "a", "value": value})

    def member_in_use(self):
        return self.members[self.etcd.tell(member=True)["member"]]

    def put_until_done(self, value):
        """A failed member costs requests, but the client gets to another one by itself."""
        failures, end = [], time.monotonic() + DEADLINE
        while time.monotonic() < end:
            answer = self.put(value)
            if answer["failure"] == "none":
                return failures
            failures.append(answer["failure"])
        self.fail(f"nothing is written any more: {failures}")

    def test_a_killed_member_is_left_for_the_next_one(self):
        self.assert_done(self.put("1"))
        killed = self.member_in_use()
        killed.kill()
        self.put_until_done("2")
        self.assertIsNot(self.member_in_use(), killed)
        killed.start()
        killed.wait_until_serves()
        self.assert_done(self.put("3"))

    def test_a_stopped_member_is_left_after_the_time_out(self):
        self.assert_done(self.put("1"))
        stopped = self.member_in_use()
        stopped.stop()
        first = self.put("2")
        stopped_again = self.put_until_done("3")
        self.assertIsNot(self.member_in_use(), stopped)
        stopped.go_on()
        self.assertEqual(first["failure"], "timed_out")
        self.assertNotIn("none", stopped_again)

    def test_a_member_that_does_not_run_is_skipped_at_once(self):
        dead, = free_ports(1)
        etcd = self.client([f"http://127.0.0.1:{dead}", f"http://localhost:{self.cluster.members[0].port}"])
        self.assert_done(etcd.ask(put={"key": "a", "value": "1"}))
        watch = etcd.watch(key="a")
        self.assert_done(etcd.ask(put={"key": "a", "value": "2"}))
        self.assertEqual(etcd.events(watch, 1), [("a", "2")])

    def test_a_watch_of_a_killed_member_ends_and_the_next_one_begins_at_another(self):
        watch = self.etcd.watch(key="a")
        self.members[self.cluster.members[0].endpoint].kill()
        end = self.etcd.next(watch)
        self.assertEqual(end["end"], "cut")
        again = self.etcd.watch(key="a")
        self.put_until_done("1")
        self.assertEqual(self.etcd.events(again, 1), [("a", "1")])

    def test_a_watch_of_a_member_without_leader_ends(self):
        etcd = self.client([self.cluster.members[0].endpoint])
        watch = etcd.watch(key="a")
        for member in self.cluster.members[1:]:
            member.kill()
        end = etcd.next(watch)
        self.assertEqual((end["end"], end["reason"]), ("cut", "the stream has ended"))
        answer = etcd.ask(put={"key": "a", "value": "1"})
        self.assertIn(answer["failure"], ("unavailable", "timed_out"))

    def test_nothing_is_sent_when_no_member_runs(self):
        for member in self.cluster.members:
            member.kill()
        self.put("1")  # over a connection that has ended
        answer = self.put("2")
        self.assertEqual(answer["failure"], "not_sent")
        self.assertRegex(answer["reason"], "^http://127.0.0.1:[0-9]+: ")
        end = self.etcd.next(self.etcd.command(watch={"key": "a"}))
        self.assertEqual(end["end"], "not_sent")
        for member in self.cluster.members:
            member.start()
        for member in self.cluster.members:
            member.wait_until_serves()
        self.put_until_done("3")


class Connections(EtcdTest):
    @classmethod
    def setUpClass(cls):
        cls.cluster = Cluster(cls.addClassCleanup)

    def setUp(self):
        self.member = self.cluster.members[0]
        self.proxy = Proxy(self, self.member.port)
        self.direct = self.client([self.member.endpoint])
        self.etcd = self.client([self.proxy.endpoint], timeout=2_000)
        self.key = f"/{self.id()}"

    def put(self, value, etcd=None):
        return (etcd or self.etcd).ask(put={"key": self.key, "value": value})

    def entries(self):
        """(value, version) of the key, read directly."""
        return [(entry["value"], entry["version"]) for entry in self.direct.ask(read={"key": self.key})["found"][0]]

    def test_requests_share_a_connection(self):
        for i in range(5):
            self.assert_done(self.put(str(i)))
        self.assertEqual(self.proxy.accepted, 1)

    def test_a_slow_answer_is_waited_for(self):
        self.proxy.delay = 0.3
        self.assert_done(self.put("1"))

    def test_a_late_answer_is_no_answer_to_the_next_request(self):
        self.assert_done(self.put("1"))
        self.proxy.delay = 3
        self.assertEqual(self.put("2")["failure"], "timed_out")
        self.proxy.delay = 0
        self.assert_done(self.put("3"))
        self.assertEqual(self.etcd.ask(read={"key": self.key})["found"][0][0]["value"], "3")
        self.assertEqual(self.entries(), [("3", 3)])

    def test_a_request_whose_answer_is_lost_is_not_repeated(self):
        self.proxy.holds_answers = True
        self.assertEqual(self.put("1")["failure"], "timed_out")
        self.assertEqual(self.entries(), [("1", 1)])

    def test_a_request_that_is_lost_is_not_repeated_either(self):
        self.proxy.holds_requests = True
        self.assertEqual(self.put("1")["failure"], "timed_out")
        self.proxy.holds_requests = False
        self.assert_done(self.put("2"))
        self.assertEqual(self.entries(), [("2", 1)])

    def test_half_an_answer_is_none(self):
        for count in (0, 20, 200):
            for closes, failures in ((False, ("timed_out",)), (True, ("cut",))):
                if closes and count == 0:
                    continue
                self.proxy.cut()
                self.proxy.answer_bytes, self.proxy.closes_after = count, closes
                answer = self.put("1")
                self.assertIn(answer["failure"], failures, (count, closes))
                self.assertEqual(answer["cluster"], "0")

    def test_a_connection_that_ended_while_it_was_idle_costs_no_request(self):
        for i in range(10):
            self.assert_done(self.put(str(i)))
            self.proxy.cut()
            # The end arrives before the next request does.
            self.assert_done(self.put(str(i), self.direct))
        self.assertEqual(self.proxy.accepted, 10)
        self.assertEqual(self.entries(), [("9", 20)])

    def test_waiting_requests_end_with_their_own_time_outs(self):
        self.proxy.holds_answers = True
        numbers = [self.etcd.send(put={"key": self.key, "value": str(i)}) for i in range(4)]
        failures = [self.etcd.answer(number)["failure"] for number in numbers]
        sent = failures.count("timed_out")
        self.assertEqual(failures, ["timed_out"] * sent + ["not_sent"] * (4 - sent))
        self.assertIn(sent, (1, 2, 3))
        self.assertEqual(self.entries(), [(str(sent - 1), sent)])

    def test_half_a_message_of_a_watch_is_none(self):
        watch = self.etcd.watch(key=self.key)
        self.proxy.answer_bytes, self.proxy.closes_after = 0, False
        self.assert_done(self.put("1", self.direct))
        self.proxy.cut()
        end = self.etcd.next(watch)
        self.assertEqual(end["end"], "cut")

    def test_a_watch_that_is_not_made_in_time_ends(self):
        for count in (0, 250):
            self.proxy.answer_bytes = count
            end = self.etcd.next(self.etcd.command(watch={"key": self.key}))
            self.assertEqual((end["end"], end["reason"]), ("timed_out", "no watch in time"))

    def test_a_watch_that_is_quiet_lives_on(self):
        # For longer than the time-out of a request, which passes twice meanwhile.
        watch = self.etcd.watch(key=self.key)
        self.proxy.holds_answers = True
        for _ in range(2):
            self.assertEqual(self.put("1")["failure"], "timed_out")
        self.proxy.holds_answers = False
        self.assert_done(self.put("3", self.direct))
        self.assertEqual(self.etcd.events(watch, 1), [(self.key, "3")])


class Stranger:
    """Something that is not etcd: it says the same to everybody."""

    def __init__(self, test, answer, endless=b""):
        self.answer, self.endless = answer, endless
        self.listener = socket.create_server(("127.0.0.1", 0))
        self.endpoint = f"http://127.0.0.1:{self.listener.getsockname()[1]}"
        self.thread = threading.Thread(target=self.serve)
        self.thread.start()
        self.sent = 0
        test.addCleanup(self.end)

    def serve(self):
        while True:
            try:
                client, _ = self.listener.accept()
            except OSError:
                return
            client.settimeout(DEADLINE)
            with client:
                try:
                    client.recv(1 << 16)
                    client.sendall(self.answer)
                    while self.endless:
                        client.sendall(self.endless)
                        self.sent += len(self.endless)
                    # Until the client goes.
                    while client.recv(1 << 16):
                        pass
                except OSError:
                    pass

    def end(self):
        self.listener.shutdown(socket.SHUT_RDWR)
        self.listener.close()
        self.thread.join()


def http(body, status="200 OK", fields=""):
    return f"HTTP/1.1 {status}\r\nContent-Length: {len(body)}\r\n{fields}\r\n".encode() + body.encode()


CHUNKED = b"HTTP/1.1 200 OK\r\nTransfer-Encoding: chunked\r\n\r\n"


class Strangers(EtcdTest):
    def failure(self, answer, endless=b"", **settings):
        stranger = Stranger(self, answer, endless)
        answer = self.client([stranger.endpoint], **settings).ask(put={"key": "a", "value": "1"})
        self.assertNotIn("\n", answer["reason"])
        self.assertLess(len(answer["reason"]), 400)
        return answer["failure"]

    def test_answers_that_are_not_etcds_are_refused(self):
        for answer in (b"garbage\r\n\r\n", b"SSH-2.0-server\r\n", b"HTTP/1.1 200 OK\r\nContent-Length: x\r\n\r\n", http(""), http("[]"),
                       http("[" * 100_000), http('{"header":{"cluster_id":7}}')[:-3] + b"   ", http("", "302 Found", "Location: http://127.0.0.1:1/\r\n"),
                       http("<html>", "404 Not Found"), http("{}", "200 OK", "Content-Encoding: gzip\r\n"),
                       b"HTTP/1.1 200 OK\r\n" + b"X: y\r\n" * 10_000 + b"\r\n", CHUNKED + b"zz\r\n"):
            self.assertEqual(self.failure(answer), "invalid_answer", answer[:60])

    def test_an_answer_without_end_is_refused_at_the_limit(self):
        part = b"10000\r\n" + b" " * 65_536 + b"\r\n"
        for head, piece in ((CHUNKED, part), (b"HTTP/1.1 200 OK\r\n\r\n", b" " * 65_536), (b"HTTP/1.1 200 OK\r\nContent-Length: 99999999999\r\n\r\n", b" " * 65_536)):
            self.assertEqual(self.failure(head, piece, answer_limit=1_000_000, timeout=20_000), "invalid_answer")

    def test_an_answer_of_exactly_the_limit_is_read(self):
        body = '{"header":{"cluster_id":"7"}}'
        self.assertEqual(self.failure(http(body), answer_limit=len(body)), "none")
        self.assertEqual(self.failure(http(body), answer_limit=len(body) - 1), "invalid_answer")

    def watch_end(self, answer, endless=b"", **settings):
        etcd = self.client([Stranger(self, answer, endless).endpoint], **settings)
        watch = etcd.command(watch={"key": "a"})
        line = etcd.next(watch)
        while "message" in line:
            line = etcd.next(watch)
        return line["end"]

    def test_watches_that_are_not_etcds_end(self):
        made = '{"result":{"header":{"cluster_id":"7"},"created":true}}\n'

        def chunk(text):
            return CHUNKED + f"{len(text):x}\r\n{text}\r\n".encode()

        for text in ("{}\n", "\n", "[" * 10_000 + "\n", made + "garbage\n", made + '{"result":{"header":{"cluster_id":"7"},"events":7}}\n'):
            self.assertEqual(self.watch_end(chunk(text)), "invalid_answer", text[:60])
        self.assertEqual(self.watch_end(chunk(made) + b"0\r\n\r\n"), "cut")
        self.assertEqual(self.watch_end(http("<html>", "404 Not Found")), "invalid_answer")
        self.assertEqual(self.watch_end(chunk(made), b"10000\r\n" + b" " * 65_536 + b"\r\n", answer_limit=1_000_000), "invalid_answer")


if __name__ == "__main__":
    main()
