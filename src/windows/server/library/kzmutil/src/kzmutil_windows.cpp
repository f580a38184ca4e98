#include <windows.h>

#include <sddl.h>

#include <memory>

#include "platform.h"

namespace kzmutil {
namespace {

const char in_this_library = 0;

struct Close {
    void operator()(HANDLE handle) const noexcept { CloseHandle(handle); }
};
struct Free {
    void operator()(void* memory) const noexcept { LocalFree(memory); }
};
using Handle = std::unique_ptr<void, Close>;
using Local = std::unique_ptr<void, Free>;

/// Calls `fill(buffer, size)` with growing buffers. It returns the length of its text, or at least `size` if it did not
/// fit. Empty when it returns 0.
template <typename Fill>
std::string filled(Fill fill) {
    std::string text(MAX_PATH, '\0');
    for (;;) {
        const DWORD length = fill(text.data(), static_cast<DWORD>(text.size()));
        if (length < text.size()) {
            text.resize(length);
            return text;
        }
        text.resize(text.size() * 2);
    }
}

/// The token that this thread acts with: its own while it impersonates a user, else the process's.
Handle effective_token() {
    HANDLE token = nullptr;
    if (OpenThreadToken(GetCurrentThread(), TOKEN_QUERY, TRUE, &token)) return Handle(token);
    if (GetLastError() != ERROR_NO_TOKEN || !OpenProcessToken(GetCurrentProcess(), TOKEN_QUERY, &token)) return {};
    return Handle(token);
}

/// The user's security identifier as text; empty on failure.
std::string user_sid() {
    const Handle token = effective_token();
    struct {
        TOKEN_USER user;
        BYTE sid[SECURITY_MAX_SID_SIZE];
    } owner;
    DWORD size = 0;
    char* text = nullptr;
    if (!token || !GetTokenInformation(token.get(), TokenUser, &owner, sizeof owner, &size) ||
        !ConvertSidToStringSidA(owner.user.User.Sid, &text)) {
        return {};
    }
    const Local freed(text);
    return text;
}

/// Owned by the user, who with the administrators and the system may do everything; closed to all others. Nothing is
/// inherited from above. Null on failure.
Local owner_administrators_and_system() {
    const std::string sid = user_sid();
    if (sid.empty()) return {};
    const std::string text = "O:" + sid + "D:P(A;;GA;;;" + sid + ")(A;;GA;;;BA)(A;;GA;;;SY)";
    PSECURITY_DESCRIPTOR descriptor = nullptr;
    if (!ConvertStringSecurityDescriptorToSecurityDescriptorA(text.c_str(), SDDL_REVISION_1, &descriptor, nullptr)) {
        return {};
    }
    return Local(descriptor);
}

/// Calls `create(attributes)`; only what it does itself decides about the last error.
template <typename Create>
HANDLE created(Create create) {
    Local descriptor = owner_administrators_and_system();
    if (!descriptor) return nullptr;
    SECURITY_ATTRIBUTES attributes{sizeof(SECURITY_ATTRIBUTES), descriptor.get(), FALSE};
    SetLastError(ERROR_SUCCESS);
    const HANDLE object = create(&attributes);
    const DWORD error = GetLastError();
    descriptor.reset();
    SetLastError(error);
    return object;
}

}  // namespace

const std::string_view path_separators = "\\/";

uint32_t last_error() noexcept {
    return GetLastError();
}

void set_last_error(uint32_t error) noexcept {
    SetLastError(error);
}

std::string environment(const char* name) {
    return filled([&](char* buffer, DWORD size) { return GetEnvironmentVariableA(name, buffer, size); });
}

std::string own_file() {
    HMODULE module = nullptr;
    if (!GetModuleHandleExA(GET_MODULE_HANDLE_EX_FLAG_FROM_ADDRESS | GET_MODULE_HANDLE_EX_FLAG_UNCHANGED_REFCOUNT,
                            &in_this_library, &module)) {
        return {};
    }
    return filled([&](char* buffer, DWORD size) { return GetModuleFileNameA(module, buffer, size); });
}

size_t root_length(std::string_view path) noexcept {
    if (path.empty()) return 0;
    if (path_separators.find(path[0]) != std::string_view::npos) return 1;
    return path.size() >= 3 && path[1] == ':' && path_separators.find(path[2]) != std::string_view::npos ? 3 : 0;
}

void* create_mutex(const char* name) {
    return created([&](SECURITY_ATTRIBUTES* attributes) { return CreateMutexA(attributes, FALSE, name); });
}

void* create_mapping(uint32_t protect, uint64_t size, const char* name) {
    return created([&](SECURITY_ATTRIBUTES* attributes) {
        return CreateFileMappingA(INVALID_HANDLE_VALUE, attributes, protect, static_cast<DWORD>(size >> 32),
                                  static_cast<DWORD>(size), name);
    });
}

void* open_mapping(uint32_t access, bool inherit, const char* name) {
    return OpenFileMappingA(access, inherit, name);
}

}  // namespace kzmutil
