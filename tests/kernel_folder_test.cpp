// The folder of a user's kernel objects and the file beside it that guards it, its sibling: their modes, and what
// happens when either is removed, between or during the steps of processes that create objects.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <kzmkernel.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <filesystem>
#include <vector>

#include "support/forked_linux.h"
#include "support/kernel_linux.h"
#include "support/memory_disk_linux.h"
#include "support/traced_linux.h"

namespace {

using namespace kernel_test;

TEST(KernelSibling, IsAnEmptyFileForItsUserOnlyUnderAnyUmask) {
    for (const mode_t mask : {0000u, 0177u, 0277u, 0777u}) {
        in_fork([mask] {
            use_private_memory_disk();
            umask(mask);
            const Handle mutex(create_mutex(object_name()));
            EXPECT_EQ(mutex.error, 0u);
            struct stat found {};
            ASSERT_EQ(stat(sibling().c_str(), &found), 0);
            EXPECT_EQ(found.st_mode, static_cast<mode_t>(S_IFREG | 0600));
            EXPECT_EQ(found.st_uid, geteuid());
            EXPECT_EQ(found.st_size, 0);
        });
    }
}

TEST(KernelSibling, IsRefusedWithAWiderModeOrASecondLink) {
    in_fork([] {
        use_private_memory_disk();
        { const Handle maker(create_mutex(object_name())); }
        for (const unsigned mode : {0640u, 0602u, 0700u, 04600u}) {
            ASSERT_EQ(chmod(sibling().c_str(), mode), 0);
            expect_mutex_refused(KZMKERNEL_ERROR_ACCESS_DENIED);
        }
        // Fewer permissions than ours are what a creator leaves that was killed in between.
        for (const unsigned mode : {0000u, 0200u, 0400u}) {
            ASSERT_EQ(chmod(sibling().c_str(), mode), 0);
            expect_new(create_mutex, object_name());
        }
        fs::create_hard_link(sibling(), "/dev/shm/second");
        expect_mutex_refused(KZMKERNEL_ERROR_ACCESS_DENIED);
        fs::remove("/dev/shm/second");
        expect_new(create_mutex, object_name());
    });
}

TEST(KernelSibling, IsMadeAgainWhenOnlyItIsRemovedAndTheObjectsStay) {
    in_fork([] {
        use_private_memory_disk();
        Sign held;
        Forked holder([&] {
            create_mutex(object_name());
            held.give();
            pause_forever();
        });
        held.await();
        fs::remove(sibling());
        const Handle opened(create_mutex(object_name()));
        EXPECT_EQ(opened.error, uint32_t{KZMKERNEL_ERROR_ALREADY_EXISTS});
        EXPECT_TRUE(fs::exists(sibling()));
        // The new one guards the folder as the first one did.
        fs::remove_all(folder());
        in_fork([] { expect_mutex_refused(KZMKERNEL_ERROR_FILE_INVALID); });
    });
}

TEST(KernelSibling, IsHeldAgainByAProcessThatOpensItsObjectAgainAfterARemoval) {
    in_fork([] {
        use_private_memory_disk();
        const Handle first(create_mutex(object_name()));
        fs::remove(sibling());
        const Handle again(create_mutex(object_name()));
        EXPECT_EQ(again.error, uint32_t{KZMKERNEL_ERROR_ALREADY_EXISTS});
        fs::remove_all(folder());
        in_fork([] { expect_mutex_refused(KZMKERNEL_ERROR_FILE_INVALID); });
    });
}

TEST(KernelSibling, IsMadeAgainAfterItsUnusedFolderWasRemovedWithIt) {
    in_fork([] {
        use_private_memory_disk();
        { const Handle handle(create_mutex(object_name())); }
        fs::remove_all(folder());
        fs::remove(sibling());
        EXPECT_EQ(Handle(open_mutex(object_name())).error, uint32_t{KZMKERNEL_ERROR_FILE_NOT_FOUND});
        EXPECT_FALSE(fs::exists(folder()));
        EXPECT_FALSE(fs::exists(sibling()));
        expect_new(create_mutex, object_name());
    });
}

// A second process comes after the removal, wherever the first one stands.
TEST(KernelFolder, NeverHoldsASecondObjectIfRemovedAtAnyStepOfACreator) {
    in_fork([] {
        use_private_memory_disk();
        bool ended = false;
        int noticed = 0, stops = 1;
        for (; !ended && !HasFailure(); ++stops) {
            fs::remove_all(folder());
            fs::remove(sibling());
            // Its answer is its number of the object, or 0 when it was refused, at the call of getppid().
            Traced creator([&] {
                const Handle mutex(create_mutex(object_name()));
                const uint64_t number = mutex.value ? kzmkernel_object_number(mutex.value) : 0;
                syscall(SYS_getppid, number);
            });
            const auto is_done = [&] {
                const std::vector<uint64_t> call = creator.entered();
                return !call.empty() && call[0] == SYS_getppid;
            };
            for (int i = 0; i < stops && !ended; ++i) ended = !creator.step() || is_done();
            fs::remove_all(folder());
            const Handle second(create_mutex(object_name()));
            while (!is_done()) ASSERT_TRUE(creator.step());
            const uint64_t first_number = creator.entered().at(1);
            if (second.value && first_number != 0) {
                EXPECT_EQ(first_number, kzmkernel_object_number(second.value)) << "two objects at stop " << stops;
            }
            noticed += second.error == KZMKERNEL_ERROR_FILE_INVALID;
            while (creator.step()) {
            }
            EXPECT_EQ(creator.status(), 0);
        }
        EXPECT_GT(stops, 40);
        EXPECT_GT(noticed, 0);
    });
}

TEST(KernelSibling, MayBeRemovedAtAnyStepOfACreator) {
    in_fork([] {
        use_private_memory_disk();
        bool ended = false;
        for (int stops = 1; !ended && !HasFailure(); ++stops) {
            Traced creator([] {
                const uint32_t error = Handle(create_mutex(object_name())).error;
                EXPECT_TRUE(error == 0 || error == KZMKERNEL_ERROR_FILE_INVALID) << error;
            });
            for (int i = 0; i < stops && !ended; ++i) ended = !creator.step();
            fs::remove(sibling());
            while (!ended && creator.step()) {
            }
            EXPECT_EQ(creator.status(), 0) << "removed at stop " << stops;
            expect_new(create_mutex, object_name());
        }
    });
}

TEST(KernelFolder, HoldsItsOwnObjectsIfAnotherDiskIsMountedOverIt) {
    in_fork([] {
        use_private_memory_disk();
        const Handle first(create_mutex(object_name()));
        ASSERT_EQ(first.error, 0u);
        // The inodes of a new disk have the same numbers.
        use_private_memory_disk();
        const Handle second(create_mutex(object_name()));
        EXPECT_EQ(second.error, 0u);
        EXPECT_EQ(kzmkernel_wait(first.value, 0), uint32_t{KZMKERNEL_WAIT_OWNED});
        EXPECT_TRUE(kzmkernel_release(first.value));
    });
}

// Each has looked at its own folder and found that no other one lives.
TEST(KernelFolder, HoldsOneObjectIfRemovedBetweenTwoCreators) {
    in_fork([] {
        use_private_memory_disk();
        Sign over;
        const auto create = [&] {
            const Handle mutex(create_mutex(object_name()));
            syscall(SYS_getppid, kzmkernel_object_number(mutex.value));
            over.await();
        };
        Traced first(create), second(create);
        const auto run_to = [](Traced& creator, uint64_t number, uint64_t other) {
            while (creator.step()) {
                const std::vector<uint64_t> call = creator.entered();
                if (!call.empty() && (call[0] == number || call[0] == other)) return;
            }
            FAIL() << "ended";
        };
        const auto run_to_its_locks = [&](Traced& creator) {
            do {
                run_to(creator, SYS_fcntl, SYS_fcntl);
            } while (!testing::Test::HasFailure() && creator.entered().at(2) != F_OFD_SETLK);
        };
        run_to_its_locks(first);
        fs::remove_all(folder());
        run_to_its_locks(second);
        // Where the first one waits for the second it sleeps.
        run_to(first, SYS_getppid, SYS_clock_nanosleep);
        run_to(second, SYS_getppid, SYS_getppid);
        while (!HasFailure() && first.entered().at(0) != SYS_getppid) run_to(first, SYS_getppid, SYS_clock_nanosleep);
        ASSERT_FALSE(HasFailure());
        EXPECT_EQ(first.entered().at(1), second.entered().at(1));
        EXPECT_NE(first.entered().at(1), 0u);
    });
}

}  // namespace
