// The descriptors that kzmkernel uses, and what happens when a process has none left.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <kzmkernel.h>
#include <sys/resource.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <filesystem>
#include <string>
#include <vector>

#include "support/forked_linux.h"
#include "support/kernel_linux.h"
#include "support/memory_disk_linux.h"
#include "support/traced_linux.h"

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

std::ptrdiff_t open_descriptors() {
    return std::distance(fs::directory_iterator("/proc/self/fd"), fs::directory_iterator());
}

TEST(KernelDescriptors, AreAllGivenBack) {
    in_fork([] {
        use_private_memory_disk();
        const std::string name = object_name();
        const std::ptrdiff_t before = open_descriptors();
        for (const Kind& kind : kinds) {
            expect_new(kind.create, name);
            EXPECT_EQ(Handle(kind.open(name)).error, uint32_t{KZMKERNEL_ERROR_FILE_NOT_FOUND});
        }
        uint32_t user = 0;
        EXPECT_FALSE(kzmkernel_find_other_user(name.c_str(), &user));
        EXPECT_EQ(open_descriptors(), before);
    });
}

// Two carry the guards of an object. A mapping's views need its file too.
TEST(KernelDescriptors, AreNoMoreForFurtherHandles) {
    in_fork([] {
        use_private_memory_disk();
        for (const Kind& kind : kinds) {
            const std::ptrdiff_t before = open_descriptors();
            const Handle first(kind.create(object_name()));
            const std::ptrdiff_t needed = kind.create == create_mutex ? 2 : 3;
            EXPECT_EQ(open_descriptors(), before + needed);
            const Handle second(kind.create(object_name())), third(kind.open(object_name()));
            EXPECT_EQ(open_descriptors(), before + needed);
        }
    });
}

TEST(KernelDescriptors, AreGivenBackWithAMutexThatItsThreadStillOwns) {
    in_fork([] {
        use_private_memory_disk();
        const std::ptrdiff_t before = open_descriptors();
        void* const mutex = create_mutex(object_name());
        EXPECT_EQ(kzmkernel_wait(mutex, 0), uint32_t{KZMKERNEL_WAIT_OWNED});
        EXPECT_TRUE(kzmkernel_close(mutex));
        EXPECT_EQ(open_descriptors(), before);
    });
}

// The number of a descriptor that was closed may already be another file's.
TEST(KernelDescriptors, AreNeverClosedTwice) {
    in_fork([] {
        use_private_memory_disk();
        Traced user([] {
            const std::string name = object_name();
            for (const Kind& kind : kinds) {
                const Handle created(kind.create(name)), opened(kind.open(name));
                kzmkernel_unmap_view(map(opened.value));
            }
        });
        int closed = 0;
        bool closes = false;
        while (user.step()) {
            const std::vector<uint64_t> call = user.entered();
            if (call.empty()) {
                EXPECT_TRUE(!closes || user.left() == 0);
                closes = false;
            } else if (call[0] == SYS_close) {
                ++closed;
                closes = true;
            }
        }
        EXPECT_EQ(user.status(), 0);
        EXPECT_GT(closed, 10);
    });
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
