// The region's size and the places of its areas: seen by callers through the size they are told and the bytes mapped,
// and pinned area by area.
#include "region.h"

#include "region_fixture.h"

namespace {

using shmnm::Layout;

struct SizeCase {
    test::Counts counts;
    uint32_t size;
};

class RegionSize : public test::RegionTest, public testing::WithParamInterface<SizeCase> {};

TEST_P(RegionSize, FollowsFromTheConfiguredCounts) {
    map_region(GetParam().counts);
    int32_t size = 0;
    ASSERT_EQ(shmnm_dump(nullptr, &size), SHMNM_OK);
    EXPECT_EQ(static_cast<uint32_t>(size), GetParam().size);
    EXPECT_EQ(view_size(), (static_cast<size_t>(GetParam().size) + 4095) / 4096 * 4096);
}

INSTANTIATE_TEST_SUITE_P(Counts, RegionSize,
                         testing::Values(SizeCase{{128, 16, 16, 1}, 2'500'740},
                                         SizeCase{{4, 2, 3, 0}, 1084 + 320 * 4 + 592 * 2 * 4 + 588 * 3 * 4},
                                         SizeCase{{1, 1, 1, 1}, 1084 + 320 + 592 + 588 + 324 + 584},
                                         SizeCase{{0, 5, 5, 3}, 1084 + 584 * 3},
                                         SizeCase{{3, 0, 0, 2}, 1084 + 320 * 3 + 324 * 2 * 3 + 584 * 2},
                                         // These are 2^32 bytes larger, or twice that; the size wraps silently.
                                         SizeCase{{2'863'311, 1, 1, 0}, 288}, SizeCase{{223'697, 16, 16, 0}, 16'188},
                                         SizeCase{{219'984, 16, 16, 1}, 1'988},
                                         SizeCase{{124'039, 100, 16, 1}, 15'904}));

constexpr shmnm::Counts fallback;
static_assert(fallback.servers == 128 && fallback.hb == 16 && fallback.np == 16 && fallback.fst == 1);

TEST(RegionLayout, PlacesTheAreasForTheFallbackCounts) {
    constexpr Layout layout(fallback);
    EXPECT_EQ(layout.size, 2'500'740u);
    EXPECT_EQ(layout.servers, 1'084u);
    EXPECT_EQ(layout.hb, 42'044u);
    EXPECT_EQ(layout.np, 42'044u + 584 * 16 * 128);
    EXPECT_EQ(layout.fst, 42'044u + 584 * 16 * 128 * 2);
    EXPECT_EQ(layout.fst_pids, 42'044u + 584 * 16 * 128 * 2 + 584);
    EXPECT_EQ(layout.network, 2'476'164u);
    EXPECT_EQ(layout.network + uint64_t{4} * (2 * 16 + 16) * 128, layout.size);
}

TEST(RegionLayout, HasNoGapAfterTheNpTableWithoutAnFstResource) {
    constexpr Layout layout(shmnm::Counts{4, 2, 3, 0});
    EXPECT_EQ(layout.fst, layout.fst_pids);
    EXPECT_EQ(layout.fst, layout.network);
    EXPECT_EQ(layout.network, 1084u + 320 * 4 + 584 * 2 * 4 + 584 * 3 * 4);
}

TEST(RegionLayout, ComputesOffsetsIn64BitsWhereTheSizeHasWrapped) {
    constexpr Layout layout(shmnm::Counts{223'697, 16, 16, 0});
    EXPECT_EQ(layout.size, 16'188u);
    EXPECT_EQ(layout.hb, 1084u + 320u * 223'697u);
    EXPECT_EQ(layout.np, 1084u + 320u * 223'697u + 584ull * 16 * 223'697);
    EXPECT_EQ(layout.network, 1084u + 320u * 223'697u + 2 * 584ull * 16 * 223'697);
}

TEST(RegionLayout, TreatsTheCountsAsSignedNumbers) {
    constexpr Layout layout(shmnm::Counts{-1, 2, 0, 0});
    EXPECT_EQ(static_cast<int64_t>(layout.hb), 1084 - 320);
    EXPECT_EQ(static_cast<int64_t>(layout.np), 1084 - 320 - 584 * 2);
}

class Region : public test::RegionTest {};

TEST_F(Region, IsZeroExceptForTheConfiguredCountsWhenNew) {
    map_region({.servers = 5, .hb = 3, .np = 2, .fst = 4});
    test::Bytes expected(view_size());
    expected[8] = 5;
    expected[12] = 3;
    expected[16] = 2;
    expected[20] = 4;
    expected[24] = 20;
    EXPECT_EQ(region_bytes(), expected);
}

TEST_F(Region, StoresTheWrappedProductOfServersAndFstResources) {
    map_region({.servers = 0, .hb = 1, .np = 1, .fst = 7});
    EXPECT_EQ(word_at(24), 0u);
    shmnm_delete();
    map_region({.servers = 2'863'311, .hb = 1, .np = 1, .fst = 0});
    EXPECT_EQ(word_at(8), 2'863'311u);
    EXPECT_EQ(word_at(24), 0u);
}

TEST_F(Region, CannotBeCreatedWithASizeThatWrapsToZero) {
    static_assert(Layout(shmnm::Counts{440'949'975, 1, 1, 0}).size == 0);
    configure({.servers = 440'949'975, .hb = 1, .np = 1, .fst = 0});
    EXPECT_EQ(shmnm_create(), SHMNM_ERR_CREATEMAP);
    EXPECT_THAT(log_of_last_call(),
                testing::Contains(fakes::Error("_create", "KzmutilCreateNamedFileMapping failed(errno:87)")).Times(6));
}

}  // namespace
