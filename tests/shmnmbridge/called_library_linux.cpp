// Preloaded into the bridge, it stands between the bridge and the library: each call shows up in a trace of system
// calls, as a write to no descriptor, and SHMNM_KILL_AFTER=N kills the process after its Nth call.
#include <dlfcn.h>
#include <unistd.h>

#include <atomic>
#include <csignal>
#include <cstdlib>
#include <string>
#include <string_view>

#include "picture/library.h"

namespace {

constexpr const char* names[] = {
#define NAME(name) #name,
    PICTURE_FUNCTIONS(NAME)
#undef NAME
};
constexpr size_t count = sizeof names / sizeof names[0];
void* functions[count];
std::atomic<long> calls = 0;

void show(char mark, std::string_view name) {
    char text[64]{mark, ' '};
    const size_t size = name.copy(text + 2, sizeof text - 2) + 2;
    [[maybe_unused]] const ssize_t none = write(-1, text, size);
}

template <size_t index, typename Pointer>
struct Shown;

template <size_t index, typename... Arguments>
struct Shown<index, uint32_t (*)(Arguments...)> {
    static uint32_t call(Arguments... arguments) {
        show('>', names[index]);
        const uint32_t result = reinterpret_cast<uint32_t (*)(Arguments...)>(functions[index])(arguments...);
        show('<', names[index]);
        static const char* const last = std::getenv("SHMNM_KILL_AFTER");
        if (++calls == (last ? std::atol(last) : 0)) kill(getpid(), SIGKILL);
        return result;
    }
};

constexpr size_t index_of(std::string_view name) {
    size_t index = 0;
    while (index < count && name != names[index]) ++index;
    return index;
}

void* const shown[] = {
#define SHOWN(name) reinterpret_cast<void*>(&Shown<index_of(#name), decltype(&::name)>::call),
    PICTURE_FUNCTIONS(SHOWN)
#undef SHOWN
};

}  // namespace

extern "C" __attribute__((visibility("default"))) void* dlsym(void* module, const char* name) noexcept {
    static const auto found =
        reinterpret_cast<void* (*)(void*, const char*)>(dlvsym(RTLD_NEXT, "dlsym", "GLIBC_2.2.5"));
    void* const function = found(module, name);
    const size_t index = index_of(name);
    if (index == count || !function) return function;
    functions[index] = function;
    return shown[index];
}
