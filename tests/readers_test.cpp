// Who may only read the region, and the installation's file that says so (Windows).
#include <windows.h>

#include <aclapi.h>
#include <gmock/gmock.h>
#include <sddl.h>

#include <filesystem>
#include <string>

#include "kzmutil.h"
#include "security_windows.h"
#include "setting_windows.h"
#include "support/child.h"
#include "support/temporary_folder.h"
#include "wide_path.h"
#include "windows_users.h"

namespace {

using test::own_sid;
using test::ScopedEnvironment;
using test::TemporaryFolder;

constexpr DWORD exists = ERROR_ALREADY_EXISTS, denied = ERROR_ACCESS_DENIED, missing = ERROR_FILE_NOT_FOUND;
constexpr uint32_t everything = 0xF001F, reading = 4;
constexpr const char* users = "S-1-5-32-545";

std::string notation_of(PSECURITY_DESCRIPTOR descriptor) {
    char* text = nullptr;
    if (!ConvertSecurityDescriptorToStringSecurityDescriptorA(
            descriptor, SDDL_REVISION_1, OWNER_SECURITY_INFORMATION | DACL_SECURITY_INFORMATION, &text, nullptr)) {
        return "no security";
    }
    std::string copy = text;
    LocalFree(text);
    // Windows notes the rights that a general right means for this kind of object, wine the general right.
    for (const std::string all : {"CCDCLCSWRPSDRCWDWO", "CCSDRCWDWOSY"}) {
        for (size_t at = 0; (at = copy.find(all, at)) != std::string::npos;) copy.replace(at, all.size(), "GA");
    }
    return copy;
}

/// The owner and the access list of an object, as it stands in the kernel.
std::string notation_of_object(HANDLE object) {
    PSECURITY_DESCRIPTOR descriptor = nullptr;
    if (GetSecurityInfo(object, SE_KERNEL_OBJECT, OWNER_SECURITY_INFORMATION | DACL_SECURITY_INFORMATION, nullptr,
                        nullptr, nullptr, nullptr, &descriptor) != ERROR_SUCCESS) {
        return "no security";
    }
    std::string text = notation_of(descriptor);
    LocalFree(descriptor);
    return text;
}

std::string without_readers() {
    return "O:" + own_sid() + "D:P(A;;GA;;;" + own_sid() + ")(A;;GA;;;BA)(A;;GA;;;SY)";
}
/// LC is the right to map a section for reading, RC the right to look at its security.
std::string with_users_as_readers() {
    return without_readers() + "(A;;LCRC;;;BU)";
}

HANDLE made(const char* name) {
    return KzmutilCreateNamedFileMapping(INVALID_HANDLE_VALUE, 4, 0, 4096, name);
}

TEST(NewSecurity, GivesReadersTheRightToMapAndNothingElse) {
    EXPECT_EQ(notation_of(kzmutil::new_security(users).get()), with_users_as_readers());
    EXPECT_EQ(notation_of(kzmutil::new_security("").get()), without_readers());
}

TEST(NewSecurity, KnowsAGroupByItsNameAndByItsIdentifier) {
    for (const char* const name : {"Users", R"(BUILTIN\Users)", users}) {
        EXPECT_EQ(notation_of(kzmutil::new_security(name).get()), with_users_as_readers()) << name;
    }
}

TEST(Readers, AreAdmittedToTheRegionAndNotToTheLock) {
    const ScopedEnvironment readers("KZMUTIL_READERS", "Users");
    const HANDLE region = made("read-region"), lock = KzmutilCreateNamedMutex(0, "read-lock");
    ASSERT_TRUE(region && lock);
    EXPECT_EQ(notation_of_object(region), with_users_as_readers());
    EXPECT_EQ(notation_of_object(lock), without_readers());
    CloseHandle(lock);
    CloseHandle(region);
}

TEST(Readers, AreAcceptedInARegionThatExists) {
    const ScopedEnvironment readers("KZMUTIL_READERS", users);
    const HANDLE region = made("shared-region");
    ASSERT_TRUE(region);
    const HANDLE again = made("shared-region");
    EXPECT_EQ(GetLastError(), exists);
    EXPECT_TRUE(again);
    for (const uint32_t access : {everything, reading}) {
        const HANDLE opened = KzmutilOpenNamedFileMapping(access, 0, "shared-region");
        EXPECT_TRUE(opened);
        CloseHandle(opened);
    }
    CloseHandle(again);
    CloseHandle(region);
}

TEST(Readers, MakeTheRegionUnusableOnceTheyMayDoAnythingElse) {
    // Map to write, map to execute, change the size, delete, wait, change the list, become the owner, everything.
    for (const char* const more :
         {"0x20006", "0x2000C", "0x20014", "0x30004", "0x120004", "0x60004", "0xA0004", "GA"}) {
        const HANDLE region = made("widened-region");
        ASSERT_TRUE(region);
        const std::string text = without_readers() + "(A;;" + more + ";;;BU)";
        PSECURITY_DESCRIPTOR wider = nullptr;
        ASSERT_TRUE(
            ConvertStringSecurityDescriptorToSecurityDescriptorA(text.c_str(), SDDL_REVISION_1, &wider, nullptr));
        ASSERT_TRUE(SetKernelObjectSecurity(region, DACL_SECURITY_INFORMATION, wider));
        EXPECT_FALSE(made("widened-region")) << more;
        EXPECT_EQ(GetLastError(), denied) << more;
        EXPECT_FALSE(KzmutilOpenNamedFileMapping(reading, 0, "widened-region")) << more;
        EXPECT_EQ(GetLastError(), denied) << more;
        LocalFree(wider);
        CloseHandle(region);
    }
}

TEST(Readers, OfAnUnknownNameKeepTheRegionFromBeingMade) {
    {
        const ScopedEnvironment readers("KZMUTIL_READERS", "no such group");
        EXPECT_FALSE(made("unreadable-region"));
        EXPECT_EQ(GetLastError(), DWORD{ERROR_NONE_MAPPED});
        const HANDLE lock = KzmutilCreateNamedMutex(0, "unreadable-lock");
        EXPECT_TRUE(lock);
        CloseHandle(lock);
    }
    EXPECT_FALSE(KzmutilOpenNamedFileMapping(reading, 0, "unreadable-region"));
    EXPECT_EQ(GetLastError(), missing);
}

/// An installation whose file of variables a test writes.
class InstallationsFile : public testing::Test {
  protected:
    void write(const std::string& text) const { folder_.write("etc/environment", text); }
    std::string value(const char* name) const {
        installation = folder_.string();
        std::string found = "#";
        EXPECT_EQ(kzmutil::read_setting(
                      name, [] { return installation; }, found),
                  DWORD{ERROR_SUCCESS});
        return found;
    }

