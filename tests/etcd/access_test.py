#!/usr/bin/env python3
"""Who may speak with etcd, and who proves to be etcd: users, passwords, tokens, TLS and certificates."""
import os
import pathlib
import shutil
import ssl
import sys
import tempfile
import unittest

from etcd_support import PLATFORM, PROJECT, Cluster, EtcdTest, Member, free_ports, main, path

sys.path.insert(0, str(PROJECT / "tests/shmnmweb"))
from certificates import certify, openssl  # noqa: E402  it stands beside other tests

PASSWORD = "a \"secret\" of \u00e4ll"


class Files(EtcdTest):
    """A test with a folder for its secrets."""

    def setUp(self):
        self.folder = pathlib.Path(tempfile.mkdtemp(prefix="etcd-access-"))
        self.addCleanup(shutil.rmtree, self.folder)

    def secret(self, text, mode=0o600):
        file = self.folder / "password"
        file.write_bytes(text.encode())
        file.chmod(mode)
        return path(file)


def root_token(member):
    return member.post("/v3/auth/authenticate", {"name": "root", "password": "root"})[1]["token"]


def add_users(member):
    """root, and "bridge", which may use the keys below /allowed/."""
    for target, body in (("user/add", {"name": "root", "password": "root"}), ("role/add", {"name": "root"}),
                         ("user/grant", {"user": "root", "role": "root"}), ("user/add", {"name": "bridge", "password": PASSWORD}),
                         ("role/add", {"name": "limited"}),
                         ("role/grant", {"name": "limited", "perm": {"permType": "READWRITE", "key": "L2FsbG93ZWQv", "range_end": "L2FsbG93ZWQw"}}),
                         ("user/grant", {"user": "bridge", "role": "limited"}), ("auth/enable", {})):
        status, answer = member.post("/v3/auth/" + target.removeprefix("auth/"), body)
        assert status == 200, answer


class Users(Files):
    def setUp(self):
        super().setUp()
        self.cluster = Cluster(self.addCleanup)
        self.member = self.cluster.members[0]

    def user(self, **settings):
        return self.client(self.cluster.endpoints, user="bridge", password_file=self.secret(PASSWORD + "\n"), **settings)

    def put(self, etcd, key="/allowed/a", value="1"):
        return etcd.ask(put={"key": key, "value": value})

    def test_a_user_does_what_it_may_and_nothing_else(self):
        add_users(self.member)
        etcd = self.user()
        self.assert_done(self.put(etcd))
        self.assertEqual(self.put(etcd, "/other")["failure"], "denied")
        watch = etcd.watch(below="/allowed/")
        self.assert_done(self.put(etcd, value="2"))
        self.assertEqual(etcd.events(watch, 1), [("/allowed/a", "2")])
        self.assertEqual(etcd.next(etcd.command(watch={"key": "/other"}))["end"], "denied")

    def test_a_lost_token_is_renewed(self):
        add_users(self.member)
        etcd = self.user()
        for value in "123":
            self.assert_done(self.put(etcd, value=value))
            # Tokens are kept in memory.
            self.member.kill()
            self.member.start()
            self.member.wait_until_serves()
        watch = etcd.watch(below="/allowed/")
        self.assert_done(self.put(etcd, value="4"))
        self.assertEqual(etcd.events(watch, 1), [("/allowed/a", "4")])

    def test_users_may_be_introduced_and_abolished(self):
        etcd = self.user()
        self.assert_done(self.put(etcd))
        add_users(self.member)
        self.assert_done(self.put(etcd))
        status, _ = self.member.post("/v3/auth/disable", {}, root_token(self.member))
        self.assertEqual(status, 200)
        self.assert_done(self.put(etcd))

    def test_no_user_and_a_wrong_password_are_refused(self):
        add_users(self.member)
        nobody = self.client(self.cluster.endpoints)
        self.assertEqual(self.put(nobody)["failure"], "unauthenticated")
        self.assertEqual(nobody.next(nobody.command(watch={"key": "/allowed/a"}))["end"], "unauthenticated")
        etcd = self.client(self.cluster.endpoints, user="bridge", password_file=self.secret("wrong"))
        self.assertEqual(self.put(etcd)["failure"], "unauthenticated")
        # A corrected file is read without a restart.
        self.secret(PASSWORD)
        self.assert_done(self.put(etcd))

    def test_nothing_tells_the_password(self):
        add_users(self.member)
        etcd = self.user()
        self.assert_done(self.put(etcd))
        self.put(etcd, "/other")
        token = root_token(self.member)
        told = b"".join(etcd.told) + " ".join(etcd.process.args).encode()
        self.assertIn(b"denied", told)
        for secret in (PASSWORD, "ll\"", token):
            self.assertNotIn(secret.encode(), told)


