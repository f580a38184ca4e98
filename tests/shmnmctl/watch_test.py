"""watch: a line for each change, and a line for what came too late to be seen."""
import json
import signal
import subprocess
import threading
import unittest

import support
from support import ToolTest, validated



class Watcher:
    """A watch that runs, and what it has written so far."""

    def __init__(self, process):
        self.process = process
        # A line that never comes is a failure and not an endless wait.
        self.limit = threading.Timer(200, process.kill)
        self.limit.daemon = True
        self.limit.start()

    def line(self):
        line = self.process.stdout.readline().decode()
        if not line.endswith("\n"):
            raise AssertionError(f"watch ended: {line!r} {self.process.stderr.read()!r}")
        return line[:-1]

    def lines(self, count):
        return [self.line() for _ in range(count)]

    def event(self):
        (event,) = validated(self.line())
        return event

    def events(self, count):
        return [self.event() for _ in range(count)]

    def changes(self, count):
        """The next changes, without the gaps between them."""
        found = []
        while len(found) < count:
            event = self.event()
            if event["kind"] != "gap":
                found.append(event)
        return found

    def stop(self, request=signal.SIGINT):
        """The status that it ends with when it is asked to, and what it wrote until then."""
        self.process.send_signal(request)
        rest = self.process.stdout.read().decode().splitlines()
        status = self.process.wait()
        self.limit.cancel()
        return status, rest


class WatchTest(ToolTest):
    def watch(self, *arguments):
        return Watcher(self.start("watch", *arguments))

    def from_start(self, *arguments):
        """A watch that has written one word as it is; from now on it sees changes."""
        watcher = self.watch(*arguments, "--format", "json", "--from-start")
        first = watcher.event()
        self.assertEqual((first["kind"], first["seq"]), ("change", 1))
        return watcher

    @staticmethod
    def step(api, *calls):
        """Calls under one lock."""
        api.ok("shmnm_rwlock", 60000)
        for call in calls:
            api.ok(*call)
        api.ok("shmnm_rwunlock")

    def words(self, *prefix):
        return list(self.tool("list", "--format", "json", *prefix).json["words"].items())

    @staticmethod
    def shown(event):
        """What an event says without its time and number."""
        if event["kind"] == "change":
            return event["key"], event.get("old", "-"), event.get("new", "-")
        return event["kind"], event.get("missed", event.get("event"))

    def gap(self):
        """Where the system does not count steps, each group of changes comes behind a gap."""
        return [("gap", None)] if support.PLATFORM == "windows" else []


