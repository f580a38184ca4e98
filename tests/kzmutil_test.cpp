#include "kzmutil.h"

#include <gmock/gmock.h>

#include <cstring>
#include <filesystem>
#include <string>
#include <thread>
#include <vector>

#include "kernel_objects.h"
#include "kzmutil_test_platform.h"
#include "support/child.h"

namespace {

using test::ScopedEnvironment;
using testing::Each;

constexpr uint32_t not_found = 2, out_of_memory = 8, bad_argument = 87, too_small = 122, exists = 183;
constexpr uint32_t everything = 0xF001F, reading = 4, read_write = 4;
constexpr uint32_t untouched = 4711;
void* const no_file = reinterpret_cast<void*>(UINTPTR_MAX);

/// A handle that is closed with its scope.
class Object {
  public:
    explicit Object(void* handle) : error_(test::last_error()), handle_(handle) {}
    ~Object() {
        if (handle_) test::close_handle(handle_);
    }
    Object(const Object&) = delete;
    Object& operator=(const Object&) = delete;
    void* handle() const { return handle_; }
    explicit operator bool() const { return handle_; }
    /// The last error that the call left.
    uint32_t error() const { return error_; }

  private:
    uint32_t error_;
    void* handle_;
};

Object mutex(const char* name, uint32_t flags = 0) {
    test::set_last_error(untouched);
    return Object(KzmutilCreateNamedMutex(flags, name));
}
Object mapping(const char* name, uint32_t size = 4096) {
    test::set_last_error(untouched);
    return Object(KzmutilCreateNamedFileMapping(no_file, read_write, 0, size, name));
}
Object opened(const char* name, uint32_t access = everything) {
    test::set_last_error(untouched);
    return Object(KzmutilOpenNamedFileMapping(access, 0, name));
}

/// The outcome of KzmutilGetInstallPath() with a buffer of that size, and whether it wrote outside of it.
struct InstallPath {
    explicit InstallPath(uint32_t size) : buffer(size + 16u, '#') {
        test::set_last_error(untouched);
        result = KzmutilGetInstallPath(buffer.data(), size);
        error = test::last_error();
    }
    std::string text() const { return buffer.substr(0, buffer.find('\0')); }
    int32_t result;
    uint32_t error;
    std::string buffer;
};

TEST(NamedObjects, SetTheLastErrorTo0WhenNewAndTo183WhenTheyExisted) {
    const Object new_mutex = mutex("told-apart");
    EXPECT_TRUE(new_mutex);
    EXPECT_EQ(new_mutex.error(), 0u);
    EXPECT_EQ(mutex("told-apart").error(), exists);
    const Object new_mapping = mapping("told-apart-mapping");
    EXPECT_TRUE(new_mapping);
    EXPECT_EQ(new_mapping.error(), 0u);
    const Object existing = mapping("told-apart-mapping");
    EXPECT_TRUE(existing);
    EXPECT_EQ(existing.error(), exists);
}

TEST(NamedObjects, AreNewWhateverTheLastErrorWasBefore) {
    test::set_last_error(exists);
    const Object a(KzmutilCreateNamedMutex(0, "stale-mutex"));
    EXPECT_EQ(a.error(), 0u);
    test::set_last_error(exists);
    const Object b(KzmutilCreateNamedFileMapping(no_file, read_write, 0, 4096, "stale-mapping"));
    EXPECT_EQ(b.error(), 0u);
}

TEST(NamedObjects, AreSeparateInTwoNamespaces) {
    const ScopedEnvironment first("KZMUTIL_NAMESPACE", (std::to_string(test::process_id()) + "-first-").c_str());
    const Object mutex_of_first = mutex("shared"), mapping_of_first = mapping("shared-mapping");
    ASSERT_TRUE(mutex_of_first && mapping_of_first);
    {
        const ScopedEnvironment second("KZMUTIL_NAMESPACE", (std::to_string(test::process_id()) + "-second-").c_str());
        EXPECT_EQ(opened("shared-mapping").error(), not_found);
        const Object mutex_of_second = mutex("shared"), mapping_of_second = mapping("shared-mapping");
        EXPECT_TRUE(mutex_of_second && mapping_of_second);
        EXPECT_EQ(mutex_of_second.error(), 0u);
        EXPECT_EQ(mapping_of_second.error(), 0u);
    }
    EXPECT_EQ(mutex("shared").error(), exists);
    EXPECT_EQ(mapping("shared-mapping").error(), exists);
    EXPECT_TRUE(opened("shared-mapping"));
}

TEST(NamedObjects, AreNamedByNamespaceAndNameInTheKernel) {
    const std::string space = std::to_string(test::process_id()) + "-kernel-";
    const ScopedEnvironment set("KZMUTIL_NAMESPACE", space.c_str());
    const Object made = mapping("known"), made_mutex = mutex("known-mutex");
    ASSERT_TRUE(made && made_mutex);
    EXPECT_TRUE(Object(test::open_mapping(everything, (space + "known").c_str())));
    EXPECT_EQ(Object(test::create_mutex((space + "known-mutex").c_str())).error(), exists);
}

TEST(NamedObjects, HaveTheirBareNamesWithoutANamespace) {
    const std::string name = "kzmutil-test-" + std::to_string(test::process_id());
    const ScopedEnvironment unset("KZMUTIL_NAMESPACE", nullptr);
    const Object made = mapping(name.c_str());
    ASSERT_TRUE(made);
    EXPECT_TRUE(Object(test::open_mapping(everything, name.c_str())));
}

CHILD(create_and_tell) {
    const Object made = mapping("met-by-a-child");
    test::report(made.error());
}
TEST(NamedObjects, AreSharedByTheProcessesOfANamespace) {
    const Object made = mapping("met-by-a-child");
    ASSERT_TRUE(made);
    EXPECT_EQ(test::start(create_and_tell).reported(), exists);
}

TEST(NamedObjects, AreNewToExactlyOneOfManyThreads) {
    for (int round = 0; round < 20; ++round) {
        const std::string name = "raced-" + std::to_string(round);
        std::vector<uint32_t> errors(4, untouched);
        std::vector<void*> handles(4, nullptr);
        std::vector<std::thread> threads;
        for (size_t i = 0; i < errors.size(); ++i) {
            threads.emplace_back([&, i] {
                handles[i] = KzmutilCreateNamedFileMapping(no_file, read_write, 0, 4096, name.c_str());
                errors[i] = test::last_error();
            });
        }
        for (std::thread& thread : threads) thread.join();
        EXPECT_THAT(errors, testing::UnorderedElementsAre(0u, exists, exists, exists));
        for (void* handle : handles) EXPECT_TRUE(test::close_handle(handle));
    }
}

TEST(NamedObjects, CannotBeMadeOrOpenedWithoutAName) {
    for (const char* name : {static_cast<const char*>(nullptr), ""}) {
        for (const Object& refused : {mutex(name), mapping(name), opened(name)}) {
            EXPECT_FALSE(refused);
            EXPECT_EQ(refused.error(), bad_argument);
        }
    }
}

TEST(NamedObjects, LeaveNoHandleBehindWhenTheyCannotBeMadeOrOpened) {
    const Object warm_up = mapping("held");
    const size_t before = test::open_handles();
    {
        const Object one_more = mapping("one-more");
        ASSERT_TRUE(one_more);
        ASSERT_GT(test::open_handles(), before) << "the count tells nothing";
    }
    for (int i = 0; i < 50; ++i) {
        EXPECT_FALSE(mutex(test::impossible_name));
        EXPECT_FALSE(mapping(test::impossible_name));
        EXPECT_FALSE(opened(test::impossible_name));
        EXPECT_FALSE(opened("never-made"));
        EXPECT_FALSE(mutex("refused", 1));
        EXPECT_FALSE(mapping("refused", 0));
    }
    EXPECT_EQ(test::open_handles(), before);
}

TEST(NamedObjects, ReportTheKernelsReasonForARefusal) {
    const Object refused = mutex(test::impossible_name);
    EXPECT_FALSE(refused);
    EXPECT_NE(refused.error(), untouched);
    EXPECT_NE(refused.error(), 0u);
    EXPECT_NE(refused.error(), out_of_memory);
}

TEST(NamedMutex, IsNotOwnedByItsCreator) {
    const Object made = mutex("not-owned");
    ASSERT_TRUE(made);
    EXPECT_FALSE(test::release_mutex(made.handle()));
}

TEST(NamedMutex, IsRefusedWithFlags) {
    const Object refused = mutex("flags", 1);
    EXPECT_FALSE(refused);
    EXPECT_EQ(refused.error(), bad_argument);
    EXPECT_EQ(mutex("flags").error(), 0u);
}

TEST(NamedMapping, IsZeroFilledAndSharedByName) {
    const Object made = mapping("zero-filled", 8192), again = mapping("zero-filled", 8192);
    ASSERT_TRUE(made && again);
    auto* const view = static_cast<unsigned char*>(test::map_view(made.handle(), 2));
    const auto* const other = static_cast<unsigned char*>(test::map_view(again.handle(), reading));
    ASSERT_TRUE(view && other);
    EXPECT_THAT(std::vector<unsigned char>(view, view + 8192), Each(0));
    view[8191] = 42;
    EXPECT_EQ(other[8191], 42);
}

TEST(NamedMapping, IsOpenedByCreateWhateverItsSize) {
    const Object made = mapping("sized", 4096);
    ASSERT_TRUE(made);
    for (const uint32_t size : {1u, 1u << 20}) {
        const Object again = mapping("sized", size);
        EXPECT_TRUE(again);
        EXPECT_EQ(again.error(), exists);
    }
}

TEST(NamedMapping, IsRefusedForAFileOrAnyOtherProtectionOrNoSize) {
    int some_file = 0;
    const struct {
        void* file;
        uint32_t protect, size;
    } bad[] = {{nullptr, 4, 4096}, {&some_file, 4, 4096}, {no_file, 0, 4096},
               {no_file, 2, 4096}, {no_file, 0x40, 4096}, {no_file, 4, 0}};
    for (const auto& [file, protect, size] : bad) {
        test::set_last_error(untouched);
        const Object refused(KzmutilCreateNamedFileMapping(file, protect, 0, size, "refused"));
        EXPECT_FALSE(refused) << protect << ' ' << size;
        EXPECT_EQ(refused.error(), bad_argument) << protect << ' ' << size;
    }
    EXPECT_EQ(opened("refused").error(), not_found);
}

TEST(NamedMapping, UsesTheUpperHalfOfItsSize) {
    // 2^62 and 2^63 bytes: no machine has them, so an upper half that is lost shows as a success.
    for (const uint32_t upper : {1u << 30, 1u << 31}) {
        const Object refused(KzmutilCreateNamedFileMapping(no_file, read_write, upper, 4096, "huge"));
        EXPECT_FALSE(refused) << upper;
    }
}

TEST(OpenedMapping, IsNotFoundBeforeItIsCreatedOrAfterItEnded) {
    EXPECT_EQ(opened("comes-and-goes").error(), not_found);
    { const Object made = mapping("comes-and-goes"); }
    const Object refused = opened("comes-and-goes");
    EXPECT_FALSE(refused);
    EXPECT_EQ(refused.error(), not_found);
}

TEST(OpenedMapping, KeepsTheLastError) {
    const Object made = mapping("opened");
    const Object again = opened("opened");
    EXPECT_TRUE(again);
    EXPECT_EQ(again.error(), untouched);
}

TEST(OpenedMapping, CannotBeMappedForWritingIfOpenedForReading) {
    const Object made = mapping("read-only");
    const Object for_reading = opened("read-only", reading);
    ASSERT_TRUE(made && for_reading);
    EXPECT_FALSE(test::map_view(for_reading.handle(), 2));
    EXPECT_TRUE(test::map_view(for_reading.handle(), reading));
}

TEST(InstallPath, IsTheParentOfTheLibrarysFolderByDefault) {
    const std::string expected = std::filesystem::path(test::own_executable()).parent_path().parent_path().string();
    for (const char* unset : {static_cast<const char*>(nullptr), ""}) {
        const ScopedEnvironment none("KZM_INSTALL_PATH", unset);
        const InstallPath path(4096);
        EXPECT_EQ(path.result, 1);
        EXPECT_EQ(path.text(), expected);
        EXPECT_EQ(path.error, untouched);
    }
}

TEST(InstallPath, ComesFromTheEnvironmentWithoutTrailingSeparators) {
    for (const auto& [given, expected] : test::path_cases()) {
        const ScopedEnvironment set("KZM_INSTALL_PATH", given);
        EXPECT_EQ(InstallPath(4096).text(), expected) << given;
    }
}

TEST(InstallPath, CanBeLong) {
    const std::string given(20'000, 'x');
    const ScopedEnvironment set("KZM_INSTALL_PATH", given.c_str());
    EXPECT_EQ(InstallPath(20'001).text(), given);
    EXPECT_EQ(InstallPath(20'000).error, too_small);
}

TEST(InstallPath, FitsABufferOfExactlyItsSizeAndNoSmallerOne) {
    const ScopedEnvironment set("KZM_INSTALL_PATH", "/opt/kzm");
    const InstallPath fits(9);
    EXPECT_EQ(fits.result, 1);
    EXPECT_EQ(fits.buffer, std::string("/opt/kzm\0################", 25));
    for (uint32_t size = 0; size < 9; ++size) {
        const InstallPath path(size);
        EXPECT_EQ(path.result, 0) << size;
        EXPECT_EQ(path.error, too_small) << size;
        EXPECT_THAT(path.buffer, Each('#')) << size;
    }
}

TEST(InstallPath, NeedsABuffer) {
    test::set_last_error(untouched);
    EXPECT_EQ(KzmutilGetInstallPath(nullptr, 4096), 0);
    EXPECT_EQ(test::last_error(), bad_argument);
}

}  // namespace
