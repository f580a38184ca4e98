"""shmnmctl --from https: whom it trusts, who it is itself, and servers that do not do their part. On Linux."""
import json
import signal
import socket
import ssl
import threading
import warnings

import certificates
import web_support
from certificates import Authority, Front
from web_support import WebTest

NEXT = {"ca": "name the authorities that signed it with --ca-file", "name": "use the name that its certificate has",
        "time": "renew it, or set the clocks of both machines", "client": "see --cert and --key",
        "server": "see whether a server with TLS 1.2 or later answers there"}


class TlsTest(WebTest):
    def setUp(self):
        super().setUp()
        self.region_holder = self.cluster()
        self.region_holder.ok("shmnm_setnodestat", "alpha", 1)
        self.authority = Authority(self.folder, "authority")
        self.server = self.authority.sign("server", "DNS:localhost,IP:127.0.0.1")
        self.web = self.serve()

    def front(self, identity=None, **options):
        return Front(self, self.web.address, identity or self.server, **options)

    def asked(self, front, *arguments, authority=None, host="localhost"):
        """What the tool says with the right authority, or another one."""
        return self.tool("--from", f"https://{host}:{front.port}", "--ca-file", (authority or self.authority).certificate, *arguments)

    def refused(self, result, why, advice):
        self.assertEqual((result.status, result.raw), (5, b""), result)
        self.assertRegex(result.err, f"^shmnmctl: cannot speak TLS with the server: {why}; {advice}\n$")


class Certificates(TlsTest):
    def test_the_numbers_of_a_signature_are_measured_whatever_bytes_they_have(self):
        file = self.folder / "ends-like-a-signature.pem"
        second = bytes(24) + b"\x30\x06\x02\xF0" + bytes(4)
        file.write_text(ssl.DER_cert_to_PEM_cert(b"\x03\x47\0" + b"\x30\x44" + b"\x02\x20" + bytes(32) + b"\x02\x20" + second))
        self.assertEqual(certificates.signature_of(file), (32, 32))


class Servers(TlsTest):
    def test_every_reading_command_says_over_tls_what_it_says_here(self):
        front = self.front()
        exported = self.folder / "export"
        exported.write_bytes(self.tool("export").raw)
        for command in (["status"], ["status", "--format", "json"], ["list"], ["get", "servers/alpha/nodestat"], ["dump", "-"], ["verify"], ["export"],
                        ["query", "cluster/alive=1"], ["wait", "cluster/alive=1"], ["diff", "live", exported]):
            with self.subTest(command):
                here, there = self.tool(*command), self.asked(front, *command)
                self.assertEqual((there.status, there.raw, there.err), (here.status, here.raw, here.err))
        self.assertEqual(self.asked(front, "get", "cluster/alive", host="127.0.0.1").out, "1\n")

    def test_a_server_whose_authority_is_not_known_is_refused_and_told_nothing(self):
        front = self.front()
        stranger = Authority(self.folder, "stranger")
        self.refused(self.asked(front, "status", authority=stranger), "its certificate is refused: .*local issuer certificate", NEXT["ca"])
        # The system's own authorities do not know it either.
        result = self.tool("--from", f"https://localhost:{front.port}", "status")
        self.refused(result, "its certificate is refused: .*local issuer certificate", NEXT["ca"])
        itself = self.front(stranger)
        self.refused(self.asked(itself, "status"), "its certificate is refused: self-signed certificate", NEXT["ca"])
        self.assertEqual(front.requests + itself.requests, [])

    def test_a_certificate_for_another_name_is_refused(self):
        for names, host, why in (("DNS:picture.test", "localhost", "hostname mismatch"), ("DNS:localhost", "127.0.0.1", "IP address mismatch"),
                                 ("IP:127.0.0.1", "localhost", "hostname mismatch"), ("DNS:local*", "localhost", "hostname mismatch"),
                                 ("DNS:localhost.picture.test", "localhost", "hostname mismatch")):
            with self.subTest(names=names, host=host):
                front = self.front(self.authority.sign("other", names))
                self.refused(self.asked(front, "status", host=host), f"its certificate is refused: {why}", NEXT["name"])
                self.assertEqual(front.requests, [])

    def test_an_expired_certificate_is_refused(self):
        front = self.front(self.authority.sign("expired", "DNS:localhost", days=-1))
        self.refused(self.asked(front, "status"), "its certificate is refused: certificate has expired", NEXT["time"])
        self.assertEqual(front.requests, [])

    def test_a_client_certificate_proves_no_server(self):
        front = self.front(self.authority.sign("localhost"))
        self.refused(self.asked(front, "status"), "its certificate is refused: .*purpose.*", NEXT["ca"])

    def test_versions_before_1_2_are_refused(self):
        def old(context):
            with warnings.catch_warnings():
                warnings.simplefilter("ignore", DeprecationWarning)
                context.minimum_version, context.maximum_version = ssl.TLSVersion.TLSv1, ssl.TLSVersion.TLSv1_1
            context.set_ciphers("ALL:@SECLEVEL=0")

        front = self.front(configure=old)
        self.refused(self.asked(front, "status"), ".*alert protocol version", NEXT["server"])
        self.assertEqual(front.requests, [])

    def test_1_2_and_1_3_are_spoken(self):
        for version in (ssl.TLSVersion.TLSv1_2, ssl.TLSVersion.TLSv1_3):
            with self.subTest(version):
                def only(context):
                    context.minimum_version = context.maximum_version = version

                self.assertEqual(self.asked(self.front(configure=only), "get", "cluster/alive").out, "1\n")

    def test_a_server_without_tls_is_told_from_one_with_it(self):
        result = self.tool("--from", f"https://localhost:{self.web.address[1]}", "--ca-file", self.authority.certificate, "status")
        self.refused(result, "it answers without TLS", "use http:, or the port that has TLS")
        result = self.tool("--from", f"http://localhost:{self.front().port}", "status")
        self.assertEqual((result.status, result.raw), (5, b""))
        self.assertRegex(result.err, "^shmnmctl: (the server's answer cannot be used: it (was cut|is not HTTP)|cannot speak with the server: ).*\n$")


