// Creators, owners, waiters and closers that are killed at each of their system calls: the next process finds what they
// leave in order.
#include <gtest/gtest.h>
#include <kzmkernel.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>
#include <cstring>
#include <filesystem>
#include <functional>
#include <string>
#include <vector>

#include "support/forked_linux.h"
#include "support/kernel_linux.h"
#include "support/memory_disk_linux.h"
#include "support/sleepers_linux.h"
#include "support/traced_linux.h"

namespace {

using namespace kernel_test;

/// A life with objects, every step of which a kill may end.
void live(const std::string& name) {
    void* const mutex = create_mutex(name + "x");
    void* const mapping = create_mapping(name + "m", 2 * page);
    void* const opened = open_mapping(name + "m");
    char* const view = map(mapping);
    if (!mutex || !mapping || !opened || !view) _exit(1);
    const uint32_t result = kzmkernel_wait(mutex, 5000);
    if (result != KZMKERNEL_WAIT_OWNED && result != KZMKERNEL_WAIT_ABANDONED) _exit(2);
    std::memset(view, 'w', 2 * page);
    if (!kzmkernel_release(mutex)) _exit(3);
    kzmkernel_unmap_view(view);
    kzmkernel_close(opened);
    kzmkernel_close(mapping);
    kzmkernel_close(mutex);
}

/// Runs `live` again and again and kills it one stop later each time, at the entry of a system call or on the way back;
/// the number of times. `look` is run before each (false) and after it (true).
int kill_at_each_stop(const std::string& name, const std::function<void(bool)>& look) {
    for (int stops = 1;; ++stops) {
        look(false);
        Traced child([&] { live(name); });
        bool ended = false;
        for (int i = 0; i < stops && !ended; ++i) ended = !child.step();
        if (ended) {
            EXPECT_EQ(child.status(), 0);
            return stops - 1;
        }
        child.kill();
        look(true);
        if (testing::Test::HasFailure()) {
            ADD_FAILURE() << "killed at stop " << stops;
            return stops;
        }
    }
}

bool all_are(const char* bytes, size_t size, char value) {
    return std::all_of(bytes, bytes + size, [value](char byte) { return byte == value; });
}

constexpr int fewest_stops = 60;

TEST(KernelKilledProcess, LeavesFreeNamesAndZeroedMemory) {
    in_fork([] {
        use_private_memory_disk();
        const std::string name = object_name();
        const int stops = kill_at_each_stop(name, [&](bool after) {
            if (!after) {
                fs::remove_all(folder());  // so that making it is among the steps
                return;
            }
            in_fork([&] {
                EXPECT_EQ(Handle(open_mapping(name + "m")).error, uint32_t{KZMKERNEL_ERROR_FILE_NOT_FOUND});
                const Handle mutex(create_mutex(name + "x"));
                EXPECT_EQ(mutex.error, 0u);
                const Handle mapping(create_mapping(name + "m", 3 * page));
                EXPECT_EQ(mapping.error, 0u);
                EXPECT_EQ(kzmkernel_wait(mutex.value, 0), uint32_t{KZMKERNEL_WAIT_OWNED});
                char* const view = map(mapping.value);
                ASSERT_NE(view, nullptr);
                EXPECT_EQ(kzmkernel_view_size(view), 3 * page);
                EXPECT_TRUE(all_are(view, 3 * page, '\0'));
                EXPECT_TRUE(kzmkernel_release(mutex.value));
            });
            EXPECT_TRUE(fs::is_empty(folder()));
        });
        EXPECT_GT(stops, fewest_stops);
    });
}

TEST(KernelKilledProcess, LeavesTheObjectsOfAnotherHolderIntact) {
    in_fork([] {
        use_private_memory_disk();
        const std::string name = object_name();
        const Handle mutex(create_mutex(name + "x")), mapping(create_mapping(name + "m", 2 * page));
        char* const view = map(mapping.value);
        const int stops = kill_at_each_stop(name, [&](bool after) {
            if (!after) {
                std::memset(view, 'o', 2 * page);
                return;
            }
            in_fork([&] {
                const Handle again(create_mutex(name + "x"));
                EXPECT_EQ(again.error, uint32_t{KZMKERNEL_ERROR_ALREADY_EXISTS});
                const Handle opened(open_mapping(name + "m"));
                char* const bytes = map(opened.value);
                ASSERT_NE(bytes, nullptr);
                EXPECT_TRUE(all_are(bytes, 2 * page, 'o') || all_are(bytes, 2 * page, 'w'));
                const uint32_t result = kzmkernel_wait(again.value, 5000);
                EXPECT_TRUE(result == KZMKERNEL_WAIT_OWNED || result == KZMKERNEL_WAIT_ABANDONED) << result;
                EXPECT_TRUE(kzmkernel_release(again.value));
                EXPECT_EQ(kzmkernel_wait(again.value, 0), uint32_t{KZMKERNEL_WAIT_OWNED});
                EXPECT_TRUE(kzmkernel_release(again.value));
            });
        });
        EXPECT_GT(stops, fewest_stops);
    });
}

TEST(KernelKilledProcess, HandsOnTheLockAsAbandonedIfKilledDuringATakeOver) {
    in_fork([] {
        use_private_memory_disk();
        const std::string name = object_name();
        const Handle mutex(create_mutex(name + "x"));
        int reported = 0, lost = 0;
        const int stops = kill_at_each_stop(name, [&](bool after) {
            if (!after) {
                in_fork([&] { kzmkernel_wait(mutex.value, 0); });
                return;
            }
            in_fork([&] {
                const uint32_t result = kzmkernel_wait(mutex.value, 5000);
                EXPECT_TRUE(result == KZMKERNEL_WAIT_OWNED || result == KZMKERNEL_WAIT_ABANDONED) << result;
                EXPECT_TRUE(kzmkernel_release(mutex.value));
                _exit(testing::Test::HasFailure() ? 1 : 0);
            });
            // It had been abandoned: either the killed one was told, or the next one is.
            reported += info_of(mutex.value).takeovers > static_cast<uint64_t>(lost);
            lost = static_cast<int>(info_of(mutex.value).takeovers);
        });
        EXPECT_EQ(reported, stops);
        EXPECT_GT(stops, fewest_stops);
    });
}

// The calls of a wait that blocks and of a release that wakes: without contention neither enters the kernel.
TEST(KernelKilledProcess, BlocksNobodyIfKilledDuringAWaitOrRelease) {
    const std::string name = object_name();
    const Handle mutex(create_mutex(name));
    bool ended = false;
    int stops = 1;
    for (; !ended && !HasFailure(); ++stops) {
        // The one killed before may have been the last to get it.
        const uint32_t begin = kzmkernel_wait(mutex.value, 0);
        ASSERT_TRUE(begin == KZMKERNEL_WAIT_OWNED || begin == KZMKERNEL_WAIT_ABANDONED) << stops << ' ' << begin;
        {
            Traced child([&] {
                if (kzmkernel_wait(mutex.value, 20'000) != KZMKERNEL_WAIT_OWNED || !kzmkernel_release(mutex.value))
                    _exit(1);
            });
            int done = 0;
            const auto enters_futex = [&] {
                const std::vector<uint64_t> call = child.entered();
                return !call.empty() && call[0] == SYS_futex;
            };
            while (done < stops && child.step()) {
                ++done;
                if (enters_futex()) break;
            }
            if (done < stops) {
                // It blocks now, and another one behind it, which it has to wake.
                child.go();
                wait_until_asleep_in(SYS_futex, child.id());
            }
            SleepingWaiter waiter(mutex.value);
            EXPECT_TRUE(kzmkernel_release(mutex.value));
            if (done < stops) {
                ended = !child.stands();
                ++done;
                while (!ended && done < stops) {
                    ended = !child.step();
                    ++done;
                }
            }
            if (ended) {
                EXPECT_EQ(child.status(), 0);
            } else {
                child.kill();
            }
            const uint32_t result = waiter.result();
            EXPECT_TRUE(result == KZMKERNEL_WAIT_OWNED || result == KZMKERNEL_WAIT_ABANDONED) << stops << ' ' << result;
        }
    }
    EXPECT_GT(stops, 5);
}

}  // namespace
