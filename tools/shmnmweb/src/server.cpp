#include "server.h"

#include <utility>

#include <algorithm>
#include <array>
#include <boost/asio/basic_socket_acceptor.hpp>
#include <boost/asio/generic/stream_protocol.hpp>
#include <boost/asio/io_context.hpp>
#include <boost/asio/ip/tcp.hpp>
#include <boost/asio/post.hpp>
#include <boost/asio/signal_set.hpp>
#include <boost/asio/steady_timer.hpp>
#include <boost/asio/write.hpp>
#include <boost/beast/core/basic_stream.hpp>
#include <boost/beast/core/flat_buffer.hpp>
#include <boost/beast/http/buffer_body.hpp>
#include <boost/beast/http/parser.hpp>
#include <boost/beast/http/read.hpp>
#include <chrono>
#include <limits>
#include <optional>
#include <unordered_map>
#include <unordered_set>

namespace shmnmweb {
namespace {

namespace asio = boost::asio;
namespace beast = boost::beast;
namespace http = beast::http;
using boost::system::error_code;
using Protocol = asio::generic::stream_protocol;
using Stream = beast::basic_stream<Protocol, asio::io_context::executor_type>;
using Socket = Stream::socket_type;
using Acceptor = asio::basic_socket_acceptor<Protocol, asio::io_context::executor_type>;
using Timer = asio::basic_waitable_timer<std::chrono::steady_clock, asio::wait_traits<std::chrono::steady_clock>,
                                         asio::io_context::executor_type>;
using Parser = http::request_parser<http::buffer_body>;

constexpr uint32_t header_limit = 8'192;
/// So much of an answer is written at a time, each part with a time-out of its own.
constexpr size_t part_bytes = size_t{256} * 1'024;
/// What the system keeps for the reader of an event stream: a slow one is soon told merged changes, not old ones.
constexpr int stream_buffer_bytes = 64 * 1'024;
constexpr std::chrono::seconds alive_interval{5};
constexpr unsigned alive_events_per_comment = 3;
constexpr std::chrono::seconds linger_time{2};
constexpr size_t drain_limit = size_t{64} * 1'024;

void prepare(Parser& parser) {
    parser.header_limit(header_limit);
    // A body is never read, however long it is said to be.
    parser.body_limit(std::numeric_limits<uint64_t>::max());
}

Request request_of(Parser& parser, bool is_local) {
    const auto& message = parser.get();
    const auto text = [](beast::string_view view) { return std::string(view.data(), view.size()); };
    Request request;
    request.method = text(message.method_string());
    request.target = text(message.target());
    request.is_http_1_1 = message.version() >= 11;
    request.keeps_alive = message.keep_alive();
    request.has_body = message.chunked() || (message.has_content_length() && parser.content_length().value_or(1) > 0);
    const auto [first, last] = message.equal_range(http::field::host);
    for (auto host = first; host != last; ++host) request.hosts.push_back(text(host->value()));
    request.accept = text(message[http::field::accept]);
    request.if_none_match = text(message[http::field::if_none_match]);
    request.last_event_id = text(message["Last-Event-ID"]);
    request.is_local = is_local;
    return request;
}

bool is_of_http(const error_code& why) {
    return why.category() == http::make_error_code(http::error::bad_method).category();
}

/// What is answered where no request could be read; the connection ends after it.
Response unreadable(const error_code& why) {
    Response response = why == http::error::header_limit || why == http::error::buffer_overflow
                            ? error(431, 2, "the request's header is longer than 8192 bytes; send a shorter one")
                            : error(400, 2, "this is not a request of HTTP/1.1; send one");
    response.closes = true;
    return response;
}

}  // namespace

Response respond_to_bytes(std::string_view bytes, bool is_local, Site& site) {
    Parser parser;
    prepare(parser);
    error_code why;
    parser.put(asio::buffer(bytes.data(), bytes.size()), why);
    if (why && !parser.is_header_done()) return unreadable(why);
    return respond(request_of(parser, is_local), site);
}

class Server::Implementation {
  public:
    Implementation(Site& site, const Limits& limits, std::function<void()> ask_for_all)
        : site_(site), limits_(limits), ask_for_all_(std::move(ask_for_all)) {}
    ~Implementation() {
        for (const Listener& listener : listeners_) remove_file(listener);
    }
    Implementation(const Implementation&) = delete;
    Implementation& operator=(const Implementation&) = delete;

