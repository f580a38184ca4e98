// What Linux tells of locks, processes, users and times, and of files that cannot be read.
#include "picture/platform.h"

#include <fmt/format.h>
#include <gmock/gmock.h>

#include <sys/prctl.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/sysinfo.h>
#include <sys/wait.h>
#include <unistd.h>

#include <ctime>
#include <filesystem>
#include <fstream>
#include <functional>
#include <stdexcept>
#include <string>

#include "kzmutil.h"
#include "picture/error.h"
#include "picture/held_region.h"
#include "picture/live.h"
#include "support/child.h"
#include "support/forked_linux.h"
#include "support/memory_disk_linux.h"
#include "support/other_user_linux.h"
#include "support/temporary_folder.h"
#include "support/traced_linux.h"

namespace {

/// Bytes that this machine seems to have room for on disks, instead of what it has.
constexpr uint64_t put_aside = 3 << 20;
/// Bytes in which it counts its memory.
uint32_t unit = 1;

}  // namespace

// Takes the place of the system's function in this program: few machines of tests put memory aside.
int sysinfo(struct sysinfo* now) noexcept {
    const auto result = static_cast<int>(syscall(SYS_sysinfo, now));
    now->totalram = now->totalram * now->mem_unit / unit;
    now->totalswap = put_aside / unit;
    now->mem_unit = unit;
    return result;
}

