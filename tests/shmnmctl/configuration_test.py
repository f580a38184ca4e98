"""verify --config and serve: configurations with which no cluster can work are refused, with the line and what to do."""
import support
from support import ToolTest, path

COUNTS = ["<server>4</server>", "<hbr>3</hbr>", "<npr>2</npr>", "<fstr>1</fstr>"]
MEMBERS = ['<server name="alpha" priority="0"/>', '<server name="beta" priority="1"/>', '<hb type="lan" name="lanhb1" priority="0"/>',
           '<np type="ping" name="pingnp1" priority="0"/>']
FIRST_COUNT, FIRST_MEMBER = 5, 14  # their lines


class Configuration(ToolTest):
    def write(self, counts=COUNTS, members=MEMBERS):
        """A file with each count and each member on a line of its own."""
        lines = ["<?xml version='1.0'?>", "<!-- <server>", "--> <root><all>", "<num>", *counts]
        lines += [""] * (FIRST_COUNT + 4 - 1 - len(lines))
        lines += ["</num></all>", "<shmnm><text><![CDATA[<num>", "]]></text></shmnm>", "<cluster", "  name = 'one > two'>", *members, "</cluster></root>"]
        self.file = self.folder / "etc/cluster.xml"
        self.file.write_text("\n".join(lines) + "\n")

    def verified(self):
        """What verify says of the file, as (line, text), in both forms."""
        name = path(self.file)
        result = self.tool("verify", "--config", name)
        document = self.tool("verify", "--config", name, "--format", "json")
        self.assertEqual((document.status, document.json["kind"], document.json["file"]), (result.status, "configuration", name))
        problems = [(problem["line"], problem["problem"]) for problem in document.json["problems"]]
        self.assertEqual(result.lines, [f"{name}:{line}: {text}" for line, text in problems])
        self.assertEqual((result.status, result.err), (1 if problems else 0, ""))
        return problems

    def refused(self, line, text):
        """Both commands refuse the file for this problem, and no region is created."""
        problems = self.verified()
        self.assertEqual(problems, [(line, text)])
        result = self.tool("serve", "--until-eof", input="")
        self.assertEqual((result.status, result.out), (5, ""))
        self.assertEqual(result.err, f"shmnmctl: invalid configuration {self.environment['KZM_INSTALL_PATH']}/etc/cluster.xml, line {line}: {text}\n")
        self.assertEqual(self.tool("status").status, 3)

    def test_a_configuration_that_works_has_no_problems(self):
        self.write()
        self.assertEqual(self.verified(), [])
        example = self.tool("verify", "--config", path(support.PROJECT / "examples/cluster.xml"))
        self.assertEqual((example.status, example.out, example.err), (0, "", ""))

    def test_misspelt_counts_are_refused(self):
        for count, text in (
            ("<servers>4</servers>", 'unknown element "servers" in /root/all/num; did you mean "server"?'),
            ("<hb>4</hb>", 'unknown element "hb" in /root/all/num; did you mean "hbr"?'),
            ("<limit>4</limit>", 'unknown element "limit" in /root/all/num; use server, hbr, npr and fstr'),
            ("<server>5</server>", "/root/all/num has server twice, and only the first counts, in line 5: remove one of them"),
        ):
            with self.subTest(count):
                self.write(COUNTS[:3] + [count])
                self.refused(FIRST_COUNT + 3, text)

    def test_counts_that_are_no_numbers_or_below_0_are_refused(self):
        for value, text in (
            ("few", 'the number "few" of npr in /root/all/num is not a 32-bit number, and 16 would be used instead: use digits alone'),
            ("0x10", 'the number "0x10" of npr in /root/all/num is not a 32-bit number, and 16 would be used instead: use digits alone'),
            ("2147483648", 'the number "2147483648" of npr in /root/all/num is not a 32-bit number, and 16 would be used instead: use digits alone'),
            ("-1", "the number -1 of npr in /root/all/num is negative: use 0 or more"),
        ):
            with self.subTest(value):
                self.write(COUNTS[:2] + [f"<npr>{value}</npr>"])
                self.refused(FIRST_COUNT + 2, text)

    def test_a_region_whose_size_would_wrap_is_refused(self):
        for server, hbr in ((70_000, 70_000), (2_147_483_647, 2_147_483_647), (3_000_000, 1_000)):
            with self.subTest(server=server, hbr=hbr):
                self.write([f"<server>{server}</server>", f"<hbr>{hbr}</hbr>"])
                self.refused(FIRST_COUNT - 1, f"a region with servers {server}, hb {hbr}, np 16, fst 1 would exceed 4294967295 bytes, "
                                              "and its size would wrap: lower the numbers")

    def test_room_for_one_server_is_refused_because_tables_would_overlap(self):
        self.write(["<server>1</server>"], MEMBERS[:1])
        self.refused(FIRST_COUNT - 1, "with room for 1 server the tables would overlap: set server to 2 or more")

    def test_members_that_cannot_be_registered_are_refused(self):
        for member, text in (
            ('<server priority="2"/>', "a server in /root/cluster has no name: give it one"),
            ('<server name="a"/>', "a server in /root/cluster has no priority: give it one"),
            ('<server name="a" priority="first"/>', 'the priority "first" of a server in /root/cluster is not a 32-bit number: use -2147483648 to 2147483647'),
            ('<hb type="lan" name="a" priority="-1"/>', 'the priority "-1" of a hb in /root/cluster is not a 32-bit number: use 0 to 4294967295'),
            ('<hb name="a" priority="1"/>', "a hb in /root/cluster has no type: give it one"),
            ('<sever name="a" priority="1"/>', 'unknown element "sever" in /root/cluster; did you mean "server"?'),
            ('<disk name="a" priority="1"/>', 'unknown element "disk" in /root/cluster; use server, hb and np'),
            ('<server name="a" priority="2"><hb/></server>', "the server a in /root/cluster contains an element hb: put members side by side"),
            (f'<server name="{"n" * 256}" priority="2"/>', f'the name "{"n" * 256}" of a server in /root/cluster is longer than 255 bytes: shorten it'),
            (f'<hb type="{"t" * 32}" name="a" priority="1"/>', f'the type "{"t" * 32}" of a hb in /root/cluster is longer than 31 bytes: shorten it'),
            (f'<np type="t" name="{"n" * 32}" priority="1"/>', f'the name "{"n" * 32}" of a np in /root/cluster is longer than 31 bytes: shorten it'),
        ):
            with self.subTest(member[:40]):
                self.write(members=MEMBERS + [member])
                self.refused(FIRST_MEMBER + 4, text)

    def test_names_of_the_longest_size_are_accepted(self):
        self.write(members=[f'<server name="{"n" * 255}" priority="2"/>', f'<hb type="{"t" * 31}" name="{"n" * 31}" priority="1"/>'])
        self.assertEqual(self.verified(), [])

    def test_double_members_are_refused(self):
        for member, element, line in (('<server name="beta" priority="7"/>', "server beta", 1), ('<hb type="lan" name="lanhb1" priority="7"/>', "hb lanhb1", 2),
                                      ('<np type="ping" name="pingnp1" priority="7"/>', "np pingnp1", 3)):
            with self.subTest(element):
                self.write(members=MEMBERS + [member])
                self.refused(FIRST_MEMBER + 4, f"/root/cluster has the {element} twice, first in line {FIRST_MEMBER + line}: remove one of them")
        self.write(members=MEMBERS + ['<hb type="disk" name="lanhb1" priority="0"/>', '<hb type="disk" name="pingnp1" priority="0"/>'])
        self.assertEqual(self.verified(), [])

    def test_servers_of_one_priority_are_refused(self):
        self.write(members=MEMBERS + ['<server name="gamma" priority="0x1"/>'])
        self.refused(FIRST_MEMBER + 4, "the servers beta and gamma in /root/cluster have the same priority, 1, by which the states of resources find "
                                       "their server: give each its own")

    def test_more_members_than_there_is_room_for_are_refused_at_the_first_too_many(self):
        self.write(members=[f'<server name="s{i}" priority="{i}"/>' for i in range(6)])
        self.refused(FIRST_MEMBER + 4, "/root/cluster has more server elements than /root/all/num has room for, 4: raise server there")
        self.write(members=[f'<np type="t" name="n{i}" priority="1"/>' for i in range(3)])
        self.refused(FIRST_MEMBER + 2, "/root/cluster has more np elements than /root/all/num has room for, 2: raise npr there")

    def test_a_file_that_is_no_xml_is_refused_where_it_ceases_to_be(self):
        for count, line in (("<server>4</sever>", 7), ("<server>&amq;</server>", 7), ("<server", 9), ("\x01", 7), ("</num></all></root><root>", 7)):
            with self.subTest(count):
                self.write(COUNTS[:2] + [count, ""])
                self.refused(line, "not well-formed XML without a document type, or too many elements: correct it here")

    def test_verify_lists_every_problem_and_serve_the_first(self):
        self.write(["<sever>4</sever>", "<hbr>some</hbr>"], MEMBERS + ["<disk/>", MEMBERS[0]])
        problems = self.verified()
        self.assertEqual([line for line, _ in problems], [FIRST_COUNT, FIRST_COUNT + 1, FIRST_MEMBER + 4, FIRST_MEMBER + 5])
        result = self.tool("serve")
        self.assertEqual(result.status, 5)
        self.assertTrue(result.err.endswith(f', line {FIRST_COUNT}: {problems[0][1]}; 3 more: "shmnmctl verify --config" lists all\n'), result.err)

    def test_a_file_that_cannot_be_read_is_no_answer_but_an_error(self):
        for file in (self.folder / "missing", self.folder / "etc"):
            result = self.tool("verify", "--config", path(file))
            self.assertEqual((result.status, result.out), (5, ""))
            self.assertIn("cannot read the configuration ", result.err)

    def test_a_configuration_and_a_dump_are_not_verified_at_once(self):
        for dump in (["FILE"], ["--file", "FILE"]):
            self.assertEqual(self.tool("verify", "--config", "cluster.xml", *dump).status, 2)

    def test_the_library_still_takes_what_is_refused_here(self):
        self.write(["<servers>4</servers>", "<hbr>few</hbr>"], MEMBERS + MEMBERS + ['<server name="gamma" priority="0"/>'])
        self.assertEqual(len(self.verified()), 7)
        api = self.region()
        self.assertEqual(api.ok("shmnm_getmaxvalue_ex"), ["128", "16", "16"])
        api.ok("shmnm_addnode", "alpha", 0)
        api.ok("shmnm_addnode", "beta", 0)


if __name__ == "__main__":
    support.main()
