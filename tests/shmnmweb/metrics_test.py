"""The metrics of shmnmweb, read by Prometheus's own checker and by its Python client."""
import json
import subprocess

import jsonschema
import web_support
from web_support import WebTest, support

try:
    from prometheus_client.openmetrics.parser import text_string_to_metric_families as read_open_metrics
    from prometheus_client.parser import text_string_to_metric_families as read_text
except ImportError as missing:
    raise SystemExit(f"{missing}: scripts/install-dependencies installs what is needed")

NAMES_VALIDATOR = jsonschema.Draft202012Validator(json.loads((support.PROJECT / "docs/states.schema.json").read_text()))
OPEN_METRICS = "application/openmetrics-text; version=1.0.0,text/plain;q=0.5"


def samples(families):
    return {(sample.name, tuple(sorted(sample.labels.items()))): sample.value for family in families for sample in family.samples}


class Metrics(WebTest):
    def filled(self):
        region = self.cluster()
        for server, state in (("alpha", 1), ("beta", 2), ("gamma", 7)):
            region.ok("shmnm_setnodestat", server, state)
        region.ok("shmnm_sethbinfo_ex", 3, 4)
        region.ok("shmnm_sethbrscsvstat", "lan", "lanhb1", 1, 9)
        region.ok("shmnm_setfstrscpid", "agent", 0, 1, 2)
        return region

    def test_the_checker_of_prometheus_finds_nothing(self):
        self.filled().ok("shmnm_addnode", b'quote"back\\slash\nline \xff', 9)
        names = self.folder / "names.json"
        names.write_text(json.dumps({"version": 1, "words": {"servers/*/nodestat": {"1": {"name": "up", "level": "ok"}, "2": {"name": "down", "level": "bad"}}}}))
        web = self.serve("--names", support.path(names))
        for target in ("/metrics", "/metrics?collect[]=servers", "/metrics?collect%5B%5D=pairs&collect[]=lock"):
            with self.subTest(target):
                answer = web.get(target)
                self.assertEqual(answer.fields["Content-Type"], "text/plain; version=0.0.4; charset=utf-8")
                done = subprocess.run(["promtool", "check", "metrics"], input=answer.body, capture_output=True)
                self.assertEqual((done.returncode, done.stdout, done.stderr), (0, b"", b""))

    def test_both_formats_say_the_same(self):
        self.filled()
        web = self.serve()
        text = web.get("/metrics?collect[]=cluster&collect[]=servers&collect[]=resources&collect[]=pairs")
        answer = web.get("/metrics?collect[]=cluster&collect[]=servers&collect[]=resources&collect[]=pairs", Accept=OPEN_METRICS)
        self.assertEqual(answer.fields["Content-Type"], "application/openmetrics-text; version=1.0.0; charset=utf-8")
        self.assertTrue(answer.text.endswith("\n# EOF\n"))
        varying = lambda all_samples: {key: value for key, value in all_samples.items() if not key[0].startswith("shmnm_scrape")}
        self.assertEqual(varying(samples(read_open_metrics(answer.text))), varying(samples(read_text(text.text))))

    def test_every_word_is_the_one_of_the_document(self):
        self.filled()
        web = self.serve()
        found = samples(read_text(web.get("/metrics").text))
        picture = web.get("/picture.json").json
        one = lambda name, **labels: found[("shmnm_" + name, tuple(sorted(labels.items())))]
        for word in ("waitstat", "bwflag", "bwflagdisk", "clstat", "alive"):
            self.assertEqual(one("cluster_" + word), picture["cluster"][word])
        self.assertEqual((one("cluster_hbinfo", part="a"), one("cluster_hbinfo", part="b")), (3, 4))
        for server in picture["servers"]:
            for word in ("nodestat", "nodestat_nw", "downnotifystat", "isolateflag", "pingstat", "holdstat", "alive"):
                self.assertEqual(one("server_" + word, server=server["name"]), server[word])
            self.assertEqual(one("server_priority", server=server["name"]), server["pri"])
            key = ("shmnm_server_combstat", (("server", server["name"]),))
            self.assertEqual(found.get(key), server["combstat"])
        pairs = 0
        for kind in ("hb", "np"):
            for resource in picture[kind]:
                labels = {"kind": kind, "type": resource["type"], "resource": resource["name"]}
                self.assertEqual((one("resource_stat", **labels), one("resource_priority", **labels)), (resource["stat"], resource["pri"]))
                for name, row in (("resource_server_stat", "svstat"), ("resource_network_stat", "network")):
                    for server, value in zip(picture["servers"], resource.get(row, [])):
                        self.assertEqual(one(name, server=server["name"], **labels), value)
                        pairs += 1
                for value in set(resource["svstat"]):
                    self.assertEqual(one("resource_servers", value=str(value), **labels), resource["svstat"].count(value))
        self.assertEqual(pairs, 3 * (2 * 2 + 2))
        self.assertEqual(one("region_records", table="servers"), 3)
        self.assertEqual(one("region_records_limit", table="hb"), 3)
        self.assertEqual((one("region_findings"), one("region_configuration_match"), one("up")), (0, 1, 1))

    def test_a_resource_that_is_removed_is_gone_at_the_next_scrape(self):
        region = self.filled()
        web = self.serve()
        self.assertIn('resource="lanhb1"', web.get("/metrics").text)
        region.ok("shmnm_rmhbrsc", "lan", "lanhb1")
        self.shown(web)
        self.assertNotIn('resource="lanhb1"', web.get("/metrics").text)

    def test_a_scrape_chooses_groups(self):
        self.filled()
        web = self.serve()
        names = lambda target: {name for name, _ in samples(read_text(web.get(target).text))}
        always = {"shmnm_build_info", "shmnm_up", "shmnm_scrape_lock_wait_seconds", "shmnm_scrape_lock_hold_seconds", "shmnm_scrape_failures_total",
                  "shmnm_scrape_duration_seconds"}
        self.assertEqual(names("/metrics?collect[]=pairs") - always, {"shmnm_resource_server_stat", "shmnm_resource_network_stat"})
        self.assertIn("shmnm_resource_server_stat", names("/metrics"))
        self.assertNotIn("shmnm_resource_server_stat", names("/metrics?collect[]=resources"))

    def test_without_a_region_a_scrape_says_so(self):
        web = self.serve()
        answer = web.get("/metrics")
        self.assertEqual(answer.status, 200)
        found = samples(read_text(answer.text))
        self.assertEqual(found[("shmnm_up", ())], 0)
        self.assertEqual(found[("shmnm_scrape_failures_total", (("reason", "no_region"),))], 1)
        self.assertFalse([name for name, _ in found if name.startswith(("shmnm_cluster", "shmnm_server", "shmnm_resource", "shmnm_region"))])
        found = samples(read_open_metrics(web.get("/metrics", Accept=OPEN_METRICS).text))
        self.assertEqual(found[("shmnm_scrape_failures_total", (("reason", "no_region"),))], 2)

    def test_two_records_of_one_name_are_one_series(self):
        region = self.filled()
        dump = bytearray(self.dumped())
        beta = dump.index(b"beta\0")
        dump[beta : beta + 6] = b"alpha\0"
        file = self.folder / "twins"
        file.write_bytes(dump)
        web = self.serve("--dump", support.path(file))
        lines = [line for line in web.get("/metrics").text.splitlines() if line.startswith('shmnm_server_nodestat{server="alpha"}')]
        self.assertEqual(lines, ['shmnm_server_nodestat{server="alpha"} 1'])
        done = subprocess.run(["promtool", "check", "metrics"], input=web.get("/metrics").body, capture_output=True)
        self.assertEqual((done.returncode, done.stderr), (0, b""))
        del region

    def test_a_new_region_is_counted(self):
        region = self.filled()
        web = self.serve()
        count = lambda: samples(read_text(web.get("/metrics?collect[]=region").text)).get(("shmnm_region_replacements_total", ()))
        self.assertEqual(count(), 0)
        region.end()
        web.until("/healthz", lambda answer: answer.status == 503)
        self.cluster()
        self.shown(web)
        self.assertEqual(count(), 1)


