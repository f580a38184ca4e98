#include <windows.h>

#include <aclapi.h>
#include <gmock/gmock.h>

#include "kzmutil.h"
#include "kzmutil_test_platform.h"
#include "support/child.h"
#include "windows_users.h"

namespace test {

const char* const impossible_name = "no\\such";

std::string own_executable() {
    std::string path(4096, '\0');
    path.resize(GetModuleFileNameA(nullptr, path.data(), static_cast<DWORD>(path.size())));
    return path;
}
/// Looks at every number that a handle of so small a process can have: not all systems count them.
size_t open_handles() {
    size_t count = 0;
    for (uintptr_t number = 4; number < 0x4000; number += 4) {
        DWORD flags = 0;
        if (GetHandleInformation(reinterpret_cast<HANDLE>(number), &flags)) ++count;
    }
    return count;
}
bool release_mutex(void* mutex) {
    return ReleaseMutex(mutex) != 0;
}
std::vector<PathCase> path_cases() {
    return {{"C:\\kzm", "C:\\kzm"},
            {"C:\\kzm\\", "C:\\kzm"},
            {"C:\\a b/kzm/\\/", "C:\\a b/kzm"},
            {"C:\\", "C:\\"},
            {"C:/", "C:/"},
            {"C:\\\\\\", "C:\\"},
            {"\\", "\\"},
            {"//", "/"},
            {"C:", "C:"},
            {"relative\\", "relative"},
            {"\\\\server\\share\\", "\\\\server\\share"}};
}

}  // namespace test

namespace {

using test::own_sid;
using test::text_of;
using testing::Pair;
using testing::UnorderedElementsAre;

/// Who may do what with an object, as it stands in the kernel; everything that there is reads as `all`.
struct Security {
    Security(HANDLE object, DWORD all) {
        PSID owner_sid = nullptr;
        PACL list = nullptr;
        PSECURITY_DESCRIPTOR descriptor = nullptr;
        const DWORD error =
            GetSecurityInfo(object, SE_KERNEL_OBJECT, OWNER_SECURITY_INFORMATION | DACL_SECURITY_INFORMATION,
                            &owner_sid, nullptr, &list, nullptr, &descriptor);
        EXPECT_EQ(error, 0u);
        if (error != 0) return;
        owner = text_of(owner_sid);
        EXPECT_TRUE(list) << "open to everyone";
        for (DWORD i = 0; list && i < list->AceCount; ++i) {
            void* entry = nullptr;
            EXPECT_TRUE(GetAce(list, i, &entry));
            auto* const allowed = static_cast<ACCESS_ALLOWED_ACE*>(entry);
            EXPECT_EQ(allowed->Header.AceType, ACCESS_ALLOWED_ACE_TYPE);
            GENERIC_MAPPING meanings{0, 0, 0, all};
            DWORD rights = allowed->Mask;
            MapGenericMask(&rights, &meanings);
            entries.emplace_back(text_of(&allowed->SidStart), rights);
        }
        LocalFree(descriptor);
    }
    std::string owner;
    std::vector<std::pair<std::string, DWORD>> entries;
};

constexpr const char *administrators = "S-1-5-32-544", *the_system = "S-1-5-18";

TEST(SecurityOnWindows, GrantsAMutexOnlyToItsOwnerAdministratorsAndTheSystem) {
    const HANDLE mutex = KzmutilCreateNamedMutex(0, "secured-mutex");
    ASSERT_TRUE(mutex);
    const Security security(mutex, MUTEX_ALL_ACCESS);
    EXPECT_EQ(security.owner, own_sid());
    EXPECT_THAT(security.entries,
                UnorderedElementsAre(Pair(own_sid(), MUTEX_ALL_ACCESS), Pair(administrators, MUTEX_ALL_ACCESS),
                                     Pair(the_system, MUTEX_ALL_ACCESS)));
    CloseHandle(mutex);
}

TEST(SecurityOnWindows, GrantsAMappingOnlyToItsOwnerAdministratorsAndTheSystem) {
    const HANDLE mapping = KzmutilCreateNamedFileMapping(INVALID_HANDLE_VALUE, 4, 0, 4096, "secured-mapping");
    ASSERT_TRUE(mapping);
    const Security security(mapping, SECTION_ALL_ACCESS);
    EXPECT_EQ(security.owner, own_sid());
    EXPECT_THAT(security.entries,
                UnorderedElementsAre(Pair(own_sid(), SECTION_ALL_ACCESS), Pair(administrators, SECTION_ALL_ACCESS),
                                     Pair(the_system, SECTION_ALL_ACCESS)));
    CloseHandle(mapping);
}

TEST(SessionsOnWindows, HaveTheirOwnNamesBesideTheGlobalOnes) {
    const std::string name = "session-" + std::to_string(GetCurrentProcessId());
    const test::ScopedEnvironment global("KZMUTIL_NAMESPACE", "Global\\");
    const HANDLE made = KzmutilCreateNamedFileMapping(INVALID_HANDLE_VALUE, 4, 0, 4096, name.c_str());
    ASSERT_TRUE(made);
    const HANDLE opened = KzmutilOpenNamedFileMapping(0xF001F, 0, name.c_str());
    EXPECT_TRUE(opened);
    {
        const test::ScopedEnvironment session("KZMUTIL_NAMESPACE", "Local\\");
        EXPECT_FALSE(KzmutilOpenNamedFileMapping(0xF001F, 0, name.c_str()));
        EXPECT_EQ(GetLastError(), DWORD{ERROR_FILE_NOT_FOUND});
    }
    {
        const test::ScopedEnvironment none("KZMUTIL_NAMESPACE", nullptr);
        EXPECT_FALSE(KzmutilOpenNamedFileMapping(0xF001F, 0, name.c_str()));
        EXPECT_EQ(GetLastError(), DWORD{ERROR_FILE_NOT_FOUND});
    }
    CloseHandle(opened);
    CloseHandle(made);
}

TEST(InstallPathOnWindows, IsUtf8) {
    const test::ScopedEnvironment restored("KZM_INSTALL_PATH", "");
    ASSERT_TRUE(SetEnvironmentVariableW(L"KZM_INSTALL_PATH", L"C:\\\x041A\x043B \xD83D\xDDA5\\"));
    char path[64];
    ASSERT_TRUE(KzmutilGetInstallPath(path, sizeof path));
    EXPECT_STREQ(path, "C:\\\xD0\x9A\xD0\xBB \xF0\x9F\x96\xA5");
}

bool is_inheritable(HANDLE object) {
    DWORD flags = 0;
    EXPECT_TRUE(GetHandleInformation(object, &flags));
    return flags & HANDLE_FLAG_INHERIT;
}

TEST(HandlesOnWindows, AreInheritableOnlyWhenOpenedSo) {
    const HANDLE mutex = KzmutilCreateNamedMutex(0, "inherited-mutex");
    const HANDLE created = KzmutilCreateNamedFileMapping(INVALID_HANDLE_VALUE, 4, 0, 4096, "inherited");
    const HANDLE not_inherited = KzmutilOpenNamedFileMapping(0xF001F, 0, "inherited");
    const HANDLE inherited = KzmutilOpenNamedFileMapping(0xF001F, 1, "inherited");
    ASSERT_TRUE(mutex && created && not_inherited && inherited);
    EXPECT_FALSE(is_inheritable(mutex));
    EXPECT_FALSE(is_inheritable(created));
    EXPECT_FALSE(is_inheritable(not_inherited));
    EXPECT_TRUE(is_inheritable(inherited));
    for (const HANDLE object : {mutex, created, not_inherited, inherited}) CloseHandle(object);
}

}  // namespace
