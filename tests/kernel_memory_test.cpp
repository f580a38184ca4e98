// The memory of kzmkernel's objects: all of it is there from the start, or the create fails.
#include <gmock/gmock.h>
#include <kzmkernel.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/syscall.h>

#include <cerrno>
#include <csignal>
#include <cstring>
#include <filesystem>
#include <string>
#include <vector>

#include "support/forked_linux.h"
#include "support/kernel_linux.h"
#include "support/memory_disk_linux.h"
#include "support/temporary_folder.h"
#include "support/traced_linux.h"

namespace {

using namespace kernel_test;

TEST(KernelMemory, FailsTheCreateWhenItIsShortAndLeavesNothing) {
    in_fork([] {
        use_private_memory_disk("size=256k");
        const std::string name = object_name();
        for (const uint64_t size : {uint64_t{1} << 20, 257 * kib, uint64_t{1} << 40, uint64_t{INT64_MAX}}) {
            const Handle mapping(create_mapping(name, size));
            EXPECT_EQ(mapping.value, nullptr);
            EXPECT_THAT(mapping.error, testing::AnyOf(uint32_t{KZMKERNEL_ERROR_DISK_FULL},
                                                      uint32_t{KZMKERNEL_ERROR_NOT_ENOUGH_MEMORY}));
            EXPECT_TRUE(fs::is_empty(folder()));
        }
        EXPECT_EQ(Handle(create_mapping(name, UINT64_MAX)).error, uint32_t{KZMKERNEL_ERROR_NOT_ENOUGH_MEMORY});
        // The largest number of whole pages that a file may have, and one byte more.
        constexpr uint64_t most = uint64_t{INT64_MAX} - page + 1;
        EXPECT_EQ(Handle(create_mapping(name, most - 1)).error, uint32_t{KZMKERNEL_ERROR_DISK_FULL});
        EXPECT_EQ(Handle(create_mapping(name, most)).error, uint32_t{KZMKERNEL_ERROR_NOT_ENOUGH_MEMORY});
        EXPECT_EQ(Handle(create_mapping(name, 257 * kib)).error, uint32_t{KZMKERNEL_ERROR_DISK_FULL});
        EXPECT_STREQ(kzmkernel_explanation(), "cannot allocate 266240 bytes: No space left on device");
        const Handle first(create_mapping(name, 200 * kib));
        ASSERT_EQ(first.error, 0u);
        const Handle second(create_mapping(name + "2", 100 * kib));
        EXPECT_EQ(second.error, uint32_t{KZMKERNEL_ERROR_DISK_FULL});
        EXPECT_FALSE(fs::exists(file_of_mapping(name + "2")));
        EXPECT_FALSE(fs::exists(folder() / ".new"));
        // All of it is there, whatever fills the rest of the disk.
        write_text("/dev/shm/rest", std::string(256 * kib, 'r'));
        char* const view = map(first.value);
        std::memset(view, 1, 200 * kib);
    });
}

TEST(KernelMemory, MayFillTheDisk) {
    in_fork([] {
        use_private_memory_disk("size=256k");
        { const Handle folder_maker(create_mapping(object_name())); }
        const Handle mapping(create_mapping(object_name(), fs::space("/dev/shm").available));
        EXPECT_EQ(mapping.error, 0u);
        EXPECT_EQ(fs::space("/dev/shm").available, 0u);
        EXPECT_EQ(Handle(create_mapping(object_name() + "2")).error, uint32_t{KZMKERNEL_ERROR_DISK_FULL});
    });
}

TEST(KernelMemory, IsThereOnADiskWithoutASize) {
    in_fork([] {
        use_private_memory_disk("size=0");
        expect_new(create_page, object_name());
    });
}

TEST(KernelMemory, IsFreedByADeadObjectForTheNextOne) {
    in_fork([] {
        use_private_memory_disk("size=256k");
        Sign held;
        Forked holder([&] {
            create_mapping("large", 200 * kib);
            held.give();
            pause_forever();
        });
        held.await();
        holder.kill();
        EXPECT_EQ(Handle(create_mapping("other", 200 * kib)).error, 0u);
    });
}

TEST(KernelMemory, FailsTheCreateWhenItRunsOutDuringTheAllocation) {
    in_fork([] {
        // What is free is asked for first, so only one who takes the rest meanwhile makes an allocation fail half-way:
        // a limit on the size of files does the same to order.
        use_private_memory_disk();
        signal(SIGXFSZ, SIG_IGN);
        const rlimit limit{20u << 20, 20u << 20};
        ASSERT_EQ(setrlimit(RLIMIT_FSIZE, &limit), 0);
        const Handle mapping(create_mapping(object_name(), 40u << 20));
        EXPECT_EQ(mapping.error, uint32_t{KZMKERNEL_ERROR_NOT_ENOUGH_MEMORY});
        EXPECT_TRUE(fs::is_empty(folder()));
    });
}

// Kernels differ in whether a signal ends an allocation, so the calls are made to fail from outside.
TEST(KernelMemory, IsAllocatedEvenIfSignalsInterruptTheCalls) {
    constexpr uint64_t size = 5u << 20;
    Traced creator([&] {
        const Handle mapping(create_mapping(object_name(), size));
        EXPECT_EQ(mapping.error, 0u);
        char* const view = map(mapping.value);
        ASSERT_NE(view, nullptr);
        std::memset(view, 1, size);
        struct stat found {};
        EXPECT_EQ(stat(file_of_mapping(object_name()).c_str(), &found), 0);
        EXPECT_EQ(static_cast<uint64_t>(found.st_blocks) * 512, size);
    });
    int allocations = 0, ended = 0;
    while (creator.step()) {
        const std::vector<uint64_t> call = creator.entered();
        if (call.empty() || call[0] != SYS_fallocate || allocations++ % 3 == 2) continue;
        creator.fail_call(EINTR);
        ++ended;
    }
    EXPECT_EQ(creator.status(), 0);
    EXPECT_GE(ended, 2);
}

}  // namespace
