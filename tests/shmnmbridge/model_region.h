// A model of a machine's region, and of the local processes that set words in it. Every value that they set is new, so
// that a value tells who set it, which word, and until when it stood there.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "core_messages.h"

namespace bridge::test {

/// From one look of a machine at its region to the next.
constexpr Time look_interval = 50;

/// Where each value came from. Values below `first` are those of new records.
class Values {
  public:
    static constexpr uint32_t first = 100;

    struct Origin {
        size_t machine = 0;
        bool is_foreign = false;  ///< set by a process that should not
        Time ended = -1;          ///< when its writer put another in its place; -1: it has not
        Time begun = 0;           ///< when it was set
    };

    uint32_t make(Time now, size_t machine, bool is_foreign = false) {
        origins_.push_back({machine, is_foreign, -1, now});
        return first + static_cast<uint32_t>(origins_.size()) - 1;
    }
    Origin* find(uint32_t value) {
        return value < first || value - first >= origins_.size() ? nullptr : &origins_[value - first];
    }
    void end(uint32_t value, Time now) {
        if (Origin* const origin = find(value); origin && origin->ended < 0) origin->ended = now;
    }

  private:
    std::vector<Origin> origins_;
};

class ModelRegion {
  public:
    /// All servers, those of lower numbers first, and three resources.
    ModelRegion(uint64_t object, const picture::Counts& counts, size_t servers, size_t first_server);

    /// In the region of a machine, all of which have other orders and priorities.
    static int32_t priority(size_t server, size_t machine) {
        return static_cast<int32_t>(10 + (server * 7 + machine) % 50);
    }
    static std::string server_name(size_t number) { return "s" + std::to_string(number); }

    /// A copy as the bridge gets it.
    const Look& look() const { return look_; }
    Look& words() { return look_; }
    ServerState state_of_server(const std::string& server) const;
    /// The word that a server's column or record holds; null if it is not there.
    uint32_t* find(const Call& call);
    AgreedValue* find_header(size_t word) { return &look_.header[word]; }

    void add_server(const std::string& server, int32_t pri);
    void remove_server(const std::string& server);
    void add_resource(const std::string& key);
    void remove_resource(const std::string& key);
    /// As the library does: zeros, and no servers or resources.
    void clear();

    /// Makes a call as the library does: a column is found by the first server with the priority.
    /// @return whether the library accepts it
    bool make(const Call& call);
    /// The value that a call would replace; nothing if there is no such word.
    std::optional<AgreedValue> value_at(const Call& call);

  private:
    Look look_;
};

}  // namespace bridge::test
