"""holders: which processes hold the region, and which do not."""
import os
import pathlib
import pwd
import shutil
import signal
import subprocess

import support
from support import Result, ToolTest

# As spare_user() of the other tests: a user that no account has and only this process uses.
OTHER_USER = int(os.environ["SHMNM_SPARE_USERS"]) + os.getpid() % 10_000 * 4


class HoldersOfTheRegion(ToolTest):
    def listed(self):
        """What is told of each process, by its number; the same in text and in JSON."""
        answer = self.tool("holders", "--format", "json")
        self.assertEqual((answer.status, answer.err), (0, ""))
        text = self.tool("holders")
        self.assertEqual((text.status, text.err), (0, ""))
        lines = [line.split() for line in text.lines if not line.startswith("not looked at")]
        self.assertEqual(lines[0], ["process", "user", "state", "command"])
        holders = answer.json["holders"]
        self.assertEqual([(int(line[0]), line[1], line[2]) for line in lines[1:]], [(one["process"], one["user"], one["state"]) for one in holders])
        return {one["process"]: one for one in holders}

    def test_a_process_that_has_attached_is_listed_until_it_detaches(self):
        creator = self.cluster().process.pid
        self.assertEqual(self.listed(), {creator: {
            "process": creator, "uid": os.geteuid(), "user": pwd.getpwuid(os.geteuid()).pw_name, "state": "running",
            "command": support.escaped(str(support.FOLDER / "api_caller"))}})
        other = self.api()
        other.ok("shmnm_attach")
        self.assertEqual(set(self.listed()), {creator, other.process.pid})
        other.ok("shmnm_detach")
        self.assertEqual(set(self.listed()), {creator})

    def test_a_forked_child_is_listed_after_its_parent_has_ended(self):
        creator = self.cluster().process.pid
        parent = subprocess.Popen(support.program("forked_holder"), stdin=subprocess.PIPE, stdout=subprocess.PIPE, env=self.environment)
        child = int(parent.stdout.readline())
        parent.wait()
        self.assertEqual(set(self.listed()), {creator, child})
        self.assertNotEqual(child, parent.pid)
        parent.stdin.close()
        parent.stdout.read()
        parent.stdout.close()

    def test_a_stopped_process_is_listed_as_stopped(self):
        process = self.cluster().process
        process.send_signal(signal.SIGSTOP)
        self.addCleanup(process.send_signal, signal.SIGCONT)
        os.waitid(os.P_PID, process.pid, os.WSTOPPED | os.WNOWAIT)
        self.assertEqual(self.listed()[process.pid]["state"], "stopped")

    def test_a_process_of_another_namespace_is_not_listed(self):
        creator = self.cluster().process.pid
        other = support.Api(dict(self.environment, KZMUTIL_NAMESPACE=self.environment["KZMUTIL_NAMESPACE"] + "other-"))
        self.addCleanup(other.end)
        other.ok("shmnm_create")
        waiting = self.api()  # has loaded the library and holds only its lock
        waiting.call("shmnm_detach")
        self.assertEqual(set(self.listed()), {creator})

    def test_processes_of_other_users_are_counted(self):
        """Run as root: the region is another user's, who may not look at root's processes."""
        programs = self.folder / "bin"
        programs.mkdir()
        self.folder.chmod(0o755)
        for file in [support.FOLDER / "shmnmctl", support.FOLDER / "api_caller", *support.FOLDER.glob("libkzm*.so*")]:
            shutil.copy(file, programs)
        (self.folder / "log").chmod(0o777)
        as_other = {"user": OTHER_USER, "group": OTHER_USER, "extra_groups": [], "env": self.environment}
        creator = subprocess.Popen([programs / "api_caller"], stdin=subprocess.PIPE, stdout=subprocess.PIPE, **as_other)
        self.addCleanup(creator.communicate)
        creator.stdin.write(b"shmnm_create\n")
        creator.stdin.flush()
        self.assertEqual(creator.stdout.readline().strip(), b"0")
        done = subprocess.run([programs / "shmnmctl", "holders"], capture_output=True, stdin=subprocess.DEVNULL, timeout=support.DEADLINE, **as_other)
        result = Result(done.returncode, done.stdout, done.stderr.decode())
        self.assertEqual((result.status, result.err), (0, ""))
        self.assertEqual(result.lines[1].split()[:3], [str(creator.pid), str(OTHER_USER), "running"])
        self.assertRegex(result.lines[2], r"^not looked at: [0-9]+ process(es)? that this user may not look at; run this as root to see all$")
        self.assertEqual(len(result.lines), 3)
        found = subprocess.run([programs / "shmnmctl", "holders", "--format", "json"], capture_output=True, stdin=subprocess.DEVNULL, **as_other)
        self.assertGreaterEqual(support.validated(found.stdout.decode())[0]["unreadable"], 1)
        shutil.rmtree(f"/dev/shm/kzmkernel.{OTHER_USER}", ignore_errors=True)
        pathlib.Path(f"/dev/shm/kzmkernel.{OTHER_USER}.guard").unlink(missing_ok=True)


if __name__ == "__main__":
    support.main()
