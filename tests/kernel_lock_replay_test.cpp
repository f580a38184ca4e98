// The interleavings that broke an earlier protocol of the lock, on the real code: processes are held between two
// instructions of a call, and killed there. docs/lock-protocol.md numbers the scenarios.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <kzmkernel.h>
#include <linux/futex.h>
#include <pthread.h>
#include <sys/mman.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cstddef>
#include <cstdio>
#include <cstdlib>
#include <span>
#include <stdexcept>
#include <string>
#include <string_view>
#include <thread>
#include <vector>

#include "support/child.h"
#include "support/kernel_linux.h"
#include "support/sleepers_linux.h"
#include "support/stepper_linux.h"

namespace {

using namespace kernel_test;
using test::Stepper;
using test::Watched;

constexpr uint32_t longest_wait_ms = 3'000;

/// A mutex of the running test, and its page as it lies in memory.
class Lock {
  public:
    Lock() : mutex_(create_mutex(object_name())) {
        const int file = open(file_of_mutex(object_name()).c_str(), O_RDWR | O_CLOEXEC);
        void* const mapped = mmap(nullptr, page, PROT_READ | PROT_WRITE, MAP_SHARED, file, 0);
        close(file);
        if (mapped == MAP_FAILED) throw std::runtime_error("mmap");
        bytes_ = static_cast<uint8_t*>(mapped);
    }
    ~Lock() { munmap(bytes_, page); }
    Lock(const Lock&) = delete;
    Lock& operator=(const Lock&) = delete;

    uint32_t take(uint32_t timeout_ms = 0) const { return kzmkernel_wait(mutex_.value, timeout_ms); }
    bool release() const { return kzmkernel_release(mutex_.value) != 0; }

    std::span<volatile uint8_t> word_bytes() const { return {bytes_ + word_at, sizeof(uint32_t)}; }
    uint32_t word() const { return *reinterpret_cast<const volatile uint32_t*>(bytes_ + word_at); }
    uint32_t owner() const { return word() & FUTEX_TID_MASK; }
    /// What follows the pthread mutex.
    std::vector<uint8_t> rest() const { return {bytes_ + rest_at, bytes_ + page}; }
    void set_rest(const std::vector<uint8_t>& rest) const { std::copy(rest.begin(), rest.end(), bytes_ + rest_at); }
    std::span<volatile uint8_t> bytes() const { return {bytes_, page}; }
    void* mutex() const { return mutex_.value; }

  private:
    static constexpr size_t word_at = 16, rest_at = 56;

    const Handle mutex_;
    uint8_t* bytes_;
};

CHILD(takes) {
    void* const mutex = create_mutex(test::argument());
    test::begin_steps();
    const uint32_t result = kzmkernel_wait(mutex, 0);
    test::end_steps();
    test::report(result);
    test::told();
    test::report(static_cast<uint64_t>(kzmkernel_release(mutex)));
    hang();
}

CHILD(releases) {
    void* const mutex = create_mutex(test::argument());
    if (kzmkernel_wait(mutex, 0) != KZMKERNEL_WAIT_OWNED) std::abort();
    test::begin_steps();
    kzmkernel_release(mutex);
    test::end_steps();
    hang();
}

CHILD(waits_step_by_step) {
    void* const mutex = create_mutex(test::argument());
    test::begin_steps();
    kzmkernel_wait(mutex, longest_wait_ms);
    test::end_steps();
    hang();
}

CHILD(waits) {
    void* const mutex = create_mutex(test::argument());
    test::report(0);
    test::told();
    test::report(kzmkernel_wait(mutex, longest_wait_ms));
    kzmkernel_release(mutex);
    hang();
}

/// A process that waits, asleep once fall_asleep() has returned.
class Sleeper {
  public:
    explicit Sleeper(const std::string& name) : child_(test::start(waits, name)) { child_.reported(); }
    void fall_asleep() {
        child_.tell(1);
        wait_until_asleep_in(SYS_futex, static_cast<pid_t>(child_.process_id()));
    }
    uint64_t result() { return child_.reported(); }

