// Copies of the live region on Windows, where the lock has no page that a reader could look at.
#include <gmock/gmock.h>

#include "picture/live.h"
#include "picture/live_region.h"

namespace picture {
namespace {

using test::LiveCopy;

TEST_F(LiveCopy, AlwaysTakesTheLock) {
    std::string told;
    LiveRegion live({.tell = [&](const std::string& line) { told = line; }});
    const Snapshot copy = live.copy(Bytes::in_use);
    EXPECT_EQ(copy.way, CopyWay::with_lock);
    EXPECT_FALSE(copy.lock);
    EXPECT_FALSE(copy.steps);
    EXPECT_THAT(told, testing::StartsWith("copied the bytes in use with the lock: "));
}

}  // namespace
}  // namespace picture
