// What kzmkernel promises of its mutex beyond the contract of kernel_test.cpp: who may release it, that a free lock is
// found whoever was killed or stopped, and what tools see of it.
#include <gmock/gmock.h>

#include <sys/mman.h>

#include <array>
#include <ctime>
#include <memory>
#include <random>

#include "kernel_linux_tools.h"

namespace {

using namespace kernel_test;

/// A process that never had anything to do with a mutex is refused it.
CHILD(expect_refused_mutex) {
    const Handle created(create_mutex(test::argument())), opened(open_mutex(test::argument()));
    const bool refused = !created.value && created.error == KZMKERNEL_ERROR_ACCESS_DENIED && !opened.value &&
                         opened.error == KZMKERNEL_ERROR_ACCESS_DENIED;
    std::_Exit(refused ? 0 : 1);
}

uint64_t monotonic_ns() {
    timespec now{};
    clock_gettime(CLOCK_MONOTONIC, &now);
    return static_cast<uint64_t>(now.tv_sec) * 1'000'000'000 + static_cast<uint64_t>(now.tv_nsec);
}

/// Where this process has a file mapped.
uint8_t* mapped_page_of(const fs::path& file) {
    std::ifstream maps("/proc/self/maps");
    for (std::string line; std::getline(maps, line);) {
        if (line.find(file.string()) == std::string::npos) continue;
        return reinterpret_cast<uint8_t*>(std::stoull(line, nullptr, 16));
    }
    throw std::runtime_error("not mapped: " + file.string());
}

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
        sleeps.push_back({monotonic_ns(), seconds * 1'000'000'000 + ns});
    }
    return sleeps;
}

// A clock that is set cannot reach a sleep that the kernel counts on the monotonic clock.
TEST(KernelWait, SleepsInSlicesOfHalfASecondThatEndWhenTheWaitDoes) {
    const Handle mutex(create_mutex(object_name()));
    ASSERT_EQ(kzmkernel_wait(mutex.value, 0), uint32_t{KZMKERNEL_WAIT_OWNED});
    constexpr uint64_t ms = 1'000'000;
    Traced waiter([&] {
        kzmkernel_set_last_error(777);
        EXPECT_EQ(kzmkernel_wait(mutex.value, 1'200), uint32_t{KZMKERNEL_WAIT_TIMEOUT});
        EXPECT_EQ(kzmkernel_last_error(), 777u);
    });
    const uint64_t begin = monotonic_ns();
    const std::vector<Sleep> sleeps = sleeps_of(waiter);
    EXPECT_EQ(waiter.status(), 0);
    ASSERT_GE(sleeps.size(), 2u);
    EXPECT_LE(sleeps.size(), 3u) << "no polling";
    EXPECT_GE(sleeps[0].ends, begin + 500 * ms);
    for (const Sleep& sleep : sleeps) EXPECT_LE(sleep.ends, sleep.began + 500 * ms);
    EXPECT_EQ(sleeps.back().ends - sleeps[0].ends, 700 * ms) << "the wait ends to the nanosecond where it was to end";
    EXPECT_TRUE(kzmkernel_release(mutex.value));
}

TEST(KernelWait, ShorterThanASliceIsOneSleep) {
    const Handle mutex(create_mutex(object_name()));
    ASSERT_EQ(kzmkernel_wait(mutex.value, 0), uint32_t{KZMKERNEL_WAIT_OWNED});
    Traced waiter([&] { EXPECT_EQ(kzmkernel_wait(mutex.value, 150), uint32_t{KZMKERNEL_WAIT_TIMEOUT}); });
    EXPECT_EQ(sleeps_of(waiter).size(), 1u);
    EXPECT_EQ(waiter.status(), 0);
    EXPECT_TRUE(kzmkernel_release(mutex.value));
}

TEST(KernelWait, WithoutLimitSleepsInSlicesToo) {
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
    until_it_sleeps_in_a_futex(waiter.id(), waiter.id());
    EXPECT_TRUE(kzmkernel_release(mutex.value));
    while (waiter.stands()) waiter.go();
    EXPECT_EQ(waiter.status(), 0);
}

// The last look of a wait comes after its time.
TEST(KernelWait, ThatFindsTheLockFreeAtItsEndOwnsIt) {
    const Handle mutex(create_mutex(object_name()));
    ASSERT_EQ(kzmkernel_wait(mutex.value, 0), uint32_t{KZMKERNEL_WAIT_OWNED});
    Traced waiter([&] {
        EXPECT_EQ(kzmkernel_wait(mutex.value, 20), uint32_t{KZMKERNEL_WAIT_OWNED});
        EXPECT_TRUE(kzmkernel_release(mutex.value));
    });
    waiter.run_until_it_enters(SYS_futex);
    ASSERT_TRUE(waiter.step());  // its time is over, and it stands on its way out of the kernel
    EXPECT_TRUE(kzmkernel_release(mutex.value));
    while (waiter.step()) {
    }
    EXPECT_EQ(waiter.status(), 0);
}

TEST(KernelWait, EndsInTimeBesideAStoppedOwnerWhoKeepsTheLock) {
    const Handle mutex(create_mutex(object_name()));
    Sign owned, go_on;
    Forked owner([&] {
        EXPECT_EQ(kzmkernel_wait(mutex.value, 0), uint32_t{KZMKERNEL_WAIT_OWNED});
        owned.give();
        go_on.await();
        EXPECT_TRUE(kzmkernel_release(mutex.value));
    });
    owned.await();
    ASSERT_EQ(kill(owner.id(), SIGSTOP), 0);
    EXPECT_EQ(kzmkernel_wait(mutex.value, 20), uint32_t{KZMKERNEL_WAIT_TIMEOUT});
    ASSERT_EQ(kill(owner.id(), SIGCONT), 0);
    go_on.give();
    EXPECT_EQ(kzmkernel_wait(mutex.value, 20'000), uint32_t{KZMKERNEL_WAIT_OWNED});
    EXPECT_TRUE(kzmkernel_release(mutex.value));
    EXPECT_EQ(owner.wait(), 0);
}

TEST(KernelWait, FindsTheLockFreeAlthoughTheReleaserWasStoppedBeforeItWokeAnybody) {
    const Handle mutex(create_mutex(object_name()));
    Traced owner([&] {
        kzmkernel_wait(mutex.value, 0);
        getppid();
        kzmkernel_release(mutex.value);
    });
    owner.run_until_it_enters(SYS_getppid);
    SleepingWaiter waiter(mutex.value);
    owner.run_until_it_enters(SYS_futex);  // where it stays: the lock is free, nobody has been woken
    EXPECT_EQ(waiter.result(), uint32_t{KZMKERNEL_WAIT_OWNED});
}

TEST(KernelWait, FindsTheLockFreeAlthoughTheWokenWaiterWasStopped) {
    const Handle mutex(create_mutex(object_name()));
    ASSERT_EQ(kzmkernel_wait(mutex.value, 0), uint32_t{KZMKERNEL_WAIT_OWNED});
    WokenAndSleeping waiters(mutex.value);  // the woken one stays where it is
    EXPECT_EQ(waiters.sleeping.result(), uint32_t{KZMKERNEL_WAIT_OWNED});
}

// The C library leaves a pointer to the lock behind when a timed lock runs out of time, and the kernel follows it when
// the thread ends.
TEST(KernelWait, ThatTimedOutLetsTheKernelWriteNothingWhereTheMutexWas) {
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
    // The join saw the thread's end; the kernel's own clearing up comes before.
    EXPECT_EQ(std::count(in_its_place, in_its_place + page / sizeof(uint32_t), thread_id),
              static_cast<ptrdiff_t>(page / sizeof(uint32_t)));
    munmap(in_its_place, page);
}

TEST(KernelWait, IsNotForgottenWhenTheWaiterThatWasWokenIsKilled) {
    const Handle mutex(create_mutex(object_name()));
    ASSERT_EQ(kzmkernel_wait(mutex.value, 0), uint32_t{KZMKERNEL_WAIT_OWNED});
    WokenAndSleeping waiters(mutex.value);
    ASSERT_EQ(kzmkernel_wait(mutex.value, 0), uint32_t{KZMKERNEL_WAIT_OWNED});
    waiters.woken.kill();
    EXPECT_TRUE(kzmkernel_release(mutex.value));
    EXPECT_EQ(waiters.sleeping.result(), uint32_t{KZMKERNEL_WAIT_OWNED});
}

TEST(KernelWait, IsNotForgottenWhenWhoeverWasToWakeItIsKilledBefore) {
    const Handle mutex(create_mutex(object_name()));
    Traced owner([&] {
        kzmkernel_wait(mutex.value, 0);
        getppid();
        kzmkernel_release(mutex.value);
    });
    owner.run_until_it_enters(SYS_getppid);
    SleepingWaiter waiter(mutex.value);

    owner.run_until_it_enters(SYS_futex);  // the lock is free, nobody has been woken
    EXPECT_EQ(kzmkernel_wait(mutex.value, 0), uint32_t{KZMKERNEL_WAIT_OWNED});
    owner.kill();
    EXPECT_TRUE(kzmkernel_release(mutex.value));
    EXPECT_EQ(waiter.result(), uint32_t{KZMKERNEL_WAIT_OWNED});
}

TEST(KernelWait, IsNotForgottenWhenTheOwnerIsKilledThatTookTheLockBeforeTheWoken) {
    const Handle mutex(create_mutex(object_name()));
    ASSERT_EQ(kzmkernel_wait(mutex.value, 0), uint32_t{KZMKERNEL_WAIT_OWNED});
    WokenAndSleeping waiters(mutex.value);
    Sign taken, never;
    Forked owner([&] {
        EXPECT_EQ(kzmkernel_wait(mutex.value, 0), uint32_t{KZMKERNEL_WAIT_OWNED});
        taken.give();
        never.await();
    });
    taken.await();
    waiters.woken.kill();
    owner.kill();
    EXPECT_EQ(waiters.sleeping.result(), uint32_t{KZMKERNEL_WAIT_ABANDONED});
}

// Whoever is killed leaves its name in the page, and a later process may get the same ids.
TEST(KernelRelease, IsRefusedToANamesakeOfTheOwnerThatOwnsNothing) {
    const Handle mutex(create_mutex(object_name()));
    std::fstream file(file_of_mutex(object_name()), std::ios::binary | std::ios::in | std::ios::out);
    for (const int takes : {1, 2}) {
        for (int i = 0; i < takes; ++i) kzmkernel_wait(mutex.value, 0);
        std::string owned(4096, 0);
        ASSERT_TRUE(file.seekg(0).read(owned.data(), 4096));
        for (int i = 0; i < takes; ++i) ASSERT_TRUE(kzmkernel_release(mutex.value));
        // The page as it was then, but for the lock's own word, in which the kernel notes an owner's end.
        const auto thread = static_cast<uint32_t>(gettid());
        const size_t word = owned.find(std::string(reinterpret_cast<const char*>(&thread), sizeof thread));
        ASSERT_NE(word, std::string::npos);
        owned.replace(word, sizeof thread, sizeof thread, 0);
        ASSERT_TRUE(file.seekp(0).write(owned.data(), 4096).flush());
        EXPECT_EQ(info_of(mutex.value).owner_thread, thread) << "the name stands there";

        EXPECT_FALSE(kzmkernel_release(mutex.value)) << takes;
        EXPECT_EQ(kzmkernel_last_error(), uint32_t{KZMKERNEL_ERROR_NOT_OWNER});
        EXPECT_EQ(kzmkernel_wait(mutex.value, 0), uint32_t{KZMKERNEL_WAIT_OWNED});
        EXPECT_TRUE(kzmkernel_release(mutex.value));
    }
}

// Its name may stand in the page while the lock's next owner has not written its own there.
TEST(KernelRelease, ByANamesakeOfADeadOwnerDoesNotTouchTheLockOfTheRealOne) {
    const Handle mutex(create_mutex(object_name()));
    std::fstream file(file_of_mutex(object_name()), std::ios::binary | std::ios::in | std::ios::out);
    constexpr std::streamoff after_the_lock = 56;
    std::string owned(page - after_the_lock, 0), found = owned;
    ASSERT_EQ(kzmkernel_wait(mutex.value, 0), uint32_t{KZMKERNEL_WAIT_OWNED});
    ASSERT_TRUE(file.seekg(after_the_lock).read(owned.data(), static_cast<std::streamsize>(owned.size())));
    ASSERT_TRUE(kzmkernel_release(mutex.value));
    Sign taken, go_on;
    Forked owner([&] {
        EXPECT_EQ(kzmkernel_wait(mutex.value, 0), uint32_t{KZMKERNEL_WAIT_OWNED});
        taken.give();
        go_on.await();
        EXPECT_TRUE(kzmkernel_release(mutex.value));
    });
    taken.await();
    ASSERT_TRUE(file.seekp(after_the_lock).write(owned.data(), static_cast<std::streamsize>(owned.size())).flush());

    EXPECT_FALSE(kzmkernel_release(mutex.value));
    EXPECT_EQ(kzmkernel_last_error(), uint32_t{KZMKERNEL_ERROR_NOT_OWNER});
    ASSERT_TRUE(file.seekg(after_the_lock).read(found.data(), static_cast<std::streamsize>(found.size())));
    EXPECT_TRUE(found == owned) << "a refused release writes nothing";
    EXPECT_EQ(kzmkernel_wait(mutex.value, 0), uint32_t{KZMKERNEL_WAIT_TIMEOUT});
    go_on.give();
    EXPECT_EQ(owner.wait(), 0);
    EXPECT_EQ(kzmkernel_wait(mutex.value, 0), uint32_t{KZMKERNEL_WAIT_OWNED});
    EXPECT_TRUE(kzmkernel_release(mutex.value));
}

TEST(KernelRelease, CostsNoCallToTheKernelAfterWaitersWereKilled) {
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

TEST(KernelWait, GoesOnWhenItsHandleIsClosedMeanwhile) {
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

TEST(KernelWait, KeepsAnObjectAliveWhoseLastHandleIsClosedMeanwhile) {
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

// What tools see of a mutex.

uint64_t now_ns() {
    timespec now{};
    clock_gettime(CLOCK_REALTIME, &now);
    return static_cast<uint64_t>(now.tv_sec) * 1'000'000'000 + static_cast<uint64_t>(now.tv_nsec);
}

uint64_t this_second_ns() {
    return static_cast<uint64_t>(std::time(nullptr)) * 1'000'000'000;
}

TEST(KernelMutexInfo, NamesTheOwnerAndWhenItTookIt) {
    const Handle mutex(create_mutex(object_name()));
    EXPECT_EQ(info_of(mutex.value).owner_process, 0u);
    EXPECT_EQ(info_of(mutex.value).takeovers, 0u);
    EXPECT_EQ(info_of(mutex.value).last_takeover_ns, 0u);
    // The first take of a handle by a thread, and any later one.
    for (int i = 0; i < 2; ++i) {
        const uint64_t before = this_second_ns();
        kzmkernel_wait(mutex.value, 0);
        const kzmkernel_mutex_info info = info_of(mutex.value);
        EXPECT_GE(info.owned_since_ns, before);
        EXPECT_LE(info.owned_since_ns, this_second_ns());
        EXPECT_EQ(info.owned_since_ns % 1'000'000'000, 0u);
        kzmkernel_release(mutex.value);
    }
    kzmkernel_wait(mutex.value, 0);
    kzmkernel_wait(mutex.value, 0);
    const Handle other(open_mutex(object_name()));
    std::thread([&] {
        const kzmkernel_mutex_info info = info_of(other.value);
        EXPECT_EQ(info.owner_process, static_cast<uint32_t>(getpid()));
        EXPECT_EQ(info.owner_thread, static_cast<uint32_t>(getpid()));
    }).join();
    kzmkernel_release(mutex.value);
    EXPECT_NE(info_of(mutex.value).owner_process, 0u);
    kzmkernel_release(mutex.value);
    EXPECT_EQ(info_of(mutex.value).owner_process, 0u);
    EXPECT_EQ(info_of(mutex.value).owner_thread, 0u);
}

TEST(KernelMutexInfo, CountsAndDatesTakeOvers) {
    const Handle mutex(create_mutex(object_name()));
    for (uint64_t round = 1; round <= 3; ++round) {
        Forked owner([&] { kzmkernel_wait(mutex.value, 0); });
        EXPECT_EQ(owner.wait(), 0);
        EXPECT_EQ(info_of(mutex.value).owner_process, static_cast<uint32_t>(owner.id()));
        EXPECT_EQ(info_of(mutex.value).takeovers, round - 1);
        const uint64_t before = now_ns(), second_before = this_second_ns();
        EXPECT_EQ(kzmkernel_wait(mutex.value, 0), uint32_t{KZMKERNEL_WAIT_ABANDONED});
        EXPECT_EQ(info_of(mutex.value).takeovers, round);
        EXPECT_GE(info_of(mutex.value).last_takeover_ns, before);
        EXPECT_LE(info_of(mutex.value).last_takeover_ns, now_ns());
        EXPECT_GE(info_of(mutex.value).owned_since_ns, second_before);
        EXPECT_LE(info_of(mutex.value).owned_since_ns, this_second_ns());
        EXPECT_EQ(info_of(mutex.value).owner_process, static_cast<uint32_t>(getpid()));
        EXPECT_TRUE(kzmkernel_release(mutex.value));
    }
}

TEST(KernelMutexInfo, CountsHowOftenItWasTakenByWhomeverButNotHowOftenItsOwnerTookItAgain) {
    const Handle mutex(create_mutex(object_name()));
    EXPECT_EQ(info_of(mutex.value).takes, 0u);
    kzmkernel_wait(mutex.value, 0);
    kzmkernel_wait(mutex.value, 0);
    EXPECT_EQ(info_of(mutex.value).takes, 1u);
    kzmkernel_release(mutex.value);
    kzmkernel_release(mutex.value);
    Forked owner([&] { kzmkernel_wait(mutex.value, 0); });
    EXPECT_EQ(owner.wait(), 0);
    EXPECT_EQ(info_of(mutex.value).takes, 2u);
    EXPECT_EQ(kzmkernel_wait(mutex.value, 0), uint32_t{KZMKERNEL_WAIT_ABANDONED});
    EXPECT_EQ(info_of(mutex.value).takes, 3u);
    kzmkernel_release(mutex.value);
    EXPECT_EQ(info_of(mutex.value).takes, 3u);
}

TEST(KernelMutexInfo, NeedsAnOpenMutexAndAPlace) {
    const Handle mutex(create_mutex(object_name() + "1")), mapping(create_mapping(object_name() + "2"));
    kzmkernel_mutex_info info{};
    EXPECT_FALSE(kzmkernel_mutex_info_get(mutex.value, nullptr));
    EXPECT_EQ(kzmkernel_last_error(), uint32_t{KZMKERNEL_ERROR_INVALID_PARAMETER});
    EXPECT_FALSE(kzmkernel_mutex_info_get(mapping.value, &info));
    EXPECT_EQ(kzmkernel_last_error(), uint32_t{KZMKERNEL_ERROR_INVALID_HANDLE});
    EXPECT_FALSE(kzmkernel_mutex_info_get(nullptr, &info));
    EXPECT_EQ(kzmkernel_last_error(), uint32_t{KZMKERNEL_ERROR_INVALID_HANDLE});
}

// fork and exec.

// The page as other builds find it.

TEST(KernelMutexPage, HasItsFieldsWhereOtherBuildsLookForThem) {
    const Handle mutex(create_mutex(object_name()));
    ASSERT_EQ(kzmkernel_wait(mutex.value, 0), uint32_t{KZMKERNEL_WAIT_OWNED});
    ASSERT_EQ(kzmkernel_wait(mutex.value, 0), uint32_t{KZMKERNEL_WAIT_OWNED});
    ASSERT_TRUE(kzmkernel_look_count(mutex.value));
    std::memset(kzmkernel_note(mutex.value), 0xA5, KZMKERNEL_NOTE_BYTES);
    const std::string bytes = test::contents_of(file_of_mutex(object_name()));
    ASSERT_EQ(bytes.size(), 4096u);
    const auto word = [&](size_t at) {
        uint32_t value = 0;
        std::memcpy(&value, bytes.data() + at, sizeof value);
        return value;
    };
    const auto thread = static_cast<uint32_t>(gettid()), process = static_cast<uint32_t>(getpid());
    struct stat name_space {};
    ASSERT_EQ(stat("/proc/self/ns/pid", &name_space), 0);
    EXPECT_EQ(bytes.substr(0, 8), "\x01kzmlock");
    EXPECT_EQ(word(8), static_cast<uint32_t>(name_space.st_ino));
    EXPECT_EQ(word(16) & FUTEX_TID_MASK, thread) << "the lock's own word";
    EXPECT_EQ(word(56), 2u) << "version";
    EXPECT_EQ(word(60), 2048u) << "size";
    EXPECT_EQ(word(64), 2u) << "depth";
    EXPECT_EQ(word(72), 1u) << "takes";
    EXPECT_EQ(word(80), process);
    EXPECT_EQ(word(84), thread);
    EXPECT_NE(word(88), 0u) << "owned since";
    EXPECT_EQ(word(96), 0u) << "take-overs";
    EXPECT_EQ(word(104), 0u) << "last take-over";
    EXPECT_EQ(word(112), 1u) << "looks";
    EXPECT_EQ(bytes.substr(120, 904), std::string(904, 0)) << "reserved";
    EXPECT_EQ(bytes.substr(1024, 1024), std::string(1024, static_cast<char>(0xA5))) << "the note";
    EXPECT_EQ(bytes.substr(2048), std::string(2048, 0));
    EXPECT_TRUE(kzmkernel_release(mutex.value));
    EXPECT_TRUE(kzmkernel_release(mutex.value));
}

class KernelMutexPageOf : public testing::TestWithParam<std::streamoff> {};
INSTANTIATE_TEST_SUITE_P(SignatureNamespaceVersionAndSize, KernelMutexPageOf, testing::Values(0, 8, 56, 60));

TEST_P(KernelMutexPageOf, AnotherVersionIsRefused) {
    std::string name = object_name();
    const Handle mutex(create_mutex(name));
    std::fstream file(file_of_mutex(name), std::ios::binary | std::ios::in | std::ios::out);
    char byte = 0;
    ASSERT_TRUE(file.seekg(GetParam()).get(byte));
    ASSERT_TRUE(file.seekp(GetParam()).put(static_cast<char>(byte + 1)).flush());
    EXPECT_EQ(kzmkernel_wait(mutex.value, 0), KZMKERNEL_WAIT_FAILED);
    EXPECT_EQ(kzmkernel_last_error(), uint32_t{KZMKERNEL_ERROR_ACCESS_DENIED});
    EXPECT_FALSE(kzmkernel_release(mutex.value));
    EXPECT_EQ(test::start(expect_refused_mutex, name).wait(), 0);
}

// Whoever may write the page can end all who use the mutex by damaging the pointers of its list, which the C library
// and the kernel follow. What stands beside them is only counted and compared.
TEST(KernelMutexPage, ToleratesAnyDamageOfTheLocksWordAndTheCounters) {
    std::mt19937 random(22);
    for (int round = 0; round < 100; ++round) {
        Forked user([&] {
            const std::string name = object_name() + std::to_string(round);
            const Handle mutex(create_mutex(name));
            uint8_t* const bytes = mapped_page_of(file_of_mutex(name));
            for (int step = 0; step < 20; ++step) {
                kzmkernel_wait(mutex.value, step % 2 == 0 ? 0 : 1);
                uint32_t* const word = reinterpret_cast<uint32_t*>(bytes) + (step % 4 == 0 ? 4 : 16 + random() % 14);
                *word = step % 3 == 0 ? ~0u : static_cast<uint32_t>(random());
                kzmkernel_mutex_info info{};
                EXPECT_TRUE(kzmkernel_mutex_info_get(mutex.value, &info));
                kzmkernel_release(mutex.value);
                kzmkernel_note(mutex.value);
                kzmkernel_look_count(mutex.value);
            }
        });
        ASSERT_EQ(user.wait(), 0) << "round " << round;
    }
}

// Notes and looks.

TEST(KernelNote, StaysWithTheMutexWhenItsWriterReleasesItOrEnds) {
    const std::string name = object_name();
    const Handle mutex(create_mutex(name));
    std::array<char, KZMKERNEL_NOTE_BYTES> note{};
    ASSERT_TRUE(kzmkernel_note_read(mutex.value, note.data()));
    EXPECT_THAT(note, testing::Each(0));

    in_fork([&] {
        EXPECT_EQ(kzmkernel_wait(mutex.value, 0), uint32_t{KZMKERNEL_WAIT_OWNED});
        auto* const written = static_cast<char*>(kzmkernel_note(mutex.value));
        ASSERT_NE(written, nullptr);
        std::strcpy(written, "released");
        EXPECT_TRUE(kzmkernel_release(mutex.value));
    });
    ASSERT_TRUE(kzmkernel_note_read(mutex.value, note.data()));
    EXPECT_STREQ(note.data(), "released");

    Forked writer([&] {
        EXPECT_EQ(kzmkernel_wait(mutex.value, 0), uint32_t{KZMKERNEL_WAIT_OWNED});
        static_cast<char*>(kzmkernel_note(mutex.value))[KZMKERNEL_NOTE_BYTES - 1] = 'x';
        kill(getpid(), SIGKILL);
    });
    writer.wait();
    EXPECT_EQ(kzmkernel_wait(mutex.value, 0), uint32_t{KZMKERNEL_WAIT_ABANDONED});
    EXPECT_EQ(static_cast<const char*>(kzmkernel_note(mutex.value))[KZMKERNEL_NOTE_BYTES - 1], 'x');
    EXPECT_TRUE(kzmkernel_release(mutex.value));
}

TEST(KernelNote, IsForTheOwnerAlone) {
    const Handle mutex(create_mutex(object_name())), mapping(create_mapping(object_name() + "2"));
    std::array<char, KZMKERNEL_NOTE_BYTES> note{};
    EXPECT_EQ(kzmkernel_note(mutex.value), nullptr);
    EXPECT_EQ(kzmkernel_last_error(), uint32_t{KZMKERNEL_ERROR_NOT_OWNER});
    EXPECT_EQ(kzmkernel_note(mapping.value), nullptr);
    EXPECT_EQ(kzmkernel_last_error(), uint32_t{KZMKERNEL_ERROR_INVALID_HANDLE});
    EXPECT_FALSE(kzmkernel_note_read(nullptr, note.data()));
    EXPECT_EQ(kzmkernel_last_error(), uint32_t{KZMKERNEL_ERROR_INVALID_HANDLE});
    EXPECT_FALSE(kzmkernel_note_read(mutex.value, nullptr));
    EXPECT_EQ(kzmkernel_last_error(), uint32_t{KZMKERNEL_ERROR_INVALID_PARAMETER});

    ASSERT_EQ(kzmkernel_wait(mutex.value, 0), uint32_t{KZMKERNEL_WAIT_OWNED});
    EXPECT_NE(kzmkernel_note(mutex.value), nullptr);
    std::thread([&] { EXPECT_EQ(kzmkernel_note(mutex.value), nullptr); }).join();
    in_fork([&] { EXPECT_EQ(kzmkernel_note(mutex.value), nullptr); });
    EXPECT_TRUE(kzmkernel_release(mutex.value));
    EXPECT_EQ(kzmkernel_note(mutex.value), nullptr);
}

TEST(KernelLooks, AreCountedBesideTheTakesByTheOwnerAlone) {
    const Handle mutex(create_mutex(object_name()));
    const auto looks = [&] {
        uint64_t count = 777;
        EXPECT_TRUE(kzmkernel_look_count_get(mutex.value, &count));
        return count;
    };
    EXPECT_EQ(looks(), 0u);
    EXPECT_FALSE(kzmkernel_look_count(mutex.value));
    EXPECT_EQ(kzmkernel_last_error(), uint32_t{KZMKERNEL_ERROR_NOT_OWNER});
    for (uint64_t takes = 1; takes <= 3; ++takes) {
        ASSERT_EQ(kzmkernel_wait(mutex.value, 0), uint32_t{KZMKERNEL_WAIT_OWNED});
        if (takes > 1) {
            EXPECT_TRUE(kzmkernel_look_count(mutex.value));
        }
        EXPECT_TRUE(kzmkernel_release(mutex.value));
        EXPECT_EQ(looks(), takes - 1);
        EXPECT_EQ(info_of(mutex.value).takes, takes);
    }
    EXPECT_FALSE(kzmkernel_look_count_get(mutex.value, nullptr));
    EXPECT_EQ(kzmkernel_last_error(), uint32_t{KZMKERNEL_ERROR_INVALID_PARAMETER});
    EXPECT_FALSE(kzmkernel_look_count_get(nullptr, nullptr));
    EXPECT_EQ(kzmkernel_last_error(), uint32_t{KZMKERNEL_ERROR_INVALID_HANDLE});
}

}  // namespace
