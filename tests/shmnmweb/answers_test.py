"""What shmnmweb answers at each path."""
import base64
import hashlib
import json
import re

import web_support
from web_support import WebTest, support

PATHS = ("/", "/picture.json", "/metrics", "/healthz", "/servers/alpha/alive", "/dump", "/snapshot", "/query?condition=cluster/clstat=0")


class Answers(WebTest):
    def test_the_picture_is_the_document_of_the_tool_byte_for_byte(self):
        region = self.cluster()
        region.ok("shmnm_setclstat", 7)
        web = self.serve()
        answer = web.get("/picture.json")
        self.assertEqual((answer.status, answer.fields["Content-Type"]), (200, "application/json"))
        self.assertEqual(answer.body, self.tool("status", "--format", "json").raw)
        self.assertEqual(answer.json["cluster"]["clstat"], 7)
        region.ok("shmnm_addnode", b"a <b>&\"'/%\xff", 9)
        self.shown(web)

    def test_the_picture_of_a_dump_is_the_document_of_the_tool_byte_for_byte(self):
        self.cluster().ok("shmnm_setclstat", 3)
        dump = self.folder / "dump"
        dump.write_bytes(self.dumped())
        web = self.serve("--dump", support.path(dump))
        self.assertEqual(web.get("/picture.json").body, self.tool("status", "--format", "json", support.path(dump)).raw)
        self.assertEqual(web.get("/dump").body, dump.read_bytes())
        self.assertEqual(web.get("/healthz").status, 503)
        self.assertIn("a dump is shown", web.get("/healthz").json["message"])
        self.assertEqual(web.get("/servers/alpha/alive").status, 503)

    def test_the_dump_is_the_regions_bytes(self):
        self.cluster()
        web = self.serve()
        self.assertEqual(web.get("/dump").body, self.dumped())

    def test_head_answers_as_get_without_the_body(self):
        self.cluster()
        web = self.serve()
        for path in PATHS:
            with self.subTest(path):
                head, get = web.request(path, "HEAD"), web.get(path)
                self.assertEqual((head.status, head.body), (get.status, b""))
                self.assertEqual(head.fields["Content-Type"], get.fields["Content-Type"])
                self.assertIn("Content-Length", head.fields)
        head = web.request("/events", "HEAD")
        self.assertEqual((head.status, head.fields["Content-Type"], head.body), (200, "text/event-stream", b""))

    def test_every_other_method_is_refused(self):
        before = self.cluster() and self.dumped()
        web = self.serve()
        for method in ("POST", "PUT", "DELETE", "PATCH", "OPTIONS", "TRACE", "CONNECT", "PROPFIND", "NONSENSE", "get"):
            for path in ("/", "/picture.json", "/snapshot"):
                with self.subTest(method=method, path=path):
                    answer = web.request(path, method, body=b"x=1" if method in ("POST", "PUT", "PATCH") else None)
                    self.assertEqual((answer.status, answer.fields["Allow"]), (405, "GET, HEAD"))
                    self.assertEqual(answer.json["message"], "shmnmweb only reads; use GET or HEAD")
        self.assertEqual(self.dumped(), before)

    def test_errors_are_documents_with_the_next_step(self):
        self.cluster()
        web = self.serve()
        for target, status, message in (
            ("/nothing", 404, "there is nothing at this path; see /, /picture.json, /events,"),
            ("/picture.json/", 404, "there is nothing at this path"),
            ("//picture.json", 404, "there is nothing at this path"),
            ("/../picture.json", 404, "there is nothing at this path"),
            ("/%2e%2e/etc/passwd", 404, "there is nothing at this path"),
            ("/./picture.json", 404, "there is nothing at this path"),
            ("/picture.json%00", 404, "there is nothing at this path"),
            ("/picture.json;x", 404, "there is nothing at this path"),
            ("/PICTURE.JSON", 404, "there is nothing at this path"),
            ("/..\\picture.json", 404, "there is nothing at this path"),
            ("/%252e%252e/etc/passwd", 404, "there is nothing at this path"),
            ("/servers/alpha/alive/", 404, "there is nothing at this path"),
            ("/servers/../alive", 404, "there is no server .."),
            ("/servers//alive", 404, "there is no server ;"),
            ("/%zz", 400, "the target is not a path as URLs write it; begin it with a slash"),
            ("/servers/delta/alive", 404, "there is no server delta; /picture.json shows what there is"),
            ("/query", 400, "the condition is missing; use /query?condition="),
            ("/query?condition=clstat", 400, "invalid condition at character 7, its end: one of = != < <= > >= is expected; see"),
            ("/query?condition=" + "1" * 2001, 400, "the condition has 2001 bytes; use at most 2000"),
            ("/metrics?collect[]=all", 400, 'unknown group of metrics "all"; use region, cluster,'),
            ("/names.json", 404, "there are no names for values; start shmnmweb with --names FILE"),
        ):
            with self.subTest(target):
                answer = web.get(target)
                self.assertEqual((answer.status, answer.fields["Content-Type"]), (status, "application/json"))
                (document,) = support.validated(answer.text)
                self.assertEqual(document["kind"], "error")
                self.assertIn(message, document["message"])

    def test_without_a_region_there_is_nothing_but_the_reason(self):
        web = self.serve()
        for path in ("/picture.json", "/healthz", "/servers/alpha/alive", "/dump", "/snapshot", "/query?condition=cluster/clstat=0"):
            with self.subTest(path):
                answer = web.get(path)
                self.assertEqual((answer.status, answer.json["status"]), (503, 3))
                name = self.environment["KZMUTIL_NAMESPACE"] + "oru_kzmshmnm_map"
                self.assertEqual(answer.json["message"], f'no process holds the region {name}; start the cluster, or run "shmnmctl serve"')
        self.assertEqual(web.get("/").status, 200)
        region = self.cluster()
        web.until("/healthz", lambda answer: answer.status == 200)
        region.end()
        self.assertEqual(web.until("/healthz", lambda answer: answer.status == 503).json["status"], 3)

    def test_a_copy_older_than_five_seconds_is_no_answer(self):
        region = self.cluster()
        region.ok("shmnm_setnodestat", "alpha", 1)
        web = self.serve()
        stream = self.stream(web)
        self.assertIsNone(stream.next()[2]["stale"])
        self.assertEqual(web.get("/servers/alpha/alive").status, 200)
        # The server may hold the lock for a moment.
        region.ok("shmnm_rwlock", 10_000)
        told = stream.next()[2]
        self.assertEqual(told["picture"]["servers"][0]["name"], "alpha")
        self.assertIn('see "shmnmctl lock --who"', told["stale"]["message"])
        old = r"the newest copy of the region is \d+ s old: .*; see \"shmnmctl lock --who\""
        answer = web.until("/healthz", lambda answer: answer.status == 503)
        for path in ("/healthz", "/picture.json", "/servers/alpha/alive", "/dump", "/snapshot", "/query?condition=cluster/clstat=0"):
            with self.subTest(path):
                answer = web.get(path)
                self.assertEqual((answer.status, answer.json["status"]), (503, 4))
                self.assertRegex(answer.json["message"], old)
        lines = web.get("/metrics").text.splitlines()
        self.assertIn("shmnm_up 0", lines)
        self.assertIn('shmnm_scrape_failures_total{reason="lock_timeout"} 1', lines)
        if support.PLATFORM == "linux":
            self.assertIn("shmnm_lock_held 1", lines)
        region.ok("shmnm_rwunlock")
        self.assertIsNone(stream.next()[2]["stale"])
        for path in ("/healthz", "/picture.json", "/servers/alpha/alive"):
            self.assertEqual(web.get(path).status, 200)
        self.assertTrue(web_support.validated(web.get("/healthz").json)["healthy"])

    def test_a_server_is_alive_by_the_librarys_rule(self):
        region = self.cluster()
        region.ok("shmnm_addnode", "a b/c%", 9)
        for server, state in (("alpha", 1), ("beta", 2), ("gamma", 3), ("a b/c%", 1)):
            region.ok("shmnm_setnodestat", server, state)
        web = self.serve()
        for path, alive in (("alpha", True), ("beta", False), ("gamma", False), ("a%20b%2Fc%25", True)):
            with self.subTest(path):
                answer = web.get(f"/servers/{path}/alive")
                web_support.validated(answer.json)
                self.assertEqual((answer.status, answer.json["alive"]), (200 if alive else 503, alive))

    def test_a_condition_is_answered(self):
        region = self.cluster()
        region.ok("shmnm_setnodestat", "alpha", 1)
        web = self.serve()
        for condition, holds in (("servers/alpha/nodestat=1", True), ("servers/alpha/nodestat+%3D+2", False),
                                 ("any%20servers/*/nodestat=1%20and%20not%20cluster/clstat=9", True)):
            with self.subTest(condition):
                answer = web.get(f"/query?condition={condition}")
                self.assertEqual((answer.status, answer.json["holds"]), (200, holds))
                support.validated(answer.text)

    def test_a_snapshot_is_one_line_and_the_bytes_in_use(self):
        self.cluster()
        web = self.serve()
        region = self.dumped()
        for target in ("/snapshot", "/snapshot?all"):
            with self.subTest(target):
                answer = web.get(target)
                line, _, rest = answer.body.partition(b"\n")
                head = web_support.validated(json.loads(line))
                rebuilt = bytearray(head["size"])
                for offset, length in head["ranges"]:
                    rebuilt[offset : offset + length], rest = rest[:length], rest[length:]
                self.assertEqual((bytes(rebuilt), rest), (region, b""))
                self.assertEqual(head["counts"], {"servers": 4, "hb": 3, "np": 2, "fst": 1})
                self.assertEqual(head["configured"], head["counts"])
                self.assertFalse(head["marks"]["up"])
        self.assertLess(len(web.get("/snapshot").body), len(web.get("/snapshot?all").body) / 2)

    def test_a_snapshot_that_is_known_is_not_sent_again(self):
        region = self.cluster()
        web = self.serve()
        tag = web.get("/snapshot").fields["ETag"]
        known = web.get("/snapshot", If_None_Match=tag)
        self.assertEqual((known.status, known.body, known.fields["ETag"]), (304, b"", tag))
        self.assertEqual(web.get("/snapshot?all", If_None_Match=tag).status, 200)
        self.assertEqual(web.get("/snapshot", If_None_Match='"other"').status, 200)
        region.ok("shmnm_setclstat", 4)
        self.shown(web)
        changed = web.get("/snapshot", If_None_Match=tag)
        self.assertEqual(changed.status, 200)
        self.assertNotEqual(changed.fields["ETag"], tag)

    def test_one_connection_carries_many_requests(self):
        self.cluster()
        web = self.serve()
        connection = web.connection()
        self.addCleanup(connection.close)
        for path in PATHS * 3:
            connection.request("GET", path)
            response = connection.getresponse()
            body = response.read()
            self.assertEqual(len(body), int(response.headers["Content-Length"]))
        both = web.raw(b"GET /healthz HTTP/1.1\r\nHost: localhost\r\n\r\nGET /healthz HTTP/1.1\r\nHost: localhost\r\nConnection: close\r\n\r\n")
        self.assertEqual(both.count(b"HTTP/1.1 200 OK\r\n"), 2)

    def test_the_page_is_whole_and_runs_only_its_own_scripts(self):
        self.cluster()
        web = self.serve()
        page = web.get("/")
        self.assertEqual((page.status, page.fields["Content-Type"]), (200, "text/html; charset=utf-8"))
        policy = page.fields["Content-Security-Policy"]
        self.assertIn("default-src 'none'", policy)
        self.assertIn("require-trusted-types-for 'script'", policy)
        self.assertNotIn("unsafe", policy)
        for tag in ("script", "style"):
            texts = re.findall(rf"<{tag}>(.*?)</{tag}>", page.text, re.S)
            hashes = ["'sha256-" + base64.b64encode(hashlib.sha256(text.encode()).digest()).decode() + "'" for text in texts]
            self.assertTrue(hashes)
            self.assertIn(f"{tag}-src {' '.join(hashes)};", policy)
        self.assertNotRegex(page.text, r"(src|href)=\"(?!data:,|#)")


if __name__ == "__main__":
    web_support.main()
