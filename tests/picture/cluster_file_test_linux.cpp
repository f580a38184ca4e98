#include <gmock/gmock.h>

#include <filesystem>
#include <string>

#include "picture/cluster_file.h"
#include "picture/error.h"
#include "support/child.h"
#include "support/temporary_folder.h"

namespace picture {
namespace {

TEST(InstalledConfiguration, LiesWhereALinkOfTheFolderLeadsIfItLeadsSomewhere) {
    const test::TemporaryFolder folder;
    const test::ScopedEnvironment path("KZM_INSTALL_PATH", folder.string().c_str());
    std::filesystem::create_symlink("elsewhere", folder.path() / "etc");
    EXPECT_EQ(installed_cluster_file(), folder.string() + "/etc/cluster.xml");
    std::filesystem::create_directory(folder.path() / "elsewhere");
    EXPECT_EQ(installed_cluster_file(), std::filesystem::canonical(folder.path()).string() + "/elsewhere/cluster.xml");
}

TEST(InstalledConfiguration, NeedsAnInstallationPathOfUsualLength) {
    const test::ScopedEnvironment path("KZM_INSTALL_PATH", std::string(2'000, 'x').c_str());
    try {
        installed_cluster_file();
        FAIL() << "found";
    } catch (const Error& error) {
        EXPECT_EQ(error.kind, ErrorKind::failed);
        EXPECT_STREQ(error.what(), "the installation path is unknown: set KZM_INSTALL_PATH");
    }
}

TEST(Configuration, IsNotReadIfItIsTooLarge) {
    const test::TemporaryFolder folder;
    constexpr size_t most = 16 << 20;
    folder.write("cluster.xml", std::string(most + 1, ' '));
    try {
        check_cluster_file(folder.string() + "/cluster.xml");
        FAIL() << "read";
    } catch (const Error& error) {
        EXPECT_EQ(error.kind, ErrorKind::no_configuration);
        EXPECT_EQ(error.what(), "cannot read the configuration " + folder.string() + "/cluster.xml");
    }
}

}  // namespace
}  // namespace picture
