#include "bridge_marks/live.h"

#include <gtest/gtest.h>

#include "bridge_marks/page_of_a_bridge.h"
#include "picture/platform.h"
#include "support/child.h"

namespace bridge {
namespace {

namespace platform = picture::platform;
using test::PageOfABridge;

Marks marks_of(const char* server) {
    Marks marks;
    marks.server = server;
    return marks;
}

CHILD(write_marks_and_wait) {
    LiveMarks live;
    live.write(marks_of("alpha"));
    test::report(0);
    test::told();
}

TEST(LiveMarks, AreReadWhileTheirBridgeRunsAndVanishWithIt) {
    EXPECT_FALSE(read_live_marks()) << "no bridge has run";
    test::Child bridge = test::start(write_marks_and_wait);
    bridge.reported();
    const auto read = read_live_marks();
    ASSERT_TRUE(read);
    EXPECT_EQ(read->marks.server, "alpha");
    bridge.kill();
    EXPECT_FALSE(read_live_marks()) << "the bridge was killed";
}

TEST(LiveMarks, AreNoneBeforeTheFirstAreWritten) {
    const LiveMarks live;
    EXPECT_FALSE(read_live_marks());
}

TEST(LiveMarks, AreNoneOnceTheirBridgeHasStoodStillForTwoSeconds) {
    const PageOfABridge page(sizeof(MarksPage));
    ASSERT_TRUE(page.get());
    write_marks(*page.get(), marks_of("alpha"), platform::steady_clock_us() - marks_stand_still_ms * 1'000);
    EXPECT_FALSE(read_live_marks());
    write_marks(*page.get(), marks_of("alpha"), platform::steady_clock_us());
    EXPECT_TRUE(read_live_marks());
}

TEST(LiveMarks, EndToSayFreshAtTheLimitAlthoughTheirBridgeStandsStill) {
    const PageOfABridge page(sizeof(MarksPage));
    ASSERT_TRUE(page.get());
    Marks marks = marks_of("alpha");
    marks.limit = 2'000;
    marks.servers = {{.server = "beta", .freshness = Freshness::fresh, .age = 1'995}};
    write_marks(*page.get(), marks, platform::steady_clock_us() - 10'000);
    const auto read = read_live_marks();
    ASSERT_TRUE(read);
    EXPECT_GE(read->marks.servers[0].age, 2'005);
    EXPECT_EQ(read->marks.servers[0].freshness, Freshness::unknown);
}

TEST(LiveMarks, OfASmallerPageAreNone) {
    const PageOfABridge page(4'096);
    ASSERT_TRUE(page.get());
    EXPECT_FALSE(read_live_marks());
}

}  // namespace
}  // namespace bridge
