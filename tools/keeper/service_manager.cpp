#include "service_manager.h"

#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cstddef>
#include <cstdlib>
#include <cstring>

namespace service_manager {
namespace {

/// A number in the environment; 0 if there is none.
uint64_t number_in_environment(const char* name) {
    const char* const text = std::getenv(name);
    return text ? std::strtoull(text, nullptr, 10) : 0;
}

}  // namespace

void notify(const char* state) {
    const char* const name = std::getenv("NOTIFY_SOCKET");
    if (!name || (name[0] != '/' && name[0] != '@')) return;
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    const size_t length = std::strlen(name);
    if (length >= sizeof address.sun_path) return;
    std::memcpy(address.sun_path, name, length);
    // An abstract socket has a NUL for its first byte.
    if (name[0] == '@') address.sun_path[0] = '\0';
    const int descriptor = socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    if (descriptor < 0) return;
    [[maybe_unused]] const ssize_t sent =
        sendto(descriptor, state, std::strlen(state), MSG_NOSIGNAL, reinterpret_cast<const sockaddr*>(&address),
               static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + length));
    close(descriptor);
}

uint64_t watchdog_us() {
    // The variables may be inherited from a parent that is watched itself.
    const uint64_t watched = number_in_environment("WATCHDOG_PID");
    if (watched != 0 && watched != static_cast<uint64_t>(getpid())) return 0;
    return number_in_environment("WATCHDOG_USEC");
}

}  // namespace service_manager
