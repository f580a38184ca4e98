#include "listener.h"

#include <fcntl.h>
#include <fmt/format.h>
#include <grp.h>
#include <netdb.h>
#include <netinet/in.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <arpa/inet.h>

#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <utility>

#include "address.h"
#include "picture/error.h"
#include "picture/escape.h"
#include "picture/value.h"
#include "service_manager.h"

namespace shmnmweb {
namespace {

using picture::Error;
using picture::ErrorKind;
using picture::printable;

constexpr int first_inherited = 3;

/// A descriptor, closed unless it is taken.
class Descriptor {
  public:
    explicit Descriptor(int number) : number_(number) {}
    ~Descriptor() {
        if (number_ >= 0) ::close(number_);
    }
    Descriptor(const Descriptor&) = delete;
    Descriptor& operator=(const Descriptor&) = delete;
    int get() const { return number_; }
    SocketHandle take() { return static_cast<SocketHandle>(std::exchange(number_, -1)); }

  private:
    int number_;
};

[[noreturn]] void throw_cannot_listen(const std::string& address, const char* what) {
    const char* const advice = errno == EADDRINUSE ? "; stop the process that has it, or use another one" : "";
    throw Error(ErrorKind::failed,
                fmt::format("cannot listen on {}: {}: {}{}", printable(address), what, std::strerror(errno), advice));
}

bool is_loopback(const sockaddr_storage& address) {
    if (address.ss_family == AF_INET) {
        const auto& v4 = reinterpret_cast<const sockaddr_in&>(address);
        return (ntohl(v4.sin_addr.s_addr) >> 24) == 127;
    }
    return IN6_IS_ADDR_LOOPBACK(&reinterpret_cast<const sockaddr_in6&>(address).sin6_addr) != 0;
}

std::string host_of(const sockaddr_storage& address) {
    char text[INET6_ADDRSTRLEN] = "";
    const void* const bytes = address.ss_family == AF_INET
                                  ? static_cast<const void*>(&reinterpret_cast<const sockaddr_in&>(address).sin_addr)
                                  : static_cast<const void*>(&reinterpret_cast<const sockaddr_in6&>(address).sin6_addr);
    return inet_ntop(address.ss_family, bytes, text, sizeof text) ? text : "";
}

/// The listener of a socket that is bound to an address already.
Listener bound_listener(int descriptor, bool allow_remote) {
    sockaddr_storage address{};
    socklen_t length = sizeof address;
    if (getsockname(descriptor, reinterpret_cast<sockaddr*>(&address), &length) != 0) {
        throw_cannot_listen(fmt::format("descriptor {}", descriptor), "it is not a socket");
    }
    Listener listener;
    listener.family = address.ss_family;
    if (address.ss_family == AF_UNIX) {
        listener.is_local = true;
        listener.address = "unix:" + printable(reinterpret_cast<const sockaddr_un&>(address).sun_path);
        return listener;
    }
    if (address.ss_family != AF_INET && address.ss_family != AF_INET6) {
        throw Error(ErrorKind::failed, fmt::format("descriptor {} is not a socket of TCP or a Unix socket; mend the "
                                                   "ListenStream= of the socket unit",
                                                   descriptor));
    }
    const std::string host = host_of(address);
    expect_allowed(host, is_loopback(address), allow_remote);
    const in_port_t port = address.ss_family == AF_INET ? reinterpret_cast<const sockaddr_in&>(address).sin_port
                                                        : reinterpret_cast<const sockaddr_in6&>(address).sin6_port;
    listener.address = url_of(host, ntohs(port));
    return listener;
}

}  // namespace

Listener listen_on(const std::string& text, bool allow_remote) {
    const Address address = parse_address(text);
    addrinfo hints{};
    hints.ai_flags = AI_NUMERICHOST | AI_NUMERICSERV | AI_PASSIVE;
    hints.ai_socktype = SOCK_STREAM;
    addrinfo* found = nullptr;
    if (getaddrinfo(address.host.c_str(), address.port.c_str(), &hints, &found) != 0) {
        throw Error(
            ErrorKind::invalid,
            fmt::format("invalid address \"{}\": use a number such as 127.0.0.1, not a name", printable(address.host)));
    }
    sockaddr_storage bound{};
    const socklen_t length = found->ai_addrlen;
    std::memcpy(&bound, found->ai_addr, length);
    freeaddrinfo(found);
    expect_allowed(text, is_loopback(bound), allow_remote);

    Descriptor descriptor(socket(bound.ss_family, SOCK_STREAM | SOCK_CLOEXEC, 0));
    if (descriptor.get() < 0) throw_cannot_listen(text, "no socket");
    const int yes = 1;
    setsockopt(descriptor.get(), SOL_SOCKET, SO_REUSEADDR, &yes, sizeof yes);
    if (bound.ss_family == AF_INET6) setsockopt(descriptor.get(), IPPROTO_IPV6, IPV6_V6ONLY, &yes, sizeof yes);
    if (bind(descriptor.get(), reinterpret_cast<const sockaddr*>(&bound), length) != 0 ||
        ::listen(descriptor.get(), SOMAXCONN) != 0) {
        throw_cannot_listen(text, "it cannot be bound");
    }
    Listener listener = bound_listener(descriptor.get(), allow_remote);
    listener.handle = descriptor.take();
    return listener;
}

Listener listen_on_file(const std::string& path, const std::string& group) {
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    if (path.empty() || path.size() >= sizeof address.sun_path) {
        throw Error(ErrorKind::invalid, fmt::format("invalid socket \"{}\": use a path of 1 to {} bytes",
                                                    printable(path), sizeof address.sun_path - 1));
    }
    std::memcpy(address.sun_path, path.c_str(), path.size() + 1);
    gid_t readers = static_cast<gid_t>(-1);
    if (!group.empty()) {
        const struct group* const known = getgrnam(group.c_str());
        if (!known) {
            throw Error(
                ErrorKind::invalid,
                fmt::format("unknown group \"{}\"; create it with \"groupadd\", or name another", printable(group)));
        }
        readers = known->gr_gid;
    }
    Descriptor descriptor(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
    if (descriptor.get() < 0) throw_cannot_listen(path, "no socket");
    // A socket that nobody listens on any more was left by a process that was killed.
    struct stat old {};
    if (lstat(path.c_str(), &old) == 0 && S_ISSOCK(old.st_mode)) {
        const Descriptor probe(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
        const bool is_alive = connect(probe.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0;
        if (!is_alive && errno == ECONNREFUSED) unlink(path.c_str());
    }
    // Until its group is set only the owner may connect.
    const mode_t mask = umask(0177);
    const int bound = bind(descriptor.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address);
    const int why = errno;
    umask(mask);
    errno = why;
    if (bound != 0) throw_cannot_listen(path, "it cannot be bound");
    Listener listener{.handle = 0, .family = AF_UNIX, .is_local = true, .address = "unix:" + path, .file = path};
    const bool is_given =
        readers == static_cast<gid_t>(-1) || chown(path.c_str(), static_cast<uid_t>(-1), readers) == 0;
    if (!is_given || chmod(path.c_str(), 0660) != 0 || ::listen(descriptor.get(), SOMAXCONN) != 0) {
        const int failure = errno;
        unlink(path.c_str());
        errno = failure;
        throw_cannot_listen(path, is_given ? "its mode cannot be set"
                                           : "its group cannot be set, which only a member of the group may do");
    }
    listener.handle = descriptor.take();
    return listener;
}

std::vector<Listener> inherited_listeners(bool allow_remote) {
    const auto number = [](const char* name) {
        const char* const text = std::getenv(name);
        const auto value = text ? picture::Value::parse(text) : std::nullopt;
        return value ? value->to_int32().value_or(0) : 0;
    };
    const bool is_for_this_process = number("LISTEN_PID") == getpid();
    const int count = is_for_this_process ? number("LISTEN_FDS") : 0;
    for (const char* const name : {"LISTEN_PID", "LISTEN_FDS", "LISTEN_FDNAMES"}) unsetenv(name);
    std::vector<Listener> listeners;
    for (int descriptor = first_inherited; descriptor < first_inherited + count; ++descriptor) {
        fcntl(descriptor, F_SETFD, FD_CLOEXEC);
        int type = 0, listens = 0;
        socklen_t length = sizeof type;
        if (getsockopt(descriptor, SOL_SOCKET, SO_TYPE, &type, &length) != 0 || type != SOCK_STREAM ||
            getsockopt(descriptor, SOL_SOCKET, SO_ACCEPTCONN, &listens, &length) != 0 || listens == 0) {
            throw Error(ErrorKind::failed,
                        fmt::format("descriptor {} of the service manager is not a listening socket; use ListenStream= "
                                    "and Accept=no in the socket unit",
                                    descriptor));
        }
        Listener listener = bound_listener(descriptor, allow_remote);
        listener.handle = static_cast<SocketHandle>(descriptor);
        listeners.push_back(std::move(listener));
    }
    return listeners;
}

void remove_file(const Listener& listener) noexcept {
    if (!listener.file.empty()) unlink(listener.file.c_str());
}

std::string client_of(SocketHandle connection, bool is_local) {
    const int descriptor = static_cast<int>(connection);
    if (is_local) {
        ucred credentials{};
        socklen_t length = sizeof credentials;
        getsockopt(descriptor, SOL_SOCKET, SO_PEERCRED, &credentials, &length);
        return fmt::format("user {}", credentials.uid);
    }
    sockaddr_storage address{};
    socklen_t length = sizeof address;
    if (getpeername(descriptor, reinterpret_cast<sockaddr*>(&address), &length) != 0) return "";
    if (address.ss_family == AF_INET6) {
        // Whoever has one address of a network of 64 bits has them all.
        auto& v6 = reinterpret_cast<sockaddr_in6&>(address);
        if (IN6_IS_ADDR_LOOPBACK(&v6.sin6_addr) == 0) std::memset(v6.sin6_addr.s6_addr + 8, 0, 8);
    }
    return host_of(address);
}

std::vector<int> stop_signals() {
    return {SIGINT, SIGTERM, SIGHUP};
}

void notify_service_manager(const char* state) {
    service_manager::notify(state);
}

uint64_t watchdog_us() {
    return service_manager::watchdog_us();
}

void raise_file_limit() {
    rlimit limit{};
    if (getrlimit(RLIMIT_NOFILE, &limit) != 0) return;
    limit.rlim_cur = limit.rlim_max;
    setrlimit(RLIMIT_NOFILE, &limit);
}

}  // namespace shmnmweb
