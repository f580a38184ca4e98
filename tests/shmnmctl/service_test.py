"""service: serve and shmnmweb under the service manager of Windows, here that of wine; on Linux the way to systemd."""
import http.client
import re
import shutil
import socket
import subprocess

import support
from folders import InstallationTest
from support import ToolTest, path, program

SERVICES = r"HKLM\SYSTEM\CurrentControlSet\Services"


def free_port():
    """A service has no output that could tell the port it was given."""
    with socket.socket() as listener:
        listener.bind(("127.0.0.1", 0))
        return listener.getsockname()[1]


class OnWindows(InstallationTest):
    """Each test has a service of its own: all tests share one service manager."""

    def setUp(self):
        super().setUp()
        self.name = f"{self.environment['KZMUTIL_NAMESPACE']}service"
        self.addCleanup(lambda: self.tool("service", "remove", "--name", self.name))

    def service(self, action, *arguments, **options):
        return self.tool("service", action, "--name", self.name, *arguments, **options)

    def done(self, action, *arguments):
        """What an action that succeeds says."""
        result = self.service(action, *arguments)
        self.assertEqual((result.status, result.err), (0, ""), result)
        return result.out.strip()

    def state(self):
        return self.service("status", "--format", "json").json

    def system(self, *command):
        """A command of the system itself."""
        done = subprocess.run([str(support.PROJECT / "scripts/wine"), *command], stdin=subprocess.DEVNULL, stdout=subprocess.PIPE, stderr=subprocess.DEVNULL, env=self.environment, timeout=support.DEADLINE)
        return done.returncode, done.stdout.decode(errors="replace").replace("\r", "")

    def value(self, key, name):
        """A value in the registry; none if there is none."""
        found = re.search(rf"^ +{name} +REG_\w+ +(.*)$", self.system("reg", "query", rf"{SERVICES}\{key}")[1], re.M)
        return found and found[1]

    def answer(self, port, target):
        """The status and the body that a server of this machine answers."""
        connection = http.client.HTTPConnection("127.0.0.1", port, timeout=support.DEADLINE)
        self.addCleanup(connection.close)
        connection.request("GET", target)
        response = connection.getresponse()
        return response.status, response.read()

    def test_a_service_is_installed_started_stopped_and_removed(self):
        self.assertEqual(self.done("install"), f'the service {self.name} is installed; "shmnmctl service start --name {self.name}" starts it')
        self.assertIn("stopped; it was not started since the system started", self.service("status").out)
        self.assertEqual(self.tool("status").status, 3)
        self.assertEqual(self.done("start"), f"the service {self.name} is running")
        self.assertEqual(self.tool("status").status, 0, "the region is there, in this installation and namespace")
        self.assertRegex(self.done("status").splitlines()[0], rf"^{self.name}: running, process \d+$")
        self.assertEqual(self.done("stop"), f"the service {self.name} has stopped")
        self.assertEqual(self.tool("status").status, 3)
        self.assertEqual(self.service("status").out.splitlines()[0], f"{self.name}: stopped")
        self.assertEqual(self.done("remove"), f"the service {self.name} is removed")
        status = self.service("status")
        self.assertEqual((status.status, status.out), (1, f'{self.name}: not installed; "shmnmctl service install --name {self.name}" installs it\n'))

    def test_each_action_may_be_repeated(self):
        self.assertEqual(self.done("remove"), f"the service {self.name} is not installed")
        self.done("install")
        self.assertEqual(self.done("install"), f"the service {self.name} is already installed")
        self.assertEqual(self.done("stop"), f"the service {self.name} is not running")
        self.done("start")
        before = self.state()
        self.assertEqual(self.done("start"), f"the service {self.name} is already running")
        self.assertEqual(self.state(), before)

    def test_a_running_service_is_stopped_before_it_is_removed(self):
        self.done("install")
        self.done("start")
        self.done("remove")
        self.assertEqual(self.tool("status").status, 3)
        self.assertNotEqual(self.system("sc", "query", self.name)[0], 0)

    def test_a_removed_service_is_gone_once_no_program_looks_at_it(self):
        self.done("install")
        holder = subprocess.Popen(program("service_holder") + [self.name], stdin=subprocess.PIPE, stdout=subprocess.PIPE, env=self.environment)
        self.addCleanup(holder.wait)
        self.addCleanup(holder.stdout.close)
        self.addCleanup(holder.stdin.close)
        self.assertEqual(holder.stdout.readline().strip(), b"open")
        for _ in range(2):
            result = self.service("remove", "--timeout", "500ms")
            self.assertEqual((result.status, result.out), (4, ""))
            self.assertEqual(
                result.err,
                f"shmnmctl: the service {self.name} is marked for removal but not yet gone, because other programs still look at it; "
                "close them (services.msc, the Event Viewer), and it goes\n",
            )
        self.assertTrue(self.state()["installed"])
        holder.stdin.close()
        self.assertEqual(holder.wait(), 0)
        self.done("remove")
        self.assertEqual(self.done("install"), f'the service {self.name} is installed; "shmnmctl service start --name {self.name}" starts it')

    def test_what_is_not_installed_is_neither_started_nor_stopped(self):
        for action in ("start", "stop"):
            result = self.service(action)
            self.assertEqual((result.status, result.out), (1, ""))
            self.assertEqual(result.err, f'shmnmctl: the service {self.name} is not installed; "shmnmctl service install --name {self.name}" installs it\n')

    def test_a_killed_service_is_shown_as_killed_and_starts_again(self):
        self.done("install")
        self.done("start")
        process = self.state()["process"]
        self.assertEqual(self.system("taskkill", "/f", "/pid", str(process))[0], 0)
        state = self.state()
        self.assertEqual((state["state"], state["process"]), ("killed", None))
        status = self.service("status")
        self.assertEqual(status.status, 1)
        self.assertIn(f'not running: its process was killed or has crashed; "shmnmctl service start --name {self.name}" starts it again', status.out)
        self.assertEqual(self.done("stop"), f"the service {self.name} is not running")
        self.done("start")
        self.assertNotIn(self.state()["process"], (None, process))
        self.assertEqual(self.tool("status").status, 0)

    def test_arguments_and_files_with_blanks_arrive_as_they_were_given(self):
        members = self.folder / "my members.xml"
        members.write_text((self.folder / "etc/cluster.xml").read_text().replace("<cluster>", '<cluster><server name="delta" priority="7"/>'))
        self.done("install", "--", "--register", "--config", path(members))
        program = path(support.FOLDER / "shmnmctl.exe")
        line = f'"{program}" serve --service --register --config "{path(members)}"'
        self.assertEqual(self.value(self.name, "ImagePath"), line)
        self.assertEqual(self.state()["command_line"], line)
        self.done("start")
        self.assertIn("servers/delta/pri 7", self.tool("list").lines)

    def installed_elsewhere(self):
        """An installation in a folder with blanks and letters of other scripts. @return the folder, and its tool's services"""
        folder = self.install("Программы и данные 集")
        tool, _ = self.copy_programs(folder, "shmnmctl", "shmnmweb")

        def there(action, *arguments, name=self.name):
            done = subprocess.run([*tool, "service", action, "--name", name, *arguments], stdin=subprocess.DEVNULL, stdout=subprocess.PIPE, env=self.environment, timeout=support.DEADLINE)
            self.assertEqual(done.returncode, 0, done)
            return done.stdout.decode()

        return folder, there

    def test_an_installation_in_any_folder_has_a_service(self):
        folder, there = self.installed_elsewhere()
        members = folder / "é.xml"
        shutil.copy2(folder / "etc/cluster.xml", members)
        there("install", "--", "--config", path(members))
        line = f'"{path(folder / "bin/shmnmctl.exe")}" serve --service --config "{path(members)}"'
        self.assertEqual(self.state()["command_line"], "".join(letter if letter < "\x7F" else "".join(f"%{byte:02X}" for byte in letter.encode()) for letter in line))
        there("start")
        self.assertIn(line, there("status"))
        self.assertIn("KzmutilCreateNamedFileMapping(use)", (folder / "log/shmnm.log").read_text())
        self.assertEqual(self.tool("status").status, 0)
        there("remove")
        self.assertEqual(self.tool("status").status, 3)

    def test_a_file_is_named_in_full_because_a_service_begins_elsewhere(self):
        self.done("install", "--", "--config=members.xml")
        self.assertIn(" --config=Z:\\", self.state()["command_line"])
        self.assertTrue(self.state()["command_line"].endswith("\\members.xml"))

    def test_the_installation_path_and_the_namespace_are_kept_with_the_service(self):
        self.environment["KZMTEST_MORE"] = "a b"
        self.done("install")
        kept = [f"{name}={self.environment[name]}" for name in ("KZMTEST_MORE", "KZMUTIL_NAMESPACE", "KZM_INSTALL_PATH")]
        self.assertEqual(self.state()["environment"], kept)
        self.assertEqual(self.value(self.name, "Environment"), r"\0".join(kept))
        del self.environment["KZMTEST_MORE"]
        self.assertIn("was installed already and is changed", self.done("install"))
        self.assertEqual(self.state()["environment"], kept[1:])

    def test_a_service_and_other_sessions_meet_where_the_installation_s_file_says(self):
        own = self.environment.pop("KZMUTIL_NAMESPACE")
        (self.folder / "etc/environment").write_text(f"KZMUTIL_NAMESPACE=Global\\{own}\n")
        self.done("install")
        self.assertEqual(self.state()["environment"], [f"KZM_INSTALL_PATH={path(self.folder)}"])
        self.done("start")
        self.assertEqual(self.tool("status").status, 0)
        for prefix, status in (("Global\\", 0), ("Local\\", 3), ("", 3)):
            self.assertEqual(self.tool("status", environment=dict(self.environment, KZMUTIL_NAMESPACE=prefix + own)).status, status, prefix)

    def test_an_installed_service_is_changed_and_keeps_its_account_and_its_start(self):
        created = self.system("sc", "create", self.name, "binPath=", "C:\\old.exe", "start=", "demand", "obj=", "NT AUTHORITY\\LocalService")
        self.assertEqual(created[0], 0)
        self.assertEqual(self.done("install", "--", "--clean"), f"the service {self.name} was installed already and is changed")
        state = self.state()
        self.assertEqual((state["account"], state["start"]), ("NT AUTHORITY\\LocalService", "by hand"))
        self.assertTrue(state["command_line"].endswith(" serve --service --clean"))

    def test_a_wrong_argument_is_refused_and_nothing_is_installed(self):
        for arguments, message in (
            (["--regster"], 'unknown option "--regster"; did you mean "--register"?'),
            (["--until-eof"], "a service has no standard input: leave out --until-eof"),
        ):
            result = self.service("install", "--", *arguments)
            self.assertEqual((result.status, result.out), (2, ""))
            self.assertIn(message, result.err)
            self.assertFalse(self.state()["installed"])
        result = self.service("install", "--web", "--", "--lisen", "127.0.0.1:0")
        self.assertEqual((result.status, result.out), (2, ""))
        self.assertFalse(self.state()["installed"])

    def test_a_service_that_cannot_start_says_how_it_ended(self):
        self.done("install")
        (self.folder / "etc/cluster.xml").unlink()
        result = self.service("start")
        self.assertEqual((result.status, result.out), (5, ""))
        self.assertEqual(
            result.err,
            f"shmnmctl: the service {self.name} did not start: stopped: it ended with status 5; its events in the log "
            '"Application" say why, and so does "shmnmctl serve" by hand\n',
        )
        state = self.state()
        self.assertEqual((state["state"], state["error"], state["exit_status"]), ("stopped", 1066, 5))
        self.configure(**self.COUNTS)
        self.done("start")

    def test_a_service_with_arguments_that_became_wrong_still_answers_its_manager(self):
        created = self.system("sc", "create", self.name, "binPath=", f'"{path(support.FOLDER / "shmnmctl.exe")}" serve --bogus --service', "start=", "demand")
        self.assertEqual(created[0], 0)
        result = self.service("start")
        self.assertEqual(result.status, 5)
        self.assertIn("did not start: stopped: it ended with status 2; ", result.err)

    def test_its_events_have_a_source_until_it_is_removed(self):
        source = rf"EventLog\Application\{self.name}"
        self.assertIsNone(self.value(source, "EventMessageFile"))
        self.done("install")
        self.assertEqual(self.value(source, "EventMessageFile"), path(support.FOLDER / "shmnmctl.exe"))
        self.assertEqual(self.value(source, "TypesSupported"), "0x7")
        self.done("remove")
        self.assertIsNone(self.value(source, "EventMessageFile"))

    def test_shmnmweb_of_an_installation_in_any_folder_is_a_service_too(self):
        folder, there = self.installed_elsewhere()
        there("install")
        there("start")
        web = self.name + "-web"
        self.addCleanup(lambda: self.tool("service", "remove", "--name", web))
        names = folder / "имена é.json"
        shutil.copy2(support.PROJECT / "examples/states.json", names)
        port = free_port()
        there("install", "--web", "--", "--listen", f"127.0.0.1:{port}", "--names", path(names), name=web)
        line = f'"{path(folder / "bin/shmnmweb.exe")}" --service --listen 127.0.0.1:{port} --names "{path(names)}"'
        there("start", "--web", name=web)
        self.assertIn(line, there("status", "--web", name=web))
        self.assertEqual(self.answer(port, "/healthz")[0], 200)
        self.assertEqual(self.answer(port, "/names.json"), (200, names.read_bytes()))
        there("stop", "--web", name=web)
        with self.assertRaises(ConnectionRefusedError):
            self.answer(port, "/healthz")
        there("remove", "--web", name=web)
        self.assertNotEqual(self.system("sc", "query", web)[0], 0)

    def test_shmnmweb_is_a_service_too(self):
        self.cluster()
        port = free_port()
        self.done("install", "--web", "--", "--listen", f"127.0.0.1:{port}")
        self.assertEqual(self.value(rf"EventLog\Application\{self.name}", "EventMessageFile"), path(support.FOLDER / "shmnmctl.exe"))
        self.assertTrue(self.state()["command_line"].startswith(f'"{path(support.FOLDER / "shmnmweb.exe")}" --service --listen '))
        self.done("start", "--web")
        self.assertEqual(self.answer(port, "/healthz")[0], 200)
        self.assertEqual(self.done("stop", "--web"), f"the service {self.name} has stopped")

    def test_every_action_answers_in_json(self):
        for action, changed, state in (("install", True, "stopped"), ("install", False, "stopped"), ("start", True, "running"), ("stop", True, "stopped")):
            answer = self.service(action, "--format", "json").json
            self.assertEqual((answer["name"], answer["installed"], answer["changed"], answer["state"]), (self.name, True, changed, state))
        answer = self.service("remove", "--format", "json").json
        self.assertEqual(answer, {"version": 1, "kind": "service", "name": self.name, "installed": False, "changed": True})

    def test_by_hand_a_program_does_not_run_as_a_service(self):
        result = self.tool("serve", "--service")
        self.assertEqual((result.status, result.out), (2, ""))
        self.assertIn("--service is for the service manager, which has not started this process: leave it out, or install", result.err)
        done = subprocess.run(program("shmnmweb") + ["--service"], stdin=subprocess.DEVNULL, capture_output=True, env=self.environment, timeout=support.DEADLINE)
        self.assertEqual(done.returncode, 2)
        self.assertIn(b"--service is for the service manager", done.stderr)

    def test_a_password_is_read_from_a_file_or_from_the_input(self):
        result = self.service("install", "--account", ".\\cluster", "--password-file", path(self.folder / "none"))
        self.assertEqual(result.status, 5)
        self.assertIn("cannot read a password from ", result.err)
        self.assertFalse(self.state()["installed"])
        installed = self.service("install", "--account", ".\\cluster", "--password-file", "-", input="secret\n")
        self.assertEqual((installed.status, installed.err), (0, ""))
        self.assertEqual(self.state()["account"], ".\\cluster")


