// What fork and exec do to the objects and locks of kzmkernel.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <kzmkernel.h>
#include <sys/file.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <atomic>
#include <filesystem>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "support/forked_linux.h"
#include "support/kernel_linux.h"
#include "support/sleepers_linux.h"
#include "support/temporary_folder.h"

namespace {

using namespace kernel_test;

/// Where a thread is held inside a call of kzmkernel: when it locks the gate.
struct Hold {
    Sign inside, over;
};
thread_local Hold* hold = nullptr;

}  // namespace

// Takes the place of the C library's: kzmkernel locks the gate with it.
[[gnu::visibility("default")]] int flock(int file, int operation) noexcept {
    if (Hold* const mine = std::exchange(hold, nullptr)) {
        mine->inside.give();
        mine->over.await();
    }
    return static_cast<int>(syscall(SYS_flock, file, operation));
}

namespace {

TEST(KernelFork, ChildOwnsNoLock) {
    const Handle mutex(create_mutex(object_name()));
    ASSERT_EQ(kzmkernel_wait(mutex.value, 0), uint32_t{KZMKERNEL_WAIT_OWNED});
    ASSERT_EQ(kzmkernel_wait(mutex.value, 0), uint32_t{KZMKERNEL_WAIT_OWNED});
    in_fork([&] {
        EXPECT_EQ(kzmkernel_wait(mutex.value, 0), uint32_t{KZMKERNEL_WAIT_TIMEOUT});
        EXPECT_FALSE(kzmkernel_release(mutex.value));
        EXPECT_EQ(kzmkernel_last_error(), uint32_t{KZMKERNEL_ERROR_NOT_OWNER});
        EXPECT_TRUE(kzmkernel_close(mutex.value));
    });
    // The child's end is no end of the owner.
    std::thread([&] { EXPECT_EQ(kzmkernel_wait(mutex.value, 0), uint32_t{KZMKERNEL_WAIT_TIMEOUT}); }).join();
    EXPECT_TRUE(kzmkernel_release(mutex.value));
    EXPECT_TRUE(kzmkernel_release(mutex.value));
}

TEST(KernelFork, ChildOfAnOwnerWaitsForTheLockLikeAnyOtherProcess) {
    const Handle mutex(create_mutex(object_name()));
    ASSERT_EQ(kzmkernel_wait(mutex.value, 0), uint32_t{KZMKERNEL_WAIT_OWNED});
    Sign ready;
    Forked child([&] {
        ready.give();
        EXPECT_EQ(kzmkernel_wait(mutex.value, KZMKERNEL_INFINITE), uint32_t{KZMKERNEL_WAIT_OWNED});
    });
    ready.await();
    EXPECT_TRUE(kzmkernel_release(mutex.value));
    EXPECT_EQ(child.wait(), 0);
    EXPECT_EQ(kzmkernel_wait(mutex.value, 0), uint32_t{KZMKERNEL_WAIT_ABANDONED});
    EXPECT_TRUE(kzmkernel_release(mutex.value));
}

class KernelForkedHandle : public testing::TestWithParam<Kind> {};
INSTANTIATE_TEST_SUITE_P(Kinds, KernelForkedHandle, testing::ValuesIn(kinds),
                         [](const auto& instance) { return std::string(instance.param.name); });

TEST_P(KernelForkedHandle, KeepsTheObjectAliveAsLongAsTheChildLives) {
    Handle handle(GetParam().create(object_name()));
    Forked child(pause_forever);
    handle.close();
    EXPECT_EQ(Handle(GetParam().create(object_name())).error, uint32_t{KZMKERNEL_ERROR_ALREADY_EXISTS});
    child.kill();
    expect_new(GetParam().create, object_name());
}

TEST_P(KernelForkedHandle, StaysOpenInTheParentWhenTheChildClosesIt) {
    const Handle handle(GetParam().create(object_name()));
    in_fork([&] { EXPECT_TRUE(kzmkernel_close(handle.value)); });
    EXPECT_TRUE(fs::exists(GetParam().file(object_name())));
    EXPECT_EQ(Handle(GetParam().create(object_name())).error, uint32_t{KZMKERNEL_ERROR_ALREADY_EXISTS});
}

TEST_P(KernelForkedHandle, RemovesTheFileWhenTheChildClosesItLast) {
    Handle handle(GetParam().create(object_name()));
    Sign parent_closed;
    Forked child([&] {
        parent_closed.await();
        EXPECT_TRUE(kzmkernel_close(handle.value));
    });
    handle.close();
    EXPECT_TRUE(fs::exists(GetParam().file(object_name())));
    parent_closed.give();
    EXPECT_EQ(child.wait(), 0);
    EXPECT_FALSE(fs::exists(GetParam().file(object_name())));
}

TEST_P(KernelForkedHandle, IsClosedByExec) {
    Handle handle(GetParam().create(object_name()));
    Sign executed;
    int blocked[2];
    ASSERT_EQ(pipe(blocked), 0);
    int signalled[2];
    ASSERT_EQ(pipe(signalled), 0);
    Forked child([&] {
        dup2(blocked[0], STDIN_FILENO);
        dup2(signalled[1], STDOUT_FILENO);
        close(blocked[1]);
        execl("/bin/cat", "cat", nullptr);
        _exit(1);
    });
    // An answer comes only from the new program.
    char byte = 'a';
    ASSERT_EQ(write(blocked[1], &byte, 1), 1);
    ASSERT_EQ(read(signalled[0], &byte, 1), 1);
    handle.close();
    expect_new(GetParam().create, object_name());
    child.kill();
    for (const int descriptor : {blocked[0], blocked[1], signalled[0], signalled[1]}) close(descriptor);
}

TEST(KernelFork, ChildKeepsNoObjectThatOnlyAnotherThreadUsed) {
    const std::string name = object_name();
    void* const mutex = create_mutex(name);
    ASSERT_EQ(kzmkernel_wait(mutex, 0), uint32_t{KZMKERNEL_WAIT_OWNED});
    SleepingThread waiter(
        [&] { EXPECT_EQ(kzmkernel_wait(mutex, KZMKERNEL_INFINITE), uint32_t{KZMKERNEL_WAIT_OWNED}); });
    EXPECT_TRUE(kzmkernel_close(mutex));
    Sign ready, over;
    Forked child([&] {
        const Handle own(create_mutex(name + "own"));
        EXPECT_NE(own.value, mutex) << "a handle that was closed";
        ready.give();
        over.await();
    });
    ready.await();
    {
        const Handle again(create_mutex(name));
        EXPECT_EQ(again.error, uint32_t{KZMKERNEL_ERROR_ALREADY_EXISTS});
        EXPECT_TRUE(kzmkernel_release(again.value));
        waiter.join();
    }
    expect_new(create_mutex, name);  // although the child still lives
    over.give();
    EXPECT_EQ(child.wait(), 0);
}

TEST(KernelFork, ChildFreesThePageOfAMutexThatItsThreadUsedLast) {
    const std::string name = object_name();
    const Handle mutex(create_mutex(name));
    for (const bool uses_it : {false, true}) {
        ASSERT_EQ(kzmkernel_wait(mutex.value, 0), uint32_t{KZMKERNEL_WAIT_OWNED});
        ASSERT_TRUE(kzmkernel_release(mutex.value));
        in_fork([&] {
            if (uses_it) {
                EXPECT_EQ(kzmkernel_wait(mutex.value, 0), uint32_t{KZMKERNEL_WAIT_OWNED});
                EXPECT_TRUE(kzmkernel_release(mutex.value));
            }
            EXPECT_TRUE(kzmkernel_close(mutex.value));
            EXPECT_EQ(contents_of("/proc/self/maps").find(file_of_mutex(name).filename()), std::string::npos);
        });
    }
}

TEST(KernelFork, ChildKeepsNoPageOfAMutexThatItsParentOwnsAndHasClosed) {
    const std::string name = object_name();
    const auto is_mapped = [&] {
        return contents_of("/proc/self/maps").find(file_of_mutex(name).filename()) != std::string::npos;
    };
    void* const mutex = create_mutex(name);
    ASSERT_EQ(kzmkernel_wait(mutex, 0), uint32_t{KZMKERNEL_WAIT_OWNED});
    EXPECT_TRUE(kzmkernel_close(mutex));
    EXPECT_TRUE(is_mapped());
    in_fork([&] { EXPECT_FALSE(is_mapped()); });
}

TEST(KernelFork, ExecOfAnOwnerAbandonsItsLock) {
    const Handle mutex(create_mutex(object_name()));
    Forked owner([&] {
        EXPECT_EQ(kzmkernel_wait(mutex.value, 0), uint32_t{KZMKERNEL_WAIT_OWNED});
        execl("/bin/true", "true", nullptr);
        _exit(1);
    });
    EXPECT_EQ(owner.wait(), 0);
    EXPECT_EQ(kzmkernel_wait(mutex.value, 0), uint32_t{KZMKERNEL_WAIT_ABANDONED});
    EXPECT_TRUE(kzmkernel_release(mutex.value));
}

TEST(KernelFork, ChildIsNotBlockedByWhatOtherThreadsWereDoing) {
    const std::string name = object_name();
    std::atomic<bool> over{false};
    std::vector<std::thread> threads;
    threads.reserve(3);
    for (int i = 0; i < 3; ++i) {
        threads.emplace_back([&, i] {
            while (!over) {
                const Handle mapping(create_mapping(name + std::to_string(i)));
                kzmkernel_unmap_view(map(mapping.value));
                const Handle mutex(create_mutex(name + "shared"));
                if (kzmkernel_wait(mutex.value, 0) != KZMKERNEL_WAIT_TIMEOUT) kzmkernel_release(mutex.value);
            }
        });
    }
    for (int round = 0; round < 60; ++round) {
        in_fork([&] {
            for (int i = 0; i < 4; ++i) {
                const Handle mapping(create_mapping(name + std::to_string(i)));
                EXPECT_NE(mapping.value, nullptr);
            }
            const Handle mutex(create_mutex(name + "child"));
            EXPECT_EQ(kzmkernel_wait(mutex.value, 0), uint32_t{KZMKERNEL_WAIT_OWNED});
            EXPECT_TRUE(kzmkernel_release(mutex.value));
        });
    }
    over = true;
    for (std::thread& thread : threads) thread.join();
    for (int i = 0; i < 4; ++i) expect_new(create_page, name + std::to_string(i));
    expect_new(create_mutex, name + "shared");
}

TEST(KernelFork, WaitsForTheCallOfAnotherThreadWhoseHandleTheChildThenHas) {
    const std::string name = object_name();
    int handles[2];
    ASSERT_EQ(pipe2(handles, O_CLOEXEC), 0);
    Hold held;
    std::thread creator([&] {
        hold = &held;
        void* const mutex = create_mutex(name);
        EXPECT_EQ(write(handles[1], &mutex, sizeof mutex), static_cast<ssize_t>(sizeof mutex));
    });
    held.inside.await();
    SleepingThread parent([&] {
        Forked child([&] {
            void* mutex = nullptr;
            ASSERT_EQ(read(handles[0], &mutex, sizeof mutex), static_cast<ssize_t>(sizeof mutex));
            EXPECT_EQ(kzmkernel_wait(mutex, 0), uint32_t{KZMKERNEL_WAIT_OWNED});
            EXPECT_TRUE(kzmkernel_release(mutex));
            EXPECT_TRUE(kzmkernel_close(mutex));
        });
        creator.join();
        EXPECT_EQ(child.wait(), 0);
    });
    held.over.give();
    parent.join();
    for (const int end : handles) close(end);
}

TEST(KernelFork, ChildCanCloseAMutexThatItsParentWaitsFor) {
    const std::string name = object_name();
    const Handle before(create_mutex(name + "-before"));
    void* const mutex = create_mutex(name);
    ASSERT_EQ(kzmkernel_wait(mutex, 0), uint32_t{KZMKERNEL_WAIT_OWNED});
    SleepingThread waiter([&] {
        EXPECT_EQ(kzmkernel_wait(mutex, KZMKERNEL_INFINITE), uint32_t{KZMKERNEL_WAIT_OWNED});
        EXPECT_TRUE(kzmkernel_release(mutex));
    });
    Sign closed, over;
    Forked child([&] {
        EXPECT_TRUE(kzmkernel_close(mutex));
        closed.give();
        over.await();
    });
    closed.await();
    EXPECT_TRUE(kzmkernel_release(mutex));
    waiter.join();
    EXPECT_TRUE(kzmkernel_close(mutex));
    expect_new(create_mutex, name);  // although the child still lives
    over.give();
    EXPECT_EQ(child.wait(), 0);
}

}  // namespace
