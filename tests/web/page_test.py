"""The page of shmnmweb in a real browser.

    page_test.py linux FOLDER PICTURES AXE [unittest arguments]

FOLDER holds the programs; the pictures that the tests take of the page go to PICTURES; AXE is axe-core's script.
"""
import json
import os
import pathlib
import re
import subprocess
import sys
import time
import urllib.parse

from selenium import webdriver
from selenium.webdriver.chrome.options import Options
from selenium.webdriver.chrome.service import Service
from selenium.webdriver.common.action_chains import ActionChains
from selenium.webdriver.common.by import By
from selenium.webdriver.common.keys import Keys

PROJECT = pathlib.Path(__file__).resolve().parents[2]
sys.path.insert(0, str(PROJECT / "tests/shmnmweb"))
import web_support  # noqa: E402
from web_support import DEADLINE, WebTest, support  # noqa: E402

PICTURES = AXE = None
STATES = PROJECT / "examples/states.json"
SIZES = ((4, 5), (128, 32))
STATE_WORDS = ("combstat", "nodestat", "nodestat_nw", "downnotifystat", "isolateflag", "pingstat", "holdstat", "dfailstatus")


def browser(*arguments):
    options = Options()
    options.binary_location = "/usr/bin/chromium"
    for argument in ("--headless=new", "--no-sandbox", "--disable-gpu", "--hide-scrollbars", "--window-size=1440,1060", *arguments):
        options.add_argument(argument)
    options.set_capability("goog:loggingPrefs", {"browser": "ALL"})
    return webdriver.Chrome(service=Service("/usr/bin/chromedriver"), options=options)


