"""What the tests of shmnmweb share: a server of their own, requests to it byte by byte, and event streams."""
import http.client
import json
import pathlib
import re
import socket
import subprocess
import sys
import time

sys.path.insert(0, str(pathlib.Path(__file__).resolve().parents[1] / "shmnmctl"))
import jsonschema  # noqa: E402
import support  # noqa: E402
from support import ToolTest  # noqa: E402

DEADLINE = support.DEADLINE
# Both schemas as one, because the server's refers to the tool's.
WEB_SCHEMA = json.loads((support.PROJECT / "docs/shmnmweb.schema.json").read_text().replace('"shmnmctl.schema.json#', '"#'))
VALIDATOR = jsonschema.Draft202012Validator(WEB_SCHEMA | {"$defs": support.SCHEMA["$defs"] | WEB_SCHEMA["$defs"]})


def validated(document):
    """Every document of the server that a test sees obeys the schema."""
    VALIDATOR.validate(document)
    return document


class Answer:
    def __init__(self, status, fields, body):
        self.status, self.fields, self.body = status, fields, body

    @property
    def text(self):
        return self.body.decode()

    @property
    def json(self):
        return json.loads(self.body)

    def __repr__(self):
        return f"{self.status} {self.fields} {self.body[:300]!r}"


class LocalConnection(http.client.HTTPConnection):
    def __init__(self, path):
        super().__init__("localhost", timeout=DEADLINE)
        self.path = str(path)

    def connect(self):
        self.sock = socket.socket(socket.AF_UNIX)
        self.sock.settimeout(DEADLINE)
        self.sock.connect(self.path)


class Stream:
    """The events of a server, as they come."""

    def __init__(self, connection, last_id=None, server=None):
        headers = {"Last-Event-ID": last_id} if last_id else {}
        connection.request("GET", "/events", headers=headers)
        self.server = server
        self.connection = connection
        self.response = connection.getresponse()
        self.comments = 0

    def line(self):
        line = self.response.readline()
        if not line:
            raise EOFError(f"the stream has ended; {self.server.state() if self.server else 'of its server nothing is known'}")
        return line.decode().rstrip("\n")

    def any(self):
        """The next event: its name, its id and its document."""
        fields = {}
        while True:
            line = self.line()
            if line == "" and fields:
                return fields["event"], fields.get("id"), validated(json.loads(fields["data"]))
            if line.startswith(":"):
                self.comments += 1
            elif line:
                name, _, value = line.partition(": ")
                fields[name] = value

    def next(self, *names):
        """The next event that tells of the picture."""
        while True:
            event = self.any()
            if event[0] in (names or ("picture", "changes")):
                return event

    def close(self):
        self.connection.close()
        self.response.close()


class Server:
    """A running shmnmweb."""

    def __init__(self, test, *arguments, environment=None, program=None, **options):
        self.process = subprocess.Popen(
            (program or support.program("shmnmweb")) + [str(argument) for argument in arguments],
            stdout=subprocess.PIPE, stderr=subprocess.PIPE, stdin=subprocess.DEVNULL, env=environment or test.environment, **options)
        test.addCleanup(self.end)
        first = self.process.stdout.readline().decode()
        found = re.match(r"listening on http://(\S+):(\d+)/\r?\n", first)
        if first.startswith("listening on unix:"):
            self.address = None
        elif found:
            self.address = (found[1].strip("[]"), int(found[2]))
        else:
            raise AssertionError(f"shmnmweb ended with {self.process.wait()}: {first}{self.process.stderr.read().decode()}")

    def connection(self):
        return http.client.HTTPConnection(*self.address, timeout=DEADLINE)

    def slow_connection(self):
        """A connection whose end here takes in little."""
        connection = self.connection()
        connection.sock = socket.socket()
        connection.sock.setsockopt(socket.SOL_SOCKET, socket.SO_RCVBUF, 4096)
        connection.sock.settimeout(DEADLINE)
        connection.sock.connect(self.address)
        return connection

    def request(self, target, method="GET", body=None, **headers):
        connection = self.connection()
        try:
            connection.request(method, target, body=body, headers={name.replace("_", "-"): value for name, value in headers.items()})
            response = connection.getresponse()
            return Answer(response.status, response.headers, response.read())
        finally:
            connection.close()

    def get(self, target, **headers):
        return self.request(target, **headers)

    def until(self, target, holds):
        """The first answer for which a condition holds."""
        end = time.monotonic() + DEADLINE
        while True:
            answer = self.get(target)
            if holds(answer):
                return answer
            if time.monotonic() > end:
                raise AssertionError(f"not within {DEADLINE} s; last {answer}")

    def socket(self):
        made = socket.create_connection(self.address, timeout=DEADLINE)
        return made

    def raw(self, data, end=False):
        """All that is answered to bytes, up to the end of the connection."""
        with self.socket() as connection:
            connection.sendall(data)
            if end:
                connection.shutdown(socket.SHUT_WR)
            received = b""
            try:
                while part := connection.recv(65536):
                    received += part
            except ConnectionResetError:
                pass
        return received

    def stream(self, last_id=None):
        return Stream(self.connection(), last_id, self)

    def state(self):
        """Whether it runs, for messages of tests that fail."""
        status = self.process.poll()
        return "the server runs" if status is None else f"the server ended with {status}: {self.process.stderr.read().decode()}"

    def end(self):
        if self.process.poll() is None:
            self.process.kill()
        _, told = self.process.communicate()
        if b"Sanitizer" in told:
            raise AssertionError(told.decode())


class WebTest(ToolTest):
    def serve(self, *arguments, **options):
        return Server(self, "--listen", "127.0.0.1:0", *arguments, **options)

    def shown(self, web):
        """Waits until the server shows what is in the region now."""
        now = self.tool("status", "--format", "json").raw
        return web.until("/picture.json", lambda answer: answer.body == now)

    def stream(self, web, last_id=None):
        stream = web.stream(last_id)
        self.addCleanup(stream.close)
        return stream


main = support.main
