// The fake companions: libraries under the companions' own names that hand each call to the test program. Until a test
// program sets its routes (so while the library is being loaded) they do the least that lets the library work.
#pragma once

#include <cstdint>

#if defined(_WIN32) && defined(FAKE_BUILD)
#define FAKE_API extern "C" __declspec(dllexport)
#elif defined(_WIN32)
#define FAKE_API extern "C" __declspec(dllimport)
#else
#define FAKE_API extern "C" __attribute__((visibility("default")))
#endif

namespace fakes {

struct KzmutilRoutes {
    void* (*create_mutex)(uint32_t flags, const char* name);
    void* (*create_mapping)(void* file, uint32_t protect, uint32_t size_high, uint32_t size_low, const char* name);
    void* (*open_mapping)(uint32_t access, int32_t inherit, const char* name);
    int32_t (*install_path)(char* path, uint32_t size);
};

struct KzmxmlRoutes {
    int32_t (*init)(const char* module);
    int32_t (*term)();
    int32_t (*load_config)(int32_t flags);
    int32_t (*unload_config)();
    int32_t (*load_policy)(const char* policy);
    int32_t (*unload_policy)(const char* policy);
    int32_t (*get_value)(const char* path, int32_t type, void* value, int32_t* length);
};

struct KzmlogRoutes {
    int32_t (*open)(const char* module, void** log, uint32_t level, uint32_t size, uint32_t flags, const char* channel);
    int32_t (*close)(void* log);
    int32_t (*write)(void* log, uint32_t level, uint32_t flags, const char* file, int32_t line, const char* function,
                     const char* message);
};

}  // namespace fakes

/// Null: back to the least.
FAKE_API void fake_kzmutil_route(const fakes::KzmutilRoutes* routes);
FAKE_API void fake_kzmxml_route(const fakes::KzmxmlRoutes* routes);
FAKE_API void fake_kzmlog_route(const fakes::KzmlogRoutes* routes);
