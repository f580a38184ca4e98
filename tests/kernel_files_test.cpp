// The files in which kzmkernel keeps its objects, and their folder: who may use them, which others are refused, and
// what is noticed when they are removed or changed.
#include <fcntl.h>
#include <gmock/gmock.h>
#include <kzmkernel.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <iterator>
#include <memory>
#include <string>
#include <vector>

#include "support/child.h"
#include "support/forked_linux.h"
#include "support/kernel_linux.h"
#include "support/memory_disk_linux.h"
#include "support/temporary_folder.h"
#include "support/traced_linux.h"

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

TEST_P(KernelFiles, AreAccessibleToTheirUserOnly) {
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

TEST_P(KernelFiles, HaveTheSameModesUnderAnyUmask) {
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

TEST_P(KernelFiles, AreRemovedByTheNextCreatorWhenTheirHoldersDied) {
    in_fork([] {
        use_private_memory_disk();
        Sign held;
        Forked holder([&] {
            create();
            held.give();
            pause_forever();
        });
        held.await();
        holder.kill();
        EXPECT_TRUE(fs::exists(file()));
        const Handle other(create_mutex("other"));
        EXPECT_FALSE(fs::exists(file()));
    });
}

TEST_P(KernelFiles, AreRemovedByTheNextCreatorHoweverManyADeadHolderHad) {
    in_fork([] {
        use_private_memory_disk();
        Sign held;
        Forked holder([&] {
            for (int i = 0; i < 40; ++i) GetParam().create(object_name() + std::to_string(i));
            held.give();
            pause_forever();
        });
        held.await();
        holder.kill();
        EXPECT_EQ(std::distance(fs::directory_iterator(folder()), fs::directory_iterator()), 40);
        const Handle other(create_mutex("other"));
        EXPECT_EQ(std::distance(fs::directory_iterator(folder()), fs::directory_iterator()), 1);
    });
}

TEST_P(KernelFiles, FailACreateWith112WhenTheDiskTakesNoMoreFiles) {
    in_fork([] {
        use_private_memory_disk("nr_inodes=3");
        EXPECT_EQ(Handle(create()).error, uint32_t{KZMKERNEL_ERROR_DISK_FULL});
        EXPECT_TRUE(fs::is_empty(folder()));
    });
}

TEST_P(KernelFiles, AreReplacedWhenTheyAreEmptyAndNobodyHoldsThem) {
    { const Handle folder_maker(create()); }
    make_proper_file(file(), 0);
    const Handle opened(open());
    EXPECT_EQ(opened.error, uint32_t{KZMKERNEL_ERROR_FILE_NOT_FOUND});
    EXPECT_TRUE(fs::exists(file())) << "only a creator replaces it";
    expect_new(GetParam().create, object_name());
}

TEST(KernelFile, IsLeftAloneIfNoObjectCanHaveIt) {
    in_fork([] {
        use_private_memory_disk();
        { const Handle folder_maker(create_mutex(object_name())); }
        make_proper_file(folder() / "wide", page);
        ASSERT_EQ(chmod((folder() / "wide").c_str(), 0644), 0);
        make_proper_file(folder() / "linked", page);
        fs::create_hard_link(folder() / "linked", folder() / "link");
        ASSERT_EQ(mkfifo((folder() / "fifo").c_str(), 0600), 0);
        expect_new(create_mutex, object_name());
        for (const char* const name : {"wide", "linked", "link", "fifo"}) EXPECT_TRUE(fs::exists(folder() / name));
    });
}

TEST_P(KernelFiles, AreReplacedWhenNoObjectHasTheirSizeAlthoughTheyAreOpen) {
    { const Handle folder_maker(create()); }
    for (const size_t size : {size_t{0}, size_t{100}}) {
        make_proper_file(file(), size);
        const int held = ::open(file().c_str(), O_RDONLY | O_CLOEXEC);
        ASSERT_GE(held, 0);
        expect_new(GetParam().create, object_name());
        ::close(held);
    }
}

TEST(KernelFile, IsRefusedIfItIsInUseAndNotAsLargeAsAMutex) {
    { const Handle folder_maker(create_mutex(object_name())); }
    make_proper_file(file_of_mutex(object_name()), 2 * page);
    const int held = ::open(file_of_mutex(object_name()).c_str(), O_RDONLY | O_CLOEXEC);
    ASSERT_GE(held, 0);
    expect_mutex_refused(KZMKERNEL_ERROR_ACCESS_DENIED);
    ::close(held);
    expect_new(create_mutex, object_name());
}

// Looking at a file takes a moment, in which a dead object's file looks as if it were in use.
TEST_P(KernelFiles, AreDeadObjectsIfTheirLastReaderClosesThemSoon) {
    in_fork([&] {
        use_private_memory_disk();
        { const Handle folder_maker(create()); }
        make_proper_file(file(), page);
        Traced user([&] { EXPECT_EQ(Handle(open()).error, uint32_t{KZMKERNEL_ERROR_FILE_NOT_FOUND}); });
        const int read = ::open(file().c_str(), O_RDONLY | O_CLOEXEC);
        ASSERT_GE(read, 0);
        user.run_until_it_enters(SYS_clock_nanosleep);
        ::close(read);
        while (user.step()) {
        }
        EXPECT_EQ(user.status(), 0);
    });
}

TEST_P(KernelFiles, AreReplacedWhenAKilledCreatorLeftThem) {
    { const Handle folder_maker(create()); }
    make_proper_file(folder() / ".new", 100);
    make_proper_file(file(), 3 * page);
    const Handle handle(create());
    EXPECT_EQ(handle.error, 0u);
    EXPECT_FALSE(fs::exists(folder() / ".new"));
    EXPECT_EQ(fs::file_size(file()), page);
}

TEST_P(KernelFiles, AreRefusedWithAWiderMode) {
    { const Handle folder_maker(create()); }
    for (const unsigned mode : {0660u, 0604u, 0700u, 04600u}) {
        make_proper_file(file(), page);
        ASSERT_EQ(chmod(file().c_str(), mode), 0);
        expect_refused(KZMKERNEL_ERROR_ACCESS_DENIED);
        fs::remove(file());
    }
    expect_new(GetParam().create, object_name());
}

TEST_P(KernelFiles, AreRefusedWithASecondLink) {
    { const Handle folder_maker(create()); }
    make_proper_file(file(), page);
    const fs::path second = file().string() + "-second";
    fs::create_hard_link(file(), second);
    expect_refused(KZMKERNEL_ERROR_ACCESS_DENIED);
    fs::remove(second);
    expect_new(GetParam().create, object_name());
}

TEST_P(KernelFiles, AreRefusedAndNotFollowedIfTheyAreSymbolicLinks) {
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

TEST_P(KernelFiles, AreRefusedAtOnceUnlessTheyAreRegularFiles) {
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

TEST_P(KernelFiles, AreRefusedWhenAnotherUserOwnsThem) {
    in_fork([] {
        use_private_memory_disk();
        { const Handle folder_maker(create()); }
        make_proper_file(file(), page);
        give_away(file());
        expect_refused(KZMKERNEL_ERROR_ACCESS_DENIED);
    });
}

TEST_P(KernelFiles, AreRefusedInAFolderOfAnotherUser) {
    in_fork([] {
        use_private_memory_disk();
        fs::create_directory(folder());
        fs::permissions(folder(), fs::perms::owner_all);
        give_away(folder());
        expect_refused(KZMKERNEL_ERROR_ACCESS_DENIED);
    });
}

TEST_P(KernelFiles, AreRefusedInAFolderOpenToOthers) {
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

TEST_P(KernelFiles, AreRefusedInAFolderThatIsALink) {
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

TEST_P(KernelFiles, AreRefusedWhereOthersMayReplaceTheFolder) {
    in_fork([] {
        use_private_memory_disk();
        ASSERT_EQ(chmod("/dev/shm", 0777), 0);
        expect_refused(KZMKERNEL_ERROR_ACCESS_DENIED);
    });
}

// The file under a living object.

TEST_P(KernelFiles, FailTheNextOpenWhenRemovedUnderALivingObject) {
    Handle holder(create());
    ASSERT_EQ(holder.error, 0u);
    fs::remove(file());
    expect_refused(KZMKERNEL_ERROR_FILE_INVALID);
    holder.close();
    expect_new(GetParam().create, object_name());
}

TEST_P(KernelFiles, FailTheNextOpenWhenReplacedUnderALivingObject) {
    Handle holder(create());
    fs::remove(file());
    make_proper_file(file(), page);
    expect_refused(KZMKERNEL_ERROR_FILE_INVALID);
    holder.close();
    EXPECT_TRUE(fs::exists(file())) << "it is not the holder's";
    expect_new(GetParam().create, object_name());
}

TEST_P(KernelFiles, FailTheNextOpenWhenSwappedBetweenTwoLivingObjects) {
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

TEST_P(KernelFiles, FailTheNextOpenWhenResizedUnderALivingObject) {
    const Handle holder(create());
    for (const size_t size : {size_t{0}, size_t{1}, 2 * page}) {
        fs::resize_file(file(), size);
        expect_refused(KZMKERNEL_ERROR_FILE_INVALID);
    }
}

TEST_P(KernelFiles, FailTheNextOpenWhenLinkedAgainUnderALivingObject) {
    const Handle holder(create());
    const fs::path second = file().string() + "-second";
    fs::create_hard_link(file(), second);
    expect_refused(KZMKERNEL_ERROR_ACCESS_DENIED);
    fs::remove(second);
    const Handle again(create());
    EXPECT_EQ(again.error, uint32_t{KZMKERNEL_ERROR_ALREADY_EXISTS});
}

TEST_P(KernelFiles, FailTheNextOpenWhenRemovedWithTheirFolder) {
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
TEST_P(KernelFiles, AreMadeAgainAfterTheirUnusedFolderWasRemoved) {
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

TEST_P(KernelFiles, AreCreatedOnceBySimultaneousCreators) {
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

}  // namespace
