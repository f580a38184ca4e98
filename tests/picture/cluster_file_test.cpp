// Configurations: what they say, what is wrong with them and on which line, and the size of their region.
#include "picture/cluster_file.h"

#include <gmock/gmock.h>

#include <filesystem>
#include <string>
#include <vector>

#include "picture/error.h"
#include "support/child.h"
#include "support/temporary_folder.h"

namespace picture {
namespace {

using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::Optional;

class ClusterFileTest : public testing::Test {
  protected:
    std::string file() const { return (folder_.path() / "cluster.xml").string(); }

    /// Writes a file whose counts begin in line 5 and whose members begin in line 14.
    void write(std::vector<std::string> counts, const std::vector<std::string>& members) {
        std::string text = "<?xml version='1.0'?>\n<!-- <server>\n--> <root><all>\n<num>\n";
        counts.resize(8);
        for (const std::string& count : counts) text += count + "\n";
        text += "</num></all><text><![CDATA[<num>]]></text><cluster name = 'one > two'>\n";
        for (const std::string& member : members) text += member + "\n";
        folder_.write("cluster.xml", text + "</cluster></root>\n");
    }

    std::vector<std::string> problems() const {
        std::vector<std::string> all;
        for (const ConfigurationProblem& problem : check_cluster_file(file()).problems) {
            all.push_back(std::to_string(problem.line) + ": " + problem.text);
        }
        return all;
    }
    std::vector<std::string> problems_of_counts(const std::vector<std::string>& counts) {
        write(counts, {});
        return problems();
    }
    /// With room for two of each.
    std::vector<std::string> problems_of_members(const std::vector<std::string>& members) {
        write({"<server>2</server>", "<hbr>2</hbr>", "<npr>2</npr>"}, members);
        return problems();
    }

