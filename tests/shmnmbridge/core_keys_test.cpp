#include "core_keys.h"

#include <gtest/gtest.h>

namespace bridge {
namespace {

TEST(BridgeKeys, LieBelowThePrefixOfTheirCluster) {
    const Keys keys("main");
    EXPECT_EQ(keys.prefix(), "/shmnm/main/1/");
    EXPECT_EQ(keys.claim("alpha"), "/shmnm/main/1/claim/alpha");
    EXPECT_EQ(keys.state("alpha"), "/shmnm/main/1/state/alpha");
    EXPECT_EQ(keys.beat("alpha"), "/shmnm/main/1/beat/alpha");
    EXPECT_EQ(keys.agreed("hb/lan/lan1"), "/shmnm/main/1/agreed/hb/lan/lan1");
}

TEST(BridgeKeys, AreSplitIntoKindAndName) {
    const Keys keys("main");
    const Keys::Parts parts = keys.parts_of("/shmnm/main/1/agreed/hb/lan/lan1");
    EXPECT_EQ(parts.kind, "agreed");
    EXPECT_EQ(parts.name, "hb/lan/lan1");
    EXPECT_EQ(keys.parts_of("/shmnm/main/1/claim").kind, "");
    EXPECT_EQ(keys.parts_of("/").kind, "");
}

TEST(BridgeValues, AreReadBackAsTheyWereWritten) {
    const auto claim = claim_from(to_json(ClaimValue{"host", "p.1", "alpha:8080"}));
    ASSERT_TRUE(claim);
    EXPECT_EQ(claim->host, "host");
    EXPECT_EQ(claim->run, "p.1");
    EXPECT_EQ(claim->address, "alpha:8080");
    EXPECT_FALSE(claim->times);
    const auto timed = claim_from(to_json(ClaimValue{"host", "p.1", "", Times{3'000, 500}}));
    ASSERT_TRUE(timed);
    EXPECT_EQ(timed->times, (Times{3'000, 500}));

    const ServerState words{{1, 2, 3, 4, 5, UINT32_MAX}, {{"hb/lan/lan1", {6, 7}}, {"np/ping/gw", {8, 2}}}};
    const auto state = state_from(to_json(StateValue{"p.1", 9, words, "7"}));
    ASSERT_TRUE(state);
    EXPECT_EQ(state->run, "p.1");
    EXPECT_EQ(state->sequence, 9);
    EXPECT_EQ(state->state, words);

    const auto beat = beat_from(to_json(BeatValue{"p.1", 2, 3, int64_t{1} << 40}));
    ASSERT_TRUE(beat);
    EXPECT_EQ(beat->run, "p.1");
    EXPECT_EQ(beat->number, 2);
    EXPECT_EQ(beat->sequence, 3);
    EXPECT_EQ(beat->seen, int64_t{1} << 40);

    const auto proposal = proposal_from(to_json(ProposalValue{{30, 60}, "p", 4}));
    ASSERT_TRUE(proposal);
    EXPECT_EQ(proposal->value, (AgreedValue{30, 60}));
    EXPECT_EQ(proposal->process, "p");
    EXPECT_EQ(proposal->number, 4);
}

TEST(BridgeValues, AreRefusedIfAMemberIsMissingOrOfAnotherType) {
    for (const char* text :
         {"", "{", "7", "[]", "{}", R"({"run":"p.1","n":1,"seq":1})", R"({"run":1,"n":1,"seq":1,"seen":1})",
          R"({"run":"p.1","n":-1,"seq":1,"seen":1})", R"({"run":"p.1","n":1.5,"seq":1,"seen":1})"}) {
        EXPECT_FALSE(beat_from(text)) << text;
    }
    const std::string good =
        R"({"run":"p.1","seq":1,"digest":"7","words":[1,2,3,4,5,6],"cells":{"hb/lan/lan1":[1,2]}})";
    EXPECT_TRUE(state_from(good));
    for (const char* text : {R"({"run":"p.1","seq":1,"digest":"7","words":[1,2,3,4,5],"cells":{}})",
                             R"({"run":"p.1","seq":1,"digest":"7","words":[1,2,3,4,5,4294967296],"cells":{}})",
                             R"({"run":"p.1","seq":1,"digest":"7","words":[1,2,3,4,5,6],"cells":{"hb/lan/lan1":[1]}})",
                             R"({"run":"p.1","seq":1,"digest":"7","words":[1,2,3,4,5,6],"cells":7})",
                             R"({"run":"p.1","seq":1,"digest":"7","words":[1,2,3,4,5,"6"],"cells":{}})"}) {
        EXPECT_FALSE(state_from(text)) << text;
    }
    EXPECT_FALSE(claim_from(R"({"host":"h","run":"r"})"));
    EXPECT_FALSE(proposal_from(R"({"value":[1],"process":"p","n":1})"));
}

TEST(BridgeValues, OfABeatHaveARevisionThatEtcdCanHave) {
    const std::string begin = R"({"n":1,"run":"p.1","seen":)";
    const auto newest = beat_from(begin + R"(9223372036854775807,"seq":1})");
    ASSERT_TRUE(newest);
    EXPECT_EQ(newest->seen, INT64_MAX);
    EXPECT_FALSE(beat_from(begin + R"(9223372036854775808,"seq":1})"));
    EXPECT_FALSE(beat_from(begin + R"(18446744073709551615,"seq":1})"));
}

TEST(BridgeDigest, DependsOnCountsAndNamesButNotOnTheirOrder) {
    Look look;
    look.servers = {{.name = "alpha"}, {.name = "beta"}};
    look.resources = {{.key = "hb/lan/lan1", .cells = {}}};
    const std::string digest = digest_of(look);

    Look other = look;
    std::swap(other.servers[0], other.servers[1]);
    other.servers[0].words[0] = 1;
    EXPECT_EQ(digest_of(other), digest);
    other.servers[0].name = "gamma";
    EXPECT_NE(digest_of(other), digest);
    other = look;
    other.counts.hb = 5;
    EXPECT_NE(digest_of(other), digest);
    other = look;
    other.resources[0].key = "np/lan/lan1";
    EXPECT_NE(digest_of(other), digest);
}

}  // namespace
}  // namespace bridge
