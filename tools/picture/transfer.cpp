#include "picture/transfer.h"

#include <fmt/format.h>

#include <algorithm>
#include <charconv>
#include <cstring>
#include <limits>
#include <utility>

#include "picture/error.h"
#include "picture/json.h"
#include "shmnm.h"

namespace picture {
namespace {

/// Zeros are left out in pieces of this size.
constexpr size_t piece = 256;

struct SentRange {
    uint64_t offset, size;
};

std::vector<SentRange> ranges_in_use(const std::vector<uint8_t>& bytes) {
    constexpr uint8_t zeros[piece]{};
    std::vector<SentRange> ranges;
    for (size_t at = 0; at < bytes.size(); at += piece) {
        const size_t size = std::min(piece, bytes.size() - at);
        if (std::memcmp(bytes.data() + at, zeros, size) == 0) continue;
        if (!ranges.empty() && ranges.back().offset + ranges.back().size == at) {
            ranges.back().size += size;
        } else {
            ranges.push_back({at, size});
        }
    }
    return ranges;
}

Json to_json(const Counts& counts) {
    return {{"servers", counts.servers}, {"hb", counts.hb}, {"np", counts.np}, {"fst", counts.fst}};
}

/// Numbers of 64 bits are text, since many readers of JSON would round them.
Json to_json(const platform::LockHolder& lock) {
    return {{"process", lock.process},
            {"thread", lock.thread},
            {"since_ns", std::to_string(lock.since_ns)},
            {"takeovers", std::to_string(lock.takeovers)},
            {"last_takeover_ns", std::to_string(lock.last_takeover_ns)},
            {"takes", std::to_string(lock.takes)},
            {"looks", std::to_string(lock.looks)}};
}

std::string to_hex(const shmnm::Note& note) {
    std::string text;
    for (const char byte : std::string_view(reinterpret_cast<const char*>(&note), sizeof note)) {
        text += fmt::format("{:02x}", static_cast<unsigned char>(byte));
    }
    return text;
}

[[noreturn]] void refuse(const char* why) {
    throw Error(ErrorKind::failed, fmt::format("the answer is not a copy of a region: {}; see whether shmnmweb answers "
                                               "at this address, in the same version",
                                               why));
}

/// Takes members out of an object that came from elsewhere.
class Members {
  public:
    explicit Members(const Json& object) : object_(object) {
        if (!object.is_object()) refuse("a member is not an object");
    }

    const Json& get(const char* name) const {
        const auto found = object_.find(name);
        if (found == object_.end()) refuse("a member is missing");
        return *found;
    }
    /// A number, or the text of one.
    template <typename Number>
    Number number(const char* name) const {
        const Json& value = get(name);
        if (value.is_number_integer()) {
            const bool fits = value.is_number_unsigned() ? std::in_range<Number>(value.get<uint64_t>())
                                                         : std::in_range<Number>(value.get<int64_t>());
            if (!fits) refuse("a number is out of range");
            return value.get<Number>();
        }
        if (!value.is_string()) refuse("a number is missing");
        const std::string text = value.get<std::string>();
        Number number{};
        const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), number);
        if (error != std::errc{} || end != text.data() + text.size()) refuse("a text is not a number");
        return number;
    }
    bool flag(const char* name) const {
        if (!get(name).is_boolean()) refuse("a flag is missing");
        return get(name).get<bool>();
    }

  private:
    const Json& object_;
};

Counts counts_of(const Json& object) {
    const Members members(object);
    return {members.number<int32_t>("servers"), members.number<int32_t>("hb"), members.number<int32_t>("np"),
            members.number<int32_t>("fst")};
}

platform::LockHolder lock_of(const Json& object) {
    const Members members(object);
    return {.process = members.number<uint32_t>("process"),
            .thread = members.number<uint32_t>("thread"),
            .since_ns = members.number<uint64_t>("since_ns"),
            .takeovers = members.number<uint64_t>("takeovers"),
            .last_takeover_ns = members.number<uint64_t>("last_takeover_ns"),
            .takes = members.number<uint64_t>("takes"),
            .looks = members.number<uint64_t>("looks")};
}

