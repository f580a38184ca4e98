#include "picture_http/tls_linux.h"

#include <fmt/format.h>
#include <openssl/bio.h>
#include <openssl/err.h>
#include <openssl/pem.h>
#include <openssl/ssl.h>
#include <openssl/x509v3.h>
#include <poll.h>
#include <sys/stat.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstring>
#include <string>
#include <utility>

#include "picture/error.h"
#include "picture/escape.h"
#include "picture_http/socket_linux.h"

namespace picture_http {
namespace {

using picture::Error;
using picture::ErrorKind;
using picture::printable;

template <typename Object>
using Owned = std::unique_ptr<Object, void (*)(Object*)>;

[[noreturn]] void throw_failure(const std::string& what, const char* next) {
    throw Error(ErrorKind::failed, fmt::format("cannot speak TLS with the server: {}; {}", what, next));
}

/// What the library says of its first failure.
std::string reason_of(unsigned long code) {
    if (code == 0) return "it has ended the connection";
    const char* const text =
        ERR_SYSTEM_ERROR(code) ? std::strerror(ERR_GET_REASON(code)) : ERR_reason_error_string(code);
    return text ? printable(text) : fmt::format("error {:x}", code);
}

[[noreturn]] void throw_unusable(const char* what, const std::string& file, const std::string& why) {
    throw Error(ErrorKind::failed,
                fmt::format("cannot use the {} in {}: {}; name another file, in PEM", what, printable(file), why));
}

/// Why the server's certificate does not prove that it is the one that was named.
[[noreturn]] void throw_unknown_server(long verdict) {
    const char* next = "name the authorities that signed it with --ca-file";
    if (verdict == X509_V_ERR_HOSTNAME_MISMATCH || verdict == X509_V_ERR_IP_ADDRESS_MISMATCH) {
        next = "use the name that its certificate has";
    } else if (verdict == X509_V_ERR_CERT_HAS_EXPIRED || verdict == X509_V_ERR_CERT_NOT_YET_VALID) {
        next = "renew it, or set the clocks of both machines";
    }
    throw_failure(fmt::format("its certificate is refused: {}", X509_verify_cert_error_string(verdict)), next);
}

[[noreturn]] void throw_connection_failure() {
    // The reasons of alerts, which the other end sends, are 1000 and more.
    constexpr int first_alert = SSL_AD_REASON_OFFSET;
    const unsigned long code = ERR_get_error();
    const int reason = ERR_GET_LIB(code) == ERR_LIB_SSL ? ERR_GET_REASON(code) : 0;
    if (reason == SSL_R_WRONG_VERSION_NUMBER || reason == SSL_R_HTTP_REQUEST) {
        throw_failure("it answers without TLS", "use http:, or the port that has TLS");
    }
    if (reason >= first_alert && reason != SSL_R_TLSV1_ALERT_PROTOCOL_VERSION) {
        throw_failure("it refuses this client: " + reason_of(code), "see --cert and --key");
    }
    throw_failure(reason_of(code), "see whether a server with TLS 1.2 or later answers there");
}

/// What TLS reads and writes, without signals.
int write_to_socket(BIO* bio, const char* bytes, int size) {
    const ssize_t sent =
        static_cast<Socket*>(BIO_get_data(bio))->write_some({bytes, static_cast<size_t>(std::max(size, 0))});
    BIO_clear_retry_flags(bio);
    if (sent < 0 && (errno == EAGAIN || errno == EINTR)) BIO_set_retry_write(bio);
    return static_cast<int>(sent);
}
int read_from_socket(BIO* bio, char* bytes, int size) {
    const ssize_t received =
        static_cast<Socket*>(BIO_get_data(bio))->read_some(bytes, static_cast<size_t>(std::max(size, 0)));
    BIO_clear_retry_flags(bio);
    if (received < 0 && (errno == EAGAIN || errno == EINTR)) BIO_set_retry_read(bio);
    return static_cast<int>(received);
}
long control_socket(BIO*, int command, long, void*) {
    return command == BIO_CTRL_FLUSH ? 1 : 0;
}

const BIO_METHOD* socket_method() {
    static const Owned<BIO_METHOD> method = [] {
        Owned<BIO_METHOD> made(BIO_meth_new(BIO_get_new_index() | BIO_TYPE_SOURCE_SINK, "socket"), BIO_meth_free);
        if (made) {
            BIO_meth_set_write(made.get(), write_to_socket);
            BIO_meth_set_read(made.get(), read_from_socket);
            BIO_meth_set_ctrl(made.get(), control_socket);
        }
        return made;
    }();
    return method.get();
}

/// TLS over a socket. The server must have a certificate for the host that was named.
class TlsConnection : public Connection {
  public:
    TlsConnection(std::unique_ptr<Socket> socket, SSL_CTX* context, const std::string& host)
        : socket_(std::move(socket)), session_(SSL_new(context), SSL_free) {
        BIO* const bio = socket_method() ? BIO_new(socket_method()) : nullptr;
        if (!session_ || !bio) {
            BIO_free(bio);
            throw std::bad_alloc();
        }
        BIO_set_data(bio, socket_.get());
        BIO_set_init(bio, 1);
        SSL_set_bio(session_.get(), bio, bio);
        SSL_set_hostflags(session_.get(), X509_CHECK_FLAG_NO_PARTIAL_WILDCARDS);
        const bool is_number = X509_VERIFY_PARAM_set1_ip_asc(SSL_get0_param(session_.get()), host.c_str()) == 1;
        if (!is_number && (SSL_set1_host(session_.get(), host.c_str()) != 1 ||
                           SSL_ctrl(session_.get(), SSL_CTRL_SET_TLSEXT_HOSTNAME, TLSEXT_NAMETYPE_host_name,
                                    const_cast<char*>(host.c_str())) != 1)) {
            throw_failure("the host's name cannot be used", "use a shorter one");
        }
        if (finish([&] { return SSL_connect(session_.get()); }) == 1) return;
        const long verdict = SSL_get_verify_result(session_.get());
        if (verdict != X509_V_OK) throw_unknown_server(verdict);
        throw_connection_failure();
    }

