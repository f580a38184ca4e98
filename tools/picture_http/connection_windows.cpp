#include "picture_http/connection.h"

#include <winsock2.h>
#include <ws2tcpip.h>

#include <fmt/format.h>

#include <algorithm>
#include <climits>
#include <utility>

#include "picture/error.h"
#include "picture/escape.h"

namespace picture_http {
namespace {

using picture::Error;
using picture::ErrorKind;
using picture::printable;

constexpr DWORD timeout_ms = 10'000;

[[noreturn]] void throw_no_answer(const std::string& what) {
    throw Error(ErrorKind::failed,
                fmt::format("cannot speak with the server: {} (error {}); see whether shmnmweb runs there", what,
                            WSAGetLastError()));
}

class Socket : public Connection {
  public:
    explicit Socket(SOCKET socket) : socket_(socket) {
        setsockopt(socket_, SOL_SOCKET, SO_RCVTIMEO, reinterpret_cast<const char*>(&timeout_ms), sizeof timeout_ms);
        setsockopt(socket_, SOL_SOCKET, SO_SNDTIMEO, reinterpret_cast<const char*>(&timeout_ms), sizeof timeout_ms);
    }
    ~Socket() override { closesocket(socket_); }
    Socket(const Socket&) = delete;
    Socket& operator=(const Socket&) = delete;

    void write(std::string_view bytes) override {
        while (!bytes.empty()) {
            const int sent = send(socket_, bytes.data(), static_cast<int>(bytes.size()), 0);
            if (sent < 0) throw_no_answer("it does not take the request");
            bytes.remove_prefix(static_cast<size_t>(sent));
        }
    }
    size_t read(char* bytes, size_t size) override {
        const int received = recv(socket_, bytes, static_cast<int>(std::min<size_t>(size, INT_MAX)), 0);
        if (received < 0) throw_no_answer("it does not answer");
        return static_cast<size_t>(received);
    }
    bool is_readable_within(uint32_t milliseconds) override {
        WSAPOLLFD wanted{};
        wanted.fd = socket_;
        wanted.events = POLLIN;
        return WSAPoll(&wanted, 1, static_cast<int>(std::min<uint32_t>(milliseconds, INT_MAX))) > 0;
    }

    bool connect(const sockaddr* address, int length) const { return ::connect(socket_, address, length) == 0; }

  private:
    SOCKET socket_;
};

}  // namespace

std::unique_ptr<Connection> connect(const Address& address, const Credentials&) {
    WSADATA data{};
    WSAStartup(MAKEWORD(2, 2), &data);
    addrinfo hints{};
    hints.ai_socktype = SOCK_STREAM;
    addrinfo* found = nullptr;
    if (getaddrinfo(address.host.c_str(), address.port.c_str(), &hints, &found) != 0) {
        throw_no_answer(printable(address.host) + " is not known");
    }
    const std::unique_ptr<addrinfo, void (*)(addrinfo*)> all(found, freeaddrinfo);
    for (const addrinfo* each = found; each; each = each->ai_next) {
        auto made = std::make_unique<Socket>(socket(each->ai_family, SOCK_STREAM, IPPROTO_TCP));
        if (made->connect(each->ai_addr, static_cast<int>(each->ai_addrlen))) return made;
    }
    throw_no_answer(fmt::format("{} port {} does not answer", printable(address.host), address.port));
}

bool has_connections(Address::Kind kind) {
    return kind == Address::Kind::plain;
}

}  // namespace picture_http
