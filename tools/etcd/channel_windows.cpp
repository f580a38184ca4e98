// TLS by the system's WinHTTP, which keeps connections for later requests itself. Its callbacks come on threads of the
// system; each is handed over to the io_context.
#include <utility>

#include <boost/asio/executor_work_guard.hpp>
#include <boost/asio/io_context.hpp>
#include <boost/asio/post.hpp>
#include <boost/asio/steady_timer.hpp>

// After Asio, which includes windows.h after winsock2.h.
#include <windows.h>
#include <winhttp.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <mutex>
#include <optional>

#include "etcd/error.h"
#include "etcd/plain_channel.h"

namespace etcd {
namespace {

struct CloseInternet {
    using pointer = HINTERNET;
    void operator()(HINTERNET handle) const { WinHttpCloseHandle(handle); }
};
using Internet = std::unique_ptr<HINTERNET, CloseInternet>;

/// Text that is ASCII.
std::wstring wide(const std::string& text) {
    return {text.begin(), text.end()};
}

}  // namespace

class Tls {
  public:
    Tls() : session_(WinHttpOpen(L"etcd", WINHTTP_ACCESS_TYPE_NO_PROXY, nullptr, nullptr, WINHTTP_FLAG_ASYNC)) {
        if (!session_) throw Error("WinHTTP does not start: error " + std::to_string(GetLastError()));
        constexpr DWORD tls_1_3 = 0x2000;
        DWORD protocols = WINHTTP_FLAG_SECURE_PROTOCOL_TLS1_2 | tls_1_3;
        if (WinHttpSetOption(session_.get(), WINHTTP_OPTION_SECURE_PROTOCOLS, &protocols, sizeof protocols)) return;
        protocols = WINHTTP_FLAG_SECURE_PROTOCOL_TLS1_2;
        if (!WinHttpSetOption(session_.get(), WINHTTP_OPTION_SECURE_PROTOCOLS, &protocols, sizeof protocols)) {
            throw Error("this system has no TLS 1.2: error " + std::to_string(GetLastError()));
        }
    }
    HINTERNET session() const { return session_.get(); }

  private:
    Internet session_;
};

namespace {

/// One request and its answer.
class Call : public std::enable_shared_from_this<Call> {
  public:
    Call(boost::asio::io_context& io, const Endpoint& endpoint, std::shared_ptr<const Tls> tls)
        : io_(&io), work_(boost::asio::make_work_guard(io)), endpoint_(endpoint), tls_(std::move(tls)), timer_(io) {}

    void start(const Post& post, const std::string& token, const Channel::Limits& limits, Channel::Part part,
               Channel::Done done) {
        limits_ = limits;
        part_ = std::move(part);
        done_ = std::move(done);
        body_ = post.body;
        wait_until(limits_.connected);
        if (!open(post, token)) {
            const DWORD error = GetLastError();
            boost::asio::post(*io_, [self = shared_from_this(), error] { self->failed(error); });
        }
    }

    /// Ends it. No handler is called any more.
    void abandon() {
        done_ = nullptr;
        close();
    }

  private:
    enum class Step { sent, head, available, read, failed };

    bool open(const Post& post, const std::string& token) {
        connection_.reset(WinHttpConnect(
            tls_->session(), wide(endpoint_.host_field().substr(0, endpoint_.host_field().rfind(':'))).c_str(),
            endpoint_.port, 0));
        if (!connection_) return false;
        request_.reset(WinHttpOpenRequest(connection_.get(), L"POST", wide(post.path).c_str(), nullptr, nullptr,
                                          nullptr, WINHTTP_FLAG_SECURE));
        if (!request_) return false;
        // The system keeps this call until it has closed the request.
        auto holder = std::make_unique<std::shared_ptr<Call>>(shared_from_this());
        auto* context = holder.get();
        DWORD off = WINHTTP_DISABLE_REDIRECTS | WINHTTP_DISABLE_COOKIES | WINHTTP_DISABLE_AUTHENTICATION;
        const bool is_prepared = WinHttpSetOption(request_.get(), WINHTTP_OPTION_DISABLE_FEATURE, &off, sizeof off) &&
                                 WinHttpSetTimeouts(request_.get(), 0, 0, 0, 0) &&
                                 WinHttpSetOption(request_.get(), WINHTTP_OPTION_CONTEXT_VALUE,
                                                  static_cast<void*>(&context), sizeof context) &&
                                 WinHttpSetStatusCallback(request_.get(), told, WINHTTP_CALLBACK_FLAG_ALL_NOTIFICATIONS,
                                                          0) != WINHTTP_INVALID_STATUS_CALLBACK;
        if (!is_prepared) return false;
        static_cast<void>(holder.release());
        std::string fields = "Content-Type: application/json\r\nGrpc-Metadata-hasleader: true\r\n";
        if (!token.empty()) fields += "Authorization: " + token + "\r\n";
        const auto size = static_cast<DWORD>(body_.size());
        return WinHttpSendRequest(request_.get(), wide(fields).c_str(), static_cast<DWORD>(-1), body_.data(), size,
                                  size, reinterpret_cast<DWORD_PTR>(context));
    }

