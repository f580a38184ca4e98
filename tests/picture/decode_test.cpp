// What is computed from the words of the region, beside what the library computes.
#include "picture/decode.h"

#include <gtest/gtest.h>

#include <cstring>
#include <set>

#include "picture/library_region.h"
#include "shmnm.h"

namespace picture {
namespace {

/// All values that a rule could tell apart: the small ones, and those around each power of two.
std::set<uint32_t> values() {
    std::set<uint32_t> all;
    for (uint32_t value = 0; value <= 20; ++value) all.insert(value);
    for (int bit = 0; bit < 32; ++bit) {
        const uint32_t power = uint32_t{1} << bit;
        all.insert({power - 1, power, power + 1});
    }
    all.insert({0x10002, UINT32_MAX});
    return all;
}

TEST(CombinedState, MatchesTheLibraryForAllValues) {
    test::LibraryRegion region({.servers = 1, .hb = 1, .np = 1, .fst = 1});
    ASSERT_EQ(shmnm_addnode("alpha", 0), SHMNM_OK);
    const std::set<uint32_t> all = values();
    for (const uint32_t waitstat : all) {
        ASSERT_EQ(shmnm_setwaitstat(waitstat), SHMNM_OK);
        for (const uint32_t nodestat : all) {
            ASSERT_EQ(shmnm_setnodestat("alpha", nodestat), SHMNM_OK);
            for (const uint32_t isolateflag : all) {
                ASSERT_EQ(shmnm_setisolateflag("alpha", isolateflag), SHMNM_OK);
                // Where there is no combined state the library leaves the output as it is.
                constexpr uint32_t untouched = 0xDEADBEEF;
                uint32_t state = untouched;
                ASSERT_EQ(shmnm_getnodecombstat("alpha", &state), SHMNM_OK);
                ASSERT_EQ(combined_state(nodestat, waitstat, isolateflag).value_or(untouched), state)
                    << "nodestat " << nodestat << ", waitstat " << waitstat << ", isolateflag " << isolateflag;
            }
        }
    }
}

/// A copy that has a header, and zeros after it.
Snapshot copy_of(const shmnm_header& header, const Counts& counts, uint64_t size) {
    Snapshot copy;
    copy.bytes.resize(size);
    std::memcpy(copy.bytes.data(), &header, sizeof header);
    copy.counts = counts;
    return copy;
}

TEST(Picture, HasTheRecordsThatLieWhollyInTheCopy) {
    const Counts counts{.servers = 1, .hb = 0, .np = 0, .fst = 1};
    shmnm_header header{};
    header.max_servers = header.server_count = header.fst_count = 1;
    // A server has 320 bytes and the fst resource 584.
    EXPECT_EQ(decode(copy_of(header, counts, 1403)).servers.size(), 0u);
    EXPECT_EQ(decode(copy_of(header, counts, 1404)).servers.size(), 1u);
    header.server_count = 3;
    EXPECT_EQ(decode(copy_of(header, counts, 1084 + 3 * 320 - 1)).servers.size(), 2u);
    EXPECT_FALSE(decode(copy_of(header, counts, 1987)).fst);
    EXPECT_TRUE(decode(copy_of(header, counts, 1988)).fst);
}

TEST(Picture, HasTheBridgeOfItsCopy) {
    Snapshot copy = copy_of({}, {}, sizeof(shmnm_header));
    EXPECT_FALSE(decode(copy).bridge);
    copy.bridge = Bridge{.is_up = true, .marks = {.cluster = "north"}};
    ASSERT_TRUE(decode(copy).bridge);
    EXPECT_EQ(decode(copy).bridge->marks.cluster, "north");
}

TEST(Picture, HasTheStatesThatLieInTheCopy) {
    const Counts counts{.servers = 2, .hb = 1, .np = 0, .fst = 0};
    shmnm_header header{};
    header.max_servers = header.server_count = 2;
    header.hb_count = 1;
    // The row begins at 2308.
    for (const size_t states : {size_t{0}, size_t{1}, size_t{2}}) {
        EXPECT_EQ(decode(copy_of(header, counts, 2308 + 4 * states)).hb.at(0).svstat.states.size(), states);
    }
}

TEST(Picture, HasNoStatesIfTheHeaderHasRoomForFewerServersThanNone) {
    const Counts counts{.servers = 2, .hb = 1, .np = 0, .fst = 0};
    shmnm_header header{};
    header.max_servers = -1;
    header.server_count = 2;
    header.hb_count = 1;
    const Picture picture = decode(copy_of(header, counts, Layout(counts).size));
    ASSERT_EQ(picture.hb.size(), 1u);
    EXPECT_TRUE(picture.hb[0].svstat.states.empty());
    EXPECT_TRUE(picture.hb[0].network.states.empty());
    // From one resource to the next it would be no step at all.
    header.max_servers = -146;
    EXPECT_TRUE(decode(copy_of(header, counts, Layout(counts).size)).hb.empty());
}

TEST(Picture, FollowsACountAsFarAsTheRegionHasRoomOrClustersGo) {
    const Counts counts{.servers = 600, .hb = 0, .np = 0, .fst = 0};
    shmnm_header header{};
    header.max_servers = header.server_count = 600;
    const uint64_t size = Layout(counts).size;
    EXPECT_EQ(decode(copy_of(header, counts, size)).servers.size(), 600u);
    EXPECT_EQ(decode(copy_of(header, counts, size + 4)).servers.size(), 512u) << "its room is not known";
}

TEST(Picture, HasNoMorePairsOfAResourceAndAServerThanClustersHave) {
    shmnm_header header{};
    header.server_count = 100;
    header.hb_count = 50;
    const Picture picture = decode(copy_of(header, {}, 100'000));
    EXPECT_EQ(picture.servers.size(), 100u);
    EXPECT_EQ(picture.hb.size(), 40u);
}

}  // namespace
}  // namespace picture
