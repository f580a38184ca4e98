// Copies without the lock, of a region whose writer does not wait for them.
#include "picture/repeated_copy.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <vector>

#include "picture/error.h"

namespace picture {
namespace {

/// A region of one byte. Its writer changes it before each of the next copies; a copy takes a millisecond.
class RepeatedCopy : public testing::Test {
  protected:
    void repeat(unsigned changes, uint32_t timeout_ms) {
        copy_.bytes = {0};
        const auto copy_again = [&, left = changes](Snapshot& next) mutable {
            now_us_ += 1'000;
            if (left == 0) return;
            --left;
            ++next.bytes[0];
        };
        repeat_until_equal(
            copy_, copy_again, [&] { return now_us_; }, timeout_ms);
    }

    Snapshot copy_;
    uint64_t now_us_ = 1'000'000;
};

constexpr unsigned never_pauses = UINT32_MAX;

TEST_F(RepeatedCopy, OfAnIdleRegionIsMadeTwiceEvenWithoutTime) {
    repeat(0, 0);
    EXPECT_EQ(copy_.tries, 2u);
    EXPECT_EQ(copy_.bytes, std::vector<uint8_t>{0});
}

TEST_F(RepeatedCopy, EndsAtTheFirstPauseOfTheWriter) {
    repeat(3, 100);
    EXPECT_EQ(copy_.tries, 5u);
    EXPECT_EQ(copy_.bytes, std::vector<uint8_t>{3});
}

TEST_F(RepeatedCopy, GivesUpOnAWriterThatNeverPausesWhenItsTimeIsOver) {
    try {
        repeat(never_pauses, 40);
        FAIL() << "it took a copy that differs from the copy before it";
    } catch (const Error& error) {
        EXPECT_EQ(error.kind, ErrorKind::lock_timeout);
        EXPECT_STREQ(error.what(),
                     "the region changed during each of 41 copies in 40 ms, and this user has no right to its lock");
    }
    EXPECT_EQ(now_us_, 1'040'000u);
}

TEST_F(RepeatedCopy, WithoutTimeComparesOnlyTwoCopies) {
    EXPECT_THROW(repeat(never_pauses, 0), Error);
    EXPECT_EQ(copy_.tries, 2u);
}

}  // namespace
}  // namespace picture
