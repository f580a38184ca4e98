#include "picture/keys.h"

#include <fmt/format.h>

#include <algorithm>
#include <charconv>
#include <limits>
#include <unordered_set>

#include "picture/escape.h"

namespace picture {
namespace {

/// Collects words. A record whose key was there before is shadowed by that one.
class Collector {
  public:
    void add(std::string key, Value value, uint64_t offset = 0) {
        collected_.push_back({std::move(key), value, offset});
    }
    bool is_first(const std::string& record) { return records_.insert(record).second; }
    std::vector<Word> take() { return std::move(collected_); }

  private:
    std::vector<Word> collected_;
    std::unordered_set<std::string> records_;
};

void add_cluster(Collector& to, const Picture& picture) {
    const shmnm_header& header = picture.header;
    to.add("cluster/waitstat", header.waitstat, offsetof(shmnm_header, waitstat));
    to.add("cluster/bwflag", header.bwflag, offsetof(shmnm_header, bwflag));
    to.add("cluster/bwflagdisk", header.bwflagdisk, offsetof(shmnm_header, bwflagdisk));
    to.add("cluster/clstat", header.clstat, offsetof(shmnm_header, clstat));
    to.add("cluster/hbinfo_a", static_cast<uint32_t>(header.hbinfo_a), offsetof(shmnm_header, hbinfo_a));
    to.add("cluster/hbinfo_b", static_cast<uint32_t>(header.hbinfo_b), offsetof(shmnm_header, hbinfo_b));
    to.add("cluster/max_servers", static_cast<uint32_t>(header.max_servers), offsetof(shmnm_header, max_servers));
    to.add("cluster/max_hb", static_cast<uint32_t>(header.max_hb), offsetof(shmnm_header, max_hb));
    to.add("cluster/max_np", static_cast<uint32_t>(header.max_np), offsetof(shmnm_header, max_np));
    to.add("cluster/dfailstatus", header.dfailstatus, offsetof(shmnm_header, dfailstatus));
    to.add("cluster/alive", uint32_t{picture.is_any_alive()});
}

void add_servers(Collector& to, const Picture& picture) {
    for (const Server& server : picture.servers) {
        const std::string record = "servers/" + escaped(server.name);
        if (!to.is_first(record)) continue;
        const auto add = [&](const char* name, Value value, uint64_t field) {
            to.add(record + "/" + name, value, server.offset + field);
        };
        add("pri", server.pri, offsetof(shmnm_server, pri));
        add("nodestat", server.nodestat, offsetof(shmnm_server, nodestat));
        add("nodestat_nw", server.nodestat_nw, offsetof(shmnm_server, nodestat_nw));
        add("downnotifystat", server.downnotifystat, offsetof(shmnm_server, downnotifystat));
        add("isolateflag", server.isolateflag, offsetof(shmnm_server, isolateflag));
        add("pingstat", server.pingstat, offsetof(shmnm_server, pingstat));
        add("holdstat", server.holdstat, offsetof(shmnm_server, holdstat));
        add("dfailstatus", server.dfailstatus, offsetof(shmnm_server, dfailstatus));
        to.add(record + "/combstat", server.combstat);
    }
}

void add_row(Collector& to, const std::vector<std::string>& servers, const std::string& row,
             const std::vector<uint32_t>& states, uint64_t offset) {
    for (size_t i = 0; i < states.size(); ++i) {
        // Of several servers of one name the first alone has a key.
        if (servers[i].empty()) continue;
        to.add(row + servers[i], states[i], offset + sizeof(uint32_t) * i);
    }
}

void add_resources(Collector& to, const std::vector<std::string>& servers, const char* table,
                   const std::vector<Resource>& resources) {
    for (const Resource& resource : resources) {
        const std::string record = fmt::format("{}/{}/{}", table, escaped(resource.type), escaped(resource.name));
        if (!to.is_first(record)) continue;
        to.add(record + "/pri", resource.pri, resource.offset + offsetof(shmnm_resource, pri));
        to.add(record + "/stat", resource.stat, resource.offset + offsetof(shmnm_resource, stat));
        add_row(to, servers, record + "/svstat", resource.svstat, resource.offset + sizeof(shmnm_resource));
        add_row(to, servers, record + "/network", resource.network, resource.network_offset);
    }
}

void add_fst(Collector& to, const Picture& picture) {
    if (picture.fst) to.add("fst/stat", picture.fst->stat, picture.fst->offset + offsetof(shmnm_resource, stat));
    for (const FstPid& record : picture.fst_pids) {
        const std::string name = escaped(record.name);
        if (!to.is_first("fst/pids/" + name)) continue;
        for (size_t kind = 0; kind < record.pid.size(); ++kind) {
            to.add(fmt::format("fst/pids/{}/{}", name, kind), record.pid[kind],
                   record.offset + offsetof(shmnm_fst_pid, pid) + sizeof(uint32_t) * kind);
            to.add(fmt::format("fst/piddata/{}/{}", name, kind), record.piddata[kind],
                   record.offset + offsetof(shmnm_fst_pid, piddata) + sizeof(uint64_t) * kind);
        }
    }
}

}  // namespace

std::optional<Value> Value::parse(std::string_view text) {
    while (text.starts_with(' ')) text.remove_prefix(1);
    if (text == "none") return Value();
    const bool negative = text.starts_with('-');
    if (negative || text.starts_with('+')) text.remove_prefix(1);
    const bool hexadecimal = text.starts_with("0x") || text.starts_with("0X");
    if (hexadecimal) text.remove_prefix(2);
    uint64_t magnitude = 0;
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), magnitude, hexadecimal ? 16 : 10);
    if (text.empty() || error != std::errc{} || end != text.data() + text.size()) return std::nullopt;
    Value value(magnitude);
    value.negative_ = negative && magnitude != 0;
    return value;
}

