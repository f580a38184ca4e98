// Why a region cannot be made or looked at. denied_region_test.cpp has what only Windows refuses.
#include "picture/held_region.h"

#include <gmock/gmock.h>

#include <sched.h>
#include <unistd.h>

#include <functional>
#include <optional>
#include <string>
#include <vector>

#include "picture/error.h"
#include "picture/live.h"
#include "support/child.h"
#include "support/forked_linux.h"
#include "support/memory_disk_linux.h"
#include "support/other_user_linux.h"
#include "support/temporary_folder.h"

namespace picture {
namespace {

using testing::StartsWith;

TEST(HeldRegion, LivesAsLongAsItIsHeld) {
    const Counts counts{2, 1, 1, 1};
    {
        const HeldRegion made = HeldRegion::make_or_open(counts);
        EXPECT_TRUE(made.is_new());
        const std::optional<HeldRegion> opened = HeldRegion::open();
        ASSERT_TRUE(opened);
        EXPECT_FALSE(opened->is_new());
        EXPECT_TRUE(opened->size().fits(counts));
        EXPECT_FALSE(HeldRegion::make_or_open(counts).is_new());
    }
    EXPECT_FALSE(HeldRegion::open());
}

TEST(HeldRegion, CannotBeMadeLargerThanTheMachinesMemory) {
    test::in_fork([] {
        test::use_private_memory_disk("size=1m");
        // More than 5 TB; and 60 bytes more than 4 GiB.
        for (const Counts& counts : {Counts{100'000, 100'000, 0, 0}, Counts{2136, 3396, 0, 0}}) {
            try {
                HeldRegion::make_or_open(counts);
                ADD_FAILURE() << "made for " << to_text(counts);
            } catch (const Error& error) {
                EXPECT_EQ(error.kind, ErrorKind::failed);
                EXPECT_THAT(error.what(),
                            StartsWith("cannot create the region " + full_name(mapping_name) + " (error "));
            }
        }
    });
}

CHILD(make_a_region) {
    try {
        HeldRegion::make_or_open({2, 1, 1, 1});
        test::report_text("made");
    } catch (const Error& error) {
        test::report_text(error.what());
    }
}

TEST(HeldRegion, CannotBeMadeInAFolderOfAnotherUser) {
    const test::TemporaryFolder folder;
    ASSERT_EQ(chown(folder.string().c_str(), test::spare_user(), test::spare_user()), 0);
    const test::ScopedEnvironment there("KZMKERNEL_FOLDER", folder.string().c_str());
    test::Child child = test::start(make_a_region);
    EXPECT_THAT(child.reported_text(), StartsWith("cannot create the region " + full_name(mapping_name) +
                                                  " (error 5): " + folder.string() + " belongs to user "));
}

CHILD(hold_a_region_and_its_lock) {
    const HeldRegion region = HeldRegion::make_or_open({2, 1, 1, 1});
    LiveRegion live({});
    test::report(live.mutex() != nullptr);
    test::hang();
}

TEST(LiveRegionInAnotherProcessIdNamespace, IsRefusedBecauseOfItsLock) {
    test::Child owner = test::start(hold_a_region_and_its_lock);
    ASSERT_EQ(owner.reported(), 1u);
    test::in_fork([] {
        test::Forked inner(
            [] {
                std::vector<std::string> told;
                LiveRegion live({.tell = [&](const std::string& line) { told.push_back(line); }});
                EXPECT_NO_THROW(live.expect()) << "the region itself was refused";
                const std::string words = "cannot open the lock " + full_name(mutex_name) + " (error 5)";
                const std::function<void()> uses[] = {[&] { live.copy(Bytes::in_use); }, [&] { live.is_reader(); }};
                for (const auto& use : uses) {
                    try {
                        use();
                        ADD_FAILURE() << "not refused";
                    } catch (const Error& error) {
                        EXPECT_EQ(error.kind, ErrorKind::region_refused);
                        EXPECT_THAT(error.what(), StartsWith(words));
                    }
                }
                EXPECT_THAT(told, testing::ElementsAre("opens the region " + full_name(mapping_name),
                                                       "opens the mutex " + full_name(mutex_name)));
            },
            geteuid() == 0 ? CLONE_NEWPID : CLONE_NEWPID | CLONE_NEWUSER);
        EXPECT_EQ(inner.wait(), 0);
    });
}

}  // namespace
}  // namespace picture
