// Copies of the live region that do not take the lock, and when they must take it.
#include <gmock/gmock.h>

#include <sys/mman.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <csignal>
#include <cstddef>
#include <cstring>
#include <ctime>
#include <filesystem>
#include <fstream>
#include <functional>
#include <iterator>
#include <stdexcept>

#include "picture/decode.h"
#include "picture/error.h"
#include "picture/held_region.h"
#include "picture/holders.h"
#include "picture/interrupted.h"
#include "picture/library_region.h"
#include "picture/live.h"
#include "picture/live_region.h"
#include "picture/platform.h"
#include "support/traced_linux.h"

namespace {

/// How much more of the time since the machine's start seems to pass from one look at that clock to the next.
uint64_t jump_ms = 0;

}  // namespace

// Takes the place of the system's function in this program.
int clock_gettime(clockid_t clock, timespec* now) noexcept {
    const auto result = static_cast<int>(syscall(SYS_clock_gettime, clock, now));
    static uint64_t jumped_ms = 0;
    if (clock == CLOCK_BOOTTIME) {
        now->tv_sec += static_cast<time_t>(jumped_ms / 1'000);
        jumped_ms += jump_ms;
    }
    return result;
}

namespace picture {
namespace {

using test::Child;
using test::LiveCopy;
using LiveRegionTest = LiveCopy;
using test::report;

uint64_t takes(LiveRegion& live) {
    return platform::lock_holder(live.mutex())->takes;
}

TEST_F(LiveCopy, DoesNotTakeAFreeLock) {
    std::string told;
    LiveRegion live({.tell = [&](const std::string& line) { told = line; }});
    for (const Bytes wanted : {Bytes::in_use, Bytes::all}) {
        ASSERT_EQ(shmnm_rwlock(0), SHMNM_OK);
        ASSERT_EQ(shmnm_rwunlock(), SHMNM_OK);
        const uint64_t before = takes(live);
        const Snapshot copy = live.copy(wanted);
        EXPECT_EQ(copy.way, CopyWay::without_lock);
        EXPECT_EQ(copy.tries, 1u);
        EXPECT_EQ(copy.lock_wait_us, 0u);
        EXPECT_EQ(copy.lock_held_us, 0u);
        ASSERT_TRUE(copy.lock);
        EXPECT_EQ(copy.lock->takes, before);
        EXPECT_EQ(copy.lock->process, 0u);
        EXPECT_EQ(copy.steps, before - copy.lock->looks);
        EXPECT_EQ(decode(copy).servers.at(0).name, "alpha");
        EXPECT_EQ(takes(live), before);
        EXPECT_EQ(told, wanted == Bytes::all ? "copied all bytes without the lock"
                                             : "copied the bytes in use without the lock");
    }
}

TEST_F(LiveCopy, OfTheLocksOwnerNeedsNoOtherTake) {
    LiveRegion live({.lock_timeout_ms = 0});
    ASSERT_EQ(shmnm_rwlock(0), SHMNM_OK);
    const uint64_t before = takes(live);
    const Snapshot copy = live.copy(Bytes::in_use);
    EXPECT_EQ(copy.way, CopyWay::as_owner);
    EXPECT_EQ(how_copied(copy), "copied the bytes in use as the owner of the lock");
    EXPECT_EQ(copy.lock->process, test::process_id());
    // The owner's own step has not ended.
    EXPECT_EQ(copy.steps, before - copy.lock->looks - 1);
    EXPECT_EQ(takes(live), before);
    EXPECT_EQ(shmnm_rwunlock(), SHMNM_OK);
}

/// Owns the lock in the middle of a change that it has noted.
CHILD(change_and_hang) {
    report(shmnm_attach());
    report(shmnm_rwlock(0));
    LiveRegion live({});
    shmnm::Note note{};
    note.state = shmnm::Note::open;
    note.call = shmnm::NotedCall::rmnode;
    note.process = test::process_id();
    note.takes = takes(live);
    note.object = live_object();
    std::strcpy(note.name, "alpha");
    std::memcpy(platform::own_note(live.mutex()), &note, sizeof note);
    report(1);
    test::hang();
}

TEST_F(LiveCopy, TakesTheLockOverFromAKilledOwnerAndShowsItsChange) {
    Child owner = start(change_and_hang);
    ASSERT_EQ(owner.reported(), SHMNM_OK);
    ASSERT_EQ(owner.reported(), SHMNM_OK);
    ASSERT_EQ(owner.reported(), 1u);
    owner.kill();
    LiveRegion live({});
    const Snapshot first = live.copy(Bytes::in_use);
    EXPECT_EQ(first.way, CopyWay::with_lock);
    EXPECT_EQ(first.tries, 3u);
    EXPECT_EQ(first.lock->takeovers, 1u);
    EXPECT_NE(first.lock->last_takeover_ns, 0u);
    EXPECT_EQ(first.lock->process, 0u) << "the copy itself was named as the owner";
    ASSERT_EQ(interrupted_in(first).size(), 1u);
    EXPECT_EQ(interrupted_in(first)[0].process, owner.process_id());

    const Snapshot second = live.copy(Bytes::in_use);
    EXPECT_EQ(second.way, CopyWay::without_lock);
    EXPECT_EQ(second.lock->takeovers, 1u);
    EXPECT_EQ(second.steps, first.steps) << "a copy's own take counted as a step";
    ASSERT_EQ(interrupted_in(second).size(), 1u);
    EXPECT_EQ(sentence(interrupted_in(second)[0]), sentence(interrupted_in(first)[0]));
}

TEST_F(LiveCopy, ShowsAChangeToWhoDoesNotOwnTheLockOnceItsCallerHasEnded) {
    LiveRegion live({});
    Child owner = start(change_and_hang);
    for (int i = 0; i < 3; ++i) owner.reported();
    EXPECT_EQ(interrupted_changes_unlocked(live.mutex(), live_object()).size(), 0u) << "its caller is at it";
    owner.kill();
    const std::vector<Interrupted> left = interrupted_changes_unlocked(live.mutex(), live_object());
    ASSERT_EQ(left.size(), 1u);
    EXPECT_EQ(left[0].process, owner.process_id());
    EXPECT_EQ(left[0].change, "removed server alpha");
}

std::ptrdiff_t open_descriptors() {
    using std::filesystem::directory_iterator;
    return std::distance(directory_iterator("/proc/self/fd"), directory_iterator());
}

/// How many mappings of this process are of a file whose name has this part.
std::ptrdiff_t mappings(const std::string& part) {
    std::ifstream list("/proc/self/maps");
    std::ptrdiff_t found = 0;
    for (std::string line; std::getline(list, line);) found += line.find(part) != std::string::npos ? 1 : 0;
    return found;
}

TEST_F(LiveRegionTest, IsMappedNoLongerThanItIsLookedAt) {
    const std::function<void()> looks[] = {[] { LiveRegion({}).copy(Bytes::all); },
                                           [] { LiveRegion({}).copy_locked(); },
                                           [] { LiveRegion({}).expect(); },
                                           [] { const WritableRegion region; },
                                           [] { static_cast<void>(HeldRegion::open()->size()); },
                                           [] { holders(Access{}); }};
    const std::ptrdiff_t own = mappings(mapping_name);
    EXPECT_GT(own, 0) << "the library maps it";
    for (const auto& look : looks) {
        look();
        EXPECT_EQ(mappings(mapping_name), own);
    }
}

TEST_F(LiveRegionTest, KeepsItsLockNoLongerThanItsUser) {
    const test::ScopedEnvironment other("KZMUTIL_NAMESPACE", (platform::object_prefix() + "other-").c_str());
    const std::ptrdiff_t open = open_descriptors();
    {
        LiveRegion live({});
        live.mutex();
        EXPECT_EQ(mappings(full_name(mutex_name)), 1);
    }
    EXPECT_EQ(mappings(full_name(mutex_name)), 0);
    EXPECT_EQ(open_descriptors(), open);
}

/// Whether a child, which does not hold the region, ends with this error if one of its mappings of files fails, and has
/// closed what it opened.
bool tells_of_a_failed_mapping(const std::function<void()>& work, const std::string& words) {
    constexpr size_t room = 4096;
    auto* const told =
        static_cast<char*>(mmap(nullptr, room, PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0));
    bool has_told = false, has_failed = true;
    for (int position = 1; has_failed && !has_told; ++position) {
        test::Traced child([&] {
            shmnm_delete();
            const std::ptrdiff_t open = open_descriptors();
            try {
                work();
            } catch (const Error& error) {
                if (open_descriptors() == open) std::strncpy(told, error.what(), room - 1);
            }
        });
        has_failed = false;
        for (int mapped = 0; child.step();) {
            const std::vector<uint64_t> call = child.entered();
            if (call.empty() || call[0] != SYS_mmap || static_cast<int>(call[5]) < 0 || ++mapped != position) continue;
            child.fail_call(ENOMEM);
            has_failed = true;
        }
        has_told = told == words;
    }
    munmap(told, room);
    return has_told;
}

TEST_F(LiveRegionTest, ReportsAFailedMapping) {
    const std::string advice = full_name(mapping_name) + " (error 8); see the trace log and the system's log";
    const std::string writable =
        full_name(mapping_name) + " for writing (error 8); see the trace log and the system's log";
    EXPECT_TRUE(tells_of_a_failed_mapping([] { LiveRegion({}).expect(); }, "cannot map the region " + advice));
    EXPECT_TRUE(tells_of_a_failed_mapping([] { const WritableRegion region; }, "cannot map the region " + writable));
    EXPECT_TRUE(tells_of_a_failed_mapping([] { static_cast<void>(HeldRegion::open()->size()); },
                                          "cannot map the region " + advice));
    EXPECT_TRUE(tells_of_a_failed_mapping([] { holders(Access{}); }, "cannot map the region, or it has just ended"));
    const auto change = [] {
        LiveRegion live({});
        const Change made(live, false);
    };
    EXPECT_TRUE(tells_of_a_failed_mapping(change, "shmnm_attach failed with code 7 (the region could not be mapped)"));
}

TEST_F(LiveRegionTest, IsNotWaitedForToTryItsLock) {
    ASSERT_EQ(shmnm_rwlock(0), SHMNM_OK);
    LiveRegion({}).expect();
    test::Traced other([] { EXPECT_FALSE(LiveRegion({}).try_lock()); });
    EXPECT_THROW(other.run_until_it_enters(SYS_futex), std::runtime_error) << "it waited";
    EXPECT_EQ(other.status(), 0);
    EXPECT_EQ(shmnm_rwunlock(), SHMNM_OK);
}

TEST_F(LiveCopy, HoldsNothingOfTheTriesBeforeItHadTheLock) {
    ASSERT_EQ(shmnm_addnode("beta", 1), SHMNM_OK);
    LiveRegion({}).copy(Bytes::in_use);
    ASSERT_EQ(shmnm_rwlock(0), SHMNM_OK);
    test::Traced copier([] {
        const uint64_t begun_us = platform::steady_clock_us();
        const Snapshot copy = LiveRegion({.lock_timeout_ms = 60'000}).copy(Bytes::in_use);
        const uint64_t took_us = platform::steady_clock_us() - begun_us;
        EXPECT_EQ(copy.way, CopyWay::with_lock);
        EXPECT_EQ(copy.tries, 3u);
        EXPECT_GT(copy.lock_wait_us, 0u);
        EXPECT_LE(copy.lock_wait_us + copy.lock_held_us, took_us);
        EXPECT_EQ(decode(copy).servers.size(), 1u);
        EXPECT_EQ(copy.bytes, LiveRegion({}).copy(Bytes::in_use).bytes);
    });
    copier.run_until_it_enters(SYS_futex);
    // It has tried, and waits for the lock until the clock shows another time.
    const uint64_t now_us = platform::steady_clock_us();
    while (platform::steady_clock_us() == now_us) {
    }
    EXPECT_EQ(shmnm_rmnode("alpha"), SHMNM_OK);
    EXPECT_EQ(shmnm_rwunlock(), SHMNM_OK);
    while (copier.step()) {
    }
    EXPECT_EQ(copier.status(), 0);
}

/// Copies beside an owner of the lock who keeps it, while so much time passes before the lock is asked for.
void copy_beside_an_owner(uint32_t lock_timeout_ms, uint64_t passing_ms) {
    jump_ms = passing_ms;
    try {
        LiveRegion({.lock_timeout_ms = lock_timeout_ms}).copy(Bytes::in_use);
        ADD_FAILURE() << "copied";
    } catch (const Error& error) {
        EXPECT_EQ(error.kind, ErrorKind::lock_timeout);
    }
}

TEST_F(LiveCopy, WaitsForTheLockInWhatIsLeftOfItsTime) {
    // What a process does only the first time is done here, so that its children do not: they are seen to wait.
    LiveRegion({}).copy(Bytes::in_use);
    EXPECT_THROW(expect_ok("the first exception", SHMNM_ERR_PARAM), Error);
    ASSERT_EQ(shmnm_rwlock(0), SHMNM_OK);
    test::Traced has_time_left([] { copy_beside_an_owner(60'000, 1'000); });
    has_time_left.run_until_it_enters(SYS_futex);
    test::Traced has_none_left([] { copy_beside_an_owner(5'000, 5'000); });
    EXPECT_THROW(has_none_left.run_until_it_enters(SYS_futex), std::runtime_error) << "it waited";
    EXPECT_EQ(has_none_left.status(), 0);
    EXPECT_EQ(shmnm_rwunlock(), SHMNM_OK);
}

TEST_F(LiveCopy, LeavesItToTheCountOfTakeOversToTellOfThem) {
    bool told = false;
    LiveRegion live({.may_skip_lock = false, .took_over = [&] { told = true; }});
    // Of an earlier test's owner.
    ASSERT_EQ(shmnm_rwlock(0), SHMNM_OK);
    ASSERT_EQ(shmnm_rwunlock(), SHMNM_OK);
    const uint64_t before = platform::lock_holder(live.mutex())->takeovers;
    Child owner = start(change_and_hang);
    for (int i = 0; i < 3; ++i) owner.reported();
    owner.kill();
    EXPECT_FALSE(live.take_over());
    EXPECT_EQ(live.copy(Bytes::in_use).lock->takeovers, before + 1);
    EXPECT_FALSE(told);
}

/// Owns the lock beside a change that an earlier caller left, and which the owner has superseded.
CHILD(supersede_and_hang) {
    report(shmnm_attach());
    report(shmnm_rwlock(0));
    LiveRegion live({});
    auto& note = *static_cast<shmnm::Note*>(platform::own_note(live.mutex()));
    note = {};
    note.superseded.state = shmnm::Note::open;
    note.superseded.call = shmnm::NotedCall::clear;
    note.superseded.object = live_object();
    note.process = test::process_id();
    note.takes = takes(live);
    report(1);
    test::told();
    note.superseded.state = shmnm::Note::closed;
    report(2);
    test::hang();
}

TEST_F(LiveCopy, ShowsASupersededChangeWhileItsSuccessorIsStillAtWork) {
    LiveRegion live({});
    Child owner = start(supersede_and_hang);
    for (int i = 0; i < 3; ++i) owner.reported();
    const std::vector<Interrupted> left = interrupted_changes_unlocked(live.mutex(), live_object());
    ASSERT_EQ(left.size(), 1u);
    EXPECT_TRUE(left[0].superseded);
    owner.tell(0);
    EXPECT_EQ(owner.reported(), 2u);
    EXPECT_EQ(interrupted_changes_unlocked(live.mutex(), live_object()).size(), 0u);
}

/// Owns the lock beside a change that an earlier caller left, and goes on with a change of its own.
CHILD(supersede_and_go_on) {
    report(shmnm_attach());
    report(shmnm_rwlock(0));
    LiveRegion live({});
    auto& note = *static_cast<shmnm::Note*>(platform::own_note(live.mutex()));
    note = {};
    note.superseded.state = shmnm::Note::open;
    note.superseded.call = shmnm::NotedCall::clear;
    note.superseded.object = live_object();
    report(1);
    std::atomic_ref<uint64_t> progress(note.progress);
    for (;;) progress.fetch_add(1, std::memory_order_relaxed);
}

TEST_F(LiveCopy, ShowsASupersededChangeHoweverFarItsSuccessorIs) {
    LiveRegion live({});
    Child owner = start(supersede_and_go_on);
    for (int i = 0; i < 3; ++i) owner.reported();
    for (int look = 0; look < 1'000; ++look) {
        const std::vector<Interrupted> left = interrupted_changes_unlocked(live.mutex(), live_object());
        ASSERT_EQ(left.size(), 1u) << "look " << look;
        EXPECT_TRUE(left[0].superseded);
    }
    owner.kill();
    EXPECT_EQ(shmnm_rwlock(0), SHMNM_OK);
    *static_cast<shmnm::Note*>(platform::own_note(live.mutex())) = {};
    EXPECT_EQ(shmnm_rwunlock(), SHMNM_OK);
}

/// Owns the lock and writes its note again and again.
CHILD(change_without_end) {
    report(shmnm_attach());
    report(shmnm_rwlock(0));
    LiveRegion live({});
    auto& note = *static_cast<shmnm::Note*>(platform::own_note(live.mutex()));
    note = {};
    note.state = shmnm::Note::open;
    note.object = live_object();
    report(1);
    std::atomic_ref<int32_t> position(note.position);
    for (;;) position.fetch_add(1, std::memory_order_relaxed);
}

TEST_F(LiveCopy, ShowsNoChangeWhoseNoteIsBeingWritten) {
    LiveRegion live({});
    Child owner = start(change_without_end);
    for (int i = 0; i < 3; ++i) owner.reported();
    const uint64_t deadline_us = platform::steady_clock_us() + 60'000'000;
    // One whose position did not move in between looks as if a caller had left it.
    for (;;) {
        const std::vector<Interrupted> shown = interrupted_changes_unlocked(live.mutex(), live_object());
        if (shown.empty()) break;
        ASSERT_LT(platform::steady_clock_us(), deadline_us) << "always shown; at last: " << sentence(shown[0]);
    }
    owner.kill();
    EXPECT_EQ(interrupted_changes_unlocked(live.mutex(), live_object()).size(), 1u);
    EXPECT_EQ(shmnm_rwlock(0), SHMNM_OK);
    *static_cast<shmnm::Note*>(platform::own_note(live.mutex())) = {};
    EXPECT_EQ(shmnm_rwunlock(), SHMNM_OK);
}

CHILD(copy_when_told) {
    LiveRegion live({});
    for (;;) {
        test::told();
        report(live.copy(Bytes::all).tries);
    }
}

TEST_F(LiveCopy, HoldsNobodyUpWhileItIsStopped) {
    test::Random random(test::seed());
    Child copier = start(copy_when_told);
    const auto process = static_cast<pid_t>(copier.process_id());
    const unsigned rounds = test::share_of(100);
    const uint64_t begun_us = platform::steady_clock_us();
    copier.tell(0);
    copier.reported();
    // With sanitizers a copy takes far longer.
    const auto usual_us = static_cast<uint32_t>(platform::steady_clock_us() - begun_us);
    uint64_t disturbed = 0;
    for (unsigned round = 0; round < rounds || disturbed == 0; ++round) {
        copier.tell(0);
        // Somewhere in the copy.
        const uint64_t until_us = platform::steady_clock_us() + test::below(random, usual_us);
        while (platform::steady_clock_us() < until_us) {
        }
        ASSERT_EQ(kill(process, SIGSTOP), 0);
        siginfo_t stopped{};
        ASSERT_EQ(waitid(P_PID, copier.process_id(), &stopped, WSTOPPED), 0);
        ASSERT_EQ(shmnm_rwlock(0), SHMNM_OK) << "round " << round;
        ASSERT_EQ(shmnm_rwunlock(), SHMNM_OK);
        ASSERT_EQ(kill(process, SIGCONT), 0);
        if (copier.reported() > 1) ++disturbed;
    }
}

}  // namespace
}  // namespace picture
