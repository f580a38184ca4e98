// What kzmkernel promises beyond the contract of kernel_test.cpp: files, links, owners, namespaces, fork and exec,
// signals, and creators, owners and closers that are killed at each of their system calls.
#include <dlfcn.h>
#include <fcntl.h>
#include <gmock/gmock.h>
#include <kzmkernel.h>
#include <linux/futex.h>
#include <sched.h>
#include <sys/mount.h>
#include <sys/ptrace.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/user.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <functional>
#include <memory>
#include <random>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "kernel_linux_tools.h"
#include "support/child.h"
#include "support/temporary_folder.h"

namespace {

using namespace kernel_test;

/// Makes what lies there somebody else's. Where only one user is known, something of the system's is mounted over it.
void give_away(const fs::path& path) {
    if (chown(path.c_str(), 1, 1) == 0) return;
    ASSERT_EQ(mount(fs::is_directory(path) ? "/etc" : "/etc/passwd", path.c_str(), nullptr, MS_BIND, nullptr), 0)
        << strerror(errno);
}

void make_proper_file(const fs::path& file, size_t size) {
    write_text(file, std::string(size, 'x'));
    fs::permissions(file, fs::perms::owner_read | fs::perms::owner_write);
}

class KernelFiles : public testing::TestWithParam<Kind> {
  protected:
    static void* create() { return GetParam().create(object_name()); }
    static void* open() { return GetParam().open(object_name()); }
    static fs::path file() { return GetParam().file(object_name()); }

    /// Create and open fail with this error, here and in another process.
    static void expect_refused(uint32_t error) {
        const auto refused = [error] {
            const Handle created(create());
            EXPECT_EQ(created.value, nullptr);
            EXPECT_EQ(created.error, error);
            const Handle opened(open());
            EXPECT_EQ(opened.value, nullptr);
            EXPECT_EQ(opened.error, error);
        };
        refused();
        in_fork([&] {
            // What was inherited is not in the way of what is found.
            refused();
        });
        EXPECT_EQ(start_fresh(error), 0);
    }

