#include "picture/assignments.h"

#include <fmt/format.h>
#include <fmt/ranges.h>

#include <algorithm>
#include <map>
#include <optional>
#include <tuple>
#include <variant>

#include "picture/error.h"
#include "picture/escape.h"
#include "picture/keys.h"
#include "picture/library.h"
#include "picture/spelling.h"
#include "picture/words.h"

namespace picture {
namespace {

[[noreturn]] void refuse(ErrorKind kind, const std::string& key, const std::string& why) {
    throw Error(kind, fmt::format("cannot set {}: {}", as_typed(key), why));
}

[[noreturn]] void does_not_fit(const Assignment& assignment, const char* range) {
    throw Error(ErrorKind::invalid, fmt::format("invalid value \"{}\" for {}: use {}", assignment.value.to_text(),
                                                as_typed(assignment.key), range));
}

uint32_t word_of(const Assignment& assignment) {
    const auto value = assignment.value.to_uint32();
    if (!value) does_not_fit(assignment, range_of_words);
    return *value;
}

int32_t number_of(const Assignment& assignment) {
    const auto value = assignment.value.to_int32();
    if (!value) does_not_fit(assignment, range_of_numbers);
    return *value;
}

int32_t positive_of(const Assignment& assignment) {
    const auto value = assignment.value.to_int32();
    if (!value || *value < 1) does_not_fit(assignment, range_of_maxima);
    return *value;
}

/// Turns assignments into steps. Words that one call sets together are collected and set once.
class Planner {
  public:
    Planner(const Picture& picture, bool force) : picture_(picture), force_(force), header_(picture.header) {
        for (const FstPid& record : picture.fst_pids) pids_.emplace(record.name, record);
        for (const Server& server : picture.servers) priorities_.push_back(server.record.pri);
    }

    void add(const Assignment& assignment) {
        if (is_below(assignment.key, "bridge")) {
            refuse(ErrorKind::refused, assignment.key, "only the bridge between machines says it");
        }
        const std::optional<Place> place = locate(picture_, assignment.key);
        if (!place) {
            throw Error(ErrorKind::no_such_key,
                        fmt::format("nothing was set: there is no key {}", as_typed(assignment.key)));
        }
        const auto planned = planned_.find(assignment.key);
        const Value now = planned == planned_.end() ? find(picture_, assignment.key)->value : planned->second;
        if (now == assignment.value) return;
        planned_[assignment.key] = assignment.value;
        std::visit([&](const auto& at) { add(assignment, at); }, *place);
    }

    std::vector<Step> take() {
        if (pair_) add_joint(*pair_);
        if (triple_) add_joint(*triple_);
        return std::move(steps_);
    }

  private:
    void add(const Assignment& assignment, const ClusterPlace& place) {
        std::visit([&](const auto& set) { add(assignment, place, set); }, place.word->set);
    }
    void add(const Assignment& assignment, const ClusterPlace&, Call<uint32_t> set) { step(set, word_of(assignment)); }
    void add(const Assignment& assignment, const ClusterPlace& place, const Pair* set) {
        header_.*place.word->source.number() = positive_of(assignment);
        pair_ = set;
    }
    void add(const Assignment& assignment, const ClusterPlace& place, const Triple* set) {
        if (!force_) {
            refuse(ErrorKind::needs_force, assignment.key,
                   "the region was laid out by it, and every process reads the tables by it");
        }
        header_.*place.word->source.number() = positive_of(assignment);
        triple_ = set;
    }

    void add(const Assignment& assignment, const ServerPlace& place) {
        std::visit([&](const auto& set) { add(assignment, place, set); }, place.word->set);
    }
    void add(const Assignment& assignment, const ServerPlace& place, Call<const char*, uint32_t> set) {
        step(set, place.server->name, word_of(assignment));
    }
    /// Of servers the library sets only the priority by such a call.
    void add(const Assignment& assignment, const ServerPlace& place, Call<const char*, int32_t> set) {
        priorities_[position_of(*place.server)] = number_of(assignment);
        step(set, place.server->name, number_of(assignment));
    }

    template <typename AnyPlace>
    void add(const Assignment& assignment, const AnyPlace&, Computed) {
        refuse(ErrorKind::refused, assignment.key, "it follows from other words");
    }
    template <typename AnyPlace>
    void add(const Assignment& assignment, const AnyPlace&, BySimulation) {
        refuse(ErrorKind::set_by_simulation, assignment.key, "only a simulation sets it");
    }

    void add(const Assignment& assignment, const ResourcePlace& place) {
        step(place.kind->*place.word->set, place.resource->type, place.resource->name, word_of(assignment));
    }

    size_t position_of(const Server& server) const { return static_cast<size_t>(&server - picture_.servers.data()); }

    /// The library finds the server by the priority that it has by then. Refuses the assignment if it would find
    /// another server.
    void add(const Assignment& assignment, const RowPlace& place) {
        const uint32_t value = word_of(assignment);
        const size_t wanted = position_of(*place.server);
        const int32_t priority = priorities_[wanted];
        const auto found =
            static_cast<size_t>(std::find(priorities_.begin(), priorities_.end(), priority) - priorities_.begin());
        if (found != wanted) {
            refuse(ErrorKind::shared_priority, assignment.key,
                   fmt::format("the library finds servers by priority here, and {} has the same priority, {}",
                               escaped(picture_.servers[found].name), priority));
        }
        step(place.kind->*place.word->set, place.resource->type, place.resource->name, priority, value);
    }

