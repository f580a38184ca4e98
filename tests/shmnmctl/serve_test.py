"""serve: the creator of the region, as a service and in scripts."""
import os
import signal
import socket
import subprocess

import support
from support import ToolTest, path

MEMBERS = (
    '<server name="alpha" priority="0"/><server name="beta" priority="-1"/>'
    '<hb type="lan" name="lanhb1" priority="4294967295"/><hb type="disk" name="diskhb1" priority="1"/>'
    '<np type="ping" name="pingnp1" priority="0"/>'
)


class ServeTest(ToolTest):
    def setUp(self):
        super().setUp()
        self.configure(MEMBERS, **self.COUNTS)

    def serve(self, *arguments):
        """Starts the creator and waits until it is ready; its input is what ends it."""
        process = self.start("serve", "--until-eof", *arguments, stdin=subprocess.PIPE)
        self.ready = process.stdout.readline().decode().strip()
        self.assertTrue(self.ready, process.stderr.read() if process.poll() is not None else "")
        return process

    def end(self, process):
        process.stdin.close()
        self.assertEqual(process.wait(), 0)

    def refused(self, *arguments):
        result = self.tool("serve", *arguments)
        self.assertEqual((result.status, result.out), (5, ""), result)
        self.assertEqual(self.tool("status").status, 3)
        return result.err


