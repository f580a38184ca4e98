// How long a call waits for the log's lock. Time is the test's own: the two functions below stand before the C
// library's for the whole program. A sleep costs no time but moves the clock, and by more than was asked for, as on a
// busy machine.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/file.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <ctime>
#include <filesystem>

#include "kzmlog.h"
#include "support/child.h"
#include "support/temporary_folder.h"

namespace {

constexpr int64_t millisecond = 1'000'000, second = 1000 * millisecond;

std::atomic<bool> is_clock_ours{false};
std::atomic<int64_t> now_ns{3600 * second};

}  // namespace

extern "C" {

int clock_gettime(clockid_t clock, timespec* time) noexcept {
    if (!is_clock_ours) return static_cast<int>(syscall(SYS_clock_gettime, clock, time));
    *time = {now_ns / second, now_ns % second};
    return 0;
}

int nanosleep(const timespec* time, timespec* rest) {
    if (!is_clock_ours) return static_cast<int>(syscall(SYS_nanosleep, time, rest));
    now_ns += time->tv_sec * second + time->tv_nsec + 9 * millisecond / 10;
    return 0;
}

}  // extern "C"

namespace {

/// A log that is full with each line.
class KzmLogWait : public testing::Test {
  protected:
    KzmLogWait() {
        EXPECT_EQ(kzmlog_open("shmnm", &log_, 4, 1, 0, "channel"), 0);
        EXPECT_EQ(write(), 0);
        is_clock_ours = true;
    }
    ~KzmLogWait() override {
        is_clock_ours = false;
        if (lock_ >= 0) close(lock_);
        EXPECT_EQ(kzmlog_close(log_), 0);
    }

    void hold_the_lock() {
        lock_ = open((folder_.path() / "log/channel.lock").c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0600);
        ASSERT_GE(lock_, 0);
        hold_the_lock_again();
    }
    void hold_the_lock_again() const { ASSERT_EQ(flock(lock_, LOCK_EX | LOCK_NB), 0); }
    void release_the_lock() const { ASSERT_EQ(flock(lock_, LOCK_UN), 0); }

    int32_t write() const { return kzmlog_write(log_, 4, 0, "src/writer", 7, "_write", "line"); }
    /// What the clock has gone on while some lines were written.
    int64_t time_for(int lines) const {
        const int64_t before = now_ns;
        for (int line = 0; line < lines; ++line) EXPECT_EQ(write(), 0);
        return now_ns - before;
    }
    std::ptrdiff_t lines_in(const char* name) const {
        const std::string text = test::contents_of(folder_.path() / "log" / name);
        return std::count(text.begin(), text.end(), '\n');
    }

  private:
    test::TemporaryFolder folder_;
    test::ScopedEnvironment install_path_{"KZM_INSTALL_PATH", folder_.string().c_str()};
    void* log_ = nullptr;
    int lock_ = -1;
};

TEST_F(KzmLogWait, TakesUnderFiveMillisecondsForAllLinesOfACall) {
    hold_the_lock();
    const int64_t first = time_for(1);
    EXPECT_GT(first, 0) << "the log does not sleep by this clock";
    EXPECT_LT(first, 5 * millisecond);
    EXPECT_EQ(time_for(100), 0) << "a wait in vain was repeated";
    EXPECT_EQ(lines_in("shmnm.log"), 102) << "a line was lost";
}

TEST_F(KzmLogWait, IsMadeAgainForALockThatWasFreeMeanwhile) {
    hold_the_lock();
    time_for(3);
    release_the_lock();
    EXPECT_EQ(time_for(1), 0);
    EXPECT_EQ(lines_in("shmnm.log.1"), 4);
    EXPECT_EQ(lines_in("shmnm.log"), 1);
    hold_the_lock_again();
    const int64_t again = time_for(1);
    EXPECT_GT(again, 0);
    EXPECT_LT(again, 5 * millisecond);
    EXPECT_EQ(time_for(10), 0);
    EXPECT_EQ(lines_in("shmnm.log"), 12);
}

TEST_F(KzmLogWait, IsNotMadeForALockThatIsFree) {
    EXPECT_EQ(time_for(3), 0);
    EXPECT_EQ(lines_in("shmnm.log.3"), 1);
    EXPECT_EQ(lines_in("shmnm.log"), 1);
}

}  // namespace
