// What is told when the library cannot be loaded.
#include <gmock/gmock.h>
#include <sys/mount.h>
#include <unistd.h>

#include <filesystem>
#include <string>

#include "picture/error.h"
#include "picture/library.h"
#include "picture/live.h"
#include "picture/platform.h"
#include "support/child.h"
#include "support/forked_linux.h"
#include "support/memory_disk_linux.h"
#include "support/other_user_linux.h"
#include "support/temporary_folder.h"

namespace picture {
namespace {

CHILD(load) {
    test::report(library().shmnm_attach.pointer != nullptr);
}

TEST(LibraryOfAProgram, IsTheOneBesideIt) {
    const test::TemporaryFolder folder;
    // Where the loader would look first, another library has its name.
    const std::filesystem::path here = std::filesystem::read_symlink("/proc/self/exe").parent_path();
    std::filesystem::copy(here / "libkzmutil.so", folder.path() / platform::library_file);
    const test::ScopedEnvironment path("LD_LIBRARY_PATH", folder.string().c_str());
    EXPECT_EQ(test::start(load).reported(), 1u);
}

/// Why a process that has an empty file in the place of the library cannot load it.
std::string refusal() {
    const std::filesystem::path beside =
        std::filesystem::read_symlink("/proc/self/exe").parent_path() / platform::library_file;
    EXPECT_EQ(mount("/dev/null", beside.c_str(), nullptr, MS_BIND, nullptr), 0);
    try {
        library();
        return "loaded";
    } catch (const Error& error) {
        EXPECT_EQ(error.kind, ErrorKind::failed);
        return error.what();
    }
}

TEST(LibraryThatCannotBeLoaded, IsToBePutBesideTheProgram) {
    test::in_fork([] {
        test::use_private_memory_disk();
        EXPECT_EQ(refusal(), "cannot load libkzmshmnm.so.1: put it beside this program, with its companions");
        EXPECT_THAT(test::contents_of("/proc/self/maps"), testing::Not(testing::HasSubstr(mutex_name)))
            << "it has kept the lock";
    });
}

TEST(LibraryThatCannotBeLoaded, MayBeSoBecauseOfTheLock) {
    const uid_t user = test::spare_user();
    test::in_fork([&] {
        test::use_private_memory_disk();
        const test::TemporaryFolder folder;
        ASSERT_EQ(chown(folder.string().c_str(), user, user), 0);
        const test::ScopedEnvironment there("KZMKERNEL_FOLDER", folder.string().c_str());
        EXPECT_THAT(refusal(), testing::StartsWith("cannot open the lock " + full_name(mutex_name) +
                                                   " (error 5): " + folder.string() + " belongs to user "));
    });
}

}  // namespace
}  // namespace picture
