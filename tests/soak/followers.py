"""Those who follow the picture: `shmnmctl watch`, the stream of shmnmweb, and `shmnmctl wait`. Each keeps the last values that it was
told, so that a checkpoint can compare them with the region."""
import json
import re
import socket
import threading
import urllib.request

from processes import DEADLINE, Process, Ready

SERVER_WORDS = ("pri", "nodestat", "nodestat_nw", "downnotifystat", "isolateflag", "pingstat", "holdstat", "dfailstatus")


def comparable(words):
    """The words that followers must have; the marks of the bridge move between two looks."""
    return {key: value for key, value in words.items() if not key.startswith("bridge/")}


class Watch(Process):
    """`shmnmctl watch --from-start`."""

    def __init__(self, name, machine, **options):
        super().__init__(name, [machine.programs / "shmnmctl", "watch", "--from-start", "--format", "json"], machine.environment, machine.errors(name), **options)
        self.lock = threading.Lock()
        self.words, self.problems, self.changes, self.gaps, self.sequence = {}, [], 0, 0, 0

    def begins(self):
        with self.lock:
            self.words, self.sequence = {}, 0

    def heard(self, line):
        try:
            event = json.loads(line)
        except ValueError:
            # Cut by a kill.
            return
        with self.lock:
            if event["seq"] != self.sequence + 1:
                self.problems.append(f"{self.name}: event {event['seq']} follows event {self.sequence}")
            self.sequence = event["seq"]
            if event["kind"] == "gap":
                self.gaps += 1
            elif event["kind"] == "change":
                self.take(event)
            else:
                self.problems.append(f"{self.name}: {line}")

    def take(self, event):
        self.changes += 1
        old, new = event.get("old"), event.get("new")
        if self.words.get(event["key"]) != old:
            self.problems.append(f"{self.name}: {event['key']} was {self.words.get(event['key'])}, and a change says {old}")
        if new is None:
            self.words.pop(event["key"], None)
        else:
            self.words[event["key"]] = new

    def shown(self):
        with self.lock:
            return comparable({key: str(value) for key, value in self.words.items()})


def words_of(picture):
    """The words of a document of the picture, by the keys of `shmnmctl list`."""
    words = {f"cluster/{name}": value for name, value in picture["cluster"].items() if name != "alive"}
    names = [server["name"] for server in picture["servers"]]
    for server in picture["servers"]:
        words.update({f"servers/{server['name']}/{word}": server[word] for word in SERVER_WORDS})
    for kind, rows in (("hb", ("svstat", "network")), ("np", ("svstat",))):
        for resource in picture[kind]:
            key = f"{kind}/{resource['type']}/{resource['name']}"
            words.update({f"{key}/pri": resource["pri"], f"{key}/stat": resource["stat"]})
            for row in rows:
                words.update({f"{key}/{row}/{name}": value for name, value in zip(names, resource[row])})
    return {key: str(value) for key, value in words.items()}


class Stream:
    """The events of a shmnmweb, which goes on over its restarts as a browser does."""

    def __init__(self, address):
        self.lock = threading.Lock()
        self.words, self.problems, self.events, self.last_id = {}, [], 0, None
        self.connection = socket.create_connection(address, timeout=DEADLINE)
        self.connection.sendall(b"GET /events HTTP/1.1\r\nHost: localhost\r\n\r\n")
        self.file = self.connection.makefile("rb")
        self.is_closed = False
        self.thread = threading.Thread(target=self.follow, daemon=True)
        self.thread.start()

    def follow(self):
        name = ""
        try:
            for line in self.file:
                text = line.decode().strip()
                if text.startswith("event: "):
                    name = text[7:]
                elif text.startswith("data: "):
                    self.heard(name, json.loads(text[6:]))
        except (OSError, ValueError):
            pass  # the server was killed
        self.is_closed = True

    def heard(self, name, event):
        with self.lock:
            self.events += 1
            if name == "picture" and event["picture"]:
                self.words = words_of(event["picture"])
            elif name == "changes":
                for change in event["changes"]:
                    if change["key"] in self.words:
                        self.words[change["key"]] = str(change["new"])

    def shown(self):
        with self.lock:
            return dict(self.words)

    def close(self):
        try:
            self.connection.shutdown(socket.SHUT_RDWR)
        except OSError:
            pass
        self.thread.join(DEADLINE)
        self.file.close()
        self.connection.close()


class Web(Ready):
    """shmnmweb with a stream."""

    def __init__(self, name, machine, **options):
        super().__init__(name, [machine.programs / "shmnmweb", "--listen", "127.0.0.1:0"], machine.environment, machine.errors(name), **options)
        self.stream, self.scrapes = None, 0

    def started(self):
        super().started()
        self.port = int(re.search(r":(\d+)/$", self.first_line)[1])
        self.stream = Stream(("127.0.0.1", self.port))

    def forget(self):
        status = super().forget()
        self.stream.close()
        return status

    def get(self, target):
        with urllib.request.urlopen(f"http://127.0.0.1:{self.port}{target}", timeout=DEADLINE) as answer:
            return answer.read().decode()

    def scrape(self):
        """The words of servers that the metrics show, by key."""
        self.scrapes += 1
        found = re.findall(r'^shmnm_server_(\w+)\{server="([^"]+)"\} (\d+)$', self.get("/metrics"), re.M)
        return {f"servers/{server}/{word}": value for word, server, value in found if word in SERVER_WORDS}


class Wait(Process):
    """`shmnmctl wait` for a value that a later checkpoint sets."""

    KEY = "cluster/bwflagdisk"

    def __init__(self, machine, value):
        super().__init__("wait", [machine.programs / "shmnmctl", "wait", f"{self.KEY}={value}"], machine.environment, machine.errors("wait"))
        self.value = value