    void restart_deadline() override { socket_->restart_deadline(); }
    void write(std::string_view bytes) override {
        size_t sent = 0;
        if (finish([&] { return SSL_write_ex(session_.get(), bytes.data(), bytes.size(), &sent); }) == 1) return;
        // A server that refuses this client may have said so before it closed the connection.
        char byte = 0;
        if (ERR_peek_error() == 0) finish([&] { return SSL_peek_ex(session_.get(), &byte, 1, &sent); });
        throw_connection_failure();
    }
    size_t read(char* bytes, size_t size) override {
        size_t received = 0;
        const int result = finish([&] { return SSL_read_ex(session_.get(), bytes, size, &received); });
        if (result == 1) return received;
        if (SSL_get_error(session_.get(), result) == SSL_ERROR_ZERO_RETURN) return 0;
        throw_connection_failure();
    }
    bool is_readable_within(uint32_t milliseconds) override {
        // What the socket has may be of TLS alone, such as a ticket for a later session.
        for (Deadline deadline(milliseconds);;) {
            char byte = 0;
            size_t size = 0;
            ERR_clear_error();
            const int result = SSL_peek_ex(session_.get(), &byte, 1, &size);
            if (result == 1 || SSL_get_error(session_.get(), result) != SSL_ERROR_WANT_READ) return true;
            if (!socket_->is_readable_within(deadline.left_ms())) return false;
        }
    }

  private:
    /// Calls until there is nothing to wait for. @return the last result
    template <typename Call>
    int finish(Call call) {
        for (;;) {
            ERR_clear_error();
            const int result = call();
            const int error = result == 1 ? SSL_ERROR_NONE : SSL_get_error(session_.get(), result);
            if (error != SSL_ERROR_WANT_READ && error != SSL_ERROR_WANT_WRITE) return result;
            socket_->wait_for(error == SSL_ERROR_WANT_READ ? POLLIN : POLLOUT);
        }
    }

    std::unique_ptr<Socket> socket_;
    Owned<SSL> session_;
};

/// Reads the key of the client's certificate, which nobody else may be able to read.
Owned<EVP_PKEY> read_key(const std::string& name) {
    const Owned<std::FILE> file(std::fopen(name.c_str(), "re"), [](std::FILE* open) { std::fclose(open); });
    struct stat facts {};
    if (!file || fstat(fileno(file.get()), &facts) != 0) throw_unusable("key", name, std::strerror(errno));
    if ((facts.st_mode & (S_IRWXG | S_IRWXO)) != 0) {
        throw Error(ErrorKind::failed, fmt::format("other users may use the key in {}; run \"chmod 600 {}\"",
                                                   printable(name), printable(name)));
    }
    Owned<EVP_PKEY> key(PEM_read_PrivateKey(file.get(), nullptr, nullptr, nullptr), EVP_PKEY_free);
    if (!key) throw_unusable("key", name, reason_of(ERR_get_error()));
    return key;
}

class TlsConnector : public Connector {
  public:
    TlsConnector(Address address, const Credentials& credentials, uint32_t timeout_ms)
        : address_(std::move(address)),
          timeout_ms_(timeout_ms),
          context_(SSL_CTX_new(TLS_client_method()), SSL_CTX_free) {
        if (!context_) throw std::bad_alloc();
        SSL_CTX_set_min_proto_version(context_.get(), TLS1_2_VERSION);
        SSL_CTX_set_verify(context_.get(), SSL_VERIFY_PEER, nullptr);
        ERR_clear_error();
        if (credentials.authorities.empty()) {
            SSL_CTX_set_default_verify_paths(context_.get());
        } else if (SSL_CTX_load_verify_file(context_.get(), credentials.authorities.c_str()) != 1) {
            throw_unusable("authorities", credentials.authorities, reason_of(ERR_get_error()));
        }
        if (credentials.certificate.empty()) return;
        if (SSL_CTX_use_certificate_chain_file(context_.get(), credentials.certificate.c_str()) != 1) {
            throw_unusable("certificate", credentials.certificate, reason_of(ERR_get_error()));
        }
        const std::string& key_file = credentials.key.empty() ? credentials.certificate : credentials.key;
        const Owned<EVP_PKEY> key = read_key(key_file);
        if (SSL_CTX_use_PrivateKey(context_.get(), key.get()) != 1) {
            throw_unusable("key", key_file, reason_of(ERR_get_error()));
        }
    }

    std::unique_ptr<Connection> connect() override {
        return std::make_unique<TlsConnection>(connect_socket(address_, timeout_ms_), context_.get(), address_.host);
    }

  private:
    Address address_;
    uint32_t timeout_ms_;
    Owned<SSL_CTX> context_;
};

}  // namespace

std::unique_ptr<Connector> make_tls_connector(const Address& address, const Credentials& credentials,
                                              uint32_t timeout_ms) {
    return std::make_unique<TlsConnector>(address, credentials, timeout_ms);
}

}  // namespace picture_http
