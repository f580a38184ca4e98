#include "picture/library.h"

#include <fmt/format.h>

#include "picture/failure.h"
#include "picture/platform.h"

namespace picture {
namespace {

template <typename Function>
void look_up(void* module, const char* name, Function& function) {
    function = reinterpret_cast<Function>(platform::symbol(module, name));
    if (!function) {
        throw Failure(Exit::failed, fmt::format("{} has no {}; install a library and a tool of one version",
                                                platform::library_file, name));
    }
}

Library load() {
    void* const module = platform::load_module(platform::library_file);
    if (!module) {
        throw Failure(Exit::failed,
                      fmt::format("{} is not found or cannot be loaded; it belongs beside this program, with its "
                                  "companions",
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

}  // namespace picture