class Watching(WatchTest):
    def test_watch_prints_time_number_key_and_both_values_of_a_change(self):
        api = self.cluster()
        watcher = self.watch("servers/alpha", "--from-start")
        first = watcher.lines(9)
        time = r"\d{4}-\d\d-\d\dT\d\d:\d\d:\d\d\.\d{3}[+-]\d\d:\d\d"
        self.assertRegex(first[0], rf"^{time} 1 servers/alpha/pri - -> 0$")
        self.assertRegex(first[1], rf"^{time} 2 servers/alpha/nodestat - -> 2$")
        self.step(api, ("shmnm_setpingstat", "alpha", 1))
        number = 10
        if self.gap():
            self.assertRegex(watcher.line(), rf"^{time} 10 gap: what changed since {time} is shown as one step$")
            number = 11
        self.assertRegex(watcher.line(), rf"^{time} {number} servers/alpha/pingstat 0 -> 1$")
        self.assertEqual(watcher.stop(), (0, []))

    def test_watch_prints_every_word_at_the_start_on_request(self):
        self.cluster()
        expected = self.words()
        watcher = self.watch("--from-start", "--format", "json")
        events = watcher.events(len(expected))
        self.assertEqual([(event["key"], event["new"]) for event in events], expected)
        self.assertTrue(all("old" not in event for event in events))
        self.assertEqual([event["seq"] for event in events], list(range(1, len(expected) + 1)))
        self.assertEqual(watcher.stop(), (0, []))

    def test_watch_prints_only_changes_by_default(self):
        api = self.cluster()
        watcher = self.watch("--format", "json", "--interval", "1ms")
        # Nothing tells when it has begun; each change is seen, or was there before.
        number = 0
        limit = threading.Event()

        def change():
            nonlocal number
            while not limit.is_set():
                number += 1
                self.step(api, ("shmnm_setclstat", number))

        changing = threading.Thread(target=change)
        changing.start()
        events = watcher.events(6)
        limit.set()
        changing.join()
        self.assertEqual({event["key"] for event in events if event["kind"] == "change"}, {"cluster/clstat"})
        self.assertEqual([event["seq"] for event in events], list(range(1, 7)))
        status, rest = watcher.stop()
        self.assertEqual(status, 0)
        last = [event for event in events + validated("\n".join(rest)) if event["kind"] == "change"][-1]
        self.assertEqual(last["new"], number)

    def test_watch_prints_simultaneous_changes_in_the_order_of_the_picture(self):
        api = self.cluster()
        words = self.words()
        watcher = self.from_start()
        watcher.events(len(words) - 1)
        self.step(api, ("shmnm_setnprscstat", "ping", "pingnp1", 4), ("shmnm_setnodestat", "beta", 1), ("shmnm_setclstat", 6))
        expected = self.gap() + [
            ("cluster/clstat", 0, 6),
            ("cluster/alive", 0, 1),
            ("servers/beta/nodestat", 2, 1),
            ("servers/beta/combstat", 2, 1),
            ("np/ping/pingnp1/stat", 0, 4),
        ]
        events = watcher.events(len(expected))
        self.assertEqual([self.shown(event) for event in events], expected)
        self.assertEqual(len({event["time"] for event in events}), 1)
        self.assertEqual(watcher.stop(), (0, []))

    def test_watch_prints_added_and_removed_keys_with_one_value(self):
        api = self.cluster()
        before = self.words()
        watcher = self.from_start()
        watcher.events(len(before) - 1)
        self.step(api, ("shmnm_addnode", "delta", 9))
        after = self.words()
        old = dict(before)
        expected = [(key, old.get(key, "-"), value) for key, value in after if old.get(key, "-") != value]
        self.assertIn(("servers/delta/pri", "-", 9), expected)
        self.assertEqual([self.shown(event) for event in watcher.changes(len(expected))], expected)
        self.step(api, ("shmnm_rmnode", "delta"))
        now = dict(self.words())
        changed = [(key, value, now[key]) for key, value in after if key in now and now[key] != value]
        gone = [(key, value, "-") for key, value in after if key not in now]
        self.assertIn(("servers/delta/pri", 9, "-"), gone)
        expected = changed + gone
        self.assertEqual([self.shown(event) for event in watcher.changes(len(expected))], expected)
        self.assertEqual(watcher.stop()[0], 0)

    def test_watch_prints_only_keys_below_the_prefix(self):
        api = self.cluster()
        words = self.words("np/ping")
        watcher = self.from_start("np/ping")
        watcher.events(len(words) - 1)
        self.step(api, ("shmnm_setnprscstat", "majority", "majoritynp1", 3), ("shmnm_setclstat", 3), ("shmnm_setnprscstat", "ping", "pingnp1", 5))
        expected = self.gap() + [("np/ping/pingnp1/stat", 0, 5)]
        self.assertEqual([self.shown(watcher.event()) for _ in expected], expected)
        self.assertEqual(watcher.stop(), (0, []))

    def test_watch_announces_the_end_of_a_region_and_follows_the_next_one(self):
        api = self.cluster()
        words = self.words()
        watcher = self.watch("--from-start", "--format", "json", "--interval", "5ms")
        watcher.events(len(words))
        # Watching keeps no region alive.
        api.end()
        self.assertEqual(self.shown(watcher.event()), ("region", "gone"))
        self.assertEqual(self.tool("status").status, 3)
        api = self.api()
        api.ok("shmnm_create")
        self.assertEqual(self.shown(watcher.event()), ("region", "replaced"))
        # It may have looked before the creator wrote the maximum values: these then come as changes.
        empty, seen = dict(self.words()), {}
        while seen != empty:
            (event,) = watcher.changes(1)
            key, old, value = self.shown(event)
            self.assertEqual(old, seen.get(key, "-"))
            seen[key] = value
        self.step(api, ("shmnm_setclstat", 8))
        self.assertEqual([self.shown(event) for event in watcher.changes(1)], [("cluster/clstat", 0, 8)])
        self.assertEqual(watcher.stop()[0], 0)

    def test_watch_waits_for_a_lock_that_is_held_for_long(self):
        api = self.cluster()
        api.ok("shmnm_rwlock", 0)
        watcher = self.watch("--from-start", "--lock-timeout", "1", "--interval", "1ms")
        # Many of its looks fail meanwhile.
        self.assertEqual(self.tool("wait", "cluster/clstat=1", "--timeout", "200ms").status, 4)
        self.assertIsNone(watcher.process.poll())
        api.ok("shmnm_rwunlock")
        self.assertTrue(watcher.line().endswith(" 1 cluster/waitstat - -> 0"))
        self.assertEqual(watcher.stop()[0], 0)

    def test_watch_ends_when_its_reader_goes_away(self):
        api = self.cluster()
        watcher = self.watch("--from-start", "cluster/clstat")
        watcher.line()
        watcher.process.stdout.close()
        self.step(api, ("shmnm_setclstat", 2))
        self.assertEqual(watcher.process.wait(), 5)
        self.assertIn("its reader has closed it", watcher.process.stderr.read().decode())
        watcher.process.stdout = None

    def test_watch_ends_as_soon_as_its_reader_closes(self):
        self.cluster()
        arguments = ["watch", "--from-start", "cluster/clstat", "--interval", "1h"]
        if support.PLATFORM == "windows":
            # Only a pipe of the system's own tells; the pipe to this process is one of wine's host.
            command = support.program("closing_reader") + support.native_program("shmnmctl") + arguments
            done = subprocess.run(command, env=self.environment, stdin=subprocess.DEVNULL, capture_output=True, timeout=support.DEADLINE)
            status, error = done.returncode, done.stderr.decode()
            self.assertTrue(done.stdout.decode().strip().endswith(" 1 cluster/clstat - -> 0"), done)
        else:
            watcher = self.watch(*arguments[1:])
            watcher.line()
            watcher.process.stdout.close()
            status, error = watcher.process.wait(support.DEADLINE), watcher.process.stderr.read().decode()
            watcher.process.stdout = None
        self.assertEqual((status, error.strip()), (5, "shmnmctl: cannot write to standard output: its reader has closed it"))

    def test_refuses_a_dump_which_never_changes(self):
        self.cluster()
        file = support.path(self.folder / "picture.dump")
        self.assertEqual(self.tool("dump", file).status, 0)
        result = self.tool("watch", "--file", file, "servers")
        self.assertEqual((result.status, result.out), (2, ""))
        self.assertEqual(result.err.strip(), 'shmnmctl: a dump does not change: list its words with "shmnmctl list --file FILE"')
        self.assertEqual(self.tool("watch", "-f", file, "--format", "json").error["status"], 2)
        self.assertNotIn("--file", self.tool("watch", "--help").out)

    def test_needs_a_region_at_the_start(self):
        self.assertEqual(self.tool("watch", "--from-start").status, 3)


