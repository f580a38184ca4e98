// The folder of a user's kernel objects and the file beside it that guards it, its sibling: their modes, and what
// happens when either is removed, between or during the steps of processes that create objects.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <kzmkernel.h>
#include <sys/file.h>
#include <sys/prctl.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <csignal>
#include <cstring>
#include <filesystem>
#include <string>
#include <vector>

#include "support/forked_linux.h"
#include "support/kernel_linux.h"
#include "support/memory_disk_linux.h"
#include "support/temporary_folder.h"
#include "support/traced_linux.h"

namespace {

using namespace kernel_test;

TEST(KernelSibling, IsAnEmptyFileForItsUserOnlyUnderAnyUmask) {
    for (const mode_t mask : {0000u, 0177u, 0277u, 0777u}) {
        in_fork([mask] {
            use_private_memory_disk();
            umask(mask);
            const Handle mutex(create_mutex(object_name()));
            EXPECT_EQ(mutex.error, 0u);
            struct stat found {};
            ASSERT_EQ(stat(sibling().c_str(), &found), 0);
            EXPECT_EQ(found.st_mode, static_cast<mode_t>(S_IFREG | 0600));
            EXPECT_EQ(found.st_uid, geteuid());
            EXPECT_EQ(found.st_size, 0);
        });
    }
}

TEST(KernelSibling, IsRefusedWithAWiderModeOrASecondLink) {
    in_fork([] {
        use_private_memory_disk();
        { const Handle maker(create_mutex(object_name())); }
        for (const unsigned mode : {0640u, 0602u, 0700u, 04600u}) {
            ASSERT_EQ(chmod(sibling().c_str(), mode), 0);
            expect_mutex_refused(KZMKERNEL_ERROR_ACCESS_DENIED);
        }
        // Fewer permissions than ours are what a creator leaves that was killed in between.
        for (const unsigned mode : {0000u, 0200u, 0400u}) {
            ASSERT_EQ(chmod(sibling().c_str(), mode), 0);
            expect_new(create_mutex, object_name());
        }
        fs::create_hard_link(sibling(), "/dev/shm/second");
        expect_mutex_refused(KZMKERNEL_ERROR_ACCESS_DENIED);
        fs::remove("/dev/shm/second");
        expect_new(create_mutex, object_name());
    });
}

TEST(KernelSibling, IsMadeAgainWhenOnlyItIsRemovedAndTheObjectsStay) {
    in_fork([] {
        use_private_memory_disk();
        Sign held;
        Forked holder([&] {
            create_mutex(object_name());
            held.give();
            pause_forever();
        });
        held.await();
        fs::remove(sibling());
        const Handle opened(create_mutex(object_name()));
        EXPECT_EQ(opened.error, uint32_t{KZMKERNEL_ERROR_ALREADY_EXISTS});
        EXPECT_TRUE(fs::exists(sibling()));
        // The new one guards the folder as the first one did.
        fs::remove_all(folder());
        in_fork([] { expect_mutex_refused(KZMKERNEL_ERROR_FILE_INVALID); });
    });
}

TEST(KernelSibling, IsHeldAgainByAProcessThatOpensItsObjectAgainAfterARemoval) {
    in_fork([] {
        use_private_memory_disk();
        const Handle first(create_mutex(object_name()));
        fs::remove(sibling());
        const Handle again(create_mutex(object_name()));
        EXPECT_EQ(again.error, uint32_t{KZMKERNEL_ERROR_ALREADY_EXISTS});
        fs::remove_all(folder());
        in_fork([] { expect_mutex_refused(KZMKERNEL_ERROR_FILE_INVALID); });
    });
}

TEST(KernelSibling, IsMadeAgainAfterItsUnusedFolderWasRemovedWithIt) {
    in_fork([] {
        use_private_memory_disk();
        { const Handle handle(create_mutex(object_name())); }
        fs::remove_all(folder());
        fs::remove(sibling());
        EXPECT_EQ(Handle(open_mutex(object_name())).error, uint32_t{KZMKERNEL_ERROR_FILE_NOT_FOUND});
        EXPECT_FALSE(fs::exists(folder()));
        EXPECT_FALSE(fs::exists(sibling()));
        expect_new(create_mutex, object_name());
    });
}

/// Whether a process enters a call that locks a byte.
bool locks_a_byte(const Traced& process) {
    const std::vector<uint64_t> call = process.entered();
    return !call.empty() && call[0] == SYS_fcntl && call[2] == F_OFD_SETLK;
}

void run_to_its_end(Traced& process) {
    while (process.step()) {
    }
    EXPECT_EQ(process.status(), 0);
}

TEST(KernelFolder, IsMadeAgainIfRemovedBeforeItsFirstCreatorIsInside) {
    in_fork([] {
        use_private_memory_disk();
        for (int locks = 1; locks <= 2; ++locks) {
            fs::remove_all(folder());
            Traced creator([] { expect_new(create_mutex, object_name()); });
            for (int i = 0; i < locks; ++i) {
                do {
                    ASSERT_TRUE(creator.step());
                } while (!locks_a_byte(creator));
            }
            fs::remove_all(folder());
            run_to_its_end(creator);
        }
    });
}

TEST(KernelSibling, IsMadeAgainIfRemovedBeforeItsFirstCreatorIsInside) {
    in_fork([] {
        use_private_memory_disk();
        Traced creator([] {
            const Handle mutex(create_mutex(object_name()));
            EXPECT_EQ(mutex.error, 0u);
            getppid();
        });
        do {
            ASSERT_TRUE(creator.step());
        } while (!locks_a_byte(creator));
        fs::remove(sibling());
        creator.run_until_it_enters(SYS_getppid);
        EXPECT_TRUE(fs::exists(sibling()));
        // It guards the folder.
        fs::remove_all(folder());
        expect_mutex_refused(KZMKERNEL_ERROR_FILE_INVALID);
        run_to_its_end(creator);
    });
}

/// Runs a creator up to a call that opens the sibling, lets another process create the object, and lets it go on.
void expect_existing_if_created_before(uint64_t flags_of_open) {
    in_fork([&] {
        use_private_memory_disk();
        Traced creator(
            [] { EXPECT_EQ(Handle(create_mutex(object_name())).error, uint32_t{KZMKERNEL_ERROR_ALREADY_EXISTS}); });
        const std::string name = sibling().filename();
        const auto opens_sibling = [&] {
            const std::vector<uint64_t> call = creator.entered();
            if (call.empty() || call[0] != SYS_openat || (call[3] & flags_of_open) != flags_of_open) return false;
            std::string path;
            for (size_t at = 0; at < name.size(); at += sizeof(uint64_t)) {
                const uint64_t word = creator.word_at(call[2] + at);
                path.append(reinterpret_cast<const char*>(&word), sizeof word);
            }
            return path.compare(0, name.size(), name) == 0;
        };
        do {
            ASSERT_TRUE(creator.step());
        } while (!opens_sibling());
        const Handle other(create_mutex(object_name()));
        EXPECT_EQ(other.error, 0u);
        run_to_its_end(creator);
    });
}

TEST(KernelFolder, IsSharedWithACreatorWhoMadeItMeanwhile) {
    expect_existing_if_created_before(O_RDWR);
}

TEST(KernelSibling, IsSharedWithACreatorWhoMadeItMeanwhile) {
    expect_existing_if_created_before(O_CREAT | O_EXCL);
}

// Adding permissions is for what this library made itself.
TEST(KernelFolder, LeavesTheModesOfOtherThingsUnderItsNames) {
    in_fork([] {
        use_private_memory_disk();
        const auto expect_untouched = [](const fs::path& path, mode_t mode) {
            struct stat found {};
            ASSERT_EQ(chmod(path.c_str(), mode), 0);
            expect_mutex_refused(KZMKERNEL_ERROR_ACCESS_DENIED);
            ASSERT_EQ(stat(path.c_str(), &found), 0);
            EXPECT_EQ(found.st_mode & 07777, mode) << path;
        };
        write_text(folder(), "a file");
        expect_untouched(folder(), 0600);
        fs::remove(folder());
        fs::create_directory(sibling());
        expect_untouched(sibling(), 0400);
        fs::remove(sibling());
        { const Handle maker(create_mutex(object_name())); }
        // With other permissions than ours too many are there as well as too few.
        expect_untouched(folder(), 0077);
        ASSERT_EQ(chmod(folder().c_str(), 0700), 0);
        expect_untouched(sibling(), 0240);
    });
}

// A second process comes after the removal, wherever the first one stands.
TEST(KernelFolder, NeverHoldsASecondObjectIfRemovedAtAnyStepOfACreator) {
    in_fork([] {
        use_private_memory_disk();
        bool ended = false;
        int noticed = 0, stops = 1;
        for (; !ended && !HasFailure(); ++stops) {
            fs::remove_all(folder());
            fs::remove(sibling());
            // Its answer is its number of the object, or 0 when it was refused, at the call of getppid().
            Traced creator([&] {
                const Handle mutex(create_mutex(object_name()));
                const uint64_t number = mutex.value ? kzmkernel_object_number(mutex.value) : 0;
                syscall(SYS_getppid, number);
            });
            const auto is_done = [&] {
                const std::vector<uint64_t> call = creator.entered();
                return !call.empty() && call[0] == SYS_getppid;
            };
            for (int i = 0; i < stops && !ended; ++i) ended = !creator.step() || is_done();
            fs::remove_all(folder());
            const Handle second(create_mutex(object_name()));
            while (!is_done()) ASSERT_TRUE(creator.step());
            const uint64_t first_number = creator.entered().at(1);
            if (second.value && first_number != 0) {
                EXPECT_EQ(first_number, kzmkernel_object_number(second.value)) << "two objects at stop " << stops;
            }
            noticed += second.error == KZMKERNEL_ERROR_FILE_INVALID;
            while (creator.step()) {
            }
            EXPECT_EQ(creator.status(), 0);
        }
        EXPECT_GT(stops, 40);
        EXPECT_GT(noticed, 0);
    });
}

TEST(KernelSibling, MayBeRemovedAtAnyStepOfACreator) {
    in_fork([] {
        use_private_memory_disk();
        bool ended = false;
        for (int stops = 1; !ended && !HasFailure(); ++stops) {
            Traced creator([] {
                const uint32_t error = Handle(create_mutex(object_name())).error;
                EXPECT_TRUE(error == 0 || error == KZMKERNEL_ERROR_FILE_INVALID) << error;
            });
            for (int i = 0; i < stops && !ended; ++i) ended = !creator.step();
            fs::remove(sibling());
            while (!ended && creator.step()) {
            }
            EXPECT_EQ(creator.status(), 0) << "removed at stop " << stops;
            expect_new(create_mutex, object_name());
        }
    });
}

TEST(KernelFolder, HoldsItsOwnObjectsIfAnotherDiskIsMountedOverIt) {
    in_fork([] {
        use_private_memory_disk();
        const Handle first(create_mutex(object_name()));
        ASSERT_EQ(first.error, 0u);
        // The inodes of a new disk have the same numbers.
        use_private_memory_disk();
        const Handle second(create_mutex(object_name()));
        EXPECT_EQ(second.error, 0u);
        EXPECT_EQ(kzmkernel_wait(first.value, 0), uint32_t{KZMKERNEL_WAIT_OWNED});
        EXPECT_TRUE(kzmkernel_release(first.value));
    });
}

/// The place of a guard, by the description of the format: FNV-1a with its bits mixed again.
off_t place_of(const std::string& bytes) {
    uint64_t value = 0xCBF29CE484222325;
    for (const char byte : bytes) value = (value ^ static_cast<unsigned char>(byte)) * 0x100000001B3;
    value = (value ^ (value >> 32)) * 0xD6E8FEB86659FD93;
    return static_cast<off_t>((value ^ (value >> 32)) >> 2);
}

std::string bytes_of(uint64_t number) {
    return std::string(reinterpret_cast<const char*>(&number), sizeof number);
}

/// Whether a byte of a file is locked by somebody in a way that keeps out this type of lock.
bool keeps_out(const fs::path& file, off_t place, short type) {
    const int opened = open(file.c_str(), O_RDONLY | O_CLOEXEC);
    struct flock lock {};
    lock.l_type = type;
    lock.l_start = place;
    lock.l_len = 1;
    EXPECT_EQ(fcntl(opened, F_OFD_GETLK, &lock), 0);
    close(opened);
    return lock.l_type != F_UNLCK;
}

void expect_locked_for_reading(const fs::path& file, off_t place) {
    EXPECT_TRUE(keeps_out(file, place, F_WRLCK)) << file << ' ' << place;
    EXPECT_FALSE(keeps_out(file, place, F_RDLCK)) << file << ' ' << place;
    EXPECT_FALSE(keeps_out(file, place - 1, F_WRLCK)) << file << ' ' << place;
    EXPECT_FALSE(keeps_out(file, place + 1, F_WRLCK)) << file << ' ' << place;
}

// A program of another build finds a living object only if it looks at the same bytes.
TEST(KernelGuards, LieAtPlacesThatDependOnTheNameAndTheFile) {
    in_fork([] {
        use_private_memory_disk();
        const Handle mutex(create_mutex("example")), mapping(create_mapping("example2", 3 * page));
        const auto expect_guarded = [](const fs::path& file, const fs::path& place, bool has_size) {
            struct stat found {};
            ASSERT_EQ(stat(file.c_str(), &found), 0);
            const std::string name = file.filename().string() + '\0';
            expect_locked_for_reading(place, place_of(name));
            expect_locked_for_reading(place,
                                      place_of(name + bytes_of(found.st_ino) +
                                               (has_size ? bytes_of(static_cast<uint64_t>(found.st_size)) : "")));
        };
        expect_guarded(file_of_mutex("example"), folder(), true);
        expect_guarded(file_of_mapping("example2"), folder(), true);
        expect_guarded(folder(), sibling(), false);
        EXPECT_EQ(place_of(std::string("m.example") + '\0'), 2777692500343651965);
    });
}

TEST(KernelGuards, OfAMakerLieAtAPlaceThatDependsOnTheName) {
    in_fork([] {
        use_private_memory_disk();
        Traced creator([] { expect_new(create_mutex, "example"); });
        creator.run_until_it_enters(SYS_fallocate);
        const off_t place = place_of(std::string("new m.example") + '\0');
        EXPECT_TRUE(keeps_out(sibling(), place, F_RDLCK));
        EXPECT_FALSE(keeps_out(sibling(), place - 1, F_RDLCK));
        EXPECT_FALSE(keeps_out(sibling(), place + 1, F_RDLCK));
        run_to_its_end(creator);
    });
}

TEST(KernelGuards, OfAMakerAreLetGoWhenTheObjectIsThere) {
    in_fork([] {
        use_private_memory_disk();
        const Handle mutex(create_mutex("example"));
        EXPECT_FALSE(keeps_out(sibling(), place_of(std::string("new m.example") + '\0'), F_RDLCK));
        EXPECT_FALSE(keeps_out(sibling(), 0, F_RDLCK));
        EXPECT_FALSE(keeps_out(sibling(), 1, F_RDLCK));
    });
}

/// Handles a signal: starts a child that has copies of all descriptors until the process ends. fork() would wait for
/// the call that the signal interrupts.
void start_child(int /*signal*/) {
    const pid_t parent = getpid();
    if (syscall(SYS_fork) != 0) return;
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    while (getppid() == parent) pause();
    _exit(0);
}

TEST(KernelGuards, OfAMakerAreLetGoAlthoughAChildHasCopiesOfTheirDescriptors) {
    in_fork([] {
        use_private_memory_disk("size=256k");
        Traced maker([] {
            signal(SIGUSR1, start_child);
            EXPECT_EQ(Handle(create_mapping("example", size_t{1} << 20)).error, uint32_t{KZMKERNEL_ERROR_DISK_FULL});
            getppid();
        });
        const off_t place = place_of(std::string("new s.example") + '\0');
        maker.run_until_it_enters(SYS_fstatfs);
        EXPECT_TRUE(keeps_out(sibling(), place, F_RDLCK));
        ASSERT_EQ(kill(maker.id(), SIGUSR1), 0);
        maker.run_until_it_enters(SYS_getppid);
        EXPECT_FALSE(keeps_out(sibling(), place, F_RDLCK));
        run_to_its_end(maker);
    });
}

// The lease that tells whether a file is in use would keep others from opening the file.
TEST(KernelGuards, LeaveNoLeaseOnADeadObjectAlthoughAChildHasACopyOfItsDescriptor) {
    in_fork([] {
        use_private_memory_disk();
        Sign made;
        Forked dead([&] {
            create_page(object_name());
            made.give();
            pause_forever();
        });
        made.await();
        dead.kill();
        Traced user([] {
            signal(SIGUSR1, start_child);
            EXPECT_EQ(Handle(open_mapping(object_name())).error, uint32_t{KZMKERNEL_ERROR_FILE_NOT_FOUND});
            getppid();
        });
        const auto takes_lease = [&] {
            const std::vector<uint64_t> call = user.entered();
            return !call.empty() && call[0] == SYS_fcntl && call[2] == F_SETLEASE && call[3] == F_WRLCK;
        };
        while (!takes_lease()) ASSERT_TRUE(user.step());
        ASSERT_EQ(kill(user.id(), SIGUSR1), 0);
        user.run_until_it_enters(SYS_getppid);
        EXPECT_EQ(Handle(open_mapping(object_name())).error, 0u) << "the child may use it";
        run_to_its_end(user);
    });
}

TEST(KernelFolder, IsLetGoAlthoughAChildHasACopyOfItsDescriptor) {
    in_fork([] {
        use_private_memory_disk();
        { const Handle maker(create_mutex(object_name())); }
        const int folder_again = open(folder().c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
        const auto is_locked = [&] {
            if (flock(folder_again, LOCK_EX | LOCK_NB) != 0) return true;
            flock(folder_again, LOCK_UN);
            return false;
        };
        Traced user([] {
            signal(SIGUSR1, start_child);
            EXPECT_EQ(Handle(open_mutex(object_name())).error, uint32_t{KZMKERNEL_ERROR_FILE_NOT_FOUND});
            getppid();
        });
        while (!is_locked()) ASSERT_TRUE(user.step());
        ASSERT_EQ(kill(user.id(), SIGUSR1), 0);
        user.run_until_it_enters(SYS_getppid);
        EXPECT_FALSE(is_locked());
        run_to_its_end(user);
        close(folder_again);
    });
}

// Each has looked at its own folder and found that no other one lives.
TEST(KernelFolder, HoldsOneObjectIfRemovedBetweenTwoCreators) {
    in_fork([] {
        use_private_memory_disk();
        Sign over;
        const auto create = [&] {
            const Handle mutex(create_mutex(object_name()));
            syscall(SYS_getppid, kzmkernel_object_number(mutex.value));
            over.await();
        };
        Traced first(create), second(create);
        const auto run_to = [](Traced& creator, uint64_t number, uint64_t other) {
            while (creator.step()) {
                const std::vector<uint64_t> call = creator.entered();
                if (!call.empty() && (call[0] == number || call[0] == other)) return;
            }
            FAIL() << "ended";
        };
        const auto run_to_its_locks = [&](Traced& creator) {
            do {
                run_to(creator, SYS_fcntl, SYS_fcntl);
            } while (!testing::Test::HasFailure() && creator.entered().at(2) != F_OFD_SETLK);
        };
        run_to_its_locks(first);
        fs::remove_all(folder());
        run_to_its_locks(second);
        // Where the first one waits for the second it sleeps.
        run_to(first, SYS_getppid, SYS_clock_nanosleep);
        run_to(second, SYS_getppid, SYS_getppid);
        while (!HasFailure() && first.entered().at(0) != SYS_getppid) run_to(first, SYS_getppid, SYS_clock_nanosleep);
        ASSERT_FALSE(HasFailure());
        EXPECT_EQ(first.entered().at(1), second.entered().at(1));
        EXPECT_NE(first.entered().at(1), 0u);
    });
}

}  // namespace