    void add(const Assignment& assignment, const FstPlace& place) { step(place.word->set, word_of(assignment)); }

    void add(const Assignment& assignment, const PidPlace& place) {
        if (picture_.header.fst_pid_count >= picture_.header.fst_pid_limit) {
            refuse(ErrorKind::refused, assignment.key,
                   "the table of process ids is full, and the library then refuses updates too");
        }
        FstPid& record = pids_.at(place.record->name);
        std::visit([&](const auto& values) { store(assignment, (record.*values)[place.kind]); }, place.word->values);
        step(&Library::shmnm_setfstrscpid, record.name, static_cast<int32_t>(place.kind), record.pid[place.kind],
             record.piddata[place.kind]);
    }
    void add(const Assignment&, const BridgePlace&) {}
    void add(const Assignment&, const MarkPlace&) {}
    static void store(const Assignment& assignment, uint32_t& word) { word = word_of(assignment); }
    static void store(const Assignment& assignment, uint64_t& word) {
        const auto value = assignment.value.to_uint64();
        if (!value) does_not_fit(assignment, range_of_long_words);
        word = *value;
    }

    template <typename... Numbers>
    void add_joint(const Joint<Numbers...>& joint) {
        for (const auto number : joint.numbers) {
            if (header_.*number < 1) refuse_joint(joint);
        }
        std::apply([&](auto... numbers) { step(joint.function, header_.*numbers...); }, joint.numbers);
    }
    template <typename... Numbers>
    [[noreturn]] void refuse_joint(const Joint<Numbers...>& joint) const {
        std::vector<std::string> keys;
        std::string command = force_ ? "shmnmctl set --force" : "shmnmctl set";
        for (const ClusterWord& word : cluster_words) {
            const auto number = word.source.number();
            if (std::find(joint.numbers.begin(), joint.numbers.end(), number) == joint.numbers.end()) continue;
            keys.push_back(std::string("cluster/") + word.key);
            command += fmt::format(" {} {}", keys.back(), std::max(header_.*number, 1));
        }
        const std::string last = keys.back();
        keys.pop_back();
        throw Error(ErrorKind::set_together,
                    fmt::format("{} and {} can only be set together, each to at least 1, as in \"{}\"",
                                fmt::join(keys, ", "), last, command));
    }

    template <typename... Parameters, typename... Arguments>
    void step(Call<Parameters...> function, const Arguments&... arguments) {
        steps_.push_back(step_of(function, arguments...));
    }

    const Picture& picture_;
    const bool force_;
    std::map<std::string, Value> planned_;  ///< the values that are to be set, by their keys
    shmnm_header header_;                   ///< with the new values of the numbers that are set together
    std::map<std::string, FstPid> pids_;    ///< as they will be
    std::vector<int32_t> priorities_;       ///< of the servers, after the steps so far
    const Pair* pair_ = nullptr;            ///< to be set
    const Triple* triple_ = nullptr;
    std::vector<Step> steps_;
};

}  // namespace

Assignment parse_assignment(const std::string& key, const std::string& value) {
    const std::string range = range_of(key);
    const auto parsed = Value::parse(value);
    if (!parsed) {
        throw Error(ErrorKind::invalid,
                    fmt::format("invalid value \"{}\" for {}: use a whole number{}{}", as_typed(value), as_typed(key),
                                range.empty() ? "" : " from ", range));
    }
    return {key, *parsed};
}

std::vector<Assignment> parse_assignments(std::string_view text) {
    constexpr std::string_view blanks = " \t\r";
    std::vector<Assignment> all;
    for (size_t number = 1; !text.empty(); ++number) {
        std::string_view line = text.substr(0, text.find('\n'));
        text.remove_prefix(std::min(line.size() + 1, text.size()));
        line.remove_prefix(std::min(line.find_first_not_of(blanks), line.size()));
        line = line.substr(0, line.find_last_not_of(blanks) + 1);
        if (line.empty() || line.starts_with('#')) continue;
        const size_t key_end = line.find_first_of(blanks);
        if (key_end == std::string_view::npos) {
            throw Error(ErrorKind::invalid, fmt::format("invalid line {}: use a key, a blank and a value, not \"{}\"",
                                                        number, as_typed(line)));
        }
        const std::string_view value = line.substr(line.find_first_not_of(blanks, key_end));
        try {
            all.push_back(parse_assignment(std::string(line.substr(0, key_end)), std::string(value)));
        } catch (const Error& error) {
            throw Error(error.kind, fmt::format("line {}: {}", number, error.what()));
        }
    }
    return all;
}

std::vector<Step> plan(const Picture& picture, const std::vector<Assignment>& assignments, bool force) {
    Planner planner(picture, force);
    for (const Assignment& assignment : assignments) planner.add(assignment);
    return planner.take();
}

}  // namespace picture