class Settings(Files):
    def refused(self, text, endpoints=("http://127.0.0.1:1",), **settings):
        self.assertRegex(self.refusal(list(endpoints), **settings), text)

    def test_a_password_that_others_may_use_is_refused(self):
        # Wine's access lists do not tell of a file's group.
        for mode in (0o604, 0o666) if PLATFORM == "windows" else (0o640, 0o604, 0o660, 0o666):
            self.refused("others may use it", user="a", password_file=self.secret("secret-text", mode))
        error = self.refusal(["http://127.0.0.1:1"], user="a", password_file=self.secret("secret-text", 0o644))
        self.assertNotIn("secret-text", error)
        self.client(["http://127.0.0.1:1"], user="a", password_file=self.secret("secret-text"))

    def test_a_password_is_one_line(self):
        for text in ("", "\n", "a\nb\n"):
            self.refused("it must be the file's only line", user="a", password_file=self.secret(text))
        self.refused("longer than 64 KiB", user="a", password_file=self.secret("x" * 70_000))
        self.refused("cannot use the secret in ", user="a", password_file=path(self.folder / "none"))

    def test_a_password_is_found_in_every_folder(self):
        for name in ("with blanks", "Программы 集群 \U0001F5A5", "/".join(letter * 100 for letter in "lmn")):
            self.secret("x")
            file = self.folder / name / "password"
            file.parent.mkdir(parents=True)
            (self.folder / "password").rename(file)
            self.client(["http://127.0.0.1:1"], user="a", password_file=path(file))

    def test_a_password_does_not_cross_the_network_readable(self):
        self.refused("use https$", ["http://10.0.0.1:2379"], user="a", password_file=self.secret("x"))

    def test_settings_that_contradict_each_other_are_refused(self):
        self.refused("name one per member", [])
        self.refused("invalid address \"ftp://a\" of etcd", ["ftp://a"])
        self.refused("name both", user="a")
        self.refused("name both", password_file=self.secret("x"))
        self.refused("no address of etcd begins with https", authorities="x")


class Authority:
    def __init__(self, folder, name):
        self.folder, self.name = folder, name
        self.certificate, self.key = folder / f"{name}.crt", folder / f"{name}.key"
        certify(self.certificate, "req", "-x509", "-newkey", "ec", "-pkeyopt", "ec_paramgen_curve:prime256v1", "-nodes", "-days", 2, "-subj",
                f"/CN={name}", "-keyout", self.key)

    def sign(self, name, subject, extensions):
        certificate, key, request = (self.folder / f"{name}.{kind}" for kind in ("crt", "key", "csr"))
        (self.folder / "extensions").write_text(extensions)
        openssl("req", "-newkey", "ec", "-pkeyopt", "ec_paramgen_curve:prime256v1", "-nodes", "-subj", subject, "-keyout", key, "-out", request)
        certify(certificate, "x509", "-req", "-in", request, "-CA", self.certificate, "-CAkey", self.key, "-CAcreateserial", "-days", 2,
                "-extfile", self.folder / "extensions")
        key.chmod(0o600)
        return path(certificate), path(key)


class Certificates(Files):
    def setUp(self):
        super().setUp()
        self.authority = Authority(self.folder, "authority")
        self.port, self.peer = free_ports(2)

    def member(self, names, clients=False):
        """A member with TLS whose certificate has those names. Its own gateway is a client of it, too."""
        self.authority.sign("server", "/O=etcd", f"subjectAltName={names}\nextendedKeyUsage=serverAuth,clientAuth\n")
        options = ["--cert-file", str(self.folder / "server.crt"), "--key-file", str(self.folder / "server.key")]
        if clients:
            options += ["--client-cert-auth", "--trusted-ca-file", str(self.authority.certificate)]
        member = Member("tls", self.folder, self.port, self.peer, f"tls=http://127.0.0.1:{self.peer}", options, "https")
        self.addCleanup(member.log.close)
        self.addCleanup(member.kill)
        member.start()
        member.wait_until_listens()
        return member

    def put(self, etcd):
        return etcd.ask(put={"key": "a", "value": "1"})

    def refused(self, reason, host="127.0.0.1", **settings):
        answer = self.put(self.client(self.endpoint(host), timeout=10_000, connect_timeout=5_000, **settings))
        self.assertEqual(answer["failure"], "not_sent")
        self.assertRegex(answer["reason"], reason)

    def endpoint(self, host="127.0.0.1"):
        return [f"https://{host}:{self.port}"]

    def use(self, host="127.0.0.1", **settings):
        """Requests, a watch and a lease, all over TLS."""
        etcd = self.client(self.endpoint(host), timeout=10_000, connect_timeout=5_000, **settings)
        self.assert_done(self.put(etcd))
        watch = etcd.watch(key="a")
        for value in "234":
            self.assert_done(etcd.ask(put={"key": "a", "value": value}))
            self.assertEqual(etcd.events(watch, 1), [("a", value)])
        self.assertEqual(self.assert_done(etcd.ask(keep_alive=self.assert_done(etcd.ask(grant=30))["lease"]))["seconds"], 30)
        value = "x" * 300_000
        self.assert_done(etcd.ask(put={"key": "b", "value": value}))
        self.assertEqual(self.assert_done(etcd.ask(read={"key": "b"}))["found"][0][0]["value"], value)
        return etcd


