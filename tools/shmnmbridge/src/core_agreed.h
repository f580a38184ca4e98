// The words that all machines share. A local change is proposed on the revision that the region showed before it; if
// another machine's change came first, that one is shown here too, and the loss is counted.
#pragma once

#include <deque>
#include <map>
#include <optional>
#include <string>

#include "bridge_marks/marks.h"
#include "core_keys.h"
#include "core_outbox.h"
#include "core_rules.h"
#include "core_run.h"
#include "core_settings.h"

namespace bridge {

class AgreedWords {
  public:
    AgreedWords(const Settings& settings, const Rules& rules, const Keys& keys, Outbox& outbox, const Run& run)
        : settings_(settings), rules_(rules), keys_(keys), outbox_(outbox), run_(run) {}

    /// What etcd holds has changed.
    void changed(std::string_view word, const KeyValue& change);
    /// Another etcd.
    void forget();
    /// Words that are neither in etcd nor in the region are dropped.
    void drop_unused();

    /// How a look relates to the one before it.
    struct Continuity {
        bool is_changed = true;
        bool is_new = false;                   ///< another region, or it was cleared
        bool is_proven = true;                 ///< it is known to be the same; otherwise a change may be a new region's
        bool has_lost_witnesses = false;       ///< after a gap none of the other servers' words stands any more
        std::vector<std::string> new_records;  ///< keys of resources that were added again
    };
    /// Compares a copy of the region with what it should show, and sends proposals.
    /// @param[in] connected  what is known of etcd is current
    void look(Time now, const Look& look, const Continuity& continuity, bool connected);
    /// The calls that make the region of the last look show etcd's values.
    std::vector<Call> calls();
    /// A call was made.
    void made(const Call& call);
    /// @return whether the answer was to a proposal
    bool answer(Time now, const Answer& answer);

    const ProposalCounts& counts() const { return counts_; }
    size_t kept() const { return entries_.size(); }
    size_t open_proposals() const;
    std::vector<std::string> contested() const;

  private:
    struct Proposal {
        AgreedValue value;
        int64_t base;
        uint64_t number;
        uint64_t request = 0;  ///< 0: none is on its way
        Time retry_at = 0;
    };
    struct Entry {
        Call word;                             ///< how it is set
        std::optional<AgreedValue> new_value;  ///< what a new record holds; nothing: no value

        // In etcd.
        std::optional<AgreedValue> etcd;
        int64_t revision = 0;  ///< 0: the key does not exist

        // In the region.
        bool is_there = false;
        AgreedValue raw{};                  ///< as the last look found it
        std::optional<AgreedValue> agreed;  ///< what it held when it showed etcd's value of `base`
        int64_t base = 0;
        bool is_taken = false;  ///< it has shown etcd's value since the region is new
        bool apply = false;     ///< it is to be set to etcd's value
        int64_t applied = 0;    ///< the revision of that value
        int64_t replaced = 0;   ///< the revision that was last counted as replacing a value of this region

        std::optional<Proposal> open;
        Proposal stale{};  ///< the open one of a former region
        std::deque<Time> losses;
        bool is_contested = false;
    };

    void enter_all(const Look& look);
    void enter(std::string_view key, const Call& word, const AgreedValue& raw, std::optional<AgreedValue> new_value);
    void look_at(Time now, const std::string& key, Entry& entry, bool connected);
    /// @return whether the region has shown etcd's value
    bool take(Entry& entry, bool connected);
    void resolve(Time now, const std::string& key, Entry& entry);
    void follow(Time now, const std::string& key, Entry& entry, bool connected);
    void renew(Entry& entry);
    static void agree(Entry& entry, const std::optional<AgreedValue>& value, int64_t base);
    void accept(Entry& entry, int64_t revision);
    void send(Time now, const std::string& key, Entry& entry);
    void lose(Time now, const std::string& key, Entry& entry);
    std::optional<AgreedValue> value_of(const Entry& entry) const;
    /// Whether etcd's value can be one of this word's.
    bool is_value(std::string_view word, const AgreedValue& value) const;

    const Settings& settings_;
    const Rules& rules_;
    const Keys& keys_;
    Outbox& outbox_;
    const Run& run_;
    std::map<std::string, Entry, std::less<>> entries_;
    ProposalCounts counts_;
    uint64_t last_number_ = 0;
};

}  // namespace bridge