    static inline std::string installation;
    TemporaryFolder folder_;
    ScopedEnvironment path_{"KZM_INSTALL_PATH", folder_.string().c_str()};
    ScopedEnvironment namespace_{"KZMUTIL_NAMESPACE", nullptr};
};

TEST_F(InstallationsFile, SetsWhatTheEnvironmentLeavesUnset) {
    EXPECT_EQ(value("KZMUTIL_READERS"), "");
    write(
        "\xEF\xBB\xBFKZMUTIL_READERS = \"Cluster readers\" \r\n# KZMUTIL_NAMESPACE=comment\r\nother\r\n"
        "KZMUTIL_NAMESPACE=first\r\nKZMUTIL_NAMESPACE=Global\\");
    EXPECT_EQ(value("KZMUTIL_READERS"), "Cluster readers");
    EXPECT_EQ(value("KZMUTIL_NAMESPACE"), "Global\\");
    EXPECT_EQ(value("KZMUTIL"), "");
    const ScopedEnvironment set("KZMUTIL_READERS", "others");
    EXPECT_EQ(value("KZMUTIL_READERS"), "others");
}

TEST_F(InstallationsFile, NamesTheObjectsOfAllProcesses) {
    const std::string prefix = "file-" + std::to_string(GetCurrentProcessId()) + "-";
    write("KZMUTIL_NAMESPACE=" + prefix + "\nKZMUTIL_READERS=Users\n");
    const HANDLE region = made("region");
    ASSERT_TRUE(region);
    EXPECT_EQ(notation_of_object(region), with_users_as_readers());
    const HANDLE same = OpenFileMappingA(FILE_MAP_READ, FALSE, (prefix + "region").c_str());
    EXPECT_TRUE(same);
    CloseHandle(same);
    {
        const ScopedEnvironment other("KZMUTIL_NAMESPACE", "other-");
        EXPECT_FALSE(KzmutilOpenNamedFileMapping(reading, 0, "region"));
        EXPECT_EQ(GetLastError(), missing);
    }
    CloseHandle(region);
}

TEST_F(InstallationsFile, ThatCannotBeReadKeepsEveryObjectFromBeingUsed) {
    std::filesystem::create_directories(folder_.path() / "etc" / "environment");
    EXPECT_FALSE(made("region"));
    EXPECT_EQ(GetLastError(), denied);
    EXPECT_FALSE(KzmutilCreateNamedMutex(0, "lock"));
    EXPECT_EQ(GetLastError(), denied);
    EXPECT_FALSE(KzmutilOpenNamedFileMapping(reading, 0, "region"));
    EXPECT_EQ(GetLastError(), denied);
}

TEST_F(InstallationsFile, OfMoreThan64KiBIsRefused) {
    write("KZMUTIL_NAMESPACE=x\n" + std::string(1 << 16, '#'));
    EXPECT_FALSE(made("region"));
    EXPECT_EQ(GetLastError(), DWORD{ERROR_FILE_TOO_LARGE});
}

}  // namespace