shmnm::Note note_of(const Json& hex) {
    shmnm::Note note;
    if (!hex.is_string()) refuse("the note is not a text");
    const std::string text = hex.get<std::string>();
    if (text.size() != 2 * sizeof note) refuse("the note has another size");
    auto* const bytes = reinterpret_cast<unsigned char*>(&note);
    for (size_t at = 0; at < sizeof note; ++at) {
        const char* const digits = text.data() + 2 * at;
        const auto [end, error] = std::from_chars(digits, digits + 2, bytes[at], 16);
        if (error != std::errc{} || end != digits + 2) refuse("the note is not hexadecimal");
    }
    return note;
}

std::string text_of(const Json& value) {
    if (!value.is_string()) refuse("a text is missing");
    return value.get<std::string>();
}

std::vector<std::string> texts_of(const Json& values) {
    if (!values.is_array()) refuse("a list is missing");
    std::vector<std::string> all;
    for (const Json& value : values) all.push_back(text_of(value));
    return all;
}

bridge::Mark mark_of(const Json& object) {
    const Members members(object);
    bridge::Mark mark;
    mark.server = text_of(members.get("name"));
    const std::string freshness = text_of(members.get("freshness"));
    for (const auto each : {bridge::Freshness::fresh, bridge::Freshness::silent}) {
        if (freshness == name_of(each)) mark.freshness = each;
    }
    if (!members.get("age_ms").is_null()) mark.age = members.number<int64_t>("age_ms");
    mark.sequence = members.number<uint64_t>("revision");
    mark.address = text_of(members.get("address"));
    mark.is_claimed = members.flag("claimed");
    mark.is_unmatched = members.flag("unmatched");
    mark.is_duplicate = members.flag("duplicate_priority");
    mark.has_other_names = members.flag("other_names");
    mark.has_other_times = members.flag("other_times");
    return mark;
}

Bridge bridge_of(const Json& object) {
    const Members members(object);
    Bridge bridge;
    bridge.is_up = members.flag("up");
    if (!members.get("stopped_ms").is_null()) {
        bridge.stopped_us = std::min<uint64_t>(members.number<uint64_t>("stopped_ms"), INT64_MAX / 1'000) * 1'000;
    }
    bridge::Marks& marks = bridge.marks;
    marks.is_connected = members.flag("connected");
    marks.is_running = members.flag("running");
    marks.is_refused = members.flag("refused");
    marks.is_fed = members.flag("fed");
    marks.cluster = text_of(members.get("cluster"));
    marks.server = text_of(members.get("server"));
    marks.member = text_of(members.get("member"));
    const Members proposals(members.get("proposals"));
    marks.agreed = {proposals.number<uint64_t>("proposed"), proposals.number<uint64_t>("accepted"),
                    proposals.number<uint64_t>("lost"), proposals.number<uint64_t>("replaced")};
    marks.contested = texts_of(members.get("contested"));
    marks.unmatched = texts_of(members.get("unmatched"));
    bridge.left_out = members.number<uint64_t>("left_out");
    bridge.lost_servers = members.number<uint64_t>("lost_servers");
    const Json& servers = members.get("servers");
    if (!servers.is_array()) refuse("the marks are missing");
    for (const Json& server : servers) marks.servers.push_back(mark_of(server));
    make_safe(marks);
    return bridge;
}

}  // namespace

