// A TCP connection with a session of TLS, as Beast reads and writes it.
#pragma once

#include <utility>

#include <algorithm>
#include <array>
#include <boost/asio/buffer.hpp>
#include <boost/asio/compose.hpp>
#include <boost/asio/ip/tcp.hpp>
#include <boost/asio/post.hpp>
#include <boost/asio/write.hpp>
#include <boost/system/error_code.hpp>
#include <memory>
#include <string>

#include "etcd/tls_session_windows.h"

namespace etcd {

/// One operation at a time. Its handlers must keep the stream.
class TlsStream {
  public:
    using Error = boost::system::error_code;
    using Tcp = boost::asio::ip::tcp;
    using executor_type = Tcp::socket::executor_type;

    TlsStream(boost::asio::io_context& io, std::shared_ptr<const TlsCredentials> credentials, std::string host)
        : socket_(io), session_(std::move(credentials), std::move(host)) {}

    executor_type get_executor() { return socket_.get_executor(); }
    Tcp::socket& socket() { return socket_; }

    /// Why the session failed.
    const std::string& reason() const { return session_.reason(); }

    /// @param[in] ready  called with an error, or when the member has been found to be the right one
    template <typename Ready>
    void async_handshake(Ready ready) {
        const TlsSession::Step step = session_.shake_hands(received_, sent_);
        // What a session that has failed would send is not needed: the connection is closed.
        if (step == TlsSession::Step::failed || sent_.empty()) return go_on(step, std::move(ready));
        boost::asio::async_write(socket_, boost::asio::buffer(sent_), [this, step, ready](const Error& why, size_t) {
            if (why) return ready(why);
            sent_.clear();
            go_on(step, ready);
        });
    }

    template <typename Buffers, typename Handler>
    auto async_read_some(const Buffers& buffers, Handler&& handler) {
        return boost::asio::async_compose<Handler, void(Error, size_t)>(Reading<Buffers>{*this, buffers}, handler,
                                                                        socket_);
    }

    template <typename Buffers, typename Handler>
    auto async_write_some(const Buffers& buffers, Handler&& handler) {
        return boost::asio::async_compose<Handler, void(Error, size_t)>(Writing<Buffers>{*this, buffers}, handler,
                                                                        socket_);
    }

  private:
    static constexpr size_t part_bytes = size_t{16} * 1'024;

    /// reason() tells more.
    static Error failed() { return make_error_code(boost::system::errc::protocol_error); }

    /// Where the socket's next bytes go.
    auto room() { return boost::asio::buffer(part_); }
    void take(size_t size) { received_.append(part_.data(), size); }

    template <typename Ready>
    void go_on(TlsSession::Step step, Ready ready) {
        if (step == TlsSession::Step::done) return ready(Error{});
        if (step != TlsSession::Step::needs_more) return ready(failed());
        socket_.async_read_some(room(), [this, ready](const Error& why, size_t size) {
            if (why) return ready(why);
            take(size);
            async_handshake(ready);
        });
    }

    /// Reads records until one holds text.
    TlsSession::Step fill() {
        while (at_ == text_.size()) {
            at_ = 0;
            const TlsSession::Step step = session_.decrypt(received_, text_);
            if (step != TlsSession::Step::done) return step;
        }
        return TlsSession::Step::done;
    }

    template <typename Buffers>
    struct Reading {
        TlsStream& stream;
        Buffers buffers;
        bool has_begun = false, has_ended = false;
        Error failure{};
        size_t count = 0;

        template <typename Self>
        void operator()(Self& self, Error why = {}, size_t size = 0) {
            if (has_ended) return self.complete(failure, count);
            // Somebody may have cut the connection: only the session's own end is an end.
            if (why == boost::asio::error::eof) why = make_error_code(boost::asio::error::connection_reset);
            if (!why) {
                stream.take(size);
                const TlsSession::Step step = stream.fill();
                if (step == TlsSession::Step::needs_more) {
                    has_begun = true;
                    return stream.socket_.async_read_some(stream.room(), std::move(self));
                }
                if (step == TlsSession::Step::done) {
                    count = boost::asio::buffer_copy(buffers, boost::asio::buffer(stream.text_) + stream.at_);
                    stream.at_ += count;
                } else {
                    why = step == TlsSession::Step::ended ? make_error_code(boost::asio::error::eof) : failed();
                }
            }
            if (has_begun) return self.complete(why, count);
            // The handler is not called before this function has returned.
            has_ended = true;
            failure = why;
            const auto executor = stream.get_executor();
            boost::asio::post(executor, std::move(self));
        }
    };

    template <typename Buffers>
    struct Writing {
        TlsStream& stream;
        Buffers buffers;
        bool has_begun = false;
        size_t count = 0;

        template <typename Self>
        void operator()(Self& self, Error why = {}, size_t = 0) {
            if (has_begun) {
                stream.sent_.clear();
                if (!why && count == 0) why = failed();
                return self.complete(why, why ? 0 : count);
            }
            has_begun = true;
            std::string text(std::min(boost::asio::buffer_size(buffers), part_bytes), '\0');
            boost::asio::buffer_copy(boost::asio::buffer(text), buffers);
            count = stream.session_.encrypt(text, stream.sent_);
            boost::asio::async_write(stream.socket_, boost::asio::buffer(stream.sent_), std::move(self));
        }
    };

    Tcp::socket socket_;
    TlsSession session_;
    std::array<char, part_bytes> part_{};
    std::string received_;  ///< that is not decrypted yet
    std::string text_;      ///< of the last record
    size_t at_ = 0;         ///< what of it was read
    std::string sent_;      ///< that is being sent
};

}  // namespace etcd
