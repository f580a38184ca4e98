// Programs that close all of their descriptors, as daemons do, and with them what guards their objects, but go on using
// the objects.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <kzmkernel.h>
#include <sys/wait.h>
#include <unistd.h>

#include <climits>
#include <csignal>
#include <functional>
#include <stdexcept>
#include <string>
#include <vector>

#include "support/forked_linux.h"
#include "support/kernel_linux.h"
#include "support/memory_disk_linux.h"

namespace {

using namespace kernel_test;

void close_all_descriptors() {
    ASSERT_EQ(close_range(STDERR_FILENO + 1, UINT_MAX, 0), 0);
}

/// How many descriptors of a process lead to a file.
int descriptors_of(pid_t process, const fs::path& file) {
    int count = 0;
    for (const auto& entry : fs::directory_iterator("/proc/" + std::to_string(process) + "/fd")) {
        std::error_code error;
        count += fs::read_symlink(entry.path(), error) == file;
    }
    return count;
}

/// A process that does something and then stops, until it is to go on. It has no descriptors left to signal with.
class Stopping {
  public:
    explicit Stopping(const std::function<void()>& body) : process_(body) {
        int status = 0;
        if (waitpid(process_.id(), &status, WUNTRACED) != process_.id() || !WIFSTOPPED(status)) {
            throw std::runtime_error("it did not stop");
        }
    }
    static void stop() { raise(SIGSTOP); }
    int go_on_to_its_end() {
        ::kill(process_.id(), SIGCONT);
        return process_.wait();
    }
    pid_t id() const { return process_.id(); }
    void kill() { process_.kill(); }

  private:
    Forked process_;
};

/// Another process, which created the running test's mapping, wrote 'd' into it and holds it.
class OtherHolder {
  public:
    OtherHolder() { created_.await(); }
    int end() {
        over_.give();
        return process_.wait();
    }

