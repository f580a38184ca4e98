#include "picture/picture_document.h"

#include <fmt/format.h>

#include <algorithm>
#include <cstring>
#include <iterator>
#include <set>
#include <string>
#include <type_traits>
#include <utility>

#include "picture/error.h"
#include "picture/escape.h"
#include "picture/members.h"
#include "picture/words.h"

namespace picture {
namespace {

constexpr const char* kind_of_document = "picture";

struct Count {
    const char* key;
    int32_t Counts::*number;
};
constexpr Count counts_of_region[] = {
    {"servers", &Counts::servers}, {"hb", &Counts::hb}, {"np", &Counts::np}, {"fst", &Counts::fst}};

/// The words of a part that do not follow from others.
template <typename Words, typename Part>
void add_words(Json& to, const Words& words, const Part& part) {
    for (const auto& word : words) {
        if (!word.source.is_computed()) to[word.key] = to_json(word.source.value(part));
    }
}

Json to_json(const Picture& picture, const ResourceKind& kind) {
    Json all = Json::array();
    for (const Resource& resource : picture.*kind.resources) {
        Json one = {{"type", escaped(resource.type)}, {"name", escaped(resource.name)}};
        add_words(one, resource_words, resource);
        one["descript"] = escaped(resource.descript);
        for (const RowWord& word : row_words) {
            if (kind.*word.set) one[word.key] = (resource.*word.row).states;
        }
        all.push_back(std::move(one));
    }
    return all;
}

Json to_json(const FstPid& record) {
    Json one = {{"name", escaped(record.name)}};
    for (const PidWord& word : pid_words) {
        Json values = Json::array();
        for (size_t kind = 0; kind < record.pid.size(); ++kind) {
            const std::string value = word.value(record, kind).to_text();
            // As text where many readers of JSON would round it.
            values.push_back(word.size() == sizeof(uint32_t) ? Json::parse(value) : Json(value));
        }
        one[word.member] = std::move(values);
    }
    return one;
}

/// A value of a document and where it stands, for messages.
class Entry {
  public:
    Entry(const Json& json, std::string place) : json_(json), place_(std::move(place)) {}

    [[noreturn]] void refuse(const std::string& why) const {
        throw Error(ErrorKind::not_a_picture, fmt::format("{} {}", place_.empty() ? "the document" : place_, why));
    }
    /// The members of an object, which has these and no others.
    void expect_members(const std::set<std::string>& names) const {
        if (!json_.is_object()) refuse("is not an object");
        for (const auto& [name, value] : json_.items()) {
            if (!names.contains(name)) refuse(fmt::format("has an unknown member \"{}\"", printable(name)));
        }
    }
    Entry at(const std::string& name) const {
        if (!json_.contains(name)) refuse(fmt::format("has no member \"{}\"", name));
        return {json_.at(name), place_.empty() ? name : place_ + "." + name};
    }
    /// Calls for each entry of a list. @param[in] size  its length, if it has to have one
    template <typename Work>
    void for_each(const Work& work, std::optional<size_t> size = {}) const {
        if (!json_.is_array()) refuse("is not a list");
        if (size && json_.size() != *size) refuse(fmt::format("has {} entries, not {}", json_.size(), *size));
        for (size_t i = 0; i < json_.size(); ++i) work(Entry(json_[i], fmt::format("{}[{}]", place_, i)), i);
    }
    bool is_null() const { return json_.is_null(); }
    std::string text() const {
        if (!json_.is_string()) refuse("is not a text");
        return json_.get<std::string>();
    }
    /// A name or a description, of at most so many bytes.
    std::string bytes(size_t limit) const {
        const auto found = unescaped(text());
        if (!found) refuse("has a % without two hexadecimal digits after it");
        if (found->size() > limit) refuse(fmt::format("has {} bytes; {} is the most", found->size(), limit));
        return *found;
    }
    std::string name(size_t limit) const {
        std::string found = bytes(limit);
        if (found.find('\0') != std::string::npos) refuse("has a NUL within a name");
        return found;
    }
    Value value() const {
        const bool is_number = json_.is_number_integer() || json_.is_string();
        const auto found = is_number ? Value::parse(json_.is_string() ? text() : json_.dump()) : std::nullopt;
        if (!found || found->is_none()) refuse("is not a whole number");
        return *found;
    }
    template <typename Number>
    Number number() const {
        const Value found = value();
        std::optional<Number> fitting;
        if constexpr (std::is_same_v<Number, int32_t>) fitting = found.to_int32();
        if constexpr (std::is_same_v<Number, uint32_t>) fitting = found.to_uint32();
        if constexpr (std::is_same_v<Number, uint64_t>) fitting = found.to_uint64();
        if (!fitting) refuse(fmt::format("is out of range: {}", found.to_text()));
        return *fitting;
    }

