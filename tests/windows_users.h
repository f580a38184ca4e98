// Security identifiers as text (Windows).
#pragma once

#include <windows.h>

#include <gtest/gtest.h>
#include <sddl.h>

#include <string>

namespace test {

inline std::string text_of(PSID sid) {
    char* text = nullptr;
    if (!ConvertSidToStringSidA(sid, &text)) return "no identifier";
    const std::string copy = text;
    LocalFree(text);
    return copy;
}

inline std::string own_sid() {
    HANDLE token = nullptr;
    EXPECT_TRUE(OpenProcessToken(GetCurrentProcess(), TOKEN_QUERY, &token));
    alignas(TOKEN_USER) BYTE user[sizeof(TOKEN_USER) + SECURITY_MAX_SID_SIZE];
    DWORD size = 0;
    EXPECT_TRUE(GetTokenInformation(token, TokenUser, user, sizeof user, &size));
    CloseHandle(token);
    return text_of(reinterpret_cast<TOKEN_USER*>(user)->User.Sid);
}

}  // namespace test
