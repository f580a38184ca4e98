"""The tool when another user has the region, or keeps this user from having one. Run as root: the tests act as two users."""
import fcntl
import os
import pathlib
import shutil
import subprocess

import support
from support import Result, ToolTest

# As spare_user() of the other tests: a user that no account has and only this process uses.
OTHER_USER = int(os.environ["SHMNM_SPARE_USERS"]) + os.getpid() % 10_000 * 4
PLANTED = ": remove it, or set KZMKERNEL_FOLDER to another folder in all processes\n"


class OtherUsers(ToolTest):
    def setUp(self):
        super().setUp()
        self.region_name = self.environment["KZMUTIL_NAMESPACE"] + "oru_kzmshmnm_map"
        # The other user may not be allowed to look into the build's folder.
        self.programs = self.folder / "bin"
        self.programs.mkdir()
        self.folder.chmod(0o755)
        for file in [support.FOLDER / "shmnmctl", *support.FOLDER.glob("libkzm*.so*")]:
            shutil.copy(file, self.programs)

    def tool_of_other_user(self, *arguments):
        done = subprocess.run([self.programs / "shmnmctl", *arguments], capture_output=True, env=self.environment, stdin=subprocess.DEVNULL,
                              timeout=support.DEADLINE, user=OTHER_USER, group=OTHER_USER, extra_groups=[])
        return Result(done.returncode, done.stdout, done.stderr.decode())

    def region_of_other_user(self):
        shutil.copy(support.FOLDER / "api_caller", self.programs)
        (self.folder / "log").chmod(0o777)
        folder = pathlib.Path(f"/dev/shm/kzmkernel.{OTHER_USER}")
        self.addCleanup(pathlib.Path(f"{folder}.guard").unlink, missing_ok=True)
        self.addCleanup(shutil.rmtree, folder, ignore_errors=True)
        creator = subprocess.Popen([self.programs / "api_caller"], stdin=subprocess.PIPE, stdout=subprocess.PIPE, env=self.environment,
                                   user=OTHER_USER, group=OTHER_USER, extra_groups=[])
        self.addCleanup(creator.communicate)
        creator.stdin.write(b"shmnm_create\n")
        creator.stdin.flush()
        self.assertEqual(creator.stdout.readline().strip(), b"0")

    def private_folder(self):
        """A folder of kernel objects that no other test uses."""
        folder = pathlib.Path(f"/dev/shm/{self.region_name}")
        self.environment["KZMKERNEL_FOLDER"] = str(folder)
        self.addCleanup(pathlib.Path(f"{folder}.guard").unlink, missing_ok=True)
        self.addCleanup(shutil.rmtree, folder, ignore_errors=True)
        return folder

    def test_every_command_reports_a_region_of_another_user(self):
        self.cluster()
        for command in (["status"], ["status", "--watch", "0.1"], ["list", "servers"], ["get", "cluster/clstat"], ["dump", "-"], ["verify"],
                        ["set", "cluster/clstat", "1"], ["clear", "--yes"], ["query", "cluster/alive=1"], ["wait", "cluster/alive=1"], ["watch"],
                        ["lock", "--who"], ["lock", "--", "true"]):
            with self.subTest(command):
                result = self.tool_of_other_user(*command)
                self.assertEqual((result.status, result.raw), (5, b""))
                self.assertEqual(result.err, f"shmnmctl: the region {self.region_name} belongs to user root (0); run this as that user\n")

    def test_a_user_without_an_account_is_reported_by_its_number(self):
        self.region_of_other_user()
        result = self.tool("status")
        self.assertEqual((result.status, result.err), (5, f"shmnmctl: the region {self.region_name} belongs to user {OTHER_USER}; run this as that user\n"))

    def test_an_ended_region_of_another_user_is_not_reported(self):
        self.cluster().end()
        self.assertTrue(pathlib.Path("/dev/shm/kzmkernel.0").is_dir())
        result = self.tool_of_other_user("status")
        self.assertEqual((result.status, result.err), (3, f'shmnmctl: no process holds the region {self.region_name}; start the cluster, or run "shmnmctl serve"\n'))

    def test_a_folder_of_another_user_is_named(self):
        folder = self.private_folder()
        folder.mkdir(mode=0o700)
        os.chown(folder, OTHER_USER, OTHER_USER)
        for command in (["status"], ["lock", "--who"], ["set", "cluster/clstat", "1"]):
            with self.subTest(command):
                result = self.tool(*command)
                self.assertEqual(result.status, 5)
                self.assertIn("shmnmctl: cannot open the ", result.err)
                self.assertIn(f" (error 5): {folder} belongs to user {OTHER_USER}, not to you{PLANTED}", result.err)
        started = subprocess.run(support.program("api_caller"), stdin=subprocess.DEVNULL, capture_output=True, env=self.environment)
        self.assertEqual((started.returncode, started.stderr.decode()),
                         (127, "kzmshmnm: not loaded: no mutex oru_kzmshmnm_lock (error 5): "
                               f"{folder} belongs to user {OTHER_USER}, not to you{PLANTED}"))

    def test_a_process_that_blocks_the_folder_is_named(self):
        folder = self.private_folder()
        self.cluster()
        gate = os.open(folder, os.O_RDONLY)
        self.addCleanup(os.close, gate)
        fcntl.flock(gate, fcntl.LOCK_EX)
        result = self.tool("lock", "--who")
        self.assertEqual((result.status, result.err), (
            5, f"shmnmctl: cannot open the lock {self.environment['KZMUTIL_NAMESPACE']}oru_kzmshmnm_lock (error 170): process {os.getpid()} does not let go of {folder}: "
               f"let it go on (kill -CONT {os.getpid()}) or end it\n"))


if __name__ == "__main__":
    support.main()