    /// On any thread.
    static void CALLBACK told(HINTERNET, DWORD_PTR context, DWORD status, void* information, DWORD size) {
        auto* const holder = reinterpret_cast<std::shared_ptr<Call>*>(context);
        if (!holder) return;
        Call& call = **holder;
        switch (status) {
            case WINHTTP_CALLBACK_STATUS_SENDING_REQUEST:
                call.is_sent_ = true;
                break;
            case WINHTTP_CALLBACK_STATUS_SENDREQUEST_COMPLETE:
                call.hand_over(Step::sent, 0);
                break;
            case WINHTTP_CALLBACK_STATUS_HEADERS_AVAILABLE:
                call.hand_over(Step::head, 0);
                break;
            case WINHTTP_CALLBACK_STATUS_DATA_AVAILABLE:
                call.hand_over(Step::available, *static_cast<DWORD*>(information));
                break;
            case WINHTTP_CALLBACK_STATUS_READ_COMPLETE:
                call.hand_over(Step::read, size);
                break;
            case WINHTTP_CALLBACK_STATUS_REQUEST_ERROR:
                call.hand_over(Step::failed, static_cast<WINHTTP_ASYNC_RESULT*>(information)->dwError);
                break;
            case WINHTTP_CALLBACK_STATUS_HANDLE_CLOSING:
                delete holder;
                break;
            default:
                break;
        }
    }
    void hand_over(Step step, DWORD number) {
        const std::scoped_lock lock(mutex_);
        if (io_) boost::asio::post(*io_, [self = shared_from_this(), step, number] { self->take(step, number); });
    }

    void take(Step step, DWORD number) {
        if (!done_) return;
        bool is_going_on = true;
        switch (step) {
            case Step::sent:
                wait_until(part_ ? Channel::Time::max() : limits_.answered);
                is_going_on = WinHttpReceiveResponse(request_.get(), nullptr);
                break;
            case Step::head:
                is_going_on = read_status() && WinHttpQueryDataAvailable(request_.get(), nullptr);
                break;
            case Step::available:
                if (number == 0) return finish();
                // No more than there is: a read of more would wait until its buffer is full.
                is_going_on = WinHttpReadData(request_.get(), bytes_.data(),
                                              std::min(number, static_cast<DWORD>(bytes_.size())), nullptr);
                break;
            case Step::read:
                if (number == 0) return finish();
                take_part(number);
                is_going_on = !done_ || WinHttpQueryDataAvailable(request_.get(), nullptr);
                break;
            case Step::failed:
                return failed(number);
        }
        if (!is_going_on) failed(GetLastError());
    }

    bool read_status() {
        DWORD status = 0, size = sizeof status;
        if (!WinHttpQueryHeaders(request_.get(), WINHTTP_QUERY_STATUS_CODE | WINHTTP_QUERY_FLAG_NUMBER, nullptr,
                                 &status, &size, nullptr)) {
            return false;
        }
        status_ = static_cast<int>(status);
        constexpr int ok = 200;
        if (status_ != ok && part_) {
            part_ = nullptr;
            wait_until(limits_.answered);
        }
        return true;
    }

    void take_part(DWORD size) {
        const std::string_view part(bytes_.data(), size);
        if (part_) {
            // The handler may end the stream, and so itself.
            const Channel::Part told_to = part_;
            return told_to(part);
        }
        if (answer_.size() + part.size() > limits_.bytes) return fail(Failure::invalid_answer, "it is too long");
        answer_ += part;
    }

    void wait_until(Channel::Time time) {
        timer_.expires_at(time);
        timer_.async_wait([self = shared_from_this()](const boost::system::error_code& why) {
            if (why || !self->done_ || self->timer_.expiry() > Channel::Time::clock::now()) return;
            if (self->is_sent_ && self->timer_.expiry() < self->limits_.answered) {
                return self->wait_until(self->limits_.answered);
            }
            self->fail(self->is_sent_ ? Failure::timed_out : Failure::not_sent, "no answer in time");
        });
    }

