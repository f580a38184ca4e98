#include "picture/keys.h"

#include <fmt/format.h>

#include <algorithm>
#include <unordered_set>

#include "picture/escape.h"

namespace picture {
namespace {

/// Collects words. Of several records with one key, only the first is collected.
class Collector {
  public:
    void add(std::string key, Value value, uint64_t offset) { collected_.push_back({std::move(key), value, offset}); }
    bool is_first(const std::string& record) { return records_.insert(record).second; }
    std::vector<Word> take() { return std::move(collected_); }

  private:
    std::vector<Word> collected_;
    std::unordered_set<std::string> records_;
};

Value value_of(const Picture& picture, const ClusterPlace& place) {
    return place.word->source.value(picture);
}
Value value_of(const Picture&, const ServerPlace& place) {
    return place.word->source.value(*place.server);
}
Value value_of(const Picture&, const ResourcePlace& place) {
    return place.word->source.value(*place.resource);
}
Value value_of(const Picture&, const RowPlace& place) {
    return (place.resource->*place.word->row).states[place.column];
}
Value value_of(const Picture& picture, const FstPlace& place) {
    return place.word->source.value(*picture.fst);
}
Value value_of(const Picture&, const PidPlace& place) {
    return place.word->value(*place.record, place.kind);
}

Value value_of(const Picture& picture, const BridgePlace& place) {
    return place.word->value(*picture.bridge);
}
Value value_of(const Picture&, const MarkPlace& place) {
    return place.word->value(*place.mark);
}

uint64_t offset_of(const Picture&, const ClusterPlace& place) {
    return place.word->source.offset();
}
uint64_t offset_of(const Picture&, const ServerPlace& place) {
    const uint64_t offset = place.word->source.offset();
    return offset == 0 ? 0 : place.server->offset + offset;
}
uint64_t offset_of(const Picture&, const ResourcePlace& place) {
    return place.resource->offset + place.word->source.offset();
}
uint64_t offset_of(const Picture&, const RowPlace& place) {
    return (place.resource->*place.word->row).offset + sizeof(uint32_t) * place.column;
}
uint64_t offset_of(const Picture& picture, const FstPlace& place) {
    return picture.fst->offset + place.word->source.offset();
}
uint64_t offset_of(const Picture&, const PidPlace& place) {
    return place.record->offset + place.word->offset + place.word->size() * place.kind;
}

uint64_t offset_of(const Picture&, const BridgePlace&) {
    return 0;
}
uint64_t offset_of(const Picture&, const MarkPlace&) {
    return 0;
}

template <typename AnyPlace>
void add(Collector& to, std::string key, const Picture& picture, const AnyPlace& place) {
    to.add(std::move(key), value_of(picture, place), offset_of(picture, place));
}

void add_servers(Collector& to, const Picture& picture) {
    for (const Server& server : picture.servers) {
        const std::string record = "servers/" + escaped(server.name);
        if (!to.is_first(record)) continue;
        for (const ServerWord& word : server_words) {
            if (word.has_key) add(to, record + "/" + word.key, picture, ServerPlace{&word, &server});
        }
    }
}

/// @param[in] servers  the last parts of the keys, by server position; empty if an earlier server has the same key
void add_resources(Collector& to, const Picture& picture, const ResourceKind& kind,
                   const std::vector<std::string>& servers) {
    for (const Resource& resource : picture.*kind.resources) {
        const std::string record = fmt::format("{}/{}/{}", kind.key, escaped(resource.type), escaped(resource.name));
        if (!to.is_first(record)) continue;
        for (const ResourceWord& word : resource_words) {
            add(to, record + "/" + word.key, picture, ResourcePlace{&word, &kind, &resource});
        }
        for (const RowWord& word : row_words) {
            const std::string row = record + "/" + word.key;
            for (size_t i = 0; i < (resource.*word.row).states.size(); ++i) {
                if (servers[i].empty()) continue;
                add(to, row + servers[i], picture, RowPlace{&word, &kind, &resource, &picture.servers[i], i});
            }
        }
    }
}

void add_fst(Collector& to, const Picture& picture) {
    for (const FstWord& word : fst_words) {
        if (picture.fst) add(to, std::string("fst/") + word.key, picture, FstPlace{&word});
    }
    for (const FstPid& record : picture.fst_pids) {
        const std::string name = escaped(record.name);
        if (!to.is_first("fst/" + name)) continue;
        for (size_t kind = 0; kind < record.pid.size(); ++kind) {
            for (const PidWord& word : pid_words) {
                add(to, fmt::format("fst/{}/{}/{}", word.key, name, kind), picture, PidPlace{&word, &record, kind});
            }
        }
    }
}

/// A name as it stands in a key. Only the escaped form is valid: no other spelling of the same name is in a key.
class Name {
  public:
    explicit Name(std::string_view part) : name_(unescaped(part)) {
        if (name_ && escaped(*name_) != part) name_.reset();
    }
    bool operator==(const std::string& name) const { return name_ && *name_ == name; }

