// How long a call waits for the log's lock, and what it does if another process rotates meanwhile. Time is the test's
// own: the functions below stand before the C library's for the whole program. A sleep costs no time but moves the
// clock, and by more than was asked for, as on a busy machine.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstdarg>
#include <ctime>
#include <filesystem>
#include <fstream>
#include <functional>
#include <optional>
#include <utility>

#include "kzmlog.h"
#include "support/child.h"
#include "support/forked_linux.h"
#include "support/temporary_folder.h"

namespace {

constexpr int64_t millisecond = 1'000'000, second = 1000 * millisecond;

std::atomic<bool> is_clock_ours{false};
std::atomic<int64_t> now_ns{3600 * second};
/// What happens just before the lock is tried, a file looked at, or space allocated in it, for the next time.
std::function<void()> before_lock, before_look, before_allocation;
/// The errno with which the next attempt to lock, to open a file, or to look at one fails, if it is not 0.
int lock_error = 0, open_error = 0, look_error = 0;

int open_unless_refused(const char* path, int flags, mode_t mode) {
    if (const int error = std::exchange(open_error, 0)) {
        errno = error;
        return -1;
    }
    return static_cast<int>(syscall(SYS_openat, AT_FDCWD, path, flags, mode));
}

}  // namespace

extern "C" {

int clock_gettime(clockid_t clock, timespec* time) noexcept {
    if (!is_clock_ours) return static_cast<int>(syscall(SYS_clock_gettime, clock, time));
    *time = {now_ns / second, now_ns % second};
    return 0;
}

[[gnu::visibility("default")]] int flock(int descriptor, int operation) noexcept {
    if (const auto act = std::exchange(before_lock, nullptr)) act();
    if (const int error = std::exchange(lock_error, 0)) {
        errno = error;
        return -1;
    }
    return static_cast<int>(syscall(SYS_flock, descriptor, operation));
}

[[gnu::visibility("default")]] int open(const char* path, int flags, ...) {
    std::va_list mode;
    va_start(mode, flags);
    const int descriptor = open_unless_refused(path, flags, va_arg(mode, mode_t));
    va_end(mode);
    return descriptor;
}

// An optimised build calls it for open() without a mode.
// NOLINTNEXTLINE(bugprone-reserved-identifier)
[[gnu::visibility("default")]] int __open_2(const char* path, int flags) {
    return open_unless_refused(path, flags, 0);
}

[[gnu::visibility("default")]] int fstat(int descriptor, struct stat* status) noexcept {
    if (const auto act = std::exchange(before_look, nullptr)) act();
    if (const int error = std::exchange(look_error, 0)) {
        errno = error;
        return -1;
    }
    return static_cast<int>(syscall(SYS_fstat, descriptor, status));
}

[[gnu::visibility("default")]] int fallocate(int descriptor, int mode, off_t from, off_t length) {
    if (const auto act = std::exchange(before_allocation, nullptr)) act();
    return static_cast<int>(syscall(SYS_fallocate, descriptor, mode, from, length));
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
        const std::string text = test::contents_of(file(name));
        return std::count(text.begin(), text.end(), '\n');
    }

    std::filesystem::path file(const char* name) const { return folder_.path() / "log" / name; }

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

// A program may have closed its standard input.
TEST_F(KzmLogWait, IsMadeForALockInDescriptorZero) {
    hold_the_lock();
    test::in_fork([this] {
        close(0);
        EXPECT_GT(time_for(1), 0);
    });
}

TEST_F(KzmLogWait, IsNotMadeForALockThatTheSystemRefuses) {
    lock_error = ENOLCK;
    EXPECT_EQ(time_for(1), 0);
    EXPECT_EQ(lines_in("shmnm.log"), 2);
}

TEST_F(KzmLogWait, IsNotMadeForAFileThatTheSystemCannotOpen) {
    for (const auto& [error, result] : {std::pair{ENOMEM, 8}, {EIO, 29}, {ENFILE, 4}, {EROFS, 5}, {EDQUOT, 112}}) {
        open_error = error;
        const int64_t before = now_ns;
        EXPECT_EQ(write(), result);
        EXPECT_EQ(now_ns, before);
    }
    EXPECT_EQ(lines_in("shmnm.log"), 1);
}

TEST_F(KzmLogWait, IsNotMadeForAFileThatTheSystemTellsNothingOf) {
    look_error = EIO;
    const int64_t before = now_ns;
    EXPECT_EQ(write(), 5);
    EXPECT_EQ(now_ns, before);
    EXPECT_EQ(lines_in("shmnm.log"), 1);
}

TEST_F(KzmLogWait, GoesOnAfterASignal) {
    lock_error = EINTR;
    EXPECT_EQ(write(), 0);
    EXPECT_EQ(lines_in("shmnm.log"), 1);
    EXPECT_EQ(lines_in("shmnm.log.1"), 1);
}

TEST_F(KzmLogWait, IsNotNeededForAFileThatIsRemovedWhileItIsOpened) {
    before_look = [this] { std::filesystem::remove(file("shmnm.log")); };
    EXPECT_EQ(time_for(1), 0);
    EXPECT_EQ(lines_in("shmnm.log"), 1);
    EXPECT_FALSE(std::filesystem::exists(file("shmnm.log.1")));
}

TEST_F(KzmLogWait, IsNotNeededForALockWhoseHolderForked) {
    std::optional<test::Forked> child;
    before_lock = [&child] { before_look = [&child] { child.emplace([] { test::pause_forever(); }); }; };
    EXPECT_EQ(write(), 0);
    ASSERT_TRUE(child.has_value()) << "the log looks at no file while it has the lock";
    hold_the_lock();
}

TEST_F(KzmLogWait, EndsALineThatGrewAndWasLeftUnfinished) {
    hold_the_lock();
    const auto append = [this](char byte) { std::ofstream(file("shmnm.log"), std::ios::app) << byte; };
    append('x');
    before_allocation = [append] { append('y'); };
    EXPECT_EQ(write(), 0);
    EXPECT_EQ(lines_in("shmnm.log"), 3);
    EXPECT_NE(test::contents_of(file("shmnm.log")).find("\nxy\n"), std::string::npos);
}

// So that no program can keep a writer busy.
TEST_F(KzmLogWait, IsNotMadeForAFileThatGrowsWithEachLook) {
    hold_the_lock();
    std::function<void()> grow = [this, &grow] {
        std::ofstream(file("shmnm.log"), std::ios::app) << 'x';
        before_allocation = grow;
    };
    grow();
    EXPECT_EQ(write(), 0);
    before_allocation = nullptr;
    const std::string text = test::contents_of(file("shmnm.log"));
    EXPECT_EQ(lines_in("shmnm.log"), 2);
    EXPECT_NE(text.find("\nxx"), std::string::npos);
    EXPECT_EQ(text.find("x\n"), std::string::npos) << "the line was not written behind what grew";
}

TEST_F(KzmLogWait, EndsAsSoonAsAnotherProcessHasRotated) {
    hold_the_lock();
    before_lock = [this] { std::filesystem::rename(file("shmnm.log"), file("shmnm.log.1")); };
    EXPECT_EQ(time_for(1), millisecond) << "it slept more than once";
    EXPECT_EQ(lines_in("shmnm.log"), 1);
    EXPECT_EQ(lines_in("shmnm.log.1"), 1);
    EXPECT_GT(time_for(1), 0) << "a wait with success counted as one in vain";
}

TEST_F(KzmLogWait, EndsWithoutARotationIfAnotherProcessHasJustRotated) {
    before_lock = [this] { std::filesystem::rename(file("shmnm.log"), file("shmnm.log.1")); };
    EXPECT_EQ(write(), 0);
    EXPECT_EQ(lines_in("shmnm.log"), 1);
    EXPECT_EQ(lines_in("shmnm.log.1"), 1);
    EXPECT_FALSE(std::filesystem::exists(file("shmnm.log.2")));
}

}  // namespace
