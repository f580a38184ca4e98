"""Authorities and certificates for tests, made by the openssl command, and a server that puts TLS before another one."""
import contextlib
import socket
import ssl
import subprocess
import threading


def openssl(*arguments):
    subprocess.run(["openssl", *map(str, arguments)], check=True, capture_output=True, timeout=60)


def signature_of(certificate):
    """The lengths of the two numbers with which the certificate ends. One begins with a zero byte if its first bit is set."""
    der = ssl.PEM_cert_to_DER_cert(certificate.read_text())
    for size in range(8, 73):
        # What ends like a signature may be a part of its second number, so the header before it counts too.
        header, signature = der[-size - 3:-size], der[-size:]
        if header == bytes((0x03, size + 1, 0)) and signature[:3] == bytes((0x30, size - 2, 0x02)):
            first = signature[3]
            return first, size - 6 - first
    raise AssertionError(f"{certificate} has no signature of two numbers")


def certify(certificate, *arguments):
    """Makes a certificate, again if a number of its signature has less than 32 bytes, as in one of 128: wine 8 takes that for wrong."""
    openssl(*arguments, "-out", certificate)
    while min(signature_of(certificate)) < 32:
        openssl(*arguments, "-out", certificate)


class Identity:
    """A certificate, its key, and both in one file."""

    def __init__(self, folder, name):
        self.certificate, self.key, self.both = (folder / f"{name}.{kind}" for kind in ("crt", "key", "pem"))


class Authority(Identity):
    """One that signs certificates."""

    def __init__(self, folder, name):
        super().__init__(folder, name)
        self.folder = folder
        certify(self.certificate, "req", "-x509", "-newkey", "ec", "-pkeyopt", "ec_paramgen_curve:prime256v1", "-nodes", "-days", 2, "-subj",
                f"/CN={name}", "-keyout", self.key)

    def sign(self, name, names="", days=2):
        """A certificate for those names, such as "DNS:localhost,IP:127.0.0.1"; without names it is a client's."""
        made = Identity(self.folder, name)
        request, extensions = self.folder / f"{name}.csr", self.folder / f"{name}.ext"
        extensions.write_text((f"subjectAltName={names}\n" if names else "") + f"extendedKeyUsage={'serverAuth' if names else 'clientAuth'}\n")
        openssl("req", "-newkey", "ec", "-pkeyopt", "ec_paramgen_curve:prime256v1", "-nodes", "-subj", f"/CN={name}", "-keyout", made.key, "-out", request)
        certify(made.certificate, "x509", "-req", "-in", request, "-CA", self.certificate, "-CAkey", self.key, "-CAcreateserial", "-days", days,
                "-extfile", extensions)
        made.both.write_bytes(made.certificate.read_bytes() + made.key.read_bytes())
        made.both.chmod(0o600)
        return made


class Front:
    """TLS before a server: it passes each connection's one request on, and the answer back."""

    def __init__(self, test, behind, identity, clients=None, configure=lambda context: None, answer=None):
        self.behind, self.answer = behind, answer
        self.requests, self.refused = [], []
        self.context = ssl.SSLContext(ssl.PROTOCOL_TLS_SERVER)
        self.context.load_cert_chain(identity.certificate, identity.key)
        if clients:
            self.context.verify_mode = ssl.CERT_REQUIRED
            self.context.load_verify_locations(clients.certificate)
        configure(self.context)
        self.listener = socket.create_server(("127.0.0.1", 0))
        self.port = self.listener.getsockname()[1]
        self.thread = threading.Thread(target=self.accept)
        self.workers, self.open = [], []
        self.thread.start()
        test.addCleanup(self.end)

    def accept(self):
        while True:
            try:
                plain, _ = self.listener.accept()
            except OSError:
                return
            worker = threading.Thread(target=self.serve, args=(plain,))
            self.workers.append(worker)
            worker.start()

    def serve(self, plain):
        plain.settimeout(60)
        try:
            with self.context.wrap_socket(plain, server_side=True) as client:
                request = b""
                while b"\r\n\r\n" not in request:
                    part = client.recv(4096)
                    if not part:
                        return
                    request += part
                self.requests.append(request.split(b"\r\n")[0].decode())
                if self.answer:
                    self.answer(client)
                    return
                with socket.create_connection(self.behind, timeout=60) as server:
                    self.open.append(server)
                    server.sendall(request)
                    while part := server.recv(1 << 16):
                        client.sendall(part)
                client.unwrap()
        except OSError as error:
            self.refused.append(error)

    def end(self):
        # A thread that waits in accept() does not notice a close.
        self.listener.shutdown(socket.SHUT_RDWR)
        self.listener.close()
        self.thread.join()
        # A stream of events would go on.
        for server in self.open:
            with contextlib.suppress(OSError):
                server.shutdown(socket.SHUT_RDWR)
        for worker in self.workers:
            worker.join()
