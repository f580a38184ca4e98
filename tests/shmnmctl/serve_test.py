"""serve: the creator of the region, as a service and in scripts."""
import os
import re
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

    def starting(self, *arguments):
        """Starts it; the end of its input ends it."""
        return self.start("serve", "--until-eof", *arguments, stdin=subprocess.PIPE)

    def await_ready(self, process):
        ready = process.stdout.readline().decode().strip()
        self.assertTrue(ready, process.stderr.read() if process.poll() is not None else "")
        return ready

    def serve(self, *arguments):
        """Starts it and waits until it is ready."""
        process = self.starting(*arguments)
        self.ready = self.await_ready(process)
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
        process = self.start("serve", "--register", "--clean", stdin=subprocess.DEVNULL)
        self.assertIn(b"5 members were registered", process.stdout.readline())
        process.send_signal(signal.SIGINT)
        self.assertEqual(process.wait(), 0)
        self.assertEqual(api.ok("shmnm_enumnode"), [])

    def test_serve_reports_in_json_that_it_is_ready(self):
        process = self.serve("--format", "json")
        (document,) = support.validated(self.ready)
        self.assertEqual((document["servers"], document["hb"], document["np"]), (2, 2, 1))
        self.end(process)

    def test_a_live_region_is_held_and_no_byte_of_it_changes(self):
        api = self.region()
        api.ok("shmnm_addnode", "beta", 9)
        api.ok("shmnm_addnode", "other", 3)
        api.ok("shmnm_setnodestat", "beta", 77)
        before = self.dumped()
        process = self.serve()
        self.assertIn(" with 2 servers, 0 hb and 0 np resources; it was there, and 0 members were registered; ", self.ready)
        self.assertIn("; 4 members of the configuration are not in it, --register registers them", self.ready)
        self.assertEqual(self.dumped(), before)
        api.end()
        self.assertEqual(self.dumped(), before, "it is the only holder")
        self.end(process)
        self.assertEqual(self.tool("status").status, 3)

    def test_a_restart_keeps_removed_servers_removed_and_changed_priorities_changed(self):
        first = self.serve()
        api = self.api()
        api.ok("shmnm_attach")
        self.end(first)
        api.ok("shmnm_rmnode", "alpha")
        api.ok("shmnm_modifyhbrsc", "lan", "lanhb1", 7)
        before = self.dumped()
        second = self.serve("--clean")
        self.assertIn("; 1 member of the configuration is not in it, --register registers it", self.ready)
        self.assertEqual(self.dumped(), before)
        self.end(second)
        self.assertEqual(self.dumped(), before)

    def test_register_adds_what_is_missing_and_touches_nothing_else(self):
        api = self.region()
        api.ok("shmnm_addnode", "beta", 9)
        api.ok("shmnm_addnode", "other", 3)
        api.ok("shmnm_setnodestat", "beta", 77)
        api.ok("shmnm_addhbrsc", "disk", "diskhb1", 5)
        process = self.serve("--register", "--format", "json")
        (ready,) = support.validated(self.ready)
        self.assertEqual((ready["created"], ready["registered"], ready["missing"], ready["completed"]), (False, 3, 0, False))
        self.assertEqual((ready["servers"], ready["hb"], ready["np"]), (3, 2, 1))
        self.assertEqual(api.ok("shmnm_enumnode"), ["beta", "other", "alpha"])
        self.assertEqual(api.ok("hb_names"), ["diskhb1", "lanhb1"])
        self.assertEqual(api.ok("shmnm_getnodepri", "beta"), ["9"])
        self.assertEqual(api.ok("shmnm_getnodepri", "alpha"), ["0"])
        self.assertEqual(api.ok("shmnm_gethbrscpri", "disk", "diskhb1"), ["5"])
        self.assertEqual(api.ok("shmnm_getnodestat", "beta"), ["77"])
        self.end(process)
        self.assertEqual(api.ok("shmnm_enumnode"), ["beta", "other", "alpha"])

    def test_clean_removes_only_what_this_process_registered(self):
        api = self.region()
        api.ok("shmnm_addnode", "beta", 9)
        api.ok("shmnm_addnprsc", "ping", "pingnp1", 4)
        before = self.dumped()
        self.end(self.serve("--register", "--clean"))
        self.assertEqual(api.ok("shmnm_enumnode"), ["beta"])
        self.assertEqual(api.ok("hb_names"), [])
        self.assertEqual(api.ok("np_names"), ["pingnp1"])
        self.assertEqual(self.tool("verify").status, 0)
        self.end(self.serve("--clean"))
        self.assertEqual(api.ok("shmnm_enumnode"), ["beta"])
        # Removal leaves words in the columns after the last server.
        self.assertEqual(self.dumped()[:1084 + 4 * 320], before[:1084 + 4 * 320])

    def test_clean_removes_the_members_of_a_region_that_it_created(self):
        process = self.serve("--clean")
        api = self.api()
        api.ok("shmnm_attach")
        api.ok("shmnm_addnode", "other", 3)
        api.ok("shmnm_rmnode", "beta")
        self.end(process)
        self.assertEqual((api.ok("shmnm_enumnode"), api.ok("hb_names"), api.ok("np_names")), (["other"], [], []))

    def refused_on_live_region(self, *arguments):
        """Nothing is written to the live region."""
        before = self.dumped()
        result = self.tool("serve", "--until-eof", *arguments, input="")
        self.assertEqual((result.status, result.out), (5, ""), result)
        self.assertEqual(self.dumped(), before)
        return result.err

    def refused_and_taken_back(self):
        """What was registered is taken out again. The library leaves the removed servers' columns as they were."""
        def shown():
            return self.dumped()[:1084 + 4 * 320], self.tool("list").out
        before = shown()
        result = self.tool("serve", "--until-eof", "--register", input="")
        self.assertEqual((result.status, result.out), (5, ""), result)
        self.assertEqual(shown(), before)
        return result.err

    def test_a_region_with_other_counts_is_refused_and_no_byte_of_it_changes(self):
        api = self.region()
        api.ok("shmnm_addnode", "beta", 9)
        for server, arguments in ((5, ()), (5, ("--register",)), (3, ()), (64, ())):
            with self.subTest(server=server, arguments=arguments):
                self.configure(MEMBERS, server=server, hbr=3, npr=2, fstr=1)
                error = self.refused_on_live_region(*arguments)
                self.assertIn("nothing was written: the live region ", error)
                self.assertIn(" has servers 4, hb 3, np 2, fst 1 in ", error)
                self.assertIn(f"cluster.xml has servers {server}, hb 3, np 2, fst 1 in ", error)
                self.assertIn("; put the region's counts into the configuration, or stop every process of the cluster before", error)
                self.assertEqual("; if they were changed while it lived, set its maxima back with " in error, server == 3)
        self.configure(MEMBERS, **self.COUNTS)
        self.end(self.serve())

    def test_changed_maxima_and_a_cleared_header_are_refused_until_they_are_set_back_as_advised(self):
        api = self.region()
        for spoil, counts in ((("shmnm_setmaxvalue_ex", 3, 2, 1), "servers 3, hb 2, np 1, fst 1"), (("shmnm_clear",), "servers 0, hb 0, np 0, fst 0")):
            with self.subTest(spoil):
                api.ok(*spoil)
                error = self.refused_on_live_region("--lock-timeout", "50")
                self.assertIn(f" has {counts} in ", error)
                advice = re.search('set its maxima back with "shmnmctl ([^"]*)"', error)[1]
                self.assertEqual(self.tool(*advice.split()).status, 0)
                self.end(self.serve())

    def test_a_creator_that_has_not_written_its_counts_yet_is_waited_for(self):
        api = self.region()
        api.ok("shmnm_clear")
        process = self.starting("--lock-timeout", "60000", "--verbose")
        while b"waits for the creator of the region" not in (line := process.stderr.readline()):
            self.assertTrue(line)
        api.ok("shmnm_setmaxvalue_ex", 4, 3, 2)
        api.ok("poke", 20, 1)
        self.assertIn("ready: ", self.await_ready(process))
        self.end(process)

    def test_of_several_that_start_at_once_one_creates_and_registers(self):
        for _ in range(5):
            processes = [self.starting("--format", "json") for _ in range(4)]
            ready = [support.validated(self.await_ready(process))[0] for process in processes]
            self.assertEqual(sorted(document["created"] for document in ready), [False, False, False, True])
            self.assertEqual(sum(document["registered"] for document in ready), 5)
            self.assertEqual({(document["servers"], document["hb"], document["np"], document["missing"]) for document in ready}, {(2, 2, 1, 0)})
            self.assertEqual([line for line in self.tool("list", "servers").lines if line.endswith("/pri -1")], ["servers/beta/pri -1"])
            for process in processes:
                self.assertEqual(self.tool("status").status, 0)
                self.end(process)
            self.assertEqual(self.tool("status").status, 3)

    def test_a_registration_that_a_kill_cut_short_is_completed(self):
        api = self.region()
        api.ok("shmnm_addnode", "alpha", -(2**31))
        api.ok("shmnm_addnode", "beta", -1)
        process = self.serve()
        self.assertIn("; it was there, and 3 members were registered, which a killed process had left out", self.ready)
        self.assertEqual((api.ok("shmnm_enumnode"), api.ok("hb_names"), api.ok("np_names")), (["alpha", "beta"], ["lanhb1", "diskhb1"], ["pingnp1"]))
        self.assertEqual((api.ok("shmnm_getnodepri", "alpha"), api.ok("shmnm_getnodepri", "beta")), (["0"], ["-1"]))
        self.end(process)

    def test_a_live_region_is_held_even_if_the_lock_does_not_come(self):
        api = self.region()
        api.ok("shmnm_addnode", "beta", 9)
        before = self.dumped()
        other = self.api()
        other.ok("shmnm_rwlock", 0)
        process = self.serve("--lock-timeout", "50")
        self.assertIn("; timed out after 50 ms waiting for the lock", self.ready)
        result = self.tool("serve", "--register", "--lock-timeout", "50")
        self.assertEqual((result.status, result.out), (4, ""))
        api.end()
        other.end()
        self.assertEqual(self.dumped(), before)
        self.end(process)

    def test_no_region_is_created_if_the_lock_does_not_come(self):
        other = self.api()
        other.ok("shmnm_rwlock", 0)
        result = self.tool("serve", "--lock-timeout", "50")
        self.assertEqual((result.status, result.out), (4, ""))
        other.end()
        self.assertEqual(self.tool("status").status, 3)

    def test_serve_can_read_the_members_from_another_file(self):
        file = self.folder / "members.xml"
        file.write_text((self.folder / "etc/cluster.xml").read_text().replace("alpha", "delta"))
        process = self.serve("--config", path(file))
        self.assertIn("servers/delta/pri 0", self.tool("list").lines)
        self.end(process)

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

    def test_register_refuses_a_region_that_is_full(self):
        api = self.region()
        for name in "abcd":
            api.ok("shmnm_addnode", name, 1)
        self.assertIn("nothing was registered: cannot register server alpha: ", self.refused_and_taken_back())

    def test_register_adds_no_member_if_one_finds_no_room(self):
        api = self.region()
        api.ok("shmnm_addnode", "alpha", 9)
        api.ok("shmnm_addhbrsc", "lan", "a", 1)
        api.ok("shmnm_addhbrsc", "lan", "b", 1)
        self.assertIn("cannot register hb resource disk/diskhb1: ", self.refused_and_taken_back())
        self.assertEqual((api.ok("shmnm_enumnode"), api.ok("hb_names")), (["alpha"], ["a", "b"]))
        self.assertEqual(api.ok("shmnm_getnodepri", "alpha"), ["9"])
        self.assertEqual(self.tool("verify").status, 0)

    def test_a_server_whose_columns_cannot_be_opened_is_taken_out_again(self):
        self.configure(MEMBERS, **self.COUNTS | {"server": 16})
        api = self.region()
        api.ok("poke", 32, 1_000_000)  # the count of hb resources: network-wide states of some would lie beyond the region
        self.assertIn("nothing was registered: cannot register server alpha: ", self.refused_and_taken_back())
        self.assertEqual(api.ok("shmnm_enumnode"), [])


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
        done = subprocess.run(["sh", "-c", 'exec "$@" <&-', "sh"] + command, env=self.environment, capture_output=True, timeout=support.DEADLINE)
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
                manager.settimeout(support.DEADLINE)
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
        command = support.program("console_interrupt") + support.native_program("shmnmctl") + ["serve", "--register", "--clean"]
        # To a file: wine may start a process for the console that keeps the output open for long.
        said = self.folder / "said"
        with said.open("wb") as output:
            done = subprocess.run(command, env=self.environment, stdin=subprocess.DEVNULL, stdout=output, stderr=output, timeout=support.DEADLINE)
        self.assertEqual(done.returncode, 0, said.read_text())
        self.assertIn("5 members were registered", said.read_text())
        self.assertEqual(api.ok("shmnm_enumnode"), [])


if __name__ == "__main__":
    support.main()
