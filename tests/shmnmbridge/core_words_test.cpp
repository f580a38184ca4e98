// The core's words and calls, with a region that the library itself makes.
#include "core_words.h"

#include <gtest/gtest.h>

#include "core_steps.h"
#include "picture/escape.h"
#include "picture/library_region.h"
#include "shmnm.h"

namespace bridge {
namespace {

class BridgeWords : public testing::Test {
  protected:
    void SetUp() override {
        ASSERT_EQ(shmnm_addnode("alpha", 3), SHMNM_OK);
        ASSERT_EQ(shmnm_addnode("be/ta", 1), SHMNM_OK);
        ASSERT_EQ(shmnm_addhbrsc("lan", "lan 1", 1), SHMNM_OK);
        ASSERT_EQ(shmnm_addnprsc("ping", "gw", 1), SHMNM_OK);
    }
    Look look() const { return reduced(region_.dump()); }

    test::LibraryRegion region_{{.servers = 4, .hb = 2, .np = 2, .fst = 1}};
};

TEST_F(BridgeWords, OfANewRecordAreWhatTheLibraryWrites) {
    const Look now = look();
    ASSERT_EQ(now.servers.size(), 2U);
    EXPECT_EQ(now.servers[0].name, "alpha");
    EXPECT_EQ(now.servers[1].name, "be%2Fta");
    EXPECT_EQ(now.servers[0].pri, 3);
    EXPECT_EQ(now.counts, (picture::Counts{4, 2, 2, 1}));
    ASSERT_EQ(now.resources.size(), 2U);
    EXPECT_EQ(now.resources[0].key, "hb/lan/lan%201");
    EXPECT_EQ(now.resources[1].key, "np/ping/gw");
    EXPECT_EQ(now.resources[0].stat, new_stat);
    EXPECT_EQ(now.resources[1].stat, new_stat);
    EXPECT_EQ(now.header, (std::array<AgreedValue, 5>{}));
    EXPECT_TRUE(is_as_new(now, 0));
    EXPECT_TRUE(is_as_new(now, 1));
}

TEST_F(BridgeWords, AreThoseThatTheLibrarySets) {
    ASSERT_EQ(shmnm_setnodestat("be/ta", 10), SHMNM_OK);
    ASSERT_EQ(shmnm_setnodestat_nw("be/ta", 11), SHMNM_OK);
    ASSERT_EQ(shmnm_setdownnotifystat("be/ta", 12), SHMNM_OK);
    ASSERT_EQ(shmnm_setisolateflag("be/ta", 13), SHMNM_OK);
    ASSERT_EQ(shmnm_setpingstat("be/ta", 14), SHMNM_OK);
    ASSERT_EQ(shmnm_setholdstat("be/ta", 15), SHMNM_OK);
    ASSERT_EQ(shmnm_sethbrscsvstat("lan", "lan 1", 1, 16), SHMNM_OK);
    ASSERT_EQ(shmnm_setrscsvstat_nw("lan", "lan 1", 1, 17), SHMNM_OK);
    ASSERT_EQ(shmnm_setnprscsvstat("ping", "gw", 1, 18), SHMNM_OK);
    const ServerState expected{{10, 11, 12, 13, 14, 15}, {{"hb/lan/lan%201", {16, 17}}, {"np/ping/gw", {18, 2}}}};
    EXPECT_EQ(state_of(look(), 1), expected);
    EXPECT_TRUE(is_as_new(look(), 0));
    EXPECT_FALSE(is_as_new(look(), 1));
}

TEST_F(BridgeWords, AreSetByTheCallsThatNameThem) {
    std::vector<Call> calls;
    for (size_t word = 0; word < server_words.size(); ++word) {
        calls.push_back({.setter = Call::Setter::server_word,
                         .word = word,
                         .server = "be%2Fta",
                         .pri = 1,
                         .value = {static_cast<uint32_t>(10 + word), 0}});
    }
    const auto cell = [&](Call::Setter setter, const char* resource, uint32_t value) {
        calls.push_back({.setter = setter, .server = "be%2Fta", .pri = 1, .resource = resource, .value = {value, 0}});
    };
    cell(Call::Setter::svstat, "hb/lan/lan%201", 20);
    cell(Call::Setter::network, "hb/lan/lan%201", 21);
    cell(Call::Setter::svstat, "np/ping/gw", 22);
    cell(Call::Setter::stat, "hb/lan/lan%201", 23);
    cell(Call::Setter::stat, "np/ping/gw", 24);
    for (size_t word = 0; word < header_words.size(); ++word) {
        const auto value = static_cast<uint32_t>(30 + word);
        calls.push_back(
            {.setter = Call::Setter::header_word, .word = word, .value = {value, word == hbinfo ? 99U : 0U}});
    }
    for (const Call& call : calls) {
        const picture::Step step = to_step(call);
        EXPECT_EQ(step.call(), SHMNM_OK) << step.function;
    }

    const Look now = look();
    const ServerState expected{{10, 11, 12, 13, 14, 15}, {{"hb/lan/lan%201", {20, 21}}, {"np/ping/gw", {22, 2}}}};
    EXPECT_EQ(state_of(now, 1), expected);
    EXPECT_TRUE(is_as_new(now, 0)) << "the other server's words";
    EXPECT_EQ(now.resources[0].stat, 23U);
    EXPECT_EQ(now.resources[1].stat, 24U);
    EXPECT_EQ(now.header, (std::array<AgreedValue, 5>{{{30, 0}, {31, 0}, {32, 0}, {33, 0}, {34, 99}}}));
}

TEST_F(BridgeWords, HaveTheirOwnPriorityUnlessItIsThereTwice) {
    EXPECT_TRUE(look().has_own_priority(0));
    ASSERT_EQ(shmnm_modifynode("alpha", 1), SHMNM_OK);
    EXPECT_FALSE(look().has_own_priority(0));
    EXPECT_FALSE(look().has_own_priority(1));
}

TEST_F(BridgeWords, OfTheRegionThatTheLibraryFillsAreAllFound) {
    region_.clear();
    region_.fill();
    const Look now = look();
    EXPECT_EQ(now.servers.size(), 4U);
    EXPECT_EQ(now.resources.size(), 4U);
    for (const LookedResource& resource : now.resources) EXPECT_EQ(resource.cells.size(), 4U) << resource.key;
}

}  // namespace
}  // namespace bridge
