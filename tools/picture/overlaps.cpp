#include "picture/overlaps.h"

#include <algorithm>
#include <array>
#include <cstddef>

#include "picture/words.h"

namespace picture {

Ranges intersections(const Range& range, const Ranges& others) {
    Ranges common;
    for (const Range& other : others) {
        const Range both{std::max(range.begin, other.begin), std::min(range.end, other.end)};
        if (both.begin < both.end) common.push_back(both);
    }
    std::sort(common.begin(), common.end(), [](const Range& a, const Range& b) { return a.begin < b.begin; });
    return common;
}

bool touches(const Ranges& ranges, uint64_t begin, uint64_t end) {
    return std::any_of(ranges.begin(), ranges.end(),
                       [&](const Range& range) { return range.begin < end && begin < range.end; });
}

uint64_t resource_step(const Counts& counts) {
    return record_size + word_size * static_cast<uint64_t>(counts.servers);
}

Owners::Owners(const Counts& counts) {
    const Layout layout(counts);
    for (const ResourceKind& kind : resource_kinds) {
        const uint64_t start = layout.*kind.table;
        resources.push_back({start, start + resource_step(counts) * static_cast<uint64_t>(counts.*kind.count)});
    }
    const uint64_t row = word_size * static_cast<uint64_t>(counts.servers);
    const Range network{layout.network, layout.network + row * static_cast<uint64_t>(counts.hb)};
    others_ = {{layout.fst_pids, layout.network}, network};
    if (counts.fst > 0) {
        const uint64_t descript = layout.fst + offsetof(shmnm_resource, descript);
        const uint64_t stat = layout.fst + offsetof(shmnm_resource, stat);
        others_.push_back({descript, descript + sizeof(shmnm_resource::descript)});
        others_.push_back({stat, stat + word_size});
    }
}

Ranges Owners::beside(const ResourceKind& kind) const {
    Ranges all = others_;
    for (size_t i = 0; i < resources.size(); ++i) {
        if (&resource_kinds[i] != &kind) all.push_back(resources[i]);
    }
    return all;
}

Slots::Slots(uint64_t start, uint64_t step, uint64_t count, const Ranges& others)
    : start_(start), step_(step), shared_(intersections({start, start + step * count}, others)) {
    if (shared_.empty()) return;
    std::array<int64_t, record_size + 1> last;
    last.fill(-1);
    for (const Range& range : shared_) {
        // The last step of a range covers every byte of a record that any part of the range covers.
        for (uint64_t at = std::max(range.begin, range.end - std::min(range.end, step_)); at < range.end; ++at) {
            const uint64_t field = (at - start_) % step_;
            if (field >= record_size) continue;
            last[field] = std::max(last[field], static_cast<int64_t>((at - start_) / step_));
        }
    }
    for (uint64_t begin = 0, end = 1; end <= record_size; ++end) {
        if (last[end] == last[begin] && end < record_size) continue;
        if (last[begin] >= 0) shared_fields_.push_back({{begin, end}, last[begin]});
        begin = end;
    }
}

Ranges Slots::doubtful(int32_t position) const {
    Ranges ranges;
    for (const SharedField& field : shared_fields_) {
        if (field.last < position) continue;
        ranges.push_back({at(position) + field.bytes.begin, at(position) + field.bytes.end});
    }
    return ranges;
}

}  // namespace picture
