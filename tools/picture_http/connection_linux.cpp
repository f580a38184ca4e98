#include "picture_http/connection.h"

#include <fmt/format.h>
#include <netdb.h>
#include <openssl/err.h>
#include <openssl/ssl.h>
#include <openssl/x509v3.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <arpa/inet.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstring>
#include <utility>

#include "picture/error.h"
#include "picture/escape.h"

namespace picture_http {
namespace {

using picture::Error;
using picture::ErrorKind;
using picture::printable;

constexpr int timeout_seconds = 10;

[[noreturn]] void throw_no_answer(const std::string& why) {
    throw Error(
        ErrorKind::failed,
        fmt::format(
            "cannot speak with the server: {}; see whether shmnmweb runs there, and whether this user may connect",
            why));
}
std::string reason() {
    return errno == EAGAIN ? "it does not answer in time" : std::strerror(errno);
}

class Socket : public Connection {
  public:
    explicit Socket(int descriptor) : descriptor_(descriptor) {
        const timeval limit{.tv_sec = timeout_seconds, .tv_usec = 0};
        setsockopt(descriptor_, SOL_SOCKET, SO_RCVTIMEO, &limit, sizeof limit);
        setsockopt(descriptor_, SOL_SOCKET, SO_SNDTIMEO, &limit, sizeof limit);
    }
    ~Socket() override { ::close(descriptor_); }
    Socket(const Socket&) = delete;
    Socket& operator=(const Socket&) = delete;

    void write(std::string_view bytes) override {
        while (!bytes.empty()) {
            const ssize_t sent = send(descriptor_, bytes.data(), bytes.size(), MSG_NOSIGNAL);
            if (sent < 0 && errno == EINTR) continue;
            if (sent < 0) throw_no_answer(reason());
            bytes.remove_prefix(static_cast<size_t>(sent));
        }
    }
    size_t read(char* bytes, size_t size) override {
        for (;;) {
            const ssize_t received = recv(descriptor_, bytes, size, 0);
            if (received >= 0) return static_cast<size_t>(received);
            if (errno != EINTR) throw_no_answer(reason());
        }
    }
    bool is_readable_within(uint32_t milliseconds) override {
        pollfd wanted{.fd = descriptor_, .events = POLLIN, .revents = 0};
        return poll(&wanted, 1, static_cast<int>(std::min<uint32_t>(milliseconds, INT_MAX))) > 0;
    }

    int descriptor() const { return descriptor_; }
    bool connect(const sockaddr* address, socklen_t length) const {
        return ::connect(descriptor_, address, length) == 0;
    }

  private:
    int descriptor_;
};

[[noreturn]] void throw_tls_failure(const char* what) {
    char text[256] = "no reason was given";
    if (const unsigned long code = ERR_get_error(); code != 0) ERR_error_string_n(code, text, sizeof text);
    throw Error(ErrorKind::failed,
                fmt::format("cannot speak TLS with the server: {}: {}; see --ca-file, --cert and --key", what,
                            printable(text)));
}

/// TLS over a socket. The server must have a certificate for the host that was named.
class TlsConnection : public Connection {
  public:
    TlsConnection(std::unique_ptr<Socket> socket, const std::string& host, const Credentials& credentials)
        : socket_(std::move(socket)),
          context_(SSL_CTX_new(TLS_client_method()), SSL_CTX_free),
          session_(nullptr, SSL_free) {
        if (!context_) throw_tls_failure("no memory");
        SSL_CTX_set_min_proto_version(context_.get(), TLS1_2_VERSION);
        SSL_CTX_set_verify(context_.get(), SSL_VERIFY_PEER, nullptr);
        const bool has_authorities =
            credentials.authorities.empty()
                ? SSL_CTX_set_default_verify_paths(context_.get()) == 1
                : SSL_CTX_load_verify_locations(context_.get(), credentials.authorities.c_str(), nullptr) == 1;
        if (!has_authorities) throw_tls_failure("the authorities cannot be read");
        if (!credentials.certificate.empty()) {
            const std::string& key = credentials.key.empty() ? credentials.certificate : credentials.key;
            if (SSL_CTX_use_certificate_chain_file(context_.get(), credentials.certificate.c_str()) != 1 ||
                SSL_CTX_use_PrivateKey_file(context_.get(), key.c_str(), SSL_FILETYPE_PEM) != 1) {
                throw_tls_failure("the certificate or its key cannot be read");
            }
        }
        session_.reset(SSL_new(context_.get()));
        if (!session_) throw_tls_failure("no memory");
        X509_VERIFY_PARAM* const expected = SSL_get0_param(session_.get());
        const bool is_number = X509_VERIFY_PARAM_set1_ip_asc(expected, host.c_str()) == 1;
        if (!is_number && (SSL_set1_host(session_.get(), host.c_str()) != 1 ||
                           SSL_ctrl(session_.get(), SSL_CTRL_SET_TLSEXT_HOSTNAME, TLSEXT_NAMETYPE_host_name,
                                    const_cast<char*>(host.c_str())) != 1)) {
            throw_tls_failure("the host's name cannot be used");
        }
        ERR_clear_error();
        if (SSL_set_fd(session_.get(), socket_->descriptor()) != 1 || SSL_connect(session_.get()) != 1) {
            const long verdict = SSL_get_verify_result(session_.get());
            throw_tls_failure(verdict != X509_V_OK ? X509_verify_cert_error_string(verdict) : "the server refuses");
        }
    }

