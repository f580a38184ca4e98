#include "picture/in_use.h"

#include "picture/words.h"

namespace picture {
namespace {

/// How far damaged counts are followed: more records, and more pairs of a resource and a server, than clusters have.
constexpr int32_t most_records = 512;
constexpr uint64_t most_pairs = 4096;

/// How many of `count` records of `bytes` each lie in a region of this size.
int32_t visible(uint64_t size, const RecordsInUse& records, uint64_t bytes, int32_t count) {
    if (count <= 0 || records.step <= 0 || records.start > size || bytes > size - records.start) return 0;
    const uint64_t more = (size - records.start - bytes) / static_cast<uint64_t>(records.step);
    return more < static_cast<uint64_t>(count) ? static_cast<int32_t>(more) + 1 : count;
}

}  // namespace

static_assert(std::size(resource_kinds) == 2);

InUse::InUse(const shmnm_header& header, const Counts& counts, uint64_t size) : layout(counts), size_(size) {
    const bool room_is_known = layout.size == size;
    // A count of records, but no more than their table has room for; than `most_records`, if nobody knows its room.
    const auto followed = [&](int32_t count, int64_t room) {
        return static_cast<int32_t>(
            std::min<int64_t>(count, room_is_known ? std::max<int64_t>(room, most_records) : most_records));
    };
    servers = {layout.servers, sizeof(shmnm_server), 0};
    servers.count = visible(size, servers, sizeof(shmnm_server), followed(header.server_count, counts.servers));

    const int64_t stride = header.max_servers;
    // A row has as many words as the header allows servers; there may be more servers in a damaged region.
    columns = stride < 0 ? 0 : static_cast<uint64_t>(std::min<int64_t>(stride, servers.count));
    // A table has a reserve of 584 bytes for each of its pairs.
    const uint64_t pairs = std::max<uint64_t>(size / sizeof(shmnm_resource), most_pairs);
    const uint64_t rows = servers.count == 0 ? INT32_MAX : pairs / static_cast<uint64_t>(servers.count);
    const int64_t row = stride * static_cast<int64_t>(sizeof(uint32_t));
    network_ = {layout.network, row, 0};
    for (size_t i = 0; i < resources.size(); ++i) {
        const ResourceKind& kind = resource_kinds[i];
        RecordsInUse& table = resources[i];
        table = {layout.*kind.table, static_cast<int64_t>(sizeof(shmnm_resource)) + row, 0};
        table.count = std::min(
            visible(size, table, sizeof(shmnm_resource), followed(header.*kind.in_use->count, counts.*kind.count)),
            static_cast<int32_t>(std::min<uint64_t>(rows, INT32_MAX)));
        if (kind.set_network_state) network_.count = table.count;
    }

    fst = counts.fst > 0 && layout.fst <= size && sizeof(shmnm_resource) <= size - layout.fst;
    fst_pids = {layout.fst_pids, sizeof(shmnm_fst_pid), 0};
    fst_pids.count = visible(size, fst_pids, sizeof(shmnm_fst_pid),
                             followed(header.fst_pid_count, int64_t{counts.servers} * counts.fst));
}

}  // namespace picture
