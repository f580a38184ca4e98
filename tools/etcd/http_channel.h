// A channel by Beast, over any stream of Asio: the same for plain connections and for TLS.
#pragma once

#include <utility>

#include <array>
#include <boost/asio/connect.hpp>
#include <boost/asio/io_context.hpp>
#include <boost/asio/ip/tcp.hpp>
#include <boost/asio/post.hpp>
#include <boost/asio/steady_timer.hpp>
#include <boost/beast/core/flat_buffer.hpp>
#include <boost/beast/http/buffer_body.hpp>
#include <boost/beast/http/parser.hpp>
#include <boost/beast/http/read.hpp>
#include <boost/beast/http/string_body.hpp>
#include <boost/beast/http/write.hpp>
#include <limits>
#include <optional>
#include <vector>

#include "etcd/channel.h"

namespace etcd {

/// One TCP connection. Pending operations keep it, so that it outlives its channel until they have ended.
/// @tparam Link  makes the stream, does what is needed before the first request, and words the stream's errors
template <typename Link>
class HttpConnection : public std::enable_shared_from_this<HttpConnection<Link>> {
  public:
    using Error = boost::system::error_code;
    using Tcp = boost::asio::ip::tcp;

    HttpConnection(boost::asio::io_context& io, const Endpoint& endpoint, Link link)
        : io_(io),
          endpoint_(endpoint),
          link_(std::move(link)),
          stream_(link_.make_stream(io)),
          resolver_(io),
          timer_(io) {}

    /// Whether another request can be sent. Bytes that nobody asked for, or an end, make it useless.
    bool is_reusable() {
        if (!is_open_ || buffer_.size() != 0) return false;
        char byte = 0;
        Error why;
        socket().receive(boost::asio::buffer(&byte, 1), Tcp::socket::message_peek, why);
        return why == boost::asio::error::would_block;
    }

    void start(const Post& post, const std::string& token, const Channel::Limits& limits, Channel::Part part,
               Channel::Done done) {
        limits_ = limits;
        part_ = std::move(part);
        done_ = std::move(done);
        body_.clear();
        prepare(post, token);
        if (is_open_) {
            send();
        } else {
            wait_until(limits_.connected);
            connect();
        }
    }

    /// Ends everything. No handler is called any more.
    void abandon() {
        done_ = nullptr;
        part_ = nullptr;
        close();
    }

  private:
    Tcp::socket& socket() { return Link::socket_of(stream_); }

    void prepare(const Post& post, const std::string& token) {
        namespace http = boost::beast::http;
        constexpr int http_1_1 = 11;
        request_ = {http::verb::post, post.path, http_1_1, post.body};
        request_.set(http::field::host, endpoint_.host_field());
        request_.set(http::field::content_type, "application/json");
        // A member without a leader says so at once.
        request_.set("Grpc-Metadata-hasleader", "true");
        if (!token.empty()) request_.set(http::field::authorization, token);
        request_.prepare_payload();
    }

    void wait_until(Channel::Time time) {
        timer_.expires_at(time);
        timer_.async_wait([self = this->shared_from_this()](const Error& why) {
            if (why || !self->done_ || self->timer_.expiry() > Channel::Time::clock::now()) return;
            self->fail(self->is_sent_ ? Failure::timed_out : Failure::not_sent, "no answer in time");
        });
    }

    void connect() {
        Error why;
        const auto address = boost::asio::ip::make_address(endpoint_.host, why);
        if (!why) return connect({Tcp::endpoint(address, endpoint_.port)});
        // Asio looks names up on a thread of its own.
        resolver_.async_resolve(
            endpoint_.host, std::to_string(endpoint_.port),
            [self = this->shared_from_this()](const Error& failure, const Tcp::resolver::results_type& found) {
                if (!self->done_) return;
                if (failure) return self->fail(Failure::not_sent, failure.message());
                self->connect({found.begin(), found.end()});
            });
    }
    void connect(std::vector<Tcp::endpoint> addresses) {
        addresses_ = std::move(addresses);
        boost::asio::async_connect(
            socket(), addresses_, [self = this->shared_from_this()](const Error& why, const Tcp::endpoint&) {
                if (!self->done_) return;
                if (why) return self->fail(Failure::not_sent, why.message());
                Error ignored;
                self->socket().set_option(Tcp::no_delay(true), ignored);
                // Streams may be silent for long: the system tells when their other end has vanished.
                self->socket().set_option(boost::asio::socket_base::keep_alive(true), ignored);
                self->socket().non_blocking(true, ignored);
                self->link_.prepare(self->stream_, [self](const Error& failure, const std::string& reason) {
                    if (!self->done_) return;
                    if (failure) return self->fail(Failure::not_sent, reason);
                    self->is_open_ = true;
                    self->send();
                });
            });
    }

    void send() {
        is_sent_ = true;
        wait_until(part_ ? Channel::Time::max() : limits_.answered);
        boost::beast::http::async_write(stream_, request_, [self = this->shared_from_this()](const Error& why, size_t) {
            if (!self->done_) return;
            if (why) return self->fail(Failure::cut, Link::text_of(self->stream_, why));
            self->read_head();
        });
    }