    void listen(std::vector<Listener> listeners);
    std::vector<std::string> addresses() const {
        std::vector<std::string> all;
        for (const Listener& listener : listeners_) all.push_back(listener.address);
        return all;
    }
    void run(const std::function<void()>& ready);
    void stop() { io_.stop(); }
    void show(std::shared_ptr<const Look> look) {
        asio::post(io_, [this, look = std::move(look)]() mutable { add(std::move(look)); });
    }

  private:
    class Connection;

    void add(std::shared_ptr<const Look> look);
    void tell_watchdog();
    void accept(Acceptor& acceptor, const Listener& listener);
    void take(Socket socket, bool is_local);
    void keep_alive();

    Site& site_;
    const Limits limits_;
    const std::function<void()> ask_for_all_;
    std::vector<Listener> listeners_;
    size_t connections_ = 0;
    std::unordered_map<std::string, uint32_t> clients_;
    std::unordered_set<Connection*> streams_;           ///< connections that events are sent to
    std::vector<std::shared_ptr<Connection>> waiting_;  ///< for a copy of all bytes
    // Connections end with it at the latest, and take themselves out of what is above.
    asio::io_context io_{1};
    std::vector<Acceptor> acceptors_;
    Timer alive_timer_{io_};
    unsigned alive_events_ = 0;
    const uint64_t watchdog_us_ = watchdog_us();
    std::optional<uint64_t> told_watchdog_us_;
};

/// One client's connection, from its acceptance to its end. It lives as long as an operation of it is under way.
class Server::Implementation::Connection : public std::enable_shared_from_this<Connection> {
  public:
    Connection(Implementation& server, Socket socket, std::string client, bool is_local)
        : server_(server), stream_(std::move(socket)), client_(std::move(client)), is_local_(is_local) {
        ++server_.connections_;
        ++server_.clients_[client_];
    }
    ~Connection() {
        server_.streams_.erase(this);
        --server_.connections_;
        const auto count = server_.clients_.find(client_);
        if (--count->second == 0) server_.clients_.erase(count);
    }
    Connection(const Connection&) = delete;
    Connection& operator=(const Connection&) = delete;

    void read() {
        parser_.emplace();
        prepare(*parser_);
        stream_.expires_after(std::chrono::seconds(server_.limits_.request_seconds));
        http::async_read_header(stream_, buffer_, *parser_,
                                [self = shared_from_this()](const error_code& why, size_t) { self->on_request(why); });
    }
    void refuse(Response response) {
        response.closes = true;
        answer(std::move(response));
    }

    void respond_now() {
        Response response = respond(request_, server_.site_);
        if (!response.needs_all) return answer(std::move(response));
        stream_.expires_never();
        server_.waiting_.push_back(shared_from_this());
        server_.ask_for_all_();
    }

    /// Sends what is new, unless something is on its way.
    void update() {
        if (is_writing_) return;
        if (auto event = server_.site_.history.event_after(seen_)) {
            seen_ = server_.site_.history.sequence();
            send_event(std::move(event));
        } else if (alive_) {
            send_event(std::exchange(alive_, nullptr));
        }
    }
    /// The newest one is enough for a client that is behind.
    void keep_alive(std::shared_ptr<const std::string> text) {
        alive_ = std::move(text);
        update();
    }

  private:
    void on_request(const error_code& why) {
        const bool is_cut = why == http::error::end_of_stream || why == http::error::partial_message;
        if (why && (is_cut || !is_of_http(why))) return end();
        if (why) return answer(unreadable(why));
        request_ = request_of(*parser_, is_local_);
        keeps_alive_ = request_.keeps_alive && parser_->is_done();
        respond_now();
    }