  private:
    Sign created_, over_;
    Forked process_{[this] {
        const Handle mapping(create_mapping(object_name()));
        char* const view = map(mapping.value);
        view[0] = 'd';
        kzmkernel_unmap_view(view);
        created_.give();
        over_.await();
    }};
};

constexpr uint32_t existed = KZMKERNEL_ERROR_ALREADY_EXISTS;

TEST(KernelLostGuards, LeaveTheMutexToItsOwner) {
    Stopping daemon([] {
        void* const mutex = create_mutex(object_name());
        EXPECT_EQ(kzmkernel_wait(mutex, 0), uint32_t{KZMKERNEL_WAIT_OWNED});
        close_all_descriptors();
        Stopping::stop();
        EXPECT_TRUE(kzmkernel_release(mutex));
        Stopping::stop();
    });
    const Handle mutex(create_mutex(object_name()));
    EXPECT_EQ(mutex.error, existed);
    EXPECT_EQ(kzmkernel_wait(mutex.value, 0), uint32_t{KZMKERNEL_WAIT_TIMEOUT});
    EXPECT_EQ(info_of(mutex.value).owner_process, static_cast<uint32_t>(daemon.id()));
    ::kill(daemon.id(), SIGCONT);
    EXPECT_EQ(kzmkernel_wait(mutex.value, KZMKERNEL_INFINITE), uint32_t{KZMKERNEL_WAIT_OWNED});
    EXPECT_TRUE(kzmkernel_release(mutex.value));
}

class KernelObjectWithLostGuards : public testing::TestWithParam<Kind> {
  protected:
    static void* create() { return GetParam().create(object_name()); }
    static void* open() { return GetParam().open(object_name()); }
    static void lose_guards() {
        EXPECT_NE(create(), nullptr);
        if (GetParam().file == file_of_mapping) {
            const Handle opened(open());
            map(opened.value)[0] = 'd';
        }
        close_all_descriptors();
        Stopping::stop();
    }
    static void expect_living(void* (*obtain)()) {
        Handle handle(obtain());
        ASSERT_NE(handle.value, nullptr);
        if (obtain == create) {
            EXPECT_EQ(handle.error, existed);
        }
        if (GetParam().file == file_of_mapping) {
            char* const view = map(handle.value);
            EXPECT_EQ(view[0], 'd');
            kzmkernel_unmap_view(view);
        }
    }
};
INSTANTIATE_TEST_SUITE_P(Kinds, KernelObjectWithLostGuards, testing::ValuesIn(kinds),
                         [](const auto& instance) { return std::string(instance.param.name); });

TEST_P(KernelObjectWithLostGuards, StaysOneObjectForAllLaterProcesses) {
    Stopping daemon(lose_guards);
    // Whoever creates its first object clears up, and the last to leave removes the file: neither takes this one.
    { const Handle other(create_mutex(object_name() + "other")); }
    expect_living(create);
    expect_living(open);
    in_fork([] { expect_living(create); });
    daemon.kill();
    EXPECT_EQ(Handle(open()).error, uint32_t{KZMKERNEL_ERROR_FILE_NOT_FOUND});
    expect_new(GetParam().create, object_name());
}

TEST_P(KernelObjectWithLostGuards, StaysAliveInAForkedChildAfterItsParentEnded) {
    Sign child_is_alone, parent_has_closed, over;
    Forked parent([&] {
        void* const handle = create();
        if (GetParam().file == file_of_mapping) map(handle)[0] = 'd';
        if (fork() == 0) {
            // What tells the test must stay.
            for (int descriptor = STDERR_FILENO + 1; descriptor < 100; ++descriptor) {
                struct stat found {};
                if (fstat(descriptor, &found) == 0 && !S_ISFIFO(found.st_mode)) close(descriptor);
            }
            child_is_alone.give();
            over.await();
            _exit(0);
        }
        child_is_alone.await();
        kzmkernel_close(handle);
        parent_has_closed.give();
        pause_forever();
    });
    parent_has_closed.await();
    parent.kill();
    expect_living(create);
    over.give();
}

TEST_P(KernelObjectWithLostGuards, IsGuardedAgainWhenItsProcessOpensItAgain) {
    Stopping daemon([] {
        const Handle first(create());
        const uint64_t number = kzmkernel_object_number(first.value);
        close_all_descriptors();
        const Handle second(create());
        EXPECT_EQ(second.error, existed);
        EXPECT_EQ(kzmkernel_object_number(second.value), number);
        Stopping::stop();
    });
    EXPECT_EQ(descriptors_of(daemon.id(), folder()), 1);
    EXPECT_EQ(descriptors_of(daemon.id(), folder().string() + ".guard"), 1);
    EXPECT_EQ(Handle(create()).error, existed);
    EXPECT_EQ(daemon.go_on_to_its_end(), 0);
    EXPECT_FALSE(fs::exists(GetParam().file(object_name())));
}

TEST_P(KernelObjectWithLostGuards, RemovesItsFileWhenItsHandleIsClosed) {
    in_fork([] {
        Handle handle(create());
        close_all_descriptors();
        handle.close();
        EXPECT_FALSE(fs::exists(GetParam().file(object_name())));
        expect_new(GetParam().create, object_name());
    });
}

TEST_P(KernelObjectWithLostGuards, MakesNoFolderWhenItsHandleIsClosed) {
    in_fork([] {
        use_private_memory_disk();
        Handle handle(create());
        close_all_descriptors();
        fs::remove_all(folder());
        fs::remove(sibling());
        handle.close();
        EXPECT_FALSE(fs::exists(folder()));
        EXPECT_FALSE(fs::exists(sibling()));
    });
}

TEST_P(KernelObjectWithLostGuards, KeepsItsNameFromObjectsOfTheOtherKind) {
    Stopping daemon(lose_guards);
    const Kind& other = kinds[GetParam().create == create_mutex ? 1 : 0];
    EXPECT_EQ(Handle(other.create(object_name())).error, uint32_t{KZMKERNEL_ERROR_INVALID_HANDLE});
    EXPECT_EQ(Handle(other.open(object_name())).error, uint32_t{KZMKERNEL_ERROR_INVALID_HANDLE});
}

TEST_P(KernelObjectWithLostGuards, ClosesNoGuardOfAnObjectThatIsGuardedAgain) {
    in_fork([] {
        Handle first(create());
        const Handle other(GetParam().create(object_name() + "other"));
        close_all_descriptors();
        // Its guards get the numbers that those of the first object had.
        const Handle again(GetParam().create(object_name() + "other"));
        EXPECT_EQ(again.error, existed);
        first.close();
        EXPECT_EQ(descriptors_of(getpid(), folder()), 1);
        EXPECT_EQ(descriptors_of(getpid(), folder().string() + ".guard"), 1);
    });
}

// A process cannot ask the system who uses a file of which it has views itself. Views of other files do not count.
TEST_P(KernelObjectWithLostGuards, StaysOneObjectForAProcessWithViewsOfAnother) {
    Stopping daemon(lose_guards);
    const Handle other(create_mapping(object_name() + "other"));
    EXPECT_NE(map(other.value), nullptr);
    expect_living(create);
}

TEST_P(KernelObjectWithLostGuards, ClosesNoFileThatGotTheNumberOfAGuard) {
    in_fork([] {
        Handle handle(create());
        close_all_descriptors();
        std::vector<int> own;
        own.reserve(5);
        // One is on another disk than the guards, the others are on theirs.
        own.push_back(::open("/dev/null", O_RDONLY | O_CLOEXEC));
        while (own.size() < 5) own.push_back(::open("/dev/shm", O_RDONLY | O_CLOEXEC));
        EXPECT_EQ(own[0], STDERR_FILENO + 1);
        handle.close();
        for (const int descriptor : own) EXPECT_GE(fcntl(descriptor, F_GETFD), 0) << descriptor;
    });
}

TEST_P(KernelObjectWithLostGuards, ClosesNoGuardOfTheNextObject) {
    in_fork([] {
        Handle lost(create());
        close_all_descriptors();
        const Handle next(GetParam().create(object_name() + "next"));
        EXPECT_EQ(descriptors_of(getpid(), folder()), 1);
        lost.close();
        EXPECT_EQ(descriptors_of(getpid(), folder()), 1);
        EXPECT_EQ(descriptors_of(getpid(), folder().string() + ".guard"), 1);
        if (GetParam().file == file_of_mapping) {
            EXPECT_NE(map(next.value), nullptr);
        }
    });
}

TEST(KernelLostGuards, FailTheNextViewOfAMappingThatLostItsFileToo) {
    in_fork([] {
        const Handle mapping(create_mapping(object_name()));
        map(mapping.value)[0] = 'v';
        close_all_descriptors();
        const int own = ::open("/dev/zero", O_RDWR | O_CLOEXEC);
        for (int i = 0; i < 3; ++i) dup(own);
        EXPECT_EQ(map(mapping.value), nullptr);
        EXPECT_EQ(kzmkernel_last_error(), uint32_t{KZMKERNEL_ERROR_INVALID_HANDLE});
        // Opened again it has its file again.
        const Handle again(open_mapping(object_name()));
        EXPECT_EQ(map(again.value)[0], 'v');
        EXPECT_EQ(map(mapping.value)[0], 'v');
    });
}

TEST(KernelLostGuards, LeaveTheMappingToAProcessThatOnlyReadsIt) {
    OtherHolder creator;
    Stopping reader([] {
        void* const first = open_to_read(object_name());
        EXPECT_EQ(map_to_read(first)[0], 'd');
        close_all_descriptors();
        Stopping::stop();
        EXPECT_EQ(map_to_read(first), nullptr);
        EXPECT_EQ(kzmkernel_last_error(), uint32_t{KZMKERNEL_ERROR_INVALID_HANDLE});
        // Opened again it has its file again.
        open_to_read(object_name());
        EXPECT_EQ(map_to_read(first)[0], 'd');
        EXPECT_EQ(descriptors_of(getpid(), file_of_mapping(object_name())), 1);
        EXPECT_EQ(descriptors_of(getpid(), folder()), 1);
    });
    EXPECT_EQ(creator.end(), 0);
    {
        const Handle later(open_to_read(object_name()));
        ASSERT_NE(later.value, nullptr);
        EXPECT_EQ(map_to_read(later.value)[0], 'd');
        EXPECT_EQ(Handle(create_mapping(object_name())).error, existed);
        EXPECT_EQ(reader.go_on_to_its_end(), 0);
    }
    EXPECT_FALSE(fs::exists(file_of_mapping(object_name())));
}

// As in Windows, an object ends with its last handle.
TEST(KernelLostGuards, AreNotConfusedWithViewsKeptWithoutAHandle) {
    Stopping viewer([] {
        Handle mapping(create_mapping(object_name()));
        char* const view = map(mapping.value);
        view[0] = 'v';
        mapping.close();
        EXPECT_EQ(view[0], 'v');
        Stopping::stop();
        EXPECT_EQ(view[0], 'v');
    });
    expect_new(create_page, object_name());
    EXPECT_EQ(viewer.go_on_to_its_end(), 0);
}

TEST(KernelLostGuards, AreNotConfusedWithViewsThatOutliveAllHandles) {
    OtherHolder holder;
    const Stopping viewer([] {
        Handle opened(open_mapping(object_name()));
        map(opened.value)[0] = 'v';
        opened.close();
        Stopping::stop();
    });
    EXPECT_EQ(holder.end(), 0);
    EXPECT_FALSE(fs::exists(file_of_mapping(object_name())));
    expect_new(create_page, object_name());
}

// Views for reading and for writing are mapped from different descriptors of the file.
TEST(KernelLostGuards, AreNotConfusedWithViewsOfEitherKindThatOutliveAllHandles) {
    for (const bool is_writable : {false, true}) {
        OtherHolder holder;
        const Stopping viewer([&] {
            Handle reading(open_to_read(object_name())), writing(open_mapping(object_name()));
            char* const other = is_writable ? map_to_read(reading.value) : map(writing.value);
            EXPECT_NE(is_writable ? map(writing.value) : map_to_read(reading.value), nullptr);
            reading.close();
            writing.close();
            EXPECT_TRUE(kzmkernel_unmap_view(other));
            Stopping::stop();
        });
        EXPECT_EQ(holder.end(), 0);
        EXPECT_FALSE(fs::exists(file_of_mapping(object_name())));
        expect_new(create_page, object_name());
    }
}

}  // namespace
