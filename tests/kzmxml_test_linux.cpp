// What only Linux has of a configuration's file: errno and descriptors.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <filesystem>
#include <fstream>
#include <string>
#include <thread>

#include "kzmxml.h"
#include "support/child.h"
#include "support/forked_linux.h"
#include "support/temporary_folder.h"

namespace {

class ConfigurationOnLinux : public testing::Test {
  protected:
    ConfigurationOnLinux() {
        folder_.write("etc/cluster.xml", "<root>" + std::string(1 << 20, ' ') + "</root>");
        EXPECT_EQ(xmllib_init("test"), XMLLIB_OK);
    }
    ~ConfigurationOnLinux() override { EXPECT_EQ(xmllib_term(), XMLLIB_OK); }

    std::filesystem::path file() const { return folder_.path() / "etc/cluster.xml"; }

    /// The flags of a descriptor of this process that is open for the configuration; empty if there is none.
    std::string flags_of_descriptor() const {
        std::error_code gone;
        for (const auto& entry : std::filesystem::directory_iterator("/proc/self/fd")) {
            if (std::filesystem::read_symlink(entry.path(), gone) != file() || gone) continue;
            std::ifstream info("/proc/self/fdinfo/" + entry.path().filename().string());
            std::string word;
            while (info >> word) {
                if (word == "flags:" && info >> word) return word;
            }
        }
        return {};
    }

  private:
    test::TemporaryFolder folder_;
    test::ScopedEnvironment install_path_{"KZM_INSTALL_PATH", folder_.string().c_str()};
};

TEST_F(ConfigurationOnLinux, IsReadWhateverTheErrnoOfItsCaller) {
    errno = EINTR;
    EXPECT_EQ(xmllib_load_config(0), XMLLIB_OK);
}

TEST_F(ConfigurationOnLinux, IsFoundInAFolderWithALongPath) {
    std::filesystem::path folder = file().parent_path();
    for (int level = 0; level < 6; ++level) folder /= std::string(200, 'x');
    std::filesystem::create_directories(folder / "etc");
    std::filesystem::rename(file(), folder / "etc/cluster.xml");
    const test::ScopedEnvironment install_path("KZM_INSTALL_PATH", folder.c_str());
    EXPECT_EQ(xmllib_load_config(0), XMLLIB_OK);
}

TEST_F(ConfigurationOnLinux, IsNotFoundInAFolderWhosePathIsLongerThanAnySystemAllows) {
    const test::ScopedEnvironment install_path("KZM_INSTALL_PATH", std::string(40'000, 'x').c_str());
    EXPECT_EQ(xmllib_load_config(0), XMLLIB_ERR_SYSTEM);
}

TEST_F(ConfigurationOnLinux, IsRefusedIfTheSystemCannotReadIt) {
    std::filesystem::remove(file());
    std::filesystem::create_symlink("/proc/self/mem", file());  // whose first page is never there
    EXPECT_EQ(xmllib_load_config(0), XMLLIB_ERR_FILE);
}

// A program may have closed its standard input.
TEST_F(ConfigurationOnLinux, IsReadThroughDescriptorZeroAsThroughAnyOther) {
    test::in_fork([] {
        close(0);
        EXPECT_EQ(xmllib_load_config(0), XMLLIB_OK);
        EXPECT_EQ(fcntl(0, F_GETFD), -1) << "it is still open";
    });
}

TEST_F(ConfigurationOnLinux, PassesItsDescriptorToNoOtherProgram) {
    std::atomic<bool> stop{false};
    std::thread reader([&stop] {
        while (!stop) {
            EXPECT_EQ(xmllib_load_config(0), XMLLIB_OK);
            EXPECT_EQ(xmllib_unload_config(), XMLLIB_OK);
        }
    });
    std::string flags;
    while (flags.empty()) flags = flags_of_descriptor();
    stop = true;
    reader.join();
    EXPECT_NE(std::stoul(flags, nullptr, 8) & O_CLOEXEC, 0u) << flags;
}

}  // namespace
