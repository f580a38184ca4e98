// Ranges of bytes that tables share, and which bytes of a record another table may have written.
#include "picture/overlaps.h"

#include <gmock/gmock.h>

#include <utility>
#include <vector>

#include "picture/words.h"

namespace picture {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;
using testing::Pair;

std::vector<std::pair<uint64_t, uint64_t>> pairs(const Ranges& ranges) {
    std::vector<std::pair<uint64_t, uint64_t>> all;
    for (const Range& range : ranges) all.emplace_back(range.begin, range.end);
    return all;
}

TEST(Intersections, AreTheSharedBytesSortedByTheirBeginnings) {
    EXPECT_THAT(pairs(intersections({10, 20}, {{15, 30}, {0, 12}, {13, 14}})),
                ElementsAre(Pair(10, 12), Pair(13, 14), Pair(15, 20)));
}

TEST(Intersections, OfRangesThatOnlyMeetAreNone) {
    EXPECT_THAT(pairs(intersections({10, 20}, {{0, 10}, {20, 30}, {15, 15}})), IsEmpty());
}

TEST(Ranges, TouchWhatSharesAByteWithThem) {
    const Ranges ranges{{4, 8}};
    EXPECT_TRUE(touches(ranges, 0, 5));
    EXPECT_TRUE(touches(ranges, 5, 6));
    EXPECT_TRUE(touches(ranges, 7, 12));
    EXPECT_FALSE(touches(ranges, 0, 4));
    EXPECT_FALSE(touches(ranges, 8, 12));
    EXPECT_FALSE(touches({}, 0, 12));
}

TEST(Owners, BesideATableAreTheOtherTablesAndTheTextsOfTheFstResource) {
    const Owners owners({.servers = 2, .hb = 3, .np = 4, .fst = 1});
    // 3 and 4 records of 592 bytes, the process ids, 3 rows of 2 words, the description, the state.
    EXPECT_THAT(
        pairs(owners.beside(resource_kinds[0])),
        ElementsAre(Pair(10484, 11132), Pair(11132, 11156), Pair(10188, 10444), Pair(10448, 10452), Pair(5228, 7596)));
    EXPECT_THAT(
        pairs(owners.beside(resource_kinds[1])),
        ElementsAre(Pair(10484, 11132), Pair(11132, 11156), Pair(10188, 10444), Pair(10448, 10452), Pair(1724, 3500)));
}

TEST(Owners, OfARegionWithoutAnFstResourceHaveNoTexts) {
    const Owners owners({.servers = 2, .hb = 3, .np = 4, .fst = 0});
    EXPECT_THAT(pairs(owners.beside(resource_kinds[0])),
                ElementsAre(Pair(9900, 9900), Pair(9900, 9924), Pair(5228, 7596)));
}

TEST(Owners, OfARegionWithoutServersHaveNoRows) {
    const Owners owners({.servers = 0, .hb = 3, .np = 4, .fst = 0});
    EXPECT_THAT(pairs(owners.beside(resource_kinds[0])),
                ElementsAre(Pair(1084, 1084), Pair(1084, 1084), Pair(1084, 3420)));
}

TEST(DoubtfulBytes, AreThoseThatAnotherTableSharesWithTheSlotOrALaterOne) {
    // Slots at 1000, 1600 and 2200; the next table begins in the second one and ends in the third.
    const Slots slots(1000, 600, 3, {{2100, 2210}});
    EXPECT_THAT(pairs(slots.shared()), ElementsAre(Pair(2100, 2210)));
    EXPECT_THAT(pairs(slots.doubtful(0)), ElementsAre(Pair(1000, 1010), Pair(1500, 1584)));
    EXPECT_THAT(pairs(slots.doubtful(1)), ElementsAre(Pair(1600, 1610), Pair(2100, 2184)));
    EXPECT_THAT(pairs(slots.doubtful(2)), ElementsAre(Pair(2200, 2210)));
}

TEST(DoubtfulBytes, MayBeTheFirstOfTheirSlotAlone) {
    EXPECT_THAT(pairs(Slots(1000, 600, 3, {{900, 1001}}).doubtful(0)), ElementsAre(Pair(1000, 1001)));
}

TEST(DoubtfulBytes, AreNoneWhereNothingIsShared) {
    EXPECT_THAT(pairs(Slots(1000, 600, 3, {{0, 1000}, {2800, 3000}}).doubtful(0)), IsEmpty());
}

}  // namespace
}  // namespace picture
