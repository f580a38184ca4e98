#include "picture/laid_out.h"

#include <fmt/format.h>

#include <cstdlib>
#include <cstring>
#include <optional>

#include "picture/error.h"
#include "picture/escape.h"
#include "shmnm.h"

namespace picture {
namespace {

shmnm_header header_of(const Snapshot& snapshot) {
    shmnm_header header;
    std::memcpy(&header, snapshot.bytes.data(), sizeof header);
    return header;
}

/// Whether shmnm_clear() was called, and no process has attached since: the maxima are 0, and so nothing was added.
bool is_cleared(const Snapshot& snapshot) {
    const shmnm_header header = header_of(snapshot);
    return snapshot.header_counts() == Counts{} && header.fst_pid_limit == 0 && header.server_count == 0 &&
           header.hb_count == 0 && header.np_count == 0 && header.fst_pid_count == 0;
}

/// The counts of a region of this size whose maxima were changed. A change leaves the number of fst resources and the
/// limit of process ids, so that the servers are known; of the pairs of hb and np that have this size, the one nearest
/// to the header's. Nothing when no region with as many records has this size.
std::optional<Counts> counts_before_a_change(const Snapshot& dump) {
    const shmnm_header header = header_of(dump);
    const int32_t fst = header.fst_count, limit = header.fst_pid_limit;
    if (fst < 0 || (fst > 0 && (limit < 1 || limit % fst != 0))) return std::nullopt;
    const int32_t servers = fst > 0 ? limit / fst : header.max_servers;
    const Layout without(Counts{servers, 0, 0, fst});
    if (servers < 1 || servers < header.server_count || without.size > dump.bytes.size()) return std::nullopt;
    constexpr uint64_t word = sizeof(uint32_t), record = sizeof(shmnm_resource) / word;
    const uint64_t rest = dump.bytes.size() - without.size, column = word * static_cast<uint64_t>(servers);
    if (rest % column != 0) return std::nullopt;
    // For each server an hb resource has two words beside its record, an np resource one.
    const uint64_t words = rest / column;
    std::optional<Counts> found;
    int64_t least = INT64_MAX;
    for (uint64_t both = (words + record + 1) / (record + 2); both * (record + 1) <= words; ++both) {
        const auto hb = static_cast<int64_t>(words - both * (record + 1)), np = static_cast<int64_t>(both) - hb;
        const int64_t changed = std::abs(hb - header.max_hb) + std::abs(np - header.max_np);
        if (hb < header.hb_count || np < header.np_count || changed >= least) continue;
        least = changed;
        found = Counts{servers, static_cast<int32_t>(hb), static_cast<int32_t>(np), fst};
    }
    return found;
}

std::string changed_maxima(const Counts& header, const Counts& laid_out) {
    return fmt::format("the maxima in the header were changed: it has {}, and the region was laid out for {}",
                       to_text(header), to_text(laid_out));
}

constexpr uint64_t most_bytes = uint64_t{1} << 32;

constexpr const char* cleared = "the header was cleared, and no process has attached since";

}  // namespace

std::string settle_dump(Snapshot& dump, const std::string& file) {
    const Counts header = dump.header_counts();
    const uint64_t size = Layout(header).size;
    if (size == dump.bytes.size()) return "";
    if (is_cleared(dump)) return cleared;
    if (const auto counts = counts_before_a_change(dump)) {
        dump.counts = *counts;
        return changed_maxima(header, *counts);
    }
    // No region has such maxima, so these bytes are no header.
    if (size > most_bytes) throw Error(ErrorKind::not_a_dump, fmt::format("{} is not a dump", shown_file(file)));
    throw Error(ErrorKind::not_whole, fmt::format("{} was cut or is not a dump: it has {} bytes, and its header asks "
                                                  "for {} bytes",
                                                  shown_file(file), dump.bytes.size(), size));
}

std::string doubt_about(const Snapshot& live) {
    const Counts header = live.header_counts();
    if (live.counts == header && live.bytes.size() == Layout(header).size) return "";
    if (is_cleared(live)) return cleared;
    if (live.bytes.size() == Layout(live.counts).size) return changed_maxima(header, live.counts);
    return fmt::format("the maxima in the header were changed: {} do not fit the region's {} bytes", to_text(header),
                       live.mapped);
}

}  // namespace picture
