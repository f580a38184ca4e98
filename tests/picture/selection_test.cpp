// Which rows and words a selection of prefixes and a condition shows.
#include "picture/selection.h"

#include <gmock/gmock.h>

#include "picture/error.h"
#include "shmnmctl/full_picture.h"

namespace picture {
namespace {

using testing::Each;
using testing::ElementsAre;
using testing::HasSubstr;

/// Two servers, of which the second is alive, and two resources of each kind.
Picture small_picture() {
    Picture picture = test::full_picture(2, 2);
    picture.servers[0].record.nodestat = 2;
    picture.servers[1].record.nodestat = 1;
    picture.hb[1].svstat.states = {1, 9};
    picture.np[0].record.stat = 5;
    return picture;
}

ShownRows rows(const std::vector<std::string>& prefixes, const std::optional<std::string>& only = {}) {
    return Selection(prefixes, only).rows(small_picture());
}

std::string refusal(const std::string& only) {
    try {
        const Selection selection({}, only);
    } catch (const Error& error) {
        EXPECT_EQ(error.kind, ErrorKind::no_such_word);
        return error.what();
    }
    return "";
}

TEST(Selection, IsEverythingByDefault) {
    const ShownRows shown = rows({});
    EXPECT_THAT(shown.servers, ElementsAre(true, true));
    EXPECT_THAT(shown.hb, ElementsAre(true, true));
    EXPECT_THAT(shown.np, ElementsAre(true, true));
    EXPECT_THAT(shown.fst_pids, ElementsAre(true));
    EXPECT_TRUE(Selection().shows("cluster/clstat"));
}

TEST(Selection, ShowsRowsWithAWordAtOrBelowAPrefix) {
    ShownRows shown = rows({"servers/server001", "np/ping/ping0/svstat/server000"});
    EXPECT_THAT(shown.servers, ElementsAre(false, true));
    EXPECT_THAT(shown.hb, ElementsAre(false, false));
    EXPECT_THAT(shown.np, ElementsAre(true, false));
    EXPECT_THAT(shown.fst_pids, ElementsAre(false));
    shown = rows({"fst/piddata/agent/1"});
    EXPECT_THAT(shown.servers, ElementsAre(false, false));
    EXPECT_THAT(shown.fst_pids, ElementsAre(true));
    EXPECT_TRUE(shown.any());
    EXPECT_FALSE(rows({"servers/server00"}).any());
}

TEST(Selection, ShowsRowsForWhichAConditionOnTheirWordsHolds) {
    ShownRows shown = rows({}, "nodestat!=1");
    EXPECT_THAT(shown.servers, ElementsAre(true, false));
    EXPECT_THAT(shown.hb, Each(false));
    shown = rows({}, "any svstat/*=9");
    EXPECT_THAT(shown.hb, ElementsAre(false, true));
    EXPECT_THAT(shown.np, ElementsAre(false, false));
    shown = rows({}, "svstat/server000=1");
    EXPECT_THAT(shown.hb, ElementsAre(false, true));
    shown = rows({}, "pids/0>0 and piddata/0=18446744073709551615");
    EXPECT_THAT(shown.fst_pids, ElementsAre(true));
}

TEST(Selection, ShowsOnlyTablesWhoseRowsHaveEveryWordOfTheCondition) {
    // A word that a row does not have would not be 1.
    ShownRows shown = rows({}, "not nodestat=1");
    EXPECT_THAT(shown.servers, ElementsAre(true, false));
    EXPECT_THAT(shown.hb, Each(false));
    EXPECT_THAT(shown.np, Each(false));
    EXPECT_THAT(shown.fst_pids, Each(false));
    shown = rows({}, "stat!=5");
    EXPECT_THAT(shown.servers, Each(false));
    EXPECT_THAT(shown.hb, Each(true));
    EXPECT_THAT(shown.np, ElementsAre(false, true));
    shown = rows({}, "pri>0");
    EXPECT_THAT(shown.servers, Each(true));
    EXPECT_THAT(shown.hb, Each(true));
    EXPECT_THAT(shown.fst_pids, Each(false));
}

TEST(Selection, CombinesPrefixesAndACondition) {
    EXPECT_THAT(rows({"servers/server001", "hb"}, "pri>0").servers, ElementsAre(false, true));
    EXPECT_FALSE(rows({"servers/server001"}, "nodestat!=1").any());
}

TEST(Selection, KnowsAllKindsOfProcessIdsAndNoOthers) {
    for (const char* const word : {"pids/0", "pids/2", "piddata/0", "piddata/2"}) {
        EXPECT_THAT(rows({}, std::string(word) + ">0").fst_pids, ElementsAre(true)) << word;
        const std::string text = word, name = text.substr(0, text.size() - 1) + "agent" + text.substr(text.size() - 2);
        EXPECT_THAT(rows({"fst/" + name}).fst_pids, ElementsAre(true)) << name;
    }
    EXPECT_THAT(rows({}, "exists pids/3").fst_pids, ElementsAre(false));
    EXPECT_THAT(rows({"fst/pids/agent/3"}).fst_pids, ElementsAre(false));
}

TEST(Selection, ShowsAnyRowsIfItShowsSomeOfOneTable) {
    for (const char* const prefix : {"servers", "hb", "np", "fst"}) EXPECT_TRUE(rows({prefix}).any()) << prefix;
    EXPECT_FALSE(rows({"cluster"}).any());
}

TEST(Selection, LeavesOutNpResourcesForNetworkWideStates) {
    EXPECT_THAT(rows({}, "not network/server000=1").np, Each(false));
    EXPECT_THAT(rows({}, "not network/server000=1").hb, Each(true));
}

TEST(WordsOfRows, AreThoseOfAllTables) {
    EXPECT_THAT(words_of_rows(),
                ElementsAre("pri", "nodestat", "nodestat_nw", "downnotifystat", "isolateflag", "pingstat", "holdstat",
                            "dfailstatus", "combstat", "pri", "stat", "svstat/", "network/", "pids/", "piddata/"));
}

TEST(Selection, RefusesAConditionOverWordsThatNoRowHas) {
    EXPECT_EQ(refusal("svsta/alpha!=1"), "no row has a word \"svsta/alpha\"; did you mean \"svstat\"?");
    EXPECT_THAT(refusal("svstat//!=1"), HasSubstr("no row has a word \"svstat//\""));
    EXPECT_THAT(refusal("nodestatt!=1"), "no row has a word \"nodestatt\"; did you mean \"nodestat\"?");
    EXPECT_THAT(refusal("any servers/*/nodestat!=1"), HasSubstr("without the key of its row"));
    EXPECT_THAT(refusal("svstat=1"), HasSubstr("no row has a word \"svstat\""));
    EXPECT_THAT(refusal("nodestat=1 and stat=1"), HasSubstr("no row has all words"));
    EXPECT_THAT(refusal("any network/*=1 and any pids/*=1"), HasSubstr("no row has all words"));
    EXPECT_THAT(refusal("nodestat=1 and any pids/*=1"), HasSubstr("no row has all words"));
    EXPECT_EQ(refusal("any pids/*=1"), "");
    EXPECT_THROW(Selection({}, ""), Error);
    EXPECT_EQ(refusal("any network/*=1"), "");
}

TEST(Selection, NamesAPrefixBelowWhichThereIsNothing) {
    const Picture picture = small_picture();
    EXPECT_NO_THROW(Selection({"servers", "cluster/clstat"}, {}).expect_words(picture));
    try {
        Selection({"servers", "servers/nobody"}, {}).expect_words(picture);
        FAIL();
    } catch (const Error& error) {
        EXPECT_EQ(error.kind, ErrorKind::no_such_key);
        EXPECT_STREQ(error.what(), "no key lies below servers/nobody");
    }
}

TEST(Selection, KnowsWithWhatKeysBegin) {
    for (const char* const key : {"cluster", "servers/alpha", "hb/", "np/ping", "fst"})
        EXPECT_TRUE(names_area(key)) << key;
    for (const char* const file : {"server", "./servers", "picture.dump", "", "/hb"})
        EXPECT_FALSE(names_area(file)) << file;
    EXPECT_TRUE(is_like_area("servrs/alpha"));
    EXPECT_FALSE(is_like_area("picture.dump"));
}

}  // namespace
}  // namespace picture
