// Preloaded into the bridge, it stands between the bridge and the library, and between the bridge and the network. Each
// call of the library shows up in a trace of system calls, as a write to no descriptor. SHMNM_KILL_AFTER_CALL=N kills
// the process after its Nth call of the library, SHMNM_KILL_AFTER_REQUEST=N after it has connected or sent for the Nth
// time.
#include <dlfcn.h>
#include <sys/socket.h>
#include <unistd.h>

#include <atomic>
#include <csignal>
#include <cstdlib>
#include <string>
#include <string_view>

#include "picture/library.h"

namespace {

/// Steps of one kind, the last of which kills this process.
class Steps {
  public:
    explicit Steps(const char* variable) {
        if (const char* const last = std::getenv(variable)) last_ = std::atol(last);
    }
    void step() {
        if (++count_ == last_) kill(getpid(), SIGKILL);
    }

  private:
    std::atomic<long> count_ = 0;
    long last_ = 0;
};

void count_call() {
    static Steps calls("SHMNM_KILL_AFTER_CALL");
    calls.step();
}
void count_request() {
    static Steps requests("SHMNM_KILL_AFTER_REQUEST");
    requests.step();
}

constexpr const char* names[] = {
#define NAME(name) #name,
    PICTURE_FUNCTIONS(NAME)
#undef NAME
};
constexpr size_t count = sizeof names / sizeof names[0];
void* functions[count];

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
        count_call();
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

void* found(void* module, const char* name) {
    static const auto system =
        reinterpret_cast<void* (*)(void*, const char*)>(dlvsym(RTLD_NEXT, "dlsym", "GLIBC_2.2.5"));
    return system(module, name);
}

/// What a function of the system returns that speaks with the network.
template <typename Function, typename... Arguments>
auto requested(const char* name, Arguments... arguments) {
    const auto result = reinterpret_cast<Function*>(found(RTLD_NEXT, name))(arguments...);
    count_request();
    return result;
}

}  // namespace

#define SHMNM_PRELOADED extern "C" __attribute__((visibility("default")))

SHMNM_PRELOADED void* dlsym(void* module, const char* name) noexcept {
    void* const function = found(module, name);
    const size_t index = index_of(name);
    if (index == count || !function) return function;
    functions[index] = function;
    return shown[index];
}

SHMNM_PRELOADED int connect(int socket, const sockaddr* address, socklen_t size) {
    return requested<decltype(connect)>("connect", socket, address, size);
}
SHMNM_PRELOADED ssize_t send(int socket, const void* data, size_t size, int flags) {
    return requested<decltype(send)>("send", socket, data, size, flags);
}
SHMNM_PRELOADED ssize_t sendmsg(int socket, const msghdr* message, int flags) {
    return requested<decltype(sendmsg)>("sendmsg", socket, message, flags);
}
