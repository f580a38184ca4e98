#include "etcd_trouble.h"

#include <gtest/gtest.h>

namespace bridge {
namespace {

constexpr Time calm = 4'000;

TEST(EtcdTrouble, IsLoggedWhenItBeginsAndWhenItEndsHoweverManyRequestsFail) {
    EtcdTrouble trouble(calm);
    EXPECT_EQ(trouble.step(1'000, {.answered = 7}), "");
    EXPECT_EQ(trouble.step(2'000, {.answered = 7, .failed = 1, .last_failure = "connection refused"}),
              "etcd failed to answer: connection refused");
    EXPECT_TRUE(trouble.is_on());
    EXPECT_EQ(trouble.step(2'500, {.answered = 7, .failed = 2, .last_failure = "connection refused"}), "");
    EXPECT_EQ(trouble.step(9'000, {.answered = 7, .failed = 40, .last_failure = "timed out"}), "");
    EXPECT_EQ(trouble.step(12'999, {.answered = 9, .failed = 40, .last_failure = "timed out"}), "");
    EXPECT_EQ(trouble.step(13'000, {.answered = 9, .failed = 40, .last_failure = "timed out"}),
              "etcd answers again; requests that failed: 40 within 7.0 s, the last one because: timed out");
    EXPECT_FALSE(trouble.is_on());
    EXPECT_EQ(trouble.step(60'000, {.answered = 90, .failed = 40, .last_failure = "timed out"}), "");
}

TEST(EtcdTrouble, GoesOnWhileSomeRequestsAreAnsweredAndSomeAreNot) {
    EtcdTrouble trouble(calm);
    Outcomes outcomes{.answered = 1, .failed = 1, .last_failure = "database space exceeded"};
    EXPECT_EQ(trouble.step(0, outcomes), "etcd failed to answer: database space exceeded");
    for (Time now = 200; now < 60'000; now += 200) {
        ++(now % 400 == 0 ? outcomes.answered : outcomes.failed);
        EXPECT_EQ(trouble.step(now, outcomes), "") << now;
    }
}

TEST(EtcdTrouble, HasNotEndedBeforeARequestIsAnswered) {
    EtcdTrouble trouble(calm);
    trouble.step(0, {.answered = 1, .failed = 1, .last_failure = "timed out"});
    EXPECT_EQ(trouble.step(60'000, {.answered = 1, .failed = 1, .last_failure = "timed out"}), "");
    EXPECT_EQ(trouble.step(60'001, {.answered = 2, .failed = 1, .last_failure = "timed out"}),
              "etcd answers again; requests that failed: 1 within 0.0 s, the last one because: timed out");
}

TEST(EtcdTrouble, IsLoggedEachTimeItBegins) {
    EtcdTrouble trouble(calm);
    trouble.step(0, {.failed = 1, .last_failure = "timed out"});
    EXPECT_NE(trouble.step(calm, {.answered = 1, .failed = 1, .last_failure = "timed out"}), "");
    EXPECT_EQ(trouble.step(calm + 1, {.answered = 1, .failed = 2, .last_failure = "connection refused"}),
              "etcd failed to answer: connection refused");
}

}  // namespace
}  // namespace bridge