std::string Value::to_text() const {
    return none_ ? "none" : fmt::format("{}{}", negative_ ? "-" : "", magnitude_);
}

std::optional<uint64_t> Value::to_uint64() const {
    if (none_ || negative_) return std::nullopt;
    return magnitude_;
}

std::optional<uint32_t> Value::to_uint32() const {
    if (none_ || negative_ || magnitude_ > std::numeric_limits<uint32_t>::max()) return std::nullopt;
    return static_cast<uint32_t>(magnitude_);
}

std::optional<int32_t> Value::to_int32() const {
    const uint64_t most = uint64_t{std::numeric_limits<int32_t>::max()} + (negative_ ? 1 : 0);
    if (none_ || magnitude_ > most) return std::nullopt;
    const auto number = static_cast<int64_t>(magnitude_);
    return static_cast<int32_t>(negative_ ? -number : number);
}

std::partial_ordering Value::operator<=>(const Value& other) const {
    if (none_ || other.none_) {
        return none_ && other.none_ ? std::partial_ordering::equivalent : std::partial_ordering::unordered;
    }
    if (negative_ != other.negative_) {
        return negative_ ? std::partial_ordering::less : std::partial_ordering::greater;
    }
    return negative_ ? other.magnitude_ <=> magnitude_ : magnitude_ <=> other.magnitude_;
}

std::vector<Word> words(const Picture& picture) {
    Collector to;
    add_cluster(to, picture);
    add_servers(to, picture);
    std::vector<std::string> servers;
    std::unordered_set<std::string> seen;
    for (const Server& server : picture.servers) {
        std::string part = "/" + escaped(server.name);
        servers.push_back(seen.insert(part).second ? std::move(part) : std::string());
    }
    add_resources(to, servers, "hb", picture.hb);
    add_resources(to, servers, "np", picture.np);
    add_fst(to, picture);
    return to.take();
}

const Word* find(const std::vector<Word>& words, std::string_view key) {
    const auto found = std::find_if(words.begin(), words.end(), [&](const Word& word) { return word.key == key; });
    return found == words.end() ? nullptr : &*found;
}

std::vector<std::string> parts(std::string_view key) {
    std::vector<std::string> all;
    for (;;) {
        const size_t slash = key.find('/');
        all.emplace_back(key.substr(0, slash));
        if (slash == std::string_view::npos) return all;
        key.remove_prefix(slash + 1);
    }
}

bool is_below(std::string_view key, std::string_view prefix) {
    while (prefix.ends_with('/')) prefix.remove_suffix(1);
    return prefix.empty() || (key.starts_with(prefix) && (key.size() == prefix.size() || key[prefix.size()] == '/'));
}

}  // namespace picture
