#include "picture_http/socket_linux.h"

#include <fmt/format.h>
#include <netdb.h>
#include <poll.h>
#include <sys/time.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstring>

#include "picture/error.h"
#include "picture/escape.h"

namespace picture_http {
namespace {

using picture::Error;
using picture::ErrorKind;
using picture::printable;

[[noreturn]] void throw_no_answer(const std::string& why) {
    throw Error(
        ErrorKind::failed,
        fmt::format(
            "cannot speak with the server: {}; see whether shmnmweb runs there, and whether this user may connect",
            why));
}
std::string reason() {
    // Of connect(), which says of a wait that has ended that it goes on.
    const bool is_late = errno == EAGAIN || errno == EINPROGRESS || errno == EALREADY;
    return is_late ? "it does not answer in time" : std::strerror(errno);
}

std::unique_ptr<Socket> open_socket(int family, uint32_t timeout_ms) {
    const int descriptor = socket(family, SOCK_STREAM | SOCK_CLOEXEC, 0);
    return descriptor < 0 ? nullptr : std::make_unique<Socket>(descriptor, timeout_ms);
}

std::unique_ptr<Socket> connect_to_file(const std::string& path, uint32_t timeout_ms) {
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    if (path.size() >= sizeof address.sun_path) throw_no_answer("the path is too long");
    std::memcpy(address.sun_path, path.c_str(), path.size() + 1);
    auto made = open_socket(AF_UNIX, timeout_ms);
    if (!made || !made->connect(reinterpret_cast<const sockaddr*>(&address), sizeof address)) {
        throw_no_answer(printable(path) + ": " + reason());
    }
    return made;
}

std::unique_ptr<Socket> connect_to_host(const Address& address, uint32_t timeout_ms) {
    addrinfo hints{};
    hints.ai_socktype = SOCK_STREAM;
    addrinfo* found = nullptr;
    if (const int error = getaddrinfo(address.host.c_str(), address.port.c_str(), &hints, &found); error != 0) {
        throw_no_answer(printable(address.host) + ": " + gai_strerror(error));
    }
    const std::unique_ptr<addrinfo, void (*)(addrinfo*)> all(found, freeaddrinfo);
    for (const addrinfo* each = found; each; each = each->ai_next) {
        auto made = open_socket(each->ai_family, timeout_ms);
        if (made && made->connect(each->ai_addr, each->ai_addrlen)) return made;
    }
    throw_no_answer(fmt::format("{} port {}: {}", printable(address.host), address.port, reason()));
}

}  // namespace

Socket::~Socket() {
    const int error = errno;
    ::close(descriptor_);
    errno = error;
}

bool Socket::connect(const sockaddr* address, socklen_t length) const {
    for (;;) {
        const uint32_t left_ms = std::max<uint32_t>(deadline_.left_ms(), 1);
        const timeval limit{.tv_sec = left_ms / 1'000, .tv_usec = suseconds_t{left_ms % 1'000} * 1'000};
        setsockopt(descriptor_, SOL_SOCKET, SO_SNDTIMEO, &limit, sizeof limit);
        // After a signal the next call waits for the same connection.
        if (::connect(descriptor_, address, length) == 0) return true;
        if (errno != EINTR) return false;
    }
}

ssize_t Socket::write_some(std::string_view bytes) const noexcept {
    return send(descriptor_, bytes.data(), bytes.size(), MSG_NOSIGNAL | MSG_DONTWAIT);
}
ssize_t Socket::read_some(char* bytes, size_t size) const noexcept {
    return recv(descriptor_, bytes, size, MSG_DONTWAIT);
}

void Socket::wait_for(short events) const {
    pollfd wanted{.fd = descriptor_, .events = events, .revents = 0};
    for (;;) {
        const uint32_t left_ms = std::min<uint32_t>(deadline_.left_ms(), INT_MAX);
        if (left_ms == 0) throw_no_answer("it does not answer in time");
        if (poll(&wanted, 1, static_cast<int>(left_ms)) > 0) return;
    }
}

void Socket::write(std::string_view bytes) {
    while (!bytes.empty()) {
        const ssize_t sent = write_some(bytes);
        if (sent >= 0) {
            bytes.remove_prefix(static_cast<size_t>(sent));
        } else if (errno == EAGAIN) {
            wait_for(POLLOUT);
        } else if (errno != EINTR) {
            throw_no_answer(reason());
        }
    }
}

size_t Socket::read(char* bytes, size_t size) {
    for (;;) {
        const ssize_t received = read_some(bytes, size);
        if (received >= 0) return static_cast<size_t>(received);
        if (errno == EAGAIN) {
            wait_for(POLLIN);
        } else if (errno != EINTR) {
            throw_no_answer(reason());
        }
    }
}

bool Socket::is_readable_within(uint32_t milliseconds) {
    pollfd wanted{.fd = descriptor_, .events = POLLIN, .revents = 0};
    return poll(&wanted, 1, static_cast<int>(std::min<uint32_t>(milliseconds, INT_MAX))) > 0;
}

std::unique_ptr<Socket> connect_socket(const Address& address, uint32_t timeout_ms) {
    return address.kind == Address::Kind::file ? connect_to_file(address.path, timeout_ms)
                                               : connect_to_host(address, timeout_ms);
}

}  // namespace picture_http
