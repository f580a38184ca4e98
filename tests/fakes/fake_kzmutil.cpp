#include <cstdlib>
#include <cstring>
#include <string>

#include "fakes/routes.h"
#include "kernel_objects.h"
#include "kzmutil.h"

namespace {

const fakes::KzmutilRoutes* routes = nullptr;

/// A test program loads the library before it has a namespace. The lock of this fake must not be in the way of another
/// program's real one then: on Windows it has no owner, so it would be refused.
std::string full_name(const char* name) {
    const char* const prefix = std::getenv("KZMUTIL_NAMESPACE");
    return (prefix ? prefix : "fake-") + std::string(name);
}

}  // namespace

void fake_kzmutil_route(const fakes::KzmutilRoutes* new_routes) {
    routes = new_routes;
}

void* KzmutilCreateNamedMutex(uint32_t flags, const char* name) {
    if (routes) return routes->create_mutex(flags, name);
    // Loading the library can be made to fail before a test program has set its routes.
    if (std::getenv("FAKE_KZMUTIL_NO_MUTEX")) {
        test::set_last_error(5);
        return nullptr;
    }
    return test::create_mutex(full_name(name).c_str());
}

void* KzmutilCreateNamedFileMapping(void* file, uint32_t protect, uint32_t size_high, uint32_t size_low,
                                    const char* name) {
    if (routes) return routes->create_mapping(file, protect, size_high, size_low, name);
    return test::create_mapping(uint64_t{size_high} << 32 | size_low, full_name(name).c_str());
}

void* KzmutilOpenNamedFileMapping(uint32_t access, int32_t inherit, const char* name) {
    if (routes) return routes->open_mapping(access, inherit, name);
    return test::open_mapping(access, full_name(name).c_str());
}

int32_t KzmutilGetInstallPath(char* path, uint32_t size) {
    if (routes) return routes->install_path(path, size);
    if (size < 2) return 0;
    std::memcpy(path, ".", 2);
    return 1;
}
