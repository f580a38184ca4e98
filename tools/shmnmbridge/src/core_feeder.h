// What is set in this machine's region: the words of the other servers. Compares each look with the one before it, so
// that a word that a local process has overwritten is noticed and left alone.
#pragma once

#include <map>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include "core_agreed.h"
#include "core_messages.h"
#include "core_peers.h"
#include "core_rules.h"
#include "core_settings.h"

namespace bridge {

class Feeder {
  public:
    Feeder(const Settings& settings, const Rules& rules, Outbox& outbox)
        : settings_(settings), rules_(rules), outbox_(outbox) {}

    /// What a look says of the looks before it.
    AgreedWords::Continuity continuity(Time now, const Look& look, bool is_changed) const;
    /// A look found no region, or one without the own server.
    void see_nothing(Peers& peers);
    /// Takes in a look, and follows which words are contested.
    void look(Time now, const Look& look, const AgreedWords::Continuity& continuity, Peers& peers);
    /// The calls that make the region of the last look show a server's words.
    void add_calls(std::vector<Call>& calls, const std::string& server, Peer& peer, Freshness freshness, bool is_heard);
    /// A call was made.
    void made(const Call& call);

    /// The last look, with the calls made since.
    const std::optional<Look>& shown() const { return shown_; }
    bool may_feed() const;
    const std::set<std::string>& contested() const { return contested_; }
    /// Whether servers share this server's priority, so that it is not fed.
    bool is_duplicate(const std::string& server) const;
    /// What a server has and this region has not.
    std::vector<std::string> unmatched(const std::string& server, const Peer& peer) const;

  private:
    /// One word of a server in the region. Calls `visit(key, call, value here, value of the server or null, is of
    /// silence)`.
    template <typename Visit>
    void visit_words(const Look& look, size_t position, const ServerState* state, Visit visit) const;
    /// Whether a word of another server stands in the region since before the last look.
    bool has_witness(const Look& look) const;
    /// Whether the last batch has set a word to what it holds.
    bool is_made(const Call& call, uint32_t value) const;
    bool others_fell(const Look& look) const;
    /// Where a server was in the look before.
    std::optional<size_t> position_before(const Look& look, size_t position) const;
    /// Whether a resource whose own state fell to that of a new one shows nothing that proves that it is not.
    bool may_be_new(const Look& look, const LookedResource& resource) const;
    bool is_new_row(const Look& look, const LookedResource& resource, size_t own) const;
    /// Whether a server's words are those of the look before.
    bool shows_same(const Look& look, size_t position) const;
    /// Whether no word of a server proves that its record is the one of the look before.
    bool may_be_added_again(const Look& look, size_t position) const;
    /// The keys of resources that were added again.
    std::set<std::string, std::less<>> find_new_rows(const Look& look) const;
    void follow_contests(const Look& look, size_t position, Peer& peer,
                         const std::set<std::string, std::less<>>& new_rows);

    /// What the region was found to show of a server: a state, or silence.
    struct Settled {
        std::string run;
        uint64_t sequence = 0;

        bool operator==(const Settled&) const = default;
    };

    const Settings& settings_;
    const Rules& rules_;
    Outbox& outbox_;
    std::optional<Look> shown_;
    Time looked_at_ = 0;
    bool was_absent_ = false;
    std::set<std::string, std::less<>> fed_;  ///< servers whose words were set or found here since the region is new
    std::map<std::string, Settled, std::less<>> settled_;  ///< since the last change of the region
    std::vector<Call> made_;                               ///< since the last look
    std::set<std::string> contested_;                      ///< "servers/alpha/pingstat", "hb/lan/lan1/svstat/alpha"
};

}  // namespace bridge
