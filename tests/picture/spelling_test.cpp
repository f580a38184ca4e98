// Misspelt words: what is suggested, and which keys no region can have.
#include "picture/spelling.h"

#include <gmock/gmock.h>

#include <string>
#include <vector>

#include "picture/conditions.h"
#include "picture/error.h"
#include "picture/keys.h"

namespace picture {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;

const std::vector<std::string> some_words{"nodestat", "pingstat", "holdstat", "pri", "status", "set"};

TEST(Nearest, FindsAWordWithALetterTooManyTooFewWrongOrExchanged) {
    EXPECT_EQ(nearest("holdstatt", some_words), "holdstat");
    EXPECT_EQ(nearest("hodstat", some_words), "holdstat");
    EXPECT_EQ(nearest("holdstaf", some_words), "holdstat");
    EXPECT_EQ(nearest("stauts", some_words), "status");
    EXPECT_EQ(nearest("pir", some_words), "pri");
}

TEST(Nearest, TakesOneDifferenceForEachThreeLetters) {
    EXPECT_EQ(nearest("pngtat", some_words), "pingstat");
    EXPECT_EQ(nearest("abxy", {"abcd"}), "");
    EXPECT_EQ(nearest("lstat", {"xlstab"}), "");
    EXPECT_EQ(nearest("xlsta", {"lstb"}), "");
}

TEST(Nearest, TakesTwoLettersForExchangedOnlyIfBothAre) {
    EXPECT_EQ(nearest("rpi", {"pri"}), "pri");
    EXPECT_EQ(nearest("xxab", {"xxca"}), "");
    EXPECT_EQ(nearest("xxab", {"xxbc"}), "");
    EXPECT_EQ(nearest(std::string_view("xabcdef").substr(1), {"zaxbcdeg"}), "") << "with a letter before the word";
}

TEST(Nearest, PrefersTheWordWithFewerDifferences) {
    EXPECT_EQ(nearest("pingstaat", some_words), "pingstat");
    EXPECT_EQ(nearest("abce", {"abxy", "abcd"}), "abcd");
}

TEST(Nearest, FindsAWordByItsBeginning) {
    EXPECT_EQ(nearest("nod", some_words), "nodestat");
    EXPECT_EQ(nearest("no", some_words), "nodestat");
    EXPECT_EQ(nearest("n", some_words), "");
    EXPECT_EQ(nearest("od", some_words), "");
}

TEST(Nearest, FindsNothingThatIsNotLikeIt) {
    EXPECT_EQ(nearest("", some_words), "");
    EXPECT_EQ(nearest("x", some_words), "");
    EXPECT_EQ(nearest("zz", some_words), "");
    EXPECT_EQ(nearest("clstat", {"cluster", "servers", "hb", "np", "fst"}), "");
    EXPECT_EQ(nearest("anything", {}), "");
}

/// What is said of a key, a beginning or a pattern that cannot be; "" of one that can.
std::string error_of(void (*expect)(std::string_view), std::string_view text) {
    try {
        expect(text);
        return "";
    } catch (const Error& error) {
        EXPECT_EQ(error.kind, ErrorKind::no_such_word);
        return error.what();
    }
}

TEST(ExpectKey, AcceptsEveryKeyThatTheTableHas) {
    for (const KeyHelp& key : key_help()) {
        std::string whole = key.pattern;
        if (whole.ends_with("KIND")) whole.replace(whole.size() - 4, 4, "2");
        EXPECT_EQ(error_of(expect_key, whole), "") << whole;
    }
}

TEST(ExpectKey, AcceptsAnyNamesOfAnyRegion) {
    EXPECT_EQ(error_of(expect_key, "servers/nobody/pri"), "");
    EXPECT_EQ(error_of(expect_key, "servers/pri/pri"), "");
    EXPECT_EQ(error_of(expect_key, "servers/a%2Fb%25/pri"), "");
    EXPECT_EQ(error_of(expect_key, "hb/lan/lanhb1/svstat/nobody"), "");
    EXPECT_EQ(error_of(expect_key, "fst/pids/agent/2"), "");
}

TEST(ExpectKey, NamesTheWordThatIsWrong) {
    EXPECT_EQ(error_of(expect_key, "servrs/alpha/pri"), "no such word \"servrs\"; did you mean \"servers\"?");
    EXPECT_EQ(error_of(expect_key, "servers/alpha/holdstatt"),
              "no such word \"holdstatt\"; did you mean \"holdstat\"?");
    EXPECT_EQ(error_of(expect_key, "servers/alpha/alive"),
              "no such word \"alive\"; \"shmnmctl list --help\" shows all keys");
    EXPECT_EQ(error_of(expect_key, "np/ping/pingnp1/network/alpha"),
              "no such word \"network\"; \"shmnmctl list --help\" shows all keys");
    EXPECT_EQ(error_of(expect_key, "fst/pids/agent/3"), "no such word \"3\"; \"shmnmctl list --help\" shows all keys");
    EXPECT_EQ(error_of(expect_key, "se\x1b/x"), "no such word \"se%1B\"; \"shmnmctl list --help\" shows all keys");
}

TEST(ExpectKey, NamesTheWholeKeyOfAWordThatStandsAlone) {
    EXPECT_EQ(error_of(expect_key, "clstat"),
              "no such word \"clstat\" at the beginning of a key; did you mean \"cluster/clstat\"?");
}

TEST(ExpectKey, RefusesAKeyThatIsNotWholeOrGoesOn) {
    EXPECT_EQ(error_of(expect_key, "servers"),
              "\"servers\" is not a whole key: \"shmnmctl list servers\" shows the keys below it, such as "
              "\"servers/NAME/pri\"");
    EXPECT_EQ(
        error_of(expect_key, "hb/lan/lanhb1/svstat"),
        "\"hb/lan/lanhb1/svstat\" is not a whole key: \"shmnmctl list hb/lan/lanhb1/svstat\" shows the keys below "
        "it, such as \"hb/lan/lanhb1/svstat/SERVER\"");
    EXPECT_EQ(error_of(expect_key, "cluster/clstat/x"), "there is no key below \"cluster/clstat\": leave out \"/x\"");
    EXPECT_EQ(error_of(expect_key, ""),
              "\"\" is not a whole key: \"shmnmctl list\" shows the keys below it, such as \"cluster/waitstat\"");
}

TEST(ExpectKey, ShowsWhatASlashTooManyLacks) {
    EXPECT_EQ(error_of(expect_key, "servers/alpha/"),
              "\"servers/alpha/\" is not a whole key: \"shmnmctl list servers/alpha\" shows the keys below it, such as "
              "\"servers/alpha/pri\"");
    EXPECT_EQ(error_of(expect_pattern, "hb/*/*/svstat/"),
              "\"hb/*/*/svstat/\" is not a whole key: \"shmnmctl list hb/*/*/svstat\" shows the keys below it, such as "
              "\"hb/*/*/svstat/SERVER\"");
    EXPECT_EQ(error_of(expect_key, "cluster/clstat/"), "there is no key below \"cluster/clstat\": leave out \"/\"");
    EXPECT_EQ(error_of(expect_key, "cluster/clstat//"), "there is no key below \"cluster/clstat\": leave out \"//\"");
    EXPECT_EQ(error_of(expect_key, "cluster//clstat"), "a part of a key cannot be empty: leave out one \"/\"");
    EXPECT_EQ(error_of(expect_key, "/cluster/clstat"), "a part of a key cannot be empty: leave out one \"/\"");
}

TEST(ExpectKey, ShowsHowANameIsWritten) {
    EXPECT_EQ(error_of(expect_key, "servers/a b/pri"), "invalid name \"a b\" in a key: write it \"a%20b\"");
    EXPECT_EQ(error_of(expect_key, "servers/a%2fb/pri"), "invalid name \"a%2fb\" in a key: write it \"a%2Fb\"");
    EXPECT_EQ(error_of(expect_key, "servers/50%/pri"),
              "invalid name \"50%\" in a key: use two hexadecimal digits after each %");
}

TEST(ExpectKey, SaysWhatTakesAKeyWithAStar) {
    EXPECT_EQ(error_of(expect_key, "servers/*/pri"),
              "\"servers/*/pri\" is not one key: \"shmnmctl list servers\" shows the keys below \"servers\", "
              "\"shmnmctl query 'any servers/*/pri=0'\" tests the words that match (a * in a name is written %2A)");
    EXPECT_EQ(error_of(expect_prefix, "*"),
              "\"*\" is not one key: \"shmnmctl list\" shows all keys (a * in a name is written %2A)");
    EXPECT_EQ(error_of(expect_key, "servers/*/prio"), "no such word \"prio\"; did you mean \"pri\"?");
}

TEST(NearestKey, IsLikeTheKeyInEachPart) {
    const std::vector<Word> all{
        {"servers/alpha/pri", {}}, {"servers/alphabet/pri", {}}, {"servers/alpha/nodestat", {}}};
    EXPECT_EQ(nearest_key("servers/alhpa/pri", all), "servers/alpha/pri");
    EXPECT_EQ(nearest_key("servers/alphabt/pri", all), "servers/alphabet/pri");
    EXPECT_EQ(nearest_key("servers/omega/pri", all), "");
    EXPECT_EQ(nearest_key("servers/alhpa", all), "");
    EXPECT_EQ(nearest_key("zzzz/alpha/pri", all), "");
    EXPECT_EQ(nearest_key("servers/x1/pri", {{"servers/x1y/pri", {}}, {"servers/x1z/pri", {}}}), "servers/x1y/pri");
}

TEST(ExpectPrefix, AcceptsTheBeginningsOfKeys) {
    for (const char* const prefix :
         {"", "/", "servers", "servers/", "servers/alpha", "servers/alpha/", "cluster/clstat"}) {
        EXPECT_EQ(error_of(expect_prefix, prefix), "") << prefix;
    }
    EXPECT_EQ(error_of(expect_prefix, "server"), "no such word \"server\"; did you mean \"servers\"?");
}

TEST(ExpectPattern, AcceptsWhatSomeKeyMatches) {
    for (const char* const pattern : {"servers/*/pri", "*/*/*", "hb/*/*/sv*/a*", "fst/pid*/x/*", "servers/%2A*/pri"}) {
        EXPECT_EQ(error_of(expect_pattern, pattern), "") << pattern;
    }
    EXPECT_EQ(error_of(expect_pattern, "servers/*/x*"), "no such word \"x*\"; \"shmnmctl list --help\" shows all keys");
    EXPECT_EQ(error_of(expect_pattern, "servrs/*/pri"), "no such word \"servrs\"; did you mean \"servers\"?");
}

TEST(ConditionWords, AreExpectedInEveryPartOfACondition) {
    const auto error = [](const char* text) {
        try {
            Condition(text).expect_words();
            return std::string();
        } catch (const Error& thrown) {
            return std::string(thrown.what());
        }
    };
    EXPECT_EQ(error("servers/nobody/pri=1 and (not exists hb/lan/x/stat or all servers/*/pri=1)"), "");
    EXPECT_EQ(error("cluster/clstat=1 or not (exists servers/alpha/pri and all servers/*/prio=1)"),
              "no such word \"prio\"; did you mean \"pri\"?");
}

TEST(RangeOf, IsWhatTheLibrarysCallTakes) {
    EXPECT_EQ(range_of("cluster/clstat"), "0 to 4294967295");
    EXPECT_EQ(range_of("cluster/max_hb"), "1 to 2147483647");
    EXPECT_EQ(range_of("servers/alpha/pri"), "-2147483648 to 2147483647");
    EXPECT_EQ(range_of("hb/lan/lanhb1/svstat/alpha"), "0 to 4294967295");
    EXPECT_EQ(range_of("fst/stat"), "0 to 4294967295");
    EXPECT_EQ(range_of("fst/pids/agent/0"), "0 to 4294967295");
    EXPECT_EQ(range_of("fst/piddata/agent/0"), "0 to 18446744073709551615");
    EXPECT_EQ(range_of("servers/alpha/combstat"), "");
    EXPECT_EQ(range_of("cluster/dfailstatus"), "");
    EXPECT_THROW(range_of("servers/*/pri"), Error);
}

TEST(WordsBelow, AreThoseOfTheNextPart) {
    EXPECT_THAT(words_below(""), ElementsAre("cluster/", "servers/", "hb/", "np/", "fst/", "bridge/"));
    EXPECT_THAT(words_below("servers/"), IsEmpty());
    EXPECT_THAT(words_below("cluster/clstat/"), IsEmpty());
    EXPECT_THAT(words_below("np/ping/pingnp1/"), ElementsAre("pri", "stat", "svstat/"));
    EXPECT_THAT(words_below("np/ping/pingnp1/pri/"), IsEmpty());
    EXPECT_THAT(words_below("fst/pid/agent/"), IsEmpty());
    EXPECT_THAT(words_below("fst/"), ElementsAre("stat", "pids/", "piddata/"));
    EXPECT_THAT(words_below("fst/pids/agent/"), ElementsAre("0", "1", "2"));
}

}  // namespace
}  // namespace picture
