#include "etcd/error.h"
#include "etcd/plain_channel.h"

namespace etcd {

std::shared_ptr<const Tls> make_tls(const TlsSettings&, bool) {
    throw Error("https is not supported on Windows; use http to a member on this machine");
}

std::unique_ptr<Channel> open_channel(boost::asio::io_context& io, const Endpoint& endpoint,
                                      const std::shared_ptr<const Tls>&) {
    return open_plain_channel(io, endpoint);
}

}  // namespace etcd
