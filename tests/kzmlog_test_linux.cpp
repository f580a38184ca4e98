// What only Linux has of the log: descriptors, forks, signals, kinds of files.
#include <dirent.h>
#include <fcntl.h>
#include <pthread.h>
#include <sys/file.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <ctime>
#include <fstream>
#include <iterator>
#include <thread>

#include "kzmlog.h"
#include "kzmlog_test_platform.h"
#include "support/forked_linux.h"

namespace test {

void hold_rotation_lock() {
    const std::string path = std::string(std::getenv("KZM_INSTALL_PATH")) + "/log/oru_kzmshmnm_log.lock";
    const int lock = open(path.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0644);
    if (lock < 0 || flock(lock, LOCK_EX) != 0) std::abort();
}

int local_offset_minutes() {
    const std::time_t now = std::time(nullptr);
    return static_cast<int>(std::localtime(&now)->tm_gmtoff / 60);
}

namespace {

using testing::ElementsAre;

/// The flags of a descriptor of this process that is open for the file; empty when there is none.
std::string flags_of_descriptor_for(const std::filesystem::path& file) {
    std::error_code gone;
    for (const auto& entry : std::filesystem::directory_iterator("/proc/self/fd")) {
        if (std::filesystem::read_symlink(entry.path(), gone) != file || gone) continue;
        std::ifstream info("/proc/self/fdinfo/" + entry.path().filename().string());
        std::string word;
        while (info >> word) {
            if (word == "flags:" && info >> word) return word;
        }
    }
    return {};
}

TEST_F(KzmLog, LeavesNoDescriptorOpenBetweenTwoLines) {
    void* const log = open_log();
    EXPECT_EQ(write(log, "x"), 0);
    EXPECT_EQ(flags_of_descriptor_for(file()), "");
    kzmlog_close(log);
}

std::ptrdiff_t open_descriptors() {
    using std::filesystem::directory_iterator;
    return std::distance(directory_iterator("/proc/self/fd"), directory_iterator());
}

TEST_F(KzmLog, LeavesNoDescriptorOpenAfterARotation) {
    void* const log = open_log(1);
    const std::ptrdiff_t before = open_descriptors();
    for (int line = 0; line < 6; ++line) EXPECT_EQ(write(log, "x"), 0);
    EXPECT_TRUE(std::filesystem::exists(file("shmnm.log.3")));
    EXPECT_EQ(open_descriptors(), before);
    kzmlog_close(log);
}

TEST_F(KzmLog, LeavesNoDescriptorOpenAfterARefusal) {
    std::filesystem::create_directories(folder());
    ASSERT_EQ(mkfifo(file().c_str(), 0600), 0);
    const std::ptrdiff_t before = open_descriptors();
    void* log = this;
    for (int attempt = 0; attempt < 3; ++attempt) EXPECT_EQ(kzmlog_open("shmnm", &log, 4, 0, 0, "channel"), 5);
    EXPECT_EQ(open_descriptors(), before);
}

// A program may have closed its standard input.
TEST_F(KzmLog, UsesDescriptorZeroAsAnyOther) {
    in_fork([this] {
        close(0);
        void* const log = open_log(1);
        EXPECT_EQ(fcntl(0, F_GETFD), -1);
        for (const char* const line : {"1", "2", "3", "4", "5", "6"}) {
            errno = ENOENT;  // of a call before
            EXPECT_EQ(write(log, line), 0);
            EXPECT_EQ(fcntl(0, F_GETFD), -1) << line;
        }
        EXPECT_THAT(kept_messages(), ElementsAre("3", "4", "5", "6"));
        EXPECT_EQ(kzmlog_close(log), 0);
    });
}

TEST_F(KzmLog, PassesItsDescriptorToNoOtherProgram) {
    void* const log = open_log(1);
    std::atomic<bool> stop{false};
    std::thread writer([log, &stop] {
        // Long enough for the descriptor to be seen.
        const std::string message(2'000'000, 'x');
        while (!stop) EXPECT_EQ(write(log, message), 0);
    });
    std::string flags;
    while (flags.empty()) flags = flags_of_descriptor_for(file());
    stop = true;
    writer.join();
    EXPECT_NE(std::stoul(flags, nullptr, 8) & O_CLOEXEC, 0u) << flags;
    EXPECT_NE(std::stoul(flags, nullptr, 8) & O_APPEND, 0u) << flags;
    kzmlog_close(log);
}

TEST_F(KzmLog, WritesALineOnceAfterACallThatASignalInterrupted) {
    void* const log = open_log(0);
    errno = EINTR;
    EXPECT_EQ(write(log, "once"), 0);
    EXPECT_THAT(messages(text()), ElementsAre("once"));
    EXPECT_EQ(errno, EINTR);
    kzmlog_close(log);
}

TEST_F(KzmLog, KeepsTheErrnoOfItsCaller) {
    errno = 77;
    void* log = nullptr;
    EXPECT_EQ(kzmlog_open("shmnm", &log, 4, 1, 0, "channel"), 0);
    EXPECT_EQ(errno, 77);
    EXPECT_EQ(kzmlog_write(log, 16, 0, "f", 1, "g", "dropped"), 0);
    EXPECT_EQ(errno, 77);
    for (int i = 0; i < 3; ++i) EXPECT_EQ(write(log, "rotates"), 0);
    EXPECT_EQ(errno, 77);
    std::filesystem::remove_all(folder());
    install().write("log", "in the way");
    errno = 77;
    EXPECT_EQ(write(log, "lost"), 3);
    EXPECT_EQ(errno, 77);
    EXPECT_EQ(kzmlog_close(log), 0);
    EXPECT_EQ(kzmlog_write(log, 4, 0, "f", 1, "g", "closed"), invalid_handle);
    EXPECT_EQ(errno, 77);
}

TEST_F(KzmLog, CanBeWrittenByAForkedChild) {
    void* const log = open_log();
    EXPECT_EQ(write(log, "parent"), 0);
    Forked child([log] {
        EXPECT_EQ(write(log, "child"), 0);
        EXPECT_EQ(kzmlog_close(log), 0);
    });
    EXPECT_EQ(child.wait(), 0);
    EXPECT_EQ(write(log, "parent again"), 0);
    const std::vector<LogLine> lines = parsed(text());
    ASSERT_EQ(lines.size(), 3u);
    EXPECT_EQ(lines[0].process, process_id());
    EXPECT_EQ(lines[1].process, static_cast<uint32_t>(child.id()));
    EXPECT_EQ(lines[1].message, "child");
    EXPECT_EQ(lines[2].process, process_id());
    kzmlog_close(log);
}

CHILD(fork_while_others_write) {
    void* const log = open_log(20'000);
    std::atomic<bool> stop{false};
    std::vector<std::thread> writers;
    writers.reserve(2);
    for (int i = 0; i < 2; ++i) {
        writers.emplace_back([log, &stop] {
            while (!stop) write(log, "thread");
        });
    }
    uint64_t failed = 0;
    for (int i = 0; i < 30; ++i) {
        // Writes, and closes a log that a thread of the parent may have been writing just now.
        Forked child(
            [log] { _exit(write(log, "forked") == 0 && kzmlog_close(log) == 0 && write(log, "") == 6 ? 0 : 1); });
        failed += child.wait() != 0;
    }
    stop = true;
    for (std::thread& writer : writers) writer.join();
    failed += kzmlog_close(log) != 0;
    report(failed);
}

TEST_F(KzmLog, CanBeWrittenAndClosedByAChildForkedDuringAWrite) {
    EXPECT_EQ(start(fork_while_others_write).reported(), 0u);
    for (const std::string& message : kept_messages()) EXPECT_TRUE(message == "thread" || message == "forked");
}

CHILD(fill_the_disk) {
    void* const log = open_log();
    struct rlimit limit {};
    getrlimit(RLIMIT_FSIZE, &limit);
    limit.rlim_cur = 1000;
    setrlimit(RLIMIT_FSIZE, &limit);
    uint64_t written = 0;
    int32_t result = 0;
    while ((result = write(log, std::to_string(written))) == 0) ++written;
    report(written);
    report(static_cast<uint64_t>(result));                              // cut by the limit
    report(static_cast<uint64_t>(write(log, "refused by the limit")));  // raises the signal
    sigset_t pending;
    sigpending(&pending);
    report(static_cast<uint64_t>(sigismember(&pending, SIGXFSZ)));
    sigset_t mask;
    pthread_sigmask(SIG_BLOCK, nullptr, &mask);
    report(static_cast<uint64_t>(sigismember(&mask, SIGXFSZ)));
    limit.rlim_cur = limit.rlim_max;
    setrlimit(RLIMIT_FSIZE, &limit);
    report(static_cast<uint64_t>(write(log, "room again")));
}

TEST_F(KzmLog, LosesOnlyTheLinesThatDoNotFitOnAFullDisk) {
    Child child = start(fill_the_disk);
    const uint64_t written = child.reported();
    EXPECT_EQ(child.reported(), 112u);
    EXPECT_EQ(child.reported(), 112u);
    EXPECT_EQ(child.reported(), 0u) << "the signal is left pending";
    EXPECT_EQ(child.reported(), 0u) << "the signal is left blocked";
    EXPECT_EQ(child.reported(), 0u);
    EXPECT_EQ(child.wait(), 0);
    ASSERT_GT(written, 5u);
    std::string whole = text();
    const size_t cut_at = whole.rfind('\n', 1000 - 1) + 1;
    EXPECT_LT(cut_at, 1000u);
    EXPECT_EQ(whole.at(1000), '\n') << "the cut line is not closed";
    whole.erase(cut_at, 1000 + 1 - cut_at);
    const std::vector<std::string> lines = messages(whole);
    ASSERT_EQ(lines.size(), written + 1);
    EXPECT_EQ(lines[written - 1], std::to_string(written - 1));
    EXPECT_EQ(lines[written], "room again");
}

CHILD(write_while_the_signal_is_pending) {
    void* const log = open_log();
    sigset_t signals;
    sigemptyset(&signals);
    sigaddset(&signals, SIGXFSZ);
    pthread_sigmask(SIG_BLOCK, &signals, nullptr);
    raise(SIGXFSZ);
    struct rlimit limit {};
    getrlimit(RLIMIT_FSIZE, &limit);
    limit.rlim_cur = 1'000'000;
    setrlimit(RLIMIT_FSIZE, &limit);
    report(static_cast<uint64_t>(write(log, "line")));
    sigset_t pending;
    sigpending(&pending);
    report(static_cast<uint64_t>(sigismember(&pending, SIGXFSZ)));
}

TEST_F(KzmLog, KeepsASignalThatWasPendingBeforeTheCall) {
    Child child = start(write_while_the_signal_is_pending);
    EXPECT_EQ(child.reported(), 0u);
    EXPECT_EQ(child.reported(), 1u);
    EXPECT_THAT(messages(text()), ElementsAre("line"));
}

CHILD(run_out_of_descriptors) {
    void* const log = open_log();
    write(log, "before");
    struct rlimit limit {};
    getrlimit(RLIMIT_NOFILE, &limit);
    const rlim_t usual = limit.rlim_cur;
    limit.rlim_cur = 0;
    setrlimit(RLIMIT_NOFILE, &limit);
    const int32_t lost = write(log, "lost");
    limit.rlim_cur = usual;
    setrlimit(RLIMIT_NOFILE, &limit);
    report(static_cast<uint64_t>(lost));
    report(static_cast<uint64_t>(write(log, "kept")));
}

TEST_F(KzmLog, LosesLinesOnlyWhileTheProcessHasNoDescriptorLeft) {
    Child child = start(run_out_of_descriptors);
    EXPECT_EQ(child.reported(), 4u);
    EXPECT_EQ(child.reported(), 0u);
    EXPECT_THAT(messages(text()), ElementsAre("before", "kept"));
}

TEST_F(KzmLog, NeitherBlocksOnAPipeNorFollowsALink) {
    std::filesystem::create_directories(folder());
    ASSERT_EQ(mkfifo(file().c_str(), 0600), 0);
    void* log = this;
    EXPECT_EQ(kzmlog_open("shmnm", &log, 4, 0, 0, "channel"), 5);
    EXPECT_EQ(log, nullptr);
    std::filesystem::remove(file());
    install().write("elsewhere", "untouched");
    std::filesystem::create_symlink(install().path() / "elsewhere", file());
    EXPECT_EQ(kzmlog_open("shmnm", &log, 4, 0, 0, "channel"), 5);
    EXPECT_EQ(contents_of(install().path() / "elsewhere"), "untouched");
}

TEST_F(KzmLog, RotatesAwayAPipeUnderItsOldestName) {
    install().write("log/shmnm.log", "current\n");
    install().write("log/shmnm.log.1", "younger\n");
    install().write("log/shmnm.log.2", "older\n");
    ASSERT_EQ(mkfifo(file("shmnm.log.3").c_str(), 0600), 0);
    void* const log = open_log(1);
    EXPECT_EQ(write(log, "new"), 0);
    EXPECT_EQ(text("shmnm.log.3"), "older\n");
    EXPECT_THAT(messages(text()), ElementsAre("new"));
    kzmlog_close(log);
}

TEST_F(KzmLog, StaysWhereItWasOpenedWhenTheCurrentFolderChanges) {
    const std::filesystem::path before = std::filesystem::current_path();
    std::filesystem::current_path(install().path());
    void* log = nullptr;
    {
        const ScopedEnvironment relative("KZM_INSTALL_PATH", ".");
        EXPECT_EQ(kzmlog_open("shmnm", &log, 4, 0, 0, "channel"), 0);
    }
    std::filesystem::current_path(before);
    EXPECT_EQ(write(log, "in its place"), 0);
    EXPECT_THAT(messages(text()), ElementsAre("in its place"));
    kzmlog_close(log);
}

TEST_F(KzmLog, DefersTheCancellationOfTheWritingThread) {
    void* const log = open_log();
    std::atomic<int> result{-1};
    std::thread thread([log, &result] {
        pthread_cancel(pthread_self());
        result = write(log, "whole");
        for (;;) pthread_testcancel();
    });
    thread.join();
    EXPECT_EQ(result, 0);
    EXPECT_THAT(messages(text()), ElementsAre("whole"));
    EXPECT_EQ(kzmlog_close(log), 0);
}

CHILD(write_in_another_zone) {
    write(open_log(), "x");
}

TEST_F(KzmLog, WritesLocalTimeWithItsOffsetFromUtc) {
    for (const auto& [zone, offset] :
         {std::pair{"EAST-05:30", 330}, std::pair{"WEST+09:15", -555}, std::pair{"UTC0", 0}}) {
        const ScopedEnvironment variable("TZ", zone);
        const auto now = [] { return static_cast<int64_t>(std::time(nullptr)); };
        const int64_t before = now();
        start(write_in_another_zone).wait();
        const std::vector<LogLine> lines = parsed(text());
        ASSERT_EQ(lines.size(), 1u);
        EXPECT_EQ(lines[0].offset_minutes, offset);
        EXPECT_GE(lines[0].utc_ms / 1000, before);
        EXPECT_LE(lines[0].utc_ms / 1000, now());
        std::filesystem::remove(file());
    }
}

}  // namespace
}  // namespace test
