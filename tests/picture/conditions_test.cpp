// The grammar of conditions, and when each kind of condition holds.
#include "picture/conditions.h"

#include <gmock/gmock.h>

#include <string>

#include "picture/error.h"

namespace picture {
namespace {

using testing::HasSubstr;

const std::vector<Word>& picture() {
    static const std::vector<Word> words{
        {"cluster/waitstat", 0u},
        {"cluster/clstat", 1u},
        {"servers/alpha/pri", -5},
        {"servers/alpha/nodestat", 1u},
        {"servers/alpha/pingstat", 1u},
        {"servers/alpha/combstat", std::optional<uint32_t>()},
        {"servers/beta/pri", 2147483647},
        {"servers/beta/nodestat", 2u},
        {"servers/beta/pingstat", 1u},
        {"servers/beta/combstat", 7u},
        {"servers/a%2Ab%2F%20c/pingstat", 3u},
        {"hb/lan/lanhb1/svstat/alpha", 9u},
        {"hb/lan/lanhb1/svstat/beta", 8u},
        {"hb/disk/diskhb1/svstat/alpha", 9u},
        {"fst/piddata/agent/0", uint64_t{18446744073709551615u}},
        {"fst/piddata/agent/1", uint64_t{18446744073709551614u}},
    };
    return words;
}

struct Case {
    const char* text;
    bool holds;
};
void PrintTo(const Case& instance, std::ostream* stream) {
    *stream << instance.text;
}

class ValidCondition : public testing::TestWithParam<Case> {};

TEST_P(ValidCondition, HoldsExactlyWhenItShould) {
    const Condition condition(GetParam().text);
    EXPECT_EQ(condition.holds(picture()), GetParam().holds);
    EXPECT_EQ(condition.unmet(picture()).empty(), GetParam().holds);
}

INSTANTIATE_TEST_SUITE_P(Operators, ValidCondition,
                         testing::Values(Case{"cluster/clstat=1", true}, Case{"cluster/clstat=2", false},
                                         Case{"cluster/clstat==1", true}, Case{"cluster/clstat==2", false},
                                         Case{"cluster/clstat!=1", false}, Case{"cluster/clstat!=2", true},
                                         Case{"cluster/clstat<1", false}, Case{"cluster/clstat<2", true},
                                         Case{"cluster/clstat<=0", false}, Case{"cluster/clstat<=1", true},
                                         Case{"cluster/clstat>1", false}, Case{"cluster/clstat>0", true},
                                         Case{"cluster/clstat>=2", false}, Case{"cluster/clstat>=1", true}));

INSTANTIATE_TEST_SUITE_P(Blanks, ValidCondition,
                         testing::Values(Case{"cluster/clstat = 1", true}, Case{"  cluster/clstat\t=\n1  ", true},
                                         Case{"cluster/clstat =1", true}, Case{"cluster/clstat >= 2", false},
                                         Case{"not(cluster/clstat=1)", false},
                                         Case{"(cluster/clstat=1)and(cluster/waitstat=0)", true}));

INSTANTIATE_TEST_SUITE_P(Values, ValidCondition,
                         testing::Values(Case{"servers/alpha/pri=-5", true}, Case{"servers/alpha/pri = -5", true},
                                         Case{"servers/alpha/pri<0", true}, Case{"servers/alpha/pri>-6", true},
                                         Case{"servers/alpha/pri<-5", false}, Case{"servers/alpha/pri=-0x5", true},
                                         Case{"servers/alpha/pri=5", false}, Case{"servers/beta/pri=0x7fffffff", true},
                                         Case{"servers/beta/pri=0X7FFFFFFF", true},
                                         Case{"servers/beta/pri=+2147483647", true}, Case{"servers/beta/pri>-1", true},
                                         Case{"cluster/waitstat=-0", true}, Case{"cluster/waitstat>-1", true},
                                         Case{"cluster/clstat=0x01", true},
                                         Case{"fst/piddata/agent/0=18446744073709551615", true},
                                         Case{"fst/piddata/agent/0=0xffffffffffffffff", true},
                                         Case{"fst/piddata/agent/0>18446744073709551614", true},
                                         Case{"fst/piddata/agent/1=18446744073709551615", false},
                                         Case{"fst/piddata/agent/0=-1", false}));

INSTANTIATE_TEST_SUITE_P(
    None, ValidCondition,
    testing::Values(Case{"servers/alpha/combstat=none", true}, Case{"servers/alpha/combstat!=none", false},
                    Case{"servers/beta/combstat=none", false}, Case{"servers/beta/combstat!=none", true},
                    Case{"servers/alpha/combstat=0", false}, Case{"servers/alpha/combstat!=0", true},
                    Case{"servers/alpha/combstat<1", false}, Case{"servers/alpha/combstat>=0", false},
                    Case{"servers/alpha/combstat<=none", true}, Case{"servers/beta/combstat<none", false},
                    Case{"servers/beta/combstat>none", false}, Case{"exists servers/alpha/combstat", true}));

INSTANTIATE_TEST_SUITE_P(KeysThatDoNotExist, ValidCondition,
                         testing::Values(Case{"servers/gamma/pri=1", false}, Case{"servers/gamma/pri!=1", false},
                                         Case{"servers/gamma/pri<1", false}, Case{"servers/gamma/pri=none", false},
                                         Case{"not servers/gamma/pri=1", true}, Case{"servers/alpha=1", false},
                                         Case{"cluster/clsta=1", false}, Case{"cluster/clstat/=1", false},
                                         Case{"exists servers/gamma/pri", false},
                                         Case{"exists servers/alpha/pri", true}, Case{"exists servers/alpha", false},
                                         Case{"not exists servers/gamma/pri", true}));

INSTANTIATE_TEST_SUITE_P(
    Patterns, ValidCondition,
    testing::Values(Case{"all servers/*/pingstat>=1", true}, Case{"all servers/*/pingstat=1", false},
                    Case{"any servers/*/pingstat=3", true}, Case{"any servers/*/pingstat=2", false},
                    Case{"all servers/*/nodestat=1", false}, Case{"any servers/*/nodestat=1", true},
                    Case{"all servers/al*/nodestat=1", true}, Case{"all servers/*ta/nodestat=2", true},
                    Case{"all servers/b*a/nodestat=2", true}, Case{"all servers/b*e*a/nodestat=2", true},
                    Case{"all servers/**/nodestat>0", true}, Case{"any servers/*a*/nodestat=2", true},
                    Case{"any servers/alpha*/nodestat=1", true}, Case{"any servers/*alphax/nodestat=1", false},
                    Case{"any servers/*x*/nodestat=1", false}, Case{"any servers/a*pa/nodestat=1", false},
                    Case{"any servers/al*lpha/nodestat=1", false}, Case{"all hb/*/*/svstat/*>7", true},
                    Case{"all hb/lan/*/svstat/*=9", false}, Case{"all hb/*/*/svstat/alpha=9", true},
                    Case{"any */*=1", true}, Case{"any *=1", false}, Case{"any servers/*=1", false},
                    Case{"any */*/*/*/*=8", true}, Case{"any */*/*/*/*/*=8", false}, Case{"exists servers/*/pri", true},
                    Case{"exists np/*/*/stat", false}, Case{"all cluster/clstat=1", true},
                    Case{"any cluster/clstat=1", true}, Case{"servers/a%2Ab%2F%20c/pingstat=3", true},
                    Case{"any servers/*%2A*/pingstat=3", true}, Case{"any servers/*%2F*/pingstat!=3", false}));

INSTANTIATE_TEST_SUITE_P(OverNothing, ValidCondition,
                         testing::Values(Case{"all np/*/*/stat=0", false}, Case{"all np/*/*/stat!=0", false},
                                         Case{"any np/*/*/stat=0", false}, Case{"not all np/*/*/stat=0", true},
                                         Case{"all servers/gamma/pri=1", false}));

INSTANTIATE_TEST_SUITE_P(Joined, ValidCondition,
                         testing::Values(Case{"cluster/clstat=1 and cluster/waitstat=0", true},
                                         Case{"cluster/clstat=1 and cluster/waitstat=1", false},
                                         Case{"cluster/clstat=2 or cluster/waitstat=0", true},
                                         Case{"cluster/clstat=2 or cluster/waitstat=1", false},
                                         // "and" binds tighter than "or", "not" tighter than both.
                                         Case{"cluster/clstat=1 or cluster/clstat=1 and cluster/clstat=2", true},
                                         Case{"(cluster/clstat=1 or cluster/clstat=1) and cluster/clstat=2", false},
                                         Case{"cluster/clstat=2 and cluster/clstat=1 or cluster/clstat=1", true},
                                         Case{"cluster/clstat=2 and (cluster/clstat=1 or cluster/clstat=1)", false},
                                         Case{"not cluster/clstat=2 or cluster/clstat=1", true},
                                         Case{"not (cluster/clstat=2 or cluster/clstat=1)", false},
                                         Case{"not cluster/clstat=2 and cluster/clstat=2", false},
                                         Case{"not not cluster/clstat=1", true}, Case{"((cluster/clstat=1))", true},
                                         Case{"cluster/clstat=2 or cluster/clstat=3 or cluster/clstat=1", true},
                                         Case{"cluster/clstat=1 and cluster/waitstat=0 and exists cluster/nothing",
                                              false}));

TEST(InvalidPattern, ShowsWhatAKeyWithAStarNeedsAndItsPositionUnlessItIsTheFirst) {
    const auto refusal = [](const char* text) -> std::string {
        try {
            const Condition condition(text);
            return "";
        } catch (const Error& error) {
            return error.what();
        }
    };
    const std::string why = "a key with * needs \"any\" or \"all\" before it, as in 'any servers/*/pri=0'";
    EXPECT_EQ(refusal("servers/*/pri=1"), why);
    EXPECT_EQ(refusal(" servers/*/pri=1"), "invalid condition at character 2, \"servers/*/pri=1\": " + why);
}

struct WrongCase {
    const char* text;
    const char* place;
    const char* expected;
};
void PrintTo(const WrongCase& instance, std::ostream* stream) {
    *stream << instance.text;
}

class InvalidCondition : public testing::TestWithParam<WrongCase> {};

TEST_P(InvalidCondition, IsRefusedWithAMessageThatShowsThePosition) {
    try {
        const Condition condition(GetParam().text);
        FAIL() << "taken for a condition";
    } catch (const Error& error) {
        EXPECT_EQ(error.kind, ErrorKind::invalid_condition);
        EXPECT_THAT(error.what(), HasSubstr(std::string("invalid condition at character ") + GetParam().place + ": " +
                                            GetParam().expected));
    }
}

INSTANTIATE_TEST_SUITE_P(
    , InvalidCondition,
    testing::Values(
        WrongCase{"", "1, its end", "a key is expected"}, WrongCase{"   ", "4, its end", "a key is expected"},
        WrongCase{"a", "2, its end", "one of = != < <= > >= is expected"},
        WrongCase{"a 1", "3, \"1\"", "one of = != < <= > >= is expected"},
        WrongCase{"a=", "3, its end", "a number is expected"}, WrongCase{"a=b", "3, \"b\"", "a number is expected"},
        WrongCase{"a= 1x", "4, \"1x\"", "a number is expected"}, WrongCase{"a=0x", "3, \"0x\"", "a number is expected"},
        WrongCase{"a=--1", "3, \"--1\"", "a number is expected"},
        WrongCase{"a=1.5", "3, \"1.5\"", "a number is expected"},
        WrongCase{"a=18446744073709551616", "3, \"18446744073709551616\"", "a number is expected"},
        WrongCase{"a=<1", "3, \"<1\"", "a number is expected"}, WrongCase{"a= =1", "4, \"=1\"", "a number is expected"},
        WrongCase{"a!1", "2, \"!1\"", "one of = != < <= > >= is expected"},
        WrongCase{"a==", "4, its end", "a number is expected"}, WrongCase{"(=1", "2, \"=1\"", "a key is expected"},
        WrongCase{"a=1 0123456789012345678901234567890123456789", "5, \"0123456789012345678901234567890123456789\"",
                  "\"and\", \"or\" or the end is expected"},
        WrongCase{"=1", "1, \"=1\"", "a key is expected"},
        WrongCase{"a=1 b=2", "5, \"b=2\"", "\"and\", \"or\" or the end is expected"},
        WrongCase{"a=1 && b=2", "5, \"&& b=2\"", "\"and\", \"or\" or the end is expected"},
        WrongCase{"a=1 AND b=2", "5, \"AND b=2\"", "\"and\", \"or\" or the end is expected"},
        WrongCase{"a=1 and", "8, its end", "a key is expected"},
        WrongCase{"a=1 or or b=1", "8, \"or b=1\"", "a key is expected"},
        WrongCase{"and a=1", "1, \"and a=1\"", "a key is expected"},
        WrongCase{"all all a=1", "5, \"all a=1\"", "a key is expected"},
        WrongCase{"all any a=1", "5, \"any a=1\"", "a key is expected"},
        WrongCase{"all not a=1", "5, \"not a=1\"", "a key is expected"},
        WrongCase{"a=all", "3, \"all\"", "a number is expected"}, WrongCase{"not", "4, its end", "a key is expected"},
        WrongCase{"exists", "7, its end", "a key is expected"},
        WrongCase{"exists a=1", "9, \"=1\"", "\"and\", \"or\" or the end is expected"},
        WrongCase{"all exists a", "5, \"exists a\"", "a key is expected"},
        WrongCase{"(a=1", "5, its end", "\"and\", \"or\" or \")\" is expected"},
        WrongCase{"(a=1 b=1", "6, \"b=1\"", "\"and\", \"or\" or \")\" is expected"},
        WrongCase{"a=1)", "4, \")\"", "\"and\", \"or\" or the end is expected"},
        WrongCase{"()", "2, \")\"", "a key is expected"},
        WrongCase{"a=1 or servers/*/pri=1", "8, \"servers/*/pri=1\"",
                  "a key with * needs \"any\" or \"all\" before it, as in 'any servers/*/pri=0'"},
        WrongCase{"a=1 \x1b[31m\n\xff", "5, \"%1B[31m%0A%FF\"", "\"and\", \"or\" or the end is expected"},
        WrongCase{"a=1 0123456789012345678901234567890123456789XY",
                  "5, \"0123456789012345678901234567890123456789...\"", "\"and\", \"or\" or the end is expected"}));

/// Why a condition can never hold; "" if it may.
std::string never(const char* text) {
    try {
        Condition(text).expect_possible();
        return "";
    } catch (const Error& error) {
        EXPECT_EQ(error.kind, ErrorKind::invalid);
        return error.what();
    }
}

TEST(ImpossibleCondition, ComparesAWordWithAValueThatItCannotHave) {
    EXPECT_EQ(never("cluster/clstat=-1"),
              "\"cluster/clstat=-1\" can never hold: use a value from 0 to 4294967295 for cluster/clstat");
    EXPECT_EQ(never("servers/a/pri = 2147483648"),
              "\"servers/a/pri = 2147483648\" can never hold: use a value from -2147483648 to 2147483647 for "
              "servers/a/pri");
    EXPECT_EQ(never("cluster/alive=2"),
              "\"cluster/alive=2\" can never hold: use a value from 0 to 1 for cluster/alive");
    EXPECT_EQ(never("all servers/*/combstat<0"),
              "\"all servers/*/combstat<0\" can never hold: use a value from 0 to 4294967295 or none for "
              "servers/*/combstat");
    for (const char* const text :
         {"cluster/clstat=4294967296", "cluster/clstat>4294967295", "cluster/clstat<0", "cluster/clstat<=-1",
          "cluster/clstat=none", "any bridge/*=none", "any hb/*/*/svstat/* = -1", "fst/piddata/a/0<0",
          "fst/pids/a/0>4294967295", "cluster/clstat=1 and cluster/clstat=-1",
          "(cluster/clstat=-1 or cluster/bwflag=-1) and cluster/clstat=1"}) {
        EXPECT_NE(never(text), "") << text;
    }
}

TEST(ImpossibleCondition, IsNoneThatAnyRegionMayMeet) {
    for (const char* const text :
         {"cluster/clstat=4294967295", "cluster/clstat>=0", "cluster/clstat<=0", "cluster/clstat>4294967294",
          "cluster/clstat!=-1", "cluster/clstat!=none", "servers/a/pri=-2147483648", "cluster/hbinfo_a=0",
          "servers/a/combstat=none", "servers/a/combstat=3", "any */*/pri=-1", "fst/piddata/a/0=18446744073709551615",
          "cluster/clstat=-1 or cluster/clstat=1", "not cluster/clstat=-1", "exists servers/nobody/pri"}) {
        EXPECT_EQ(never(text), "") << text;
    }
}

TEST(Value, MayHaveBlanksBeforeIt) {
    for (const char* const text : {"17", " 17", "  17", "   0x11", " +17"}) {
        EXPECT_EQ(Value::parse(text), Value(uint32_t{17})) << text;
    }
    EXPECT_EQ(Value::parse(" none"), Value());
    EXPECT_EQ(Value::parse(" "), std::nullopt);
}

TEST(ConditionNesting, IsLimited) {
    const auto nested = [](const char* opening, size_t times, const char* closing) {
        std::string text;
        for (size_t i = 0; i < times; ++i) text += opening;
        text += "cluster/clstat=1";
        for (size_t i = 0; i < times; ++i) text += closing;
        return text;
    };
    EXPECT_TRUE(Condition(nested("(", 99, ")")).holds(picture()));
    EXPECT_FALSE(Condition(nested("not ", 99, "")).holds(picture()));
    EXPECT_THROW(Condition{nested("(", 100, ")")}, Error);
    EXPECT_THROW(Condition{nested("not ", 100, "")}, Error);
    EXPECT_THROW(Condition{nested("(", 1'000'000, ")")}, Error);
}

TEST(ConditionLength, IsNotLimited) {
    std::string text = "cluster/clstat=1";
    for (int i = 0; i < 100'000; ++i) text += " and cluster/clstat=1";
    EXPECT_TRUE(Condition(text).holds(picture()));
    EXPECT_FALSE(Condition(text + " and cluster/clstat=2").holds(picture()));
}

TEST(UnmetCondition, ReportsWhatKeepsItFromHolding) {
    const auto unmet = [](const char* text) { return Condition(text).unmet(picture()); };
    EXPECT_EQ(unmet("cluster/clstat = 2"), "cluster/clstat = 2 (it is 1)");
    EXPECT_EQ(unmet("servers/alpha/combstat>0"), "servers/alpha/combstat>0 (it is none)");
    EXPECT_EQ(unmet("servers/gamma/pri=1"), "servers/gamma/pri=1 (no such key)");
    EXPECT_EQ(unmet("exists servers/gamma/pri"), "exists servers/gamma/pri (no such key)");
    EXPECT_EQ(unmet("all servers/*/nodestat=1"), "all servers/*/nodestat=1 (servers/beta/nodestat is 2)");
    EXPECT_EQ(unmet("any servers/*/pingstat=2"), "any servers/*/pingstat=2 (servers/alpha/pingstat is 1, 2 more)");
    EXPECT_EQ(unmet("any servers/*/nodestat=5"), "any servers/*/nodestat=5 (servers/alpha/nodestat is 1, 1 more)");
    EXPECT_EQ(unmet("all np/*/*/stat=1"), "all np/*/*/stat=1 (no such key)");
    EXPECT_EQ(unmet("not  (cluster/clstat=1 or cluster/clstat=2)"), "not  (cluster/clstat=1 or cluster/clstat=2)");
    EXPECT_EQ(unmet("cluster/clstat=1 and cluster/waitstat=2 and (cluster/clstat=3 or not cluster/clstat=1)"),
              "cluster/waitstat=2 (it is 0) and (cluster/clstat=3 (it is 1) or not cluster/clstat=1)");
    EXPECT_EQ(unmet("cluster/clstat=2 or cluster/clstat=1 and cluster/clstat=3"),
              "cluster/clstat=2 (it is 1) or cluster/clstat=3 (it is 1)");
    EXPECT_EQ(unmet("servers/\xff\x1b/pri=1"), "servers/%FF%1B/pri=1 (no such key)");
    EXPECT_EQ(unmet("cluster/clstat=1"), "");
}

}  // namespace
}  // namespace picture
