#include "picture/json.h"

#include <algorithm>
#include <utility>

#include "picture/escape.h"
#include "picture/interrupted.h"

namespace picture {
namespace {

Json cluster(const Picture& picture) {
    const shmnm_header& header = picture.header;
    return {{"waitstat", header.waitstat},
            {"bwflag", header.bwflag},
            {"bwflagdisk", header.bwflagdisk},
            {"clstat", header.clstat},
            {"hbinfo_a", static_cast<uint32_t>(header.hbinfo_a)},
            {"hbinfo_b", static_cast<uint32_t>(header.hbinfo_b)},
            {"alive", picture.is_any_alive()}};
}

Json region(const Snapshot& snapshot, const Picture& picture) {
    const shmnm_header& header = picture.header;
    return {{"live", snapshot.live},
            {"size", snapshot.bytes.size()},
            {"max_servers", header.max_servers},
            {"max_hb", header.max_hb},
            {"max_np", header.max_np},
            {"fst_count", header.fst_count},
            {"fst_pid_limit", header.fst_pid_limit},
            {"server_count", header.server_count},
            {"hb_count", header.hb_count},
            {"np_count", header.np_count},
            {"fst_pid_count", header.fst_pid_count}};
}

/// An object of many, built member by member: as a list of lists each member would be built several times.
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

Json servers(const Picture& picture) {
    Json all = Json::array();
    for (const Server& server : picture.servers) {
        all.push_back(Object(11)
                          .add("name", escaped(server.name))
                          .add("pri", server.pri)
                          .add("nodestat", server.nodestat)
                          .add("nodestat_nw", server.nodestat_nw)
                          .add("downnotifystat", server.downnotifystat)
                          .add("isolateflag", server.isolateflag)
                          .add("pingstat", server.pingstat)
                          .add("holdstat", server.holdstat)
                          .add("dfailstatus", server.dfailstatus)
                          .add("combstat", to_json(Value(server.combstat)))
                          .add("alive", server.is_alive())
                          .take());
    }
    return all;
}

Json resources(const std::vector<Resource>& resources, bool has_network_rows) {
    Json all = Json::array();
    for (const Resource& resource : resources) {
        Object one(7);
        one.add("type", escaped(resource.type))
            .add("name", escaped(resource.name))
            .add("pri", resource.pri)
            .add("stat", resource.stat)
            .add("descript", escaped(resource.descript))
            .add("svstat", resource.svstat);
        if (has_network_rows) one.add("network", resource.network);
        all.push_back(one.take());
    }
    return all;
}

Json simulation(const Picture& picture) {
    Json failed = Json::array();
    for (const Server& server : picture.servers) {
        if (server.dfailstatus != 0) failed.push_back(escaped(server.name));
    }
    return {{"dfailstatus", picture.header.dfailstatus}, {"failed", std::move(failed)}};
}

Json fst(const Picture& picture) {
    Json pids = Json::array();
    for (const FstPid& record : picture.fst_pids) {
        Json data = Json::array();
        for (const uint64_t value : record.piddata) data.push_back(std::to_string(value));
        pids.push_back(
            Object(3).add("name", escaped(record.name)).add("pid", record.pid).add("piddata", std::move(data)).take());
    }
    Json one = {{"stat", nullptr}, {"descript", nullptr}, {"pids", std::move(pids)}};
    if (picture.fst) {
        one["stat"] = picture.fst->stat;
        one["descript"] = escaped(picture.fst->descript);
    }
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
    // Each key is there once, which an insertion would look for again.
    for (const Word& word : words) listed.emplace_back(word.key, to_json(word.value));
    return listed;
}

Json to_json(const Snapshot& snapshot, const Picture& picture) {
    Json status = document("status");
    status["region"] = region(snapshot, picture);
    status["cluster"] = cluster(picture);
    status["servers"] = servers(picture);
    status["hb"] = resources(picture.hb, true);
    status["np"] = resources(picture.np, false);
    status["simulation"] = simulation(picture);
    status["fst"] = fst(picture);
    status["interrupted"] = to_json(interrupted_in(snapshot));
    return status;
}

}  // namespace picture