class OnLinux(ToolTest):
    def test_each_action_points_to_systemd_and_the_units(self):
        verbs = {"install": "enable --now", "remove": "disable --now", "start": "start", "stop": "stop", "status": "status"}
        for action, verb in verbs.items():
            with self.subTest(action):
                result = self.tool("service", action)
                self.assertEqual((result.status, result.out), (5, ""))
                self.assertEqual(
                    result.err,
                    f'shmnmctl: services are systemd\'s on this system: use "systemctl {verb} shmnm"; the package shmnmctl has '
                    "shmnm.service and shmnm-keeper.service, and docs/operations.md tells more\n",
                )
                self.assertIn(f'"systemctl {verb} shmnmweb.socket"; the package shmnmweb has shmnmweb.socket and shmnmweb.service', self.tool("service", action, "--web").err)
        self.assertEqual(self.tool("service", "status", "--format", "json").error["status"], 5)

    def test_the_units_that_it_names_are_there(self):
        for unit in ("shmnm.service", "shmnm-keeper.service", "shmnmweb.socket", "shmnmweb.service"):
            self.assertTrue((support.PROJECT / "examples" / unit).is_file(), unit)

    def test_no_program_runs_as_a_service(self):
        result = self.tool("serve", "--service")
        self.assertEqual((result.status, result.out), (2, ""))
        self.assertIn("--service is for the service manager of Windows: leave it out", result.err)


if __name__ == "__main__":
    support.main()
