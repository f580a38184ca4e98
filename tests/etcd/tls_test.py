#!/usr/bin/env python3
"""The client of etcd over TLS, the same on both platforms: whom it trusts, and members and connections that fail."""
import contextlib
import hashlib
import os
import pathlib
import shutil
import socket
import ssl
import struct
import subprocess
import sys
import tempfile
import threading
import unittest
import unittest.mock
import warnings

from etcd_support import DEADLINE, PLATFORM, PROJECT, EtcdTest, Member, Proxy, free_ports, main, path

sys.path.insert(0, str(PROJECT / "tests/shmnmweb"))
from certificates import Authority, Identity, certify  # noqa: E402  it stands beside other tests

# What the library of each platform says.
REASONS = {
    "linux": {"name": "hostname mismatch", "authority": "unable to get local issuer certificate", "leaf": "invalid CA certificate",
              "date": "certificate has expired", "signature": "certificate signature failure", "usage": "unsuitable certificate purpose"},
    "windows": {"name": "it is for another name; name the member as its certificate's alternative names do",
                "authority": "its authority is not trusted; name its authority's file as authorities", "leaf": ".*",
                "date": "it has expired, or is not valid yet; renew it, or set the clock",
                "signature": "its signature is wrong; make another one", "usage": "it is not for servers; make one with the usage serverAuth"}}[PLATFORM]


class TlsTest(EtcdTest):
    @classmethod
    def setUpClass(cls):
        cls.folder = pathlib.Path(tempfile.mkdtemp(prefix="etcd-tls-"))
        cls.addClassCleanup(shutil.rmtree, cls.folder)
        cls.authority, cls.stranger = Authority(cls.folder, "authority"), Authority(cls.folder, "stranger")
        cls.good = cls.authority.sign("good", "DNS:localhost")

    def speak(self, port, **settings):
        return self.client([f"https://localhost:{port}"], **{"authorities": path(self.authority.certificate), **settings})

    def put(self, etcd, value="1"):
        return etcd.ask(put={"key": f"/{self.id()}", "value": value})


class Server:
    """Speaks TLS, and says the same to everybody, as far as it goes. It keeps what it was told."""

    def __init__(self, test, identity, answer=b"", endless=b"", shakes_hands=True, newest=ssl.TLSVersion.TLSv1_3, cuts=False):
        self.context = ssl.SSLContext(ssl.PROTOCOL_TLS_SERVER)
        self.context.load_cert_chain(identity.certificate, identity.key)
        with warnings.catch_warnings():
            warnings.simplefilter("ignore", DeprecationWarning)
            if newest < ssl.TLSVersion.TLSv1_2:
                self.context.minimum_version = newest
                self.context.set_ciphers("ALL:@SECLEVEL=0")
            self.context.maximum_version = newest
        self.answer, self.endless, self.shakes_hands, self.cuts = answer, endless, shakes_hands, cuts
        self.told, self.accepted = b"", 0
        self.has_come, self.has_gone = threading.Event(), threading.Event()
        self.listener = socket.create_server(("127.0.0.1", 0))
        self.port = self.listener.getsockname()[1]
        self.open, self.threads = [], []
        self.thread = threading.Thread(target=self.accept)
        self.thread.start()
        test.addCleanup(self.end)

    def accept(self):
        with contextlib.suppress(OSError):
            while True:
                client, _ = self.listener.accept()
                self.accepted += 1
                self.open.append(client)
                self.has_come.set()
                self.threads.append(threading.Thread(target=self.serve, args=(client,)))
                self.threads[-1].start()

    def serve(self, client):
        with contextlib.suppress(OSError, ValueError):
            if self.shakes_hands:
                client = self.context.wrap_socket(client, server_side=True)
                self.open.append(client)
                while b"}" not in self.told:
                    part = client.recv(1 << 16)
                    if not part:
                        break
                    self.told += part
            client.sendall(self.answer)
            while self.endless:
                client.sendall(self.endless)
            if self.cuts:
                # Without TLS's own end.
                client.shutdown(socket.SHUT_WR)
            # Until the client goes.
            while part := client.recv(1 << 16):
                self.told += part if self.shakes_hands else b""
        self.has_gone.set()

    def end(self):
        for one in (self.listener, *self.open):
            with contextlib.suppress(OSError):
                one.shutdown(socket.SHUT_RDWR)
        self.thread.join()
        for thread in self.threads:
            thread.join()
        for one in (self.listener, *self.open):
            one.close()