class Serving(ServeTest):
    def test_serve_registers_the_members_and_reports_that_it_is_ready(self):
        process = self.serve()
        prefix = self.environment["KZMUTIL_NAMESPACE"]
        self.assertEqual(self.ready, f"ready: {prefix}oru_kzmshmnm_map with 2 servers, 2 hb and 1 np resources")
        api = self.api()
        api.ok("shmnm_attach")
        self.assertEqual(api.ok("shmnm_enumnode"), ["alpha", "beta"])
        self.assertEqual(api.ok("shmnm_getnodepri", "beta"), ["-1"])
        self.assertEqual(api.ok("hb_names"), ["lanhb1", "diskhb1"])
        self.assertEqual(api.ok("shmnm_gethbrscpri", "lan", "lanhb1"), ["4294967295"])
        self.assertEqual(api.ok("np_names"), ["pingnp1"])
        api.ok("shmnm_detach")
        self.end(process)
        self.assertEqual(self.tool("status").status, 3)

    def test_serve_ends_cleanly_on_ctrl_c(self):
        api = self.region()
        process = self.start("serve", "--clean", stdin=subprocess.DEVNULL)
        self.assertTrue(process.stdout.readline().startswith(b"ready"))
        process.send_signal(signal.SIGINT)
        self.assertEqual(process.wait(), 0)
        self.assertEqual(api.ok("shmnm_enumnode"), [])

    def test_serve_reports_in_json_that_it_is_ready(self):
        process = self.serve("--format", "json")
        (document,) = support.validated(self.ready)
        self.assertEqual((document["servers"], document["hb"], document["np"]), (2, 2, 1))
        self.end(process)

    def test_serve_keeps_an_existing_region_and_updates_its_priorities(self):
        api = self.region()
        api.ok("shmnm_addnode", "beta", 9)
        api.ok("shmnm_addnode", "other", 3)
        api.ok("shmnm_setnodestat", "beta", 77)
        process = self.serve()
        self.assertEqual(api.ok("shmnm_enumnode"), ["beta", "other", "alpha"])
        self.assertEqual(api.ok("shmnm_getnodepri", "beta"), ["-1"])
        self.assertEqual(api.ok("shmnm_getnodestat", "beta"), ["77"])
        self.end(process)
        # Nothing was taken out, and another process holds the region.
        self.assertEqual(api.ok("shmnm_enumnode"), ["beta", "other", "alpha"])

    def test_serve_with_clean_removes_what_it_registered(self):
        api = self.region()
        api.ok("shmnm_addnode", "other", 3)
        self.end(self.serve("--clean"))
        self.assertEqual(api.ok("shmnm_enumnode"), ["other"])
        self.assertEqual(api.ok("hb_names"), [])
        self.assertEqual(api.ok("np_names"), [])

    def test_serve_can_read_the_members_from_another_file(self):
        file = self.folder / "members.xml"
        file.write_text((self.folder / "etc/cluster.xml").read_text().replace("alpha", "delta"))
        process = self.serve("--config", path(file))
        self.assertIn("servers/delta/pri 0", self.tool("list").lines)
        self.end(process)

    def test_serve_refuses_invalid_members_before_it_creates_a_region(self):
        for members, said in (
            ('<server priority="1"/>', "a server in /root/cluster has no name"),
            ('<server name="a"/>', "a server in /root/cluster has no priority"),
            ('<server name="a" priority="first"/>', 'the priority "first" of a server'),
            ('<server name="a" priority="2147483648"/>', "is not a 32-bit number"),
            ('<hb type="lan" name="a" priority="-1"/>', "is not a 32-bit number"),
            ('<hb name="a" priority="1"/>', "a hb in /root/cluster has no type"),
            ('<np type="t" name="" priority="1"/>', "a np in /root/cluster has no name"),
            (f'<server name="{"n" * 256}" priority="1"/>', "is longer than 255 bytes"),
            (f'<hb type="{"t" * 32}" name="a" priority="1"/>', "is longer than 31 bytes"),
            ('<disk name="a" priority="1"/>', "unknown element disk in /root/cluster: use server, hb and np"),
            ('<server name="a" priority="1"><hb/></server>', "the server a in /root/cluster contains an element hb"),
            ('<server name="a" priority="1"/><server name="a" priority="2"/>', "has the server a twice"),
            ("".join(f'<server name="s{i}" priority="1"/>' for i in range(5)), "has 5 server elements, and /root/all/num has room for 4"),
            ("".join(f'<np type="t" name="n{i}" priority="1"/>' for i in range(3)), "has room for 2"),
        ):
            with self.subTest(members[:40]):
                self.configure(members, **self.COUNTS)
                self.assertIn(said, self.refused())

    def test_serve_refuses_a_missing_or_malformed_file(self):
        self.assertIn("cannot read the configuration", self.refused("--config", path(self.folder / "missing.xml")))
        (self.folder / "broken.xml").write_text("<root><all></root>")
        self.assertIn("not well-formed XML", self.refused("--config", path(self.folder / "broken.xml")))
        file = self.folder / "members.xml"
        (self.folder / "etc/cluster.xml").rename(file)
        self.assertIn("put the cluster's configuration there", self.refused())
        error = self.refused("--config", path(file))
        self.assertIn("shmnm_create failed with code 12 (", error)
        self.assertIn(f"put the configuration at {self.environment['KZM_INSTALL_PATH']}", error)

    def test_serve_refuses_a_folder_instead_of_the_file(self):
        file = self.folder / "etc/cluster.xml"
        file.unlink()
        file.mkdir()
        error = self.refused()
        self.assertIn("it is not a regular file; put the cluster's configuration there", error)

    def test_serve_refuses_a_file_whose_counts_differ_from_the_installed_one(self):
        file = self.folder / "members.xml"
        file.write_text((self.folder / "etc/cluster.xml").read_text())
        self.configure(server=5, hbr=3, npr=2, fstr=1)
        error = self.refused("--config", path(file))
        self.assertIn("servers 4, hb 3, np 2, fst 1", error)
        self.assertIn("servers 5, hb 3, np 2, fst 1", error)

    def test_serve_refuses_a_region_that_is_full(self):
        api = self.region()
        for name in "abcd":
            api.ok("shmnm_addnode", name, 1)
        result = self.tool("serve")
        self.assertEqual(result.status, 5)
        self.assertIn("cannot register server alpha", result.err)

    def test_serve_registers_no_member_if_one_finds_no_room(self):
        api = self.region()
        api.ok("shmnm_addnode", "alpha", 9)
        api.ok("shmnm_addhbrsc", "lan", "a", 1)
        api.ok("shmnm_addhbrsc", "lan", "b", 1)
        result = self.tool("serve")
        self.assertEqual(result.status, 5)
        self.assertIn("cannot register hb resource disk/diskhb1", result.err)
        self.assertEqual((api.ok("shmnm_enumnode"), api.ok("hb_names")), (["alpha"], ["a", "b"]))
        self.assertEqual(api.ok("shmnm_getnodepri", "alpha"), ["9"])
        self.assertEqual(self.tool("verify").status, 0)


