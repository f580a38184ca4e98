// Process-id namespaces: a mutex names its owner by a process id, so it is for the processes of one namespace.
#include <gtest/gtest.h>
#include <kzmkernel.h>
#include <sched.h>
#include <sys/mount.h>
#include <unistd.h>

#include <string>

#include "support/forked_linux.h"
#include "support/kernel_linux.h"
#include "support/memory_disk_linux.h"

namespace {

using namespace kernel_test;

TEST(KernelProcessNamespace, RefusesMutexesOfAnotherNamespace) {
    const std::string name = object_name();
    const Handle mutex(create_mutex(name));
    const Handle mapping(create_mapping(name + "m"));
    // It is the mutex that the child's thread used last.
    ASSERT_EQ(kzmkernel_wait(mutex.value, 0), uint32_t{KZMKERNEL_WAIT_OWNED});
    ASSERT_TRUE(kzmkernel_release(mutex.value));
    in_fork([&] {
        Forked inner(
            [&] {
                ASSERT_EQ(getpid(), 1);
                EXPECT_EQ(kzmkernel_wait(mutex.value, 0), uint32_t{KZMKERNEL_WAIT_FAILED});
                EXPECT_EQ(kzmkernel_last_error(), uint32_t{KZMKERNEL_ERROR_ACCESS_DENIED});
                kzmkernel_set_last_error(0);
                EXPECT_FALSE(kzmkernel_release(mutex.value));
                EXPECT_EQ(kzmkernel_last_error(), uint32_t{KZMKERNEL_ERROR_ACCESS_DENIED});
                EXPECT_TRUE(kzmkernel_close(mutex.value));
                EXPECT_EQ(Handle(create_mutex(name)).error, uint32_t{KZMKERNEL_ERROR_ACCESS_DENIED});
                EXPECT_EQ(Handle(open_mutex(name)).error, uint32_t{KZMKERNEL_ERROR_ACCESS_DENIED});
                const Handle own(create_mutex(name + "own"));
                EXPECT_EQ(own.error, 0u);
                EXPECT_EQ(kzmkernel_wait(own.value, 0), uint32_t{KZMKERNEL_WAIT_OWNED});
                EXPECT_TRUE(kzmkernel_release(own.value));
                const Handle same(create_mapping(name + "m"));
                EXPECT_EQ(same.error, uint32_t{KZMKERNEL_ERROR_ALREADY_EXISTS});
            },
            geteuid() == 0 ? CLONE_NEWPID : CLONE_NEWPID | CLONE_NEWUSER);
        EXPECT_EQ(inner.wait(), 0);
    });
    EXPECT_EQ(Handle(open_mutex(name)).error == KZMKERNEL_ERROR_ACCESS_DENIED, false);
}

TEST(KernelProcessNamespace, RefusesMutexesWhenItCannotBeDetermined) {
    in_fork([] {
        use_private_memory_disk();
        ASSERT_EQ(mount("tmpfs", "/proc", "tmpfs", 0, nullptr), 0);
        EXPECT_EQ(Handle(create_mutex(object_name())).error, uint32_t{KZMKERNEL_ERROR_ACCESS_DENIED});
        EXPECT_EQ(Handle(create_mapping(object_name())).error, 0u);
    });
}

}  // namespace
