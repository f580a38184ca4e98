#!/usr/bin/env python3
"""Measures how long a change of a word takes to the page in a real browser.

    page_bench.py FOLDER      FOLDER holds the programs of an optimised build

The time runs from before the call that changes the word to the moment at which the page's cell has the new value, by the
clock that the browser and this program share. Prints the median and the worst of 50 changes, at 4 x 5 and at 128 x 32.
"""
import pathlib
import statistics
import sys
import time

sys.argv[1:1] = ["linux"]
PROJECT = pathlib.Path(__file__).resolve().parents[2]
sys.path.insert(0, str(PROJECT / "tests/web"))
import page_test  # noqa: E402

CHANGES = 50
WATCH = """
    const done = arguments[arguments.length - 1], cell = document.querySelector(`td[data-key="${arguments[0]}"]`);
    new MutationObserver((_, observer) => { if (cell.dataset.value === arguments[1]) { observer.disconnect(); window.arrived = Date.now(); } })
        .observe(cell, {attributes: true, attributeFilter: ['data-value']});
    done();"""


class Latency(page_test.Page):
    def test_a_change_reaches_the_page(self):
        for size in page_test.SIZES:
            region = self.of_size(*size)
            self.open(self.serve())
            took = []
            for value in range(100, 100 + CHANGES):
                self.script("window.arrived = 0")
                self.browser.execute_async_script(WATCH, "servers/node-001/pingstat", str(value))
                time.sleep(0.05 + 0.013 * (value % 5))
                begin = time.time() * 1000
                region.ok("shmnm_setpingstat", "node-001", value)
                took.append(self.until(lambda: self.script("return window.arrived")) - begin)
            region.end()
            print(f"{size[0]} x {size[1]}: median {statistics.median(took):.0f} ms, worst {max(took):.0f} ms", flush=True)


if __name__ == "__main__":
    page_test.web_support.support.PLATFORM, page_test.web_support.support.FOLDER = "linux", pathlib.Path(sys.argv[2])
    import unittest
    unittest.main(argv=[sys.argv[0], "Latency.test_a_change_reaches_the_page"])