ANSWER = b'{"header":{"cluster_id":"7"}}'
HEAD = b"HTTP/1.1 200 OK\r\nContent-Length: %d\r\n\r\n"
CHUNKED = b"HTTP/1.1 200 OK\r\nTransfer-Encoding: chunked\r\n\r\n"


class Trust(TlsTest):
    def refused(self, reason, identity, host="localhost", **settings):
        """The member is refused, and not a byte of a request has got there."""
        server = Server(self, identity, HEAD % len(ANSWER) + ANSWER)
        etcd = self.client([f"https://{host}:{server.port}"], **{"authorities": path(self.authority.certificate), **settings})
        answer = self.put(etcd)
        self.assertEqual(answer["failure"], "not_sent")
        self.assertRegex(answer["reason"], f"^https://{host}:{server.port}: its certificate is refused: {reason}$")
        self.assertTrue(server.has_gone.wait(DEADLINE))
        self.assertEqual(server.told, b"")

    def password(self):
        file = self.folder / "password"
        file.write_text("some-password")
        file.chmod(0o600)
        return {"user": "bridge", "password_file": path(file)}

    def sign_by(self, signer, name, names):
        """A certificate that is signed by a certificate, which goes with it."""
        made = self.authority.sign(name, names)
        certify(made.certificate, "x509", "-req", "-in", self.folder / f"{name}.csr", "-CA", signer.certificate, "-CAkey", signer.key,
                "-CAcreateserial", "-days", 2, "-extfile", self.folder / f"{name}.ext")
        made.certificate.write_bytes(made.certificate.read_bytes() + signer.certificate.read_bytes())
        return made

    def intermediate(self, days=2):
        """An authority whose certificate is signed by the authority."""
        made, extensions = self.authority.sign("intermediate", "DNS:none"), self.folder / "intermediate.ext"
        extensions.write_text("basicConstraints=critical,CA:TRUE\nkeyUsage=keyCertSign\n")
        certify(made.certificate, "x509", "-req", "-in", self.folder / "intermediate.csr", "-CA", self.authority.certificate, "-CAkey",
                self.authority.key, "-CAcreateserial", "-days", days, "-extfile", extensions)
        return made

    def test_a_member_with_a_good_certificate_is_trusted(self):
        server = Server(self, self.good, HEAD % len(ANSWER) + ANSWER)
        self.assertEqual(self.assert_done(self.put(self.speak(server.port)))["cluster"], "7")
        self.assertIn(b"{", server.told)

    def test_a_file_may_name_several_authorities(self):
        both = self.folder / "both.crt"
        both.write_bytes(b"Ours:\n" + self.stranger.certificate.read_bytes() + b"\n" + self.authority.certificate.read_bytes())
        server = Server(self, self.good, HEAD % len(ANSWER) + ANSWER)
        self.assert_done(self.put(self.speak(server.port, authorities=path(both))))

    def trust_by_system(self, authority):
        """Adds it to the authorities of the system until the test ends."""
        if PLATFORM == "linux":
            patch = unittest.mock.patch.dict(os.environ, SSL_CERT_FILE=str(authority.certificate))
            patch.start()
            self.addCleanup(patch.stop)
            return
        certificate = ssl.PEM_cert_to_DER_cert(authority.certificate.read_text())
        key = rf"HKCU\Software\Microsoft\SystemCertificates\Root\Certificates\{hashlib.sha1(certificate).hexdigest().upper()}"
        encoded_certificate = 32  # the property that holds it
        value = struct.pack("<III", encoded_certificate, 1, len(certificate)) + certificate

        def registry(*arguments):
            subprocess.run([PROJECT / "scripts/wine", "reg", *arguments, "/f"], check=True, capture_output=True, timeout=DEADLINE)

        registry("add", key, "/v", "Blob", "/t", "REG_BINARY", "/d", value.hex())
        self.addCleanup(registry, "delete", key)

    def test_authorities_of_the_system_count_only_if_none_are_configured(self):
        identity = self.stranger.sign("known", "DNS:localhost")
        self.trust_by_system(self.stranger)
        server = Server(self, identity, HEAD % len(ANSWER) + ANSWER)
        self.assert_done(self.put(self.speak(server.port, authorities="")))
        self.refused(REASONS["authority"], identity)

    def test_a_certificate_for_another_name_is_refused(self):
        self.refused(REASONS["name"], self.authority.sign("other", "DNS:other.example"))

    def test_a_certificate_of_an_unknown_authority_is_refused(self):
        self.refused(REASONS["authority"], self.stranger.sign("unknown", "DNS:localhost"))
        self.refused(REASONS["authority"], self.good, authorities=path(self.stranger.certificate))
        self.refused(REASONS["authority"], self.good, authorities="")

    def test_an_expired_certificate_is_refused(self):
        self.refused(REASONS["date"], self.authority.sign("expired", "DNS:localhost", days=-1))

    def test_a_certificate_that_is_for_clients_is_refused(self):
        self.refused(REASONS["usage"], self.authority.sign("client"))

    def test_a_certificate_for_an_address_is_trusted_for_this_address_only(self):
        server = Server(self, self.authority.sign("address", "IP:127.0.0.1"), HEAD % len(ANSWER) + ANSWER)
        self.assert_done(self.put(self.client([f"https://127.0.0.1:{server.port}"], authorities=path(self.authority.certificate))))
        reason = REASONS["name"].replace("hostname", "IP address")
        self.refused(reason, self.authority.sign("text", "DNS:127.0.0.1,IP:127.0.0.2"), host="127.0.0.1")

    def test_an_authority_below_a_trusted_one_is_trusted(self):
        server = Server(self, self.sign_by(self.intermediate(), "below", "DNS:localhost"), HEAD % len(ANSWER) + ANSWER)
        self.assert_done(self.put(self.speak(server.port)))

    def test_a_certificate_whose_chain_is_cut_is_refused(self):
        below = self.sign_by(self.intermediate(), "below", "DNS:localhost")
        end = b"-----END CERTIFICATE-----\n"
        below.certificate.write_bytes(below.certificate.read_bytes().split(end)[0] + end)
        self.refused(REASONS["authority"], below)

    def test_a_certificate_of_an_expired_authority_is_refused(self):
        self.refused(REASONS["date"], self.sign_by(self.intermediate(days=-1), "below", "DNS:localhost"))

    def test_a_certificate_that_a_server_signed_is_refused(self):
        self.refused(REASONS["leaf"], self.sign_by(self.authority.sign("leaf", "DNS:other.example"), "forged", "DNS:localhost"))

    def test_a_certificate_of_a_false_authority_of_the_same_name_is_refused(self):
        folder = self.folder / "false"
        folder.mkdir()
        false = Authority(folder, "authority")
        self.refused(REASONS["authority"], false.sign("forged", "DNS:localhost"))
        # Without the key's identifier, only the signature tells the two apart.
        self.refused(REASONS["signature"], false.sign("forged", "DNS:localhost\nauthorityKeyIdentifier=none"))

    def test_a_certificate_that_signed_itself_is_refused(self):
        self.refused("self.signed certificate" if PLATFORM == "linux" else REASONS["authority"], self.alone())

    def alone(self):
        made = Identity(self.folder, "alone")
        certify(made.certificate, "req", "-x509", "-newkey", "ec", "-pkeyopt", "ec_paramgen_curve:prime256v1", "-nodes", "-days", 2, "-subj",
                "/CN=localhost", "-addext", "subjectAltName=DNS:localhost", "-keyout", made.key)
        return made

    def test_a_password_is_not_told_to_a_member_that_is_not_trusted(self):
        self.refused(REASONS["authority"], self.stranger.sign("unknown", "DNS:localhost"), **self.password())
        self.refused(REASONS["name"], self.authority.sign("other", "DNS:other.example"), **self.password())

    def test_a_member_is_checked_again_at_each_connection(self):
        answer = ANSWER.replace(b"}}", b'},"token":"some-token"}')
        good = Server(self, self.good, HEAD.replace(b"\r\n\r\n", b"\r\nConnection: close\r\n\r\n") % len(answer) + answer)
        stranger = Server(self, self.stranger.sign("unknown", "DNS:localhost"), HEAD % len(answer) + answer)
        proxy = Proxy(self, good.port)
        etcd = self.speak(int(proxy.endpoint.rsplit(":", 1)[1]), **self.password())
        self.assert_done(self.put(etcd))
        self.assertIn(b"some-password", good.told)
        proxy.target = ("127.0.0.1", stranger.port)
        answer = self.put(etcd)
        self.assertEqual(answer["failure"], "not_sent")
        self.assertRegex(answer["reason"], "its certificate is refused: " + REASONS["authority"])
        self.assertTrue(stranger.has_gone.wait(DEADLINE))
        self.assertEqual((stranger.accepted, stranger.told), (1, b""))

    def test_versions_before_1_2_are_refused(self):
        server = Server(self, self.good, HEAD % len(ANSWER) + ANSWER, newest=ssl.TLSVersion.TLSv1_1)
        answer = self.put(self.speak(server.port))
        self.assertEqual(answer["failure"], "not_sent")
        self.assertRegex(answer["reason"], f"^https://localhost:{server.port}: no TLS: ")
        self.assertEqual(server.told, b"")

    def test_1_2_and_newer_are_spoken(self):
        for version in (ssl.TLSVersion.TLSv1_2, ssl.TLSVersion.TLSv1_3):
            server = Server(self, self.good, HEAD % len(ANSWER) + ANSWER, newest=version)
            self.assert_done(self.put(self.speak(server.port)))

    def test_authorities_that_cannot_be_used_are_refused(self):
        broken, cut = self.folder / "broken.crt", self.folder / "cut.crt"
        broken.write_text("-----BEGIN CERTIFICATE-----\nAAAA\n-----END CERTIFICATE-----\n")
        cut.write_bytes(self.authority.certificate.read_bytes()[:100])
        for file in (self.folder / "none", self.good.key, broken, cut):
            self.assertRegex(self.refusal(["https://localhost:1"], authorities=path(file)), "^cannot use the authorities in .*; name another file, in PEM$")


