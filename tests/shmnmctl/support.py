"""What the tests of shmnmctl share: an installation of their own, the tool as a user runs it, and the library's own answers.

Each test file is run natively and, as Windows programs, under wine:

    NAME_test.py PLATFORM FOLDER [unittest arguments]

PLATFORM is linux or windows, FOLDER holds the programs and libraries.
"""
import json
import os
import pathlib
import re
import shutil
import subprocess
import sys
import tempfile
import unittest

import jsonschema

PROJECT = pathlib.Path(__file__).resolve().parents[2]
SCHEMA = json.loads((PROJECT / "docs/shmnmctl.schema.json").read_text())
VALIDATOR = jsonschema.Draft202012Validator(SCHEMA)


def open_schema(schema):
    """A schema as a reader takes it who was written for it: members that it does not name may be there."""
    if isinstance(schema, dict):
        return {key: open_schema(value) for key, value in schema.items() if (key, value) != ("additionalProperties", False)}
    return [open_schema(value) for value in schema] if isinstance(schema, list) else schema


# As it was before the commands that change the picture answered in JSON.
SCHEMA_BEFORE = json.loads((PROJECT / "tests/shmnmctl/schema_before.json").read_text())


def kinds_of(schema):
    """The kinds of documents that a schema describes."""
    kinds = [definition.get("properties", {}).get("kind", {}) for definition in schema["$defs"].values()]
    return {kind for each in kinds for kind in each.get("enum", [each.get("const")])} - {None}


KINDS_BEFORE = kinds_of(SCHEMA_BEFORE)
VALIDATOR_BEFORE = jsonschema.Draft202012Validator(open_schema(SCHEMA_BEFORE))

# Seconds until a test takes it that something never comes. A busy machine may be slow.
DEADLINE = 300
PLATFORM = "linux"
FOLDER = pathlib.Path()


def program(name):
    """The command line that starts a program of the build."""
    if PLATFORM == "windows":
        return [str(PROJECT / "scripts/wine"), str(FOLDER / f"{name}.exe")]
    return [str(FOLDER / name)]


def native_program(name):
    """The command line by which a program of the platform starts another one."""
    return [path(FOLDER / f"{name}.exe")] if PLATFORM == "windows" else program(name)


def path(name):
    """A file's name as a program of the platform takes it."""
    return "Z:" + str(name).replace("/", "\\") if PLATFORM == "windows" else str(name)


def escaped(text):
    """A name as it stands in keys and JSON."""
    data = text.encode() if isinstance(text, str) else text
    plain = b"abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ0123456789-_.:@+,"
    return "".join(chr(byte) if byte in plain else f"%{byte:02X}" for byte in data)


def opened_by(process):
    """The files of /dev/shm that a process has open, each with what it may do through its descriptors (Linux)."""
    found = {}
    for entry in pathlib.Path(f"/proc/{process}/fd").iterdir():
        try:
            name = pathlib.Path(os.readlink(entry))
            flags = int(re.search(r"^flags:\s*(\d+)$", pathlib.Path(f"/proc/{process}/fdinfo/{entry.name}").read_text(), re.M)[1], 8)
        except FileNotFoundError:
            continue  # closed meanwhile
        if name.is_relative_to("/dev/shm"):
            found.setdefault(name.name, set()).add(flags & os.O_ACCMODE)
    return found


class Result:
    """How a program ended and what it wrote."""

    def __init__(self, status, out, err):
        self.status, self.raw, self.err = status, out, err

    @property
    def out(self):
        return self.raw.decode()

    @property
    def lines(self):
        return self.out.splitlines()

    @property
    def json(self):
        return json.loads(self.out)

    @property
    def error(self):
        return json.loads(self.err)

    def __repr__(self):
        return f"status {self.status}, out {self.raw!r}, err {self.err!r}"


def validated(text):
    """Every line of JSON that a test sees obeys the schema and, where it knew the kind, the schema as it was before."""
    documents = [json.loads(line) for line in text.splitlines()]
    for document in documents:
        VALIDATOR.validate(document)
        if document["kind"] in KINDS_BEFORE:
            VALIDATOR_BEFORE.validate(document)
    return documents


class Api:
    """A program that is linked to the library, holds a region and makes the calls it is told."""

    def __init__(self, environment):
        self.process = subprocess.Popen(program("api_caller"), stdin=subprocess.PIPE, stdout=subprocess.PIPE, env=environment)

    def call(self, function, *inputs):
        """The result code, and the outputs as texts. Names are given as str or bytes and escaped here."""
        words = [function]
        for value in inputs:
            text = str(value) if isinstance(value, int) else escaped(value) if isinstance(value, (str, bytes)) else ",".join(map(str, value))
            words.append(text or "%")
        self.process.stdin.write((" ".join(words) + "\n").encode())
        self.process.stdin.flush()
        answer = self.process.stdout.readline().split()
        if not answer:
            raise AssertionError(f"api_caller ended with {self.process.wait()} at {words}")
        return int(answer[0]), [word.decode() for word in answer[1:]]

    def ok(self, function, *inputs):
        """The outputs of a call that must succeed."""
        result, outputs = self.call(function, *inputs)
        if result != 0:
            raise AssertionError(f"{function}{inputs} answered {result}")
        return outputs

    def end(self):
        """Ends it as a program that returns from main()."""
        if self.process.poll() is None:
            self.process.stdin.close()
            self.process.wait()
        self.process.stdout.close()

    def kill(self):
        self.process.kill()
        self.process.wait()


