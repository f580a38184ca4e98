// The region is mapped for as long as an Attachment lives.
#include "region_fixture.h"
#include "shmnm.hpp"

namespace {

using shmnm::errc;

static_assert(!std::is_copy_constructible_v<shmnm::Attachment> && !std::is_copy_assignable_v<shmnm::Attachment>);
static_assert(std::is_nothrow_move_constructible_v<shmnm::Attachment> &&
              std::is_nothrow_move_assignable_v<shmnm::Attachment>);

class Attachment : public test::RegionTest {
  protected:
    static bool mapped() {
        uint32_t word = 0;
        return shmnm_getclstat(&word) == SHMNM_OK;
    }
};

TEST_F(Attachment, UnmapsACreatedRegionWhenItEnds) {
    {
        const shmnm::Attachment region = shmnm::create();
        EXPECT_TRUE(region);
        EXPECT_TRUE(mapped());
        EXPECT_EQ(shmnm::maxima().servers, 128);
    }
    EXPECT_FALSE(mapped());
    EXPECT_EQ(shmnm_create(), SHMNM_OK) << "nothing was left open";
    EXPECT_EQ(shmnm_delete(), SHMNM_OK);
}

TEST_F(Attachment, IsCountedByTheLibrary) {
    map_region();
    EXPECT_EQ(shmnm_attach(), SHMNM_OK);
    {
        const shmnm::Attachment first = shmnm::attach();
        const shmnm::Attachment second = shmnm::attach();
        EXPECT_TRUE(first && second);
    }
    EXPECT_TRUE(mapped());
    EXPECT_EQ(shmnm_detach(), SHMNM_OK);
    EXPECT_FALSE(mapped());
}

TEST_F(Attachment, HoldsNothingAfterAFailure) {
    fake.open_errors = {2};
    std::error_code error;
    const shmnm::Attachment none = shmnm::attach(error);
    EXPECT_FALSE(none);
    EXPECT_EQ(error, errc::openmap);
    fake.open_errors = {2};
    EXPECT_THROW(static_cast<void>(shmnm::attach()), shmnm::Error);
    fake.results["xmllib_load_config(0)"] = 1;
    const shmnm::Attachment of_nothing = shmnm::create(error);
    EXPECT_FALSE(of_nothing);
    EXPECT_EQ(error, errc::loadconfig);
    log_of_last_call();
}

TEST_F(Attachment, PassesTheRegionOnWhenItIsMoved) {
    shmnm::Attachment first = shmnm::create();
    shmnm::Attachment second = std::move(first);
    EXPECT_FALSE(first);  // NOLINT(bugprone-use-after-move): what a move leaves is what is tested
    EXPECT_TRUE(second);
    EXPECT_TRUE(mapped());
    second = shmnm::Attachment();
    EXPECT_FALSE(second);
    EXPECT_FALSE(mapped());
    shmnm::Attachment& same = second;
    second = shmnm::create();
    second = std::move(same);
    EXPECT_TRUE(second) << "a move to itself keeps the region";
    EXPECT_TRUE(mapped());
}

TEST_F(Attachment, IsClosedOnceAndTellsTheResult) {
    shmnm::Attachment region = shmnm::create();
    std::error_code error = errc::notfound;
    region.close(error);
    EXPECT_FALSE(error);
    EXPECT_FALSE(region);
    EXPECT_FALSE(mapped());
    log_of_last_call();
    error = errc::notfound;
    region.close(error);
    EXPECT_FALSE(error) << "nothing is held, so nothing fails";
    EXPECT_THAT(log_of_last_call(), testing::IsEmpty());
    region = shmnm::create();
    EXPECT_EQ(shmnm_delete(), SHMNM_OK);
    EXPECT_THROW(region.close(), shmnm::Error) << "unmapped by somebody else";
    EXPECT_FALSE(region);
}

}  // namespace
