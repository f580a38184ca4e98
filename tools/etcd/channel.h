// One connection to one member, for one HTTP request at a time, or for one stream. It runs on its caller's thread: all
// handlers are called by the io_context, never by the functions themselves, and none after the channel's end.
#pragma once

#include <chrono>
#include <functional>
#include <memory>
#include <string>
#include <string_view>

#include "etcd/endpoint.h"
#include "etcd/gateway.h"
#include "etcd/settings.h"

namespace boost::asio {
class io_context;
}

namespace etcd {

/// What came of an exchange.
struct Exchange {
    Failure failure = Failure::none;  ///< none: there is an answer, whatever its status
    std::string reason = {};
    int status = 0;
    std::string body = {};
};

class Channel {
  public:
    using Time = std::chrono::steady_clock::time_point;
    using Done = std::function<void(Exchange)>;
    using Part = std::function<void(std::string_view)>;

    struct Limits {
        Time connected, answered;  ///< until when
        size_t bytes = 0;          ///< of an answer
    };

    virtual ~Channel() = default;

    /// Sends a request, over the connection of the last request if it is still open. After a failure the connection is
    /// closed, and the next request opens another one.
    /// @param[in] token  the field Authorization; empty: none
    virtual void post(const Post& post, const std::string& token, const Limits& limits, Done done) = 0;

    /// Sends a request whose answer is a stream without end. The first part, or an answer with another status than 200,
    /// must come in time.
    /// @param[in] part  called for each part of the stream, however it is cut
    /// @param[in] done  called when the stream has ended
    virtual void stream(const Post& post, const std::string& token, const Limits& limits, Part part, Done done) = 0;
};

/// How channels prove who both ends are.
class Tls;

/// @throws Error  a file cannot be used, or this system cannot use it
std::shared_ptr<const Tls> make_tls(const TlsSettings& settings, bool has_password);

std::unique_ptr<Channel> open_channel(boost::asio::io_context& io, const Endpoint& endpoint,
                                      const std::shared_ptr<const Tls>& tls);

}  // namespace etcd