    void write(std::string_view bytes) override {
        if (SSL_write(session_.get(), bytes.data(), static_cast<int>(bytes.size())) <= 0)
            throw_tls_failure("it was not sent");
    }
    size_t read(char* bytes, size_t size) override {
        ERR_clear_error();
        const int received = SSL_read(session_.get(), bytes, static_cast<int>(size));
        if (received > 0) return static_cast<size_t>(received);
        if (SSL_get_error(session_.get(), received) == SSL_ERROR_ZERO_RETURN) return 0;
        throw_tls_failure("the connection was cut");
    }
    bool is_readable_within(uint32_t milliseconds) override {
        return SSL_pending(session_.get()) > 0 || socket_->is_readable_within(milliseconds);
    }

  private:
    std::unique_ptr<Socket> socket_;
    std::unique_ptr<SSL_CTX, void (*)(SSL_CTX*)> context_;
    std::unique_ptr<SSL, void (*)(SSL*)> session_;
};

std::unique_ptr<Socket> connect_to_file(const std::string& path) {
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    if (path.size() >= sizeof address.sun_path) throw_no_answer("the path is too long");
    std::memcpy(address.sun_path, path.c_str(), path.size() + 1);
    auto made = std::make_unique<Socket>(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
    if (!made->connect(reinterpret_cast<const sockaddr*>(&address), sizeof address)) {
        throw_no_answer(printable(path) + ": " + reason());
    }
    return made;
}

std::unique_ptr<Socket> connect_to_host(const Address& address) {
    addrinfo hints{};
    hints.ai_socktype = SOCK_STREAM;
    addrinfo* found = nullptr;
    if (const int error = getaddrinfo(address.host.c_str(), address.port.c_str(), &hints, &found); error != 0) {
        throw_no_answer(printable(address.host) + ": " + gai_strerror(error));
    }
    const std::unique_ptr<addrinfo, void (*)(addrinfo*)> all(found, freeaddrinfo);
    for (const addrinfo* each = found; each; each = each->ai_next) {
        auto made = std::make_unique<Socket>(socket(each->ai_family, SOCK_STREAM | SOCK_CLOEXEC, 0));
        if (made->connect(each->ai_addr, each->ai_addrlen)) return made;
    }
    throw_no_answer(fmt::format("{} port {}: {}", printable(address.host), address.port, reason()));
}

}  // namespace

std::unique_ptr<Connection> connect(const Address& address, const Credentials& credentials) {
    if (address.kind == Address::Kind::file) return connect_to_file(address.path);
    auto plain = connect_to_host(address);
    if (address.kind == Address::Kind::plain) return plain;
    return std::make_unique<TlsConnection>(std::move(plain), address.host, credentials);
}

bool has_connections(Address::Kind) {
    return true;
}

}  // namespace picture_http