Transfer to_transfer(const Snapshot& snapshot, const Bridge* bridge, bool is_lock_held, bool with_zeros) {
    const std::vector<SentRange> ranges =
        with_zeros ? std::vector<SentRange>{{0, snapshot.bytes.size()}} : ranges_in_use(snapshot.bytes);
    Json head = document("snapshot");
    head["live"] = snapshot.live;
    head["size"] = snapshot.bytes.size();
    head["mapped"] = snapshot.mapped;
    head["object"] = std::to_string(snapshot.object);
    head["counts"] = to_json(snapshot.counts);
    head["configured"] = snapshot.configured ? to_json(*snapshot.configured) : Json();
    head["steps"] = snapshot.steps ? Json(std::to_string(*snapshot.steps)) : Json();
    head["wait_us"] = std::to_string(snapshot.lock_wait_us);
    head["held_us"] = std::to_string(snapshot.lock_held_us);
    head["all"] = snapshot.wanted == Bytes::all;
    head["lock"] = snapshot.lock ? to_json(*snapshot.lock) : Json();
    head["lock_held"] = is_lock_held;
    head["note"] = snapshot.note ? Json(to_hex(*snapshot.note)) : Json();
    head["marks"] = bridge ? Json::parse(to_json_text(*bridge)) : Json();
    head["ranges"] = Json::array();
    Transfer transfer;
    for (const SentRange& range : ranges) {
        head["ranges"].push_back({range.offset, range.size});
        transfer.bytes.emplace_back(reinterpret_cast<const char*>(snapshot.bytes.data()) + range.offset, range.size);
    }
    transfer.head = line(head);
    return transfer;
}

Arrival from_transfer(std::string_view text) {
    const size_t end = text.find('\n');
    if (end == std::string_view::npos) refuse("it has no line");
    const Json head = Json::parse(text.substr(0, end), nullptr, false);
    text.remove_prefix(end + 1);
    const Members members(head);
    if (members.get("kind") != "snapshot") refuse("it is another document");
    if (members.get("version") != 1) refuse("it is of another version");
    Arrival arrival;
    Snapshot& snapshot = arrival.snapshot;
    snapshot.live = members.flag("live");
    snapshot.mapped = members.number<uint64_t>("mapped");
    snapshot.object = members.number<uint64_t>("object");
    snapshot.counts = counts_of(members.get("counts"));
    if (const Json& configured = members.get("configured"); !configured.is_null()) {
        snapshot.configured = counts_of(configured);
    }
    if (!members.get("steps").is_null()) snapshot.steps = members.number<uint64_t>("steps");
    snapshot.lock_wait_us = members.number<uint64_t>("wait_us");
    snapshot.lock_held_us = members.number<uint64_t>("held_us");
    snapshot.wanted = members.flag("all") ? Bytes::all : Bytes::in_use;
    if (const Json& lock = members.get("lock"); !lock.is_null()) snapshot.lock = lock_of(lock);
    arrival.is_lock_held = members.flag("lock_held");
    // An older server has none.
    if (head.contains("marks") && !head["marks"].is_null()) snapshot.bridge = bridge_of(head["marks"]);
    if (const Json& note = members.get("note"); !note.is_null()) snapshot.note = note_of(note);
    const auto size = members.number<uint64_t>("size");
    if (size < sizeof(shmnm_header) || size > std::numeric_limits<uint32_t>::max()) refuse("no region has that size");
    snapshot.bytes.resize(size);
    const Json& ranges = members.get("ranges");
    if (!ranges.is_array()) refuse("the ranges are missing");
    for (const Json& range : ranges) {
        if (!range.is_array() || range.size() != 2 || !range[0].is_number_unsigned() ||
            !range[1].is_number_unsigned()) {
            refuse("a range is not two numbers");
        }
        const auto offset = range[0].get<uint64_t>(), length = range[1].get<uint64_t>();
        if (!snapshot.holds(offset, length)) refuse("a range lies outside the region");
        if (length > text.size()) refuse("it was cut");
        if (length > 0) std::memcpy(snapshot.bytes.data() + offset, text.data(), length);
        text.remove_prefix(length);
    }
    if (!text.empty()) refuse("there is more than the region");
    return arrival;
}

}  // namespace picture