  private:
    const Json& json_;
    std::string place_;
};

template <typename Words, typename Part>
void read_words(const Entry& from, const Words& words, Part& part) {
    for (const auto& word : words) {
        if (word.source.is_computed()) continue;
        const Entry entry = from.at(word.key);
        if (!word.source.put(part, entry.value())) entry.refuse("is out of range: " + entry.value().to_text());
    }
}

template <typename Words>
std::set<std::string> with_words(std::set<std::string> names, const Words& words) {
    for (const auto& word : words) {
        if (!word.source.is_computed()) names.insert(word.key);
    }
    return names;
}

std::string read_description(const Entry& from) {
    std::string descript = from.bytes(description_size);
    descript.resize(descript.find_last_not_of('\0') + 1);
    return descript;
}

Server read_server(const Entry& from) {
    from.expect_members(with_words({"name"}, server_words));
    Server server{.name = from.at("name").name(sizeof(shmnm_server::name)), .record = {}, .combstat = {}};
    read_words(from, server_words, server);
    return server;
}

Resource read_resource(const Entry& from, const ResourceKind& kind, size_t servers) {
    std::set<std::string> names = with_words({"type", "name", "descript"}, resource_words);
    for (const RowWord& word : row_words) {
        if (kind.*word.set) names.insert(word.key);
    }
    from.expect_members(names);
    Resource resource{.type = from.at("type").name(sizeof(shmnm_resource::type)),
                      .name = from.at("name").name(sizeof(shmnm_resource::name)),
                      .record = {},
                      .descript = {},
                      .svstat = {},
                      .network = {}};
    read_words(from, resource_words, resource);
    resource.descript = read_description(from.at("descript"));
    for (const RowWord& word : row_words) {
        if (!(kind.*word.set)) continue;
        std::vector<uint32_t>& states = (resource.*word.row).states;
        from.at(word.key).for_each([&](const Entry& state, size_t) { states.push_back(state.number<uint32_t>()); },
                                   servers);
    }
    return resource;
}

FstPid read_pid(const Entry& from) {
    std::set<std::string> names = {"name"};
    for (const PidWord& word : pid_words) names.insert(word.member);
    from.expect_members(names);
    FstPid record;
    record.name = from.at("name").name(sizeof(shmnm_fst_pid::name));
    for (const PidWord& word : pid_words) {
        std::visit(
            [&](const auto& member) {
                auto& values = record.*member;
                using Number = std::remove_reference_t<decltype(values[0])>;
                from.at(word.member)
                    .for_each([&](const Entry& value, size_t kind) { values[kind] = value.number<Number>(); },
                              values.size());
            },
            word.values);
    }
    return record;
}

void read_fst(const Entry& from, Document& document) {
    std::set<std::string> names = {"descript", "pids"};
    for (const FstWord& word : fst_words) names.insert(word.key);
    from.expect_members(names);
    if (document.counts.fst > 0) {
        Fst fst{.record = {}, .descript = {}};
        read_words(from, fst_words, fst);
        fst.descript = read_description(from.at("descript"));
        document.picture.fst = std::move(fst);
    } else if (!from.at("stat").is_null() || !from.at("descript").is_null()) {
        from.refuse("is not empty although counts.fst is 0");
    }
    from.at("pids").for_each([&](const Entry& each, size_t) { document.picture.fst_pids.push_back(read_pid(each)); });
}

/// Writes into the header what it counts.
void count_records(Document& document) {
    shmnm_header& header = document.picture.header;
    header.fst_count = document.counts.fst;
    header.fst_pid_limit = document.counts.servers * document.counts.fst;
    header.server_count = static_cast<int32_t>(document.picture.servers.size());
    header.hb_count = static_cast<int32_t>(document.picture.hb.size());
    header.np_count = static_cast<int32_t>(document.picture.np.size());
    header.fst_pid_count = static_cast<int32_t>(document.picture.fst_pids.size());
}

Counts read_counts(const Entry& from) {
    std::set<std::string> names;
    Counts counts;
    for (const Count& count : counts_of_region) {
        names.insert(count.key);
        const Entry entry = from.at(count.key);
        counts.*count.number = entry.number<int32_t>();
        if (counts.*count.number < 0) entry.refuse("is below 0");
    }
    from.expect_members(names);
    if (Layout(counts).size > UINT32_MAX) from.refuse("are those of a region larger than 4 GiB");
    return counts;
}

}  // namespace

Document document_of_rest(const Snapshot& snapshot) {
    Document document{snapshot.counts, decode(snapshot)};
    // It is not of the region.
    document.picture.bridge.reset();
    return document;
}

Document document_of(const Snapshot& snapshot) {
    const uint64_t expected = Layout(snapshot.counts).size;
    if (expected != snapshot.bytes.size()) {
        throw Error(ErrorKind::damaged, fmt::format("a region for {} has {} bytes, not {}", to_text(snapshot.counts),
                                                    expected, snapshot.bytes.size()));
    }
    Document document = document_of_rest(snapshot);
    const Picture& picture = document.picture;
    const auto expect_all = [](const char* what, size_t decoded, int32_t counted) {
        if (counted >= 0 && decoded == static_cast<size_t>(counted)) return;
        throw Error(ErrorKind::damaged,
                    fmt::format("the header counts {} {}, but the bytes hold {}", counted, what, decoded));
    };
    expect_all("servers", picture.servers.size(), picture.header.server_count);
    expect_all("hb resources", picture.hb.size(), picture.header.hb_count);
    expect_all("np resources", picture.np.size(), picture.header.np_count);
    expect_all("names with process ids", picture.fst_pids.size(), picture.header.fst_pid_count);
    return document;
}

Json to_json(const Document& document) {
    const Picture& picture = document.picture;
    Json json = picture::document(kind_of_document);
    for (const Count& count : counts_of_region) json["counts"][count.key] = document.counts.*count.number;
    add_words(json["cluster"], cluster_words, picture);
    json["servers"] = Json::array();
    for (const Server& server : picture.servers) {
        Json one = {{"name", escaped(server.name)}};
        add_words(one, server_words, server);
        json["servers"].push_back(std::move(one));
    }
    for (const ResourceKind& kind : resource_kinds) json[kind.key] = to_json(picture, kind);
    Json& fst = json["fst"];
    for (const FstWord& word : fst_words)
        fst[word.key] = picture.fst ? to_json(word.source.value(*picture.fst)) : Json();
    fst["descript"] = picture.fst ? Json(escaped(picture.fst->descript)) : Json();
    fst["pids"] = Json::array();
    for (const FstPid& record : picture.fst_pids) fst["pids"].push_back(to_json(record));
    return json;
}

Document document_from(std::string_view text) {
    const Json json = Json::parse(text, nullptr, false);
    const Entry from(json, "");
    if (json.is_discarded() || !json.is_object() || json.value("kind", Json()) != kind_of_document) {
        from.refuse("is not a picture in JSON");
    }
    if (json.value("version", Json()) != Json(1)) from.refuse("has another version than 1");
    std::set<std::string> names = {"version", "kind", "counts", "cluster", "servers", "fst"};
    for (const ResourceKind& kind : resource_kinds) names.insert(kind.key);
    from.expect_members(names);

    const Counts counts = read_counts(from.at("counts"));
    Document document{
        counts, {.header = {}, .layout = Layout(counts), .servers = {}, .hb = {}, .np = {}, .fst = {}, .fst_pids = {}}};
    Picture& picture = document.picture;
    from.at("cluster").expect_members(with_words({}, cluster_words));
    read_words(from.at("cluster"), cluster_words, picture);
    from.at("servers").for_each([&](const Entry& each, size_t) { picture.servers.push_back(read_server(each)); });
    for (const ResourceKind& kind : resource_kinds) {
        from.at(kind.key).for_each([&](const Entry& each, size_t) {
            (picture.*kind.resources).push_back(read_resource(each, kind, picture.servers.size()));
        });
    }
    read_fst(from.at("fst"), document);
    count_records(document);
    return document;
}

Document read_document(const std::string& file) {
    return document_in(read_file(file), file);
}

Document document_in(std::vector<uint8_t> bytes, const std::string& file) {
    try {
        // A header has zeros, a text has none.
        if (std::find(bytes.begin(), bytes.end(), uint8_t{0}) == bytes.end()) {
            return document_from({reinterpret_cast<const char*>(bytes.data()), bytes.size()});
        }
    } catch (const Error& error) {
        throw Error(error.kind, fmt::format("cannot read {}: {}", shown_file(file), error.what()));
    }
    return document_of(dump_of(std::move(bytes), file));
}

}  // namespace picture