class Bridge:
    """A process that writes marks as a bridge does."""

    def __init__(self, environment):
        self.process = subprocess.Popen(program("marks_writer"), stdin=subprocess.PIPE, stdout=subprocess.PIPE, env=environment)

    def says(self, *servers, **marks):
        """Writes marks: each server as (name, freshness, more members)."""
        marks["servers"] = [{"name": name, "freshness": freshness, **more} for name, freshness, more in servers]
        self.process.stdin.write((json.dumps({"server": "alpha", **marks}) + "\n").encode())
        self.process.stdin.flush()
        if self.process.stdout.readline().strip() != b"written":
            raise AssertionError(f"marks_writer ended with {self.process.wait()}")

    def end(self):
        if self.process.poll() is None:
            self.process.stdin.close()
            self.process.wait()
        self.process.stdout.close()


class ToolTest(unittest.TestCase):
    """A test with an installation and kernel objects of its own."""

    maxDiff = None
    COUNTS = {"server": 4, "hbr": 3, "npr": 2, "fstr": 1}

    def setUp(self):
        self.folder = pathlib.Path(tempfile.mkdtemp(prefix="shmnmctl-"))
        self.addCleanup(shutil.rmtree, self.folder, ignore_errors=True)
        (self.folder / "etc").mkdir()
        (self.folder / "log").mkdir()
        self.environment = dict(os.environ)
        for name in ("NO_COLOR", "COLUMNS", "TERM", "NOTIFY_SOCKET"):
            self.environment.pop(name, None)
        self.environment["KZM_INSTALL_PATH"] = path(self.folder)
        self.environment["KZMUTIL_NAMESPACE"] = f"ctl-{os.getpid()}-{self.folder.name}-"
        self.configure(**self.COUNTS)

    def configure(self, members="", **counts):
        """Writes the configuration."""
        numbers = "".join(f"<{name}>{value}</{name}>" for name, value in counts.items())
        (self.folder / "etc/cluster.xml").write_text(
            f"<root><all><num>{numbers}</num></all><shmnm><log><level>4</level></log></shmnm><cluster>{members}</cluster></root>"
        )

    def tool(self, *arguments, input=None, environment=None, stdout=subprocess.PIPE, timeout=DEADLINE):
        """Runs the tool to its end. What it says in JSON is checked against the schema."""
        # Not a pipe: if this is the first program under wine, wine's services inherit it and outlive the program, so a pipe would not end.
        with tempfile.TemporaryFile() as errors:
            done = subprocess.run(
                program("shmnmctl") + [str(argument) for argument in arguments],
                input=input.encode() if isinstance(input, str) else input,
                stdin=subprocess.DEVNULL if input is None else None,
                stdout=stdout,
                stderr=errors,
                env=environment or self.environment,
                timeout=timeout,
            )
            errors.seek(0)
            result = Result(done.returncode, done.stdout, errors.read().decode())
        if "json" in arguments or "--format=json" in arguments:
            validated(result.err)
            if done.stdout:
                validated(result.out)
        else:
            # An error is one line. A warning may stand before it.
            errors = [line for line in result.err.splitlines() if not line.startswith("shmnmctl: warning: ")]
            self.assertLessEqual(len(errors), 1, result)
        return result

    def dumped(self):
        """The region's bytes."""
        result = self.tool("dump", "-")
        self.assertEqual((result.status, result.err), (0, ""))
        return result.raw

    def start(self, *arguments, environment=None, **options):
        """Starts the tool and leaves it running; it is killed at the end of the test."""
        process = subprocess.Popen(
            program("shmnmctl") + [str(argument) for argument in arguments], stdout=subprocess.PIPE, stderr=subprocess.PIPE, env=environment or self.environment, **options
        )

        def finish():
            if process.poll() is None:
                process.kill()
            if process.stdin and process.stdin.closed:
                process.stdin = None
            process.communicate()

        self.addCleanup(finish)
        return process

    def api(self):
        """Another process, linked to the library, that has mapped nothing yet."""
        caller = Api(self.environment)
        self.addCleanup(caller.end)
        return caller

    def bridge(self):
        """A bridge that has said nothing yet."""
        bridge = Bridge(self.environment)
        self.addCleanup(bridge.end)
        return bridge

    def region(self):
        """A process that has created the region and holds it."""
        caller = self.api()
        caller.ok("shmnm_create")
        return caller

    def cluster(self):
        """A region with three servers, two hb and two np resources."""
        caller = self.region()
        for priority, server in enumerate(("alpha", "beta", "gamma")):
            caller.ok("shmnm_addnode", server, priority)
        caller.ok("shmnm_addhbrsc", "lan", "lanhb1", 0)
        caller.ok("shmnm_addhbrsc", "disk", "diskhb1", 1)
        caller.ok("shmnm_addnprsc", "ping", "pingnp1", 0)
        caller.ok("shmnm_addnprsc", "majority", "majoritynp1", 1)
        return caller


def main():
    global PLATFORM, FOLDER
    PLATFORM, FOLDER = sys.argv[1], pathlib.Path(sys.argv[2])
    unittest.main(module="__main__", argv=[sys.argv[0]] + sys.argv[3:])
