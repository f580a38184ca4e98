// Loading the library into a process and unloading it. This program is not linked to the library: it loads the file
// itself.
#include <gmock/gmock.h>

#include <cstdio>
#include <cstdlib>

#include "kernel_objects.h"
#include "support/child.h"
#include "support/dynamic_library.h"
#include "support/temporary_folder.h"

namespace {

using test::Child;
using test::DynamicLibrary;

/// The library beside the fake companions; the create of the mutex fails there while FAKE_KZMUTIL_NO_MUTEX is set.
std::string library_path() {
    return test::own_folder() + SHMNM_LIBRARY;
}

using ResultFunction = uint32_t();
using LockFunction = uint32_t(uint32_t);

TEST(Loading, ReportsNotInitUntilARegionIsMapped) {
    const DynamicLibrary library(library_path());
    ASSERT_TRUE(library.loaded()) << library.error();
    EXPECT_EQ(library.function<ResultFunction>("shmnm_detach")(), 1u);
    EXPECT_EQ(library.function<ResultFunction>("shmnm_clear")(), 1u);
}

CHILD(takes_the_lock_and_hangs) {
    const DynamicLibrary library(library_path());
    test::report(library.function<LockFunction>("shmnm_rwlock")(0));
    test::hang();
}

TEST(Loading, OpensTheLockThatAnotherProcessMadeFirst) {
    Child owner = test::start(takes_the_lock_and_hangs);
    ASSERT_EQ(owner.reported(), 0u);
    const DynamicLibrary library(library_path());
    EXPECT_EQ(library.function<LockFunction>("shmnm_rwlock")(0), 17u);
    owner.kill();
    EXPECT_EQ(library.function<LockFunction>("shmnm_rwlock")(10'000), 0u);
    EXPECT_EQ(library.function<ResultFunction>("shmnm_rwunlock")(), 0u);
}

TEST(Unloading, UnloadsTheLibraryAndClosesTheMutex) {
    {
        const DynamicLibrary library(library_path());
        ASSERT_TRUE(library.loaded()) << library.error();
        ASSERT_TRUE(DynamicLibrary::in_process("kzmshmnm"));
    }
    EXPECT_FALSE(DynamicLibrary::in_process("kzmshmnm"));
    const std::string name = std::getenv("KZMUTIL_NAMESPACE") + std::string("oru_kzmshmnm_lock");
    void* const mutex = test::create_mutex(name.c_str());
    EXPECT_EQ(test::last_error(), 0u) << "nobody holds the mutex any more";
    test::close_handle(mutex);
}

CHILD(loads_without_a_mutex) {
    if (!std::freopen(test::argument().c_str(), "w", stderr)) return;
    test::report(1);
    const DynamicLibrary library(library_path());
    // Only Windows comes here: there a load at run time fails and the process goes on.
    test::report(library.loaded() ? 2 : 3);
}

TEST(Loading, FailsWithoutTheMutex) {
    const test::TemporaryFolder folder;
    const std::string errors = (folder.path() / "errors").string();
    const test::ScopedEnvironment no_mutex("FAKE_KZMUTIL_NO_MUTEX", "1");
    Child child = test::start(loads_without_a_mutex, errors);
    ASSERT_EQ(child.reported(), 1u);
    test::expect_refused_load(child);
    EXPECT_EQ(test::contents_of(errors), test::line_of_refused_load);
}

}  // namespace
