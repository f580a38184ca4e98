#include "security_windows.h"

#include <sddl.h>

#include <string>
#include <vector>

#include "wide_path.h"

namespace kzmutil {
namespace {

/// The token that this thread acts with: its own while it impersonates a user, otherwise the process's. Null on
/// failure.
Handle effective_token() {
    HANDLE token = nullptr;
    if (OpenThreadToken(GetCurrentThread(), TOKEN_QUERY, TRUE, &token)) return Handle(token);
    if (GetLastError() != ERROR_NO_TOKEN || !OpenProcessToken(GetCurrentProcess(), TOKEN_QUERY, &token)) return {};
    return Handle(token);
}

/// The user that this thread acts as.
class User {
  public:
    User() {
        const Handle token = effective_token();
        DWORD size = 0;
        known_ = token && GetTokenInformation(token.get(), TokenUser, &information_, sizeof information_, &size);
    }
    User(const User&) = delete;
    User& operator=(const User&) = delete;
    /// Null if the system did not tell.
    PSID sid() const { return known_ ? information_.user.User.Sid : nullptr; }

  private:
    bool known_ = false;
    struct {
        TOKEN_USER user;
        BYTE sid[SECURITY_MAX_SID_SIZE];
    } information_;
};

/// An identifier as text; empty on failure.
std::wstring text_of(PSID sid) {
    wchar_t* text = nullptr;
    if (!sid || !ConvertSidToStringSidW(sid, &text)) return {};
    const Local freed(text);
    return text;
}

/// The identifier of an account as text, from its name or from such a text; empty on failure.
std::wstring identifier_of(const std::string& account) {
    const std::wstring name = wide_path::to_wide(account);
    PSID given = nullptr;
    if (ConvertStringSidToSidW(name.c_str(), &given)) {
        const Local freed(given);
        return text_of(given);
    }
    BYTE sid[SECURITY_MAX_SID_SIZE];
    wchar_t domain[256];
    DWORD sid_size = sizeof sid, domain_size = 256;
    SID_NAME_USE use{};
    return LookupAccountNameW(nullptr, name.c_str(), sid, &sid_size, domain, &domain_size, &use) ? text_of(sid) : L"";
}

/// The present owner and access list of an object, self-relative; empty on failure.
std::vector<BYTE> security_of(HANDLE object) {
    std::vector<BYTE> descriptor;
    DWORD size = 0;
    while (!GetKernelObjectSecurity(object, OWNER_SECURITY_INFORMATION | DACL_SECURITY_INFORMATION, descriptor.data(),
                                    static_cast<DWORD>(descriptor.size()), &size)) {
        if (GetLastError() != ERROR_INSUFFICIENT_BUFFER || size <= descriptor.size()) return {};
        descriptor.resize(size);
    }
    return descriptor;
}

bool is_ours(PSID sid, PSID user) {
    return EqualSid(sid, user) || IsWellKnownSid(sid, WinBuiltinAdministratorsSid) ||
           IsWellKnownSid(sid, WinLocalSystemSid);
}

/// Whether an entry of the access list gives nobody else more than `reading`. Entries of an unknown kind are not
/// harmless.
bool is_harmless(ACE_HEADER& entry, PSID user, ACCESS_MASK reading) {
    if (entry.AceFlags & INHERIT_ONLY_ACE || entry.AceType == ACCESS_DENIED_ACE_TYPE) return true;
    if (entry.AceType != ACCESS_ALLOWED_ACE_TYPE) return false;
    auto& allowed = reinterpret_cast<ACCESS_ALLOWED_ACE&>(entry);
    return (allowed.Mask & ~reading) == 0 || is_ours(&allowed.SidStart, user);
}

}  // namespace

Local new_security(const std::string& readers) {
    const User user;
    const std::wstring sid = text_of(user.sid()), reader_sid = readers.empty() ? L"" : identifier_of(readers);
    if (sid.empty() || (reader_sid.empty() && !readers.empty())) return {};
    std::wstring text = L"O:" + sid + L"D:P(A;;GA;;;" + sid + L")(A;;GA;;;BA)(A;;GA;;;SY)";
    if (!reader_sid.empty()) text += L"(A;;0x20004;;;" + reader_sid + L")";
    static_assert((READ_CONTROL | SECTION_MAP_READ) == 0x20004);
    PSECURITY_DESCRIPTOR descriptor = nullptr;
    if (!ConvertStringSecurityDescriptorToSecurityDescriptorW(text.c_str(), SDDL_REVISION_1, &descriptor, nullptr)) {
        return {};
    }
    return Local(descriptor);
}

bool is_trusted(HANDLE object, ACCESS_MASK reading) {
    const User user;
    std::vector<BYTE> descriptor = security_of(object);
    if (!user.sid() || descriptor.empty()) return false;
    PSID owner = nullptr;
    BOOL present = FALSE, defaulted = FALSE;
    if (!GetSecurityDescriptorOwner(descriptor.data(), &owner, &defaulted) || !owner || !is_ours(owner, user.sid())) {
        return false;
    }
    PACL list = nullptr;  // stays null if there is none: the object is then open to everyone
    if (!GetSecurityDescriptorDacl(descriptor.data(), &present, &list, &defaulted) || !present || !list) return false;
    for (DWORD i = 0; i < list->AceCount; ++i) {
        void* entry = nullptr;
        if (!GetAce(list, i, &entry) || !is_harmless(*static_cast<ACE_HEADER*>(entry), user.sid(), reading)) {
            return false;
        }
    }
    return true;
}

}  // namespace kzmutil
