// Keys and values in etcd. Values are JSON objects; a value that is not what its key promises is no value.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

#include "core_settings.h"
#include "core_words.h"

namespace bridge {

struct ClaimValue {
    std::string host, run, address;
    std::optional<Times> times{};  ///< nothing: its bridge does not tell them
};
struct StateValue {
    std::string run;
    uint64_t sequence = 0;
    ServerState state;
    std::string digest;  ///< of the counts and names of its region
};
/// "When I had seen this revision, my words were those of this sequence number."
struct BeatValue {
    std::string run;
    uint64_t number = 0, sequence = 0;
    int64_t seen = 0;
};
struct ProposalValue {
    AgreedValue value{};
    std::string process;
    uint64_t number = 0;
};

std::string to_json(const ClaimValue& value);
std::string to_json(const StateValue& value);
std::string to_json(const BeatValue& value);
std::string to_json(const ProposalValue& value);

std::optional<ClaimValue> claim_from(const std::string& json);
std::optional<StateValue> state_from(const std::string& json);
std::optional<BeatValue> beat_from(const std::string& json);
std::optional<ProposalValue> proposal_from(const std::string& json);

/// How many bytes the state of a server of this region takes in etcd, at most.
size_t size_of_state(const Look& look, size_t position);
/// The digest of a region's counts and sorted names, so that machines can tell whether theirs differ.
std::string digest_of(const Look& look);

class Keys {
  public:
    explicit Keys(const std::string& cluster) : prefix_("/shmnm/" + cluster + "/1/") {}

    const std::string& prefix() const { return prefix_; }
    std::string claim(std::string_view server) const { return key("claim", server); }
    std::string state(std::string_view server) const { return key("state", server); }
    std::string beat(std::string_view server) const { return key("beat", server); }
    std::string agreed(std::string_view word) const { return key("agreed", word); }

    struct Parts {
        std::string_view kind, name;
    };
    /// Of a key below the prefix.
    Parts parts_of(std::string_view key) const;

  private:
    std::string key(std::string_view kind, std::string_view name) const;

    std::string prefix_;
};

}  // namespace bridge
