#include "picture/decode.h"

#include <algorithm>
#include <cstring>

#include "picture/in_use.h"
#include "picture/words.h"

namespace picture {
namespace {

/// The states from a place on, as many of `count` as lie in the copy.
std::vector<uint32_t> states(const Snapshot& snapshot, uint64_t offset, uint64_t count) {
    if (offset >= snapshot.bytes.size()) return {};
    std::vector<uint32_t> row(std::min(count, (snapshot.bytes.size() - offset) / sizeof(uint32_t)));
    if (!row.empty()) std::memcpy(row.data(), snapshot.bytes.data() + offset, row.size() * sizeof(uint32_t));
    return row;
}

/// The record at a place, all of which lies in the copy.
template <typename Record>
Record record_at(const Snapshot& snapshot, uint64_t at) {
    Record record;
    std::memcpy(&record, snapshot.bytes.data() + at, sizeof record);
    return record;
}

std::string description(const shmnm_resource& record) {
    size_t length = sizeof record.descript;
    while (length > 0 && record.descript[length - 1] == 0) --length;
    return {record.descript, record.descript + length};
}

Server server_at(const Snapshot& snapshot, const shmnm_header& header, uint64_t at) {
    const auto record = record_at<shmnm_server>(snapshot, at);
    return {.name = snapshot.text(at, sizeof record.name),
            .record = record,
            .combstat = combined_state(record.nodestat, header.waitstat, record.isolateflag),
            .offset = at};
}

std::vector<Resource> resources(const Snapshot& snapshot, const InUse& used, size_t kind) {
    const RecordsInUse& table = used.resources[kind];
    std::vector<Resource> found;
    for (int32_t i = 0; i < table.count; ++i) {
        const uint64_t at = table.at(i);
        Resource resource{.type = snapshot.text(at + offsetof(shmnm_resource, type), sizeof(shmnm_resource::type)),
                          .name = snapshot.text(at, sizeof(shmnm_resource::name)),
                          .record = record_at<shmnm_resource>(snapshot, at),
                          .descript = {},
                          .svstat = {.states = states(snapshot, at + sizeof(shmnm_resource), used.columns),
                                     .offset = at + sizeof(shmnm_resource)},
                          .network = {},
                          .offset = at};
        resource.descript = description(resource.record);
        if (resource_kinds[kind].set_network_state) {
            const uint64_t row = used.network_row(i);
            resource.network = {.states = states(snapshot, row, used.columns), .offset = row};
        }
        found.push_back(std::move(resource));
    }
    return found;
}

FstPid fst_pid_at(const Snapshot& snapshot, uint64_t at) {
    FstPid record;
    record.name = snapshot.text(at, sizeof(shmnm_fst_pid::name));
    for (size_t kind = 0; kind < record.pid.size(); ++kind) {
        record.pid[kind] = snapshot.word(at + offsetof(shmnm_fst_pid, pid) + sizeof(uint32_t) * kind);
        record.piddata[kind] = snapshot.long_word(at + offsetof(shmnm_fst_pid, piddata) + sizeof(uint64_t) * kind);
    }
    record.offset = at;
    return record;
}

}  // namespace

std::optional<uint32_t> combined_state(uint32_t nodestat, uint32_t waitstat, uint32_t isolateflag) {
    constexpr uint32_t waiting = 0x10002, unknown = 9;
    if (nodestat == 1) {
        if (waitstat == 2) return waiting;
        if (waitstat > 2) return unknown;
        if (isolateflag == 0) return 1;
        if (isolateflag == 1) return 0x10;
        return std::nullopt;
    }
    if (nodestat == 2) {
        if (waitstat == 2) return waiting;
        return waitstat == 0 || waitstat == 3 ? 2 : unknown;
    }
    return unknown;
}

Picture decode(const Snapshot& snapshot) {
    const auto header = record_at<shmnm_header>(snapshot, 0);
    const InUse used(header, snapshot.counts, snapshot.bytes.size());
    Picture picture{
        .header = header, .layout = used.layout, .servers = {}, .hb = {}, .np = {}, .fst = {}, .fst_pids = {}};
    for (int32_t i = 0; i < used.servers.count; ++i) {
        picture.servers.push_back(server_at(snapshot, header, used.servers.at(i)));
    }
    for (size_t kind = 0; kind < std::size(resource_kinds); ++kind) {
        picture.*resource_kinds[kind].resources = resources(snapshot, used, kind);
    }
    if (used.fst) {
        const auto record = record_at<shmnm_resource>(snapshot, used.layout.fst);
        picture.fst = Fst{.record = record, .descript = description(record), .offset = used.layout.fst};
    }
    for (int32_t i = 0; i < used.fst_pids.count; ++i) {
        picture.fst_pids.push_back(fst_pid_at(snapshot, used.fst_pids.at(i)));
    }
    picture.bridge = snapshot.bridge;
    return picture;
}

}  // namespace picture