class Hanging(TlsTest):
    """Members that stop at some point, and say no more."""

    def failure(self, server, **settings):
        answer = self.put(self.speak(server.port, timeout=2_500, **settings))
        self.assertRegex(answer["reason"], f"^https://localhost:{server.port}: no answer in time$")
        return answer["failure"]

    def test_before_tls(self):
        self.assertEqual(self.failure(Server(self, self.good, shakes_hands=False), connect_timeout=500), "not_sent")

    def test_before_the_answer(self):
        self.assertEqual(self.failure(Server(self, self.good)), "timed_out")

    def test_in_the_head_of_the_answer(self):
        self.assertEqual(self.failure(Server(self, self.good, b"HTTP/1.1 200 OK\r\nContent-")), "timed_out")

    def test_in_the_answer(self):
        self.assertEqual(self.failure(Server(self, self.good, HEAD % len(ANSWER) + ANSWER[:9])), "timed_out")
        self.assertEqual(self.failure(Server(self, self.good, CHUNKED + b"9\r\n" + ANSWER[:9] + b"\r\n")), "timed_out")

    def test_the_next_member_is_asked(self):
        hangs, serves = Server(self, self.good, shakes_hands=False), Server(self, self.good, HEAD % len(ANSWER) + ANSWER)
        etcd = self.client([f"https://localhost:{each.port}" for each in (hangs, serves)], authorities=path(self.authority.certificate),
                           connect_timeout=2_000, timeout=10_000)
        self.assert_done(self.put(etcd))


