// The gate of the folder of kernel objects: whoever stops, or is killed, while it creates an object holds nobody up for
// longer than the two seconds that the gate is waited for.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <kzmkernel.h>
#include <sys/file.h>
#include <sys/mount.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cstdio>
#include <string>
#include <vector>

#include "support/forked_linux.h"
#include "support/kernel_linux.h"
#include "support/memory_disk_linux.h"
#include "support/other_user_linux.h"
#include "support/traced_linux.h"

namespace {

using namespace kernel_test;

constexpr uint64_t large = 8u << 20;

/// Whether nobody holds the gate.
bool gate_is_free() {
    const int again = open(folder().c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    const bool is_free = flock(again, LOCK_EX | LOCK_NB) == 0;
    close(again);
    return is_free;
}

void expect_existing(void* (*create)(const std::string&), const std::string& name) {
    EXPECT_EQ(Handle(create(name)).error, uint32_t{KZMKERNEL_ERROR_ALREADY_EXISTS});
}

TEST(KernelGate, IsFreeWhileMemoryIsAllocated) {
    in_fork([] {
        use_private_memory_disk();  // other tests take the gate of the user's own folder
        const Handle other(create_mutex(object_name() + "other"));
        Traced creator([] { EXPECT_EQ(Handle(create_mapping(object_name(), large)).error, 0u); });
        int allocations = 0;
        while (creator.step()) {
            const std::vector<uint64_t> call = creator.entered();
            if (call.empty() || call[0] != SYS_fallocate) continue;
            ++allocations;
            EXPECT_TRUE(gate_is_free());
        }
        EXPECT_EQ(creator.status(), 0);
        EXPECT_EQ(allocations, 8);
    });
}

TEST(KernelGate, IsNotHeldByACreatorStoppedWhileItAllocates) {
    const std::string name = object_name();
    Traced creator([&] {
        // Another process made it meanwhile.
        const Handle mapping(create_mapping(name, large));
        EXPECT_EQ(mapping.error, uint32_t{KZMKERNEL_ERROR_ALREADY_EXISTS});
        EXPECT_EQ(map(mapping.value)[0], 'b');
    });
    creator.run_until_it_enters(SYS_fallocate);
    expect_new(create_mutex, name + "other");
    EXPECT_EQ(Handle(open_mapping(name)).error, uint32_t{KZMKERNEL_ERROR_FILE_NOT_FOUND});
    const Handle mapping(create_mapping(name, large));
    ASSERT_EQ(mapping.error, 0u);
    map(mapping.value)[0] = 'b';
    while (creator.step()) {
    }
    EXPECT_EQ(creator.status(), 0);
    expect_existing(create_page, name);
}

TEST(KernelGate, LetsOthersPassWhenACreatorIsStoppedOutsideIt) {
    const Handle living(create_mutex(object_name() + "living"));
    int inside = 0, outside = 0;
    bool ended = false;
    for (int stops = 1; !ended && !HasFailure(); ++stops) {
        Traced creator([] { Handle(create_mutex(object_name())).close(); });
        for (int i = 0; i < stops && !ended; ++i) ended = !creator.step();
        if (ended) break;
        // Inside it holds up whoever comes, for two seconds each: another test looks at that.
        ++(gate_is_free() ? outside : inside);
        if (!gate_is_free()) continue;
        expect_existing(create_mutex, object_name() + "living");
        expect_new(create_mutex, object_name() + "new");
    }
    EXPECT_GT(inside, 10);
    EXPECT_GT(outside, 10);
}

TEST(KernelGate, LeavesNothingOfAKilledCreator) {
    in_fork([] {
        use_private_memory_disk();
        { const Handle folder_maker(create_mutex(object_name())); }
        Traced creator([] { create_mapping(object_name(), large); });
        for (int i = 0; i < 3; ++i) creator.run_until_it_enters(SYS_fallocate);
        creator.kill();
        EXPECT_TRUE(fs::is_empty(folder()));
        EXPECT_EQ(fs::space("/dev/shm").free, fs::space("/dev/shm").capacity);
    });
}

// Two that create one object at once do not both charge its memory.
TEST(KernelGate, LetsTwoCreatorsMakeOneObjectThatFillsTheDisk) {
    in_fork([] {
        use_private_memory_disk("size=10m");
        Sign over;
        Traced first([&] {
            const Handle mapping(create_mapping(object_name(), large));
            EXPECT_EQ(mapping.error, 0u);
            over.await();
        });
        first.run_until_it_enters(SYS_fallocate);
        Traced second([] {
            EXPECT_EQ(Handle(create_mapping(object_name(), large)).error, uint32_t{KZMKERNEL_ERROR_ALREADY_EXISTS});
        });
        second.run_until_it_enters(SYS_clock_nanosleep);
        first.run_until_it_enters(SYS_read);
        int pauses = 0;
        while (second.step()) {
            const std::vector<uint64_t> call = second.entered();
            pauses += !call.empty() && call[0] == SYS_clock_nanosleep;
        }
        EXPECT_EQ(second.status(), 0);
        EXPECT_EQ(pauses, 0) << "a wait for a maker who is done";
        over.give();
        while (first.step()) {
        }
        EXPECT_EQ(first.status(), 0);
    });
}

TEST(KernelGate, LetsCreatorsOfOtherNamesPassWithoutAWait) {
    in_fork([] {
        use_private_memory_disk();
        Traced stopped([] { create_mapping(object_name() + "1", large); });
        stopped.run_until_it_enters(SYS_fallocate);
        Traced other([] { expect_new(create_page, object_name() + "2"); });
        int pauses = 0;
        while (other.step()) {
            const std::vector<uint64_t> call = other.entered();
            pauses += !call.empty() && call[0] == SYS_clock_nanosleep;
        }
        EXPECT_EQ(other.status(), 0);
        EXPECT_EQ(pauses, 0);
    });
}

/// Whether a process is about to close the last descriptor of a file without a name.
bool frees_a_file(const Traced& process) {
    const std::vector<uint64_t> call = process.entered();
    if (call.empty() || call[0] != SYS_close) return false;
    std::error_code error;
    const fs::path link = "/proc/" + std::to_string(process.id()) + "/fd/" + std::to_string(call[1]);
    const std::string target = fs::read_symlink(link, error).string();
    return target.size() > 10 && target.compare(target.size() - 10, 10, " (deleted)") == 0;
}

TEST(KernelGate, IsFreeWhileTheMemoryOfEndedObjectsIsFreed) {
    in_fork([] {
        use_private_memory_disk();
        Sign made;
        Forked dead([&] {
            create_mapping(object_name(), large);
            create_mapping(object_name() + "other", large);
            made.give();
            pause_forever();
        });
        made.await();
        dead.kill();
        // It finds the file of a dead object under the name, and another one. It makes its own file without a name,
        // opens it by its name, and removes it.
        Traced creator([] { expect_new(create_page, object_name()); });
        int freed = 0;
        while (creator.step()) {
            if (!frees_a_file(creator)) continue;
            ++freed;
            EXPECT_TRUE(gate_is_free());
        }
        EXPECT_EQ(creator.status(), 0);
        EXPECT_EQ(freed, 4);
    });
}

// The second one waits for the first one, which makes the object and is killed.
TEST(KernelGate, GivesTheMemoryOfAMakerThatDiedToTheNextCreator) {
    in_fork([] {
        use_private_memory_disk("size=10m");
        Traced first([] {
            create_mapping(object_name(), large);
            getppid();
        });
        first.run_until_it_enters(SYS_fallocate);
        Traced second([] {
            const Handle mapping(create_mapping(object_name(), large));
            EXPECT_EQ(mapping.error, 0u);
        });
        second.run_until_it_enters(SYS_clock_nanosleep);
        first.run_until_it_enters(SYS_getppid);
        first.kill();
        while (second.step()) {
        }
        EXPECT_EQ(second.status(), 0);
    });
}

/// A process that holds the gate and does nothing.
class Holder {
  public:
    Holder()
        : process_([this] {
              const int gate = open(folder().c_str(), O_RDONLY | O_DIRECTORY);
              EXPECT_EQ(flock(gate, LOCK_EX), 0);
              held_.give();
              pause_forever();
          }) {
        held_.await();
    }
    pid_t id() const { return process_.id(); }
    void kill() { process_.kill(); }

  private:
    Sign held_;
    Forked process_;
};

std::string busy_text(pid_t holder) {
    char text[200];
    std::snprintf(text, sizeof text, "process %d does not let go of %s: let it go on (kill -CONT %d) or end it", holder,
                  folder().c_str(), holder);
    return text;
}

TEST(KernelGate, FailsEveryCallAfterTwoSecondsWhenAStoppedProcessHoldsIt) {
    in_fork([] {
        use_private_memory_disk();
        Handle living(create_mutex(object_name()));
        const std::string other = object_name() + "other";
        Holder holder;
        for (void* (*const call)(const std::string&) : {create_mutex, open_mutex, create_page, open_mapping}) {
            timespec begin{}, end{};
            clock_gettime(CLOCK_MONOTONIC, &begin);
            const Handle handle(call(other));
            clock_gettime(CLOCK_MONOTONIC, &end);
            EXPECT_EQ(handle.value, nullptr);
            EXPECT_EQ(handle.error, uint32_t{KZMKERNEL_ERROR_BUSY});
            EXPECT_EQ(kzmkernel_explanation(), busy_text(holder.id()));
            EXPECT_GE(end.tv_sec - begin.tv_sec, 1);
        }
        // What is closed meanwhile is closed. Its file is known to be a dead object's later.
        living.close();
        EXPECT_TRUE(fs::exists(file_of_mutex(object_name())));
        holder.kill();
        expect_new(create_mutex, object_name());
    });
}

TEST(KernelGate, FailsACreateWhoseFolderIsRemovedWhileItAllocates) {
    in_fork([] {
        use_private_memory_disk();
        Traced creator([] {
            EXPECT_EQ(Handle(create_page(object_name())).error, uint32_t{KZMKERNEL_ERROR_FILE_INVALID});
            EXPECT_EQ(std::string(kzmkernel_explanation()).find(folder().string() + " was removed or replaced"), 0u);
        });
        creator.run_until_it_enters(SYS_fallocate);
        fs::remove_all(folder());
        while (creator.step()) {
        }
        EXPECT_EQ(creator.status(), 0);
    });
}

TEST(KernelGate, IsTakenWhenItBecomesFreeInTime) {
    in_fork([] {
        use_private_memory_disk();
        { const Handle folder_maker(create_mutex(object_name())); }
        Holder holder;
        Traced waiter([] { expect_new(create_mutex, object_name()); });
        // It sleeps and tries again, and uses no processor meanwhile.
        for (int i = 0; i < 3; ++i) waiter.run_until_it_enters(SYS_clock_nanosleep);
        holder.kill();
        while (waiter.step()) {
        }
        EXPECT_EQ(waiter.status(), 0);
    });
}

// Unnamed files are named through /proc.
TEST(KernelGate, LetsTheNextCreatorCleanUpWhatAKilledOneLeftWithoutProc) {
    in_fork([] {
        use_private_memory_disk();
        ASSERT_EQ(mount("tmpfs", "/proc", "tmpfs", 0, nullptr), 0);
        // Root could do without /proc.
        become(spare_user());
        { const Handle folder_maker(create_page(object_name())); }
        const auto create = [] { EXPECT_EQ(Handle(create_mapping(object_name(), large)).error, 0u); };
        for (const uint64_t call : {uint64_t{SYS_fchmod}, uint64_t{SYS_fallocate}}) {
            Traced killed(create), living(create);
            for (Traced* const creator : {&killed, &living}) creator->run_until_it_enters(call);
            killed.kill();
            expect_new(create_page, object_name() + "other");
            // What the living creator makes is there, that of the killed one is not.
            EXPECT_EQ(std::distance(fs::directory_iterator(folder()), fs::directory_iterator()), 1);
            while (living.step()) {
            }
            EXPECT_EQ(living.status(), 0);
            EXPECT_TRUE(fs::is_empty(folder()));
        }
    });
}

TEST(KernelGate, LeavesNothingOfAFailedCreateWithoutProc) {
    in_fork([] {
        use_private_memory_disk("size=256k");
        ASSERT_EQ(mount("tmpfs", "/proc", "tmpfs", 0, nullptr), 0);
        become(spare_user());
        EXPECT_EQ(Handle(create_mapping(object_name(), large)).error, uint32_t{KZMKERNEL_ERROR_DISK_FULL});
        EXPECT_TRUE(fs::is_empty(folder()));
    });
}

TEST(KernelGate, TriesAHundredNamesForANewFileWithoutProc) {
    in_fork([] {
        use_private_memory_disk();
        ASSERT_EQ(mount("tmpfs", "/proc", "tmpfs", 0, nullptr), 0);
        become(spare_user());
        { const Handle folder_maker(create_page(object_name())); }
        for (int i = 0; i < 100; ++i) {
            // With this mode it is not taken for what a killed creator left.
            const std::string name = ".new." + std::to_string(getpid()) + "." + std::to_string(i);
            close(open((folder() / name).c_str(), O_RDWR | O_CREAT | O_EXCL | O_CLOEXEC, 0400));
        }
        EXPECT_EQ(Handle(create_page(object_name())).error, uint32_t{KZMKERNEL_ERROR_ACCESS_DENIED});
        EXPECT_TRUE(fs::remove(folder() / (".new." + std::to_string(getpid()) + ".99"))) << "it is not the creator's";
        expect_new(create_page, object_name());
        EXPECT_EQ(std::distance(fs::directory_iterator(folder()), fs::directory_iterator()), 99);
    });
}

TEST(KernelGate, FailsACreateWhoseFolderIsRemovedMeanwhileWithoutProc) {
    in_fork([] {
        use_private_memory_disk();
        ASSERT_EQ(mount("tmpfs", "/proc", "tmpfs", 0, nullptr), 0);
        become(spare_user());
        { const Handle folder_maker(create_page(object_name())); }
        Traced creator([] {
            const Handle mapping(create_page(object_name()));
            EXPECT_EQ(mapping.value, nullptr);
            EXPECT_EQ(mapping.error, uint32_t{KZMKERNEL_ERROR_FILE_INVALID});
        });
        const auto makes_a_file = [&] {
            const std::vector<uint64_t> call = creator.entered();
            return !call.empty() && call[0] == SYS_openat && (call[3] & O_EXCL) != 0;
        };
        while (!makes_a_file()) ASSERT_TRUE(creator.step());
        fs::remove_all(folder());
        while (creator.step()) {
        }
        EXPECT_EQ(creator.status(), 0);
        EXPECT_FALSE(fs::exists(folder()));
    });
}

}  // namespace
