"""A machine for the tests of the packages: this machine's own system with systemd as its first process, in namespaces, on a copy
of every file that it changes. Nothing of it reaches the machine that runs the tests.

    machine.py FOLDER SOCKET PACKAGES    becomes that machine, within namespaces
"""
import ctypes
import os
import pathlib
import shutil
import signal
import socket
import struct
import subprocess
import sys
import tempfile

SYSTEMD = "/lib/systemd/systemd"
DEVICES = ("null", "zero", "full", "random", "urandom", "tty")
NAMESPACES = ("--pid", "--mount", "--uts", "--ipc", "--fork")
PATH = "/usr/sbin:/usr/bin:/sbin:/bin"
CLONE_NEWCGROUP = 0x02000000


def mount(*arguments):
    subprocess.run(["mount", *(str(argument) for argument in arguments)], check=True)


def make_root(folder):
    """The system's files, of which those that change are copied into the folder `changed`."""
    mount("--make-rprivate", "/")
    mount("-t", "tmpfs", "tmpfs", folder)
    for name in ("changed", "work", "root", "groups"):
        (folder / name).mkdir()
    mount("-t", "overlay", "-o", f"lowerdir=/,upperdir={folder}/changed,workdir={folder}/work", "overlay", folder / "root")


def make_group(folder):
    """A control group that is the root of systemd's tree. @return its folder"""
    mount("-t", "cgroup2", "cgroup2", folder / "groups")
    group = folder / "groups" / folder.name
    group.mkdir()
    return group


def become_machine(folder, ready, packages):
    make_root(folder)
    (make_group(folder) / "cgroup.procs").write_text("0")
    libc = ctypes.CDLL(None, use_errno=True)
    if libc.unshare(CLONE_NEWCGROUP) != 0:
        raise OSError(ctypes.get_errno(), "cannot leave the control groups")

    root = folder / "root"
    mount("-t", "proc", "proc", root / "proc")
    mount("-t", "sysfs", "-o", "ro", "sysfs", root / "sys")
    mount("-t", "cgroup2", "cgroup2", root / "sys/fs/cgroup")
    for place in ("run", "dev"):
        mount("-t", "tmpfs", "-o", "mode=755", "tmpfs", root / place)
    mount("-t", "tmpfs", "-o", "mode=1777", "tmpfs", root / "tmp")
    for name in DEVICES:
        (root / "dev" / name).touch()
        mount("--bind", f"/dev/{name}", root / "dev" / name)
    (root / "dev/fd").symlink_to("/proc/self/fd")
    for place in ("shm", "pts", "packages", "changed"):
        (root / "dev" / place).mkdir()
    mount("-t", "tmpfs", "-o", "mode=1777", "tmpfs", root / "dev/shm")
    mount("-t", "devpts", "-o", "newinstance,ptmxmode=0666", "devpts", root / "dev/pts")
    (root / "dev/ptmx").symlink_to("pts/ptmx")
    mount("--bind", packages, root / "dev/packages")
    mount("--bind", folder / "changed", root / "dev/changed")
    os.chdir(root)
    subprocess.run(["pivot_root", ".", "mnt"], check=True)
    subprocess.run(["umount", "--lazy", "/mnt"], check=True)
    os.execve(SYSTEMD, [SYSTEMD, "--unit=basic.target", "--log-target=journal", "--show-status=no"],
              {"container": "tests", "PATH": PATH, "NOTIFY_SOCKET": ready})


def reason_not_to_run():
    """Why this machine cannot run such a machine; nothing if it can."""
    if os.geteuid() != 0:
        return "it needs root"
    if not os.access(SYSTEMD, os.X_OK):
        return f"it needs {SYSTEMD}"
    with tempfile.TemporaryDirectory(prefix="shmnm-try-") as folder:
        code = f"import machine, pathlib; folder = pathlib.Path('{folder}'); machine.make_root(folder); machine.make_group(folder).rmdir()"
        done = subprocess.run(["unshare", *NAMESPACES, sys.executable, "-B", "-c", code], cwd=pathlib.Path(__file__).parent, capture_output=True, text=True)
    return f"it needs namespaces, an overlay and control groups: {done.stderr.strip().splitlines()[-1]}" if done.returncode != 0 else ""


class Machine:
    def __init__(self, packages):
        self.folder = pathlib.Path(tempfile.mkdtemp(prefix="shmnm-machine-"))
        self.first = 0
        with socket.socket(socket.AF_UNIX, socket.SOCK_DGRAM) as ready:
            ready.bind(f"\0{self.folder.name}")
            ready.setsockopt(socket.SOL_SOCKET, socket.SO_PASSCRED, 1)
            ready.settimeout(60)
            self.outer = subprocess.Popen(["setpriv", "--pdeathsig", "KILL", "unshare", *NAMESPACES, "--kill-child", sys.executable, "-B", __file__, self.folder, f"@{self.folder.name}", packages],
                                          stdin=subprocess.DEVNULL, stderr=subprocess.PIPE)
            try:
                # The message tells by which number the machine's first process is known here.
                said = b""
                while not said.startswith(b"READY=1"):
                    said, more, _, _ = ready.recvmsg(1000, socket.CMSG_SPACE(struct.calcsize("3i")))
                    self.first = struct.unpack("3i", more[0][2][: struct.calcsize("3i")])[0]
            except TimeoutError:
                self.end()
                raise AssertionError(f"systemd has not started: {self.said}") from None

    def command(self, *words):
        enter = ["nsenter", f"--target={self.first}", "--mount", "--pid", "--uts", "--ipc", "--cgroup", "--root"]
        return [*enter, "env", "-i", "--chdir=/", f"PATH={PATH}", "LC_ALL=C.UTF-8", "DEBIAN_FRONTEND=noninteractive", *(str(word) for word in words)]

    def start(self, *words):
        """Starts a command on the machine."""
        return subprocess.Popen(self.command(*words), stdin=subprocess.DEVNULL, stdout=subprocess.PIPE, text=True)

    def result(self, *words):
        """How a command ends on the machine."""
        return subprocess.run(self.command(*words), stdin=subprocess.DEVNULL, capture_output=True, text=True, timeout=120)

    def run(self, *words):
        """The output of a command that must succeed on the machine."""
        done = self.result(*words)
        if done.returncode != 0:
            raise AssertionError(f"{words} ended with {done.returncode}\n{done.stdout}{done.stderr}")
        return done.stdout

    def changed(self):
        """The names of all files and folders that have changed since the machine has started."""
        return set(self.run("find", "/dev/changed", "-mindepth", "1", "-printf", "/%P\\n").splitlines())

    def end(self):
        if self.first:
            os.kill(self.first, signal.SIGKILL)
        else:
            self.outer.kill()
        self.said = self.outer.communicate()[1].decode()
        # Its control groups have no processes any more, but stay until they are removed.
        code = f"mount -t cgroup2 cgroup2 {self.folder} && find {self.folder}/{self.folder.name} -depth -type d -exec rmdir {{}} +"
        subprocess.run(["unshare", "--mount", "sh", "-c", code], check=False, capture_output=True)
        shutil.rmtree(self.folder, ignore_errors=True)


if __name__ == "__main__":
    become_machine(pathlib.Path(sys.argv[1]), *sys.argv[2:])
