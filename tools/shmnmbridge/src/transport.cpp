#include "transport.h"

#include <utility>

#include <atomic>
#include <boost/asio/executor_work_guard.hpp>
#include <boost/asio/io_context.hpp>
#include <boost/asio/post.hpp>
#include <map>
#include <mutex>
#include <thread>

#include "etcd/client.h"
#include "messages.h"
#include "stop.h"

namespace bridge {

namespace asio = boost::asio;

class Transport::Implementation {
  public:
    Implementation(const etcd::Settings& settings, Handlers handlers)
        : handlers_(std::move(handlers)),
          client_(std::make_unique<etcd::Client>(io_, settings)),
          member_(client_->member()),
          stop_(io_, [this] { handlers_.stop(); }),
          thread_([this] { io_.run(); }) {}
    ~Implementation() {
        asio::post(io_, [this] { io_.stop(); });
        thread_.join();
    }
    Implementation(const Implementation&) = delete;
    Implementation& operator=(const Implementation&) = delete;

    void send(std::vector<Send> sends) {
        asio::post(io_, [this, sends = std::move(sends)] {
            for (const Send& each : sends) {
                std::visit([this](const auto& one) { send(one); }, each);
            }
        });
    }

    std::string member() const {
        const std::scoped_lock hold(mutex_);
        return member_;
    }
    Outcomes outcomes() const {
        const std::scoped_lock hold(mutex_);
        return outcomes_;
    }
    void ask_for_sign() {
        asio::post(io_, [this] { ++signs_; });
    }
    uint64_t signs() const { return signs_; }

  private:
    // All that follows runs on the thread.
    void send(const Request& request) {
        client_->send(to_etcd(request), [this, request](const etcd::Answer& answer) {
            note(answer.failure == etcd::Failure::no_lease ? "" : answer.reason);
            handlers_.receive(from_etcd(request, answer));
        });
    }
    void send(const Watch& watch) {
        numbers_[watch.id] = client_->watch(
            to_etcd(watch),
            [this, id = watch.id](const etcd::WatchMessage& message) { handlers_.receive(from_etcd(id, message)); },
            [this, id = watch.id](const etcd::WatchEnd& end) {
                numbers_.erase(id);
                if (end.failure != etcd::Failure::compacted) note(end.reason);
                handlers_.receive(WatchEnded{id});
            });
    }
    void send(const Unwatch& unwatch) {
        const auto found = numbers_.find(unwatch.id);
        if (found == numbers_.end()) return;
        client_->unwatch(found->second);
        numbers_.erase(found);
    }

    /// @param[in] failure  "": etcd has answered
    void note(const std::string& failure) {
        const std::scoped_lock hold(mutex_);
        ++(failure.empty() ? outcomes_.answered : outcomes_.failed);
        if (!failure.empty()) outcomes_.last_failure = failure;
        member_ = client_->member();
    }

    Handlers handlers_;
    asio::io_context io_;
    asio::executor_work_guard<asio::io_context::executor_type> work_ = asio::make_work_guard(io_);
    std::unique_ptr<etcd::Client> client_;
    std::map<uint64_t, uint64_t> numbers_;  ///< the client's, by the core's
    mutable std::mutex mutex_;              ///< for what follows
    std::string member_;
    Outcomes outcomes_;
    std::atomic<uint64_t> signs_ = 0;
    StopRequests stop_;
    std::thread thread_;
};

Transport::Transport(const etcd::Settings& settings, Handlers handlers)
    : implementation_(std::make_unique<Implementation>(settings, std::move(handlers))) {}
Transport::~Transport() = default;
void Transport::send(std::vector<Send> sends) {
    if (!sends.empty()) implementation_->send(std::move(sends));
}
std::string Transport::member() const {
    return implementation_->member();
}
Outcomes Transport::outcomes() const {
    return implementation_->outcomes();
}
void Transport::ask_for_sign() {
    implementation_->ask_for_sign();
}
uint64_t Transport::signs() const {
    return implementation_->signs();
}

}  // namespace bridge