  private:
    test::Child child_;
};

/// A waiter W1 that was woken and is held before its next instruction, beside a waiter W2 that sleeps. The lock is
/// free.
class WokenBesideSleeper {
  public:
    explicit WokenBesideSleeper(const Lock& lock) : sleeper(object_name()) {
        if (lock.take() != KZMKERNEL_WAIT_OWNED) throw std::runtime_error("not free");
        if (!woken.step_to_system_call(SYS_futex)) throw std::runtime_error("does not sleep");
        woken.begin_step();
        woken.wait_until_asleep();
        sleeper.fall_asleep();
        if (!lock.release() || woken.wait() != Stepper::State::held) throw std::runtime_error("not woken");
    }
    /// Its sleep may have ended by itself, on a machine that was slow in between.
    bool is_exact(const Lock& lock) const { return woken.registers().rax == 0 && lock.owner() == 0; }

    Stepper woken{waits_step_by_step, object_name()};
    Sleeper sleeper;
};

/// A releaser that is held where it has given the lock back and has not woken the waiter that sleeps.
class HeldBeforeItWakes {
  public:
    explicit HeldBeforeItWakes(const Lock& lock) : sleeper(object_name()) {
        sleeper.fall_asleep();
        while ((lock.word() & FUTEX_WAITERS) == 0) std::this_thread::yield();
        Watched word(lock.word_bytes());
        if (!releaser.step_until_changed(word)) throw std::runtime_error("not released");
    }

    Stepper releaser{releases, object_name()};
    Sleeper sleeper;
};

/// A process that is held with the instruction behind it that took the lock.
class HeldOnceItOwns {
  public:
    HeldOnceItOwns() = default;
    bool take(const Lock& lock) {
        Watched word(lock.word_bytes());
        return process.step_until_changed(word) && lock.owner() == static_cast<uint32_t>(id()) &&
               (lock.word() & FUTEX_WAITERS) == 0;
    }
    pid_t id() { return static_cast<pid_t>(process.child().process_id()); }

