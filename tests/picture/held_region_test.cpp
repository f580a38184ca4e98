// Why a region cannot be made or looked at. denied_region_test.cpp has what only Windows refuses.
#include "picture/held_region.h"

#include <gmock/gmock.h>

#include <unistd.h>

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

TEST(HeldRegion, CannotBeMadeLargerThanTheMachinesMemory) {
    test::in_fork([] {
        test::use_private_memory_disk("size=1m");
        try {
            // More than 5 TB.
            HeldRegion::make_or_open({100'000, 100'000, 0, 0});
            FAIL() << "made";
        } catch (const Error& error) {
            EXPECT_EQ(error.kind, ErrorKind::failed);
            EXPECT_THAT(error.what(), StartsWith("cannot create the region " + full_name(mapping_name) + " (error "));
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

}  // namespace
}  // namespace picture
