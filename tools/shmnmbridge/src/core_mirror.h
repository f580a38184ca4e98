// What is known of the keys in etcd: a read of all of them, then a watch. After any doubt they are read again.
#pragma once

#include <functional>
#include <map>
#include <optional>
#include <string>

#include "core_outbox.h"
#include "core_rules.h"
#include "core_settings.h"

namespace bridge {

class Mirror {
  public:
    /// Receives each change of a key.
    using Changed = std::function<void(const KeyValue& change, bool by_watch)>;

    Mirror(const Settings& settings, const Rules& rules, std::string prefix, Outbox& outbox, Changed changed,
           std::function<void()> forgotten)
        : settings_(settings),
          rules_(rules),
          prefix_(std::move(prefix)),
          outbox_(outbox),
          changed_(std::move(changed)),
          forgotten_(std::move(forgotten)) {}

    /// Sends a read or a watch if one is due. @param[in] echo  when the watch last brought an own beat
    void step(Time now, std::optional<Time> echo);
    /// Takes in every answer: reads, and what a failed transaction found. @return whether all keys have been read
    bool answer(Time now, const Answer& answer);
    void events(const Events& events);
    void watch_ended(const WatchEnded& ended);

    size_t kept() const { return keys_.size(); }
    bool is_synced() const { return synced_; }
    bool has_watch() const { return watch_ != 0; }
    /// The newest revision that a read or the watch brought.
    int64_t seen() const { return seen_; }

  private:
    void accept(const KeyValue& change, bool by_watch);
    void read_done(Time now, const Answer& answer);
    void follow_cluster(uint64_t cluster);
    void forget();
    void drop_watch();

    const Settings& settings_;
    const Rules& rules_;
    std::string prefix_;
    Outbox& outbox_;
    Changed changed_;
    std::function<void()> forgotten_;

    struct Known {
        int64_t revision = 0;  ///< of the last change, deletions too
        bool exists = false;
    };
    /// A key that is not here did not exist at the last read. So what is gone is kept until the next read only.
    std::map<std::string, Known, std::less<>> keys_;
    uint64_t cluster_ = 0;
    int64_t seen_ = 0;
    bool synced_ = false, wants_read_ = true;
    uint64_t read_ = 0, watch_ = 0;  ///< 0: none
    int64_t seen_at_read_ = 0;       ///< `seen_` when the read was sent
    int64_t read_revision_ = 0;      ///< of the last read
    Time retry_at_ = 0, last_read_ = 0, watch_opened_ = 0;
};

}  // namespace bridge
