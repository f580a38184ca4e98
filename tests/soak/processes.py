"""The processes of the run: each can be stopped, continued, killed and started again, and must not end by itself."""
import contextlib
import pathlib
import queue
import re
import signal
import subprocess
import threading
import time

DEADLINE = 90
# The end of the run ends what it has started, however it ends.
CHILD = ["setpriv", "--pdeathsig", "KILL"]


def pause(seconds):
    threading.Event().wait(seconds)


class Late(Exception):
    """Something that must come has not come."""


def until(condition, what, deadline=DEADLINE, pace=0.05):
    """The first true answer. @throws Late"""
    end = time.monotonic() + deadline
    while not (found := condition()):
        if time.monotonic() > end:
            raise Late(f"not within {deadline} s: {what}")
        pause(pace)
    return found


class Process:
    """One role in the run, over all of its lives. A steady one lives as long as the run, and its figures are tested for growth."""

    def __init__(self, name, command, environment, errors, is_steady=False, is_piped=False):
        self.name, self.command, self.environment, self.is_steady, self.is_piped = name, command, environment, is_steady, is_piped
        self.errors = errors
        self.child, self.lives, self.is_stopped = None, 0, False
        self.lines, self.thread = None, None

    def start(self):
        self.begins()
        with open(self.errors, "ab") as errors:
            pipe = subprocess.PIPE if self.is_piped else subprocess.DEVNULL
            self.child = subprocess.Popen([*CHILD, *map(str, self.command)], stdin=pipe, stdout=subprocess.PIPE, stderr=errors, env=self.environment)
        self.lives += 1
        self.is_stopped = False
        self.lines = queue.Queue()
        self.thread = threading.Thread(target=self.read, args=(self.child.stdout,), daemon=True)
        self.thread.start()
        self.started()

    def read(self, stream):
        for line in stream:
            self.heard(line.decode(errors="replace").rstrip("\n"))

    def heard(self, line):
        self.lines.put(line)

    def begins(self):
        """Forgets what the last life said."""

    def started(self):
        """Waits until it is ready."""

    def line(self):
        try:
            return self.lines.get(timeout=DEADLINE)
        except queue.Empty:
            raise Late(f"{self.name} says nothing") from None

    @property
    def pid(self):
        return self.child.pid

    @property
    def is_running(self):
        return self.child is not None

    def ended(self):
        """How it ended by itself, which it must not; nothing if it runs."""
        if self.child is None or self.child.poll() is None:
            return ""
        return f"{self.name} ended with {self.child.returncode}: {pathlib.Path(self.errors).read_text(errors='replace')[-300:].strip()}"

    def is_suspended(self):
        """Whether a stop has reached it."""
        try:
            return re.search(r"\) (\S)", pathlib.Path(f"/proc/{self.pid}/stat").read_text())[1] in "TtZX"
        except OSError:
            return True

    def stop(self):
        self.child.send_signal(signal.SIGSTOP)
        until(self.is_suspended, f"{self.name} stops", pace=0.001)
        self.is_stopped = True

    def go_on(self):
        if self.child:
            self.child.send_signal(signal.SIGCONT)
        self.is_stopped = False

    def tell(self, text):
        # Of an end by itself the next look at all processes tells.
        with contextlib.suppress(BrokenPipeError):
            self.child.stdin.write(text.encode())
            self.child.stdin.flush()

    def kill(self):
        self.child.kill()
        self.forget()

    def end(self, how=signal.SIGTERM):
        """Its clean end. @return the exit status"""
        if self.is_piped:
            with contextlib.suppress(BrokenPipeError):
                self.child.stdin.close()
        if how:
            self.child.send_signal(how)
        try:
            self.child.wait(DEADLINE)
        except subprocess.TimeoutExpired:
            self.kill()
            raise Late(f"{self.name} does not end") from None
        return self.forget()

    def forget(self):
        status = self.child.wait()
        self.thread.join(DEADLINE)
        self.child.stdout.close()
        if self.child.stdin and not self.child.stdin.closed:
            with contextlib.suppress(BrokenPipeError):
                self.child.stdin.close()
        self.child = None
        return status


class Ready(Process):
    """A program whose first line says that it is ready."""

    first_line = ""

    def started(self):
        self.first_line = self.line()


class Silent(Process):
    """A program that says nothing of itself."""


class Member(Process):
    """A process that works under the lock and keeps a journal (soak_member.cpp)."""

    def __init__(self, name, role, server, journal, shared, machine, seed, **options):
        command = [machine.programs / "soak_member", role, server, journal.file, shared.file, seed]
        super().__init__(name, command, machine.environment, machine.errors(name), is_piped=True, **options)
        self.role, self.journal, self.shared = role, journal, shared

    def started(self):
        self.journal.keys = self.line().split()

    def is_paused(self):
        return self.journal["state"] == 2 or self.child.poll() is not None

    def owns_the_lock(self):
        return self.shared["owner"] == self.pid