class Numbers:
    """What the numbered writer does, step by step."""

    KEYS = ("cluster/clstat", "servers/alpha/pingstat", "servers/beta/holdstat", "hb/lan/lanhb1/svstat/gamma", "np/ping/pingnp1/stat")

    @classmethod
    def after(cls, steps):
        """The numbers of all words."""
        return [(steps - place + len(cls.KEYS) - 1) // len(cls.KEYS) for place in range(len(cls.KEYS))]

    @classmethod
    def changed(cls, before, after):
        """What a look sees that comes after so many steps, in the order of the picture."""
        return [(key, new) for key, old, new in zip(cls.KEYS, cls.after(before), cls.after(after)) if new != old]


class WriterTest(WatchTest):
    def setUp(self):
        super().setUp()
        # Under wine each lock goes through a server.
        self.steps = 30_000 if support.PLATFORM == "windows" else 1_000_000
        self.holder = self.cluster()
        self.holder.ok("shmnm_setholdstat", "beta", 0)
        self.holder.ok("shmnm_sethbrscsvstat", "lan", "lanhb1", 2, 0)
        self.holder.ok("shmnm_setnprscstat", "ping", "pingnp1", 0)
        self.first = self.words()

    def events_of_a_writer(self, interval_ms, pause_us=0):
        """All events of a watch while a writer makes its changes, from the first change to the last one's line."""
        command = support.program("numbered_writer") + [str(self.steps), str(pause_us)]
        writer = subprocess.Popen(command, stdin=subprocess.PIPE, stdout=subprocess.PIPE, env=self.environment)
        self.addCleanup(writer.communicate)
        self.assertEqual(writer.stdout.readline().strip(), b"ready")
        watcher = self.watch("--format", "json", "--from-start", "--interval", f"{interval_ms}ms")
        watcher.events(len(self.first))
        writer.stdin.write(b"\n")
        writer.stdin.flush()
        last, events = dict(zip(Numbers.KEYS, Numbers.after(self.steps))), []
        values = {}
        while values != last:
            events.append(json.loads(watcher.line()))
            if events[-1]["kind"] == "change":
                values[events[-1]["key"]] = events[-1]["new"]
        self.assertEqual(writer.stdout.readline().strip(), b"done")
        self.assertEqual(watcher.stop(), (0, []))
        for event in events:
            support.VALIDATOR.validate(event)
        self.assertEqual([event["seq"] for event in events], list(range(len(self.first) + 1, len(self.first) + 1 + len(events))))
        return events

    def expect_order_and_gaps(self, events):
        """The numbers of a word only grow, each line goes on from the one before, and no jump is without a gap."""
        numbers = dict.fromkeys(Numbers.KEYS, 0)
        gap_since_line = dict.fromkeys(Numbers.KEYS, False)
        for event in events:
            if event["kind"] == "gap":
                gap_since_line = dict.fromkeys(Numbers.KEYS, True)
                continue
            key = event["key"]
            self.assertEqual(event["old"], numbers[key], event)
            self.assertGreater(event["new"], numbers[key], event)
            self.assertTrue(event["new"] == numbers[key] + 1 or gap_since_line[key], event)
            numbers[key], gap_since_line[key] = event["new"], False

    def expect_whole_steps(self, events):
        """What stands between two gaps ends with a picture that there was, not with parts of two."""
        seen, groups = {}, 0
        for event in events + [{"kind": "gap"}]:
            if event["kind"] == "change":
                seen[event["key"]] = event["new"]
                continue
            steps = sum(seen.values())
            self.assertEqual([seen.get(key, 0) for key in Numbers.KEYS], Numbers.after(steps))
            groups += 1
        return groups


class WatchingAWriter(WriterTest):
    def test_watch_reports_last_values_in_order_and_announces_every_gap(self):
        events = self.events_of_a_writer(interval_ms=1)
        self.expect_order_and_gaps(events)
        self.assertGreater(self.expect_whole_steps(events), 3)


class WatchingWhereTheSystemCounts(WriterTest):
    """On Linux the lock counts how often it was taken, and the terminal's signal makes a watch look at once."""

    def from_start_on_request(self, *arguments):
        """A watch that has taken its first look, and takes the next ones when it is asked to."""
        watcher = self.watch("cluster/clstat", "--from-start", "--interval", "1h", "--format", "json", *arguments)
        self.assertEqual(self.shown(watcher.event()), ("cluster/clstat", "-", 0))
        return watcher

    @staticmethod
    def look(watcher):
        watcher.process.send_signal(signal.SIGWINCH)

    def last(self, watcher):
        """What a watch writes that is told to end, after its last look."""
        status, rest = watcher.stop(signal.SIGTERM)
        self.assertEqual(status, 0)
        return [self.shown(event) for event in validated("\n".join(rest))]

    def expect_every_line(self, events):
        """Nobody but the writer takes the lock, so what each look sees is known from the gaps alone."""
        steps, at, last_time = 0, 0, None
        while at < len(events):
            # Looks are a millisecond apart, so the lines of one have a time of their own.
            first, missed = at, 0
            self.assertNotEqual(events[first]["time"], last_time)
            last_time = events[first]["time"]
            if events[at]["kind"] == "gap":
                missed = events[at]["missed"]
                at += 1
            expected = Numbers.changed(steps, steps + missed + 1)
            self.assertEqual([(event["key"], event["new"]) for event in events[at : at + len(expected)]], expected)
            steps += missed + 1
            at += len(expected)
            self.assertEqual({event["time"] for event in events[first:at]}, {last_time})
        self.assertEqual(steps, self.steps)

    def test_the_lines_and_gaps_are_consistent_when_most_steps_are_missed(self):
        self.expect_every_line(self.events_of_a_writer(interval_ms=10))

    def test_the_lines_and_gaps_are_consistent_when_few_steps_are_missed(self):
        self.steps = 2_000
        self.expect_every_line(self.events_of_a_writer(interval_ms=1, pause_us=500))

    def test_single_steps_have_no_gap(self):
        watcher = self.from_start_on_request()
        for number in range(1, 20):
            self.step(self.holder, ("shmnm_setclstat", number))
            self.look(watcher)
            self.assertEqual(self.shown(watcher.event()), ("cluster/clstat", number - 1, number))
        self.assertEqual(self.last(watcher), [])

    def test_steps_between_two_looks_form_a_gap_of_all_but_the_last(self):
        watcher = self.from_start_on_request()
        for number in (1, 2, 3):
            self.step(self.holder, ("shmnm_setclstat", number))
        self.look(watcher)
        self.assertEqual([self.shown(event) for event in watcher.events(2)], [("gap", 2), ("cluster/clstat", 0, 3)])
        self.step(self.holder, ("shmnm_setclstat", 4))
        self.assertEqual(self.last(watcher), [("cluster/clstat", 3, 4)])

    def test_a_change_that_was_undone_is_a_gap_before_the_next_change_or_at_the_end(self):
        watcher = self.from_start_on_request()
        # One look alone: a second one might come when the next steps have begun.
        for number in (1, 0, 7):
            self.step(self.holder, ("shmnm_setclstat", number))
        self.look(watcher)
        self.assertEqual([self.shown(event) for event in watcher.events(2)], [("gap", 2), ("cluster/clstat", 0, 7)])
        for number in (8, 9, 7):
            self.step(self.holder, ("shmnm_setclstat", number))
        self.assertEqual(self.last(watcher), [("gap", 3)])

    def test_taking_the_lock_without_a_change_is_not_a_gap(self):
        watcher = self.from_start_on_request()
        self.step(self.holder)
        self.assertEqual(self.last(watcher), [])

    def test_looks_of_other_commands_are_not_steps(self):
        watcher, other = self.from_start_on_request(), self.from_start_on_request()
        for _ in range(3):
            for command in (["status"], ["list"], ["get", "cluster/clstat"], ["query", "cluster/clstat=0"], ["verify"], ["dump", "-"]):
                self.assertEqual(self.tool(*command).status, 0)
        for number in (1, 2):
            self.step(self.holder, ("shmnm_setclstat", number))
            self.look(other)
            self.assertEqual(self.shown(other.event()), ("cluster/clstat", number - 1, number))
            self.look(watcher)
            self.assertEqual(self.shown(watcher.event()), ("cluster/clstat", number - 1, number))
        self.assertEqual((self.last(watcher), self.last(other)), ([], []))

    def test_two_watchers_announce_no_gaps_to_each_other(self):
        watcher, other = self.from_start_on_request(), self.watch("--interval", "1ms", "--from-start", "cluster")
        other.line()
        # Meanwhile the other watcher looks again and again.
        self.assertEqual(self.tool("wait", "cluster/clstat=1", "--timeout", "200ms").status, 4)
        self.assertEqual(self.last(watcher), [])

    def test_changes_made_without_the_lock_form_a_gap_of_unknown_size(self):
        watcher = self.from_start_on_request()
        for number in (1, 2):
            self.holder.ok("shmnm_setclstat", number)
        self.assertEqual(self.last(watcher), [("gap", None), ("cluster/clstat", 0, 2)])

    def test_gaps_are_announced_in_plain_words(self):
        watcher = self.watch("cluster/clstat", "--from-start", "--interval", "1h")
        watcher.line()
        time = r"\d{4}-\d\d-\d\dT\d\d:\d\d:\d\d\.\d{3}[+-]\d\d:\d\d"
        for numbers, text in (((1, 2), "up to 1 step since TIME was not seen"), ((3, 4, 5), "up to 2 steps since TIME were not seen")):
            for number in numbers:
                self.step(self.holder, ("shmnm_setclstat", number))
            self.look(watcher)
            self.assertRegex(watcher.line(), rf"^{time} \d+ gap: {text.replace('TIME', time)}$")
            watcher.line()
        self.assertEqual(watcher.stop(signal.SIGHUP), (0, []))

    def test_watch_announces_a_replaced_region_and_prints_all_its_words(self):
        watcher = self.from_start_on_request()
        self.step(self.holder, ("shmnm_setclstat", 3))
        self.holder.end()
        self.holder = self.region()
        self.look(watcher)
        self.assertEqual([self.shown(event) for event in watcher.events(2)], [("region", "replaced"), ("cluster/clstat", "-", 0)])
        self.step(self.holder, ("shmnm_setclstat", 5))
        self.assertEqual(self.last(watcher), [("cluster/clstat", 0, 5)])

if __name__ == "__main__":
    support.main()