namespace picture {
namespace {

using test::Child;
using testing::ElementsAre;

TEST(NoMutex, TellsNothing) {
    EXPECT_FALSE(platform::lock_holder(nullptr));
    EXPECT_FALSE(platform::note(nullptr));
    EXPECT_FALSE(platform::begin_lockless_copy(nullptr));
    EXPECT_FALSE(platform::try_own(nullptr));
}

CHILD(own_the_lock) {
    LiveRegion live({});
    test::report(platform::try_own(live.mutex()));
    test::told();
}

TEST(Mutex, IsOwnedAtOnceOrNotAtAll) {
    LiveRegion live({});
    Child owner = test::start(own_the_lock);
    EXPECT_EQ(owner.reported(), 1u);
    EXPECT_FALSE(platform::try_own(live.mutex())) << "a living process has it";
    owner.kill();
    EXPECT_TRUE(platform::try_own(live.mutex())) << "its owner was killed";
    EXPECT_TRUE(platform::try_own(live.mutex())) << "this thread has it";
}

TEST(Mutex, IsNotWaitedForToOwnItAtOnce) {
    const test::ScopedEnvironment own("KZMUTIL_NAMESPACE", (platform::object_prefix() + "at-once-").c_str());
    LiveRegion live({});
    void* const mutex = live.mutex();
    Child owner = test::start(own_the_lock);
    ASSERT_EQ(owner.reported(), 1u);
    test::Traced other([&] { EXPECT_FALSE(platform::try_own(mutex)); });
    EXPECT_THROW(other.run_until_it_enters(SYS_futex), std::runtime_error) << "it waited";
    EXPECT_EQ(other.status(), 0);
}

TEST(LockHolder, IsDescribedInOneLine) {
    const test::ScopedEnvironment own("KZMUTIL_NAMESPACE", (platform::object_prefix() + "described-").c_str());
    LiveRegion live({});
    void* const mutex = live.mutex();
    EXPECT_EQ(describe_holder(mutex), "nobody holds it now; taken over 0 times from an owner that ended");
    for (const char* const times : {"0 times", "1 time", "2 times"}) {
        Child owner = test::start(own_the_lock);
        ASSERT_EQ(owner.reported(), 1u);
        const auto told = platform::lock_holder(mutex);
        std::string takeovers = fmt::format("; taken over {} from an owner that ended", times);
        if (told->takeovers > 0) takeovers += ", last at " + platform::to_text(told->last_takeover_ns / 1'000);
        const std::string thread = fmt::format("process {0} thread {0}", owner.process_id());
        EXPECT_EQ(describe_holder(mutex),
                  fmt::format("held by {} (\"test-child --child own_the_lock\", running) since {}{}", thread,
                              platform::to_text(told->since_ns / 1'000), takeovers));
        owner.kill();
        EXPECT_EQ(
            describe_holder(mutex),
            fmt::format("nobody holds it now: {} ended with it, and the next one takes it over{}", thread, takeovers));
    }
}

CHILD(time_out_beside_an_owner) {
    Child owner = test::start(own_the_lock);
    owner.reported();
    try {
        LiveRegion({.lock_timeout_ms = 1}).lock();
        test::report_text("locked");
    } catch (const Error& error) {
        test::report_text(error.what());
    }
}

// The library opens its lock as it is loaded, so a process of the namespace does this.
TEST(LockHolder, IsNamedIfWaitingForTheLockTimesOut) {
    const test::ScopedEnvironment own("KZMUTIL_NAMESPACE", (platform::object_prefix() + "named-").c_str());
    Child owner = test::start(time_out_beside_an_owner);
    EXPECT_THAT(owner.reported_text(), testing::MatchesRegex("timed out after 1 ms waiting for the lock; held by "
                                                             "process [0-9]+ thread [0-9]+ .*"));
}

TEST(Process, ThatHasEndedIsShownByItsName) {
    const test::Forked ended([] { prctl(PR_SET_NAME, "a) (b"); });
    const auto id = static_cast<uint32_t>(ended.id());
    siginfo_t end{};
    ASSERT_EQ(waitid(P_PID, id, &end, WEXITED | WNOWAIT), 0);
    const auto shown = platform::process(id);
    EXPECT_EQ(shown->command, "a) (b");
    EXPECT_EQ(shown->state, "ended but not waited for");
    EXPECT_TRUE(platform::has_ended({.process = id, .thread = id}));
    EXPECT_FALSE(platform::has_ended({.process = test::process_id(), .thread = test::process_id()}));
}

TEST(Process, IsShownWithItsWholeCommand) {
    Child child = test::start(own_the_lock, "an argument");
    // A program that has only just been started has no command line yet.
    child.reported();
    EXPECT_EQ(platform::process(child.process_id())->command, "test-child --child own_the_lock an argument");
    EXPECT_EQ(platform::process(child.process_id())->state, "running");
}

TEST(Process, IsStoppedWhileADebuggerHoldsIt) {
    test::Traced traced([] { test::pause_forever(); });
    ASSERT_TRUE(traced.step());
    EXPECT_EQ(platform::process(static_cast<uint32_t>(traced.id()))->state, "stopped");
    EXPECT_FALSE(platform::process(UINT32_MAX));
}

TEST(Dump, IsRefusedIfReadingItFailsHalfWay) {
    try {
        // No memory is mapped at address 0.
        read_dump("/proc/self/mem");
        FAIL() << "not refused";
    } catch (const Error& error) {
        EXPECT_EQ(error.kind, ErrorKind::not_a_dump);
        EXPECT_STREQ(error.what(), "cannot read /proc/self/mem: reading it failed half-way");
    }
}

TEST(Dump, OfTheGreatestSizeIsRefusedOnlyIfItCannotBeRead) {
    const test::TemporaryFolder folder;
    const std::string file = folder.string() + "/x.dump";
    std::ofstream(file).close();
    std::filesystem::resize_file(file, uint64_t{1} << 32);
    ASSERT_EQ(chmod(folder.string().c_str(), 0755), 0);
    ASSERT_EQ(chmod(file.c_str(), 0), 0);
    test::in_fork_as(test::spare_user(), [&] {
        const auto refusal = [&] {
            try {
                read_dump(file);
                return std::string("not refused");
            } catch (const Error& error) {
                return std::string(error.what());
            }
        };
        EXPECT_EQ(refusal(), "cannot read " + file + ": Permission denied");
    });
}

TEST(Region, OfAnotherUserIsRefusedWithThatUser) {
    const uid_t user = test::spare_user();
    test::in_fork([&] {
        test::use_private_memory_disk();
        test::Sign is_made;
        const test::Forked other([&] {
            test::become(user);
            const HeldRegion region = HeldRegion::make_or_open({2, 1, 1, 1});
            is_made.give();
            test::pause_forever();
        });
        is_made.await();
        const std::function<void()> uses[] = {[] { LiveRegion({}).copy(Bytes::in_use); },
                                              [] { LiveRegion({}).expect(); }, [] { LiveRegion({}).expect_own(); },
                                              [] { const WritableRegion region; }};
        for (const auto& use : uses) {
            try {
                use();
                ADD_FAILURE() << "not refused";
            } catch (const Error& error) {
                EXPECT_EQ(error.kind, ErrorKind::failed);
                EXPECT_EQ(error.what(), "the region " + full_name(mapping_name) + " belongs to user " +
                                            std::to_string(user) + "; run this as that user");
            }
        }
    });
}

TEST(FullName, BeginsWithTheInstallationsNamespace) {
    const test::ScopedEnvironment north("KZMUTIL_NAMESPACE", "north-");
    EXPECT_EQ(full_name("lock"), "north-lock");
    const test::ScopedEnvironment none("KZMUTIL_NAMESPACE", nullptr);
    EXPECT_EQ(full_name("lock"), "lock");
}

TEST(Time, IsShownInLocalTimeWithItsDistanceFromUtc) {
    test::in_fork([] {
        test::set_environment("TZ", "EAST-05:45");
        tzset();
        EXPECT_EQ(platform::to_text(1'772'361'296'789'012), "2026-03-01T16:19:56.789+05:45");
        test::set_environment("TZ", "WEST03:30");
        tzset();
        EXPECT_EQ(platform::to_text(1'772'361'296'009'012), "2026-03-01T07:04:56.009-03:30");
    });
}

TEST(Memory, IsThatOfTheMachineAndWhatItCanPutAside) {
    const uint64_t memory =
        static_cast<uint64_t>(sysconf(_SC_PHYS_PAGES)) * static_cast<uint64_t>(sysconf(_SC_PAGE_SIZE));
    EXPECT_EQ(platform::memory_size(), memory + put_aside);
}

TEST(Memory, MayBeToldInLargerUnits) {
    const uint64_t size = platform::memory_size();
    unit = 4'096;
    EXPECT_EQ(platform::memory_size(), size);
    unit = 1;
}

uint64_t now_us(clockid_t clock) {
    timespec now{};
    clock_gettime(clock, &now);
    return static_cast<uint64_t>(now.tv_sec) * 1'000'000 + static_cast<uint64_t>(now.tv_nsec) / 1'000;
}

TEST(Time, IsReadInMicroseconds) {
    const struct {
        clockid_t clock;
        uint64_t (*read)();
    } clocks[] = {{CLOCK_REALTIME, platform::wall_clock_us}, {CLOCK_BOOTTIME, platform::steady_clock_us}};
    for (const auto& [clock, read] : clocks) {
        // Microseconds that were counted wrongly would show in the second half of a second.
        uint64_t before_us = 0, read_us = 0;
        do {
            before_us = now_us(clock);
            read_us = read();
        } while (before_us % 1'000'000 < 500'000);
        EXPECT_LE(before_us, read_us);
        EXPECT_LE(read_us, now_us(clock));
    }
}

TEST(Arguments, AreThoseAfterTheProgramsName) {
    std::string program = "program", first = "first", second = "second";
    char* given[] = {program.data(), first.data(), second.data(), nullptr};
    EXPECT_THAT(platform::arguments(3, given), ElementsAre("first", "second"));
    EXPECT_THAT(platform::arguments(1, given), testing::IsEmpty());
    EXPECT_THAT(platform::arguments(0, given + 3), testing::IsEmpty());
}

}  // namespace
}  // namespace picture
