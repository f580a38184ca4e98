// Mutexes: ownership, waits, and owners that end. Sleep.
#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <string>
#include <thread>
#include <vector>

#include "kernel_contract.h"
#include "support/child.h"

namespace {

using namespace kernel_contract;
using std::chrono::milliseconds;
using std::chrono::steady_clock;
using test::Child;

class KernelMutex : public testing::Test {
  protected:
    const std::string name = object_name();
    const Handle mutex{test::create_mutex(name.c_str())};
};

CHILD(create_and_hang) {
    test::set_last_error(no_last_error);
    test::create_mutex(test::argument().c_str());
    test::report(kernel::last_error());
    test::hang();
}
CHILD(lock_and_hang) {
    void* const mutex = test::create_mutex(test::argument().c_str());
    test::report(kernel::wait(mutex, infinite));
    test::hang();
}
CHILD(lock_and_exit) {
    void* const mutex = test::create_mutex(test::argument().c_str());
    test::report(kernel::wait(mutex, infinite));
}
CHILD(lock_then_close_and_hang) {
    void* const mutex = test::create_mutex(test::argument().c_str());
    test::report(kernel::wait(mutex, infinite));
    test::report(kernel::close(mutex));
    test::hang();
}
CHILD(wait_and_release) {
    const Handle mutex(test::create_mutex(test::argument().c_str()));
    test::report(1);
    test::report(kernel::wait(mutex.get(), infinite));
    test::report(kernel::release(mutex.get()));
    test::hang();
}
CHILD(release_without_owning) {
    const Handle mutex(test::create_mutex(test::argument().c_str()));
    const Attempt attempt = try_release(mutex.get());
    test::report(attempt.done);
    test::report(attempt.error);
}

TEST_F(KernelMutex, IsNotOwnedByItsCreator) {
    EXPECT_EQ(in_another_thread(try_and_give_back, mutex.get()), owned);
}

TEST_F(KernelMutex, IsOwnedByOneThreadOnly) {
    ASSERT_EQ(kernel::wait(mutex.get(), infinite), owned);
    EXPECT_TRUE(is_owned_by_another(mutex.get()));
    EXPECT_TRUE(kernel::release(mutex.get()));
    EXPECT_EQ(in_another_thread(try_and_give_back, mutex.get()), owned);
}

TEST_F(KernelMutex, IsOwnedByOneProcessOnly) {
    Child owner = start(lock_and_hang, name);
    ASSERT_EQ(owner.reported(), owned);
    EXPECT_EQ(kernel::wait(mutex.get(), 0), timed_out);
    EXPECT_EQ(kernel::wait(mutex.get(), 20), timed_out);
}

TEST_F(KernelMutex, IsTheSameThroughAllItsHandles) {
    const Handle other(test::create_mutex(name.c_str()));
    ASSERT_EQ(kernel::wait(mutex.get(), 0), owned);
    EXPECT_EQ(kernel::wait(other.get(), 0), owned);
    EXPECT_TRUE(kernel::release(mutex.get()));
    EXPECT_TRUE(is_owned_by_another(other.get()));
    EXPECT_TRUE(kernel::release(other.get()));
    EXPECT_FALSE(kernel::release(other.get()));
    EXPECT_EQ(kernel::last_error(), error_not_owner);
}

TEST_F(KernelMutex, NeedsAsManyReleasesAsItWasTaken) {
    constexpr int depth = 1000;
    for (int i = 0; i < depth; ++i) ASSERT_EQ(kernel::wait(mutex.get(), i % 2 == 0 ? 0 : infinite), owned);
    for (int i = 0; i < depth; ++i) {
        if (i % 250 == 0 || i == depth - 1) {
            EXPECT_TRUE(is_owned_by_another(mutex.get())) << i;
        }
        ASSERT_TRUE(kernel::release(mutex.get()));
    }
    EXPECT_EQ(in_another_thread(try_and_give_back, mutex.get()), owned);
    EXPECT_FALSE(kernel::release(mutex.get()));
    EXPECT_EQ(kernel::last_error(), error_not_owner);
}

TEST_F(KernelMutex, CannotBeReleasedByAThreadThatDoesNotOwnIt) {
    const Attempt free = try_release(mutex.get());
    EXPECT_FALSE(free.done);
    EXPECT_EQ(free.error, error_not_owner);
    ASSERT_EQ(kernel::wait(mutex.get(), 0), owned);
    const Attempt other = in_another_thread(try_release, mutex.get());
    EXPECT_FALSE(other.done);
    EXPECT_EQ(other.error, error_not_owner);
    EXPECT_TRUE(is_owned_by_another(mutex.get()));
    EXPECT_TRUE(kernel::release(mutex.get()));
}

TEST_F(KernelMutex, CannotBeReleasedByAProcessThatDoesNotOwnIt) {
    ASSERT_EQ(kernel::wait(mutex.get(), 0), owned);
    Child other = start(release_without_owning, name);
    EXPECT_EQ(other.reported(), 0u);
    EXPECT_EQ(other.reported(), error_not_owner);
    EXPECT_TRUE(is_owned_by_another(mutex.get()));
    EXPECT_TRUE(kernel::release(mutex.get()));
}

TEST_F(KernelMutex, EndsAWaitOfZeroTimeAtOnceAndKeepsTheLastError) {
    Child owner = start(lock_and_hang, name);
    ASSERT_EQ(owner.reported(), owned);
    test::set_last_error(no_last_error);
    // On a busy machine any of them can be held up, but not all.
    auto shortest = steady_clock::duration::max();
    for (int i = 0; i < 100; ++i) {
        const auto begin = steady_clock::now();
        EXPECT_EQ(kernel::wait(mutex.get(), 0), timed_out);
        shortest = std::min(shortest, steady_clock::now() - begin);
    }
    EXPECT_LT(shortest, milliseconds(50));
    EXPECT_EQ(kernel::last_error(), no_last_error);
}

TEST_F(KernelMutex, EndsAWaitAfterItsWholeTimeAndKeepsTheLastError) {
    Child owner = start(lock_and_hang, name);
    ASSERT_EQ(owner.reported(), owned);
    test::set_last_error(no_last_error);
    for (const uint32_t timeout_ms : {1u, 40u, 1100u}) {
        const auto begin = steady_clock::now();
        EXPECT_EQ(kernel::wait(mutex.get(), timeout_ms), timed_out);
        // Windows counts in ticks, of which the first may be a part.
        EXPECT_GE(steady_clock::now() - begin, milliseconds(timeout_ms) - milliseconds(16));
    }
    EXPECT_EQ(kernel::last_error(), no_last_error);
}

TEST_F(KernelMutex, DoesNotEndAWaitOfSeveralWeeks) {
    ASSERT_EQ(kernel::wait(mutex.get(), 0), owned);
    std::atomic<uint32_t> result{failed};
    std::thread waiter([&] {
        result = kernel::wait(mutex.get(), 0xFFFFFFFE);
        kernel::release(mutex.get());
    });
    Child other = start(wait_and_release, name);
    ASSERT_EQ(other.reported(), 1u);
    EXPECT_TRUE(kernel::release(mutex.get()));
    waiter.join();
    EXPECT_EQ(result, owned);
    EXPECT_EQ(other.reported(), owned);
}

TEST_F(KernelMutex, IsHandedToAWaitingThread) {
    ASSERT_EQ(kernel::wait(mutex.get(), 0), owned);
    std::atomic<bool> waits{false};
    uint32_t result = failed;
    std::thread waiter([&] {
        waits = true;
        result = kernel::wait(mutex.get(), infinite);
        kernel::release(mutex.get());
    });
    while (!waits) std::this_thread::yield();
    EXPECT_TRUE(kernel::release(mutex.get()));
    waiter.join();
    EXPECT_EQ(result, owned);
}

TEST_F(KernelMutex, IsHandedToAWaitingProcess) {
    ASSERT_EQ(kernel::wait(mutex.get(), 0), owned);
    Child waiter = start(wait_and_release, name);
    ASSERT_EQ(waiter.reported(), 1u);
    EXPECT_TRUE(kernel::release(mutex.get()));
    EXPECT_EQ(waiter.reported(), owned);
    EXPECT_EQ(waiter.reported(), 1u);
}

TEST_F(KernelMutex, IsAbandonedOnceWhenItsOwnerThreadEnds) {
    ASSERT_EQ(in_another_thread(try_wait, mutex.get()), owned);
    EXPECT_EQ(kernel::wait(mutex.get(), 0), abandoned);
    EXPECT_TRUE(kernel::release(mutex.get()));
    EXPECT_EQ(kernel::wait(mutex.get(), 0), owned);
    EXPECT_TRUE(kernel::release(mutex.get()));
}

TEST_F(KernelMutex, IsAbandonedCompletelyByAThreadThatTookItTwice) {
    std::thread([&] {
        EXPECT_EQ(kernel::wait(mutex.get(), 0), owned);
        EXPECT_EQ(kernel::wait(mutex.get(), 0), owned);
    }).join();
    EXPECT_EQ(kernel::wait(mutex.get(), 0), abandoned);
    EXPECT_TRUE(kernel::release(mutex.get()));
    EXPECT_FALSE(kernel::release(mutex.get()));
    EXPECT_EQ(kernel::last_error(), error_not_owner);
    EXPECT_EQ(in_another_thread(try_and_give_back, mutex.get()), owned);
}

TEST_F(KernelMutex, IsRecursiveAgainAfterATakeOver) {
    ASSERT_EQ(in_another_thread(try_wait, mutex.get()), owned);
    EXPECT_EQ(kernel::wait(mutex.get(), 0), abandoned);
    EXPECT_EQ(kernel::wait(mutex.get(), 0), owned);
    EXPECT_TRUE(kernel::release(mutex.get()));
    EXPECT_TRUE(is_owned_by_another(mutex.get()));
    EXPECT_TRUE(kernel::release(mutex.get()));
}

TEST_F(KernelMutex, IsAbandonedOnceWhenItsOwnerProcessIsKilled) {
    Child owner = start(lock_and_hang, name);
    ASSERT_EQ(owner.reported(), owned);
    owner.kill();
    EXPECT_EQ(kernel::wait(mutex.get(), 10'000), abandoned);
    EXPECT_TRUE(kernel::release(mutex.get()));
    EXPECT_EQ(kernel::wait(mutex.get(), 0), owned);
    EXPECT_TRUE(kernel::release(mutex.get()));
}

TEST_F(KernelMutex, IsAbandonedWhenItsOwnerProcessExits) {
    Child owner = start(lock_and_exit, name);
    ASSERT_EQ(owner.reported(), owned);
    EXPECT_EQ(owner.wait(), 0);
    EXPECT_EQ(kernel::wait(mutex.get(), 10'000), abandoned);
    EXPECT_TRUE(kernel::release(mutex.get()));
}

TEST_F(KernelMutex, IsAbandonedAgainWithEachOwnerThatEnds) {
    for (int round = 0; round < 3; ++round) {
        Child owner = start(lock_and_hang, name);
        EXPECT_EQ(owner.reported(), round == 0 ? owned : abandoned);
        owner.kill();
    }
    EXPECT_EQ(kernel::wait(mutex.get(), 10'000), abandoned);
    EXPECT_TRUE(kernel::release(mutex.get()));
}

TEST_F(KernelMutex, IsReportedAsAbandonedToExactlyOneOfItsWaiters) {
    Child owner = start(lock_and_hang, name);
    ASSERT_EQ(owner.reported(), owned);
    std::vector<Child> waiters;
    for (int i = 0; i < 4; ++i) {
        waiters.push_back(start(wait_and_release, name));
        ASSERT_EQ(waiters.back().reported(), 1u);
    }
    std::atomic<int> reports{0};
    std::vector<std::thread> threads;
    threads.reserve(4);
    for (int i = 0; i < 4; ++i) {
        threads.emplace_back([&] {
            const uint32_t result = kernel::wait(mutex.get(), infinite);
            EXPECT_TRUE(result == owned || result == abandoned) << result;
            reports += result == abandoned;
            EXPECT_TRUE(kernel::release(mutex.get()));
        });
    }
    owner.kill();
    for (Child& waiter : waiters) {
        const uint64_t result = waiter.reported();
        EXPECT_TRUE(result == owned || result == abandoned) << result;
        reports += result == abandoned;
        EXPECT_EQ(waiter.reported(), 1u);
    }
    for (std::thread& thread : threads) thread.join();
    EXPECT_EQ(reports, 1);
}

TEST_F(KernelMutex, StaysOwnedAfterItsOwnerClosesItUntilTheOwnerEnds) {
    Child owner = start(lock_then_close_and_hang, name);
    ASSERT_EQ(owner.reported(), owned);
    ASSERT_EQ(owner.reported(), 1u);
    EXPECT_EQ(kernel::wait(mutex.get(), 0), timed_out);
    owner.kill();
    EXPECT_EQ(kernel::wait(mutex.get(), 10'000), abandoned);
    EXPECT_TRUE(kernel::release(mutex.get()));
}

TEST_F(KernelMutex, IsStillOwnedAfterItsOwnerClosesAndReopensIt) {
    Child other = start(wait_and_release, name);
    ASSERT_EQ(other.reported(), 1u);
    ASSERT_EQ(other.reported(), owned);
    ASSERT_EQ(other.reported(), 1u);
    Handle first(test::create_mutex((name + "2").c_str()));
    Child holder = start(create_and_hang, name + "2");
    ASSERT_EQ(holder.reported(), 183u);
    ASSERT_EQ(kernel::wait(first.get(), 0), owned);
    ASSERT_TRUE(first.close());
    // Another mutex is taken and given back while the thread owns the closed one.
    EXPECT_EQ(kernel::wait(mutex.get(), 0), owned);
    EXPECT_TRUE(kernel::release(mutex.get()));
    const Handle again(test::create_mutex((name + "2").c_str()));
    EXPECT_EQ(kernel::last_error(), 183u);
    EXPECT_TRUE(is_owned_by_another(again.get()));
    EXPECT_EQ(kernel::wait(again.get(), 0), owned);
    EXPECT_TRUE(kernel::release(again.get()));
    EXPECT_TRUE(kernel::release(again.get()));
    EXPECT_FALSE(kernel::release(again.get()));
    // Nothing of it is freed with what the closed handle has left.
    EXPECT_EQ(kernel::wait(mutex.get(), 0), owned);
    EXPECT_TRUE(kernel::release(mutex.get()));
    const Handle third(test::create_mutex((name + "3").c_str()));
    EXPECT_EQ(kernel::wait(again.get(), 0), owned);
    EXPECT_FALSE(is_owned_by_another(third.get()));
    EXPECT_TRUE(kernel::release(again.get()));
}

TEST_F(KernelMutex, IsNewAfterItsLastHandleIsClosedWhileOwned) {
    const std::string other = name + "2";
    for (int round = 0; round < 3; ++round) {
        Handle handle(test::create_mutex(other.c_str()));
        EXPECT_EQ(kernel::last_error(), 0u);
        EXPECT_EQ(kernel::wait(handle.get(), 0), owned);
        EXPECT_TRUE(handle.close());
    }
    const Handle handle(test::create_mutex(other.c_str()));
    EXPECT_EQ(in_another_thread(try_and_give_back, handle.get()), owned);
}

TEST_F(KernelMutex, EndsAWaitInOwnershipOrError6WhenItIsClosed) {
    for (int round = 0; round < 200; ++round) {
        void* const handle = test::create_mutex(name.c_str());
        ASSERT_EQ(kernel::wait(mutex.get(), 0), owned);
        std::atomic<int> step{0};
        uint32_t result = failed, error = 0;
        std::thread waiter([&] {
            step = 1;
            result = kernel::wait(handle, infinite);
            error = kernel::last_error();
            if (result == owned) kernel::release(mutex.get());
        });
        while (step == 0) std::this_thread::yield();
        EXPECT_TRUE(kernel::close(handle));
        EXPECT_TRUE(kernel::release(mutex.get()));
        waiter.join();
        EXPECT_TRUE(result == owned || (result == failed && error == error_invalid_handle)) << result << ' ' << error;
    }
}

TEST(KernelSleep, LastsAtLeastTheGivenTime) {
    for (const uint32_t time_ms : {0u, 1u, 30u, 1020u}) {
        const auto begin = steady_clock::now();
        kernel::sleep(time_ms);
        EXPECT_GE(steady_clock::now() - begin, milliseconds(time_ms) - milliseconds(16));
    }
}

}  // namespace
