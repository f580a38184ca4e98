#include "etcd/plain_channel.h"

#include "etcd/http_channel.h"

namespace etcd {
namespace {

struct PlainLink {
    using Stream = boost::asio::ip::tcp::socket;

    static Stream make_stream(boost::asio::io_context& io) { return Stream(io); }
    static Stream& socket_of(Stream& stream) { return stream; }
    static std::string text_of(const Stream&, const boost::system::error_code& why) { return why.message(); }
    template <typename Ready>
    static void prepare(Stream&, Ready ready) {
        ready({}, {});
    }
};

}  // namespace

std::unique_ptr<Channel> open_plain_channel(boost::asio::io_context& io, const Endpoint& endpoint) {
    return std::make_unique<HttpChannel<PlainLink>>(io, endpoint, PlainLink{});
}

}  // namespace etcd