class Attackers(TlsTest):
    """They stand between the client and a member. They learn no request, and the client believes none of their answers."""

    ANSWER = HEAD % 100_000 + ANSWER.ljust(100_000)

    def put_through(self, settings=None, **faults):
        """Asks a member through a proxy that fails so. The answer, and the member."""
        server = Server(self, self.good, self.ANSWER)
        proxy = Proxy(self, server.port)
        for fault, value in faults.items():
            self.assertTrue(hasattr(proxy, fault), fault)
            setattr(proxy, fault, value)
        return self.put(self.speak(int(proxy.endpoint.rsplit(":", 1)[1]), **settings or {})), server

    def assert_not_told(self, answer, server):
        self.assertEqual(answer["failure"], "not_sent")
        self.assertNotEqual(answer["reason"], "")
        self.assertTrue(server.has_gone.wait(DEADLINE))
        self.assertEqual(server.told, b"")

    def test_a_changed_byte_of_the_handshake_is_noticed(self):
        # A record's kind, the server's random number, and certificates.
        for at in (0, 30, 300, 500):
            self.assert_not_told(*self.put_through(damaged_byte=at))

    def test_a_changed_byte_of_the_answer_is_noticed(self):
        answer, server = self.put_through(damaged_byte=50_000)
        self.assertEqual(answer["failure"], "cut", answer)
        self.assertIn(b"{", server.told)
        if PLATFORM == "windows":
            self.assertRegex(answer["reason"], ": TLS failed: .*; look at ")

    def test_a_handshake_that_stops_times_out(self):
        for size in (1, 500):
            # Long enough to reach the member on a busy machine.
            answer, server = self.put_through({"connect_timeout": 2_000}, answer_bytes=size)
            self.assertRegex(answer["reason"], ": no answer in time$")
            self.assert_not_told(answer, server)

    def test_a_handshake_that_is_cut_off_fails(self):
        for size in (1, 5, 100, 500):
            answer, server = self.put_through(answer_bytes=size, closes_after=True)
            self.assertRegex(answer["reason"], ": no TLS: ")
            self.assert_not_told(answer, server)

    def test_an_answer_that_is_cut_off_is_not_believed(self):
        answer, server = self.put_through(answer_bytes=50_000, closes_after=True)
        self.assertEqual(answer["failure"], "cut", answer)
        self.assertIn(b"{", server.told)

    def test_an_answer_without_tls_is_refused(self):
        alert, long_record = b"\x15\x03\x03\x00\x02\x02\x28", b"\x16\x03\x03\xff\xff" + b"a" * 70_000
        for answer in (HEAD % len(ANSWER) + ANSWER, b"garbage", bytes(100_000), bytes(range(256)) * 400, alert, long_record):
            self.assert_not_sent(Server(self, self.good, answer, shakes_hands=False, cuts=True))

    def test_a_handshake_without_end_is_ended(self):
        record = b"\x16\x03\x03\x40\x00"
        for endless in (bytes(16_384), record + bytes(16_384), record + b"\x0b\xff\xff\xff" + b"a" * 16_380, b"\x16\x03\x03\x00\x00"):
            self.assert_not_sent(Server(self, self.good, endless=endless, shakes_hands=False))

    def assert_not_sent(self, server):
        answer = self.put(self.speak(server.port, connect_timeout=2_000))
        self.assertEqual(answer["failure"], "not_sent")
        self.assertRegex(answer["reason"], f"^https://localhost:{server.port}: (no TLS: .|no answer in time$)")
        self.assertTrue(server.has_gone.wait(DEADLINE))


