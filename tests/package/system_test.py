"""The packages on a machine of their own, whose first process is systemd: what is there after the installation, and the picture
while the service is restarted, upgraded, downgraded and purged.

Ends with 77, which ctest reports as "Skipped", where no such machine can run.
"""
import re
import socket
import sys
import tempfile
import pathlib
import shutil

import machine
import support

PACKAGES = ("libshmnm1", "libshmnm-dev", "shmnmctl", "shmnmweb", "libshmnmpicture1", "libshmnmpicture-dev")
# What dpkg, the users' database, caches and logs keep of any package.
TRACES = r"/(dev|run|tmp|var/(lib/(dpkg|systemd)|cache|log(/(dpkg.log|alternatives.log|journal|wtmp|lastlog)))|etc/(passwd|group|shadow|gshadow)-?|etc/(subuid|subgid)-?|etc/ld.so.cache|etc/.pwd.lock)(/|$)"


class Machine(support.Place):
    @classmethod
    def setUpClass(cls):
        super().setUpClass()
        for package in support.packages(support.BUILD).values():
            shutil.copy(package, cls.folder)
            support.later(package, cls.folder)

    def setUp(self):
        self.machine = machine.Machine(self.folder)
        self.addCleanup(self.machine.end)
        # The index of manual pages takes most of the time of an installation.
        self.machine.run("rm", "-f", "/var/lib/man-db/auto-update")
        # A container's image may forbid packages to start services.
        self.machine.run("rm", "-f", "/usr/sbin/policy-rc.d")

    def install(self, prefix=""):
        self.machine.run("sh", "-c", f"dpkg --install /dev/packages/{prefix}lib*.deb /dev/packages/{prefix}shmnmctl_*.deb")

    def install_web(self):
        """Installs the server too, on a port that nothing of this machine uses."""
        with socket.create_server(("127.0.0.1", 0)) as probe:
            self.port = probe.getsockname()[1]
        place = "/etc/systemd/system/shmnmweb.socket.d"
        listen = f"ListenStream=\\nListenStream=127.0.0.1:{self.port}\\nListenStream=/run/shmnmweb.sock"
        self.machine.run("sh", "-c", f"mkdir -p {place}; printf '[Socket]\\n{listen}\\n' >{place}/port.conf; dpkg --install /dev/packages/shmnmweb_*.deb")

    def health(self, *identity):
        """The status of the server's answer to a user of the machine."""
        return self.machine.result(*identity, "curl", "--silent", "--unix-socket", "/run/shmnmweb.sock", "--output", "/dev/null", "--write-out",
                                   "%{http_code}", "http://localhost/healthz").stdout

    def tool(self, *arguments):
        """The output of the tool, run by the cluster's user without environment variables."""
        return self.machine.run("runuser", "-u", "shmnm", "--", "env", "-i", "/usr/bin/shmnmctl", *arguments)

    def serve(self):
        self.machine.run("systemctl", "start", "shmnm.service", "shmnm-keeper.service")

    def set_words(self):
        """Gives values to words of each table. @return the region's bytes, as a sum"""
        for key in ("cluster/clstat", "servers/beta/nodestat", "servers/beta/holdstat", "hb/lan/lanhb1/stat", "np/ping/pingnp1/stat"):
            self.tool("set", key, "77")
        self.tool("set", "servers/gamma/pri", "9")
        self.tool("remove", "server", "delta")
        return self.bytes()

    def bytes(self):
        return self.machine.run("sh", "-c", "set -e; runuser -u shmnm -- shmnmctl dump /tmp/dump >&2; sha256sum /tmp/dump; rm /tmp/dump")

    def process(self, unit="shmnm.service"):
        return self.machine.run("systemctl", "show", "--property=MainPID", "--value", unit).strip()

    def libraries(self, process):
        return set(re.findall(r"libkzmshmnm\.so\S*(?: \(deleted\))?", self.machine.run("cat", f"/proc/{process}/maps")))

    def test_everything_is_ready_after_the_installation(self):
        self.install()
        user = self.machine.run("getent", "passwd", "shmnm").strip().split(":")
        self.assertEqual(user[5:], ["/var/lib/shmnm", "/usr/sbin/nologin"])
        self.assertLess(int(user[2]), 1000, "an ordinary user, whose shared memory the system removes")
        for place, expected in (("/etc/shmnm/cluster.xml", "644 root root"), ("/etc/shmnm/environment", "644 root root"),
                                ("/var/lib/shmnm", "755 root root"), ("/var/log/shmnm", "2750 shmnm adm"), ("/run/shmnm", "755 shmnm shmnm")):
            self.assertEqual(self.machine.run("stat", "--format=%a %U %G", place).strip(), expected, place)
        # The configuration is an example, so the administrator decides when the service begins.
        self.assertEqual(self.machine.result("systemctl", "is-enabled", "shmnm").stdout, "disabled\n")
        self.assertEqual(self.machine.result("systemctl", "is-active", "shmnm").stdout, "inactive\n")

        self.machine.run("systemctl", "enable", "--now", "shmnm")
        self.assertEqual(self.tool("query", "servers/alpha/pri=0"), "")
        self.assertIn("\nalpha ", self.tool("status"))
        self.assertIn("SIZE:", self.machine.run("cat", "/var/log/shmnm/shmnm.log"))
        self.serve()
        for unit in ("shmnm", "shmnm-keeper"):
            self.assertEqual(self.machine.run("systemctl", "is-active", unit), "active\n")
            self.assertEqual(self.machine.run("systemctl", "show", "--property=NRestarts", "--value", unit), "0\n")
        self.assertEqual(self.machine.run("stat", "--format=%a %U", "/run/shmnm/objects").strip(), "700 shmnm")

    def test_messages_advise_the_folders_of_the_packages(self):
        self.install()
        self.machine.run("mv", "/etc/shmnm/cluster.xml", "/etc/shmnm/put away")
        said = self.machine.result("runuser", "-u", "shmnm", "--", "shmnmctl", "serve").stderr
        self.assertIn("cannot read the configuration /etc/shmnm/cluster.xml", said)
        self.assertNotIn("/usr/lib", said)
        self.machine.run("mv", "/etc/shmnm/put away", "/etc/shmnm/cluster.xml")
        self.serve()
        number = self.machine.run("id", "-u", "shmnm").strip()
        refused = self.machine.result("shmnmctl", "status")
        self.assertEqual(refused.returncode, 5)
        self.assertIn(f"/run/shmnm/ belongs to user {number}: run this program as that user", refused.stderr)

    def test_the_picture_outlives_every_restart_of_its_only_holder(self):
        self.install()
        self.serve()
        before, keeper = self.set_words(), self.process("shmnm-keeper")

        def expect_another_process_with_the_same_picture(old):
            self.assertNotIn(self.process(), (old, "0"))
            self.assertEqual(self.process("shmnm-keeper"), keeper)
            self.assertEqual(self.bytes(), before)
            return self.process()

        first = self.process()
        self.machine.run("systemctl", "restart", "shmnm")
        process = expect_another_process_with_the_same_picture(first)
        self.machine.run("systemctl", "stop", "shmnm")
        self.assertEqual(self.bytes(), before)
        self.machine.run("systemctl", "start", "shmnm")
        process = expect_another_process_with_the_same_picture(process)
        self.machine.run("kill", "-KILL", process)
        self.assertEqual(self.bytes(), before)
        self.machine.run("systemctl", "restart", "shmnm")
        process = expect_another_process_with_the_same_picture(process)

        self.assertNotIn("libkzmshmnm.so.1.999.0", self.libraries(process))
        self.install("later_")
        process = expect_another_process_with_the_same_picture(process)
        self.assertIn("libkzmshmnm.so.1.999.0", self.libraries(process))
        self.machine.run("sh", "-c", "dpkg --force-downgrade --install /dev/packages/lib*.deb /dev/packages/shmnmctl_*.deb")
        process = expect_another_process_with_the_same_picture(process)
        self.assertNotIn("libkzmshmnm.so.1.999.0", self.libraries(process))

        # It is the keeper that does this.
        self.machine.run("systemctl", "stop", "shmnm-keeper")
        self.machine.run("systemctl", "stop", "shmnm")
        self.assertEqual(self.machine.result("runuser", "-u", "shmnm", "--", "shmnmctl", "status").returncode, 3)
        self.machine.run("systemctl", "start", "shmnm")
        self.assertNotEqual(self.bytes(), before)

    def test_an_upgrade_without_a_keeper_leaves_the_running_service_alone(self):
        self.install()
        self.machine.run("systemctl", "mask", "--now", "shmnm-keeper")
        self.machine.run("systemctl", "start", "shmnm")
        before, process = self.set_words(), self.process()
        self.install("later_")
        self.assertEqual((self.process(), self.bytes()), (process, before))

    def test_attached_processes_go_on_through_upgrade_and_downgrade(self):
        self.install()
        self.serve()
        watch = self.machine.start("runuser", "-u", "shmnm", "--", "timeout", "100", "shmnmctl", "watch", "--from-start", "servers/alpha/pingstat")
        self.addCleanup(lambda: (watch.kill(), watch.wait(), watch.stdout.close()))
        self.assertRegex(watch.stdout.readline(), r"servers/alpha/pingstat .*0\n$")
        for value, step in ((5, None), (6, "later_"), (7, "")):
            if step is not None:
                self.machine.run("sh", "-c", f"dpkg --force-downgrade --install /dev/packages/{step}lib*.deb /dev/packages/{step}shmnmctl_*.deb")
            self.tool("set", "servers/alpha/pingstat", value)
            line = watch.stdout.readline()
            # The restarted service took the lock and changed nothing. If that falls between the same two looks, it is announced.
            if step is not None and " gap: " in line:
                self.assertRegex(line, r" gap: up to 1 step since \S+ was not seen\n$")
                line = watch.stdout.readline()
            self.assertRegex(line, rf"servers/alpha/pingstat .*\b{value}\n$")
        self.tool("verify")

    def test_python_reads_the_service_s_picture_without_a_variable_for_libraries(self):
        self.install()
        before = self.machine.changed()
        self.machine.run("sh", "-c", "dpkg --install /dev/packages/python3-shmnm_*.deb")
        self.serve()
        self.tool("set", "servers/alpha/pingstat", 5)
        code = "import shmnm\nwith shmnm.attach() as region, region.lock(): region.servers['beta'].pingstat = 6"
        python = ["runuser", "-u", "shmnm", "--", "sh", "-c", 'set -a; . /etc/shmnm/environment; exec python3 "$@"', "sh"]
        self.machine.run(*python, "-c", code)
        self.assertEqual(self.tool("get", "servers/beta/pingstat"), "6\n")
        self.assertEqual(self.machine.run(*python, "-m", "shmnm").split(), self.tool("status").split())
        # Root's programs have compiled nothing that stays.
        self.machine.run("python3", "-c", "import shmnm")
        self.machine.run("dpkg", "--purge", "python3-shmnm")
        left = {name for name in self.machine.changed() - before if "shmnm" in name and "/python3/" in name}
        self.assertEqual(left, set())

    def test_the_server_is_started_by_its_sockets_for_readers_and_for_nobody_else(self):
        self.install()
        self.install_web()
        # What listens is the administrator's decision.
        self.assertEqual(self.machine.result("systemctl", "is-enabled", "shmnmweb.socket").stdout, "disabled\n")
        self.assertEqual(self.machine.result("systemctl", "is-active", "shmnmweb.socket").stdout, "inactive\n")
        self.machine.run("systemctl", "enable", "--now", "shmnmweb.socket")
        self.assertEqual(self.machine.result("systemctl", "is-active", "shmnmweb").stdout, "inactive\n")
        self.assertEqual(self.machine.run("stat", "--format=%a %U %G", "/run/shmnmweb.sock").strip(), "660 root shmnm-readers")

        group = self.machine.run("getent", "group", "shmnm-readers").split(":")[2]
        reader = ("setpriv", "--reuid=54321", "--regid=54321", f"--groups={group}")
        stranger = ("setpriv", "--reuid=54322", "--regid=54322", "--clear-groups")
        self.assertEqual(self.health(*reader), "503", "there is no region yet")
        self.serve()
        self.machine.run("sh", "-c", "until curl --silent --fail --unix-socket /run/shmnmweb.sock http://localhost/healthz; do :; done")
        self.assertEqual((self.health(*reader), self.health(*stranger)), ("200", "000"))
        self.assertEqual(self.machine.run(*reader, "shmnmctl", "--from", "unix:/run/shmnmweb.sock", "list"), self.tool("list"))
        self.assertNotEqual(self.machine.result(*reader, "shmnmctl", "list").returncode, 0)
        self.assertEqual(self.machine.run("curl", "--silent", f"http://127.0.0.1:{self.port}/picture.json"), self.tool("status", "--format", "json"))
        self.assertIn("\nshmnm_lock_held 0\n", self.machine.run("curl", "--silent", f"http://127.0.0.1:{self.port}/metrics"))

        process = self.process("shmnmweb")
        state = self.machine.run("cat", f"/proc/{process}/status")
        self.assertEqual(re.search(r"^Uid:\s+(\d+)", state, re.M)[1], self.machine.run("id", "-u", "shmnm").strip())
        self.assertIn(group, re.search(r"^Groups:(.*)$", state, re.M)[1].split())
        self.assertRegex(self.machine.run("systemctl", "show", "--property=WatchdogUSec", "shmnmweb"), "=30s")

    def test_an_upgrade_of_the_server_refuses_no_client(self):
        self.install()
        self.install_web()
        self.serve()
        self.machine.run("systemctl", "start", "shmnmweb.socket", "shmnmweb.service")
        before = self.process("shmnmweb")
        self.machine.run("sh", "-c", "dpkg --install /dev/packages/later_lib*.deb /dev/packages/later_shmnmctl_*.deb /dev/packages/later_shmnmweb_*.deb")
        self.assertNotIn(self.process("shmnmweb"), (before, "0"))
        self.assertEqual(self.health(), "200")
        self.machine.run("kill", "-KILL", self.process("shmnmweb"))
        self.assertEqual(self.health(), "200", "the socket starts it anew")
        self.machine.run("dpkg", "--remove", "shmnmweb")
        self.assertEqual(self.machine.result("systemctl", "is-active", "shmnmweb.socket", "shmnmweb.service").stdout, "inactive\ninactive\n")
        self.assertEqual(self.machine.result("test", "-e", "/run/shmnmweb.sock").returncode, 1)
        self.assertEqual(self.machine.run("systemctl", "is-active", "shmnm"), "active\n")

    def test_a_removal_ends_the_services_and_a_purge_leaves_nothing_behind(self):
        before = self.machine.changed()
        self.install()
        self.install_web()
        self.machine.run("systemctl", "enable", "--now", "shmnm", "shmnmweb.socket")
        self.set_words()
        self.assertEqual(self.health(), "200")
        self.machine.run("dpkg", "--remove", "shmnmweb", "shmnmctl")
        self.assertEqual(self.machine.result("systemctl", "is-active", "shmnm", "shmnm-keeper", "shmnmweb.service", "shmnmweb.socket").stdout, "inactive\n" * 4)
        self.machine.run("rm", "-r", "/etc/systemd/system/shmnmweb.socket.d")
        self.assertEqual(self.machine.run("ls", "/etc/shmnm"), "cluster.xml\nenvironment\n")
        self.machine.run("dpkg", "--purge", *PACKAGES)
        # A folder that a package shares with others stays in the list of changes, because a file was in it.
        left = {name for name in self.machine.changed() - before if not re.match(TRACES, name) and not pathlib.Path(name).is_dir()}
        self.assertEqual(left, set())
        self.assertIn("shmnm", self.machine.run("getent", "passwd", "shmnm"), "no later user may get its number")


if __name__ == "__main__":
    reason = machine.reason_not_to_run()
    if reason:
        print(f"not run: the packages on a machine with systemd: {reason}")
        sys.exit(77)
    support.main()
