#include <windows.h>

#include <utility>

#include "installation.h"
#include "platform.h"
#include "security_windows.h"
#include "setting_windows.h"
#include "wide_path.h"

namespace kzmutil {
namespace {

const char in_this_library = 0;

HANDLE refuse(Handle object) {
    object.reset();
    SetLastError(ERROR_ACCESS_DENIED);
    return nullptr;
}

/// Calls `create(attributes)`. Refuses the object if it existed and others may do more than `reading`; otherwise the
/// last error is the one that `create` left.
/// @param[in] readers  the group that may read a new object; empty: none
template <typename Create>
HANDLE create_or_refuse(ACCESS_MASK reading, const std::string& readers, Create create) {
    Local descriptor = new_security(readers);
    if (!descriptor) return nullptr;
    SECURITY_ATTRIBUTES attributes{sizeof(SECURITY_ATTRIBUTES), descriptor.get(), FALSE};
    SetLastError(ERROR_SUCCESS);
    Handle object(create(&attributes));
    const DWORD error = GetLastError();
    descriptor.reset();
    if (error == ERROR_ALREADY_EXISTS && !is_trusted(object.get(), reading)) return refuse(std::move(object));
    SetLastError(error);
    return object.release();
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
    const std::wstring wide = wide_path::to_wide(name);
    return wide_path::to_utf8(wide_path::fill_text(
        [&](wchar_t* buffer, DWORD size) { return GetEnvironmentVariableW(wide.c_str(), buffer, size); }));
}

std::string own_file() {
    HMODULE module = nullptr;
    if (!GetModuleHandleExA(GET_MODULE_HANDLE_EX_FLAG_FROM_ADDRESS | GET_MODULE_HANDLE_EX_FLAG_UNCHANGED_REFCOUNT,
                            &in_this_library, &module)) {
        return {};
    }
    return wide_path::to_utf8(
        wide_path::fill_text([&](wchar_t* buffer, DWORD size) { return GetModuleFileNameW(module, buffer, size); }));
}

size_t root_length(std::string_view path) noexcept {
    if (path.empty()) return 0;
    if (path_separators.find(path[0]) != std::string_view::npos) return 1;
    return path.size() >= 3 && path[1] == ':' && path_separators.find(path[2]) != std::string_view::npos ? 3 : 0;
}

std::string setting(const char* name) {
    std::string value;
    const uint32_t error = read_setting(name, install_path, value);
    if (error != ERROR_SUCCESS) throw Unknown{error};
    return value;
}

// No group gets rights to the mutex: who can wait for it can take it and block the cluster.
void* create_mutex(const char* name) {
    const std::wstring wide = wide_path::to_wide(name);
    return create_or_refuse(reading_a_mutex, "", [&](SECURITY_ATTRIBUTES* attributes) {
        return CreateMutexW(attributes, FALSE, wide.c_str());
    });
}

void* create_mapping(uint32_t protect, uint64_t size, const char* name) {
    const std::wstring wide = wide_path::to_wide(name);
    return create_or_refuse(reading_a_mapping, setting("KZMUTIL_READERS"), [&](SECURITY_ATTRIBUTES* attributes) {
        return CreateFileMappingW(INVALID_HANDLE_VALUE, attributes, protect, static_cast<DWORD>(size >> 32),
                                  static_cast<DWORD>(size), wide.c_str());
    });
}

void* open_mapping(uint32_t access, bool inherit, const char* name) {
    Handle mapping(OpenFileMappingW(access | READ_CONTROL, inherit, wide_path::to_wide(name).c_str()));
    if (mapping && !is_trusted(mapping.get(), reading_a_mapping)) return refuse(std::move(mapping));
    return mapping.release();
}

}  // namespace kzmutil