class Answers(TlsTest):
    def failure(self, answer, endless=b"", **settings):
        return self.put(self.speak(Server(self, self.good, answer, endless).port, **settings))["failure"]

    def test_that_are_not_etcds_are_refused(self):
        redirection = b"HTTP/1.1 302 Found\r\nLocation: https://localhost:1/\r\nContent-Length: 0\r\n\r\n"
        for answer in (b"garbage\r\n\r\n", HEAD % 0, HEAD % 2 + b"[]", redirection, CHUNKED + b"0\r\n\r\n"):
            self.assertEqual(self.failure(answer), "invalid_answer", answer)

    def test_without_end_are_refused_at_the_limit(self):
        for head, part in ((CHUNKED, b"10000\r\n" + b" " * 65_536 + b"\r\n"), (HEAD % 9_999_999_999, b" " * 65_536)):
            self.assertEqual(self.failure(head, part, answer_limit=1_000_000, timeout=20_000), "invalid_answer")

    def test_without_a_length_that_are_cut_off_are_no_answers(self):
        server = Server(self, self.good, b"HTTP/1.1 200 OK\r\n\r\n" + ANSWER, cuts=True)
        self.assertEqual(self.put(self.speak(server.port))["failure"], "cut")

    def test_of_exactly_the_limit_are_read(self):
        answer = HEAD % len(ANSWER) + ANSWER
        self.assertEqual(self.failure(answer, answer_limit=len(ANSWER)), "none")
        self.assertEqual(self.failure(answer, answer_limit=len(ANSWER) - 1), "invalid_answer")

    def test_a_watch_that_is_ended_by_the_client_in_silence_is_cut_off(self):
        made = b'{"result":{"header":{"cluster_id":"7"},"created":true}}\n'
        server = Server(self, self.good, CHUNKED + b"%x\r\n" % len(made) + made + b"\r\n")
        etcd = self.speak(server.port)
        watch = etcd.watch(key="a")
        self.assertFalse(server.has_gone.is_set())
        etcd.tell(unwatch=watch)
        self.assertTrue(server.has_gone.wait(DEADLINE))


