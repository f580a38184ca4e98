// How processes wait for a mutex of kzmkernel and release it: how they sleep, who may release it, and that a waiter
// finds a free lock even if other processes are killed or stopped.
#include <gtest/gtest.h>
#include <kzmkernel.h>
#include <linux/futex.h>
#include <sys/mman.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <ctime>
#include <fstream>
#include <string>
#include <thread>
#include <vector>

#include "support/forked_linux.h"
#include "support/kernel_linux.h"
#include "support/sleepers_linux.h"
#include "support/traced_linux.h"

namespace {

using namespace kernel_test;

struct Sleep {
    uint64_t began, ends;  ///< ns of the monotonic clock
};

/// The sleeps of a traced process in a futex. It runs until it ends.
std::vector<Sleep> sleeps_of(Traced& process) {
    std::vector<Sleep> sleeps;
    while (process.step()) {
        const std::vector<uint64_t> call = process.entered();
        if (call.empty() || call[0] != SYS_futex) continue;
        const auto operation = static_cast<int>(call[2]);
        if ((operation & FUTEX_CMD_MASK) == FUTEX_WAKE) continue;
        EXPECT_EQ(operation & FUTEX_CMD_MASK, FUTEX_WAIT_BITSET);
        EXPECT_EQ(operation & FUTEX_CLOCK_REALTIME, 0);
        const uint64_t seconds = process.word_at(call[4]), ns = process.word_at(call[4] + 8);
        sleeps.push_back({clock_ns(CLOCK_MONOTONIC), seconds * 1'000'000'000 + ns});
    }
    return sleeps;
}

/// A process that owns a mutex from the start until it is told to release it.
class OwningProcess {
  public:
    explicit OwningProcess(void* mutex)
        : process_([this, mutex] {
              EXPECT_EQ(kzmkernel_wait(mutex, 0), uint32_t{KZMKERNEL_WAIT_OWNED});
              owned_.give();
              release_.await();
              EXPECT_TRUE(kzmkernel_release(mutex));
          }) {
        owned_.await();
    }
    pid_t id() const { return process_.id(); }
    void kill() { process_.kill(); }
    /// Tells it to release the mutex.
    void release() { release_.give(); }
    /// Waits for its end. @return 0 unless a check in it failed
    int wait() { return process_.wait(); }

  private:
    Sign owned_, release_;
    Forked process_;
};

// A clock that is set cannot reach a sleep that the kernel counts on the monotonic clock.
TEST(KernelWait, SleepsInSlicesOfHalfASecondAndEndsInTime) {
    const Handle mutex(create_mutex(object_name()));
    ASSERT_EQ(kzmkernel_wait(mutex.value, 0), uint32_t{KZMKERNEL_WAIT_OWNED});
    constexpr uint64_t ms = 1'000'000;
    Traced waiter([&] {
        kzmkernel_set_last_error(777);
        EXPECT_EQ(kzmkernel_wait(mutex.value, 1'200), uint32_t{KZMKERNEL_WAIT_TIMEOUT});
        EXPECT_EQ(kzmkernel_last_error(), 777u);
    });
    const uint64_t begin = clock_ns(CLOCK_MONOTONIC);
    const std::vector<Sleep> sleeps = sleeps_of(waiter);
    EXPECT_EQ(waiter.status(), 0);
    ASSERT_GE(sleeps.size(), 2u);
    EXPECT_LE(sleeps.size(), 3u) << "no polling";
    EXPECT_GE(sleeps[0].ends, begin + 500 * ms);
    for (const Sleep& sleep : sleeps) EXPECT_LE(sleep.ends, sleep.began + 500 * ms);
    EXPECT_EQ(sleeps.back().ends - sleeps[0].ends, 700 * ms) << "the wait ends exactly when it should";
    EXPECT_TRUE(kzmkernel_release(mutex.value));
}

TEST(KernelWait, SleepsOnceIfItIsShorterThanASlice) {
    const Handle mutex(create_mutex(object_name()));
    ASSERT_EQ(kzmkernel_wait(mutex.value, 0), uint32_t{KZMKERNEL_WAIT_OWNED});
    for (const uint32_t timeout_ms : {0u, 1u, 150u}) {
        Traced waiter([&] { EXPECT_EQ(kzmkernel_wait(mutex.value, timeout_ms), uint32_t{KZMKERNEL_WAIT_TIMEOUT}); });
        EXPECT_EQ(sleeps_of(waiter).size(), timeout_ms == 0 ? 0u : 1u);
        EXPECT_EQ(waiter.status(), 0);
    }
    EXPECT_TRUE(kzmkernel_release(mutex.value));
}

TEST(KernelWait, SleepsInSlicesWithoutATimeLimitToo) {
    const Handle mutex(create_mutex(object_name()));
    ASSERT_EQ(kzmkernel_wait(mutex.value, 0), uint32_t{KZMKERNEL_WAIT_OWNED});
    Traced waiter([&] {
        EXPECT_EQ(kzmkernel_wait(mutex.value, KZMKERNEL_INFINITE), uint32_t{KZMKERNEL_WAIT_OWNED});
        EXPECT_TRUE(kzmkernel_release(mutex.value));
    });
    for (int sleeps = 0; sleeps < 3; ++sleeps) {
        waiter.run_until_it_enters(SYS_futex);
        EXPECT_NE(waiter.entered().at(4), 0u) << "it sleeps until a certain time";
    }
    waiter.go();
    wait_until_asleep_in(SYS_futex, waiter.id());
    EXPECT_TRUE(kzmkernel_release(mutex.value));
    while (waiter.stands()) waiter.go();
    EXPECT_EQ(waiter.status(), 0);
}

// The last look of a wait comes after its time.
TEST(KernelWait, OwnsALockThatIsFreeAtItsLastLook) {
    const Handle mutex(create_mutex(object_name()));
    ASSERT_EQ(kzmkernel_wait(mutex.value, 0), uint32_t{KZMKERNEL_WAIT_OWNED});
    Traced waiter([&] {
        EXPECT_EQ(kzmkernel_wait(mutex.value, 20), uint32_t{KZMKERNEL_WAIT_OWNED});
        EXPECT_TRUE(kzmkernel_release(mutex.value));
    });
    waiter.run_until_it_enters(SYS_futex);
    ASSERT_TRUE(waiter.step());  // it timed out and stops on its way out of the kernel
    EXPECT_TRUE(kzmkernel_release(mutex.value));
    while (waiter.step()) {
    }
    EXPECT_EQ(waiter.status(), 0);
}

TEST(KernelWait, FailsIfTheMutexWasOverwritten) {
    const Handle mutex(create_mutex(object_name()));
    mapped_page_of(file_of_mutex(object_name()))[32] = 0x7F;  // no kind of mutex
    EXPECT_EQ(kzmkernel_wait(mutex.value, 0), uint32_t{KZMKERNEL_WAIT_FAILED});
    EXPECT_EQ(kzmkernel_last_error(), uint32_t{KZMKERNEL_ERROR_INVALID_PARAMETER});
}

// As in Windows. Nobody waits for two billion takes, so the page gets the depth.
TEST(KernelWait, FailsWith587WhenItsThreadHasTakenItTooOften) {
    const Handle mutex(create_mutex(object_name()));
    ASSERT_EQ(kzmkernel_wait(mutex.value, 0), uint32_t{KZMKERNEL_WAIT_OWNED});
    auto* const depth = reinterpret_cast<uint64_t*>(mapped_page_of(file_of_mutex(object_name())) + 64);
    *depth = 0x7FFFFFFF;
    EXPECT_EQ(kzmkernel_wait(mutex.value, 0), uint32_t{KZMKERNEL_WAIT_OWNED});
    EXPECT_EQ(*depth, 0x80000000u);
    EXPECT_EQ(kzmkernel_wait(mutex.value, 0), KZMKERNEL_WAIT_FAILED);
    EXPECT_EQ(kzmkernel_last_error(), uint32_t{KZMKERNEL_ERROR_MUTEX_LIMIT});
    EXPECT_EQ(*depth, 0x80000000u);
    *depth = 1;
    EXPECT_TRUE(kzmkernel_release(mutex.value));
}

TEST(KernelWait, MakesNoSystemCallForALockThatIsFree) {
    const Handle first(create_mutex(object_name() + "1")), second(create_mutex(object_name() + "2"));
    Traced user([&] {
        for (const bool is_measured : {false, true}) {
            if (is_measured) getppid();
            for (int i = 0; i < 10; ++i) {
                for (void* const mutex : {first.value, second.value, second.value}) {
                    EXPECT_EQ(kzmkernel_wait(mutex, 0), uint32_t{KZMKERNEL_WAIT_OWNED});
                    EXPECT_TRUE(kzmkernel_release(mutex));
                }
            }
        }
        getppid();
    });
    user.run_until_it_enters(SYS_getppid);
    ASSERT_TRUE(user.step());
    ASSERT_TRUE(user.step());
    EXPECT_EQ(user.entered().at(0), uint64_t{SYS_getppid}) << "another call than the one at the end";
    while (user.step()) {
    }
    EXPECT_EQ(user.status(), 0);
}

TEST(KernelSleep, WithoutATimeLimitIsNotEndedBySignals) {
    Traced sleeper([] { kzmkernel_sleep(KZMKERNEL_INFINITE); });
    for (int i = 0; i < 3; ++i) {
        sleeper.run_until_it_enters(SYS_pause);
        sleeper.fail_call(EINTR);
    }
}

TEST(KernelWait, TimesOutWhileAStoppedOwnerKeepsTheLock) {
    const Handle mutex(create_mutex(object_name()));
    OwningProcess owner(mutex.value);
    ASSERT_EQ(kill(owner.id(), SIGSTOP), 0);
    EXPECT_EQ(kzmkernel_wait(mutex.value, 20), uint32_t{KZMKERNEL_WAIT_TIMEOUT});
    ASSERT_EQ(kill(owner.id(), SIGCONT), 0);
    owner.release();
    EXPECT_EQ(kzmkernel_wait(mutex.value, 20'000), uint32_t{KZMKERNEL_WAIT_OWNED});
    EXPECT_TRUE(kzmkernel_release(mutex.value));
    EXPECT_EQ(owner.wait(), 0);
}

TEST(KernelWait, TellsASleepingWaiterThatTheOwnerWasKilled) {
    const Handle mutex(create_mutex(object_name()));
    OwningProcess owner(mutex.value);
    SleepingWaiter waiter(mutex.value);
    owner.kill();
    EXPECT_EQ(waiter.result(), uint32_t{KZMKERNEL_WAIT_ABANDONED});
    EXPECT_EQ(kzmkernel_wait(mutex.value, 0), uint32_t{KZMKERNEL_WAIT_OWNED});
    EXPECT_TRUE(kzmkernel_release(mutex.value));
}

TEST(KernelWait, GetsTheLockWhenTheReleaserIsStoppedBeforeItWakesAnybody) {
    const Handle mutex(create_mutex(object_name()));
    Traced owner([&] {
        kzmkernel_wait(mutex.value, 0);
        getppid();
        kzmkernel_release(mutex.value);
    });
    owner.run_until_it_enters(SYS_getppid);
    SleepingWaiter waiter(mutex.value);
    owner.run_until_it_enters(SYS_futex);  // and stops there: the lock is free, and no waiter has been woken
    EXPECT_EQ(waiter.result(), uint32_t{KZMKERNEL_WAIT_OWNED});
}

TEST(KernelWait, GetsTheLockWhenTheWokenWaiterIsStopped) {
    const Handle mutex(create_mutex(object_name()));
    ASSERT_EQ(kzmkernel_wait(mutex.value, 0), uint32_t{KZMKERNEL_WAIT_OWNED});
    WokenAndSleeping waiters(mutex.value);  // the woken waiter does not go on
    EXPECT_EQ(waiters.sleeping.result(), uint32_t{KZMKERNEL_WAIT_OWNED});
}

// When a timed lock times out, the C library leaves a pointer to the lock, and the kernel follows it when the thread
// ends.
TEST(KernelWait, LeavesTheKernelNoPointerToTheMutexAfterATimeOut) {
    const std::string name = object_name();
    Sign owned, never;
    Forked owner([&] {
        const Handle mutex(create_mutex(name));
        EXPECT_EQ(kzmkernel_wait(mutex.value, 0), uint32_t{KZMKERNEL_WAIT_OWNED});
        owned.give();
        never.await();
    });
    owned.await();
    uint32_t* in_its_place = nullptr;
    uint32_t thread_id = 0;
    std::thread([&] {
        Handle mutex(create_mutex(name));
        uint8_t* const mutex_page = mapped_page_of(file_of_mutex(name));
        EXPECT_EQ(kzmkernel_wait(mutex.value, 10), uint32_t{KZMKERNEL_WAIT_TIMEOUT});
        mutex.close();
        void* const there =
            mmap(mutex_page, page, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS | MAP_FIXED_NOREPLACE, -1, 0);
        ASSERT_EQ(there, mutex_page) << "the page is still mapped";
        in_its_place = static_cast<uint32_t*>(there);
        thread_id = static_cast<uint32_t>(gettid());
        std::fill_n(in_its_place, page / sizeof(uint32_t), thread_id);
    }).join();
    ASSERT_NE(in_its_place, nullptr);
    // The join saw the thread's end, which comes after the kernel has followed the pointer.
    EXPECT_EQ(std::count(in_its_place, in_its_place + page / sizeof(uint32_t), thread_id),
              static_cast<ptrdiff_t>(page / sizeof(uint32_t)));
    munmap(in_its_place, page);
}

TEST(KernelWait, GetsTheLockWhenTheWokenWaiterIsKilled) {
    const Handle mutex(create_mutex(object_name()));
    ASSERT_EQ(kzmkernel_wait(mutex.value, 0), uint32_t{KZMKERNEL_WAIT_OWNED});
    WokenAndSleeping waiters(mutex.value);
    ASSERT_EQ(kzmkernel_wait(mutex.value, 0), uint32_t{KZMKERNEL_WAIT_OWNED});
    waiters.woken.kill();
    EXPECT_TRUE(kzmkernel_release(mutex.value));
    EXPECT_EQ(waiters.sleeping.result(), uint32_t{KZMKERNEL_WAIT_OWNED});
}

TEST(KernelWait, GetsTheLockWhenTheReleaserIsKilledBeforeItWakesAnybody) {
    const Handle mutex(create_mutex(object_name()));
    Traced owner([&] {
        kzmkernel_wait(mutex.value, 0);
        getppid();
        kzmkernel_release(mutex.value);
    });
    owner.run_until_it_enters(SYS_getppid);
    SleepingWaiter waiter(mutex.value);

    owner.run_until_it_enters(SYS_futex);  // the lock is free, and no waiter has been woken
    EXPECT_EQ(kzmkernel_wait(mutex.value, 0), uint32_t{KZMKERNEL_WAIT_OWNED});
    owner.kill();
    EXPECT_TRUE(kzmkernel_release(mutex.value));
    EXPECT_EQ(waiter.result(), uint32_t{KZMKERNEL_WAIT_OWNED});
}

TEST(KernelWait, GetsTheLockWhenAnOwnerThatOvertookTheWokenWaiterIsKilled) {
    const Handle mutex(create_mutex(object_name()));
    ASSERT_EQ(kzmkernel_wait(mutex.value, 0), uint32_t{KZMKERNEL_WAIT_OWNED});
    WokenAndSleeping waiters(mutex.value);
    OwningProcess owner(mutex.value);
    waiters.woken.kill();
    owner.kill();
    EXPECT_EQ(waiters.sleeping.result(), uint32_t{KZMKERNEL_WAIT_ABANDONED});
}

// A killed owner leaves its ids in the page, and a later process may get the same ids.
TEST(KernelRelease, IsRefusedToAnotherThreadWithTheOwnersIds) {
    const Handle mutex(create_mutex(object_name()));
    std::fstream file(file_of_mutex(object_name()), std::ios::binary | std::ios::in | std::ios::out);
    for (const int takes : {1, 2}) {
        for (int i = 0; i < takes; ++i) kzmkernel_wait(mutex.value, 0);
        std::string owned(4096, 0);
        ASSERT_TRUE(file.seekg(0).read(owned.data(), 4096));
        for (int i = 0; i < takes; ++i) ASSERT_TRUE(kzmkernel_release(mutex.value));
        // The page as it was then, except for the word of the lock, which the kernel clears when an owner ends.
        const auto thread = static_cast<uint32_t>(gettid());
        const size_t word = owned.find(std::string(reinterpret_cast<const char*>(&thread), sizeof thread));
        ASSERT_NE(word, std::string::npos);
        owned.replace(word, sizeof thread, sizeof thread, 0);
        ASSERT_TRUE(file.seekp(0).write(owned.data(), 4096).flush());
        EXPECT_EQ(info_of(mutex.value).owner_thread, thread) << "the page names this thread as the owner";

        EXPECT_FALSE(kzmkernel_release(mutex.value)) << takes;
        EXPECT_EQ(kzmkernel_last_error(), uint32_t{KZMKERNEL_ERROR_NOT_OWNER});
        EXPECT_EQ(kzmkernel_wait(mutex.value, 0), uint32_t{KZMKERNEL_WAIT_OWNED});
        EXPECT_TRUE(kzmkernel_release(mutex.value));
    }
}

// The page may still name a dead owner while the next owner has not written its own ids.
TEST(KernelRelease, IsRefusedToAThreadWithADeadOwnersIdsAndChangesNothing) {
    const Handle mutex(create_mutex(object_name()));
    std::fstream file(file_of_mutex(object_name()), std::ios::binary | std::ios::in | std::ios::out);
    constexpr std::streamoff after_the_lock = 56;
    std::string owned(page - after_the_lock, 0), found = owned;
    ASSERT_EQ(kzmkernel_wait(mutex.value, 0), uint32_t{KZMKERNEL_WAIT_OWNED});
    ASSERT_TRUE(file.seekg(after_the_lock).read(owned.data(), static_cast<std::streamsize>(owned.size())));
    ASSERT_TRUE(kzmkernel_release(mutex.value));
    OwningProcess owner(mutex.value);
    ASSERT_TRUE(file.seekp(after_the_lock).write(owned.data(), static_cast<std::streamsize>(owned.size())).flush());

    EXPECT_FALSE(kzmkernel_release(mutex.value));
    EXPECT_EQ(kzmkernel_last_error(), uint32_t{KZMKERNEL_ERROR_NOT_OWNER});
    ASSERT_TRUE(file.seekg(after_the_lock).read(found.data(), static_cast<std::streamsize>(found.size())));
    EXPECT_TRUE(found == owned) << "a refused release writes nothing";
    EXPECT_EQ(kzmkernel_wait(mutex.value, 0), uint32_t{KZMKERNEL_WAIT_TIMEOUT});
    owner.release();
    EXPECT_EQ(owner.wait(), 0);
    EXPECT_EQ(kzmkernel_wait(mutex.value, 0), uint32_t{KZMKERNEL_WAIT_OWNED});
    EXPECT_TRUE(kzmkernel_release(mutex.value));
}

TEST(KernelRelease, MakesNoSystemCallAfterWaitersWereKilled) {
    const Handle mutex(create_mutex(object_name()));
    ASSERT_EQ(kzmkernel_wait(mutex.value, 0), uint32_t{KZMKERNEL_WAIT_OWNED});
    for (int waiter = 0; waiter < 2; ++waiter) {
        SleepingProcess killed([&] { kzmkernel_wait(mutex.value, KZMKERNEL_INFINITE); });
        killed.kill();
    }
    EXPECT_TRUE(kzmkernel_release(mutex.value));
    EXPECT_EQ(calls_to_futex_of_100_takes(mutex.value), 0);
}

TEST(KernelRelease, WakesAWaiterOnceHoweverOftenTheLockIsTakenBeforeItRuns) {
    const Handle mutex(create_mutex(object_name()));
    ASSERT_EQ(kzmkernel_wait(mutex.value, 0), uint32_t{KZMKERNEL_WAIT_OWNED});
    SleepingProcess waiter([&] { kzmkernel_wait(mutex.value, KZMKERNEL_INFINITE); });
    EXPECT_TRUE(kzmkernel_release(mutex.value));
    ASSERT_TRUE(waiter.stands());  // woken, but does not go on

    EXPECT_EQ(calls_to_futex_of_100_takes(mutex.value), 0);
    waiter.go();
    while (waiter.stands()) waiter.go();
    EXPECT_EQ(waiter.status(), 0);
}

TEST(KernelWait, ContinuesWhenItsHandleIsClosed) {
    const Handle mutex(create_mutex(object_name()));
    void* const closed = create_mutex(object_name());
    ASSERT_EQ(kzmkernel_wait(mutex.value, 0), uint32_t{KZMKERNEL_WAIT_OWNED});
    SleepingThread waiter([&] {
        EXPECT_EQ(kzmkernel_wait(closed, KZMKERNEL_INFINITE), uint32_t{KZMKERNEL_WAIT_OWNED});
        EXPECT_FALSE(kzmkernel_release(closed));
        EXPECT_EQ(kzmkernel_last_error(), uint32_t{KZMKERNEL_ERROR_INVALID_HANDLE});
        EXPECT_TRUE(kzmkernel_release(mutex.value));
    });
    EXPECT_TRUE(kzmkernel_close(closed));
    EXPECT_FALSE(kzmkernel_close(closed));
    EXPECT_TRUE(kzmkernel_release(mutex.value));
    waiter.join();
}

TEST(KernelWait, KeepsTheMutexAliveWhenItsLastHandleIsClosed) {
    const std::string name = object_name();
    void* const mutex = create_mutex(name);
    ASSERT_EQ(kzmkernel_wait(mutex, 0), uint32_t{KZMKERNEL_WAIT_OWNED});
    SleepingThread waiter(
        [&] { EXPECT_EQ(kzmkernel_wait(mutex, KZMKERNEL_INFINITE), uint32_t{KZMKERNEL_WAIT_OWNED}); });
    EXPECT_TRUE(kzmkernel_close(mutex));
    {
        const Handle again(create_mutex(name));
        EXPECT_EQ(again.error, uint32_t{KZMKERNEL_ERROR_ALREADY_EXISTS});
        EXPECT_TRUE(kzmkernel_release(again.value));
    }
    waiter.join();
    expect_new(create_mutex, name);
}

}  // namespace
