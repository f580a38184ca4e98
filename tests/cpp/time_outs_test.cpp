// What the C functions get for a duration. They are recorders here.
#include <gmock/gmock.h>

#include <limits>

#include "recorder.h"
#include "shmnm.hpp"

namespace {

using namespace std::chrono_literals;
using testing::ElementsAre;

/// The number that a duration becomes.
template <typename Duration>
std::string given_for(Duration timeout) {
    recorder::take();
    { const shmnm::WriteLock lock(timeout); }
    return recorder::take().front();
}

TEST(TimeOuts, OfZeroOrLessTryOnce) {
    EXPECT_EQ(given_for(0s), "shmnm_rwlock(0)");
    EXPECT_EQ(given_for(-5s), "shmnm_rwlock(0)");
    EXPECT_EQ(given_for(std::chrono::nanoseconds::min()), "shmnm_rwlock(0)");
    EXPECT_EQ(given_for(std::chrono::duration<double>(std::numeric_limits<double>::quiet_NaN())), "shmnm_rwlock(0)");
}

TEST(TimeOuts, AreRoundedUpToMilliseconds) {
    EXPECT_EQ(given_for(1ns), "shmnm_rwlock(1)");
    EXPECT_EQ(given_for(1ms), "shmnm_rwlock(1)");
    EXPECT_EQ(given_for(1001us), "shmnm_rwlock(2)");
    EXPECT_EQ(given_for(5s), "shmnm_rwlock(5000)");
    EXPECT_EQ(given_for(std::chrono::duration<double>(0.25)), "shmnm_rwlock(250)");
    EXPECT_EQ(given_for(2h), "shmnm_rwlock(7200000)");
}

TEST(TimeOuts, NeverBecomeTheNumberWithoutLimit) {
    EXPECT_EQ(given_for(std::chrono::milliseconds(0xFFFFFFFF)), "shmnm_rwlock(4294967294)");
    EXPECT_EQ(given_for(std::chrono::hours::max()), "shmnm_rwlock(4294967294)");
    EXPECT_EQ(given_for(std::chrono::nanoseconds::max()), "shmnm_rwlock(4294967294)");
    EXPECT_EQ(given_for(std::chrono::duration<float>(std::numeric_limits<float>::infinity())),
              "shmnm_rwlock(4294967294)");
}

TEST(TimeOuts, AreWithoutLimitOnlyIfAskedFor) {
    recorder::take();
    { const shmnm::ReadLock lock(shmnm::forever); }
    shmnm::WriteLock lock(std::defer_lock);
    lock.lock();
    EXPECT_THAT(recorder::take(),
                ElementsAre("shmnm_rolock(4294967295)", "shmnm_rounlock()", "shmnm_rwlock(4294967295)"));
    EXPECT_TRUE(lock.try_lock());
    EXPECT_TRUE(lock.try_lock_for(2s));
    EXPECT_THAT(recorder::take(), ElementsAre("shmnm_rwlock(0)", "shmnm_rwlock(2000)"));
}

}  // namespace
