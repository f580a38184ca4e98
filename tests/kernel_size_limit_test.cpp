// Objects that are larger than the process's limit of file sizes (ulimit -f): they are not created, and the signal of
// that limit, which would end the process, is not sent to it.
#include <fcntl.h>
#include <gmock/gmock.h>
#include <kzmkernel.h>
#include <sys/resource.h>
#include <unistd.h>

#include <atomic>
#include <csignal>
#include <string>
#include <thread>
#include <vector>

#include "shmnm.h"
#include "support/child.h"
#include "support/forked_linux.h"
#include "support/kernel_linux.h"
#include "support/temporary_folder.h"

namespace {

using namespace kernel_test;

constexpr uint64_t limit = 100 * kib, beyond = 1024 * kib;

void limit_files_to(uint64_t size) {
    const rlimit both{size, size};
    ASSERT_EQ(setrlimit(RLIMIT_FSIZE, &both), 0);
}

void expect_no_room() {
    const Handle mapping(create_mapping(object_name(), beyond));
    EXPECT_EQ(mapping.value, nullptr);
    EXPECT_EQ(mapping.error, uint32_t{KZMKERNEL_ERROR_NOT_ENOUGH_MEMORY});
    EXPECT_STREQ(kzmkernel_explanation(),
                 "cannot allocate 1048576 bytes: File too large: raise the limit of file sizes (ulimit -f)");
    EXPECT_FALSE(fs::exists(file_of_mapping(object_name())));
}

bool is_pending() {
    sigset_t pending;
    sigpending(&pending);
    return sigismember(&pending, SIGXFSZ) == 1;
}
bool is_blocked() {
    sigset_t mask;
    pthread_sigmask(SIG_BLOCK, nullptr, &mask);
    return sigismember(&mask, SIGXFSZ) == 1;
}
void block() {
    sigset_t signals;
    sigemptyset(&signals);
    sigaddset(&signals, SIGXFSZ);
    ASSERT_EQ(pthread_sigmask(SIG_BLOCK, &signals, nullptr), 0);
}

std::atomic<int> signals_taken{0};
void count_signal(int) {
    ++signals_taken;
}

TEST(KernelSizeLimit, FailsTheCreateAndKillsNoProcess) {
    in_fork([] {
        limit_files_to(limit);
        expect_no_room();
        EXPECT_FALSE(is_pending());
        EXPECT_FALSE(is_blocked());
        expect_new(create_page, object_name());
        limit_files_to(0);
        EXPECT_EQ(Handle(create_mutex(object_name())).error, uint32_t{KZMKERNEL_ERROR_NOT_ENOUGH_MEMORY});
    });
}

TEST(KernelSizeLimit, CallsNoHandlerOfTheProgram) {
    in_fork([] {
        limit_files_to(limit);
        signal(SIGXFSZ, count_signal);
        expect_no_room();
        EXPECT_EQ(signals_taken, 0);
        // The handler is called for the program's own files.
        const test::TemporaryFolder folder;
        const int file = open((folder.path() / "file").c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0600);
        EXPECT_EQ(pwrite(file, "x", 1, limit), -1);
        EXPECT_EQ(signals_taken, 1);
    });
}

TEST(KernelSizeLimit, LeavesAPendingSignalToTheProgram) {
    for (const bool of_process : {false, true}) {
        in_fork([of_process] {
            limit_files_to(limit);
            signal(SIGXFSZ, count_signal);
            block();
            expect_no_room();
            EXPECT_FALSE(is_pending());
            of_process ? kill(getpid(), SIGXFSZ) : raise(SIGXFSZ);
            expect_no_room();
            EXPECT_TRUE(is_pending());
            EXPECT_TRUE(is_blocked());
        });
    }
}

TEST(KernelSizeLimit, TakesNoOtherPendingSignal) {
    in_fork([] {
        limit_files_to(limit);
        sigset_t others, pending;
        sigfillset(&others);
        sigdelset(&others, SIGXFSZ);
        ASSERT_EQ(pthread_sigmask(SIG_BLOCK, &others, nullptr), 0);
        for (int number = 1; number <= SIGRTMAX; ++number) {
            if (number != SIGXFSZ && number != SIGKILL && number != SIGSTOP) raise(number);
        }
        std::vector<int> raised;
        sigpending(&pending);
        for (int number = 1; number <= SIGRTMAX; ++number) {
            if (sigismember(&pending, number) == 1) raised.push_back(number);
        }
        EXPECT_GT(raised.size(), 40u);
        const std::string name = object_name();
        fill_stack();
        void* const mapping = kzmkernel_create_mapping(4, beyond, name.c_str());
        sigpending(&pending);
        EXPECT_EQ(mapping, nullptr);
        for (const int number : raised) EXPECT_EQ(sigismember(&pending, number), 1) << number;
    });
}

TEST(KernelSizeLimit, TakesNoSignalOfAnotherThread) {
    in_fork([] {
        limit_files_to(limit);
        signal(SIGXFSZ, count_signal);
        const test::TemporaryFolder folder;
        const int file = open((folder.path() / "file").c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0600);
        std::atomic<bool> over{false};
        int writes = 0;
        std::thread writer([&] {
            for (; !over || writes == 0; ++writes) EXPECT_EQ(pwrite(file, "x", 1, limit), -1);
        });
        for (int i = 0; i < 200; ++i) expect_no_room();
        over = true;
        writer.join();
        EXPECT_EQ(signals_taken, writes);
    });
}

CHILD(create_a_region_beyond_the_limit) {
    limit_files_to(limit);
    test::report(shmnm_create());
}

TEST(KernelSizeLimit, FailsTheCreateOfARegionAndLogsIt) {
    const test::TemporaryFolder folder;
    const test::ScopedEnvironment path("KZM_INSTALL_PATH", folder.string().c_str());
    folder.write("etc/cluster.xml", "<root><all><num><server>1000</server></num></all></root>");
    test::Child creator = start(create_a_region_beyond_the_limit);
    EXPECT_EQ(creator.reported(), uint64_t{SHMNM_ERR_CREATEMAP});
    EXPECT_EQ(creator.wait(), 0);
    EXPECT_THAT(test::contents_of(folder.path() / "log" / "shmnm.log"),
                testing::HasSubstr("KzmutilCreateNamedFileMapping failed(errno:8)"));
}

}  // namespace