class Names(WebTest):
    def test_names_become_states_and_reach_the_page(self):
        region = self.cluster()
        for server, state in (("alpha", 1), ("beta", 2), ("gamma", 7)):
            region.ok("shmnm_setnodestat", server, state)
        names = self.folder / "names.json"
        names.write_text(json.dumps({"version": 1, "words": {"servers/*/nodestat": {"1": {"name": "up", "level": "ok"}, "2": {"name": "down", "level": "bad"}}}}))
        web = self.serve("--names", support.path(names))
        self.assertEqual(web.get("/names.json").body, names.read_bytes())
        found = samples(read_text(web.get("/metrics?collect[]=states").text))
        states = {labels["server"] + " " + labels["state"]: value for labels, value in ((dict(key), value) for (name, key), value in found.items() if name == "shmnm_server_state")}
        self.assertEqual(states, {"alpha up": 1, "alpha down": 0, "beta up": 0, "beta down": 1, "gamma up": 0, "gamma down": 0})

    def test_the_example_obeys_the_schema_and_is_taken(self):
        example = support.PROJECT / "examples/states.json"
        NAMES_VALIDATOR.validate(json.loads(example.read_text()))
        self.cluster()
        web = self.serve("--names", support.path(example))
        self.assertEqual(web.get("/names.json").body, example.read_bytes())

    def test_a_file_that_is_not_one_of_names_is_refused(self):
        for text, why in (("{", "it is not JSON; see examples/states.json"), ("[]", 'it has no "version": 1 or no "words"'),
                          ('{"version": 1, "words": {"servers/*/nodestat": 1}}', "servers/*/nodestat is not an object"),
                          ('{"version": 1, "words": {"a": {"x": {"name": "up", "level": "ok"}}}}', 'a x needs a number, a "name" and a "level"'),
                          ('{"version": 1, "words": {"a": {"1": {"name": "up", "level": "fine"}}}}', 'a 1 needs a number, a "name" and a "level"')):
            with self.subTest(text):
                file = self.folder / "names.json"
                file.write_text(text)
                if text != "{":
                    self.assertFalse(NAMES_VALIDATOR.is_valid(json.loads(text)))
                done = subprocess.run(support.program("shmnmweb") + ["--listen", "127.0.0.1:0", "--names", support.path(file)], capture_output=True, env=self.environment, timeout=web_support.DEADLINE)
                self.assertEqual(done.returncode, 5)
                self.assertIn(why, done.stderr.decode())


if __name__ == "__main__":
    web_support.main()