class ServingOnLinux(ServeTest):
    """Signals, the service manager, and an end without warning."""

    def test_serve_ends_cleanly_on_every_request_to_end(self):
        for request in (signal.SIGTERM, signal.SIGINT, signal.SIGHUP):
            with self.subTest(request):
                process = self.start("serve")
                self.assertTrue(process.stdout.readline().startswith(b"ready"))
                process.send_signal(request)
                self.assertEqual(process.wait(), 0)
                self.assertEqual(self.tool("status").status, 3)

    def test_serve_refuses_at_once_a_file_that_would_block_its_reader(self):
        file = self.folder / "etc/cluster.xml"
        file.unlink()
        os.mkfifo(file)
        with socket.socket(socket.AF_UNIX, socket.SOCK_STREAM) as listener:
            listener.bind(str(self.folder / "socket"))
            for special in (file, self.folder / "socket", "/dev/zero", "/dev/ptmx"):
                with self.subTest(special):
                    for arguments in ((), ("--config", str(special))):
                        if special != file and not arguments:
                            file.unlink()
                            file.symlink_to(special)
                        error = self.refused(*arguments)
                        self.assertIn("it is not a regular file; put the cluster's configuration there", error)

    def test_serve_continues_when_its_input_ends(self):
        process = self.start("serve", stdin=subprocess.DEVNULL)
        self.assertTrue(process.stdout.readline().startswith(b"ready"))
        self.assertEqual(self.tool("status").status, 0)
        self.assertIsNone(process.poll())
        process.send_signal(signal.SIGTERM)
        self.assertEqual(process.wait(), 0)

    def test_serve_treats_a_closed_input_as_ended(self):
        command = support.program("shmnmctl") + ["serve", "--until-eof"]
        done = subprocess.run(["sh", "-c", 'exec "$@" <&-', "sh"] + command, env=self.environment, capture_output=True, timeout=20)
        self.assertEqual((done.returncode, done.stderr), (0, b""))

    def test_serve_leaves_nothing_behind_when_killed(self):
        process = self.serve()
        process.kill()
        process.wait()
        self.assertEqual(self.tool("status").status, 3)
        self.end(self.serve())

    def test_serve_notifies_the_service_manager(self):
        abstract = "\0" + self.environment["KZMUTIL_NAMESPACE"]
        for address in (str(self.folder / "notify"), abstract):
            with self.subTest(address), socket.socket(socket.AF_UNIX, socket.SOCK_DGRAM) as manager:
                manager.bind(address)
                manager.settimeout(20)
                self.environment["NOTIFY_SOCKET"] = address.replace("\0", "@")
                process = self.serve()
                self.assertEqual(manager.recv(100), b"READY=1")
                self.end(process)
                self.assertEqual(manager.recv(100), b"STOPPING=1")

    def test_serve_ignores_a_missing_service_manager(self):
        self.environment["NOTIFY_SOCKET"] = str(self.folder / "nobody")
        self.end(self.serve())

    def test_the_example_unit_names_the_command_and_its_type(self):
        unit = (support.PROJECT / "examples/shmnm.service").read_text()
        self.assertIn("\nType=notify\n", unit)
        self.assertIn("/shmnmctl serve\n", unit)


class ServingOnWindows(ServeTest):
    """What a console sends to all of its programs."""

    def test_serve_ends_cleanly_on_ctrl_c_of_its_console(self):
        api = self.region()
        command = support.program("console_interrupt") + support.native_program("shmnmctl") + ["serve", "--clean"]
        # To a file: wine may start a process for the console that keeps the output open for long.
        said = self.folder / "said"
        with said.open("wb") as output:
            done = subprocess.run(command, env=self.environment, stdin=subprocess.DEVNULL, stdout=output, stderr=output, timeout=60)
        self.assertEqual(done.returncode, 0, said.read_text())
        self.assertIn("ready: ", said.read_text())
        self.assertEqual(api.ok("shmnm_enumnode"), [])


if __name__ == "__main__":
    support.main()
