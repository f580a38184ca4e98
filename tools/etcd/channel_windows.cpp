#include <utility>

#include "etcd/error.h"
#include "etcd/http_channel.h"
#include "etcd/plain_channel.h"
#include "etcd/tls_stream_windows.h"

namespace etcd {

class Tls {
  public:
    std::shared_ptr<const TlsCredentials> credentials;
};

namespace {

struct TlsLink {
    using Stream = TlsStream;

    std::shared_ptr<const TlsCredentials> credentials;
    std::string host;

    Stream make_stream(boost::asio::io_context& io) const { return Stream(io, credentials, host); }
    static auto& socket_of(Stream& stream) { return stream.socket(); }
    static std::string text_of(const Stream& stream, const boost::system::error_code& why) {
        return stream.reason().empty() ? why.message() : stream.reason();
    }

    template <typename Ready>
    static void prepare(Stream& stream, Ready ready) {
        stream.async_handshake([&stream, ready](const boost::system::error_code& why) {
            const std::string cut =
                "no TLS: the handshake was cut off (" + why.message() + "); look at its port, and at etcd's log";
            ready(why, stream.reason().empty() ? cut : stream.reason());
        });
    }
};

}  // namespace

std::shared_ptr<const Tls> make_tls(const TlsSettings& settings, bool) {
    if (!settings.certificate.empty() || !settings.key.empty()) {
        throw Error(
            "client certificates are not supported on Windows; remove certificate and key, and use a user of etcd with "
            "a password");
    }
    return std::make_shared<const Tls>(Tls{std::make_shared<const TlsCredentials>(settings.authorities)});
}

std::unique_ptr<Channel> open_channel(boost::asio::io_context& io, const Endpoint& endpoint,
                                      const std::shared_ptr<const Tls>& tls) {
    if (!endpoint.is_tls) return open_plain_channel(io, endpoint);
    return std::make_unique<HttpChannel<TlsLink>>(io, endpoint, TlsLink{tls->credentials, endpoint.host});
}

}  // namespace etcd