    static int start_fresh(uint32_t error);
};
INSTANTIATE_TEST_SUITE_P(Kinds, KernelFiles, testing::ValuesIn(kinds),
                         [](const auto& instance) { return std::string(instance.param.name); });

/// A process that never had anything to do with the object: argument "Kind error name".
CHILD(expect_error) {
    const std::string& argument = test::argument();
    const size_t first = argument.find(' '), second = argument.find(' ', first + 1);
    const auto error = static_cast<uint32_t>(std::stoul(argument.substr(first + 1)));
    for (const Kind& kind : kinds) {
        if (argument.substr(0, first) != kind.name) continue;
        const Handle created(kind.create(argument.substr(second + 1)));
        const Handle opened(kind.open(argument.substr(second + 1)));
        const bool refused = !created.value && created.error == error && !opened.value && opened.error == error;
        std::_Exit(refused ? 0 : 1);
    }
    std::_Exit(2);
}
int KernelFiles::start_fresh(uint32_t error) {
    return start(expect_error, GetParam().name + (" " + std::to_string(error) + " ") + object_name()).wait();
}

TEST_P(KernelFiles, AreForTheirUserAlone) {
    in_fork([] {
        use_private_memory_disk();
        const Handle handle(create());
        struct stat found {};
        ASSERT_EQ(stat(folder().c_str(), &found), 0);
        EXPECT_EQ(found.st_mode, static_cast<mode_t>(S_IFDIR | 0700));
        ASSERT_EQ(stat(file().c_str(), &found), 0);
        EXPECT_EQ(found.st_mode, static_cast<mode_t>(S_IFREG | 0600));
        EXPECT_EQ(found.st_uid, geteuid());
    });
}

TEST_P(KernelFiles, AreMadeTheSameUnderAnyUmask) {
    for (const mode_t mask : {0000u, 0177u, 0277u, 0777u}) {
        in_fork([mask] {
            use_private_memory_disk();
            umask(mask);
            const Handle handle(create());
            EXPECT_EQ(handle.error, 0u);
            struct stat found {};
            ASSERT_EQ(stat(folder().c_str(), &found), 0);
            EXPECT_EQ(found.st_mode, static_cast<mode_t>(S_IFDIR | 0700));
            ASSERT_EQ(stat(file().c_str(), &found), 0);
            EXPECT_EQ(found.st_mode, static_cast<mode_t>(S_IFREG | 0600));
            EXPECT_EQ(start_fresh(KZMKERNEL_ERROR_ACCESS_DENIED), 1);
        });
    }
}

TEST_P(KernelFiles, AreRemovedWithTheLastHandle) {
    Handle first(create());
    Handle second(create());
    EXPECT_TRUE(fs::exists(file()));
    first.close();
    EXPECT_TRUE(fs::exists(file()));
    second.close();
    EXPECT_FALSE(fs::exists(file()));
}

TEST_P(KernelFiles, OfDeadHoldersAreRemovedByTheFirstCreatorOfAnyObject) {
    in_fork([] {
        use_private_memory_disk();
        Sign held;
        Forked holder([&] {
            create();
            held.give();
            hang();
        });
        held.await();
        holder.kill();
        EXPECT_TRUE(fs::exists(file()));
        const Handle other(create_mutex("other"));
        EXPECT_FALSE(fs::exists(file()));
    });
}

TEST_P(KernelFiles, OfSize0AreReplacedWhenNobodyHoldsThem) {
    { const Handle folder_maker(create()); }
    make_proper_file(file(), 0);
    const Handle opened(open());
    EXPECT_EQ(opened.error, uint32_t{KZMKERNEL_ERROR_FILE_NOT_FOUND});
    expect_new(GetParam().create, object_name());
}

TEST_P(KernelFiles, LeftByAKilledCreatorAreReplaced) {
    { const Handle folder_maker(create()); }
    make_proper_file(folder() / ".new", 100);
    make_proper_file(file(), 3 * page);
    const Handle handle(create());
    EXPECT_EQ(handle.error, 0u);
    EXPECT_FALSE(fs::exists(folder() / ".new"));
    EXPECT_EQ(fs::file_size(file()), page);
}

TEST_P(KernelFiles, WithAWiderModeAreRefused) {
    { const Handle folder_maker(create()); }
    for (const unsigned mode : {0660u, 0604u, 0700u, 04600u}) {
        make_proper_file(file(), page);
        ASSERT_EQ(chmod(file().c_str(), mode), 0);
        expect_refused(KZMKERNEL_ERROR_ACCESS_DENIED);
        fs::remove(file());
    }
    expect_new(GetParam().create, object_name());
}

TEST_P(KernelFiles, WithASecondLinkAreRefused) {
    { const Handle folder_maker(create()); }
    make_proper_file(file(), page);
    const fs::path second = file().string() + "-second";
    fs::create_hard_link(file(), second);
    expect_refused(KZMKERNEL_ERROR_ACCESS_DENIED);
    fs::remove(second);
    expect_new(GetParam().create, object_name());
}

TEST_P(KernelFiles, ThatAreSymbolicLinksAreRefusedAndNotFollowed) {
    { const Handle folder_maker(create()); }
    const test::TemporaryFolder elsewhere;
    for (const fs::path& target : {elsewhere.path() / "made", elsewhere.path() / "there"}) {
        if (target.filename() == "there") make_proper_file(target, page);
        fs::create_symlink(target, file());
        expect_refused(KZMKERNEL_ERROR_ACCESS_DENIED);
        fs::remove(file());
    }
    EXPECT_FALSE(fs::exists(elsewhere.path() / "made"));
    EXPECT_EQ(test::contents_of(elsewhere.path() / "there"), std::string(page, 'x'));
}

TEST_P(KernelFiles, ThatAreNoRegularFilesAreRefusedAtOnce) {
    { const Handle folder_maker(create()); }
    ASSERT_EQ(mkfifo(file().c_str(), 0600), 0);
    expect_refused(KZMKERNEL_ERROR_ACCESS_DENIED);
    fs::remove(file());

    ASSERT_EQ(mkdir(file().c_str(), 0600), 0);
    expect_refused(KZMKERNEL_ERROR_ACCESS_DENIED);
    fs::remove(file());

    ASSERT_EQ(mknod(file().c_str(), S_IFSOCK | 0600, 0), 0);
    expect_refused(KZMKERNEL_ERROR_ACCESS_DENIED);
    fs::remove(file());
}

TEST_P(KernelFiles, OfAnotherUserAreRefused) {
    in_fork([] {
        use_private_memory_disk();
        { const Handle folder_maker(create()); }
        make_proper_file(file(), page);
        give_away(file());
        expect_refused(KZMKERNEL_ERROR_ACCESS_DENIED);
    });
}

TEST_P(KernelFiles, InAFolderOfAnotherUserAreRefused) {
    in_fork([] {
        use_private_memory_disk();
        fs::create_directory(folder());
        fs::permissions(folder(), fs::perms::owner_all);
        give_away(folder());
        expect_refused(KZMKERNEL_ERROR_ACCESS_DENIED);
    });
}

TEST_P(KernelFiles, InAFolderOpenToOthersAreRefused) {
    in_fork([] {
        use_private_memory_disk();
        fs::create_directory(folder());
        for (const unsigned mode : {0755u, 0701u, 0777u, 0710u}) {
            ASSERT_EQ(chmod(folder().c_str(), mode), 0);
            expect_refused(KZMKERNEL_ERROR_ACCESS_DENIED);
        }
        // Fewer permissions than ours are what a creator leaves that was killed in between.
        for (const unsigned mode : {0000u, 0500u, 0600u}) {
            ASSERT_EQ(chmod(folder().c_str(), mode), 0);
            expect_new(GetParam().create, object_name());
        }
    });
}

TEST_P(KernelFiles, InAFolderThatIsALinkAreRefused) {
    in_fork([] {
        use_private_memory_disk();
        fs::create_directory("/dev/shm/elsewhere");
        fs::permissions("/dev/shm/elsewhere", fs::perms::owner_all);
        fs::create_directory_symlink("/dev/shm/elsewhere", folder());
        expect_refused(KZMKERNEL_ERROR_ACCESS_DENIED);
        EXPECT_TRUE(fs::is_empty("/dev/shm/elsewhere"));
        fs::remove(folder());
        write_text(folder(), "a file");
        expect_refused(KZMKERNEL_ERROR_ACCESS_DENIED);
    });
}

TEST_P(KernelFiles, OnADiskWhereOthersMayReplaceTheFolderAreRefused) {
    in_fork([] {
        use_private_memory_disk();
        ASSERT_EQ(chmod("/dev/shm", 0777), 0);
        expect_refused(KZMKERNEL_ERROR_ACCESS_DENIED);
    });
}

// The file under a living object.

TEST_P(KernelFiles, RemovedUnderALivingObjectAreNoticed) {
    Handle holder(create());
    ASSERT_EQ(holder.error, 0u);
    fs::remove(file());
    expect_refused(KZMKERNEL_ERROR_FILE_INVALID);
    holder.close();
    expect_new(GetParam().create, object_name());
}

TEST_P(KernelFiles, ReplacedUnderALivingObjectAreNoticed) {
    Handle holder(create());
    fs::remove(file());
    make_proper_file(file(), page);
    expect_refused(KZMKERNEL_ERROR_FILE_INVALID);
    holder.close();
    expect_new(GetParam().create, object_name());
}

TEST_P(KernelFiles, OfTwoLivingObjectsThatWereExchangedAreNoticed) {
    const std::string name = object_name(), other_name = name + "2";
    Handle holder(create()), other(GetParam().create(other_name));
    const fs::path other_file = GetParam().file(other_name);
    fs::rename(file(), folder() / "x.aside");
    fs::rename(other_file, file());
    fs::rename(folder() / "x.aside", other_file);
    expect_refused(KZMKERNEL_ERROR_FILE_INVALID);
    fs::rename(other_file, folder() / "x.aside");
    fs::rename(file(), other_file);
    fs::rename(folder() / "x.aside", file());
    const Handle again(create());
    EXPECT_EQ(again.error, uint32_t{KZMKERNEL_ERROR_ALREADY_EXISTS});
}

TEST_P(KernelFiles, CutShortUnderALivingObjectAreNoticed) {
    const Handle holder(create());
    for (const size_t size : {size_t{0}, size_t{1}, 2 * page}) {
        fs::resize_file(file(), size);
        expect_refused(KZMKERNEL_ERROR_FILE_INVALID);
    }
}

TEST_P(KernelFiles, LinkedASecondTimeUnderALivingObjectAreRefused) {
    const Handle holder(create());
    const fs::path second = file().string() + "-second";
    fs::create_hard_link(file(), second);
    expect_refused(KZMKERNEL_ERROR_ACCESS_DENIED);
    fs::remove(second);
    const Handle again(create());
    EXPECT_EQ(again.error, uint32_t{KZMKERNEL_ERROR_ALREADY_EXISTS});
}

TEST_P(KernelFiles, RemovedWithTheirFolderAreNoticed) {
    in_fork([] {
        use_private_memory_disk();
        Handle holder(create());
        fs::remove_all(folder());
        expect_refused(KZMKERNEL_ERROR_FILE_INVALID);
        // Another folder beside the first one would hold second objects of all the names.
        EXPECT_EQ(Handle(create_mutex("other")).error, uint32_t{KZMKERNEL_ERROR_FILE_INVALID});
        fs::create_directory(folder());
        fs::permissions(folder(), fs::perms::owner_all);
        expect_refused(KZMKERNEL_ERROR_FILE_INVALID);
        holder.close();
        expect_new(GetParam().create, object_name());
    });
}

// Folders are never removed by the library, so they may be by others once nobody holds anything.
TEST_P(KernelFiles, AreMadeAgainWhenTheirFolderWasRemovedWhileNobodyHeldThem) {
    in_fork([] {
        use_private_memory_disk();
        { const Handle handle(create()); }
        fs::remove_all(folder());
        const Handle opened(open());
        EXPECT_EQ(opened.error, uint32_t{KZMKERNEL_ERROR_FILE_NOT_FOUND});
        EXPECT_FALSE(fs::exists(folder()));
        expect_new(GetParam().create, object_name());
    });
}

TEST_P(KernelFiles, AreMadeOnceBySimultaneousCreatorsWithTheirFolder) {
    in_fork([] {
        use_private_memory_disk();
        constexpr int creators = 4;
        for (int round = 0; round < 100 && !HasFailure(); ++round) {
            fs::remove_all(folder());
            Sign go, over;
            int results[2];
            ASSERT_EQ(pipe2(results, O_CLOEXEC), 0);
            std::vector<std::unique_ptr<Forked>> children;
            children.reserve(creators);
            for (int i = 0; i < creators; ++i) {
                children.push_back(std::make_unique<Forked>([&] {
                    go.await();
                    const Handle handle(create());
                    if (write(results[1], &handle.error, sizeof handle.error) < 0) std::abort();
                    over.await();
                }));
            }
            for (int i = 0; i < creators; ++i) go.give();
            std::vector<uint32_t> errors(creators);
            for (uint32_t& error : errors) {
                ASSERT_EQ(read(results[0], &error, sizeof error), static_cast<ssize_t>(sizeof error));
            }
            for (int i = 0; i < creators; ++i) over.give();
            for (const auto& child : children) EXPECT_EQ(child->wait(), 0);
            EXPECT_THAT(errors, testing::UnorderedElementsAre(0u, 183u, 183u, 183u)) << round;
            close(results[0]);
            close(results[1]);
        }
    });
}

// Names and arguments.

TEST(KernelName, MayHave200Bytes) {
    const std::string name = object_name(), longest = name + std::string(200 - name.size(), 'n');
    EXPECT_EQ(Handle(create_mutex(longest)).error, 0u);
    EXPECT_EQ(Handle(create_mapping(longest)).error, 0u);
}

TEST(KernelName, ThatIsNoneIsRefused) {
    for (const std::string& name :
         {std::string(), std::string(201, 'n'), std::string("."), std::string(".new"), std::string("../x"),
          std::string("a/b"), std::string("a\nb"), std::string("a\x7F")}) {
        EXPECT_EQ(Handle(create_mutex(name)).error, uint32_t{KZMKERNEL_ERROR_INVALID_NAME}) << name;
        EXPECT_EQ(Handle(open_mutex(name)).error, uint32_t{KZMKERNEL_ERROR_INVALID_NAME}) << name;
        EXPECT_EQ(Handle(create_mapping(name)).error, uint32_t{KZMKERNEL_ERROR_INVALID_NAME}) << name;
        EXPECT_EQ(Handle(open_mapping(name)).error, uint32_t{KZMKERNEL_ERROR_INVALID_NAME}) << name;
    }
    EXPECT_EQ(Handle(kzmkernel_create_mutex(nullptr)).error, uint32_t{KZMKERNEL_ERROR_INVALID_PARAMETER});
}

TEST(KernelName, MayHaveAnyOtherBytes) {
    const Handle handle(create_mutex(object_name() + " Global\\\xC3\xA4\xFF.new"));
    EXPECT_EQ(handle.error, 0u);
}

TEST(KernelMappingArguments, AreChecked) {
    const std::string name = object_name();
    EXPECT_EQ(Handle(kzmkernel_create_mapping(2, page, name.c_str())).error,
              uint32_t{KZMKERNEL_ERROR_INVALID_PARAMETER});
    EXPECT_EQ(Handle(kzmkernel_open_mapping(0, name.c_str())).error, uint32_t{KZMKERNEL_ERROR_INVALID_PARAMETER});
    const Handle mapping(create_mapping(name, uint64_t{3} * 65536));
    const auto error_of = [&](uint32_t access, uint64_t offset, size_t length) {
        EXPECT_EQ(kzmkernel_map_view(mapping.value, access, offset, length), nullptr);
        return kzmkernel_last_error();
    };
    EXPECT_EQ(error_of(0, 0, 0), uint32_t{KZMKERNEL_ERROR_INVALID_PARAMETER});
    EXPECT_EQ(error_of(2, page, 0), uint32_t{KZMKERNEL_ERROR_MAPPED_ALIGNMENT});
    EXPECT_EQ(error_of(2, uint64_t{3} * 65536, 0), uint32_t{KZMKERNEL_ERROR_ACCESS_DENIED});
    EXPECT_EQ(error_of(2, 65536, 2 * 65536 + 1), uint32_t{KZMKERNEL_ERROR_ACCESS_DENIED});
    EXPECT_EQ(error_of(2, 0, SIZE_MAX), uint32_t{KZMKERNEL_ERROR_ACCESS_DENIED});
    char* const whole = map(mapping.value);
    auto* const part = static_cast<char*>(kzmkernel_map_view(mapping.value, 2, 65536, page + 1));
    EXPECT_EQ(kzmkernel_view_size(part), 2 * page);
    part[0] = 'p';
    EXPECT_EQ(whole[65536], 'p');
    EXPECT_EQ(kzmkernel_view_size(whole + page), 0u);
    EXPECT_FALSE(kzmkernel_unmap_view(whole + page));
    EXPECT_EQ(kzmkernel_last_error(), uint32_t{KZMKERNEL_ERROR_INVALID_ADDRESS});
    EXPECT_TRUE(kzmkernel_unmap_view(part));
    EXPECT_FALSE(kzmkernel_unmap_view(part));
    EXPECT_EQ(kzmkernel_view_size(part), 0u);
    EXPECT_TRUE(kzmkernel_unmap_view(whole));
}

TEST(KernelMutexOpen, FindsOnlyWhatLives) {
    const std::string name = object_name();
    EXPECT_EQ(Handle(open_mutex(name)).error, uint32_t{KZMKERNEL_ERROR_FILE_NOT_FOUND});
    const Handle created(create_mutex(name));
    kzmkernel_set_last_error(77);
    const Handle opened(open_mutex(name));
    EXPECT_NE(opened.value, nullptr);
    EXPECT_EQ(opened.error, 77u);
    EXPECT_EQ(kzmkernel_wait(created.value, 0), uint32_t{KZMKERNEL_WAIT_OWNED});
    EXPECT_TRUE(kzmkernel_release(opened.value));
}

// Memory.

TEST(KernelMemory, ThatIsNotThereFailsTheCreateAndLeavesNothing) {
    in_fork([] {
        use_private_memory_disk("size=256k");
        const std::string name = object_name();
        for (const uint64_t size : {uint64_t{1} << 20, 257 * kib, uint64_t{1} << 40, uint64_t{INT64_MAX}}) {
            const Handle mapping(create_mapping(name, size));
            EXPECT_EQ(mapping.value, nullptr);
            EXPECT_THAT(mapping.error, testing::AnyOf(uint32_t{KZMKERNEL_ERROR_DISK_FULL},
                                                      uint32_t{KZMKERNEL_ERROR_NOT_ENOUGH_MEMORY}));
            EXPECT_TRUE(fs::is_empty(folder()));
        }
        EXPECT_EQ(Handle(create_mapping(name, UINT64_MAX)).error, uint32_t{KZMKERNEL_ERROR_NOT_ENOUGH_MEMORY});
        const Handle first(create_mapping(name, 200 * kib));
        ASSERT_EQ(first.error, 0u);
        const Handle second(create_mapping(name + "2", 100 * kib));
        EXPECT_EQ(second.error, uint32_t{KZMKERNEL_ERROR_DISK_FULL});
        EXPECT_FALSE(fs::exists(file_of_mapping(name + "2")));
        EXPECT_FALSE(fs::exists(folder() / ".new"));
        // All of it is there, whatever fills the rest of the disk.
        write_text("/dev/shm/rest", std::string(256 * kib, 'r'));
        char* const view = map(first.value);
        std::memset(view, 1, 200 * kib);
    });
}

TEST(KernelMemory, OfADeadObjectIsThereForTheNext) {
    in_fork([] {
        use_private_memory_disk("size=256k");
        Sign held;
        Forked holder([&] {
            create_mapping("large", 200 * kib);
            held.give();
            hang();
        });
        held.await();
        holder.kill();
        EXPECT_EQ(Handle(create_mapping("other", 200 * kib)).error, 0u);
    });
}

TEST(KernelMemory, ThatEndsInTheMiddleOfAnAllocationFailsTheCreate) {
    in_fork([] {
        // What is free is asked for first, so only one who takes the rest meanwhile makes an allocation fail half-way:
        // a limit on the size of files does the same to order.
        use_private_memory_disk();
        signal(SIGXFSZ, SIG_IGN);
        const rlimit limit{20u << 20, 20u << 20};
        ASSERT_EQ(setrlimit(RLIMIT_FSIZE, &limit), 0);
        const Handle mapping(create_mapping(object_name(), 40u << 20));
        EXPECT_EQ(mapping.error, uint32_t{KZMKERNEL_ERROR_NOT_ENOUGH_MEMORY});
        EXPECT_TRUE(fs::is_empty(folder()));
    });
}

// Kernels differ in whether a signal ends an allocation, so the calls are made to fail from outside.
TEST(KernelMemory, IsAllocatedWhileSignalsEndTheCalls) {
    constexpr uint64_t size = 5u << 20;
    Traced creator([&] {
        const Handle mapping(create_mapping(object_name(), size));
        EXPECT_EQ(mapping.error, 0u);
        char* const view = map(mapping.value);
        ASSERT_NE(view, nullptr);
        std::memset(view, 1, size);
        struct stat found {};
        EXPECT_EQ(stat(file_of_mapping(object_name()).c_str(), &found), 0);
        EXPECT_EQ(static_cast<uint64_t>(found.st_blocks) * 512, size);
    });
    int allocations = 0, ended = 0;
    while (creator.step()) {
        const std::vector<uint64_t> call = creator.entered();
        if (call.empty() || call[0] != SYS_fallocate || allocations++ % 3 == 2) continue;
        creator.fail_call(EINTR);
        ++ended;
    }
    EXPECT_EQ(creator.status(), 0);
    EXPECT_GE(ended, 2);
}

TEST(KernelObjectNumber, IsOneForAllHandlesAndProcessesAndAnotherForItsSuccessor) {
    Handle mapping(create_mapping(object_name()));
    const uint64_t number = kzmkernel_object_number(mapping.value);
    EXPECT_NE(number, 0u);
    Handle again(create_mapping(object_name()));
    EXPECT_EQ(kzmkernel_object_number(again.value), number);
    Forked other([&] {
        const Handle opened(kzmkernel_open_mapping(4, object_name().c_str()));
        _exit(kzmkernel_object_number(opened.value) == number ? 0 : 1);
    });
    EXPECT_EQ(other.wait(), 0);
    const Handle another(create_mapping(object_name() + "2"));
    EXPECT_NE(kzmkernel_object_number(another.value), number);
    mapping.close();
    again.close();
    const Handle successor(create_mapping(object_name()));
    EXPECT_EQ(successor.error, 0u);
    EXPECT_NE(kzmkernel_object_number(successor.value), number);
}

TEST(KernelObjectNumber, NeedsAnOpenHandle) {
    EXPECT_EQ(kzmkernel_object_number(nullptr), 0u);
    EXPECT_EQ(kzmkernel_last_error(), uint32_t{KZMKERNEL_ERROR_INVALID_HANDLE});
    const Handle mutex(create_mutex(object_name()));
    EXPECT_NE(kzmkernel_object_number(mutex.value), 0u);
}

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

TEST(KernelFork, ChildOfAnOwnerTakesTheLockLikeAnybody) {
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

class KernelForkOf : public testing::TestWithParam<Kind> {};
INSTANTIATE_TEST_SUITE_P(Kinds, KernelForkOf, testing::ValuesIn(kinds),
                         [](const auto& instance) { return std::string(instance.param.name); });

TEST_P(KernelForkOf, ChildKeepsAnObjectAliveAsLongAsItLives) {
    Handle handle(GetParam().create(object_name()));
    Forked child(hang);
    handle.close();
    EXPECT_EQ(Handle(GetParam().create(object_name())).error, uint32_t{KZMKERNEL_ERROR_ALREADY_EXISTS});
    child.kill();
    expect_new(GetParam().create, object_name());
}

TEST_P(KernelForkOf, ChildThatClosesItsCopyLeavesTheParents) {
    const Handle handle(GetParam().create(object_name()));
    in_fork([&] { EXPECT_TRUE(kzmkernel_close(handle.value)); });
    EXPECT_TRUE(fs::exists(GetParam().file(object_name())));
    EXPECT_EQ(Handle(GetParam().create(object_name())).error, uint32_t{KZMKERNEL_ERROR_ALREADY_EXISTS});
}

TEST_P(KernelForkOf, ChildThatClosesLastRemovesTheFile) {
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

TEST_P(KernelForkOf, HandlesAreClosedByExec) {
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

TEST(KernelFork, ChildIsNotHeldUpByWhatOtherThreadsWereDoing) {
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

TEST(KernelFork, ChildEndsAnObjectThatAThreadOfItsParentWaitedFor) {
    const std::string name = object_name();
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

// Process-id namespaces.

TEST(KernelProcessNamespace, OfAnotherProcessRefusesItsMutexes) {
    const std::string name = object_name();
    const Handle mutex(create_mutex(name));
    const Handle mapping(create_mapping(name + "m"));
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

TEST(KernelProcessNamespace, ThatCannotBeToldRefusesMutexes) {
    in_fork([] {
        use_private_memory_disk();
        ASSERT_EQ(mount("tmpfs", "/proc", "tmpfs", 0, nullptr), 0);
        EXPECT_EQ(Handle(create_mutex(object_name())).error, uint32_t{KZMKERNEL_ERROR_ACCESS_DENIED});
        EXPECT_EQ(Handle(create_mapping(object_name())).error, 0u);
    });
}

// Descriptors.

TEST(KernelDescriptors, NeverTakeThePlaceOfAClosedStandardStream) {
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

TEST(KernelDescriptors, ThatHaveRunOutFailWith4AndStopNobody) {
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
TEST(KernelDescriptors, ThatRunOutHalfWayLeaveNothing) {
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

// Handles.

TEST(KernelHandles, OfTheWholeTableAreAllDifferentAndThenFailWith4) {
    const std::string name = object_name();
    std::set<void*> handles;
    void* last = nullptr;
    while ((last = create_mutex(name)) != nullptr) ASSERT_TRUE(handles.insert(last).second);
    EXPECT_EQ(kzmkernel_last_error(), uint32_t{KZMKERNEL_ERROR_TOO_MANY_OPEN_FILES});
    EXPECT_GE(handles.size(), 65536u);
    for (void* const handle : handles) ASSERT_TRUE(kzmkernel_close(handle));
    EXPECT_FALSE(fs::exists(file_of_mutex(name)));
    // Places are used again, numbers are not.
    for (int i = 0; i < 1000; ++i) {
        const Handle handle(create_mutex(name));
        ASSERT_NE(handle.value, nullptr);
        ASSERT_TRUE(handles.insert(handle.value).second);
    }
}

TEST(KernelHandles, WithAnyBitChangedAreInvented) {
    const Handle mutex(create_mutex(object_name()));
    const auto number = reinterpret_cast<uintptr_t>(mutex.value);
    for (int bit = 0; bit < 64; ++bit) {
        void* const invented = reinterpret_cast<void*>(number ^ uintptr_t{1} << bit);
        kzmkernel_set_last_error(0);
        EXPECT_EQ(kzmkernel_wait(invented, 0), uint32_t{KZMKERNEL_WAIT_FAILED}) << bit;
        EXPECT_EQ(kzmkernel_last_error(), uint32_t{KZMKERNEL_ERROR_INVALID_HANDLE}) << bit;
        EXPECT_FALSE(kzmkernel_close(invented)) << bit;
    }
    EXPECT_FALSE(kzmkernel_close(reinterpret_cast<void*>(UINTPTR_MAX)));
}

TEST(KernelHandles, MayBeUsedAndClosedByManyThreadsAtOnce) {
    const std::string name = object_name();
    constexpr size_t places = 8;
    std::array<std::atomic<void*>, places> shared{};
    std::atomic<int> inside{0};
    std::atomic<int> taken{0};
    std::vector<std::thread> threads;
    for (unsigned seed = 1; seed <= 6; ++seed) {
        threads.emplace_back([&, seed] {
            std::minstd_rand random(seed);
            for (int i = 0; i < 3000; ++i) {
                std::atomic<void*>& place = shared[random() % places];
                switch (random() % 4) {
                    case 0:
                        if (void* const old = place.exchange(create_mutex(name))) {
                            EXPECT_TRUE(kzmkernel_close(old));
                        }
                        break;
                    case 1:
                        if (void* const old = place.exchange(nullptr)) {
                            EXPECT_TRUE(kzmkernel_close(old));
                        }
                        break;
                    default: {
                        const Handle own(create_mutex(name));
                        if (kzmkernel_wait(place, 1) != KZMKERNEL_WAIT_OWNED) break;
                        EXPECT_EQ(inside.fetch_add(1), 0);
                        ++taken;
                        inside.fetch_sub(1);
                        EXPECT_TRUE(kzmkernel_release(own.value));
                        break;
                    }
                }
            }
        });
    }
    for (std::thread& thread : threads) thread.join();
    for (std::atomic<void*>& place : shared) {
        if (place) kzmkernel_close(place);
    }
    EXPECT_GT(taken, 100);
    EXPECT_FALSE(fs::exists(file_of_mutex(name)));
}

/// How often a file is mapped into this process.
size_t mappings_of(const std::string& file) {
    const std::string maps = test::contents_of("/proc/self/maps");
    size_t count = 0;
    for (size_t at = maps.find(file); at != std::string::npos; at = maps.find(file, at + 1)) ++count;
    return count;
}

TEST(KernelHandles, OfMutexesThatThreadsUsedLastMayBeClosedAndTheirPagesAreGivenBack) {
    const std::string name = object_name();
    Sign used, closed;
    void* const mutex = create_mutex(name);
    std::thread user([&] {
        for (int i = 0; i < 3; ++i) {
            EXPECT_EQ(kzmkernel_wait(mutex, 0), uint32_t{KZMKERNEL_WAIT_OWNED});
            EXPECT_TRUE(kzmkernel_release(mutex));
        }
        used.give();
        closed.await();
        EXPECT_EQ(kzmkernel_wait(mutex, 0), uint32_t{KZMKERNEL_WAIT_FAILED});
        EXPECT_EQ(kzmkernel_last_error(), uint32_t{KZMKERNEL_ERROR_INVALID_HANDLE});
        EXPECT_FALSE(kzmkernel_release(mutex));
        EXPECT_EQ(kzmkernel_last_error(), uint32_t{KZMKERNEL_ERROR_INVALID_HANDLE});
    });
    used.await();
    EXPECT_TRUE(kzmkernel_close(mutex));
    expect_new(create_mutex, name);  // the object is gone, although the thread still lives
    closed.give();
    user.join();
    expect_new(create_mutex, name + "another");
    EXPECT_EQ(mappings_of(file_of_mutex(name).filename()), 0u);
}

TEST(KernelHandles, OfManyMutexesUsedInTurnAreToldApart) {
    const Handle first(create_mutex(object_name() + "1")), second(create_mutex(object_name() + "2"));
    for (int i = 0; i < 5; ++i) {
        EXPECT_EQ(kzmkernel_wait(first.value, 0), uint32_t{KZMKERNEL_WAIT_OWNED});
        EXPECT_FALSE(kzmkernel_release(second.value));
        EXPECT_EQ(kzmkernel_wait(second.value, 0), uint32_t{KZMKERNEL_WAIT_OWNED});
        EXPECT_NE(info_of(first.value).owner_thread, 0u);
        EXPECT_TRUE(kzmkernel_release(first.value));
        EXPECT_EQ(info_of(first.value).owner_thread, 0u);
        EXPECT_NE(info_of(second.value).owner_thread, 0u);
        EXPECT_TRUE(kzmkernel_release(second.value));
    }
}

// The library itself.

/// A second copy of the library, which can be loaded and unloaded.
class LoadedCopy {
  public:
    LoadedCopy() : file_(folder_.path() / "libkzmkernel.so") {
        // The libraries of the build lie beside its programs.
        const fs::path original = fs::read_symlink("/proc/self/exe").parent_path() / "libkzmkernel.so";
        fs::copy_file(original, file_);
        load();
    }
    void load() { library_ = dlopen(file_.c_str(), RTLD_NOW | RTLD_LOCAL); }
    void unload() { dlclose(std::exchange(library_, nullptr)); }
    bool is_loaded() const { return test::contents_of("/proc/self/maps").find(file_.string()) != std::string::npos; }
    template <typename Function>
    Function* function(const char* name) const {
        return reinterpret_cast<Function*>(dlsym(library_, name));
    }

  private:
    test::TemporaryFolder folder_;
    fs::path file_;
    void* library_ = nullptr;
};
#define FUNCTION_OF(copy, name) (copy).function<decltype(name)>(#name)

TEST(KernelLibrary, IsUnloadedAfterUse) {
    const std::string name = object_name();
    LoadedCopy copy;
    for (int round = 0; round < 2; ++round) {
        ASSERT_TRUE(copy.is_loaded());
        void* const mutex = FUNCTION_OF(copy, kzmkernel_create_mutex)(name.c_str());
        ASSERT_NE(mutex, nullptr);
        std::thread([&] {
            EXPECT_EQ(FUNCTION_OF(copy, kzmkernel_wait)(mutex, 0), uint32_t{KZMKERNEL_WAIT_OWNED});
            EXPECT_TRUE(FUNCTION_OF(copy, kzmkernel_release)(mutex));
            EXPECT_FALSE(FUNCTION_OF(copy, kzmkernel_release)(mutex));
            EXPECT_EQ(FUNCTION_OF(copy, kzmkernel_last_error)(), uint32_t{KZMKERNEL_ERROR_NOT_OWNER});
        }).join();
        EXPECT_TRUE(FUNCTION_OF(copy, kzmkernel_close)(mutex));
        copy.unload();
        EXPECT_FALSE(copy.is_loaded());
        in_fork([] {});  // its fork handlers are gone
        copy.load();
    }
    copy.unload();
}

TEST(KernelLibrary, FindsItsThreadsLocksAgainWhenItIsLoadedAgain) {
    // The lock's memory stays with the process, which therefore is one that ends.
    in_fork([] {
        const std::string name = object_name();
        const Handle holder(create_mutex(name));
        LoadedCopy copy;
        void* mutex = FUNCTION_OF(copy, kzmkernel_create_mutex)(name.c_str());
        ASSERT_EQ(FUNCTION_OF(copy, kzmkernel_wait)(mutex, 0), uint32_t{KZMKERNEL_WAIT_OWNED});
        EXPECT_TRUE(FUNCTION_OF(copy, kzmkernel_close)(mutex));
        copy.unload();
        ASSERT_FALSE(copy.is_loaded());
        copy.load();
        mutex = FUNCTION_OF(copy, kzmkernel_create_mutex)(name.c_str());
        EXPECT_EQ(FUNCTION_OF(copy, kzmkernel_wait)(mutex, 0), uint32_t{KZMKERNEL_WAIT_OWNED});
        EXPECT_TRUE(FUNCTION_OF(copy, kzmkernel_release)(mutex));
        std::thread([&] { EXPECT_EQ(kzmkernel_wait(holder.value, 0), uint32_t{KZMKERNEL_WAIT_TIMEOUT}); }).join();
        EXPECT_TRUE(FUNCTION_OF(copy, kzmkernel_release)(mutex));
        std::thread([&] {
            EXPECT_EQ(kzmkernel_wait(holder.value, 0), uint32_t{KZMKERNEL_WAIT_OWNED});
            EXPECT_TRUE(kzmkernel_release(holder.value));
        }).join();
        EXPECT_TRUE(FUNCTION_OF(copy, kzmkernel_close)(mutex));
        copy.unload();
    });
}

// Killed at each system call.

/// A life with objects, every step of which a kill may end.
void live(const std::string& name) {
    void* const mutex = create_mutex(name + "x");
    void* const mapping = create_mapping(name + "m", 2 * page);
    void* const opened = open_mapping(name + "m");
    char* const view = map(mapping);
    if (!mutex || !mapping || !opened || !view) _exit(1);
    const uint32_t result = kzmkernel_wait(mutex, 5000);
    if (result != KZMKERNEL_WAIT_OWNED && result != KZMKERNEL_WAIT_ABANDONED) _exit(2);
    std::memset(view, 'w', 2 * page);
    if (!kzmkernel_release(mutex)) _exit(3);
    kzmkernel_unmap_view(view);
    kzmkernel_close(opened);
    kzmkernel_close(mapping);
    kzmkernel_close(mutex);
}

/// Runs `live` again and again and kills it one stop later each time, at the entry of a system call or on the way back;
/// the number of times. `look` is run before each (false) and after it (true).
int kill_at_each_stop(const std::string& name, const std::function<void(bool)>& look) {
    for (int stops = 1;; ++stops) {
        look(false);
        Traced child([&] { live(name); });
        bool ended = false;
        for (int i = 0; i < stops && !ended; ++i) ended = !child.step();
        if (ended) {
            EXPECT_EQ(child.status(), 0);
            return stops - 1;
        }
        child.kill();
        look(true);
        if (testing::Test::HasFailure()) {
            ADD_FAILURE() << "killed at stop " << stops;
            return stops;
        }
    }
}

bool all_are(const char* bytes, size_t size, char value) {
    return std::all_of(bytes, bytes + size, [value](char byte) { return byte == value; });
}

constexpr int fewest_stops = 60;

TEST(KernelKilledAnywhere, AloneLeavesFreeNamesAndZeros) {
    in_fork([] {
        use_private_memory_disk();
        const std::string name = object_name();
        const int stops = kill_at_each_stop(name, [&](bool after) {
            if (!after) {
                fs::remove_all(folder());  // so that making it is among the steps
                return;
            }
            in_fork([&] {
                EXPECT_EQ(Handle(open_mapping(name + "m")).error, uint32_t{KZMKERNEL_ERROR_FILE_NOT_FOUND});
                const Handle mutex(create_mutex(name + "x"));
                EXPECT_EQ(mutex.error, 0u);
                const Handle mapping(create_mapping(name + "m", 3 * page));
                EXPECT_EQ(mapping.error, 0u);
                EXPECT_EQ(kzmkernel_wait(mutex.value, 0), uint32_t{KZMKERNEL_WAIT_OWNED});
                char* const view = map(mapping.value);
                ASSERT_NE(view, nullptr);
                EXPECT_EQ(kzmkernel_view_size(view), 3 * page);
                EXPECT_TRUE(all_are(view, 3 * page, '\0'));
                EXPECT_TRUE(kzmkernel_release(mutex.value));
            });
            EXPECT_TRUE(fs::is_empty(folder()));
        });
        EXPECT_GT(stops, fewest_stops);
    });
}

TEST(KernelKilledAnywhere, BesideAHolderLeavesItsObjectsAndTheirBytes) {
    in_fork([] {
        use_private_memory_disk();
        const std::string name = object_name();
        const Handle mutex(create_mutex(name + "x")), mapping(create_mapping(name + "m", 2 * page));
        char* const view = map(mapping.value);
        const int stops = kill_at_each_stop(name, [&](bool after) {
            if (!after) {
                std::memset(view, 'o', 2 * page);
                return;
            }
            in_fork([&] {
                const Handle again(create_mutex(name + "x"));
                EXPECT_EQ(again.error, uint32_t{KZMKERNEL_ERROR_ALREADY_EXISTS});
                const Handle opened(open_mapping(name + "m"));
                char* const bytes = map(opened.value);
                ASSERT_NE(bytes, nullptr);
                EXPECT_TRUE(all_are(bytes, 2 * page, 'o') || all_are(bytes, 2 * page, 'w'));
                const uint32_t result = kzmkernel_wait(again.value, 5000);
                EXPECT_TRUE(result == KZMKERNEL_WAIT_OWNED || result == KZMKERNEL_WAIT_ABANDONED) << result;
                EXPECT_TRUE(kzmkernel_release(again.value));
                EXPECT_EQ(kzmkernel_wait(again.value, 0), uint32_t{KZMKERNEL_WAIT_OWNED});
                EXPECT_TRUE(kzmkernel_release(again.value));
            });
        });
        EXPECT_GT(stops, fewest_stops);
    });
}

TEST(KernelKilledAnywhere, InATakeOverHandsTheLockOnAsAbandoned) {
    in_fork([] {
        use_private_memory_disk();
        const std::string name = object_name();
        const Handle mutex(create_mutex(name + "x"));
        int reported = 0, lost = 0;
        const int stops = kill_at_each_stop(name, [&](bool after) {
            if (!after) {
                in_fork([&] { kzmkernel_wait(mutex.value, 0); });
                return;
            }
            in_fork([&] {
                const uint32_t result = kzmkernel_wait(mutex.value, 5000);
                EXPECT_TRUE(result == KZMKERNEL_WAIT_OWNED || result == KZMKERNEL_WAIT_ABANDONED) << result;
                EXPECT_TRUE(kzmkernel_release(mutex.value));
                _exit(testing::Test::HasFailure() ? 1 : 0);
            });
            // It had been abandoned: either the killed one was told, or the next one is.
            reported += info_of(mutex.value).takeovers > static_cast<uint64_t>(lost);
            lost = static_cast<int>(info_of(mutex.value).takeovers);
        });
        EXPECT_EQ(reported, stops);
        EXPECT_GT(stops, fewest_stops);
    });
}

// The calls of a wait that blocks and of a release that wakes: without contention neither enters the kernel.
TEST(KernelKilledAnywhere, WhileItWaitsOrHandsOnStopsNobody) {
    const std::string name = object_name();
    const Handle mutex(create_mutex(name));
    bool ended = false;
    int stops = 1;
    for (; !ended && !HasFailure(); ++stops) {
        // The one killed before may have been the last to get it.
        const uint32_t begin = kzmkernel_wait(mutex.value, 0);
        ASSERT_TRUE(begin == KZMKERNEL_WAIT_OWNED || begin == KZMKERNEL_WAIT_ABANDONED) << stops << ' ' << begin;
        {
            Traced child([&] {
                if (kzmkernel_wait(mutex.value, 20'000) != KZMKERNEL_WAIT_OWNED || !kzmkernel_release(mutex.value))
                    _exit(1);
            });
            int done = 0;
            const auto enters_futex = [&] {
                const std::vector<uint64_t> call = child.entered();
                return !call.empty() && call[0] == SYS_futex;
            };
            while (done < stops && child.step()) {
                ++done;
                if (enters_futex()) break;
            }
            if (done < stops) {
                // It blocks now, and another one behind it, which it has to wake.
                child.go();
                until_it_sleeps_in_a_futex(child.id(), child.id());
            }
            SleepingWaiter waiter(mutex.value);
            EXPECT_TRUE(kzmkernel_release(mutex.value));
            if (done < stops) {
                ended = !child.stands();
                ++done;
                while (!ended && done < stops) {
                    ended = !child.step();
                    ++done;
                }
            }
            if (ended) {
                EXPECT_EQ(child.status(), 0);
            } else {
                child.kill();
            }
            const uint32_t result = waiter.result();
            EXPECT_TRUE(result == KZMKERNEL_WAIT_OWNED || result == KZMKERNEL_WAIT_ABANDONED) << stops << ' ' << result;
        }
    }
    EXPECT_GT(stops, 5);
}

}  // namespace
