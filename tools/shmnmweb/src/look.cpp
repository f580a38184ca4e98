#include "look.h"

#include <algorithm>
#include <cstring>
#include <set>
#include <string_view>
#include <tuple>
#include <utility>

#include "picture/json.h"

namespace shmnmweb {
namespace {

using picture::Json;

/// Whether records share a key.
template <typename Record, typename Key>
bool has_double(const std::vector<Record>& records, const Key& key) {
    std::set<decltype(key(records.front()))> seen;
    return !std::all_of(records.begin(), records.end(),
                        [&](const Record& record) { return seen.insert(key(record)).second; });
}

/// Whether there are records of which no word tells: words tell only of the first of several with one name.
bool has_double_names(const picture::Picture& decoded) {
    const auto name = [](const auto& record) { return std::string_view(record.name); };
    const auto type_and_name = [](const picture::Resource& resource) { return std::tie(resource.type, resource.name); };
    return has_double(decoded.servers, name) || has_double(decoded.hb, type_and_name) ||
           has_double(decoded.np, type_and_name) || has_double(decoded.fst_pids, name);
}

/// The document without the words that events tell of.
std::string structure_of(const picture::Snapshot& snapshot, const picture::Picture& decoded) {
    if (has_double_names(decoded)) return picture::to_json(snapshot, decoded).dump();
    std::string text;
    const auto add = [&](const std::string& part) {
        text += std::to_string(part.size());
        text += ':';
        text += part;
    };
    const shmnm_header& header = decoded.header;
    for (const int32_t count : {header.server_count, header.hb_count, header.np_count, header.fst_count,
                                header.fst_pid_count, header.fst_pid_limit}) {
        add(std::to_string(count));
    }
    add(std::to_string(snapshot.bytes.size()));
    for (const picture::Server& server : decoded.servers) add(server.name);
    for (const auto* const resources : {&decoded.hb, &decoded.np}) {
        add(std::to_string(resources->size()));
        for (const picture::Resource& resource : *resources) {
            add(resource.type);
            add(resource.name);
            add(resource.descript);
        }
    }
    if (decoded.fst) add(decoded.fst->descript);
    for (const picture::FstPid& record : decoded.fst_pids) add(record.name);
    add(picture::to_json(picture::interrupted_in(snapshot)).dump());
    return text;
}

bool is_same(const std::optional<shmnm::Note>& one, const std::optional<shmnm::Note>& other) {
    if (one.has_value() != other.has_value()) return false;
    return !one || std::memcmp(&*one, &*other, sizeof *one) == 0;
}

}  // namespace

Content::Content(picture::Snapshot copy)
    : snapshot(std::move(copy)),
      decoded(picture::decode(snapshot)),
      words(picture::words(decoded)),
      structure(structure_of(snapshot, decoded)) {}

const std::string& Content::document() const {
    std::call_once(document_made_, [this] { document_ = picture::status_line(snapshot, decoded); });
    return document_;
}

bool Content::equals(const picture::Snapshot& other) const {
    return snapshot.object == other.object && snapshot.mapped == other.mapped && snapshot.counts == other.counts &&
           snapshot.configured == other.configured && snapshot.bytes == other.bytes &&
           is_same(snapshot.note, other.note);
}

}  // namespace shmnmweb