    test::TemporaryFolder folder_;
};

TEST_F(ClusterFileTest, HasTheCountsAndTheMembersInTheirOrder) {
    write({"<server>4</server>", "<hbr>3</hbr>", "<npr>2</npr>", "<fstr>0</fstr>"},
          {"<np type='ping' name='p1' priority='4294967295'/>", "<server name='beta' priority='-2147483648'/>",
           "<hb type='lan' name='l1' priority='0x10'/>", "<server name='alpha' priority='2147483647'/>"});
    const ClusterFile read = read_cluster_file(file());
    EXPECT_EQ(read.counts, (Counts{.servers = 4, .hb = 3, .np = 2, .fst = 0}));
    std::vector<std::string> members;
    for (const ClusterMember& member : read.members) {
        members.push_back(to_text(member) + " " + std::to_string(member.priority));
    }
    EXPECT_THAT(members, ElementsAre("np resource ping/p1 4294967295", "server beta -2147483648",
                                     "hb resource lan/l1 16", "server alpha 2147483647"));
}

TEST_F(ClusterFileTest, HasTheLibrarysCountsWhereItNamesNone) {
    for (const char* const text :
         {"<root/>", "<root><all><num/></all></root>", "<root><all><num a='b'/></all></root>"}) {
        folder_.write("cluster.xml", text);
        EXPECT_EQ(read_cluster_file(file()).counts, (Counts{.servers = 128, .hb = 16, .np = 16, .fst = 1})) << text;
    }
}

TEST_F(ClusterFileTest, MayHaveNamesOfTheGreatestLengthAndOneNameInSeveralTables) {
    const std::string server(255, 's'), name(31, 'n'), type(31, 't');
    EXPECT_THAT(problems_of_members({"<server name='" + server + "' priority='0'/>",
                                     "<hb type='" + type + "' name='" + name + "' priority='0'/>",
                                     "<np type='" + type + "' name='" + name + "' priority='0'/>",
                                     "<np type='other' name='" + name + "' priority='0'/>",
                                     "<server name='" + name + "' priority='1'/>"}),
                IsEmpty());
}

TEST_F(ClusterFileTest, MayAskForAPriorityThatIsAsLongAsANumber) {
    EXPECT_THAT(problems_of_members({"<server name='a' priority='" + std::string(30, '0') + "7'/>"}), IsEmpty());
    EXPECT_THAT(problems_of_members({"<server name='a' priority='" + std::string(31, '0') + "7'/>"}),
                ElementsAre(HasSubstr("is longer than 31 bytes")));
}

TEST_F(ClusterFileTest, IsRefusedForWrongCountsWithTheirLines) {
    EXPECT_THAT(
        problems_of_counts({"<servers>4</servers>", "<limit>4</limit>", "<hbr>1</hbr>", "<hbr>2</hbr>"}),
        ElementsAre("5: unknown element \"servers\" in /root/all/num; did you mean \"server\"?",
                    "6: unknown element \"limit\" in /root/all/num; use server, hbr, npr and fstr",
                    "8: /root/all/num has hbr twice, and only the first counts, in line 7: remove one of them"));
    EXPECT_THAT(
        problems_of_counts({"<npr>few</npr>", "<hbr>-1</hbr>", "<fstr>-0</fstr>", "<server>2147483648</server>"}),
        ElementsAre("5: the number \"few\" of npr in /root/all/num is not a 32-bit number, and 16 would be used "
                    "instead: use digits alone",
                    "6: the number -1 of hbr in /root/all/num is negative: use 0 or more",
                    "8: the number \"2147483648\" of server in /root/all/num is not a 32-bit number, and 128 "
                    "would be used instead: use digits alone"));
    EXPECT_THAT(problems_of_counts({"<server kind='x'>2</server>", "<!-- <npr> -->", "<fstr>0</fstr>"}), IsEmpty());
}

TEST_F(ClusterFileTest, IsRefusedForCountsThatMakeNoRegion) {
    constexpr const char* overlap = "4: with room for 1 server the tables would overlap: set server to 2 or more";
    EXPECT_THAT(problems_of_counts({"<server>1</server>"}), ElementsAre(overlap));
    EXPECT_THAT(problems_of_counts({"<server>1</server>", "<hbr>1</hbr>", "<npr>0</npr>"}), ElementsAre(overlap));
    EXPECT_THAT(problems_of_counts({"<server>1</server>", "<hbr>0</hbr>", "<npr>1</npr>"}), ElementsAre(overlap));
    EXPECT_THAT(problems_of_counts({"<server>1</server>", "<hbr>0</hbr>", "<npr>0</npr>"}), IsEmpty());
    EXPECT_THAT(problems_of_counts({"<server>2</server>", "<hbr>1</hbr>", "<npr>1</npr>"}), IsEmpty());
    EXPECT_THAT(problems_of_counts({"<server>70000</server>", "<hbr>70000</hbr>"}),
                ElementsAre(HasSubstr("4: a region with servers 70000, hb 70000, np 16, fst 1 would exceed")));
    // Nothing is said of a size that follows from counts that are in doubt.
    EXPECT_THAT(problems_of_counts({"<server>1</server>", "<hbr>x</hbr>"}), ElementsAre(HasSubstr("6: the number")));
}

TEST_F(ClusterFileTest, IsRefusedForMembersThatCannotBeRegistered) {
    const auto problem_of = [&](const std::string& member) {
        const std::vector<std::string> all = problems_of_members({"", member});
        return all.size() == 1 ? all[0] : std::to_string(all.size()) + " problems";
    };
    const std::string n256(256, 'n'), n32(32, 'n');
    EXPECT_EQ(problem_of("<server priority='2'/>"), "15: a server in /root/cluster has no name: give it one");
    EXPECT_EQ(problem_of("<server name='' priority='2'/>"), "15: a server in /root/cluster has no name: give it one");
    EXPECT_EQ(problem_of("<server name='a'/>"), "15: a server in /root/cluster has no priority: give it one");
    EXPECT_EQ(problem_of("<hb name='a' priority='1'/>"), "15: a hb in /root/cluster has no type: give it one");
    constexpr const char* signed_range =
        "a server in /root/cluster is not a 32-bit number: use -2147483648 to 2147483647";
    constexpr const char* range = "a hb in /root/cluster is not a 32-bit number: use 0 to 4294967295";
    for (const std::string priority : {"first", "2147483648", "-2147483649"}) {
        EXPECT_EQ(problem_of("<server name='a' priority='" + priority + "'/>"),
                  "15: the priority \"" + priority + "\" of " + signed_range);
    }
    for (const std::string priority : {"first", "-1", "4294967296"}) {
        EXPECT_EQ(problem_of("<hb type='t' name='a' priority='" + priority + "'/>"),
                  "15: the priority \"" + priority + "\" of " + range);
    }
    EXPECT_EQ(problem_of("<sever name='a' priority='1'/>"),
              "15: unknown element \"sever\" in /root/cluster; did you mean \"server\"?");
    EXPECT_EQ(problem_of("<hbb name='a' priority='1'/>"),
              "15: unknown element \"hbb\" in /root/cluster; did you mean \"hb\"?");
    EXPECT_EQ(problem_of("<disk name='a' priority='1'/>"),
              "15: unknown element \"disk\" in /root/cluster; use server, hb and np");
    EXPECT_EQ(problem_of("<server name='a' priority='2'><hb/></server>"),
              "15: the server a in /root/cluster contains an element hb: put members side by side");
    EXPECT_EQ(problem_of("<server name='" + n256 + "' priority='2'/>"),
              "15: the name \"" + n256 + "\" of a server in /root/cluster is longer than 255 bytes: shorten it");
    EXPECT_EQ(problem_of("<hb type='" + n32 + "' name='a' priority='1'/>"),
              "15: the type \"" + n32 + "\" of a hb in /root/cluster is longer than 31 bytes: shorten it");
    EXPECT_EQ(problem_of("<np type='t' name='" + n32 + "' priority='1'/>"),
              "15: the name \"" + n32 + "\" of a np in /root/cluster is longer than 31 bytes: shorten it");
}

TEST_F(ClusterFileTest, IsRefusedForMembersThatDoNotGoTogether) {
    EXPECT_THAT(problems_of_members({"<server name='a' priority='0'/>", "<server name='a' priority='1'/>",
                                     "<np type='t' name='p' priority='0'/>", "<np type='t' name='p' priority='1'/>"}),
                ElementsAre("15: /root/cluster has the server a twice, first in line 14: remove one of them",
                            "17: /root/cluster has the np p twice, first in line 16: remove one of them"));
    EXPECT_THAT(
        problems_of_members({"<server name='a' priority='1'/>", "<server name='b' priority='0x1'/>"}),
        ElementsAre("15: the servers a and b in /root/cluster have the same priority, 1, by which the states of "
                    "resources find their server: give each its own"));
    // Said once, of the first too many.
    EXPECT_THAT(
        problems_of_members({"<server name='a' priority='0'/>", "<server name='b' priority='1'/>",
                             "<server name='c' priority='2'/>", "<server name='d' priority='3'/>"}),
        ElementsAre("16: /root/cluster has more server elements than /root/all/num has room for, 2: raise server "
                    "there"));
    EXPECT_THAT(problems_of_members({"<np type='t' name='a' priority='0'/>", "<np type='t' name='b' priority='1'/>",
                                     "<np type='t' name='c' priority='1'/>"}),
                ElementsAre("16: /root/cluster has more np elements than /root/all/num has room for, 2: raise npr "
                            "there"));
}

TEST_F(ClusterFileTest, ListsItsProblemsByTheirLinesAndRefusesWithTheFirst) {
    // Members before counts: problems are found in another order.
    folder_.write("cluster.xml", "<root><cluster>\n<x/>\n</cluster><all><num>\n<y/>\n<z/></num></all></root>");
    EXPECT_THAT(problems(), ElementsAre(HasSubstr("2: "), HasSubstr("4: "), HasSubstr("5: ")));
    const auto refusal = [&]() -> std::string {
        try {
            read_cluster_file(file());
            return "";
        } catch (const Error& error) {
            EXPECT_EQ(error.kind, ErrorKind::invalid_configuration);
            return error.what();
        }
    };
    const std::string first = ", line 2: unknown element \"x\" in /root/cluster; use server, hb and np";
    EXPECT_THAT(refusal(), testing::EndsWith(first + "; 2 more: \"shmnmctl verify --config\" lists all"));
    folder_.write("cluster.xml", "<root><cluster>\n<x/><y/></cluster></root>");
    EXPECT_THAT(refusal(), testing::EndsWith(first + "; 1 more: \"shmnmctl verify --config\" lists all"));
    folder_.write("cluster.xml", "<root><cluster>\n<x/></cluster></root>");
    EXPECT_THAT(refusal(), testing::EndsWith(first));
    folder_.write("cluster.xml", "<root>\n<cluster>\n</cluste>\n</root>");
    EXPECT_THAT(refusal(), testing::EndsWith(", line 3: not well-formed XML without a document type, or too many "
                                             "elements: correct it here"));
}

TEST_F(ClusterFileTest, CountsLinesInCommentsAndCdata) {
    folder_.write("cluster.xml",
                  "<?xml version='1.0'?>\n<!--\n<cluster>\n--><root><?do\n<x>?><text>\n<![CDATA[<x>\n]]></text>"
                  "<!----><cluster>\n<x/><!-- > --><y\n/><z></z>\n</cluster></root>");
    EXPECT_THAT(problems(), ElementsAre(HasSubstr("8: unknown element \"x\""), HasSubstr("8: unknown element \"y\""),
                                        HasSubstr("9: unknown element \"z\"")));
    folder_.write("cluster.xml", "\n<root><cluster><x/></cluster></root>");
    EXPECT_THAT(problems(), ElementsAre(HasSubstr("2: unknown element \"x\"")));
    folder_.write("cluster.xml", "\n<root><cluster></x></cluster></root>");
    EXPECT_THAT(problems(), ElementsAre(HasSubstr("2: not well-formed XML")));
}

TEST_F(ClusterFileTest, IsRefusedIfItCannotBeRead) {
    const auto refusal = [](const std::string& name) -> std::string {
        try {
            check_cluster_file(name);
            return "";
        } catch (const Error& error) {
            EXPECT_EQ(error.kind, ErrorKind::no_configuration);
            return error.what();
        }
    };
    EXPECT_THAT(refusal(file()), testing::EndsWith("cluster.xml"));
    std::filesystem::create_directory(file());
    EXPECT_THAT(refusal(file()), testing::EndsWith("cluster.xml: it is not a regular file"));
}

TEST_F(ClusterFileTest, LiesBelowTheInstallationPath) {
    const test::ScopedEnvironment path("KZM_INSTALL_PATH", folder_.string().c_str());
    EXPECT_EQ(installed_cluster_file(), folder_.string() + "/etc/cluster.xml");
}

TEST(RegionSize, MustFitTheMachinesMemory) {
    const Counts counts{.servers = 16, .hb = 16, .np = 8, .fst = 1};
    EXPECT_EQ(size_problem(counts, 238'788), std::nullopt);
    EXPECT_THAT(size_problem(counts, 238'787),
                Optional(HasSubstr("would take 238788 bytes, and this machine has 238787 bytes of memory")));
    EXPECT_EQ(size_problem(counts, 0), std::nullopt) << "not known";
}

TEST(RegionSize, MustNotWrap) {
    constexpr uint64_t endless = UINT64_MAX;
    EXPECT_EQ(size_problem({.servers = 13'421'769, .hb = 0, .np = 0, .fst = 0}, endless), std::nullopt);
    EXPECT_THAT(size_problem({.servers = 13'421'770, .hb = 0, .np = 0, .fst = 0}, endless),
                Optional(HasSubstr("would exceed 4294967295 bytes, and its size would wrap")));
    EXPECT_THAT(size_problem({.servers = 70'000, .hb = 70'000, .np = 1, .fst = 1}, endless),
                Optional(HasSubstr("its size would wrap")));
}

}  // namespace
}  // namespace picture
