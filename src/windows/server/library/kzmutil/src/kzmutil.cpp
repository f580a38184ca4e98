// The utility companion. It checks arguments and puts the namespace before names; the kernel does the rest.
#include "kzmutil.h"

#include <cstring>
#include <new>
#include <string>

#include "installation.h"
#include "platform.h"

namespace kzmutil {
namespace {

constexpr uint32_t error_not_enough_memory = 8;
constexpr uint32_t error_invalid_parameter = 87;
constexpr uint32_t error_insufficient_buffer = 122;

constexpr uint32_t page_readwrite = 4;
constexpr uintptr_t no_file = UINTPTR_MAX;  // the kernel's invalid handle, as a number

template <typename Result>
Result fail(uint32_t error) noexcept {
    set_last_error(error);
    return {};
}

bool is_name(const char* name) noexcept {
    return name && *name;
}

std::string full_name(const char* name) {
    return setting("KZMUTIL_NAMESPACE") + name;
}

/// Runs work that may run out of memory or meet a setting that cannot be read. No exception leaves the library.
template <typename Work>
auto guarded(Work work) noexcept -> decltype(work()) {
    try {
        return work();
    } catch (const std::bad_alloc&) {
        return fail<decltype(work())>(error_not_enough_memory);
    } catch (const Unknown& unknown) {
        return fail<decltype(work())>(unknown.error);
    }
}

void strip_trailing_separators(std::string& path) {
    const size_t end = path.find_last_not_of(path_separators);
    const size_t length = end == std::string::npos ? 0 : end + 1;
    const size_t root = root_length(path);
    path.resize(length < root ? root : length);
}

void strip_last_part(std::string& path) {
    strip_trailing_separators(path);
    const size_t separator = path.find_last_of(path_separators);
    const size_t length = separator == std::string::npos ? 0 : separator;
    const size_t root = root_length(path);
    // branch: the library lies in the root folder or in one of its folders
    path.resize(length < root ? root : length);
    strip_trailing_separators(path);
}

}  // namespace

std::string install_path() {
    std::string path = environment("KZM_INSTALL_PATH");
    if (path.empty()) {
        path = own_file();
        strip_last_part(path);
        strip_last_part(path);
    } else {
        strip_trailing_separators(path);
    }
    return path;
}

}  // namespace kzmutil

using namespace kzmutil;

void* KzmutilCreateNamedMutex(uint32_t flags, const char* name) {
    return guarded([&]() -> void* {
        if (flags != 0 || !is_name(name)) return fail<void*>(error_invalid_parameter);
        return create_mutex(full_name(name).c_str());
    });
}

void* KzmutilCreateNamedFileMapping(void* file, uint32_t protect, uint32_t size_high, uint32_t size_low,
                                    const char* name) {
    return guarded([&]() -> void* {
        const uint64_t size = uint64_t{size_high} << 32 | size_low;
        if (reinterpret_cast<uintptr_t>(file) != no_file || protect != page_readwrite || !is_name(name)) {
            return fail<void*>(error_invalid_parameter);
        }
        return create_mapping(protect, size, full_name(name).c_str());
    });
}

void* KzmutilOpenNamedFileMapping(uint32_t access, int32_t inherit, const char* name) {
    return guarded([&]() -> void* {
        const uint32_t before = last_error();
        if (!is_name(name)) return fail<void*>(error_invalid_parameter);
        void* const mapping = open_mapping(access, inherit != 0, full_name(name).c_str());
        if (mapping) set_last_error(before);
        return mapping;
    });
}

int32_t KzmutilGetInstallPath(char* path, uint32_t size) {
    return guarded([&]() -> int32_t {
        const uint32_t before = last_error();
        if (!path) return fail<int32_t>(error_invalid_parameter);
        const std::string found = install_path();
        if (found.empty()) return 0;
        if (found.size() >= size) return fail<int32_t>(error_insufficient_buffer);
        std::memcpy(path, found.c_str(), found.size() + 1);
        set_last_error(before);
        return 1;
    });
}
