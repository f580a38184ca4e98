// What another user can do to one's kernel objects: nothing. The tests act as two users, so they are run as root.
#include <fcntl.h>
#include <gmock/gmock.h>
#include <kzmkernel.h>
#include <sched.h>
#include <sys/file.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <climits>
#include <csignal>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <functional>
#include <set>
#include <sstream>
#include <string>
#include <vector>

#include "support/child.h"
#include "support/forked_linux.h"
#include "support/kernel_linux.h"
#include "support/memory_disk_linux.h"
#include "support/other_user_linux.h"
#include "support/temporary_folder.h"

namespace {

using namespace kernel_test;

const uid_t other_user = spare_user();

void as_other_user(const std::function<void()>& body) {
    in_fork_as(other_user, body);
}

TEST(KernelOtherUsers, CannotBlockOthersByLockingTheMemoryDisk) {
    in_fork([] {
        use_private_memory_disk();
        Sign locked;
        Forked attacker([&] {
            become(other_user);
            const int disk = open("/dev/shm", O_RDONLY | O_DIRECTORY);
            struct flock everything {};
            everything.l_type = F_RDLCK;
            EXPECT_EQ(fcntl(disk, F_OFD_SETLK, &everything), 0);
            EXPECT_EQ(fcntl(disk, F_SETLK, &everything), 0);
            EXPECT_EQ(flock(disk, LOCK_EX), 0);
            locked.give();
            pause_forever();
        });
        locked.await();
        expect_new(create_mutex, object_name());
        expect_new(create_page, object_name());
    });
}

TEST(KernelOtherUsers, CannotOpenAnythingThatTheLibraryLocks) {
    in_fork([] {
        use_private_memory_disk();
        const Handle mutex(create_mutex(object_name()));
        const fs::path places[] = {folder(), sibling(), file_of_mutex(object_name())};
        for (const fs::path& place : places) EXPECT_TRUE(fs::exists(place)) << place;
        as_other_user([&] {
            for (const fs::path& place : places) {
                EXPECT_EQ(open(place.c_str(), O_RDONLY), -1) << place;
                EXPECT_EQ(errno, EACCES) << place;
            }
        });
    });
}

TEST(KernelOtherUsers, HaveTheirOwnObjectsUnderTheSameNames) {
    const std::string name = object_name();
    const Handle mapping(create_mapping(name));
    ASSERT_EQ(mapping.error, 0u);
    map(mapping.value)[0] = 'a';
    as_other_user([&] {
        {
            const Handle theirs(create_mapping(name));
            EXPECT_EQ(theirs.error, 0u);
            EXPECT_EQ(map(theirs.value)[0], '\0');
        }
        fs::remove(folder());
        fs::remove(sibling());
    });
}

/// Each plants something under a name of root's.
void plant_folder() {
    EXPECT_EQ(mkdir("/dev/shm/kzmkernel.0", 0700), 0);
}
void plant_file_for_folder() {
    write_text("/dev/shm/kzmkernel.0", "a file");
}
void plant_link_for_folder() {
    EXPECT_EQ(symlink("/tmp", "/dev/shm/kzmkernel.0"), 0);
}
void plant_socket_for_folder() {
    EXPECT_EQ(mknod("/dev/shm/kzmkernel.0", S_IFSOCK | 0666, 0), 0);
}
void plant_sibling() {
    write_text("/dev/shm/kzmkernel.0.guard", "");
}
void plant_folder_for_sibling() {
    EXPECT_EQ(mkdir("/dev/shm/kzmkernel.0.guard", 0700), 0);
}
void plant_fifo_for_sibling() {
    EXPECT_EQ(mkfifo("/dev/shm/kzmkernel.0.guard", 0666), 0);
}
void plant_link_for_sibling() {
    EXPECT_EQ(symlink("/etc/passwd", "/dev/shm/kzmkernel.0.guard"), 0);
}
constexpr void (*plants[])() = {
    plant_folder,  plant_file_for_folder,    plant_link_for_folder,  plant_socket_for_folder,
    plant_sibling, plant_folder_for_sibling, plant_fifo_for_sibling, plant_link_for_sibling};

TEST(KernelOtherUsers, CannotMakeAnybodyUseAPlantedFolderOrSibling) {
    for (const auto plant : plants) {
        in_fork([plant] {
            use_private_memory_disk();
            as_other_user(plant);
            expect_mutex_refused(KZMKERNEL_ERROR_ACCESS_DENIED);
        });
    }
}

constexpr const char* advice = ": remove it, or set KZMKERNEL_FOLDER to another folder in all processes";

TEST(KernelOtherUsers, AreNamedWhenTheyPlantAFolderOrItsSibling) {
    for (const auto plant : plants) {
        in_fork([plant] {
            use_private_memory_disk();
            as_other_user(plant);
            const fs::path planted = fs::directory_iterator("/dev/shm")->path();
            EXPECT_EQ(create_mutex(object_name()), nullptr);
            EXPECT_EQ(kzmkernel_explanation(),
                      planted.string() + " belongs to user " + std::to_string(other_user) + ", not to you" + advice);
            kzmkernel_set_last_error(KZMKERNEL_ERROR_NOT_OWNER);
            EXPECT_STREQ(kzmkernel_explanation(), "") << "of another failure";
            fs::remove(planted);
            expect_new(create_mutex, object_name());
            EXPECT_STREQ(kzmkernel_explanation(), "");
        });
    }
}

/// Has KZMKERNEL_FOLDER set in a process with a memory disk of its own.
void with_folder(const char* place, const std::function<void()>& body) {
    in_fork([&] {
        use_private_memory_disk();
        const test::ScopedEnvironment variable("KZMKERNEL_FOLDER", place);
        body();
    });
}

TEST(KernelFolderVariable, ChoosesAnotherFolderAndItsSibling) {
    with_folder("/dev/shm/ours//", [] {
        as_other_user(plant_folder);
        const Handle mutex(create_mutex(object_name()));
        EXPECT_EQ(mutex.error, 0u);
        EXPECT_TRUE(fs::exists("/dev/shm/ours/m." + object_name()));
        EXPECT_TRUE(fs::exists("/dev/shm/ours.guard"));
        EXPECT_EQ(Handle(open_mutex(object_name())).error, 0u);
    });
}

TEST(KernelFolderVariable, IsIgnoredWhenItIsEmpty) {
    with_folder("", [] {
        expect_new(create_mutex, object_name());
        EXPECT_TRUE(fs::exists(folder()));
    });
}

TEST(KernelFolderVariable, RefusesAnythingButTheFullPathOfAFolder) {
    for (const char* const place : {"ours", "./ours", "/", "/dev/shm/.", "/dev/shm/..", "//"}) {
        with_folder(place, [place] {
            expect_mutex_refused(KZMKERNEL_ERROR_INVALID_NAME);
            EXPECT_THAT(kzmkernel_explanation(), testing::StartsWith("KZMKERNEL_FOLDER=" + std::string(place)));
        });
    }
    with_folder(("/dev/shm/" + std::string(300, 'n')).c_str(),
                [] { expect_mutex_refused(KZMKERNEL_ERROR_INVALID_NAME); });
    with_folder("/dev/shm/missing/ours", [] {
        EXPECT_EQ(Handle(create_mutex(object_name())).error, uint32_t{KZMKERNEL_ERROR_FILE_NOT_FOUND});
        EXPECT_THAT(kzmkernel_explanation(), testing::StartsWith("cannot open /dev/shm/missing/: "));
    });
}

TEST(KernelFolderVariable, RefusesAPathForWhichThereIsNoRoom) {
    // The sibling's path is longer than the folder's.
    constexpr size_t longest = PATH_MAX - 1 - (sizeof ".guard" - 1);
    // The last one is longer than the stack.
    for (const size_t length : {longest, longest + 1, size_t{PATH_MAX} - 3, size_t{PATH_MAX} + 10, size_t{1} << 25}) {
        std::string place = "/dev/shm";
        while (place.size() < length) place += '/' + std::string(std::min<size_t>(length - place.size(), 100) - 1, 'n');
        // There is no such folder either, which is noticed only if there is room for its path.
        with_folder(place.c_str(), [&] {
            expect_mutex_refused(length > longest ? KZMKERNEL_ERROR_INVALID_NAME : KZMKERNEL_ERROR_FILE_NOT_FOUND);
        });
    }
}

TEST(KernelFolderVariable, TakesAParentOfTheUserInWhichOthersMayRemoveNothing) {
    with_folder("/dev/shm/parent/ours", [] {
        fs::create_directory("/dev/shm/parent");
        ASSERT_EQ(chown("/dev/shm/parent", other_user, other_user), 0);
        as_other_user([] { expect_new(create_mutex, object_name()); });
        ASSERT_EQ(chmod("/dev/shm/parent", 0777), 0);
        const auto expect_unsafe = [] {
            expect_mutex_refused(KZMKERNEL_ERROR_ACCESS_DENIED);
            EXPECT_THAT(kzmkernel_explanation(),
                        testing::StartsWith("other users may remove your folder from /dev/shm/parent/"));
        };
        as_other_user(expect_unsafe);
        ASSERT_EQ(chown("/dev/shm/parent", 0, 0), 0);
        as_other_user(expect_unsafe);
        ASSERT_EQ(chmod("/dev/shm/parent", 01777), 0);
        fs::remove_all("/dev/shm/parent/ours");
        fs::remove("/dev/shm/parent/ours.guard");
        as_other_user([] { expect_new(create_mutex, object_name()); });
    });
}

TEST(KernelFolderVariable, TakesTheMemoryDiskWhoeverOwnsIt) {
    in_fork([] {
        use_private_memory_disk();
        ASSERT_EQ(chown("/dev/shm", other_user, other_user), 0);
        expect_new(create_mutex, object_name());
        const test::ScopedEnvironment variable("KZMKERNEL_FOLDER", "/dev/shm/ours");
        expect_new(create_mutex, object_name());
    });
}

TEST(KernelFolderVariable, RefusesAPlaceOfAnotherUserWhosePathIsLikeTheMemoryDisks) {
    in_fork([] {
        use_private_memory_disk();
        ASSERT_EQ(mount("tmpfs", "/dev", "tmpfs", 0, "mode=755"), 0) << strerror(errno);
        fs::create_directory("/dev/shn");
        ASSERT_EQ(chown("/dev/shn", other_user, other_user), 0);
        const test::ScopedEnvironment variable("KZMKERNEL_FOLDER", "/dev/shn/ours");
        expect_mutex_refused(KZMKERNEL_ERROR_ACCESS_DENIED);
    });
}

TEST(KernelFolderVariable, RefusesAParentInWhichOthersMayRemoveIt) {
    with_folder("/dev/shm/parent/ours", [] {
        fs::create_directory("/dev/shm/parent");
        for (const unsigned mode : {0777u, 0770u, 0702u}) {
            ASSERT_EQ(chmod("/dev/shm/parent", mode), 0);
            expect_mutex_refused(KZMKERNEL_ERROR_ACCESS_DENIED);
            EXPECT_THAT(kzmkernel_explanation(),
                        testing::StartsWith("other users may remove your folder from /dev/shm/parent/"));
        }
        for (const unsigned mode : {0700u, 0755u, 01777u}) {
            ASSERT_EQ(chmod("/dev/shm/parent", mode), 0);
            expect_new(create_mutex, object_name());
        }
        // Its owner may remove everything.
        for (const unsigned mode : {0755u, 01777u}) {
            ASSERT_EQ(chmod("/dev/shm/parent", mode), 0);
            ASSERT_EQ(chown("/dev/shm/parent", other_user, other_user), 0);
            expect_mutex_refused(KZMKERNEL_ERROR_ACCESS_DENIED);
            EXPECT_EQ(kzmkernel_explanation(), "/dev/shm/parent/ belongs to user " + std::to_string(other_user) +
                                                   ": run this program as that user");
        }
    });
}

TEST(KernelFolderVariable, RefusesAFolderOfAnotherUser) {
    with_folder("/dev/shm/ours", [] {
        as_other_user([] { mkdir("/dev/shm/ours", 0700); });
        expect_mutex_refused(KZMKERNEL_ERROR_ACCESS_DENIED);
        EXPECT_EQ(kzmkernel_explanation(),
                  "/dev/shm/ours belongs to user " + std::to_string(other_user) + ", not to you" + advice);
    });
}

// Its caller's environment is not to be trusted.
TEST(KernelFolderVariable, IsIgnoredByAProgramWithMoreRightsThanItsCaller) {
    with_folder("/dev/shm/chosen", [] {
        const test::TemporaryFolder place;
        // Where temporary files lie such rights may not be given.
        ASSERT_EQ(mount("tmpfs", place.path().c_str(), "tmpfs", 0, "mode=755"), 0) << strerror(errno);
        const fs::path here = fs::read_symlink("/proc/self/exe").parent_path();
        const fs::path program = place.path() / "program", library = place.path() / "library.so";
        fs::copy_file(here / "setuid_creator", program);
        fs::copy_file(here / "libkzmkernel.so", library);
        ASSERT_EQ(chmod(program.c_str(), 04755), 0);
        for (const std::string name : {"first", "second"}) {
            as_other_user([&] {
                execl(program.c_str(), "program", library.c_str(), name.c_str(), nullptr);
                FAIL() << strerror(errno);
            });
        }
        EXPECT_TRUE(fs::exists("/dev/shm/kzmkernel.0.guard"));
        EXPECT_FALSE(fs::exists("/dev/shm/chosen"));
        ASSERT_EQ(umount2(place.path().c_str(), MNT_DETACH), 0) << strerror(errno);
    });
}

TEST(KernelExplanation, NamesTheObstacleAndTheRemedy) {
    in_fork([] {
        use_private_memory_disk();
        const auto explanation = [] {
            EXPECT_EQ(create_mutex(object_name()), nullptr);
            return std::string(kzmkernel_explanation());
        };
        const std::string file = file_of_mutex(object_name());
        { const Handle maker(create_mutex(object_name())); }
        ASSERT_EQ(chmod(folder().c_str(), 0755), 0);
        EXPECT_EQ(explanation(), "/dev/shm/kzmkernel.0 has the mode 0755: set it to 0700 (chmod)");
        ASSERT_EQ(chmod(folder().c_str(), 0700), 0);
        ASSERT_EQ(chmod(sibling().c_str(), 04600), 0);
        EXPECT_EQ(explanation(), "/dev/shm/kzmkernel.0.guard has the mode 4600: set it to 0600 (chmod)");
        ASSERT_EQ(chmod(sibling().c_str(), 0600), 0);
        fs::create_hard_link(sibling(), "/dev/shm/second");
        EXPECT_EQ(explanation(), std::string("/dev/shm/kzmkernel.0.guard has a second link") + advice);
        fs::remove("/dev/shm/second");
        fs::create_directory(file);
        EXPECT_EQ(explanation(), file + " is not a file" + advice);
        fs::remove(file);

        Handle living(create_mutex(object_name()));
        fs::remove(file);
        in_fork([&] {
            EXPECT_EQ(explanation(), file +
                                         " was removed or replaced while processes use the object: end all of them and "
                                         "start again");
            fs::remove_all(folder());
            EXPECT_EQ(explanation(),
                      "/dev/shm/kzmkernel.0 was removed or replaced while processes use its objects: end all "
                      "of them and start again");
        });
        living.close();
        ASSERT_EQ(chmod("/dev/shm", 0777), 0);
        EXPECT_EQ(explanation(),
                  "other users may remove your folder from /dev/shm/: give that folder to root and set its sticky bit "
                  "(chmod +t)");
    });
}

TEST(KernelExplanation, IsNotThatOfAnEarlierFailure) {
    const std::string name = object_name();
    in_fork([&] {
        use_private_memory_disk();
        const Handle mutex(create_mutex(name));
        ASSERT_EQ(chmod(folder().c_str(), 0755), 0);
        EXPECT_EQ(Handle(open_mutex(name)).error, uint32_t{KZMKERNEL_ERROR_ACCESS_DENIED});
        EXPECT_STRNE(kzmkernel_explanation(), "");
        ASSERT_EQ(chmod(folder().c_str(), 0700), 0);
        // A process of another namespace is refused the mutex with the same number.
        Forked other(
            [&] {
                EXPECT_EQ(Handle(open_mutex(name)).error, uint32_t{KZMKERNEL_ERROR_ACCESS_DENIED});
                EXPECT_STREQ(kzmkernel_explanation(), "");
            },
            CLONE_NEWPID);
        EXPECT_EQ(other.wait(), 0);
    });
}

TEST(KernelExplanation, OfARefusedFolderIsNotThatOfARefusedNameOrArgument) {
    with_folder("ours", [] {
        const auto expect_unexplained = [](uint32_t error, const auto& call) {
            EXPECT_EQ(Handle(create_mutex(object_name())).error, uint32_t{KZMKERNEL_ERROR_INVALID_NAME});
            EXPECT_STRNE(kzmkernel_explanation(), "");
            EXPECT_EQ(call(), nullptr);
            EXPECT_EQ(kzmkernel_last_error(), error);
            EXPECT_STREQ(kzmkernel_explanation(), "");
        };
        expect_unexplained(KZMKERNEL_ERROR_INVALID_NAME, [] { return create_mutex("a/b"); });
        expect_unexplained(KZMKERNEL_ERROR_INVALID_NAME, [] { return open_mapping("a/b"); });
        expect_unexplained(KZMKERNEL_ERROR_INVALID_PARAMETER, [] { return kzmkernel_create_mutex(nullptr); });
    });
}

// The system's list of locks tells everybody who has what.

TEST(KernelOtherUsers, AreFoundWhileAProcessWaitsForALock) {
    const std::string name = object_name();
    in_fork([&] {
        use_private_memory_disk();
        const Handle mapping(create_mapping(name));
        const char* const lock = "/dev/shm/lock";
        ASSERT_EQ(flock(open(lock, O_RDWR | O_CREAT | O_CLOEXEC, 0600), LOCK_EX), 0);
        const Forked waiter([&] { flock(open(lock, O_RDWR | O_CLOEXEC), LOCK_EX); });
        const std::string line = "-> FLOCK  ADVISORY  WRITE " + std::to_string(waiter.id()) + " ";
        while (test::contents_of("/proc/locks").find(line) == std::string::npos) usleep(1'000);
        as_other_user([&] {
            uint32_t found = 7;
            EXPECT_TRUE(kzmkernel_find_other_user(name.c_str(), &found));
            EXPECT_EQ(found, 0u);
            EXPECT_FALSE(kzmkernel_find_other_user((name + "2").c_str(), &found));
        });
    });
}

/// Takes and releases locks until it is killed.
[[noreturn]] void take_and_release_locks() {
    int files[50];
    for (int& file : files) file = open("/dev/shm", O_TMPFILE | O_RDWR | O_CLOEXEC, 0600);
    for (;;) {
        for (const int file : files) flock(file, LOCK_EX);
        for (const int file : files) flock(file, LOCK_UN);
    }
}

TEST(KernelOtherUsers, AreFoundWhileOtherLocksComeAndGo) {
    const std::string name = object_name();
    in_fork([&] {
        use_private_memory_disk();
        const Handle mapping(create_mapping(name));
        const Forked busy[] = {Forked(take_and_release_locks), Forked(take_and_release_locks),
                               Forked(take_and_release_locks), Forked(take_and_release_locks)};
        as_other_user([&] {
            uint32_t found = 7;
            for (int i = 0; i < 200; ++i) EXPECT_TRUE(kzmkernel_find_other_user(name.c_str(), &found));
        });
    });
}

TEST(KernelOtherUsers, AreFoundWhileTheyHoldAMapping) {
    const std::string name = object_name();
    in_fork([&] {
        use_private_memory_disk();
        Handle mapping(create_mapping(name));
        const Handle mutex(create_mutex(name + "mutex"));
        uint32_t user = 7;
        EXPECT_FALSE(kzmkernel_find_other_user(name.c_str(), &user)) << "it is one's own";
        const auto expect_found = [&](bool is_held) {
            as_other_user([&] {
                uint32_t found = 7;
                EXPECT_EQ(kzmkernel_find_other_user(name.c_str(), &found), is_held ? 1 : 0);
                EXPECT_EQ(found, is_held ? 0u : 7u);
                EXPECT_FALSE(kzmkernel_find_other_user((name + "mutex").c_str(), &found));
                EXPECT_FALSE(kzmkernel_find_other_user((name + "2").c_str(), &found));
                EXPECT_FALSE(kzmkernel_find_other_user(nullptr, &found));
                EXPECT_FALSE(kzmkernel_find_other_user(name.c_str(), nullptr));
            });
        };
        expect_found(true);
        mapping.close();
        EXPECT_TRUE(fs::exists(folder()));
        expect_found(false);
        EXPECT_EQ(user, 7u);
    });
}

TEST(KernelOtherUsers, AreNamedByTheirId) {
    const std::string name = object_name();
    in_fork([&] {
        use_private_memory_disk();
        Sign held, over;
        Forked holder([&] {
            become(other_user);
            const Handle mapping(create_mapping(name));
            held.give();
            over.await();
        });
        held.await();
        uint32_t found = 7;
        EXPECT_TRUE(kzmkernel_find_other_user(name.c_str(), &found));
        EXPECT_EQ(found, other_user);
        over.give();
        EXPECT_EQ(holder.wait(), 0);
    });
}

TEST(KernelOtherUsers, AreNotFoundInAFolderThatTheyChose) {
    const std::string name = object_name();
    with_folder("/dev/shm/ours", [&] {
        const Handle mapping(create_mapping(name));
        EXPECT_EQ(mapping.error, 0u);
        as_other_user([&] {
            uint32_t found = 7;
            EXPECT_FALSE(kzmkernel_find_other_user(name.c_str(), &found));
        });
    });
}

/// The lines of the system's list with so many locks of a type on a file. A reading may miss locks while others come
/// and go, so the list is read until they are all there.
std::vector<std::string> listed_locks(const std::string& type, const fs::path& file, size_t count) {
    struct stat found {};
    EXPECT_EQ(stat(file.c_str(), &found), 0);
    // The disks of other tests have files of the same number.
    char place[100];
    std::snprintf(place, sizeof place, " %02x:%02x:%lu ", major(found.st_dev), minor(found.st_dev),
                  static_cast<unsigned long>(found.st_ino));
    std::set<std::string> lines;
    const auto end = std::chrono::steady_clock::now() + std::chrono::seconds(30);
    for (std::string seen; lines.size() < count;) {
        if (std::chrono::steady_clock::now() > end) {
            ADD_FAILURE() << lines.size() << " of " << count << " locks of " << file << " (" << place << ") in\n"
                          << seen;
            return std::vector<std::string>(count);
        }
        seen = test::contents_of("/proc/locks");
        std::istringstream list(seen);
        for (std::string line; std::getline(list, line);) {
            const bool is_one =
                line.find(" " + type + " ") != std::string::npos && line.find(place) != std::string::npos;
            // The lines are numbered anew each time.
            if (is_one) lines.insert("1" + line.substr(line.find(':')) + '\n');
        }
    }
    return {lines.begin(), lines.end()};
}

/// Puts another text in the place of the system's list of locks, for the rest of the process's life.
void show_list_of_locks(const std::string& text) {
    const fs::path list = "/dev/shm/list";
    write_text(list, text);
    ASSERT_EQ(mount(list.c_str(), "/proc/locks", nullptr, MS_BIND, nullptr), 0) << strerror(errno);
}

/// The line with another value in one of its fields.
std::string with_field(const std::string& line, size_t field, const std::string& value) {
    std::istringstream words(line);
    std::string word, made;
    for (size_t at = 0; words >> word; ++at) made += (at == 0 ? "" : " ") + (at == field ? value : word);
    return made + '\n';
}

// A line of the list: "1: OFDLCK  ADVISORY  READ -1 00:1b:17 4711 4711".
constexpr size_t type_field = 1, process_field = 4, file_field = 5, first_field = 6;

/// The file of a line, "00:1b:17", with one of its three numbers raised: the disk's two or the file's.
std::string other_file(const std::string& line, int part) {
    std::istringstream words(line);
    std::string file;
    for (size_t at = 0; at <= file_field; ++at) words >> file;
    unsigned numbers[2]{};
    unsigned long inode = 0;
    EXPECT_EQ(std::sscanf(file.c_str(), "%x:%x:%lu", &numbers[0], &numbers[1], &inode), 3);
    if (part < 2) ++numbers[part];
    if (part == 2) ++inode;
    char made[100];
    std::snprintf(made, sizeof made, "%02x:%02x:%lu", numbers[0], numbers[1], inode);
    return made;
}

TEST(KernelOtherUsers, AreFoundByTheLocksOfTheirFolderOnly) {
    const std::string name = object_name();
    in_fork([&] {
        use_private_memory_disk();
        const Handle mapping(create_mapping(name));
        const std::vector<std::string> locks = listed_locks("OFDLCK", folder(), 2);
        const auto expect_found = [&](bool is_found, const std::function<std::string(const std::string&)>& changed) {
            std::string list;
            for (const std::string& line : locks) list += changed(line);
            in_fork([&] {
                show_list_of_locks(list);
                become(other_user);
                uint32_t found = 7;
                EXPECT_EQ(kzmkernel_find_other_user(name.c_str(), &found) != 0, is_found) << list;
            });
        };
        expect_found(true, [](const std::string& line) { return line; });
        expect_found(false, [](const std::string& line) { return with_field(line, type_field, "POSIX"); });
        expect_found(false, [](const std::string& line) { return with_field(line, first_field, "4711"); });
        for (int part = 0; part < 3; ++part) {
            expect_found(false,
                         [&](const std::string& line) { return with_field(line, file_field, other_file(line, part)); });
        }
    });
}

TEST(KernelOtherUsers, DoNotHideTheProcessThatHoldsTheGate) {
    in_fork([] {
        use_private_memory_disk();
        const Handle held(create_mutex(object_name()));
        const int gate = open(folder().c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
        ASSERT_EQ(flock(gate, LOCK_EX | LOCK_NB), 0);
        const std::string lock = listed_locks("FLOCK", folder(), 1).front();
        std::string others;
        for (int part = 0; part < 3; ++part) {
            others += with_field(with_field(lock, file_field, other_file(lock, part)), process_field, "101");
        }
        others += with_field(with_field(lock, type_field, "POSIX"), process_field, "102");
        const std::string unnamed = "another process does not let go of " + folder().string();
        const auto expect_explanation = [](const std::string& list, const std::string& text) {
            in_fork([&] {
                show_list_of_locks(list);
                EXPECT_EQ(Handle(open_mutex(object_name())).error, uint32_t{KZMKERNEL_ERROR_BUSY});
                EXPECT_EQ(kzmkernel_explanation(), text);
            });
        };
        expect_explanation(others, unnamed);
        // So is the holder shown to those who cannot see its process.
        for (const char* const process : {"0", "-1"}) {
            expect_explanation(others + with_field(lock, process_field, process), unnamed);
        }
        const auto named = [](const std::string& process) {
            return "process " + process + " does not let go of " + folder().string() + ": let it go on (kill -CONT " +
                   process + ") or end it";
        };
        for (const char* const process : {"1", "103"}) {
            expect_explanation(others + with_field(lock, process_field, process), named(process));
        }
        close(gate);
    });
}

// A write lease makes whoever opens the file wait for the owner of the lease.
TEST(KernelOtherUsers, CannotDelayOthersWithALeaseOnAPlantedSibling) {
    in_fork([] {
        use_private_memory_disk();
        Sign leased;
        Forked attacker([&] {
            become(other_user);
            const int planted = open("/dev/shm/kzmkernel.0.guard", O_RDWR | O_CREAT | O_EXCL, 0666);
            signal(SIGIO, SIG_IGN);
            EXPECT_EQ(fcntl(planted, F_SETLEASE, F_WRLCK), 0) << strerror(errno);
            leased.give();
            pause_forever();
        });
        leased.await();
        expect_mutex_refused(KZMKERNEL_ERROR_ACCESS_DENIED);
    });
}

}  // namespace
