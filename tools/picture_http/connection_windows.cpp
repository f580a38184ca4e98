#include "picture_http/connection.h"

#include <winsock2.h>
#include <ws2tcpip.h>

#include <fmt/format.h>

#include <algorithm>
#include <climits>
#include <utility>

#include "picture/error.h"
#include "picture/escape.h"
#include "picture_http/deadline.h"

namespace picture_http {
namespace {

using picture::Error;
using picture::ErrorKind;
using picture::printable;

[[noreturn]] void throw_no_answer(const std::string& what, int error) {
    throw Error(
        ErrorKind::failed,
        fmt::format("cannot speak with the server: {} (error {}); see whether shmnmweb runs there", what, error));
}

class Socket : public Connection {
  public:
    Socket(SOCKET socket, uint32_t timeout_ms) : socket_(socket), deadline_(timeout_ms) {}
    ~Socket() override { closesocket(socket_); }
    Socket(const Socket&) = delete;
    Socket& operator=(const Socket&) = delete;

    void restart_deadline() override { deadline_.restart(); }
    void write(std::string_view bytes) override {
        while (!bytes.empty()) {
            wait_for(POLLOUT);
            const int sent = send(socket_, bytes.data(), static_cast<int>(bytes.size()), 0);
            if (sent < 0) throw_no_answer("it does not take the request", WSAGetLastError());
            bytes.remove_prefix(static_cast<size_t>(sent));
        }
    }
    size_t read(char* bytes, size_t size) override {
        wait_for(POLLIN);
        const int received = recv(socket_, bytes, static_cast<int>(std::min<size_t>(size, INT_MAX)), 0);
        if (received < 0) throw_no_answer("it does not answer", WSAGetLastError());
        return static_cast<size_t>(received);
    }
    bool is_readable_within(uint32_t milliseconds) override { return is_ready(POLLIN, milliseconds); }

    /// @return 0, or the error
    int connect(const sockaddr* address, int length) const {
        // The system's own wait would be longer.
        set_waiting(false);
        int error = ::connect(socket_, address, length) == 0 ? 0 : WSAGetLastError();
        if (error == WSAEWOULDBLOCK) {
            fd_set made{1, {socket_}}, refused{1, {socket_}};
            const uint32_t left_ms = deadline_.left_ms();
            timeval limit{static_cast<long>(left_ms / 1'000), static_cast<long>(left_ms % 1'000 * 1'000)};
            int length_of_error = sizeof error;
            if (select(0, nullptr, &made, &refused, &limit) <= 0) {
                error = WSAETIMEDOUT;
            } else {
                getsockopt(socket_, SOL_SOCKET, SO_ERROR, reinterpret_cast<char*>(&error), &length_of_error);
            }
        }
        set_waiting(true);
        return error;
    }

  private:
    void set_waiting(bool waits) const {
        u_long is_off = waits ? 0 : 1;
        ioctlsocket(socket_, static_cast<long>(FIONBIO), &is_off);
    }
    bool is_ready(short events, uint32_t milliseconds) const {
        WSAPOLLFD wanted{};
        wanted.fd = socket_;
        wanted.events = events;
        return WSAPoll(&wanted, 1, static_cast<int>(std::min<uint32_t>(milliseconds, INT_MAX))) > 0;
    }
    void wait_for(short events) const {
        if (!is_ready(events, deadline_.left_ms())) throw_no_answer("it does not answer in time", WSAETIMEDOUT);
    }

    SOCKET socket_;
    Deadline deadline_;
};

class PlainConnector : public Connector {
  public:
    PlainConnector(Address address, uint32_t timeout_ms) : address_(std::move(address)), timeout_ms_(timeout_ms) {
        WSADATA data{};
        WSAStartup(MAKEWORD(2, 2), &data);
    }
    std::unique_ptr<Connection> connect() override {
        addrinfo hints{};
        hints.ai_socktype = SOCK_STREAM;
        addrinfo* found = nullptr;
        if (const int error = getaddrinfo(address_.host.c_str(), address_.port.c_str(), &hints, &found); error != 0) {
            throw_no_answer(printable(address_.host) + " is not known", error);
        }
        const std::unique_ptr<addrinfo, void (*)(addrinfo*)> all(found, freeaddrinfo);
        int error = 0;
        for (const addrinfo* each = found; each; each = each->ai_next) {
            auto made = std::make_unique<Socket>(socket(each->ai_family, SOCK_STREAM, IPPROTO_TCP), timeout_ms_);
            error = made->connect(each->ai_addr, static_cast<int>(each->ai_addrlen));
            if (error == 0) return made;
        }
        throw_no_answer(fmt::format("{} port {} does not answer", printable(address_.host), address_.port), error);
    }

  private:
    Address address_;
    uint32_t timeout_ms_;
};

}  // namespace

std::unique_ptr<Connector> make_connector(const Address& address, const Credentials&, uint32_t timeout_ms) {
    return std::make_unique<PlainConnector>(address, timeout_ms);
}

bool has_connections(Address::Kind kind) {
    return kind == Address::Kind::plain;
}

}  // namespace picture_http
