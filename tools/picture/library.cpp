#include "picture/library.h"

#include <fmt/format.h>

#include "kzmutil.h"
#include "picture/error.h"
#include "picture/live.h"
#include "picture/platform.h"

namespace picture {
namespace {

template <typename Pointer>
void look_up(void* module, const char* name, Function<Pointer>& function) {
    function = {reinterpret_cast<Pointer>(platform::symbol(module, name)), name};
    if (!function.pointer) {
        throw Error(ErrorKind::failed,
                    fmt::format("{} has no function {}: install the library and this program in one version",
                                platform::library_file, name));
    }
}

/// Without its lock the library refuses to load, and the loader does not tell why.
/// @throws Error  this user may not use the lock
void expect_usable_lock() {
    void* const mutex = KzmutilCreateNamedMutex(0, mutex_name);
    if (mutex) return platform::close(mutex);
    throw Error(ErrorKind::failed, fmt::format("cannot open the lock {} {}", full_name(mutex_name), last_failure()));
}

Library load() {
    void* const module = platform::load_module(platform::library_file);
    if (!module) {
        expect_usable_lock();
        throw Error(ErrorKind::failed, fmt::format("cannot load {}: put it beside this program, with its companions",
                                                   platform::library_file));
    }
    Library loaded{};
#define PICTURE_FUNCTION(name) look_up(module, #name, loaded.name);
    PICTURE_FUNCTIONS(PICTURE_FUNCTION)
#undef PICTURE_FUNCTION
    return loaded;
}

}  // namespace

const Library& library() {
    static const Library loaded = load();
    return loaded;
}

const char* meaning(uint32_t result) {
    switch (result) {
#define PICTURE_RESULT(name, value, text) \
    case value:                           \
        return text;
        SHMNM_RESULTS(PICTURE_RESULT)
#undef PICTURE_RESULT
        default:
            return "an unknown result";
    }
}

void expect_ok(const char* function, uint32_t result) {
    if (result == SHMNM_OK) return;
    throw Error(ErrorKind::failed, fmt::format("{} failed with code {} ({})", function, result, meaning(result)));
}

}  // namespace picture
