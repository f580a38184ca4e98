// Keys: each word is found by its key alone, and the tables of words name each word once.
#include "picture/keys.h"

#include <gmock/gmock.h>

#include <map>
#include <set>
#include <string>

#include "picture/decode.h"
#include "picture/library_region.h"

namespace picture {

void PrintTo(const Word& word, std::ostream* stream) {
    *stream << word.key << " " << word.value.to_text() << " at " << word.offset;
}

namespace {

using test::LibraryRegion;
using test::Random;

class Keys : public testing::Test {
  protected:
    const uint64_t seed_ = test::seed();
    Random random_{seed_};
};

TEST_F(Keys, FindEveryListedWord) {
    LibraryRegion region({.servers = 9, .hb = 6, .np = 5, .fst = 2});
    for (int round = 0; round < 40; ++round) {
        region.call(random_, 50);
        const Picture picture = decode(region.dump());
        for (const Word& word : words(picture)) {
            const std::optional<Word> found = find(picture, word.key);
            ASSERT_TRUE(found) << word.key;
            ASSERT_EQ(*found, word);
        }
    }
}

TEST_F(Keys, HaveTheOffsetsOfTheirWords) {
    LibraryRegion region({.servers = 5, .hb = 3, .np = 3, .fst = 1});
    region.call(random_, 500);
    const Snapshot dump = region.dump();
    const Picture before = decode(dump);
    for (const Word& word : words(before)) {
        if (word.offset == 0) {
            EXPECT_THAT(word.key, testing::AnyOf(testing::EndsWith("/alive"), testing::EndsWith("/combstat"),
                                                 testing::Eq("cluster/hbinfo_b")));
            continue;
        }
        // The bytes at its offset are its value.
        const bool wide = word.key.starts_with("fst/piddata/");
        const uint64_t held = wide ? dump.long_word(word.offset) : dump.word(word.offset);
        const auto number = word.value.to_int32();
        EXPECT_TRUE(word.value == Value(held) || (number && static_cast<uint32_t>(*number) == held)) << word.key;
    }
}

TEST_F(Keys, OfAProcessIdNameEachOfItsThreeKinds) {
    LibraryRegion region({.servers = 1, .hb = 1, .np = 1, .fst = 1});
    ASSERT_EQ(shmnm_setfstrscpid("agent", 0, 1, 2), SHMNM_OK);
    std::vector<std::string> keys;
    for (const Word& word : words(decode(region.dump()))) {
        if (word.key.starts_with("fst/pid")) keys.push_back(word.key);
    }
    EXPECT_THAT(keys, testing::ElementsAre("fst/pids/agent/0", "fst/piddata/agent/0", "fst/pids/agent/1",
                                           "fst/piddata/agent/1", "fst/pids/agent/2", "fst/piddata/agent/2"));
}

TEST_F(Keys, FindNothingThatIsNotListed) {
    LibraryRegion region({.servers = 4, .hb = 2, .np = 2, .fst = 1});
    ASSERT_EQ(shmnm_addnode("alpha", 0), SHMNM_OK);
    ASSERT_EQ(shmnm_addnode("a b", 1), SHMNM_OK);
    ASSERT_EQ(shmnm_addhbrsc("lan", "lan1", 0), SHMNM_OK);
    ASSERT_EQ(shmnm_addnprsc("ping", "ping1", 0), SHMNM_OK);
    ASSERT_EQ(shmnm_setfstrscpid("agent", 0, 1, 2), SHMNM_OK);
    const Picture picture = decode(region.dump());
    for (const char* const key : {"",
                                  "/",
                                  "cluster",
                                  "cluster/",
                                  "cluster/clstats",
                                  "cluster/clstat/",
                                  "clusters/clstat",
                                  "servers",
                                  "servers/alpha",
                                  "servers/alpha/",
                                  "servers/alpha/alive",
                                  "servers/beta/pri",
                                  "servers/alpha/pri/",
                                  "servers/a b/pri",
                                  "servers/%61lpha/pri",
                                  "servers/a%2/pri",
                                  "hb/lan/lan1",
                                  "hb/lan/lan1/svstat",
                                  "hb/lan/lan1/svstat/",
                                  "hb/lan/lan1/svstat/beta",
                                  "hb/lan/lan1/pri/alpha",
                                  "hb/lan/lan2/pri",
                                  "np/lan/lan1/pri",
                                  "np/ping/ping1/network/alpha",
                                  "fst",
                                  "fst/stats",
                                  "fst/pids/agent",
                                  "fst/pids/agent/3",
                                  "fst/pids/agent/00",
                                  "fst/pids/agent/+",
                                  "bridge/up",
                                  "fst/pid/agent/0",
                                  "fst/pids/other/0",
                                  "ab/lan/lan1/pri"}) {
        EXPECT_FALSE(find(picture, key)) << key;
    }
    EXPECT_TRUE(find(picture, "servers/a%20b/pri"));
    EXPECT_TRUE(find(picture, "np/ping/ping1/svstat/alpha"));
}

TEST_F(Keys, OfARegionWithoutAnFstResourceHaveNoneOfIt) {
    LibraryRegion region({.servers = 4, .hb = 2, .np = 2, .fst = 0});
    EXPECT_FALSE(find(decode(region.dump()), "fst/stat"));
}

TEST_F(Keys, OfABridgeFindNothingThatIsNotListed) {
    LibraryRegion region({.servers = 4, .hb = 2, .np = 2, .fst = 1});
    Picture picture = decode(region.dump());
    picture.bridge = Bridge{.is_up = true, .stopped_us = 0, .marks = {}, .left_out = 0};
    picture.bridge->marks.servers.push_back({.server = "alpha"});
    for (const char* const key : {"bridge", "bridge/", "bridge/ups", "bridge/up/", "bridge/servers/alpha",
                                  "bridge/servers/alpha/", "bridge/servers/alpha/age", "bridge/servers/alpha/age_ms/",
                                  "bridge/servers/beta/age_ms", "bridge/machines/alpha/age_ms"}) {
        EXPECT_FALSE(find(picture, key)) << key;
    }
    EXPECT_TRUE(find(picture, "bridge/connected"));
    EXPECT_EQ(find(picture, "bridge/servers/alpha/age_ms")->value, Value()) << "not known";
    picture.bridge->marks.servers[0].age = 20;
    EXPECT_EQ(find(picture, "bridge/servers/alpha/age_ms")->value, Value(20u));
    picture.bridge->is_up = false;
    EXPECT_TRUE(find(picture, "bridge/up"));
    EXPECT_FALSE(find(picture, "bridge/connected")) << "it has no marks";
}

TEST(MovingKeys, AreTheAgesAndRevisionsOfMarks) {
    EXPECT_TRUE(moves("bridge/servers/alpha/age_ms"));
    EXPECT_TRUE(moves("bridge/servers/alpha/revision"));
    for (const char* const key :
         {"bridge/servers/alpha/freshness", "bridge/servers/alpha/nonsense", "bridge/up", "servers/alpha/age_ms"}) {
        EXPECT_FALSE(moves(key)) << key;
    }
}

/// A key as the help shows it: names and kinds by what they are.
std::string pattern_of(const std::string& key) {
    std::string pattern;
    size_t part = 0;
    const bool is_pid = key.starts_with("fst/pid");
    for (size_t begin = 0; begin <= key.size(); ++part) {
        const size_t end = std::min(key.find('/', begin), key.size());
        std::string text = key.substr(begin, end - begin);
        if (key.starts_with("servers/") && part == 1) text = "NAME";
        if (key.starts_with("hb/") || key.starts_with("np/")) {
            if (part == 1) text = "TYPE";
            if (part == 2) text = "NAME";
            if (part == 4) text = "SERVER";
        }
        if ((is_pid || key.starts_with("bridge/servers/")) && part == 2) text = "NAME";
        if (is_pid && part == 3) text = "KIND";
        pattern += (part ? "/" : "") + text;
        begin = end + 1;
    }
    return pattern;
}

TEST_F(Keys, AreEachNamedOnceInTheHelp) {
    LibraryRegion region({.servers = 2, .hb = 2, .np = 2, .fst = 1});
    region.fill();
    std::set<std::string> listed;
    Picture picture = decode(region.dump());
    picture.bridge = Bridge{.is_up = true, .stopped_us = 0, .marks = {}, .left_out = 0};
    picture.bridge->marks.servers.push_back({.server = "alpha"});
    for (const Word& word : words(picture)) {
        listed.insert(pattern_of(word.key));
        EXPECT_EQ(find(picture, word.key), word) << word.key;
    }
    std::vector<std::string> helped;
    for (const KeyHelp& help : key_help()) {
        helped.push_back(help.pattern);
        EXPECT_NE(help.help, "") << help.pattern;
    }
    EXPECT_THAT(helped, testing::UnorderedElementsAreArray(listed));
    for (const KeyHelp& help : key_help()) {
        const bool is_computed = help.pattern == "cluster/alive" || help.pattern == "servers/NAME/combstat";
        EXPECT_EQ(help.help.ends_with("; computed"), is_computed) << help.pattern;
    }
}

}  // namespace
}  // namespace picture