class Clients(TlsTest):
    def setUp(self):
        super().setUp()
        self.operators = Authority(self.folder, "operators")
        self.operator = self.operators.sign("operator")

    def test_a_server_that_asks_for_a_certificate_is_given_it(self):
        front = self.front(clients=self.operators)
        for credentials in (("--cert", self.operator.certificate, "--key", self.operator.key), ("--cert", self.operator.both)):
            with self.subTest(credentials):
                self.assertEqual(self.asked(front, "get", "cluster/alive", *credentials).out, "1\n")
        # A server that does not ask does not mind.
        self.assertEqual(self.asked(self.front(), "get", "cluster/alive", "--cert", self.operator.both).out, "1\n")

    def test_no_certificate_and_a_wrong_one_are_refused(self):
        for version in (ssl.TLSVersion.TLSv1_2, ssl.TLSVersion.TLSv1_3):
            def only(context):
                context.minimum_version = context.maximum_version = version

            front = self.front(clients=self.operators, configure=only)
            for name, credentials in (("none", ()), ("of another authority", ("--cert", self.authority.sign("intruder").both)),
                                      ("expired", ("--cert", self.operators.sign("former", days=-1).both))):
                with self.subTest(version=version, certificate=name):
                    result = self.asked(front, "status", *credentials)
                    self.refused(result, "it refuses this client: .*alert .*", NEXT["client"])
            self.assertEqual(front.requests, [])

    def test_a_key_that_others_may_read_is_not_used(self):
        front = self.front(clients=self.operators)
        for key, credentials in ((self.operator.key, ("--cert", self.operator.certificate, "--key", self.operator.key)),
                                 (self.operator.both, ("--cert", self.operator.both))):
            for mode in (0o644, 0o640, 0o604, 0o620, 0o601):
                with self.subTest(key=key, mode=oct(mode)):
                    key.chmod(mode)
                    result = self.asked(front, "status", *credentials)
                    self.assertEqual((result.status, result.raw), (5, b""))
                    self.assertEqual(result.err, f'shmnmctl: other users may use the key in {key}; run "chmod 600 {key}"\n')
            for mode in (0o600, 0o400):
                with self.subTest(key=key, mode=oct(mode)):
                    key.chmod(mode)
                    self.assertEqual(self.asked(front, "get", "cluster/alive", *credentials).out, "1\n")

    def test_files_that_cannot_be_used_are_named(self):
        front = self.front()
        missing, empty = self.folder / "missing", self.folder / "empty"
        empty.touch(0o600)
        other = self.operators.sign("other")
        certificate, key = self.operator.certificate, self.operator.key
        for options, what, file, why in (
                (("--ca-file", missing), "authorities", missing, "No such file or directory"), (("--ca-file", empty), "authorities", empty, "no certificate or crl found"),
                (("--cert", missing), "certificate", missing, "No such file or directory"), (("--cert", empty, "--key", key), "certificate", empty, "no start line"),
                (("--cert", certificate, "--key", missing), "key", missing, "No such file or directory"),
                (("--cert", certificate, "--key", empty), "key", empty, "unsupported|no start line"), (("--cert", certificate, "--key", other.key), "key", other.key, "key values mismatch")):
            with self.subTest(options):
                result = self.tool("--from", f"https://localhost:{front.port}", *options, "status")
                self.assertEqual((result.status, result.raw), (5, b""))
                self.assertRegex(result.err, f"^shmnmctl: cannot use the {what} in {file}: ({why}); name another file, in PEM\n$")
        self.assertEqual(front.requests, [])


