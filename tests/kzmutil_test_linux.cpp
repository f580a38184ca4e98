#include <dlfcn.h>
#include <gtest/gtest.h>
#include <sys/mman.h>
#include <unistd.h>

#include <climits>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>

#include "kzmkernel.h"
#include "kzmutil_test_platform.h"
#include "support/child.h"
#include "support/temporary_folder.h"

namespace test {

const char* const impossible_name = "no/such";

std::string own_executable() {
    return std::filesystem::canonical("/proc/self/exe").string();
}
size_t open_handles() {
    using std::filesystem::directory_iterator;
    return static_cast<size_t>(std::distance(directory_iterator("/proc/self/fd"), directory_iterator()));
}
bool release_mutex(void* mutex) {
    return kzmkernel_release(mutex) != 0;
}
std::vector<PathCase> path_cases() {
    return {
        {"/opt/kzm", "/opt/kzm"},  {"/opt/kzm/", "/opt/kzm"}, {"/opt//kzm///", "/opt//kzm"}, {"/", "/"}, {"///", "/"},
        {"relative/", "relative"}, {"C:\\kzm\\", "C:\\kzm\\"}};
}

}  // namespace test

namespace {

namespace fs = std::filesystem;

const fs::path libraries = fs::path(test::own_executable()).parent_path();

/// The installation path by the library that is loaded from `file`; empty when it cannot be loaded.
std::string install_path_by(const char* file, const char* folder_of_the_call) {
    void* const library = dlopen(file, RTLD_NOW | RTLD_LOCAL);
    if (!library) return {};
    fs::current_path(folder_of_the_call);
    char path[PATH_MAX] = "";
    const auto get = reinterpret_cast<int32_t (*)(char*, uint32_t)>(dlsym(library, "KzmutilGetInstallPath"));
    get(path, sizeof path);
    dlclose(library);
    return path;
}

CHILD(load_by_a_relative_path) {
    test::set_environment("KZM_INSTALL_PATH", nullptr);
    fs::current_path(test::argument());
    test::report_text(install_path_by("./libkzmutil.so", "/"));
}

TEST(InstallPathOnLinux, IsCorrectForALibraryLoadedByARelativePath) {
    const test::TemporaryFolder folder;
    fs::create_directory(folder.path() / "lib");
    for (const char* name : {"libkzmutil.so", "libkzmkernel.so"})
        fs::copy(libraries / name, folder.path() / "lib" / name);
    EXPECT_EQ(test::start(load_by_a_relative_path, (folder.path() / "lib").string()).reported_text(),
              fs::canonical(folder.path()));
}

TEST(InstallPathOnLinux, FollowsLinksToTheLibrarysOwnFile) {
    const test::TemporaryFolder folder;
    fs::create_directory(folder.path() / "lib");
    fs::create_symlink(libraries / "libkzmutil.so", folder.path() / "lib" / "libkzmutil.so");
    EXPECT_EQ(test::start(load_by_a_relative_path, (folder.path() / "lib").string()).reported_text(),
              libraries.parent_path());
}

CHILD(ask_a_library_without_a_file) {
    test::set_environment("KZM_INSTALL_PATH", nullptr);
    std::ifstream original(libraries / "libkzmutil.so", std::ios::binary);
    const std::string bytes{std::istreambuf_iterator<char>(original), {}};
    const int file = memfd_create("library", 0);
    if (write(file, bytes.data(), bytes.size()) != static_cast<ssize_t>(bytes.size())) std::abort();
    void* const library = dlopen(("/proc/self/fd/" + std::to_string(file)).c_str(), RTLD_NOW | RTLD_LOCAL);
    const auto get = reinterpret_cast<int32_t (*)(char*, uint32_t)>(dlsym(library, "KzmutilGetInstallPath"));
    std::string path(PATH_MAX, '#');
    kzmkernel_set_last_error(4711);
    test::report(static_cast<uint64_t>(get(path.data(), PATH_MAX)));
    test::report(kzmkernel_last_error());
    test::report_text(path == std::string(PATH_MAX, '#') ? "nothing written" : path.c_str());
}

TEST(InstallPathOnLinux, IsNotFoundForALibraryWithoutAFile) {
    test::Child child = test::start(ask_a_library_without_a_file);
    EXPECT_EQ(child.reported(), 0u);
    EXPECT_EQ(child.reported(), 2u);
    EXPECT_EQ(child.reported_text(), "nothing written");
}

}  // namespace
