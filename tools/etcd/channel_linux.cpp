#include <openssl/err.h>
#include <openssl/pem.h>
#include <openssl/ssl.h>
#include <openssl/x509v3.h>

#include <utility>

#include <boost/asio/ssl/context.hpp>
#include <boost/asio/ssl/stream.hpp>

#include "etcd/error.h"
#include "etcd/http_channel.h"
#include "etcd/plain_channel.h"
#include "etcd/secret_file.h"

namespace etcd {

class Tls {
  public:
    Tls(const TlsSettings& settings, bool has_password);
    /// OpenSSL counts its users, so it changes although nothing else does.
    boost::asio::ssl::context& context() const { return context_; }

  private:
    mutable boost::asio::ssl::context context_{boost::asio::ssl::context::tls_client};
};

namespace {

using ErrorCode = boost::system::error_code;

[[noreturn]] void throw_unusable(const char* what, const std::string& file) {
    const unsigned long code = ERR_get_error();
    const char* const text = ERR_SYSTEM_ERROR(code) ? "it cannot be read" : ERR_reason_error_string(code);
    throw Error("cannot use the " + std::string(what) + " in " + presentable(file) + ": " +
                (text ? text : "it is of no known kind") + "; name another file, in PEM");
}

bool has_common_name(const X509* certificate) {
    return X509_NAME_get_index_by_NID(X509_get_subject_name(certificate), NID_commonName, -1) >= 0;
}

struct TlsLink {
    using Stream = boost::asio::ssl::stream<boost::asio::ip::tcp::socket>;

    std::shared_ptr<const Tls> tls;
    std::string host;

    Stream make_stream(boost::asio::io_context& io) const { return Stream(io, tls->context()); }
    static auto& socket_of(Stream& stream) { return stream.next_layer(); }
    static std::string text_of(const Stream&, const ErrorCode& why) { return why.message(); }

    template <typename Ready>
    void prepare(Stream& stream, Ready ready) const {
        SSL* const session = stream.native_handle();
        SSL_set_hostflags(session, X509_CHECK_FLAG_NO_PARTIAL_WILDCARDS);
        const bool is_number = X509_VERIFY_PARAM_set1_ip_asc(SSL_get0_param(session), host.c_str()) == 1;
        if (!is_number && (SSL_set1_host(session, host.c_str()) != 1 ||
                           SSL_ctrl(session, SSL_CTRL_SET_TLSEXT_HOSTNAME, TLSEXT_NAMETYPE_host_name,
                                    const_cast<char*>(host.c_str())) != 1)) {
            return ready(make_error_code(boost::asio::error::invalid_argument), "the host's name cannot be used");
        }
        stream.async_handshake(Stream::client, [session, ready](const ErrorCode& why) {
            const long verdict = SSL_get_verify_result(session);
            ready(why, verdict == X509_V_OK
                           ? "no TLS: " + why.message()
                           : std::string("its certificate is refused: ") + X509_verify_cert_error_string(verdict));
        });
    }
};

}  // namespace

Tls::Tls(const TlsSettings& settings, bool has_password) {
    SSL_CTX* const context = context_.native_handle();
    SSL_CTX_set_min_proto_version(context, TLS1_2_VERSION);
    SSL_CTX_set_verify(context, SSL_VERIFY_PEER, nullptr);
    ERR_clear_error();
    if (settings.authorities.empty()) {
        SSL_CTX_set_default_verify_paths(context);
    } else if (SSL_CTX_load_verify_file(context, settings.authorities.c_str()) != 1) {
        throw_unusable("authorities", settings.authorities);
    }
    if (settings.certificate.empty() != settings.key.empty()) {
        throw Error("a certificate for etcd needs its key, and a key its certificate; name both files");
    }
    if (settings.certificate.empty()) return;
    if (SSL_CTX_use_certificate_chain_file(context, settings.certificate.c_str()) != 1) {
        throw_unusable("certificate", settings.certificate);
    }
    if (has_password && has_common_name(SSL_CTX_get0_certificate(context))) {
        throw Error("the certificate in " + presentable(settings.certificate) +
                    " has a common name, and etcd refuses it together with a password; use one without");
    }
    const std::string bytes = read_secret_file(settings.key);
    const std::unique_ptr<BIO, int (*)(BIO*)> bio(BIO_new_mem_buf(bytes.data(), static_cast<int>(bytes.size())),
                                                  BIO_free);
    // A key with a password is refused: nobody is there to type it.
    const auto no_password = [](char*, int, int, void*) { return -1; };
    const std::unique_ptr<EVP_PKEY, void (*)(EVP_PKEY*)> key(
        bio ? PEM_read_bio_PrivateKey(bio.get(), nullptr, no_password, nullptr) : nullptr, EVP_PKEY_free);
    if (!key || SSL_CTX_use_PrivateKey(context, key.get()) != 1) throw_unusable("key", settings.key);
}

std::shared_ptr<const Tls> make_tls(const TlsSettings& settings, bool has_password) {
    return std::make_shared<const Tls>(settings, has_password);
}

std::unique_ptr<Channel> open_channel(boost::asio::io_context& io, const Endpoint& endpoint,
                                      const std::shared_ptr<const Tls>& tls) {
    if (!endpoint.is_tls) return open_plain_channel(io, endpoint);
    return std::make_unique<HttpChannel<TlsLink>>(io, endpoint, TlsLink{tls, endpoint.host});
}

}  // namespace etcd
