#include "picture/decode.h"

#include <algorithm>
#include <cstring>

#include "picture/words.h"

namespace picture {
namespace {

/// How many of `count` records of `size` bytes, `step` bytes apart, lie in the copy.
int32_t visible(const Snapshot& snapshot, uint64_t start, int64_t step, uint64_t size, int32_t count) {
    if (count <= 0 || step <= 0 || !snapshot.holds(start, size)) return 0;
    const uint64_t more = (snapshot.bytes.size() - start - size) / static_cast<uint64_t>(step);
    return more < static_cast<uint64_t>(count) ? static_cast<int32_t>(more) + 1 : count;
}

/// How far damaged counts are followed: more records, and more pairs of a resource and a server, than clusters have.
constexpr int32_t most_records = 512;
constexpr uint64_t most_pairs = 4096;

/// A count of records, but no more than their table has room for; than `most_records`, if nobody knows its room.
int32_t followed(int32_t count, const Snapshot& snapshot, const Layout& layout, int64_t room) {
    const bool known = layout.size == snapshot.bytes.size();
    return static_cast<int32_t>(std::min<int64_t>(count, known ? std::max<int64_t>(room, most_records) : most_records));
}

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

std::vector<Resource> resources(const Snapshot& snapshot, const Picture& picture, const ResourceKind& kind) {
    const uint64_t table = picture.layout.*kind.table;
    const int64_t stride = picture.header.max_servers;
    const int64_t step = static_cast<int64_t>(sizeof(shmnm_resource)) + stride * static_cast<int64_t>(sizeof(uint32_t));
    // A row has as many words as the header allows servers; there may be more servers in a damaged region.
    const uint64_t columns = stride < 0 ? 0 : std::min(static_cast<uint64_t>(stride), uint64_t{picture.servers.size()});
    // A table has a reserve of 584 bytes for each of its pairs.
    const uint64_t pairs = std::max<uint64_t>(snapshot.bytes.size() / sizeof(shmnm_resource), most_pairs);
    const uint64_t rows = picture.servers.empty() ? INT32_MAX : pairs / picture.servers.size();
    const int32_t count =
        followed(picture.header.*kind.in_use->count, snapshot, picture.layout, snapshot.counts.*kind.count);
    const auto most = static_cast<int32_t>(std::min<uint64_t>(rows, INT32_MAX));
    const int32_t all = std::min(visible(snapshot, table, step, sizeof(shmnm_resource), count), most);
    std::vector<Resource> found;
    for (int32_t i = 0; i < all; ++i) {
        const uint64_t at = table + static_cast<uint64_t>(i) * static_cast<uint64_t>(step);
        Resource resource{.type = snapshot.text(at + offsetof(shmnm_resource, type), sizeof(shmnm_resource::type)),
                          .name = snapshot.text(at, sizeof(shmnm_resource::name)),
                          .record = record_at<shmnm_resource>(snapshot, at),
                          .descript = {},
                          .svstat = {.states = states(snapshot, at + sizeof(shmnm_resource), columns),
                                     .offset = at + sizeof(shmnm_resource)},
                          .network = {},
                          .offset = at};
        resource.descript = description(resource.record);
        if (kind.set_network_state) {
            const uint64_t row =
                picture.layout.network + sizeof(uint32_t) * static_cast<uint64_t>(stride) * static_cast<uint64_t>(i);
            resource.network = {.states = states(snapshot, row, columns), .offset = row};
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
    Picture picture{
        .header = {}, .layout = Layout(snapshot.counts), .servers = {}, .hb = {}, .np = {}, .fst = {}, .fst_pids = {}};
    picture.header = record_at<shmnm_header>(snapshot, 0);
    const shmnm_header& header = picture.header;
    const Layout& layout = picture.layout;

    const Counts& room = snapshot.counts;
    const int32_t servers = visible(snapshot, layout.servers, sizeof(shmnm_server), sizeof(shmnm_server),
                                    followed(header.server_count, snapshot, layout, room.servers));
    for (int32_t i = 0; i < servers; ++i) {
        picture.servers.push_back(
            server_at(snapshot, header, layout.servers + sizeof(shmnm_server) * static_cast<uint64_t>(i)));
    }
    for (const ResourceKind& kind : resource_kinds) {
        picture.*kind.resources = resources(snapshot, picture, kind);
    }
    if (snapshot.counts.fst > 0 && snapshot.holds(layout.fst, sizeof(shmnm_resource))) {
        const auto record = record_at<shmnm_resource>(snapshot, layout.fst);
        picture.fst = Fst{.record = record, .descript = description(record), .offset = layout.fst};
    }
    const int32_t pids = visible(snapshot, layout.fst_pids, sizeof(shmnm_fst_pid), sizeof(shmnm_fst_pid),
                                 followed(header.fst_pid_count, snapshot, layout, int64_t{room.servers} * room.fst));
    for (int32_t i = 0; i < pids; ++i) {
        picture.fst_pids.push_back(
            fst_pid_at(snapshot, layout.fst_pids + sizeof(shmnm_fst_pid) * static_cast<uint64_t>(i)));
    }
    return picture;
}

}  // namespace picture