    void answer(Response response) {
        response_ = std::move(response);
        const bool closes = response_.closes || !keeps_alive_;
        response_.closes = closes;
        head_ = head_of(response_, closes);
        part_ = 0;
        at_ = 0;
        if (response_.is_head) response_.bodies.clear();
        // With the head, so that a short answer is one packet.
        const size_t first = response_.bodies.empty() ? 0 : std::min(response_.bodies[0].bytes.size(), part_bytes);
        at_ = first;
        write(std::array{asio::const_buffer(head_.data(), head_.size()),
                         asio::const_buffer(first == 0 ? nullptr : response_.bodies[0].bytes.data(), first)},
              [this] { write_body(); });
    }

    /// Writes the body part by part: a client must take in each in time, however large the whole is.
    void write_body() {
        while (part_ < response_.bodies.size()) {
            const std::string_view bytes = response_.bodies[part_].bytes.substr(at_);
            if (bytes.empty()) {
                ++part_;
                at_ = 0;
                continue;
            }
            const size_t size = std::min(bytes.size(), part_bytes);
            at_ += size;
            return write(asio::const_buffer(bytes.data(), size), [this] { write_body(); });
        }
        response_.bodies.clear();
        if (response_.is_stream && !response_.is_head) return begin_stream();
        if (response_.closes) return linger();
        read();
    }

    template <typename Buffers, typename Then>
    void write(const Buffers& buffers, Then then) {
        stream_.expires_after(std::chrono::seconds(server_.limits_.write_seconds));
        asio::async_write(stream_, buffers, [self = shared_from_this(), then](const error_code& why, size_t) {
            if (why) return self->end();
            then();
        });
    }

    void begin_stream() {
        error_code ignored;
        stream_.socket().set_option(asio::socket_base::send_buffer_size(stream_buffer_bytes), ignored);
        seen_ = response_.seen;
        server_.streams_.insert(this);
        stream_.expires_never();
        notice_end();
        alive_ = std::make_shared<const std::string>(server_.site_.history.alive_event());
        update();
    }
    /// Ends the connection once the client has: the system would drop the answer if bytes of the client were left
    /// unread.
    void linger() {
        error_code ignored;
        stream_.socket().shutdown(Socket::shutdown_send, ignored);
        stream_.expires_after(linger_time);
        drain();
    }
    void drain() {
        stream_.async_read_some(asio::buffer(unread_), [self = shared_from_this()](const error_code& why, size_t size) {
            self->drained_ += size;
            if (why || self->drained_ > drain_limit) return self->end();
            self->drain();
        });
    }

    /// A client has nothing more to say; its end is noticed even while nothing is written.
    void notice_end() {
        stream_.socket().async_read_some(asio::buffer(unread_),
                                         [self = shared_from_this()](const error_code& why, size_t size) {
                                             self->drained_ += size;
                                             if (why || self->drained_ > drain_limit) return self->end();
                                             self->notice_end();
                                         });
    }
    void send_event(std::shared_ptr<const std::string> text) {
        is_writing_ = true;
        event_ = std::move(text);
        write(asio::const_buffer(event_->data(), event_->size()), [this] {
            is_writing_ = false;
            event_.reset();
            stream_.expires_never();
            update();
        });
    }

    void end() {
        server_.streams_.erase(this);
        error_code ignored;
        stream_.socket().shutdown(Socket::shutdown_both, ignored);
        stream_.close();
    }

