#include "service_manager.h"

#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cstddef>
#include <cstdlib>
#include <cstring>

namespace service_manager {

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

}  // namespace service_manager
