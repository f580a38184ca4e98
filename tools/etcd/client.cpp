#include "etcd/client.h"

#include <utility>

#include <algorithm>
#include <boost/asio/io_context.hpp>
#include <boost/asio/post.hpp>
#include <boost/asio/steady_timer.hpp>
#include <deque>
#include <map>
#include <vector>

#include "etcd/channel.h"
#include "etcd/error.h"
#include "etcd/gateway.h"
#include "etcd/secret_file.h"

namespace etcd {

namespace asio = boost::asio;
using Clock = std::chrono::steady_clock;

class Client::Implementation : public std::enable_shared_from_this<Client::Implementation> {
  public:
    Implementation(asio::io_context& io, const Settings& settings);

    void send(Request request, Answered answered);
    uint64_t watch(const etcd::Watch& watch, Told told, Ended ended);
    void unwatch(uint64_t number);
    std::string member() const { return members_[member_].text(); }

  private:
    struct Waiting {
        Request request;
        Post post;
        Answered answered;
        Clock::time_point deadline;
        size_t tries = 0;          ///< members that did not take it
        bool has_renewed = false;  ///< the token was refused once
    };
    struct Watching {
        explicit Watching(asio::io_context& io) : timer(io) {}
        Post post;
        Told told;
        Ended ended;
        Clock::time_point deadline;
        size_t tries = 0;
        bool has_renewed = false, is_created = false;
        std::string token;
        std::string text;     ///< a line that is not complete
        size_t searched = 0;  ///< of it, without an end
        std::unique_ptr<Channel> channel;
        asio::steady_timer timer;
    };
    using Authenticated = std::function<void(const Token&)>;

    /// Calls a member function later, unless the client is gone by then.
    template <typename Function>
    void later(Function function) {
        asio::post(io_, [weak = weak_from_this(), function = std::move(function)] {
            if (const auto self = weak.lock()) function(*self);
        });
    }
    Channel::Limits limits(Clock::time_point deadline) const {
        return {.connected = std::min(Clock::now() + settings_.connect_timeout, deadline),
                .answered = deadline,
                .bytes = settings_.answer_limit};
    }
    std::unique_ptr<Channel> open(size_t member) { return open_channel(io_, members_[member], tls_); }
    void next_member() {
        channel_.reset();
        member_ = (member_ + 1) % members_.size();
    }

    void send_next();
    void exchanged(Exchange exchange);
    void answer_first(const Answer& answer);
    void fail_first(Failure failure, std::string reason) {
        answer_first({.failure = failure, .reason = std::move(reason)});
    }

    bool needs_token() const { return !settings_.user.empty() && token_.empty() && !is_needless_; }
    void renew_token(const std::string& refused) {
        is_needless_ = false;
        if (token_ == refused) token_.clear();
    }
    void authenticate(Authenticated authenticated);
    void authenticate_at_member(size_t tries, Clock::time_point deadline);
    void authentication_done(const Token& token);

    void start_watch(uint64_t number);
    void open_stream(uint64_t number, Watching& watching);
    void watch_told(uint64_t number, std::string_view part);
    void watch_closed(uint64_t number, const Exchange& exchange);
    void end_watch(uint64_t number, const WatchEnd& end);
    void refuse_watch(uint64_t number, Watching& watching, const WatchEnd& end);

    asio::io_context& io_;
    const Settings settings_;
    std::vector<Endpoint> members_;
    std::shared_ptr<const Tls> tls_;

    std::deque<Waiting> waiting_;
    bool is_busy_ = false;  ///< the first of them is being answered
    size_t member_ = 0;
    std::unique_ptr<Channel> channel_;
    std::string used_token_;  ///< by the request that is being answered
    std::string last_reason_;

    std::string token_;
    bool is_needless_ = false;
    std::unique_ptr<Channel> authentication_;
    std::vector<Authenticated> authenticated_;

