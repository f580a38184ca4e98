// Copies of the live region on Windows, where the lock has no page that a reader could look at.
#include <gmock/gmock.h>
#include <windows.h>

#include <string>
#include <thread>

#include "picture/error.h"
#include "picture/held_region.h"
#include "picture/live.h"
#include "picture/live_region.h"
#include "picture/repair.h"

namespace picture {
namespace {

using test::Child;
using test::LiveCopy;
using LiveRegionTest = LiveCopy;
using test::report;

TEST_F(LiveCopy, AlwaysTakesTheLock) {
    std::string told;
    LiveRegion live({.tell = [&](const std::string& line) { told = line; }});
    const Snapshot copy = live.copy(Bytes::in_use);
    EXPECT_EQ(copy.way, CopyWay::with_lock);
    EXPECT_FALSE(copy.lock);
    EXPECT_FALSE(copy.steps);
    EXPECT_THAT(told, testing::StartsWith("copied the bytes in use with the lock: "));
}

CHILD(own_the_lock) {
    report(shmnm_attach());
    report(shmnm_rwlock(0));
    test::hang();
}

TEST_F(LiveCopy, TellsThatItTookTheLockOverAndReleasesIt) {
    Child owner = start(own_the_lock);
    EXPECT_EQ(owner.reported(), SHMNM_OK);
    EXPECT_EQ(owner.reported(), SHMNM_OK);
    owner.kill();
    int told = 0;
    bool was_free = false;
    LiveRegion live({.took_over = [&] {
        ++told;
        std::thread([&] {
            LiveRegion other({});
            was_free = other.try_lock();
            if (was_free) other.unlock();
        }).join();
    }});
    live.copy(Bytes::in_use);
    EXPECT_EQ(told, 1);
    EXPECT_TRUE(was_free) << "it told before it released the lock";
    live.copy(Bytes::in_use);
    EXPECT_EQ(told, 1);
    Child next = start(own_the_lock);
    EXPECT_EQ(next.reported(), SHMNM_OK);
    EXPECT_EQ(next.reported(), SHMNM_OK);
}

TEST_F(LiveRegionTest, TellsWhetherTheLastOwnerOfItsLockEndedWithIt) {
    Child owner = start(own_the_lock);
    EXPECT_EQ(owner.reported(), SHMNM_OK);
    EXPECT_EQ(owner.reported(), SHMNM_OK);
    owner.kill();
    LiveRegion live({});
    EXPECT_TRUE(live.take_over());
    EXPECT_FALSE(live.take_over());
}

TEST_F(LiveRegionTest, KeepsNoNoteFromWhichAChangeCouldBeCompleted) {
    try {
        repair({}, false, false);
        FAIL() << "repaired";
    } catch (const Error& error) {
        EXPECT_EQ(error.kind, ErrorKind::no_notes);
        EXPECT_STREQ(error.what(), "nothing was changed: this system keeps no note of changes");
    }
}

/// Handles of this process that its children could inherit.
int inheritable_handles() {
    int found = 0;
    for (uintptr_t value = 4; value < 0x4000; value += 4) {
        DWORD flags = 0;
        const auto handle = reinterpret_cast<HANDLE>(value);
        if (GetHandleInformation(handle, &flags) && (flags & HANDLE_FLAG_INHERIT) != 0) ++found;
    }
    return found;
}

TEST_F(LiveRegionTest, IsInheritedByNoChild) {
    const int before = inheritable_handles();
    int while_copying = 0;
    LiveRegion live({.tell = [&](const std::string&) { while_copying = inheritable_handles(); }});
    live.copy(Bytes::in_use);
    EXPECT_EQ(while_copying, before);
    const auto held = HeldRegion::open();
    const WritableRegion writable;
    EXPECT_EQ(inheritable_handles(), before);
}

}  // namespace
}  // namespace picture
