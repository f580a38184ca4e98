// What kzmkernel answers when one of its system calls fails: each call that may fail in each step of an object's life.
#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <kzmkernel.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <filesystem>
#include <functional>
#include <iterator>
#include <string>
#include <vector>

#include "support/forked_linux.h"
#include "support/kernel_linux.h"
#include "support/memory_disk_linux.h"
#include "support/temporary_folder.h"
#include "support/traced_linux.h"

namespace {

using namespace kernel_test;

// Not close() and munmap(): they do their work even if they report an error.
bool may_fail(const std::vector<uint64_t>& call) {
    // Of some, such as faccessat() and fstat(), each version of the C library makes another one.
    static const uint64_t all[] = {
        SYS_access,     SYS_faccessat, SYS_faccessat2, SYS_fallocate,  SYS_fchmod,    SYS_fchmodat, SYS_fcntl,
        SYS_flock,      SYS_fstat,     SYS_fstatfs,    SYS_getdents64, SYS_linkat,    SYS_mkdirat,  SYS_mmap,
        SYS_newfstatat, SYS_openat,    SYS_pwrite64,   SYS_renameat,   SYS_renameat2, SYS_statx,    SYS_unlinkat};
    // The sanitizers' run time maps memory of its own, without a file.
    if (call[0] == SYS_mmap && static_cast<int>(call[5]) < 0) return false;
    return std::find(std::begin(all), std::end(all), call[0]) != std::end(all);
}

struct Answer {
    uint64_t number;  ///< of the object; 0: there is none
    uint64_t error;
};

/// What a process gets if some of its system calls fail.
struct Outcome {
    bool has_failed;  ///< there was such a call
    Answer answer;
    std::string explanation;
};

/// Which error a system call fails with, seen where the process enters it; 0: none.
using Failing = std::function<int(const Traced& process, const std::vector<uint64_t>& call)>;

std::string text_at(const Traced& process, uint64_t address) {
    std::string text;
    for (;; address += sizeof(uint64_t)) {
        const uint64_t word = process.word_at(address);
        const auto* const bytes = reinterpret_cast<const char*>(&word);
        const size_t length = strnlen(bytes, sizeof word);
        text.append(bytes, length);
        if (length < sizeof word) return text;
    }
}

Outcome outcome_if(const std::function<void*()>& work, const Failing& failing) {
    Traced caller([&] {
        void* const handle = work();
        const uint32_t error = kzmkernel_last_error();
        const uint64_t number = handle ? kzmkernel_object_number(handle) : 0;
        kzmkernel_set_last_error(error);
        syscall(SYS_getppid, number, error, kzmkernel_explanation());
        if (handle) kzmkernel_close(handle);
    });
    Outcome outcome{};
    bool is_answered = false;
    while (caller.step()) {
        const std::vector<uint64_t> call = caller.entered();
        if (call.empty()) continue;
        if (call[0] == SYS_getppid) {
            outcome.answer = {call[1], call[2]};
            outcome.explanation = text_at(caller, call[3]);
            is_answered = true;
        }
        const int error = may_fail(call) ? failing(caller, call) : 0;
        if (error == 0) continue;
        caller.fail_call(error);
        outcome.has_failed = true;
    }
    EXPECT_TRUE(is_answered);
    EXPECT_EQ(caller.status(), 0);
    return outcome;
}

/// The system call of that position fails with the first of the errors, the next one with the second.
Outcome outcome_of(const std::function<void*()>& work, int position, const std::vector<int>& errors) {
    int calls = 0;
    return outcome_if(work, [&](const Traced&, const std::vector<uint64_t>&) {
        const int after = ++calls - position;
        return after < 0 || after >= static_cast<int>(errors.size()) ? 0 : errors[static_cast<size_t>(after)];
    });
}

struct Errors {
    int of_system;
    uint32_t of_windows;
};

TEST(KernelFailures, OfTheSystemAreReportedByTheirWindowsNumbers) {
    const Errors all[] = {{EACCES, KZMKERNEL_ERROR_ACCESS_DENIED},       {EAGAIN, KZMKERNEL_ERROR_NOT_ENOUGH_MEMORY},
                          {EBADF, KZMKERNEL_ERROR_INVALID_HANDLE},       {EDQUOT, KZMKERNEL_ERROR_DISK_FULL},
                          {EEXIST, KZMKERNEL_ERROR_ACCESS_DENIED},       {EFBIG, KZMKERNEL_ERROR_NOT_ENOUGH_MEMORY},
                          {EINVAL, KZMKERNEL_ERROR_INVALID_PARAMETER},   {EIO, KZMKERNEL_ERROR_GEN_FAILURE},
                          {EISDIR, KZMKERNEL_ERROR_ACCESS_DENIED},       {ELOOP, KZMKERNEL_ERROR_ACCESS_DENIED},
                          {EMFILE, KZMKERNEL_ERROR_TOO_MANY_OPEN_FILES}, {ENAMETOOLONG, KZMKERNEL_ERROR_INVALID_NAME},
                          {ENFILE, KZMKERNEL_ERROR_TOO_MANY_OPEN_FILES}, {ENOENT, KZMKERNEL_ERROR_FILE_NOT_FOUND},
                          {ENOLCK, KZMKERNEL_ERROR_NOT_ENOUGH_MEMORY},   {ENOMEM, KZMKERNEL_ERROR_NOT_ENOUGH_MEMORY},
                          {ENOSPC, KZMKERNEL_ERROR_DISK_FULL},           {ENOTDIR, KZMKERNEL_ERROR_ACCESS_DENIED},
                          {ENXIO, KZMKERNEL_ERROR_ACCESS_DENIED},        {EOVERFLOW, KZMKERNEL_ERROR_NOT_ENOUGH_MEMORY},
                          {EPERM, KZMKERNEL_ERROR_ACCESS_DENIED},        {EROFS, KZMKERNEL_ERROR_ACCESS_DENIED}};
    for (const Errors& each : all) {
        // The first call opens the folder that holds the user's folder.
        const Outcome outcome = outcome_of([] { return create_mutex(object_name()); }, 1, {each.of_system});
        EXPECT_TRUE(outcome.has_failed);
        EXPECT_EQ(outcome.answer.number, 0u);
        EXPECT_EQ(outcome.answer.error, each.of_windows) << std::strerror(each.of_system);
    }
}

/// Each one fails as many calls in a row as it has errors.
using Failures = std::vector<std::vector<int>>;

/// Mappings take the same way to their files as mutexes, so one failure is enough for them.
Failures for_kind(const Kind& kind, const Failures& all) {
    return kind.create == create_mutex ? all : Failures{{EIO}};
}

/// Lets each system call of the work fail in turn. The object's number is 0 if it does not live yet.
/// The tests want as many failures as were counted with glibc 2.36: fewer mean that a failure is no longer noticed.
/// They are those of the library's own calls, so they do not grow with the calls that the C library adds.
/// @return how many of the calls made the work fail with error 31; the work can do without the others
int expect_reported(const std::function<void*()>& work, const std::function<void()>& prepare, uint64_t object,
                    const Failures& all) {
    int reported = 0;
    for (const std::vector<int>& errors : all) {
        bool is_over = false;
        for (int position = 1; !is_over && !testing::Test::HasFailure(); ++position) {
            prepare();
            const Outcome outcome = outcome_of(work, position, errors);
            is_over = !outcome.has_failed;
            const auto [number, error] = outcome.answer;
            const std::string where = std::strerror(errors[0]) + (" at call " + std::to_string(position));
            EXPECT_EQ(number != 0, error == 0 || error == KZMKERNEL_ERROR_ALREADY_EXISTS) << where << ": " << error;
            EXPECT_TRUE(object == 0 || number == 0 || number == object) << "a second object: " << where;
            reported += error == KZMKERNEL_ERROR_GEN_FAILURE;
        }
    }
    return reported;
}

TEST(KernelFailures, OfAnySystemCallOfACreatorAreReportedAndKeepNobodyFromCreatingIt) {
    in_fork([] {
        use_private_memory_disk();
        for (const auto& kind : kinds) {
            const auto create = [&] { return kind.create(object_name()); };
            const auto prepare = [&] {
                // Whatever an earlier creator left, the object can be created, and is gone with its last handle.
                expect_new(kind.create, object_name());
                EXPECT_TRUE(fs::is_empty(folder()));
            };
            // Without access to /proc the creator names its file itself.
            const bool is_mutex = kind.create == create_mutex;
            EXPECT_GE(expect_reported(create, prepare, 0, for_kind(kind, {{EIO}, {ENOENT, EEXIST}, {ENOENT, ENOENT}})),
                      is_mutex ? 24 : 22);
            if (is_mutex) {
                const auto narrow = [] {
                    ASSERT_EQ(chmod(folder().c_str(), 0500), 0);
                    ASSERT_EQ(chmod(sibling().c_str(), 0400), 0);
                };
                EXPECT_GE(expect_reported(create, narrow, 0, {{EIO}}), 30);
                const auto remove = [] { fs::remove_all(folder()), fs::remove(sibling()); };
                EXPECT_GE(expect_reported(create, remove, 0, {{EIO}, {EEXIST}}), 26);
            }
            prepare();
        }
    });
}

TEST(KernelFailures, OfAnySystemCallNeverLeadToASecondObject) {
    in_fork([] {
        use_private_memory_disk();
        const std::string name = object_name();
        for (const auto& kind : kinds) {
            const Handle held(kind.create(name));
            const uint64_t object = kzmkernel_object_number(held.value);
            const auto prepare = [] {};
            const auto create = [&] { return kind.create(name); };
            const auto open = [&] { return kind.open(name); };
            EXPECT_GE(expect_reported(create, prepare, object, {{EIO}}), 13);
            EXPECT_GE(expect_reported(open, prepare, object, {{EIO}}), 13);
            if (kind.create == create_mutex) {
                expect_reported(create, prepare, object, {{EEXIST}, {EACCES}, {ELOOP}, {ENOSPC}, {ENFILE}, {EINTR}});
                expect_reported(open, prepare, object, {{ENOENT, EIO}});
            }
            // A process that has the object already.
            const auto open_again = [&] {
                void* const first = kind.open(name);
                kzmkernel_set_last_error(0);
                void* const second = kind.open(name);
                const uint32_t error = kzmkernel_last_error();
                if (first) kzmkernel_close(first);
                kzmkernel_set_last_error(error);
                return second;
            };
            EXPECT_GE(expect_reported(open_again, prepare, object, {{EIO}}), 13);
            // A process that has closed all of its descriptors.
            const auto open_unguarded = [&] {
                kind.open(name);
                syscall(SYS_close_range, 3, ~0U, 0);
                kzmkernel_set_last_error(0);
                return kind.open(name);
            };
            EXPECT_GE(expect_reported(open_unguarded, prepare, object, {{EIO}}), 15);
        }
    });
}

TEST(KernelFailures, OfAnySystemCallKeepAMutexMappedThatItsThreadOwns) {
    in_fork([] {
        use_private_memory_disk();
        const std::string name = object_name();
        const Handle held(create_mutex(name));
        const auto open_again = [&] {
            void* const first = open_mutex(name);
            if (first) kzmkernel_wait(first, 0);
            if (first) kzmkernel_close(first);
            kzmkernel_set_last_error(0);
            return open_mutex(name);
        };
        EXPECT_GE(expect_reported(open_again, [] {}, kzmkernel_object_number(held.value), {{EIO}}), 13);
        EXPECT_EQ(kzmkernel_wait(held.value, 0), uint32_t{KZMKERNEL_WAIT_ABANDONED});
        EXPECT_TRUE(kzmkernel_release(held.value));
    });
}

TEST(KernelFailures, OfAnySystemCallOfTheSearchForAnotherUserFindNone) {
    in_fork([] {
        use_private_memory_disk();
        const std::string name = object_name();
        const Handle mapping(create_page(name));
        const auto search = [&]() -> void* {
            uint32_t user = 0;
            const bool is_found = kzmkernel_find_other_user(name.c_str(), &user) != 0;
            kzmkernel_set_last_error(is_found ? 0 : KZMKERNEL_ERROR_FILE_NOT_FOUND);
            return nullptr;
        };
        expect_reported(search, [] {}, 0, {{EIO}});
    });
}

TEST(KernelFailures, OfTheListOfLocksLeaveTheProcessThatHoldsTheGateUnnamed) {
    in_fork([] {
        use_private_memory_disk();
        const Handle held(create_mutex(object_name()));
        const int gate = open(folder().c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
        ASSERT_EQ(flock(gate, LOCK_EX | LOCK_NB), 0);
        Traced caller([] {
            EXPECT_EQ(Handle(open_mutex(object_name())).error, uint32_t{KZMKERNEL_ERROR_BUSY});
            EXPECT_EQ(kzmkernel_explanation(), "another process does not let go of " + folder().string());
        });
        const auto opens_list = [&](const std::vector<uint64_t>& call) {
            if (call.empty() || call[0] != SYS_openat) return false;
            const uint64_t begin = caller.word_at(call[2]);
            return std::memcmp(&begin, "/proc/lo", sizeof begin) == 0;
        };
        int failed = 0;
        while (caller.step()) {
            if (!opens_list(caller.entered())) continue;
            caller.fail_call(EACCES);
            ++failed;
        }
        EXPECT_EQ(caller.status(), 0);
        EXPECT_EQ(failed, 1);
        close(gate);
    });
}

bool opens(const Traced& process, const std::vector<uint64_t>& call, const std::string& name) {
    return call[0] == SYS_openat && text_at(process, call[2]) == name;
}

/// Looks at an open file. The C library may take either call.
bool looks_at_descriptor(const Traced& process, const std::vector<uint64_t>& call) {
    return call[0] == SYS_fstat || (call[0] == SYS_newfstatat && text_at(process, call[2]).empty());
}

TEST(KernelFailures, OfMakingTheSiblingAreExplained) {
    in_fork([] {
        use_private_memory_disk();
        const Errors all[] = {{ENOENT, KZMKERNEL_ERROR_FILE_NOT_FOUND},
                              {ENOSPC, KZMKERNEL_ERROR_DISK_FULL},
                              {EMFILE, KZMKERNEL_ERROR_TOO_MANY_OPEN_FILES},
                              {ENFILE, KZMKERNEL_ERROR_TOO_MANY_OPEN_FILES}};
        for (const Errors& each : all) {
            const Outcome outcome = outcome_if([] { return create_mutex(object_name()); },
                                               [&](const Traced& process, const std::vector<uint64_t>& call) {
                                                   const bool makes = opens(process, call, sibling().filename()) &&
                                                                      (call[3] & O_CREAT) != 0;
                                                   return makes ? each.of_system : 0;
                                               });
            EXPECT_TRUE(outcome.has_failed);
            EXPECT_EQ(outcome.answer.number, 0u);
            EXPECT_EQ(outcome.answer.error, each.of_windows);
            EXPECT_EQ(outcome.explanation, "cannot make " + sibling().string() + ": " + std::strerror(each.of_system));
        }
    });
}

TEST(KernelFailures, OfLookingAtAFolderThatCannotBeOpenedAreExplained) {
    in_fork([] {
        use_private_memory_disk();
        { const Handle folder_maker(create_mutex(object_name())); }
        const Outcome outcome = outcome_if(
            [] { return create_mutex(object_name()); },
            [](const Traced& process, const std::vector<uint64_t>& call) {
                if (opens(process, call, folder().filename())) return EACCES;
                return call[0] == SYS_newfstatat && text_at(process, call[2]) == folder().filename() ? EIO : 0;
            });
        EXPECT_EQ(outcome.answer.error, uint64_t{KZMKERNEL_ERROR_ACCESS_DENIED});
        EXPECT_EQ(outcome.explanation, "cannot look at " + folder().string() + ": " + std::strerror(EIO));
    });
}

TEST(KernelFailures, OfOpeningTheSiblingAreExplained) {
    in_fork([] {
        use_private_memory_disk();
        { const Handle folder_maker(create_mutex(object_name())); }
        for (const Errors& each :
             {Errors{EIO, KZMKERNEL_ERROR_GEN_FAILURE}, Errors{EACCES, KZMKERNEL_ERROR_ACCESS_DENIED},
              Errors{EPERM, KZMKERNEL_ERROR_ACCESS_DENIED}, Errors{ENOMEM, KZMKERNEL_ERROR_NOT_ENOUGH_MEMORY}}) {
            const Outcome outcome =
                outcome_if([] { return create_mutex(object_name()); },
                           [&](const Traced& process, const std::vector<uint64_t>& call) {
                               return opens(process, call, sibling().filename()) ? each.of_system : 0;
                           });
            EXPECT_TRUE(outcome.has_failed);
            EXPECT_EQ(outcome.answer.number, 0u);
            EXPECT_EQ(outcome.answer.error, each.of_windows);
            EXPECT_EQ(outcome.explanation, "cannot open " + sibling().string() + ": " + std::strerror(each.of_system));
        }
    });
}

TEST(KernelFailures, OfOpeningASiblingWithASecondLinkNameTheLink) {
    in_fork([] {
        use_private_memory_disk();
        { const Handle folder_maker(create_mutex(object_name())); }
        fs::create_hard_link(sibling(), "/dev/shm/second");
        const Outcome outcome = outcome_if([] { return create_mutex(object_name()); },
                                           [](const Traced& process, const std::vector<uint64_t>& call) {
                                               return opens(process, call, sibling().filename()) ? EACCES : 0;
                                           });
        EXPECT_EQ(outcome.answer.error, uint64_t{KZMKERNEL_ERROR_ACCESS_DENIED});
        EXPECT_THAT(outcome.explanation, testing::StartsWith(sibling().string() + " has a second link: "));
    });
}

TEST(KernelFailures, OfMakingTheFolderAgainAndAgainComeToAnEnd) {
    in_fork([] {
        use_private_memory_disk();
        int tries = 0;
        // As if others made it and removed it each time.
        const Outcome outcome = outcome_if([] { return create_mutex(object_name()); },
                                           [&](const Traced&, const std::vector<uint64_t>& call) {
                                               if (call[0] != SYS_mkdirat) return 0;
                                               ++tries;
                                               return EEXIST;
                                           });
        EXPECT_GT(tries, 1);
        EXPECT_EQ(outcome.answer.number, 0u);
        EXPECT_EQ(outcome.answer.error, uint64_t{KZMKERNEL_ERROR_BUSY});
        EXPECT_EQ(outcome.explanation, folder().string() + " and its sibling are removed again and again");
    });
}

TEST(KernelFailures, OfALookAtTheFolderLeaveTheProcessThatHoldsTheGateUnnamed) {
    in_fork([] {
        use_private_memory_disk();
        const Handle held(create_mutex(object_name()));
        const int gate = open(folder().c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
        ASSERT_EQ(flock(gate, LOCK_EX | LOCK_NB), 0);
        bool has_waited = false;
        const Outcome outcome = outcome_if([] { return open_mutex(object_name()); },
                                           [&](const Traced& process, const std::vector<uint64_t>& call) {
                                               has_waited |= call[0] == SYS_flock;
                                               return has_waited && looks_at_descriptor(process, call) ? EIO : 0;
                                           });
        EXPECT_TRUE(outcome.has_failed);
        EXPECT_EQ(outcome.answer.error, uint64_t{KZMKERNEL_ERROR_BUSY});
        EXPECT_EQ(outcome.explanation, "another process does not let go of " + folder().string());
        close(gate);
    });
}

/// Lets a process create the running test's object and be killed.
void leave_dead(const Kind& kind) {
    Sign made;
    Forked creator([&] {
        kind.create(object_name());
        made.give();
        pause_forever();
    });
    made.await();
}

// Some file systems grant none.
TEST(KernelFailures, OfLeasesKeepNobodyFromReplacingADeadObject) {
    in_fork([] {
        use_private_memory_disk();
        for (const auto& kind : kinds) {
            leave_dead(kind);
            const Outcome outcome = outcome_if([&] { return kind.create(object_name()); },
                                               [](const Traced&, const std::vector<uint64_t>& call) {
                                                   return call[0] == SYS_fcntl && call[2] == F_SETLEASE ? EINVAL : 0;
                                               });
            EXPECT_TRUE(outcome.has_failed);
            EXPECT_NE(outcome.answer.number, 0u);
            EXPECT_EQ(outcome.answer.error, 0u);
        }
    });
}

TEST(KernelFailures, OfMakingAFileWithoutProcAreReportedAtOnce) {
    in_fork([] {
        use_private_memory_disk();
        for (const Errors& each :
             {Errors{EIO, KZMKERNEL_ERROR_GEN_FAILURE}, Errors{ENOENT, KZMKERNEL_ERROR_FILE_INVALID}}) {
            int tries = 0;
            const Outcome outcome = outcome_if(
                [] { return create_mutex(object_name()); },
                [&](const Traced& process, const std::vector<uint64_t>& call) {
                    if (call[0] == SYS_access) return ENOENT;
                    const bool makes = call[0] == SYS_openat && text_at(process, call[2]).compare(0, 5, ".new.") == 0;
                    return makes && ++tries == 1 ? each.of_system : 0;
                });
            EXPECT_EQ(tries, 1);
            EXPECT_EQ(outcome.answer.number, 0u);
            EXPECT_EQ(outcome.answer.error, each.of_windows);
            EXPECT_TRUE(fs::is_empty(folder()));
        }
    });
}

TEST(KernelFailures, OfOpeningTheNamedFileLeaveNoFile) {
    in_fork([] {
        use_private_memory_disk();
        for (const auto& kind : kinds) {
            bool is_named = false;
            const Outcome outcome = outcome_if([&] { return kind.create(object_name()); },
                                               [&](const Traced&, const std::vector<uint64_t>& call) {
                                                   if (!is_named || call[0] != SYS_openat) {
                                                       is_named |= call[0] == SYS_linkat;
                                                       return 0;
                                                   }
                                                   is_named = false;
                                                   return EIO;
                                               });
            EXPECT_TRUE(outcome.has_failed);
            EXPECT_EQ(outcome.answer.error, uint64_t{KZMKERNEL_ERROR_GEN_FAILURE});
            EXPECT_TRUE(fs::is_empty(folder()));
        }
    });
}

TEST(KernelFailures, OfAnySystemCallLeaveNoPageOfAMutexMapped) {
    in_fork([] {
        use_private_memory_disk();
        Sign held;
        Forked holder([&] {
            create_mutex(object_name());
            held.give();
            pause_forever();
        });
        held.await();
        const auto open = [] {
            void* const mutex = open_mutex(object_name());
            const uint32_t error = kzmkernel_last_error();
            if (!mutex) {
                EXPECT_EQ(contents_of("/proc/self/maps").find(folder()), std::string::npos);
            }
            kzmkernel_set_last_error(error);
            return mutex;
        };
        EXPECT_GE(expect_reported(open, [] {}, 0, {{EIO}}), 15);
    });
}

TEST(KernelFailures, OfAnySystemCallOfACreatorWhoFindsADeadObjectAreReported) {
    in_fork([] {
        use_private_memory_disk();
        const std::string name = object_name();
        for (const auto& kind : kinds) {
            const auto create = [&] { return kind.create(name); };
            EXPECT_GE(expect_reported(create, [&] { leave_dead(kind); }, 0, {{EIO}}),
                      kind.create == create_mutex ? 26 : 24);
            expect_new(kind.create, name);
        }
    });
}

TEST(KernelFailures, OfAnySystemCallOfAViewAreReported) {
    in_fork([] {
        use_private_memory_disk();
        const std::string name = object_name();
        const Handle held(create_page(name));
        const uint64_t object = kzmkernel_object_number(held.value);
        const auto look_through_view = [&]() -> void* {
            void* const mapping = open_mapping(name);
            char* const view = mapping ? map(mapping) : nullptr;
            const uint32_t error = kzmkernel_last_error();
            if (view) {
                *view = 1;
                kzmkernel_unmap_view(view);
            } else if (mapping) {
                kzmkernel_close(mapping);
            }
            kzmkernel_set_last_error(error);
            return view ? mapping : nullptr;
        };
        EXPECT_GE(expect_reported(look_through_view, [] {}, object, {{EIO}}), 14);
    });
}

}  // namespace
