// ReadLock and WriteLock: who holds the lock, for how long, and what fits the standard library's locks.
#include "region_fixture.h"
#include "shmnm.hpp"

#include <thread>

namespace {

using namespace std::chrono_literals;
using fakes::Enter;
using fakes::Exit;
using shmnm::errc;
using shmnm::ReadLock;
using shmnm::WriteLock;
using testing::ElementsAre;

template <typename Lock>
constexpr bool stays_where_it_is = !std::is_copy_constructible_v<Lock> && !std::is_move_constructible_v<Lock>;
static_assert(stays_where_it_is<ReadLock> && stays_where_it_is<WriteLock>);
static_assert(!std::is_default_constructible_v<WriteLock>, "whether it waits is always said");

/// Whether a thread of this process that does not own the lock gets it.
bool is_free() {
    bool taken = false;
    std::thread([&] {
        const WriteLock lock(std::try_to_lock);
        taken = lock.owns_lock();
    }).join();
    return taken;
}

class CppLock : public test::RegionTest {
  protected:
    CppLock() { map_region({.servers = 1, .hb = 1, .np = 1}); }
};

TEST_F(CppLock, IsHeldForAsLongAsTheObjectLives) {
    {
        const WriteLock lock(5s);
        EXPECT_TRUE(lock.owns_lock());
        EXPECT_FALSE(is_free());
    }
    EXPECT_TRUE(is_free());
    {
        const ReadLock lock(shmnm::forever);
        EXPECT_TRUE(lock);
        EXPECT_FALSE(is_free());
    }
    EXPECT_TRUE(is_free());
}

TEST_F(CppLock, CallsTheReadingOrTheWritingFunctions) {
    { const ReadLock lock(0s); }
    EXPECT_THAT(log_of_last_call(), ElementsAre(Enter("_rolock"), Exit("_rolock", SHMNM_OK), Enter("_rounlock"),
                                                Exit("_rounlock", SHMNM_OK)));
    { const WriteLock lock(0s); }
    EXPECT_THAT(log_of_last_call(), ElementsAre(Enter("_rwlock"), Exit("_rwlock", SHMNM_OK), Enter("_rwunlock"),
                                                Exit("_rwunlock", SHMNM_OK)));
}

TEST_F(CppLock, ReportsATimeOutAndIsNotHeldThen) {
    const WriteLock owner(0s);
    std::thread([] {
        std::error_code error;
        const WriteLock late(30ms, error);
        EXPECT_EQ(error, errc::lock);
        EXPECT_EQ(error, std::errc::timed_out);
        EXPECT_FALSE(late);
        try {
            const ReadLock thrown(0s);
            ADD_FAILURE() << "nothing is thrown";
        } catch (const shmnm::Error& thrown) {
            EXPECT_STREQ(thrown.what(), "shmnm_rolock: the time-out passed before the lock was free");
        }
    }).join();
    EXPECT_FALSE(is_free()) << "whoever got nothing releases nothing";
}

TEST_F(CppLock, ClearsTheCodeWhenItIsTaken) {
    std::error_code error = errc::notfound;
    const WriteLock lock(0s, error);
    EXPECT_FALSE(error);
    EXPECT_TRUE(lock);
}

TEST_F(CppLock, TriesWithoutWaiting) {
    const WriteLock owner(0s);
    log_of_last_call();
    std::thread([] {
        WriteLock lock(std::defer_lock);
        EXPECT_FALSE(lock.try_lock());
        EXPECT_FALSE(lock.try_lock_for(0s));
        EXPECT_FALSE(lock.try_lock_for(-1h));
        EXPECT_FALSE(lock.try_lock_until(std::chrono::steady_clock::now()));
        EXPECT_FALSE(lock);
    }).join();
    EXPECT_EQ(log_of_last_call().size(), 12u) << "entry, error and exit of four tries";
}

TEST_F(CppLock, IsTakenAsOftenAsItIsReleased) {
    WriteLock lock(shmnm::forever);
    EXPECT_TRUE(lock.try_lock());
    lock.unlock();
    EXPECT_TRUE(lock);
    EXPECT_FALSE(is_free());
    lock.unlock();
    EXPECT_FALSE(lock);
    EXPECT_TRUE(is_free());
    log_of_last_call();
    lock.unlock();
    EXPECT_THAT(log_of_last_call(), testing::IsEmpty()) << "there is nothing to release";
    lock.lock();
    EXPECT_TRUE(lock.try_lock_for(1s));
    EXPECT_TRUE(lock.try_lock_until(std::chrono::system_clock::now() + 1s));
    {
        const ReadLock nested(0s);
        EXPECT_TRUE(nested);
    }
    EXPECT_FALSE(is_free()) << "the end of the inner lock leaves the outer one";
}

TEST_F(CppLock, ReleasesAllThatItHasTaken) {
    {
        ReadLock lock(std::defer_lock);
        lock.lock();
        lock.lock();
    }
    EXPECT_TRUE(is_free());
}

TEST_F(CppLock, FitsTheStandardLibrarysLocks) {
    WriteLock lock(std::defer_lock);
    {
        const std::lock_guard guard(lock);
        EXPECT_FALSE(is_free());
    }
    EXPECT_TRUE(is_free());
    {
        std::unique_lock guard(lock, 5s);
        EXPECT_TRUE(guard.owns_lock());
        EXPECT_FALSE(is_free());
        guard.unlock();
        EXPECT_TRUE(is_free());
        EXPECT_TRUE(guard.try_lock_for(10ms));
        EXPECT_THAT(shmnm::Server::names(*guard.mutex()), testing::IsEmpty()) << "the mutex is the proof";
    }
    EXPECT_TRUE(is_free());
    std::mutex other;
    {
        const std::scoped_lock both(lock, other);
        EXPECT_FALSE(is_free());
    }
    EXPECT_TRUE(is_free());
}

TEST_F(CppLock, IsTakenOverFromAThreadThatEnded) {
    std::thread([] { EXPECT_EQ(shmnm_rwlock(0), SHMNM_OK); }).join();
    const ReadLock lock(10s);
    EXPECT_TRUE(lock);
}

}  // namespace