    uint64_t last_watch_ = 0;
    size_t watch_member_ = 0;
    std::map<uint64_t, std::shared_ptr<Watching>> watches_;
};

Client::Implementation::Implementation(asio::io_context& io, const Settings& settings) : io_(io), settings_(settings) {
    if (settings_.endpoints.empty()) throw Error("no address of etcd is set; name one per member");
    bool has_tls = false;
    for (const std::string& text : settings_.endpoints) {
        const Endpoint& endpoint = members_.emplace_back(parse_endpoint(text));
        has_tls = has_tls || endpoint.is_tls;
        if (!endpoint.is_tls && !endpoint.is_loopback() && !settings_.user.empty()) {
            throw Error("a password would cross the network readable on its way to " + endpoint.text() + "; use https");
        }
    }
    if (settings_.user.empty() != settings_.password_file.empty()) {
        throw Error("a user of etcd needs a password file, and a password file its user; name both");
    }
    if (!settings_.password_file.empty()) read_password_file(settings_.password_file);
    const bool has_files = !settings_.tls.authorities.empty() || !settings_.tls.certificate.empty();
    if (has_files && !has_tls) throw Error("certificates are named, but no address of etcd begins with https");
    if (has_tls) tls_ = make_tls(settings_.tls, !settings_.user.empty());
}

// Requests

void Client::Implementation::send(Request request, Answered answered) {
    if (waiting_.size() >= settings_.request_limit) {
        return later([answered = std::move(answered)](Implementation&) {
            answered({.failure = Failure::not_sent, .reason = "too many requests wait for an answer"});
        });
    }
    Post post = encode(request);
    waiting_.push_back({std::move(request), std::move(post), std::move(answered), Clock::now() + settings_.timeout});
    later([](Implementation& self) { self.send_next(); });
}

void Client::Implementation::send_next() {
    if (is_busy_ || waiting_.empty()) return;
    Waiting& first = waiting_.front();
    // A request with no time for an answer would leave its caller in doubt.
    constexpr int least_part = 10;
    if (Clock::now() > first.deadline - settings_.timeout / least_part || first.tries == members_.size()) {
        return fail_first(Failure::not_sent, last_reason_.empty() ? "no answer to earlier requests" : last_reason_);
    }
    is_busy_ = true;
    if (needs_token()) {
        return authenticate([this](const Token& token) {
            is_busy_ = false;
            if (token.failure == Failure::none) return send_next();
            fail_first(may_be_done(token.failure) ? Failure::not_sent : token.failure, token.reason);
        });
    }
    if (!channel_) channel_ = open(member_);
    used_token_ = token_;
    channel_->post(first.post, token_, limits(first.deadline),
                   [this](Exchange exchange) { exchanged(std::move(exchange)); });
}

void Client::Implementation::exchanged(Exchange exchange) {
    const auto self = shared_from_this();
    is_busy_ = false;
    Waiting& first = waiting_.front();
    if (exchange.failure != Failure::none) {
        last_reason_ = exchange.reason;
        next_member();
        if (exchange.failure != Failure::not_sent) return fail_first(exchange.failure, std::move(exchange.reason));
        ++first.tries;
        return send_next();
    }
    if (!settings_.user.empty() && !first.has_renewed && asks_for_token(exchange.status, exchange.body)) {
        first.has_renewed = true;
        renew_token(used_token_);
        return send_next();
    }
    const Answer answer = decode(first.request, exchange.status, exchange.body);
    if (may_be_done(answer.failure)) {
        last_reason_ = answer.reason;
        next_member();
    }
    answer_first(answer);
}

void Client::Implementation::answer_first(const Answer& answer) {
    const auto self = shared_from_this();
    const Answered answered = std::move(waiting_.front().answered);
    waiting_.pop_front();
    if (answer.failure == Failure::none) last_reason_.clear();
    later([](Implementation& client) { client.send_next(); });
    answered(answer);
}

// Tokens

void Client::Implementation::authenticate(Authenticated authenticated) {
    authenticated_.push_back(std::move(authenticated));
    if (authenticated_.size() == 1) authenticate_at_member(0, Clock::now() + settings_.timeout);
}

void Client::Implementation::authenticate_at_member(size_t tries, Clock::time_point deadline) {
    Post post;
    try {
        // Read anew, so that the password can be changed.
        post = encode_authentication(settings_.user, read_password_file(settings_.password_file));
    } catch (const Error& error) {
        return later([reason = std::string(error.what())](Implementation& self) {
            self.authentication_done({.failure = Failure::unauthenticated, .reason = reason});
        });
    }
    authentication_ = open(member_);
    authentication_->post(post, {}, limits(deadline), [this, tries, deadline](const Exchange& exchange) {
        if (exchange.failure == Failure::none) {
            return authentication_done(decode_authentication(exchange.status, exchange.body));
        }
        next_member();
        if (tries + 1 < members_.size() && Clock::now() < deadline) return authenticate_at_member(tries + 1, deadline);
        authentication_done({.failure = exchange.failure, .reason = exchange.reason});
    });
}

void Client::Implementation::authentication_done(const Token& token) {
    const auto self = shared_from_this();
    token_ = token.token;
    is_needless_ = token.is_needless;
    if (token.failure != Failure::none) last_reason_ = token.reason;
    authentication_.reset();
    for (const Authenticated& each : std::exchange(authenticated_, {})) each(token);
}

// Watches

uint64_t Client::Implementation::watch(const etcd::Watch& watch, Told told, Ended ended) {
    const uint64_t number = ++last_watch_;
    const auto watching = std::make_shared<Watching>(io_);
    watching->post = encode(watch);
    watching->told = std::move(told);
    watching->ended = std::move(ended);
    watching->deadline = Clock::now() + settings_.timeout;
    watching->timer.expires_at(watching->deadline);
    watching->timer.async_wait([weak = weak_from_this(), number](const boost::system::error_code& why) {
        const auto self = weak.lock();
        if (why || !self) return;
        const auto found = self->watches_.find(number);
        if (found == self->watches_.end() || found->second->is_created) return;
        self->end_watch(number, {.failure = Failure::timed_out, .reason = "no watch in time"});
    });
    watches_.emplace(number, watching);
    later([number](Implementation& self) { self.start_watch(number); });
    return number;
}

void Client::Implementation::unwatch(uint64_t number) {
    if (watches_.erase(number) != 0) watch_member_ = (watch_member_ + 1) % members_.size();
}

void Client::Implementation::start_watch(uint64_t number) {
    const auto found = watches_.find(number);
    if (found == watches_.end()) return;
    if (!needs_token()) return open_stream(number, *found->second);
    authenticate([this, number](const Token& token) {
        if (token.failure == Failure::none) return start_watch(number);
        end_watch(number, {.failure = token.failure, .reason = token.reason});
    });
}

void Client::Implementation::open_stream(uint64_t number, Watching& watching) {
    watching.token = token_;
    watching.text.clear();
    watching.searched = 0;
    watching.channel = open(watch_member_);
    watching.channel->stream(
        watching.post, token_, limits(watching.deadline),
        [this, number](std::string_view part) { watch_told(number, part); },
        [this, number](const Exchange& exchange) { watch_closed(number, exchange); });
}

void Client::Implementation::watch_told(uint64_t number, std::string_view part) {
    const auto self = shared_from_this();
    const auto watching = watches_.at(number);
    watching->text += part;
    size_t taken = 0;
    for (;;) {
        const size_t end = watching->text.find('\n', std::max(taken, watching->searched));
        if (end == std::string::npos) break;
        const auto message = decode_watch(std::string_view(watching->text).substr(taken, end - taken));
        taken = end + 1;
        if (const auto* const last = std::get_if<WatchEnd>(&message)) return refuse_watch(number, *watching, *last);
        const auto& told = std::get<WatchMessage>(message);
        if (told.created) {
            watching->is_created = true;
            watching->timer.cancel();
        }
        watching->told(told);
        // The handler may have ended the watch.
        if (!watches_.contains(number)) return;
    }
    watching->text.erase(0, taken);
    watching->searched = watching->text.size();
    if (watching->text.size() > settings_.answer_limit) {
        end_watch(number, {.failure = Failure::invalid_answer, .reason = "a message of the watch is too long"});
    }
}

void Client::Implementation::watch_closed(uint64_t number, const Exchange& exchange) {
    const auto self = shared_from_this();
    const auto watching = watches_.at(number);
    constexpr int ok = 200;
    if (exchange.failure == Failure::not_sent && ++watching->tries < members_.size()) {
        watch_member_ = (watch_member_ + 1) % members_.size();
        return start_watch(number);
    }
    if (exchange.failure != Failure::none) {
        return end_watch(number, {.failure = exchange.failure, .reason = exchange.reason});
    }
    if (exchange.status == ok) return end_watch(number, {.failure = Failure::cut, .reason = "the stream has ended"});
    refuse_watch(number, *watching, decode_refused_watch(exchange.status, exchange.body));
}

void Client::Implementation::refuse_watch(uint64_t number, Watching& watching, const WatchEnd& end) {
    const bool asks_for_token = end.failure == Failure::unauthenticated && !settings_.user.empty();
    if (!asks_for_token || watching.has_renewed) return end_watch(number, end);
    watching.has_renewed = true;
    renew_token(watching.token);
    start_watch(number);
}

void Client::Implementation::end_watch(uint64_t number, const WatchEnd& end) {
    const auto self = shared_from_this();
    const auto found = watches_.find(number);
    if (found == watches_.end()) return;
    const auto watching = found->second;
    watches_.erase(found);
    watch_member_ = (watch_member_ + 1) % members_.size();
    watching->ended(end);
}

Client::Client(asio::io_context& io, const Settings& settings)
    : implementation_(std::make_shared<Implementation>(io, settings)) {}
Client::~Client() = default;

void Client::send(Request request, Answered answered) {
    implementation_->send(std::move(request), std::move(answered));
}
uint64_t Client::watch(const Watch& watch, Told told, Ended ended) {
    return implementation_->watch(watch, std::move(told), std::move(ended));
}
void Client::unwatch(uint64_t number) {
    implementation_->unwatch(number);
}
std::string Client::member() const {
    return implementation_->member();
}

}  // namespace etcd