    void read_head() {
        constexpr uint32_t head_limit = 16'384;
        parser_.emplace();
        parser_->header_limit(head_limit);
        // A stream has no end. Answers are limited where they are collected.
        parser_->body_limit(std::numeric_limits<uint64_t>::max());
        boost::beast::http::async_read_header(stream_, buffer_, *parser_,
                                              [self = this->shared_from_this()](const Error& why, size_t) {
                                                  if (!self->done_) return;
                                                  if (why) return self->read_failed(why);
                                                  constexpr unsigned ok = 200;
                                                  if (self->parser_->get().result_int() != ok && self->part_) {
                                                      self->part_ = nullptr;
                                                      self->wait_until(self->limits_.answered);
                                                  }
                                                  self->read_part();
                                              });
    }

    void read_part() {
        if (parser_->is_done()) return finish();
        auto& body = parser_->get().body();
        body.data = bytes_.data();
        body.size = bytes_.size();
        boost::beast::http::async_read_some(stream_, buffer_, *parser_,
                                            [self = this->shared_from_this()](Error why, size_t) {
                                                if (!self->done_) return;
                                                if (why == boost::beast::http::error::need_buffer) why = {};
                                                if (why) return self->read_failed(why);
                                                self->take_part();
                                            });
    }

    void take_part() {
        const std::string_view part(bytes_.data(), bytes_.size() - parser_->get().body().size);
        if (part_) {
            // The handler may end the stream, and so itself.
            const Channel::Part told = part_;
            if (!part.empty()) told(part);
            if (!done_) return;
        } else {
            if (body_.size() + part.size() > limits_.bytes) return fail(Failure::invalid_answer, "it is too long");
            body_ += part;
        }
        read_part();
    }

    void read_failed(const Error& why) {
        const bool is_http = why.category() == make_error_code(boost::beast::http::error::bad_method).category();
        const bool is_cut =
            why == boost::beast::http::error::end_of_stream || why == boost::beast::http::error::partial_message;
        if (is_http && !is_cut) return fail(Failure::invalid_answer, "the answer is not HTTP: " + why.message());
        fail(Failure::cut, Link::text_of(stream_, why));
    }

    void fail(Failure failure, const std::string& reason) {
        close();
        end({.failure = failure, .reason = endpoint_.text() + ": " + presentable(reason)});
    }
    void finish() {
        Exchange exchange{.status = static_cast<int>(parser_->get().result_int()), .body = std::move(body_)};
        body_ = {};
        if (!parser_->get().keep_alive()) close();
        timer_.cancel();
        end(std::move(exchange));
    }
    void end(Exchange exchange) {
        part_ = nullptr;
        const auto done = std::exchange(done_, nullptr);
        done(std::move(exchange));
    }

    void close() {
        is_open_ = false;
        Error ignored;
        resolver_.cancel();
        timer_.cancel();
        socket().close(ignored);
    }

    static constexpr size_t part_bytes = size_t{16} * 1'024;

    boost::asio::io_context& io_;
    const Endpoint endpoint_;
    Link link_;
    typename Link::Stream stream_;
    Tcp::resolver resolver_;
    boost::asio::steady_timer timer_;
    std::vector<Tcp::endpoint> addresses_;
    bool is_open_ = false, is_sent_ = false;
    Channel::Limits limits_;
    Channel::Part part_;  ///< of a stream, as long as it is one
    Channel::Done done_;  ///< null: nothing is wanted
    boost::beast::http::request<boost::beast::http::string_body> request_;
    std::optional<boost::beast::http::response_parser<boost::beast::http::buffer_body>> parser_;
    boost::beast::flat_buffer buffer_;
    std::array<char, part_bytes> bytes_{};
    std::string body_;
};

template <typename Link>
class HttpChannel : public Channel {
  public:
    HttpChannel(boost::asio::io_context& io, Endpoint endpoint, Link link)
        : io_(io), endpoint_(std::move(endpoint)), link_(std::move(link)) {}
    ~HttpChannel() override {
        if (connection_) connection_->abandon();
    }
    HttpChannel(const HttpChannel&) = delete;
    HttpChannel& operator=(const HttpChannel&) = delete;

    void post(const Post& post, const std::string& token, const Limits& limits, Done done) override {
        start(post, token, limits, nullptr, std::move(done));
    }
    void stream(const Post& post, const std::string& token, const Limits& limits, Part part, Done done) override {
        start(post, token, limits, std::move(part), std::move(done));
    }

  private:
    void start(const Post& post, const std::string& token, const Limits& limits, Part part, Done done) {
        if (!connection_ || !connection_->is_reusable()) {
            if (connection_) connection_->abandon();
            connection_ = std::make_shared<HttpConnection<Link>>(io_, endpoint_, link_);
        }
        connection_->start(post, token, limits, std::move(part), std::move(done));
    }

    boost::asio::io_context& io_;
    const Endpoint endpoint_;
    const Link link_;
    std::shared_ptr<HttpConnection<Link>> connection_;
};

}  // namespace etcd
