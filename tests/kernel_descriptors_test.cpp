// The descriptors that kzmkernel uses, and what happens when a process has none left.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <kzmkernel.h>
#include <sys/resource.h>
#include <unistd.h>

#include <filesystem>
#include <string>

#include "support/forked_linux.h"
#include "support/kernel_linux.h"
#include "support/memory_disk_linux.h"

namespace {

using namespace kernel_test;

TEST(KernelDescriptors, NeverGetTheNumberOfAClosedStandardStream) {
    in_fork([] {
        const std::string name = object_name();
        for (const int stream : {STDIN_FILENO, STDOUT_FILENO, STDERR_FILENO}) close(stream);
        void* const mutex = create_mutex(name);
        void* const mapping = create_mapping(name + "m");
        bool none = true;
        for (const int stream : {STDIN_FILENO, STDOUT_FILENO, STDERR_FILENO}) none &= fcntl(stream, F_GETFD) == -1;
        _exit(mutex && mapping && none ? 0 : 1);
    });
}

TEST(KernelDescriptors, FailCallsWith4WhenNoneIsLeftAndBlockNobody) {
    const std::string name = object_name();
    in_fork([&] {
        const Handle mapping(create_mapping(name));
        ASSERT_EQ(mapping.error, 0u);
        rlimit limit{};
        getrlimit(RLIMIT_NOFILE, &limit);
        limit.rlim_cur = 0;
        ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &limit), 0);
        EXPECT_EQ(Handle(create_mutex(name + "m")).error, uint32_t{KZMKERNEL_ERROR_TOO_MANY_OPEN_FILES});
        EXPECT_EQ(Handle(create_mapping(name)).error, uint32_t{KZMKERNEL_ERROR_TOO_MANY_OPEN_FILES});
        EXPECT_EQ(Handle(open_mapping(name)).error, uint32_t{KZMKERNEL_ERROR_TOO_MANY_OPEN_FILES});
        char* const view = map(mapping.value);
        EXPECT_NE(view, nullptr);
        EXPECT_TRUE(kzmkernel_close(mapping.value));
        limit.rlim_cur = limit.rlim_max;
        ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &limit), 0);
        expect_new(create_page, name);
    });
    expect_new(create_page, name);
}

// Each count of free descriptors fails another step.
TEST(KernelDescriptors, LeaveNothingBehindWhenTheyRunOutHalfWay) {
    in_fork([] {
        use_private_memory_disk();
        const std::string name = object_name();
        rlimit all{};
        getrlimit(RLIMIT_NOFILE, &all);
        const int next = open("/", O_RDONLY | O_CLOEXEC);
        close(next);
        for (const Kind& kind : kinds) {
            bool created = false;
            for (int allowed = next; !created && allowed < next + 10; ++allowed) {
                rlimit limit = all;
                limit.rlim_cur = static_cast<rlim_t>(allowed);
                ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &limit), 0);
                {
                    const Handle handle(kind.create(name));
                    created = handle.value != nullptr;
                    EXPECT_EQ(handle.error, created ? 0u : uint32_t{KZMKERNEL_ERROR_TOO_MANY_OPEN_FILES}) << allowed;
                }
                ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &all), 0);
                EXPECT_TRUE(!fs::exists(folder()) || created || fs::is_empty(folder())) << allowed;
            }
            EXPECT_TRUE(created);
            expect_new(kind.create, name);
        }
    });
}

}  // namespace
