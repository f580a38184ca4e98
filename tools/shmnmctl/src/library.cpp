#include "library.h"

#include <fmt/format.h>

#include "failure.h"
#include "platform.h"

namespace shmnmctl {
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
#define SHMNMCTL_FUNCTION(name) look_up(module, #name, loaded.name);
    SHMNMCTL_FUNCTIONS(SHMNMCTL_FUNCTION)
#undef SHMNMCTL_FUNCTION
    return loaded;
}

}  // namespace

const Library& library() {
    static const Library loaded = load();
    return loaded;
}

const char* meaning(uint32_t result) {
    switch (result) {
#define SHMNMCTL_RESULT(name, value, text) \
    case value:                            \
        return text;
        SHMNM_RESULTS(SHMNMCTL_RESULT)
#undef SHMNMCTL_RESULT
        default:
            return "an unknown result";
    }
}

}  // namespace shmnmctl