if PLATFORM == "linux":
    class Tls(Certificates):
        """By OpenSSL."""

        @property
        def authorities(self):
            return path(self.authority.certificate)

        def test_a_member_with_a_signed_certificate_is_used(self):
            self.member("DNS:localhost,IP:127.0.0.1")
            self.use(authorities=self.authorities)
            self.assert_done(self.put(self.client(self.endpoint("localhost"), authorities=self.authorities, timeout=10_000)))

        def test_a_member_of_another_name_or_another_authority_is_refused(self):
            self.member("DNS:other.example,IP:127.0.0.2")
            self.refused("its certificate is refused: IP address mismatch", authorities=self.authorities)
            self.refused("its certificate is refused: hostname mismatch", "localhost", authorities=self.authorities)
            self.refused("its certificate is refused: unable to get local issuer certificate")
            stranger = Authority(self.folder, "stranger")
            self.refused("its certificate is refused: unable to get local issuer certificate", authorities=path(stranger.certificate))

        def test_a_certificate_of_the_client_is_shown(self):
            self.member("IP:127.0.0.1", clients=True)
            certificate, key = self.authority.sign("client", "/O=bridge", "extendedKeyUsage=clientAuth\n")
            self.use(authorities=self.authorities, certificate=certificate, key=key)
            answer = self.put(self.client(self.endpoint(), authorities=self.authorities))
            self.assertIn(answer["failure"], ("not_sent", "cut"))
            self.assertRegex(answer["reason"], "certificate")

        def test_a_certificate_without_common_name_goes_with_a_password(self):
            member = self.member("IP:127.0.0.1", clients=True)
            certificate, key = self.authority.sign("client", "/O=bridge", "extendedKeyUsage=clientAuth\n")
            named, named_key = self.authority.sign("named", "/O=bridge/CN=bridge", "extendedKeyUsage=clientAuth\n")
            self.use(authorities=self.authorities, certificate=named, key=named_key)
            member.context = ssl.create_default_context(cafile=self.authorities)
            member.context.load_cert_chain(certificate, key)
            add_users(member)
            self.use(authorities=self.authorities, certificate=certificate, key=key, user="root", password_file=self.secret("root"))
            self.assertRegex(self.refusal(self.endpoint(), authorities=self.authorities, certificate=named, key=named_key, user="a",
                                          password_file=self.secret("x")), "named.crt has a common name, and etcd refuses it together with a password")

        def test_a_key_that_others_may_read_is_refused(self):
            certificate, key = self.authority.sign("client", "/O=bridge", "extendedKeyUsage=clientAuth\n")
            os.chmod(key, 0o640)
            self.assertRegex(self.refusal(self.endpoint(), certificate=certificate, key=key), "others may use it; run \"chmod 600 .*client.key\"$")
            os.chmod(key, 0o600)
            self.assertRegex(self.refusal(self.endpoint(), certificate=certificate), "name both files$")
            self.assertRegex(self.refusal(self.endpoint(), certificate=key, key=key), "^cannot use the certificate in ")
            self.assertRegex(self.refusal(self.endpoint(), certificate=certificate, key=certificate), "others may use it|cannot use the key in ")
            self.assertRegex(self.refusal(self.endpoint(), authorities=path(self.folder / "none")), "^cannot use the authorities in ")
else:
    class ClientCertificates(Certificates):
        def test_are_refused(self):
            for files in ({"certificate": "a.crt", "key": "a.key"}, {"certificate": "a.crt"}, {"key": "a.key"}):
                self.assertRegex(self.refusal(["https://127.0.0.1:1"], **files),
                                 "^client certificates are not supported on Windows; remove certificate and key, and use a user of etcd with a password$")

        def test_that_a_member_demands_are_not_shown(self):
            self.member("IP:127.0.0.1", clients=True)
            answer = self.put(self.client(self.endpoint(), authorities=path(self.authority.certificate)))
            self.assertEqual(answer["failure"], "not_sent")
            self.assertRegex(answer["reason"], f"^https://127.0.0.1:{self.port}: no TLS: .*--client-cert-auth")


class WithoutTls(Files):
    def test_a_member_is_refused(self):
        plain = Cluster(self.addCleanup).members[0]
        answer = self.client([f"https://127.0.0.1:{plain.port}"]).ask(put={"key": "a", "value": "1"})
        self.assertEqual(answer["failure"], "not_sent")
        self.assertRegex(answer["reason"], f"^https://127.0.0.1:{plain.port}: no TLS: ")


if __name__ == "__main__":
    main()
