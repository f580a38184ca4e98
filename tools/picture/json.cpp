#include "picture/json.h"

#include <iterator>
#include <utility>
#include <variant>

#include "picture/escape.h"
#include "picture/words.h"

namespace picture {
namespace {

/// An object that is built member by member. From an initializer list, each member would be copied several times.
class Object {
  public:
    explicit Object(size_t members) { members_.reserve(members); }
    template <typename Type>
    Object& add(const char* name, Type&& value) {
        members_.emplace_back(name, std::forward<Type>(value));
        return *this;
    }
    Json take() { return std::move(members_); }

  private:
    Json::object_t members_;
};

template <typename Source, typename Part>
Json shown(const Source& source, const Part& part) {
    const Value value = source.value(part);
    return source.is_flag() ? Json(value != Value(0u)) : to_json(value);
}

Json cluster(const Picture& picture) {
    Object one(std::size(cluster_words));
    for (const ClusterWord& word : cluster_words) {
        if (word.is_state()) one.add(word.key, shown(word.source, picture));
    }
    return one.take();
}

Json region(const Snapshot& snapshot, const Picture& picture) {
    Object one(16);
    one.add("live", snapshot.live).add("size", snapshot.bytes.size());
    // Here, unlike in the words, a damaged count shows its sign.
    for (const ClusterWord& word : cluster_words) {
        if (word.count) one.add(word.key, picture.header.*word.source.number());
    }
    one.add("fst_count", picture.header.fst_count).add("fst_pid_limit", picture.header.fst_pid_limit);
    for (const TableCount* const table : table_counts) one.add(table->key, picture.header.*table->count);
    return one.take();
}

Json servers(const Picture& picture) {
    Json all = Json::array();
    for (const Server& server : picture.servers) {
        Object one(std::size(server_words) + 1);
        one.add("name", escaped(server.name));
        for (const ServerWord& word : server_words) one.add(word.key, shown(word.source, server));
        all.push_back(one.take());
    }
    return all;
}

Json resources(const Picture& picture, const ResourceKind& kind) {
    Json all = Json::array();
    for (const Resource& resource : picture.*kind.resources) {
        Object one(7);
        one.add("type", escaped(resource.type)).add("name", escaped(resource.name));
        for (const ResourceWord& word : resource_words) one.add(word.key, shown(word.source, resource));
        one.add("descript", escaped(resource.descript));
        for (const RowWord& word : row_words) {
            if (kind.*word.set) one.add(word.key, (resource.*word.row).states);
        }
        all.push_back(one.take());
    }
    return all;
}

Json simulation(const Picture& picture) {
    Json one;
    for (const ClusterWord& word : cluster_words) {
        if (std::holds_alternative<BySimulation>(word.set)) one[word.key] = shown(word.source, picture);
    }
    one["failed"] = Json::array();
    for (const Server& server : picture.servers) {
        if (server.is_simulated()) one["failed"].push_back(escaped(server.name));
    }
    return one;
}

Json to_json(uint32_t pid) {
    return pid;
}
/// As text: many readers of JSON would round it.
Json to_json(uint64_t data) {
    return std::to_string(data);
}

Json pids(const Picture& picture) {
    Json all = Json::array();
    for (const FstPid& record : picture.fst_pids) {
        Object one(std::size(pid_words) + 1);
        one.add("name", escaped(record.name));
        for (const PidWord& word : pid_words) {
            Json values = Json::array();
            std::visit(
                [&](const auto& member) {
                    for (const auto value : record.*member) values.push_back(to_json(value));
                },
                word.values);
            one.add(word.member, std::move(values));
        }
        all.push_back(one.take());
    }
    return all;
}

Json fst(const Picture& picture) {
    Json one;
    for (const FstWord& word : fst_words) one[word.key] = picture.fst ? shown(word.source, *picture.fst) : Json();
    one["descript"] = picture.fst ? Json(escaped(picture.fst->descript)) : Json();
    one["pids"] = pids(picture);
    return one;
}

}  // namespace

Json document(const char* kind) {
    return Json{{"version", 1}, {"kind", kind}};
}

std::string line(const Json& document) {
    return document.dump() + "\n";
}

Json to_json(const Value& value) {
    constexpr uint64_t exact = uint64_t{1} << 53;
    if (const auto number = value.to_int32()) return *number;
    if (const auto number = value.to_uint64()) return *number <= exact ? Json(*number) : Json(value.to_text());
    return nullptr;
}

Json to_json(const std::vector<Word>& words) {
    Json::object_t listed;
    listed.reserve(words.size());
    // Each key occurs once, so there is no need to search for it at each insertion.
    for (const Word& word : words) listed.emplace_back(word.key, to_json(word.value));
    return listed;
}

Json to_json(const std::vector<Interrupted>& all) {
    Json list = Json::array();
    for (const Interrupted& one : all) {
        list.push_back(
            {{"process", one.process}, {"call", one.call}, {"change", one.change}, {"superseded", one.superseded}});
    }
    return list;
}

Json to_json(const Snapshot& snapshot, const Picture& picture) {
    Json status = document("status");
    status["region"] = region(snapshot, picture);
    status["cluster"] = cluster(picture);
    status["servers"] = servers(picture);
    for (const ResourceKind& kind : resource_kinds) status[kind.key] = resources(picture, kind);
    status["simulation"] = simulation(picture);
    status["fst"] = fst(picture);
    status["interrupted"] = to_json(interrupted_in(snapshot));
    return status;
}

}  // namespace picture
