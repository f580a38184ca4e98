#!/usr/bin/env python3
"""Measures shmnmweb at 4 x 5 and at 128 x 32: how long a change of a word takes to the page in a real browser, how long a scrape of
/metrics takes, and how much memory the server has then.

    page_bench.py FOLDER      FOLDER holds the programs of an optimised build

A change runs from before the call that changes the word to the moment at which the page's cell has the new value, by the clock that
the browser and this program share. A scrape runs from the request to the last byte, over one connection; no answer is made twice from
one copy, because each scrape comes after a change. Prints the median and the worst of 50.
"""
import pathlib
import re
import statistics
import sys
import time

sys.argv[1:1] = ["linux"]
PROJECT = pathlib.Path(__file__).resolve().parents[2]
sys.path.insert(0, str(PROJECT / "tests/web"))
import page_test  # noqa: E402

RUNS = 50
WATCH = """
    const done = arguments[arguments.length - 1], cell = document.querySelector(`td[data-key="${arguments[0]}"]`);
    new MutationObserver((_, observer) => { if (cell.dataset.value === arguments[1]) { observer.disconnect(); window.arrived = Date.now(); } })
        .observe(cell, {attributes: true, attributeFilter: ['data-value']});
    done();"""


def report(what, took):
    print(f"{what}: median {statistics.median(took):.1f} ms, worst {max(took):.1f} ms", flush=True)


class Bench(page_test.Page):
    def change(self, region, value):
        """How long a change takes to the page."""
        self.script("window.arrived = 0")
        self.browser.execute_async_script(WATCH, "servers/node-001/pingstat", str(value))
        time.sleep(0.05 + 0.013 * (value % 5))
        begin = time.time() * 1000
        region.ok("shmnm_setpingstat", "node-001", value)
        return self.until(lambda: self.script("return window.arrived")) - begin

    def scrape(self, connection):
        begin = time.perf_counter()
        connection.request("GET", "/metrics")
        body = connection.getresponse().read()
        took = (time.perf_counter() - begin) * 1000
        self.assertIn(b"\nshmnm_up 1\n", body)
        return took, body

    def test_changes_scrapes_and_memory(self):
        for size in page_test.SIZES:
            region, name = self.of_size(*size), f"{size[0]} x {size[1]}"
            web = self.serve()
            self.open(web)
            report(f"{name}: a change is on the page after", [self.change(region, value) for value in range(100, 100 + RUNS)])
            connection, took = web.connection(), []
            self.addCleanup(connection.close)
            for value in range(RUNS):
                region.ok("shmnm_setclstat", value)
                self.shown(web)
                milliseconds, body = self.scrape(connection)
                self.assertIn(f"\nshmnm_cluster_clstat {value}\n".encode(), body)
                took.append(milliseconds)
            series = len(re.findall(rb"^[^#]", body, re.M))
            report(f"{name}: a scrape of {series} series, {len(body) // 1000} kB, takes", took)
            memory = pathlib.Path(f"/proc/{web.process.pid}/status").read_text()
            print(f"{name}: the server has {int(re.search(r'VmRSS:.*?([0-9]+)', memory)[1]) / 1000:.1f} MB, at most {int(re.search(r'VmHWM:.*?([0-9]+)', memory)[1]) / 1000:.1f} MB", flush=True)
            region.end()
            self.browser.get("about:blank")
            web.end()


if __name__ == "__main__":
    page_test.web_support.support.PLATFORM, page_test.web_support.support.FOLDER = "linux", pathlib.Path(sys.argv[2])
    import unittest
    unittest.main(argv=[sys.argv[0], "Bench.test_changes_scrapes_and_memory"])