class Failing(TlsTest):
    def test_a_server_that_hangs_in_the_handshake_is_given_up(self):
        with socket.create_server(("127.0.0.1", 0)) as silent:
            self.late(silent.getsockname()[1])

    def test_a_server_that_dribbles_in_the_handshake_is_given_up(self):
        with socket.create_server(("127.0.0.1", 0)) as listener:
            def dribble():
                connection, _ = listener.accept()
                with connection:
                    # One record that never ends; each byte comes in good time.
                    connection.settimeout(0.05)
                    try:
                        connection.sendall(b"\x16\x03\x03\x40\x00\x02\x00\x3f\xfc")
                        while True:
                            try:
                                if not connection.recv(4096):
                                    return
                            except socket.timeout:
                                connection.sendall(b"\x03")
                    except OSError:
                        pass

            thread = threading.Thread(target=dribble)
            thread.start()
            self.late(listener.getsockname()[1])
            thread.join()

    def late(self, port):
        result = self.tool("--from", f"https://localhost:{port}", "--ca-file", self.authority.certificate, "--server-timeout", "300ms", "status")
        self.assertEqual((result.status, result.raw), (5, b""))
        self.assertEqual(result.err, "shmnmctl: cannot speak with the server: it does not answer in time; "
                                     "see whether shmnmweb runs there, and whether this user may connect\n")

    def test_an_answer_that_stops_half_way_is_no_answer(self):
        head = b'HTTP/1.1 200 OK\r\nContent-Length: 100000\r\n\r\n{"version":1,"kind":"snapshot"'

        def stop(client):
            client.sendall(head)
            while client.recv(4096):
                pass

        def end(client):
            client.sendall(head)
            client.unwrap()

        def cut(client):
            # Without the word of TLS that this is the end.
            client.sendall(head)
            client.shutdown(socket.SHUT_RDWR)

        for answer, error in ((stop, "cannot speak with the server: it does not answer in time; .*"), (end, "the server's answer cannot be used: it was cut; .*"),
                              (cut, f"cannot speak TLS with the server: .*; {NEXT['server']}")):
            with self.subTest(answer.__name__):
                result = self.asked(self.front(answer=answer), "--server-timeout", "2s", "status")
                self.assertEqual((result.status, result.raw), (5, b""))
                self.assertRegex(result.err, f"^shmnmctl: {error}\n$")


class Bell(TlsTest):
    def there(self, front):
        return ("--from", f"https://localhost:{front.port}", "--ca-file", str(self.authority.certificate))

    def test_watch_tells_each_change_and_fetches_only_when_the_bell_rings(self):
        front = self.front()
        watch = self.start(*self.there(front), "watch", "cluster", "--format", "json", "--from-start")
        while json.loads(watch.stdout.readline())["key"] != "cluster/alive":
            pass
        for value in (1, 2, 3):
            self.region_holder.ok("shmnm_setclstat", value)
            while (event := json.loads(watch.stdout.readline()))["kind"] != "change":
                pass
            self.assertEqual((event["key"], event["new"]), ("cluster/clstat", value))
        # For the five seconds between two signs of life there is nothing to fetch, but for one look in each second. The first
        # sign comes at once.
        stream = self.stream(self.web)
        for _ in range(2):
            while stream.any()[0] != "alive":
                pass
        fetched = len(front.requests)
        while stream.any()[0] != "alive":
            pass
        self.assertLess(len(front.requests) - fetched, 20)
        self.assertEqual(sum("/events" in request for request in front.requests), 1)
        watch.send_signal(signal.SIGINT)
        self.assertEqual(watch.wait(web_support.DEADLINE), 0)
        self.assertEqual(watch.stderr.read(), b"")

    def test_wait_returns_when_the_condition_holds(self):
        wait = self.start(*self.there(self.front()), "wait", "cluster/clstat=4")
        for value in (1, 4):
            self.region_holder.ok("shmnm_setclstat", value)
        self.assertEqual(wait.wait(web_support.DEADLINE), 0)

    def test_wait_ends_in_its_own_time(self):
        wait = self.asked(self.front(), "wait", "--timeout", "200ms", "cluster/clstat=4")
        self.assertEqual(wait.status, 4)
        self.assertIn("the condition did not hold within 200ms", wait.err)

    def test_a_status_that_repeats_itself_reads_over_tls(self):
        status = self.start(*self.there(self.front()), "status", "--watch", "10ms", "--format", "json")
        self.assertEqual(status.stdout.readline(), self.tool("status", "--format", "json").raw)
        self.region_holder.ok("shmnm_setclstat", 7)
        while json.loads(status.stdout.readline())["cluster"]["clstat"] != 7:
            pass


if __name__ == "__main__":
    web_support.main()
