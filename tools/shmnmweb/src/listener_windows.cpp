#include "listener.h"

#include <winsock2.h>
#include <ws2tcpip.h>

#include <fmt/format.h>

#include <csignal>
#include <cstring>

#include "address.h"
#include "picture/error.h"
#include "picture/escape.h"
#include "service/service.h"

namespace shmnmweb {
namespace {

using picture::Error;
using picture::ErrorKind;
using picture::printable;

[[noreturn]] void throw_cannot_listen(const std::string& address, SOCKET socket) {
    const int error = WSAGetLastError();
    if (socket != INVALID_SOCKET) closesocket(socket);
    const char* const advice = error == WSAEADDRINUSE || error == WSAEACCES
                                   ? "stop the process that has it, or use another one"
                                   : "see the meaning of the number with \"net helpmsg\"";
    throw Error(ErrorKind::failed,
                fmt::format("cannot listen on {} (error {}); {}", printable(address), error, advice));
}

bool is_loopback(const sockaddr_storage& address) {
    if (address.ss_family == AF_INET) {
        return (ntohl(reinterpret_cast<const sockaddr_in&>(address).sin_addr.s_addr) >> 24) == 127;
    }
    return IN6_IS_ADDR_LOOPBACK(&reinterpret_cast<const sockaddr_in6&>(address).sin6_addr) != 0;
}

std::string host_of(const sockaddr_storage& address, int length) {
    char text[NI_MAXHOST] = "";
    getnameinfo(reinterpret_cast<const sockaddr*>(&address), length, text, sizeof text, nullptr, 0, NI_NUMERICHOST);
    return text;
}

}  // namespace

Listener listen_on(const std::string& text, bool allow_remote) {
    WSADATA data{};
    WSAStartup(MAKEWORD(2, 2), &data);
    const Address address = parse_address(text);
    addrinfo hints{};
    hints.ai_flags = AI_NUMERICHOST | AI_PASSIVE;
    hints.ai_socktype = SOCK_STREAM;
    addrinfo* found = nullptr;
    if (getaddrinfo(address.host.c_str(), address.port.c_str(), &hints, &found) != 0) {
        throw Error(
            ErrorKind::invalid,
            fmt::format("invalid address \"{}\": use a number such as 127.0.0.1, not a name", printable(address.host)));
    }
    sockaddr_storage bound{};
    int length = static_cast<int>(found->ai_addrlen);
    std::memcpy(&bound, found->ai_addr, found->ai_addrlen);
    freeaddrinfo(found);
    expect_allowed(text, is_loopback(bound), allow_remote);

    const SOCKET socket = WSASocketW(bound.ss_family, SOCK_STREAM, IPPROTO_TCP, nullptr, 0,
                                     WSA_FLAG_OVERLAPPED | WSA_FLAG_NO_HANDLE_INHERIT);
    if (socket == INVALID_SOCKET) throw_cannot_listen(text, socket);
    const BOOL yes = TRUE;
    setsockopt(socket, SOL_SOCKET, SO_EXCLUSIVEADDRUSE, reinterpret_cast<const char*>(&yes), sizeof yes);
    if (bind(socket, reinterpret_cast<const sockaddr*>(&bound), length) != 0 || ::listen(socket, SOMAXCONN) != 0 ||
        getsockname(socket, reinterpret_cast<sockaddr*>(&bound), &length) != 0) {
        throw_cannot_listen(text, socket);
    }
    const USHORT port = bound.ss_family == AF_INET ? reinterpret_cast<const sockaddr_in&>(bound).sin_port
                                                   : reinterpret_cast<const sockaddr_in6&>(bound).sin6_port;
    Listener listener;
    listener.handle = static_cast<SocketHandle>(socket);
    listener.family = bound.ss_family;
    listener.address = url_of(host_of(bound, length), ntohs(port));
    return listener;
}

Listener listen_on_file(const std::string&, const std::string&) {
    throw Error(ErrorKind::invalid, "--socket needs Linux; use --listen on this system");
}

std::vector<Listener> inherited_listeners(bool) {
    return {};
}

void remove_file(const Listener&) noexcept {}

std::string client_of(SocketHandle connection, bool) {
    sockaddr_storage address{};
    int length = sizeof address;
    if (getpeername(static_cast<SOCKET>(connection), reinterpret_cast<sockaddr*>(&address), &length) != 0) return "";
    if (address.ss_family == AF_INET6) {
        // Whoever has one address of a network of 64 bits has them all.
        auto& v6 = reinterpret_cast<sockaddr_in6&>(address);
        if (IN6_IS_ADDR_LOOPBACK(&v6.sin6_addr) == 0) std::memset(v6.sin6_addr.s6_addr + 8, 0, 8);
    }
    return host_of(address, length);
}

std::vector<int> stop_signals() {
    // A service is asked by its manager, and SIGBREAK tells it of every user who logs off.
    if (service::is_running()) return {};
    return {SIGINT, SIGTERM, SIGBREAK};
}

void notify_service_manager(const char*) {}

uint64_t watchdog_us() {
    return 0;
}

void raise_file_limit() {}

}  // namespace shmnmweb
