"""A program on a pseudo terminal, and what is on its screen."""
import fcntl
import os
import pty
import select
import struct
import subprocess
import termios
import time

import pyte

import support


class Terminal:
    """The tool, or another program, on a terminal, and what stands on its screen."""

    def __init__(self, test, columns, rows, *arguments, program="shmnmctl", **variables):
        self.screen = pyte.Screen(columns, rows)
        self.stream = pyte.ByteStream(self.screen)
        self.raw = b""
        self.controller, terminal = pty.openpty()
        self.terminal_name = os.ttyname(terminal)
        self.resize(columns, rows)
        environment = dict(test.environment, **({"TERM": "xterm"} | variables))
        self.process = subprocess.Popen(
            support.program(program) + list(arguments), stdin=terminal, stdout=terminal, stderr=terminal, env=environment, start_new_session=True
        )
        os.close(terminal)

        def finish():
            if self.process.poll() is None:
                self.process.kill()
            self.process.wait()
            os.close(self.controller)

        test.addCleanup(finish)

    def resize(self, columns, rows):
        fcntl.ioctl(self.controller, termios.TIOCSWINSZ, struct.pack("HHHH", rows, columns, 0, 0))

    def press(self, keys):
        os.write(self.controller, keys.encode())

    def read(self):
        """Takes in what the tool has written. False once it has ended and all is read."""
        end = time.monotonic() + support.DEADLINE
        has_ended = False
        # The end of the process counts, not that of the terminal: a server of wine may hold it for longer.
        while not select.select([self.controller], [], [], 0.1)[0]:
            if has_ended:
                return False
            has_ended = self.process.poll() is not None
            if time.monotonic() > end:
                raise AssertionError("the tool writes nothing")
        try:
            data = os.read(self.controller, 1 << 16)
        except OSError:
            return False
        self.raw += data
        self.stream.feed(data)
        return bool(data)

    def read_to_end(self):
        while self.read():
            pass
        return self.process.wait()

    def wait_for(self, condition):
        """Reads until the screen shows what it should."""
        end = time.monotonic() + support.DEADLINE
        while not condition(self):
            if time.monotonic() > end or not self.read():
                raise AssertionError("the screen never shows it:\n" + "\n".join(self.lines))

    @property
    def lines(self):
        return [line.rstrip() for line in self.screen.display]
