// What is told when the system does not let a process create the region (Windows).
#include <gtest/gtest.h>
#include <windows.h>

#include <string>

#include "picture/error.h"
#include "picture/held_region.h"
#include "support/child.h"
#include "support/temporary_folder.h"

namespace {

void* deny(void*, uint32_t, uint32_t, uint32_t, const char*) {
    SetLastError(ERROR_ACCESS_DENIED);
    return nullptr;
}

}  // namespace

// Wine lets everybody create objects below Global\. This takes the place of the import from the companion.
extern "C" {
extern void* (*const imported_create)(void*, uint32_t, uint32_t, uint32_t,
                                      const char*)asm("__imp_KzmutilCreateNamedFileMapping");
void* (*const imported_create)(void*, uint32_t, uint32_t, uint32_t, const char*) = deny;
}

namespace picture {
namespace {

constexpr const char* usual_advice = "; run this as the user who runs the cluster";
constexpr const char* advice =
    ": below Global\\ this takes the privilege \"Create global objects\"; run this as a service or as an administrator "
    "with elevated rights, or give the privilege to this account";

/// Runs with the privilege switched off, as a process of a user who does not have it.
class DeniedRegion : public testing::Test {
  protected:
    DeniedRegion() {
        EXPECT_TRUE(OpenProcessToken(GetCurrentProcess(), TOKEN_QUERY | TOKEN_ADJUST_PRIVILEGES, &token_));
        EXPECT_TRUE(LookupPrivilegeValueW(nullptr, L"SeCreateGlobalPrivilege", &privilege_));
        permit(false);
    }
    ~DeniedRegion() override {
        permit(true);
        CloseHandle(token_);
    }
    void permit(bool is_permitted) {
        TOKEN_PRIVILEGES wanted{.PrivilegeCount = 1,
                                .Privileges = {{privilege_, is_permitted ? SE_PRIVILEGE_ENABLED : DWORD{0}}}};
        EXPECT_TRUE(AdjustTokenPrivileges(token_, FALSE, &wanted, 0, nullptr, nullptr));
        EXPECT_EQ(GetLastError(), DWORD{ERROR_SUCCESS});
    }
    static std::string refusal(const std::string& prefix) {
        const test::ScopedEnvironment name_space("KZMUTIL_NAMESPACE", prefix.c_str());
        try {
            HeldRegion::make_or_open({.servers = 1, .hb = 1, .np = 1, .fst = 1});
        } catch (const Error& error) {
            return error.what();
        }
        return "";
    }
    static std::string refused(const std::string& prefix, const std::string& ending) {
        return "cannot create the region " + prefix + "oru_kzmshmnm_map (error 5)" + ending;
    }

    const std::string own_ = "denied-" + std::to_string(GetCurrentProcessId()) + "-";
    HANDLE token_ = nullptr;
    LUID privilege_{};
};

TEST_F(DeniedRegion, BelowGlobalNamesThePrivilegeThatIsMissing) {
    EXPECT_EQ(refusal("Global\\" + own_), refused("Global\\" + own_, advice));
}

TEST_F(DeniedRegion, OfASessionNeedsNoPrivilege) {
    EXPECT_EQ(refusal(own_), refused(own_, usual_advice));
    EXPECT_EQ(refusal("Local\\" + own_), refused("Local\\" + own_, usual_advice));
}

TEST_F(DeniedRegion, OfAProcessWithThePrivilegeHasAnotherReason) {
    permit(true);
    EXPECT_EQ(refusal("Global\\" + own_), refused("Global\\" + own_, usual_advice));
}

TEST_F(DeniedRegion, ThatExistsHasAnotherReason) {
    const std::string prefix = "Global\\" + own_;
    const HANDLE mapping = CreateFileMappingA(INVALID_HANDLE_VALUE, nullptr, PAGE_READWRITE, 0, 4096,
                                              (prefix + "oru_kzmshmnm_map").c_str());
    ASSERT_TRUE(mapping);
    EXPECT_EQ(refusal(prefix), refused(prefix, usual_advice));
    CloseHandle(mapping);
}

}  // namespace
}  // namespace picture
