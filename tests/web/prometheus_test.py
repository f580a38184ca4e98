"""The metrics of shmnmweb, its rules and its dashboard with a real Prometheus.

    prometheus_test.py linux FOLDER MODULES [unittest arguments]

FOLDER holds the programs; MODULES is the folder of npm packages with Grafana's types and the compiler for them.
"""
import json
import pathlib
import socket
import subprocess
import sys
import time
import urllib.error
import urllib.parse
import urllib.request

PROJECT = pathlib.Path(__file__).resolve().parents[2]
sys.path.insert(0, str(PROJECT / "tests/shmnmweb"))
import web_support  # noqa: E402
from web_support import DEADLINE, WebTest  # noqa: E402

MODULES = None
RULES = PROJECT / "examples/prometheus/shmnm_rules.yml"
DASHBOARD = PROJECT / "examples/grafana/shmnm.json"


def run(*command, **options):
    return subprocess.run([str(word) for word in command], stdout=subprocess.PIPE, stderr=subprocess.STDOUT, text=True, timeout=DEADLINE * 3, **options)


def free_port():
    with socket.socket() as found:
        found.bind(("127.0.0.1", 0))
        return found.getsockname()[1]


class Files(WebTest):
    def expect_success(self, *command):
        done = run(*command)
        self.assertEqual(done.returncode, 0, done.stdout)
        return done.stdout

    def test_the_rules_are_valid_and_their_own_tests_pass(self):
        self.expect_success("promtool", "check", "rules", RULES)
        self.expect_success("promtool", "check", "config", RULES.with_name("prometheus.yml"))
        self.assertIn("SUCCESS", self.expect_success("promtool", "test", "rules", RULES.with_name("shmnm_rules_test.yml")))

    def test_every_rule_has_a_test_in_which_it_fires_and_one_in_which_it_does_not(self):
        alerts = [line.split(":")[1].strip() for line in RULES.read_text().splitlines() if line.strip().startswith("- alert:")]
        tests = RULES.with_name("shmnm_rules_test.yml").read_text()
        self.assertGreater(len(alerts), 5)
        for alert in alerts:
            self.assertIn(f"alertname: {alert}}}", tests)
            self.assertIn(f"alertname: {alert}\n", tests)

    def type_errors(self, dashboard):
        """What the compiler says of a dashboard as Grafana's type. JSON has no enumerations, so their values are named here."""
        text = dashboard.replace('"mode": "absolute"', '"mode": ThresholdsMode.Absolute').replace('"type": "value"', '"type": MappingType.ValueToText')
        source = self.folder / "dashboard.ts"
        source.write_text(f"import {{Dashboard, MappingType, ThresholdsMode}} from '@grafana/schema';\nexport const board: Partial<Dashboard> = {text};\n")
        modules = self.folder / "node_modules"
        if not modules.exists():
            modules.symlink_to(MODULES)
        options = ("--noEmit", "--strict", "--skipLibCheck", "--module", "nodenext", "--moduleResolution", "nodenext")
        return run(modules / ".bin/tsc", *options, source).stdout

    def test_the_dashboard_has_the_fields_of_a_dashboard(self):
        dashboard = DASHBOARD.read_text()
        self.assertEqual(self.type_errors(dashboard), "")
        for broken in (dashboard.replace('"schemaVersion"', '"schemaVersoin"'), dashboard.replace('"gridPos"', '"gridPosition"')):
            self.assertNotEqual(self.type_errors(broken), "")


class Scraped(WebTest):
    """Everything is asked of one Prometheus, which scrapes one shmnmweb."""

    def setUp(self):
        super().setUp()
        region = self.cluster()
        for server in ("alpha", "beta"):
            region.ok("shmnm_setnodestat", server, 1)
        region.ok("shmnm_sethbinfo_ex", 3, 4)
        self.region = region
        self.bridge().says(("beta", "fresh", {}), ("gamma", "silent", {}))
        self.web = self.serve()
        self.port = free_port()
        configuration = self.folder / "prometheus.yml"
        configuration.write_text(
            f"global: {{scrape_interval: 1s, evaluation_interval: 1s}}\nrule_files: [{RULES}]\n"
            f"scrape_configs: [{{job_name: shmnm, static_configs: [{{targets: ['127.0.0.1:{self.web.address[1]}']}}]}}]\n")
        log = (self.folder / "prometheus.log").open("w")
        self.addCleanup(log.close)
        self.prometheus = subprocess.Popen(
            ["prometheus", f"--config.file={configuration}", f"--storage.tsdb.path={self.folder}/data", f"--web.listen-address=127.0.0.1:{self.port}"], stdout=log, stderr=log)
        self.addCleanup(self.prometheus.wait)
        self.addCleanup(self.prometheus.kill)

    def ask(self, path, **query):
        with urllib.request.urlopen(f"http://127.0.0.1:{self.port}/api/v1/{path}?{urllib.parse.urlencode(query)}", timeout=DEADLINE) as answer:
            return json.load(answer)["data"]

    def query(self, expression):
        return self.ask("query", query=expression)["result"]

    def until(self, holds, what):
        end = time.monotonic() + DEADLINE
        while True:
            try:
                if value := holds():
                    return value
            except (urllib.error.URLError, ConnectionError) as error:
                if isinstance(error, urllib.error.HTTPError) and error.code == 400:
                    raise AssertionError(error.read()) from error
            if time.monotonic() > end:
                raise AssertionError(f"not within {DEADLINE} s: {what}\n{(self.folder / 'prometheus.log').read_text()}")
            time.sleep(0.1)

    def test_it_scrapes_and_each_expression_of_the_dashboard_answers(self):
        self.until(lambda: self.query("shmnm_up == 1"), "a scrape")
        board = json.loads(DASHBOARD.read_text())
        expressions = [target["expr"] for panel in board["panels"] for target in panel["targets"]]
        self.assertGreater(len(expressions), 15)
        for expression in expressions:
            with self.subTest(expression):
                asked = expression.replace("$instance", ".*").replace("$__rate_interval", "1m")
                self.until(lambda: self.query(asked), asked)

    def test_its_values_are_those_of_the_picture(self):
        self.until(lambda: self.query("shmnm_up == 1"), "a scrape")
        values = {one["metric"]["server"]: one["value"][1] for one in self.query("shmnm_server_nodestat")}
        status = self.tool("status", "--format", "json").json
        self.assertEqual(values, {server["name"]: str(server["nodestat"]) for server in status["servers"]})

    def test_a_resource_that_is_removed_is_gone_at_the_next_scrape(self):
        removed = 'shmnm_resource_stat{resource="pingnp1"}'
        self.until(lambda: self.query(removed), "the resource")
        self.region.ok("shmnm_rmnprsc", "ping", "pingnp1")
        self.until(lambda: not self.query(removed), "the end of the resource")
        self.assertTrue(self.query('shmnm_resource_stat{resource="majoritynp1"}'))

    def test_the_rules_fire(self):
        self.until(lambda: any(alert["labels"]["alertname"] == "ShmnmServerDown" for alert in self.ask("alerts")["alerts"]), "an alert for gamma")


if __name__ == "__main__":
    MODULES = pathlib.Path(sys.argv.pop(3)).resolve()
    web_support.main()
