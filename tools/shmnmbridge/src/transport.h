// etcd, on a thread of its own, so that nothing that it does delays a look at the region.
#pragma once

#include <functional>
#include <memory>
#include <string>
#include <variant>
#include <vector>

#include "core_messages.h"
#include "etcd/settings.h"
#include "etcd_trouble.h"

namespace bridge {

class Transport {
  public:
    using Received = std::variant<Answer, Events, WatchEnded>;

    struct Handlers {
        std::function<void(Received)> receive;
        std::function<void()> stop;  ///< this process was asked to stop
    };
    /// @param[in] handlers  called on the transport's thread
    /// @throws etcd::Error  a setting cannot be used
    Transport(const etcd::Settings& settings, Handlers handlers);
    /// No handler is called after it.
    ~Transport();
    Transport(const Transport&) = delete;
    Transport& operator=(const Transport&) = delete;

    void send(std::vector<Send> sends);

    /// Where requests are sent now.
    std::string member() const;
    /// How requests and watches have ended since the start.
    Outcomes outcomes() const;
    /// Asks the thread for a sign of life, which counts up.
    void ask_for_sign();
    uint64_t signs() const;

  private:
    class Implementation;
    std::unique_ptr<Implementation> implementation_;
};

}  // namespace bridge
