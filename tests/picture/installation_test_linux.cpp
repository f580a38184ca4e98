// What a packaged installation's file of variables sets.
#include "picture/installation.h"

#include <gtest/gtest.h>

#include <sys/mount.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <functional>
#include <string>

#include "support/child.h"
#include "support/forked_linux.h"
#include "support/memory_disk_linux.h"
#include "support/temporary_folder.h"

namespace picture {
namespace {

/// A variable's value, or "(unset)".
std::string variable(const char* name) {
    const char* const value = std::getenv(name);
    return value ? value : "(unset)";
}

/// Runs as a program of an installation that has this file, which only it sees.
void in_installation(const std::string& file, const std::function<void()>& body) {
    test::in_fork([&] {
        test::use_private_memory_disk();
        const test::TemporaryFolder prefix;
        prefix.write("share/shmnm/environment", file);
        const auto program = std::filesystem::read_symlink("/proc/self/exe");
        ASSERT_EQ(
            mount(prefix.string().c_str(), program.parent_path().parent_path().c_str(), nullptr, MS_BIND, nullptr), 0)
            << std::strerror(errno);
        test::set_environment("KZM_INSTALL_PATH", nullptr);
        body();
    });
}

TEST(PackagedInstallation, SetsTheVariablesOfItsFile) {
    const std::string file =
        "# KZM_COMMENT=1\n"
        "KZM_INSTALL_PATH=/opt/here\n"
        "  KZM_BLANKS \t= two words \t\r\n"
        "KZM_DOUBLE=\"a b \"\n"
        "KZM_SINGLE=' c'\n"
        "KZM_OTHER_QUOTE=\"d'\n"
        "KZM_ONE_QUOTE='\n"
        "KZM_NO_QUOTES=\"\"\n"
        "KZM_EMPTY=\n"
        "KZM_EQUALS=e=f\n"
        "KZM_WITHOUT_VALUE\n"
        "\n"
        "OTHER_VARIABLE=1\n"
        "KZM_SET=new\n"
        "KZM_LAST=g";
    in_installation(file, [] {
        test::set_environment("KZM_SET", "old");
        use_packaged_installation();
        const struct {
            const char *name, *value;
        } expected[] = {{"KZM_COMMENT", "(unset)"},
                        {"# KZM_COMMENT", "(unset)"},
                        {"KZM_INSTALL_PATH", "/opt/here"},
                        {"KZM_BLANKS", "two words"},
                        {"KZM_DOUBLE", "a b "},
                        {"KZM_SINGLE", " c"},
                        {"KZM_OTHER_QUOTE", "\"d'"},
                        {"KZM_ONE_QUOTE", "'"},
                        {"KZM_NO_QUOTES", ""},
                        {"KZM_EMPTY", ""},
                        {"KZM_EQUALS", "e=f"},
                        {"KZM_WITHOUT_VALUE", "(unset)"},
                        {"OTHER_VARIABLE", "(unset)"},
                        {"KZM_SET", "old"},
                        {"KZM_LAST", "g"}};
        for (const auto& [name, value] : expected) EXPECT_EQ(variable(name), value) << name;
    });
}

TEST(PackagedInstallation, SetsNothingIfItsUserHasChosenAnother) {
    in_installation("KZM_INSTALL_PATH=/opt/here\nKZM_MORE=1\n", [] {
        test::set_environment("KZM_INSTALL_PATH", "/opt/there");
        use_packaged_installation();
        EXPECT_EQ(variable("KZM_INSTALL_PATH"), "/opt/there");
        EXPECT_EQ(variable("KZM_MORE"), "(unset)");
        test::set_environment("KZM_INSTALL_PATH", "");
        use_packaged_installation();
        EXPECT_EQ(variable("KZM_INSTALL_PATH"), "/opt/here") << "an empty path chooses none";
        EXPECT_EQ(variable("KZM_MORE"), "1");
    });
}

TEST(PackagedInstallation, LeavesAnEmptyPathUnsetIfItsFileHasNone) {
    in_installation("KZM_MORE=1\n", [] {
        test::set_environment("KZM_INSTALL_PATH", "");
        use_packaged_installation();
        EXPECT_EQ(variable("KZM_INSTALL_PATH"), "(unset)");
    });
}

}  // namespace
}  // namespace picture