    void failed(DWORD error) {
        if (!done_) return;
        const char* text = nullptr;
        switch (error) {
            case ERROR_WINHTTP_SECURE_FAILURE:
                text = "its certificate is refused";
                break;
            case ERROR_WINHTTP_CANNOT_CONNECT:
                text = "it cannot be reached";
                break;
            case ERROR_WINHTTP_NAME_NOT_RESOLVED:
                text = "its name is not known";
                break;
            case ERROR_WINHTTP_CLIENT_AUTH_CERT_NEEDED:
                text = "it wants a certificate of this client, which is not supported on Windows";
                break;
            case ERROR_WINHTTP_INVALID_SERVER_RESPONSE:
                return fail(Failure::invalid_answer, "the answer is not HTTP");
            default:
                break;
        }
        fail(is_sent_ ? Failure::cut : Failure::not_sent,
             (text ? std::string(text) : "the connection failed") + " (error " + std::to_string(error) + ")");
    }
    void fail(Failure failure, const std::string& reason) {
        end({.failure = failure, .reason = endpoint_.text() + ": " + reason});
    }
    void finish() { end({.status = status_, .body = std::move(answer_)}); }
    void end(Exchange exchange) {
        const auto done = std::exchange(done_, nullptr);
        close();
        done(std::move(exchange));
    }

    void close() {
        timer_.cancel();
        {
            const std::scoped_lock lock(mutex_);
            io_ = nullptr;
        }
        request_.reset();
        connection_.reset();
        work_.reset();
    }

    std::mutex mutex_;             ///< guards io_
    boost::asio::io_context* io_;  ///< null: nothing is handed over any more
    boost::asio::executor_work_guard<boost::asio::io_context::executor_type> work_;
    const Endpoint endpoint_;
    const std::shared_ptr<const Tls> tls_;
    boost::asio::steady_timer timer_;
    Channel::Limits limits_;
    Channel::Part part_;  ///< of a stream, as long as it is one
    Channel::Done done_;  ///< null: nothing is wanted
    std::atomic<bool> is_sent_ = false;
    int status_ = 0;
    std::string body_, answer_;
    std::array<char, size_t{16} * 1'024> bytes_{};
    Internet connection_, request_;
};

class TlsChannel : public Channel {
  public:
    TlsChannel(boost::asio::io_context& io, Endpoint endpoint, std::shared_ptr<const Tls> tls)
        : io_(io), endpoint_(std::move(endpoint)), tls_(std::move(tls)) {}
    ~TlsChannel() override {
        if (call_) call_->abandon();
    }
    TlsChannel(const TlsChannel&) = delete;
    TlsChannel& operator=(const TlsChannel&) = delete;

    void post(const Post& post, const std::string& token, const Limits& limits, Done done) override {
        start(post, token, limits, nullptr, std::move(done));
    }
    void stream(const Post& post, const std::string& token, const Limits& limits, Part part, Done done) override {
        start(post, token, limits, std::move(part), std::move(done));
    }

  private:
    void start(const Post& post, const std::string& token, const Limits& limits, Part part, Done done) {
        if (call_) call_->abandon();
        call_ = std::make_shared<Call>(io_, endpoint_, tls_);
        call_->start(post, token, limits, std::move(part), std::move(done));
    }

    boost::asio::io_context& io_;
    const Endpoint endpoint_;
    const std::shared_ptr<const Tls> tls_;
    std::shared_ptr<Call> call_;
};

}  // namespace

std::shared_ptr<const Tls> make_tls(const TlsSettings& settings, bool) {
    if (!settings.authorities.empty()) {
        throw Error("Windows verifies certificates by its own store; import the authorities there and name no file");
    }
    if (!settings.certificate.empty() || !settings.key.empty()) {
        throw Error("certificates of clients are not supported on Windows; use a user and a password");
    }
    return std::make_shared<const Tls>();
}

std::unique_ptr<Channel> open_channel(boost::asio::io_context& io, const Endpoint& endpoint,
                                      const std::shared_ptr<const Tls>& tls) {
    if (!endpoint.is_tls) return open_plain_channel(io, endpoint);
    return std::make_unique<TlsChannel>(io, endpoint, tls);
}

}  // namespace etcd