class Page(WebTest):
    @classmethod
    def setUpClass(cls):
        cls.browser = browser("--host-resolver-rules=MAP evil.test 127.0.0.1")
        cls.browser.set_script_timeout(DEADLINE * 3)

    @classmethod
    def tearDownClass(cls):
        cls.browser.quit()

    def address(self, web, host="127.0.0.1"):
        return f"http://{host}:{web.address[1]}/"

    def open(self, web, query="", size=(1440, 1060)):
        """Opens the page and waits until it shows the picture."""
        self.browser.set_window_size(*size)
        self.browser.get("about:blank")
        self.browser.get(self.address(web) + query)
        self.until(lambda: self.live() != "Connecting")
        self.frame()

    def until(self, holds):
        end = time.monotonic() + DEADLINE
        while not (value := holds()):
            self.assertLess(time.monotonic(), end, f"not within {DEADLINE} s; the page says {self.live()!r}")
            time.sleep(0.01)
        return value

    def script(self, text, *arguments):
        return self.browser.execute_script(text, *arguments)

    def frame(self):
        """Waits until the browser has drawn what it knows."""
        self.browser.execute_async_script("const done = arguments[0]; requestAnimationFrame(() => requestAnimationFrame(done))")

    def text(self, identity):
        return self.script("return document.getElementById(arguments[0]).textContent", identity)

    def live(self):
        return self.text("live")

    def cells(self):
        """What each cell shows, by its key."""
        return self.script("return Object.fromEntries([...document.querySelectorAll('td[data-key]')].map(td => [td.dataset.key, td.dataset.value]))")

    def cell(self, key):
        return self.browser.find_element(By.CSS_SELECTOR, f'td[data-key="{key}"]')

    def press(self, *keys):
        ActionChains(self.browser).send_keys(*keys).perform()

    def focused(self):
        return self.script("return document.activeElement.dataset.key || document.activeElement.id")

    def of_size(self, servers, resources):
        """A region with servers and resources whose states differ."""
        half = (resources + 1) // 2
        self.configure(server=max(servers, 4), hbr=half, npr=resources - half, fstr=1)
        region = self.region()
        for server in range(servers):
            name = f"node-{server + 1:03}"
            region.ok("shmnm_addnode", name, server)
            region.ok("shmnm_setnodestat", name, 2 if server == 1 else 1)
            region.ok("shmnm_setnodestat_nw", name, 2 if server == 1 else 1)
            region.ok("shmnm_setpingstat", name, 1)
        for resource in range(resources):
            kind, add, pair = ("hb", "shmnm_addhbrsc", "shmnm_sethbrscsvstat") if resource < half else ("np", "shmnm_addnprsc", "shmnm_setnprscsvstat")
            name = f"{kind}{resource + 1}"
            region.ok(add, "lan" if kind == "hb" else "ping", name, resource)
            for server in range(servers):
                state = 2 if server == 1 else 3 + resource % 3 if (server + resource) % 29 == 3 else 1
                region.ok(pair, "lan" if kind == "hb" else "ping", name, server, state)
                if kind == "hb":
                    region.ok("shmnm_setrscsvstat_nw", "lan", name, server, 4 if (server, resource) == (2, 0) else state)
        return region

    def expected_cells(self, words=None):
        """What the cells must show, by the words of shmnmctl."""
        words = words or self.tool("list", "--format", "json").json["words"]
        shown = {}
        for key, value in words.items():
            parts = key.split("/")
            if (parts[0] == "servers" and parts[-1] in STATE_WORDS) or (parts[0] in ("hb", "np") and parts[-2] == "svstat"):
                shown[key] = "none" if value is None else str(value)
        return shown

    def test_each_cell_shows_what_shmnmctl_shows(self):
        for size in SIZES:
            with self.subTest(size):
                region = self.of_size(*size)
                for names in ((), ("--names", STATES)):
                    self.open(self.serve(*names))
                    self.assertEqual(self.cells(), self.expected_cells())
                    if size == SIZES[0]:
                        shown = {key: cell for key, cell in self.script("return Object.fromEntries([...document.querySelectorAll('td[data-key]')].map(td => [td.dataset.key, td.innerText]))").items()}
                        for key, value in self.expected_cells().items():
                            self.assertIn(value, shown[key].split())
                network = self.script("return [...document.querySelectorAll('td[data-network]')].map(td => [td.dataset.key, td.dataset.networkValue])")
                self.assertEqual(network, [["hb/lan/hb1/svstat/node-003", "4"]])
                region.end()

    def test_a_thousand_regions_are_shown_as_shmnmctl_lists_them(self):
        pictures = self.folder / "pictures"
        subprocess.run(support.program("same_words_test"), env=os.environ | {"SHMNM_PICTURES": str(pictures)}, stdout=subprocess.DEVNULL, check=True)
        lines = pictures.read_text().splitlines()
        self.assertEqual(len(lines), 1000)
        self.cluster()
        self.open(self.serve())
        self.script("stream.close()")
        for begin in range(0, len(lines), 50):
            regions = [json.loads(line) for line in lines[begin : begin + 50]]
            shown = self.script(
                # Of records with one name the first counts, as for the library.
                "const first = (nodes, value) => Object.fromEntries([...nodes].reverse().map(node => [node.dataset.key, node.dataset[value]]));"
                "return arguments[0].map(region => { takePicture(region); drawSummary(); return ["
                "  first(document.querySelectorAll('td[data-key]'), 'value'), first(document.querySelectorAll('td[data-network-value]'), 'networkValue'),"
                "  first(document.querySelectorAll('#facts div'), 'value')]; })", [region["document"] for region in regions])
            for number, (region, (cells, network, facts)) in enumerate(zip(regions, shown), begin):
                words = region["words"]
                self.assertEqual(cells, self.expected_cells(words), f"region {number}")
                self.assertEqual(network, {key.replace("/network/", "/svstat/"): value for key, value in words.items() if key.startswith("hb/") and "/network/" in key}, f"region {number}")
                self.assertEqual(facts, {key: value for key, value in words.items() if key.startswith("cluster/") and key != "cluster/alive" and "/max_" not in key}, f"region {number}")

    def test_the_values_of_the_cluster_stand_at_the_head(self):
        region = self.cluster()
        region.ok("shmnm_sethbinfo_ex", 3, 4)
        self.open(self.serve())
        facts = dict(self.script("return [...document.querySelectorAll('#facts div')].map(one => [one.dataset.key, one.dataset.value])"))
        words = self.tool("list", "cluster", "--format", "json").json["words"]
        for word in ("waitstat", "bwflag", "bwflagdisk", "clstat", "hbinfo_a", "hbinfo_b", "dfailstatus"):
            self.assertEqual(facts[f"cluster/{word}"], str(words[f"cluster/{word}"]))

    def test_a_change_is_shown_marked_and_listed(self):
        region = self.cluster()
        self.open(self.serve())
        region.ok("shmnm_setpingstat", "beta", 7)
        self.until(lambda: self.cells()["servers/beta/pingstat"] == "7")
        self.assertIn("new", self.cell("servers/beta/pingstat").get_attribute("class").split())
        self.frame()
        newest = self.script("return document.querySelector('#changes li').innerText")
        self.assertIn("servers/beta/pingstat", newest.replace("\n", ""))
        self.assertIn("0 → 7", newest)
        self.until(lambda: "new" not in self.cell("servers/beta/pingstat").get_attribute("class").split())

    def test_a_new_server_and_a_removed_one_change_the_columns(self):
        region = self.cluster()
        self.open(self.serve())
        region.ok("shmnm_addnode", "delta", 9)
        self.until(lambda: "servers/delta/nodestat" in self.cells())
        region.ok("shmnm_rmnode", "alpha")
        self.until(lambda: "servers/alpha/nodestat" not in self.cells())
        self.assertEqual(self.cells(), self.expected_cells())

    def test_names_full_of_markup_stay_text(self):
        evil = '<img src=x onerror="document.title=1"><script>document.title=2</script>'
        region = self.region()
        region.ok("shmnm_addnode", evil, 1)
        region.ok("shmnm_addhbrsc", "<b>", "</td>&amp;", 1)
        region.ok("shmnm_sethbdescript", "<b>", "</td>&amp;", evil.encode().ljust(256, b"\0")[:256], 256)
        names = self.folder / "names.json"
        names.write_text(json.dumps({"version": 1, "words": {"servers/*/nodestat": {"2": {"name": evil, "level": "bad"}}}}))
        self.open(self.serve("--names", names))
        self.assertEqual(self.cells(), self.expected_cells())
        self.assertIn(evil, self.text("attention"))
        self.assertEqual(self.browser.title, "Cluster picture")
        self.assertEqual(self.script("return document.querySelectorAll('img, td b, li b script, li img').length"), 0)
        self.assertEqual(self.script("return [...document.scripts].length"), len(re.findall("<script", (PROJECT / "tools/shmnmweb/page/index.html").read_text())))

    def test_markup_is_refused_by_the_browser_as_such(self):
        self.cluster()
        self.open(self.serve())
        self.assertEqual(self.script("try { document.body.innerHTML = '<p>'; return 'taken' } catch (error) { return error.name }"), "TypeError")
        refused = self.browser.execute_async_script(
            "const done = arguments[0]; document.addEventListener('securitypolicyviolation', event => done(event.violatedDirective), {once: true});"
            "const script = document.createElement('script'); try { script.text = 'document.title = 3' } catch { done('trusted types') } document.head.append(script)")
        self.assertIn(refused, ("trusted types", "script-src-elem", "require-trusted-types-for"))
        self.assertEqual(self.browser.title, "Cluster picture")

    def test_a_foreign_name_for_this_machine_is_refused(self):
        self.cluster()
        web = self.serve()
        self.browser.get(self.address(web, "evil.test"))
        self.assertNotIn("pingstat", self.browser.page_source)
        self.assertIn("--allow-host", self.browser.page_source)
        allowing = self.serve("--allow-host", "evil.test")
        self.browser.get(self.address(allowing, "evil.test"))
        self.until(lambda: self.live() == "Live")

    def test_the_keyboard_reaches_every_cell_and_each_exception(self):
        self.of_size(*SIZES[0])
        self.open(self.serve("--names", STATES))
        self.script("document.querySelector('td[tabindex=\"0\"]').focus()")
        self.assertEqual(self.focused(), "servers/node-001/combstat")
        self.press(Keys.ARROW_RIGHT, Keys.ARROW_DOWN)
        self.assertEqual(self.focused(), "servers/node-002/nodestat")
        self.assertIn("node-002", self.text("say"))
        self.assertIn("servers/node-002/nodestat", self.text("say"))
        self.press(Keys.END)
        self.assertEqual(self.focused(), "servers/node-004/nodestat")
        self.press(Keys.ARROW_RIGHT)
        self.assertEqual(self.focused(), "servers/node-004/nodestat")
        self.press(Keys.HOME, Keys.PAGE_DOWN)
        self.assertTrue(self.focused().startswith("np/ping/np5/svstat/node-001"), self.focused())
        exceptions = set(self.script("return [...document.querySelectorAll('td.bad, td.warning, td.other')].map(td => td.dataset.key)"))
        reached = set()
        for _ in exceptions:
            self.press("n")
            reached.add(self.focused())
        self.assertEqual(reached, exceptions)
        self.press(Keys.SHIFT, "N", Keys.NULL)
        self.assertIn(self.focused(), exceptions)

    def hash(self):
        return self.script("return location.hash")

    def test_a_link_focuses_the_cell_whose_key_it_has(self):
        region = self.cluster()
        region.ok("shmnm_addnode", "a b/c%", 9)
        web = self.serve()
        for key in ("servers/beta/pingstat", "servers/a%20b%2Fc%25/nodestat", "np/ping/pingnp1/svstat/gamma"):
            with self.subTest(key):
                self.open(web, "#" + key)
                self.until(lambda: self.focused() == key)
                self.assertIn(key, self.text("say"))
                self.assertEqual(self.script("return document.querySelectorAll('td[tabindex=\"0\"]').length"), 1)
        self.open(web, "#servers/nobody/<b>")
        self.until(lambda: self.text("say") == "No cell has the key servers/nobody/%3Cb%3E.")

    def test_the_address_follows_the_focus_and_the_history_stays_as_it_is(self):
        self.cluster()
        self.open(self.serve(), "?theme=dark")
        entries = self.script("return history.length")
        self.cell("servers/beta/pingstat").click()
        self.until(lambda: self.hash() == "#servers/beta/pingstat")
        self.press(Keys.ARROW_RIGHT, Keys.ARROW_DOWN)
        self.until(lambda: self.hash() == "#servers/gamma/holdstat")
        self.assertEqual(self.script("return [history.length, location.search]"), [entries, "?theme=dark"])
        self.browser.refresh()
        self.until(lambda: self.focused() == "servers/gamma/holdstat")
        self.script("location.hash = '#servers/alpha/nodestat'")
        self.until(lambda: self.focused() == "servers/alpha/nodestat")
        self.browser.back()
        self.until(lambda: self.focused() == "servers/gamma/holdstat")

    def test_the_filter_shows_the_cells_whose_keys_have_the_words(self):
        self.cluster()
        self.open(self.serve())
        self.press("/")
        self.assertEqual(self.focused(), "filter")
        self.press("lan beta")
        self.until(lambda: list(self.cells()) == ["hb/lan/lanhb1/svstat/beta"])
        self.press(Keys.ENTER)
        self.assertEqual(self.focused(), "hb/lan/lanhb1/svstat/beta")
        self.press(Keys.ESCAPE)
        self.assertEqual(self.cells(), self.expected_cells())
        self.press("?")
        self.assertTrue(self.browser.find_element(By.ID, "help").is_displayed())
        self.press(Keys.ESCAPE)
        self.until(lambda: not self.browser.find_element(By.ID, "help").is_displayed())

    def test_a_filter_without_a_match_says_so(self):
        self.cluster()
        self.open(self.serve())
        self.press("/", "nothing-like-it")
        self.until(lambda: not self.cells())
        self.assertEqual(self.text("say"), "No key contains all of these words.")

    def test_the_legend_shows_one_look_alone(self):
        self.of_size(*SIZES[0])
        self.open(self.serve("--names", STATES))
        self.browser.find_element(By.CSS_SELECTOR, "#legend button[data-look=bad]").click()
        lit = set(self.script("return [...document.querySelectorAll('#table.dimmed td.hit')].map(td => td.dataset.key)"))
        self.assertEqual(lit, set(self.script("return [...document.querySelectorAll('td.bad')].map(td => td.dataset.key)")))
        self.assertTrue(lit)
        self.browser.find_element(By.CSS_SELECTOR, "#legend button[data-look=bad]").click()
        self.assertFalse(self.script("return document.querySelector('#table').classList.contains('dimmed')"))

    def test_without_names_there_are_numbers_and_no_verdict(self):
        self.of_size(*SIZES[0])
        self.open(self.serve())
        looks = set(self.script("return [...document.querySelectorAll('td[data-key]')].flatMap(td => [...td.classList])"))
        self.assertFalse(looks & {"ok", "none", "unknown", "warning", "bad", "other"}, looks)
        self.assertEqual(self.script("return document.getElementById('sign').className"), "sign")
        self.assertEqual(self.text("verdict"), "3 of 4 servers are alive")

    def test_with_names_the_page_says_what_needs_attention(self):
        region = self.of_size(*SIZES[0])
        self.open(self.serve("--names", STATES))
        self.assertEqual(self.script("return document.getElementById('sign').className"), "sign bad")
        first = self.browser.find_element(By.CSS_SELECTOR, "#attention button")
        self.assertIn("node-002", first.text)
        first.click()
        self.assertEqual(self.focused(), "servers/node-002/nodestat")
        region.ok("shmnm_setnodestat", "node-002", 1)
        self.until(lambda: self.text("verdict") == "All 4 servers are alive")

    def test_the_page_says_since_when_it_is_stale_and_recovers_by_itself(self):
        region = self.cluster()
        web = self.serve()
        port = web.address[1]
        self.open(web)
        web.end()
        self.until(lambda: re.match(r"Stale since \d\d:\d\d:\d\d: no contact with the server", self.live()))
        self.assertIn("stale", self.script("return document.body.className"))
        region.ok("shmnm_setclstat", 42)
        web_support.Server(self, "--listen", f"127.0.0.1:{port}")
        self.until(lambda: self.live() == "Live")
        self.assertNotIn("stale", self.script("return document.body.className"))
        self.assertEqual(self.script("return document.querySelector('[data-key=\"cluster/clstat\"]').dataset.value"), "42")

    def test_a_picture_without_newer_copies_is_stale(self):
        self.cluster()
        self.open(self.serve())
        hear = "stream.dispatchEvent(new MessageEvent('alive', {data: JSON.stringify({version: 1, kind: 'alive', time: arguments[0], copied: arguments[1]})}))"
        self.script(hear, "2026-01-02T03:04:05.000+00:00", "2026-01-02T03:03:59.900+00:00")
        self.assertEqual(self.live(), "Stale since 03:03:59: the server makes no newer copy")
        self.script(hear, "2026-01-02T03:04:10.000+00:00", "2026-01-02T03:04:09.900+00:00")
        self.assertEqual(self.live(), "Live")

    def test_a_region_that_has_gone_leaves_no_picture(self):
        region = self.cluster()
        self.open(self.serve())
        region.end()
        self.until(lambda: self.text("verdict") == "There is no picture")
        self.assertIn("no process holds the region", self.text("lead"))
        self.assertFalse(self.browser.find_element(By.ID, "picture").is_displayed())
        self.cluster()
        self.until(lambda: self.cells() and self.browser.find_element(By.ID, "picture").is_displayed())

    def marked(self):
        """A page of a machine whose bridge has heard of the two others."""
        self.cluster()
        marks = self.bridge()
        marks.says(("beta", "fresh", {"age_ms": 100, "address": "http://127.0.0.1:1/"}), ("gamma", "silent", {"age_ms": 7000, "address": "javascript:alert(1)"}),
                   contested=["cluster/clstat"])
        web = self.serve()
        self.open(web)
        return marks

    def hatched(self):
        """The servers whose columns are hatched, as the browser draws them."""
        return self.script(
            "return [...new Set([...document.querySelectorAll('td[data-key^=\"servers/\"]')]"
            ".filter(td => getComputedStyle(td.firstChild).backgroundImage.includes('repeating-linear-gradient(45deg'))"
            ".map(td => td.dataset.key.split('/')[1]))]"
        )

    def test_the_columns_of_machines_that_are_not_heard_are_hatched(self):
        marks = self.marked()
        self.assertEqual(self.hatched(), ["gamma"])
        self.assertRegex(self.script("return document.querySelector('th.server[data-x=\"2\"] small').textContent"), r"^silent since \d\d:\d\d:\d\d$")
        self.assertTrue(self.cell("servers/gamma/pingstat").get_attribute("aria-label").endswith(", silent"))
        self.assertFalse(self.script("return document.getElementById('machines-card').hidden"))
        self.assertTrue(self.script("return document.getElementById('notice').hidden"))
        self.assertIn("cluster/clstatcontested", self.text("machines"))
        marks.says(("beta", "silent", {"address": "http://127.0.0.1:1/"}), ("gamma", "fresh", {"address": "javascript:alert(1)"}), contested=["cluster/clstat"])
        self.until(lambda: self.hatched() == ["beta"])

    def test_a_machine_that_is_cut_off_says_since_when(self):
        marks = self.marked()
        marks.says(("beta", "unknown", {"address": "http://127.0.0.1:1/"}), ("gamma", "unknown", {"address": "javascript:alert(1)"}), connected=False,
                   contested=["cluster/clstat"])
        self.until(lambda: self.hatched() == ["beta", "gamma"])
        self.until(lambda: re.match(r"Cut off from the other machines since \d\d:\d\d:\d\d: what is shown of the other machines may be old\.$", self.text("notice")))
        self.browser.save_screenshot(str(PICTURES / "cut-off.png"))
        marks.process.kill()
        self.until(lambda: self.text("notice").startswith("The bridge has ended since "))
        self.assertEqual(self.hatched(), ["beta", "gamma"])

    def test_the_pages_of_other_machines_are_linked_if_they_are_pages(self):
        self.marked()
        links = self.script("return [...document.querySelectorAll('#machines a')].map(a => [a.textContent, a.href, a.rel])")
        self.assertEqual(links, [["beta", "http://127.0.0.1:1/", "noopener noreferrer"]])
        self.assertIn("gamma", self.text("machines"))

    def test_without_a_bridge_nothing_is_hatched(self):
        self.cluster()
        self.open(self.serve())
        self.assertEqual(self.hatched(), [])
        self.assertTrue(self.script("return document.getElementById('machines-card').hidden && document.getElementById('notice').hidden"))

    def test_a_screen_reader_hears_server_word_and_value(self):
        self.of_size(*SIZES[0])
        self.open(self.serve("--names", STATES))
        self.assertEqual(self.cell("servers/node-002/nodestat").get_attribute("aria-label"), "node-002, node: down 2")
        self.assertEqual(self.cell("hb/lan/hb1/svstat/node-003").get_attribute("aria-label").split(",")[0], "node-003")
        self.assertIn("network-wide", self.cell("hb/lan/hb1/svstat/node-003").get_attribute("aria-label"))
        self.assertEqual(self.script("return document.querySelectorAll('td[tabindex=\"0\"]').length"), 1)

    def test_nothing_is_loaded_from_elsewhere_and_nothing_is_complained_of(self):
        self.cluster()
        web = self.serve("--names", STATES)
        self.browser.get_log("browser")
        self.open(web)
        loaded = self.script("return performance.getEntriesByType('resource').map(entry => entry.name)")
        self.assertEqual({urllib.parse.urlsplit(name).netloc for name in loaded if not name.startswith("data:")}, {f"127.0.0.1:{web.address[1]}"})
        self.assertEqual([entry for entry in self.browser.get_log("browser") if entry["level"] == "SEVERE"], [])

    def test_all_servers_fit_the_width_of_the_screen(self):
        for size in SIZES:
            with self.subTest(size):
                region = self.of_size(*size)
                self.open(self.serve())
                self.assertTrue(self.script("const scroll = document.getElementById('scroll'); return scroll.scrollWidth <= scroll.clientWidth"))
                self.assertTrue(self.script("return document.documentElement.scrollWidth <= document.documentElement.clientWidth"))
                self.assertLess(self.script("return document.getElementById('table').getBoundingClientRect().bottom"), 1100)
                region.end()

    def test_print_leaves_the_controls_out(self):
        self.cluster()
        self.open(self.serve())
        self.browser.execute_cdp_cmd("Emulation.setEmulatedMedia", {"media": "print"})
        self.addCleanup(self.browser.execute_cdp_cmd, "Emulation.setEmulatedMedia", {"media": ""})
        for hidden in ("theme", "legend", "filter"):
            self.assertFalse(self.browser.find_element(By.ID, hidden).is_displayed())
        self.assertTrue(self.browser.find_element(By.ID, "table").is_displayed())

    def test_axe_finds_no_violation_and_pictures_are_kept(self):
        for size in SIZES:
            region = self.of_size(*size)
            web = self.serve("--names", STATES)
            for theme in ("light", "dark"):
                with self.subTest((size, theme)):
                    self.open(web, f"?theme={theme}")
                    self.browser.save_screenshot(str(PICTURES / f"page-{size[0]}x{size[1]}-{theme}.png"))
                    self.script(AXE)
                    found = self.browser.execute_async_script(
                        "const done = arguments[0]; axe.run().then(result => done(result.violations.map(one => [one.id, one.nodes.slice(0, 3).map(node => node.html)])), error => done(String(error)))")
                    self.assertEqual(found, [])
            region.end()

    def test_every_look_can_be_read_in_both_themes(self):
        """The contrast that axe cannot compute over gradients: of each look's text with its ground, at least 4.5 to 1."""
        self.of_size(*SIZES[0])
        web = self.serve("--names", STATES)
        measure = """
            const cell = document.querySelector('td[data-key]');
            const canvas = document.createElement('canvas').getContext('2d', {willReadFrequently: true});
            const rgb = color => { canvas.clearRect(0, 0, 1, 1); canvas.fillStyle = color; canvas.fillRect(0, 0, 1, 1); return [...canvas.getImageData(0, 0, 1, 1).data]; };
            const light = ([r, g, b]) => [r, g, b].map(v => v / 255).map(v => v <= .04045 ? v / 12.92 : ((v + .055) / 1.055) ** 2.4).reduce((sum, v, i) => sum + v * [.2126, .7152, .0722][i], 0);
            return arguments[0].map(look => {
              cell.className = look;
              const style = getComputedStyle(cell.firstChild), text = light(rgb(style.color)), ground = light(rgb(style.backgroundColor));
              return [look, (Math.max(text, ground) + .05) / (Math.min(text, ground) + .05)];
            });"""
        looks = ["ok", "none", "unknown", "warning", "bad", "other"] + [f"value-{rank}" for rank in range(6)]
        for theme in ("light", "dark"):
            self.open(web, f"?theme={theme}")
            for look, contrast in self.script(measure, looks):
                with self.subTest((theme, look)):
                    self.assertGreaterEqual(contrast, 4.5)


if __name__ == "__main__":
    PICTURES, AXE = pathlib.Path(sys.argv.pop(3)), pathlib.Path(sys.argv.pop(3)).read_text()
    PICTURES.mkdir(parents=True, exist_ok=True)
    web_support.main()
