// The size of a region by its counts. What else is wrong with a configuration is tested through the tool.
#include "picture/cluster_file.h"

#include <gmock/gmock.h>

namespace picture {
namespace {

using testing::HasSubstr;
using testing::Optional;

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
