#include "core_keys.h"

#include <algorithm>
#include <nlohmann/json.hpp>

#include "picture/layout.h"

namespace bridge {
namespace {

using nlohmann::json;

/// Reads members by name; remembers whether one was missing or of another type.
class Members {
  public:
    explicit Members(const std::string& text)
        : object_(json::parse(text, nullptr, false)), good_(object_.is_object()) {}

    std::string text(const char* name) {
        const json* const member = find(name);
        return good_ && (good_ = member->is_string()) ? member->get<std::string>() : std::string();
    }
    uint64_t number(const char* name) {
        const json* const member = find(name);
        return good_ && (good_ = member->is_number_unsigned()) ? member->get<uint64_t>() : 0;
    }
    int64_t revision(const char* name) {
        const uint64_t value = number(name);
        good_ = good_ && value <= INT64_MAX;
        return good_ ? static_cast<int64_t>(value) : 0;
    }
    template <size_t size>
    std::array<uint32_t, size> words(const char* name) {
        const json* const member = find(name);
        return good_ ? words<size>(*member) : std::array<uint32_t, size>{};
    }
    template <size_t size>
    std::array<uint32_t, size> words(const json& array) {
        std::array<uint32_t, size> words{};
        good_ = good_ && array.is_array() && array.size() == size;
        for (size_t at = 0; good_ && at < size; ++at) {
            good_ = array[at].is_number_unsigned() && array[at].get<uint64_t>() <= UINT32_MAX;
            if (good_) words[at] = array[at].get<uint32_t>();
        }
        return words;
    }
    bool has(const char* name) const { return good_ && object_.contains(name); }
    const json* find(const char* name) {
        const auto found = good_ ? object_.find(name) : object_.end();
        good_ = good_ && found != object_.end();
        return good_ ? &*found : nullptr;
    }
    template <typename Value>
    std::optional<Value> checked(Value value) const {
        return good_ ? std::optional(std::move(value)) : std::nullopt;
    }
    bool good() const { return good_; }

  private:
    json object_;
    bool good_;
};

}  // namespace

std::string to_json(const ClaimValue& value) {
    json object{{"host", value.host}, {"run", value.run}, {"address", value.address}};
    if (value.times) object.update({{"window_ms", value.times->window}, {"gather_ms", value.times->gather}});
    return object.dump();
}

std::string to_json(const StateValue& value) {
    json cells = json::object();
    for (const auto& [key, cell] : value.state.cells) cells[key] = {cell.svstat, cell.network};
    return json{{"run", value.run},
                {"seq", value.sequence},
                {"digest", value.digest},
                {"words", value.state.words},
                {"cells", cells}}
        .dump();
}

std::string to_json(const BeatValue& value) {
    return json{{"run", value.run}, {"n", value.number}, {"seq", value.sequence}, {"seen", value.seen}}.dump();
}

std::string to_json(const ProposalValue& value) {
    return json{{"value", value.value}, {"process", value.process}, {"n", value.number}}.dump();
}

std::optional<ClaimValue> claim_from(const std::string& text) {
    Members members(text);
    ClaimValue value{members.text("host"), members.text("run"), members.text("address")};
    if (members.has("window_ms") && members.has("gather_ms")) {
        value.times = {static_cast<Time>(members.number("window_ms")), static_cast<Time>(members.number("gather_ms"))};
    }
    return members.checked(std::move(value));
}

std::optional<StateValue> state_from(const std::string& text) {
    Members members(text);
    StateValue value{members.text("run"), members.number("seq"), {}, members.text("digest")};
    value.state.words = members.words<server_words.size()>("words");
    if (const json* const cells = members.find("cells")) {
        for (const auto& [key, cell] : cells->items()) {
            const auto states = members.words<2>(cell);
            value.state.cells.emplace(key, Cell{states[0], states[1]});
        }
    }
    return members.checked(std::move(value));
}

std::optional<BeatValue> beat_from(const std::string& text) {
    Members members(text);
    return members.checked(
        BeatValue{members.text("run"), members.number("n"), members.number("seq"), members.revision("seen")});
}

std::optional<ProposalValue> proposal_from(const std::string& text) {
    Members members(text);
    return members.checked(ProposalValue{members.words<2>("value"), members.text("process"), members.number("n")});
}

size_t size_of_state(const Look& look, size_t position) {
    constexpr size_t of_run = 40, of_number = 10;
    StateValue value{std::string(of_run, 'x'), UINT64_MAX, state_of(look, position), digest_of(look)};
    const size_t numbers = value.state.words.size() + 2 * value.state.cells.size();
    return to_json(value).size() + of_number * numbers;
}

std::string digest_of(const Look& look) {
    std::vector<std::string> names = {picture::to_text(look.counts)};
    for (const LookedServer& server : look.servers) names.push_back(server.name);
    for (const LookedResource& resource : look.resources) names.push_back(resource.key);
    std::sort(names.begin() + 1, names.end());
    // FNV-1a.
    uint64_t hash = 0xcbf29ce484222325;
    const auto add = [&hash](char byte) { hash = (hash ^ static_cast<unsigned char>(byte)) * 0x100000001b3; };
    for (const std::string& name : names) {
        for (const char byte : name) add(byte);
        add('\0');
    }
    return std::to_string(hash);
}

Keys::Parts Keys::parts_of(std::string_view key) const {
    key.remove_prefix(std::min(key.size(), prefix_.size()));
    const size_t slash = key.find('/');
    if (slash == std::string_view::npos) return {};
    return {key.substr(0, slash), key.substr(slash + 1)};
}

std::string Keys::key(std::string_view kind, std::string_view name) const {
    std::string text = prefix_;
    text.append(kind).append("/").append(name);
    return text;
}

}  // namespace bridge