  private:
    std::optional<std::string> name_;
};

template <typename Record, typename IsNamed>
const Record* first(const std::vector<Record>& records, const IsNamed& is_named) {
    const auto found = std::find_if(records.begin(), records.end(), is_named);
    return found == records.end() ? nullptr : &*found;
}

const Server* server_named(const Picture& picture, std::string_view part) {
    const Name name(part);
    return first(picture.servers, [&](const Server& server) { return name == server.name; });
}

std::optional<Place> locate_in_cluster(const std::vector<std::string_view>& part) {
    const ClusterWord* const word = part.size() == 2 ? entry(cluster_words, part[1]) : nullptr;
    if (!word) return std::nullopt;
    return ClusterPlace{word};
}

std::optional<Place> locate_server(const Picture& picture, const std::vector<std::string_view>& part) {
    const ServerWord* const word = part.size() == 3 ? entry(server_words, part[2]) : nullptr;
    const Server* const server = word && word->has_key ? server_named(picture, part[1]) : nullptr;
    if (!server) return std::nullopt;
    return ServerPlace{word, server};
}

std::optional<Place> locate_resource(const Picture& picture, const ResourceKind& kind,
                                     const std::vector<std::string_view>& part) {
    if (part.size() != 4 && part.size() != 5) return std::nullopt;
    const Name type(part[1]), name(part[2]);
    const Resource* const resource =
        first(picture.*kind.resources, [&](const Resource& each) { return type == each.type && name == each.name; });
    if (!resource) return std::nullopt;
    if (part.size() == 4) {
        const ResourceWord* const word = entry(resource_words, part[3]);
        if (!word) return std::nullopt;
        return ResourcePlace{word, &kind, resource};
    }
    const RowWord* const word = entry(row_words, part[3]);
    const Server* const server = word ? server_named(picture, part[4]) : nullptr;
    if (!server) return std::nullopt;
    const auto column = static_cast<size_t>(server - picture.servers.data());
    if (column >= (resource->*word->row).states.size()) return std::nullopt;
    return RowPlace{word, &kind, resource, server, column};
}

std::optional<Place> locate_fst(const Picture& picture, const std::vector<std::string_view>& part) {
    if (part.size() == 2) {
        const FstWord* const word = picture.fst ? entry(fst_words, part[1]) : nullptr;
        if (!word) return std::nullopt;
        return FstPlace{word};
    }
    const PidWord* const word = part.size() == 4 ? entry(pid_words, part[1]) : nullptr;
    if (!word || part[3].size() != 1 || part[3][0] < '0' || part[3][0] > '2') return std::nullopt;
    const Name name(part[2]);
    const FstPid* const record = first(picture.fst_pids, [&](const FstPid& each) { return name == each.name; });
    if (!record) return std::nullopt;
    return PidPlace{word, record, static_cast<size_t>(part[3][0] - '0')};
}

std::optional<Place> locate_in_bridge(const Picture& picture, const std::vector<std::string_view>& part) {
    if (!picture.bridge) return std::nullopt;
    if (part.size() == 2) {
        const BridgeWord* const word = entry(bridge_words, part[1]);
        if (!word || (word != bridge_words && !picture.bridge->is_there())) return std::nullopt;
        return BridgePlace{word};
    }
    const MarkWord* const word = part.size() == 4 && part[1] == "servers" ? entry(mark_words, part[3]) : nullptr;
    const bridge::Mark* const mark = word ? find_mark(*picture.bridge, part[2]) : nullptr;
    if (!mark) return std::nullopt;
    return MarkPlace{word, mark};
}

}  // namespace

std::vector<Word> words(const Bridge& bridge) {
    std::vector<Word> all;
    for (const BridgeWord& word : bridge_words) {
        all.push_back({std::string("bridge/") + word.key, word.value(bridge)});
        if (!bridge.is_there()) return all;
    }
    for (const bridge::Mark& mark : bridge.marks.servers) {
        for (const MarkWord& word : mark_words) {
            all.push_back({fmt::format("bridge/servers/{}/{}", mark.server, word.key), word.value(mark)});
        }
    }
    return all;
}

bool moves(std::string_view key) {
    if (!key.starts_with("bridge/servers/")) return false;
    const MarkWord* const word = entry(mark_words, key.substr(key.rfind('/') + 1));
    return word && word->moves;
}

std::vector<Word> words(const Picture& picture) {
    Collector to;
    for (const ClusterWord& word : cluster_words) {
        add(to, std::string("cluster/") + word.key, picture, ClusterPlace{&word});
    }
    add_servers(to, picture);
    std::vector<std::string> servers;
    std::unordered_set<std::string> seen;
    for (const Server& server : picture.servers) {
        std::string part = "/" + escaped(server.name);
        servers.push_back(seen.insert(part).second ? std::move(part) : std::string());
    }
    for (const ResourceKind& kind : resource_kinds) add_resources(to, picture, kind, servers);
    add_fst(to, picture);
    std::vector<Word> all = to.take();
    if (picture.bridge) {
        for (Word& word : words(*picture.bridge)) all.push_back(std::move(word));
    }
    return all;
}

std::optional<Place> locate(const Picture& picture, std::string_view key) {
    const std::vector<std::string_view> part = parts_of(key);
    if (part[0] == "cluster") return locate_in_cluster(part);
    if (part[0] == "servers") return locate_server(picture, part);
    if (part[0] == "fst") return locate_fst(picture, part);
    if (part[0] == "bridge") return locate_in_bridge(picture, part);
    const ResourceKind* const kind = entry(resource_kinds, part[0]);
    return kind ? locate_resource(picture, *kind, part) : std::nullopt;
}

std::optional<Word> find(const Picture& picture, std::string_view key) {
    const std::optional<Place> place = locate(picture, key);
    if (!place) return std::nullopt;
    return std::visit(
        [&](const auto& at) {
            return Word{std::string(key), value_of(picture, at), offset_of(picture, at)};
        },
        *place);
}

std::vector<std::string_view> parts_of(std::string_view key) {
    std::vector<std::string_view> all;
    for (;;) {
        const size_t slash = key.find('/');
        all.push_back(key.substr(0, slash));
        if (slash == std::string_view::npos) return all;
        key.remove_prefix(slash + 1);
    }
}

bool is_below(std::string_view key, std::string_view prefix) {
    while (prefix.ends_with('/')) prefix.remove_suffix(1);
    return prefix.empty() || (key.starts_with(prefix) && (key.size() == prefix.size() || key[prefix.size()] == '/'));
}

namespace {

template <typename AnyWord>
std::string numbers_of(const AnyWord& word) {
    return std::visit([](auto set) { return range(set); }, word.set);
}
std::string numbers_of(const ResourceWord&) {
    return range_of_words;
}
std::string numbers_of(const RowWord&) {
    return range_of_words;
}
std::string numbers_of(const FstWord& word) {
    return range(word.set);
}
std::string numbers_of(const PidWord& word) {
    return word.size() == sizeof(uint32_t) ? range_of_words : range_of_long_words;
}

std::string numbers_of(const BridgeWord&) {
    return "";
}
std::string numbers_of(const MarkWord&) {
    return "";
}

template <typename AnyWord>
Values values_taken_by(const AnyWord& word) {
    return word.source.values();
}
Values values_taken_by(const RowWord&) {
    return any_word;
}
Values values_taken_by(const BridgeWord& word) {
    return word.values;
}
Values values_taken_by(const MarkWord& word) {
    return word.values;
}
Values values_taken_by(const PidWord& word) {
    return word.size() == sizeof(uint32_t) ? any_word : any_long_word;
}

}  // namespace

std::vector<KeyHelp> key_help() {
    std::vector<KeyHelp> all;
    const auto describe = [&](const std::string& pattern, const auto& word) {
        std::string help = word.help;
        if constexpr (requires { word.set.index(); }) {
            if (std::holds_alternative<Computed>(word.set)) help += "; computed";
        }
        all.push_back({pattern, help, numbers_of(word), values_taken_by(word)});
    };
    for (const ClusterWord& word : cluster_words) describe(std::string("cluster/") + word.key, word);
    for (const ServerWord& word : server_words) {
        if (word.has_key) describe(std::string("servers/NAME/") + word.key, word);
    }
    for (const ResourceKind& kind : resource_kinds) {
        const std::string record = std::string(kind.key) + "/TYPE/NAME/";
        for (const ResourceWord& word : resource_words) describe(record + word.key, word);
        for (const RowWord& word : row_words) {
            if (kind.*word.set) describe(record + word.key + "/SERVER", word);
        }
    }
    for (const FstWord& word : fst_words) describe(std::string("fst/") + word.key, word);
    for (const PidWord& word : pid_words) describe(fmt::format("fst/{}/NAME/KIND", word.key), word);
    for (const BridgeWord& word : bridge_words) describe(std::string("bridge/") + word.key, word);
    for (const MarkWord& word : mark_words) describe(std::string("bridge/servers/NAME/") + word.key, word);
    return all;
}

}  // namespace picture