    Stepper process{takes, object_name()};
};

/// A slice of the waiter's may end just between two steps of a scenario; then it is begun again.
template <typename Scenario>
void until_exact(const Scenario& scenario) {
    for (;;) {
        Lock lock;
        if (scenario(lock)) return;
    }
}

// Scenario 4: O gives the lock back and is stopped before it wakes W1.
TEST(KernelLockReplay, StoppedReleaserKeepsNoWaiterFromTheLock) {
    const Lock lock;
    HeldBeforeItWakes held(lock);
    EXPECT_EQ(held.sleeper.result(), uint64_t{KZMKERNEL_WAIT_OWNED});
}

// Scenario 5: W1 is woken and stopped before it takes the lock.
TEST(KernelLockReplay, StoppedWokenWaiterKeepsNoWaiterFromTheLock) {
    until_exact([](const Lock& lock) {
        WokenBesideSleeper waiters(lock);
        if (!waiters.is_exact(lock)) return false;
        EXPECT_EQ(waiters.sleeper.result(), uint64_t{KZMKERNEL_WAIT_OWNED});
        return true;
    });
}

// Scenario 6: W1 is woken and killed when T has the lock already; T is killed before it has written anything more.
TEST(KernelLockReplay, WokenWaiterAndNextTakerKilledAtOnceLeaveTheLockToTheLastWaiter) {
    until_exact([](const Lock& lock) {
        HeldOnceItOwns taker;
        WokenBesideSleeper waiters(lock);
        if (!waiters.is_exact(lock) || !taker.take(lock)) return false;
        waiters.woken.kill();
        taker.process.kill();
        EXPECT_EQ(waiters.sleeper.result(), uint64_t{KZMKERNEL_WAIT_ABANDONED});
        return true;
    });
}

// Scenario 7: O gives the lock back and is killed before it wakes W1, when T has the lock already; T is killed, too.
TEST(KernelLockReplay, ReleaserAndNextTakerKilledAtOnceLeaveTheLockToTheWaiter) {
    until_exact([](const Lock& lock) {
        HeldOnceItOwns taker;
        HeldBeforeItWakes held(lock);
        if (!taker.take(lock)) return false;
        held.releaser.kill();
        taker.process.kill();
        EXPECT_EQ(held.sleeper.result(), uint64_t{KZMKERNEL_WAIT_ABANDONED});
        return true;
    });
}

CHILD(is_refused_releases) {
    void* const mutex = create_mutex(test::argument());
    test::begin_steps();
    kzmkernel_wait(mutex, 0);
    test::end_steps();
    for (;;) {
        test::begin_steps();
        kzmkernel_release(mutex);
        test::end_steps();
    }
}

CHILD(takes_and_releases) {
    void* const mutex = create_mutex(test::argument());
    for (;;) {
        test::begin_steps();
        kzmkernel_wait(mutex, 0);
        test::end_steps();
        test::begin_steps();
        kzmkernel_release(mutex);
        test::end_steps();
    }
}

void make_its_next_steps(Stepper& process) {
    process.begin_again();
    process.run();
    ASSERT_EQ(process.wait(), Stepper::State::at_end);
}

// Scenario 8: N has the id of an owner that died, whose name stands in the page. N releases what it does not own, held
// up anywhere, while O, which has just taken the lock, writes its name.
TEST(KernelLockReplay, ReleaseByAThreadWithADeadOwnersIdsNeverFreesTheLock) {
    const Lock lock;
    Stepper namesake(is_refused_releases, object_name()), owner(takes_and_releases, object_name());
    namesake.run();
    ASSERT_EQ(namesake.wait(), Stepper::State::at_end);
    const std::vector<uint8_t> names_namesake = lock.rest();
    make_its_next_steps(namesake);
    ASSERT_EQ(lock.word(), 0u);

    // Instrumented code has many more instructions; after each sixteenth is enough there.
    const uint64_t slowness = 16 / test::share_of(16);
    Stepper::State end = Stepper::State::held;
    for (uint64_t steps = 0; end != Stepper::State::at_end; steps += slowness * slowness) {
        lock.set_rest(names_namesake);
        Watched word(lock.word_bytes());
        ASSERT_TRUE(owner.step_until_changed(word));
        namesake.begin_again();
        end = namesake.step(steps);
        owner.run();
        ASSERT_EQ(owner.wait(), Stepper::State::at_end);
        if (end != Stepper::State::at_end) {
            namesake.run();
            ASSERT_EQ(namesake.wait(), Stepper::State::at_end);
        }
        EXPECT_NE(lock.word(), 0u) << "after " << steps << " steps";
        make_its_next_steps(owner);
        ASSERT_EQ(lock.word(), 0u) << "the owner cannot release after " << steps << " steps of its namesake";
        owner.begin_again();
    }
    EXPECT_GT(namesake.steps(), 1'000u);
}

CHILD(calls) {
    void* const mutex = create_mutex(test::argument());
    const auto call = [](auto function) {
        test::begin_steps();
        function();
        test::end_steps();
    };
    call([mutex] { kzmkernel_wait(mutex, 0); });
    call([mutex] { kzmkernel_wait(mutex, 20); });
    call([mutex] { kzmkernel_release(mutex); });
    for (int i = 0; i < 2; ++i) call([mutex] { kzmkernel_wait(mutex, 20); });
    for (int i = 0; i < 2; ++i) call([mutex] { kzmkernel_release(mutex); });
}

/// The operation that a thread has noted as begun, for the kernel to look at when the thread ends.
uint64_t pending_operation_of(Stepper& process) {
    uint64_t list = 0;
    size_t size = 0;
    EXPECT_EQ(syscall(SYS_get_robust_list, process.child().process_id(), &list, &size), 0);
    return process.peek(list + offsetof(robust_list_head, list_op_pending));
}

// Scenario 9: what the kernel would follow after the page has gone.
TEST(KernelLockReplay, NoCallLeavesAnOperationPending) {
    const Lock lock;
    ASSERT_EQ(lock.take(), uint32_t{KZMKERNEL_WAIT_OWNED});
    Stepper process(calls, object_name());
    for (const char* const call : {"a try", "a wait that times out", "a refused release", "a take", "another take",
                                   "a release", "the last release"}) {
        EXPECT_TRUE(std::string_view(call) != "a take" || lock.release());
        process.run();
        ASSERT_EQ(process.wait(), Stepper::State::at_end);
        EXPECT_EQ(pending_operation_of(process), 0u) << "after " << call;
        if (std::string_view(call) != "the last release") process.begin_again();
    }
    EXPECT_EQ(lock.word(), 0u);
}

// Scenario 10: two waiters are killed, before or while they sleep.
TEST(KernelLockReplay, KilledWaitersCostLaterReleasesNoSystemCall) {
    const Lock lock;
    for (const bool once_it_wrote : {true, false}) {
        ASSERT_EQ(lock.take(), uint32_t{KZMKERNEL_WAIT_OWNED});
        for (int waiter = 0; waiter < 2; ++waiter) {
            // The mark may be there from the first one.
            Stepper killed(waits_step_by_step, object_name());
            Watched bytes(lock.bytes());
            if (once_it_wrote && waiter == 0) {
                ASSERT_TRUE(killed.step_until_changed(bytes));
            } else {
                ASSERT_TRUE(killed.step_to_system_call(SYS_futex));
                killed.begin_step();
                killed.wait_until_asleep();
            }
            killed.kill();
        }
        EXPECT_TRUE(lock.release());
        EXPECT_EQ(calls_to_futex_of_100_takes(lock.mutex()), 0) << once_it_wrote;
    }
}

CHILD(is_ended_by_its_second_thread) {
    void* const mutex = create_mutex(test::argument());
    kzmkernel_wait(mutex, 0);
    kzmkernel_release(mutex);  // the thread keeps the page for the next time
    int ends[2];
    if (pipe2(ends, O_CLOEXEC) != 0) std::abort();
    // What is written there at the end of the process, after all libraries have ended, blocks: nobody reads it.
    static const char fill[page]{};
    if (fcntl(ends[1], F_SETPIPE_SZ, page) != page || write(ends[1], fill, page) != page) std::abort();
    std::fputs("last", fdopen(ends[1], "w"));
    std::atomic<pid_t> id{0};
    std::atomic<bool> has_begun{false};
    std::thread([&, mutex] {
        id = gettid();
        while (!has_begun) std::this_thread::yield();
        test::told();
        kzmkernel_close(mutex);
        std::exit(0);
    }).detach();
    while (id == 0) std::this_thread::yield();
    test::tell_address(reinterpret_cast<const void*>(uintptr_t{static_cast<uint32_t>(id.load())}));
    test::tell_address(reinterpret_cast<const void*>(pthread_mutex_trylock));
    test::begin_steps();
    has_begun = true;
    kzmkernel_wait(mutex, 0);
    test::end_steps();
    hang();
}

// Scenario 11: W1 is inside a call while another thread ends the process.
TEST(KernelLockReplay, ExitByOneThreadKeepsThePageForAThreadInsideACall) {
    const Lock lock;
    Stepper process(is_ended_by_its_second_thread, object_name());
    const auto thread = static_cast<pid_t>(process.addresses().at(0));
    ASSERT_TRUE(process.step_to(process.addresses().at(1)));
    process.child().tell(1);
    wait_until_asleep_in(SYS_write, static_cast<pid_t>(process.child().process_id()), thread);
    process.run();
    EXPECT_EQ(process.wait(), Stepper::State::at_end) << "it was ended by a signal";
    EXPECT_EQ(lock.owner(), process.child().process_id());
}

}  // namespace