class Connections(TlsTest):
    """A member of etcd, and a network that fails."""

    @classmethod
    def setUpClass(cls):
        super().setUpClass()
        # The member's gateway is its client, under the address that it listens at.
        identity = cls.authority.sign("member", "DNS:localhost,IP:127.0.0.1")
        port, peer = free_ports(2)
        cls.member = Member("tls", cls.folder, port, peer, f"tls=http://127.0.0.1:{peer}",
                            ["--cert-file", str(identity.certificate), "--key-file", str(identity.key)], "https")
        cls.addClassCleanup(cls.member.log.close)
        cls.addClassCleanup(cls.member.kill)
        cls.member.context = ssl.create_default_context(cafile=str(cls.authority.certificate))
        cls.member.start()
        cls.member.wait_until_serves()

    def setUp(self):
        self.proxy = Proxy(self, self.member.port)
        self.direct, self.etcd = self.speak(self.member.port), self.speak(int(self.proxy.endpoint.rsplit(":", 1)[1]), timeout=4_000)
        self.key = f"/{self.id()}"

    def entries(self):
        """(value, version) of the key, read directly."""
        return [(entry["value"], entry["version"]) for entry in self.direct.ask(read={"key": self.key})["found"][0]]

    def test_requests_share_a_connection(self):
        for i in range(5):
            self.assert_done(self.put(self.etcd, str(i)))
        self.assertEqual(self.proxy.accepted, 1)

    def test_requests_leases_and_watches_go_over_it(self):
        self.assert_done(self.put(self.etcd))
        watch = self.etcd.watch(key=self.key)
        for value in "234":
            self.assert_done(self.put(self.etcd, value))
            self.assertEqual(self.etcd.events(watch, 1), [(self.key, value)])
        self.assertEqual(self.assert_done(self.etcd.ask(keep_alive=self.assert_done(self.etcd.ask(grant=30))["lease"]))["seconds"], 30)
        value = "x" * 300_000
        self.assert_done(self.put(self.etcd, value))
        self.assertEqual(self.assert_done(self.etcd.ask(read={"key": self.key}))["found"][0][0]["value"], value)

    def test_a_request_whose_answer_is_lost_is_not_repeated(self):
        self.assert_done(self.put(self.etcd, "1"))
        self.proxy.holds_answers = True
        self.assertEqual(self.put(self.etcd, "2")["failure"], "timed_out")
        self.assertEqual(self.entries(), [("2", 2)])

    def test_a_request_that_is_lost_is_not_repeated_either(self):
        self.assert_done(self.put(self.etcd, "1"))
        self.proxy.holds_requests = True
        self.assertEqual(self.put(self.etcd, "2")["failure"], "timed_out")
        self.proxy.holds_requests = False
        self.assert_done(self.put(self.etcd, "3"))
        self.assertEqual(self.entries(), [("3", 2)])

    def test_a_connection_that_ended_while_it_was_idle_costs_no_request(self):
        for i in range(5):
            self.assert_done(self.put(self.etcd, str(i)))
            self.proxy.cut()
            # The end arrives before the next request does.
            self.assert_done(self.put(self.direct, str(i)))
        self.assertEqual(self.proxy.accepted, 5)
        self.assertEqual(self.entries(), [("4", 10)])

    def test_a_watch_whose_connection_ends_ends(self):
        watch = self.etcd.watch(key=self.key)
        self.proxy.cut()
        self.assertEqual(self.etcd.next(watch)["end"], "cut")

    def test_a_watch_that_is_quiet_lives_on(self):
        # For longer than the time-out of a request, which passes meanwhile.
        self.assert_done(self.etcd.ask(put={"key": "/other", "value": "1"}))
        watch = self.etcd.watch(key=self.key)
        self.proxy.holds_answers = True
        self.assertEqual(self.etcd.ask(put={"key": "/other", "value": "2"})["failure"], "timed_out")
        self.proxy.holds_answers = False
        self.assert_done(self.put(self.direct, "3"))
        self.assertEqual(self.etcd.events(watch, 1), [(self.key, "3")])


if __name__ == "__main__":
    main()
