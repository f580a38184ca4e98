// The cross-process lock beside fake companions: results and lines. Owners in other processes are in
// cross_process_test.cpp.
#include "region_fixture.h"

#include <thread>

#include "kernel_objects.h"

namespace {

using fakes::Enter;
using fakes::Error;
using fakes::Exit;
using testing::ElementsAre;

/// The reading or the writing pair of calls; both take the same lock.
struct Pair {
    uint32_t (*take)(uint32_t);
    uint32_t (*give)();
    const char* take_tag;
    const char* give_tag;
};

const Pair reading{shmnm_rolock, shmnm_rounlock, "_rolock", "_rounlock"};
const Pair writing{shmnm_rwlock, shmnm_rwunlock, "_rwlock", "_rwunlock"};

class Lock : public test::RegionTest, public testing::WithParamInterface<Pair> {
  protected:
    Lock() { map_region({.servers = 1, .hb = 1, .np = 1}); }
    uint32_t take(uint32_t timeout_ms) { return GetParam().take(timeout_ms); }
    uint32_t give() { return GetParam().give(); }
    /// What a thread of this process that does not own the lock gets.
    uint32_t take_in_another_thread(uint32_t timeout_ms, uint32_t error_before = 0) {
        uint32_t result = 0;
        std::thread([&] {
            test::set_last_error(error_before);
            result = take(timeout_ms);
            if (result == SHMNM_OK) give();
        }).join();
        return result;
    }
};

INSTANTIATE_TEST_SUITE_P(Pairs, Lock, testing::Values(reading, writing),
                         [](const auto& instance) { return std::string(instance.param.take_tag + 1); });

TEST_P(Lock, IsTakenAndReleased) {
    EXPECT_EQ(take(0), SHMNM_OK);
    EXPECT_EQ(give(), SHMNM_OK);
    EXPECT_THAT(log_of_last_call(), ElementsAre(Enter(GetParam().take_tag), Exit(GetParam().take_tag, SHMNM_OK),
                                                Enter(GetParam().give_tag), Exit(GetParam().give_tag, SHMNM_OK)));
}

TEST_P(Lock, IsTheSameForReadersAndWriters) {
    ASSERT_EQ(shmnm_rolock(0), SHMNM_OK);
    EXPECT_EQ(take_in_another_thread(0), SHMNM_ERR_LOCK);
    // Either unlock releases what either lock has taken.
    EXPECT_EQ(shmnm_rwunlock(), SHMNM_OK);
    EXPECT_EQ(take_in_another_thread(0), SHMNM_OK);
}

TEST_P(Lock, LogsATimeOutWithTheThreadsLastError) {
    ASSERT_EQ(take(0), SHMNM_OK);
    log_of_last_call();
    EXPECT_EQ(take_in_another_thread(0, 42), SHMNM_ERR_LOCK);
    EXPECT_THAT(log_of_last_call(), ElementsAre(Enter(GetParam().take_tag),
                                                Error(GetParam().take_tag, "WaitForSingleObject() failed(errno:42)"),
                                                Exit(GetParam().take_tag, SHMNM_ERR_LOCK)));
    EXPECT_EQ(take_in_another_thread(30), SHMNM_ERR_LOCK);
    EXPECT_EQ(give(), SHMNM_OK);
    EXPECT_EQ(take_in_another_thread(0), SHMNM_OK);
}

TEST_P(Lock, IsTakenTwiceByItsOwnerAndReleasedTwice) {
    ASSERT_EQ(take(0), SHMNM_OK);
    EXPECT_EQ(take(0xFFFFFFFF), SHMNM_OK);
    EXPECT_EQ(give(), SHMNM_OK);
    EXPECT_EQ(take_in_another_thread(0), SHMNM_ERR_LOCK);
    EXPECT_EQ(give(), SHMNM_OK);
    EXPECT_EQ(take_in_another_thread(0), SHMNM_OK);
}

TEST_P(Lock, CanBeReleasedOnlyByItsOwner) {
    EXPECT_EQ(give(), SHMNM_OK) << "nobody owns it";
    ASSERT_EQ(take(0), SHMNM_OK);
    std::thread([&] { EXPECT_EQ(give(), SHMNM_OK); }).join();
    EXPECT_EQ(take_in_another_thread(0), SHMNM_ERR_LOCK) << "another thread's release has no effect";
    EXPECT_EQ(give(), SHMNM_OK);
}

TEST_P(Lock, IsTakenOverFromAThreadThatEnded) {
    std::thread([&] { ASSERT_EQ(take(0), SHMNM_OK); }).join();
    EXPECT_EQ(take(10'000), SHMNM_OK);
    EXPECT_EQ(give(), SHMNM_OK);
    EXPECT_EQ(take_in_another_thread(0), SHMNM_OK);
}

TEST_P(Lock, WorksWhetherOrNotTheRegionIsMapped) {
    shmnm_delete();
    EXPECT_EQ(take(0), SHMNM_OK);
    EXPECT_EQ(take_in_another_thread(0), SHMNM_ERR_LOCK);
    EXPECT_EQ(give(), SHMNM_OK);
    EXPECT_EQ(take_in_another_thread(0), SHMNM_OK);
}

}  // namespace
