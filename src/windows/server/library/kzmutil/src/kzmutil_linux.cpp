#include <dlfcn.h>

#include <climits>
#include <cstdlib>

#include "kzmkernel.h"
#include "platform.h"

namespace kzmutil {
namespace {

char loaded_from[PATH_MAX];  // empty: not known

/// The loader may know this library by a relative path, which is valid only in the working folder of the load.
[[gnu::constructor]] void remember_own_file() {
    Dl_info info;
    // branch: the library's file is removed while the loader loads it
    if (!dladdr(loaded_from, &info) || !realpath(info.dli_fname, loaded_from)) loaded_from[0] = '\0';
}

}  // namespace

const std::string_view path_separators = "/";

uint32_t last_error() noexcept {
    return kzmkernel_last_error();
}

void set_last_error(uint32_t error) noexcept {
    kzmkernel_set_last_error(error);
}

std::string environment(const char* name) {
    // The caller of a program with more rights must not choose its paths and names.
    const char* const value = secure_getenv(name);
    return value ? value : "";
}

std::string own_file() {
    if (!loaded_from[0]) set_last_error(KZMKERNEL_ERROR_FILE_NOT_FOUND);
    return loaded_from;
}

size_t root_length(std::string_view path) noexcept {
    return path.starts_with('/') ? 1 : 0;
}

std::string setting(const char* name) {
    return environment(name);
}

void* create_mutex(const char* name) {
    return kzmkernel_create_mutex(name);
}

void* create_mapping(uint32_t protect, uint64_t size, const char* name) {
    return kzmkernel_create_mapping(protect, size, name);
}

/// There is nothing to inherit: exec closes every handle.
void* open_mapping(uint32_t access, bool, const char* name) {
    return kzmkernel_open_mapping(access, name);
}

}  // namespace kzmutil