    Implementation& server_;
    Stream stream_;
    const std::string client_;
    const bool is_local_;
    beast::flat_buffer buffer_{size_t{2} * header_limit};
    std::optional<Parser> parser_;
    Request request_;
    Response response_;
    std::string head_;
    size_t part_ = 0, at_ = 0;
    bool keeps_alive_ = false;
    std::array<char, 1'024> unread_{};
    size_t drained_ = 0;
    // Of an event stream.
    bool is_writing_ = false;
    std::optional<uint64_t> seen_;
    std::shared_ptr<const std::string> event_, alive_;
};

void Server::Implementation::add(std::shared_ptr<const Look> look) {
    tell_watchdog();
    const bool is_new = site_.add(std::move(look));
    for (const auto& connection : std::exchange(waiting_, {})) connection->respond_now();
    if (!is_new) return;
    // A connection that ends meanwhile leaves the set.
    const std::vector<Connection*> all(streams_.begin(), streams_.end());
    for (Connection* const stream : all) {
        if (streams_.contains(stream)) stream->update();
    }
}

/// Looks arrive every 50 ms. If either thread hangs, none arrives, and the service manager restarts the program.
void Server::Implementation::tell_watchdog() {
    if (watchdog_us_ == 0) return;
    const uint64_t now_us = picture::platform::steady_clock_us();
    if (told_watchdog_us_ && now_us - *told_watchdog_us_ < watchdog_us_ / 2) return;
    told_watchdog_us_ = now_us;
    notify_service_manager("WATCHDOG=1");
}

void Server::Implementation::keep_alive() {
    alive_timer_.expires_after(alive_interval);
    alive_timer_.async_wait([this](const error_code& why) {
        if (why) return;
        const bool has_comment = ++alive_events_ % alive_events_per_comment == 0;
        const auto text =
            std::make_shared<const std::string>((has_comment ? ": still here\n\n" : "") + site_.history.alive_event());
        const std::vector<Connection*> all(streams_.begin(), streams_.end());
        for (Connection* const stream : all) {
            if (streams_.contains(stream)) stream->keep_alive(text);
        }
        keep_alive();
    });
}

void Server::Implementation::accept(Acceptor& acceptor, const Listener& listener) {
    acceptor.async_accept([this, &acceptor, &listener](const error_code& why, Socket socket) {
        if (why == asio::error::operation_aborted) return;
        if (!why) {
            take(std::move(socket), listener.is_local);
            return accept(acceptor, listener);
        }
        // The system has no descriptor left: connections wait until some end.
        // Each acceptor has a timer of its own: setting a timer again ends every other wait for it.
        const auto retry = std::make_shared<Timer>(io_, std::chrono::milliseconds(100));
        retry->async_wait([this, retry, &acceptor, &listener](const error_code&) { accept(acceptor, listener); });
    });
}

void Server::Implementation::take(Socket socket, bool is_local) {
    error_code ignored;
    socket.set_option(asio::ip::tcp::no_delay(true), ignored);
    std::string client = client_of(static_cast<SocketHandle>(socket.native_handle()), is_local);
    const auto known = clients_.find(client);
    const bool is_full = connections_ >= limits_.connections;
    if (!is_full && (known == clients_.end() || known->second < limits_.connections_per_client)) {
        return std::make_shared<Connection>(*this, std::move(socket), std::move(client), is_local)->read();
    }
    // No time is spent on it: the answer fits into the system's buffer, or is not sent.
    Response response = error(503, 5,
                              is_full ? "this server has no connection left; try again later"
                                      : "this client has too many connections; end some of them");
    std::string text = head_of(response, true);
    for (const Body& body : response.bodies) text += body.bytes;
    socket.non_blocking(true, ignored);
    socket.write_some(asio::buffer(text), ignored);
    socket.shutdown(Socket::shutdown_send, ignored);
}

void Server::Implementation::listen(std::vector<Listener> listeners) {
    listeners_ = std::move(listeners);
    for (const Listener& listener : listeners_) {
        acceptors_.emplace_back(io_).assign(Protocol(listener.family, 0),
                                            static_cast<Acceptor::native_handle_type>(listener.handle));
    }
}

void Server::Implementation::run(const std::function<void()>& ready) {
    asio::signal_set stop(io_);
    for (const int signal : stop_signals()) stop.add(signal);
    stop.async_wait([this](const error_code& why, int) {
        if (!why) io_.stop();
    });
    for (size_t i = 0; i < listeners_.size(); ++i) accept(acceptors_[i], listeners_[i]);
    keep_alive();
    ready();
    io_.run();
}

Server::Server(Site& site, const Limits& limits, std::function<void()> ask_for_all)
    : implementation_(std::make_unique<Implementation>(site, limits, std::move(ask_for_all))) {}
Server::~Server() = default;
void Server::listen(std::vector<Listener> listeners) {
    implementation_->listen(std::move(listeners));
}
std::vector<std::string> Server::addresses() const {
    return implementation_->addresses();
}
void Server::run(const std::function<void()>& ready) {
    implementation_->run(ready);
}
void Server::stop() {
    implementation_->stop();
}
void Server::show(std::shared_ptr<const Look> look) {
    implementation_->show(std::move(look));
}

}  // namespace shmnmweb
